#include "policy.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr size_t space_limit = 1u << 20;

// The groups of whoever is at the other end, the primary one last. False if they cannot be had.
bool groups_of(int socket, gid_t primary, std::vector<gid_t> *groups)
{
    groups->resize(64);
    socklen_t size = static_cast<socklen_t>(groups->size() * sizeof(gid_t));
    int error = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups->data(), &size) == 0 ? 0 : errno;
    if (error == ERANGE) {
        groups->resize(size / sizeof(gid_t));
        error = getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups->data(), &size) == 0 ? 0 : errno;
    }
    groups->resize(error == 0 ? size / sizeof(gid_t) : 0);
    groups->push_back(primary);
    return error == 0;
}

template <typename T> bool contains(const std::vector<T> &all, const T &one)
{
    return std::find(all.begin(), all.end(), one) != all.end();
}

bool covers(const policy_name &rule, std::string_view name)
{
    return rule.prefix ? name.substr(0, rule.name.size()) == rule.name : name == rule.name;
}

// The empty scope is every scope: whoever publishes there is found from all of them.
bool covers(const policy_service &rule, std::string_view name, std::string_view scope)
{
    return name == rule.name && (!rule.scope || scope.empty() || scope == *rule.scope);
}

} // namespace

bool policy_find_user(const char *name, uid_t *user)
{
    passwd entry{};
    passwd *found = nullptr;
    std::vector<char> space(4096);
    while (getpwnam_r(name, &entry, space.data(), space.size(), &found) == ERANGE && space.size() < space_limit) {
        space.resize(space.size() * 2);
    }
    if (found == nullptr) {
        return false;
    }
    *user = found->pw_uid;
    return true;
}

bool policy_find_group(const char *name, gid_t *wanted)
{
    group entry{};
    group *found = nullptr;
    std::vector<char> space(4096);
    while (getgrnam_r(name, &entry, space.data(), space.size(), &found) == ERANGE && space.size() < space_limit) {
        space.resize(space.size() * 2);
    }
    if (found == nullptr) {
        return false;
    }
    *wanted = found->gr_gid;
    return true;
}

bool policy_allow_user(policy &p, const char *user)
{
    uid_t uid = 0;
    if (!policy_find_user(user, &uid)) {
        return false;
    }
    p.guests.users.push_back(uid);
    return true;
}

bool policy_reserve(policy &p, const char *prefix_and_user)
{
    const char *equals = strrchr(prefix_and_user, '=');
    uid_t uid = 0;
    if (equals == nullptr || equals == prefix_and_user || !policy_find_user(equals + 1, &uid)) {
        return false;
    }
    p.reserved.push_back({std::string(prefix_and_user, equals), true, {{uid}, {}}});
    return true;
}

bool policy_is_open(const policy &p) { return !p.guests.users.empty() || !p.guests.groups.empty(); }

bool policy_admits(const policy &p, int socket, policy_person *who)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return false;
    }
    who->user = peer.uid;
    const bool known = groups_of(socket, peer.gid, &who->groups);
    if (peer.uid == 0 || peer.uid == geteuid() || peer.gid == getegid()) {
        return true;
    }
    return (known && contains(who->groups, getegid())) || policy_includes(p.guests, *who);
}

bool policy_includes(const policy_people &people, const policy_person &who)
{
    return contains(people.users, who.user) ||
           std::any_of(who.groups.begin(), who.groups.end(), [&](gid_t g) { return contains(people.groups, g); });
}

namespace
{

// Whether `who` may, by those of the rules that cover what is asked for.
struct judgement {
    const policy_person &who;
    bool ruled = false;
    bool allowed = false;

    void hear(const policy_people &people)
    {
        ruled = true;
        allowed = allowed || policy_includes(people, who);
    }

    bool verdict() const { return !ruled || allowed || who.user == 0; }
};

void hear_reserved(const policy &p, std::string_view name, judgement &j)
{
    for (const policy_name &rule : p.reserved) {
        if (covers(rule, name)) {
            j.hear(rule.people);
        }
    }
}

} // namespace

bool policy_may_claim(const policy &p, const policy_person &who, std::string_view name)
{
    judgement j{who};
    hear_reserved(p, name, j);
    for (const policy_name &rule : p.names) {
        if (covers(rule, name)) {
            j.hear(rule.people);
        }
    }
    return j.verdict();
}

bool policy_may_publish(const policy &p, const policy_person &who, std::string_view name, std::string_view scope)
{
    judgement j{who};
    hear_reserved(p, name, j);
    for (const policy_service &rule : p.services) {
        if (covers(rule, name, scope)) {
            j.hear(rule.people);
        }
    }
    return j.verdict();
}
