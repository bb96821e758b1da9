#include "services.hpp"

#include <cerrno>
#include <vector>

using namespace itc_wire;

namespace
{

constexpr size_t service_bound = 4096; // per process, as for subscriptions

struct service {
    uint32_t mbox;
    std::string path;
};

registry_output *out;
std::map<std::pair<std::string, std::string>, service> services;                               // name, scope
std::unordered_map<std::string, std::set<std::pair<registry_client *, uint32_t>>> subscribers; // name: client, sid

// The empty scope is every scope, on either side.
bool scopes_meet(const std::string &a, const std::string &b) { return a.empty() || b.empty() || a == b; }

void tell(registry_client &to, frame_type type, uint32_t sid, const service &what)
{
    writer frame(type, 0);
    out->send(to, frame.u32(sid).u32(what.mbox).text(what.path), -1);
}

void tell_subscribers(frame_type type, const std::string &name, const std::string &scope, const service &what)
{
    const auto found = subscribers.find(name);
    if (found == subscribers.end()) {
        return;
    }
    for (const auto &[client, sid] : found->second) {
        if (scopes_meet(client->subscriptions.at(sid).scope, scope)) {
            tell(*client, type, sid, what);
        }
    }
}

void withdraw(registry_client &owner, const std::pair<std::string, std::string> &key)
{
    const service gone = services.at(key);
    services.erase(key);
    owner.services.erase(key);
    tell_subscribers(removed, key.first, key.second, gone);
}

void forget_subscription(registry_client &client, uint32_t sid)
{
    const auto found = subscribers.find(client.subscriptions.at(sid).name);
    found->second.erase({&client, sid});
    if (found->second.empty()) {
        subscribers.erase(found);
    }
    client.subscriptions.erase(sid);
}

} // namespace

void services_start(registry_output &output) { out = &output; }

int service_publish(registry_client &from, uint32_t mbox, const std::string &name, const std::string &scope,
                    const std::string &path)
{
    if (name.empty()) {
        return EINVAL;
    }
    const std::pair<std::string, std::string> key(name, scope);
    const service fresh{mbox, path.empty() ? name : path};
    const auto known = services.find(key);
    if (known != services.end()) {
        if (known->second.mbox != mbox) {
            return EEXIST;
        }
        if (known->second.path == fresh.path) {
            return 0;
        }
        withdraw(from, key); // the same mailbox under another path
    }
    if (from.services.size() >= service_bound) {
        return ENOSPC;
    }
    services[key] = fresh;
    from.services.insert(key);
    tell_subscribers(added, name, scope, fresh);
    return 0;
}

int service_unpublish(registry_client &from, uint32_t mbox, const std::string &name, const std::string &scope,
                      const std::string &path)
{
    const std::pair<std::string, std::string> key(name, scope);
    const auto known = services.find(key);
    if (known == services.end() || known->second.path != (path.empty() ? name : path)) {
        return ENOENT;
    }
    if (known->second.mbox != mbox) {
        return EACCES;
    }
    withdraw(from, key);
    return 0;
}

int service_subscribe(registry_client &from, uint32_t mbox, uint32_t sid, const std::string &name,
                      const std::string &scope)
{
    if (name.empty() || sid == 0 || from.subscriptions.count(sid) != 0) {
        return EINVAL;
    }
    if (from.subscriptions.size() >= service_bound) {
        return ENOSPC;
    }
    from.subscriptions[sid] = {name, scope, mbox};
    subscribers[name].emplace(&from, sid);
    return 0;
}

int service_unsubscribe(registry_client &from, uint32_t mbox, uint32_t sid)
{
    const auto known = from.subscriptions.find(sid);
    if (known == from.subscriptions.end() || known->second.mbox != mbox) {
        return ENOENT;
    }
    forget_subscription(from, sid);
    return 0;
}

void service_tell_all(registry_client &to, uint32_t sid)
{
    const registry_subscription &s = to.subscriptions.at(sid);
    writer frame(subscribed, 0);
    out->send(to, frame.u32(sid), -1);
    for (auto it = services.lower_bound({s.name, ""}); it != services.end() && it->first.first == s.name; ++it) {
        if (scopes_meet(s.scope, it->first.second)) {
            tell(to, added, sid, it->second);
        }
    }
}

void services_mailbox_gone(registry_client &owner, uint32_t mbox)
{
    std::vector<uint32_t> sids;
    for (const auto &[sid, subscription] : owner.subscriptions) {
        if (subscription.mbox == mbox) {
            sids.push_back(sid);
        }
    }
    for (const uint32_t sid : sids) {
        forget_subscription(owner, sid);
    }
    const auto published = owner.services; // a copy: withdrawing takes from it
    for (const auto &key : published) {
        if (services.at(key).mbox == mbox) {
            withdraw(owner, key);
        }
    }
}

bool services_are_empty() { return services.empty() && subscribers.empty(); }
