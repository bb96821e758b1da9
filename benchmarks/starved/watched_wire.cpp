// A wire that can be cut, and a look at it. See watched_wire.hpp.
#include "watched_wire.hpp"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_bridge.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "load.hpp"
#include "name_space.hpp"
#include "packet_socket.hpp"
#include "process.hpp"
#include "wires.hpp"

#include "ecpri.hpp"

namespace
{

constexpr uint16_t BFD_PORT = 3784;
constexpr size_t MOST_UNANSWERED = 16;
constexpr size_t FRAME_BYTES = 64;
constexpr int RECEIVE_BUFFER = 16 * 1024 * 1024;

[[noreturn]] void fail(const std::string &what) { throw std::runtime_error(what + ": " + strerror(errno)); }

void ip(const std::vector<std::string> &words)
{
    std::vector<std::string> command = {"ip"};
    command.insert(command.end(), words.begin(), words.end());
    command_must(command);
}

std::string bridge_of(const std::string &interface) { return "br-" + interface; }

void lay_end(const std::string &space, const std::string &interface, const std::string &middle_end,
             const mac_address &mac)
{
    command_run({"ip", "-n", space, "link", "delete", interface});
    ip({"link", "add", interface, "netns", space, "type", "veth", "peer", "name", middle_end, "netns",
        MIDDLE_NAMESPACE});
    ip({"-n", space, "link", "set", interface, "address", mac_to_text(mac), "addrgenmode", "none", "up"});
    ip({"-n", MIDDLE_NAMESPACE, "link", "set", middle_end, "addrgenmode", "none", "master", bridge_of(interface),
        "up"});
}

uint64_t number_of(const mac_address &mac)
{
    uint64_t number = 0;
    memcpy(&number, mac.byte, sizeof mac.byte);
    return number;
}

// IPv4 and UDP to the port of BFD, without options, that came from outside.
int open_bfd_socket()
{
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, 5),
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 23), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 3),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 36), BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, BFD_PORT, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, FRAME_BYTES), BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog program{std::size(code), code};
    const int on = 1;
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on) != 0 ||
        setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        fail("a socket for the packets of BFD");
    }
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
    return fd;
}

int open_measurement_socket(uint8_t action)
{
    const int fd = packet::open_socket({action, {0xAEFE}, 1});
    if (fd < 0) {
        fail("a socket for delay measurements");
    }
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
    return fd;
}

void take_answer(conversation &c, int64_t stamp)
{
    c.last_answer = stamp;
    std::erase_if(c.unanswered, [=](int64_t request) { return request <= stamp; });
}

// An answer that was read first, from the other socket, does not make an earlier request unanswered.
void take_request(conversation &c, int64_t stamp)
{
    if (stamp > c.last_answer && c.unanswered.size() < MOST_UNANSWERED) {
        c.unanswered.push_back(stamp);
    }
}

} // namespace

void wire_lay_through_middle(const std::string &near, const std::string &far, const std::string &interface,
                             const mac_address &near_mac, const mac_address &far_mac)
{
    command_run({"ip", "netns", "add", MIDDLE_NAMESPACE});
    ip({"-n", MIDDLE_NAMESPACE, "link", "add", bridge_of(interface), "type", "bridge", "stp_state", "0",
        "mcast_snooping", "0"});
    ip({"-n", MIDDLE_NAMESPACE, "link", "set", bridge_of(interface), "addrgenmode", "none", "up"});
    lay_end(near, interface, "n-" + interface, near_mac);
    lay_end(far, interface, "f-" + interface, far_mac);
}

void wire_cut(const std::string &interface, bool cut)
{
    const kap_node::namespace_visit visit(MIDDLE_NAMESPACE);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    (void)snprintf(request.ifr_name, sizeof request.ifr_name, "%s", bridge_of(interface).c_str());
    request.ifr_ifindex = static_cast<int>(if_nametoindex(("f-" + interface).c_str()));
    const int result = ioctl(fd, cut ? SIOCBRDELIF : SIOCBRADDIF, &request);
    close(fd);
    if (result != 0) {
        fail(cut ? "cutting a wire" : "mending a wire");
    }
}

int64_t now_real_ns()
{
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    return static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + t.tv_nsec;
}

Watch::Watch(const std::string &bfd_namespace)
{
    {
        const kap_node::namespace_visit visit(MIDDLE_NAMESPACE);
        requests_ = open_measurement_socket(ecpri::ACTION_REQUEST);
        responses_ = open_measurement_socket(ecpri::ACTION_RESPONSE);
    }
    if (!bfd_namespace.empty()) {
        const kap_node::namespace_visit visit(bfd_namespace);
        bfd_ = open_bfd_socket();
    }
    stop_ = eventfd(0, EFD_CLOEXEC);
    thread_ = std::thread([this] { run(); });
}

Watch::~Watch()
{
    const uint64_t one = 1;
    (void)!write(stop_, &one, sizeof one);
    thread_.join();
    for (const int fd : {requests_, responses_, bfd_, stop_}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

conversation Watch::of_mac(const mac_address &far_mac) const
{
    const std::lock_guard held(lock_);
    const auto found = by_mac_.find(number_of(far_mac));
    return found == by_mac_.end() ? conversation{} : found->second;
}

conversation Watch::of_address(uint32_t far_address) const
{
    const std::lock_guard held(lock_);
    const auto found = by_address_.find(far_address);
    return found == by_address_.end() ? conversation{} : found->second;
}

void Watch::run()
{
    load_take_precedence(); // allowed, or there were no load
    pollfd polled[] = {{stop_, POLLIN, 0}, {requests_, POLLIN, 0}, {responses_, POLLIN, 0}, {bfd_, POLLIN, 0}};
    for (;;) {
        poll(polled, std::size(polled), -1);
        if ((polled[0].revents & POLLIN) != 0) {
            return;
        }
        take_measurements(requests_, true);
        take_measurements(responses_, false);
        take_bfd();
        poll(nullptr, 0, 20); // the kernel has stamped what waits
    }
}

// A frame passes the middle twice, in at one port of the bridge; only that is seen. After a cut a request still comes
// in, and its answer does not.
void Watch::take_measurements(int fd, bool requests)
{
    packet::batch batch;
    if (!packet::batch_init(&batch, FRAME_BYTES)) {
        return;
    }
    for (size_t count = 0; (count = packet::receive(fd, &batch)) > 0;) {
        const std::lock_guard held(lock_);
        for (size_t i = 0; i < count; i++) {
            const packet::received &frame = batch.frames[i];
            mac_address far{};
            if (frame.available < 2 * sizeof far.byte) {
                continue;
            }
            memcpy(far.byte, frame.bytes + (requests ? 0 : sizeof far.byte), sizeof far.byte);
            conversation &c = by_mac_[number_of(far)];
            requests ? take_request(c, frame.stamp) : take_answer(c, frame.stamp);
        }
    }
    packet::batch_free(&batch);
}

void Watch::take_bfd()
{
    packet::batch batch;
    if (bfd_ < 0 || !packet::batch_init(&batch, FRAME_BYTES)) {
        return;
    }
    for (size_t count = 0; (count = packet::receive(bfd_, &batch)) > 0;) {
        const std::lock_guard held(lock_);
        for (size_t i = 0; i < count; i++) {
            uint32_t source = 0;
            if (batch.frames[i].available >= 30) {
                memcpy(&source, batch.frames[i].bytes + 26, sizeof source);
                take_answer(by_address_[ntohl(source)], batch.frames[i].stamp);
            }
        }
    }
    packet::batch_free(&batch);
}
