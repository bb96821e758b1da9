// Keeps the newest RTT samples of a link and reports every batch of them while reporting is enabled. Whether a client
// may ask for it, and with which settings, was checked before.
#include "rtt.hpp"

#include <cstdlib>

#include "base/daemon_state.hpp"
#include "clients/aasi_client.hpp"
#include "clients/iepcsi_client.hpp"
#include "iemli/iemli_server.hpp"
#include "link_supervision.hpp"
#include "port_mapping.hpp"
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

bool append_sample(rtt_sample_queue *queue, uint32_t result, const supervision_rtt *rtt)
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

void report_batch(iml_link *link)
{
    rtt_stats stats = {};
    rtt_compute_stats(&link->rtt_samples, link->samples_since_report, &stats);
    VORN_TRACE(TRACE_TRAFFIC,
               "Sending rtt ind with: min_sec=%u, min_nsec=%u,max_sec=%u, max_nsec=%u, avg_sec=%u, "
               "avg_nsec=%u,rtt_validity=%u, link_ref=%u, connection_ref=%u",
               stats.min_sec, stats.min_nsec, stats.max_sec, stats.max_nsec, stats.avg_sec, stats.avg_nsec,
               stats.rtt_validity, link->link_ref, link->connection_ref);
    iemli_send_link_rtt_ind(link->connection_ref, link->link_ref, stats);
    link->samples_since_report -= link->rtt.batchSize;
    if (is_aasi_service_up()) {
        // The agent takes nanoseconds within a second: the seconds are left out on purpose.
        aasi_send_path_info(link->link_ref, stats.min_nsec, stats.max_nsec, stats.avg_nsec, link->status);
    }
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

bool fetch_port_of_link(const iml_link *link, eth_port *port)
{
    if (!iepcsi_fetch_port_data(iemli_to_iepcsi_port_name(link->link_data->imlPortName), port)) {
        VORN_TRACE(TRACE_ERROR, "Failed to get port data");
        return false;
    }
    return true;
}

} // namespace

void rtt_record_sample(uint32_t result, const supervision_rtt *rtt, iml_link *link)
{
    if (rtt == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Pointer to rtt data is null");
        return;
    }
    if (link == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Pointer to iml link is null");
        return;
    }
    if (result != SUPERVISION_ANSWERED && result != SUPERVISION_ANSWERED_NO_TIME && result != SUPERVISION_LOST) {
        return;
    }
    if (!append_sample(&link->rtt_samples, result, rtt) || link->rtt_enabled != 1) {
        return;
    }
    ++link->samples_since_report;
    if (link->samples_since_report >= link->rtt.batchSize) {
        report_batch(link);
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

void rtt_clear_samples(iml_link *link)
{
    while (link->rtt_samples.oldest != nullptr) {
        drop_oldest(&link->rtt_samples);
    }
    link->samples_since_report = 0;
}

bool rtt_enable(uint32_t link_ref, const rtt_settings &settings)
{
    iml_link *link = iml_link_find_by_ref(link_ref);
    eth_port port;
    if (link == nullptr || !fetch_port_of_link(link, &port)) {
        return false;
    }
    link->rtt_enabled = 1;
    link->rtt = settings;
    restart_link_supervision(port, link);
    return true;
}

void rtt_disable(uint32_t link_ref)
{
    iml_link *link = iml_link_find_by_ref(link_ref);
    if (link == nullptr) {
        return;
    }
    link->rtt = {RTT_DEFAULT_BATCH_SIZE, RTT_DEFAULT_INTERVAL, RTT_DEFAULT_FRAME_SIZE};
    link->rtt_enabled = 0;
    eth_port port;
    if (fetch_port_of_link(link, &port)) {
        restart_link_supervision(port, link);
    }
}
