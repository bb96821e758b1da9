// Interfaces of a namespace through the route socket (netlink.hpp).
#include "netlink.hpp"

#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace kap_node
{

namespace
{

constexpr size_t DATAGRAM_MOST = 65536;
constexpr int RECEIVE_BUFFER = 1 << 20;
// One link message may be followed by many; a reader gives others their turn after so many datagrams.
constexpr int DATAGRAMS_PER_TURN = 64;

[[noreturn]] void fail(const std::string &what) { throw std::system_error(errno, std::generic_category(), what); }

// Walks a list of attributes: type and payload of each that lies within its bytes.
template <class Visit> void each_attribute(std::span<const uint8_t> data, Visit visit)
{
    while (data.size() >= sizeof(rtattr)) {
        rtattr head;
        memcpy(&head, data.data(), sizeof head);
        if (head.rta_len < sizeof head || head.rta_len > data.size()) {
            return;
        }
        visit(head.rta_type & NLA_TYPE_MASK, data.subspan(sizeof head, head.rta_len - sizeof head));
        data = data.subspan(std::min<size_t>(RTA_ALIGN(head.rta_len), data.size()));
    }
}

template <class T> T value_of(std::span<const uint8_t> data)
{
    T value{};
    if (data.size() >= sizeof value) {
        memcpy(&value, data.data(), sizeof value);
    }
    return value;
}

std::string text_of(std::span<const uint8_t> data)
{
    const auto *first = reinterpret_cast<const char *>(data.data());
    return {first, strnlen(first, data.size())};
}

void read_link_info(std::span<const uint8_t> data, interface_facts &facts)
{
    each_attribute(data, [&](int type, std::span<const uint8_t> value) {
        if (type == IFLA_INFO_KIND) {
            facts.is_vlan = text_of(value) == "vlan";
        } else if (type == IFLA_INFO_DATA) {
            each_attribute(value, [&](int inner, std::span<const uint8_t> field) {
                if (inner == IFLA_VLAN_ID) {
                    facts.vlan_id = value_of<uint16_t>(field);
                }
            });
        }
    });
}

// A parent in another namespace has an index that means nothing here.
interface_facts read_link(const ifinfomsg &head, std::span<const uint8_t> attributes)
{
    interface_facts facts;
    bool parent_elsewhere = false;
    facts.up = (head.ifi_flags & IFF_UP) != 0;
    each_attribute(attributes, [&](int type, std::span<const uint8_t> value) {
        switch (type) {
        case IFLA_IFNAME:
            facts.name = text_of(value);
            break;
        case IFLA_ADDRESS:
            facts.address = value.size() == facts.address.size() ? value_of<mac>(value) : mac{};
            break;
        case IFLA_CARRIER:
            facts.carrier = value_of<uint8_t>(value) != 0;
            break;
        case IFLA_LINK:
            facts.parent = value_of<int>(value);
            break;
        case IFLA_LINK_NETNSID:
            parent_elsewhere = true;
            break;
        case IFLA_LINKINFO:
            read_link_info(value, facts);
            break;
        default:
            break;
        }
    });
    facts.parent = parent_elsewhere ? 0 : facts.parent;
    facts.vlan_id = facts.is_vlan ? facts.vlan_id : uint16_t{0};
    return facts;
}

bool apply_link(uint16_t type, std::span<const uint8_t> payload, interface_table &table, std::set<int> &seen)
{
    if (payload.size() < sizeof(ifinfomsg)) {
        return false;
    }
    const auto head = value_of<ifinfomsg>(payload);
    if (type == RTM_DELLINK) {
        // A bridge tells of a port that leaves it in the same words, in a family of its own.
        return head.ifi_family == AF_UNSPEC && table.erase(head.ifi_index) > 0;
    }
    if (head.ifi_family != AF_UNSPEC) {
        return false;
    }
    seen.insert(head.ifi_index);
    const auto facts = read_link(head, payload.subspan(NLMSG_ALIGN(sizeof head)));
    const auto [place, fresh] = table.try_emplace(head.ifi_index, facts);
    const bool changed = fresh || place->second != facts;
    place->second = facts;
    return changed;
}

} // namespace

netlink_news netlink_apply(std::span<const uint8_t> datagram, interface_table &table, std::set<int> &seen)
{
    netlink_news news;
    while (datagram.size() >= sizeof(nlmsghdr)) {
        const auto head = value_of<nlmsghdr>(datagram);
        if (head.nlmsg_len < sizeof head || head.nlmsg_len > datagram.size()) {
            break;
        }
        const auto payload = datagram.subspan(sizeof head, head.nlmsg_len - sizeof head);
        news.dump_broken = news.dump_broken || (head.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
        if (head.nlmsg_type == RTM_NEWLINK || head.nlmsg_type == RTM_DELLINK) {
            news.changed = apply_link(head.nlmsg_type, payload, table, seen) || news.changed;
        } else if (head.nlmsg_type == NLMSG_DONE) {
            news.dump_ended = true;
        } else if (head.nlmsg_type == NLMSG_ERROR) {
            news.dump_broken = true;
        }
        datagram = datagram.subspan(std::min<size_t>(NLMSG_ALIGN(head.nlmsg_len), datagram.size()));
    }
    return news;
}

interface_watch::interface_watch(const std::string &name_space) : name_space_(name_space)
{
    {
        const namespace_visit visit(name_space);
        identity_ = namespace_identity::of("");
        fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    }
    if (fd_ < 0) {
        fail("the interfaces of the namespace \"" + name_space + "\"");
    }
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof RECEIVE_BUFFER);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int cause = errno;
        close(fd_);
        errno = cause;
        fail("the interfaces of the namespace \"" + name_space + "\"");
    }
    ask_for_all();
}

interface_watch::~interface_watch() { close(fd_); }

void interface_watch::ask_for_all()
{
    struct {
        nlmsghdr head;
        ifinfomsg body;
    } request{};
    request.head.nlmsg_len = sizeof request;
    request.head.nlmsg_type = RTM_GETLINK;
    request.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.ifi_family = AF_UNSPEC;
    seen_.clear();
    dumping_ = send(fd_, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request);
}

// A dump that was interrupted, or news that were lost, are mended by another dump: what it does not name is gone.
bool interface_watch::take(std::span<const uint8_t> datagram)
{
    const netlink_news news = netlink_apply(datagram, table_, seen_);
    dirty_ = dirty_ || news.changed;
    if (news.dump_broken) {
        dumping_ = false;
        ask_for_all();
    } else if (news.dump_ended && dumping_) {
        dumping_ = false;
        complete_ = true;
        dirty_ = std::erase_if(table_, [&](const auto &entry) { return !seen_.contains(entry.first); }) > 0 || dirty_;
    }
    return complete_ && !dumping_ && dirty_;
}

// What waits is older than the loss: an interface that it names may be one whose end was among the lost news, and would
// count as seen by the new dump. So it is thrown away first; the dump says all of it.
void interface_watch::start_anew_after_loss()
{
    std::array<uint8_t, 1> discarded;
    while (recv(fd_, discarded.data(), discarded.size(), 0) >= 0 || errno == ENOBUFS || errno == EINTR) {
    }
    ask_for_all();
}

bool interface_watch::read_news()
{
    static std::array<uint8_t, DATAGRAM_MOST> buffer;
    bool tell = false;
    for (int turn = 0; turn < DATAGRAMS_PER_TURN; ++turn) {
        const ssize_t got = recv(fd_, buffer.data(), buffer.size(), 0);
        if (got < 0 && errno == ENOBUFS) {
            start_anew_after_loss();
        } else if (got < 0 && errno == EINTR) {
            continue;
        } else if (got <= 0) {
            break;
        } else {
            tell = take({buffer.data(), static_cast<size_t>(got)});
        }
    }
    if (tell) {
        dirty_ = false;
    }
    return tell;
}

bool interface_watch::wait_complete(int timeout_ms)
{
    using clock = std::chrono::steady_clock;
    const auto end = clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!complete_) {
        read_news();
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock::now()).count();
        if (complete_ || left <= 0) {
            break;
        }
        pollfd waiting{fd_, POLLIN, 0};
        poll(&waiting, 1, static_cast<int>(left));
    }
    return complete_;
}

} // namespace kap_node
