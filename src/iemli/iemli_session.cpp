// Admits clients and lets them go. Whether a term or a client-down has to wait in the queue is decided by the server.
#include "iemli_session.hpp"

#include <cstdlib>

#include "manager/links/link_procedures.hpp"
#include "vorn_trace.hpp"

namespace
{

IemliSession *sessions;
uint8_t session_count;

bool offers_our_version(const iemli_init_service_req *request)
{
    return request->pv_1 == IEMLI_PROTOCOL_VERSION || request->pv_2 == IEMLI_PROTOCOL_VERSION ||
           request->pv_3 == IEMLI_PROTOCOL_VERSION;
}

// Gives the session the lowest free reference and its place in the list.
void insert(IemliSession *session)
{
    uint32_t candidate = 1;
    IemliSession **place = &sessions;
    while (*place != nullptr && (*place)->server_conn_ref <= candidate) {
        ++candidate;
        place = &(*place)->next;
    }
    session->server_conn_ref = candidate;
    session->next = *place;
    *place = session;
    ++session_count;
}

void unlink(const IemliSession *session)
{
    IemliSession **place = &sessions;
    while (*place != session) {
        place = &(*place)->next;
    }
    *place = session->next;
}

// The message that tells of the client's death names the session by the server's own reference.
uint32_t monitor_client(uint32_t client_mbox, uint32_t server_conn_ref)
{
    itc_msg *msg = itc_alloc(sizeof(iemli_plain_msg), IEMLI_CLIENT_DOWN_IND);
    reinterpret_cast<iemli_plain_msg *>(msg)->header.connection_ref = server_conn_ref;
    return itc_monitor(client_mbox, &msg);
}

// Null when there are enough sessions already, or no memory.
IemliSession *create(uint32_t client_mbox, uint32_t client_conn_ref)
{
    if (session_count >= IEMLI_MAX_SESSIONS) {
        return nullptr;
    }
    auto *session = static_cast<IemliSession *>(calloc(1, sizeof(IemliSession)));
    if (session == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Memory allocation failed");
        return nullptr;
    }
    insert(session);
    session->client_mbox = client_mbox;
    session->client_conn_ref = client_conn_ref;
    session->monitor_ref = monitor_client(client_mbox, session->server_conn_ref);
    return session;
}

} // namespace

IemliSession *iemli_session_first() { return sessions; }

IemliSession *iemli_session_find(uint32_t server_conn_ref)
{
    IemliSession *session = sessions;
    while (session != nullptr && session->server_conn_ref != server_conn_ref) {
        session = session->next;
    }
    return session;
}

IemliSession *iemli_session_find_by_request(const itc_msg *msg)
{
    IemliSession *session = iemli_session_find(iemli_header_of(msg)->connection_ref);
    return session != nullptr && session->client_mbox == itc_sender(msg) ? session : nullptr;
}

IemliSession *iemli_session_find_by_init(const itc_msg *msg)
{
    const uint32_t sender = itc_sender(msg);
    IemliSession *session = sessions;
    while (session != nullptr &&
           (session->client_conn_ref != iemli_header_of(msg)->connection_ref || session->client_mbox != sender)) {
        session = session->next;
    }
    return session;
}

bool iemli_session_any_busy()
{
    for (const IemliSession *session = sessions; session != nullptr; session = session->next) {
        if (session->busy) {
            return true;
        }
    }
    return false;
}

iemli_peer iemli_session_peer(const IemliSession *session, uint32_t procedure_ref)
{
    return {session->client_mbox, procedure_ref, session->client_conn_ref};
}

void iemli_session_handle_init(const itc_msg *msg)
{
    const auto *request = iemli_message<iemli_init_service_req>(msg);
    const iemli_peer sender = iemli_sender_of(msg);
    if (iemli_session_find_by_init(msg) != nullptr) {
        send_init_rej(sender, IEMLI_REJ_SERVICE_INITIATED);
        return;
    }
    VORN_TRACE_REC(msg->msgno, sender.client_mbox,
                   "Init service received with:client_mbox: %u, connection_ref: %u, procedure_ref: %u, pv_1: %u, "
                   "pv_2: %u, pv_3: %u",
                   sender.client_mbox, sender.connection_ref, sender.procedure_ref, request->pv_1, request->pv_2,
                   request->pv_3);
    if (!offers_our_version(request)) {
        VORN_TRACE(TRACE_LINK, "Rejecting IEMLI service init, invalid protocol version");
        send_init_rej(sender, IEMLI_REJ_SERVICE_INVALID_PV);
        return;
    }
    const IemliSession *session = create(sender.client_mbox, sender.connection_ref);
    if (session == nullptr) {
        VORN_TRACE(TRACE_LINK, "Rejecting IEMLI service init, could not create session");
        send_init_rej(sender, IEMLI_REJ_OTHER_REASON);
        return;
    }
    VORN_TRACE(TRACE_SERVICE, "Confirming IEMLI service init");
    send_init_cfm({sender.client_mbox, sender.procedure_ref, session->server_conn_ref}, IEMLI_PROTOCOL_VERSION);
}

void iemli_session_handle_term(IemliSession *session)
{
    const iemli_peer client = {session->client_mbox, session->last_procedure_ref, session->server_conn_ref};
    VORN_TRACE_REC(IEMLI_TERM_SERVICE_REQ, client.client_mbox,
                   "Terminate service received with:client_mbox: %u, connection_ref: %u, procedure_ref: %u, ",
                   session->client_mbox, session->client_conn_ref, session->last_procedure_ref);
    iemli_session_end(session);
    VORN_TRACE(TRACE_SERVICE, "Confirming IEMLI service term");
    send_term_cfm(client);
}

void iemli_session_handle_client_down(IemliSession *session)
{
    VORN_TRACE_REC(IEMLI_CLIENT_DOWN_IND, session->client_mbox, "Client down ind received: client_mbox: %u",
                   session->client_mbox);
    iemli_session_end(session);
}

void iemli_session_end(IemliSession *session)
{
    itc_unmonitor(session->monitor_ref);
    iml_link_delete_all_of_connection(session->server_conn_ref);
    iemli_queue_flush(session);
    unlink(session);
    VORN_TRACE(TRACE_SERVICE, "Client session terminated: client_mbox: %u, client_conn_ref: %u, server_conn_ref: %u",
               session->client_mbox, session->client_conn_ref, session->server_conn_ref);
    free(session);
    --session_count;
}

void iemli_session_clear_all()
{
    while (sessions != nullptr) {
        IemliSession *session = sessions;
        sessions = session->next;
        itc_unmonitor(session->monitor_ref);
        iemli_queue_drop(session);
        free(session);
    }
    session_count = 0;
}
