// The operator's request for the list of links, answered with one fixed-size record per link.
#pragma once

#include "itc.h"

// True for the list request.
bool shell_client_dispatch(const itc_msg *msg);
