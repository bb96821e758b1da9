// The link list: one request, one reply with a record of 344 bytes per link. Formatting is the requester's business;
// here a record is only filled. Changes nothing.
#include "shell_client.hpp"

#include <algorithm>
#include <cstring>

#include "manager/ports/port_macs.hpp"
#include "vorn_trace.hpp"

namespace
{

constexpr uint64_t NSEC_PER_SEC = 1000000000;

// The list carries microseconds of the low 32 bits only: a round trip of 4.3 seconds or more is listed wrongly.
shell_rtt to_microseconds(uint32_t sec, uint32_t nsec)
{
    const auto low = static_cast<uint32_t>(sec * NSEC_PER_SEC + nsec);
    shell_rtt rtt = {low / 1000, low / 10 % 100};
    for (; rtt.hundredths > 99; rtt.hundredths /= 10) { // two digits are all the list has room for
    }
    return rtt;
}

uint32_t rtt_state(const iml_link *link) { return link->rtt_enabled <= 1 ? link->rtt_enabled : 2; }

uint32_t supervision_state(const iml_link *link)
{
    switch (link->supervision_state) {
    case SUPERVISION_RUNNING:
        return 1;
    case SUPERVISION_FAILED:
        return 2;
    case SUPERVISION_NOT_RUNNING:
        break;
    }
    return 0;
}

void fill_near_end_mac(shell_link_record *record, const iml_link *link)
{
    uint32_t reason = 0;
    mac_address mac = {};
    if (fetch_local_supervision_mac(link->link_data->imlPortName, &mac, &reason)) {
        record->near_end_cpm_mac = mac;
        return;
    }
    VORN_TRACE(TRACE_PORT, "Could not fetch near end cpm mac, reason: %u", reason);
}

void fill_link_data(shell_link_record *record, const IemliLinkData *data)
{
    record->near_end_mp_id = data->nearEndMpId;
    record->far_end_cpm_mac = data->farEndCpmMac;
    memcpy(record->port_name, data->imlPortName, strnlen(data->imlPortName, sizeof record->port_name - 1));
    record->vlan_id = data->vlanId;
    record->app_link_count = std::min(data->numberOfAppLinks, SHELL_MAX_APP_LINKS);
    memcpy(record->app_links, iemli_app_links(data), record->app_link_count * sizeof(IemliAppLink));
}

} // namespace

uint32_t count_links(const iml_link *table)
{
    uint32_t count = 0;
    for (const iml_link *link = table; link != nullptr; link = link->next) {
        ++count;
    }
    return count;
}

void compute_rtt_statistics(const rtt_sample_queue *samples, shell_rtt_statistics *out)
{
    rtt_stats stats = {};
    rtt_compute_stats(samples, UINT32_MAX, &stats);
    *out = {};
    if (stats.rtt_validity != 0) {
        out->present = true;
        out->minimum = to_microseconds(stats.min_sec, stats.min_nsec);
        out->average = to_microseconds(stats.avg_sec, stats.avg_nsec);
        out->maximum = to_microseconds(stats.max_sec, stats.max_nsec);
    }
}

void fill_link_list_entry(shell_link_record *record, const iml_link *link)
{
    *record = {};
    record->connection_ref = link->connection_ref;
    record->link_ref = link->link_ref;
    fill_link_data(record, link->link_data);
    fill_near_end_mac(record, link);
    record->status = link->status;
    record->disabled_reason = link->disabled_reason;
    record->rtt_state = rtt_state(link);
    record->supervision_state = supervision_state(link);
    record->rtt = link->rtt;
    record->supervision_results = link->supervision_results;
    record->supervision_lost = link->supervision_lost;
    shell_rtt_statistics statistics = {};
    compute_rtt_statistics(&link->rtt_samples, &statistics);
    record->rtt_present = statistics.present ? 1 : 0;
    record->rtt_minimum = statistics.minimum;
    record->rtt_average = statistics.average;
    record->rtt_maximum = statistics.maximum;
}

bool shell_client_dispatch(const itc_msg *msg)
{
    VORN_TRACE(TRACE_CALL, "ShellCmdsignalDispatcher()");
    if (msg->msgno != IECTM_COLI_IML_LINK_LIST_REQ) {
        return false;
    }
    const uint32_t requester = itc_sender(msg);
    VORN_TRACE_REC(msg->msgno, requester, "IECTM_COLI_IML_LINK_LIST_REQ");
    const iml_link *table = iml_link_first();
    const uint32_t count = count_links(table);
    itc_msg *reply = itc_alloc(sizeof(shell_link_list) * std::max(count, 1U), IECTM_COLI_IML_LINK_LIST_RSP);
    auto *list = reinterpret_cast<shell_link_list *>(reply);
    list->count = count;
    auto *record =
        reinterpret_cast<shell_link_record *>(reinterpret_cast<uint8_t *>(reply) + offsetof(shell_link_list, records));
    for (const iml_link *link = table; link != nullptr; link = link->next) {
        fill_link_list_entry(record++, link);
    }
    itc_send(&reply, requester, ITC_MY_MBOX);
    return true;
}
