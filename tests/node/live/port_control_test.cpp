// The port control server on a real machine: what becomes of a port whose interface is taken away, renamed, moved, or
// another one; and the VLAN devices on it.
#include "../support.hpp"
#include "live_fixture.hpp"
#include "ns.h"

#include <gmock/gmock.h>

#include <csignal>

namespace kap_node
{
namespace
{

class PortControl : public NodeTest
{
protected:
    static constexpr const char *VLAN_OF_PORT = "'TNA' 0*13 ";

    void SetUp() override
    {
        NodeTest::SetUp();
        if (!IsSkipped()) {
            start_registry();
        }
    }

    // A port on the interface "wire", whose other end is in "far" and switched on.
    void start_with_port(const std::string &port, const std::string &more)
    {
        make_wire();
        start("iepcsi", "[ports." + port + "]\ninterface = 'wire'\n" + more);
        join_node();
        ASSERT_TRUE(eventually([] { return shown()["oper_state"] == 1; }));
    }
    static void make_wire(const std::string &mac = "02:00:00:00:00:01")
    {
        run("ip link add wire netns near address " + mac +
            " type veth peer name wire netns far && "
            "ip -n near link set wire up && ip -n far link set wire up");
    }
    static json shown() { return command("iepcsi", {"show"})["ports"][0]; }
    static bool oper_becomes(int state)
    {
        return eventually([&] { return shown()["oper_state"] == state; });
    }

    // Connects and subscribes to both kinds of indications; what holds already has been told then.
    static void subscribe(const std::vector<bytes> &told_at_once)
    {
        const uint32_t iepcsi = itc_locate("iepcsi-server");
        send(iepcsi, message_of(0x1B1043, "00 00 00 02  00 00 00 64  00 00 00 01  00 00 00 01  00 00 00 01"));
        ASSERT_EQ(message_view(receive()).number(), 0x1B1044u);
        send(iepcsi, message_of(0x1B1050, "00 00 00 03  00 00 00 01  00 00 00 02  0*16"));
        ASSERT_EQ(message_view(receive()).number(), 0x1B1051u);
        ASSERT_EQ(message_view(receive()).number(), 0x1B1055u);
        send(iepcsi, message_of(0x1B1063, "00 00 00 03  00 00 00 01  00 00 00 02  0*16"));
        ASSERT_EQ(message_view(receive()).number(), 0x1B1064u);
        for (const bytes &told : told_at_once) {
            ASSERT_EQ(receive(), told);
        }
    }
    static bytes status(const std::string &oper)
    {
        return message_of(0x1B1055,
                          "00 00 00 00  00 00 00 01  00 00 00 01  00 00 00 " + oper + " 'IDLA1' 0*11 'near' 00");
    }
    static bytes vlan(const std::string &id, const std::string &action, const std::string &device,
                      const std::string &name_space)
    {
        return message_of(0x1B1068, "00 00 00 00  00 00 00 01  " + id + " 0*2  00 00 00 " + action + "  00 00 00 02 '" +
                                        device + "' 0*" + std::to_string(16 - device.size()) + " " + VLAN_OF_PORT +
                                        "'" + name_space + "' 00");
    }
    static bool has_vlan_devices()
    {
        return system("ip -n near link add link wire name probe type vlan id 4094 2>/dev/null && "
                      "ip -n near link del probe") == 0;
    }
};

TEST_F(PortControl, TellsOfAnInterfaceThatIsDeletedAndComesBackAsAnother)
{
    start_with_port("IDL_A1", "namespace = 'near'");
    subscribe({});
    run("ip -n near link del wire");
    EXPECT_EQ(receive(), status("00"));
    EXPECT_EQ(shown()["present"], false);
    make_wire("02:00:00:00:00:99");
    EXPECT_EQ(receive(), status("01"));
    EXPECT_EQ(shown()["mac"], "02:00:00:00:00:99");
}

// The service reads what happened while it stood still in one go: an interface like the one before, in its place.
TEST_F(PortControl, TellsOfAnInterfaceThatIsReplacedBeforeItCouldLook)
{
    start_with_port("IDL_A1", "namespace = 'near'");
    subscribe({});
    signal("iepcsi", SIGSTOP);
    run("ip -n near link del wire");
    make_wire();
    signal("iepcsi", SIGCONT);
    EXPECT_EQ(receive(), status("00"));
    EXPECT_EQ(receive(), status("01"));
}

// Not every kernel renames an interface that is switched on.
TEST_F(PortControl, GoesByTheNameOfAnInterfaceThatIsRenamed)
{
    start_with_port("IDL_A1", "namespace = 'near'");
    subscribe({});
    run("ip -n near link set wire down");
    EXPECT_EQ(receive(), status("00"));
    run("ip -n near link set wire name other && ip -n near link set other up");
    EXPECT_TRUE(eventually([] { return shown()["present"] == false; }));
    run("ip -n near link set other down && ip -n near link set other name wire && ip -n near link set wire up");
    EXPECT_EQ(receive(), status("01")) << "and nothing before it: the other name was nobody's port";
    EXPECT_EQ(shown()["present"], true);
}

TEST_F(PortControl, TellsOfAnInterfaceThatLeavesItsNamespaceAndComesBack)
{
    start_with_port("IDL_A1", "namespace = 'near'");
    subscribe({});
    run("ip -n near link set wire netns $$");
    EXPECT_EQ(receive(), status("00"));
    EXPECT_EQ(shown()["present"], false);
    run("ip link set wire netns near && ip -n near link set wire up");
    EXPECT_EQ(receive(), status("01"));
    EXPECT_EQ(shown()["present"], true);
}

TEST_F(PortControl, HasTheAddressThatTheInterfaceHasNow)
{
    start_with_port("IDL_A1", "namespace = 'near'");
    EXPECT_EQ(shown()["mac"], "02:00:00:00:00:01");
    run("ip -n near link set wire address 02:00:00:00:00:02");
    EXPECT_TRUE(eventually([] { return shown()["mac"] == "02:00:00:00:00:02"; }));
    const uint32_t iepcsi = itc_locate("iepcsi-server");
    send(iepcsi, message_of(0x1B1043, "00 00 00 02  00 00 00 64  00 00 00 01  00 00 00 01  00 00 00 01"));
    ASSERT_EQ(message_view(receive()).number(), 0x1B1044u);
    send(iepcsi, message_of(0x1B1048, "00 00 00 03  00 00 00 01"));
    const bytes list = receive();
    const bytes address = {2, 0, 0, 0, 0, 2};
    EXPECT_NE(std::search(list.begin(), list.end(), address.begin(), address.end()), list.end()) << hex_text(list);
}

TEST_F(PortControl, GoesByThePortsStateOfTheKernelWhileItIsLockedAndUnlocked)
{
    start_with_port("IDL_A1", "namespace = 'near'");
    command("iepcsi", {"lock", "IDL_A1"});
    EXPECT_EQ(shown()["adm_state"], 0);
    EXPECT_EQ(shown()["oper_state"], 0);
    EXPECT_EQ(system("ip -n near link show wire | grep -q '[<,]UP[,>]'"), 0) << "the interface is left as it is";
    run("ip -n far link set wire down");
    command("iepcsi", {"unlock", "IDLA1"});
    EXPECT_TRUE(oper_becomes(0));
    run("ip -n far link set wire up");
    EXPECT_TRUE(oper_becomes(1));
}

TEST_F(PortControl, TellsTheDaemonOfAnUnlockedPortOnceItHasPublishedItsService)
{
    start_with_port("IDL_A1", "namespace = 'near'");
    ASSERT_EQ(itc_add_name(itc_current_mbox(), "kap-vorn"), 0);
    const uint32_t iepcsi = itc_locate("iepcsi-server");
    send(iepcsi, message_of(0x1B1043, "00 00 00 02  00 00 00 64  00 00 00 01  00 00 00 01  00 00 00 01"));
    ASSERT_EQ(message_view(receive()).number(), 0x1B1044u);
    send(iepcsi, message_of(0x1B1050, "00 00 00 03  00 00 00 01  00 00 00 02  0*16"));
    ASSERT_EQ(message_view(receive()).number(), 0x1B1051u);
    EXPECT_EQ(shown()["adm_state"], 1);
    EXPECT_EQ(command("iepcsi", {"show"})["indications"]["status"], 0);
    ASSERT_EQ(ns_publish("KAP_IEMLI_SERVICE_NAME", "", itc_current_mbox(), ""), 0);
    EXPECT_EQ(receive(), status("01"));
}

TEST_F(PortControl, AnnouncesVlanDevicesWithTheirNamespaceAsTheyComeAndGo)
{
    make_wire();
    if (!has_vlan_devices()) {
        GTEST_SKIP() << "this kernel has no VLAN devices";
    }
    run("ip -n near link add link wire name wire.7 type vlan id 7");
    start("iepcsi", "[ports.TN_A]\ninterface = 'wire'\nnamespace = 'near'\n");
    join_node();
    ASSERT_TRUE(oper_becomes(1));
    subscribe({vlan("00 07", "01", "wire.7", "near")});
    run("ip -n near link add link wire name wire.200 type vlan id 200");
    EXPECT_EQ(receive(), vlan("00 C8", "01", "wire.200", "near"));
    run("ip -n near link set wire.200 name v200");
    EXPECT_EQ(receive(), vlan("00 C8", "02", "wire.200", "near"));
    EXPECT_EQ(receive(), vlan("00 C8", "01", "v200", "near"));
    run("ip -n near link del v200");
    EXPECT_EQ(receive(), vlan("00 C8", "02", "v200", "near"));
    run("ip -n near link del wire"); // and its last VLAN with it
    EXPECT_TRUE(eventually([] { return shown()["vlans"].empty(); }));
}

TEST_F(PortControl, AnnouncesVlanDevicesOfTheMachinesOwnNamespaceUnderItsName)
{
    make_wire();
    if (!has_vlan_devices()) {
        GTEST_SKIP() << "this kernel has no VLAN devices";
    }
    run("ln -s /proc/self/ns/net /run/netns/kap-host && ip -n near link set wire netns $$ && ip link set wire up");
    start("iepcsi", "[ports.TN_A]\ninterface = 'wire'\n");
    join_node();
    ASSERT_TRUE(oper_becomes(1));
    EXPECT_EQ(shown()["reported_namespace"], "kap-host");
    subscribe({});
    run("ip link add link wire name wire.200 type vlan id 200");
    EXPECT_EQ(receive(), vlan("00 C8", "01", "wire.200", "kap-host"));
    run("ip link del wire.200");
    EXPECT_EQ(receive(), vlan("00 C8", "02", "wire.200", "kap-host"));
}

} // namespace
} // namespace kap_node
