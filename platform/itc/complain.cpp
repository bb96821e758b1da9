/*
 * What the library has to say on stderr. A line never blocks its process, whatever stderr is, and never ends it: it is
 * written from inside calls that must not wait, with the lock held. A line that is not taken at once is lost; drops
 * are counted, and the next line that is taken tells how many there were.
 */
#include "state.hpp"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace itc
{
namespace
{

constexpr size_t line_size = 256; // a pipe takes that much whole or not at all
constexpr std::chrono::seconds drop_line_interval{10};
constexpr std::chrono::milliseconds lost_line_interval{100};

// A pipe without readers raises SIGPIPE. It is held back for the time of the write and taken away if it came; one that
// was pending before is left alone.
ssize_t write_without_sigpipe(int fd, const char *line, size_t length)
{
    sigset_t sigpipe;
    sigset_t before;
    sigset_t pending;
    sigemptyset(&sigpipe);
    sigaddset(&sigpipe, SIGPIPE);
    sigpending(&pending);
    pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
    const ssize_t put = write(fd, line, length);
    if (put < 0 && errno == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
        const timespec at_once{};
        sigtimedwait(&sigpipe, nullptr, &at_once);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return put;
}

// O_NONBLOCK belongs to the open file, which other processes may share; so a pipe or a terminal is opened once more.
ssize_t write_to_pipe(const char *line, size_t length)
{
    const int fd = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd >= 0) {
        const ssize_t put = write_without_sigpipe(fd, line, length);
        close(fd);
        return put;
    }
    pollfd wanted{STDERR_FILENO, POLLOUT, 0};
    const bool room = poll(&wanted, 1, 0) == 1 && wanted.revents == POLLOUT;
    return room ? write_without_sigpipe(STDERR_FILENO, line, length) : -1;
}

ssize_t write_line(const char *line, size_t length)
{
    struct stat st {
    };
    if (fstat(STDERR_FILENO, &st) != 0) {
        return -1;
    }
    if (S_ISSOCK(st.st_mode)) {
        return send(STDERR_FILENO, line, length, MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    return S_ISREG(st.st_mode) ? write(STDERR_FILENO, line, length) : write_to_pipe(line, length);
}

} // namespace

bool complain(const char *format, ...)
{
    const int error = errno;
    char line[line_size] = "libitc: ";
    const size_t start = strlen(line);
    va_list args;
    va_start(args, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started above
    const int wanted = vsnprintf(line + start, sizeof line - start - 1, format, args);
    va_end(args);
    size_t length = start + (wanted < 0 ? 0 : static_cast<size_t>(wanted));
    length = length < sizeof line - 2 ? length : sizeof line - 2; // one byte for the line feed
    line[length++] = '\n';
    const bool taken = write_line(line, length) == static_cast<ssize_t>(length);
    errno = error;
    return taken;
}

void note_drop(uint64_t *counter, const char *why)
{
    state &s = g();
    ++*counter;
    const clock::time_point now = clock::now();
    if (now < s.next_drop_line) {
        s.silent_drops++;
        return;
    }
    const bool taken = complain("message dropped, %s (and %llu before it without a line)", why,
                                static_cast<unsigned long long>(s.silent_drops));
    s.silent_drops = taken ? 0 : s.silent_drops + 1;
    s.next_drop_line = now + (taken ? clock::duration(drop_line_interval) : clock::duration(lost_line_interval));
}

} // namespace itc
