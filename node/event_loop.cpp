// The loop of every service (event_loop.hpp).
#include "event_loop.hpp"

#include "control_wire.hpp"
#include "itc.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace kap_node
{

namespace
{

// Messages of the loop to itself: a client's monitor, and the end after a signal.
constexpr uint32_t CLIENT_GONE = 0x1B9002;
constexpr uint32_t STOP = 0x1B9003;
// The exit status of a service that was told to die, so that nobody takes it for an orderly end.
constexpr int STATUS_DIED = 9;
constexpr int MANAGER_PATIENCE_MS = 1000;

} // namespace

millis event_loop::now()
{
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<millis>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
}

event_loop::event_loop()
{
    open_signals();
    const int failure = itc_init(1, 0, nullptr, nullptr, 0);
    if (failure != 0) {
        throw std::runtime_error(std::string("the message registry cannot be reached: ") + strerror(failure));
    }
}

event_loop::~event_loop()
{
    itc_exit();
    if (signals_ >= 0) {
        close(signals_);
    }
}

// A signal becomes a message of the loop's own, so that it is taken between two messages.
void event_loop::open_signals()
{
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGTERM);
    sigaddset(&wanted, SIGINT);
    sigprocmask(SIG_BLOCK, &wanted, nullptr);
    signals_ = signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signals_ < 0) {
        throw std::runtime_error(std::string("signalfd: ") + strerror(errno));
    }
    watch_fd(signals_, [this] {
        signalfd_siginfo info;
        if (::read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            itc_msg *stop = itc_alloc(sizeof *stop, STOP);
            itc_send(&stop, mailbox_, ITC_MY_MBOX);
        }
    });
}

mailbox event_loop::open_mailbox(const char *name)
{
    mailbox_ = itc_create_mailbox(name, 0);
    if (mailbox_ == ITC_NO_MBOX) {
        throw std::runtime_error(std::string("the mailbox ") + name +
                                 " cannot be had: another service runs, or the "
                                 "registry refuses it");
    }
    return mailbox_;
}

void event_loop::watch_fd(int fd, std::function<void()> callback)
{
    watched_.push_back({fd, std::move(callback)});
    const int failure = itc_watch_fd(
        fd, [](void *entry) { static_cast<watched *>(entry)->callback(); }, &watched_.back());
    if (failure != 0) {
        watched_.pop_back();
        throw std::runtime_error(std::string("a descriptor cannot be watched: ") + strerror(failure));
    }
}

void event_loop::unwatch_fd(int fd)
{
    itc_unwatch_fd(fd);
    watched_.remove_if([&](const watched &entry) { return entry.fd == fd; });
}

void event_loop::every(millis period, std::function<void()> callback)
{
    period_ = period;
    check_ = std::move(callback);
    next_check_ = now() + period;
}

std::optional<millis> event_loop::next_deadline(const program &runs) const
{
    auto deadline = runs.next_deadline();
    if (check_ && (!deadline || next_check_ < *deadline)) {
        deadline = next_check_;
    }
    const auto beat = pulse_.next_ms();
    if (beat && (!deadline || *beat < *deadline)) {
        deadline = beat;
    }
    return deadline;
}

void event_loop::on_timers(program &runs, millis now)
{
    pulse_.beat(now);
    runs.tick(now);
    if (check_ && now >= next_check_) {
        next_check_ = now + period_;
        check_();
    }
}

int event_loop::run(program &runs)
{
    const int untold = manager_tell("READY=1", MANAGER_PATIENCE_MS);
    if (untold != 0) {
        (void)fprintf(stderr, "kap-node: the service manager was not told: %s\n", strerror(untold));
    }
    while (!stopping_) {
        const auto deadline = next_deadline(runs);
        const millis began = now();
        const uint32_t timeout =
            deadline ? static_cast<uint32_t>(*deadline - std::min(began, *deadline)) : ITC_NO_TIMEOUT;
        itc_msg *message = itc_receive(nullptr, timeout, ITC_FROM_ANY);
        if (message != nullptr) {
            handle(runs, itc_sender(message), {reinterpret_cast<const uint8_t *>(message), itc_size(message)});
            itc_free(&message);
        } else if (!deadline || now() + 1 < *deadline) {
            (void)fprintf(stderr, "kap-node: the message registry is lost\n");
            return 1;
        }
        on_timers(runs, now());
    }
    return status_;
}

void event_loop::handle(program &runs, mailbox sender, std::span<const uint8_t> data)
{
    const uint32_t number = message_view(data).number();
    if (number == CONTROL_REQUEST) {
        send(sender, control_answer(runs, data));
        if (runs.dying()) {
            _exit(STATUS_DIED);
        }
    } else if (number == CLIENT_GONE) {
        // Whoever sends this by itself ends only its own connection.
        runs.client_gone(sender);
    } else if (number == STOP && sender == mailbox_) {
        stopping_ = true;
    } else {
        runs.receive(sender, data, now());
    }
}

void event_loop::send(mailbox to, bytes message)
{
    itc_msg *outgoing = itc_alloc(message.size(), 0);
    memcpy(outgoing, message.data(), message.size());
    itc_send(&outgoing, to, ITC_MY_MBOX);
}

void event_loop::watch(mailbox client)
{
    itc_msg *gone = itc_alloc(sizeof *gone, CLIENT_GONE);
    itc_monitor(client, &gone);
}

std::optional<mailbox> event_loop::locate(const std::string &name)
{
    const mailbox found = itc_locate(name.c_str());
    return found == ITC_NO_MBOX ? std::nullopt : std::optional(found);
}

} // namespace kap_node
