// The client of the flow manager: access-control rules, default actions and policers of the ports. Every request waits
// for its answer on the spot, for at most 500 ms, so that the operations return their outcome.
//
// Port names are the flow manager's ("DiPort_A1"). Every operation is refused while the client is not initiated.
#pragma once

#include "fmi_messages.hpp"

enum fmi_client_state_value : uint32_t {
    FMI_CLIENT_INIT = 0,
    FMI_CLIENT_INITIATING = 1,
    FMI_CLIENT_GET_CAPABILITY = 2,
    FMI_CLIENT_INITIATED = 3,
    FMI_CLIENT_FAULTY = 4,
};

void fmi_client_init(client_event_handler handler);

// True when the message is one of this client's. Answers to access-control requests are not: the wait takes them.
bool fmi_client_dispatch(const itc_msg *msg);

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

uint32_t fmi_client_state();
const char *fmi_client_state_to_string(uint32_t state);

// Back to how the process starts; frees every record and tells nobody.
void fmi_client_forget_all();
