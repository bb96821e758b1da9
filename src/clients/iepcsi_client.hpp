// The client of the Ethernet port control server. It keeps the list of ports (iepcsi_ports.hpp) true and reports every
// change as an IEPCSI_EVENT.
#pragma once

#include "iepcsi_ports.hpp"

enum iepcsi_client_state_value : uint32_t {
    IEPCSI_CLIENT_INIT = 0,
    IEPCSI_CLIENT_INITIATING = 1,
    IEPCSI_CLIENT_GET_PORT_CAP = 2,
    IEPCSI_CLIENT_INITIATED = 3,
    IEPCSI_CLIENT_FAULTY = 4,
};

void iepcsi_client_init(client_event_handler handler);

// True when the message is one of this client's.
bool iepcsi_client_dispatch(const itc_msg *msg);

uint32_t iepcsi_client_state();
const char *iepcsi_client_state_to_string(uint32_t state);

// Back to how the process starts; frees every record and tells nobody.
void iepcsi_client_forget_all();

// ---- Events, for the tests ----

// PORT_OPER_UP to PORT_ADM_LOCKED.
void iepcsi_raise_port_event(uint32_t event_id, const char *port_name);
// PORT_VLAN_ADDED and PORT_VLAN_REMOVED.
void iepcsi_raise_vlan_event(uint32_t event_id, uint16_t vlan_id, const char *port_name);
