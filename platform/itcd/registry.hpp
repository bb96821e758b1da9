/*
 * The registry's tables: processes, their mailboxes and names, who waits for a name, who monitors a mailbox, which two
 * processes have a channel, and the name service. It knows no sockets: requests come in as frames, answers leave
 * through registry_output.
 *
 * Nothing that a client sends stalls the registry. A request is taken in at a cost that depends on nothing but the
 * logarithm of a table's size, and what has to be done over many (a name that thousands wait for, a mailbox with
 * thousands of services, everything a process had) becomes that client's work: a stack of what is left, of which
 * registry_work does as much as it is given. A client with work is asked for no further request. While work is under
 * way the tables are whole after each step, so that others are served in between; what belongs to somebody who leaves
 * counts as gone at once.
 *
 * A client that breaks the protocol or asks for too much is doomed, and the caller (the server) then has it leave.
 * Nobody is doomed for what others do: news of services are kept back while their reader is behind, and what they come
 * to in the end is told when it has caught up; an introduction waits for who is behind.
 */
#ifndef ITCD_REGISTRY_HPP
#define ITCD_REGISTRY_HPP

#include "itc_wire.hpp"
#include "numbers.hpp"
#include "policy.hpp"
#include "shares.hpp"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct service;
struct topic;
using service_ptr = std::shared_ptr<const service>;
using topic_entry = std::pair<const std::string, topic>;

struct registry_subscription {
    topic_entry *about;
    std::string scope;
    uint32_t mbox;
    std::map<std::string_view, service_ptr> told; // by scope: what the subscriber was told is there
};

// What is left of something that is done in steps.
struct registry_task {
    enum kind {
        tell_found,  // `name` is there now, at the mailbox `number`: whoever waits for it
        tell_change, // of the service `name` in `scope`: its subscribers behind (process, sid) = (number, second)
        sweep,       // the subscription `number`: compare what was told with what is there, behind `scope`
        unload_box,  // everything about the mailbox `number`
        unload,      // everything the client had
        reply,       // the answer to the request `number`: `second`
    };
    kind what;
    uint32_t number;
    uint32_t second;
    bool begun = false;
    std::string name;
    std::string scope;

    registry_task(kind task, uint32_t first, uint32_t then = 0) : what(task), number(first), second(then) {}
};

// What things cost, in units of a few microseconds: a step of a task, and a request or an introduction.
inline constexpr int cost_of_step = 1;
inline constexpr int cost_of_request = 4;

// What a process has asked for and owns. The server embeds it in its record of the connection.
struct registry_client {
    uint32_t process = 0; // 0 until it said hello
    policy_person who;
    share *of = nullptr;  // what its user holds
    bool leaving = false; // it is there for the removal of what it had
    std::set<uint32_t> mboxes;
    resting_boxes resting;
    size_t name_count = 0;
    size_t service_count = 0;
    std::map<uint32_t, uint32_t> monitors;                   // token to mailbox
    std::map<uint32_t, std::string_view> awaited;            // token to name, as the waiters' table has it
    std::map<uint32_t, registry_subscription> subscriptions; // by sid
    std::set<uint32_t> stale;                                // sids whose news were kept back
    std::set<registry_client *> partners;                    // whom it has been introduced to, or is to be
    std::map<uint32_t, std::pair<uint32_t, share *>> unread; // processes that are gone: the channel, and whose it was
    std::map<std::pair<size_t, uint64_t>, registry_client *> wanting; // introductions that wait for it
    std::map<uid_t, size_t> wanting_of;                               // how many of them each user asked for
    std::vector<registry_task> work;                                  // the last is done first
};

// Where the registry's frames go. `fd` is -1 or a descriptor that goes with the frame; it is taken over.
struct registry_output {
    virtual void send(registry_client &to, itc_wire::writer &frame, int fd) = 0;
    virtual void doom(registry_client &client, const char *why) = 0;      // registry_leave follows, later
    virtual void say(const registry_client &about, const char *what) = 0; // a line
    virtual bool is_behind(const registry_client &client) = 0;            // it has much left to read
    virtual bool takes_descriptor(registry_client &client) = 0;           // at once
    virtual void wake(registry_client &client) = 0;                       // something is to be done for it

protected:
    ~registry_output() = default;
};

void registry_start(registry_output &output, const policy &rules);
void registry_request(registry_client &from, const itc_wire::registry_frame &head, itc_wire::reader fields);
// The client is gone. What it had is removed by registry_work, and whoever wanted to know is told.
void registry_leave(registry_client &client);
// Does steps for the client until `budget` is used up, from which it takes their cost. False if nothing can be done
// now: nothing is left, or the client has to read first.
bool registry_work(registry_client &client, int &budget);
bool registry_has_work(const registry_client &client); // tasks; no request of it may be taken in before
// A frame with a descriptor could not be sent to the client: it does not get that channel.
void registry_not_given(registry_client &client, uint32_t process, uint32_t channel);

registry_client *registry_find(uint32_t process); // nullptr if there is none, or it leaves
bool registry_mailbox_goes(uint32_t mbox);        // its end has begun, it counts as gone
// No process is there, and nothing of one that was.
bool registry_is_empty();

#endif
