// The port list and the VLANs on the ports.
#include "iepcsi_test.hpp"

using namespace client_test;
using namespace iepcsi_test;

namespace
{

class IepcsiPorts : public ClientTest
{
protected:
    IepcsiPorts() : ClientTest(IEPCSI) {}

    void SetUp() override
    {
        ClientTest::SetUp();
        client_.enter(2);
    }
};

TEST_F(IepcsiPorts, KeepsThePortsInTheReverseOfTheConfirm)
{
    EXPECT_TRUE(client_.receive(ports({{"A", 2}, {"B", 3}, {"skipped", 5}, {"C", 0xFFFFFFFF}})));
    std::vector<std::string> names;
    for (const eth_port *port = iepcsi_get_port_list(); port != nullptr; port = port->next) {
        names.emplace_back(port->port_name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"C", "B", "A"}));
}

TEST_F(IepcsiPorts, KeepsWhatTheConfirmTellsOfAPort)
{
    EXPECT_TRUE(client_.receive(ports({{"IDLA1", 2}})));
    eth_port port;
    ASSERT_TRUE(iepcsi_fetch_port_data("IDLA1", &port));
    EXPECT_EQ(port.adm_state, 0U);
    EXPECT_EQ(port.oper_state, 0U);
    EXPECT_EQ(Bytes(port.mac.byte, port.mac.byte + 6), Bytes(Builder().mac("02:aa:00:00:00:01")));
    EXPECT_STREQ(port.port_name, "IDLA1");
    EXPECT_STREQ(port.if_name, "veth1");
    EXPECT_STREQ(port.name_space, "");
    EXPECT_EQ(port.vlans, nullptr);
}

TEST_F(IepcsiPorts, CutsNamesThatFillTheirFieldAndReadsThemAsFormats)
{
    EXPECT_TRUE(client_.receive(ports({{"0123456789abcdefgh", 2}, {"P%%%n1", 2}})));
    const eth_port *port = iepcsi_get_port_list();
    EXPECT_STREQ(port->port_name, "P%1");
    EXPECT_STREQ(port->next->port_name, "0123456789abcde");
    EXPECT_TRUE(fake::traced(7, "Port name 0123456789abcdef, capability=0x2, MAC address 02:aa:00:00:00:01"));
}

TEST_F(IepcsiPorts, SaysWhichPortItCouldNotFetch)
{
    EXPECT_TRUE(client_.receive(ports({{"IDLA1", 2}})));
    eth_port port;
    memset(&port, 0x5A, sizeof port);
    EXPECT_FALSE(iepcsi_fetch_port_data("IDLA", &port));
    EXPECT_TRUE(fake::traced(7, "Could not fetch port data for port IDLA"));
    EXPECT_EQ(port.adm_state, 0x5A5A5A5AU);
}

TEST_F(IepcsiPorts, FindsAVlanOfAPort)
{
    EXPECT_TRUE(client_.receive(ports({{"TNA", 2}})));
    EXPECT_TRUE(iepcsi_add_port_vlan("TNA", "tn.1", "one", 1));
    EXPECT_TRUE(iepcsi_add_port_vlan("TNA", "tn.2", "two", 2));
    EXPECT_TRUE(iepcsi_add_port_vlan("TNA", "tn.3", "three", 3));
    eth_port port;
    ASSERT_TRUE(iepcsi_fetch_port_data("TNA", &port));
    const port_vlan *vlan = nullptr;
    ASSERT_TRUE(iepcsi_find_port_vlan(&port, 2, &vlan));
    EXPECT_STREQ(vlan->if_name, "tn.2");
    EXPECT_STREQ(vlan->name_space, "two");
    EXPECT_EQ(port.vlans->vlan_id, 3) << "the newest comes first";
    EXPECT_FALSE(iepcsi_find_port_vlan(&port, 9, &vlan));
    EXPECT_EQ(vlan, nullptr);
}

TEST_F(IepcsiPorts, SharesItsLiveVlansWithAFetchedCopy)
{
    EXPECT_TRUE(client_.receive(ports({{"TNA", 2}})));
    EXPECT_TRUE(iepcsi_add_port_vlan("TNA", "tn.1", "one", 1));
    EXPECT_TRUE(iepcsi_add_port_vlan("TNA", "tn.2", "two", 2));
    eth_port port;
    ASSERT_TRUE(iepcsi_fetch_port_data("TNA", &port));
    EXPECT_EQ(port.vlans, iepcsi_get_port_list()->vlans);
    EXPECT_TRUE(iepcsi_remove_port_vlan("TNA", 1));
    const port_vlan *vlan = nullptr;
    EXPECT_FALSE(iepcsi_find_port_vlan(&port, 1, &vlan));
}

TEST_F(IepcsiPorts, StoresANamespaceOf20CharactersAsItsFirst15)
{
    EXPECT_TRUE(client_.receive(ports({{"TNA", 2}})));
    EXPECT_TRUE(client_.receive(iepcsi_test::vlan("TNA", 7, 1, "0123456789abcdefghij", "0123456789abcdefXY")));
    EXPECT_STREQ(iepcsi_get_port_list()->vlans->name_space, "0123456789abcde");
    EXPECT_STREQ(iepcsi_get_port_list()->vlans->if_name, "0123456789abcde");
}

TEST_F(IepcsiPorts, ReadsTheNamesOfAVlanAsFormats)
{
    EXPECT_TRUE(client_.receive(ports({{"TNA", 2}})));
    EXPECT_TRUE(iepcsi_add_port_vlan("TNA", "a%%b%s", "%n%%c", 7));
    EXPECT_STREQ(iepcsi_get_port_list()->vlans->if_name, "a%b");
    EXPECT_STREQ(iepcsi_get_port_list()->vlans->name_space, "%c");
}

TEST_F(IepcsiPorts, RemovesTheFirstTheMiddleAndTheLastVlan)
{
    EXPECT_TRUE(client_.receive(ports({{"TNA", 2}})));
    for (uint16_t id = 1; id <= 3; ++id) {
        EXPECT_TRUE(iepcsi_add_port_vlan("TNA", "i", "n", id));
    }
    EXPECT_TRUE(iepcsi_remove_port_vlan("TNA", 2));
    EXPECT_EQ(iepcsi_get_port_list()->vlans->vlan_id, 3);
    EXPECT_EQ(iepcsi_get_port_list()->vlans->next->vlan_id, 1);
    EXPECT_TRUE(iepcsi_remove_port_vlan("TNA", 3));
    EXPECT_TRUE(iepcsi_remove_port_vlan("TNA", 1));
    EXPECT_EQ(iepcsi_get_port_list()->vlans, nullptr);
    EXPECT_TRUE(iepcsi_remove_port_vlan("TNA", 1));
    EXPECT_EQ(fake::count_traced(4, "Warning:Vlan 1 for port name TNA not found."), 1U);
}

TEST_F(IepcsiPorts, RefusesAVlanWithoutNames)
{
    EXPECT_TRUE(client_.receive(ports({{"TNA", 2}})));
    fake::traces().clear();
    EXPECT_FALSE(iepcsi_add_port_vlan(nullptr, "i", "n", 1));
    EXPECT_FALSE(iepcsi_add_port_vlan("TNA", nullptr, "n", 1));
    EXPECT_FALSE(iepcsi_add_port_vlan("TNA", "i", nullptr, 1));
    EXPECT_FALSE(iepcsi_remove_port_vlan(nullptr, 1));
    EXPECT_EQ(fake::traces(), (std::vector<fake::Trace>{{1, "Invalid argument, port_name is null"},
                                                        {1, "Invalid argument, if_name is null"},
                                                        {1, "Invalid argument, namespace is null"},
                                                        {1, "Invalid argument, port_name is null"}}));
    EXPECT_EQ(iepcsi_get_port_list()->vlans, nullptr);
}

} // namespace
