// The programs of the reference node as processes: over a real registry, on real interfaces.
#include "../support.hpp"
#include "control.hpp"
#include "live_fixture.hpp"
#include "name_space.hpp"
#include "ns.h"
#include "own_namespace.hpp"
#include "slowness.hpp"

#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kap_node
{
namespace
{

const std::string NODE = R"(
    backend = "memory"
    [ports.IDL_A1]
    interface = "idl_a1"
    namespace = "near"
    [[far_end]]
    namespace = "far"
    interfaces = ["idl_a1"]
)";

const bytes CONNECT_PMI = message_of(0x1B1003, "00 00 00 02  00 00 00 C8  00 00 00 01  00 00 00 01");
const bytes ENABLE = message_of(0x1B1009, "00 00 00 07  00 00 00 01  'IDLA1' 0*11  00 00 00 64");
const bytes ENABLED = message_of(0x1B100A, "00 00 00 07  00 00 00 01");

class NodeProgram : public NodeTest
{
protected:
    void SetUp() override
    {
        NodeTest::SetUp();
        if (!IsSkipped()) {
            start_registry();
        }
    }
    static void make_cable()
    {
        run("ip link add idl_a1 netns near address 02:00:00:00:00:a1 type veth peer name idl_a1 netns far && "
            "ip -n near link set idl_a1 up && ip -n far link set idl_a1 up");
    }
    static json port() { return command("iepcsi", {"show"})["ports"][0]; }
    static bool oper_becomes(int state)
    {
        return eventually([&] { return port()["oper_state"] == state; });
    }
};

TEST_F(NodeProgram, ServesRequestsAndAnswersLateWhenTold)
{
    start("pmi", NODE);
    join_node();
    const uint32_t pmi = itc_locate("pmi-server");
    send(pmi, CONNECT_PMI);
    EXPECT_EQ(receive(), message_of(0x1B1004, "00 00 00 02  00 00 00 01  00 00 00 01"));
    send(pmi, ENABLE);
    EXPECT_EQ(receive(), ENABLED);
    command("pmi", {"fault", "delay", "PMI_ENABLE_PORT_VLAN_REQ", "1", std::to_string(50 * slowness())});
    send(pmi, ENABLE);
    EXPECT_EQ(command("pmi", {"show"})["waiting_answers"], 1);
    EXPECT_EQ(receive(), ENABLED);
    EXPECT_EQ(command("pmi", {"show"})["vlans"], json::parse(R"([{"port": "IDLA1", "vlan_id": 100, "users": 2}])"));
}

TEST_F(NodeProgram, TellsAServiceManagerWhenClientsFindItAndThenThatItStillRuns)
{
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/run/notify");
    ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", address.sun_path, 1);
    setenv("WATCHDOG_USEC", "200000", 1);
    start("pmi", NODE);
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
    for (const char *expected : {"READY=1", "WATCHDOG=1", "WATCHDOG=1"}) {
        char text[64] = {};
        pollfd wanted{manager, POLLIN, 0};
        ASSERT_EQ(poll(&wanted, 1, 10000), 1);
        EXPECT_GT(recv(manager, text, sizeof text - 1, 0), 0);
        EXPECT_STREQ(text, expected);
    }
    close(manager);
    join_node();
    EXPECT_NE(itc_locate("pmi-server"), ITC_NO_MBOX);
}

TEST_F(NodeProgram, NoticesTheDeathOfAClientAndKeepsWhatItAskedFor)
{
    start("pmi", NODE);
    itc_test::Gate connected;
    const itc_test::Child client([&] {
        itc_test::join("short-lived");
        const uint32_t pmi = itc_test::await("pmi-server");
        send(pmi, CONNECT_PMI);
        receive();
        send(pmi, ENABLE);
        const bool served = receive() == ENABLED;
        connected.open();
        itc_test::receive(1); // until it is killed
        return served ? 0 : 1;
    });
    ASSERT_TRUE(connected.wait());
    client.kill();
    join_node();
    EXPECT_TRUE(eventually([] { return command("pmi", {"show"})["clients"].empty(); }));
    EXPECT_EQ(command("pmi", {"show"})["vlans"][0]["users"], 1);
}

TEST_F(NodeProgram, EndsWithStatusZeroOnASignalAndLeavesItsNameFree)
{
    start("emi", NODE);
    join_node();
    signal("emi", SIGTERM);
    EXPECT_EQ(status_of("emi"), 0);
    EXPECT_TRUE(eventually([] { return itc_locate("endpoint_mgr") == ITC_NO_MBOX; }));
    EXPECT_THROW(command("emi", {"show"}), std::runtime_error);
}

TEST_F(NodeProgram, DiesAtOnceWhenTold)
{
    start("fmi", NODE);
    join_node();
    EXPECT_EQ(command("fmi", {"die"}), json(nullptr));
    EXPECT_EQ(status_of("fmi"), 9);
}

TEST_F(NodeProgram, EndsWhenTheRegistryIsLost)
{
    start("fmi", NODE);
    const itc_test::Child waiter([] {
        itc_test::join("waiter");
        return itc_test::await("flow-manager") == ITC_NO_MBOX ? 1 : 0;
    });
    ASSERT_EQ(const_cast<itc_test::Child &>(waiter).finish(), 0);
    stop_registry(SIGKILL);
    EXPECT_EQ(status_of("fmi"), 1);
}

TEST_F(NodeProgram, RefusesAConfigurationThatMakesNoSense)
{
    start("pmi", "ports = 7");
    EXPECT_EQ(status_of("pmi"), 1);
    start("far-end", "max_clients = 7");
    EXPECT_EQ(status_of("far-end"), 1);
}

TEST_F(NodeProgram, RefusesControlMessagesThatMakeNoSenseAndGoesOn)
{
    start("pmi", NODE);
    join_node();
    send(itc_locate("pmi-server"), message_of(0x1B9000, ""));
    const bytes reply = receive();
    EXPECT_EQ(message_view(reply).number(), 0x1B9001u);
    EXPECT_EQ(control_call("pmi-server", {{"command", 5}})["ok"], false);
    EXPECT_EQ(control_call("pmi-server", {{"command", {"show"}}})["ok"], true);
    EXPECT_EQ(control_call("nobody", {{"command", {"show"}}})["ok"], false);
}

TEST_F(NodeProgram, ReadsPortsFromTheKernelAndReportsACablePulled)
{
    make_cable();
    start("iepcsi", NODE);
    join_node();
    EXPECT_TRUE(oper_becomes(1));
    EXPECT_EQ(port()["mac"], "02:00:00:00:00:A1");
    const uint32_t iepcsi = itc_locate("iepcsi-server");
    send(iepcsi, message_of(0x1B1043, "00 00 00 02  00 00 00 64  00 00 00 01  00 00 00 01  00 00 00 01"));
    EXPECT_EQ(receive(), message_of(0x1B1044, "00 00 00 02  00 00 00 01  00 00 00 01"));
    send(iepcsi, message_of(0x1B1050, "00 00 00 03  00 00 00 01  00 00 00 02  0*16"));
    EXPECT_EQ(receive(), message_of(0x1B1051, "00 00 00 03  00 00 00 01  00 00 00 01"));
    const std::string head = "00 00 00 00  00 00 00 01  00 00 00 01  00 00 00 ";
    const bytes up = message_of(0x1B1055, head + "01 'IDLA1' 0*11 'near' 00");
    const bytes down = message_of(0x1B1055, head + "00 'IDLA1' 0*11 'near' 00");
    EXPECT_EQ(receive(), up);
    run("ip -n far link set idl_a1 down");
    EXPECT_EQ(receive(), down);
    run("ip -n far link set idl_a1 up");
    EXPECT_EQ(receive(), up);
    run("ip -n near link del idl_a1");
    EXPECT_EQ(receive(), down);
    make_cable();
    EXPECT_EQ(receive(), up);
}

TEST_F(NodeProgram, LetsGoOfANamespaceThatIsDeletedAndFindsItsSuccessor)
{
    make_cable();
    start("iepcsi", NODE);
    join_node();
    EXPECT_TRUE(oper_becomes(1));
    run("ip netns del near");
    EXPECT_TRUE(oper_becomes(0));
    EXPECT_EQ(port()["present"], false);
    // The namespace itself is gone, too: nothing holds it any more, and its cable has no other end.
    EXPECT_TRUE(eventually([] { return system("ip -n far link show idl_a1 >/dev/null 2>&1") != 0; }));
    run("ip netns add near");
    make_cable();
    EXPECT_TRUE(oper_becomes(1));
}

TEST_F(NodeProgram, TheAutomationAgentIsFoundInTheNameServiceLeavesAndComesBack)
{
    start("aasi", NODE);
    const uint32_t own = join_node();
    ASSERT_EQ(ns_subscribe("automationagentsi", "tn", own), 0);
    EXPECT_EQ(message_view(receive()).number(), 0x1900000u);
    const bytes added = receive();
    EXPECT_EQ(message_view(added).number(), 0x1900001u);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(added.data()) + 20), "automationagentsi");
    command("aasi", {"disappear"});
    EXPECT_EQ(message_view(receive()).number(), 0x1900002u);
    command("aasi", {"appear"});
    EXPECT_EQ(message_view(receive()).number(), 0x1900001u);
    command("aasi", {"announce-foreign", "4711", "node-test"});
    const bytes foreign = receive();
    ASSERT_EQ(foreign.size(), 38u);
    uint32_t sid = 0;
    memcpy(&sid, foreign.data() + 4, sizeof sid);
    EXPECT_EQ(sid, 4711u);
}

TEST_F(NodeProgram, TheFarEndTakesItsKnobsAndFollowsItsNamespace)
{
    start("far-end", NODE);
    join_node();
    command("far-end", {"silent", "on"});
    command("far-end", {"delay", "250"});
    command("far-end", {"loss", "30"});
    command("far-end", {"unusable-time", "on"});
    command("far-end", {"drop", "4"});
    const json shown = command("far-end", {"show"});
    EXPECT_EQ(shown["knobs"],
              json::parse(R"({"silent": true, "delay_us": 250, "loss_percent": 30, "unusable_time": true})"));
    EXPECT_EQ(shown["places"], json::parse(R"([{"namespace": "far", "interfaces": ["idl_a1"], "open": true,
                                                "problem": "", "drop_next": 4, "peers": []}])"));
    for (const std::vector<std::string> &words :
         std::vector<std::vector<std::string>>{{"loss", "101"}, {"silent", "maybe"}, {"delay"}, {"sing", "on"}}) {
        EXPECT_THROW(command("far-end", words), std::runtime_error) << json(words);
    }
    run("ip netns del far");
    EXPECT_TRUE(eventually([] { return command("far-end", {"show"})["places"][0]["open"] == false; }));
    run("ip netns add far");
    EXPECT_TRUE(eventually([] { return command("far-end", {"show"})["places"][0]["open"] == true; }));
}

// ---- A namespace without a name ----

const std::string NAMELESS = "backend = \"memory\"\n[ports.IDL_A1]\ninterface = \"lo\"\n";

std::vector<std::string> own_names()
{
    std::vector<std::string> found;
    for (const auto &entry : std::filesystem::directory_iterator("/run/netns")) {
        const std::string name = entry.path().filename();
        if (name.starts_with("kap-node-")) {
            found.push_back(name);
        }
    }
    return found;
}

bool is_own_namespace(const std::string &name) { return namespace_identity::of(name) == namespace_identity::of(""); }

TEST_F(NodeProgram, GivesTheNamespaceThatItIsInANameAndTakesItAwayAtTheEnd)
{
    start("iepcsi", NAMELESS);
    join_node();
    const std::string told = port()["reported_namespace"];
    EXPECT_EQ(own_names(), std::vector<std::string>{told});
    EXPECT_TRUE(is_own_namespace(told));
    EXPECT_EQ(port()["namespace"], "");
    signal("iepcsi", SIGTERM);
    EXPECT_EQ(status_of("iepcsi"), 0);
    EXPECT_EQ(own_names(), std::vector<std::string>{});
}

TEST_F(NodeProgram, MakesNoNameWhenEveryPortHasOne)
{
    start("iepcsi", NAMELESS + "reported_namespace = \"host\"\n");
    join_node();
    EXPECT_EQ(port()["reported_namespace"], "host");
    EXPECT_EQ(own_names(), std::vector<std::string>{});
}

// No privilege is needed for it, and nothing is made.
TEST_F(NodeProgram, TellsTheNameThatTheMachineHasForItsOwnNamespace)
{
    run("ln -s /proc/self/ns/net /run/netns/kap-host");
    EXPECT_TRUE(is_own_namespace("kap-host"));
    start("iepcsi", NAMELESS);
    join_node();
    EXPECT_EQ(port()["reported_namespace"], "kap-host");
    EXPECT_EQ(own_names(), std::vector<std::string>{});
    signal("iepcsi", SIGTERM);
    EXPECT_EQ(status_of("iepcsi"), 0);
    EXPECT_TRUE(is_own_namespace("kap-host"));
}

TEST_F(NodeProgram, TakesNoOtherLinkForANamespace)
{
    run("ln -s /run/netns/near /run/netns/other && ln -s /proc/thread-self/ns/net /run/netns/thread");
    for (const char *name : {"other", "thread"}) {
        EXPECT_THROW(namespace_visit{name}, std::system_error) << name;
        EXPECT_FALSE(is_own_namespace(name)) << name;
    }
    run("rm /run/netns/other /run/netns/thread");
}

TEST_F(NodeProgram, TakesTheNameOfADeadRunForItsOwn)
{
    for (int run = 0; run < 2; ++run) {
        start("iepcsi", NAMELESS);
        ASSERT_TRUE(eventually([] { return own_names().size() == 1 && is_own_namespace(own_names()[0]); }));
        signal("iepcsi", SIGKILL);
        EXPECT_EQ(status_of("iepcsi"), 1009);
        EXPECT_EQ(own_names().size(), 1u) << "nobody took it away";
    }
    // Nor does the name of a namespace in which no node is any more stay for ever.
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    start("iepcsi", NAMELESS);
    EXPECT_TRUE(eventually([] { return own_names().size() == 1 && is_own_namespace(own_names()[0]); }));
    join_node();
    signal("iepcsi", SIGTERM);
    EXPECT_EQ(status_of("iepcsi"), 0);
    EXPECT_EQ(own_names(), std::vector<std::string>{});
}

TEST_F(NodeProgram, SharesTheNameWithOthersInTheNamespaceAndTheLastTakesItAway)
{
    const own_namespace mine;
    start("iepcsi", NAMELESS);
    join_node();
    EXPECT_EQ(port()["reported_namespace"], mine.name());
    signal("iepcsi", SIGTERM);
    EXPECT_EQ(status_of("iepcsi"), 0);
    EXPECT_EQ(own_names(), std::vector<std::string>{mine.name()});
    EXPECT_TRUE(is_own_namespace(mine.name()));
}

TEST_F(NodeProgram, SaysSoAndEndsWhenItMayNotMakeAName)
{
    const std::string config = "/run/nameless.toml";
    std::ofstream(config) << NAMELESS;
    run("mkdir -p /run/kap-node-netns");
    const std::string command =
        "setpriv --bounding-set -sys_admin " KAP_NODE_PATH " iepcsi --config " + config + " 2>/run/said; test $? = 1";
    run(command);
    std::stringstream said;
    said << std::ifstream("/run/said").rdbuf();
    EXPECT_EQ(said.str(), "kap-node iepcsi: a port has no \"namespace\", and its own cannot be given a name: "
                          "/run/netns: Operation not permitted\n");
    EXPECT_EQ(own_names(), std::vector<std::string>{});
}

} // namespace
} // namespace kap_node
