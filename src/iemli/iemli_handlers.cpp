// The session is marked busy before its procedure starts; a procedure that is refused, or even finishes, while it is
// being started, is answered at once, and that clears the mark again.
#include "iemli_handlers.hpp"

#include <cstdlib>

#include "iemli_checks.hpp"
#include "manager/links/link_paths.hpp"
#include "manager/links/link_procedures.hpp"
#include "manager/links/rtt.hpp"
#include "manager/ports/port_macs.hpp"
#include "manager/table/link_table.hpp"
#include "vorn_trace.hpp"

namespace
{

iemli_peer client_of(const IemliSession *session, const itc_msg *msg)
{
    return iemli_session_peer(session, iemli_header_of(msg)->procedure_ref);
}

const char *handler_name(uint32_t msgno)
{
    switch (msgno) {
    case IEMLI_CREATE_INTER_ME_LINK_REQ:
        return "handle_create_iml_link_req()";
    case IEMLI_UPDATE_INTER_ME_LINK_REQ:
        return "handle_update_iml_link_req()";
    case IEMLI_DELETE_INTER_ME_LINK_REQ:
        return "handle_delete_iml_link_req()";
    case IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ:
        return "handle_get_local_supervision_mac_req()";
    case IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ:
        return "handle_enable_inter_me_link_rtt_req()";
    case IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ:
        return "handle_disable_inter_me_link_rtt_req()";
    }
    return "unknown_function()";
}

void trace_create(const IemliLinkData *link)
{
    VORN_TRACE(TRACE_REQUEST,
               "handle_create_iml_link_req(): link information: vlanId = %u, imlPortName = %s, nearEndMpId = %u",
               link->vlanId, iemli_port_name_of(link).text, link->nearEndMpId);
    VORN_TRACE(TRACE_REQUEST,
               "handle_create_iml_link_req(): link MAC information: numberOfAppLinks = %u, farEndCpmMac = "
               "%02X:%02X:%02X:%02X:%02X:%02X",
               link->numberOfAppLinks, MAC_ARGS(link->farEndCpmMac));
    for (uint32_t i = 0; i < link->numberOfAppLinks; ++i) {
        const IemliAppLink &app_link = iemli_app_links(link)[i];
        VORN_TRACE(TRACE_REQUEST,
                   "handle_create_iml_link_req(): link MAC information: appLink[%u] appLink.nearEndAppMac = "
                   "%02X:%02X:%02X:%02X:%02X:%02X, appLink.farEndAppMac = %02X:%02X:%02X:%02X:%02X:%02X",
                   i + 1, MAC_ARGS(app_link.nearEndAppMac), MAC_ARGS(app_link.farEndAppMac));
    }
}

void trace_update(const iemli_update_link_req *request)
{
    VORN_TRACE(TRACE_REQUEST, "handle_update_iml_link_req(): link MAC information: numberOfAppLinks = %u",
               request->numberOfAppLinks);
    for (uint32_t i = 0; i < request->numberOfAppLinks; ++i) {
        const IemliAppLink &app_link = iemli_app_links(request)[i];
        VORN_TRACE(TRACE_REQUEST,
                   "handle_update_iml_link_req(): link MAC information: appLink[%u], appLink.nearEndAppMac = "
                   "%02X:%02X:%02X:%02X:%02X:%02X, appLink.farEndAppMac = %02X:%02X:%02X:%02X:%02X:%02X",
                   i + 1, MAC_ARGS(app_link.nearEndAppMac), MAC_ARGS(app_link.farEndAppMac));
    }
}

// A name as long as any trace of it can be.
struct traced_name {
    char text[2048];
};

// The name goes on to its zero or to the end of the message, whichever comes first.
traced_name port_name_of_get_mac(const itc_msg *msg)
{
    constexpr size_t offset = offsetof(iemli_get_mac_req, imlPortName);
    const char *field = reinterpret_cast<const char *>(msg) + offset;
    traced_name name;
    const size_t arrived = itc_size(msg) - offset;
    const size_t length = strnlen(field, arrived < sizeof name.text ? arrived : sizeof name.text - 1);
    memcpy(name.text, field, length);
    name.text[length] = '\0';
    return name;
}

IemliPendingRequest *new_pending(const IemliSession *session, const itc_msg *msg, uint32_t link_ref,
                                 iemli_pending_action action)
{
    auto *pending = static_cast<IemliPendingRequest *>(calloc(1, sizeof(IemliPendingRequest)));
    if (pending == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Memory allocation failed");
        return nullptr;
    }
    *pending = {session->server_conn_ref, iemli_header_of(msg)->procedure_ref, link_ref, action};
    return pending;
}

// ---- The answer to a create, update or delete ----

// The session that waited for this, not busy any more; null when it is gone.
IemliSession *end_waiting(const IemliPendingRequest *pending)
{
    IemliSession *session = iemli_session_find(pending->server_conn_ref);
    if (session == nullptr) {
        VORN_TRACE(TRACE_LINK, "Session %u lost while waiting for response from lower layer.",
                   pending->server_conn_ref);
        return nullptr;
    }
    session->busy = false;
    return session;
}

void confirm(const IemliSession *session, uint32_t link_ref, const IemliPendingRequest *pending)
{
    const iemli_peer client = iemli_session_peer(session, pending->procedure_ref);
    switch (pending->action) {
    case IEMLI_PENDING_CREATE:
        send_create_cfm(client, link_ref);
        return iml_link_create_path(link_ref);
    case IEMLI_PENDING_UPDATE:
        send_update_cfm(client);
        return iml_link_update_path(link_ref);
    case IEMLI_PENDING_DELETE:
        return send_delete_cfm(client);
    }
    VORN_TRACE(TRACE_ERROR, "Unknown pending request %u for link %u from client %u", pending->action, link_ref,
               client.client_mbox);
}

// A rejected create or update is answered under the reference that its session took up last, a delete under its own.
void reject(const IemliSession *session, uint32_t reason, const IemliPendingRequest *pending)
{
    const iemli_peer client = iemli_session_peer(session, session->last_procedure_ref);
    switch (pending->action) {
    case IEMLI_PENDING_CREATE:
        return send_create_rej(client, reason);
    case IEMLI_PENDING_UPDATE:
        return send_update_rej(client, reason);
    case IEMLI_PENDING_DELETE:
        VORN_TRACE(TRACE_ERROR, "Reject is not supported on delete link action. Request %u from client %u",
                   pending->procedure_ref, client.client_mbox);
        return send_delete_cfm(iemli_session_peer(session, pending->procedure_ref));
    }
    VORN_TRACE(TRACE_ERROR, "Unknown pending request %u from client %u", pending->action, client.client_mbox);
}

void let_go(IemliPendingRequest **pending)
{
    free(*pending);
    *pending = nullptr;
}

// True when the procedure is over already; then the request is answered, and that was the last act.
bool answer_at_once(const link_answer &answer, IemliPendingRequest **pending)
{
    switch (answer.kind) {
    case LINK_WAITS:
        return false;
    case LINK_CONFIRMED:
        iemli_answer_confirmed(answer.link_ref, pending);
        return true;
    case LINK_REJECTED:
        iemli_answer_rejected(answer.reason, pending);
        return true;
    }
    return false;
}

} // namespace

void iemli_trace_request(const IemliSession *session, const itc_msg *msg)
{
    const char *name = handler_name(msg->msgno);
    VORN_TRACE(TRACE_REQUEST,
               "%s: session information: client_conn_ref = %u, server_conn_ref = %u, last_procedure_ref = %u", name,
               session->client_conn_ref, session->server_conn_ref, session->last_procedure_ref);
    VORN_TRACE(TRACE_REQUEST, "%s: request information: header.connection_ref = %u, header.procedure_ref = %u", name,
               iemli_header_of(msg)->connection_ref, iemli_header_of(msg)->procedure_ref);
}

bool handle_create_iml_link_req(IemliSession *session, const itc_msg *msg)
{
    const IemliLinkData *requested = &iemli_message<iemli_create_link_req>(msg)->link;
    const iemli_peer client = client_of(session, msg);
    iemli_trace_request(session, msg);
    trace_create(requested);
    const uint32_t reason = iemli_check_create(requested);
    if (reason != IEMLI_NO_REJECT) {
        send_create_rej(client, reason);
        return false;
    }
    IemliPendingRequest *pending = new_pending(session, msg, 0, IEMLI_PENDING_CREATE);
    if (pending == nullptr) {
        send_create_rej(client, IEMLI_REJ_OTHER_REASON);
        return false;
    }
    session->busy = true;
    // As it came: the name of a known port ends within its field.
    return answer_at_once(iml_link_create(requested, &pending), &pending);
}

bool handle_update_iml_link_req(IemliSession *session, const itc_msg *msg)
{
    const auto *request = iemli_message<iemli_update_link_req>(msg);
    const iemli_peer client = client_of(session, msg);
    iemli_trace_request(session, msg);
    trace_update(request);
    const iml_link *link = iml_link_find_by_ref(request->link_ref);
    if (link == nullptr) {
        send_update_rej(client, IEMLI_REJ_UNKNOWN_LINK_REF);
        return false;
    }
    const IemliAppLink *app_links = iemli_app_links(request);
    const uint32_t reason = iemli_check_update(link, request->numberOfAppLinks, app_links);
    if (reason != IEMLI_NO_REJECT) {
        send_update_rej(client, reason);
        return false;
    }
    IemliPendingRequest *pending = new_pending(session, msg, request->link_ref, IEMLI_PENDING_UPDATE);
    if (pending == nullptr) {
        send_update_rej(client, IEMLI_REJ_OTHER_REASON);
        return false;
    }
    session->busy = true;
    return answer_at_once(iml_link_update(&pending, request->numberOfAppLinks, app_links), &pending);
}

bool handle_delete_iml_link_req(IemliSession *session, const itc_msg *msg)
{
    const uint32_t link_ref = iemli_message<iemli_link_ref_req>(msg)->link_ref;
    const iemli_peer client = client_of(session, msg);
    iemli_trace_request(session, msg);
    VORN_TRACE(TRACE_REQUEST, "handle_delete_iml_link_req(): link_ref = %u", link_ref);
    IemliPendingRequest *pending = new_pending(session, msg, link_ref, IEMLI_PENDING_DELETE);
    if (pending == nullptr) {
        send_delete_cfm(client);
        return false;
    }
    session->busy = true;
    if (!iml_link_delete(link_ref, session->server_conn_ref, &pending)) {
        // No procedure will ever answer this one, and a delete is always confirmed. Nothing was answered meanwhile, so
        // the session still stands.
        session->busy = false;
        free(pending);
        send_delete_cfm(client);
    }
    return false;
}

bool handle_get_local_supervision_mac_req(IemliSession *session, const itc_msg *msg)
{
    const auto *request = iemli_message<iemli_get_mac_req>(msg);
    const iemli_peer client = client_of(session, msg);
    const traced_name port = port_name_of_get_mac(msg);
    iemli_trace_request(session, msg);
    VORN_TRACE(TRACE_REQUEST, "handle_get_local_supervision_mac_req(): imlPortName = %s, mpId = %u", port.text,
               request->mpId);
    mac_address mac = {};
    uint32_t reason = IEMLI_REJ_OTHER_REASON;
    if (fetch_local_supervision_mac(port.text, &mac, &reason)) {
        send_get_local_supervision_mac_cfm(client, request->mpId, port.text, mac);
    } else {
        send_get_local_supervision_mac_rej(client, reason);
    }
    return false;
}

bool handle_enable_inter_me_link_rtt_req(IemliSession *session, const itc_msg *msg)
{
    const auto *request = iemli_message<iemli_enable_rtt_req>(msg);
    const iemli_peer client = client_of(session, msg);
    iemli_trace_request(session, msg);
    VORN_TRACE(TRACE_REQUEST,
               "handle_enable_inter_me_link_rtt_req(): link_reference = %u, batchSize = %u, frameSize = %u, "
               "measureInterval %u",
               request->link_ref, request->settings.batchSize, request->settings.frameSize,
               request->settings.measureInterval);
    const iml_link *link = iml_link_find_by_ref(request->link_ref);
    uint32_t reason = iemli_check_enable_rtt(link, session->server_conn_ref, request->settings);
    if (reason == IEMLI_NO_REJECT && !rtt_enable(request->link_ref, request->settings)) {
        reason = IEMLI_REJ_OTHER_REASON;
    }
    if (reason != IEMLI_NO_REJECT) {
        send_enable_rtt_rej(client, reason);
        return false;
    }
    send_enable_rtt_cfm(client);
    return false;
}

bool handle_disable_inter_me_link_rtt_req(IemliSession *session, const itc_msg *msg)
{
    const uint32_t link_ref = iemli_message<iemli_link_ref_req>(msg)->link_ref;
    const iemli_peer client = client_of(session, msg);
    iemli_trace_request(session, msg);
    VORN_TRACE(TRACE_REQUEST, "handle_disable_inter_me_link_rtt_req(): link_reference = %u", link_ref);
    const iml_link *link = iml_link_find_by_ref(link_ref);
    if (link == nullptr || link->connection_ref != session->server_conn_ref) {
        VORN_TRACE(TRACE_WARNING, "Disable_iml_rtt_req without matching link reference ,link_ref=%u", link_ref);
    } else if (iml_link_is_rtt_enabled(link_ref)) {
        VORN_TRACE(TRACE_WARNING, "RTT measurement disabled for link with link_ref=%u", link_ref);
        rtt_disable(link_ref);
    }
    send_disable_rtt_cfm(client);
    return false;
}

void iemli_answer_confirmed(uint32_t link_ref, IemliPendingRequest **pending)
{
    const IemliSession *session = end_waiting(*pending);
    if (session != nullptr) {
        confirm(session, link_ref, *pending);
    }
    let_go(pending);
}

void iemli_answer_rejected(uint32_t reason, IemliPendingRequest **pending)
{
    const IemliSession *session = end_waiting(*pending);
    if (session != nullptr) {
        reject(session, reason, *pending);
    }
    let_go(pending);
}
