// Access-control rules, default actions and policers of the ports. Every request waits for its answer on the spot, for
// at most 500 ms, so that the operations return their outcome.
//
// Port names are the flow manager's ("DiPort_A1"). Every operation is refused while the client is not initiated.
#pragma once

#include "vorn_types.hpp"

// True when the wanted state is in place.
bool fmi_set_emca_acl_rule(const char *port, const mac_address *macs, uint32_t count);
bool fmi_set_supervision_acl_rule(const char *port, const mac_address *macs, uint32_t count);
bool fmi_set_static_rule(const char *port, uint32_t type);
bool fmi_set_default_action(const char *port, uint32_t action);
bool fmi_set_ptp_macs(const char *port);
bool fmi_set_lldp_macs(const char *port);

void fmi_create_policer(uint32_t type, const char *port);
// Removes every rule of the port and forgets it; its policers and its default action stay.
void fmi_remove_acl_from_port(const char *port);

// Gives the policer that was asked for with this procedure_ref its id.
void fmi_policer_confirmed(uint32_t procedure_ref, uint32_t id, const char *port);

// Forgets what the ports have; asks for nothing.
void fmi_acl_free();
