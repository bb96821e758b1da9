// The IEMLI server: publication in the name service, client sessions, the request queue and the request handlers.
//
// Callbacks re-enter: iemli_link_procedure_cfm and iemli_link_procedure_rej answer a client and then take the next
// queued request before they return. That request may delete links, end sessions or start procedures; after calling
// one of them use only values copied before.
#pragma once

#include "iemli_messages.hpp"
#include "itc.h"
#include "manager/links/link_reports.hpp"

// Offers a received message; true when it was an IEMLI request or the client-down indication. Never keeps or frees it.
bool iemli_server_dispatch(const itc_msg *msg);
bool iemli_handle_message(const itc_msg *msg);

// Called by the manager when the lower-layer services are complete, and when they are not any more.
bool iemli_publish();
void iemli_unpublish();

// The procedure finished. `link_ref`: the link concerned. Frees *pending, nulls it, takes the next queued request.
void iemli_link_procedure_cfm(uint32_t link_ref, IemliPendingRequest **pending);
// The procedure failed with an IEMLI_REJ_* reason. Frees *pending, nulls it, takes the next queued request.
void iemli_link_procedure_rej(uint32_t reason, IemliPendingRequest **pending);

void iemli_send_link_status_ind(uint32_t server_conn_ref, uint32_t link_ref, iml_link_status status,
                                iml_link_disabled_reason disabled_reason);
void iemli_send_link_rtt_ind(uint32_t server_conn_ref, uint32_t link_ref, const rtt_stats &stats);

// The four above, for the links.
extern const link_reports IEMLI_LINK_REPORTS;

// Back to how the process starts: no sessions, nothing queued, sequence counter 0. Tells nobody.
void iemli_server_forget_all();
