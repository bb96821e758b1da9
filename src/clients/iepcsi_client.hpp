// The client of the Ethernet port control server. It keeps the ports that can carry inter-ME links, with their state,
// namespace and VLANs, and reports every change as an IEPCSI_EVENT. The records are the client's own and live until
// its server is gone or it is initialised again.
#pragma once

#include "iepcsi_messages.hpp"

enum iepcsi_client_state_value : uint32_t {
    IEPCSI_CLIENT_INIT = 0,
    IEPCSI_CLIENT_INITIATING = 1,
    IEPCSI_CLIENT_GET_PORT_CAP = 2,
    IEPCSI_CLIENT_INITIATED = 3,
    IEPCSI_CLIENT_FAULTY = 4,
};

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

void iepcsi_client_init(client_event_handler handler);

// True when the message is one of this client's.
bool iepcsi_client_dispatch(const itc_msg *msg);

// The list itself: the reverse of the order in which the server named the ports.
const eth_port *iepcsi_get_port_list();

// Copies the record; the copy shares the live VLAN list. False, and *out untouched, for an unknown port.
bool iepcsi_fetch_port_data(const char *port_name, eth_port *out);

// *out is null when the port has no such VLAN.
bool iepcsi_find_port_vlan(const eth_port *port, uint16_t vlan_id, const port_vlan **out);

// Adding a VLAN that is there and removing one that is not succeed.
bool iepcsi_add_port_vlan(const char *port_name, const char *if_name, const char *name_space, uint16_t vlan_id);
bool iepcsi_remove_port_vlan(const char *port_name, uint16_t vlan_id);

uint32_t iepcsi_client_state();
const char *iepcsi_client_state_to_string(uint32_t state);

// Back to how the process starts; frees every record and tells nobody.
void iepcsi_client_forget_all();
