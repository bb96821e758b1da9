// The ports that can carry inter-ME links, with their state, namespace and VLANs. The records live until the server is
// gone or the client is initialised again.
#pragma once

#include "iepcsi_messages.hpp"

struct port_vlan {
    uint16_t vlan_id;
    char if_name[16];
    char name_space[256]; // only the first 15 characters are ever stored
    port_vlan *next;
};

struct eth_port {
    uint32_t adm_state;
    uint32_t oper_state;
    mac_address mac;
    char port_name[16]; // as IEPCSI names it; the key of the list
    char if_name[16];
    char name_space[256]; // empty until the first status indication
    port_vlan *vlans;     // newest first
    eth_port *next;
};

// The list itself: the reverse of the order in which the server named the ports.
const eth_port *iepcsi_get_port_list();

// Copies the record; the copy shares the live VLAN list. False, and *out untouched, for an unknown port.
bool iepcsi_fetch_port_data(const char *port_name, eth_port *out);

// *out is null when the port has no such VLAN.
bool iepcsi_find_port_vlan(const eth_port *port, uint16_t vlan_id, const port_vlan **out);

// Adding a VLAN that is there and removing one that is not succeed.
bool iepcsi_add_port_vlan(const char *port_name, const char *if_name, const char *name_space, uint16_t vlan_id);
bool iepcsi_remove_port_vlan(const char *port_name, uint16_t vlan_id);

// ---- For iepcsi_client.cpp, which learns of the ports, and for the tests ----

eth_port *iepcsi_ports_find(const char *port_name);
// Puts a new record at the head of the list; traced and skipped when memory is out.
void iepcsi_ports_insert(const char *port_name, const char *if_name, const mac_address &mac);
void iepcsi_ports_free();
