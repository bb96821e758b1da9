// The client sessions: who is admitted, under which references, what each waits for. At most two exist at a time, in a
// list sorted by server_conn_ref; a new session takes the lowest free reference.
//
// The table owns its records, a record its queue and its monitor on the client's mailbox.
#pragma once

#include "iemli_messages.hpp"
#include "iemli_queue.hpp"
#include "iemli_send.hpp"

inline constexpr uint8_t IEMLI_MAX_SESSIONS = 2;

struct IemliSession : iemli_queue {
    uint32_t client_mbox;
    uint32_t monitor_ref;
    uint32_t client_conn_ref;
    uint32_t server_conn_ref;
    uint32_t last_procedure_ref; // of the last request taken up; 0 at first
    bool busy;                   // a create, update or delete of this session waits for the lower layer
    IemliSession *next;
};

IemliSession *iemli_session_first();
IemliSession *iemli_session_find(uint32_t server_conn_ref);
// By connection_ref and sender of a request or a client-down indication.
IemliSession *iemli_session_find_by_request(const itc_msg *msg);
// By connection_ref and sender of an init request.
IemliSession *iemli_session_find_by_init(const itc_msg *msg);
// A create, update or delete of any session waits for the lower layer.
bool iemli_session_any_busy();

// The answer to a request of this session.
iemli_peer iemli_session_peer(const IemliSession *session, uint32_t procedure_ref);

void iemli_session_handle_init(const itc_msg *msg);
// Both end the session; the record is gone when they return.
void iemli_session_handle_term(IemliSession *session);
void iemli_session_handle_client_down(IemliSession *session);
// Ends the monitor, deletes the session's links, flushes its queue, frees the record. Answers nobody.
void iemli_session_end(IemliSession *session);

// Empties the table without ending sessions: no link is deleted, nobody is told. Frees every record with its queue and
// its monitor.
void iemli_session_clear_all();
