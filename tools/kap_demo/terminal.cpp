#include "terminal.hpp"

#include <algorithm>
#include <cerrno>

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <termios.h>
#include <unistd.h>

namespace
{

termios settings_before;

// Whether the screen is taken over, known to every process that was forked since: whoever puts it back, it is put back
// once. A second time would move the cursor up again.
bool *taken = nullptr;

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

} // namespace

bool terminal_there() { return isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1; }

bool terminal_remember()
{
    void *shared = mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    taken = shared == MAP_FAILED ? nullptr : static_cast<bool *>(shared);
    return taken != nullptr && tcgetattr(STDIN_FILENO, &settings_before) == 0;
}

void terminal_restore()
{
    if (taken != nullptr && *taken) {
        *taken = false;
        write_whole(OWN_SCREEN);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &settings_before);
    }
}

// Ctrl-C stays a signal. Ctrl-Z is switched off: it would leave a shell with this screen.
void terminal_take()
{
    *taken = true;
    termios settings = settings_before;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    settings.c_cc[VSUSP] = _POSIX_VDISABLE;
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
