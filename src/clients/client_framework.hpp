// What the clients of the lower-layer services share: the record that each keeps, finding and watching its server,
// building and sending messages, raising events, and the stepper that takes every received message through the client's
// table.
//
// It knows no protocol: numbers, layouts, trace texts and what a protocol does of its own stand in its module, which
// owns its record and its table. The state is written here, in one place (client_enter).
#pragma once

#include <iterator>

#include "client_messages.hpp"
#include "vorn_trace.hpp"

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

// ---- A protocol: the table of what its messages do ----

// A received message, its header and its first field decoded. What a message is too short for is 0.
struct client_input {
    const itc_msg *msg;
    uint32_t procedure_ref;
    uint32_t connection_ref;
    uint32_t word; // the field behind the header: a count, a version, a reason
};

enum client_order : uint32_t {
    STATE_THEN_EVENT,
    EVENT_THEN_STATE,
};

// What becomes of a message. A handler of its event sees the state that the order says.
enum client_verdict : uint32_t {
    CLIENT_TAKEN,             // next state, then event, as the table says
    CLIENT_TAKEN_EVENT_FIRST, // event, then next state
    CLIENT_IGNORED,           // nothing follows
    CLIENT_REFUSED,           // the faulty event, then the faulty state
    CLIENT_REFUSED_AT_ONCE,   // the faulty state, then the faulty event
};

// In place of a state.
inline constexpr client_state CLIENT_ANY_STATE = 0xFFFFFFFF;
inline constexpr client_state CLIENT_NO_STATE = 0xFFFFFFFE;
inline constexpr client_state CLIENT_SAME_STATE = 0xFFFFFFFD;

// The state in which a message is right. In any other it is noticed, and makes the client faulty or is dropped.
struct client_need {
    client_state state;
    void (*notice)(const char *state);
    client_verdict misfit;
};
inline constexpr client_need IN_ANY_STATE = {CLIENT_ANY_STATE, nullptr, CLIENT_IGNORED};
constexpr client_need only_in(client_state state, void (*notice)(const char *))
{
    return {state, notice, CLIENT_REFUSED};
}
constexpr client_need dropped_unless(client_state state, void (*notice)(const char *))
{
    return {state, notice, CLIENT_IGNORED};
}
constexpr client_need never_right(void (*notice)(const char *)) { return only_in(CLIENT_NO_STATE, notice); }

// What follows from a message that was right.
struct client_outcome {
    client_state next;
    uint32_t event;  // service_event, raised in the new state; 0: none
    uint32_t result; // procedure_result with the message's procedure_ref, 0: none
};
inline constexpr client_outcome STAYS = {CLIENT_SAME_STATE, 0, 0};
constexpr client_outcome goes_to(client_state next, uint32_t event = 0) { return {next, event, 0}; }
constexpr client_outcome reports(uint32_t result) { return {CLIENT_SAME_STATE, 0, result}; }

// One message of a protocol.
struct client_step {
    uint32_t msgno;
    size_t min_size;
    void (*trace)(const client_input &in); // in every state; null: `act` traces
    client_need need;
    client_outcome outcome;
    // Before the state is left, behind what the framework does itself; null: CLIENT_TAKEN.
    client_verdict (*act)(const client_input &in) = nullptr;
    size_t entry_size = 0;          // of the entries behind min_size, counted by `word`; 0: no list
    void (*afterwards)() = nullptr; // in every state
};

struct client_protocol {
    const char *server_name;
    // The framework's own part of these two is to watch the server, and to forget it. 0: the server is found in another
    // way, and not watched.
    uint32_t server_up_ind = 0;
    uint32_t server_down_ind = 0;
    void (*forget_own)() = nullptr; // what a module keeps of its server beside its record; null: nothing
    uint32_t faulty_event;
    client_state faulty_state;
    bool faulty_without_mailbox = false; // else it stays in INIT
    const char *(*state_name)(uint32_t state);
    const char *(*message_name)(uint32_t msgno);
    const client_step *steps;
    size_t step_count;
};

// The traces of a table. The first prints the two references of the message and what is given behind the format, the
// second what is given, the others the name of the state, or nothing.
#define CLIENT_RECEIVED(format, ...)                                                                                   \
    CLIENT_RECEIVED_AS(format, in.connection_ref, in.procedure_ref __VA_OPT__(, ) __VA_ARGS__)
#define CLIENT_RECEIVED_AS(...)                                                                                        \
    [](const client_input &in) { VORN_TRACE_REC(in.msg->msgno, itc_sender(in.msg), __VA_ARGS__); }
#define CLIENT_NOTICE(level, format) [](const char *state) { VORN_TRACE(level, format, state); }
#define CLIENT_REMARK(level, text) [](const char *) { VORN_TRACE(level, text); }

// True when the message is one of the protocol's; one that is shorter than its layout or its own count is traced and
// goes no further.
bool client_dispatch(client_record *client, const client_protocol &protocol, const itc_msg *msg);

// Traces and returns false when the message is shorter than that.
bool client_is_long_enough(const itc_msg *msg, uint64_t min_size, const char *name);
// The header and the first field.
client_input client_decode(const itc_msg *msg);
// A field of 32 bits; 0 behind the end of the message.
uint32_t client_word(const itc_msg *msg, size_t offset);
// Whether an entry of the list that `in` counts begins with this value.
bool client_lists(const client_input &in, size_t entry_size, uint32_t value);

// ---- Finding the server ----

// Takes the handler, leaves whatever state there was, and asks for its own mailbox. False: traced, and that was all.
bool client_begin(client_record *client, client_event_handler handler, const client_protocol &protocol);
// The same, and looks for the server by its name; the server-up indication tells when it is there.
void client_init(client_record *client, client_event_handler handler, const client_protocol &protocol);

// Everything but state and handler.
void client_reset(client_record *client);

// ---- State and events ----

// The one place that sets a state. `event` 0: none.
void client_enter(client_record *client, client_state state, uint32_t event, client_order order);
// Never swallowed, and not remembered.
void client_raise_event(const client_record *client, const client_event &event);

// ---- Messages ----

// A received message as its layout; that it is as long was checked before.
template <typename Layout> const Layout *client_message(const itc_msg *msg)
{
    return reinterpret_cast<const Layout *>(msg);
}

// A zero-filled message that carries its number and the next procedure_ref.
void *client_alloc_msg(client_record *client, size_t size, uint32_t msgno);
// The same with the server's connection_ref.
void *client_alloc_request(client_record *client, size_t size, uint32_t msgno);
template <typename Request> Request *client_alloc_request(client_record *client, uint32_t msgno, size_t more = 0)
{
    return static_cast<Request *>(client_alloc_request(client, sizeof(Request) + more, msgno));
}
// A connection request that offers version 1.
client_conn_establish_req *client_alloc_conn_req(client_record *client, uint32_t msgno, uint32_t proposed_ref);

// The message belongs to ITC afterwards. Returns its procedure_ref.
uint32_t client_send(const client_record *client, void *msg);

// ---- Texts ----

const char *client_state_text(const char *const *texts, size_t count, client_state state);

// Copies at most `bound` characters of `text`, cut to the field, always terminated.
void client_copy_text(char *field, size_t size, const char *text, size_t bound);
template <size_t N, size_t M> void client_copy_field(char (&field)[N], const char (&from)[M])
{
    client_copy_text(field, N, from, M);
}
// How many bytes of a message lie behind `offset`.
size_t client_tail_size(const itc_msg *msg, size_t offset);
// Copies a text that stands as the format of a print without arguments: "%%" becomes "%", any other conversion prints
// nothing. Cut to the field, always terminated.
void client_copy_as_format(char *field, size_t size, const char *text);
