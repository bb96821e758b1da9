// The cables of the stage: two network namespaces, "near" and "far", joined by one veth pair per port. Both ends of a
// pair have the port's interface name. Made inside the sandbox, gone with it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vorn_types.hpp"

inline constexpr const char *NEAR_NAMESPACE = "near";
inline constexpr const char *FAR_NAMESPACE = "far";

struct wire {
    std::string interface; // the same on both sides
    mac_address near_mac;
    mac_address far_mac;
    uint16_t vlan_device = 0; // a VLAN whose own interface the near side has ("tn_a.200"); 0: none
};

// Makes the namespaces and the pairs, all up. Throws std::runtime_error when it cannot.
void wires_lay(const std::vector<wire> &wires);
// Removes both namespaces and the pairs with them. True: nothing is left.
bool wires_remove();

// The interface on the near side that carries a VLAN: its own where the kernel has VLAN devices, else the port's, whose
// frames are then tagged by their sender.
std::string wires_vlan_interface(const wire &wire);
bool wires_kernel_has_vlan_devices();

// Takes the near end of a wire down or up, as an operator would.
void wires_set_near(const std::string &interface, bool up);

std::string mac_to_text(const mac_address &mac);
