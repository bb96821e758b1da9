// Keeps samples and computes over them: see rtt_samples.hpp. What is done with the figures is not known here.
#include "rtt_samples.hpp"

#include <cstdlib>

#include "vorn_trace.hpp"

namespace
{

constexpr uint64_t NSEC_PER_SEC = 1000000000;

void drop_oldest(rtt_sample_queue *queue)
{
    rtt_sample *sample = queue->oldest;
    queue->oldest = sample->newer;
    (queue->oldest != nullptr ? queue->oldest->older : queue->newest) = nullptr;
    --queue->count;
    free(sample);
}

// a before b, both as seconds and nanoseconds.
bool is_less(uint32_t a_sec, uint32_t a_nsec, uint32_t b_sec, uint32_t b_nsec)
{
    return a_sec < b_sec || (a_sec == b_sec && a_nsec < b_nsec);
}

void take_into_account(rtt_stats *stats, const rtt_sample *sample)
{
    if (is_less(sample->rtt_sec, sample->rtt_nsec, stats->min_sec, stats->min_nsec)) {
        stats->min_sec = sample->rtt_sec;
        stats->min_nsec = sample->rtt_nsec;
    }
    if (is_less(stats->max_sec, stats->max_nsec, sample->rtt_sec, sample->rtt_nsec)) {
        stats->max_sec = sample->rtt_sec;
        stats->max_nsec = sample->rtt_nsec;
    }
}

} // namespace

bool rtt_samples_append(rtt_sample_queue *queue, uint32_t result, const supervision_rtt *rtt)
{
    if (queue->count > RTT_MAX_SAMPLES - 1) {
        drop_oldest(queue);
    }
    auto *sample = static_cast<rtt_sample *>(calloc(1, sizeof(rtt_sample)));
    if (sample == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Memory error");
        return false;
    }
    sample->valid = result == SUPERVISION_ANSWERED ? 1 : 0;
    sample->rtt_sec = rtt->sec;
    sample->rtt_nsec = rtt->nsec;
    sample->older = queue->newest;
    (queue->newest != nullptr ? queue->newest->newer : queue->oldest) = sample;
    queue->newest = sample;
    ++queue->count;
    return true;
}

void rtt_samples_clear(rtt_sample_queue *samples)
{
    while (samples->oldest != nullptr) {
        drop_oldest(samples);
    }
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
    for (const rtt_sample *sample = samples->newest; sample != nullptr && count > 0; sample = sample->older, --count) {
        if (sample->valid != 0) {
            ++valid;
            sum += sample->rtt_sec * NSEC_PER_SEC + sample->rtt_nsec;
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
