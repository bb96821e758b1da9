// One thread, one socket, a queue of what is due.
#include "naive_peer.hpp"

#include <poll.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <queue>

#include "ecpri.hpp"
#include "packet_socket.hpp"

namespace
{

constexpr int64_t SECOND = 1'000'000'000;
constexpr int WARM_UP_SECONDS = 2;

int64_t nanoseconds(clockid_t clock)
{
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<int64_t>(t.tv_sec) * SECOND + t.tv_nsec;
}

void must(bool holds, const char *what)
{
    if (!holds) {
        (void)fprintf(stderr, "naive peer: %s: %s\n", what, strerror(errno));
        exit(1);
    }
}

mac_address near_mac() { return {{0x02, 0, 0, 0, 0, 1}}; }

struct peer_session {
    int64_t due;
    uint32_t number;
    bool operator<(const peer_session &other) const { return due > other.due; }
};

void send_peer_request(int fd, int if_index, uint32_t session, uint8_t id)
{
    const int64_t now = nanoseconds(CLOCK_REALTIME);
    const ecpri::measurement m{.destination = naive_peer_far_mac(session),
                               .source = near_mac(),
                               .ether_type = 0xAEFE,
                               .measurement_id = id,
                               .action = ecpri::ACTION_REQUEST,
                               .seconds = static_cast<uint64_t>(now / SECOND),
                               .nanoseconds = static_cast<uint32_t>(now % SECOND)};
    const ecpri::vlan_tag tag{to_be16(0x8100), to_be16(static_cast<uint16_t>(0xE000 | naive_peer_vlan(session)))};
    uint8_t frame[68] = {};
    ecpri::put_measurement(frame, m, 64, &tag);
    packet::send_frame(fd, if_index, frame, sizeof frame);
}

} // namespace

// Each session has a far end of its own, and VLANs are shared by a few.
mac_address naive_peer_far_mac(uint32_t session)
{
    return {{0x02, 1, 0, static_cast<uint8_t>(session >> 16), static_cast<uint8_t>(session >> 8),
             static_cast<uint8_t>(session)}};
}

uint16_t naive_peer_vlan(uint32_t session) { return static_cast<uint16_t>(1 + session % 4000); }

ping_figures naive_peer_measure(const char *if_name, uint32_t sessions, int seconds)
{
    const packet::filter answers{ecpri::ACTION_RESPONSE, {0xAEFE}, 1};
    const int fd = packet::open_socket(answers);
    must(fd >= 0, "packet socket");
    const int if_index = packet::interface_index(fd, if_name);
    packet::batch batch{};
    must(packet::batch_init(&batch, 64), "memory");

    const int64_t start = nanoseconds(CLOCK_MONOTONIC);
    const int64_t begin = start + WARM_UP_SECONDS * SECOND;
    const int64_t end = begin + seconds * SECOND;
    std::priority_queue<peer_session> due;
    for (uint32_t i = 0; i < sessions; i++) {
        due.push({start + static_cast<int64_t>(i) * (SECOND / sessions), i});
    }
    ping_figures f{};
    int64_t cpu_before = -1;
    uint64_t sent = 0;
    for (int64_t now = start; now < end; now = nanoseconds(CLOCK_MONOTONIC)) {
        if (cpu_before < 0 && now >= begin) {
            cpu_before = nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
            f.pings = 0;
            sent = 0;
        }
        f.pings += packet::receive(fd, &batch);
        if (due.top().due <= now) {
            peer_session next = due.top();
            due.pop();
            send_peer_request(fd, if_index, next.number, static_cast<uint8_t>(next.due / SECOND));
            next.due += SECOND;
            due.push(next);
            sent++;
            continue;
        }
        const int64_t left = due.top().due - now;
        const timespec timeout{static_cast<time_t>(left / SECOND), static_cast<long>(left % SECOND)};
        pollfd p{fd, POLLIN, 0};
        ppoll(&p, 1, &timeout, nullptr);
    }
    f.cpu_us = static_cast<double>(nanoseconds(CLOCK_PROCESS_CPUTIME_ID) - cpu_before) / 1000;
    f.lost = sent > f.pings ? sent - f.pings : 0;
    return f;
}
