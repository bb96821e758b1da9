// The one record of the FMI client, which its connection, its requests and its rules share.
#pragma once

#include "client_framework.hpp"

enum fmi_client_state_value : uint32_t {
    FMI_CLIENT_INIT = 0,
    FMI_CLIENT_INITIATING = 1,
    FMI_CLIENT_GET_CAPABILITY = 2,
    FMI_CLIENT_INITIATED = 3,
    FMI_CLIENT_FAULTY = 4,
};

client_record *fmi_client_record();

uint32_t fmi_client_state();
const char *fmi_client_state_to_string(uint32_t state);
