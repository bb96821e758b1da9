#include "send_path.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <system_error>
#include <vector>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "name_space.hpp"
#include "slowness.hpp"

namespace
{

constexpr uint16_t EXPERIMENTAL = 0x88B5; // set aside for such use on a wire of one's own
constexpr int FRAMES = 25;
constexpr int PAUSE_MS = 20;
constexpr int SEEN_BOUND_MS = 1000;
constexpr int64_t AVERAGE_NS = 50'000;
constexpr int64_t SINGLE_NS = 150'000;
constexpr int64_t OF_THE_SEND_PATH = 3;

struct frame {
    ethhdr header;
    uint8_t number;
    uint8_t rest[45];
};
static_assert(sizeof(frame) == 60);

[[noreturn]] void fail(const char *what) { throw std::system_error(errno, std::generic_category(), what); }

int64_t nanoseconds(const timespec &t) { return int64_t{t.tv_sec} * 1'000'000'000 + t.tv_nsec; }

int64_t now()
{
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    return nanoseconds(t);
}

struct packet_socket {
    packet_socket(const std::string &interface, uint16_t protocol)
        : fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(protocol);
        address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
        if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            const int why = errno;
            close(fd);
            errno = why;
            fail("the send path: a packet socket");
        }
    }
    ~packet_socket() { close(fd); }
    packet_socket(const packet_socket &) = delete;
    packet_socket &operator=(const packet_socket &) = delete;
    int fd;
};

// The kernel's stamp of our frame of this number; 0: something else, or nothing.
int64_t stamp_of_next(int fd, uint8_t number)
{
    frame seen{};
    alignas(cmsghdr) uint8_t control[256];
    iovec vector = {&seen, sizeof seen};
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    if (recvmsg(fd, &header, MSG_DONTWAIT) < 0 || seen.header.h_proto != htons(EXPERIMENTAL) || seen.number != number) {
        return 0;
    }
    for (cmsghdr *c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
            timespec stamp;
            memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
            return nanoseconds(stamp);
        }
    }
    return 0;
}

int64_t await_stamp(int fd, uint8_t number)
{
    for (int waited = 0; waited < SEEN_BOUND_MS * slowness(); waited++) {
        pollfd readable = {fd, POLLIN, 0};
        while (poll(&readable, 1, 0) == 1) {
            const int64_t stamp = stamp_of_next(fd, number);
            if (stamp != 0) {
                return stamp;
            }
        }
        poll(nullptr, 0, 1);
    }
    throw std::runtime_error("the send path: a frame was not seen on its way out");
}

} // namespace

send_path send_path_measure(const std::string &name_space, const std::string &interface)
{
    const kap_node::namespace_visit visit(name_space);
    const packet_socket sender(interface, 0);
    const packet_socket tap(interface, ETH_P_ALL);
    const int on = 1;
    if (setsockopt(tap.fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0) {
        fail("the send path: time stamps");
    }
    frame f{};
    memcpy(f.header.h_dest, "\x02\x00\x00\x00\x00\x02", ETH_ALEN); // nobody's
    memcpy(f.header.h_source, "\x02\x00\x00\x00\x00\x01", ETH_ALEN);
    f.header.h_proto = htons(EXPERIMENTAL);
    std::vector<int64_t> took;
    for (f.number = 0; f.number < FRAMES; f.number++) {
        poll(nullptr, 0, PAUSE_MS);
        const int64_t start = now();
        if (send(sender.fd, &f, sizeof f, 0) < 0) {
            fail("the send path: sending");
        }
        took.push_back(await_stamp(tap.fd, f.number) - start);
    }
    std::sort(took.begin(), took.end());
    return {took[took.size() / 2], took.back()};
}

void send_experimental(const std::string &name_space, const std::string &interface, const uint8_t (&to)[6], int count)
{
    const kap_node::namespace_visit visit(name_space);
    const packet_socket sender(interface, 0);
    frame f{};
    memcpy(f.header.h_dest, to, ETH_ALEN);
    memcpy(f.header.h_source, "\x02\x00\x00\x00\x00\x01", ETH_ALEN);
    f.header.h_proto = htons(EXPERIMENTAL);
    for (f.number = 0; f.number < count; f.number++) {
        if (send(sender.fd, &f, sizeof f, 0) < 0) {
            fail("the send path: sending");
        }
    }
}

rtt_tolerance rtt_tolerance_of(const send_path &path)
{
    return {std::max(AVERAGE_NS, OF_THE_SEND_PATH * path.median), std::max(SINGLE_NS, OF_THE_SEND_PATH * path.most)};
}
