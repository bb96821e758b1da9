// "kap-node prepare" and "kap-node check" on a machine of their own: real namespaces and interfaces.
#include "live_fixture.hpp"
#include "name_space.hpp"
#include "slowness.hpp"

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

namespace kap_node
{
namespace
{

using testing::HasSubstr;

constexpr const char *CONFIG = "/run/machine.toml";

const std::string TWO_PORTS = R"([ports.IDL_A1]
interface = "one"
namespace = "new"
[ports.TN_A]
interface = "two"
admin = "locked"
)";

class Machine : public NodeTest
{
protected:
    struct outcome {
        int status;
        std::string out;
        std::string err;
    };

    static std::string content(const char *path)
    {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    static outcome kap_node(const std::string &words)
    {
        const std::string command = std::string(KAP_NODE_PATH) + " " + words + " >/run/out 2>/run/err";
        const int status = system(command.c_str()); // NOLINT(cert-env33-c): a test's own words
        return {WEXITSTATUS(status), content("/run/out"), content("/run/err")};
    }
    static outcome prepare(const std::string &config, const std::string &more = "")
    {
        std::ofstream(CONFIG) << config;
        return kap_node(std::string("prepare --config ") + CONFIG + " " + more);
    }
    static outcome check(const std::string &config)
    {
        std::ofstream(CONFIG) << config;
        return kap_node(std::string("check ") + CONFIG);
    }
    static bool holds(const std::string &command) { return system((command + " >/dev/null 2>&1").c_str()) == 0; }
    static bool is_on(const std::string &name_space, const std::string &interface)
    {
        const std::string where = name_space.empty() ? "" : "-n " + name_space + " ";
        return holds("ip " + where + "link show " + interface + " | grep -q '[<,]UP[,>]'");
    }
};

TEST_F(Machine, IsPreparedAsTheConfigurationSays)
{
    run("ip link add one type veth peer name other && ip link add two type veth peer name another");
    const outcome done = prepare(TWO_PORTS);
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_EQ(done.out, "namespace \"new\" is made\n"
                        "IDL_A1: one is moved to \"new\"\n"
                        "IDL_A1: one is switched on\n");
    EXPECT_EQ(done.err, "");
    EXPECT_FALSE(namespace_identity::of("new") == namespace_identity{});
    EXPECT_TRUE(is_on("new", "one"));
    EXPECT_FALSE(holds("ip link show one")) << "it is not where it was";
    EXPECT_FALSE(is_on("", "two")) << "a locked port is left as it is";
    EXPECT_TRUE(holds("ip netns exec new true")) << "iproute2 finds it";
}

TEST_F(Machine, IsLeftAloneWhenAllIsSoAlready)
{
    run("ip link add one type veth peer name other && ip link add two type veth peer name another");
    ASSERT_EQ(prepare(TWO_PORTS).status, 0);
    run("ip -n new addr add 192.0.2.1/24 dev one");
    const auto before = namespace_identity::of("new");
    const outcome again = prepare(TWO_PORTS);
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, "");
    EXPECT_EQ(namespace_identity::of("new"), before);
    EXPECT_TRUE(holds("ip -n new addr show one | grep -q 192.0.2.1")) << "its addresses stay";
}

TEST_F(Machine, HasInterfacesOfItsOwnNamespaceSwitchedOn)
{
    run("ip link add one type veth peer name other && ip addr add 192.0.2.1/24 dev one");
    const outcome done = prepare("[ports.IDL_A1]\ninterface = 'one'");
    EXPECT_EQ(done.out, "IDL_A1: one is switched on\n");
    EXPECT_TRUE(is_on("", "one"));
    EXPECT_TRUE(holds("ip addr show one | grep -q 192.0.2.1"));
}

TEST_F(Machine, IsNotPreparedWhileItLacksAnInterfaceAndIsOnceItHasIt)
{
    run("ip link add two type veth peer name another && ip link set two down");
    const outcome done = prepare(TWO_PORTS);
    EXPECT_EQ(done.status, 1);
    EXPECT_EQ(done.out, "namespace \"new\" is made\n");
    EXPECT_EQ(done.err, "kap-node prepare: IDL_A1: there is no interface \"one\" yet\n");
    run("ip link add one type veth peer name other");
    EXPECT_EQ(prepare(TWO_PORTS).status, 0);
    EXPECT_TRUE(is_on("new", "one"));
}

TEST_F(Machine, IsWaitedForUntilItsInterfacesAreThere)
{
    run("{ until ip netns | grep -q new; do sleep 0.01; done; ip link add one type veth peer name two; } &");
    const outcome done = prepare(TWO_PORTS, "--wait " + std::to_string(60 * slowness()));
    EXPECT_EQ(done.status, 0);
    EXPECT_EQ(done.err, "");
    EXPECT_TRUE(is_on("new", "one"));
}

TEST_F(Machine, HasANameWithoutANamespaceMounted)
{
    run("ip link add one type veth peer name other && touch /run/netns/new");
    const outcome done = prepare("[ports.IDL_A1]\ninterface = 'one'\nnamespace = 'new'");
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_THAT(done.out, HasSubstr("namespace \"new\" is made"));
    EXPECT_TRUE(holds("ip netns exec new true"));
}

TEST_F(Machine, IsNotPreparedWhereSomethingElseHasTheName)
{
    run("echo mine >/run/netns/new");
    const outcome done = prepare(TWO_PORTS);
    EXPECT_EQ(done.status, 1);
    EXPECT_THAT(done.err, HasSubstr("namespace \"new\": /run/netns/new: File exists"));
    EXPECT_EQ(content("/run/netns/new"), "mine\n");
    run("rm /run/netns/new");
}

TEST_F(Machine, SaysWhatTheKernelRefuses)
{
    const outcome done = prepare("[ports.IDL_A1]\ninterface = 'lo'\nnamespace = 'near'\nadmin = 'locked'");
    EXPECT_EQ(done.status, 0) << "near has a lo of its own";
    run("ip link add one type veth peer name other");
    std::ofstream(CONFIG) << TWO_PORTS;
    run("ip netns add new");
    const std::string command = std::string("setpriv --bounding-set -net_admin ") + KAP_NODE_PATH +
                                " prepare --config " + CONFIG + " >/run/out 2>/run/err; test $? = 1";
    run(command);
    EXPECT_THAT(content("/run/err"), HasSubstr("IDL_A1: one is moved to \"new\", but: Operation not permitted"));
    EXPECT_TRUE(holds("ip link show one"));
}

TEST_F(Machine, IsNotTouchedByAConfigurationThatIsWrong)
{
    const outcome done = prepare("[ports.IDL_A1]\nnamespace = 'new'\n");
    EXPECT_EQ(done.status, 1);
    EXPECT_EQ(done.err, std::string(CONFIG) + ":1:8: IDL_A1 lacks \"interface\"\n");
    EXPECT_TRUE(namespace_identity::of("new") == namespace_identity{});
}

TEST_F(Machine, IsComparedWithAConfiguration)
{
    run("ip link add one type veth peer name other");
    const std::string at = CONFIG;
    const outcome lacking = check(TWO_PORTS);
    EXPECT_EQ(lacking.status, 0);
    EXPECT_EQ(lacking.err, "");
    EXPECT_EQ(lacking.out,
              at + ":2:13: note: IDL_A1: there is no namespace \"new\"; \"kap-node prepare\" makes it\n" + at +
                  ":2:13: note: IDL_A1: \"one\" is not in \"new\" yet; \"kap-node prepare\" moves it there\n" + at +
                  ":5:13: note: TN_A: there is no interface \"two\" now\n" + at + ": ports: 2, backend: kernel\n");
    run("ip link add two type veth peer name another");
    ASSERT_EQ(prepare(TWO_PORTS).status, 0);
    EXPECT_EQ(check(TWO_PORTS).out, at + ": ports: 2, backend: kernel\n");
    EXPECT_THAT(check("[ports.TN_A]\ninterface = 'two'\nnamespace = 'near'").out, HasSubstr("moves it there"));
    EXPECT_THAT(check("[ports.TN_A]\ninterface = 'three'\nnamespace = 'near'").out,
                HasSubstr("there is no interface \"three\" in \"near\" now"));
}

TEST_F(Machine, CannotHaveEveryVlanDeviceOnAnInterfaceWithALongName)
{
    run("ip link add 1234567890 type veth peer name 12345678901");
    EXPECT_EQ(check("[ports.TN_A]\ninterface = '1234567890'").out,
              std::string(CONFIG) + ": ports: 1, backend: kernel\n");
    const std::string longer = "[ports.TN_A]\ninterface = '12345678901'\n";
    EXPECT_THAT(check(longer).out, HasSubstr(":2:13: note: TN_A: a VLAN device's name is"));
    EXPECT_EQ(check(longer + "vlan = 'none'").out, std::string(CONFIG) + ": ports: 1, backend: kernel\n");
}

TEST_F(Machine, IsToldThatAnInterfaceIsNoPortOfABridge)
{
    run("ip link add one type veth peer name other");
    const std::string bridged = "[ports.IDL_A1]\ninterface = 'one'\nvlan = 'bridge'\n";
    EXPECT_THAT(check(bridged).out, HasSubstr(":2:13: note: IDL_A1: \"one\" is no port of a bridge now"));
    if (!holds("ip link add bridge type bridge")) {
        GTEST_SKIP() << "this kernel has no bridges";
    }
    run("ip link set one master bridge");
    EXPECT_EQ(check(bridged).out, std::string(CONFIG) + ": ports: 1, backend: kernel\n");
}

TEST_F(Machine, NeedsNoPrivilegeToHaveAConfigurationChecked)
{
    std::ofstream(CONFIG) << "[ports.TN_A]\ninterface = 'lo'\nnamespace = 'near'\n";
    run(std::string("setpriv --bounding-set -all ") + KAP_NODE_PATH + " check " + CONFIG + " >/run/out 2>/run/err");
    EXPECT_THAT(content("/run/out"), HasSubstr("namespace \"near\" cannot be looked into: "));
    EXPECT_EQ(content("/run/err"), "");
}

// The own namespace has a "lo", too; what "near" has nobody can say.
TEST_F(Machine, IsSaidNothingOfThatCannotBeLookedInto)
{
    std::ofstream(CONFIG) << "[ports.TN_A]\ninterface = 'lo'\nnamespace = 'near'\n"
                             "[ports.TN_B]\ninterface = 'other'\nnamespace = 'near'\n";
    run(std::string("setpriv --bounding-set -all ") + KAP_NODE_PATH + " check " + CONFIG + " >/run/out 2>/run/err");
    const std::string said = content("/run/out");
    EXPECT_EQ(said.substr(0, said.find(": /")),
              std::string(CONFIG) + ":2:13: note: TN_A: namespace \"near\" cannot be looked into");
    EXPECT_EQ(said.substr(said.find('\n')), "\n" + std::string(CONFIG) + ": ports: 2, backend: kernel\n");
}

TEST_F(Machine, IsComparedWithWhatTheFarEndTakes)
{
    const std::string at = CONFIG;
    EXPECT_EQ(check("[[far_end]]\nnamespace = 'near'\ninterfaces = ['lo', 'one']\n"
                    "[[far_end]]\ninterfaces = ['two']\n[[far_end]]\nnamespace = 'new'\ninterfaces = ['lo']\n")
                  .out,
              at + ":3:21: note: far_end: there is no interface \"one\" in \"near\" now\n" + at +
                  ":5:15: note: far_end: there is no interface \"two\" now\n" + at +
                  ":8:15: note: far_end: there is no namespace \"new\"; \"kap-node prepare\" makes it\n" + at +
                  ": note: no port\n" + at + ": ports: 0, backend: kernel\n");
}

TEST_F(Machine, IsToldEverythingThatIsWrongWithAConfiguration)
{
    const outcome wrong = check("[ports.IDL_A3]\n[ports.TN_A]\ninterface = 7\n");
    EXPECT_EQ(wrong.status, 1);
    EXPECT_EQ(wrong.out, "");
    EXPECT_EQ(wrong.err, std::string(CONFIG) +
                             ":1:8: there is no port \"IDL_A3\"; there are IDL_A1, IDL_A2, IDL_B1, IDL_B2, TN_A, TN_B, "
                             "TN_C and TN_D\n" +
                             CONFIG + ":3:13: must be a text\n");
    EXPECT_EQ(kap_node("check /nonexistent").status, 1);
    EXPECT_EQ(kap_node("check").status, 2);
    EXPECT_EQ(kap_node("check a b").status, 2);
    EXPECT_EQ(kap_node("prepare").status, 2);
    EXPECT_EQ(kap_node("prepare --config f --wait long").status, 2);
}

} // namespace
} // namespace kap_node
