// RTT measurement: the newest samples of a link, their statistics, and reports of every batch to the link's owner.
#pragma once

#include "manager/table/link_table.hpp"
#include "supervision.h"

void rtt_record_sample(uint32_t result, const supervision_rtt *rtt, iml_link *link);

// The settings were checked by the caller. False: no such link, or its port is unknown.
bool rtt_enable(uint32_t link_ref, const rtt_settings &settings);
void rtt_disable(uint32_t link_ref);
