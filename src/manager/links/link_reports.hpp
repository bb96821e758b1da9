// What the links tell the one who asked for them, through functions that are given at start-up: whoever serves the
// links stands above them, and they do not know him.
#pragma once

#include "manager/table/link_table.hpp"

enum iemli_pending_action : uint32_t {
    IEMLI_PENDING_CREATE = 0,
    IEMLI_PENDING_UPDATE = 1,
    IEMLI_PENDING_DELETE = 2,
};

// A create, update or delete that was handed to the link procedures. Allocated with calloc by the one who asks; the
// procedures own it until they hand it back through one of the first two reports, which free it.
struct IemliPendingRequest {
    uint32_t server_conn_ref; // the session that asked
    uint32_t procedure_ref;   // the request's
    uint32_t link_ref;        // 0 for create
    iemli_pending_action action;
};

// What became of a request. Nothing more is sent for it between the return of an answer and its way to the one who
// asked.
enum link_answer_kind : uint32_t {
    LINK_WAITS, // there is no answer yet
    LINK_CONFIRMED,
    LINK_REJECTED,
};

struct link_answer {
    link_answer_kind kind;
    uint32_t link_ref; // confirmed: the link concerned
    uint32_t reason;   // rejected: IEMLI_REJ_*
};

inline constexpr link_answer LINK_NO_ANSWER_YET = {LINK_WAITS, 0, 0};
inline link_answer link_confirmed(uint32_t link_ref) { return {LINK_CONFIRMED, link_ref, 0}; }
inline link_answer link_rejected(uint32_t reason) { return {LINK_REJECTED, 0, reason}; }

struct link_reports {
    // The procedure finished. `link_ref`: the link concerned. Frees *pending and nulls it.
    void (*confirmed)(uint32_t link_ref, IemliPendingRequest **pending);
    // The procedure failed with an IEMLI_REJ_* reason. Frees *pending and nulls it.
    void (*rejected)(uint32_t reason, IemliPendingRequest **pending);
    // To the link's owner.
    void (*status)(uint32_t server_conn_ref, uint32_t link_ref, iml_link_status status,
                   iml_link_disabled_reason disabled_reason);
    void (*rtt)(uint32_t server_conn_ref, uint32_t link_ref, const rtt_stats &stats);
};

// `reports` must stay, and be there before the first link.
void links_report_to(const link_reports *reports);
const link_reports *links_report();

// The link's owner, and then the automation agent.
void link_tell_status(uint32_t server_conn_ref, uint32_t link_ref, iml_link_status status,
                      iml_link_disabled_reason disabled_reason);
