#include "services.hpp"

#include <cerrno>

using namespace itc_wire;

namespace
{

// Bounds per process, and what the entries of one take in memory besides their texts.
constexpr size_t service_bound = 4096;
constexpr size_t subscription_bound = 4096;
constexpr size_t service_bytes = 480;
constexpr size_t subscription_bytes = 560;
constexpr size_t told_bytes = 96;

registry_output *out;
std::map<std::string, topic> topics;

// The empty scope is every scope, on either side.
bool scopes_meet(std::string_view a, std::string_view b) { return a.empty() || b.empty() || a == b; }

void tell(registry_client &to, frame_type type, uint32_t sid, const service &what)
{
    writer frame(type, 0);
    out->send(to, frame.u32(sid).u32(what.mbox).text(what.path), -1);
}

void forget_topic_without_use(const topic_entry *which)
{
    if (which->second.there.empty() && which->second.subscribers.empty()) {
        topics.erase(topics.find(which->first));
    }
}

service_ptr at_scope(const std::map<std::string_view, service_ptr> &table, std::string_view scope)
{
    const auto found = table.find(scope);
    return found == table.end() ? nullptr : found->second;
}

size_t bytes_of(const service &s) { return service_bytes + s.about->first.size() + s.scope.size() + s.path.size(); }

size_t bytes_of(const registry_subscription &s) { return subscription_bytes + s.about->first.size() + s.scope.size(); }

void untell(registry_client &of, registry_subscription &s, std::map<std::string_view, service_ptr>::iterator entry)
{
    s.told.erase(entry);
    of.of->bytes -= told_bytes;
}

// Has the subscriber know what is there in one scope.
void reconcile(registry_client &to, uint32_t sid, registry_subscription &s, std::string_view scope)
{
    const service_ptr is = at_scope(s.about->second.there, scope);
    const auto told = s.told.find(scope);
    if ((told == s.told.end() ? nullptr : told->second) == is || !scopes_meet(s.scope, scope)) {
        return;
    }
    if (told != s.told.end()) {
        tell(to, removed, sid, *told->second);
        untell(to, s, told);
    }
    if (is != nullptr) {
        tell(to, added, sid, *is);
        s.told.emplace(is->scope, is);
        to.of->bytes += told_bytes;
        if (to.of->bytes > share_bytes_bound) {
            out->doom(to, "subscribes too often to too many services");
        }
    }
}

void leave_change(registry_client &causer, const std::string &name, const std::string &scope)
{
    registry_task task(registry_task::tell_change, 0);
    task.name = name;
    task.scope = scope;
    causer.work.push_back(std::move(task));
}

// `causer` has the news told: the owner, or who takes the place of one that leaves. `gone` is no entry of a table.
void withdraw(registry_client &causer, const service_ptr &gone)
{
    gone->about->second.there.erase(gone->scope);
    gone->box->services.erase(gone);
    share_give(*gone->owner->of, held::services, bytes_of(*gone));
    gone->owner->service_count--;
    leave_change(causer, gone->about->first, gone->scope);
    forget_topic_without_use(gone->about);
}

void forget_subscription(registry_client &client, uint32_t sid)
{
    const auto found = client.subscriptions.find(sid);
    registry_subscription &s = found->second;
    share_give(*client.of, held::subscriptions, bytes_of(s));
    client.of->bytes -= told_bytes * s.told.size();
    s.about->second.subscribers.erase({client.process, sid});
    const topic_entry *about = s.about;
    client.subscriptions.erase(found);
    client.stale.erase(sid);
    forget_topic_without_use(about);
}

} // namespace

void services_start(registry_output &output) { out = &output; }

int service_publish(registry_client &from, registry_box_services &box, uint32_t mbox, const std::string &name,
                    const std::string &scope, const std::string &path)
{
    if (name.empty()) {
        return EINVAL;
    }
    const std::string &where = path.empty() ? name : path;
    const auto found = topics.find(name);
    const service_ptr known = found == topics.end() ? nullptr : at_scope(found->second.there, scope);
    if (known != nullptr) {
        if (known->mbox == mbox && known->path == where) {
            return 0;
        }
        if (known->mbox != mbox && !registry_mailbox_goes(known->mbox)) {
            return EEXIST;
        }
        withdraw(from, known); // the same mailbox under another path, or one that is as good as gone
    }
    topic_entry &about = *topics.try_emplace(name).first;
    const service_ptr fresh = std::make_shared<const service>(service{&about, scope, where, mbox, &from, &box});
    if (from.service_count >= service_bound || !share_take(*from.of, held::services, bytes_of(*fresh))) {
        forget_topic_without_use(&about);
        return ENOSPC;
    }
    from.service_count++;
    about.second.there.emplace(fresh->scope, fresh);
    box.services.insert(fresh);
    leave_change(from, name, scope);
    return 0;
}

int service_unpublish(registry_client &from, uint32_t mbox, const std::string &name, const std::string &scope,
                      const std::string &path)
{
    const auto found = topics.find(name);
    const service_ptr known = found == topics.end() ? nullptr : at_scope(found->second.there, scope);
    if (known == nullptr || known->path != (path.empty() ? name : path)) {
        return ENOENT;
    }
    if (known->mbox != mbox) {
        return EACCES;
    }
    withdraw(from, known);
    return 0;
}

int service_subscribe(registry_client &from, registry_box_services &box, uint32_t mbox, uint32_t sid,
                      const std::string &name, const std::string &scope)
{
    if (name.empty() || sid == 0 || from.subscriptions.count(sid) != 0) {
        return EINVAL;
    }
    topic_entry &about = *topics.try_emplace(name).first;
    registry_subscription fresh{&about, scope, mbox, {}};
    if (from.subscriptions.size() >= subscription_bound ||
        !share_take(*from.of, held::subscriptions, bytes_of(fresh))) {
        forget_topic_without_use(&about);
        return ENOSPC;
    }
    from.subscriptions.emplace(sid, std::move(fresh));
    about.second.subscribers.emplace(from.process, sid);
    box.sids.insert(sid);
    writer frame(subscribed, 0);
    out->send(from, frame.u32(sid), -1);
    from.work.emplace_back(registry_task::sweep, sid);
    return 0;
}

int service_unsubscribe(registry_client &from, registry_box_services &box, uint32_t mbox, uint32_t sid)
{
    const auto known = from.subscriptions.find(sid);
    if (known == from.subscriptions.end() || known->second.mbox != mbox) {
        return ENOENT;
    }
    box.sids.erase(sid);
    forget_subscription(from, sid);
    return 0;
}

bool services_forget_one(registry_client &owner, registry_box_services &box)
{
    if (!box.sids.empty()) {
        forget_subscription(owner, *box.sids.begin());
        box.sids.erase(box.sids.begin());
        return true;
    }
    if (!box.services.empty()) {
        const auto gone = box.services.extract(box.services.begin());
        withdraw(owner, gone.value());
        return true;
    }
    return false;
}

step service_tell_change(registry_task &task)
{
    const auto found = topics.find(task.name);
    if (found == topics.end()) {
        return step::done;
    }
    const auto &subscribers = found->second.subscribers;
    const auto next = subscribers.upper_bound({task.number, task.second}); // processes and sids begin at 1
    if (next == subscribers.end()) {
        return step::done;
    }
    task.number = next->first;
    task.second = next->second;
    registry_client *to = registry_find(next->first);
    if (to == nullptr) {
        return step::more;
    }
    if (out->is_behind(*to)) {
        to->stale.insert(task.second);
        out->wake(*to);
    } else {
        reconcile(*to, task.second, to->subscriptions.at(task.second), task.scope);
    }
    return step::more;
}

step service_sweep(registry_client &subscriber, registry_task &task)
{
    const auto found = subscriber.subscriptions.find(task.number);
    if (found == subscriber.subscriptions.end() || subscriber.leaving) {
        return step::done;
    }
    if (out->is_behind(subscriber)) {
        return step::behind;
    }
    registry_subscription &s = found->second;
    const auto &there = s.about->second.there;
    const auto is = task.begun ? there.upper_bound(task.scope) : there.begin();
    const auto told = task.begun ? s.told.upper_bound(task.scope) : s.told.begin();
    if (is == there.end() && told == s.told.end()) {
        return step::done;
    }
    const bool take_told = is == there.end() || (told != s.told.end() && told->first < is->first);
    task.scope = take_told ? told->first : is->first;
    task.begun = true;
    reconcile(subscriber, task.number, s, task.scope);
    return step::more;
}

bool services_are_empty() { return topics.empty(); }
