// Publication, dispatch, the order in which waiting requests are taken, and what the link procedures report back.
//
// At most one create, update or delete is with the lower layer at a time, over all sessions; what would change links or
// end sessions meanwhile waits in the queues.
#include "iemli_server.hpp"

#include "iemli_handlers.hpp"
#include "iemli_queue.hpp"
#include "iemli_send.hpp"
#include "iemli_session.hpp"
#include "ns.h"
#include "vorn_trace.hpp"

namespace
{

// How a request of a session is served. A request that may wait changes links or sessions; only such a one counts as
// taken up (last_procedure_ref).
struct request_rule {
    uint32_t msgno;
    bool may_wait;
    bool ends_session; // what its session has waiting is discarded when it comes to wait itself
    bool (*handle)(IemliSession *session, const itc_msg *msg); // true: a procedure was started, and is over already
    void (*reject)(const iemli_peer &to, uint32_t reason);     // the protocol may have none
    void (*confirm)(const iemli_peer &to);                     // to a stranger whom nothing can reject
};

bool handle_client_down(IemliSession *session, const itc_msg *)
{
    iemli_session_handle_client_down(session);
    return false;
}

bool handle_term(IemliSession *session, const itc_msg *)
{
    iemli_session_handle_term(session);
    return false;
}

constexpr request_rule rules[] = {
    {IEMLI_CLIENT_DOWN_IND, true, true, handle_client_down, nullptr, nullptr},
    {IEMLI_TERM_SERVICE_REQ, true, true, handle_term, nullptr, send_term_cfm},
    {IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ, false, false, handle_get_local_supervision_mac_req,
     send_get_local_supervision_mac_rej, nullptr},
    {IEMLI_CREATE_INTER_ME_LINK_REQ, true, false, handle_create_iml_link_req, send_create_rej, nullptr},
    {IEMLI_UPDATE_INTER_ME_LINK_REQ, true, false, handle_update_iml_link_req, send_update_rej, nullptr},
    {IEMLI_DELETE_INTER_ME_LINK_REQ, true, false, handle_delete_iml_link_req, nullptr, send_delete_cfm},
    {IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ, false, false, handle_enable_inter_me_link_rtt_req, send_enable_rtt_rej,
     nullptr},
    {IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ, false, false, handle_disable_inter_me_link_rtt_req, nullptr,
     send_disable_rtt_cfm},
};

const request_rule *rule_of(uint32_t msgno)
{
    for (const request_rule &rule : rules) {
        if (rule.msgno == msgno) {
            return &rule;
        }
    }
    return nullptr;
}

bool is_too_short(const itc_msg *msg)
{
    if (itc_size(msg) >= iemli_message_min_size(msg)) {
        return false;
    }
    VORN_TRACE(TRACE_ERROR, "%s too short: %zu bytes", iemli_msg_to_string(msg->msgno), itc_size(msg));
    return true;
}

bool has_header(const itc_msg *msg) { return itc_size(msg) >= sizeof(iemli_header); }

void handle_init(const itc_msg *msg)
{
    if (!is_too_short(msg)) {
        iemli_session_handle_init(msg);
    }
}

// A session hears of a request that was cut off; what cannot be rejected is dropped. An init is not a session's.
void refuse_too_short(const request_rule *rule, const itc_msg *msg)
{
    if (!has_header(msg) || rule->reject == nullptr) {
        return;
    }
    const IemliSession *session = iemli_session_find_by_request(msg);
    if (session != nullptr) {
        rule->reject(iemli_session_peer(session, iemli_header_of(msg)->procedure_ref), IEMLI_REJ_OTHER_REASON);
    }
}

void answer_stranger(const request_rule *rule, const itc_msg *msg)
{
    if (rule->reject != nullptr) {
        rule->reject(iemli_sender_of(msg), IEMLI_REJ_SERVICE_NOT_INITIATED);
    } else if (rule->confirm != nullptr) {
        rule->confirm(iemli_sender_of(msg));
    }
}

void let_wait(const request_rule *rule, IemliSession *session, const itc_msg *msg)
{
    if (rule->ends_session) {
        iemli_queue_flush(session);
    }
    iemli_queue_add(session, msg);
}

// The session whose request arrived first of all that wait; null when none waits.
IemliSession *longest_waiting_session()
{
    IemliSession *found = nullptr;
    for (IemliSession *session = iemli_session_first(); session != nullptr; session = session->next) {
        if (session->queue_head != nullptr && (found == nullptr || session->queue_head->seq < found->queue_head->seq)) {
            found = session;
        }
    }
    return found;
}

// True when its procedure is over already: a completion, that asks for the next.
bool take_one_queued_request()
{
    IemliSession *session = longest_waiting_session();
    if (session == nullptr) {
        return false;
    }
    IemliQueuedRequest *entry = iemli_queue_take(session);
    const uint32_t msgno = entry->msg->msgno;
    VORN_TRACE(TRACE_SERVICE, "Handle %s message from queue", iemli_msg_to_string(msgno));
    session->last_procedure_ref = iemli_header_of(entry->msg)->procedure_ref;
    const request_rule *rule = rule_of(msgno);
    bool over = false;
    if (rule != nullptr && rule->may_wait) {
        over = rule->handle(session, entry->msg);
    } else {
        VORN_TRACE(TRACE_ERROR, "Filtering by msg number was done before. We should never enter this part.");
    }
    if (msgno == IEMLI_TERM_SERVICE_REQ) {
        // The entry of a term outlives its session: the leak that is part of this service.
        iemli_queue_keep(entry);
    } else {
        iemli_queue_free(entry);
    }
    return over;
}

// One queued request per completion. A request that is taken may be refused while its procedure starts, which is a
// completion too, and asks for the next. That is a loop and no recursion: a client that queues thousands of such
// requests could exhaust the stack. Nothing can come between such an answer and this loop, since it is sent by the
// handler, as its last act, and not by the procedure.
void iemli_handle_next_queued_request()
{
    while (take_one_queued_request()) {
    }
}

void take_up(const request_rule *rule, IemliSession *session, const itc_msg *msg)
{
    if (rule->may_wait) {
        session->last_procedure_ref = iemli_header_of(msg)->procedure_ref;
    }
    if (rule->handle(session, msg)) {
        iemli_handle_next_queued_request();
    }
}

void serve(const request_rule *rule, const itc_msg *msg)
{
    if (is_too_short(msg)) {
        refuse_too_short(rule, msg);
        return;
    }
    IemliSession *session = iemli_session_find_by_request(msg);
    if (session == nullptr) {
        answer_stranger(rule, msg);
    } else if (rule->may_wait && iemli_session_any_busy()) {
        let_wait(rule, session, msg);
    } else {
        take_up(rule, session, msg);
    }
}

// Null, and traced, when it is gone.
const IemliSession *session_to_tell(uint32_t server_conn_ref)
{
    const IemliSession *session = iemli_session_find(server_conn_ref);
    if (session == nullptr) {
        VORN_TRACE(TRACE_WARNING, "WARNING:Unexisting session for connection-ref=%u", server_conn_ref);
    }
    return session;
}

iemli_return_code publish()
{
    const uint32_t mbox = itc_current_mbox();
    int result = ns_publish(IEMLI_SERVICE_NAME, "", mbox, "");
    if (result != 0) {
        VORN_TRACE(TRACE_ERROR, "Failed to register %s in the NS, result = %d", IEMLI_SERVICE_NAME, result);
        return IEMLI_RET_ERR_NGNS;
    }
    result = itc_add_name(mbox, IEMLI_SERVICE_NAME);
    if (result != 0) {
        VORN_TRACE(TRACE_ERROR, "Failed to register %s in the ITC, result = %d", IEMLI_SERVICE_NAME, result);
        return IEMLI_RET_ERR_ITC;
    }
    VORN_TRACE(TRACE_SERVICE, "Iemli server published");
    return IEMLI_RET_OK;
}

iemli_return_code unpublish()
{
    const int result = ns_unpublish(IEMLI_SERVICE_NAME, "", itc_current_mbox(), "");
    if (result != 0) {
        VORN_TRACE(TRACE_ERROR, "Failed to unpublish %s in the NS, result = %d", IEMLI_SERVICE_NAME, result);
        return IEMLI_RET_ERR_NGNS;
    }
    VORN_TRACE(TRACE_SERVICE, "Iemli server unpublished");
    return IEMLI_RET_OK;
}

} // namespace

bool iemli_server_dispatch(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "%s", iemli_msg_to_string(msg->msgno));
    return iemli_handle_message(msg);
}

bool iemli_handle_message(const itc_msg *msg)
{
    if (msg->msgno == IEMLI_INIT_SERVICE_REQ) {
        handle_init(msg);
        return true;
    }
    const request_rule *rule = rule_of(msg->msgno);
    if (rule == nullptr) {
        return false;
    }
    serve(rule, msg);
    return true;
}

bool iemli_publish()
{
    iemli_session_clear_all();
    const iemli_return_code result = publish();
    if (result != IEMLI_RET_OK) {
        VORN_TRACE(TRACE_LINK, "Iemli init service failed, reason: %s", iemli_ret_to_string(result));
        return false;
    }
    return true;
}

void iemli_unpublish()
{
    const iemli_return_code result = unpublish();
    if (result != IEMLI_RET_OK) {
        VORN_TRACE(TRACE_LINK, "Iemli term service failed, reason: %s", iemli_ret_to_string(result));
    }
    while (iemli_session_first() != nullptr) {
        iemli_session_end(iemli_session_first());
    }
}

void iemli_link_procedure_cfm(uint32_t link_ref, IemliPendingRequest **pending)
{
    iemli_answer_confirmed(link_ref, pending);
    iemli_handle_next_queued_request();
}

void iemli_link_procedure_rej(uint32_t reason, IemliPendingRequest **pending)
{
    iemli_answer_rejected(reason, pending);
    iemli_handle_next_queued_request();
}

void iemli_send_link_status_ind(uint32_t server_conn_ref, uint32_t link_ref, iml_link_status status,
                                iml_link_disabled_reason disabled_reason)
{
    const IemliSession *session = session_to_tell(server_conn_ref);
    if (session != nullptr) {
        send_link_status_ind(iemli_session_peer(session, session->last_procedure_ref), link_ref, status,
                             disabled_reason);
    }
}

void iemli_send_link_rtt_ind(uint32_t server_conn_ref, uint32_t link_ref, const rtt_stats &stats)
{
    const IemliSession *session = session_to_tell(server_conn_ref);
    if (session != nullptr) {
        send_link_rtt_ind(iemli_session_peer(session, session->last_procedure_ref), link_ref, stats);
    }
}

const link_reports IEMLI_LINK_REPORTS = {iemli_link_procedure_cfm, iemli_link_procedure_rej, iemli_send_link_status_ind,
                                         iemli_send_link_rtt_ind};

void iemli_server_forget_all()
{
    iemli_session_clear_all();
    iemli_queue_forget_all();
}
