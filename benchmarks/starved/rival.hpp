// The rival: two of Debian's BFD daemons (package frr) on a wire of their own, a session for each link of ours. It is
// looked at from outside only: its log says when a session went down, a capture what had arrived by then.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "process.hpp"

inline constexpr const char *RIVAL_NEAR = "bfd-near";
inline constexpr const char *RIVAL_INTERFACE = "bfd0";

struct rival {
    uint32_t sessions = 0;
    std::string directory;
    std::string log; // of the near one
    std::vector<child_process> processes;
};

// The session went up, or down, as the near daemon's log has it.
struct rival_event {
    int64_t at; // nanoseconds of the real-time clock
    uint32_t session;
    bool up;
};

// Throws std::runtime_error, also when the package is not installed.
rival rival_start(const std::string &directory, uint32_t sessions, int interval_ms, int multiplier);
// Throws std::runtime_error when a daemon has ended by itself.
std::vector<rival_event> rival_events(rival &r);
void rival_stop(rival &r);

uint32_t rival_far_address(uint32_t session); // host byte order
