// What the clients of the lower-layer services share: the record that each keeps, finding and watching its server,
// building and sending messages, raising events, and a dispatcher that measures a message before anybody reads it.
//
// It knows no protocol: numbers, layouts, trace texts and the order of a protocol's own steps belong to its module,
// which owns its record. The state is written by the modules; only the way back to INIT and failing are written here.
#pragma once

#include "client_messages.hpp"

// Where a client stands. Each names the values for itself; INIT is 0 in every one.
using client_state = uint32_t;

// Kept as a module's only instance; the initialisers are how the process starts.
struct client_record {
    client_state state = 0;
    uint32_t server_mbox = ITC_NO_MBOX;
    uint32_t own_mbox = ITC_NO_MBOX;
    uint32_t connection_ref = 0; // the server's
    uint32_t procedure_ref = 0;  // of the last message allocated
    uint32_t monitor_id = 0;
    client_event_handler handler = nullptr;
    client_event service_event = {SERVICE_EVENT, {}}; // also remembers what was raised last
    client_event result = {PROCEDURE_RESULT_EVENT, {}};
};

// ---- Finding the server ----

// Frees what a module keeps beside its record and resets the record.
using client_reset_function = void (*)();

struct client_discovery {
    const char *server_name;
    uint32_t server_up_ind;
    client_reset_function reset;
};

enum client_init_result {
    CLIENT_INIT_NO_HANDLER,
    CLIENT_INIT_NO_MAILBOX,
    CLIENT_INIT_LOCATING,
};

// Takes the handler, leaves whatever state there was, and looks for the server by its name.
client_init_result client_init(client_record *client, client_event_handler handler, const client_discovery &discovery);

// The server is the sender of the server-up indication; its death is asked for as `server_down_ind`.
void client_watch_server(client_record *client, const itc_msg *server_up, uint32_t server_down_ind);

// The server is gone: back to INIT, everything forgotten but the event raised last, so that a second notice of the
// same death is swallowed.
void client_lose_server(client_record *client, client_reset_function reset, uint32_t down_event);

// Everything but state and handler.
void client_reset(client_record *client);

// ---- Messages ----

// A zero-filled message that carries its number and the next procedure_ref.
void *client_alloc_msg(client_record *client, size_t size, uint32_t msgno);
// The same with the server's connection_ref.
void *client_alloc_request(client_record *client, size_t size, uint32_t msgno);
// A connection request that offers version 1.
client_conn_establish_req *client_alloc_conn_req(client_record *client, uint32_t msgno, uint32_t proposed_ref);

// The message belongs to ITC afterwards.
void client_send(const client_record *client, void *msg);

// ---- Events ----

// An event that equals the one raised last is swallowed.
void client_raise_service_event(client_record *client, uint32_t event);
// Never swallowed. `msg`: the answer whose procedure_ref the manager waits for.
void client_raise_result(client_record *client, uint32_t code, const itc_msg *msg);
// Never swallowed, and not remembered.
void client_raise_event(const client_record *client, const client_event &event);
// Raises the faulty event, then enters the faulty state.
void client_fail(client_record *client, uint32_t faulty_event, client_state faulty_state);

// ---- Dispatch ----

struct client_message {
    uint32_t msgno;
    size_t min_size;
    size_t entry_size; // of the entries behind min_size, counted by the field at offset 12; 0: no list
    void (*handle)(const itc_msg *msg);
};

// `messages` in ascending order of their numbers. True when the message is one of them; one that is shorter than its
// layout or its own count is traced and goes no further.
bool client_dispatch(const client_message *messages, size_t count, const char *(*name)(uint32_t msgno),
                     const itc_msg *msg);

// Traces and returns false when the message is shorter than that.
bool client_is_long_enough(const itc_msg *msg, uint64_t min_size, const char *name);

// ---- Texts ----

const char *client_state_text(const char *const *texts, size_t count, client_state state);

// Copies at most `bound` characters of `text`, cut to the field, always terminated.
void client_copy_text(char *field, size_t size, const char *text, size_t bound);
// How many bytes of a message lie behind `offset`.
size_t client_tail_size(const itc_msg *msg, size_t offset);
// Copies a text that stands as the format of a print without arguments: "%%" becomes "%", any other conversion prints
// nothing. Cut to the field, always terminated.
void client_copy_as_format(char *field, size_t size, const char *text);

// ---- The header of a received message ----

inline const client_header *client_header_of(const itc_msg *msg)
{
    return reinterpret_cast<const client_header *>(msg);
}
inline uint32_t client_procedure_ref(const itc_msg *msg) { return from_be32(client_header_of(msg)->procedure_ref); }
inline uint32_t client_connection_ref(const itc_msg *msg) { return from_be32(client_header_of(msg)->connection_ref); }
// The reason of a client_rej.
inline uint32_t client_reason(const itc_msg *msg)
{
    return from_be32(reinterpret_cast<const client_rej *>(msg)->reason);
}
