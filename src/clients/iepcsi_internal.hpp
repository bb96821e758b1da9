// Between the two halves of the IEPCSI client: iepcsi_ports.cpp keeps the ports and their VLANs, iepcsi_client.cpp
// talks to the server and raises events. Nobody else includes this but their tests.
#pragma once

#include "iepcsi_client.hpp"

// ---- The port list ----

eth_port *iepcsi_ports_find(const char *port_name);
bool iepcsi_ports_empty();
// Puts a new record at the head of the list; traced and skipped when memory is out.
void iepcsi_ports_insert(const iepcsi_port_entry &entry);
void iepcsi_ports_free();

// ---- Events ----

// PORT_OPER_UP to PORT_ADM_LOCKED.
void iepcsi_raise_port_event(uint32_t event_id, const char *port_name);
// PORT_VLAN_ADDED and PORT_VLAN_REMOVED.
void iepcsi_raise_vlan_event(uint32_t event_id, uint16_t vlan_id, const char *port_name);
