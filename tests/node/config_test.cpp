// The configuration: what is read, what is filled in, and where it says that something is wrong.
#include "config.hpp"

#include <gmock/gmock.h>

#include <cctype>
#include <fstream>
#include <sstream>

namespace kap_node
{
namespace
{

node_config read(const std::string &text)
{
    std::istringstream in(text);
    return read_config(in, "f");
}

// All that is wrong with the text, a line each; empty when nothing is.
std::string problems_of(const std::string &text)
{
    try {
        read(text);
    } catch (const config_error &problem) {
        return problem.what();
    }
    return "";
}

// The same of a port with this line after its interface.
std::string problems_of_port(const std::string &line) { return problems_of("[ports.IDL_A1]\ninterface='e'\n" + line); }

TEST(Configuration, FillsInWhatIsNotGiven)
{
    const node_config config = read("[ports.IDL_B2]\ninterface = 'eth1'");
    EXPECT_EQ(config.backend, backend_kind::kernel);
    EXPECT_EQ(config.max_clients, 64u);
    EXPECT_EQ(config.max_endpoints, 65536u);
    EXPECT_EQ(config.max_rules, 65536u);
    EXPECT_TRUE(config.far_end.empty());
    ASSERT_EQ(config.ports.size(), 1u);
    const port_config &port = config.ports[0];
    EXPECT_EQ(port.people_name, "IDL_B2");
    EXPECT_EQ(port.name, "IDLB2");
    EXPECT_EQ(port.fmi_name, "DiPort_B2");
    EXPECT_EQ(port.interface, "eth1");
    EXPECT_EQ(port.name_space, "");
    EXPECT_EQ(port.reported_name_space, "");
    EXPECT_TRUE(port.unlocked);
    EXPECT_EQ(port.vlan, vlan_mode::device);
    EXPECT_EQ(port.capability, 2u);
    EXPECT_FALSE(port.vlan_interfaces);
    EXPECT_TRUE(read("[ports.TN_B]\ninterface = 'eth1'").ports[0].vlan_interfaces) << "its links live on them";
}

TEST(Configuration, TellsClientsTheNamespaceThatItNames)
{
    EXPECT_EQ(read("[ports.TN_A]\ninterface='e'\nnamespace='near'").ports[0].reported_name_space, "near");
    EXPECT_EQ(
        read("[ports.TN_A]\ninterface='e'\nnamespace='near'\nreported_namespace='far'").ports[0].reported_name_space,
        "far");
}

TEST(Configuration, KnowsTheEightPortsByTheirThreeNames)
{
    std::string text;
    int number = 0;
    for (const char *port : {"IDL_A1", "IDL_A2", "IDL_B1", "IDL_B2", "TN_A", "TN_B", "TN_C", "TN_D"}) {
        text += std::string("[ports.") + port + "]\ninterface='e" + std::to_string(++number) + "'\n";
    }
    std::vector<std::string> names;
    for (const port_config &port : read(text).ports) {
        names.push_back(port.name + " " + port.fmi_name);
    }
    EXPECT_THAT(names, testing::ElementsAre("IDLA1 DiPort_A1", "IDLA2 DiPort_A2", "IDLB1 DiPort_B1", "IDLB2 DiPort_B2",
                                            "TNA TNA", "TNB TNB", "TNC TNC", "TND TND"));
}

TEST(Configuration, ReadsEveryKey)
{
    const node_config config = read(R"(
        backend = "memory"
        max_clients = 1
        emi.max_endpoints = 2
        fmi.max_rules = 3
        [ports.TN_D]
        name = "N"
        fmi_name = "F"
        interface = "eth9"
        namespace = "near"
        reported_namespace = "told"
        admin = "locked"
        vlan = "bridge"
        capability = 0
        vlan_interfaces = false
        [ports.IDL_A1]
        interface = "eth1"
        vlan = "none"
        [[far_end]]
        interfaces = ["a", "b"]
        [[far_end]]
        namespace = "far"
        interfaces = ["c"]
    )");
    EXPECT_EQ(config.backend, backend_kind::memory);
    EXPECT_EQ(config.max_clients, 1u);
    EXPECT_EQ(config.max_endpoints, 2u);
    EXPECT_EQ(config.max_rules, 3u);
    ASSERT_EQ(config.ports.size(), 2u);
    const port_config &port = config.ports[0];
    EXPECT_EQ(port.people_name, "TN_D") << "ports keep the order of the file";
    EXPECT_EQ(port.name, "N");
    EXPECT_EQ(port.fmi_name, "F");
    EXPECT_EQ(port.interface, "eth9");
    EXPECT_EQ(port.interface_at.line, 9u);
    EXPECT_EQ(port.interface_at.column, 21u);
    EXPECT_EQ(port.name_space, "near");
    EXPECT_EQ(port.reported_name_space, "told");
    EXPECT_FALSE(port.unlocked);
    EXPECT_EQ(port.vlan, vlan_mode::bridge);
    EXPECT_EQ(port.capability, 0u);
    EXPECT_FALSE(port.vlan_interfaces);
    EXPECT_EQ(config.ports[1].vlan, vlan_mode::none);
    ASSERT_EQ(config.far_end.size(), 2u);
    EXPECT_EQ(config.far_end[0].name_space, "");
    EXPECT_EQ(config.far_end[0].interfaces, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(config.far_end[1].name_space, "far");
}

TEST(Configuration, ReadsWhatTheDemonstrationUses)
{
    const node_config config = read_config_file(KAP_DEMO_CONFIG);
    ASSERT_EQ(config.ports.size(), 8u);
    EXPECT_EQ(config.ports[0].name, "IDLA1");
    EXPECT_EQ(config.ports[0].interface, "idl_a1");
    EXPECT_TRUE(config.ports[0].unlocked);
    EXPECT_EQ(config.ports[4].name, "TNA");
    EXPECT_TRUE(config.ports[4].vlan_interfaces);
    ASSERT_EQ(config.far_end.size(), 1u);
    EXPECT_EQ(config.far_end[0].name_space, "far");
    EXPECT_EQ(config.far_end[0].interfaces, (std::vector<std::string>{"idl_a1", "tn_a"}));
}

// The sample as it is installed, with the keys that stand in its comments or without.
std::string sample(bool all_keys)
{
    std::ifstream file(KAP_SAMPLE_CONFIG);
    std::string text;
    for (std::string line; std::getline(file, line);) {
        const bool is_key = line.size() > 1 && line[0] == '#' && (isalpha(line[1]) != 0 || line[1] == '[');
        text += (is_key && all_keys ? line.substr(1) : line) + "\n";
    }
    return text;
}

TEST(SampleConfiguration, HasNoPortAsItIsInstalled)
{
    EXPECT_EQ(problems_of(sample(false)), "");
    EXPECT_TRUE(read(sample(false)).ports.empty());
}

TEST(SampleConfiguration, IsRightWithEveryKeyThatStandsInItsComments)
{
    EXPECT_EQ(problems_of(sample(true)), "");
    const node_config config = read(sample(true));
    ASSERT_EQ(config.ports.size(), 2u);
    EXPECT_EQ(config.ports[0].name_space, "near");
    ASSERT_EQ(config.far_end.size(), 1u);
}

// A value that stands for the default is the default.
TEST(SampleConfiguration, ShowsTheValuesThatHoldWithoutAKey)
{
    const node_config shown = read(sample(true));
    const node_config without = read("[ports.IDL_A1]\ninterface = 'eth1'\n[ports.TN_A]\ninterface = 'eth2'\n");
    EXPECT_EQ(shown.backend, without.backend);
    EXPECT_EQ(shown.max_clients, without.max_clients);
    EXPECT_EQ(shown.max_endpoints, without.max_endpoints);
    EXPECT_EQ(shown.max_rules, without.max_rules);
    EXPECT_EQ(shown.ports[0].unlocked, without.ports[0].unlocked);
    EXPECT_EQ(shown.ports[0].vlan, without.ports[0].vlan);
    EXPECT_EQ(shown.ports[0].vlan_interfaces, without.ports[0].vlan_interfaces);
    EXPECT_EQ(shown.ports[0].capability, without.ports[0].capability);
    EXPECT_EQ(shown.ports[0].name, without.ports[0].name);
    EXPECT_EQ(shown.ports[0].fmi_name, without.ports[0].fmi_name);
}

// Every key that is known: a key without a line in the sample would be one that nobody finds.
TEST(SampleConfiguration, LacksNoKey)
{
    const std::string text = sample(true);
    for (const char *key :
         {"backend", "max_clients", "interface", "namespace", "admin", "vlan", "vlan_interfaces", "capability",
          "reported_namespace", "name", "fmi_name", "max_endpoints", "max_rules", "interfaces"}) {
        EXPECT_THAT(text, testing::HasSubstr(std::string("\n") + key + " = ")) << key;
    }
}

TEST(Configuration, SaysEverythingThatIsWrongInTheOrderOfTheFile)
{
    EXPECT_EQ(
        problems_of(R"(backend = "disk"
prots = 1
[ports.IDL_A1]
admin = "ajar"
interface = "eth1"
[ports.IDL_A2]
namespace = "../x"
vlan = 7
[ports.IDL_A3]
interface = "eth1"
[emi]
max_endpoints = "many"
)"),
        "f:1:11: must be \"kernel\" or \"memory\"\n"
        "f:2:1: nothing is called \"prots\" here\n"
        "f:4:9: must be \"locked\" or \"unlocked\"\n"
        "f:6:8: IDL_A2 lacks \"interface\"\n"
        "f:7:13: must be the name of a namespace, not a path\n"
        "f:8:8: must be \"bridge\" or \"device\" or \"none\"\n"
        "f:9:8: there is no port \"IDL_A3\"; there are IDL_A1, IDL_A2, IDL_B1, IDL_B2, TN_A, TN_B, TN_C and TN_D\n"
        "f:12:17: must be a number from 0 to 16000000");
}

TEST(Configuration, SaysWhereItIsNoToml)
{
    EXPECT_THAT(problems_of("max_clients = 1\nbackend = kernel\n"), testing::StartsWith("f:2:11: "));
    EXPECT_THAT(problems_of("[ports.IDL_A1]\ninterface='a'\n[ports.IDL_A1]\n"), testing::StartsWith("f:3:"));
    EXPECT_THAT(problems_of("max_clients = 1\nmax_clients = 2\n"), testing::StartsWith("f:2:"));
}

TEST(Configuration, SaysWhatTheShapeHasToBe)
{
    EXPECT_EQ(problems_of("ports = 7"), "f:1:9: write [ports.IDL_A1], or another port's name");
    EXPECT_EQ(problems_of("[[ports]]\nname = 'IDLA1'"), "f:1:1: write [ports.IDL_A1], or another port's name");
    EXPECT_EQ(problems_of("ports.IDL_A1 = 7"), "f:1:16: write [ports.IDL_A1]");
    EXPECT_EQ(problems_of("emi = 7"), "f:1:7: write [emi]");
    EXPECT_EQ(problems_of("[far_end]\nnamespace = 'far'"), "f:1:1: write [[far_end]]");
    EXPECT_EQ(problems_of("far_end = [7]"), "f:1:12: write [[far_end]]");
    EXPECT_EQ(problems_of("[[far_end]]\nnamespace = 'far'"), "f:1:1: lacks \"interfaces\"");
    EXPECT_EQ(problems_of("[[far_end]]\ninterfaces = []"), "f:2:14: must be a list of interfaces' names");
    EXPECT_EQ(problems_of_port("capability = -1"), "f:3:14: must be a number from 0 to 4294967295");
    EXPECT_EQ(problems_of_port("vlan_interfaces = 1"), "f:3:19: must be true or false");
    EXPECT_EQ(problems_of_port("name = 7"), "f:3:8: must be a text");
    EXPECT_EQ(problems_of_port("adm_state = 'locked'"), "f:3:1: nothing is called \"adm_state\" here");
}

TEST(Configuration, RefusesNamesThatDoNotFitTheMessages)
{
    EXPECT_EQ(problems_of_port("name = '123456789012345'"), "");
    EXPECT_EQ(problems_of_port("name = '1234567890123456'"), "f:3:8: must be a name of 1 to 15 characters");
    EXPECT_EQ(problems_of_port("name = ''"), "f:3:8: must be a name of 1 to 15 characters");
    EXPECT_EQ(problems_of_port("name = \"A\\u0000B\""), "f:3:8: must be a name of 1 to 15 characters");
    EXPECT_EQ(problems_of_port("fmi_name = '" + std::string(63, 'x') + "'"), "");
    EXPECT_EQ(problems_of_port("fmi_name = '" + std::string(64, 'x') + "'"),
              "f:3:12: must be a name of 1 to 63 characters");
    EXPECT_EQ(problems_of_port("namespace = '" + std::string(255, 'x') + "'"), "");
    EXPECT_EQ(problems_of_port("namespace = '" + std::string(256, 'x') + "'"),
              "f:3:13: must be a name of at most 255 characters");
}

TEST(Configuration, RefusesNamesThatNoInterfaceCanHave)
{
    const auto problems = [](const std::string &name) {
        return problems_of("[ports.IDL_A1]\ninterface = \"" + name + "\"");
    };
    EXPECT_EQ(problems("123456789012345"), "");
    EXPECT_EQ(problems("1234567890123456"), "f:2:13: must be a name of 1 to 15 characters");
    EXPECT_EQ(problems(""), "f:2:13: must be a name of 1 to 15 characters");
    for (const char *name : {".", "..", "a/b", "a:1", "a b", "a\\t"}) {
        EXPECT_THAT(problems(name), testing::EndsWith("can be no interface's name")) << name;
    }
}

TEST(Configuration, RefusesAnInterfaceThatTwoPortsOfANamespaceName)
{
    const std::string two = "[ports.IDL_A1]\ninterface = 'e'\n[ports.TN_A]\ninterface = 'e'\n";
    EXPECT_EQ(problems_of(two), "f:4:13: the interface \"e\" is IDL_A1's already, line 2");
    EXPECT_EQ(problems_of(two + "namespace = 'near'"), "");
}

TEST(Configuration, RefusesANameThatTwoPortsHave)
{
    EXPECT_EQ(problems_of_port("[ports.TN_A]\ninterface='f'\nname='IDLA1'\nfmi_name='DiPort_A1'"),
              "f:5:6: the name \"IDLA1\" is IDL_A1's already, line 1\n"
              "f:6:10: the name \"DiPort_A1\" is IDL_A1's already, line 1");
}

TEST(Configuration, RefusesANameThatStandsForAPartOfAnotherPortsRulesWhicheverComesFirst)
{
    EXPECT_EQ(problems_of_port("[ports.TN_A]\ninterface='f'\nfmi_name='DiPort_A1.rules'"),
              "f:5:10: \"DiPort_A1.rules\" is what a part of the rules of \"DiPort_A1\" is called");
    EXPECT_EQ(problems_of_port("fmi_name='TNA.static'\n[ports.TN_A]\ninterface='f'"),
              "f:3:10: \"TNA.static\" is what a part of the rules of \"TNA\" is called");
    EXPECT_EQ(problems_of_port("[ports.TN_A]\ninterface='f'\nfmi_name='DiPort_A2.rules'"), "");
}

TEST(Configuration, RefusesANamespaceWhoseNameClientsOfATnPortCannotKeep)
{
    const std::string tn = "[ports.TN_A]\ninterface = 'e'\nnamespace = '1234567890123456'\n";
    EXPECT_EQ(problems_of(tn),
              "f:3:13: the namespace of a TN port's VLANs is told to clients in at most 15 characters");
    EXPECT_EQ(problems_of(tn + "vlan_interfaces = false"), "");
    EXPECT_EQ(problems_of(tn + "reported_namespace = 'short'"), "");
    EXPECT_EQ(problems_of_port("namespace = '1234567890123456'"), "");
}

// Its name is told to clients; the configuration means it by naming none.
TEST(Configuration, RefusesTheNameOfTheMachinesOwnNamespace)
{
    EXPECT_EQ(problems_of_port("namespace = 'kap-host'"),
              "f:3:13: \"kap-host\" stands for the machine's own namespace: leave the key out");
    EXPECT_EQ(problems_of_port("reported_namespace = 'kap-host'"), "");
}

TEST(Configuration, NamesTheFileThatItCannotRead)
{
    EXPECT_THROW(read_config_file("/nonexistent/node.toml"), config_error);
    EXPECT_THROW(read_config_file("/proc"), config_error);
}

} // namespace
} // namespace kap_node
