// Takes the results of the sessions to their links: see supervision_results.hpp.
//
// Nothing here answers a client's request, so a link in hand stays: indications and path messages are only sent.
#include "supervision_results.hpp"

#include "link_reports.hpp"
#include "rtt.hpp"
#include "vorn_trace.hpp"

namespace
{

constexpr uint32_t TOLERATED_LOSSES = 5; // the next one in a row disables the link

void change_status(iml_link *link, iml_link_status status, iml_link_disabled_reason disabled_reason)
{
    iml_link_write_status(link, status, disabled_reason);
    link_tell_status(link->connection_ref, link->link_ref, status, disabled_reason);
}

void link_answered(iml_link *link)
{
    link->supervision_last_ok = link->supervision_results;
    if (link->status == IML_LINK_ENABLED) {
        return;
    }
    VORN_TRACE(TRACE_WARNING, "Link status change, from: %s, to: enabled. Link ref: %u",
               iml_link_status_text(link->status, link->disabled_reason), link->link_ref);
    change_status(link, IML_LINK_ENABLED, link->disabled_reason);
}

void link_lost_frame(iml_link *link)
{
    ++link->supervision_lost;
    if (link->status != IML_LINK_ENABLED || link->supervision_last_ok + TOLERATED_LOSSES >= link->supervision_results) {
        return;
    }
    VORN_TRACE(TRACE_WARNING, "Max pings lost, link status change: %s. Link ref: %u",
               iml_link_status_text(IML_LINK_DISABLED, IML_LINK_REASON_NO_CONNECTIVITY), link->link_ref);
    change_status(link, IML_LINK_DISABLED, IML_LINK_REASON_NO_CONNECTIVITY);
}

void trace_unknown(uint32_t result)
{
    VORN_TRACE(TRACE_WARNING, "WARNING:Unknown supervision result(%u) received", result);
}

void handle_ind_of_link(const supervision_ind &ind, iml_link *link)
{
    VORN_TRACE(TRACE_TRAFFIC,
               "Received supervision ind with session id: %u,rtt_sec: %u, rtt_nsec: %u, supervision result: %u",
               ind.session_id, ind.rtt_sec, ind.rtt_nsec, ind.result);
    handle_link_supervision_result(ind.result, link);
    const supervision_rtt rtt = {ind.rtt_sec, ind.rtt_nsec};
    rtt_record_sample(ind.result, &rtt, link);
}

} // namespace

bool supervision_dispatch(const itc_msg *msg)
{
    if (msg->msgno != SUPERVISION_IND) {
        return false;
    }
    if (itc_size(msg) < sizeof(supervision_ind)) {
        VORN_TRACE(TRACE_ERROR, "%s too short: %zu bytes", "SUPERVISION_IND", itc_size(msg));
        return true;
    }
    handle_supervision_ind(*reinterpret_cast<const supervision_ind *>(msg));
    return true;
}

void handle_supervision_ind(const supervision_ind &ind)
{
    iml_link *link = iml_link_find_by_session(ind.session_id);
    if (link != nullptr) {
        handle_ind_of_link(ind, link);
        return;
    }
    keep_alive_session *entry = keep_alive_find_by_session(ind.session_id);
    if (entry != nullptr) {
        VORN_TRACE(TRACE_TRAFFIC, "Received supervision ind with session id: %u,supervision result: %u", ind.session_id,
                   ind.result);
        handle_keep_alive_result(ind.result, entry);
        return;
    }
    VORN_TRACE(TRACE_WARNING, "WARNING: Received supervision ind(%u) for link that doesn't exist any more.",
               ind.session_id);
}

void handle_link_supervision_result(uint32_t result, iml_link *link)
{
    ++link->supervision_results;
    switch (result) {
    case SUPERVISION_ANSWERED:
    case SUPERVISION_ANSWERED_NO_TIME:
    case SUPERVISION_KEEP_ALIVE_OK:
        return link_answered(link);
    case SUPERVISION_LOST:
        return link_lost_frame(link);
    }
    trace_unknown(result);
}

void handle_keep_alive_result(uint32_t result, keep_alive_session *entry)
{
    ++entry->results;
    if (result == SUPERVISION_KEEP_ALIVE_OK) {
        entry->last_ok = entry->results;
    } else if (result == SUPERVISION_LOST) {
        ++entry->lost;
    } else {
        trace_unknown(result);
    }
}
