/*
 * The other processes: one stream socket to each, given to both ends by the registry. Before it is there, and while it
 * takes no more, messages wait in the peer's outbox, in order. The sender of what arrives is put together from the
 * process number that the registry named for the socket and the box number in the frame, so that no process can pose
 * as another. A peer that breaks the frame format loses its channel, nothing else.
 */
#include "state.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <linux/sockios.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace itc
{
namespace
{

constexpr size_t frames_per_write = 64;
constexpr size_t frames_between_tries = 32; // while there is a backlog: one write for many, not one failure for each
constexpr size_t bytes_between_tries = 65536;
constexpr size_t large_start = 65536;

size_t frame_size(const block *b) { return sizeof(itc_wire::channel_frame) + b->size; }

peer *peer_find(uint32_t process)
{
    state &s = g();
    if (s.last_peer != nullptr && s.last_peer->process == process) {
        return s.last_peer;
    }
    const auto found = s.peers.find(process);
    return found == s.peers.end() ? nullptr : s.last_peer = found->second;
}

peer *peer_new(uint32_t process)
{
    auto *p = new peer;
    p->process = process;
    p->queued = account_open(p);
    g().peers[process] = p;
    return p;
}

// The peer of that number; if it is not known yet, the registry is asked to introduce us. NULL if there can be none.
peer *peer_for_sending(uint32_t process)
{
    peer *p = peer_find(process);
    if (p != nullptr || process == 0 || process >= itc_wire::process_limit || g().registry_lost) {
        return p;
    }
    peer_new(process);
    g().introducing++;
    itc_wire::writer request(itc_wire::introduce, 0);
    registry_send(request.u32(process));
    return peer_find(process); // gone again, if the registry was given up over this
}

// The outbox's first frame, which nobody waits for any more.
void outbox_pop(peer *p)
{
    block_free(p->outbox.take_after(nullptr));
    if (p->outbox.head == nullptr) {
        g().backlogged--;
    } else {
        p->outbox_memory -= memory_of(p->outbox.head);
        g().outboxes_memory -= memory_of(p->outbox.head);
    }
}

void drop_outbox(peer *p)
{
    while (p->outbox.head != nullptr) {
        outbox_pop(p);
        note_drop(&g().statistics.dropped_no_mailbox, "its process is gone");
    }
    p->head_written = 0;
}

void tell_closed(uint32_t process, uint32_t channel)
{
    itc_wire::writer notice(itc_wire::closed, 0);
    registry_send(notice.u32(process).u32(channel));
}

// A buffer is kept for the next peer that has something to read; few ever hold one longer than a turn.
void buffer_give_back(peer *p)
{
    if (g().spare_buffer == nullptr) {
        g().spare_buffer = p->buffer;
    } else if (p->buffer != nullptr) {
        free(p->buffer);
        memory_less(reader_size);
    }
    p->buffer = nullptr;
}

void buffer_take(peer *p)
{
    p->buffer = g().spare_buffer;
    g().spare_buffer = nullptr;
    if (p->buffer == nullptr) {
        p->buffer = static_cast<uint8_t *>(malloc(reader_size));
        memory_more(reader_size);
    }
    if (p->buffer == nullptr) {
        abort();
    }
}

void close_channel(peer *p)
{
    if (p->fd < 0) {
        return;
    }
    poll_remove(p->fd);
    close(p->fd);
    tell_closed(p->process, p->channel);
    door_forget_channel(p->process, p->channel);
    p->fd = -1;
    p->armed = p->write_broken = false;
    g().round.remove(p);
    peer_resume(p);
    half_end(p);
    block_free(p->large);
    p->large = nullptr;
    p->start = p->fill = p->skip = 0;
    p->received = 0;
    p->parsed = true;
    buffer_give_back(p);
}

__attribute__((cold)) void peer_delete(peer *p)
{
    if (p->fd < 0) {
        g().introducing--;
    }
    close_channel(p);
    drop_outbox(p);
    account_close(p);
    if (g().last_peer == p) {
        g().last_peer = nullptr;
    }
    g().peers.erase(p->process);
    delete p;
}

void arm(peer *p, bool armed)
{
    if (p->armed != armed) {
        p->armed = armed;
        peer_watch(p);
    }
}

// What came of a write: the number of bytes taken.
size_t written(peer *p, ssize_t put)
{
    if (put < 0) {
        p->write_broken = errno == EPIPE || errno == ECONNRESET;
        return 0;
    }
    g().channel_writes++;
    return static_cast<size_t>(put);
}

// A message that leaves in one piece, as nearly all do. Returns how much of its frame is out.
size_t write_now(peer *p, const block *b)
{
    return written(p, send(p->fd, &b->frame, frame_size(b), MSG_DONTWAIT | MSG_NOSIGNAL));
}

void enqueue(peer *p, block *b, size_t already_out)
{
    if (p->outbox.head == nullptr) {
        p->head_written = already_out;
        g().backlogged++;
    } else {
        p->outbox_memory += memory_of(b);
        g().outboxes_memory += memory_of(b);
    }
    p->outbox.push(b);
    p->held_frames++;
    p->held_bytes += frame_size(b);
}

bool worth_a_try(const peer *p)
{
    return p->held_frames >= frames_between_tries || p->held_bytes >= bytes_between_tries;
}

// Takes `count` written bytes off the outbox.
void outbox_advance(peer *p, size_t count)
{
    count += p->head_written;
    while (p->outbox.head != nullptr && count >= frame_size(p->outbox.head)) {
        const size_t size = frame_size(p->outbox.head);
        count -= size;
        outbox_pop(p);
    }
    p->head_written = count;
}

// One write of as many frames as it takes. Returns the number of bytes, 0 when there is no room.
size_t write_backlog(peer *p)
{
    iovec parts[frames_per_write];
    size_t count = 0;
    size_t skip = p->head_written;
    for (block *b = p->outbox.head; b != nullptr && count < frames_per_write; b = b->next) {
        parts[count++] = {reinterpret_cast<uint8_t *>(&b->frame) + skip, frame_size(b) - skip};
        skip = 0;
    }
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    return written(p, sendmsg(p->fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL));
}

// The bound is on what waits behind the message under way: a message larger than the bound still goes, and does not
// cost the ones behind it. Many peers that read nothing must not have the bound of one each.
bool outbox_has_room(const peer *p, const block *b)
{
    if (p->outbox.head == nullptr) {
        return true;
    }
    const size_t limit = g().outboxes_memory + memory_of(b) <= outboxes_limit ? outbox_limit : outbox_share;
    return p->outbox_memory + memory_of(b) <= limit;
}

// ---- Reading
// ---------------------------------------------------------------------------------------------------------

uint32_t sender_of(const peer *p, const itc_wire::channel_frame &frame)
{
    return frame.from_box < itc_wire::box_limit ? itc_wire::mbox_of(p->process, frame.from_box) : ITC_NO_MBOX;
}

uint32_t receiver_of(const itc_wire::channel_frame &frame)
{
    return frame.to_box < itc_wire::box_limit ? itc_wire::mbox_of(g().process, frame.to_box) : ITC_NO_MBOX;
}

// Whether a message is taken; what is refused is counted and told of here. May be asked again for one that is taken.
bool admit(const arrival &a)
{
    if (!mbox_is_own(a.to)) {
        note_drop(&g().statistics.dropped_no_mailbox, "there is no such mailbox");
        return false;
    }
    if (g().box_is_closed[itc_wire::box_of(a.to)]) {
        registry_look_ahead(); // whoever knows of it already has it from the registry, and so have we
        if (g().box_is_closed[itc_wire::box_of(a.to)]) {
            note_drop(&g().statistics.dropped_no_mailbox, "there is no such mailbox yet");
            return false;
        }
    }
    return g().doors.of.empty() || door_admits(a);
}

void arrive(const peer *p, block *b)
{
    b->sender = sender_of(p, b->frame);
    if (!g().doors.of.empty() && !door_passed(b->sender, receiver_of(b->frame), b->msg()->msgno)) {
        block_free(b);
        return;
    }
    account_add(p->queued, b);
    mbox_deliver(b, receiver_of(b->frame));
}

// The first part of a message that the buffer cannot hold. Its memory grows with what arrives, so that a length alone
// costs nothing.
void large_begin(peer *p, const itc_wire::channel_frame &frame, const uint8_t *bytes, size_t count)
{
    const size_t start = frame.length < large_start ? frame.length : large_start;
    p->large = block_new(start, false);
    p->large->frame = frame;
    p->large_size = frame.length;
    p->large_got = count;
    p->large_seen = 0;
    p->large_seen_at = clock::now();
    memcpy(p->large->bytes(), bytes, count);
}

void large_advance(peer *p, size_t count)
{
    p->large_got += count;
    if (p->large_got == p->large_size) {
        block *b = p->large;
        p->large = nullptr;
        half_end(p);
        peer_resume(p); // should it have waited for room, and been drained
        arrive(p, b);
    }
}

// False when the next part has no room.
bool large_grow(peer *p, bool drain)
{
    if (p->large_got < p->large->size) {
        return true;
    }
    const size_t doubled = p->large->size * 2;
    const size_t size = doubled < p->large_size ? doubled : p->large_size;
    if (!drain && !half_room(p, size)) {
        return false;
    }
    p->large = block_resize(p->large, size);
    return true;
}

// The front of what is in the buffer, once a frame and its message's number are there.
struct front {
    itc_wire::channel_frame frame;
    const uint8_t *bytes; // of the message
    size_t there;         // of them
};

bool frame_is_sane(const itc_wire::channel_frame &frame)
{
    return frame.length >= sizeof(itc_msg) && frame.length <= itc_wire::message_limit;
}

arrival arrival_of(const peer *p, const front &f)
{
    arrival a{sender_of(p, f.frame), receiver_of(f.frame), 0, f.frame.length};
    memcpy(&a.msgno, f.bytes, sizeof a.msgno);
    return a;
}

// Takes what is there of the first message. Returns how many bytes are done with, 0 if more has to come first.
size_t take_front(peer *p, const front &f)
{
    if (!admit(arrival_of(p, f))) {
        p->skip = f.frame.length;
        return sizeof f.frame;
    }
    if (f.frame.length > reader_size - sizeof f.frame) [[unlikely]] {
        large_begin(p, f.frame, f.bytes, f.there);
        return sizeof f.frame + f.there;
    }
    if (f.frame.length > f.there) {
        return 0;
    }
    block *b = block_new(f.frame.length, false);
    b->frame = f.frame;
    memcpy(b->bytes(), f.bytes, f.frame.length);
    arrive(p, b);
    return sizeof f.frame + f.frame.length;
}

// Reads over what is there of a message that was refused.
size_t skip_front(peer *p, size_t there)
{
    const size_t count = p->skip < there ? p->skip : there;
    p->skip -= count;
    return count;
}

enum class parsing {
    all, // more has to come first
    turn_over,
    nonsense
};

// Takes whole frames out of the buffer while the turn lasts.
parsing parse(peer *p, allowance *left)
{
    for (;;) {
        p->start += skip_front(p, p->fill - p->start);
        if (p->fill - p->start < sizeof(itc_wire::channel_frame)) {
            return parsing::all;
        }
        front f{};
        memcpy(&f.frame, p->buffer + p->start, sizeof f.frame);
        if (!frame_is_sane(f.frame)) {
            return parsing::nonsense;
        }
        f.bytes = p->buffer + p->start + sizeof f.frame;
        f.there = p->fill - p->start - sizeof f.frame;
        if (f.there < sizeof(itc_msg)) {
            return parsing::all;
        }
        if (left->messages == 0) {
            return parsing::turn_over;
        }
        const size_t done = take_front(p, f);
        if (done == 0) {
            return parsing::all;
        }
        p->start += done;
        left->messages--;
    }
}

enum class reading {
    empty, // nothing was there
    some,  // less than there was room for: most likely all of it
    full,
    ended
};

// One read of the channel.
reading read_once(peer *p, allowance *left)
{
    if (p->large == nullptr && p->buffer == nullptr) {
        buffer_take(p);
    }
    if (p->start > 0) {
        p->fill -= p->start;
        memmove(p->buffer, p->buffer + p->start, p->fill);
        p->start = 0;
    }
    uint8_t *to = p->large != nullptr ? p->large->bytes() + p->large_got : p->buffer + p->fill;
    const size_t room = p->large != nullptr ? p->large->size - p->large_got : reader_size - p->fill;
    const ssize_t put = recv(p->fd, to, room, MSG_DONTWAIT);
    if (put < 0) {
        return errno == EAGAIN || errno == EINTR ? reading::empty : reading::ended;
    }
    if (put == 0) {
        return reading::ended;
    }
    const auto got = static_cast<size_t>(put);
    left->bytes -= got < left->bytes ? got : left->bytes;
    g().registry_news = true;
    p->received += got;
    if (p->large != nullptr) [[unlikely]] {
        large_advance(p, got);
    } else {
        p->fill += got;
    }
    return got < room ? reading::some : reading::full;
}

enum class turn {
    done,
    more, // is here already, or has no room
    ended
};

// `drain`: all that is there, whatever room it takes.
turn read_in_turn(peer *p, allowance left, bool drain)
{
    for (reading last = reading::full;;) {
        const parsing parsed = parse(p, &left);
        p->parsed = parsed == parsing::all;
        if (parsed == parsing::turn_over) {
            g().round.push(p);
            return turn::more;
        }
        if (parsed == parsing::nonsense) {
            complain("process %u sent a frame that makes no sense, closing its channel", p->process);
            return turn::ended;
        }
        if (last == reading::ended) {
            return turn::ended;
        }
        if (last == reading::empty || (last == reading::some && !drain) || left.bytes == 0) {
            return turn::done;
        }
        if (p->large != nullptr && !large_grow(p, drain)) [[unlikely]] {
            peer_pause(p, pause::room);
            return turn::more;
        }
        last = read_once(p, &left);
    }
}

bool is_read(const peer *p, uint64_t mark)
{
    return p->received - (p->fill - p->start) >= mark || (p->received >= mark && p->parsed);
}

// How much of the channel lies in its socket.
uint64_t unread(const peer *p)
{
    int waiting = 0;
    return ioctl(p->fd, SIOCINQ, &waiting) == 0 && waiting > 0 ? static_cast<uint64_t>(waiting) : 0;
}

// The peer is gone afterwards if its channel ended.
void read_channel(peer *p, allowance left, bool drain)
{
    const turn came = read_in_turn(p, left, drain);
    if (came == turn::ended) {
        peer_delete(p);
    } else if (p->buffer != nullptr && p->start == p->fill) {
        p->start = p->fill = 0;
        buffer_give_back(p);
    }
}

// What its share leaves it, given what it has in the queues.
allowance left_of(const allowance &share, const account *a)
{
    return {share.messages > a->messages ? share.messages - a->messages : 0,
            share.bytes > a->memory ? share.bytes - a->memory : 0};
}

void take_turn(peer *p, const allowance &share, bool waits, bool further)
{
    allowance left = left_of(share, p->queued);
    if (left.messages == 0 || left.bytes == 0) {
        if (!waits) {
            g().round.push(p); // when some of it was taken
            return;
        }
        if (further && !may_go_further(p)) {
            note_full_queue(p);
        }
        if (!further || !may_go_further(p)) {
            p->resume_below = share.messages / 2;
            peer_pause(p, pause::queue);
            return;
        }
        left = share;
    }
    read_channel(p, left, false);
}

// Each who asked for a turn has one; who asks meanwhile has the next.
void run_round(bool waits, bool further, uint32_t wanted)
{
    state &s = g();
    const allowance share = turn_share(s.round.size);
    for (size_t count = s.round.size; count > 0 && !s.round.empty(); count--) {
        peer *p = s.round.head;
        s.round.remove(p);
        take_turn(p, share, waits, further || p->process == wanted);
    }
}

} // namespace

void peer_flush(peer *p)
{
    if (p->fd < 0) {
        return;
    }
    p->held_frames = p->held_bytes = 0;
    while (p->outbox.head != nullptr && !p->write_broken) {
        const size_t put = write_backlog(p);
        if (put == 0) {
            break;
        }
        outbox_advance(p, put);
    }
    if (p->write_broken) {
        drop_outbox(p); // the channel itself is closed when all that the peer had sent is read
    }
    arm(p, p->outbox.head != nullptr);
}

// Of a channel that is not read only its end is told, and that once: it does no harm to hear it when it is read again.
void peer_watch(peer *p)
{
    if (p->fd >= 0) {
        const uint32_t in = p->paused == pause::none ? EPOLLIN : EPOLLET;
        poll_change(source_peer, p->process, p->fd, p->armed ? in | EPOLLOUT : in);
    }
}

void peer_end_half_sent(peer *p)
{
    complain("process %u stopped in the middle of a message and others need the room, closing its channel", p->process);
    peer_delete(p);
}

void peers_turn(bool waits, uint32_t wanted) { run_round(waits, false, wanted); }

bool peers_could_go_further()
{
    const auto &peers = g().peers;
    return std::any_of(peers.begin(), peers.end(), [](const auto &entry) {
        return entry.second->paused == pause::queue && may_go_further(entry.second);
    });
}

void peers_go_further()
{
    state &s = g();
    for (const auto &entry : s.peers) {
        if (entry.second->paused == pause::queue && may_go_further(entry.second)) {
            peer_resume(entry.second);
        }
    }
    run_round(true, true, 0);
}

void peers_try()
{
    state &s = g();
    const clock::time_point now = clock::now();
    if (now - s.last_tries < time_between_tries) {
        return;
    }
    s.last_tries = now;
    if (s.introducing > 0 && !s.led) {
        registry_read(); // a leader does it himself, and may wait for just what would be taken here
    }
    for (const auto &entry : s.peers) {
        if (entry.second->outbox.head != nullptr) {
            peer_flush(entry.second);
        }
    }
}

void peer_send(block *b, uint32_t to)
{
    state &s = g();
    peer *p = peer_for_sending(itc_wire::process_of(to));
    if (p == nullptr) {
        note_drop(&s.statistics.dropped_no_mailbox, "there is no such mailbox");
        block_free(b);
        return;
    }
    if (!outbox_has_room(p, b)) [[unlikely]] {
        peer_flush(p);
    }
    if (b->size > itc_wire::message_limit || !outbox_has_room(p, b)) {
        note_drop(&s.statistics.dropped_full, "its outbox is full");
        block_free(b);
        return;
    }
    b->frame.length = static_cast<uint32_t>(b->size);
    b->frame.to_box = static_cast<uint16_t>(itc_wire::box_of(to));
    b->frame.from_box =
        b->sender == ITC_NO_MBOX ? itc_wire::no_box : static_cast<uint16_t>(itc_wire::box_of(b->sender));
    s.statistics.sent++;
    if (p->fd < 0 || p->outbox.head != nullptr || p->write_broken) [[unlikely]] {
        enqueue(p, b, 0);
        if (p->write_broken || worth_a_try(p)) {
            peer_flush(p);
        }
        return;
    }
    const size_t out = write_now(p, b);
    if (out == frame_size(b)) {
        block_free(b);
        return;
    }
    enqueue(p, b, out);
    arm(p, true);
}

void peer_introduced(uint32_t process, uint32_t channel, int fd)
{
    peer *p = peer_find(process);
    if (p != nullptr && p->fd >= 0) {
        peer_drain(process); // a second channel: the first has ended, or it never would have been made
        p = peer_find(process);
        if (p != nullptr) {
            close_channel(p);
            g().introducing++;
        }
    }
    if (p == nullptr) {
        p = peer_new(process);
        g().introducing++;
    }
    if (fd < 0 || poll_add(source_peer, process, fd, EPOLLIN) != 0) {
        complain("no descriptor left for the channel to process %u", process);
        if (fd >= 0) {
            close(fd);
        }
        peer_delete(p);
        door_forget_channel(process, channel);
        tell_closed(process, channel); // so that there can be another, later
        return;
    }
    g().introducing--;
    p->fd = fd;
    p->channel = channel;
    p->head_written = 0; // what the last channel took of a frame went with it
    peer_flush(p);
}

void peer_absent(uint32_t process)
{
    peer *p = peer_find(process);
    if (p != nullptr && p->fd < 0) {
        peer_delete(p);
    }
}

void peer_drain(uint32_t process)
{
    peer *p = peer_find(process);
    if (p != nullptr && p->fd >= 0 && !is_read(p, p->received + unread(p))) {
        read_channel(p, {SIZE_MAX, static_cast<size_t>(unread(p))}, true);
    }
}

bool peer_has_sent(uint32_t process, uint32_t *channel, uint64_t *mark)
{
    const peer *p = peer_find(process);
    if (p == nullptr || p->fd < 0) {
        return false;
    }
    *channel = p->channel;
    *mark = p->received + unread(p);
    return !is_read(p, *mark);
}

bool peer_is_read(uint32_t process, uint32_t channel, uint64_t mark)
{
    const peer *p = peer_find(process);
    return p == nullptr || p->fd < 0 || p->channel != channel || is_read(p, mark);
}

void peer_event(uint32_t process, uint32_t events)
{
    peer *p = peer_find(process);
    if (p == nullptr || p->fd < 0) {
        return;
    }
    if ((events & EPOLLOUT) != 0 || (p->armed && (events & (EPOLLHUP | EPOLLERR)) != 0)) {
        peer_flush(p);
    }
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && p->paused == pause::none) {
        g().round.push(p);
    }
}

void peers_lose_registry()
{
    std::vector<peer *> waiting;
    for (const auto &entry : g().peers) {
        if (entry.second->fd < 0) {
            waiting.push_back(entry.second);
        }
    }
    for (peer *p : waiting) {
        peer_delete(p);
    }
}

void peers_close()
{
    while (!g().peers.empty()) {
        peer_delete(g().peers.begin()->second);
    }
}

} // namespace itc
