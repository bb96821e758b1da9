// What is known of the daemon as a whole: its mailbox, its state, and which lower-layer services are up. What follows
// from a change is the manager's business (manager_state.hpp), which is the only one that writes here.
#pragma once

#include "vorn_types.hpp"

#define KAP_VORN_STATES(X)                                                                                             \
    X(0, KAP_VORN_INIT)                                                                                                \
    X(1, KAP_VORN_INITIATING)                                                                                          \
    X(2, KAP_VORN_SERVICES_UP)                                                                                         \
    X(3, KAP_VORN_INITIATED)                                                                                           \
    X(4, KAP_VORN_FAULTY_STATE)

VORN_NAMED_ENUM(kap_vorn_state, KAP_VORN_STATES, manager_state_to_string, "UNKNOWN_STATE");

#define KAP_VORN_SERVICES(X)                                                                                           \
    X(0, KAP_VORN_NO_SERVICE)                                                                                          \
    X(1, KAP_VORN_PMI_SERVICE)                                                                                         \
    X(2, KAP_VORN_EMI_SERVICE)                                                                                         \
    X(4, KAP_VORN_FMI_SERVICE)                                                                                         \
    X(8, KAP_VORN_IEPCSI_SERVICE)                                                                                      \
    X(15, KAP_VORN_ALL_SERVICES_UP)

VORN_NAMED_ENUM(kap_vorn_service, KAP_VORN_SERVICES, service_to_string, "UNKNOWN_SERVICE");

// The daemon's only mailbox: what is sent to oneself goes there, also from another thread. Set once, before anybody
// else runs.
uint32_t vorn_own_mailbox();
void vorn_set_own_mailbox(uint32_t mailbox);

// State KAP_VORN_INIT, no service, no automation agent.
void manager_state_reset();

kap_vorn_state manager_state();
void set_manager_state(kap_vorn_state state);

uint32_t manager_service_mask();
bool is_service_up(kap_vorn_service service);
void set_service_up(kap_vorn_service service, bool up);

bool is_aasi_service_up();
void set_aasi_service_up(bool up);
