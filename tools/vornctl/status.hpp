// What runs of a node and its links, what is missing, and what to do about it. Here: what is known, and what follows
// from that, without asking anybody.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "processes.hpp"

namespace vornctl
{

enum class presence {
    up,
    down,
    unknown // nobody could be asked
};

struct component {
    std::string name;    // "kap-vorn"
    std::string role;    // "the daemon"
    std::string unit;    // "kap-vorn.service"
    std::string package; // that brings it
    bool needed = true;  // else it is only missed where it is installed
    presence there = presence::unknown;
    std::optional<running> process;
    std::optional<unit_facts> managed; // nothing: systemd does not run this machine
    std::string note;

    bool is_missed() const;
    // Since when it is there, or is not.
    std::optional<int64_t> since_us() const;
};

struct down_link {
    std::string name; // empty: has none
    std::string port;
    std::string reason; // "down", "locked", "no connectivity", "rejected", "waiting"
};

struct node_status {
    std::vector<component> components;
    bool systemd = false;
    bool daemon_stale = false; // all that it needs is there, and still it offers nothing
    std::optional<size_t> links, enabled;
    std::vector<down_link> down_links; // those that kap-linkd could not hand to the daemon among them
};

struct advice {
    std::string why;
    std::string command;
};
// What to do next, in the order in which it helps.
std::vector<advice> advice_for(const node_status &status);

} // namespace vornctl
