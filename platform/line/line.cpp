// Lines on stderr that never hold anybody up. See line.hpp.
#include "line.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>

namespace line
{

namespace
{

struct place {
    channel kind;
    int fd;
};

// A new open file for the same pipe or terminal, with flags of its own. -1 where that is not possible or not allowed.
int open_once_more() { return ::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }

place look_at_stderr()
{
    struct stat st {
    };
    if (fstat(STDERR_FILENO, &st) != 0) {
        return {channel::CLOSED, STDERR_FILENO};
    }
    if (S_ISSOCK(st.st_mode)) {
        return {channel::SOCKET, STDERR_FILENO};
    }
    if (S_ISREG(st.st_mode)) {
        return {channel::PLAIN_FILE, STDERR_FILENO};
    }
    const int fd = open_once_more();
    if (fd >= 0) {
        return {channel::NON_BLOCKING, fd};
    }
    return {S_ISFIFO(st.st_mode) ? channel::FOREIGN_PIPE : channel::FOREIGN_TERMINAL, STDERR_FILENO};
}

// What a write can raise: no reader, a file as large as it may be, a terminal that is not ours now.
sigset_t signals_of_a_write()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    sigaddset(&set, SIGXFSZ);
    sigaddset(&set, SIGTTOU);
    return set;
}

// These signals end or stop a process that does not know of them. They are held back for the time of the write, and
// the one that came is taken away; what was pending before is left alone.
template <typename Write> ssize_t without_signals(Write write_bytes)
{
    const sigset_t set = signals_of_a_write();
    sigset_t before;
    sigset_t pending;
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, &set, &before);
    const ssize_t written = write_bytes();
    const int raised = written >= 0 ? 0 : errno == EPIPE ? SIGPIPE : errno == EFBIG ? SIGXFSZ : 0;
    if (raised != 0 && sigismember(&pending, raised) == 0) {
        sigset_t one;
        sigemptyset(&one);
        sigaddset(&one, raised);
        const timespec at_once{};
        sigtimedwait(&one, nullptr, &at_once);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return written;
}

// By way of a pipe of our own, because splice() takes its flag with the call. To ask first whether there is room would
// not do: another process may have taken it when the write comes.
ssize_t write_to_foreign_pipe(int fd, const char *bytes, size_t length)
{
    int own[2];
    if (pipe2(own, O_CLOEXEC | O_NONBLOCK) != 0) {
        return -1;
    }
    ssize_t written = write(own[1], bytes, length);
    if (written == static_cast<ssize_t>(length)) {
        written = without_signals([&] { return splice(own[0], nullptr, fd, nullptr, length, SPLICE_F_NONBLOCK); });
    }
    close(own[0]);
    close(own[1]);
    return written;
}

bool has_room(int fd)
{
    pollfd p{fd, POLLOUT, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLOUT) != 0 && (p.revents & (POLLERR | POLLNVAL)) == 0;
}

// A terminal with room for a byte may have none for a second one.
ssize_t write_to_foreign_terminal(int fd, const char *bytes, size_t length)
{
    size_t written = 0;
    while (written < length && has_room(fd) && without_signals([&] { return write(fd, bytes + written, 1); }) == 1) {
        ++written;
    }
    return written > 0 ? static_cast<ssize_t>(written) : -1;
}

ssize_t write_to(const place &where, const char *bytes, size_t length)
{
    switch (where.kind) {
    case channel::NON_BLOCKING:
    case channel::PLAIN_FILE:
        return without_signals([&] { return write(where.fd, bytes, length); });
    case channel::SOCKET:
        return send(where.fd, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    case channel::FOREIGN_PIPE:
        return write_to_foreign_pipe(where.fd, bytes, length);
    case channel::FOREIGN_TERMINAL:
        return write_to_foreign_terminal(where.fd, bytes, length);
    case channel::CLOSED:
    case channel::NOT_OPENED:
        break;
    }
    return -1;
}

// True when the whole line was taken. A terminal or a socket may take a part of one.
bool put_bytes(writer &w, const place &where, const text &t)
{
    if (w.line_is_open && write_to(where, "\n", 1) == 1) {
        w.line_is_open = false;
    }
    if (w.line_is_open) {
        return false;
    }
    const ssize_t taken = write_to(where, t.bytes, t.length);
    if (taken > 0 && static_cast<size_t>(taken) < t.length) {
        w.line_is_open = true;
    }
    return taken == static_cast<ssize_t>(t.length);
}

// True when nothing is lost, or the loss has just been told.
bool tell_loss(writer &w, const place &where, loss_text tell, const void *context)
{
    const uint64_t lost = w.lost.exchange(0);
    if (lost == 0) {
        return true;
    }
    text t;
    tell(t, lost, context);
    end(t);
    if (put_bytes(w, where, t)) {
        return true;
    }
    w.lost += lost;
    return false;
}

} // namespace

void append_list(text &t, const char *format, va_list arguments)
{
    const size_t room = sizeof t.bytes - 1 - t.length;
    const int wanted = vsnprintf(t.bytes + t.length, room, format, arguments);
    if (wanted > 0) {
        t.length += std::min(static_cast<size_t>(wanted), room - 1);
    }
}

void append(text &t, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started above
    append_list(t, format, arguments);
    va_end(arguments);
}

void end(text &t)
{
    while (t.length > 0 && t.bytes[t.length - 1] == '\n') {
        t.length--;
    }
    std::replace_if(
        t.bytes, t.bytes + t.length, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '?');
    t.bytes[t.length++] = '\n';
}

void open(writer &w)
{
    const int before = errno;
    const place found = look_at_stderr();
    w.fd = found.fd;
    w.kind = found.kind;
    errno = before;
}

void open_if_closed(writer &w)
{
    const int before = errno;
    if (fcntl(STDERR_FILENO, F_GETFD) < 0) {
        w.kind = channel::CLOSED;
    }
    errno = before;
}

bool put(writer &w, const text &t, loss_text tell, const void *context, when_lost lost)
{
    const int before = errno;
    place where{w.kind, w.fd};
    const bool for_this_line = where.kind == channel::NOT_OPENED;
    if (for_this_line) {
        where = look_at_stderr();
    }
    const bool taken = tell_loss(w, where, tell, context) && put_bytes(w, where, t);
    if (!taken && lost == when_lost::COUNT) {
        ++w.lost;
    }
    if (for_this_line && where.kind == channel::NON_BLOCKING) {
        close(where.fd);
    }
    errno = before;
    return taken;
}

} // namespace line
