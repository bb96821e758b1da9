/*
 * Who may connect to the registry, claim which name, publish which service, and what a mailbox takes from whom.
 *
 * Without rules root, the registry's own user and members of the registry's own group may connect, each of them may
 * claim any free name and publish any service, and every mailbox takes everything from everybody. Rules come from
 * options and from the policy's files (policy_file.hpp). A name or service with a rule belongs to the people of its
 * rules always, whether somebody has it just now or not. Root may claim and publish everything, and is one of all
 * people.
 *
 * Credentials are the kernel's (SO_PEERCRED, SO_PEERGROUPS); a client says nothing of itself.
 */
#ifndef ITCD_POLICY_HPP
#define ITCD_POLICY_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

struct policy_people {
    std::vector<uid_t> users;
    std::vector<gid_t> groups;
};

// One process, as the kernel tells it.
struct policy_person {
    uid_t user = 0;
    std::vector<gid_t> groups;
};

struct policy_name {
    std::string name;
    bool prefix; // every name that begins with it
    policy_people people;
};

struct policy_service {
    std::string name;
    std::optional<std::string> scope; // none: in every scope
    policy_people people;
};

// Message numbers that a mailbox takes only from whoever has one of the names, and from the people. With neither: from
// its own process alone.
struct policy_rule {
    std::vector<std::pair<uint32_t, uint32_t>> numbers; // first and last
    std::vector<std::string> from;
    policy_people people;
};

// How many sessions of a mailbox the people may have together. `opens` comes from a client; the mailbox answers it with
// `opened` or `refused`, and says `closed` when a session ends; in `opened` and `closed` the word at `session_at` names
// the session. Who is in no share of `opens` cannot open one.
struct policy_share {
    uint32_t opens;
    uint32_t opened;
    uint32_t refused;
    uint32_t closed;
    uint32_t session_at;
    uint32_t at_most;
    policy_people people;
};

// What the mailbox of that name takes from other processes.
struct policy_door {
    std::string name;
    uint32_t largest; // bytes of a message; 0: of any size
    std::vector<policy_rule> rules;
    std::vector<policy_share> shares;
};

struct policy {
    policy_people guests;              // may connect, besides the default
    std::vector<policy_name> reserved; // by options: names and services that begin so
    std::vector<policy_name> names;
    std::vector<policy_service> services;
    std::vector<policy_door> doors;
};

// Each returns false if there is no such user or group, or the argument makes no sense.
bool policy_find_user(const char *name, uid_t *user);
bool policy_find_group(const char *name, gid_t *group);
bool policy_allow_user(policy &p, const char *user);
bool policy_reserve(policy &p, const char *prefix_and_user); // "PREFIX=USER", of names and services alike

bool policy_is_open(const policy &p); // people beside the default may connect
bool policy_admits(const policy &p, int socket, policy_person *who);
bool policy_includes(const policy_people &people, const policy_person &who);
bool policy_may_claim(const policy &p, const policy_person &who, std::string_view name);
bool policy_may_publish(const policy &p, const policy_person &who, std::string_view name, std::string_view scope);

#endif
