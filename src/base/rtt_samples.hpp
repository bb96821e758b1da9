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
};

// The newest samples, at most RTT_MAX_SAMPLES, in a ring that is there from the first one on.
struct rtt_sample_ring;
struct rtt_sample_queue {
    uint32_t count;
    uint32_t oldest;       // its place in the ring
    rtt_sample_ring *ring; // owned, null while there is none
};

// False when memory is out. The oldest makes room.
bool rtt_samples_append(rtt_sample_queue *samples, uint32_t result, const supervision_rtt *rtt);
// The `n`th sample, counted from the oldest, which is 0; there must be as many.
rtt_sample rtt_sample_at(const rtt_sample_queue &samples, uint32_t n);
// Forgets every sample and frees the ring.
void rtt_samples_clear(rtt_sample_queue *samples);
// Over the newest `count` samples.
void rtt_compute_stats(const rtt_sample_queue *samples, uint32_t count, rtt_stats *out);
