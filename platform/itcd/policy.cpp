#include "policy.hpp"

#include <cerrno>
#include <cstring>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

bool find_user(const char *name, uid_t *user)
{
    passwd entry{};
    passwd *found = nullptr;
    char space[4096];
    if (getpwnam_r(name, &entry, space, sizeof space, &found) != 0 || found == nullptr) {
        return false;
    }
    *user = found->pw_uid;
    return true;
}

bool in_own_group(int socket, gid_t primary)
{
    const gid_t own = getegid();
    if (primary == own) {
        return true;
    }
    std::vector<gid_t> groups(64);
    socklen_t size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
        if (errno != ERANGE) {
            return false;
        }
        groups.resize(size / sizeof(gid_t));
        if (getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0) {
            return false;
        }
    }
    groups.resize(size / sizeof(gid_t));
    for (const gid_t group : groups) {
        if (group == own) {
            return true;
        }
    }
    return false;
}

} // namespace

bool policy_allow_user(policy &p, const char *user)
{
    uid_t uid = 0;
    if (!find_user(user, &uid)) {
        return false;
    }
    p.users.push_back(uid);
    return true;
}

bool policy_reserve(policy &p, const char *prefix_and_user)
{
    const char *equals = strrchr(prefix_and_user, '=');
    uid_t uid = 0;
    if (equals == nullptr || equals == prefix_and_user || !find_user(equals + 1, &uid)) {
        return false;
    }
    p.reservations.push_back({std::string(prefix_and_user, equals), uid});
    return true;
}

bool policy_admits(const policy &p, int socket, uid_t *user)
{
    ucred who{};
    socklen_t size = sizeof who;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &who, &size) != 0) {
        return false;
    }
    *user = who.uid;
    if (who.uid == 0 || who.uid == geteuid() || in_own_group(socket, who.gid)) {
        return true;
    }
    for (const uid_t allowed : p.users) {
        if (allowed == who.uid) {
            return true;
        }
    }
    return false;
}

bool policy_may_claim(const policy &p, uid_t user, std::string_view name)
{
    bool reserved = false;
    for (const policy_reservation &r : p.reservations) {
        if (name.substr(0, r.prefix.size()) == r.prefix) {
            reserved = true;
            if (r.user == user) {
                return true;
            }
        }
    }
    return !reserved || user == 0;
}
