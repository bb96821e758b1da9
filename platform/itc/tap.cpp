/*
 * Somebody looks at the messages of this process: the registry has given him one end of a socket, and this process the
 * other. Every message is written there as it is received and sent, as one packet. What the socket does not take at
 * once is lost to him, and counted: he holds nobody up. When he has gone, or says that he wants no more, the process
 * is as it was before.
 *
 * While nobody looks nothing here is called: `plain` and `extras` are asked for other things anyway.
 */
#include "itc_wire.hpp"
#include "state.hpp"

#include <cerrno>
#include <ctime>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace itc
{
namespace
{

uint64_t real_time()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

// False if the reader is not there any more.
bool put(itc_wire::tap_what what, uint32_t own, uint32_t other, const block *b)
{
    state &s = g();
    itc_wire::tap_record record{};
    record.version = itc_wire::tap_version;
    record.what = what;
    record.own = own;
    record.other = other;
    record.stamp = real_time();
    record.lost = s.tap_lost;
    iovec parts[2] = {{&record, sizeof record}, {nullptr, 0}};
    if (b != nullptr) {
        record.length = static_cast<uint32_t>(b->size);
        parts[1] = {const_cast<block *>(b)->bytes(), b->size < itc_wire::tap_most ? b->size : itc_wire::tap_most};
    }
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    if (sendmsg(s.tap, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
        return true;
    }
    if (errno != EAGAIN && errno != ENOBUFS && errno != EMSGSIZE && errno != ENOMEM && errno != EINTR) {
        return false;
    }
    s.tap_lost += b != nullptr ? 1 : 0;
    return true;
}

void put_message(itc_wire::tap_what what, uint32_t own, uint32_t other, const block *b)
{
    const int saved_errno = errno;
    if (!put(what, own, other, b)) {
        tap_end(false);
    }
    errno = saved_errno;
}

} // namespace

void tap_begin(int fd)
{
    state &s = g();
    if (fd < 0) {
        return; // this process has no descriptor left: who looks sees the end at once
    }
    tap_end(true);
    if (poll_add(source_tap, s.tap_id + 1, fd, EPOLLRDHUP) != 0) {
        close(fd);
        return;
    }
    s.tap = fd;
    s.tap_id++;
    s.tap_lost = 0;
    s.extras |= EXTRA_TAP;
    s.plain = false;
    if (!put(itc_wire::tap_begins, ITC_NO_MBOX, ITC_NO_MBOX, nullptr)) {
        tap_end(false);
    }
}

void tap_end(bool say_so)
{
    state &s = g();
    if (s.tap < 0) {
        return;
    }
    if (say_so) {
        (void)put(itc_wire::tap_ends, ITC_NO_MBOX, ITC_NO_MBOX, nullptr);
    }
    poll_remove(s.tap);
    close(s.tap);
    s.tap = -1;
    s.extras = static_cast<uint8_t>(s.extras & ~EXTRA_TAP);
    s.plain = s.up;
}

// A wait may bring the end of one tap behind the beginning of the next, which is none of its business.
void tap_event(uint32_t id)
{
    if (id == g().tap_id) {
        tap_end(true);
    }
}

void tap_received(const block *b) { put_message(itc_wire::tap_received, b->receiver, b->sender, b); }

void tap_sent(const block *b, uint32_t to) { put_message(itc_wire::tap_sent, b->sender, to, b); }

} // namespace itc
