// The three names of a port, and where its links live.
#include "manager/ports/port_mapping.hpp"

#include <gmock/gmock.h>

#include "support/daemon.hpp"
#include "support/nobody.hpp"

namespace
{

using fake::Trace;

class PortMapping : public daemon_test::DaemonTest
{
protected:
    static std::string fmi(const char *name) { return port_name_to_fmi_name(name); }
};

struct Names {
    const char *iemli;
    const char *iepcsi;
    const char *fmi;
};

const Names PORTS[] = {
    {"IDL_A1", "IDLA1", "DiPort_A1"}, {"IDL_A2", "IDLA2", "DiPort_A2"}, {"IDL_B1", "IDLB1", "DiPort_B1"},
    {"IDL_B2", "IDLB2", "DiPort_B2"}, {"TN_A", "TNA", "TNA"},           {"TN_B", "TNB", "TNB"},
    {"TN_C", "TNC", "TNC"},           {"TN_D", "TND", "TND"},
};

TEST_F(PortMapping, KnowsEveryPortUnderItsThreeNames)
{
    for (const Names &port : PORTS) {
        EXPECT_STREQ(iemli_to_iepcsi_port_name(port.iemli), port.iepcsi);
        EXPECT_STREQ(iepcsi_to_iemli_port_name(port.iepcsi), port.iemli);
        EXPECT_EQ(fmi(port.iemli), port.fmi);
        EXPECT_EQ(fmi(port.iepcsi), port.fmi);
    }
}

TEST_F(PortMapping, MapsAnUnknownNameToNoPort)
{
    for (const char *name : {nobody::PORT, "idl_a1", "", "IDL_A1 ", "TN_E", "eth0"}) {
        EXPECT_STREQ(iemli_to_iepcsi_port_name(name), "INVALID_PORT") << name;
        EXPECT_STREQ(iepcsi_to_iemli_port_name(name), "INVALID_PORT") << name;
    }
    EXPECT_STREQ(iemli_to_iepcsi_port_name("IDLA1"), "INVALID_PORT");
    EXPECT_STREQ(iepcsi_to_iemli_port_name("IDL_A1"), "INVALID_PORT");
}

TEST_F(PortMapping, LeavesAnUnknownNameAsItIsForFmi)
{
    EXPECT_EQ(fmi("eth0"), "eth0");
    EXPECT_EQ(fmi("DiPort_A1"), "DiPort_A1");
    EXPECT_EQ(fmi("idl_a1"), "idl_a1");
}

TEST_F(PortMapping, HasARowForEveryPortThatIsTestedHereAndNoOther)
{
    EXPECT_EQ(std::size(PORT_NAMES), std::size(PORTS));
    for (const port_names &port : PORT_NAMES) {
        EXPECT_EQ(port.pmi != nullptr, !is_tn_port(port.iemli)) << port.iemli;
    }
}

TEST_F(PortMapping, TellsTnPortsByTheirName)
{
    EXPECT_TRUE(is_tn_port("TN_A"));
    EXPECT_TRUE(is_tn_port("TNA"));
    EXPECT_TRUE(is_tn_port("xTNx"));
    EXPECT_FALSE(is_tn_port("IDL_A1"));
    EXPECT_FALSE(is_tn_port("tna"));
    EXPECT_FALSE(is_tn_port(""));
    EXPECT_FALSE(is_tn_port(nullptr));
}

TEST_F(PortMapping, GivesTheInterfaceAndNamespaceOfAnIdlPortWhateverTheVlan)
{
    start();
    eth_port port;
    ASSERT_TRUE(iepcsi_fetch_port_data("IDLB1", &port));
    const char *if_name = nullptr;
    const char *name_space = nullptr;
    get_port_if_name_and_namespace(port, 4094, &if_name, &name_space);
    EXPECT_STREQ(if_name, "eth_b1");
    EXPECT_STREQ(name_space, "ns_b1");
    EXPECT_TRUE(fake::traced(12, "Values: if_name eth_b1 and name_space ns_b1 for port IDLB1"));
}

TEST_F(PortMapping, GivesTheInterfaceAndNamespaceOfTheVlanOfATnPort)
{
    start();
    add_vlan("TNA", 200, "eth_tna.200", "ns_200");
    eth_port port;
    ASSERT_TRUE(iepcsi_fetch_port_data("TNA", &port));
    const char *if_name = nullptr;
    const char *name_space = nullptr;
    get_port_if_name_and_namespace(port, 200, &if_name, &name_space);
    EXPECT_STREQ(if_name, "eth_tna.200");
    EXPECT_STREQ(name_space, "ns_200");
    EXPECT_TRUE(fake::traced(12, "Values: if_name eth_tna.200 and name_space ns_200 for port TNA"));
}

TEST_F(PortMapping, LeavesBothAsTheyAreForATnPortWithoutTheVlan)
{
    start();
    add_vlan("TNA", 200, "eth_tna.200", "ns_200");
    eth_port port;
    ASSERT_TRUE(iepcsi_fetch_port_data("TNA", &port));
    const char *if_name = "before";
    const char *name_space = nullptr;
    get_port_if_name_and_namespace(port, 201, &if_name, &name_space);
    EXPECT_STREQ(if_name, "before");
    EXPECT_EQ(name_space, nullptr);
    EXPECT_TRUE(fake::traced(12, "Values: if_name before and name_space (null) for port TNA"));
}

} // namespace
