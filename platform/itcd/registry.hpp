/*
 * The registry's tables: processes, their mailboxes and names, who waits for a name, who monitors a mailbox, which two
 * processes have a channel, and the name service. It knows no sockets: requests come in as frames, answers leave
 * through registry_output. A client that breaks the protocol or asks for too much is doomed, and the caller (the
 * server) then removes it; nothing that a client sends can end or stall the registry.
 */
#ifndef ITCD_REGISTRY_HPP
#define ITCD_REGISTRY_HPP

#include "itc_wire.hpp"
#include "numbers.hpp"
#include "policy.hpp"

#include <functional>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>

struct registry_subscription {
    std::string name;
    std::string scope;
    uint32_t mbox;
};

// What a process has asked for and owns. The server embeds it in its record of the connection.
struct registry_client {
    uint32_t process = 0; // 0 until it said hello
    policy_person who;
    std::set<uint32_t> mboxes;
    resting_boxes resting;
    size_t name_count = 0;
    std::unordered_map<uint32_t, uint32_t> monitors;         // token to mailbox
    std::unordered_map<uint32_t, std::string> awaited;       // token to name
    std::map<uint32_t, registry_subscription> subscriptions; // by sid
    std::set<std::pair<std::string, std::string>> services;  // name and scope
};

// Where the registry's frames go. `fd` is -1 or a descriptor that goes with the frame; it is taken over.
struct registry_output {
    virtual void send(registry_client &to, itc_wire::writer &frame, int fd) = 0;
    virtual void doom(registry_client &client, const char *why) = 0;

protected:
    ~registry_output() = default;
};

void registry_start(registry_output &output, const policy &rules);
void registry_request(registry_client &from, const itc_wire::registry_frame &head, itc_wire::reader fields);
void registry_remove(registry_client &client); // everything it had is gone, and whoever wanted to know is told
// No process is there, and nothing of one that was.
bool registry_is_empty();

#endif
