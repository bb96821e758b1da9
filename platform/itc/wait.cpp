/*
 * Waiting: the one epoll of the process, the lead, watched descriptors and itc_receive.
 *
 * A receiving thread first looks into its queue. If there is nothing for it, it leads (or follows the thread that
 * leads). A thread that never runs dry looks at the descriptors now and then all the same, so that neither a signal nor
 * another sender is kept waiting by a flood of messages. Whatever the occasion, the channels are read in turns: each
 * peer brings a share, and what is more stays in its socket until its messages have been taken.
 */
#include "state.hpp"

#include <cerrno>
#include <cstdlib>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace itc
{
namespace
{

constexpr int events_per_wait = 256;
constexpr unsigned takes_between_looks = 64;
// How long somebody waits, with nothing queued that passes, before those are read further who have their share in the
// queues already: what is waited for mostly comes from one who has not.
constexpr int patience_ms = 1;
constexpr int rounds_per_look = 16; // of a receive that does not wait

uint64_t poll_tag(source kind, uint32_t id) { return static_cast<uint64_t>(kind) << 32 | id; }

block *take(thread *t, const uint32_t *filter, uint32_t from)
{
    block *b = t->queue.take(filter, from, &t->looked_at);
    if (b != nullptr) {
        t->taken++;
        g().statistics.received++;
        account_take(b);
    }
    return b;
}

void run_watch(hold &lock, int fd)
{
    const auto found = g().watches.find(fd);
    if (found == g().watches.end()) {
        return;
    }
    const watch w = found->second;
    const uint64_t generation = g().generation;
    lock.unlock();
    w.callback(w.arg); // may leave ITC, and may not return
    lock.lock();
    if (thread *me = thread_current(); me != nullptr && generation == g().generation) {
        me->looked_at = false; // a receive inside the callback looked for something else
    }
}

void drain_wake()
{
    uint64_t count = 0;
    (void)!read(g().wake, &count, sizeof count);
    g().woken = false;
}

void on_event(hold &lock, const epoll_event &event)
{
    const auto id = static_cast<uint32_t>(event.data.u64);
    switch (static_cast<source>(event.data.u64 >> 32)) {
    case source_wake:
        drain_wake();
        break;
    case source_registry:
        registry_flush();
        registry_read();
        break;
    case source_peer:
        peer_event(id, event.events);
        break;
    case source_watch:
        run_watch(lock, static_cast<int>(id));
        break;
    case source_timer:
        half_timer_event();
        break;
    case source_tap:
        tap_event(id);
        break;
    }
}

// What one itc_receive looks for.
struct wish {
    const uint32_t *filter;
    uint32_t from;
    uint32_t timeout_ms;
    clock::time_point deadline;
};

// Leads once: waits for at most `timeout` ms and does what the descriptors ask for; then the peers have a turn. Lets
// the lock go. `w` is what the thread waits for, NULL if it only looks.
void lead(hold &lock, thread *me, int timeout, const wish *w)
{
    state &s = g();
    epoll_event events[events_per_wait];
    const int epoll = s.epoll;
    const uint64_t generation = s.generation;
    bool patient = false;
    if (!s.round.empty() || (!s.late.empty() && late_news_deliver())) {
        timeout = 0;
    } else if (w != nullptr && s.paused_queue > 0 && peers_could_go_further()) {
        patient = true;
        timeout = timeout < 0 || timeout > patience_ms ? patience_ms : timeout;
    }
    s.led = me->leading = me->waiting = true;
    s.blocked++;
    lock.unlock();
    if (timeout != 0) {
        memory_give_back(); // there is nothing to do, as far as we know
    }
    const int count = epoll_wait(epoll, events, events_per_wait, timeout);
    lock.lock();
    s.blocked--;
    s.led = me->leading = me->waiting = false;
    me->taken = 0;
    for (int i = 0; i < count && s.generation == generation && !s.exiting; i++) {
        on_event(lock, events[i]);
    }
    if (s.generation == generation && !s.exiting) {
        if (patient && s.round.empty()) {
            peers_go_further();
        } else if (!s.round.empty()) {
            peers_turn(w != nullptr, w == nullptr || w->from == ITC_FROM_ANY ? 0 : itc_wire::process_of(w->from));
        }
        if (!s.late.empty()) {
            (void)late_news_deliver();
        }
    }
    registry_catch_up();
    wake_followers();
}

// Whoever polls the descriptor of itc_get_fd has to see that messages are queued.
void show_queued()
{
    if ((g().extras & EXTRA_FD) == 0) {
        return;
    }
    if (!g().round.empty()) {
        wake_leader();
        return;
    }
    for (const thread *t : g().threads) {
        if (!t->queue.empty()) {
            wake_leader();
            return;
        }
    }
}

__attribute__((cold, noinline)) void after_receive(const block *b)
{
    if ((g().extras & EXTRA_TAP) != 0 && b != nullptr) {
        tap_received(b);
    }
    show_queued();
}

int wait_time(const wish &w)
{
    if (g().registry_lost || w.timeout_ms == 0) {
        return 0;
    }
    return w.timeout_ms == ITC_NO_TIMEOUT ? -1 : milliseconds_until(w.deadline);
}

// One round of waiting. False when there is no point in another.
bool wait_once(hold &lock, thread *me, const wish &w)
{
    state &s = g();
    const uint64_t generation = s.generation;
    const int timeout = wait_time(w);
    if (!s.led) {
        lead(lock, me, timeout, &w);
    } else if (timeout != 0) {
        me->waiting = true;
        follow(lock, timeout < 0 ? clock::now() + std::chrono::hours(1) : w.deadline);
        if (s.generation == generation) {
            me->waiting = false;
        }
    }
    return (timeout != 0 || !s.round.empty()) && s.generation == generation && !s.exiting;
}

block *receive(hold &lock, thread *me, const wish &w)
{
    const uint64_t generation = g().generation;
    if (me->taken >= takes_between_looks && !g().led) {
        lead(lock, me, 0, nullptr);
    }
    bool more = true;
    for (int rounds = 0; g().generation == generation && !g().exiting && thread_current() == me; rounds++) {
        if (rounds == 0) {
            me->looked_at = false; // whoever looked before looked for something else
        }
        block *b = take(me, w.filter, w.from);
        if (b != nullptr || !more) {
            return b;
        }
        more = wait_once(lock, me, w) && (w.timeout_ms != 0 || rounds < rounds_per_look);
    }
    return nullptr;
}

// The sockets that wait for room, and the registry's.
std::vector<pollfd> backlog()
{
    state &s = g();
    std::vector<pollfd> wanted;
    bool introducing = false;
    for (const auto &entry : s.peers) {
        const peer *p = entry.second;
        if (p->outbox.head != nullptr && p->fd >= 0) {
            wanted.push_back({p->fd, POLLOUT, 0});
        }
        introducing = introducing || p->fd < 0;
    }
    if (s.registry >= 0 && (introducing || !s.registry_out.empty())) {
        wanted.push_back({s.registry, static_cast<short>(s.registry_out.empty() ? POLLIN : POLLIN | POLLOUT), 0});
    }
    return wanted;
}

void wait_for_room(hold &lock, std::vector<pollfd> &wanted, clock::time_point deadline)
{
    state &s = g();
    s.led = true;
    s.blocked++;
    lock.unlock();
    (void)poll(wanted.data(), wanted.size(), milliseconds_until(deadline));
    lock.lock();
    s.blocked--;
    s.led = false;
    registry_flush();
    registry_read();
    for (const auto &entry : s.peers) {
        peer_flush(entry.second);
    }
    wake_followers();
}

} // namespace

int milliseconds_until(clock::time_point deadline)
{
    const auto left = deadline - clock::now();
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return ms <= 0 ? 0 : static_cast<int>(ms < 3600000 ? ms : 3600000);
}

int poll_add(source kind, uint32_t id, int fd, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = poll_tag(kind, id);
    return epoll_ctl(g().epoll, EPOLL_CTL_ADD, fd, &event) == 0 ? 0 : errno;
}

void poll_change(source kind, uint32_t id, int fd, uint32_t events)
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = poll_tag(kind, id);
    (void)epoll_ctl(g().epoll, EPOLL_CTL_MOD, fd, &event);
}

void poll_remove(int fd) { (void)epoll_ctl(g().epoll, EPOLL_CTL_DEL, fd, nullptr); }

int poll_open()
{
    state &s = g();
    if (s.epoll >= 0) {
        return 0;
    }
    s.epoll = epoll_create1(EPOLL_CLOEXEC);
    s.wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    const int error = s.epoll < 0 || s.wake < 0 ? errno : poll_add(source_wake, 0, s.wake, EPOLLIN);
    if (error != 0) {
        poll_close();
    }
    return error;
}

void poll_close()
{
    state &s = g();
    if (!s.watches.empty()) {
        return;
    }
    if (s.epoll >= 0) {
        close(s.epoll);
    }
    if (s.wake >= 0) {
        close(s.wake);
    }
    s.epoll = s.wake = -1;
    s.woken = false;
}

void thread_wake(const thread *t)
{
    if (t->leading || (g().extras & EXTRA_FD) != 0) {
        wake_leader();
    } else if (t->waiting) {
        wake_followers();
    }
}

void wake_leader()
{
    state &s = g();
    if (s.wake >= 0 && !s.woken) {
        const uint64_t one = 1;
        s.woken = write(s.wake, &one, sizeof one) == sizeof one;
    }
}

void wake_followers()
{
    if (g().followers > 0) {
        g().turn.notify_all();
    }
}

void follow(hold &lock, clock::time_point deadline)
{
    state &s = g();
    s.blocked++;
    s.followers++;
    s.turn.wait_until(lock, deadline);
    s.followers--;
    s.blocked--;
}

void flush_everything(hold &lock, clock::duration limit)
{
    const clock::time_point deadline = clock::now() + limit;
    const uint64_t generation = g().generation;
    std::vector<pollfd> wanted = backlog();
    while (!wanted.empty() && clock::now() < deadline && g().generation == generation && !g().exiting) {
        if (g().led) {
            follow(lock, deadline);
        } else {
            wait_for_room(lock, wanted, deadline);
        }
        wanted = backlog();
    }
}

} // namespace itc

using namespace itc;

extern "C" {

itc_msg *itc_receive(const uint32_t *filter, uint32_t timeout_ms, uint32_t from)
{
    hold lock = call_lock();
    thread *me = thread_current();
    if (me == nullptr) {
        return nullptr;
    }
    wish w{filter, from, timeout_ms, {}};
    if (timeout_ms != 0 && timeout_ms != ITC_NO_TIMEOUT) {
        w.deadline = clock::now() + std::chrono::milliseconds(timeout_ms);
    }
    block *b = receive(lock, me, w);
    if (g().extras != 0) {
        after_receive(b);
    }
    return b == nullptr ? nullptr : b->msg();
}

int itc_get_fd(void)
{
    const hold lock = call_lock();
    if (!g().up) {
        return -1;
    }
    g().extras |= EXTRA_FD;
    show_queued();
    return g().epoll;
}

int itc_watch_fd(int fd, void (*callback)(void *arg), void *arg)
{
    const hold lock = call_lock();
    if (callback == nullptr) {
        return EINVAL;
    }
    int error = poll_open();
    if (error == 0) {
        error = poll_add(source_watch, static_cast<uint32_t>(fd), fd, EPOLLIN);
    }
    if (error == 0) {
        g().watches[fd] = {callback, arg};
    } else if (!g().up) {
        poll_close();
    }
    return error;
}

void itc_unwatch_fd(int fd)
{
    const hold lock = call_lock();
    if (g().watches.erase(fd) != 0) {
        poll_remove(fd);
    }
    if (!g().up) {
        poll_close();
    }
}

} // extern "C"
