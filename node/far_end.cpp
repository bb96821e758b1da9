// The far end. See far_end.hpp.
#include "far_end.hpp"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <compare>
#include <cstring>
#include <ctime>
#include <map>
#include <queue>
#include <random>

#include "ecpri.hpp"
#include "packet_socket.hpp"

namespace
{

constexpr size_t MAX_FRAME_BYTES = 9216;
constexpr uint16_t ECPRI_ETHER_TYPE = 0xAEFE;
constexpr uint32_t NO_NANOSECONDS = 0xFFFFFFFFu; // no fraction of a second: the time is not usable
constexpr size_t MAX_PEERS = 65536;              // a flood from ever new addresses must not take all memory

struct peer_key {
    std::string interface;
    uint16_t vlan;
    uint64_t mac;
    auto operator<=>(const peer_key &other) const = default;
};

struct peer_record {
    far_end_counters counters;
    int64_t second; // of the monotonic clock, and how many of its requests were let through in it
    uint32_t in_second;
};

struct delayed_answer {
    int64_t due; // monotonic
    uint64_t order;
    int if_index;
    std::vector<uint8_t> frame;
    peer_record *peer;
    bool operator<(const delayed_answer &other) const // the first one is the greatest
    {
        return due != other.due ? due > other.due : order > other.order;
    }
};

int64_t nanoseconds(clockid_t clock)
{
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

// As a number in the order in which it is read.
uint64_t mac_number(const mac_address &mac)
{
    uint64_t number = 0;
    for (const uint8_t byte : mac.byte) {
        number = number << 8 | byte;
    }
    return number;
}

} // namespace

struct far_end {
    std::array<int, FAR_END_QUEUES> sockets{};
    size_t queues = 0; // of these are open
    int timer = -1;
    int poll = -1;
    std::vector<std::string> interfaces;
    std::map<int, std::string> names; // of interfaces seen; "" for one that is not listed
    far_end_knobs knobs;
    std::map<peer_key, peer_record> peers;
    peer_record others{}; // beyond MAX_PEERS
    far_end_totals totals{};
    int64_t second = 0; // in which the batch at hand was read
    std::priority_queue<delayed_answer> waiting;
    uint64_t order = 0;
    std::mt19937 chance{1}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same losses in every run
    packet::batch batch{};
};

namespace
{

// Interfaces come and go, and an index is not given to another one while the kernel runs. A rename is found when
// somebody has it look anew.
const std::string &listed_name(far_end *f, int if_index)
{
    const auto known = f->names.find(if_index);
    if (known != f->names.end()) {
        return known->second;
    }
    char name[16] = {};
    const bool listed = packet::interface_name(f->sockets[0], if_index, name) &&
                        std::find(f->interfaces.begin(), f->interfaces.end(), name) != f->interfaces.end();
    return f->names[if_index] = listed ? name : "";
}

peer_record *record_of(far_end *f, const std::string &interface, uint16_t vlan, const mac_address &peer)
{
    const peer_key key{interface, vlan, mac_number(peer)};
    const auto known = f->peers.find(key);
    if (known != f->peers.end()) {
        return &known->second;
    }
    if (f->peers.size() >= MAX_PEERS) {
        f->totals.uncounted++;
        return &f->others;
    }
    return &f->peers.emplace(key, peer_record{{interface, vlan, peer, 0, 0, 0, 0}, 0, 0}).first->second;
}

// Those that share a record have no bound of their own: who comes late must not wait for others.
bool asks_too_often(const far_end *f, peer_record *peer)
{
    if (f->knobs.per_second == 0 || peer == &f->others) {
        return false;
    }
    if (peer->second != f->second) {
        peer->second = f->second;
        peer->in_second = 0;
    }
    if (peer->in_second >= f->knobs.per_second) {
        return true;
    }
    peer->in_second++;
    return false;
}

bool stays_unanswered(far_end *f)
{
    if (f->knobs.silent) {
        return true;
    }
    if (f->knobs.drop_next > 0) {
        f->knobs.drop_next--;
        return true;
    }
    return f->knobs.loss_percent > 0 &&
           std::uniform_int_distribution<uint32_t>(0, 99)(f->chance) < f->knobs.loss_percent;
}

// The request with its addresses exchanged, its tag put back, the other action and the time it was received. What lies
// behind the measurement goes back as it came.
std::vector<uint8_t> build_answer(const far_end *f, const packet::received &r, ecpri::measurement m)
{
    const ecpri::vlan_tag tag{to_be16(r.tpid), to_be16(r.tci)};
    std::swap(m.destination, m.source);
    m.action = ecpri::ACTION_RESPONSE;
    m.seconds = static_cast<uint64_t>(r.stamp / 1'000'000'000);
    m.nanoseconds = f->knobs.unusable_time ? NO_NANOSECONDS : static_cast<uint32_t>(r.stamp % 1'000'000'000);

    std::vector<uint8_t> frame(r.length + (r.tagged ? sizeof tag : 0));
    // A short frame is filled up on a real cable; the payload size of the answer is that of the request.
    const size_t payload = static_cast<size_t>(r.bytes[16]) << 8 | r.bytes[17];
    const size_t size = sizeof(ecpri::ethernet_header) + ecpri::COMMON_HEADER_SIZE + payload;
    const size_t dummy = ecpri::put_measurement(frame.data(), m, size, r.tagged ? &tag : nullptr);
    memcpy(frame.data() + dummy, r.bytes + ecpri::MIN_FRAME_SIZE, r.length - ecpri::MIN_FRAME_SIZE);
    return frame;
}

void send_answer(far_end *f, int if_index, const std::vector<uint8_t> &frame, far_end_counters *counters)
{
    const bool sent = packet::send_frame(f->sockets[0], if_index, frame.data(), frame.size()) == 0;
    (sent ? counters->answered : counters->failed)++;
    (sent ? f->totals.answered : f->totals.failed)++;
}

bool is_group(const mac_address &mac) { return (mac.byte[0] & 1) != 0; }

// To this interface, from somebody else to whom an answer can be sent.
bool is_for_this_end(const far_end *f, const packet::received &r, const ecpri::measurement &m)
{
    return (f->knobs.any_address ? !is_group(m.destination) : r.to_interface) && !is_group(m.source) &&
           mac_number(m.source) != 0 && !mac_equal(m.source, m.destination);
}

void answer_request(far_end *f, const packet::received &r)
{
    ecpri::measurement m{};
    if (r.outgoing || r.length > r.available || !ecpri::get_measurement(r.bytes, r.available, r.length, &m) ||
        m.action != ecpri::ACTION_REQUEST || !is_for_this_end(f, r, m)) {
        return;
    }
    const std::string &interface = listed_name(f, r.if_index);
    const uint16_t vlan = r.tagged ? r.tci & 0x0FFF : 0;
    if (interface.empty()) {
        return;
    }
    peer_record *peer = record_of(f, interface, vlan, m.source);
    peer->counters.requests++;
    f->totals.requests++;
    if (stays_unanswered(f) || asks_too_often(f, peer)) {
        peer->counters.dropped++;
        f->totals.dropped++;
        return;
    }
    std::vector<uint8_t> frame = build_answer(f, r, m);
    if (f->knobs.delay_us == 0) {
        send_answer(f, r.if_index, frame, &peer->counters);
        return;
    }
    const int64_t due = nanoseconds(CLOCK_MONOTONIC) + static_cast<int64_t>(f->knobs.delay_us) * 1000;
    f->waiting.push({due, f->order++, r.if_index, std::move(frame), peer});
}

void set_timer(far_end *f)
{
    itimerspec when{};
    if (!f->waiting.empty()) {
        const int64_t due = f->waiting.top().due;
        when.it_value = {static_cast<time_t>(due / 1'000'000'000), static_cast<long>(due % 1'000'000'000)};
    }
    timerfd_settime(f->timer, TFD_TIMER_ABSTIME, &when, nullptr);
}

void send_what_is_due(far_end *f)
{
    const int64_t now = nanoseconds(CLOCK_MONOTONIC);
    while (!f->waiting.empty() && f->waiting.top().due <= now) {
        const delayed_answer &a = f->waiting.top();
        send_answer(f, a.if_index, a.frame, &a.peer->counters);
        f->waiting.pop();
    }
}

bool watch(const far_end *f, int fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return fd >= 0 && epoll_ctl(f->poll, EPOLL_CTL_ADD, fd, &event) == 0;
}

constexpr packet::filter REQUESTS{ecpri::ACTION_REQUEST, {ECPRI_ETHER_TYPE}, 1};
constexpr packet::filter NOTHING{ecpri::ACTION_REQUEST, {}, 0};

bool open_first_queue(far_end *f)
{
    f->sockets[0] = packet::open_socket(REQUESTS);
    f->queues = f->sockets[0] >= 0 ? 1 : 0;
    return f->queues == 1;
}

void close_queues(far_end *f)
{
    while (f->queues > 0) {
        close(f->sockets[--f->queues]);
    }
}

// A socket takes nothing in before it shares the frames with the others, or a request would be answered by several.
bool open_shared_queues(far_end *f, unsigned queues)
{
    int group = packet::NO_GROUP;
    for (; f->queues < queues; f->queues++) {
        const int fd = packet::open_socket(NOTHING);
        if (fd < 0) {
            return false;
        }
        f->sockets[f->queues] = fd;
        if (!packet::share_by_sender(fd, &group)) {
            f->queues++;
            return false;
        }
    }
    return std::all_of(f->sockets.begin(), f->sockets.begin() + queues,
                       [](int fd) { return packet::set_filter(fd, REQUESTS); });
}

bool open_queues(far_end *f, unsigned queues)
{
    if (queues <= 1) {
        return open_first_queue(f);
    }
    if (open_shared_queues(f, std::min(queues, FAR_END_QUEUES))) {
        return true;
    }
    close_queues(f);
    return open_first_queue(f);
}

bool open_descriptors(far_end *f, unsigned queues)
{
    f->poll = epoll_create1(EPOLL_CLOEXEC);
    f->timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    return f->poll >= 0 && watch(f, f->timer) && open_queues(f, queues) &&
           std::all_of(f->sockets.begin(), f->sockets.begin() + static_cast<ptrdiff_t>(f->queues),
                       [f](int fd) { return watch(f, fd); }) &&
           packet::batch_init(&f->batch, MAX_FRAME_BYTES);
}

void answer_a_batch(far_end *f, int socket)
{
    const size_t count = packet::receive(socket, &f->batch);
    for (size_t i = 0; i < count; i++) {
        answer_request(f, f->batch.frames[i]);
    }
}

// Each queue in its turn, a batch of it. To ask which of them has something costs less than to look into every one, and
// whoever waits for an answer measures it.
void answer_what_is_there(far_end *f)
{
    f->second = f->knobs.per_second > 0 ? nanoseconds(CLOCK_MONOTONIC) / 1'000'000'000 : 0;
    if (f->queues == 1) {
        answer_a_batch(f, f->sockets[0]);
        return;
    }
    epoll_event ready[FAR_END_QUEUES + 1];
    const int count = epoll_wait(f->poll, ready, FAR_END_QUEUES + 1, 0);
    for (int i = 0; i < count; i++) {
        if (ready[i].data.fd != f->timer) {
            answer_a_batch(f, ready[i].data.fd);
        }
    }
}

} // namespace

far_end *far_end_open(const std::vector<std::string> &interfaces, std::string *error, unsigned queues)
{
    if (interfaces.empty()) {
        *error = "the far end has no interface to answer on";
        return nullptr;
    }
    auto *f = new far_end;
    f->interfaces = interfaces;
    if (!open_descriptors(f, queues)) {
        const int saved_errno = errno;
        *error = std::string("the far end cannot open its socket: ") + strerror(saved_errno);
        far_end_close(f);
        errno = saved_errno;
        return nullptr;
    }
    return f;
}

void far_end_close(far_end *f)
{
    close_queues(f);
    for (const int fd : {f->timer, f->poll}) {
        if (fd >= 0) {
            close(fd);
        }
    }
    packet::batch_free(&f->batch);
    delete f;
}

int far_end_fd(const far_end *f) { return f->poll; }

void far_end_handle(far_end *f)
{
    const bool waited = !f->waiting.empty();
    if (waited) {
        uint64_t expirations = 0;
        (void)!read(f->timer, &expirations, sizeof expirations); // what is due is decided by the clock
        send_what_is_due(f);
    }
    answer_what_is_there(f);
    if (waited || !f->waiting.empty()) {
        set_timer(f);
    }
}

far_end_knobs &far_end_get_knobs(far_end *f) { return f->knobs; }

std::vector<far_end_counters> far_end_get_counters(const far_end *f)
{
    std::vector<far_end_counters> all;
    for (const auto &[key, peer] : f->peers) {
        all.push_back(peer.counters);
    }
    return all;
}

far_end_totals far_end_get_totals(far_end *f)
{
    for (size_t queue = 0; queue < f->queues; queue++) {
        f->totals.lost += packet::take_drops(f->sockets[queue]);
    }
    return f->totals;
}

// Those that are listed are asked for at once, and not when somebody waits for an answer.
void far_end_look_anew(far_end *f)
{
    f->names.clear();
    for (const std::string &name : f->interfaces) {
        const int if_index = packet::interface_index(f->sockets[0], name.c_str());
        if (if_index != 0) {
            f->names[if_index] = name;
        }
    }
}

int far_end_socket(const far_end *f) { return f->sockets[0]; }
