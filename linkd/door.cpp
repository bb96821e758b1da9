// The door of the web server (door.hpp).
#include "door.hpp"

#include "loop.hpp"
#include "quiet_thread.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace linkd
{

namespace
{

constexpr size_t MOST_CONNECTIONS = 128;
constexpr size_t SHARE_OF_A_USER = 4; // so many users fill the house
constexpr size_t SHARE_OF_DESCRIPTORS = 4;
// So many are answered at once; some of the threads are left for what is cheap.
constexpr size_t WORKERS = 6;
constexpr ptrdiff_t MOST_DEAR = 3;
constexpr ptrdiff_t MOST_DEAR_OF_A_USER = 1;
constexpr ptrdiff_t MOST_CHEAP_OF_A_USER = 2;
constexpr size_t MOST_HELD = size_t{64} << 20;
constexpr size_t MOST_HELD_OF_A_USER = size_t{24} << 20;
constexpr size_t EVENTS_KEPT = 1024;
constexpr size_t MUCH_TO_TAKE = size_t{256} << 10; // for a stream
constexpr size_t WRITTEN_AT_ONCE = size_t{1} << 20;
constexpr size_t MOST_UNREAD = size_t{256} << 10; // beside a request
constexpr int SEND_BUFFER = 256 << 10;            // or else the kernel has one grow to megabytes
constexpr int RECEIVE_BUFFER = 16 << 10;
constexpr int READS_AT_ONCE = 16;
constexpr int ACCEPTED_AT_ONCE = 64;
constexpr size_t TURNS_AT_ONCE = 64;

constexpr int64_t HEAD_MS = 5'000;
constexpr int64_t ANSWER_MS = 20'000; // with the time in which others are answered
constexpr int64_t TAKE_MS = 30'000;
constexpr int64_t FAREWELL_MS = 1'000;
constexpr int64_t SIGN_OF_LIFE_MS = 15'000;
constexpr int64_t NO_DESCRIPTOR_MS = 100; // so long nobody is let in when there is none

constexpr uint64_t LISTENING = 0;
constexpr uint64_t WAKE = 1;

[[noreturn]] void fail(const std::string &what) { throw std::runtime_error("http: " + what + ": " + strerror(errno)); }

int listening_socket(const std::string &address, uint16_t port)
{
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(port);
    sockaddr_in four{};
    four.sin_family = AF_INET;
    four.sin_port = htons(port);
    const bool is_six = inet_pton(AF_INET6, address.c_str(), &six.sin6_addr) == 1;
    if (!is_six && inet_pton(AF_INET, address.c_str(), &four.sin_addr) != 1) {
        throw std::runtime_error("http: " + address + " is no address");
    }
    const int fd = socket(is_six ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Who is let in has the same.
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof SEND_BUFFER);
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
    const bool bound = is_six ? bind(fd, reinterpret_cast<const sockaddr *>(&six), sizeof six) == 0
                              : bind(fd, reinterpret_cast<const sockaddr *>(&four), sizeof four) == 0;
    if (fd < 0 || !bound || listen(fd, SOMAXCONN) != 0) {
        const int error = errno;
        if (fd >= 0) {
            close(fd);
        }
        errno = error;
        fail(address + " port " + std::to_string(port) + " cannot be listened on");
    }
    return fd;
}

size_t descriptors()
{
    rlimit limit{};
    return getrlimit(RLIMIT_NOFILE, &limit) == 0 ? static_cast<size_t>(limit.rlim_cur) : MOST_CONNECTIONS;
}

} // namespace

door::door(answering answers, weighing is_dear, refusals refused)
    : answers_(std::move(answers)), is_dear_(std::move(is_dear)), refused_(std::move(refused)),
      most_(std::clamp(descriptors() / SHARE_OF_DESCRIPTORS, SHARE_OF_A_USER, MOST_CONNECTIONS)),
      most_of_a_user_(most_ / SHARE_OF_A_USER)
{
}

door::~door()
{
    end();
    for (const int fd : {listening_, epoll_, wake_}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

void door::end()
{
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    wanted_.notify_all();
    if (wake_ >= 0) {
        wake();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    for (std::thread &each : workers_) {
        each.join();
    }
    workers_.clear();
}

void door::listen(const std::string &address, uint16_t port, admitting admits)
{
    admits_ = std::move(admits);
    listening_ = listening_socket(address, port);
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.u64 = WAKE;
    if (epoll_ < 0 || wake_ < 0 || epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &wanted) != 0) {
        fail("no descriptor");
    }
    wanted.data.u64 = LISTENING;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, listening_, &wanted) != 0) {
        fail("no descriptor");
    }
    listens_ = true;
    for (size_t i = 0; i < WORKERS; i++) {
        workers_.push_back(quiet_thread([this] { work(); }));
    }
    thread_ = quiet_thread([this] { run(); });
}

void door::tell(uint64_t id, std::string text)
{
    if (wake_ < 0) {
        return; // nobody is let in
    }
    {
        const std::lock_guard lock(mutex_);
        events_.push_back({next_event_++, id, std::make_shared<const std::string>(std::move(text))});
        if (events_.size() > EVENTS_KEPT) {
            events_.pop_front();
        }
    }
    wake();
}

void door::wake()
{
    const uint64_t one = 1;
    (void)!::write(wake_, &one, sizeof one);
}

// ---- Those who answer ----------------------------------------------------------------------------------------------

// The first whose user is not being answered already as often as he may.
std::optional<door::job> door::next_job()
{
    const auto dear = std::count_if(running_.begin(), running_.end(), [](const auto &each) { return each.second; });
    for (auto each = jobs_.begin(); each != jobs_.end(); ++each) {
        const auto [first, last] = running_.equal_range(each->user);
        const auto of_user = std::count_if(first, last, [&](const auto &other) { return other.second == each->dear; });
        if (each->dear ? dear < MOST_DEAR && of_user < MOST_DEAR_OF_A_USER : of_user < MOST_CHEAP_OF_A_USER) {
            job found = std::move(*each);
            jobs_.erase(each);
            return found;
        }
    }
    return std::nullopt;
}

void door::work()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        std::optional<job> next;
        wanted_.wait(lock, [&] { return ending_ || (next = next_job()); });
        if (ending_) {
            return;
        }
        const auto mine = running_.emplace(next->user, next->dear);
        lock.unlock();
        std::optional<answer> told;
        try {
            told = answers_(next->what);
        } catch (...) {
            told.reset(); // the connection ends
        }
        lock.lock();
        running_.erase(mine);
        answered_.emplace_back(next->id, std::move(told));
        wake();
        wanted_.notify_all();
    }
}

// ---- Connections ---------------------------------------------------------------------------------------------------

void door::run()
{
    while (!ending_) {
        std::array<epoll_event, TURNS_AT_ONCE> events{};
        const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), wait_ms(boot_ms()));
        const int64_t now = boot_ms();
        for (int i = 0; i < count && !ending_; i++) {
            const epoll_event &each = events.at(static_cast<size_t>(i));
            if (each.data.u64 == LISTENING) {
                on_listen(now);
            } else if (each.data.u64 == WAKE) {
                uint64_t times = 0;
                (void)!::read(wake_, &times, sizeof times);
            } else {
                on_connection(each.data.u64, each.events, now);
            }
        }
        take_answers(now);
        feed_streams(now);
        look_at_clock(now);
    }
    while (!connections_.empty()) {
        drop(connections_.begin()->first);
    }
}

void door::on_listen(int64_t now)
{
    for (int i = 0; i < ACCEPTED_AT_ONCE; i++) {
        const int fd = accept4(listening_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                (void)epoll_ctl(epoll_, EPOLL_CTL_DEL, listening_, nullptr);
                listens_ = false;
                listens_again_ms_ = now + NO_DESCRIPTOR_MS;
            }
            return;
        }
        const auto user = peers_.user_of(fd);
        if (!user && peers_.works()) {
            close(fd); // it has gone already
            continue;
        }
        make_room(user);
        connection who;
        who.id = next_id_++;
        who.fd = fd;
        who.user = user;
        who.until_ms = now + HEAD_MS;
        epoll_event wanted{};
        wanted.data.u64 = who.id;
        if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &wanted) != 0) {
            close(fd);
            continue;
        }
        connection &there = connections_.emplace(who.id, std::move(who)).first->second;
        if (admits_ && !admits_(user)) {
            say(there, refused_.not_admitted, now);
        } else if (!read(there, now)) { // before others who come at the same time take its place
            drop(there.id);
            continue;
        }
        watch(there);
    }
}

// The oldest connection of that user: one that has not asked yet or has its answer, else one that takes its answer or
// is a stream, else one that is being answered.
bool door::drop_oldest(const std::optional<uid_t> &user, uint64_t but, bool with_output)
{
    const auto rank = [](phase at) {
        return at == phase::head || at == phase::farewell ? 0 : at == phase::asked ? 2 : 1;
    };
    const connection *found = nullptr;
    for (const auto &[id, each] : connections_) {
        if (each.user == user && id != but && (!with_output || !each.out.empty()) &&
            (found == nullptr || rank(each.at) < rank(found->at))) {
            found = &each;
        }
    }
    if (found == nullptr) {
        return false;
    }
    drop(found->id);
    return true;
}

void door::make_room(const std::optional<uid_t> &user)
{
    std::map<std::optional<uid_t>, size_t> count;
    for (const auto &[id, each] : connections_) {
        count[each.user]++;
    }
    if (count[user] >= most_of_a_user_) {
        (void)drop_oldest(user, 0, false);
    } else if (connections_.size() >= most_) {
        const auto most = std::max_element(count.begin(), count.end(),
                                           [](const auto &a, const auto &b) { return a.second < b.second; });
        (void)drop_oldest(most->first, 0, false);
    }
}

// For an answer of so many bytes.
void door::make_room_for(connection &who, size_t bytes)
{
    for (;;) {
        std::map<std::optional<uid_t>, size_t> held;
        size_t all = bytes;
        for (const auto &[id, each] : connections_) {
            if (id != who.id && !each.out.empty()) {
                held[each.user] += each.out.size();
                all += each.out.size();
            }
        }
        const auto own = held.find(who.user);
        if (own != held.end() && own->second + bytes > MOST_HELD_OF_A_USER) {
            (void)drop_oldest(who.user, who.id, true);
        } else if (all > MOST_HELD && !held.empty()) {
            const auto most = std::max_element(held.begin(), held.end(),
                                               [](const auto &a, const auto &b) { return a.second < b.second; });
            (void)drop_oldest(most->first, who.id, true);
        } else {
            return;
        }
    }
}

void door::drop(uint64_t id)
{
    const auto found = connections_.find(id);
    if (found == connections_.end()) {
        return;
    }
    close(found->second.fd);
    connections_.erase(found);
    const std::lock_guard lock(mutex_);
    jobs_.remove_if([&](const job &each) { return each.id == id; });
}

void door::watch(connection &who)
{
    uint32_t events = 0;
    if (who.at == phase::head || who.at == phase::farewell || who.at == phase::stream) {
        events |= EPOLLIN;
    }
    if (who.sent < who.out.size()) {
        events |= EPOLLOUT;
    }
    if (events != who.watched) {
        epoll_event wanted{};
        wanted.events = events;
        wanted.data.u64 = who.id;
        (void)epoll_ctl(epoll_, EPOLL_CTL_MOD, who.fd, &wanted);
        who.watched = events;
    }
}

void door::on_connection(uint64_t id, uint32_t events, int64_t now)
{
    const auto found = connections_.find(id);
    if (found == connections_.end()) {
        return;
    }
    connection &who = found->second;
    bool alive = (events & (EPOLLERR | EPOLLHUP)) == 0;
    if (alive && (events & EPOLLIN) != 0) {
        alive = read(who, now);
    }
    if (alive && (events & EPOLLOUT) != 0) {
        alive = write(who, now);
    }
    if (!alive) {
        drop(id);
        return;
    }
    watch(who);
}

// False: it is over.
bool door::read(connection &who, int64_t now)
{
    std::array<char, 4096> room; // NOLINT(cppcoreguidelines-pro-type-member-init): recv fills it
    for (int i = 0; i < READS_AT_ONCE && !who.has_closed && who.in.size() <= LONGEST_HEAD; i++) {
        const ssize_t got = recv(who.fd, room.data(), room.size(), 0);
        if (got < 0) {
            if (errno == EAGAIN || errno == EINTR) {
                break;
            }
            return false;
        }
        who.has_closed = got == 0;
        if (who.at == phase::head) {
            who.in.append(room.data(), static_cast<size_t>(got));
        } else if ((who.unread += static_cast<size_t>(got)) > MOST_UNREAD) {
            return false;
        }
    }
    if (who.at == phase::head) {
        gather(who, now);
    }
    // One that closes its side when it has asked still gets its answer.
    return !who.has_closed || who.at == phase::asked || who.at == phase::takes;
}

void door::gather(connection &who, int64_t now)
{
    const size_t end = who.in.find("\r\n\r\n");
    if (end != std::string::npos && end + 4 <= LONGEST_HEAD) {
        question what;
        what.head = who.in.substr(0, end + 4);
        who.in = std::string();
        who.at = phase::asked;
        who.until_ms = now + ANSWER_MS;
        ask(who, std::move(what));
    } else if (who.in.size() >= LONGEST_HEAD) {
        who.in = std::string();
        say(who, refused_.head_too_long, now);
    }
}

void door::say(connection &who, std::string text, int64_t now)
{
    who.out = std::move(text);
    who.sent = 0;
    who.at = phase::takes;
    who.until_ms = now + TAKE_MS;
}

// False: it is over.
bool door::write(connection &who, int64_t now)
{
    size_t written = 0;
    while (who.sent < who.out.size() && written < WRITTEN_AT_ONCE) {
        const ssize_t n = send(who.fd, who.out.data() + who.sent,
                               std::min(who.out.size() - who.sent, WRITTEN_AT_ONCE - written), MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return false;
        }
        if (n <= 0) {
            break;
        }
        who.sent += static_cast<size_t>(n);
        written += static_cast<size_t>(n);
    }
    const bool all = who.sent == who.out.size();
    if (all) {
        who.out = std::string();
        who.sent = 0;
    }
    if (who.at == phase::stream) {
        if (written > 0) {
            who.until_ms = now + (all ? SIGN_OF_LIFE_MS : TAKE_MS);
        }
        return !all || feed(who, now);
    }
    if (all && who.at == phase::takes) {
        // Closed at once, what it has sent beside its request would cost it the answer.
        (void)shutdown(who.fd, SHUT_WR);
        who.at = phase::farewell;
        who.until_ms = now + FAREWELL_MS;
        return !who.has_closed;
    }
    return true;
}

// ---- Answers and streams -------------------------------------------------------------------------------------------

void door::ask(connection &who, question what)
{
    const bool dear = what.head.empty() || is_dear_(what.head);
    {
        const std::lock_guard lock(mutex_);
        who.next = next_event_; // whatever was told before is among what the answer knows
        jobs_.push_back({who.id, who.user, dear, std::move(what)});
    }
    wanted_.notify_one();
}

void door::take_answers(int64_t now)
{
    std::vector<std::pair<uint64_t, std::optional<answer>>> answered;
    {
        const std::lock_guard lock(mutex_);
        answered.swap(answered_);
    }
    for (auto &[id, told] : answered) {
        const auto found = connections_.find(id);
        if (found == connections_.end()) {
            continue;
        }
        connection &who = found->second;
        if (!told || told->bytes.size() > LARGEST_ANSWER) {
            drop(id);
            continue;
        }
        make_room_for(who, told->bytes.size());
        if (!told->streams) {
            say(who, std::move(told->bytes), now);
        } else {
            begin_stream(who, *told);
            who.until_ms = now + (who.out.empty() ? SIGN_OF_LIFE_MS : TAKE_MS);
        }
        if (!write(who, now)) {
            drop(id);
            continue;
        }
        watch(who);
    }
}

// It begins, or goes on with what was before.
void door::begin_stream(connection &who, const answer &told)
{
    who.at = phase::stream;
    who.out += told.bytes;
    who.told = told.told;
    who.asked = false;
    who.live = !told.more;
}

// What a stream is to get next; called when it has taken all. False: it is over.
bool door::feed(connection &who, int64_t now)
{
    if (who.asked) {
        return true;
    }
    {
        const std::lock_guard lock(mutex_);
        if (who.live && who.next < next_event_) {
            // What it did not take in time has gone from here.
            who.live = events_.front().number <= who.next;
        }
        for (const event &each : events_) {
            if (who.live && each.number >= who.next && who.out.size() - who.sent < MUCH_TO_TAKE) {
                who.next = each.number + 1;
                if (each.id > who.told) {
                    who.told = each.id;
                    who.out += *each.text;
                }
            }
        }
    }
    if (!who.live && who.out.empty()) {
        who.asked = true;
        question what;
        what.told = who.told;
        ask(who, std::move(what));
    }
    if (!who.out.empty() && who.sent == 0) {
        who.until_ms = now + TAKE_MS;
    }
    return true;
}

void door::feed_streams(int64_t now)
{
    uint64_t next = 0;
    {
        const std::lock_guard lock(mutex_);
        next = next_event_;
    }
    std::vector<uint64_t> over;
    for (auto &[id, who] : connections_) {
        if (who.at != phase::stream || who.asked || who.next >= next || !who.out.empty()) {
            continue;
        }
        if (!feed(who, now) || (!who.out.empty() && !write(who, now))) {
            over.push_back(id);
            continue;
        }
        watch(who);
    }
    for (const uint64_t id : over) {
        drop(id);
    }
}

void door::look_at_clock(int64_t now)
{
    if (!listens_ && now >= listens_again_ms_) {
        epoll_event wanted{};
        wanted.events = EPOLLIN;
        wanted.data.u64 = LISTENING;
        listens_ = epoll_ctl(epoll_, EPOLL_CTL_ADD, listening_, &wanted) == 0;
        listens_again_ms_ = now + NO_DESCRIPTOR_MS;
    }
    std::vector<uint64_t> over;
    for (auto &[id, who] : connections_) {
        if (now < who.until_ms) {
            continue;
        }
        if (who.at != phase::stream || !who.out.empty()) {
            over.push_back(id);
            continue;
        }
        who.out = ": here\n\n";
        who.until_ms = now + TAKE_MS;
        if (!write(who, now)) {
            over.push_back(id);
            continue;
        }
        watch(who);
    }
    for (const uint64_t id : over) {
        drop(id);
    }
}

int door::wait_ms(int64_t now) const
{
    int64_t until = now + SIGN_OF_LIFE_MS;
    if (!listens_) {
        until = std::min(until, listens_again_ms_);
    }
    for (const auto &[id, each] : connections_) {
        until = std::min(until, each.until_ms);
    }
    return static_cast<int>(std::max<int64_t>(until - now, 0));
}

} // namespace linkd
