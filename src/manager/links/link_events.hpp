// Where the results of PMI and EMI and the port events of IEPCSI go.
#pragma once

#include "vorn_types.hpp"

void handle_link_event(const client_event &event);
void handle_port_event(const client_event &event);
