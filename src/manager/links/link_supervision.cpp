// Starts and stops the sessions of the supervision library for the links. What their results mean is decided in
// supervision_results.cpp; which link has which session stands in the link table.
//
// Nothing here answers a client's request, so a link in hand stays: indications and path messages are only sent.
#include "link_supervision.hpp"

#include <cstdio>
#include <cstring>

#include "base/daemon_state.hpp"
#include "link_reports.hpp"
#include "manager/ports/port_mapping.hpp"
#include "namespace.hpp"
#include "vorn_trace.hpp"

static_assert(sizeof(supervision_params) == 48);
static_assert(offsetof(supervision_params, if_name) == 0);
static_assert(offsetof(supervision_params, interval) == 16);
static_assert(offsetof(supervision_params, sup_type) == 20);
static_assert(offsetof(supervision_params, reserved0) == 21);
static_assert(offsetof(supervision_params, frameSize) == 22);
static_assert(offsetof(supervision_params, reserved1) == 24);
static_assert(offsetof(supervision_params, dest_mac) == 28);
static_assert(offsetof(supervision_params, src_mac) == 34);
static_assert(offsetof(supervision_params, vlantag) == 40);
static_assert(offsetof(supervision_params, ether_type) == 44);
static_assert(offsetof(supervision_params, padding) == 46);

namespace
{

constexpr uint32_t NAMESPACE_FAILURE = 1;
constexpr uint32_t LAST_REPORTED_STOP_FAILURE = 3; // the library's results above this one are ignored

constexpr uint32_t KEEP_ALIVE_INTERVAL = 5;
constexpr uint16_t KEEP_ALIVE_FRAME_SIZE = 64;
constexpr uint32_t VLAN_TAG = 0x8100E000; // TPID 0x8100, priority 7
constexpr uint16_t ETHER_TYPE_ECPRI = 0xAEFE;

// The columns that link supervision and keep-alive have in common.
supervision_params common_params(const char *if_name, const iml_link *link)
{
    supervision_params params = {};
    (void)snprintf(params.if_name, sizeof params.if_name, "%s", if_name);
    params.reserved1 = 1;
    memcpy(params.dest_mac, link->link_data->farEndCpmMac.byte, sizeof params.dest_mac);
    params.vlantag = VLAN_TAG | link->link_data->vlanId;
    params.ether_type = ETHER_TYPE_ECPRI;
    return params;
}

supervision_params link_params(const char *if_name, const mac_address &local_mac, const iml_link *link)
{
    supervision_params params = common_params(if_name, link);
    params.interval = link->rtt.measureInterval;
    params.sup_type = SUPERVISION_TYPE_LINK;
    params.frameSize = link->rtt.frameSize;
    memcpy(params.src_mac, local_mac.byte, sizeof params.src_mac);
    return params;
}

supervision_params keep_alive_params(const char *if_name, const iml_link *link)
{
    supervision_params params = common_params(if_name, link);
    params.interval = KEEP_ALIVE_INTERVAL;
    params.sup_type = SUPERVISION_TYPE_KEEP_ALIVE;
    params.frameSize = KEEP_ALIVE_FRAME_SIZE;
    return params;
}

void end_link_session(iml_link *link)
{
    rtt_samples_clear(&link->rtt_samples);
    link->samples_since_report = 0;
    const uint32_t session_id = link->supervision_session_id;
    const uint32_t result = stop_supervision_session(session_id);
    if (result == 0) {
        VORN_TRACE(TRACE_LINK, "Supervision stopped for link ref: %u with session id: %u", link->link_ref, session_id);
        link->supervision_state = SUPERVISION_NOT_RUNNING;
    } else if (result <= LAST_REPORTED_STOP_FAILURE) {
        VORN_TRACE(TRACE_ERROR, "Supervision stop failed for link ref: %u. Result: %u", link->link_ref, result);
        link->supervision_state = SUPERVISION_FAILED;
    }
    iml_link_set_session(link, 0);
    link->supervision_results = 0;
    link->supervision_lost = 0;
    link->supervision_last_ok = 0;
}

// In place of a session that was started anew, or whose app link is no more. Whether the library can end it is told
// nobody: nothing of the link hangs on it any more.
void end_replaced_session(uint32_t session_id)
{
    if (session_id != 0) {
        stop_supervision_session(session_id);
    }
}

// Only where a new session can follow. Else the link would stand as enabled and nobody would ping.
void end_link_session_before_another(iml_link *link, const char *name_space)
{
    int previous = -1;
    if (!netns_visit_begin(name_space, &previous)) {
        return;
    }
    end_link_session(link);
    netns_visit_end(name_space, previous);
}

// What a session that could not be started is traced with.
#define BYTES_ARGS(b) (b)[0], (b)[1], (b)[2], (b)[3], (b)[4], (b)[5]
#define PARAMS_ARGS(params, link)                                                                                      \
    BYTES_ARGS((params).src_mac), BYTES_ARGS((params).dest_mac), static_cast<int>((link)->link_ref),                   \
        (params).frameSize, (params).sup_type, (params).if_name, (params).vlantag

uint32_t begin_link_session(const supervision_params &params, iml_link *link)
{
    const uint32_t previous = link->supervision_session_id;
    uint32_t session_id = 0;
    const uint32_t result = start_supervision_session(&session_id, &params, supervision_callback);
    if (result == 0) {
        iml_link_set_session(link, session_id);
        VORN_TRACE(TRACE_LINK, "Supervision started with session id: %u", session_id);
        link->supervision_state = SUPERVISION_RUNNING;
        end_replaced_session(previous);
        return 0;
    }
    if (previous == 0) {
        link->supervision_state = SUPERVISION_FAILED;
    }
    VORN_TRACE(TRACE_ERROR,
               "Start supervision for link (src = %02X:%02X:%02X:%02X:%02X:%02X, dest = "
               "%02X:%02X:%02X:%02X:%02X:%02X, link ref = %d, frameSize = %u, sup_type = %u, interface name = %s, "
               "vlantag = 0x%x) failed with result %u",
               PARAMS_ARGS(params, link), result);
    return result;
}

void end_keep_alive_sessions(iml_link *link)
{
    for (uint32_t i = 0; i < link->keep_alive_count; ++i) {
        const uint32_t session_id = link->keep_alive_sessions[i].session_id;
        const uint32_t result = stop_supervision_session(session_id);
        if (result == 0) {
            VORN_TRACE(TRACE_LINK, "Keep alive stopped with session id: %u:", session_id);
        } else if (result <= LAST_REPORTED_STOP_FAILURE) {
            VORN_TRACE(TRACE_ERROR, "Keep alive stop failed for session id %u. Result: %u", session_id, result);
        }
    }
    iml_link_free_keep_alives(link);
}

void set_keep_alive(iml_link *link, uint32_t app_link, uint32_t session_id, const keep_alive_session *counted)
{
    if (counted != nullptr) {
        link->keep_alive_sessions[app_link] = *counted;
    }
    iml_link_set_keep_alive_session(link, app_link, session_id);
}

// `previous`: the session that the app link has, null when it has none. It is ended, or goes on in the link.
void begin_keep_alive_session(const supervision_params &params, iml_link *link, uint32_t app_link,
                              keep_alive_session *previous)
{
    uint32_t session_id = 0;
    const uint32_t result = start_supervision_session(&session_id, &params, supervision_callback);
    if (result == 0) {
        set_keep_alive(link, app_link, session_id, previous);
        VORN_TRACE(TRACE_LINK, "Keep alive started with session id: %u", session_id);
        return;
    }
    if (previous != nullptr) {
        set_keep_alive(link, app_link, previous->session_id, previous);
        previous->session_id = 0;
    }
    VORN_TRACE(TRACE_ERROR,
               "Start keep alive for app link (src = %02X:%02X:%02X:%02X:%02X:%02X, dest = "
               "%02X:%02X:%02X:%02X:%02X:%02X) link ref = %d, frameSize = %u, sup_type = %u, interface name = %s, "
               "vlantag = 0x%x) failed with result %u",
               PARAMS_ARGS(params, link), result);
}

void begin_keep_alive_sessions(const char *if_name, iml_link *link)
{
    keep_alive_array previous = {};
    if (!iml_link_renew_keep_alives(link, &previous)) {
        VORN_TRACE(TRACE_ERROR, "Memory error. App supervision not started.");
        return;
    }
    supervision_params params = keep_alive_params(if_name, link);
    for (uint32_t i = 0; i < link->keep_alive_count; ++i) {
        const mac_address &near_end = iemli_app_links(link->link_data)[i].nearEndAppMac;
        memcpy(params.src_mac, near_end.byte, sizeof params.src_mac);
        begin_keep_alive_session(params, link, i, keep_alive_of_app_link(previous, i, near_end));
        if (i < previous.count) {
            end_replaced_session(previous.sessions[i].session_id);
        }
    }
    for (uint32_t i = link->keep_alive_count; i < previous.count; ++i) {
        end_replaced_session(previous.sessions[i].session_id);
    }
    keep_alive_array_free(&previous);
}

// The library needs no visit to stop a session: it is stopped wherever the thread is.
void stop_in(const char *name_space, void (*end)(iml_link *), iml_link *link)
{
    int previous = -1;
    const bool inside = netns_visit_begin(name_space, &previous);
    end(link);
    if (inside) {
        netns_visit_end(name_space, previous);
    }
}

void disable_after_port_event(iml_link *link, iml_link_disabled_reason disabled_reason)
{
    VORN_TRACE(TRACE_LINK, "Updated iml link status on link: %u, with port name %s. Old status %s, new status %s",
               link->link_ref, link->link_data->imlPortName, iml_link_status_text(link->status, link->disabled_reason),
               iml_link_status_text(IML_LINK_DISABLED, disabled_reason));
    iml_link_write_status(link, IML_LINK_DISABLED, disabled_reason);
    link_tell_status(link->connection_ref, link->link_ref, IML_LINK_DISABLED, disabled_reason);
}

void start_after_port_up(const eth_port &port, iml_link *link)
{
    if (link->supervision_state == SUPERVISION_RUNNING) {
        VORN_TRACE(TRACE_WARNING, "WARNING: Trying to start supervision twice on link: %u, supervision session: %u",
                   link->link_ref, link->supervision_session_id);
        return;
    }
    start_link_sessions(port, link);
    disable_after_port_event(link, IML_LINK_REASON_NO_CONNECTIVITY);
}

void stop_after_port_down(const eth_port &port, iml_link *link)
{
    if (link->supervision_state != SUPERVISION_RUNNING) {
        VORN_TRACE(TRACE_WARNING, "Trying to stop supervision twice for link: %u", link->link_ref);
        return;
    }
    stop_link_sessions(port, link);
    disable_after_port_event(link, IML_LINK_REASON_DOWN);
}

void for_links_on_port(const char *iepcsi_port_name, void (*action)(const eth_port &, iml_link *))
{
    eth_port port;
    if (!iepcsi_fetch_port_data(iepcsi_port_name, &port)) {
        VORN_TRACE(TRACE_ERROR, "Failed to fetch port data");
        return;
    }
    const port_names &names = port_of_iepcsi_name(iepcsi_port_name);
    for (iml_link *link = iml_link_first_on_port(names); link != nullptr; link = iml_link_next_on_port(link)) {
        if (iml_link_is_on_port(link, iepcsi_port_name)) {
            action(port, link);
        }
    }
}

} // namespace

void supervision_callback(const supervision_rtt *rtt, uint32_t session_id, uint32_t result)
{
    itc_msg *msg = itc_alloc(sizeof(supervision_ind), SUPERVISION_IND);
    auto *ind = reinterpret_cast<supervision_ind *>(msg);
    ind->session_id = session_id;
    ind->result = result;
    if (rtt != nullptr) {
        ind->rtt_sec = rtt->sec;
        ind->rtt_nsec = rtt->nsec;
    }
    itc_send(&msg, vorn_own_mailbox(), vorn_own_mailbox());
}

uint32_t start_link_supervision(const char *if_name, const mac_address &local_mac, iml_link *link,
                                const char *name_space)
{
    int previous = -1;
    if (!netns_visit_begin(name_space, &previous)) {
        return NAMESPACE_FAILURE;
    }
    const uint32_t result = begin_link_session(link_params(if_name, local_mac, link), link);
    netns_visit_end(name_space, previous);
    return result;
}

void start_keep_alive(const char *if_name, iml_link *link, const char *name_space)
{
    int previous = -1;
    if (!netns_visit_begin(name_space, &previous)) {
        return;
    }
    begin_keep_alive_sessions(if_name, link);
    netns_visit_end(name_space, previous);
}

void stop_link_supervision(iml_link *link, const char *name_space) { stop_in(name_space, end_link_session, link); }

void stop_keep_alive(iml_link *link, const char *name_space) { stop_in(name_space, end_keep_alive_sessions, link); }

void end_sessions_of_deleted_link(iml_link *link)
{
    end_replaced_session(link->supervision_session_id);
    iml_link_set_session(link, 0);
    for (uint32_t i = 0; i < link->keep_alive_count; ++i) {
        end_replaced_session(link->keep_alive_sessions[i].session_id);
    }
    iml_link_free_keep_alives(link);
}

bool find_link_place(const eth_port &port, const iml_link *link, link_place *place)
{
    *place = {};
    get_port_if_name_and_namespace(port, link->link_data->vlanId, &place->if_name, &place->name_space);
    return place->if_name != nullptr && place->name_space != nullptr;
}

bool start_supervision_at(const link_place &place, const eth_port &port, iml_link *link)
{
    const uint32_t result = start_link_supervision(place.if_name, port.mac, link, place.name_space);
    if (result != 0) {
        VORN_TRACE(TRACE_ERROR, "Supervision start failed for link: %u. Result: %u", link->link_ref, result);
    }
    return result == 0;
}

void start_link_sessions(const eth_port &port, iml_link *link)
{
    link_place place;
    if (!find_link_place(port, link, &place)) {
        return;
    }
    start_supervision_at(place, port, link);
    start_keep_alive(place.if_name, link, place.name_space);
}

void stop_link_sessions(const eth_port &port, iml_link *link)
{
    link_place place;
    if (find_link_place(port, link, &place)) {
        stop_link_supervision(link, place.name_space);
        stop_keep_alive(link, place.name_space);
    }
}

void start_supervision_on_port(const char *iepcsi_port_name)
{
    for_links_on_port(iepcsi_port_name, start_after_port_up);
}

void stop_supervision_on_port(const char *iepcsi_port_name)
{
    for_links_on_port(iepcsi_port_name, stop_after_port_down);
}

void restart_link_supervision(const eth_port &port, iml_link *link)
{
    link_place place;
    if (port.oper_state != ETH_PORT_OPERATIONAL || !find_link_place(port, link, &place)) {
        return;
    }
    end_link_session_before_another(link, place.name_space);
    start_supervision_at(place, port, link);
}
