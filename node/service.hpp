// What every service of the reference node has in common, as a core without sockets or clock: it is given messages,
// deaths of clients, commands and the time, and hands what it sends to an outlet.
//
// The core checks each request (known number, long enough, of a connected client), makes the faults it was told to
// make, stamps the head of every answer and keeps the clients and the counters. A service derives from it and adds
// what its requests do. What a connection asked for outlives it by ten seconds, in which whoever takes its place can
// ask for it again; then it is taken away. That is so for as many connections as there may be clients: of more that end
// within this time the oldest goes at once.
#pragma once

#include "faults.hpp"
#include "message.hpp"
#include "program.hpp"

#include <map>
#include <string>
#include <vector>

namespace kap_node
{

// Where a core's effects go.
class outlet
{
public:
    virtual ~outlet() = default;
    virtual void send(mailbox to, bytes message) = 0;
    // Has service::client_gone called when the mailbox is gone. Asked once per connected mailbox.
    virtual void watch(mailbox client) = 0;
    // The mailbox of that name now.
    virtual std::optional<mailbox> locate(const std::string &name) = 0;
};

// ---- A protocol in tables ------------------------------------------------------------------------------------------

struct request_kind {
    uint32_t number;
    const char *name;
    uint32_t confirm; // 0: the request is not answered
    uint32_t reject;  // 0: the protocol has no reject for it
    size_t min_size;
};

// What a server sends: answers and indications, with the smallest size of each.
struct sent_kind {
    uint32_t number;
    const char *name;
    size_t size;
};

struct reason_name {
    uint32_t value;
    const char *name;
};

// The reasons with which the core itself refuses.
struct core_reasons {
    uint32_t too_short;
    uint32_t bad_version;
    uint32_t unknown_connection;
    uint32_t too_many_clients;
};

struct protocol {
    const char *service;
    const char *mailbox_name;
    std::span<const request_kind> requests;
    std::span<const sent_kind> sent;
    std::span<const reason_name> reasons;
    core_reasons reason;
    uint32_t establish_req;
    uint32_t capability_req;                // 0: the protocol has no capability step
    uint32_t versions_at_fixed_place;       // how many versions follow the head; 0: a count and a list
    std::span<const uint32_t> capabilities; // what the capability confirm lists
    size_t capability_size;                 // bytes per entry, of which the first four are the capability
};

inline constexpr uint32_t PROTOCOL_VERSION = 1;

// ---- The core ------------------------------------------------------------------------------------------------------

// What became of a request: the fields that follow the head of its confirm, or the reason of its reject.
struct verdict {
    std::optional<uint32_t> reject_reason;
    bytes fields;
};

verdict confirmed(bytes fields = {});
verdict rejected(uint32_t reason);

struct client {
    mailbox address;
    uint32_t connection_ref;
    uint32_t proposed_ref;
    uint64_t requests;
};

struct service_counters {
    std::map<uint32_t, uint64_t> received;
    uint64_t confirmed = 0;
    uint64_t rejected = 0;
    uint64_t kept_silent = 0;
    uint64_t too_short = 0;
    uint64_t unknown_number = 0;
    uint64_t unknown_connection = 0;
    uint64_t clients_lost = 0;
};

class service : public program
{
public:
    service(const protocol &definition, outlet &out, size_t max_clients);

    void receive(mailbox sender, std::span<const uint8_t> data, millis now) override;
    void client_gone(mailbox address) override;
    void tick(millis now) override;
    std::optional<millis> next_deadline() const override;
    json control(const arguments &words) override;
    bool dying() const override { return dying_; }

    const char *mailbox_name() const { return protocol_.mailbox_name; }
    json show() const;

protected:
    // Carries out a request of a connected client; the message has its smallest size at least.
    virtual verdict perform(const request_kind &kind, client &from, const message_view &message) = 0;
    // Called once the confirm of a request has been sent.
    virtual void confirmed_to(const request_kind & /*kind*/, client & /*to*/, const message_view & /*message*/) {}
    // A client has connected anew or is gone; what is kept per connection starts empty.
    virtual void connection_reset(mailbox /*address*/) {}
    // Takes away what a connection that is no more had asked for. False when that cannot be done now: it is tried
    // again.
    virtual bool forget(uint32_t /*connection_ref*/) { return true; }
    // Whether a connection has asked for nothing that forget() would take away.
    virtual bool asked_for_nothing(uint32_t /*connection_ref*/) const { return false; }
    // Takes away at once what the connection that ended first had asked for; false when there is none, or it stays.
    bool forget_first_ended();
    // The fields of a reject after its head.
    virtual bytes reject_fields(const request_kind &kind, const message_view &message, uint32_t reason) const;
    // The service's own part of show.
    virtual json state() const = 0;
    // A command of the service's own; nothing when there is none of that name.
    virtual std::optional<json> own_command(const arguments &words) = 0;
    virtual const char *own_commands() const = 0;

    // Sends a message of this client's connection: number, procedure_ref and its connection_ref, then the fields.
    void send_to(const client &to, uint32_t number, uint32_t procedure_ref, const bytes &fields);
    void emit(mailbox to, bytes message);
    const std::map<mailbox, client> &clients() const { return clients_; }
    outlet &out() { return out_; }

private:
    const request_kind *find_request(uint32_t number) const;
    verdict judge(const request_kind &kind, mailbox sender, const message_view &message);
    verdict establish(const request_kind &kind, mailbox sender, const message_view &message);
    verdict list_capabilities() const;
    void answer(const request_kind &kind, mailbox sender, const message_view &message, const verdict &result);
    void set_fault(const arguments &words);
    void send_unsolicited(const arguments &words);
    uint32_t request_number(const std::string &name) const;
    uint32_t reason_value(const std::string &name) const;
    json show_counters() const;

    struct waiting {
        mailbox to;
        bytes message;
    };

    // A connection that is no more, and when what it asked for goes; not known before the next look at the clock.
    struct ended_connection {
        mailbox address;
        uint32_t connection_ref;
        std::optional<millis> due;
    };

    void connection_ended(const client &known);
    bool forget_ended(std::vector<ended_connection>::iterator ended);
    void forget_what_is_due(millis now);

    const protocol &protocol_;
    outlet &out_;
    size_t max_clients_;
    std::map<mailbox, client> clients_;
    uint32_t last_connection_ref_ = 0;
    fault_table faults_;
    service_counters counters_;
    std::vector<ended_connection> ended_;
    std::multimap<millis, waiting> waiting_; // by the time each is due; equal times keep their order
    std::optional<millis> due_;              // of what is sent while a delayed request is handled
    bool dying_ = false;
};

} // namespace kap_node
