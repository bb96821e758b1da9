// The far end. See far_end.hpp.
#include "far_end.hpp"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
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

struct delayed_answer {
    int64_t due; // monotonic
    uint64_t order;
    int if_index;
    std::vector<uint8_t> frame;
    far_end_counters *counters;
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
    int socket = -1;
    int timer = -1;
    int poll = -1;
    std::vector<std::string> interfaces;
    std::map<int, std::string> names; // of interfaces seen; "" for one that is not listed
    far_end_knobs knobs;
    std::map<peer_key, far_end_counters> peers;
    std::priority_queue<delayed_answer> waiting;
    uint64_t order = 0;
    std::mt19937 chance{1}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same losses in every run
    packet::batch batch{};
};

namespace
{

// Interfaces come and go, and an index is not given to another one while the kernel runs. A rename is found too late;
// nobody renames the interface a link runs on.
const std::string &listed_name(far_end *f, int if_index)
{
    const auto known = f->names.find(if_index);
    if (known != f->names.end()) {
        return known->second;
    }
    char name[16] = {};
    const bool listed = packet::interface_name(f->socket, if_index, name) &&
                        std::find(f->interfaces.begin(), f->interfaces.end(), name) != f->interfaces.end();
    return f->names[if_index] = listed ? name : "";
}

far_end_counters *counters_of(far_end *f, const std::string &interface, uint16_t vlan, const mac_address &peer)
{
    const peer_key key{interface, vlan, mac_number(peer)};
    const auto known = f->peers.find(key);
    if (known != f->peers.end()) {
        return &known->second;
    }
    if (f->peers.size() >= MAX_PEERS) {
        return nullptr;
    }
    return &f->peers.emplace(key, far_end_counters{interface, vlan, peer, 0, 0, 0, 0}).first->second;
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
    const bool sent = packet::send_frame(f->socket, if_index, frame.data(), frame.size()) == 0;
    counters->answered += sent ? 1 : 0;
    counters->failed += sent ? 0 : 1;
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
    if (r.length > r.available || !ecpri::get_measurement(r.bytes, r.available, r.length, &m) ||
        m.action != ecpri::ACTION_REQUEST || !is_for_this_end(f, r, m)) {
        return;
    }
    const std::string &interface = listed_name(f, r.if_index);
    const uint16_t vlan = r.tagged ? r.tci & 0x0FFF : 0;
    far_end_counters *counters = interface.empty() ? nullptr : counters_of(f, interface, vlan, m.source);
    if (counters == nullptr) {
        return;
    }
    counters->requests++;
    if (stays_unanswered(f)) {
        counters->dropped++;
        return;
    }
    std::vector<uint8_t> frame = build_answer(f, r, m);
    if (f->knobs.delay_us == 0) {
        send_answer(f, r.if_index, frame, counters);
        return;
    }
    const int64_t due = nanoseconds(CLOCK_MONOTONIC) + static_cast<int64_t>(f->knobs.delay_us) * 1000;
    f->waiting.push({due, f->order++, r.if_index, std::move(frame), counters});
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
        send_answer(f, a.if_index, a.frame, a.counters);
        f->waiting.pop();
    }
}

bool watch(const far_end *f, int fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    return fd >= 0 && epoll_ctl(f->poll, EPOLL_CTL_ADD, fd, &event) == 0;
}

bool open_descriptors(far_end *f)
{
    const packet::filter filter{ecpri::ACTION_REQUEST, {ECPRI_ETHER_TYPE}, 1};
    f->poll = epoll_create1(EPOLL_CLOEXEC);
    f->timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    f->socket = f->poll >= 0 && f->timer >= 0 ? packet::open_socket(filter) : -1;
    return watch(f, f->timer) && watch(f, f->socket) && packet::batch_init(&f->batch, MAX_FRAME_BYTES);
}

} // namespace

far_end *far_end_open(const std::vector<std::string> &interfaces, std::string *error)
{
    if (interfaces.empty()) {
        *error = "the far end has no interface to answer on";
        return nullptr;
    }
    auto *f = new far_end;
    f->interfaces = interfaces;
    if (!open_descriptors(f)) {
        *error = std::string("the far end cannot open its socket: ") + strerror(errno);
        far_end_close(f);
        return nullptr;
    }
    return f;
}

void far_end_close(far_end *f)
{
    for (const int fd : {f->socket, f->timer, f->poll}) {
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
    uint64_t expirations = 0;
    // Not blocking; what is due is decided by the clock.
    const bool expired = read(f->timer, &expirations, sizeof expirations) > 0;
    if (expired || !f->waiting.empty()) {
        send_what_is_due(f);
    }
    const size_t count = packet::receive(f->socket, &f->batch);
    for (size_t i = 0; i < count; i++) {
        answer_request(f, f->batch.frames[i]);
    }
    set_timer(f);
}

far_end_knobs &far_end_get_knobs(far_end *f) { return f->knobs; }

std::vector<far_end_counters> far_end_get_counters(const far_end *f)
{
    std::vector<far_end_counters> all;
    for (const auto &[key, counters] : f->peers) {
        all.push_back(counters);
    }
    return all;
}
