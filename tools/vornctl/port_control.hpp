// What is known of the node's ports, and by whom. Its protocol with the daemon is closed to everybody else, so port
// control is asked as a person asks it (the reference node's command "show"). Another node's does not know that: then
// the daemon is asked for the addresses of all ports that may be, in a session that lasts as long as the question, and
// states are known only of ports with links.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "link_list/link_list.hpp"

namespace vornctl
{

struct port_facts {
    std::string name; // as people write it: "IDL_A1"
    std::string mac;
    std::string interface;           // empty: not known
    std::string name_space;          // of the interface; empty: not known
    bool carries_links = true;       // else it is there for others
    std::optional<bool> unlocked;    // nothing: not known
    std::optional<bool> operational; // likewise
    const char *source = "";         // "port control" or "daemon"
};

// Over the calling thread's mailbox. `links`: what the daemon has, where it is there. Throws failure.
std::vector<port_facts> ask_for_ports(const std::optional<std::vector<link_list::link>> &links);

// From what port control shows; what it does not say stays unknown.
std::vector<port_facts> ports_shown(const nlohmann::json &shown);
// The states that follow from the links on a port.
void add_states_of_links(port_facts &port, const std::vector<link_list::link> &links);

} // namespace vornctl
