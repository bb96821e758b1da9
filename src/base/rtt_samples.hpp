// The newest round trips that were measured, and their statistics.
#pragma once

#include <cstdint>

#include "iemli/iemli_messages.hpp"
#include "supervision.h"

inline constexpr uint32_t RTT_MAX_SAMPLES = 60;

struct rtt_sample {
    uint8_t valid; // 1: the supervision result was 0
    uint32_t rtt_sec;
    uint32_t rtt_nsec;
    rtt_sample *newer;
    rtt_sample *older;
};

// FIFO of at most RTT_MAX_SAMPLES samples.
struct rtt_sample_queue {
    uint32_t count;
    rtt_sample *oldest;
    rtt_sample *newest;
};

// False when memory is out. The oldest makes room.
bool rtt_samples_append(rtt_sample_queue *samples, uint32_t result, const supervision_rtt *rtt);
// Frees every sample.
void rtt_samples_clear(rtt_sample_queue *samples);
// Over the newest `count` samples.
void rtt_compute_stats(const rtt_sample_queue *samples, uint32_t count, rtt_stats *out);
