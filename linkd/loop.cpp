// The event loop (loop.hpp).
#include "loop.hpp"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace linkd
{

namespace
{

constexpr int64_t MS_PER_S = 1000;
constexpr int64_t US_PER_S = 1'000'000;
constexpr int64_t NS_PER_US = 1000;
constexpr int LONGEST_WAIT_MS = 3'600'000;
constexpr int EVENTS_AT_ONCE = 64;

int64_t clock_us(clockid_t which)
{
    timespec now{};
    (void)clock_gettime(which, &now);
    return now.tv_sec * US_PER_S + now.tv_nsec / NS_PER_US;
}

} // namespace

int64_t boot_us() { return clock_us(CLOCK_BOOTTIME); }
int64_t boot_ms() { return boot_us() / MS_PER_S; }
int64_t real_us() { return clock_us(CLOCK_REALTIME); }

loop::loop() : epoll_(epoll_create1(EPOLL_CLOEXEC))
{
    if (epoll_ < 0) {
        throw std::runtime_error(std::string("epoll: ") + strerror(errno));
    }
}

loop::~loop() { close(epoll_); }

void loop::watch(int fd, uint32_t events, std::function<void(uint32_t)> callback)
{
    epoll_event wanted{};
    wanted.events = events;
    wanted.data.fd = fd;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &wanted) != 0) {
        throw std::runtime_error(std::string("a descriptor cannot be watched: ") + strerror(errno));
    }
    watched_[fd] = std::make_shared<std::function<void(uint32_t)>>(std::move(callback));
}

void loop::change(int fd, uint32_t events)
{
    epoll_event wanted{};
    wanted.events = events;
    wanted.data.fd = fd;
    (void)epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &wanted);
}

void loop::forget(int fd)
{
    if (watched_.erase(fd) != 0) {
        (void)epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
    }
}

uint64_t loop::after(int64_t ms, std::function<void()> callback)
{
    const timer entry{boot_ms() + std::max<int64_t>(ms, 0), next_timer_++};
    timers_.emplace(entry, std::move(callback));
    timer_times_.emplace(entry.id, entry.at_ms);
    return entry.id;
}

void loop::cancel(uint64_t id)
{
    const auto found = timer_times_.find(id);
    if (found != timer_times_.end()) {
        timers_.erase({found->second, id});
        timer_times_.erase(found);
    }
}

int loop::wait_ms() const
{
    if (timers_.empty()) {
        return -1;
    }
    const int64_t left = timers_.begin()->first.at_ms - boot_ms();
    return static_cast<int>(std::clamp<int64_t>(left, 0, LONGEST_WAIT_MS));
}

// What a timer sets anew waits for the next turn, so that descriptors have theirs.
void loop::run_timers()
{
    const int64_t now = boot_ms();
    const uint64_t newer = next_timer_;
    while (!timers_.empty() && timers_.begin()->first.at_ms <= now && timers_.begin()->first.id < newer) {
        const auto due = timers_.extract(timers_.begin());
        timer_times_.erase(due.key().id);
        due.mapped()();
    }
}

int loop::run()
{
    while (!stopping_) {
        std::array<epoll_event, EVENTS_AT_ONCE> events{};
        const int count = epoll_wait(epoll_, events.data(), EVENTS_AT_ONCE, wait_ms());
        for (int i = 0; i < count && !stopping_; i++) {
            const epoll_event &event = events.at(static_cast<size_t>(i));
            const auto found = watched_.find(event.data.fd);
            if (found != watched_.end()) {
                const auto callback = found->second; // it may forget itself
                (*callback)(event.events);
            }
        }
        if (!stopping_) {
            run_timers();
        }
    }
    stopping_ = false; // it may turn again
    return status_;
}

void loop::stop(int status)
{
    stopping_ = true;
    status_ = status;
}

} // namespace linkd
