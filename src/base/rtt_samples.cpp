// Keeps samples and computes over them: see rtt_samples.hpp. What is done with the figures is not known here.
#include "rtt_samples.hpp"

#include <cstdlib>

#include "vorn_trace.hpp"

struct rtt_sample_ring {
    uint64_t valid; // a bit for each place
    uint32_t sec[RTT_MAX_SAMPLES];
    uint32_t nsec[RTT_MAX_SAMPLES];
};
static_assert(RTT_MAX_SAMPLES <= 64);

namespace
{

constexpr uint64_t NSEC_PER_SEC = 1000000000;

uint32_t place_of(const rtt_sample_queue &samples, uint32_t n) { return (samples.oldest + n) % RTT_MAX_SAMPLES; }

bool has_ring(rtt_sample_queue *samples)
{
    if (samples->ring == nullptr) {
        samples->ring = static_cast<rtt_sample_ring *>(calloc(1, sizeof(rtt_sample_ring)));
    }
    return samples->ring != nullptr;
}

void write_at(rtt_sample_ring *ring, uint32_t place, const rtt_sample &sample)
{
    const uint64_t bit = uint64_t{1} << place;
    ring->valid = sample.valid != 0 ? ring->valid | bit : ring->valid & ~bit;
    ring->sec[place] = sample.rtt_sec;
    ring->nsec[place] = sample.rtt_nsec;
}

// a before b, both as seconds and nanoseconds.
bool is_less(uint32_t a_sec, uint32_t a_nsec, uint32_t b_sec, uint32_t b_nsec)
{
    return a_sec < b_sec || (a_sec == b_sec && a_nsec < b_nsec);
}

void take_into_account(rtt_stats *stats, const rtt_sample &sample)
{
    if (is_less(sample.rtt_sec, sample.rtt_nsec, stats->min_sec, stats->min_nsec)) {
        stats->min_sec = sample.rtt_sec;
        stats->min_nsec = sample.rtt_nsec;
    }
    if (is_less(stats->max_sec, stats->max_nsec, sample.rtt_sec, sample.rtt_nsec)) {
        stats->max_sec = sample.rtt_sec;
        stats->max_nsec = sample.rtt_nsec;
    }
}

} // namespace

bool rtt_samples_append(rtt_sample_queue *samples, uint32_t result, const supervision_rtt *rtt)
{
    if (!has_ring(samples)) {
        VORN_TRACE(TRACE_ERROR, "Memory error");
        return false;
    }
    if (samples->count == RTT_MAX_SAMPLES) {
        samples->oldest = place_of(*samples, 1);
        --samples->count;
    }
    const uint8_t valid = result == SUPERVISION_ANSWERED ? 1 : 0;
    write_at(samples->ring, place_of(*samples, samples->count), {valid, rtt->sec, rtt->nsec});
    ++samples->count;
    return true;
}

rtt_sample rtt_sample_at(const rtt_sample_queue &samples, uint32_t n)
{
    const uint32_t place = place_of(samples, n);
    const auto valid = static_cast<uint8_t>(samples.ring->valid >> place & 1);
    return {valid, samples.ring->sec[place], samples.ring->nsec[place]};
}

void rtt_samples_clear(rtt_sample_queue *samples)
{
    free(samples->ring);
    *samples = {};
}

void rtt_compute_stats(const rtt_sample_queue *samples, uint32_t count, rtt_stats *out)
{
    if (samples == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Pointer to rtt collection is null");
        return;
    }
    if (out == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Pointer to measure data is null");
        return;
    }
    *out = {};
    rtt_stats found = {};
    found.min_sec = UINT32_MAX;
    found.min_nsec = UINT32_MAX;
    uint64_t sum = 0;
    uint64_t valid = 0;
    for (uint32_t left = samples->count; left > 0 && count > 0; --count) {
        const rtt_sample sample = rtt_sample_at(*samples, --left);
        if (sample.valid != 0) {
            ++valid;
            sum += sample.rtt_sec * NSEC_PER_SEC + sample.rtt_nsec;
            take_into_account(&found, sample);
        }
    }
    if (valid == 0) {
        return;
    }
    found.avg_sec = static_cast<uint32_t>(sum / valid / NSEC_PER_SEC);
    found.avg_nsec = static_cast<uint32_t>(sum / valid % NSEC_PER_SEC);
    found.rtt_validity = 1;
    *out = found;
}
