#include "registry.hpp"

#include "doors.hpp"
#include "introductions.hpp"
#include "itc.h"
#include "services.hpp"

#include <cerrno>
#include <ctime>
#include <sys/random.h>
#include <sys/socket.h>
#include <unordered_map>

using namespace itc_wire;

namespace
{

// Bounds per process, and what the entries of one take in memory besides their texts. A process can have no more
// mailboxes than there are numbers.
constexpr size_t name_bound = 8192;
constexpr size_t await_bound = 8192;
constexpr size_t monitor_bound = 16384;
constexpr size_t mailbox_bytes = 496;
constexpr size_t name_bytes = 240;
constexpr size_t await_bytes = 320;
constexpr size_t monitor_bytes = 160;

struct mailbox {
    registry_client *owner = nullptr;
    bool goes = false; // its end has begun
    std::set<std::string_view> names;
    std::string_view first_name;                      // what it was created with; empty when another has it now
    std::set<std::pair<uint32_t, uint32_t>> watchers; // process, token
    registry_box_services services;
};

registry_output *out;
const policy *rules;
std::unordered_map<uint32_t, registry_client *> processes;
std::map<uint32_t, mailbox> mailboxes;
std::map<std::string, uint32_t, std::less<>> names;
std::map<std::string, std::set<std::pair<uint32_t, uint32_t>>, std::less<>> waiting; // process, token

void answer(registry_client &to, uint32_t serial, int error)
{
    writer frame(result, serial);
    out->send(to, frame.u32(static_cast<uint32_t>(error)), -1);
}

// Seconds that only grow, never those of the epoch.
uint32_t seconds()
{
    timespec now{};
    (void)clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint32_t>(now.tv_sec);
}

bool owns(const registry_client &client, uint32_t mbox) { return client.mboxes.count(mbox) != 0; }

void tell_token(frame_type type, uint32_t process, uint32_t token, uint32_t mbox)
{
    registry_client *to = registry_find(process);
    if (to != nullptr) {
        writer frame(type, token);
        out->send(*to, frame.u32(mbox), -1);
    }
}

// Whoever finds a mailbox is about to send to it: the channel comes before the answer, and no message has to wait.
void introduce_finder(uint32_t finder, uint32_t mbox)
{
    registry_client *from = registry_find(finder);
    registry_client *other = registry_find(process_of(mbox));
    if (from != nullptr && other != nullptr && from != other) {
        introduce_once(*from, *other);
    }
}

void on_introduce(registry_client &from, uint32_t process)
{
    registry_client *other = registry_find(process);
    if (other == nullptr || other == &from) {
        writer frame(no_process, 0);
        out->send(from, frame.u32(process), -1);
    } else {
        introduce_once(from, *other);
    }
}

// ---- Mailboxes and names
// ---------------------------------------------------------------------------------------------

bool goes(const mailbox &box) { return box.goes || box.owner->leaving; }

// The mailbox of that name. One whose end has begun has none any more.
uint32_t name_lookup(std::string_view name)
{
    const auto found = names.find(name);
    return found == names.end() || goes(mailboxes.at(found->second)) ? ITC_NO_MBOX : found->second;
}

void name_free(std::map<std::string, uint32_t, std::less<>>::iterator entry)
{
    mailbox &box = mailboxes.at(entry->second);
    if (box.first_name.data() == entry->first.data()) {
        box.first_name = {};
    }
    box.names.erase(entry->first);
    box.owner->name_count--;
    share_give(*box.owner->of, held::names, name_bytes + entry->first.size());
    doors_name_gone(entry->first);
    names.erase(entry);
}

// 0, or why `client` may not have that name for that mailbox. A name the mailbox has already is given again.
int claim(registry_client &client, uint32_t mbox, const std::string &name)
{
    const auto taken = names.find(name);
    if (taken != names.end() && !goes(mailboxes.at(taken->second))) {
        return taken->second == mbox ? 0 : EEXIST;
    }
    if (!policy_may_claim(*rules, client.who, name)) {
        return EACCES;
    }
    if (taken != names.end()) {
        name_free(taken);
    }
    if (client.name_count >= name_bound || !share_take(*client.of, held::names, name_bytes + name.size())) {
        return ENOSPC;
    }
    client.name_count++;
    mailbox &box = mailboxes.at(mbox);
    const std::string_view kept = names.emplace(name, mbox).first->first;
    box.first_name = box.names.empty() ? kept : box.first_name;
    box.names.insert(kept);
    doors_name_given(client, mbox, name);
    if (waiting.count(name) != 0) {
        client.work.emplace_back(registry_task::tell_found, mbox);
        client.work.back().name = name;
    }
    return 0;
}

void mailbox_erase(std::map<uint32_t, mailbox>::iterator box)
{
    registry_client &owner = *box->second.owner;
    owner.mboxes.erase(box->first);
    share_give(*owner.of, held::mailboxes, mailbox_bytes);
    mailboxes.erase(box);
}

// Its answer comes when what it left to do is done.
void answer_after_work(registry_client &to, uint32_t serial, int error)
{
    if (to.work.empty()) {
        answer(to, serial, error);
    } else {
        to.work.insert(to.work.begin(), registry_task(registry_task::reply, serial, static_cast<uint32_t>(error)));
    }
}

int create(registry_client &from, uint32_t mbox, const std::string &name)
{
    if (name.empty() || process_of(mbox) != from.process || owns(from, mbox)) {
        return EINVAL;
    }
    if (!box_may_be_used(from.resting, box_of(mbox), seconds())) {
        return EAGAIN;
    }
    if (!share_take(*from.of, held::mailboxes, mailbox_bytes)) {
        return ENOSPC;
    }
    const auto fresh = mailboxes.try_emplace(mbox).first;
    fresh->second.owner = &from;
    from.mboxes.insert(mbox);
    const int error = claim(from, mbox, name);
    if (error != 0) {
        mailbox_erase(fresh);
    }
    return error;
}

void on_create(registry_client &from, uint32_t serial, uint32_t mbox, const std::string &name)
{
    const int error = create(from, mbox, name);
    answer_after_work(from, serial, error);
}

void on_delete(registry_client &from, uint32_t serial, uint32_t mbox)
{
    const bool own = owns(from, mbox);
    if (own) {
        box_rest(from.resting, box_of(mbox), seconds());
        mailboxes.at(mbox).goes = true;
        from.work.emplace_back(registry_task::unload_box, mbox);
    }
    answer_after_work(from, serial, own ? 0 : EINVAL);
}

void on_add_name(registry_client &from, uint32_t serial, uint32_t mbox, const std::string &name)
{
    const int error = name.empty() || !owns(from, mbox) ? EINVAL : claim(from, mbox, name);
    answer_after_work(from, serial, error);
}

// ---- Locating and monitoring
// -----------------------------------------------------------------------------------------

void on_locate(registry_client &from, uint32_t serial, const std::string &name)
{
    const uint32_t mbox = name_lookup(name);
    introduce_finder(from.process, mbox);
    writer frame(located, serial);
    out->send(from, frame.u32(mbox), -1);
}

void on_await(registry_client &from, uint32_t token, const std::string &name)
{
    const uint32_t mbox = name_lookup(name);
    if (mbox != ITC_NO_MBOX) {
        introduce_finder(from.process, mbox);
        tell_token(found, from.process, token, mbox);
        return;
    }
    if (from.awaited.count(token) != 0 || from.awaited.size() >= await_bound ||
        !share_take(*from.of, held::awaits, await_bytes + name.size())) {
        out->doom(from, "waits for too many names, or twice under one token");
        return;
    }
    const auto entry = waiting.try_emplace(name).first;
    entry->second.emplace(from.process, token);
    from.awaited.emplace(token, entry->first);
}

void await_forget(registry_client &from, uint32_t token)
{
    const auto entry = from.awaited.find(token);
    if (entry == from.awaited.end()) {
        return;
    }
    const auto waiters = waiting.find(entry->second);
    from.awaited.erase(entry);
    share_give(*from.of, held::awaits, await_bytes + waiters->first.size());
    waiters->second.erase({from.process, token});
    if (waiters->second.empty()) {
        waiting.erase(waiters);
    }
}

void on_monitor(registry_client &from, uint32_t token, uint32_t mbox)
{
    const auto watched = mailboxes.find(mbox);
    if (watched == mailboxes.end() || goes(watched->second)) {
        tell_token(died, from.process, token, mbox);
        return;
    }
    if (from.monitors.count(token) != 0 || from.monitors.size() >= monitor_bound ||
        !share_take(*from.of, held::monitors, monitor_bytes)) {
        out->doom(from, "monitors too many mailboxes, or twice under one token");
        return;
    }
    from.monitors.emplace(token, mbox);
    watched->second.watchers.emplace(from.process, token);
}

// The mailbox is there as long as it has watchers.
void monitor_forget(registry_client &from, uint32_t token)
{
    const auto entry = from.monitors.find(token);
    if (entry == from.monitors.end()) {
        return;
    }
    mailboxes.at(entry->second).watchers.erase({from.process, token});
    from.monitors.erase(entry);
    share_give(*from.of, held::monitors, monitor_bytes);
}

// ---- Looking at messages
// ---------------------------------------------------------------------------------------------

// Root alone: he could look into the process's memory as well. Whoever asks has one end of a socket, the process that
// has the mailbox the other, and the registry keeps nothing of it.
int tap_mailbox(registry_client &from, uint32_t serial, uint32_t mbox)
{
    if (from.who.user != 0) {
        return EACCES;
    }
    registry_client *looked_at = mbox == ITC_NO_MBOX ? nullptr : registry_find(process_of(mbox));
    if (looked_at == nullptr) {
        return ENOENT;
    }
    if (looked_at == &from) {
        return EINVAL;
    }
    if (!out->takes_descriptor(from) || !out->takes_descriptor(*looked_at)) {
        return EAGAIN;
    }
    int ends[2];
    const int error = channel_ends(SOCK_SEQPACKET, ends);
    if (error != 0) {
        return error;
    }
    out->say(*looked_at, "root looks at its messages");
    writer to_reader(tapping, serial);
    out->send(from, to_reader, ends[0]);
    writer to_writer(tapped, 0);
    out->send(*looked_at, to_writer, ends[1]);
    return 0;
}

void on_tap(registry_client &from, uint32_t serial, const std::string &name)
{
    const int error = tap_mailbox(from, serial, name_lookup(name));
    answer(from, serial, error);
}

void on_name_of(registry_client &from, uint32_t serial, uint32_t mbox)
{
    const auto box = mailboxes.find(mbox);
    const bool known = from.who.user == 0 && box != mailboxes.end() && !box->second.first_name.empty();
    if (known) {
        writer frame(named, serial);
        out->send(from, frame.text(box->second.first_name), -1);
    }
    answer(from, serial, known ? 0 : from.who.user == 0 ? ENOENT : EACCES);
}

// ---- Work in steps
// ---------------------------------------------------------------------------------------------------

// The next that waits for a name. Stops when the name is not that mailbox's any more.
step tell_next_waiter(const registry_task &task)
{
    const auto waiters = waiting.find(task.name);
    if (waiters == waiting.end() || name_lookup(task.name) != task.number) {
        return step::done;
    }
    const auto [process, token] = *waiters->second.begin();
    registry_client &waiter = *processes.at(process);
    await_forget(waiter, token);
    introduce_finder(process, task.number);
    tell_token(found, process, token, task.number);
    return step::more;
}

void tell_next_watcher(mailbox &box, uint32_t mbox)
{
    const auto [process, token] = *box.watchers.begin();
    monitor_forget(*processes.at(process), token);
    tell_token(died, process, token, mbox);
}

// Its names first, its services, and those who watch it last.
step unload_box(registry_client &client, uint32_t mbox)
{
    const auto found_box = mailboxes.find(mbox);
    mailbox &box = found_box->second;
    if (!box.names.empty()) {
        name_free(names.find(*box.names.begin()));
    } else if (services_forget_one(client, box.services)) {
        return step::more;
    } else if (!box.watchers.empty()) {
        tell_next_watcher(box, mbox);
    } else {
        mailbox_erase(found_box);
        return step::done;
    }
    return step::more;
}

step unload(registry_client &client)
{
    if (!client.awaited.empty()) {
        await_forget(client, client.awaited.begin()->first);
    } else if (!client.monitors.empty()) {
        monitor_forget(client, client.monitors.begin()->first);
    } else if (!client.mboxes.empty()) {
        client.work.emplace_back(registry_task::unload_box, *client.mboxes.begin());
    } else if (!introduction_forget_one(client)) {
        processes.erase(client.process);
        number_rest(client.process, client.who.user, seconds());
        client.resting = {};
        client.process = 0;
        client.leaving = false;
        return step::done;
    }
    return step::more;
}

// One step of the task on top. What it leaves behind comes on top of it.
step do_step(registry_client &client)
{
    registry_task &task = client.work.back();
    switch (task.what) {
    case registry_task::tell_found:
        return tell_next_waiter(task);
    case registry_task::tell_change:
        return service_tell_change(task);
    case registry_task::sweep:
        return service_sweep(client, task);
    case registry_task::unload_box:
        return unload_box(client, task.number);
    case registry_task::unload:
        return unload(client);
    case registry_task::reply:
        answer(client, task.number, static_cast<int>(task.second));
        return step::done;
    }
    return step::done;
}

// What was kept back for a client that was behind: false if there is nothing, or it still is.
bool catch_up(registry_client &client)
{
    if (client.leaving) {
        return false;
    }
    if (!client.stale.empty() && !out->is_behind(client)) {
        client.work.emplace_back(registry_task::sweep, *client.stale.begin());
        client.stale.erase(client.stale.begin());
        return true;
    }
    return introduce_next_waiting(client);
}

// ---- Processes
// -------------------------------------------------------------------------------------------------------

void on_hello(registry_client &from, uint32_t their_version)
{
    if (from.process != 0 || their_version != version) {
        out->doom(from, "speaks another version, or says hello twice");
        return;
    }
    from.process = number_take(from.who.user, seconds());
    if (from.process == 0) {
        writer frame(refused, 0);
        out->send(from, frame.u32(EAGAIN), -1);
        out->doom(from, "its user's processes came and went too often today");
        return;
    }
    processes[from.process] = &from;
    writer frame(welcome, 0);
    out->send(from, frame.u32(from.process), -1);
}

void on_bye(registry_client &from, uint32_t serial)
{
    registry_leave(from);
    answer_after_work(from, serial, 0);
}

// One screen of decoding: false if the fields are not those of the type.
bool on_name_service(registry_client &from, const registry_frame &head, reader &fields)
{
    const uint32_t mbox = fields.u32();
    const uint32_t sid = head.type == subscribe || head.type == unsubscribe ? fields.u32() : 0;
    const std::string name(head.type == unsubscribe ? "" : fields.text());
    const std::string scope(head.type == unsubscribe ? "" : fields.text());
    const std::string path(head.type == publish || head.type == unpublish ? fields.text() : "");
    if (!fields.whole()) {
        return false;
    }
    int error = EINVAL;
    if (owns(from, mbox)) {
        registry_box_services &box = mailboxes.at(mbox).services;
        switch (head.type) {
        case publish:
            error = policy_may_publish(*rules, from.who, name, scope)
                        ? service_publish(from, box, mbox, name, scope, path)
                        : EACCES;
            break;
        case unpublish:
            error = service_unpublish(from, mbox, name, scope, path);
            break;
        case subscribe:
            error = service_subscribe(from, box, mbox, sid, name, scope);
            break;
        default:
            error = service_unsubscribe(from, box, mbox, sid);
            break;
        }
    }
    answer_after_work(from, head.serial, error); // once subscribed, the indications are there
    return true;
}

bool on_name_request(registry_client &from, const registry_frame &head, reader &fields)
{
    const bool with_mbox = head.type == create_box || head.type == add_name;
    const uint32_t mbox = with_mbox ? fields.u32() : 0;
    const std::string name(fields.text());
    if (!fields.whole()) {
        return false;
    }
    switch (head.type) {
    case create_box:
        on_create(from, head.serial, mbox, name);
        break;
    case add_name:
        on_add_name(from, head.serial, mbox, name);
        break;
    case locate:
        on_locate(from, head.serial, name);
        break;
    case tap:
        on_tap(from, head.serial, name);
        break;
    default:
        on_await(from, head.serial, name);
        break;
    }
    return true;
}

bool on_number_request(registry_client &from, const registry_frame &head, reader &fields)
{
    const uint32_t first = fields.u32();
    const uint32_t second = head.type == closed ? fields.u32() : 0;
    if (!fields.whole()) {
        return false;
    }
    switch (head.type) {
    case delete_box:
        on_delete(from, head.serial, first);
        break;
    case monitor:
        on_monitor(from, head.serial, first);
        break;
    case introduce:
        on_introduce(from, first);
        break;
    case name_of:
        on_name_of(from, head.serial, first);
        break;
    default:
        introduction_closed(from, first, second);
        break;
    }
    return true;
}

bool on_bare_request(registry_client &from, const registry_frame &head, const reader &fields)
{
    if (!fields.whole()) {
        return false;
    }
    switch (head.type) {
    case cancel_await:
        await_forget(from, head.serial);
        break;
    case unmonitor:
        monitor_forget(from, head.serial);
        break;
    default:
        on_bye(from, head.serial);
        break;
    }
    return true;
}

bool on_request(registry_client &from, const registry_frame &head, reader &fields)
{
    switch (head.type) {
    case create_box:
    case add_name:
    case locate:
    case await_name:
    case tap:
        return on_name_request(from, head, fields);
    case delete_box:
    case monitor:
    case introduce:
    case closed:
    case name_of:
        return on_number_request(from, head, fields);
    case cancel_await:
    case unmonitor:
    case bye:
        return on_bare_request(from, head, fields);
    case publish:
    case unpublish:
    case subscribe:
    case unsubscribe:
        return on_name_service(from, head, fields);
    default:
        return false;
    }
}

} // namespace

registry_client *registry_find(uint32_t process)
{
    const auto found = processes.find(process);
    return found == processes.end() || found->second->leaving ? nullptr : found->second;
}

bool registry_mailbox_goes(uint32_t mbox) { return goes(mailboxes.at(mbox)); }

void registry_start(registry_output &output, const policy &given_rules)
{
    out = &output;
    rules = &given_rules;
    uint32_t somewhere = 0; // what an earlier registry gave out last is not what this one begins with
    (void)!getrandom(&somewhere, sizeof somewhere, GRND_NONBLOCK);
    numbers_start(somewhere);
    services_start(output);
    introductions_start(output);
    doors_start(output, given_rules);
}

void registry_request(registry_client &from, const registry_frame &head, reader fields)
{
    if (from.process == 0) {
        const uint32_t their_version = fields.u32();
        if (head.type != hello || !fields.whole()) {
            out->doom(from, "does not begin with a hello");
            return;
        }
        on_hello(from, their_version);
    } else if (!on_request(from, head, fields)) {
        out->doom(from, "sent a frame that makes no sense");
    }
}

void registry_leave(registry_client &client)
{
    if (client.process != 0 && !client.leaving) {
        client.leaving = true;
        client.work.insert(client.work.begin(),
                           registry_task(registry_task::unload, 0)); // what is under way comes first
    }
}

bool registry_has_work(const registry_client &client) { return !client.work.empty(); }

bool registry_work(registry_client &client, int &budget)
{
    while (budget > 0) {
        if (client.work.empty()) {
            if (!catch_up(client)) {
                return false;
            }
            budget -= cost_of_request;
            continue;
        }
        budget -= client.work.back().what == registry_task::tell_found ? cost_of_request : cost_of_step;
        const step outcome = do_step(client);
        if (outcome == step::behind) {
            return false;
        }
        if (outcome == step::done) {
            client.work.pop_back(); // a task that is done has left nothing on top of itself
        }
    }
    return true;
}

void registry_not_given(registry_client &client, uint32_t process, uint32_t channel)
{
    if (!client.leaving) {
        introduction_closed(client, process, channel);
    }
}

bool registry_is_empty()
{
    return processes.empty() && mailboxes.empty() && names.empty() && waiting.empty() && introductions_are_empty() &&
           services_are_empty() && shares_are_empty() && doors_are_empty();
}
