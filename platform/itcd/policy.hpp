/*
 * Who may connect to the registry, and who may claim which name. By default root, the registry's own user and members
 * of the registry's own group may connect, and each of them may claim any free name. Options widen the first and narrow
 * the second. Credentials are the kernel's (SO_PEERCRED, SO_PEERGROUPS); a client says nothing of itself.
 */
#ifndef ITCD_POLICY_HPP
#define ITCD_POLICY_HPP

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

struct policy_reservation {
    std::string prefix;
    uid_t user;
};

struct policy {
    std::vector<uid_t> users;                     // may connect, besides the default
    std::vector<policy_reservation> reservations; // names with that prefix are that user's (and root's) alone
};

// Each returns false if there is no such user, or the argument makes no sense.
bool policy_allow_user(policy &p, const char *user);
bool policy_reserve(policy &p, const char *prefix_and_user); // "PREFIX=USER"

bool policy_admits(const policy &p, int socket, uid_t *user);
bool policy_may_claim(const policy &p, uid_t user, std::string_view name);

#endif
