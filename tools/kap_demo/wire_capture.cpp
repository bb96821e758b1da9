// The frames are read byte by byte at the places where the wire has them; no layout of the daemon's is used.
#include "wire_capture.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <system_error>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include "name_space.hpp"

namespace
{

constexpr size_t TAG_SIZE = 4;
constexpr size_t LEAST_SIZE = 20; // up to the action
constexpr uint16_t ETHER_TYPE_ECPRI = 0xAEFE;
constexpr uint8_t ONE_WAY_DELAY_MEASUREMENT = 5;
constexpr uint8_t REQUEST = 0;
constexpr uint8_t RESPONSE = 2;
constexpr int RECEIVE_BUFFER = 4 * 1024 * 1024;

// A frame as it was on the wire, its tag taken off.
struct seen_frame {
    uint8_t bytes[64];
    size_t kept;
    size_t size;
    bool tagged;
    uint16_t vlan;
    int64_t stamp;
};

[[noreturn]] void fail(const char *what) { throw std::system_error(errno, std::generic_category(), what); }

void must(int result, const char *what)
{
    if (result != 0) {
        fail(what);
    }
}

uint16_t number_at(const seen_frame &f, size_t at) { return static_cast<uint16_t>(f.bytes[at] << 8 | f.bytes[at + 1]); }

void set_up(int fd, const std::string &interface)
{
    const int on = 1;
    must(setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on), "capture: tags");
    must(setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on), "capture: time stamps");
    // More room where it is allowed; what is dropped for want of it is noticed.
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    if (address.sll_ifindex == 0) {
        fail("capture: the interface");
    }
    must(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), "capture: bind");
}

void read_control(msghdr &header, seen_frame &f)
{
    for (cmsghdr *c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
            timespec stamp;
            memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
            f.stamp = static_cast<int64_t>(stamp.tv_sec) * 1'000'000'000 + stamp.tv_nsec;
        } else if (c->cmsg_level == SOL_PACKET && c->cmsg_type == PACKET_AUXDATA) {
            tpacket_auxdata aux;
            memcpy(&aux, CMSG_DATA(c), sizeof aux);
            f.tagged = (aux.tp_status & TP_STATUS_VLAN_VALID) != 0;
            f.vlan = aux.tp_vlan_tci & 0x0FFF;
        }
    }
}

// A tag that still stands in the frame: the kernel takes it off what comes in, and leaves it in what goes out.
void take_tag_off(seen_frame &f)
{
    if (!f.tagged && number_at(f, 12) == ETH_P_8021Q) {
        f.tagged = true;
        f.vlan = number_at(f, 14) & 0x0FFF;
        f.kept -= TAG_SIZE;
        f.size -= TAG_SIZE;
        memmove(f.bytes + 12, f.bytes + 12 + TAG_SIZE, f.kept - 12);
    }
}

// False: nothing more is there.
bool receive(int fd, seen_frame &f)
{
    alignas(cmsghdr) uint8_t control[256];
    f = {};
    iovec vector = {f.bytes, sizeof f.bytes};
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t size = recvmsg(fd, &header, MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0) {
        if (errno == ENETDOWN) { // the interface was taken down, which is told once
            return receive(fd, f);
        }
        return errno == EAGAIN || errno == EINTR ? false : (fail("capture"), false);
    }
    f.size = static_cast<size_t>(size);
    f.kept = std::min(f.size, sizeof f.bytes);
    read_control(header, f);
    return true;
}

bool has_addresses(const seen_frame &f, const mac_address &destination, const mac_address &source)
{
    return memcmp(f.bytes, destination.byte, 6) == 0 && memcmp(f.bytes + 6, source.byte, 6) == 0;
}

void take_answer(wire_capture &c, uint8_t id, int64_t stamp)
{
    auto asked = std::find_if(c.pings.rbegin(), c.pings.rend(), [=](const wire_ping &p) { return p.id == id; });
    if (asked != c.pings.rend() && asked->answered == 0) {
        asked->answered = stamp;
    }
}

void take_frame(wire_capture &c, seen_frame &f)
{
    if (f.kept < LEAST_SIZE + TAG_SIZE) {
        return;
    }
    take_tag_off(f);
    if (!f.tagged || f.vlan != c.vlan || number_at(f, 12) != ETHER_TYPE_ECPRI ||
        f.bytes[15] != ONE_WAY_DELAY_MEASUREMENT) {
        return;
    }
    const uint8_t id = f.bytes[18];
    const uint8_t action = f.bytes[19];
    if (action == REQUEST && has_addresses(f, c.far_mac, c.near_mac)) {
        c.pings.push_back({id, f.size, f.stamp});
    } else if (action == RESPONSE && has_addresses(f, c.near_mac, c.far_mac)) {
        take_answer(c, id, f.stamp);
    }
}

} // namespace

wire_capture capture_open(const std::string &name_space, const std::string &interface, const mac_address &near_mac,
                          const mac_address &far_mac, uint16_t vlan)
{
    const kap_node::namespace_visit visit(name_space);
    wire_capture c;
    c.near_mac = near_mac;
    c.far_mac = far_mac;
    c.vlan = vlan;
    // Without a protocol it hears nothing until it is bound to its interface.
    c.fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (c.fd < 0) {
        fail("capture: socket");
    }
    set_up(c.fd, interface);
    return c;
}

void capture_close(wire_capture &c)
{
    if (c.fd >= 0) {
        close(c.fd);
    }
    c = {};
}

void capture_drain(wire_capture &c)
{
    seen_frame f;
    while (receive(c.fd, f)) {
        take_frame(c, f);
    }
    tpacket_stats stats{};
    socklen_t size = sizeof stats;
    must(getsockopt(c.fd, SOL_PACKET, PACKET_STATISTICS, &stats, &size), "capture: statistics");
    if (stats.tp_drops > 0) {
        throw std::runtime_error("the capture lost " + std::to_string(stats.tp_drops) + " frames");
    }
}

std::vector<wire_ping> capture_pings_of_size(const wire_capture &c, size_t size)
{
    std::vector<wire_ping> found;
    std::copy_if(c.pings.begin(), c.pings.end(), std::back_inserter(found),
                 [=](const wire_ping &p) { return p.size == size; });
    return found;
}

wire_figures capture_figures(const std::vector<wire_ping> &pings, size_t first, size_t last)
{
    wire_figures figures;
    int64_t sum = 0;
    for (size_t i = first; i < last; i++) {
        const wire_ping &ping = pings.at(i);
        if (ping.answered == 0) {
            continue;
        }
        const int64_t round_trip = ping.answered - ping.asked;
        figures.minimum = figures.answered == 0 ? round_trip : std::min(figures.minimum, round_trip);
        figures.maximum = std::max(figures.maximum, round_trip);
        sum += round_trip;
        figures.answered++;
    }
    figures.average = figures.answered == 0 ? 0 : sum / static_cast<int64_t>(figures.answered);
    return figures;
}
