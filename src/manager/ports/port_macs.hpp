// The MACs of the node's own ports.
#pragma once

#include "vorn_types.hpp"

// The port's own MAC, only while the manager is initiated. On false *reason is an IEMLI_REJ_*.
bool fetch_local_supervision_mac(const char *iemli_port_name, mac_address *mac, uint32_t *reason);
// Whether one of the node's own ports has this MAC, only while the manager is initiated (else false and *reason 99).
bool check_mac(const mac_address &mac, uint32_t *reason);
