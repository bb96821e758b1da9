// What lies between the time that a sender of frames takes for itself and the wire: the sender's stamp before sendto,
// the kernel's when the frame goes to the interface's taps (a capture's stamp), the kernel's transmit stamp, and what
// it costs to ask for that.
//
// On a veth pair in namespaces of its own, one frame every 20 ms, as a supervised link's would be: the caches are as
// cold as after a sleep. All in microseconds; the median of each, and the tenth and ninetieth percentile.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include <arpa/inet.h>
#include <linux/errqueue.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/net_tstamp.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include "program_call.hpp"

namespace
{

constexpr uint16_t PROTOCOL = 0xAEFE;
constexpr int PAUSE_MS = 20;

void must(bool good, const char *what)
{
    if (!good) {
        perror(what);
        exit(1);
    }
}

int64_t now()
{
    timespec t{};
    clock_gettime(CLOCK_REALTIME, &t);
    return t.tv_sec * 1'000'000'000LL + t.tv_nsec;
}

int packet_socket(const char *interface, uint16_t protocol)
{
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, htons(protocol));
    must(fd >= 0, "packet socket (needs root)");
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(protocol);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    must(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, interface);
    return fd;
}

void switch_on(int fd, int option, int value)
{
    must(setsockopt(fd, SOL_SOCKET, option, &value, sizeof value) == 0, "setsockopt");
}

// The stamp of the next frame, or of the next entry of the error queue; 0: there is none.
int64_t next_stamp(int fd, int flags)
{
    uint8_t frame[256];
    alignas(cmsghdr) uint8_t control[512];
    iovec vector = {frame, sizeof frame};
    msghdr header{};
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    if (recvmsg(fd, &header, flags | MSG_DONTWAIT) < 0) {
        return 0;
    }
    for (cmsghdr *c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level == SOL_SOCKET && (c->cmsg_type == SCM_TIMESTAMPNS || c->cmsg_type == SCM_TIMESTAMPING)) {
            timespec t{};
            memcpy(&t, CMSG_DATA(c), sizeof t);
            return t.tv_sec * 1'000'000'000LL + t.tv_nsec;
        }
    }
    return 0;
}

int64_t await_stamp(int fd, int flags)
{
    for (int i = 0; i < 1000; i++) {
        const int64_t stamp = next_stamp(fd, flags);
        if (stamp != 0) {
            return stamp;
        }
        poll(nullptr, 0, 1);
    }
    return 0;
}

void print(const char *what, std::vector<int64_t> &values)
{
    if (values.empty()) {
        printf("%-66s none\n", what);
        return;
    }
    std::sort(values.begin(), values.end());
    auto at = [&](size_t percent) { return static_cast<double>(values[(values.size() - 1) * percent / 100]) / 1e3; };
    printf("%-66s %8.2f %8.2f %8.2f\n", what, at(10), at(50), at(90));
}

void measure(bool transmit_stamps, int count)
{
    const int sender = packet_socket("near0", 0);
    const int tap = packet_socket("near0", ETH_P_ALL);
    const int receiver = packet_socket("far0", PROTOCOL);
    switch_on(tap, SO_TIMESTAMPNS, 1);
    switch_on(receiver, SO_TIMESTAMPNS, 1);
    if (transmit_stamps) {
        switch_on(sender, SO_TIMESTAMPING,
                  SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE | SOF_TIMESTAMPING_OPT_TSONLY);
    }
    uint8_t frame[64] = {0x02, 0, 0, 0, 0, 2, 0x02, 0, 0, 0, 0, 1, PROTOCOL >> 8, PROTOCOL & 0xFF};
    std::vector<int64_t> clock, to_tap, to_transmit, to_receiver, sending, asking;
    for (int i = 0; i < count; i++) {
        poll(nullptr, 0, PAUSE_MS);
        const int64_t before = now();
        const int64_t start = now();
        must(send(sender, frame, sizeof frame, 0) == sizeof frame, "send");
        const int64_t sent = now();
        clock.push_back(start - before);
        sending.push_back(sent - start);
        to_tap.push_back(await_stamp(tap, 0) - start);
        to_receiver.push_back(await_stamp(receiver, 0) - start);
        if (transmit_stamps) {
            const int64_t asked = now();
            const int64_t stamp = next_stamp(sender, MSG_ERRQUEUE);
            asking.push_back(now() - asked);
            if (stamp != 0) {
                to_transmit.push_back(stamp - start);
            }
        }
    }
    printf("%-66s %8s %8s %8s\n", transmit_stamps ? "with transmit stamps" : "without transmit stamps", "10 %", "50 %",
           "90 %");
    print("  reading the clock", clock);
    print("  sender's stamp to the capture's, on the same interface", to_tap);
    print("  sender's stamp to the kernel's transmit stamp", to_transmit);
    print("  sender's stamp to the receiver's, on the far interface", to_receiver);
    print("  the call that sends", sending);
    print("  the call that asks for the transmit stamp", asking);
    close(sender);
    close(tap);
    close(receiver);
}

constexpr program_call PROGRAM = {
    "send_stamp", "usage: send_stamp [FRAMES] | --help | --version\n"
                  "From a sender's time stamp to the wire, FRAMES (500) times with and without transmit stamps.\n"};

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    const long frames = argc > 1 ? strtol(argv[1], nullptr, 10) : 500;
    if (frames < 1 || frames > 100000 || argc > 2) {
        return program_refuse(PROGRAM, "FRAMES is a whole number from 1 to 100000");
    }
    const int count = static_cast<int>(frames);
    must(unshare(CLONE_NEWNET) == 0, "a network namespace (needs root)");
    // NOLINTNEXTLINE(cert-env33-c): its own words
    must(system("ip link add near0 type veth peer name far0 && ip link set near0 addrgenmode none up && "
                "ip link set far0 addrgenmode none up") == 0,
         "ip");
    measure(false, count);
    measure(true, count);
    return program_end(PROGRAM, 0);
}
