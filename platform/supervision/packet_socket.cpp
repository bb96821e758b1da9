// The packet socket. See packet_socket.hpp.
#include "packet_socket.hpp"

#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_vlan.h>
#include <linux/sockios.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ecpri.hpp"

namespace packet
{

namespace
{

// Thousands of answers that wait while the process cannot run.
constexpr int RECEIVE_BUFFER = 8 * 1024 * 1024;

constexpr uint32_t WHOLE_FRAME = 0x40000;

bool switch_on(int fd, int level, int option)
{
    const int on = 1;
    return setsockopt(fd, level, option, &on, sizeof on) == 0;
}

bool bind_to_all(int fd)
{
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    return bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

bool set_up(int fd, const filter &f)
{
    // The forced size needs a capability; without it the kernel's limit holds.
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) != 0) {
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
    }
    // The filter comes before the binding, or foreign frames would be in the queue already.
    return set_filter(fd, f) && switch_on(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING) &&
           switch_on(fd, SOL_PACKET, PACKET_AUXDATA) && switch_on(fd, SOL_SOCKET, SO_TIMESTAMPNS) && bind_to_all(fd);
}

void prepare(batch *b)
{
    for (size_t i = 0; i < BATCH; i++) {
        msghdr &h = b->headers[i].msg_hdr;
        b->vectors[i] = {b->bytes + i * b->frame_bytes, b->frame_bytes};
        h = {};
        h.msg_name = &b->addresses[i];
        h.msg_namelen = sizeof b->addresses[i];
        h.msg_iov = &b->vectors[i];
        h.msg_iovlen = 1;
        h.msg_control = b->control[i];
        h.msg_controllen = sizeof b->control[i];
    }
}

void read_auxiliary(received *r, const cmsghdr *c)
{
    tpacket_auxdata aux;
    memcpy(&aux, CMSG_DATA(c), sizeof aux);
    if ((aux.tp_status & TP_STATUS_VLAN_VALID) != 0) {
        r->tagged = true;
        r->tci = aux.tp_vlan_tci;
        r->tpid = (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0 ? aux.tp_vlan_tpid : uint16_t{ETH_P_8021Q};
    }
}

void read_stamp(received *r, const cmsghdr *c)
{
    timespec stamp;
    static_assert(sizeof stamp.tv_sec == 8, "the kernel's time stamps do not end in 2038");
    memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
    r->stamp = static_cast<int64_t>(stamp.tv_sec) * 1'000'000'000 + stamp.tv_nsec;
}

bool ask(int fd, const char *name, unsigned long question, ifreq *request)
{
    *request = {};
    (void)snprintf(request->ifr_name, sizeof request->ifr_name, "%s", name);
    return ioctl(fd, question, request) == 0;
}

bool change_membership(int fd, int option, int if_index, const mac_address &mac)
{
    packet_mreq request{};
    request.mr_ifindex = if_index;
    request.mr_type = PACKET_MR_UNICAST;
    request.mr_alen = sizeof mac.byte;
    memcpy(request.mr_address, mac.byte, sizeof mac.byte);
    return setsockopt(fd, SOL_PACKET, option, &request, sizeof request) == 0;
}

bool change_promiscuity(int fd, int option, int if_index)
{
    packet_mreq request{};
    request.mr_ifindex = if_index;
    request.mr_type = PACKET_MR_PROMISC;
    return setsockopt(fd, SOL_PACKET, option, &request, sizeof request) == 0;
}

} // namespace

bool batch_init(batch *b, size_t frame_bytes)
{
    *b = {};
    b->frame_bytes = frame_bytes;
    b->bytes = static_cast<uint8_t *>(malloc(BATCH * frame_bytes));
    return b->bytes != nullptr;
}

void batch_free(batch *b)
{
    free(b->bytes);
    b->bytes = nullptr;
}

int open_socket(const filter &f)
{
    // Protocol 0: nothing arrives before the filter is in place.
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0 && !set_up(fd, f)) {
        const int saved_errno = errno;
        close(fd);
        errno = saved_errno;
        return -1;
    }
    return fd;
}

// Accepts: one of the EtherTypes, then revision 1 without concatenation, the message type, the action, and the mark if
// one is wanted. The offsets are those of an untagged frame, which a tagged one is by the time the filter runs. Which
// VLAN it came from is not for the filter: sessions of any VLAN share the socket. A frame that is too short to be asked
// is not let through.
bool set_filter(int fd, const filter &f)
{
    sock_filter code[MAX_ETHER_TYPES + 16];
    size_t n = 0;
    code[n++] = BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12);
    for (size_t i = 0; i < f.count && i < MAX_ETHER_TYPES; i++) {
        const auto to_body = static_cast<uint8_t>(f.count - i); // over the remaining comparisons and the refusal
        code[n++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, f.ether_types[i], to_body, 0);
    }
    code[n++] = BPF_STMT(BPF_RET | BPF_K, 0);
    code[n++] = BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 14);
    code[n++] = BPF_STMT(BPF_ALU | BPF_AND | BPF_K, ecpri::REVISION_MASK);
    code[n++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ecpri::REVISION_1, 0, 4);
    code[n++] = BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 15);
    code[n++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ecpri::ONE_WAY_DELAY_MEASUREMENT, 0, 2);
    code[n++] = BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 19);
    code[n++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, f.action, 1, 0);
    code[n++] = BPF_STMT(BPF_RET | BPF_K, 0);
    if (f.wanted == marks::OURS_OR_NONE) {
        code[n++] = BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 16);
        code[n++] = BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, ecpri::MIN_PAYLOAD_SIZE, 0, 2); // no dummy bytes: accepted
    }
    if (f.wanted != marks::ANY) {
        code[n++] = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, f.word_offset);
        code[n++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, f.word, 0, 1);
    }
    code[n++] = BPF_STMT(BPF_RET | BPF_K, WHOLE_FRAME);
    code[n++] = BPF_STMT(BPF_RET | BPF_K, 0);
    const sock_fprog program{static_cast<unsigned short>(n), code};
    return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0;
}

// Which socket a frame is for is the low half of its sender's address, stirred; the kernel takes it modulo their
// number. The program runs where a frame's network header begins, so that the address is reached from the link layer's.
bool share_by_sender(int fd, int *group)
{
    constexpr uint32_t STIR = 0x9E3779B1;
    sock_filter code[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(SKF_LL_OFF + 8)),
                          BPF_STMT(BPF_ALU | BPF_MUL | BPF_K, STIR), BPF_STMT(BPF_ALU | BPF_RSH | BPF_K, 16),
                          BPF_STMT(BPF_RET | BPF_A, 0)};
    const sock_fprog program{sizeof code / sizeof code[0], code};
    constexpr uint32_t HOW = PACKET_FANOUT_CBPF;
    const bool first = *group == NO_GROUP;
    const uint32_t wanted =
        first ? (HOW | PACKET_FANOUT_FLAG_UNIQUEID) << 16 : HOW << 16 | static_cast<uint32_t>(*group);
    if (setsockopt(fd, SOL_PACKET, PACKET_FANOUT, &wanted, sizeof wanted) != 0) {
        return false;
    }
    uint32_t joined = 0;
    socklen_t size = sizeof joined;
    if (!first) {
        return true;
    }
    if (getsockopt(fd, SOL_PACKET, PACKET_FANOUT, &joined, &size) != 0) {
        return false;
    }
    *group = static_cast<int>(joined & 0xFFFF);
    return setsockopt(fd, SOL_PACKET, PACKET_FANOUT_DATA, &program, sizeof program) == 0;
}

received describe(batch *b, size_t i)
{
    msghdr *h = &b->headers[i].msg_hdr;
    received r{};
    r.bytes = b->bytes + i * b->frame_bytes;
    r.length = b->headers[i].msg_len;
    r.available = r.length < b->frame_bytes ? r.length : b->frame_bytes;
    r.if_index = b->addresses[i].sll_ifindex;
    r.to_interface = b->addresses[i].sll_pkttype == PACKET_HOST;
    r.outgoing = b->addresses[i].sll_pkttype == PACKET_OUTGOING;
    for (cmsghdr *c = CMSG_FIRSTHDR(h); c != nullptr; c = CMSG_NXTHDR(h, c)) {
        if (c->cmsg_level == SOL_PACKET && c->cmsg_type == PACKET_AUXDATA) {
            read_auxiliary(&r, c);
        } else if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
            read_stamp(&r, c);
        }
    }
    return r;
}

size_t receive(int fd, batch *b)
{
    prepare(b);
    // MSG_TRUNC: the length on the wire, also where fewer bytes are kept.
    const int count = recvmmsg(fd, b->headers, BATCH, MSG_DONTWAIT | MSG_TRUNC, nullptr);
    for (int i = 0; i < count; i++) {
        b->frames[i] = describe(b, static_cast<size_t>(i));
    }
    return count > 0 ? static_cast<size_t>(count) : 0;
}

int send_frame(int fd, int if_index, const uint8_t *frame, size_t length)
{
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = if_index;
    // The type the frame has on the wire: with 802.1Q the kernel allows four bytes more than the MTU.
    memcpy(&address.sll_protocol, frame + offsetof(ecpri::ethernet_header, type), sizeof address.sll_protocol);
    address.sll_halen = ETH_ALEN;
    memcpy(address.sll_addr, frame, ETH_ALEN);
    const ssize_t sent =
        sendto(fd, frame, length, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    return sent < 0 ? errno : 0;
}

uint32_t take_drops(int fd)
{
    tpacket_stats stats{};
    socklen_t size = sizeof stats;
    return getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &stats, &size) == 0 ? stats.tp_drops : 0;
}

int interface_index(int fd, const char *name)
{
    ifreq request;
    return ask(fd, name, SIOCGIFINDEX, &request) ? request.ifr_ifindex : 0;
}

bool interface_name(int fd, int if_index, char (&name)[16])
{
    ifreq request{};
    request.ifr_ifindex = if_index;
    if (ioctl(fd, SIOCGIFNAME, &request) != 0) {
        return false;
    }
    memcpy(name, request.ifr_name, sizeof name);
    return true;
}

bool interface_mac(int fd, const char *name, mac_address *mac)
{
    ifreq request;
    if (!ask(fd, name, SIOCGIFHWADDR, &request)) {
        return false;
    }
    memcpy(mac->byte, request.ifr_hwaddr.sa_data, sizeof mac->byte);
    return true;
}

int interface_mtu(int fd, const char *name)
{
    ifreq request;
    return ask(fd, name, SIOCGIFMTU, &request) ? request.ifr_mtu : 0;
}

condition interface_condition(int fd, const char *name)
{
    ifreq request;
    if (!ask(fd, name, SIOCGIFHWADDR, &request)) {
        return condition::ABSENT;
    }
    if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER) {
        return condition::NOT_ETHERNET;
    }
    if (!ask(fd, name, SIOCGIFFLAGS, &request)) {
        return condition::ABSENT;
    }
    if ((request.ifr_flags & IFF_UP) == 0) {
        return condition::DOWN;
    }
    return (request.ifr_flags & IFF_RUNNING) == 0 ? condition::NO_CARRIER : condition::UP;
}

int interface_vlan(int fd, const char *name)
{
    vlan_ioctl_args request{};
    request.cmd = GET_VLAN_VID_CMD;
    (void)snprintf(request.device1, sizeof request.device1, "%s", name);
    return ioctl(fd, SIOCGIFVLAN, &request) == 0 ? request.u.VID : -1;
}

bool let_in(int fd, int if_index, const mac_address &mac)
{
    return change_membership(fd, PACKET_ADD_MEMBERSHIP, if_index, mac);
}

void shut_out(int fd, int if_index, const mac_address &mac)
{
    change_membership(fd, PACKET_DROP_MEMBERSHIP, if_index, mac);
}

bool let_all_in(int fd, int if_index) { return change_promiscuity(fd, PACKET_ADD_MEMBERSHIP, if_index); }

void let_all_in_no_more(int fd, int if_index) { change_promiscuity(fd, PACKET_DROP_MEMBERSHIP, if_index); }

} // namespace packet
