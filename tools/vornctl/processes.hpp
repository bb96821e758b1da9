// Since when a program runs, and what the service manager knows of one that does not. Whatever cannot be known stays
// unknown.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace vornctl
{

struct running {
    pid_t pid = 0;
    std::optional<int64_t> since_us; // CLOCK_REALTIME
};

// The process of this pid, as it can be seen here.
std::optional<running> process_of(pid_t pid);
// The only process with this name and, where `word` is not empty, that as the first word of its call. Nothing where
// there is none, or several: then it is not known which is meant.
std::optional<running> process_called(const std::string &name, const std::string &word = "");
// Who listens at a socket. Nothing where that cannot be known.
std::optional<running> process_behind(const std::string &socket_path);

// What systemd has of a unit.
struct unit_facts {
    bool installed = false;
    std::string state;               // "active", "inactive", "failed", ...
    std::string result;              // "success", "exit-code", "signal", ...
    std::optional<int64_t> since_us; // of that state
};
// Of each unit that systemd answers for; empty where it does not run this machine.
std::map<std::string, unit_facts> ask_systemd(const std::vector<std::string> &units);

} // namespace vornctl
