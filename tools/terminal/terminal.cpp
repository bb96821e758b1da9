#include "terminal.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace
{

termios settings_before;

// Known to every process that was forked since.
struct shared_state {
    bool
        taken; // the screen is: whoever puts it back, it is put back once; a second time would move the cursor up again
    termios ours; // the settings while it is taken
};
shared_state *shared = nullptr;

void write_whole(const std::string &text)
{
    size_t written = 0;
    while (written < text.size()) {
        ssize_t count = write(STDOUT_FILENO, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            return; // the terminal is gone, and with it whoever would read this
        }
        written += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
}

constexpr const char *OTHER_SCREEN = "\x1b[?1049h\x1b[?25l";
constexpr const char *OWN_SCREEN = "\x1b[?25h\x1b[?1049l";

// A shell may have set the terminal to its own liking by now: then the settings are its business.
bool settings_are_still_ours()
{
    termios now{};
    return tcgetattr(STDIN_FILENO, &now) == 0 && now.c_iflag == shared->ours.c_iflag &&
           now.c_oflag == shared->ours.c_oflag && now.c_lflag == shared->ours.c_lflag &&
           memcmp(now.c_cc, shared->ours.c_cc, sizeof now.c_cc) == 0;
}

// Waits until the pipe has no writer any more, which are the processes of the demo. The terminal's foreground is the
// shell's by then: changing settings from behind would stop us.
[[noreturn]] void watch(int alive)
{
    prctl(PR_SET_NAME, "kap-terminal");
    setpgid(0, 0); // a signal to the demo's group is not for us
    for (int signo : {SIGTTOU, SIGHUP, SIGINT, SIGTERM}) {
        (void)signal(signo, SIG_IGN);
    }
    dup2(alive, STDERR_FILENO); // all else is let go, the demo's log directory for one
    close_range(STDERR_FILENO + 1, ~0U, 0);
    char nothing = 0;
    while (read(STDERR_FILENO, &nothing, 1) < 0 && errno == EINTR) {
    }
    if (shared->taken) {
        if (settings_are_still_ours()) {
            tcsetattr(STDIN_FILENO, TCSANOW, &settings_before);
        }
        write_whole(OWN_SCREEN);
        const pid_t foreground = tcgetpgrp(STDIN_FILENO);
        if (foreground > 1) {
            kill(-foreground, SIGWINCH); // a shell then draws its prompt again, on this screen
        }
    }
    _exit(0);
}

} // namespace

bool terminal_takes_codes()
{
    const char *kind = getenv("TERM");
    return kind != nullptr && kind[0] != '\0' && strcmp(kind, "dumb") != 0;
}

bool terminal_there() { return isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1 && terminal_takes_codes(); }

bool terminal_wants_colour()
{
    const char *unwanted = getenv("NO_COLOR");
    return unwanted == nullptr || unwanted[0] == '\0';
}

bool terminal_remember()
{
    void *memory = mmap(nullptr, sizeof(shared_state), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    shared = memory == MAP_FAILED ? nullptr : static_cast<shared_state *>(memory);
    return shared != nullptr && tcgetattr(STDIN_FILENO, &settings_before) == 0;
}

void terminal_restore()
{
    if (shared != nullptr && shared->taken) {
        shared->taken = false;
        write_whole(OWN_SCREEN);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &settings_before);
    }
}

// The watcher is nobody's child: whoever waits for a child of the demo need not know of it.
void terminal_watch()
{
    int alive[2];
    if (pipe2(alive, O_CLOEXEC) != 0) {
        return; // the screen is still brought back at every end but the most sudden
    }
    const pid_t between = fork();
    if (between == 0) {
        if (fork() == 0) {
            close(alive[1]);
            watch(alive[0]);
        }
        _exit(0);
    }
    close(alive[0]);
    waitpid(between, nullptr, 0);
}

// Ctrl-C stays a signal. Ctrl-Z is switched off: it would leave a shell with this screen.
void terminal_take()
{
    shared->taken = true;
    termios settings = settings_before;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    settings.c_cc[VSUSP] = _POSIX_VDISABLE;
    shared->ours = settings;
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &settings);
    write_whole(OTHER_SCREEN);
}

terminal_size terminal_get_size()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return {80, 24};
    }
    return {size.ws_col, size.ws_row};
}

void terminal_draw(const std::string &text) { write_whole("\x1b[H" + text + "\x1b[J"); }

char terminal_key()
{
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    char key = 0;
    return poll(&input, 1, 0) == 1 && read(STDIN_FILENO, &key, 1) == 1 ? key : '\0';
}
