/*
 * What each other process may have of this one: places in the queues, room for messages that are half sent, and turns.
 * Every bound is on what one process causes, so that who fills his waits, and the others do not notice. Whoever waits
 * is not read: what it sends stays in its socket and then in its own outbox, and nothing is lost here.
 */
#include "state.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace itc
{
namespace
{

// What all peers together bring in one turn. A receiver that needs 30 us for a message is through with it in 15 ms.
constexpr allowance turn_of_all{512, 1u << 20};
constexpr allowance turn_at_least{4, 16384};

// What one process, and all, have queued here at the most when somebody waits for what is behind it.
constexpr size_t queue_limit = 8u << 20;
constexpr size_t queues_limit = 16u << 20;

constexpr std::chrono::seconds full_line_interval{10};

// Half-sent messages: what each has for the asking, then what one and all have of the common room. One at a time may
// grow beyond that, so that a message of any size gets through.
constexpr size_t half_share = 128u << 10;
constexpr size_t half_limit_of_one = 1u << 20;
constexpr size_t half_limit_of_all = 8u << 20;
// While others wait for room, this much has to come of each within the time limit, or the rest of it.
constexpr size_t half_progress = 32u << 20;
constexpr int looks_per_half_limit = 30;
// That nobody waits for so short a time is one who gets room in the place of another; the time limit goes on.
constexpr std::chrono::seconds half_lull{1};

void account_drop_if_unused(account *a)
{
    if (a->owner == nullptr && a->messages == 0) {
        g().accounts.erase(a->process);
        delete a;
    }
}

// Only while somebody waits for room: what was attacked and is left alone holds no descriptor more than before.
void half_timer_start()
{
    state &s = g();
    if (s.half_timer < 0) {
        s.half_timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
        if (s.half_timer < 0 || poll_add(source_timer, 0, s.half_timer, EPOLLIN) != 0) {
            half_close(); // without a descriptor left nobody is closed, that is all
            return;
        }
    }
    const auto ns = std::chrono::nanoseconds(s.half_limit).count() / looks_per_half_limit;
    itimerspec every{};
    every.it_value = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    every.it_interval = every.it_value;
    timerfd_settime(s.half_timer, 0, &every, nullptr);
}

// Whether a half-sent message has not come on for the time limit, in which others needed the room and this process
// looked: what was never read is held against nobody.
bool half_is_stuck(peer *p, clock::time_point now)
{
    if (p->large == nullptr || p->paused != pause::none) {
        return false;
    }
    if (p->large_got - p->large_seen >= half_progress || p->large_seen_at < g().half_wanted_at) {
        p->large_seen = p->large_got;
        p->large_seen_at = now;
    }
    return now - p->large_seen_at >= g().half_limit;
}

} // namespace

// ---- Queues

account *account_open(peer *p)
{
    account *&a = g().accounts[p->process];
    if (a == nullptr) {
        a = new account;
        a->process = p->process;
    }
    a->owner = p;
    return a;
}

void account_close(peer *p)
{
    p->queued->owner = nullptr;
    account_drop_if_unused(p->queued);
    p->queued = nullptr;
}

void account_add(account *a, block *b)
{
    b->of = a;
    a->messages++;
    a->memory += memory_of(b);
    g().queued_memory += memory_of(b);
}

void account_take(block *b)
{
    account *a = b->of;
    if (a == nullptr) {
        return;
    }
    b->of = nullptr;
    a->messages--;
    a->memory -= memory_of(b);
    g().queued_memory -= memory_of(b);
    if (a->owner == nullptr) {
        account_drop_if_unused(a);
    } else if (a->owner->paused == pause::queue && a->messages <= a->owner->resume_below) {
        peer_resume(a->owner);
    }
}

bool may_go_further(const peer *p) { return p->queued->memory < queue_limit && g().queued_memory < queues_limit; }

void note_full_queue(const peer *p)
{
    state &s = g();
    const clock::time_point now = clock::now();
    if (now >= s.next_full_line) {
        s.next_full_line = now + full_line_interval;
        complain("process %u has %zu messages here that nobody takes, no more of it is read until some are taken",
                 p->process, p->queued->messages);
    }
}

// ---- Turns

void peer_pause(peer *p, pause why)
{
    state &s = g();
    if (p->paused != pause::none) {
        return;
    }
    p->paused = why;
    (why == pause::queue ? s.paused_queue : s.paused_room)++;
    if (why == pause::room && s.paused_room == 1) {
        const clock::time_point now = clock::now();
        if (now - s.half_unwanted_at > half_lull) {
            s.half_wanted_at = now;
        }
        s.half_looked_at = now;
        half_timer_start();
    }
    peer_watch(p);
}

void peer_resume(peer *p)
{
    state &s = g();
    if (p->paused == pause::none) {
        return;
    }
    (p->paused == pause::queue ? s.paused_queue : s.paused_room)--;
    if (p->paused == pause::room && s.paused_room == 0) {
        s.half_unwanted_at = clock::now();
        half_close();
    }
    p->paused = pause::none;
    if (p->fd < 0) {
        return;
    }
    peer_watch(p);
    s.round.push(p); // for what was read of it already, too
    if (s.led) {
        wake_leader();
    }
}

allowance turn_share(size_t peers)
{
    const size_t among = std::max<size_t>(peers, 1);
    return {std::max(turn_of_all.messages / among, turn_at_least.messages),
            std::max(turn_of_all.bytes / among, turn_at_least.bytes)};
}

// ---- Messages that are half sent

bool half_room(peer *p, size_t memory)
{
    state &s = g();
    if (memory <= half_share || s.half_slot == p) {
        return true;
    }
    if (memory <= half_limit_of_one && s.half_memory - p->large_charged + memory <= half_limit_of_all) {
        s.half_memory += memory - p->large_charged;
        p->large_charged = memory;
        return true;
    }
    if (s.half_slot != nullptr) {
        return false;
    }
    s.half_slot = p;
    s.half_memory -= p->large_charged;
    p->large_charged = 0;
    return true;
}

void half_end(peer *p)
{
    state &s = g();
    if (p->large_charged == 0 && s.half_slot != p) {
        return;
    }
    s.half_memory -= p->large_charged;
    p->large_charged = 0;
    if (s.half_slot == p) {
        s.half_slot = nullptr;
    }
    if (s.paused_room > 0) {
        for (const auto &entry : s.peers) {
            if (entry.second != p && entry.second->paused == pause::room) {
                peer_resume(entry.second);
            }
        }
    }
}

void half_timer_event()
{
    state &s = g();
    uint64_t count = 0;
    (void)!read(s.half_timer, &count, sizeof count);
    const clock::time_point now = clock::now();
    if (now - s.half_looked_at > s.half_limit / 4) {
        s.half_wanted_at = now; // this process did not look for a while
    }
    s.half_looked_at = now;
    std::vector<peer *> stuck;
    for (const auto &entry : s.peers) {
        if (s.paused_room > 0 && half_is_stuck(entry.second, now)) {
            stuck.push_back(entry.second);
        }
    }
    for (peer *p : stuck) {
        peer_end_half_sent(p);
    }
}

void half_close()
{
    state &s = g();
    if (s.half_timer >= 0) {
        poll_remove(s.half_timer);
        close(s.half_timer);
        s.half_timer = -1;
    }
}

} // namespace itc
