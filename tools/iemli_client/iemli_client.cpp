#include "iemli_client.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "ns.h"

namespace
{

using clock_type = std::chrono::steady_clock;

// What a client may get: the numbers of the protocol and those of the name service, as itc_receive wants them.
constexpr uint32_t MESSAGES[] = {
#define X(number, ...) number,
    IEMLI_MESSAGES(X)
#undef X
        NS_SUBSCRIBE_RSP,
    NS_SERVICE_ADDED_IND,
    NS_SERVICE_REMOVED_IND,
};
constexpr auto MESSAGE_FILTER = [] {
    std::array<uint32_t, 1 + std::size(MESSAGES)> filter{std::size(MESSAGES)};
    std::copy(std::begin(MESSAGES), std::end(MESSAGES), filter.begin() + 1);
    return filter;
}();

// Of the protocol's numbers the one that no server sends to a client: what a client sends itself to be woken.
constexpr uint32_t OWN_INTERRUPT = IEMLI_CLIENT_DOWN_IND;

// Every answer: the request it belongs to, and whether it is a reject.
struct answer_kind {
    uint32_t msgno;
    uint32_t request;
    bool reject;
};

constexpr answer_kind ANSWERS[] = {
    {IEMLI_INIT_SERVICE_CFM, IEMLI_INIT_SERVICE_REQ, false},
    {IEMLI_INIT_SERVICE_REJ, IEMLI_INIT_SERVICE_REQ, true},
    {IEMLI_TERM_SERVICE_CFM, IEMLI_TERM_SERVICE_REQ, false},
    {IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM, IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ, false},
    {IEMLI_GET_LOCAL_SUPERVISION_MAC_REJ, IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ, true},
    {IEMLI_CREATE_INTER_ME_LINK_CFM, IEMLI_CREATE_INTER_ME_LINK_REQ, false},
    {IEMLI_CREATE_INTER_ME_LINK_REJ, IEMLI_CREATE_INTER_ME_LINK_REQ, true},
    {IEMLI_UPDATE_INTER_ME_LINK_CFM, IEMLI_UPDATE_INTER_ME_LINK_REQ, false},
    {IEMLI_UPDATE_INTER_ME_LINK_REJ, IEMLI_UPDATE_INTER_ME_LINK_REQ, true},
    {IEMLI_DELETE_INTER_ME_LINK_CFM, IEMLI_DELETE_INTER_ME_LINK_REQ, false},
    {IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM, IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ, false},
    {IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ, IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ, true},
    {IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM, IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ, false},
};

const answer_kind *find_answer_kind(uint32_t msgno)
{
    const auto *found =
        std::find_if(std::begin(ANSWERS), std::end(ANSWERS), [=](const answer_kind &k) { return k.msgno == msgno; });
    return found == std::end(ANSWERS) ? nullptr : found;
}

template <typename Message> const Message *as(const itc_msg *msg) { return reinterpret_cast<const Message *>(msg); }

void add_event(iemli_client &client, iemli_event_kind kind)
{
    iemli_event event;
    event.kind = kind;
    client.events.push_back(event);
}

void add_malformed(iemli_client &client, const itc_msg *msg, const char *what)
{
    iemli_event event;
    event.kind = iemli_event_kind::malformed;
    event.msgno = msg->msgno;
    event.text = std::string(what) + ": " + iemli_client_message_name(msg->msgno) + " of " +
                 std::to_string(itc_size(msg)) + " bytes";
    client.events.push_back(event);
}

iemli_event event_from_header(iemli_event_kind kind, const iemli_header *header)
{
    iemli_event event;
    event.kind = kind;
    event.msgno = header->msgno;
    event.procedure_ref = header->procedure_ref;
    event.connection_ref = header->connection_ref;
    return event;
}

// ---- The service and the server behind it -------------------------------------------------------------------------

void unwatch_server(iemli_client &client)
{
    if (client.monitor != 0) {
        itc_unmonitor(client.monitor);
        client.monitor = 0;
    }
}

void lose_session(iemli_client &client)
{
    client.published = false;
    client.server_ref = 0;
    for (iemli_request &request : client.requests) {
        if (!request.answered) {
            request.answered = true;
            request.answer.outcome = iemli_outcome::lost;
        }
    }
}

void handle_service_added(iemli_client &client, const itc_msg *msg)
{
    uint32_t mbox = as<ns_service_ind>(msg)->mbox;
    if (client.published && mbox == client.server_mbox) {
        return;
    }
    if (client.monitor == 0 || mbox != client.server_mbox) {
        unwatch_server(client);
        client.server_mbox = mbox;
        itc_msg *died = itc_alloc(sizeof(iemli_plain_msg), IEMLI_SERVER_DOWN_IND);
        client.monitor = itc_monitor(mbox, &died);
    }
    client.published = true;
    add_event(client, iemli_event_kind::published);
}

void handle_service_removed(iemli_client &client, const itc_msg *msg)
{
    if (client.published && as<ns_service_ind>(msg)->mbox == client.server_mbox) {
        lose_session(client);
        add_event(client, iemli_event_kind::withdrawn);
    }
}

void handle_name_service(iemli_client &client, const itc_msg *msg)
{
    size_t least = msg->msgno == NS_SUBSCRIBE_RSP ? sizeof(ns_subscribe_rsp) : sizeof(ns_service_ind);
    if (itc_size(msg) < least) {
        add_malformed(client, msg, "too short");
    } else if (msg->msgno == NS_SUBSCRIBE_RSP) {
        client.subscription = as<ns_subscribe_rsp>(msg)->sid;
    } else if (msg->msgno == NS_SERVICE_ADDED_IND) {
        handle_service_added(client, msg);
    } else {
        handle_service_removed(client, msg);
    }
}

void handle_server_died(iemli_client &client, const itc_msg *msg)
{
    if (itc_sender(msg) == client.server_mbox) {
        client.monitor = 0; // it was delivered, so there is nothing left to end
        lose_session(client);
        add_event(client, iemli_event_kind::server_died);
    }
}

// ---- Answers and indications ---------------------------------------------------------------------------------------

void read_confirm(iemli_client &client, const itc_msg *msg, iemli_answer &answer)
{
    answer.outcome = iemli_outcome::confirmed;
    if (msg->msgno == IEMLI_INIT_SERVICE_CFM) {
        client.server_ref = as<iemli_header>(msg)->connection_ref;
    } else if (msg->msgno == IEMLI_TERM_SERVICE_CFM) {
        client.server_ref = 0;
    } else if (msg->msgno == IEMLI_CREATE_INTER_ME_LINK_CFM) {
        answer.link_ref = as<iemli_create_link_cfm>(msg)->link_ref;
    } else if (msg->msgno == IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM) {
        const auto *cfm = as<iemli_get_mac_cfm>(msg);
        answer.mac = cfm->mac;
        answer.mp_id = cfm->mpId;
        answer.port_name.assign(cfm->port_name, strnlen(cfm->port_name, sizeof cfm->port_name));
    }
}

void handle_answer(iemli_client &client, const itc_msg *msg, const answer_kind &kind)
{
    const auto *header = as<iemli_header>(msg);
    auto request = std::find_if(client.requests.begin(), client.requests.end(), [&](const iemli_request &r) {
        return r.procedure == header->procedure_ref && r.msgno == kind.request && !r.answered;
    });
    if (request == client.requests.end()) {
        iemli_event event = event_from_header(iemli_event_kind::late_answer, header);
        event.link_ref = msg->msgno == IEMLI_CREATE_INTER_ME_LINK_CFM ? as<iemli_create_link_cfm>(msg)->link_ref : 0;
        client.events.push_back(event);
        return;
    }
    request->answered = true;
    if (kind.reject) {
        request->answer.outcome = iemli_outcome::rejected;
        request->answer.reason = as<iemli_rej>(msg)->reason;
    } else {
        read_confirm(client, msg, request->answer);
    }
}

void handle_link_status(iemli_client &client, const itc_msg *msg)
{
    const auto *ind = as<iemli_link_status_ind>(msg);
    iemli_event event = event_from_header(iemli_event_kind::link_status, &ind->header);
    event.link_ref = ind->link_ref;
    event.status = ind->status;
    event.disabled_reason = ind->disabled_reason;
    client.events.push_back(event);
}

void handle_link_rtt(iemli_client &client, const itc_msg *msg)
{
    const auto *ind = as<iemli_link_rtt_ind>(msg);
    iemli_event event = event_from_header(iemli_event_kind::link_rtt, &ind->header);
    event.link_ref = ind->link_ref;
    event.rtt = ind->stats;
    client.events.push_back(event);
}

void handle_indication(iemli_client &client, const itc_msg *msg)
{
    if (msg->msgno == IEMLI_INTER_ME_LINK_STATUS_IND) {
        itc_size(msg) < sizeof(iemli_link_status_ind) ? add_malformed(client, msg, "too short")
                                                      : handle_link_status(client, msg);
    } else if (msg->msgno == IEMLI_INTER_ME_LINK_RTT_IND) {
        itc_size(msg) < sizeof(iemli_link_rtt_ind) ? add_malformed(client, msg, "too short")
                                                   : handle_link_rtt(client, msg);
    } else {
        add_malformed(client, msg, "not for a client");
    }
}

// ---- Sending and waiting -------------------------------------------------------------------------------------------

// A request of `size` bytes; its header is filled, its connection reference is the session's.
itc_msg *new_request(iemli_client &client, uint32_t msgno, size_t size)
{
    itc_msg *msg = itc_alloc(size, msgno);
    auto *header = reinterpret_cast<iemli_header *>(msg);
    header->procedure_ref = client.next_procedure++;
    header->connection_ref = client.server_ref;
    return msg;
}

uint32_t send_request(iemli_client &client, itc_msg *msg)
{
    iemli_request request;
    request.procedure = as<iemli_header>(msg)->procedure_ref;
    request.msgno = msg->msgno;
    request.answer.procedure = request.procedure;
    uint32_t procedure = request.procedure;
    if (client.published) {
        itc_send(&msg, client.server_mbox, ITC_MY_MBOX);
    } else {
        itc_free(&msg);
        request.answered = true;
        request.answer.outcome = iemli_outcome::lost;
    }
    client.requests.push_back(request);
    return procedure;
}

// Takes one message of those that concern a client. False: none came before the deadline.
bool take_message(iemli_client &client, clock_type::time_point deadline)
{
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock_type::now()).count();
    itc_msg *msg = itc_receive(MESSAGE_FILTER.data(), left > 0 ? static_cast<uint32_t>(left) : 0, ITC_FROM_ANY);
    if (msg == nullptr) {
        // Nothing comes before its time only where the registry is lost.
        if (clock_type::now() < deadline && iemli_client_registry_is_lost()) {
            client.registry_lost = true;
            lose_session(client);
        }
        return false;
    }
    iemli_client_handle(client, msg);
    itc_free(&msg);
    return true;
}

clock_type::time_point deadline_in(uint32_t ms) { return clock_type::now() + std::chrono::milliseconds(ms); }

uint32_t send_link_ref_request(iemli_client &client, uint32_t msgno, uint32_t link_ref)
{
    itc_msg *msg = new_request(client, msgno, sizeof(iemli_link_ref_req));
    reinterpret_cast<iemli_link_ref_req *>(msg)->link_ref = link_ref;
    return send_request(client, msg);
}

uint32_t send_open(iemli_client &client, const uint32_t (&versions)[3])
{
    itc_msg *msg = new_request(client, IEMLI_INIT_SERVICE_REQ, sizeof(iemli_init_service_req));
    auto *req = reinterpret_cast<iemli_init_service_req *>(msg);
    req->header.connection_ref = client.client_ref;
    req->pv_1 = versions[0];
    req->pv_2 = versions[1];
    req->pv_3 = versions[2];
    return send_request(client, msg);
}

void copy_port_name(char (&out)[17], const std::string &name)
{
    memcpy(out, name.data(), std::min<size_t>(name.size(), 16));
}

// Copies the app links behind the fixed part of a request, `offset` bytes from its start.
void copy_app_links(itc_msg *msg, size_t offset, const std::vector<IemliAppLink> &app_links)
{
    if (!app_links.empty()) {
        memcpy(reinterpret_cast<uint8_t *>(msg) + offset, app_links.data(), app_links.size() * sizeof(IemliAppLink));
    }
}

} // namespace

bool iemli_client_start(iemli_client &client, uint32_t client_ref)
{
    client = iemli_client{};
    client.client_ref = client_ref;
    return ns_subscribe(IEMLI_SERVICE_NAME, "", itc_current_mbox()) == 0;
}

void iemli_client_stop(iemli_client &client)
{
    unwatch_server(client);
    if (client.subscription != 0) {
        ns_unsubscribe(client.subscription, itc_current_mbox());
    }
    client = iemli_client{};
}

void iemli_client_handle(iemli_client &client, const itc_msg *msg)
{
    if (msg->msgno >= NS_SUBSCRIBE_RSP && msg->msgno <= NS_SERVICE_REMOVED_IND) {
        handle_name_service(client, msg);
        return;
    }
    if (msg->msgno == IEMLI_SERVER_DOWN_IND) {
        handle_server_died(client, msg);
        return;
    }
    if (msg->msgno == OWN_INTERRUPT && itc_sender(msg) == itc_current_mbox()) {
        client.interrupted = true;
        return;
    }
    const answer_kind *kind = find_answer_kind(msg->msgno);
    if (kind == nullptr) {
        handle_indication(client, msg);
    } else if (itc_size(msg) < iemli_fixed_size(msg->msgno)) {
        add_malformed(client, msg, "too short");
    } else {
        handle_answer(client, msg, *kind);
    }
}

bool iemli_client_wait_published(iemli_client &client, uint32_t bound_ms)
{
    auto deadline = deadline_in(bound_ms);
    while (!client.published) {
        if (!take_message(client, deadline)) {
            return false;
        }
    }
    return true;
}

iemli_answer iemli_client_await(iemli_client &client, uint32_t procedure)
{
    auto deadline = deadline_in(client.bound_ms);
    for (;;) {
        auto request = std::find_if(client.requests.begin(), client.requests.end(),
                                    [=](const iemli_request &r) { return r.procedure == procedure; });
        if (request == client.requests.end()) {
            return iemli_answer{};
        }
        if (request->answered || !take_message(client, deadline)) {
            iemli_answer answer = request->answer;
            client.requests.erase(request);
            return answer;
        }
    }
}

std::optional<iemli_answer> iemli_client_take_answer(iemli_client &client)
{
    const auto found =
        std::find_if(client.requests.begin(), client.requests.end(), [](const iemli_request &r) { return r.answered; });
    if (found == client.requests.end()) {
        return std::nullopt;
    }
    iemli_answer answer = found->answer;
    client.requests.erase(found);
    return answer;
}

std::optional<iemli_event> iemli_client_next_event(iemli_client &client, uint32_t bound_ms)
{
    auto deadline = deadline_in(bound_ms);
    while (client.events.empty()) {
        if (std::exchange(client.interrupted, false) || !take_message(client, deadline)) {
            return std::nullopt;
        }
    }
    iemli_event event = client.events.front();
    client.events.pop_front();
    return event;
}

bool iemli_client_registry_is_lost()
{
    return ns_unpublish("KAP_IEMLI_NO_SUCH_SERVICE", "", itc_current_mbox(), "") == ENOTCONN;
}

void iemli_client_interrupt(iemli_client &client)
{
    (void)client; // the message finds it
    itc_msg *msg = itc_alloc(sizeof(iemli_plain_msg), OWN_INTERRUPT);
    itc_send(&msg, itc_current_mbox(), ITC_MY_MBOX);
}

iemli_answer iemli_client_open(iemli_client &client, const uint32_t (&versions)[3])
{
    return iemli_client_await(client, send_open(client, versions));
}

uint32_t iemli_client_send_open(iemli_client &client) { return send_open(client, {IEMLI_PROTOCOL_VERSION, 0, 0}); }

iemli_answer iemli_client_close(iemli_client &client)
{
    itc_msg *msg = new_request(client, IEMLI_TERM_SERVICE_REQ, sizeof(iemli_plain_msg));
    return iemli_client_await(client, send_request(client, msg));
}

uint32_t iemli_client_send_create(iemli_client &client, const iemli_link_wish &wish)
{
    auto count = static_cast<uint32_t>(wish.app_links.size());
    const auto size = static_cast<size_t>(sizeof(iemli_header) + iemli_link_data_size(count));
    itc_msg *msg = new_request(client, IEMLI_CREATE_INTER_ME_LINK_REQ, size);
    auto *link = &reinterpret_cast<iemli_create_link_req *>(msg)->link;
    link->nearEndMpId = wish.mp_id;
    link->farEndCpmMac = wish.far_cpm_mac;
    copy_port_name(link->imlPortName, wish.port);
    link->vlanId = wish.vlan;
    link->numberOfAppLinks = count;
    copy_app_links(msg, sizeof(iemli_header) + offsetof(IemliLinkData, appLinks), wish.app_links);
    return send_request(client, msg);
}

iemli_answer iemli_client_create_link(iemli_client &client, const iemli_link_wish &wish)
{
    return iemli_client_await(client, iemli_client_send_create(client, wish));
}

iemli_answer iemli_client_update_link(iemli_client &client, uint32_t link_ref,
                                      const std::vector<IemliAppLink> &app_links)
{
    return iemli_client_await(client, iemli_client_send_update(client, link_ref, app_links));
}

uint32_t iemli_client_send_update(iemli_client &client, uint32_t link_ref, const std::vector<IemliAppLink> &app_links)
{
    size_t slots = std::max<size_t>(app_links.size(), 1);
    size_t size = offsetof(iemli_update_link_req, appLinks) + slots * sizeof(IemliAppLink);
    itc_msg *msg = new_request(client, IEMLI_UPDATE_INTER_ME_LINK_REQ, size);
    auto *req = reinterpret_cast<iemli_update_link_req *>(msg);
    req->link_ref = link_ref;
    req->numberOfAppLinks = static_cast<uint32_t>(app_links.size());
    copy_app_links(msg, offsetof(iemli_update_link_req, appLinks), app_links);
    return send_request(client, msg);
}

uint32_t iemli_client_send_delete(iemli_client &client, uint32_t link_ref)
{
    return send_link_ref_request(client, IEMLI_DELETE_INTER_ME_LINK_REQ, link_ref);
}

iemli_answer iemli_client_delete_link(iemli_client &client, uint32_t link_ref)
{
    return iemli_client_await(client, iemli_client_send_delete(client, link_ref));
}

iemli_answer iemli_client_get_mac(iemli_client &client, const std::string &port, uint8_t mp_id)
{
    return iemli_client_await(client, iemli_client_send_get_mac(client, port, mp_id));
}

uint32_t iemli_client_send_get_mac(iemli_client &client, const std::string &port, uint8_t mp_id)
{
    itc_msg *msg = new_request(client, IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ, sizeof(iemli_get_mac_req));
    auto *req = reinterpret_cast<iemli_get_mac_req *>(msg);
    req->mpId = mp_id;
    copy_port_name(req->imlPortName, port);
    return send_request(client, msg);
}

iemli_answer iemli_client_enable_rtt(iemli_client &client, uint32_t link_ref, const rtt_settings &settings)
{
    return iemli_client_await(client, iemli_client_send_enable_rtt(client, link_ref, settings));
}

uint32_t iemli_client_send_enable_rtt(iemli_client &client, uint32_t link_ref, const rtt_settings &settings)
{
    itc_msg *msg = new_request(client, IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ, sizeof(iemli_enable_rtt_req));
    auto *req = reinterpret_cast<iemli_enable_rtt_req *>(msg);
    req->link_ref = link_ref;
    req->settings = settings;
    return send_request(client, msg);
}

iemli_answer iemli_client_disable_rtt(iemli_client &client, uint32_t link_ref)
{
    return iemli_client_await(client, iemli_client_send_disable_rtt(client, link_ref));
}

uint32_t iemli_client_send_disable_rtt(iemli_client &client, uint32_t link_ref)
{
    return send_link_ref_request(client, IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ, link_ref);
}

const char *iemli_client_message_name(uint32_t msgno)
{
    switch (msgno) {
        IEMLI_MESSAGES(VORN_NAME_OF)
    default:
        return "a message of another protocol";
    }
}

const char *iemli_client_reason_name(uint32_t reason)
{
    switch (reason) {
        IEMLI_REJECT_REASONS(VORN_NAME_OF)
    default:
        return "an unknown reason";
    }
}

const char *iemli_client_status_text(uint32_t status, uint32_t disabled_reason)
{
    return status == IML_LINK_ENABLED ? "enabled"
                                      : iml_link_disabled_text(disabled_reason, "disabled with an unknown reason");
}
