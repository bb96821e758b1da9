// An /etc of the sandbox's own, with users that the machine does not have, and programs that these can read wherever
// the checkout lies. Only inside a sandbox.
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

// Where users who may not look into the checkout (it may lie in somebody's home) find what was built. The programs find
// their libraries from where they are themselves.
inline std::string programs_for_everybody(const std::string &bin_dir)
{
    namespace fs = std::filesystem;
    const fs::path place = "/run/built";
    for (const char *part : {"bin", "lib"}) {
        const fs::path from = fs::path(bin_dir).parent_path() / part;
        if (fs::exists(place / part) && umount2((place / part).c_str(), MNT_DETACH) != 0) {
            throw std::runtime_error("cannot give up the last " + from.string());
        }
        fs::create_directories(place / part);
        if (mount(from.c_str(), (place / part).c_str(), nullptr, MS_BIND, nullptr) != 0) {
            throw std::runtime_error("cannot show " + from.string() + " to other users");
        }
    }
    return place / "bin";
}
