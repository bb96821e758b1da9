// A client of the IEMLI service: finds the service, opens a session, asks for links, and collects what the server says
// by itself. For programs and tests outside the daemon.
//
// A client stands on the calling thread's mailbox, one client per mailbox, and keeps no thread. It takes only the
// messages of this protocol and of the name service; what else is in the mailbox stays there. Every call that waits
// has a bound, and what arrives meanwhile and was not waited for becomes an event, in order. Every received message is
// checked for its size before a field is read; one that is too short, or that answers nothing that was asked, becomes
// an event and nothing more.
//
// It does not decide what to do when the service is withdrawn or the daemon dies: it says so in an event, and every
// request under way, as every later one, ends at once with iemli_outcome::lost.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "iemli/iemli_messages.hpp"

enum class iemli_outcome {
    confirmed,
    rejected,  // `reason` says why
    timed_out, // no answer within the bound; the answer may still come and is then an event
    lost,      // no service, no session, or the daemon died while the answer was awaited
};

// What a request led to.
struct iemli_answer {
    iemli_outcome outcome = iemli_outcome::timed_out;
    uint32_t reason = 0;    // of a reject
    uint32_t link_ref = 0;  // of a confirmed create
    mac_address mac = {};   // of a confirmed get-MAC
    std::string port_name;  // of a confirmed get-MAC
    uint8_t mp_id = 0;      // of a confirmed get-MAC
    uint32_t procedure = 0; // the request's own reference
};

enum class iemli_event_kind {
    published,   // the service is there
    withdrawn,   // the service is gone and every session with it; the daemon may live on
    server_died, // the daemon is gone
    link_status,
    link_rtt,
    late_answer, // an answer that nobody waits for any more
    malformed,   // a message too short for what it claims to be, or of no number that a client gets
};

struct iemli_event {
    iemli_event_kind kind;
    uint32_t msgno = 0;
    uint32_t procedure_ref = 0;
    uint32_t connection_ref = 0;
    uint32_t link_ref = 0;
    uint32_t status = 0;          // of link_status
    uint32_t disabled_reason = 0; // of link_status
    rtt_stats rtt = {};           // of link_rtt
    std::string text;             // of malformed: what was wrong
};

// What a link is asked for.
struct iemli_link_wish {
    uint8_t mp_id = 1;
    mac_address far_cpm_mac = {};
    std::string port;
    uint16_t vlan = 0;
    std::vector<IemliAppLink> app_links;
};

// A request that was sent and whose answer nobody has taken yet.
struct iemli_request {
    uint32_t procedure;
    uint32_t msgno;
    bool answered = false;
    iemli_answer answer;
};

struct iemli_client {
    uint32_t client_ref = 0; // our own reference of the session
    uint32_t server_ref = 0; // the server's reference of the session; 0: none
    bool published = false;
    bool registry_lost = false; // for good: it was seen when something was waited for
    bool interrupted = false;
    uint32_t server_mbox = ITC_NO_MBOX;
    uint32_t monitor = 0;      // 0: the server is not watched
    uint32_t subscription = 0; // 0: not confirmed by the name service
    uint32_t next_procedure = 1;
    uint32_t bound_ms = 5000; // how long a request waits for its answer
    std::vector<iemli_request> requests;
    std::deque<iemli_event> events;
};

// Subscribes to the service on the calling thread's mailbox; the thread has one already (itc_init and
// itc_create_mailbox are the program's own). False: the registry refused.
bool iemli_client_start(iemli_client &client, uint32_t client_ref);
// Forgets everything and frees what the client holds at the registry; says nothing to the server.
void iemli_client_stop(iemli_client &client);

// Waits until the service is published. False: not within the bound.
bool iemli_client_wait_published(iemli_client &client, uint32_t bound_ms);

// The session. `versions` are offered as they stand.
iemli_answer iemli_client_open(iemli_client &client, const uint32_t (&versions)[3] = {IEMLI_PROTOCOL_VERSION, 0, 0});
iemli_answer iemli_client_close(iemli_client &client);

// Requests. Each waits for its answer, at most bound_ms.
iemli_answer iemli_client_create_link(iemli_client &client, const iemli_link_wish &wish);
iemli_answer iemli_client_update_link(iemli_client &client, uint32_t link_ref,
                                      const std::vector<IemliAppLink> &app_links);
iemli_answer iemli_client_delete_link(iemli_client &client, uint32_t link_ref);
iemli_answer iemli_client_get_mac(iemli_client &client, const std::string &port, uint8_t mp_id);
iemli_answer iemli_client_enable_rtt(iemli_client &client, uint32_t link_ref, const rtt_settings &settings);
iemli_answer iemli_client_disable_rtt(iemli_client &client, uint32_t link_ref);

// The two halves of a request, for a client with several under way: send gives the procedure reference, which
// iemli_client_await takes.
uint32_t iemli_client_send_create(iemli_client &client, const iemli_link_wish &wish);
uint32_t iemli_client_send_delete(iemli_client &client, uint32_t link_ref);
uint32_t iemli_client_send_open(iemli_client &client);
uint32_t iemli_client_send_update(iemli_client &client, uint32_t link_ref, const std::vector<IemliAppLink> &app_links);
uint32_t iemli_client_send_get_mac(iemli_client &client, const std::string &port, uint8_t mp_id);
uint32_t iemli_client_send_enable_rtt(iemli_client &client, uint32_t link_ref, const rtt_settings &settings);
uint32_t iemli_client_send_disable_rtt(iemli_client &client, uint32_t link_ref);
iemli_answer iemli_client_await(iemli_client &client, uint32_t procedure);
// For a client that awaits none: an answer that has come, or what became of a request when the service went.
std::optional<iemli_answer> iemli_client_take_answer(iemli_client &client);

// The next event; waits for one at most bound_ms (0: looks only).
std::optional<iemli_event> iemli_client_next_event(iemli_client &client, uint32_t bound_ms);

// Asks the registry for something that it refuses; where it is lost, ITC says so without asking.
bool iemli_client_registry_is_lost();

// Has iemli_client_next_event, under way or next, return nothing.
void iemli_client_interrupt(iemli_client &client);

// Takes one received message for what it means. It stays the caller's; for programs that receive for themselves.
void iemli_client_handle(iemli_client &client, const itc_msg *msg);

// Texts for people: a message's name, a reject reason's name, and a status indication in words ("enabled", "disabled
// with reason down").
const char *iemli_client_message_name(uint32_t msgno);
const char *iemli_client_reason_name(uint32_t reason);
const char *iemli_client_status_text(uint32_t status, uint32_t disabled_reason);
