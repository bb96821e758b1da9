// The event loop: descriptors and timers, on one thread. It reads no messages: ITC's descriptor is one of those that
// are watched. What is called may watch, forget, set and cancel whatever it likes, itself too.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

namespace linkd
{

// How long the machine has run, in milliseconds, also while it slept.
int64_t boot_ms();
int64_t boot_us();
// What its clock says, in microseconds since 1970.
int64_t real_us();

class loop
{
public:
    // Throws std::runtime_error.
    loop();
    ~loop();
    loop(const loop &) = delete;
    loop &operator=(const loop &) = delete;

    // `events`: EPOLLIN, EPOLLOUT or both; `callback` gets what there is. One callback for each descriptor. Throws
    // std::runtime_error.
    void watch(int fd, uint32_t events, std::function<void(uint32_t)> callback);
    void change(int fd, uint32_t events);
    void forget(int fd); // before it is closed

    // Calls once, `ms` from now or later. Gives a number, never 0, for cancel; to cancel what has been called is
    // nothing.
    uint64_t after(int64_t ms, std::function<void()> callback);
    void cancel(uint64_t timer);

    // Turns until `stop`; gives its status.
    int run();
    void stop(int status);

private:
    struct timer {
        int64_t at_ms;
        uint64_t id;
        auto operator<=>(const timer &) const = default;
    };

    int wait_ms() const;
    void run_timers();

    int epoll_ = -1;
    std::map<int, std::shared_ptr<std::function<void(uint32_t)>>> watched_;
    std::map<timer, std::function<void()>> timers_;
    std::map<uint64_t, int64_t> timer_times_;
    uint64_t next_timer_ = 1;
    bool stopping_ = false;
    int status_ = 0;
};

} // namespace linkd
