#include "registry.hpp"

#include "itc.h"
#include "services.hpp"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace itc_wire;

namespace
{

// Bounds per process, far above any use: one client must not take all the memory.
constexpr size_t name_bound = 8192;
constexpr size_t token_bound = 65536;
constexpr int channel_buffer = 1 << 20;

struct mailbox {
    registry_client *owner;
    std::set<std::string> names;
    std::set<std::pair<uint32_t, uint32_t>> watchers; // process, token
};

// Two processes that were introduced. Both ends have to be closed before there is another introduction.
struct pairing {
    uint32_t channel = 0;
    bool low_closed = false;
    bool high_closed = false;
    bool wanted_again = false;
};

registry_output *out;
const policy *rules;
std::unordered_map<uint32_t, registry_client *> processes;
std::unordered_map<uint32_t, mailbox> mailboxes;
std::unordered_map<std::string, uint32_t> names;
std::unordered_map<std::string, std::set<std::pair<uint32_t, uint32_t>>> waiting; // process, token
std::map<std::pair<uint32_t, uint32_t>, pairing> pairings;                        // lower number first
uint32_t last_channel = 0;

void answer(registry_client &to, uint32_t serial, int error)
{
    writer frame(result, serial);
    out->send(to, frame.u32(static_cast<uint32_t>(error)), -1);
}

registry_client *process_find(uint32_t number)
{
    const auto found = processes.find(number);
    return found == processes.end() ? nullptr : found->second;
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
    registry_client *to = process_find(process);
    if (to != nullptr) {
        writer frame(type, token);
        out->send(*to, frame.u32(mbox), -1);
    }
}

// ---- Introductions
// ---------------------------------------------------------------------------------------------------

std::pair<uint32_t, uint32_t> pair_key(uint32_t a, uint32_t b) { return {a < b ? a : b, a < b ? b : a}; }

void raise_buffer(int fd)
{
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &channel_buffer, sizeof channel_buffer) != 0) {
        (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &channel_buffer, sizeof channel_buffer);
    }
}

void tell_channel(registry_client &to, uint32_t process, uint32_t number, int fd)
{
    writer frame(channel, 0);
    out->send(to, frame.u32(process).u32(number), fd);
}

void introduce_both(registry_client &a, registry_client &b)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
        writer frame(no_process, 0);
        out->send(a, frame.u32(b.process), -1);
        return;
    }
    raise_buffer(ends[0]);
    raise_buffer(ends[1]);
    pairing fresh;
    fresh.channel = ++last_channel;
    pairings[pair_key(a.process, b.process)] = fresh;
    tell_channel(a, b.process, fresh.channel, ends[0]);
    tell_channel(b, a.process, fresh.channel, ends[1]);
}

// Sees to it that the two have a channel. If they have one, `from` has it or finds it on its way.
void introduce_once(registry_client &from, registry_client &other)
{
    const auto known = pairings.find(pair_key(from.process, other.process));
    if (known == pairings.end()) {
        introduce_both(from, other);
    } else if (known->second.low_closed || known->second.high_closed) {
        known->second.wanted_again = true; // as soon as the other end is closed too
    }
}

// Whoever finds a mailbox is about to send to it: the channel comes before the answer, and no message has to wait.
void introduce_finder(uint32_t finder, uint32_t mbox)
{
    registry_client *from = process_find(finder);
    registry_client *other = process_find(process_of(mbox));
    if (from != nullptr && other != nullptr && from != other) {
        introduce_once(*from, *other);
    }
}

void on_introduce(registry_client &from, uint32_t process)
{
    registry_client *other = process_find(process);
    if (other == nullptr || other == &from) {
        writer frame(no_process, 0);
        out->send(from, frame.u32(process), -1);
    } else {
        introduce_once(from, *other);
    }
}

void on_closed(registry_client &from, uint32_t process, uint32_t number)
{
    const auto known = pairings.find(pair_key(from.process, process));
    if (known == pairings.end() || known->second.channel != number) {
        return;
    }
    pairing &p = known->second;
    (from.process < process ? p.low_closed : p.high_closed) = true;
    if (!p.low_closed || !p.high_closed) {
        return;
    }
    const bool again = p.wanted_again;
    pairings.erase(known);
    registry_client *other = process_find(process);
    if (again && other != nullptr) {
        introduce_both(from, *other);
    }
}

void pairings_forget(uint32_t process)
{
    for (auto it = pairings.begin(); it != pairings.end();) {
        it = it->first.first == process || it->first.second == process ? pairings.erase(it) : std::next(it);
    }
}

// ---- Mailboxes and names
// ---------------------------------------------------------------------------------------------

void name_appears(const std::string &name, uint32_t mbox)
{
    const auto found = waiting.find(name);
    if (found == waiting.end()) {
        return;
    }
    const auto waiters = std::move(found->second);
    waiting.erase(found);
    for (const auto &[process, token] : waiters) {
        registry_client *client = process_find(process);
        if (client != nullptr) {
            client->awaited.erase(token);
            introduce_finder(process, mbox);
            tell_token(itc_wire::found, process, token, mbox);
        }
    }
}

// 0, or why `client` may not have that name for that mailbox. A name the mailbox has already is given again.
int claim(registry_client &client, uint32_t mbox, const std::string &name)
{
    const auto taken = names.find(name);
    if (taken != names.end()) {
        return taken->second == mbox ? 0 : EEXIST;
    }
    if (!policy_may_claim(*rules, client.who, name)) {
        return EACCES;
    }
    if (client.name_count >= name_bound) {
        return ENOSPC;
    }
    client.name_count++;
    names[name] = mbox;
    mailboxes.at(mbox).names.insert(name);
    name_appears(name, mbox);
    return 0;
}

void mailbox_remove(registry_client &client, uint32_t mbox)
{
    const mailbox gone = std::move(mailboxes.at(mbox));
    mailboxes.erase(mbox);
    client.mboxes.erase(mbox);
    client.name_count -= gone.names.size();
    for (const std::string &name : gone.names) {
        names.erase(name);
    }
    services_mailbox_gone(client, mbox);
    for (const auto &[process, token] : gone.watchers) {
        registry_client *watcher = process_find(process);
        if (watcher != nullptr) {
            watcher->monitors.erase(token);
            tell_token(died, process, token, mbox);
        }
    }
}

void on_create(registry_client &from, uint32_t serial, uint32_t mbox, const std::string &name)
{
    if (name.empty() || process_of(mbox) != from.process || owns(from, mbox)) {
        answer(from, serial, EINVAL);
        return;
    }
    if (!box_may_be_used(from.resting, box_of(mbox), seconds())) {
        answer(from, serial, EAGAIN);
        return;
    }
    mailboxes[mbox].owner = &from;
    from.mboxes.insert(mbox);
    const int error = claim(from, mbox, name);
    if (error != 0) {
        mailbox_remove(from, mbox);
    }
    answer(from, serial, error);
}

void on_delete(registry_client &from, uint32_t serial, uint32_t mbox)
{
    const bool own = owns(from, mbox);
    if (own) {
        mailbox_remove(from, mbox);
        box_rest(from.resting, box_of(mbox), seconds());
    }
    answer(from, serial, own ? 0 : EINVAL);
}

void on_add_name(registry_client &from, uint32_t serial, uint32_t mbox, const std::string &name)
{
    answer(from, serial, name.empty() || !owns(from, mbox) ? EINVAL : claim(from, mbox, name));
}

// ---- Locating and monitoring
// -----------------------------------------------------------------------------------------

uint32_t name_lookup(const std::string &name)
{
    const auto found_name = names.find(name);
    return found_name == names.end() ? ITC_NO_MBOX : found_name->second;
}

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
    if (from.awaited.size() >= token_bound || !from.awaited.emplace(token, name).second) {
        out->doom(from, "waits for too many names, or twice under one token");
        return;
    }
    waiting[name].emplace(from.process, token);
}

void await_forget(registry_client &from, uint32_t token)
{
    const auto entry = from.awaited.find(token);
    if (entry == from.awaited.end()) {
        return;
    }
    const auto waiters = waiting.find(entry->second);
    if (waiters != waiting.end()) {
        waiters->second.erase({from.process, token});
        if (waiters->second.empty()) {
            waiting.erase(waiters);
        }
    }
    from.awaited.erase(entry);
}

void on_monitor(registry_client &from, uint32_t token, uint32_t mbox)
{
    const auto watched = mailboxes.find(mbox);
    if (watched == mailboxes.end()) {
        tell_token(died, from.process, token, mbox);
        return;
    }
    if (from.monitors.size() >= token_bound || !from.monitors.emplace(token, mbox).second) {
        out->doom(from, "monitors too many mailboxes, or twice under one token");
        return;
    }
    watched->second.watchers.emplace(from.process, token);
}

void monitor_forget(registry_client &from, uint32_t token)
{
    const auto entry = from.monitors.find(token);
    if (entry == from.monitors.end()) {
        return;
    }
    const auto watched = mailboxes.find(entry->second);
    if (watched != mailboxes.end()) {
        watched->second.watchers.erase({from.process, token});
    }
    from.monitors.erase(entry);
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
    registry_remove(from);
    answer(from, serial, 0);
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
        switch (head.type) {
        case publish:
            error = policy_may_publish(*rules, from.who, name, scope) ? service_publish(from, mbox, name, scope, path)
                                                                      : EACCES;
            break;
        case unpublish:
            error = service_unpublish(from, mbox, name, scope, path);
            break;
        case subscribe:
            error = service_subscribe(from, mbox, sid, name, scope);
            break;
        default:
            error = service_unsubscribe(from, mbox, sid);
            break;
        }
    }
    if (error == 0 && head.type == subscribe) {
        service_tell_all(from, sid); // before the answer: once subscribed, the indications are there
    }
    answer(from, head.serial, error);
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
    default:
        on_closed(from, first, second);
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
        return on_name_request(from, head, fields);
    case delete_box:
    case monitor:
    case introduce:
    case closed:
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

void registry_start(registry_output &output, const policy &given_rules)
{
    out = &output;
    rules = &given_rules;
    uint32_t somewhere = 0; // what an earlier registry gave out last is not what this one begins with
    (void)!getrandom(&somewhere, sizeof somewhere, GRND_NONBLOCK);
    numbers_start(somewhere);
    services_start(output);
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

void registry_remove(registry_client &client)
{
    if (client.process == 0) {
        return;
    }
    while (!client.awaited.empty()) {
        await_forget(client, client.awaited.begin()->first);
    }
    while (!client.monitors.empty()) {
        monitor_forget(client, client.monitors.begin()->first);
    }
    while (!client.mboxes.empty()) {
        mailbox_remove(client, *client.mboxes.begin());
    }
    pairings_forget(client.process);
    processes.erase(client.process);
    number_rest(client.process, client.who.user, seconds());
    client.process = 0;
}

bool registry_is_empty()
{
    return processes.empty() && mailboxes.empty() && names.empty() && waiting.empty() && pairings.empty() &&
           services_are_empty();
}
