// A socket to the kernel's netlink (netlink_socket.hpp).
#include "kernel/netlink_socket.hpp"

#include "kernel/netlink_answer.hpp"
#include "name_space.hpp"

#include <libmnl/libmnl.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace kap_node
{

namespace
{

constexpr size_t DATAGRAM_MOST = 65536;
constexpr int NEWS_ROOM = 1 << 20;
// A burst of news; then others of the process have their turn.
constexpr int DATAGRAMS_PER_TURN = 256;
constexpr int ANSWER_MS = 5000;
constexpr int TRIES = 20;

kernel_refusal refusal(int error) { return {error, strerror(error)}; }

[[noreturn]] void fail(const std::string &what) { throw std::system_error(errno, std::generic_category(), what); }

void set_option(mnl_socket *open, int option, int value)
{
    if (mnl_socket_setsockopt(open, option, &value, sizeof value) != 0) {
        fail("a netlink socket's option");
    }
}

// More than the machine allows to everybody is for those who may take it.
void make_room_for_news(int fd)
{
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &NEWS_ROOM, sizeof NEWS_ROOM) != 0) {
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &NEWS_ROOM, sizeof NEWS_ROOM);
    }
}

} // namespace

void netlink_socket::closer::operator()(mnl_socket *open) const { mnl_socket_close(open); }

netlink_socket::netlink_socket(int protocol, const std::string &name_space, std::span<const int> groups)
    : buffer_(DATAGRAM_MOST)
{
    const namespace_visit visit(name_space);
    socket_.reset(mnl_socket_open2(protocol, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket_) {
        fail("a netlink socket");
    }
    set_option(socket_.get(), NETLINK_EXT_ACK, 1);
    set_option(socket_.get(), NETLINK_CAP_ACK, 1);
    if (mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) != 0) {
        fail("a netlink socket's address");
    }
    if (!groups.empty()) {
        make_room_for_news(fd());
    }
    for (const int group : groups) {
        set_option(socket_.get(), NETLINK_ADD_MEMBERSHIP, group);
    }
}

netlink_socket::~netlink_socket() = default;
netlink_socket::netlink_socket(netlink_socket &&) noexcept = default;
netlink_socket &netlink_socket::operator=(netlink_socket &&) noexcept = default;

int netlink_socket::fd() const { return mnl_socket_get_fd(socket_.get()); }

std::optional<kernel_refusal> netlink_socket::send(nlmsghdr *message, uint16_t flags)
{
    message->nlmsg_flags = static_cast<uint16_t>(message->nlmsg_flags | NLM_F_REQUEST | flags);
    message->nlmsg_seq = ++last_number_;
    message->nlmsg_pid = 0;
    if (mnl_socket_sendto(socket_.get(), message, message->nlmsg_len) < 0) {
        return refusal(errno);
    }
    return std::nullopt;
}

// What belongs to an earlier request, because that one was given up, is passed over.
std::optional<kernel_refusal> netlink_socket::receive_answer(netlink_answer &wanted)
{
    const unsigned own = mnl_socket_get_portid(socket_.get());
    while (!wanted.complete()) {
        pollfd waiting{fd(), POLLIN, 0};
        const int ready = poll(&waiting, 1, ANSWER_MS);
        if (ready == 0) {
            return kernel_refusal{ETIMEDOUT, "no answer from the kernel"};
        }
        const ssize_t got = ready < 0 ? -1 : mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size());
        if (got < 0 && errno != EINTR && errno != EAGAIN) {
            return refusal(errno);
        }
        const auto *message = reinterpret_cast<const nlmsghdr *>(buffer_.data());
        int left = static_cast<int>(got);
        for (; got > 0 && mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
            if (message->nlmsg_seq == last_number_ && message->nlmsg_pid == own) {
                wanted.take(message);
            }
        }
    }
    return wanted.refused();
}

std::optional<kernel_refusal> netlink_socket::request(nlmsghdr *message)
{
    if (auto refused = send(message, NLM_F_ACK)) {
        return refused;
    }
    netlink_answer wanted(netlink_answer::kind::acknowledgement);
    return receive_answer(wanted);
}

std::optional<kernel_refusal> netlink_socket::dump(nlmsghdr *message, const std::function<void(const nlmsghdr *)> &each)
{
    for (int tried = 0; tried < TRIES; ++tried) {
        if (auto refused = send(message, NLM_F_DUMP)) {
            return refused;
        }
        netlink_answer wanted(netlink_answer::kind::dump);
        if (auto refused = receive_answer(wanted)) {
            return refused;
        }
        if (!wanted.inconsistent()) {
            wanted.hand_over(each);
            return std::nullopt;
        }
    }
    return kernel_refusal{EAGAIN, "what is asked for changes all the time"};
}

void netlink_socket::throw_away_news()
{
    while (recv(fd(), buffer_.data(), 1, 0) >= 0 || errno == ENOBUFS || errno == EINTR) {
    }
}

bool netlink_socket::read_news(const std::function<void(const nlmsghdr *)> &each)
{
    for (int turn = 0; turn < DATAGRAMS_PER_TURN; ++turn) {
        const ssize_t got = mnl_socket_recvfrom(socket_.get(), buffer_.data(), buffer_.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 && (errno == ENOBUFS || errno == ENOSPC)) {
            throw_away_news();
            return false;
        }
        if (got <= 0) {
            break;
        }
        const auto *message = reinterpret_cast<const nlmsghdr *>(buffer_.data());
        int left = static_cast<int>(got);
        for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
            each(message);
        }
    }
    return true;
}

} // namespace kap_node
