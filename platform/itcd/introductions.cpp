#include "introductions.hpp"

#include "doors.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace itc_wire;

namespace
{

constexpr int channel_buffer = 1 << 20;
constexpr size_t pairing_bytes = 320; // its entries in the tables, as they lie in memory

// Two processes that were introduced, or are to be. Both ends have to be closed before there is another introduction.
struct pairing {
    registry_client *asker = nullptr;     // who pays for it
    registry_client *waits_for = nullptr; // who is behind, while it waits
    std::pair<size_t, uint64_t> place{};  // among those that wait for him
    uint32_t channel = 0;                 // 0: there is none yet
    bool low_closed = false;
    bool high_closed = false;
    bool wanted_again = false;
};

registry_output *out;
std::map<std::pair<uint32_t, uint32_t>, pairing> pairings; // lower number first
uint32_t last_channel = 0;
uint64_t last_place = 0;

std::pair<uint32_t, uint32_t> pair_key(uint32_t a, uint32_t b) { return {a < b ? a : b, a < b ? b : a}; }

void raise_buffer(int fd)
{
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &channel_buffer, sizeof channel_buffer) != 0) {
        (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &channel_buffer, sizeof channel_buffer);
    }
}

void tell_absent(registry_client &to, uint32_t process)
{
    writer frame(no_process, 0);
    out->send(to, frame.u32(process), -1);
}

void tell_channel(registry_client &to, uint32_t process, uint32_t number, int fd)
{
    writer frame(channel, 0);
    out->send(to, frame.u32(process).u32(number), fd);
}

pairing *find(const registry_client &a, uint32_t b)
{
    const auto known = pairings.find(pair_key(a.process, b));
    return known == pairings.end() ? nullptr : &known->second;
}

// In its asker's turn: those of a user who has many waiting come behind the others'.
void wait_for(registry_client &behind, registry_client &other, pairing &p)
{
    p.waits_for = &behind;
    p.place = {behind.wanting_of[p.asker->who.user]++, ++last_place};
    behind.wanting[p.place] = &other;
    out->wake(behind);
}

void wait_no_more(pairing &p)
{
    registry_client &behind = *p.waits_for;
    behind.wanting.erase(p.place);
    const auto count = behind.wanting_of.find(p.asker->who.user);
    if (--count->second == 0) {
        behind.wanting_of.erase(count);
    }
    p.waits_for = nullptr;
}

void forget(registry_client &a, registry_client &b, pairing &p)
{
    if (p.waits_for != nullptr) {
        wait_no_more(p);
    }
    share_give(*p.asker->of, held::pairings, pairing_bytes);
    a.partners.erase(&b);
    b.partners.erase(&a);
    pairings.erase(pair_key(a.process, b.process));
}

// A channel outlives the process at its other end until all that came over it is read. It counts for whose process that
// was: who sends, ends and comes again would have as many as he likes.
void keep_unread(registry_client &leaving, registry_client &other, const pairing &p)
{
    const bool closed = other.process < leaving.process ? p.low_closed : p.high_closed;
    if (p.channel != 0 && !closed && !other.leaving) {
        other.unread[leaving.process] = {p.channel, leaving.of};
        share_owe(*leaving.of, held::unread);
    }
}

void forget_unread(registry_client &reader, std::map<uint32_t, std::pair<uint32_t, share *>>::iterator which)
{
    share &of = *which->second.second;
    reader.unread.erase(which);
    share_give(of, held::unread, 0);
    if (!of.active) {
        share_forget(of);
    }
}

void give_channel(registry_client &a, registry_client &b, pairing &p)
{
    int ends[2];
    if (channel_ends(SOCK_STREAM, ends) != 0) {
        registry_client &asker = *p.asker;
        const uint32_t absent = &asker == &a ? b.process : a.process;
        out->say(asker, "no descriptor is left to introduce it to another");
        forget(a, b, p);
        tell_absent(asker, absent);
        return;
    }
    const uint32_t number = ++last_channel;
    p.channel = number;
    p.low_closed = p.high_closed = p.wanted_again = false;
    doors_meet(a, b, number);
    doors_meet(b, a, number);
    tell_channel(a, b.process, number, ends[0]);
    tell_channel(b, a.process, number, ends[1]);
}

void give_or_wait(registry_client &a, registry_client &b, pairing &p)
{
    if (!out->takes_descriptor(a)) {
        wait_for(a, b, p);
    } else if (!out->takes_descriptor(b)) {
        wait_for(b, a, p);
    } else {
        give_channel(a, b, p);
    }
}

} // namespace

int channel_ends(int type, int (&ends)[2])
{
    if (socketpair(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
        return errno;
    }
    raise_buffer(ends[0]);
    raise_buffer(ends[1]);
    return 0;
}

void introductions_start(registry_output &output) { out = &output; }

void introduce_once(registry_client &from, registry_client &other)
{
    pairing *known = find(from, other.process);
    if (known != nullptr) {
        // As soon as the other end is closed too.
        known->wanted_again = known->wanted_again || known->low_closed || known->high_closed;
        return;
    }
    if (!share_has_room(*from.of, held::unread, 1) || !share_take(*from.of, held::pairings, pairing_bytes)) {
        out->say(from, "its user has too many introductions, or channels that are not read to the end: no other");
        tell_absent(from, other.process);
        return;
    }
    pairing &fresh = pairings[pair_key(from.process, other.process)];
    fresh.asker = &from;
    from.partners.insert(&other);
    other.partners.insert(&from);
    give_or_wait(from, other, fresh);
}

void introduction_closed(registry_client &from, uint32_t process, uint32_t number)
{
    const auto unread = from.unread.find(process);
    if (unread != from.unread.end() && unread->second.first == number) {
        forget_unread(from, unread);
        return;
    }
    pairing *known = find(from, process);
    if (known == nullptr || number == 0 || known->channel != number) {
        return;
    }
    (from.process < process ? known->low_closed : known->high_closed) = true;
    if (!known->low_closed || !known->high_closed) {
        return;
    }
    registry_client *other = registry_find(process);
    known->channel = 0;
    if (other == nullptr) {
        return; // it is leaving, and this with it
    }
    if (known->wanted_again) {
        give_or_wait(from, *other, *known);
    } else {
        forget(from, *other, *known);
    }
}

bool introduce_next_waiting(registry_client &client)
{
    if (client.wanting.empty() || !out->takes_descriptor(client)) {
        return false;
    }
    registry_client &other = *client.wanting.begin()->second;
    pairing &p = *find(client, other.process);
    if (other.leaving) {
        forget(client, other, p);
        tell_absent(client, other.process);
        return true;
    }
    wait_no_more(p);
    give_or_wait(client, other, p);
    return true;
}

bool introduction_forget_one(registry_client &leaving)
{
    if (leaving.partners.empty() && !leaving.unread.empty()) {
        forget_unread(leaving, leaving.unread.begin());
        return true;
    }
    if (leaving.partners.empty()) {
        return false;
    }
    registry_client &other = **leaving.partners.begin();
    pairing &p = *find(leaving, other.process);
    const bool hoped_for = p.channel == 0 || p.wanted_again;
    keep_unread(leaving, other, p);
    forget(leaving, other, p);
    if (hoped_for && !other.leaving) {
        tell_absent(other, leaving.process);
    }
    return true;
}

bool introductions_are_empty() { return pairings.empty(); }
