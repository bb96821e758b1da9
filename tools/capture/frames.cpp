#include "frames.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <system_error>

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include "name_space.hpp"

namespace capture
{

namespace
{

constexpr uint16_t ETHER_TYPE_ECPRI = 0xAEFE;
constexpr size_t TYPE_AT = 12;
constexpr size_t TAG_SIZE = 4;
constexpr size_t LONGEST_FRAME = 256 * 1024; // more than an interface merges into one
constexpr size_t LOOKS = 128;                // so that what nobody wants does not keep the caller from all else
constexpr int RECEIVE_BUFFER = 16 * 1024 * 1024;

void must(int result, const std::string &what)
{
    if (result != 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

// Supervision frames, with their tag still in them (as they go out) or taken out already (as they come in).
void attach_filter(int fd)
{
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, TYPE_AT),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETHER_TYPE_ECPRI, 4, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_8021Q, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_8021AD, 0, 3),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, TYPE_AT + TAG_SIZE),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETHER_TYPE_ECPRI, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0x40000),
        BPF_STMT(BPF_RET | BPF_K, 0),
    };
    const sock_fprog program{sizeof code / sizeof code[0], code};
    must(setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program), "the kernel takes no filter");
}

uint16_t number_at(const std::vector<uint8_t> &bytes, size_t at)
{
    return at + 2 <= bytes.size() ? static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]) : 0;
}

direction direction_of(uint8_t packet_type)
{
    return packet_type == PACKET_OUTGOING ? direction::outbound : direction::inbound;
}

struct tag {
    bool there = false;
    uint16_t tpid = 0;
    uint16_t tci = 0;
};

void read_control(msghdr &header, frame &f, tag &t)
{
    for (cmsghdr *c = CMSG_FIRSTHDR(&header); c != nullptr; c = CMSG_NXTHDR(&header, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
            timespec stamp{};
            memcpy(&stamp, CMSG_DATA(c), sizeof stamp);
            f.stamp = static_cast<uint64_t>(stamp.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(stamp.tv_nsec);
        } else if (c->cmsg_level == SOL_PACKET && c->cmsg_type == PACKET_AUXDATA) {
            tpacket_auxdata aux{};
            memcpy(&aux, CMSG_DATA(c), sizeof aux);
            t.there = (aux.tp_status & TP_STATUS_VLAN_VALID) != 0;
            t.tpid = (aux.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0 ? aux.tp_vlan_tpid : uint16_t{ETH_P_8021Q};
            t.tci = aux.tp_vlan_tci;
        }
    }
}

// Where it stood on the wire.
void put_tag(frame &f, const tag &t)
{
    if (f.bytes.size() < TYPE_AT) {
        return;
    }
    const uint8_t bytes[TAG_SIZE] = {static_cast<uint8_t>(t.tpid >> 8), static_cast<uint8_t>(t.tpid),
                                     static_cast<uint8_t>(t.tci >> 8), static_cast<uint8_t>(t.tci)};
    f.bytes.insert(f.bytes.begin() + TYPE_AT, bytes, bytes + TAG_SIZE);
    f.length += TAG_SIZE;
}

bool is_tagged(const frame &f)
{
    const uint16_t type = number_at(f.bytes, TYPE_AT);
    return type == ETH_P_8021Q || type == ETH_P_8021AD;
}

} // namespace

std::string filter_text(const frame_filter &f)
{
    std::string text = f.all ? "" : "supervision frames (EtherType 0xaefe)";
    if (f.vlan) {
        text += (text.empty() ? "VLAN " : ", VLAN ") + std::to_string(*f.vlan);
    }
    if (!f.far_ends.empty()) {
        text += (text.empty() ? "" : ", ") + std::to_string(f.far_ends.size()) + " far ends";
    }
    return text;
}

frame_source::frame_source(const std::string &name_space, const std::string &interface, const frame_filter &filter,
                           uint32_t snap_length)
    : filter_(filter), snap_length_(snap_length), buffer_(LONGEST_FRAME)
{
    const kap_node::namespace_visit visit(name_space);
    fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); // hears nothing until it is bound
    must(fd_ < 0 ? -1 : 0, "no socket for frames");
    const int on = 1;
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    try {
        must(setsockopt(fd_, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on), "the kernel tells no tags");
        must(setsockopt(fd_, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on), "the kernel tells no time stamps");
        if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER) != 0) {
            (void)setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
        }
        if (!filter.all) {
            attach_filter(fd_);
        }
        address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
        must(address.sll_ifindex == 0 ? -1 : 0, "the interface \"" + interface + "\"");
        must(bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), interface);
    } catch (...) {
        close(fd_);
        throw;
    }
}

frame_source::~frame_source() { close(fd_); }

std::optional<frame> frame_source::next()
{
    for (size_t looked_at = 0; looked_at < LOOKS; looked_at++) {
        alignas(cmsghdr) uint8_t control[256];
        sockaddr_ll from{};
        iovec vector = {buffer_.data(), buffer_.size()};
        msghdr header{};
        header.msg_name = &from;
        header.msg_namelen = sizeof from;
        header.msg_iov = &vector;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        const ssize_t size = recvmsg(fd_, &header, MSG_DONTWAIT | MSG_TRUNC);
        if (size < 0 && (errno == ENETDOWN || errno == EINTR)) {
            continue; // that it was switched off is told once, and it may be switched on again
        }
        if (size < 0) {
            must(errno == EAGAIN ? 0 : -1, "frames are told no more");
            return std::nullopt;
        }
        const auto length = static_cast<size_t>(size);
        frame f{0, {}, static_cast<uint32_t>(length), direction_of(from.sll_pkttype)};
        f.bytes.assign(buffer_.begin(),
                       buffer_.begin() + static_cast<std::ptrdiff_t>(std::min(length, buffer_.size())));
        tag taken_out;
        read_control(header, f, taken_out);
        if (taken_out.there) {
            put_tag(f, taken_out);
        }
        if (wanted(f)) {
            f.bytes.resize(std::min<size_t>(f.bytes.size(), snap_length_));
            return f;
        }
    }
    return std::nullopt;
}

uint64_t frame_source::dropped()
{
    tpacket_stats stats{}; // since it was asked last
    socklen_t size = sizeof stats;
    if (getsockopt(fd_, SOL_PACKET, PACKET_STATISTICS, &stats, &size) == 0) {
        dropped_ += stats.tp_drops;
    }
    return dropped_;
}

bool frame_source::wanted(const frame &f) const
{
    if (filter_.vlan && (!is_tagged(f) || (number_at(f.bytes, TYPE_AT + 2) & 0x0FFF) != *filter_.vlan)) {
        return false;
    }
    return filter_.far_ends.empty() ||
           std::any_of(filter_.far_ends.begin(), filter_.far_ends.end(), [&](const mac &far) {
               return f.bytes.size() >= TYPE_AT && (std::equal(far.begin(), far.end(), f.bytes.begin()) ||
                                                    std::equal(far.begin(), far.end(), f.bytes.begin() + 6));
           });
}

} // namespace capture
