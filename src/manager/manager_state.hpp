// The manager's state and the set of lower-layer services that are up. The IEMLI service is published while PMI, EMI,
// FMI and IEPCSI are all up; the automation agent is tracked apart.
#pragma once

#include "vorn_types.hpp"

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

uint32_t manager_state();
uint32_t manager_service_mask();
bool is_aasi_service_up();

// State KAP_VORN_INITIATING: empties the link table and starts the five clients.
void enter_initiating_state();

// The one callback of all lower-layer clients.
void client_event_cb(const client_event *event);

void handle_service_event(uint32_t code);
void service_added(uint32_t bit);
void service_lost(uint32_t bit);
void aasi_service_added();
void aasi_service_removed();

const char *manager_state_to_string(uint32_t state);
const char *service_to_string(uint32_t service);
const char *iml_link_status_text(uint32_t status, uint32_t disabled_reason);
