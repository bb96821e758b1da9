// What follows from the events of the lower-layer clients. The IEMLI service is published while PMI, EMI, FMI and
// IEPCSI are all up; the automation agent is tracked apart.
#pragma once

#include "base/daemon_state.hpp"
#include "vorn_types.hpp"

// State KAP_VORN_INITIATING: empties the link table and starts the five clients.
void enter_initiating_state();

// The one callback of all lower-layer clients.
void client_event_cb(const client_event *event);

void handle_service_event(uint32_t code);
void service_added(kap_vorn_service service);
void service_lost(kap_vorn_service service);
void aasi_service_added();
void aasi_service_removed();
