// One physical port, three names: IEMLI clients say "IDL_A1", IEPCSI and PMI "IDLA1", FMI "DiPort_A1" (port_names.hpp).
#pragma once

#include <cstdint>

#include "clients/iepcsi_client.hpp"
#include "port_names.hpp"

// The state of a port in which it carries links: unlocked by the operator, and operational.
inline constexpr uint32_t ETH_PORT_UNLOCKED = 1;
inline constexpr uint32_t ETH_PORT_OPERATIONAL = 1;

// A row of the table, or one whose names are all "INVALID_PORT".
const port_names &port_of_iemli_name(const char *iemli_name);
const port_names &port_of_iepcsi_name(const char *iepcsi_name);
bool is_known_port(const port_names &port);
// Counts the rows of the table from 0; all that is not in it shares the last number.
inline constexpr uint32_t PORT_NUMBERS = sizeof PORT_NAMES / sizeof *PORT_NAMES + 1;
uint32_t port_number(const port_names &port);
const char *iemli_to_iepcsi_port_name(const char *iemli_name);
const char *iepcsi_to_iemli_port_name(const char *iepcsi_name);

// The FMI name of either form; an unknown name is its own.
const char *port_name_to_fmi_name(const char *name);

// TN ports carry one interface and namespace per VLAN; other ports one for the whole port. False for no name.
bool is_tn_port(const char *name);

// Where a link in `vlan` on this port lives: pointers into the port or VLAN record. A TN port without a record of the
// VLAN leaves both as they are.
void get_port_if_name_and_namespace(const eth_port &port, uint16_t vlan, const char **if_name, const char **name_space);
