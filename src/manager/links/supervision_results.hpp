// What the results of the supervision library make of the links: their status, their counters, their round trips.
#pragma once

#include "link_supervision.hpp"

// True for SUPERVISION_IND.
bool supervision_dispatch(const itc_msg *msg);

void handle_supervision_ind(const supervision_ind &ind);
void handle_link_supervision_result(uint32_t result, iml_link *link);
void handle_keep_alive_result(uint32_t result, keep_alive_session *entry);
