// Endpoints of links in the kernel: filters of interfaces and forwarding tables of bridges, as `bridge` tells them.
#include "kernel/endpoint_keeper.hpp"

#include "../../support/seeded.hpp"
#include "keeper_fixture.hpp"

#include <sys/resource.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <iterator>
#include <set>

namespace kap_node
{
namespace
{

constexpr const char *A1 = "DiPort_A1";
constexpr const char *B1 = "DiPort_B1";
constexpr mac PTP = {0x01, 0x1B, 0x19, 0, 0, 0};
constexpr mac LLDP = {0x01, 0x80, 0xC2, 0, 0, 0x0E};

constexpr std::array<uint8_t, 5> OURS = {2, 0, 0, 0, 0}; // how addresses of these tests begin

using lines = std::set<std::string>;

// 02:00:00:00:00:NN on the first port, unless said otherwise.
placed_endpoint near_end(int number, uint16_t vlan = 100, const char *port = A1)
{
    return {port, {2, 0, 0, 0, 0, static_cast<uint8_t>(number)}, vlan, false};
}
placed_endpoint far_end(int number, uint16_t vlan = 100, const char *port = A1)
{
    return {port, {2, 0, 0, 0, 0, static_cast<uint8_t>(number)}, vlan, true};
}

class EndpointKeeper : public KeeperTest
{
protected:
    void SetUp() override
    {
        KeeperTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        config.ports = {kernel_port("IDL_A1", "IDLA1", A1, "eth1", vlan_mode::bridge),
                        kernel_port("IDL_B1", "IDLB1", B1, "eth2", vlan_mode::bridge)};
        plug("eth1");
        plug("eth2");
    }
    static void plug(const std::string &name)
    {
        near("ip link add " + name + " type veth peer name far_" + name + "; ip link set " + name +
             " addrgenmode none up; ip link set far_" + name + " addrgenmode none up");
    }
    void start()
    {
        watched.clear();
        keeper.reset();
        keeper = std::make_unique<endpoint_keeper>(config);
        keeper->watch(hooks());
        keeper->settle(now);
    }
    void settle(millis passed = SETTLE_PERIOD_MS) { keeper->settle(now += passed); }
    void expect_added(const std::vector<placed_endpoint> &fresh)
    {
        const auto refused = keeper->add(fresh);
        EXPECT_FALSE(refused) << refused->words;
    }
    void expect_removed(const std::vector<placed_endpoint> &unwanted)
    {
        const auto refused = keeper->remove(unwanted);
        EXPECT_FALSE(refused) << refused->words;
    }
    json kernel() { return keeper->show(); }

    // What is at an interface that this test, or the keeper, can have put there: "02:00:00:00:00:05 self", and for the
    // forwarding table "... master", with the VLAN where there is one, and "learnt" where it was.
    static lines entries(const std::string &interface = "eth1")
    {
        lines found;
        for (const json &entry : listed("bridge -j fdb show dev " + interface)) {
            const std::string address = entry["mac"];
            if (address.starts_with("02:00:00:00:00:") || address == "01:1b:19:00:00:00" ||
                address == "01:80:c2:00:00:0e") {
                found.insert(address + (entry.contains("master") ? " master" : " self") +
                             (entry.contains("vlan") ? " " + entry["vlan"].dump() : "") +
                             (entry.value("state", "") == "" ? " learnt" : ""));
            }
        }
        return found;
    }
    // A bridge "br0" with both ports. False where this kernel has none of the kind.
    static bool bridge(bool filters_vlans)
    {
        if (!makes(filters_vlans ? "type bridge vlan_filtering 1" : "type bridge")) {
            return false;
        }
        // Without the VLAN that a bridge gives every port by itself: the kernel puts an entry of no VLAN there, too.
        const std::string own =
            try_run("ip netns exec near ip link add probe type bridge vlan_default_pvid 0").status == 0
                ? " vlan_default_pvid 0"
                : "";
        (void)try_run("ip netns exec near ip link del probe");
        near("ip link add br0 type bridge mcast_snooping 0" + own + (filters_vlans ? " vlan_filtering 1" : "") +
             "; ip link set br0 addrgenmode none up; ip link set eth1 master br0; ip link set eth2 master br0");
        return true;
    }

    node_config config;
    std::unique_ptr<endpoint_keeper> keeper;
    millis now = 1000;
};

// ---- Filters -------------------------------------------------------------------------------------------------------

TEST_F(EndpointKeeper, LetsNearEndAddressesInAndTakesThemBack)
{
    start();
    expect_added({near_end(5), near_end(6), far_end(7)});
    EXPECT_EQ(entries(), (lines{"02:00:00:00:00:05 self", "02:00:00:00:00:06 self"}));
    expect_removed({near_end(5), far_end(7)});
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:06 self"});
    settle();
    take_news();
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:06 self"});
    EXPECT_EQ(kernel()["mended"], 0);
    EXPECT_EQ(kernel()["ports"][A1],
              json::parse(R"({"interface": "eth1", "entries": 1, "of_others": 0, "waiting": 0})"));
}

TEST_F(EndpointKeeper, LetsTheMulticastAddressesOfPtpAndLldpIn)
{
    start();
    expect_added({{A1, PTP, 10, false}, {A1, LLDP, 10, false}});
    EXPECT_EQ(entries(), (lines{"01:1b:19:00:00:00 self", "01:80:c2:00:00:0e self"}));
    expect_removed({{A1, PTP, 10, false}, {A1, LLDP, 10, false}});
    EXPECT_EQ(entries(), lines{});
}

TEST_F(EndpointKeeper, AnAddressInTwoVlansIsOneEntryOfTheFilter)
{
    start();
    expect_added({near_end(5, 100)});
    expect_added({near_end(5, 200)});
    expect_removed({near_end(5, 100)});
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 self"});
    expect_removed({near_end(5, 200)});
    EXPECT_EQ(entries(), lines{});
}

TEST_F(EndpointKeeper, AnEntryThatWasThereBeforeServesAndStays)
{
    near("bridge fdb add 02:00:00:00:00:05 dev eth1 self");
    start();
    expect_added({near_end(5)});
    EXPECT_EQ(kernel()["ports"][A1]["of_others"], 1);
    expect_removed({near_end(5)});
    settle(LEFTOVERS_KEPT_MS);
    settle(LEFTOVERS_KEPT_MS);
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 self"});
}

TEST_F(EndpointKeeper, MendsWhatSomebodyElseTakesAway)
{
    start();
    expect_added({near_end(5), near_end(6), {A1, PTP, 10, false}});
    near("bridge fdb del 02:00:00:00:00:05 dev eth1 self; bridge fdb del 02:00:00:00:00:06 dev eth1 self");
    take_news();
    const lines whole = {"01:1b:19:00:00:00 self", "02:00:00:00:00:05 self", "02:00:00:00:00:06 self"};
    EXPECT_EQ(entries(), whole);
    EXPECT_EQ(kernel()["mended"], 2);
    near("ip maddr del 01:1b:19:00:00:00 dev eth1"); // of this the kernel tells nothing
    settle();
    EXPECT_EQ(entries(), whole);
    EXPECT_EQ(kernel()["mended"], 3);
}

TEST_F(EndpointKeeper, PutsInOneOfItsOwnWhenTheOneThatServedGoes)
{
    near("bridge fdb add 02:00:00:00:00:05 dev eth1 self");
    start();
    expect_added({near_end(5)});
    near("bridge fdb del 02:00:00:00:00:05 dev eth1 self");
    take_news();
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 self"});
    expect_removed({near_end(5)});
    EXPECT_EQ(entries(), lines{});
}

TEST_F(EndpointKeeper, ConfirmsTheRemovalOfWhatTheKernelHasLost)
{
    start();
    expect_added({near_end(5), {A1, PTP, 10, false}});
    near("bridge fdb del 02:00:00:00:00:05 dev eth1 self; ip maddr del 01:1b:19:00:00:00 dev eth1");
    expect_removed({near_end(5), {A1, PTP, 10, false}});
    settle();
    EXPECT_EQ(entries(), lines{});
    EXPECT_EQ(kernel()["mended"], 0);
}

TEST_F(EndpointKeeper, TakesEndpointsOfAnInterfaceThatIsAwayAndPutsThemInWithIt)
{
    near("ip link del eth1");
    start();
    expect_added({near_end(5)});
    EXPECT_EQ(kernel()["ports"][A1]["interface"], "");
    plug("eth1");
    take_news();
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 self"});
    near("ip link del eth1");
    take_news();
    expect_added({near_end(6)});
    expect_removed({near_end(5)});
    plug("eth1");
    take_news();
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:06 self"});
    run("ip netns del near");
    settle();
    run("ip netns add near");
    plug("eth1");
    settle();
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:06 self"});
}

TEST_F(EndpointKeeper, LeavesWhatAnEarlierRunPutInForTenSecondsAndThenTakesItAway)
{
    start();
    expect_added({near_end(5), near_end(6)});
    near("bridge fdb add 02:00:00:00:00:07 dev eth1 self");
    start();
    settle(LEFTOVERS_KEPT_MS - 1);
    EXPECT_EQ(entries(), (lines{"02:00:00:00:00:05 self", "02:00:00:00:00:06 self", "02:00:00:00:00:07 self"}));
    expect_added({near_end(5)});
    settle(1);
    EXPECT_EQ(entries(), (lines{"02:00:00:00:00:05 self", "02:00:00:00:00:07 self"}));
    EXPECT_EQ(kernel()["left_over"], 1);
    expect_removed({near_end(5)});
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:07 self"});
}

TEST_F(EndpointKeeper, AnInterfaceThatIsAnotherUnderItsNameHasNothingOfAnEarlierRun)
{
    start();
    expect_added({near_end(5)});
    keeper.reset();
    near("ip link del eth1");
    plug("eth1");
    near("bridge fdb add 02:00:00:00:00:05 dev eth1 self");
    start();
    settle(LEFTOVERS_KEPT_MS);
    settle(LEFTOVERS_KEPT_MS);
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 self"});
}

TEST_F(EndpointKeeper, RefusesWholeWhatCannotBeWrittenDownBefore)
{
    start();
    expect_added({near_end(5)});
    (void)signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit nothing{.rlim_cur = 0, .rlim_max = before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &nothing), 0);
    const auto refused = keeper->add(std::vector{near_end(6), near_end(7)});
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->error, EIO);
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 self"});
    settle();
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 self"});
    expect_added({near_end(6), near_end(7)});
    EXPECT_EQ(entries().size(), 3u);
}

// A namespace that comes after another one may be given its number, and its interfaces theirs.
TEST_F(EndpointKeeper, ANamespaceThatComesAfterAnotherHasNothingOfAnEarlierRun)
{
    start();
    expect_added({near_end(5)});
    watched.clear();
    keeper.reset();
    const auto before = namespace_identity::of("near");
    for (int tried = 0; tried < 50 && (tried == 0 || !(namespace_identity::of("near") == before)); ++tried) {
        run("ip netns del near && ip netns add near");
    }
    plug("eth1");
    plug("eth2");
    near("bridge fdb add 02:00:00:00:00:05 dev eth1 self");
    start();
    settle(LEFTOVERS_KEPT_MS);
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 self"});
}

TEST_F(EndpointKeeper, WhatItHadWrittenDownAndNotDoneIsWhoeversDoesItAfterwards)
{
    start();
    expect_added({near_end(5)});
    near("bridge fdb del 02:00:00:00:00:05 dev eth1 self"); // as if it had ended between the two
    start();
    near("bridge fdb add 02:00:00:00:00:05 dev eth1 self");
    expect_added({near_end(5)});
    expect_removed({near_end(5)});
    settle(LEFTOVERS_KEPT_MS);
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 self"});
}

// A crash may come at any time: the journal is looked at while the keeper waits for the kernel.
TEST_F(EndpointKeeper, NeverWritesDownWhatIsSomebodyElses)
{
    near("bridge fdb add 02:00:00:00:00:05 dev eth1 self");
    start();
    expect_added({near_end(5), near_end(6)});
    std::ifstream journal("/run/kept/emi.journal");
    const std::string text{std::istreambuf_iterator<char>(journal), {}};
    EXPECT_EQ(text.find("02:00:00:00:00:05"), std::string::npos) << text;
    EXPECT_NE(text.find("02:00:00:00:00:06"), std::string::npos) << text;
}

TEST_F(EndpointKeeper, TakesAwayWhatIsLeftInANamespaceThatIsNotConfiguredAnyMore)
{
    run("ip netns add other");
    start();
    expect_added({near_end(5)});
    near("bridge fdb add 02:00:00:00:00:06 dev eth1 self");
    config.ports[0].name_space = config.ports[1].name_space = "other";
    start();
    settle(LEFTOVERS_KEPT_MS - 1);
    EXPECT_EQ(entries().size(), 2u);
    settle(1);
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:06 self"});
    EXPECT_EQ(kernel()["left_over"], 1);
    std::ifstream journal("/run/kept/emi.journal");
    const std::string text{std::istreambuf_iterator<char>(journal), {}};
    EXPECT_NE(text.find("\n-"), std::string::npos) << text;
}

// The same namespace under a second name is no other one.
TEST_F(EndpointKeeper, KeepsWhatItHasInANamespaceThatHasAnotherNameToo)
{
    run("touch /run/netns/alias && mount --bind /run/netns/near /run/netns/alias");
    start();
    expect_added({near_end(5)});
    start();
    expect_added({near_end(5)});
    settle(LEFTOVERS_KEPT_MS);
    settle();
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 self"});
}

TEST_F(EndpointKeeper, SaysOnceThatANamespaceCannotBeOpenedAndRefusesItsEndpoints)
{
    run("rm -f /run/netns/shut && echo no namespace >/run/netns/shut");
    config.ports[0].name_space = "shut";
    start();
    settle();
    const json told = kernel();
    EXPECT_EQ(told["troubles"], json::parse(R"({"network namespace \"shut\"": "cannot be opened: Invalid argument"})"));
    EXPECT_EQ(told["latest"].size(), 1u) << told["latest"];
    const auto refused = keeper->add(std::vector{near_end(5)});
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->error, EINVAL);
    expect_added({near_end(5, 100, B1)});
    run("rm /run/netns/shut && ip netns add shut");
    settle();
    EXPECT_EQ(kernel()["troubles"], json::object());
    expect_added({near_end(5)});
}

TEST_F(EndpointKeeper, ComparesNothingForAddressesThatNobodyWants)
{
    start();
    expect_added({near_end(5), far_end(6)});
    take_news();
    const json before = kernel()["comparisons"];
    near("for i in 10 11 12 13; do bridge fdb add 02:00:00:00:00:$i dev eth1 self; "
         "bridge fdb del 02:00:00:00:00:$i dev eth1 self; done");
    take_news();
    EXPECT_EQ(kernel()["comparisons"], before);
    near("bridge fdb del 02:00:00:00:00:05 dev eth1 self");
    take_news();
    EXPECT_NE(kernel()["comparisons"], before);
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 self"});
}

// ---- Forwarding tables ---------------------------------------------------------------------------------------------

class EndpointBridge : public EndpointKeeper
{
};

TEST_F(EndpointBridge, FixesFarEndAddressesWithoutAVlanWhereTheBridgeTellsNoneApart)
{
    if (!bridge(false)) {
        GTEST_SKIP() << "this kernel has no bridge";
    }
    start();
    expect_added({far_end(5, 100), far_end(5, 200), near_end(6)});
    EXPECT_EQ(entries(), (lines{"02:00:00:00:00:05 master", "02:00:00:00:00:06 self"}));
    expect_removed({far_end(5, 100)});
    settle();
    EXPECT_EQ(entries(), (lines{"02:00:00:00:00:05 master", "02:00:00:00:00:06 self"}));
    expect_removed({far_end(5, 200), near_end(6)});
    EXPECT_EQ(entries(), lines{});
    EXPECT_EQ(kernel()["mended"], 0);
}

TEST_F(EndpointBridge, MakesAnAddressThatTheBridgeHasLearntStatic)
{
    if (!bridge(false)) {
        GTEST_SKIP() << "this kernel has no bridge";
    }
    near("bridge fdb add 02:00:00:00:00:05 dev eth2 master dynamic; bridge fdb add 02:00:00:00:00:06 dev eth1 master "
         "dynamic");
    start();
    expect_added({far_end(5), far_end(6)});
    EXPECT_EQ(entries(), (lines{"02:00:00:00:00:05 master", "02:00:00:00:00:06 master"}));
    EXPECT_EQ(entries("eth2"), lines{});
    expect_removed({far_end(5), far_end(6)});
    EXPECT_EQ(entries(), lines{});
}

TEST_F(EndpointBridge, RefusesWholeAnAddressThatSomebodyHasFixedAtAnotherPort)
{
    if (!bridge(false)) {
        GTEST_SKIP() << "this kernel has no bridge";
    }
    near("bridge fdb add 02:00:00:00:00:05 dev eth2 master static");
    start();
    const std::vector<placed_endpoint> wanted = {near_end(4), far_end(4), far_end(5), near_end(6, 100, B1)};
    const auto refused = keeper->add(wanted);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->error, EEXIST);
    EXPECT_EQ(refused->words, "02:00:00:00:00:05 in the forwarding table is fixed at eth2");
    EXPECT_EQ(entries(), lines{});
    EXPECT_EQ(entries("eth2"), lines{"02:00:00:00:00:05 master"});
    settle();
    EXPECT_EQ(entries(), lines{});
    near("bridge fdb del 02:00:00:00:00:05 dev eth2 master");
    expect_added(wanted);
    EXPECT_EQ(entries(), (lines{"02:00:00:00:00:04 master", "02:00:00:00:00:04 self", "02:00:00:00:00:05 master"}));
}

TEST_F(EndpointBridge, AStaticEntryThatWasThereBeforeServesAndStays)
{
    if (!bridge(false)) {
        GTEST_SKIP() << "this kernel has no bridge";
    }
    near("bridge fdb add 02:00:00:00:00:05 dev eth1 master static");
    start();
    expect_added({far_end(5)});
    expect_removed({far_end(5)});
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 master"});
}

TEST_F(EndpointBridge, MendsWhatSomebodyElseDeletesMovesOrUnplugs)
{
    if (!bridge(false)) {
        GTEST_SKIP() << "this kernel has no bridge";
    }
    start();
    expect_added({far_end(5)});
    int mended = 0;
    for (const char *deed : {"bridge fdb del 02:00:00:00:00:05 dev eth1 master",
                             "bridge fdb replace 02:00:00:00:00:05 dev eth2 master dynamic",
                             "bridge fdb replace 02:00:00:00:00:05 dev eth1 master dynamic"}) {
        SCOPED_TRACE(deed);
        near(deed);
        take_news();
        EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 master"});
        EXPECT_EQ(kernel()["mended"], ++mended);
    }
    near("ip link set eth1 nomaster");
    take_news();
    EXPECT_EQ(entries(), lines{});
    near("ip link set eth1 master br0");
    take_news();
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 master"});
    near("ip link del eth1");
    take_news();
    plug("eth1");
    near("ip link set eth1 master br0");
    take_news();
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 master"});
}

TEST_F(EndpointBridge, FixesFarEndAddressesInTheirVlanOnceItIsLetThrough)
{
    if (!bridge(true)) {
        GTEST_SKIP() << "this kernel's bridges know no VLANs";
    }
    near("bridge vlan add vid 100 dev eth1");
    start();
    expect_added({far_end(5, 100), far_end(5, 200), far_end(6, 200)});
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 master 100"});
    EXPECT_EQ(kernel()["ports"][A1]["waiting"], 2);
    near("bridge vlan add vid 200 dev eth1");
    take_news();
    EXPECT_EQ(entries(),
              (lines{"02:00:00:00:00:05 master 100", "02:00:00:00:00:05 master 200", "02:00:00:00:00:06 master 200"}));
    near("bridge vlan del vid 100 dev eth1");
    take_news();
    EXPECT_EQ(kernel()["ports"][A1]["waiting"], 1);
    near("bridge vlan add vid 100 dev eth1");
    take_news();
    EXPECT_EQ(kernel()["ports"][A1]["waiting"], 0);
    expect_removed({far_end(5, 100), far_end(5, 200), far_end(6, 200)});
    settle();
    EXPECT_EQ(entries(), lines{});
    EXPECT_EQ(kernel()["mended"], 0);
}

TEST_F(EndpointBridge, ConfirmsTheRemovalOfAnEntryWhoseVlanWentFirstAndTakesItAwayWithTheVlansReturn)
{
    if (!bridge(true)) {
        GTEST_SKIP() << "this kernel's bridges know no VLANs";
    }
    near("bridge vlan add vid 100 dev eth1; bridge vlan add vid 100 dev eth2");
    start();
    expect_added({far_end(5), far_end(6), far_end(7)});
    near("bridge vlan del vid 100 dev eth1");
    expect_removed({far_end(5), far_end(6), far_end(7)});
    settle();
    expect_added({far_end(6, 100, B1)}); // the far end is at the other port now
    EXPECT_EQ(entries("eth2"), lines{"02:00:00:00:00:06 master 100"});
    near("bridge vlan add vid 100 dev eth1");
    take_news();
    EXPECT_EQ(entries(), lines{});
    EXPECT_EQ(entries("eth2"), lines{"02:00:00:00:00:06 master 100"});
}

// The ten seconds are over when the VLAN comes back: nobody waits ten more.
TEST_F(EndpointBridge, TakesAwayWhatAnEarlierRunHasLeftInAVlanThatIsAwayAsSoonAsItIsBack)
{
    if (!bridge(true)) {
        GTEST_SKIP() << "this kernel's bridges know no VLANs";
    }
    near("bridge vlan add vid 100 dev eth1");
    start();
    expect_added({far_end(5)});
    near("bridge vlan del vid 100 dev eth1");
    start();
    settle(LEFTOVERS_KEPT_MS);
    near("bridge vlan add vid 100 dev eth1");
    take_news();
    EXPECT_EQ(entries(), lines{});
}

TEST_F(EndpointBridge, TakesAwayWhatAnEarlierRunHasLeftAfterTenSecondsAndNothingElse)
{
    if (!bridge(false)) {
        GTEST_SKIP() << "this kernel has no bridge";
    }
    start();
    expect_added({far_end(5), far_end(6)});
    near("bridge fdb add 02:00:00:00:00:07 dev eth1 master static");
    start();
    settle(LEFTOVERS_KEPT_MS - 1);
    expect_added({far_end(5)});
    settle(1);
    EXPECT_EQ(entries(), (lines{"02:00:00:00:00:05 master", "02:00:00:00:00:07 master"}));
}

// A bridge that tells no VLANs apart has one at each port nevertheless, when nobody says otherwise.
class EndpointBridgeOfVlans : public EndpointBridge
{
protected:
    void SetUp() override
    {
        EndpointBridge::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        if (!has_vlan_bridges()) {
            GTEST_SKIP() << "this kernel's bridges know no VLANs";
        }
        near("ip link add br0 type bridge mcast_snooping 0; ip link set br0 addrgenmode none up; "
             "ip link set eth1 master br0; ip link set eth2 master br0; bridge vlan add vid 7 dev eth1; "
             "bridge vlan add vid 7 dev eth2");
    }
};

TEST_F(EndpointBridgeOfVlans, FixesAFarEndAddressInNoVlan)
{
    start();
    expect_added({far_end(5)});
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 master"});
    settle();
    expect_removed({far_end(5)});
    EXPECT_EQ(entries(), lines{});
    EXPECT_EQ(kernel()["troubles"], json::object());
}

TEST_F(EndpointBridgeOfVlans, LeavesAnAddressThatSomebodyHasFixedInAVlanAsItIs)
{
    near("bridge fdb add 02:00:00:00:00:05 dev eth1 master static vlan 1; "
         "bridge fdb add 02:00:00:00:00:06 dev eth2 master static vlan 7; "
         "bridge fdb add 02:00:00:00:00:07 dev eth1 master static sticky vlan 7; "
         "bridge fdb add 02:00:00:00:00:07 dev eth2 master dynamic vlan 1");
    start();
    expect_added({far_end(5), far_end(6), far_end(7)});
    EXPECT_EQ(entries(), (lines{"02:00:00:00:00:05 master", "02:00:00:00:00:05 master 1", "02:00:00:00:00:06 master",
                                "02:00:00:00:00:07 master", "02:00:00:00:00:07 master 7"}));
    EXPECT_EQ(entries("eth2"), (lines{"02:00:00:00:00:06 master 7", "02:00:00:00:00:07 master 1 learnt"}));
    expect_removed({far_end(5), far_end(6), far_end(7)});
    EXPECT_EQ(entries(), (lines{"02:00:00:00:00:05 master 1", "02:00:00:00:00:07 master 7"}));
    EXPECT_NE(try_run("ip netns exec near bridge fdb show dev eth1").output.find("sticky"), std::string::npos);
    EXPECT_EQ(kernel()["troubles"], json::object());
}

TEST_F(EndpointBridgeOfVlans, MakesALearntAddressStaticAndTouchesNoVlan)
{
    near("bridge vlan add vid 8 dev eth1; bridge fdb add 02:00:00:00:00:05 dev eth2 master dynamic; "
         "bridge fdb del 02:00:00:00:00:05 dev eth2 master vlan 1; bridge fdb del 02:00:00:00:00:05 dev eth2 master "
         "vlan 7; "
         "bridge fdb add 02:00:00:00:00:05 dev eth2 master static vlan 7; "
         "bridge fdb add 02:00:00:00:00:05 dev eth1 master static vlan 8");
    start();
    expect_added({far_end(5)});
    EXPECT_EQ(entries(), (lines{"02:00:00:00:00:05 master", "02:00:00:00:00:05 master 8"}));
    EXPECT_EQ(entries("eth2"), lines{"02:00:00:00:00:05 master 7"});
    start(); // an earlier run's
    settle(LEFTOVERS_KEPT_MS);
    EXPECT_EQ(entries(), lines{"02:00:00:00:00:05 master 8"});
    EXPECT_EQ(entries("eth2"), lines{"02:00:00:00:00:05 master 7"});
}

// ---- Chance --------------------------------------------------------------------------------------------------------

// Requests, other people's deeds, interfaces and VLANs that come and go, and restarts, in any order; after each settle
// the kernel has what was asked for, what others made is theirs, and nothing else is there. The deeds go over a socket
// of the test's own, since a thousand calls of `bridge` take minutes; what that tells is compared every hundred steps.
class EndpointWalk : public EndpointKeeper
{
protected:
    using other_entry = std::pair<std::string, address_entry>; // at which interface

    void begin(bool filters_vlans)
    {
        filters = filters_vlans;
        ask = std::make_unique<netlink_socket>(NETLINK_ROUTE, "near");
        start();
    }
    static const char *interface_of(const placed_endpoint &each) { return each.port == A1 ? "eth1" : "eth2"; }
    // No address is asked for as a far end on both ports: a bridge has each at one.
    placed_endpoint any_endpoint()
    {
        const bool first = chance.number(0, 1) == 0;
        const auto vlan = static_cast<uint16_t>(chance.number(1, 2) * 100);
        const int number = chance.number(0, 3) + (first ? 0x10 : 0x20);
        return {first ? A1 : B1, {2, 0, 0, 0, 0, static_cast<uint8_t>(number)}, vlan, chance.number(0, 1) == 0};
    }
    // What an endpoint is in the kernel now, if it is anything.
    std::optional<address_entry> entry_of(const placed_endpoint &each) const
    {
        address_entry entry{.forwarding = each.far_end, .address = each.address, .vlan_id = 0};
        if (each.far_end && filters) {
            entry.vlan_id = each.vlan_id;
            return vlans.contains({interface_of(each), each.vlan_id}) ? std::optional(entry) : std::nullopt;
        }
        return entry;
    }
    bool is_there(const other_entry &which) const
    {
        return theirs.contains(which) || std::any_of(wanted.begin(), wanted.end(), [&](const auto &each) {
                   return interface_of(each) == which.first && entry_of(each) == which.second;
               });
    }

    void some_requests()
    {
        std::vector<placed_endpoint> fresh;
        std::vector<placed_endpoint> unwanted;
        for (int i = chance.number(1, 4); i > 0; --i) {
            const placed_endpoint each = any_endpoint();
            auto &list = wanted.contains(each) ? unwanted : fresh;
            if (std::find(list.begin(), list.end(), each) == list.end()) {
                list.push_back(each);
            }
        }
        expect_added(fresh);
        wanted.insert(fresh.begin(), fresh.end());
        expect_removed(unwanted);
        for (const placed_endpoint &each : unwanted) {
            wanted.erase(each);
        }
    }
    void others_put()
    {
        const placed_endpoint each = any_endpoint();
        const auto entry = entry_of(each);
        if (entry && !is_there({interface_of(each), *entry})) {
            ASSERT_FALSE(put_entry(*ask, index_of(*ask, interface_of(each)), *entry, when_known::REFUSE));
            theirs.insert({interface_of(each), *entry});
        }
    }
    void others_take()
    {
        const placed_endpoint each = any_endpoint();
        const auto entry = entry_of(each);
        if (entry && is_there({interface_of(each), *entry})) {
            ASSERT_FALSE(take_entry(*ask, index_of(*ask, interface_of(each)), *entry));
            theirs.erase({interface_of(each), *entry});
        }
    }
    void turn_vlan()
    {
        const placed_endpoint each = any_endpoint();
        const int port = index_of(*ask, interface_of(each));
        if (filters && vlans.insert({interface_of(each), each.vlan_id}).second) {
            ASSERT_FALSE(let_vlan_through(*ask, port, each.vlan_id));
        } else if (filters) {
            ASSERT_FALSE(stop_vlan(*ask, port, each.vlan_id));
            vlans.erase({interface_of(each), each.vlan_id}); // entries stay in it, without effect
        }
    }
    void pull_and_plug(const std::string &interface)
    {
        near("ip link del " + interface);
        plug(interface);
        near("ip link set " + interface + " master br0");
        std::erase_if(theirs, [&](const other_entry &which) { return which.first == interface; });
        std::erase_if(vlans, [&](const auto &which) { return which.first == interface; });
    }
    void restart()
    {
        mended_before += kernel()["mended"].get<int>();
        start();
        expect_added({wanted.begin(), wanted.end()});
        settle(LEFTOVERS_KEPT_MS); // an entry whose VLAN is away is left over, too, and goes when that is back
    }
    void step(int deed)
    {
        if (deed < 50) {
            some_requests();
        } else if (deed < 65) {
            others_put();
        } else if (deed < 85) {
            others_take();
        } else if (deed < 97) {
            turn_vlan();
        } else if (deed == 97) {
            pull_and_plug(chance.number(0, 1) == 0 ? "eth1" : "eth2");
        } else if (deed == 98) {
            restart();
        }
    }

    static std::string text_of(const address_entry &entry)
    {
        std::string text = mac_text(entry.address) + (entry.forwarding ? " master" : " self");
        std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
        return text + (entry.vlan_id == 0 ? "" : " " + std::to_string(entry.vlan_id));
    }
    bool has_effect(const std::string &interface, const address_entry &entry) const
    {
        return entry.vlan_id == 0 || vlans.contains({interface, entry.vlan_id});
    }
    lines expected(const std::string &interface) const
    {
        lines all;
        for (const placed_endpoint &each : wanted) {
            const auto entry = entry_of(each);
            if (entry && interface_of(each) == interface) {
                all.insert(text_of(*entry));
            }
        }
        for (const auto &[at, entry] : theirs) {
            if (at == interface && has_effect(interface, entry)) {
                all.insert(text_of(entry));
            }
        }
        return all;
    }
    lines found(const std::string &interface)
    {
        entry_table table;
        EXPECT_FALSE(read_entries(*ask, index_of(*ask, interface), 0, table));
        lines all;
        for (const auto &[entry, known] : table) {
            if (std::equal(OURS.begin(), OURS.end(), entry.address.begin()) && has_effect(interface, entry)) {
                all.insert(text_of(entry) + (known.fixed ? "" : " learnt"));
            }
        }
        return all;
    }
    lines entries_with_effect(const std::string &interface) const
    {
        lines all = entries(interface);
        std::erase_if(all, [&](const std::string &line) {
            const size_t at = line.find(" master ");
            return at != std::string::npos &&
                   !vlans.contains({interface, static_cast<uint16_t>(std::stoi(line.substr(at + 8)))});
        });
        return all;
    }
    void walk()
    {
        for (int number = 1; number <= 1000; ++number) {
            const int deed = chance.number(0, 99);
            SCOPED_TRACE("step " + std::to_string(number) + ", deed " + std::to_string(deed));
            ASSERT_NO_FATAL_FAILURE(step(deed));
            chance.number(0, 1) == 0 ? take_news() : settle();
            for (const char *interface : {"eth1", "eth2"}) {
                ASSERT_EQ(found(interface), expected(interface)) << interface;
                if (number % 100 == 0) {
                    ASSERT_EQ(entries_with_effect(interface), expected(interface)) << interface;
                }
            }
        }
        EXPECT_GT(mended_before + kernel()["mended"].get<int>(), 0);
    }

    Seeded chance;
    bool filters = false;
    std::unique_ptr<netlink_socket> ask;
    int mended_before = 0; // by keepers that have ended
    std::set<placed_endpoint> wanted;
    std::set<other_entry> theirs;
    std::set<std::pair<std::string, uint16_t>> vlans; // let through, by interface
};

TEST_F(EndpointWalk, HoldsThroughAThousandRequestsAndDisturbancesAtABridge)
{
    if (!bridge(false)) {
        GTEST_SKIP() << "this kernel has no bridge";
    }
    begin(false);
    walk();
}

TEST_F(EndpointWalk, HoldsThroughAThousandRequestsAndDisturbancesAtABridgeWithVlans)
{
    if (!bridge(true)) {
        GTEST_SKIP() << "this kernel's bridges know no VLANs";
    }
    begin(true);
    walk();
}

} // namespace
} // namespace kap_node
