// Which message answers which request, and under which reference: see iemli_answers.hpp. What is taken up next is
// decided by the server.
#include "iemli_answers.hpp"

#include <cstdlib>

#include "iemli_send.hpp"
#include "iemli_session.hpp"
#include "manager/links/link_paths.hpp"
#include "vorn_trace.hpp"

namespace
{

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

} // namespace

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
