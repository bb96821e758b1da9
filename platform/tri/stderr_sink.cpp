// Traces as plain lines on stderr.
//
//     2026-11-20T21:43:19.123456Z kap_vorn_manager[6] link_table.cpp:120 Supervision started with session id: 1
//     <6>kap_vorn_manager[6] link_table.cpp:120 Supervision started with session id: 1         (under journald)
//
// A line never blocks its process, whatever stderr is. The flag O_NONBLOCK belongs to the open file and not to the
// descriptor, and the open file of stderr is often shared with other processes, a shell among them; so a pipe or a
// terminal is opened once more, a socket gets the flag with each line, and a plain file does not block anyway.
// Lines are shorter than PIPE_BUF: a pipe takes a line whole or not at all, and lines of two threads never mix.
//
// What was not taken is counted. The next line that is taken is preceded by one that tells how many were lost.
#include "sink.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace tri
{

namespace
{

constexpr size_t LINE_MAX_BYTES = 3072;
static_assert(LINE_MAX_BYTES <= PIPE_BUF, "a pipe must take a line in one piece");

enum class channel {
    UNKNOWN, // not opened a second time: asked before each line whether it takes one
    NON_BLOCKING,
    SOCKET,
    PLAIN_FILE,
};

std::atomic<int> out_fd{STDERR_FILENO};
std::atomic<channel> out_channel{channel::UNKNOWN};
std::atomic<bool> out_is_journal{false};
std::atomic<uint64_t> lost_lines{0};
std::atomic<bool> line_is_open{false}; // a part of a line went out; what comes next starts with a line feed

struct line {
    char bytes[LINE_MAX_BYTES];
    size_t length;
};

__attribute__((format(printf, 2, 3))) void append(line &l, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    // One byte stays free for the line feed.
    const size_t room = sizeof l.bytes - 1 - l.length;
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started above
    const int wanted = vsnprintf(l.bytes + l.length, room, format, args);
    va_end(args);
    if (wanted > 0) {
        l.length += std::min(static_cast<size_t>(wanted), room - 1);
    }
}

// journald sets JOURNAL_STREAM to device and inode of the socket it made; a program started with stderr redirected
// inherits the variable but not the socket.
bool stderr_is_journal(const struct stat &st)
{
    const char *stream = getenv("JOURNAL_STREAM");
    unsigned long long device = 0;
    unsigned long long inode = 0;
    // NOLINTNEXTLINE(cert-err34-c): a number out of range matches no socket
    return stream != nullptr && sscanf(stream, "%llu:%llu", &device, &inode) == 2 && device == st.st_dev &&
           inode == st.st_ino;
}

// The syslog priority of a level: error, warning, informational.
int journal_priority(uint32_t level) { return level == 1 ? 3 : level == 4 ? 4 : 6; }

void append_time(line &l)
{
    timespec now{};
    tm utc{};
    clock_gettime(CLOCK_REALTIME, &now);
    gmtime_r(&now.tv_sec, &utc);
    append(l, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ ", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour,
           utc.tm_min, utc.tm_sec, static_cast<long>(now.tv_nsec / 1000));
}

void begin(line &l, uint32_t level, const char *process)
{
    l.length = 0;
    if (out_is_journal) {
        append(l, "<%d>", journal_priority(level));
    } else {
        append_time(l);
    }
    append(l, "%.32s[%u] ", process, level);
}

// A text may hold what a client sent. A line feed in it must not look like the start of another line, nor an escape
// sequence reach a terminal.
void end(line &l)
{
    while (l.length > 0 && l.bytes[l.length - 1] == '\n') {
        l.length--;
    }
    std::replace_if(
        l.bytes, l.bytes + l.length, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, '?');
    l.bytes[l.length++] = '\n';
}

bool takes_a_line(int fd)
{
    pollfd p{fd, POLLOUT, 0};
    return poll(&p, 1, 0) == 1 && (p.revents & POLLOUT) != 0 && (p.revents & (POLLERR | POLLNVAL)) == 0;
}

// write() to a pipe without readers raises SIGPIPE, which ends a process that does not know of it. It is held back
// for the time of the write and taken away if it came; one that was pending before is left alone.
ssize_t write_without_sigpipe(int fd, const void *bytes, size_t length)
{
    sigset_t sigpipe;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
    const ssize_t written = write(fd, bytes, length);
    if (written < 0 && errno == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
        const timespec at_once{};
        sigtimedwait(&sigpipe, nullptr, &at_once);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return written;
}

ssize_t put(const void *bytes, size_t length)
{
    const int fd = out_fd;
    switch (out_channel) {
    case channel::SOCKET:
        return send(fd, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    case channel::PLAIN_FILE:
        return write(fd, bytes, length);
    case channel::NON_BLOCKING:
        return write_without_sigpipe(fd, bytes, length);
    case channel::UNKNOWN:
        break;
    }
    return takes_a_line(fd) ? write_without_sigpipe(fd, bytes, length) : -1;
}

// True when the whole line was taken. A terminal may take a part of one.
bool put_line(const line &l)
{
    if (line_is_open && put("\n", 1) == 1) {
        line_is_open = false;
    }
    if (line_is_open) {
        return false;
    }
    const ssize_t taken = put(l.bytes, l.length);
    if (taken > 0 && static_cast<size_t>(taken) < l.length) {
        line_is_open = true;
    }
    return taken == static_cast<ssize_t>(l.length);
}

// True when nothing is lost, or the loss has just been told.
bool tell_loss(const char *process)
{
    const uint64_t lost = lost_lines.exchange(0);
    if (lost == 0) {
        return true;
    }
    line l;
    begin(l, 4, process);
    append(l, "%llu traces lost, they were not taken in time", static_cast<unsigned long long>(lost));
    end(l);
    if (put_line(l)) {
        return true;
    }
    lost_lines += lost;
    return false;
}

// A new open file for the same pipe or terminal, with flags of its own. -1 where that is not possible or not allowed.
int open_once_more() { return open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }

} // namespace

void stderr_sink_open()
{
    struct stat st {
    };
    if (fstat(STDERR_FILENO, &st) != 0) {
        return;
    }
    out_is_journal = stderr_is_journal(st);
    if (S_ISSOCK(st.st_mode)) {
        out_channel = channel::SOCKET;
    } else if (S_ISREG(st.st_mode)) {
        out_channel = channel::PLAIN_FILE;
    } else {
        const int fd = open_once_more();
        if (fd >= 0) {
            out_fd = fd;
            out_channel = channel::NON_BLOCKING;
        }
    }
}

void stderr_sink_emit(const record &r)
{
    line l;
    begin(l, r.level, r.process);
    append(l, "%.64s:%d ", r.file, r.line);
    if (r.what != kind::PLAIN) {
        append(l, "%s 0x%x %s 0x%x: ", r.what == kind::SENT ? "SEND" : "REC", r.msgno,
               r.what == kind::SENT ? "to" : "from", r.peer);
    }
    append(l, "%s", r.text);
    end(l);
    if (!tell_loss(r.process) || !put_line(l)) {
        lost_lines++;
    }
}

} // namespace tri
