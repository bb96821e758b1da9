/*
 * The connection to the registry: requests out, answers and notices in. A request whose caller waits is matched by its
 * serial; everything else is acted on as it is read, on whichever thread reads it. A registry that breaks the protocol
 * counts as lost, like one that is gone.
 */
#include "ns.h"
#include "state.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <set>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace itc
{
namespace
{

void lose()
{
    if (g().registry_lost) {
        return;
    }
    g().registry_lost = true;
    registry_close();
    peers_lose_registry();
    wake_leader();
    wake_followers();
}

// What came with a channel frame; -1 if it was lost because this process has no descriptor left.
int take_descriptor()
{
    if (g().registry_fds.empty()) {
        return -1;
    }
    const int fd = g().registry_fds.front();
    g().registry_fds.pop_front();
    return fd;
}

void on_answer(uint32_t serial, uint32_t value)
{
    const auto found = g().calls.find(serial);
    if (found != g().calls.end()) {
        found->second->done = true;
        found->second->value = value;
        wake_followers();
    }
}

// What comes before the answer that it belongs to.
bool on_tapping(uint32_t serial, const itc_wire::reader &fields)
{
    const int fd = take_descriptor();
    const auto found = g().calls.find(serial);
    if (fields.whole() && found != g().calls.end() && found->second->fd < 0) {
        found->second->fd = fd;
    } else if (fd >= 0) {
        close(fd); // nobody waits for it any more
    }
    return fields.whole();
}

bool on_named(uint32_t serial, itc_wire::reader &fields)
{
    const std::string_view name = fields.text();
    const auto found = g().calls.find(serial);
    if (fields.whole() && found != g().calls.end()) {
        found->second->text = name;
    }
    return fields.whole();
}

bool on_tapped(const itc_wire::reader &fields)
{
    tap_begin(take_descriptor());
    return fields.whole();
}

// A mailbox that was asked for is there: others may send to it.
void open_box(uint32_t serial, uint32_t error)
{
    const auto found = g().calls.find(serial);
    if (error == 0 && found != g().calls.end() && found->second->opens_box < itc_wire::box_limit) {
        g().box_is_closed[found->second->opens_box] = false;
    }
}

// A name that was waited for, or a death that was watched for: the message goes out, with that mailbox as its sender.
void on_token(std::unordered_map<uint32_t, awaited> &table, uint32_t token, uint32_t mbox, bool death)
{
    const auto found = table.find(token);
    if (found == table.end()) {
        return;
    }
    const awaited entry = found->second;
    table.erase(found);
    if (entry.message == nullptr) {
        door_client_died(mbox);
        return;
    }
    entry.message->sender = mbox;
    entry.message->monitor_id = death ? token : 0;
    mbox_deliver(entry.message, entry.deliver_to);
}

void deliver_service(uint32_t msgno, uint32_t sid, uint32_t mbox, std::string_view path)
{
    const auto subscription = g().subscriptions.find(sid);
    if (subscription == g().subscriptions.end()) {
        return;
    }
    const uint32_t head[5] = {msgno, sid, mbox, 0, 0};
    block *b = block_new(sizeof head + path.size() + 1, true);
    memcpy(b->bytes(), head, sizeof head);
    memcpy(b->bytes() + sizeof head, path.data(), path.size());
    mbox_deliver(b, subscription->second);
}

void tell_service(itc_wire::frame_type type, uint32_t sid, uint32_t mbox, std::string_view path)
{
    deliver_service(type == itc_wire::added ? NS_SERVICE_ADDED_IND : NS_SERVICE_REMOVED_IND, sid, mbox, path);
}

void on_subscribed(uint32_t sid)
{
    const auto subscription = g().subscriptions.find(sid);
    if (subscription == g().subscriptions.end()) {
        return;
    }
    const uint32_t body[2] = {NS_SUBSCRIBE_RSP, sid};
    block *b = block_new(sizeof body, true);
    memcpy(b->bytes(), body, sizeof body);
    mbox_deliver(b, subscription->second);
}

bool subscription_has_late_news(uint32_t sid)
{
    const auto &late = g().late;
    return std::any_of(late.begin(), late.end(),
                       [sid](const late_news &n) { return n.type != itc_wire::died && n.key == sid; });
}

// Keeps news for later if something of the process comes before them, or news of the same subscription do.
bool put_off(itc_wire::frame_type type, uint32_t key, uint32_t mbox, std::string_view path)
{
    late_news n{itc_wire::process_of(mbox), 0, 0, type, key, mbox, {}};
    if (type == itc_wire::added || !peer_has_sent(n.process, &n.channel, &n.mark)) {
        if (type == itc_wire::died || !subscription_has_late_news(key)) {
            return false;
        }
        n.process = 0;
    }
    n.path = path;
    g().late.push_back(std::move(n));
    return true;
}

bool on_service(const itc_wire::registry_frame &head, itc_wire::reader &fields)
{
    const uint32_t sid = fields.u32();
    const uint32_t mbox = fields.u32();
    const std::string_view path = fields.text();
    const auto type = static_cast<itc_wire::frame_type>(head.type);
    if (fields.whole() && !put_off(type, sid, mbox, path)) {
        tell_service(type, sid, mbox, path);
    }
    return fields.whole();
}

bool on_channel(itc_wire::reader &fields)
{
    const uint32_t process = fields.u32();
    const uint32_t channel = fields.u32();
    if (!fields.whole()) {
        return false;
    }
    peer_introduced(process, channel, take_descriptor());
    return true;
}

// The frames with one number in them.
bool on_number(const itc_wire::registry_frame &head, uint32_t value)
{
    switch (head.type) {
    case itc_wire::result:
        open_box(head.serial, value);
        on_answer(head.serial, value);
        return true;
    case itc_wire::located:
        on_answer(head.serial, value);
        return true;
    case itc_wire::found:
        on_token(g().awaiting, head.serial, value, false);
        return true;
    case itc_wire::died:
        if (!put_off(itc_wire::died, head.serial, value, {})) {
            on_token(g().monitors, head.serial, value, true);
        }
        return true;
    case itc_wire::no_process:
        peer_absent(value);
        return true;
    case itc_wire::subscribed:
        on_subscribed(value);
        return true;
    default:
        return false;
    }
}

bool on_frame(const itc_wire::registry_frame &head, itc_wire::reader fields)
{
    switch (head.type) {
    case itc_wire::channel:
        return on_channel(fields);
    case itc_wire::added:
    case itc_wire::removed:
        return on_service(head, fields);
    case itc_wire::tapped:
        return on_tapped(fields);
    case itc_wire::tapping:
        return on_tapping(head.serial, fields);
    case itc_wire::named:
        return on_named(head.serial, fields);
    default:
        break;
    }
    if (door_frame_is(head.type)) {
        return door_frame(head, fields, true);
    }
    const uint32_t value = fields.u32();
    return fields.whole() && on_number(head, value);
}

enum class frame_is {
    whole,
    not_whole,
    nonsense
};

frame_is frame_at(size_t at, itc_wire::registry_frame *head)
{
    const state &s = g();
    if (s.registry_fill - at < sizeof *head) {
        return frame_is::not_whole;
    }
    memcpy(head, s.registry_buffer + at, sizeof *head);
    if (head->length < sizeof *head || head->length > itc_wire::registry_frame_limit) {
        return frame_is::nonsense;
    }
    return head->length <= s.registry_fill - at ? frame_is::whole : frame_is::not_whole;
}

itc_wire::reader fields_at(size_t at, const itc_wire::registry_frame &head)
{
    return {g().registry_buffer + at + sizeof head, head.length - sizeof head};
}

// Acts on every whole frame in the buffer. False when the registry makes no sense.
bool parse()
{
    state &s = g();
    itc_wire::registry_frame head{};
    frame_is next = frame_at(s.registry_at, &head);
    while (next == frame_is::whole) {
        const bool sane = on_frame(head, fields_at(s.registry_at, head));
        if (s.registry < 0) {
            return true; // given up meanwhile, buffer and all
        }
        s.registry_at += head.length;
        next = sane ? frame_at(s.registry_at, &head) : frame_is::nonsense;
    }
    s.registry_fill -= s.registry_at;
    s.registry_seen = s.registry_seen > s.registry_at ? s.registry_seen - s.registry_at : 0;
    memmove(s.registry_buffer, s.registry_buffer + s.registry_at, s.registry_fill);
    s.registry_at = 0;
    s.registry_ahead = false;
    return next != frame_is::nonsense;
}

void parse_or_lose()
{
    if (!parse()) {
        complain("the registry sent a frame that makes no sense, giving it up");
        lose();
    }
}

void keep_descriptors(msghdr &message)
{
    for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) {
            continue;
        }
        const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; i++) {
            int fd;
            memcpy(&fd, CMSG_DATA(c) + i * sizeof fd, sizeof fd);
            g().registry_fds.push_back(fd);
        }
    }
    if ((message.msg_flags & MSG_CTRUNC) != 0) {
        g().registry_fds.push_back(-1); // there was one, and this process had no room for it
    }
}

ssize_t receive_some()
{
    state &s = g();
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    iovec part{s.registry_buffer + s.registry_fill, sizeof s.registry_buffer - s.registry_fill};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t got = recvmsg(s.registry, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    if (got >= 0) {
        keep_descriptors(message);
    }
    return got;
}

int receive_all(int fd, void *to, size_t size)
{
    auto *at = static_cast<char *>(to);
    while (size > 0) {
        const ssize_t got = recv(fd, at, size, 0);
        if (got == 0) {
            return ECONNREFUSED;
        }
        if (got < 0 && errno != EINTR) {
            return errno == EAGAIN ? ETIMEDOUT : errno;
        }
        if (got > 0) {
            at += got;
            size -= static_cast<size_t>(got);
        }
    }
    return 0;
}

// Says hello and learns the process number.
int greet(int fd)
{
    itc_wire::writer hello(itc_wire::hello, 0);
    const std::string_view frame = hello.u32(itc_wire::version).frame();
    if (send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(frame.size()) && errno != EPIPE) {
        return errno;
    }
    struct {
        itc_wire::registry_frame head;
        uint32_t value;
    } answer{};
    const int error = receive_all(fd, &answer, sizeof answer);
    if (error != 0) {
        return error;
    }
    if (answer.head.length == sizeof answer && answer.head.type == itc_wire::refused && answer.value != 0) {
        return static_cast<int>(answer.value);
    }
    if (answer.head.length != sizeof answer || answer.head.type != itc_wire::welcome || answer.value == 0 ||
        answer.value >= itc_wire::process_limit) {
        return EPROTO;
    }
    g().process = answer.value;
    return 0;
}

void arm_registry(bool armed)
{
    state &s = g();
    if (s.registry_armed != armed && s.registry >= 0) {
        s.registry_armed = armed;
        poll_change(source_registry, 0, s.registry, armed ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }
}

// Waits on the registry's socket alone. What others send stays in their sockets, in order.
void wait_for_registry(hold &lock, clock::time_point deadline)
{
    state &s = g();
    if (s.led) {
        follow(lock, deadline);
        return;
    }
    if (s.registry_ahead) {
        registry_catch_up();
        wake_followers();
        return;
    }
    pollfd wanted{s.registry, static_cast<short>(s.registry_out.empty() ? POLLIN : POLLIN | POLLOUT), 0};
    s.led = true;
    s.blocked++;
    lock.unlock();
    (void)poll(&wanted, 1, milliseconds_until(deadline));
    lock.lock();
    s.blocked--;
    s.led = false;
    registry_flush();
    registry_read();
    wake_followers();
}

} // namespace

int registry_connect()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return errno;
    }
    const timeval limit{call_limit.count() / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof itc_wire::socket_path <= sizeof address.sun_path);
    memcpy(address.sun_path, itc_wire::socket_path, sizeof itc_wire::socket_path);
    int error = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 ? 0 : errno;
    if (error == 0) {
        error = greet(fd);
    }
    if (error == 0 && fcntl(fd, F_SETFL, O_NONBLOCK) != 0) {
        error = errno;
    }
    if (error == 0) {
        error = poll_add(source_registry, 0, fd, EPOLLIN);
    }
    if (error != 0) {
        close(fd);
        return error;
    }
    g().registry = fd;
    g().registry_lost = false;
    return 0;
}

void registry_close()
{
    state &s = g();
    if (s.registry >= 0) {
        poll_remove(s.registry);
        close(s.registry);
    }
    s.registry = -1;
    s.registry_armed = false;
    s.registry_fill = s.registry_at = s.registry_seen = 0;
    s.registry_ahead = false;
    s.registry_out.clear();
    for (const int fd : s.registry_fds) {
        if (fd >= 0) {
            close(fd);
        }
    }
    s.registry_fds.clear();
}

void registry_send(itc_wire::writer &frame)
{
    state &s = g();
    if (s.registry < 0) {
        return;
    }
    s.registry_out += frame.frame();
    registry_flush();
    if (s.registry_out.size() > registry_outbox_limit) {
        complain("the registry takes no requests any more, giving it up");
        lose();
    }
}

void registry_flush()
{
    state &s = g();
    if (s.registry < 0) {
        return;
    }
    while (!s.registry_out.empty()) {
        const ssize_t put = send(s.registry, s.registry_out.data(), s.registry_out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (put < 0) {
            break; // no room now, or gone: then reading will tell, after what it still had to say
        }
        s.registry_out.erase(0, static_cast<size_t>(put));
    }
    arm_registry(!s.registry_out.empty());
}

void registry_look_ahead()
{
    state &s = g();
    if (!s.registry_news) {
        return;
    }
    s.registry_news = false;
    while (s.registry >= 0 && s.registry_fill < sizeof s.registry_buffer) {
        const ssize_t got = receive_some();
        if (got <= 0) {
            break; // should it have ended, it says so again
        }
        s.registry_fill += static_cast<size_t>(got);
        s.registry_ahead = true;
    }
    itc_wire::registry_frame head{};
    s.registry_seen = std::max(s.registry_seen, s.registry_at);
    while (frame_at(s.registry_seen, &head) == frame_is::whole) {
        itc_wire::reader fields = fields_at(s.registry_seen, head);
        if (door_frame_is(head.type)) {
            (void)door_frame(head, fields, false);
        } else if (head.type == itc_wire::result) {
            open_box(head.serial, fields.u32());
        }
        s.registry_seen += head.length;
    }
}

void registry_catch_up()
{
    if (g().registry_ahead) {
        registry_read();
    }
}

void registry_read()
{
    state &s = g();
    if (s.registry_ahead && s.registry >= 0) {
        parse_or_lose();
    }
    while (s.registry >= 0) {
        const ssize_t got = receive_some();
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
            return;
        }
        if (got <= 0) {
            lose();
            return;
        }
        s.registry_fill += static_cast<size_t>(got);
        parse_or_lose();
    }
}

bool late_news_deliver()
{
    state &s = g();
    std::vector<late_news> later;
    std::set<uint32_t> held_back; // subscriptions of which earlier news are not due
    std::vector<late_news> due;
    for (late_news &n : s.late) {
        const bool service = n.type != itc_wire::died;
        if ((n.process != 0 && !peer_is_read(n.process, n.channel, n.mark)) ||
            (service && held_back.count(n.key) != 0)) {
            if (service) {
                held_back.insert(n.key);
            }
            later.push_back(std::move(n));
        } else {
            due.push_back(std::move(n));
        }
    }
    s.late = std::move(later);
    for (const late_news &n : due) {
        if (n.type == itc_wire::died) {
            on_token(s.monitors, n.key, n.mbox, true);
        } else {
            tell_service(n.type, n.key, n.mbox, n.path);
        }
    }
    return !due.empty();
}

uint32_t new_serial()
{
    do {
        g().next_serial++;
    } while (g().next_serial == 0 || g().monitors.count(g().next_serial) != 0 ||
             g().awaiting.count(g().next_serial) != 0);
    return g().next_serial;
}

int registry_call(hold &lock, itc_wire::writer &frame, call &waiting)
{
    state &s = g();
    if (!s.up || s.registry_lost) {
        return ENOTCONN;
    }
    waiting.serial = new_serial();
    frame.set_serial(waiting.serial);
    s.calls[waiting.serial] = &waiting;
    registry_send(frame);
    const clock::time_point deadline = clock::now() + call_limit;
    while (!waiting.done && !s.registry_lost && !s.exiting && clock::now() < deadline) {
        wait_for_registry(lock, deadline);
    }
    s.calls.erase(waiting.serial);
    if (waiting.done) {
        return 0;
    }
    if (waiting.fd >= 0) {
        close(waiting.fd);
    }
    return s.registry_lost || s.exiting ? ENOTCONN : ETIMEDOUT;
}

int registry_call(hold &lock, itc_wire::writer &frame, uint32_t *value, uint32_t opens_box)
{
    call waiting;
    waiting.opens_box = opens_box;
    const int error = registry_call(lock, frame, waiting);
    if (error == 0) {
        *value = waiting.value;
    }
    return error;
}

int registry_command(hold &lock, itc_wire::writer &frame, uint32_t opens_box)
{
    uint32_t value = 0;
    const int error = registry_call(lock, frame, &value, opens_box);
    return error != 0 ? error : static_cast<int>(value);
}

} // namespace itc
