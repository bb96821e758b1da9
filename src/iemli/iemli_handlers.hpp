// What a session's link, MAC and RTT requests do: dump, check, hand over to the link procedures or answer.
//
// The message has the size that its number and count ask for. Create, update and delete may answer, and may take the
// next queued request, before they return: neither the session nor any link is to be used after them.
#pragma once

#include "iemli_session.hpp"

void handle_create_iml_link_req(IemliSession *session, const itc_msg *msg);
void handle_update_iml_link_req(IemliSession *session, const itc_msg *msg);
void handle_delete_iml_link_req(IemliSession *session, const itc_msg *msg);
void handle_get_local_supervision_mac_req(IemliSession *session, const itc_msg *msg);
void handle_enable_inter_me_link_rtt_req(IemliSession *session, const itc_msg *msg);
void handle_disable_inter_me_link_rtt_req(IemliSession *session, const itc_msg *msg);

// Dumps the session and the request's references under the name of the message's handler.
void iemli_trace_request(const IemliSession *session, const itc_msg *msg);
