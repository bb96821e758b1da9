#include "service_manager.hpp"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

int send_in_time(int fd, const char *state, int patience_ms)
{
    pollfd room{fd, POLLOUT, 0};
    if (poll(&room, 1, patience_ms) == 0) {
        return ETIMEDOUT;
    }
    return send(fd, state, strlen(state), MSG_NOSIGNAL | MSG_DONTWAIT) < 0 ? errno : 0;
}

// The socket may have an abstract name, written with a leading '@'. 0: there is none that could be told.
socklen_t manager_address(sockaddr_un &address)
{
    const char *path = getenv("NOTIFY_SOCKET");
    const size_t length = path == nullptr ? 0 : strlen(path);
    if (length < 2 || length >= sizeof address.sun_path) {
        return 0;
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path, length);
    if (path[0] == '@') {
        address.sun_path[0] = 0;
    }
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

// A whole number that is nothing but digits; 0 for anything else.
unsigned long long number_in(const char *variable)
{
    const char *text = getenv(variable);
    if (text == nullptr || text[0] < '0' || text[0] > '9') {
        return 0;
    }
    char *end = nullptr;
    const unsigned long long number = strtoull(text, &end, 10);
    return *end == '\0' ? number : 0;
}

} // namespace

int manager_tell(const char *state, int patience_ms)
{
    sockaddr_un address{};
    const socklen_t size = manager_address(address);
    if (size == 0) {
        return 0;
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    int error = fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&address), size) == 0 ? 0 : errno;
    if (error == 0) {
        error = send_in_time(fd, state, patience_ms);
    }
    if (fd >= 0) {
        close(fd);
    }
    return error;
}

uint32_t manager_watchdog_ms()
{
    constexpr unsigned long long longest_us = 3'600'000'000ULL * 24;
    const unsigned long long allowed_us = number_in("WATCHDOG_USEC");
    const char *whose = getenv("WATCHDOG_PID"); // it may be meant for the process that started this one
    if (allowed_us == 0 ||
        (whose != nullptr && number_in("WATCHDOG_PID") != static_cast<unsigned long long>(getpid()))) {
        return 0;
    }
    const unsigned long long half_ms = (allowed_us < longest_us ? allowed_us : longest_us) / 2000;
    return half_ms == 0 ? 1 : static_cast<uint32_t>(half_ms);
}

std::optional<uint64_t> manager_pulse::next_ms() const
{
    return every_ms_ == 0 ? std::nullopt : std::optional(next_ms_);
}

void manager_pulse::beat(uint64_t now_ms)
{
    if (every_ms_ != 0 && now_ms >= next_ms_) {
        (void)manager_tell("WATCHDOG=1", 0); // one that did not hear is told again in half of its time
        next_ms_ = now_ms + every_ms_;
    }
}
