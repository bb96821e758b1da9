// What a session's link, MAC and RTT requests do: dump, check, hand over to the link procedures or answer; and the
// answer once a procedure is over. What is taken up next is decided by the server.
//
// The message has the size that its number and count ask for. True when a procedure was started and is over already:
// its answer is sent, and the next request may be taken.
#pragma once

#include "iemli_session.hpp"
#include "manager/links/link_reports.hpp"

bool handle_create_iml_link_req(IemliSession *session, const itc_msg *msg);
bool handle_update_iml_link_req(IemliSession *session, const itc_msg *msg);
bool handle_delete_iml_link_req(IemliSession *session, const itc_msg *msg);
bool handle_get_local_supervision_mac_req(IemliSession *session, const itc_msg *msg);
bool handle_enable_inter_me_link_rtt_req(IemliSession *session, const itc_msg *msg);
bool handle_disable_inter_me_link_rtt_req(IemliSession *session, const itc_msg *msg);

// Dumps the session and the request's references under the name of the message's handler.
void iemli_trace_request(const IemliSession *session, const itc_msg *msg);

// The procedure of a create, update or delete is over. Both end the session's waiting, answer it when it is still
// there, and free *pending and null it.
void iemli_answer_confirmed(uint32_t link_ref, IemliPendingRequest **pending);
void iemli_answer_rejected(uint32_t reason, IemliPendingRequest **pending);
