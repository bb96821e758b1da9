// What the kernel says of the network interfaces of a namespace, as the port control server reads it. Filled by
// kernel/interface_watch.cpp from the kernel's messages; tests fill it by hand.
#pragma once

#include "message.hpp"

#include <cstdint>
#include <map>
#include <string>

namespace kap_node
{

struct interface_facts {
    std::string name;
    bool up = false;      // switched on
    bool carrier = false; // and something at the other end
    mac address{};
    int parent = 0; // index of the interface it stands on, 0: none here
    bool is_vlan = false;
    uint16_t vlan_id = 0;
    bool is_bridge_port = false;

    bool operator==(const interface_facts &) const = default;
};

// By interface index.
using interface_table = std::map<int, interface_facts>;

} // namespace kap_node
