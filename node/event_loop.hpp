// The loop of every service: messages of its mailbox, descriptors, a periodic check and the core's own deadlines, all
// on one thread. It stands between a program and ITC, and is the outlet through which the program sends.
//
// A service manager that asked for it is told when the loop begins, and that it still turns.
//
// SIGTERM and SIGINT end it with status 0. A lost registry ends it with status 1.
#pragma once

#include "service.hpp"
#include "service_manager.hpp"

#include <functional>
#include <list>

namespace kap_node
{

class event_loop : public outlet
{
public:
    // Connects to the registry; throws std::runtime_error. One per process.
    event_loop();
    ~event_loop() override;
    event_loop(const event_loop &) = delete;
    event_loop &operator=(const event_loop &) = delete;

    // From here on clients find the service. Throws std::runtime_error (the name is taken, or refused).
    mailbox open_mailbox(const char *name);

    void watch_fd(int fd, std::function<void()> callback);
    void unwatch_fd(int fd);
    void every(millis period, std::function<void()> callback);
    // The clock that the program's deadlines are of.
    static millis now();

    // Runs the program until a signal or a command ends it; returns the exit status.
    int run(program &runs);

    void send(mailbox to, bytes message) override;
    void watch(mailbox client) override;
    std::optional<mailbox> locate(const std::string &name) override;

private:
    struct watched {
        int fd;
        std::function<void()> callback;
    };

    void open_signals();
    void handle(program &runs, mailbox sender, std::span<const uint8_t> data);
    void on_timers(program &runs, millis now);
    std::optional<millis> next_deadline(const program &runs) const;

    mailbox mailbox_ = 0;
    int signals_ = -1;
    std::list<watched> watched_; // a list: the callback is known to ITC by its address
    millis period_ = 0;
    millis next_check_ = 0;
    std::function<void()> check_;
    bool stopping_ = false;
    int status_ = 0;
    manager_pulse pulse_;
};

} // namespace kap_node
