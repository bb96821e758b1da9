/*
 * The other processes: one stream socket to each, given to both ends by the registry. Before it is there, and while it
 * takes no more, messages wait in the peer's outbox, in order. The sender of what arrives is put together from the
 * process number that the registry named for the socket and the box number in the frame, so that no process can pose
 * as another. A peer that breaks the frame format loses its channel, nothing else.
 */
#include "state.hpp"

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
constexpr size_t bytes_per_event = 1u << 20; // then the others get their turn

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

void close_channel(peer *p)
{
    if (p->fd < 0) {
        return;
    }
    poll_remove(p->fd);
    close(p->fd);
    tell_closed(p->process, p->channel);
    free(p->buffer);
    block_free(p->large);
    p->fd = -1;
    p->armed = p->write_broken = false;
    p->buffer = nullptr;
    p->fill = p->skip = 0;
    p->large = nullptr;
}

void peer_delete(peer *p)
{
    if (p->fd < 0) {
        g().introducing--;
    }
    close_channel(p);
    drop_outbox(p);
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
        poll_change(source_peer, p->process, p->fd, armed ? EPOLLIN | EPOLLOUT : EPOLLIN);
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
    return true;
}

void arrive(const peer *p, block *b)
{
    b->sender = sender_of(p, b->frame);
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
    memcpy(p->large->bytes(), bytes, count);
}

void large_advance(peer *p, size_t count)
{
    p->large_got += count;
    if (p->large_got == p->large_size) {
        block *b = p->large;
        p->large = nullptr;
        arrive(p, b);
    } else if (p->large_got == p->large->size) {
        const size_t doubled = p->large->size * 2;
        p->large = block_resize(p->large, doubled < p->large_size ? doubled : p->large_size);
    }
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
    if (f.frame.length > reader_size - sizeof f.frame) {
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

// Takes every whole frame out of the buffer. False when the peer breaks the format.
bool parse(peer *p)
{
    size_t at = skip_front(p, p->fill);
    while (p->fill - at >= sizeof(itc_wire::channel_frame)) {
        front f{};
        memcpy(&f.frame, p->buffer + at, sizeof f.frame);
        if (!frame_is_sane(f.frame)) {
            return false;
        }
        f.bytes = p->buffer + at + sizeof f.frame;
        f.there = p->fill - at - sizeof f.frame;
        const size_t done = f.there < sizeof(itc_msg) ? 0 : take_front(p, f);
        if (done == 0) {
            break;
        }
        at += done;
        at += skip_front(p, p->fill - at);
    }
    p->fill -= at;
    memmove(p->buffer, p->buffer + at, p->fill);
    return true;
}

enum class reading {
    empty, // nothing was there
    some,  // less than there was room for: most likely all of it
    full,
    ended
};

// One read of the channel. Adds what it took to `*total`.
reading read_once(peer *p, size_t *total)
{
    uint8_t *to = p->large != nullptr ? p->large->bytes() + p->large_got : p->buffer + p->fill;
    const size_t room = p->large != nullptr ? p->large->size - p->large_got : reader_size - p->fill;
    const ssize_t got = recv(p->fd, to, room, MSG_DONTWAIT);
    if (got < 0) {
        return errno == EAGAIN || errno == EINTR ? reading::empty : reading::ended;
    }
    if (got == 0) {
        return reading::ended;
    }
    *total += static_cast<size_t>(got);
    if (p->large != nullptr) {
        large_advance(p, static_cast<size_t>(got));
    } else {
        p->fill += static_cast<size_t>(got);
        if (!parse(p)) {
            complain("process %u sent a frame that makes no sense, closing its channel", p->process);
            return reading::ended;
        }
    }
    return static_cast<size_t>(got) < room ? reading::some : reading::full;
}

// Reads until `enough` bytes came or nothing is left. The peer is gone afterwards if its channel ended.
void read_channel(peer *p, size_t enough, bool stop_at_some)
{
    size_t total = 0;
    reading state = reading::full;
    while ((state == reading::full || (state == reading::some && !stop_at_some)) && total < enough) {
        state = read_once(p, &total);
    }
    if (state == reading::ended) {
        peer_delete(p);
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
    if (!outbox_has_room(p, b)) {
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
    if (p->fd < 0 || p->outbox.head != nullptr || p->write_broken) {
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
        tell_closed(process, channel); // so that there can be another, later
        return;
    }
    g().introducing--;
    p->fd = fd;
    p->channel = channel;
    p->head_written = 0; // what the last channel took of a frame went with it
    p->buffer = static_cast<uint8_t *>(malloc(reader_size));
    if (p->buffer == nullptr) {
        abort();
    }
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
    int waiting = 0;
    if (p != nullptr && p->fd >= 0 && ioctl(p->fd, SIOCINQ, &waiting) == 0 && waiting > 0) {
        read_channel(p, static_cast<size_t>(waiting), false);
    }
}

void peer_event(uint32_t process, uint32_t events)
{
    peer *p = peer_find(process);
    if (p == nullptr || p->fd < 0) {
        return;
    }
    if ((events & EPOLLOUT) != 0) {
        peer_flush(p);
    }
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
        read_channel(p, bytes_per_event, true);
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
