// A unit of packaging/, and how to run a program as that unit would: its user, its capabilities and its limits. What
// takes a service manager (system calls, mounts, address families) is not done.
#pragma once

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>

struct unit_file {
    std::string path;
    std::multimap<std::string, std::string> settings; // of the section [Service]
};

inline unit_file unit_read(const std::string &path)
{
    unit_file unit{path, {}};
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("no unit " + path);
    }
    bool service = false;
    for (std::string line; std::getline(file, line);) {
        const size_t equals = line.find('=');
        if (line.starts_with("[")) {
            service = line == "[Service]";
        } else if (service && !line.starts_with("#") && equals != std::string::npos) {
            unit.settings.emplace(line.substr(0, equals), line.substr(equals + 1));
        }
    }
    return unit;
}

// The last line of that setting; the default when there is none.
inline std::string unit_setting(const unit_file &unit, const std::string &name, const std::string &otherwise = "")
{
    const auto [first, last] = unit.settings.equal_range(name);
    return first == last ? otherwise : std::prev(last)->second;
}

// "CAP_NET_RAW CAP_SYS_ADMIN" as setpriv takes a set: "-all,+net_raw,+sys_admin".
inline std::string unit_capabilities(const std::string &words)
{
    std::string set = "-all";
    std::istringstream rest(words);
    for (std::string word; rest >> word;) {
        std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return std::tolower(c); });
        if (!word.starts_with("cap_")) {
            throw std::runtime_error("not a capability: " + word);
        }
        set += ",+" + word.substr(4);
    }
    return set;
}

// The numbers of groups, with commas between.
inline std::string unit_groups(const std::string &words)
{
    std::string set;
    std::istringstream rest(words);
    for (std::string word; rest >> word;) {
        const group *known = getgrnam(word.c_str());
        if (known == nullptr) {
            throw std::runtime_error("no group " + word);
        }
        set += (set.empty() ? "" : ",") + std::to_string(known->gr_gid);
    }
    return set;
}

// The words before a program's own that make it what the unit makes it. A unit without a bounding set keeps all.
inline std::vector<std::string> unit_launcher(const unit_file &unit)
{
    const std::string user = unit_setting(unit, "User", "root");
    const passwd *known = getpwnam(user.c_str());
    if (known == nullptr) {
        throw std::runtime_error(unit.path + ": no user " + user);
    }
    const std::string files = unit_setting(unit, "LimitNOFILE");
    std::vector<std::string> words;
    if (!files.empty()) {
        // Only a service manager can give more than it was given itself.
        rlimit own{};
        getrlimit(RLIMIT_NOFILE, &own);
        const std::string most = std::to_string(std::min<rlim_t>(own.rlim_max, std::stoul(files)));
        words = {"prlimit", "--nofile=" + most + ":" + most, "--"};
    }
    const std::string nice = unit_setting(unit, "Nice");
    if (!nice.empty()) {
        words.insert(words.end(), {"nice", "-n", nice});
    }
    words.insert(words.end(), {"setpriv", "--reuid", std::to_string(known->pw_uid), "--regid",
                               std::to_string(known->pw_gid), "--pdeathsig", "SIGKILL"});
    const std::string more = unit_groups(unit_setting(unit, "SupplementaryGroups"));
    words.push_back(more.empty() ? "--clear-groups" : "--groups=" + more);
    const auto bounding = unit.settings.find("CapabilityBoundingSet");
    if (bounding != unit.settings.end()) {
        words.insert(words.end(), {"--bounding-set", unit_capabilities(bounding->second)});
    }
    const std::string ambient = unit_capabilities(unit_setting(unit, "AmbientCapabilities"));
    if (user != "root") {
        words.insert(words.end(), {"--inh-caps", ambient, "--ambient-caps", ambient});
    }
    if (unit_setting(unit, "NoNewPrivileges") == "yes") {
        words.emplace_back("--no-new-privs");
    }
    words.emplace_back("--");
    return words;
}
