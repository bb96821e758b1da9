// Namespaces and interfaces as the configuration says (prepare.hpp).
#include "prepare.hpp"

#include "kernel/interface_watch.hpp"
#include "name_space.hpp"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <system_error>

namespace kap_node
{

namespace
{

using clock = std::chrono::steady_clock;

// A place where interfaces are, as it is now.
struct place {
    explicit place(const std::string &name_space) : requests(NETLINK_ROUTE, name_space) {}

    // 0 when it is not there.
    int index_of(const std::string &interface)
    {
        interface_table table;
        if (auto refused = read_interfaces(requests, table)) {
            throw std::system_error(refused->error, std::generic_category(), refused->words);
        }
        const auto found = std::find_if(table.begin(), table.end(),
                                        [&](const auto &indexed) { return indexed.second.name == interface; });
        is_up = found != table.end() && found->second.up;
        return found == table.end() ? 0 : found->first;
    }

    netlink_socket requests;
    bool is_up = false; // the interface that was looked for last
};

// A change of an interface.
struct link_change {
    explicit link_change(int index)
    {
        mnl_nlmsg_put_header(room.data())->nlmsg_type = RTM_NEWLINK;
        auto *body = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(head(), sizeof(ifinfomsg)));
        body->ifi_index = index;
    }
    nlmsghdr *head() { return reinterpret_cast<nlmsghdr *>(room.data()); }
    ifinfomsg *body() { return static_cast<ifinfomsg *>(mnl_nlmsg_get_payload(head())); }
    alignas(nlmsghdr) std::array<uint8_t, 128> room{};
};

std::optional<kernel_refusal> switch_on(netlink_socket &requests, int index)
{
    link_change change(index);
    change.body()->ifi_flags = change.body()->ifi_change = IFF_UP;
    return requests.request(change.head());
}

std::optional<kernel_refusal> move_to(netlink_socket &requests, int index, const std::string &name_space)
{
    int target = -1;
    {
        const namespace_visit visit(name_space);
        target = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    }
    if (target < 0) {
        throw std::system_error(errno, std::generic_category(), name_space);
    }
    link_change change(index);
    mnl_attr_put_u32(change.head(), IFLA_NET_NS_FD, static_cast<uint32_t>(target));
    auto refused = requests.request(change.head());
    close(target);
    return refused;
}

class preparation
{
public:
    // What cannot be done is told once, however often it is tried.
    void complain(const std::string &what)
    {
        failed_ = true;
        if (told_.insert(what).second) {
            (void)fprintf(stderr, "kap-node prepare: %s\n", what.c_str());
        }
    }

    void make_name_spaces(const node_config &config)
    {
        std::set<std::string> names;
        for (const port_config &port : config.ports) {
            names.insert(port.name_space);
        }
        for (const far_end_config &far : config.far_end) {
            names.insert(far.name_space);
        }
        names.erase("");
        for (const std::string &name : names) {
            try {
                if (make_name_space(name)) {
                    (void)printf("namespace \"%s\" is made\n", name.c_str());
                }
            } catch (const std::system_error &problem) {
                complain("namespace \"" + name + "\": " + problem.what());
            }
        }
    }

    // These interfaces stay where they are: a port or a far end of the machine's own namespace is on them.
    void keep_here(const node_config &config)
    {
        for (const port_config &port : config.ports) {
            if (port.name_space.empty()) {
                used_here_.insert(port.interface);
            }
        }
        for (const far_end_config &far : config.far_end) {
            if (far.name_space.empty()) {
                used_here_.insert(far.interfaces.begin(), far.interfaces.end());
            }
        }
    }

    // False when the interface is not there.
    bool settle(const port_config &port)
    {
        try {
            return settle_in(port, place(port.name_space));
        } catch (const std::system_error &problem) {
            complain(port.people_name + ": " + problem.what());
            return true;
        }
    }

    bool failed() const { return failed_; }

private:
    bool settle_in(const port_config &port, place &&there)
    {
        int index = there.index_of(port.interface);
        if (index == 0 && !port.name_space.empty()) {
            place here("");
            const int moved = used_here_.contains(port.interface) ? 0 : here.index_of(port.interface);
            if (moved == 0) {
                return false;
            }
            if (!done(port, "is moved to \"" + port.name_space + "\"",
                      move_to(here.requests, moved, port.name_space))) {
                return true;
            }
            index = there.index_of(port.interface);
        }
        if (index != 0 && port.unlocked && !there.is_up) {
            (void)done(port, "is switched on", switch_on(there.requests, index));
        }
        return index != 0;
    }

    bool done(const port_config &port, const std::string &what, const std::optional<kernel_refusal> &refused)
    {
        const std::string whole = port.people_name + ": " + port.interface + " " + what;
        if (refused) {
            complain(whole + ", but: " + refused->words);
        } else {
            (void)printf("%s\n", whole.c_str());
        }
        return !refused;
    }

    bool failed_ = false;
    std::set<std::string> told_;
    std::set<std::string> used_here_;
};

// Until an interface comes, goes or changes where this process is, which is where interfaces appear.
void wait_for_news(netlink_socket &news, clock::time_point end)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock::now()).count();
    pollfd waiting{news.fd(), POLLIN, 0};
    (void)poll(&waiting, 1, static_cast<int>(std::max<long long>(left, 0)));
    (void)news.read_news([](const nlmsghdr *) {});
}

} // namespace

int prepare(const node_config &config, int wait_ms)
{
    constexpr int links[] = {RTNLGRP_LINK};
    const auto end = clock::now() + std::chrono::milliseconds(wait_ms);
    netlink_socket news(NETLINK_ROUTE, "", links);
    preparation work;
    work.keep_here(config);
    work.make_name_spaces(config);
    std::vector<port_config> missing = config.ports;
    for (;;) {
        std::erase_if(missing, [&](const port_config &port) { return work.settle(port); });
        if (missing.empty() || clock::now() >= end) {
            break;
        }
        wait_for_news(news, end);
    }
    for (const port_config &port : missing) {
        (void)fprintf(stderr, "kap-node prepare: %s: there is no interface \"%s\" yet\n", port.people_name.c_str(),
                      port.interface.c_str());
    }
    return work.failed() || !missing.empty() ? 1 : 0;
}

} // namespace kap_node
