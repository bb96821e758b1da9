#include "server.hpp"

#include "complain.hpp"
#include "outbox.hpp"
#include "registry.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <linux/sockios.h>
#include <malloc.h>
#include <memory>
#include <string>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <unordered_map>

namespace
{

using clock = std::chrono::steady_clock;

constexpr size_t read_size = 8192;
constexpr int events_per_wait = 256;
constexpr int accepts_per_turn = 16;
constexpr std::chrono::seconds hello_limit{2};
constexpr std::chrono::milliseconds retry_time{10};
constexpr std::chrono::seconds trim_time{1};
constexpr size_t trim_worth = 1u << 20;
constexpr size_t client_bytes = 1024; // a record of a connection, with what the library keeps around it

// Of what one process has not read: from here on it gets no news, is asked for no requests, is disconnected.
constexpr size_t behind_bound = 64u << 10;
constexpr size_t unread_bound = 1u << 20;
constexpr size_t answers_bound = 1u << 20;

// Descriptors under way to one process. Those in all count against the limit of whoever sends them, which is us.
constexpr size_t in_flight_bound = 16;
constexpr size_t descriptors_kept_free = 8; // for introductions, which need two for a moment
constexpr size_t descriptors_of_our_own = 12;
constexpr size_t fewest_connections = 2; // of one user, when there are hardly any descriptors
constexpr long nothing_unread = 256;     // bytes in a socket; the kernel counts one frame as more

struct client : registry_client {
    int fd = -1;
    bool doomed = false;
    bool left = false; // the registry knows
    bool armed = false;
    bool readable = false;
    bool hung_up = false;
    bool queued = false;
    size_t in_flight = 0;
    outbox box;
    std::string input; // from `input_at` on not yet acted on
    size_t input_at = 0;
    clock::time_point hello_by;
    std::list<client *>::iterator stranger; // its place among those that have not said hello, or its end
};

int poller = -1;
int listening = -1;
int ending = -1; // readable when the server is to end
const policy *admitting;
int reserve = -1; // a descriptor to give up when there is none left for a newcomer
std::unordered_map<const client *, std::unique_ptr<client>> clients;
std::list<client *> strangers; // that have not said hello, the longest first
std::list<share *> active;     // users for whose processes something is to be done, in turn
size_t in_flight = 0;
size_t descriptor_limit = 1024;
bool starving = false; // somebody waits for others to read what was sent to them
clock::time_point next_retry;
clock::time_point next_trim;
size_t held_before = 0;

void enqueue(client &c, bool again)
{
    if (!c.queued) {
        c.queued = true;
        (again ? c.of->rest : c.of->fresh).push_back(&c);
        if (!c.of->active) {
            c.of->active = true;
            active.push_back(c.of);
        }
    }
}

void doom_client(client &c, const char *why)
{
    if (c.doomed) {
        return;
    }
    c.doomed = true;
    enqueue(c, false);
    if (why != nullptr) {
        complain_of(why, "disconnecting process %u (user %u): %s", c.process, c.who.user, why);
    }
}

// An event for every time that it becomes readable, and if `armed` for every time that it has read something.
void arm(client &c, bool armed)
{
    if (c.armed != armed && c.fd >= 0) {
        c.armed = armed;
        epoll_event event{};
        event.events = EPOLLIN | EPOLLRDHUP | EPOLLET | (armed ? EPOLLOUT : 0u);
        event.data.ptr = &c;
        (void)epoll_ctl(poller, EPOLL_CTL_MOD, c.fd, &event);
    }
}

// ---- What goes out
// ---------------------------------------------------------------------------------------------------

void pop(client &c)
{
    const size_t before = c.box.held;
    outbox_pop(c.box);
    c.of->queued -= before - c.box.held;
}

void count_in_flight(client &c, size_t now)
{
    in_flight += now - c.in_flight;
    c.of->in_flight += now - c.in_flight;
    c.in_flight = now;
}

// Descriptors are in its hands when it has read everything.
void look_what_is_read(client &c)
{
    int unread = 0;
    if (c.in_flight > 0 && c.fd >= 0 && ioctl(c.fd, SIOCOUTQ, &unread) == 0 && unread < nothing_unread) {
        count_in_flight(c, 0);
    }
}

size_t in_flight_share() { return std::max(in_flight_bound, descriptor_limit / 4); }

// The kernel refuses to take the head's descriptor along. The process does without that channel.
void give_up_descriptor(client &c)
{
    itc_wire::registry_frame head;
    uint32_t fields[2];
    memcpy(&head, c.box.head->bytes(), sizeof head);
    if (head.type != itc_wire::channel) { // of a tap: whoever has the other end sees it closed
        pop(c);
        complain("process %u (user %u) gets no end of a tap: no descriptor can be sent", c.process, c.who.user);
        return;
    }
    memcpy(fields, c.box.head->bytes() + sizeof head, sizeof fields);
    pop(c);
    complain("process %u (user %u) is not introduced to %u: no descriptor can be sent", c.process, c.who.user,
             fields[0]);
    registry_not_given(c, fields[0], fields[1]);
    itc_wire::writer frame(itc_wire::no_process, 0);
    outbox_push(c.box, frame.u32(fields[0]).frame(), -1, true);
    c.of->queued += c.box.tail->held;
}

void flush(client &c)
{
    while (c.box.head != nullptr && !c.doomed) {
        const outbox_frame &frame = *c.box.head;
        const bool with_descriptor = frame.fd >= 0 && c.box.written == 0;
        const long put = outbox_write_head(c.box, c.fd);
        if (put < 0 && with_descriptor && errno == ETOOMANYREFS) {
            give_up_descriptor(c);
            continue;
        }
        if (put < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                doom_client(c, nullptr);
            }
            break;
        }
        if (with_descriptor) {
            count_in_flight(c, c.in_flight + 1);
        }
        c.box.written += static_cast<size_t>(put);
        if (c.box.written < frame.size) {
            break;
        }
        pop(c);
    }
}

// Whose requests are being taken in: what is sent to it meanwhile, it has asked for.
const client *asking = nullptr;

bool has_to_read(const client &c)
{
    return c.box.held > unread_bound || (c.of->queued > share_queued_bound && c.box.held > behind_bound);
}

struct server_output final : registry_output {
    void send(registry_client &to, itc_wire::writer &frame, int fd) override
    {
        auto &c = static_cast<client &>(to);
        if (c.doomed) {
            if (fd >= 0) {
                close(fd);
            }
            return;
        }
        outbox_push(c.box, frame.frame(), fd, asking == &c);
        c.of->queued += c.box.tail->held;
        flush(c);
        if (c.box.head != nullptr) {
            arm(c, true);
        }
        if (asking == &c && (c.box.own_held > answers_bound || (c.box.own_held > behind_bound && has_to_read(c)))) {
            doom_client(c, "does not read its answers");
        }
    }

    void doom(registry_client &which, const char *why) override { doom_client(static_cast<client &>(which), why); }

    void say(const registry_client &about, const char *what) override
    {
        complain_of(what, "process %u (user %u): %s", about.process, about.who.user, what);
    }

    bool is_behind(const registry_client &which) override
    {
        const auto &c = static_cast<const client &>(which);
        return c.box.held > behind_bound && !c.doomed;
    }

    bool takes_descriptor(registry_client &which) override
    {
        auto &c = static_cast<client &>(which);
        look_what_is_read(c);
        if (c.doomed || c.box.head != nullptr || c.in_flight >= in_flight_bound) {
            return false;
        }
        const bool room = c.of->in_flight < in_flight_share() && in_flight < 2 * in_flight_share();
        starving = starving || !room;
        return room;
    }

    void wake(registry_client &which) override { enqueue(static_cast<client &>(which), false); }
};
server_output output;

// ---- What comes in
// ---------------------------------------------------------------------------------------------------

void meet(client &c)
{
    if (c.process == 0 && c.stranger == strangers.end()) {
        c.hello_by = clock::now() + hello_limit;
        c.stranger = strangers.insert(strangers.end(), &c);
    } else if (c.process != 0 && c.stranger != strangers.end()) {
        strangers.erase(c.stranger);
        c.stranger = strangers.end();
    }
}

void dismiss_strangers()
{
    while (!strangers.empty() && strangers.front()->hello_by <= clock::now()) {
        client &c = *strangers.front();
        strangers.pop_front();
        c.stranger = strangers.end();
        doom_client(c, "says no hello");
    }
}

// The next whole frame of its input. False if there is none, or it is none.
bool take_frame(client &c)
{
    const size_t there = c.input.size() - c.input_at;
    itc_wire::registry_frame head;
    if (there < sizeof head) {
        return false;
    }
    const auto *bytes = reinterpret_cast<const uint8_t *>(c.input.data()) + c.input_at;
    memcpy(&head, bytes, sizeof head);
    if (head.length < sizeof head || head.length > itc_wire::registry_frame_limit) {
        doom_client(c, "sent a frame of an impossible length");
        return false;
    }
    if (head.length > there) {
        return false;
    }
    asking = &c;
    registry_request(c, head, itc_wire::reader(bytes + sizeof head, head.length - sizeof head));
    asking = nullptr;
    c.input_at += head.length;
    meet(c);
    return true;
}

void keep_rest(client &c)
{
    c.input.erase(0, c.input_at);
    c.input_at = 0;
    if (c.input.empty()) {
        c.input.shrink_to_fit();
    }
}

void read_some(client &c)
{
    static char bytes[read_size];
    const ssize_t got = recv(c.fd, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got > 0) {
        c.input.append(bytes, static_cast<size_t>(got));
    } else if (got < 0 && (errno == EAGAIN || errno == EINTR)) {
        c.readable = false;
    } else {
        doom_client(c, nullptr);
    }
}

// ---- One client's turn
// -----------------------------------------------------------------------------------------------

// Has what a doomed client had removed. Its end of the connection closes, but for as long as descriptors are under way
// to it: they count against us until it has read them or has closed its end too.
void leave(client &c)
{
    c.left = true;
    while (c.box.head != nullptr) {
        pop(c);
    }
    c.input = {};
    c.input_at = 0;
    if (c.stranger != strangers.end()) {
        strangers.erase(c.stranger);
        c.stranger = strangers.end();
    }
    registry_leave(c);
    look_what_is_read(c);
    if (c.in_flight > 0 && !c.hung_up) {
        (void)shutdown(c.fd, SHUT_WR);
        return;
    }
    count_in_flight(c, 0);
    close(c.fd);
    c.fd = -1;
}

void forget(client &c)
{
    if (c.fd >= 0) {
        count_in_flight(c, 0);
        close(c.fd);
    }
    share &of = *c.of;
    share_give(of, held::connections, client_bytes);
    clients.erase(&c);
    share_forget(of);
}

enum class state {
    idle,
    busy, // there is more to do
    over, // nothing of it is left
};

state run_client(client &c, int &budget)
{
    while (budget > 0) {
        if (c.doomed && !c.left) {
            leave(c);
        }
        if (registry_work(c, budget) || c.doomed != c.left) {
            continue; // what it did may have doomed it
        }
        if (registry_has_work(c)) {
            return state::idle; // it has to read first
        }
        if (c.doomed) {
            return c.fd < 0 || c.hung_up ? state::over : state::idle;
        }
        if (has_to_read(c)) {
            return state::idle;
        }
        budget -= cost_of_request;
        if (take_frame(c) || c.doomed) {
            continue;
        }
        keep_rest(c);
        if (!c.readable) {
            return state::idle;
        }
        read_some(c);
    }
    return state::busy;
}

client &next_of(share &s)
{
    const bool take_fresh = !s.fresh.empty() && (!s.fresh_was_last || s.rest.empty());
    auto &from = take_fresh ? s.fresh : s.rest;
    s.fresh_was_last = take_fresh;
    auto &c = static_cast<client &>(*from.front());
    from.pop_front();
    return c;
}

void run_one()
{
    share &s = *active.front();
    active.pop_front();
    s.active = false;
    client &c = next_of(s);
    int budget = server_slice;
    const state after = run_client(c, budget); // what comes up for it meanwhile it does in the same turn, or the next
    c.queued = false;
    if (after == state::busy) {
        enqueue(c, true);
    }
    if (!s.active && (!s.fresh.empty() || !s.rest.empty())) {
        s.active = true;
        active.push_back(&s);
    }
    if (after == state::over) {
        forget(c);
    } else {
        arm(c, c.box.head != nullptr || !c.stale.empty() || !c.wanting.empty() || registry_has_work(c));
    }
}

// ---- Newcomers
// -------------------------------------------------------------------------------------------------------

void refuse(int fd, int error)
{
    itc_wire::writer frame(itc_wire::refused, 0);
    const std::string_view bytes = frame.u32(static_cast<uint32_t>(error)).frame();
    (void)!send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    close(fd);
}

void say_too_many() { complain("too many processes, one turned away"); }

// No descriptor is left: the newcomer is taken with the reserve and sent away, or it would be announced for ever.
void turn_away(int listener)
{
    if (reserve >= 0) {
        close(reserve);
    }
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
        refuse(fd, EMFILE);
        say_too_many();
    }
    reserve = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void look_at_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        descriptor_limit = std::min<rlim_t>(limit.rlim_cur, 1u << 20);
    }
}

// One user gets at most half of the descriptors that there are for connections.
size_t connections_share()
{
    const size_t taken = descriptors_of_our_own + descriptors_kept_free;
    return std::max(fewest_connections, descriptor_limit < taken ? 0 : (descriptor_limit - taken) / 2);
}

// 0, or the errno value with which that user is refused.
int admit(int fd, policy_person *who)
{
    if (!policy_admits(*admitting, fd, who)) {
        complain("user %u may not connect", who->user);
        return EACCES;
    }
    look_at_limit();
    if (static_cast<size_t>(fd) + descriptors_kept_free >= descriptor_limit) {
        say_too_many();
        return EMFILE;
    }
    share &of = share_of(who->user);
    if (of.counts[static_cast<size_t>(held::connections)] >= connections_share() ||
        !share_take(of, held::connections, client_bytes)) {
        complain("too many processes of user %u, one turned away", who->user);
        share_forget(of);
        return EAGAIN;
    }
    return 0;
}

bool accept_client(int listener)
{
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE) {
            turn_away(listener);
        }
        return false;
    }
    policy_person who;
    who.user = static_cast<uid_t>(-1);
    const int error = admit(fd, &who);
    if (error != 0) {
        refuse(fd, error);
        return true;
    }
    auto fresh = std::make_unique<client>();
    client &c = *fresh;
    clients[&c] = std::move(fresh);
    c.fd = fd;
    c.of = &share_of(who.user);
    c.who = std::move(who);
    c.stranger = strangers.end();
    epoll_event event{};
    event.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
    event.data.ptr = &c;
    if (epoll_ctl(poller, EPOLL_CTL_ADD, fd, &event) != 0) {
        forget(c);
        return true;
    }
    meet(c);
    return true;
}

void accept_clients()
{
    for (int i = 0; i < accepts_per_turn && accept_client(listening); i++) {
    }
}

// ---- A turn
// ----------------------------------------------------------------------------------------------------------

void note_event(client &c, uint32_t events)
{
    if ((events & EPOLLOUT) != 0 && !c.doomed) {
        flush(c);
    }
    c.hung_up = c.hung_up || (events & (EPOLLHUP | EPOLLERR)) != 0;
    c.readable = c.readable || (events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
    enqueue(c, false);
}

// Those that wait for a descriptor, while others to whom many are under way may have read them.
void retry_the_starving()
{
    if (!starving || clock::now() < next_retry) {
        return;
    }
    starving = false;
    next_retry = clock::now() + retry_time;
    for (const auto &entry : clients) {
        look_what_is_read(*entry.second);
    }
    for (const auto &entry : clients) {
        if (!entry.second->wanting.empty()) {
            enqueue(*entry.second, false);
        }
    }
}

// Memory of which much was given up goes back to the system, when there is nothing else to do.
void give_memory_back()
{
    const size_t now_held = shares_held();
    if (now_held + trim_worth < held_before && active.empty() && clock::now() >= next_trim) {
        (void)malloc_trim(0);
        held_before = now_held;
        next_trim = clock::now() + trim_time;
    }
    held_before = std::max(held_before, now_held);
}

int until(clock::time_point then)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(then - clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

int time_to_wait(int wanted)
{
    if (!active.empty()) {
        return 0;
    }
    int wait = wanted < 0 ? 60000 : wanted;
    if (!strangers.empty()) {
        wait = std::min(wait, until(strangers.front()->hello_by));
    }
    if (starving) {
        wait = std::min(wait, until(next_retry));
    }
    if (shares_held() + trim_worth < held_before) {
        wait = std::min(wait, until(next_trim));
    }
    return wait == 60000 ? wanted : wait;
}

int poll_add(int *fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = fd;
    return epoll_ctl(poller, EPOLL_CTL_ADD, *fd, &event) == 0 ? 0 : errno;
}

} // namespace

int server_open(int listener, int signals, const policy &rules)
{
    poller = epoll_create1(EPOLL_CLOEXEC);
    reserve = open("/dev/null", O_RDONLY | O_CLOEXEC);
    listening = listener;
    ending = signals;
    if (poller < 0 || reserve < 0 || poll_add(&listening) != 0 || poll_add(&ending) != 0) {
        return errno;
    }
    admitting = &rules;
    registry_start(output, rules);
    return 0;
}

turn server_turn(int timeout_ms)
{
    epoll_event events[events_per_wait];
    const int count = epoll_wait(poller, events, events_per_wait, time_to_wait(timeout_ms));
    if (count < 0 && errno != EINTR) {
        return turn::failed;
    }
    for (int i = 0; i < count; i++) {
        if (events[i].data.ptr == &ending) {
            return turn::last;
        }
        if (events[i].data.ptr == &listening) {
            accept_clients();
        } else {
            note_event(*static_cast<client *>(events[i].data.ptr), events[i].events);
        }
    }
    dismiss_strangers();
    retry_the_starving();
    for (int slices = 0; slices < server_slices && !active.empty(); slices++) {
        run_one();
    }
    give_memory_back();
    return turn::done;
}

int server_run(int listener, int signals, const policy &rules, const std::function<int()> &between_turns)
{
    const int error = server_open(listener, signals, rules);
    if (error != 0) {
        return error;
    }
    turn last = turn::done;
    while (last == turn::done) {
        last = server_turn(between_turns());
    }
    return last == turn::failed ? errno : 0;
}
