// Signals as plain calls: they are blocked in every thread and read from a descriptor that itc_receive watches.
//
// Blocked signals are inherited by threads started later, which is why this must be called first, and by programs
// that the process executes: those must unblock what they want.
#include "sighandler.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "itc.h"

namespace
{

constexpr int SIGNALS[] = {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGWINCH, SIGCONT};

signal_callback the_callback;
int signal_fd = -1;

// The callback may end the process, so each signal is read just before it is handed over.
void read_signals(void *)
{
    signalfd_siginfo info{};
    while (read(signal_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        the_callback(static_cast<int>(info.ssi_signo));
    }
}

int watch_signals(const sigset_t &set)
{
    signal_fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signal_fd < 0) {
        return errno;
    }
    const int result = itc_watch_fd(signal_fd, read_signals, nullptr);
    if (result != 0) {
        close(signal_fd);
        signal_fd = -1;
    }
    return result;
}

} // namespace

int set_signal_handler(signal_callback callback)
{
    if (callback == nullptr) {
        return EINVAL;
    }
    if (signal_fd >= 0) {
        the_callback = callback;
        return 0;
    }
    sigset_t set;
    sigset_t before;
    sigemptyset(&set);
    for (const int signo : SIGNALS) {
        sigaddset(&set, signo);
    }
    int result = pthread_sigmask(SIG_BLOCK, &set, &before);
    if (result != 0) {
        return result;
    }
    the_callback = callback;
    result = watch_signals(set);
    if (result != 0) {
        // Blocked signals that nobody reads would make the process deaf to SIGTERM.
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        return result;
    }
    return signal(SIGPIPE, SIG_IGN) == SIG_ERR ? errno : 0;
}
