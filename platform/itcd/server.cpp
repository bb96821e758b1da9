#include "server.hpp"

#include "complain.hpp"
#include "registry.hpp"

#include <cerrno>
#include <chrono>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr size_t input_size = 8192;
constexpr size_t outbox_bytes_bound = 4u << 20;
constexpr size_t outbox_descriptors_bound = 256;
constexpr int events_per_wait = 64;
constexpr unsigned lines_per_second = 5;

struct out_frame {
    std::string bytes;
    int fd;
};

struct client : registry_client {
    int fd = -1;
    bool doomed = false;
    bool armed = false;
    uint8_t input[input_size];
    size_t fill = 0;
    std::deque<out_frame> outbox;
    size_t outbox_bytes = 0;
    size_t outbox_descriptors = 0;
    size_t head_written = 0;
};

int poller = -1;
int listening = -1;
int ending = -1; // readable when the server is to end
const policy *admitting;
int reserve = -1; // a descriptor to give up when there is none left for a newcomer
std::unordered_map<int, std::unique_ptr<client>> clients;
std::vector<client *> doomed;

// Whether a line may be said now: not many in a second, so that nobody fills a log through us.
bool may_complain()
{
    static std::chrono::steady_clock::time_point second;
    static unsigned lines = 0;
    const auto now = std::chrono::steady_clock::now();
    if (now - second >= std::chrono::seconds(1)) {
        second = now;
        lines = 0;
    }
    return ++lines <= lines_per_second;
}

void doom_client(client &c, const char *why)
{
    if (c.doomed) {
        return;
    }
    c.doomed = true;
    doomed.push_back(&c);
    if (why != nullptr && may_complain()) {
        complain("disconnecting process %u (user %u): %s", c.process, c.who.user, why);
    }
}

void arm(client &c, bool armed)
{
    if (c.armed != armed) {
        c.armed = armed;
        epoll_event event{};
        event.events = armed ? EPOLLIN | EPOLLOUT : EPOLLIN;
        event.data.fd = c.fd;
        (void)epoll_ctl(poller, EPOLL_CTL_MOD, c.fd, &event);
    }
}

// Writes what is left of one frame, its descriptor with the first byte.
ssize_t write_frame(const client &c, const out_frame &frame)
{
    iovec part{const_cast<char *>(frame.bytes.data()) + c.head_written, frame.bytes.size() - c.head_written};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    if (frame.fd >= 0) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(rights), &frame.fd, sizeof(int));
    }
    return sendmsg(c.fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void close_descriptor(client &c, out_frame &frame)
{
    if (frame.fd >= 0) {
        close(frame.fd);
        frame.fd = -1;
        c.outbox_descriptors--;
    }
}

void flush(client &c)
{
    while (!c.outbox.empty()) {
        out_frame &frame = c.outbox.front();
        const ssize_t put = write_frame(c, frame);
        if (put < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                doom_client(c, nullptr);
            }
            break;
        }
        close_descriptor(c, frame);
        c.head_written += static_cast<size_t>(put);
        if (c.head_written < frame.bytes.size()) {
            break;
        }
        c.outbox_bytes -= frame.bytes.size();
        c.head_written = 0;
        c.outbox.pop_front();
    }
    arm(c, !c.outbox.empty());
}

struct server_output final : registry_output {
    void send(registry_client &to, itc_wire::writer &frame, int fd) override
    {
        auto &c = static_cast<client &>(to);
        c.outbox.push_back({std::string(frame.frame()), fd});
        c.outbox_bytes += c.outbox.back().bytes.size();
        c.outbox_descriptors += fd >= 0 ? 1 : 0;
        if (c.doomed) {
            return;
        }
        flush(c);
        if (c.outbox_bytes > outbox_bytes_bound || c.outbox_descriptors > outbox_descriptors_bound) {
            doom_client(c, "does not read its answers");
        }
    }

    void doom(registry_client &which, const char *why) override { doom_client(static_cast<client &>(which), why); }
};
server_output output;

// Removing one client may doom others (their outboxes fill with the news), so this goes on until nobody is left.
void remove_doomed()
{
    while (!doomed.empty()) {
        client *c = doomed.back();
        doomed.pop_back();
        registry_remove(*c);
        for (out_frame &frame : c->outbox) {
            close_descriptor(*c, frame);
        }
        const int fd = c->fd;
        clients.erase(fd);
        close(fd);
    }
}

void parse(client &c)
{
    size_t at = 0;
    while (!c.doomed && c.fill - at >= sizeof(itc_wire::registry_frame)) {
        itc_wire::registry_frame head;
        memcpy(&head, c.input + at, sizeof head);
        if (head.length < sizeof head || head.length > itc_wire::registry_frame_limit) {
            doom_client(c, "sent a frame of an impossible length");
            return;
        }
        if (head.length > c.fill - at) {
            break;
        }
        registry_request(c, head, itc_wire::reader(c.input + at + sizeof head, head.length - sizeof head));
        at += head.length;
    }
    c.fill -= at;
    memmove(c.input, c.input + at, c.fill);
}

void read_client(client &c)
{
    const ssize_t got = recv(c.fd, c.input + c.fill, input_size - c.fill, MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (got <= 0) {
        doom_client(c, nullptr);
        return;
    }
    c.fill += static_cast<size_t>(got);
    parse(c);
}

void refuse(int fd, uid_t user)
{
    if (may_complain()) {
        complain("user %u may not connect", user);
    }
    itc_wire::writer frame(itc_wire::refused, 0);
    const std::string_view bytes = frame.u32(EACCES).frame();
    (void)!send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    close(fd);
}

// No descriptor is left: the newcomer is taken with the reserve and sent away, or it would be announced for ever.
void turn_away(int listener)
{
    if (reserve >= 0) {
        close(reserve);
    }
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
        close(fd);
        if (may_complain()) {
            complain("too many processes, one turned away");
        }
    }
    reserve = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void accept_client(int listener, const policy &rules)
{
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE) {
            turn_away(listener);
        }
        return;
    }
    policy_person who;
    who.user = static_cast<uid_t>(-1);
    if (!policy_admits(rules, fd, &who)) {
        refuse(fd, who.user);
        return;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(poller, EPOLL_CTL_ADD, fd, &event) != 0) {
        close(fd);
        return;
    }
    auto fresh = std::make_unique<client>();
    fresh->fd = fd;
    fresh->who = std::move(who);
    clients[fd] = std::move(fresh);
}

void serve_client(int fd, uint32_t events)
{
    const auto found = clients.find(fd);
    if (found == clients.end() || found->second->doomed) {
        return;
    }
    client &c = *found->second;
    if ((events & EPOLLOUT) != 0) {
        flush(c);
    }
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0 && !c.doomed) {
        read_client(c);
    }
}

int poll_add(int fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return epoll_ctl(poller, EPOLL_CTL_ADD, fd, &event) == 0 ? 0 : errno;
}

} // namespace

int server_open(int listener, int signals, const policy &rules)
{
    poller = epoll_create1(EPOLL_CLOEXEC);
    reserve = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (poller < 0 || reserve < 0 || poll_add(listener) != 0 || poll_add(signals) != 0) {
        return errno;
    }
    listening = listener;
    ending = signals;
    admitting = &rules;
    registry_start(output, rules);
    return 0;
}

turn server_turn(int timeout_ms)
{
    epoll_event events[events_per_wait];
    const int count = epoll_wait(poller, events, events_per_wait, timeout_ms);
    if (count < 0 && errno != EINTR) {
        return turn::failed;
    }
    for (int i = 0; i < count; i++) {
        const int fd = events[i].data.fd;
        if (fd == ending) {
            return turn::last;
        }
        if (fd == listening) {
            accept_client(listening, *admitting);
        } else {
            serve_client(fd, events[i].events);
        }
    }
    remove_doomed();
    return turn::done;
}

int server_run(int listener, int signals, const policy &rules)
{
    const int error = server_open(listener, signals, rules);
    if (error != 0) {
        return error;
    }
    turn last = turn::done;
    while (last == turn::done) {
        last = server_turn(-1);
    }
    return last == turn::failed ? errno : 0;
}
