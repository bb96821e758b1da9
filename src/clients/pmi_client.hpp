// The client of the port management server: VLANs on ports. A request is answered by a PROCEDURE_RESULT_EVENT that
// carries the procedure_ref which the request returned.
#pragma once

#include "pmi_messages.hpp"

enum pmi_client_state_value : uint32_t {
    PMI_CLIENT_INIT = 0,
    PMI_CLIENT_INITIATING = 1,
    PMI_CLIENT_GET_CAPABILITY = 2,
    PMI_CLIENT_INITIATED = 3,
    PMI_CLIENT_FAULTY = 4,
};

void pmi_client_init(client_event_handler handler);

// True when the message is one of this client's.
bool pmi_client_dispatch(const itc_msg *msg);

// `port_name` as IEMLI names it ("IDL_A1"); any other name goes out empty. The state is the caller's business.
uint32_t pmi_enable_port_vlan(const char *port_name, uint32_t vlan_id);
uint32_t pmi_disable_port_vlan(const char *port_name, uint32_t vlan_id);

uint32_t pmi_client_state();
const char *pmi_client_state_to_string(uint32_t state);

// Back to how the process starts; tells nobody.
void pmi_client_forget_all();
