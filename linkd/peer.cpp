// Who is at the other end (peer.hpp).
#include "peer.hpp"

#include "loop.hpp"

#include <arpa/inet.h>
#include <grp.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace linkd
{

namespace
{

constexpr uint32_t EVERY_STATE = 0xffffffff;
constexpr int64_t GROUPS_HOLD_MS = 10'000;
constexpr size_t MOST_USERS_KEPT = 1024;
constexpr size_t LARGEST_ENTRY = size_t{1} << 20; // of a user or a group

struct question {
    nlmsghdr head;
    inet_diag_req_v2 asked;
};

struct end {
    sa_family_t family = AF_UNSPEC;
    std::array<uint32_t, 4> address{}; // as it stands in a packet
    uint16_t port = 0;                 // likewise
};

std::optional<end> end_of(const sockaddr_storage &from)
{
    end found;
    found.family = from.ss_family;
    if (from.ss_family == AF_INET) {
        sockaddr_in in{};
        memcpy(&in, &from, sizeof in);
        found.address[0] = in.sin_addr.s_addr;
        found.port = in.sin_port;
    } else if (from.ss_family == AF_INET6) {
        sockaddr_in6 in{};
        memcpy(&in, &from, sizeof in);
        memcpy(found.address.data(), &in.sin6_addr, sizeof in.sin6_addr);
        found.port = in.sin6_port;
    } else {
        return std::nullopt;
    }
    return found;
}

} // namespace

peer_lookup::peer_lookup() : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_SOCK_DIAG)) {}

peer_lookup::~peer_lookup()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

std::optional<uid_t> peer_lookup::user_of(int fd)
{
    sockaddr_storage ours{};
    sockaddr_storage theirs{};
    socklen_t size = sizeof ours;
    if (fd_ < 0 || getsockname(fd, reinterpret_cast<sockaddr *>(&ours), &size) != 0) {
        return std::nullopt;
    }
    size = sizeof theirs;
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&theirs), &size) != 0) {
        return std::nullopt;
    }
    const auto here = end_of(ours);
    const auto there = end_of(theirs);
    if (!here || !there) {
        return std::nullopt;
    }
    question wanted{};
    wanted.head.nlmsg_len = sizeof wanted;
    wanted.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    wanted.head.nlmsg_flags = NLM_F_REQUEST;
    wanted.head.nlmsg_seq = ++asked_;
    wanted.asked.sdiag_family = static_cast<uint8_t>(here->family);
    wanted.asked.sdiag_protocol = IPPROTO_TCP;
    wanted.asked.idiag_states = EVERY_STATE;
    // Its own end is the source as it sees the connection.
    wanted.asked.id.idiag_sport = there->port;
    wanted.asked.id.idiag_dport = here->port;
    memcpy(wanted.asked.id.idiag_src, there->address.data(), sizeof wanted.asked.id.idiag_src);
    memcpy(wanted.asked.id.idiag_dst, here->address.data(), sizeof wanted.asked.id.idiag_dst);
    wanted.asked.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    wanted.asked.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    if (send(fd_, &wanted, sizeof wanted, 0) != static_cast<ssize_t>(sizeof wanted)) {
        return std::nullopt;
    }
    // The kernel has answered when send returns.
    alignas(nlmsghdr) std::array<char, 4096> room{};
    for (ssize_t got; (got = recv(fd_, room.data(), room.size(), 0)) > 0;) {
        nlmsghdr head{};
        if (static_cast<size_t>(got) < sizeof head) {
            continue;
        }
        memcpy(&head, room.data(), sizeof head);
        if (head.nlmsg_seq != asked_) {
            continue; // of an earlier question
        }
        inet_diag_msg told{};
        if (head.nlmsg_type != SOCK_DIAG_BY_FAMILY || static_cast<size_t>(got) < NLMSG_HDRLEN + sizeof told) {
            return std::nullopt;
        }
        memcpy(&told, room.data() + NLMSG_HDRLEN, sizeof told);
        works_ = true;
        // A socket that nobody has open any more is said to be root's, and has no inode.
        return told.idiag_inode == 0 ? std::nullopt : std::optional<uid_t>(told.idiag_uid);
    }
    return std::nullopt;
}

membership::membership(const std::string &group)
{
    std::vector<char> room(4096);
    for (;;) {
        ::group entry{};
        ::group *there = nullptr;
        const int error = getgrnam_r(group.c_str(), &entry, room.data(), room.size(), &there);
        if (error == ERANGE && room.size() < LARGEST_ENTRY) {
            room.resize(room.size() * 2);
            continue;
        }
        if (there == nullptr) {
            throw std::runtime_error("there is no group \"" + group + "\"");
        }
        group_ = there->gr_gid;
        return;
    }
}

bool membership::has(uid_t user)
{
    if (user == 0 || user == geteuid()) {
        return true;
    }
    const int64_t now = boot_ms();
    if (const auto kept = users_.find(user); kept != users_.end() && now < kept->second.until_ms) {
        return kept->second.is_in;
    }
    bool is_in = false;
    std::vector<char> room(4096);
    passwd entry{};
    passwd *there = nullptr;
    while (getpwuid_r(user, &entry, room.data(), room.size(), &there) == ERANGE && room.size() < LARGEST_ENTRY) {
        room.resize(room.size() * 2);
    }
    if (there != nullptr) {
        int count = 64;
        std::vector<gid_t> groups(static_cast<size_t>(count));
        if (getgrouplist(there->pw_name, there->pw_gid, groups.data(), &count) < 0) {
            groups.resize(static_cast<size_t>(std::max(count, 1)));
            count = static_cast<int>(groups.size());
            (void)getgrouplist(there->pw_name, there->pw_gid, groups.data(), &count);
        }
        groups.resize(std::min(groups.size(), static_cast<size_t>(std::max(count, 0))));
        is_in = std::find(groups.begin(), groups.end(), group_) != groups.end();
    }
    if (users_.size() >= MOST_USERS_KEPT) {
        users_.clear();
    }
    users_[user] = {is_in, now + GROUPS_HOLD_MS};
    return is_in;
}

} // namespace linkd
