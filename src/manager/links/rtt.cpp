// Keeps the newest RTT samples of a link and reports every batch of them while reporting is enabled. Whether a client
// may ask for it, and with which settings, was checked before.
#include "rtt.hpp"

#include "clients/iepcsi_client.hpp"
#include "link_paths.hpp"
#include "link_reports.hpp"
#include "link_supervision.hpp"
#include "manager/ports/port_mapping.hpp"
#include "vorn_trace.hpp"

namespace
{

void report_batch(iml_link *link)
{
    rtt_stats stats = {};
    rtt_compute_stats(&link->rtt_samples, link->samples_since_report, &stats);
    VORN_TRACE(TRACE_TRAFFIC,
               "Sending rtt ind with: min_sec=%u, min_nsec=%u,max_sec=%u, max_nsec=%u, avg_sec=%u, "
               "avg_nsec=%u,rtt_validity=%u, link_ref=%u, connection_ref=%u",
               stats.min_sec, stats.min_nsec, stats.max_sec, stats.max_nsec, stats.avg_sec, stats.avg_nsec,
               stats.rtt_validity, link->link_ref, link->connection_ref);
    links_report()->rtt(link->connection_ref, link->link_ref, stats);
    link->samples_since_report -= link->rtt.batchSize;
    // The agent takes nanoseconds within a second: the seconds are left out on purpose.
    iml_link_path_info(link->link_ref, stats.min_nsec, stats.max_nsec, stats.avg_nsec, link->status);
}

bool fetch_port_of_link(const iml_link *link, eth_port *port)
{
    if (!iepcsi_fetch_port_data(link->port->iepcsi, port)) {
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
    if (!rtt_samples_append(&link->rtt_samples, result, rtt) || link->rtt_enabled != 1) {
        return;
    }
    ++link->samples_since_report;
    if (link->samples_since_report >= link->rtt.batchSize) {
        report_batch(link);
    }
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
