// The PTP and LLDP endpoints of a port, asked for when the port is unlocked and taken back when it is locked.
#pragma once

#include "vorn_types.hpp"

// PORT_ADM_UNLOCKED or PORT_ADM_LOCKED of an IEPCSI port.
void handle_port_adm_event(const char *iepcsi_port_name, uint32_t event);

// Offers an EMI result (5 to 8); true when a port's request waited for this procedure_ref.
bool handle_port_endpoint_result(uint32_t code, uint32_t procedure_ref);

void port_endpoints_forget_all();
