// RTT measurement: the newest samples of a link, their statistics, and reports of every batch to the link's owner.
#pragma once

#include "link_table.hpp"
#include "supervision.h"

void rtt_record_sample(uint32_t result, const supervision_rtt *rtt, iml_link *link);
// Over the newest `count` samples.
void rtt_compute_stats(const rtt_sample_queue *samples, uint32_t count, rtt_stats *out);
// Frees every sample of the link; counts become 0.
void rtt_clear_samples(iml_link *link);

// The settings were checked by the caller. False: no such link, or its port is unknown.
bool rtt_enable(uint32_t link_ref, const rtt_settings &settings);
void rtt_disable(uint32_t link_ref);
