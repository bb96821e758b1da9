/*
 * The process and its mailboxes: itc_init and itc_exit, which thread owns which box, delivery into a thread's queue,
 * names, itc_send. A box number is used again only after a day, so that a late message to a dead mailbox does not
 * reach a new one.
 */
#include "itc_internal.h"
#include "state.hpp"

#include <algorithm>
#include <cerrno>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <utility>

namespace itc
{

state_storage only_state;
constinit thread_local own_thread here{nullptr, 0};

namespace
{

void release_box(uint32_t box)
{
    g().boxes[box] = nullptr;
    g().box_count--;
}

void drop_queued(thread *t, uint32_t mbox)
{
    t->queue.take_all([mbox](const block *b) { return mbox == ITC_NO_MBOX || b->receiver == mbox; },
                      [](block *b) {
                          account_take(b);
                          block_free(b);
                      });
}

void thread_delete(thread *t)
{
    drop_queued(t, ITC_NO_MBOX);
    auto &threads = g().threads;
    threads.erase(std::remove(threads.begin(), threads.end(), t), threads.end());
    delete t;
}

// A library's constructors run before those of whatever is linked with it.
__attribute__((constructor(101))) void make_state() { new (only_state.bytes) state; }

// A thread that ends takes its mailboxes with it: nobody else may receive from them.
struct anchor {
    bool in_use = false; // so that there is something to destroy

    anchor() = default;
    anchor(const anchor &) = delete;
    anchor &operator=(const anchor &) = delete;

    ~anchor()
    {
        const hold lock(g().lock);
        thread *self = std::exchange(here.self, nullptr);
        if (self == nullptr || here.generation != g().generation) {
            return;
        }
        for (uint32_t box = 0; box < itc_wire::box_limit; box++) {
            if (g().boxes[box] == self) {
                itc_wire::writer request(itc_wire::delete_box, 0);
                registry_send(request.u32(itc_wire::mbox_of(g().process, box)));
                release_box(box);
                door_forget_mailbox(itc_wire::mbox_of(g().process, box));
                g().box_rests_until[box] = clock::now() + box_rest;
            }
        }
        thread_delete(self);
    }
};
thread_local anchor last_here;

thread *thread_record()
{
    state &s = g();
    if (here.self == nullptr || here.generation != s.generation) {
        here.self = new thread;
        here.generation = s.generation;
        last_here.in_use = true;
        s.threads.push_back(here.self);
    }
    return here.self;
}

// A free box number that does not rest, or box_limit.
uint32_t free_box()
{
    state &s = g();
    const clock::time_point now = clock::now();
    for (uint32_t tried = 0; s.up && s.box_count < s.box_allowance && tried < itc_wire::box_limit; tried++) {
        const uint32_t box = s.next_box;
        s.next_box = (box + 1) % itc_wire::box_limit;
        if (s.boxes[box] == nullptr && s.box_rests_until[box] <= now) {
            return box;
        }
    }
    return itc_wire::box_limit;
}

uint32_t first_box_of(const thread *t)
{
    for (uint32_t box = 0; box < itc_wire::box_limit; box++) {
        if (g().boxes[box] == t) {
            return itc_wire::mbox_of(g().process, box);
        }
    }
    return ITC_NO_MBOX;
}

// Forgets what was to be delivered to a mailbox that is no more.
void forget_deliveries(std::unordered_map<uint32_t, awaited> &table, uint32_t mbox, itc_wire::frame_type cancel)
{
    std::vector<uint32_t> tokens;
    for (const auto &entry : table) {
        if (entry.second.deliver_to == mbox) {
            tokens.push_back(entry.first);
        }
    }
    for (const uint32_t token : tokens) {
        block_free(table[token].message);
        table.erase(token);
        itc_wire::writer request(cancel, token);
        registry_send(request);
    }
}

void forget_mailbox(uint32_t mbox)
{
    state &s = g();
    thread *owner = s.boxes[itc_wire::box_of(mbox)];
    release_box(itc_wire::box_of(mbox));
    door_forget_mailbox(mbox);
    s.box_rests_until[itc_wire::box_of(mbox)] = clock::now() + box_rest;
    drop_queued(owner, mbox);
    if (owner->mbox == mbox) {
        owner->mbox = first_box_of(owner);
    }
    forget_deliveries(s.awaiting, mbox, itc_wire::cancel_await);
    forget_deliveries(s.monitors, mbox, itc_wire::unmonitor);
    for (auto it = s.subscriptions.begin(); it != s.subscriptions.end();) {
        it = it->second == mbox ? s.subscriptions.erase(it) : std::next(it);
    }
    wake_leader(); // should the owner wait in itc_receive, it has nothing to wait for now
    wake_followers();
}

void free_table(std::unordered_map<uint32_t, awaited> &table)
{
    for (const auto &entry : table) {
        block_free(entry.second.message);
    }
    table.clear();
}

// Everything of this process is gone afterwards but the descriptors that are watched.
void tear_down()
{
    state &s = g();
    registry_close();
    s.registry_lost = true;
    peers_close();
    s.late.clear();
    half_close();
    free_table(s.awaiting);
    free_table(s.monitors);
    door_forget_all();
    s.subscriptions.clear();
    s.next_sid = 0;
    while (!s.threads.empty()) {
        thread_delete(s.threads.back());
    }
    std::fill(std::begin(s.boxes), std::end(s.boxes), nullptr);
    std::fill(std::begin(s.box_rests_until), std::end(s.box_rests_until),
              clock::time_point{}); // another process number
    s.box_count = 0;
    s.process = 0;
    tap_end(false);
    s.up = s.plain = false;
    s.extras = 0;
    s.generation++;
    poll_close();
}

uint32_t sender_for(uint32_t from)
{
    if (from == ITC_MY_MBOX) {
        const thread *t = thread_current();
        return t == nullptr ? ITC_NO_MBOX : t->mbox;
    }
    return mbox_is_own(from) ? from : ITC_NO_MBOX;
}

// This process is up, and it has a mailbox to send to.
inline void pass_on(block *b, uint32_t to)
{
    state &s = g();
    if (itc_wire::process_of(to) == s.process) {
        s.statistics.sent += s.boxes[itc_wire::box_of(to)] != nullptr ? 1 : 0;
        mbox_deliver(b, to);
    } else {
        if (!s.doors.of.empty()) {
            door_answered(b->sender, to, b);
        }
        peer_send(b, to);
    }
}

// A message that goes nowhere, or that somebody looks at.
__attribute__((cold, noinline)) void pass_on_or_not(block *b, uint32_t to)
{
    state &s = g();
    if (to == ITC_NO_MBOX || !s.up) {
        note_drop(&s.statistics.dropped_no_mailbox, "it was sent to no mailbox");
        block_free(b);
        return;
    }
    if (itc_wire::process_of(to) != s.process) {
        tap_sent(b, to);
    }
    pass_on(b, to);
}

} // namespace

bool name_is_good(const char *name)
{
    return name != nullptr && *name != 0 && strnlen(name, itc_wire::name_limit + 1) <= itc_wire::name_limit;
}

void mbox_deliver(block *b, uint32_t to)
{
    if (!mbox_is_own(to)) {
        note_drop(&g().statistics.dropped_no_mailbox, "there is no such mailbox");
        account_take(b);
        block_free(b);
        return;
    }
    thread *t = g().boxes[itc_wire::box_of(to)];
    b->receiver = to;
    t->queue.push(b);
    thread_wake(t);
}

} // namespace itc

using namespace itc;

extern "C" {

int itc_init(int mailbox_count, int alloc_scheme, const void *scheme_params, const char *name_space, uint32_t flags)
{
    hold lock(g().lock);
    if (g().up) {
        return EALREADY;
    }
    if (mailbox_count < 1 || mailbox_count > mailbox_limit || alloc_scheme != 0 || scheme_params != nullptr ||
        name_space != nullptr || flags != 0) {
        return EINVAL;
    }
    int error = poll_open();
    if (error == 0) {
        error = registry_connect();
    }
    if (error != 0) {
        poll_close();
        return error;
    }
    g().box_allowance = mailbox_count;
    for (drop_kind &k : g().drops) {
        k.next_line = {}; // who joins anew hears of the first drop at once
    }
    g().up = g().plain = true;
    g().generation++;
    return 0;
}

void itc_exit(void)
{
    state &s = g();
    hold lock(s.lock);
    if (!s.up || s.exiting) {
        return;
    }
    flush_everything(lock, exit_limit);
    itc_wire::writer bye(itc_wire::bye, 0);
    (void)registry_command(lock, bye); // so that our names are free when we return
    s.exiting = true;
    while (s.blocked > 0) {
        wake_leader();
        wake_followers();
        s.turn.wait_for(lock, std::chrono::milliseconds(10));
    }
    tear_down();
    s.exiting = false;
}

uint32_t itc_create_mailbox(const char *name, uint32_t flags)
{
    hold lock = call_lock();
    const uint32_t box = free_box();
    if (box == itc_wire::box_limit || !name_is_good(name) || flags != 0) {
        return ITC_NO_MBOX;
    }
    const uint32_t mbox = itc_wire::mbox_of(g().process, box);
    thread *t = thread_record();
    g().boxes[box] = t; // before the registry knows: what is sent at once must not be lost
    g().box_is_closed[box] = true;
    g().box_count++;
    if (t->mbox == ITC_NO_MBOX) {
        t->mbox = mbox;
    }
    itc_wire::writer request(itc_wire::create_box, 0);
    const uint64_t generation = g().generation;
    const int error = registry_command(lock, request.u32(mbox).text(name), box);
    if (error == 0 || generation != g().generation) {
        return error == 0 ? mbox : ITC_NO_MBOX;
    }
    forget_mailbox(mbox);
    if (error != ETIMEDOUT) {
        g().box_rests_until[box] = {}; // it never was one
    }
    itc_wire::writer taken_back(itc_wire::delete_box, 0); // should the registry create it after we gave up waiting
    registry_send(taken_back.u32(mbox));
    return ITC_NO_MBOX;
}

int itc_delete_mailbox(uint32_t mbox)
{
    hold lock = call_lock();
    if (!mbox_is_own(mbox)) {
        return EINVAL;
    }
    flush_everything(lock, exit_limit); // what it sent comes before the news of its end
    if (!mbox_is_own(mbox)) {
        return EINVAL;
    }
    forget_mailbox(mbox);
    itc_wire::writer request(itc_wire::delete_box, 0);
    (void)registry_command(lock, request.u32(mbox)); // without a registry nobody is left to be told
    return 0;
}

int itc_add_name(uint32_t mbox, const char *name)
{
    hold lock = call_lock();
    if (!mbox_is_own(mbox) || !name_is_good(name)) {
        return EINVAL;
    }
    itc_wire::writer request(itc_wire::add_name, 0);
    return registry_command(lock, request.u32(mbox).text(name));
}

uint32_t itc_current_mbox(void)
{
    const hold lock = call_lock();
    const thread *t = thread_current();
    return t == nullptr ? ITC_NO_MBOX : t->mbox;
}

void itc_send(itc_msg **msg, uint32_t to, uint32_t from)
{
    block *b = block_take(msg);
    state &s = g();
    const hold lock = call_lock();
    if (b == nullptr) {
        return;
    }
    b->sender = sender_for(from);
    b->monitor_id = 0;
    if (to == ITC_NO_MBOX || !s.plain) [[unlikely]] {
        pass_on_or_not(b, to);
    } else {
        pass_on(b, to);
    }
    if (s.introducing > 0 && !s.led) {
        registry_read(); // a sender that never receives needs its introductions too
    }
}

void itc_get_statistics(itc_statistics *out)
{
    const hold lock = call_lock();
    *out = g().statistics;
}

void itc_internal_get_waiting(itc_internal_waiting *out)
{
    const auto count = [](const block *b) {
        uint64_t sum = 0;
        for (; b != nullptr; b = b->next) {
            sum++;
        }
        return sum;
    };
    const auto bytes_of = [](int fd, unsigned long request) {
        int bytes = 0;
        return fd >= 0 && ioctl(fd, request, &bytes) == 0 ? static_cast<uint64_t>(bytes) : 0;
    };
    const hold lock = call_lock();
    *out = {};
    for (const thread *t : g().threads) {
        out->messages_in += t->queue.passed + count(t->queue.fresh.head);
    }
    for (const auto &[process, p] : g().peers) {
        out->messages_out += count(p->outbox.head);
        out->bytes_in += bytes_of(p->fd, SIOCINQ);
        out->bytes_out += bytes_of(p->fd, SIOCOUTQ);
    }
}

uint64_t itc_internal_channel_writes(void)
{
    const hold lock(g().lock);
    return g().channel_writes;
}

void itc_internal_set_half_sent_limit(uint32_t ms)
{
    const hold lock(g().lock);
    g().half_limit = std::chrono::milliseconds(ms);
}

int itc_internal_tap(const char *name, int *fd)
{
    hold lock = call_lock();
    call waiting;
    itc_wire::writer request(itc_wire::tap, 0);
    const int error = registry_call(lock, request.text(name), waiting);
    if (error != 0 || waiting.value != 0) {
        return error != 0 ? error : static_cast<int>(waiting.value);
    }
    *fd = waiting.fd;
    return waiting.fd < 0 ? EMFILE : 0;
}

int itc_internal_name_of(uint32_t mbox, char *name)
{
    hold lock = call_lock();
    call waiting;
    itc_wire::writer request(itc_wire::name_of, 0);
    const int error = registry_call(lock, request.u32(mbox), waiting);
    if (error != 0 || waiting.value != 0) {
        return error != 0 ? error : static_cast<int>(waiting.value);
    }
    memcpy(name, waiting.text.c_str(), waiting.text.size() + 1); // a frame's text is no longer than a name
    return 0;
}

int itc_internal_publish(const char *name, const char *scope, uint32_t mbox, const char *path)
{
    hold lock = call_lock();
    door_service_changed(mbox);
    itc_wire::writer request(itc_wire::publish, 0);
    return mbox_is_own(mbox) ? registry_command(lock, request.u32(mbox).text(name).text(scope).text(path)) : EINVAL;
}

int itc_internal_unpublish(const char *name, const char *scope, uint32_t mbox, const char *path)
{
    hold lock = call_lock();
    door_service_changed(mbox);
    itc_wire::writer request(itc_wire::unpublish, 0);
    return mbox_is_own(mbox) ? registry_command(lock, request.u32(mbox).text(name).text(scope).text(path)) : EINVAL;
}

int itc_internal_subscribe(const char *name, const char *scope, uint32_t mbox)
{
    state &s = g();
    hold lock = call_lock();
    if (!mbox_is_own(mbox)) {
        return EINVAL;
    }
    do {
        s.next_sid++;
    } while (s.next_sid == 0 || s.subscriptions.count(s.next_sid) != 0);
    const uint32_t sid = s.next_sid;
    s.subscriptions[sid] = mbox; // before the answer: the indications come right behind it
    itc_wire::writer request(itc_wire::subscribe, 0);
    const int error = registry_command(lock, request.u32(mbox).u32(sid).text(name).text(scope));
    if (error != 0) {
        s.subscriptions.erase(sid);
    }
    return error;
}

int itc_internal_unsubscribe(uint32_t sid, uint32_t mbox)
{
    state &s = g();
    hold lock = call_lock();
    const auto found = s.subscriptions.find(sid);
    if (found == s.subscriptions.end() || found->second != mbox) {
        return mbox_is_own(mbox) ? ENOENT : EINVAL;
    }
    s.subscriptions.erase(found);
    itc_wire::writer request(itc_wire::unsubscribe, 0);
    return registry_command(lock, request.u32(mbox).u32(sid));
}

} // extern "C"
