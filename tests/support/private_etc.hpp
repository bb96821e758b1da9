// An /etc of the sandbox's own, with users that the machine does not have. Only inside a sandbox.
#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/mount.h>

struct private_user {
    std::string name;
    unsigned id; // of the user and of its group
};

inline void private_etc_make(const std::vector<private_user> &users)
{
    namespace fs = std::filesystem;
    const fs::path copy = "/run/etc";
    if (fs::exists(copy) && umount2("/etc", MNT_DETACH) != 0) {
        throw std::runtime_error("cannot give up the last /etc");
    }
    fs::remove_all(copy);
    fs::create_directories(copy);
    // Only what programs here look for; secrets of the machine are none of it.
    for (const char *name : {"passwd", "group", "nsswitch.conf", "ld.so.cache", "ld.so.conf", "localtime"}) {
        const fs::path from = fs::path("/etc") / name;
        if (fs::exists(from)) {
            fs::copy_file(from, copy / name, fs::copy_options::overwrite_existing);
        }
    }
    std::ofstream passwd(copy / "passwd", std::ios::app);
    std::ofstream group(copy / "group", std::ios::app);
    for (const private_user &user : users) {
        const std::string id = std::to_string(user.id);
        passwd << user.name << ":x:" << id << ":" << id << "::/:/usr/sbin/nologin\n";
        group << user.name << ":x:" << id << ":\n";
    }
    passwd.close();
    group.close();
    if (mount(copy.c_str(), "/etc", nullptr, MS_BIND, nullptr) != 0) {
        throw std::runtime_error("cannot mount an own /etc");
    }
}
