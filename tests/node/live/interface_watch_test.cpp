// What the kernel says of interfaces: from its messages, written out, and from real interfaces.
#include "kernel/attributes.hpp"
#include "kernel/interface_watch.hpp"
#include "live_fixture.hpp"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

namespace kap_node
{
namespace
{

// A link message as the kernel sends it (little-endian machine): index 7, switched on, "eth7", 02:00:00:00:00:07, and
// a VLAN device with id 200 (0x00C8) on interface 3.
bytes vlan_link()
{
    return {
        0x6C, 0, 0,  0, 0x10, 0,   0,   0,   0,    0, 0, 0, 0, 0, 0, 0, // length, RTM_NEWLINK
        0,    0, 1,  0, 7,    0,   0,   0,   0x43, 0, 1, 0, 0, 0, 0, 0, // index, flags with IFF_UP
        9,    0, 3,  0, 'e',  't', 'h', '7', 0,    0, 0, 0,             // IFLA_IFNAME
        10,   0, 1,  0, 2,    0,   0,   0,   0,    7, 0, 0,             // IFLA_ADDRESS
        5,    0, 33, 0, 1,    0,   0,   0,                              // IFLA_CARRIER
        8,    0, 5,  0, 3,    0,   0,   0,                              // IFLA_LINK
        36,   0, 18, 0,                                                 // IFLA_LINKINFO
        9,    0, 1,  0, 'v',  'l', 'a', 'n', 0,    0, 0, 0,             //   IFLA_INFO_KIND
        20,   0, 2,  0,                                                 //   IFLA_INFO_DATA
        6,    0, 1,  0, 0xC8, 0,   0,   0,                              //     IFLA_VLAN_ID
        6,    0, 5,  0, 0x81, 0,   0,   0,                              //     IFLA_VLAN_PROTOCOL
    };
}

// True when the table is another after what was received, in a block of its own, so that a read past its end is found.
bool take_in(const bytes &received, interface_table &table)
{
    std::vector<uint32_t> block((received.size() + 3) / 4);
    memcpy(block.data(), received.data(), received.size());
    const auto *message = reinterpret_cast<const nlmsghdr *>(block.data());
    return mnl_nlmsg_ok(message, static_cast<int>(received.size())) && apply_link(message, table);
}

TEST(LinkMessage, TellsOfAVlanDeviceAndTheInterfaceItStandsOn)
{
    interface_table table;
    const bytes message = vlan_link();
    ASSERT_EQ(message.size(), 108u);
    EXPECT_TRUE(take_in(message, table));
    EXPECT_EQ(table, (interface_table{{7, {"eth7", true, true, {2, 0, 0, 0, 0, 7}, 3, true, 200}}}));
    EXPECT_FALSE(take_in(message, table));
}

TEST(LinkMessage, TakesADeviceOfAnotherProtocolForNoVlan)
{
    interface_table table;
    bytes message = vlan_link();
    message[104] = 0x88; // IFLA_VLAN_PROTOCOL: 802.1ad
    message[105] = 0xA8;
    EXPECT_TRUE(take_in(message, table));
    EXPECT_EQ(table, (interface_table{{7, {"eth7", true, true, {2, 0, 0, 0, 0, 7}, 3, false, 0}}}));
}

TEST(LinkMessage, TakesAwayAnInterfaceButNotForABridgeThatItLeaves)
{
    interface_table table{{7, {}}};
    bytes message = vlan_link();
    message[4] = 0x11; // RTM_DELLINK
    message[16] = 7;   // AF_BRIDGE
    EXPECT_FALSE(take_in(message, table));
    message[16] = 0;
    EXPECT_TRUE(take_in(message, table));
    EXPECT_TRUE(table.empty());
}

TEST(LinkMessage, IsNeverReadPastItsEndWhereverItIsCutAndWhateverLengthsItClaims)
{
    const bytes good = vlan_link();
    for (size_t size = 0; size < good.size(); ++size) {
        interface_table table;
        EXPECT_FALSE(take_in(bytes(good.begin(), good.begin() + static_cast<long>(size)), table)) << size;
    }
    for (size_t at = 0; at < good.size(); ++at) {
        for (const uint8_t value : bytes{0x00, 0x01, 0x7F, 0xFF}) {
            bytes bent = good;
            bent[at] = value;
            interface_table table;
            take_in(bent, table);
            EXPECT_LE(table.size(), 1u);
        }
    }
}

class InterfaceWatch : public NodeTest
{
protected:
    // The facts of an interface, or nothing; takes in what the kernel has said.
    static std::optional<interface_facts> look(interface_watch &watch, const std::string &name)
    {
        watch.read_news();
        for (const auto &[index, facts] : watch.interfaces()) {
            if (facts.name == name) {
                return facts;
            }
        }
        return std::nullopt;
    }
};

TEST_F(InterfaceWatch, SeesCablesPulledInterfacesSwitchedOffRemovedAndMadeAnew)
{
    run("ip link add one netns near address 02:00:00:00:00:11 type veth peer name two netns far");
    interface_watch watch("near");
    ASSERT_TRUE(look(watch, "one"));
    EXPECT_EQ(look(watch, "one")->address, (mac{2, 0, 0, 0, 0, 0x11}));
    EXPECT_FALSE(look(watch, "one")->up);
    run("ip -n near link set one up && ip -n far link set two up");
    EXPECT_TRUE(eventually([&] { return look(watch, "one")->up && look(watch, "one")->carrier; }));
    run("ip -n far link set two down");
    EXPECT_TRUE(eventually([&] { return !look(watch, "one")->carrier; }));
    EXPECT_TRUE(look(watch, "one")->up);
    run("ip -n near link set one down");
    EXPECT_TRUE(eventually([&] { return !look(watch, "one")->up; }));
    run("ip -n near link del one");
    EXPECT_TRUE(eventually([&] { return !look(watch, "one"); }));
    run("ip link add one netns near type veth peer name two netns far");
    EXPECT_TRUE(eventually([&] { return look(watch, "one").has_value(); }));
    EXPECT_FALSE(look(watch, "two"));
}

TEST_F(InterfaceWatch, SeesVlanDevicesAndTheirParents)
{
    run("ip link add one netns near type veth peer name two netns far");
    if (system("ip -n near link add link one name one.200 type vlan id 200 2>/dev/null") != 0) {
        GTEST_SKIP() << "this kernel has no VLAN devices";
    }
    interface_watch watch("near");
    const auto facts = look(watch, "one.200");
    ASSERT_TRUE(facts);
    EXPECT_TRUE(facts->is_vlan);
    EXPECT_EQ(facts->vlan_id, 200);
    EXPECT_EQ(watch.interfaces().at(facts->parent).name, "one");
}

TEST_F(InterfaceWatch, LeavesTheProcessInItsOwnNamespace)
{
    const namespace_identity before = namespace_identity::of("");
    interface_watch watch("near");
    EXPECT_EQ(namespace_identity::of(""), before);
    EXPECT_FALSE(namespace_identity::of("near") == before);
}

TEST_F(InterfaceWatch, NoticesThatItsNamespaceWasDeletedOrReplaced)
{
    interface_watch watch("near");
    EXPECT_TRUE(watch.still_there());
    run("ip netns del near");
    EXPECT_FALSE(watch.still_there());
    run("ip netns add near");
    EXPECT_FALSE(watch.still_there());
}

TEST_F(InterfaceWatch, CannotBeOpenedInANamespaceThatIsNotThere)
{
    EXPECT_THROW(interface_watch("nowhere"), std::system_error);
}

TEST_F(InterfaceWatch, SeesABurstOfInterfacesWhole)
{
    interface_watch watch("near");
    run("for i in $(seq 100); do echo link add d$i type veth peer name e$i; echo link set d$i up; echo link del d$i; "
        "done "
        "| ip -n near -batch - && ip -n near link add last type veth peer name tail");
    EXPECT_TRUE(eventually([&] { return look(watch, "last").has_value(); }));
    EXPECT_TRUE(eventually([&] { return look(watch, "tail").has_value(); }));
    // These two and lo; nothing of the burst stays.
    EXPECT_TRUE(eventually([&] { return look(watch, "last") && watch.interfaces().size() == 3; }));
}

TEST_F(InterfaceWatch, ForgetsInterfacesWhoseEndWasAmongNewsThatWereLost)
{
    run("ip -n near link add lost type veth peer name gone");
    interface_watch watch("near");
    ASSERT_EQ(watch.interfaces().size(), 3u);
    const int room_for_few = 16384;
    ASSERT_EQ(setsockopt(watch.fd(), SOL_SOCKET, SO_RCVBUF, &room_for_few, sizeof room_for_few), 0);
    run("{ for i in $(seq 40); do echo link add d$i type veth peer name e$i; done; echo link del lost; "
        "for i in $(seq 40); do echo link del d$i; done; } | ip -n near -batch -");
    EXPECT_TRUE(eventually([&] { return look(watch, "lo") && watch.interfaces().size() == 1; }));
}

} // namespace
} // namespace kap_node
