// The client of the endpoint manager: adds and removes MAC endpoints. A request is answered by a
// PROCEDURE_RESULT_EVENT that carries the procedure_ref which the request returned.
#pragma once

#include "emi_messages.hpp"

enum emi_client_state_value : uint32_t {
    EMI_CLIENT_INIT = 0,
    EMI_CLIENT_INITIATING = 1,
    EMI_CLIENT_CONN_ESTABLISHED = 2,
    EMI_CLIENT_INITIATED = 3,
    EMI_CLIENT_FAULTY = 4,
};

void emi_client_init(client_event_handler handler);

// True when the message is one of this client's.
bool emi_client_dispatch(const itc_msg *msg);

// `endpoints` stays the caller's. The state is the caller's business.
uint32_t emi_add_endpoint(const EmiEndpoint *endpoints, uint32_t n);
uint32_t emi_remove_endpoint(const EmiEndpoint *endpoints, uint32_t n);

uint32_t emi_client_state();
const char *emi_client_state_to_string(uint32_t state);

// Back to how the process starts; tells nobody.
void emi_client_forget_all();
