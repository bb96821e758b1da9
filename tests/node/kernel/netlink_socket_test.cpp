// The socket to the kernel: acknowledgements, refusals in the kernel's words, dumps, news and their loss.
#include "kernel/netlink_socket.hpp"

#include "../live/live_fixture.hpp"
#include "kernel/attributes.hpp"
#include "name_space.hpp"

#include <gmock/gmock.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <set>

namespace kap_node
{
namespace
{

constexpr int LINKS[] = {RTNLGRP_LINK};

// A message about the interfaces, to which attributes can be put.
struct link_message {
    explicit link_message(uint16_t type)
    {
        mnl_nlmsg_put_header(room.data())->nlmsg_type = type;
        mnl_nlmsg_put_extra_header(head(), sizeof(ifinfomsg));
    }
    nlmsghdr *head() { return reinterpret_cast<nlmsghdr *>(room.data()); }
    ifinfomsg *body() { return static_cast<ifinfomsg *>(mnl_nlmsg_get_payload(head())); }
    alignas(8) std::array<uint8_t, 1024> room{};
};

std::string name_of(const nlmsghdr *message)
{
    std::string name;
    each_attribute(message, sizeof(ifinfomsg), [&](const nlattr *attribute) {
        name = mnl_attr_get_type(attribute) == IFLA_IFNAME ? text_in(attribute) : name;
    });
    return name;
}

class NetlinkSocket : public NodeTest
{
protected:
    static std::set<std::string> names(netlink_socket &open)
    {
        std::set<std::string> found;
        link_message all(RTM_GETLINK);
        EXPECT_FALSE(open.dump(all.head(), [&](const nlmsghdr *message) { found.insert(name_of(message)); }));
        return found;
    }
};

TEST_F(NetlinkSocket, DumpsWhatIsInItsNamespaceAndLeavesTheProcessInItsOwn)
{
    run("ip link add one netns near type veth peer name two netns far");
    const namespace_identity before = namespace_identity::of("");
    netlink_socket near(NETLINK_ROUTE, "near");
    netlink_socket far(NETLINK_ROUTE, "far");
    EXPECT_EQ(namespace_identity::of(""), before);
    EXPECT_THAT(names(near), testing::UnorderedElementsAre("lo", "one"));
    EXPECT_THAT(names(far), testing::UnorderedElementsAre("lo", "two"));
}

TEST_F(NetlinkSocket, HandsOverAnAnswerOfManyDatagramsWhole)
{
    run("{ for i in $(seq 150); do echo link add d$i type veth peer name e$i; done; } | ip -n near -batch -");
    netlink_socket near(NETLINK_ROUTE, "near");
    EXPECT_EQ(names(near).size(), 301u);
}

TEST_F(NetlinkSocket, HasARequestDone)
{
    netlink_socket near(NETLINK_ROUTE, "near");
    link_message up(RTM_NEWLINK);
    up.body()->ifi_index = 1; // lo
    up.body()->ifi_flags = up.body()->ifi_change = IFF_UP;
    EXPECT_FALSE(near.request(up.head()));
    EXPECT_EQ(system("ip -n near link show lo | grep -q '<LOOPBACK,UP'"), 0);
}

TEST_F(NetlinkSocket, GivesTheErrorAndTheWordsOfTheKernelThatRefuses)
{
    netlink_socket near(NETLINK_ROUTE, "near");
    link_message unknown(RTM_NEWLINK);
    unknown.body()->ifi_index = 4711;
    const auto no_such = near.request(unknown.head());
    ASSERT_TRUE(no_such);
    EXPECT_EQ(no_such->error, ENODEV);
    EXPECT_EQ(no_such->words, "No such device");
    link_message nameless(RTM_NEWLINK);
    mnl_attr_put_u8(nameless.head(), IFLA_CARRIER, 1);
    mnl_attr_put_u32(nameless.head(), IFLA_NEW_IFINDEX, 0);
    nameless.body()->ifi_index = 1;
    const auto own_words = near.request(nameless.head());
    ASSERT_TRUE(own_words);
    EXPECT_NE(own_words->words, strerror(own_words->error)) << "the kernel says more than its errno";
}

TEST_F(NetlinkSocket, GoesOnAfterARefusal)
{
    netlink_socket near(NETLINK_ROUTE, "near");
    link_message wrong(RTM_GETLINK);
    mnl_attr_put_u32(wrong.head(), IFLA_TARGET_NETNSID, 4711);
    EXPECT_TRUE(near.dump(wrong.head(), [](const nlmsghdr *) { ADD_FAILURE() << "nothing comes"; }));
    EXPECT_THAT(names(near), testing::UnorderedElementsAre("lo"));
}

TEST_F(NetlinkSocket, HandsOverNewsWithoutWaiting)
{
    netlink_socket news(NETLINK_ROUTE, "near", LINKS);
    std::set<std::string> told;
    const auto take = [&](const nlmsghdr *message) { told.insert(name_of(message)); };
    EXPECT_TRUE(news.read_news(take));
    EXPECT_TRUE(told.empty());
    run("ip link add one netns near type veth peer name two netns far");
    EXPECT_TRUE(eventually([&] { return news.read_news(take) && told.contains("one"); }));
    EXPECT_FALSE(told.contains("two"));
}

TEST_F(NetlinkSocket, SaysThatNewsWereLostAndThrowsAwayWhatIsOlder)
{
    netlink_socket news(NETLINK_ROUTE, "near", LINKS);
    const int room_for_few = 4096;
    ASSERT_EQ(setsockopt(news.fd(), SOL_SOCKET, SO_RCVBUF, &room_for_few, sizeof room_for_few), 0);
    run("{ for i in $(seq 20); do echo link add d$i type veth peer name e$i; done; } | ip -n near -batch -");
    EXPECT_FALSE(news.read_news([](const nlmsghdr *) {}));
    size_t after = 0;
    EXPECT_TRUE(news.read_news([&](const nlmsghdr *) { ++after; }));
    EXPECT_EQ(after, 0u);
    run("ip -n near link del d1");
    EXPECT_TRUE(eventually([&] { return news.read_news([&](const nlmsghdr *) { ++after; }) && after > 0; }));
}

TEST_F(NetlinkSocket, CannotBeOpenedWhereThereIsNoNamespace)
{
    EXPECT_THROW(netlink_socket(NETLINK_ROUTE, "nowhere"), std::system_error);
    EXPECT_THROW(netlink_socket(NETLINK_ROUTE, "../netns/near"), std::system_error);
}

} // namespace
} // namespace kap_node
