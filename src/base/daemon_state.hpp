// What is known of the daemon as a whole: its state, and which lower-layer services are up. What follows from a change
// is the manager's business (manager_state.hpp), which is the only one that writes here.
#pragma once

#include <cstdint>

enum kap_vorn_state : uint32_t {
    KAP_VORN_INIT = 0,
    KAP_VORN_INITIATING = 1,
    KAP_VORN_SERVICES_UP = 2,
    KAP_VORN_INITIATED = 3,
    KAP_VORN_FAULTY_STATE = 4,
};

enum kap_vorn_service : uint32_t {
    KAP_VORN_NO_SERVICE = 0,
    KAP_VORN_PMI_SERVICE = 1,
    KAP_VORN_EMI_SERVICE = 2,
    KAP_VORN_FMI_SERVICE = 4,
    KAP_VORN_IEPCSI_SERVICE = 8,
    KAP_VORN_ALL_SERVICES_UP = 15,
};

// State KAP_VORN_INIT, no service, no automation agent.
void manager_state_reset();

kap_vorn_state manager_state();
void set_manager_state(kap_vorn_state state);

uint32_t manager_service_mask();
bool is_service_up(kap_vorn_service service);
void set_service_up(kap_vorn_service service, bool up);

bool is_aasi_service_up();
void set_aasi_service_up(bool up);

const char *manager_state_to_string(uint32_t state);
const char *service_to_string(uint32_t service);
