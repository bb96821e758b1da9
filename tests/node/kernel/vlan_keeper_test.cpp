// VLANs of ports in the kernel: devices and bridge ports, as `ip` and `bridge` tell them.
#include "kernel/vlan_keeper.hpp"

#include "../../support/seeded.hpp"
#include "keeper_fixture.hpp"

#include <cerrno>
#include <set>

namespace kap_node
{
namespace
{

constexpr const char *A1 = "IDLA1";
constexpr const char *B1 = "IDLB1";

class VlanKeeper : public KeeperTest
{
protected:
    void SetUp() override
    {
        KeeperTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        config.ports = {kernel_port("IDL_A1", A1, "DiPort_A1", "eth1", vlan_mode::device),
                        kernel_port("IDL_B1", B1, "DiPort_B1", "eth2", vlan_mode::none)};
        near("ip link add eth1 type veth peer name far1; ip link set eth1 up; ip link set far1 up; "
             "ip link add eth2 type veth peer name far2; ip link set eth2 up; ip link set far2 up");
    }
    void start()
    {
        watched.clear();
        keeper.reset();
        keeper = std::make_unique<vlan_keeper>(config);
        keeper->watch(hooks());
        keeper->settle(now);
    }
    // After `passed` milliseconds the loop asks the keeper to settle.
    void settle(millis passed = SETTLE_PERIOD_MS) { keeper->settle(now += passed); }
    void expect_open(const char *port, uint16_t id)
    {
        const auto refused = keeper->open(port, id);
        EXPECT_FALSE(refused) << refused->words;
    }
    void expect_closed(const char *port, uint16_t id)
    {
        const auto refused = keeper->close(port, id);
        EXPECT_FALSE(refused) << refused->words;
    }
    static int refused_with(const std::optional<kernel_refusal> &refused) { return refused ? refused->error : 0; }
    json kernel() { return keeper->show(); }

    // Name, VLAN, and what else a device has that is ours or not: up, alias, group.
    static std::set<std::string> devices()
    {
        std::set<std::string> found;
        for (const json &link : listed("ip -j -d link show type vlan")) {
            const auto &flags = link["flags"];
            const bool up = std::find(flags.begin(), flags.end(), "UP") != flags.end();
            found.insert(link.value("ifname", "") + " " + std::to_string(link["linkinfo"]["info_data"].value("id", 0)) +
                         " on " + link.value("link", "?") + (up ? " up" : " down") + " " + link.value("ifalias", "-") +
                         (link.value("group", "") == "default" ? "" : " grouped"));
        }
        return found;
    }

    node_config config;
    std::unique_ptr<vlan_keeper> keeper;
    millis now = 1000;
};

using lines = std::set<std::string>;

// ---- What needs no VLAN device -------------------------------------------------------------------------------------

TEST_F(VlanKeeper, DoesNothingForAPortWhoseSendersTagForThemselves)
{
    start();
    expect_open(B1, 100);
    settle();
    EXPECT_EQ(listed("ip -j link show").size(), 5u);
    EXPECT_EQ(kernel()["vlans"], json::parse(R"([{"port": "IDLB1", "vlan_id": 100, "interface": "", "by": "none"}])"));
    expect_closed(B1, 100);
    EXPECT_EQ(kernel()["vlans"], json::array());
}

TEST_F(VlanKeeper, RefusesAVlanOfAPortWhoseInterfaceOrNamespaceIsNotThere)
{
    start();
    near("ip link del eth1");
    EXPECT_EQ(refused_with(keeper->open(A1, 100)), ENODEV);
    run("ip netns del near");
    settle();
    EXPECT_EQ(refused_with(keeper->open(A1, 100)), ENOENT);
    EXPECT_EQ(kernel()["refused"], 2);
    EXPECT_EQ(kernel()["vlans"], json::array());
}

TEST_F(VlanKeeper, SaysOnceThatANamespaceCannotBeOpenedAndWhyWhenItIsAsked)
{
    run("echo no namespace >/run/netns/shut");
    config.ports[0].name_space = "shut";
    start();
    settle();
    EXPECT_EQ(kernel()["troubles"],
              json::parse(R"({"network namespace \"shut\"": "cannot be opened: Invalid argument"})"));
    EXPECT_EQ(kernel()["latest"].size(), 1u) << kernel()["latest"];
    EXPECT_EQ(refused_with(keeper->open(A1, 100)), EINVAL);
    run("rm /run/netns/shut");
    settle();
    EXPECT_EQ(kernel()["troubles"],
              json::parse(R"({"network namespace \"shut\"": "there is no network namespace shut"})"));
    run("ip netns add shut");
    settle();
    EXPECT_EQ(kernel()["troubles"], json::object());
}

// There is no VLAN on the loopback interface, and on some kernels none anywhere.
TEST_F(VlanKeeper, TellsInTheKernelsWordsWhatTheKernelDoesNotDo)
{
    config.ports[0].interface = "lo";
    start();
    const auto refused = keeper->open(A1, 100);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->error, EOPNOTSUPP);
    EXPECT_EQ(refused->words, has_vlan_devices() ? "8021q: VLANs not supported on device" : "Unknown device type");
    EXPECT_EQ(kernel()["latest"], json::parse("[\"VLAN 100 of IDL_A1: refused: " + refused->words + "\"]"));
    EXPECT_EQ(kernel()["vlans"], json::array());
}

TEST(VlanDeviceName, IsTheInterfacesWithTheIdOrThePortsWhereThatIsTooLong)
{
    port_config port = kernel_port("IDL_A1", A1, "DiPort_A1", "eth1", vlan_mode::device);
    EXPECT_EQ(vlan_device_name(port, 4094), "eth1.4094");
    port.interface = "enp129s0f1";
    EXPECT_EQ(vlan_device_name(port, 4094), "enp129s0f1.4094");
    port.interface = "enp129s0f1np";
    EXPECT_EQ(vlan_device_name(port, 10), "enp129s0f1np.10");
    EXPECT_EQ(vlan_device_name(port, 100), "IDL_A1.100");
    port.people_name = port.name = "";
    EXPECT_EQ(vlan_device_name(port, 100), "");
}

// ---- Devices -------------------------------------------------------------------------------------------------------

class VlanDevices : public VlanKeeper
{
protected:
    void SetUp() override
    {
        VlanKeeper::SetUp();
        if (!IsSkipped() && !HasFatalFailure() && !has_vlan_devices()) {
            GTEST_SKIP() << "this kernel has no VLAN devices";
        }
    }
};

TEST_F(VlanDevices, MakesADeviceThatIsUpAndHasOurAliasAndTakesItAway)
{
    start();
    expect_open(A1, 100);
    expect_open(A1, 200);
    EXPECT_EQ(devices(), (lines{"eth1.100 100 on eth1 up kap-node", "eth1.200 200 on eth1 up kap-node"}));
    expect_closed(A1, 100);
    EXPECT_EQ(devices(), (lines{"eth1.200 200 on eth1 up kap-node"}));
    settle();
    take_news();
    EXPECT_EQ(devices(), (lines{"eth1.200 200 on eth1 up kap-node"}));
    EXPECT_EQ(kernel()["mended"], 0);
}

TEST_F(VlanDevices, GivesADeviceTheNameOfItsPortWhereTheInterfacesIsTooLong)
{
    config.ports[0].interface = "enp129s0f1np1";
    near("ip link set eth1 down; ip link set eth1 name enp129s0f1np1; ip link set enp129s0f1np1 up");
    start();
    expect_open(A1, 4094);
    EXPECT_EQ(devices(), (lines{"IDL_A1.4094 4094 on enp129s0f1np1 up kap-node"}));
}

TEST_F(VlanDevices, ADeviceOfAnInterfaceThatIsDownGoesUpWithIt)
{
    near("ip link set eth1 down");
    start();
    expect_open(A1, 100);
    EXPECT_EQ(devices(), (lines{"eth1.100 100 on eth1 down kap-node"}));
    settle();
    near("ip link set eth1 up");
    settle();
    EXPECT_EQ(devices(), (lines{"eth1.100 100 on eth1 up kap-node"}));
    near("ip link set eth1 down");
    settle();
    EXPECT_EQ(kernel()["mended"], 0);
}

TEST_F(VlanDevices, ADeviceThatWasThereBeforeServesAndStaysAsItIs)
{
    near("ip link add link eth1 name theirs type vlan id 100");
    start();
    expect_open(A1, 100);
    settle();
    EXPECT_EQ(devices(), (lines{"theirs 100 on eth1 down -"}));
    EXPECT_EQ(kernel()["vlans"][0]["by"], "other");
    expect_closed(A1, 100);
    settle(LEFTOVERS_KEPT_MS);
    settle(LEFTOVERS_KEPT_MS);
    EXPECT_EQ(devices(), (lines{"theirs 100 on eth1 down -"}));
}

TEST_F(VlanDevices, MakesOneOfItsOwnWhenTheOneThatServedGoes)
{
    near("ip link add link eth1 name theirs type vlan id 100");
    start();
    expect_open(A1, 100);
    near("ip link del theirs");
    take_news();
    EXPECT_EQ(devices(), (lines{"eth1.100 100 on eth1 up kap-node"}));
    EXPECT_EQ(kernel()["mended"], 1);
}

TEST_F(VlanDevices, RefusesADeviceWhoseNameIsTaken)
{
    near("ip link add eth1.100 type veth peer name else");
    start();
    EXPECT_EQ(refused_with(keeper->open(A1, 100)), EEXIST);
    EXPECT_EQ(devices(), lines{});
}

TEST_F(VlanDevices, MendsWhatSomebodyElseDoesToADeviceOfOurs)
{
    start();
    expect_open(A1, 100);
    const lines whole = {"eth1.100 100 on eth1 up kap-node"};
    int mended = 0;
    for (const char *deed :
         {"ip link del eth1.100", "ip link set eth1.100 down",
          "ip link set eth1.100 down; ip link set eth1.100 name stolen", "ip link set eth1.100 alias mine",
          "ip link del eth1.100; ip link add eth1.100 link eth1 type vlan id 100; ip link del eth1.100"}) {
        SCOPED_TRACE(deed);
        near(deed);
        take_news();
        EXPECT_EQ(devices(), whole);
        EXPECT_EQ(kernel()["mended"], ++mended);
    }
    settle();
    EXPECT_EQ(kernel()["mended"], mended);
}

TEST_F(VlanDevices, PutsADeviceBackWithItsInterfaceAndWithItsNamespace)
{
    start();
    expect_open(A1, 100);
    near("ip link del eth1");
    take_news();
    EXPECT_EQ(kernel()["vlans"][0]["by"], "nobody");
    near("ip link add eth1 type veth peer name far1; ip link set eth1 up; ip link set far1 up");
    take_news();
    EXPECT_EQ(devices(), (lines{"eth1.100 100 on eth1 up kap-node"}));
    run("ip netns del near");
    settle();
    run("ip netns add near");
    near("ip link add eth1 type veth peer name far1; ip link set eth1 up; ip link set far1 up");
    settle();
    EXPECT_EQ(devices(), (lines{"eth1.100 100 on eth1 up kap-node"}));
    EXPECT_EQ(kernel()["vlans"][0]["by"], "kap-node");
}

TEST_F(VlanDevices, ConfirmsTheRemovalOfWhatTheKernelHasLost)
{
    start();
    expect_open(A1, 100);
    near("ip link del eth1.100");
    expect_closed(A1, 100);
    take_news();
    settle();
    EXPECT_EQ(devices(), lines{});
    expect_open(A1, 100);
    run("ip netns del near");
    expect_closed(A1, 100);
    settle();
    expect_open(B1, 100);
}

TEST_F(VlanDevices, LeavesAnEarlierRunsDeviceForTenSecondsAndThenTakesItAway)
{
    start();
    expect_open(A1, 100);
    expect_open(A1, 200);
    near("ip link add link eth1 name theirs type vlan id 300");
    const json before = listed("ip -j link show eth1.100");
    start();
    EXPECT_EQ(devices().size(), 3u);
    settle(LEFTOVERS_KEPT_MS - 1);
    EXPECT_EQ(devices().size(), 3u);
    expect_open(A1, 100);
    settle(1);
    EXPECT_EQ(devices(), (lines{"eth1.100 100 on eth1 up kap-node", "theirs 300 on eth1 down -"}));
    EXPECT_EQ(listed("ip -j link show eth1.100")[0]["ifindex"], before[0]["ifindex"]);
    EXPECT_EQ(kernel()["left_over"], 1);
    EXPECT_EQ(kernel()["mended"], 0);
    expect_closed(A1, 100);
    EXPECT_EQ(devices(), (lines{"theirs 300 on eth1 down -"}));
}

TEST_F(VlanDevices, TakesAwayWhatIsLeftInANamespaceThatIsNotConfiguredAnyMore)
{
    run("ip netns add other && touch /run/netns/alias && mount --bind /run/netns/other /run/netns/alias");
    start();
    expect_open(A1, 100);
    near("ip link add link eth1 name mine type vlan id 300");
    run("ip -n other link add eth1 type veth peer name far1");
    config.ports[0].name_space = config.ports[1].name_space = "other";
    start();
    expect_open(A1, 100);
    settle(LEFT_VLANS_KEPT_MS - 1);
    EXPECT_EQ(devices().size(), 2u);
    settle(1);
    EXPECT_EQ(devices(), lines{"mine 300 on eth1 down -"});
    EXPECT_EQ(kernel()["left_over"], 1) << "what is kept is not, whatever else its namespace is called";
}

TEST_F(VlanDevices, KnowsADeviceThatAnEarlierRunHadNotFinished)
{
    near("ip link add link eth1 name eth1.100 group 7037296 type vlan id 100; "
         "ip link add link eth1 name eth1.200 group 7037296 type vlan id 200; "
         "ip link add link eth1 name eth1.300 group 7037296 type vlan id 300; ip link set eth1.300 up");
    start();
    expect_open(A1, 100);
    settle(LEFTOVERS_KEPT_MS);
    settle(1);
    EXPECT_EQ(devices(), (lines{"eth1.100 100 on eth1 up kap-node", "eth1.300 300 on eth1 up - grouped"}));
}

// ---- Bridge ports --------------------------------------------------------------------------------------------------

class VlanBridge : public VlanKeeper
{
protected:
    void SetUp() override
    {
        VlanKeeper::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        if (!has_vlan_bridges()) {
            GTEST_SKIP() << "this kernel's bridges know no VLANs";
        }
        config.ports[0].vlan = vlan_mode::bridge;
        near("ip link add br0 type bridge vlan_filtering 1; ip link set br0 up; ip link set eth1 master br0");
    }
    // VLANs of eth1, with their flags.
    static lines vlans()
    {
        lines found;
        for (const json &port : listed("bridge -j vlan show")) {
            if (port["ifname"] != "eth1") {
                continue;
            }
            for (const json &vlan : port["vlans"]) {
                const int last = vlan.value("vlanEnd", vlan["vlan"].get<int>());
                for (int id = vlan["vlan"]; id <= last; ++id) {
                    found.insert(std::to_string(id) + (vlan.contains("flags") ? " " + vlan["flags"].dump() : ""));
                }
            }
        }
        return found;
    }
    const std::string untouched = R"(1 ["PVID","Egress Untagged"])";
};

TEST_F(VlanBridge, LetsAVlanThroughOnTheBridgePortAndNoMore)
{
    start();
    expect_open(A1, 100);
    expect_open(A1, 101);
    EXPECT_EQ(vlans(), (lines{untouched, "100", "101"}));
    expect_closed(A1, 100);
    EXPECT_EQ(vlans(), (lines{untouched, "101"}));
    settle();
    EXPECT_EQ(kernel()["mended"], 0);
}

TEST_F(VlanBridge, AVlanThatWasThereBeforeServesAndStays)
{
    start();
    expect_open(A1, 1);
    settle();
    EXPECT_EQ(kernel()["vlans"][0]["by"], "other");
    expect_closed(A1, 1);
    settle(LEFTOVERS_KEPT_MS);
    EXPECT_EQ(vlans(), lines{untouched});
}

TEST_F(VlanBridge, RefusesWhatIsNoPortOfABridge)
{
    near("ip link set eth1 nomaster");
    start();
    EXPECT_EQ(refused_with(keeper->open(A1, 100)), ENXIO);
}

TEST_F(VlanBridge, MendsWhatSomebodyElseDoesToItsVlans)
{
    start();
    expect_open(A1, 100);
    near("bridge vlan del vid 100 dev eth1");
    take_news();
    EXPECT_EQ(vlans(), (lines{untouched, "100"}));
    EXPECT_EQ(kernel()["mended"], 1);
    near("ip link set eth1 nomaster");
    take_news();
    near("ip link set eth1 master br0");
    take_news();
    EXPECT_EQ(vlans(), (lines{untouched, "100"}));
    near("ip link del eth1");
    take_news();
    near("ip link add eth1 type veth peer name far1; ip link set eth1 master br0");
    take_news();
    EXPECT_EQ(vlans(), (lines{untouched, "100"}));
    expect_closed(A1, 100);
    EXPECT_EQ(vlans(), lines{untouched});
}

TEST_F(VlanBridge, ConfirmsTheRemovalOfWhatTheKernelHasLost)
{
    start();
    expect_open(A1, 100);
    near("bridge vlan del vid 100 dev eth1");
    expect_closed(A1, 100);
    expect_open(A1, 100);
    near("ip link set eth1 nomaster");
    expect_closed(A1, 100);
    settle();
    EXPECT_EQ(kernel()["vlans"], json::array());
}

// Later than the endpoint manager, whose entries stand on it.
TEST_F(VlanBridge, TakesAwayWhatAnEarlierRunHasLeftAfterTwelveSecondsAndNothingElse)
{
    start();
    expect_open(A1, 100);
    expect_open(A1, 101);
    near("bridge vlan add vid 300 dev eth1");
    start();
    settle(LEFTOVERS_KEPT_MS + 2000 - 1);
    EXPECT_EQ(vlans(), (lines{untouched, "100", "101", "300"}));
    expect_open(A1, 100);
    settle(1);
    EXPECT_EQ(vlans(), (lines{untouched, "100", "300"}));
    expect_closed(A1, 100);
    EXPECT_EQ(vlans(), (lines{untouched, "300"}));
}

TEST_F(VlanBridge, TakesAwayWhatIsLeftInANamespaceThatIsNotConfiguredAnyMore)
{
    run("ip netns add other");
    start();
    expect_open(A1, 100);
    near("bridge vlan add vid 300 dev eth1");
    config.ports[0].name_space = config.ports[1].name_space = "other";
    start();
    settle(LEFT_VLANS_KEPT_MS - 1);
    EXPECT_EQ(vlans(), (lines{untouched, "100", "300"}));
    settle(1);
    EXPECT_EQ(vlans(), (lines{untouched, "300"}));
    EXPECT_EQ(kernel()["left_over"], 1);
}

TEST_F(VlanBridge, ANamespaceThatComesAfterAnotherHasNothingOfAnEarlierRun)
{
    start();
    expect_open(A1, 100);
    watched.clear();
    keeper.reset();
    const auto before = namespace_identity::of("near");
    for (int tried = 0; tried < 50 && (tried == 0 || !(namespace_identity::of("near") == before)); ++tried) {
        run("ip netns del near && ip netns add near");
    }
    near("ip link add eth1 type veth peer name far1; ip link add eth2 type veth peer name far2; "
         "ip link add br0 type bridge vlan_filtering 1; ip link set eth1 master br0; "
         "bridge vlan add vid 100 dev eth1");
    start();
    settle(LEFT_VLANS_KEPT_MS);
    EXPECT_EQ(vlans(), (lines{untouched, "100"}));
}

// ---- Chance --------------------------------------------------------------------------------------------------------

// Requests, other people's deeds and restarts in any order; after each settle the kernel has what was asked for, what
// others made is theirs, and nothing else is there. The deeds go over a socket of the test's own, since a thousand
// calls of `ip` take minutes; what `ip` tells is compared every hundred steps.
class VlanWalk : public VlanDevices
{
protected:
    void begin()
    {
        ask = std::make_unique<netlink_socket>(NETLINK_ROUTE, "near");
        start();
    }
    int device(int id) { return index_of(*ask, "eth1." + std::to_string(id)); }
    void others_make(int id)
    {
        const auto refused =
            make_vlan_device(*ask, "eth1." + std::to_string(id), index_of(*ask, "eth1"), static_cast<uint16_t>(id));
        ASSERT_FALSE(refused) << refused->words;
        link_change theirs_now;
        theirs_now.group = 0;
        ASSERT_FALSE(change_link(*ask, device(id), theirs_now));
        theirs.insert(id);
    }
    void others_delete(int id)
    {
        ASSERT_FALSE(delete_link(*ask, device(id)));
        theirs.erase(id);
    }
    void others_set_down(int id)
    {
        link_change down;
        down.up = false;
        ASSERT_FALSE(change_link(*ask, device(id), down));
    }
    void pull_and_plug()
    {
        near("ip link del eth1; ip link add eth1 type veth peer name far1; ip link set eth1 up");
        theirs.clear();
    }
    void restart()
    {
        mended_before += kernel()["mended"].get<int>();
        start();
        for (const int each : wanted) {
            expect_open(A1, static_cast<uint16_t>(each));
        }
    }
    void step(int deed, int id)
    {
        const bool asked_for = wanted.contains(id);
        const bool is_theirs = theirs.contains(id);
        if (deed < 35 && !asked_for) {
            expect_open(A1, static_cast<uint16_t>(id));
            wanted.insert(id);
        } else if (deed < 60 && asked_for) {
            expect_closed(A1, static_cast<uint16_t>(id));
            wanted.erase(id);
        } else if (deed < 70 && !asked_for && !is_theirs) {
            others_make(id);
        } else if (deed < 85 && (asked_for || is_theirs)) {
            others_delete(id);
        } else if (deed < 97 && asked_for && !is_theirs) {
            others_set_down(id);
        } else if (deed == 98) {
            pull_and_plug();
        } else if (deed == 99) {
            restart();
        }
    }
    lines expected() const
    {
        lines all;
        for (const int id : wanted) {
            all.insert("eth1." + std::to_string(id) + " " + std::to_string(id) + " on eth1 " +
                       (theirs.contains(id) ? "down -" : "up kap-node"));
        }
        for (const int id : theirs) {
            all.insert("eth1." + std::to_string(id) + " " + std::to_string(id) + " on eth1 down -");
        }
        return all;
    }
    lines found()
    {
        link_table links;
        EXPECT_FALSE(read_links(*ask, links));
        lines all;
        for (const auto &[index, link] : links.links) {
            if (link.is_vlan) {
                const kernel_link *on = links.at(link.parent);
                all.insert(link.name + " " + std::to_string(link.vlan_id) + " on " + (on == nullptr ? "?" : on->name) +
                           (link.up ? " up " : " down ") + (link.alias.empty() ? "-" : link.alias) +
                           (link.group == 0 ? "" : " grouped"));
            }
        }
        return all;
    }

    std::unique_ptr<netlink_socket> ask;
    int mended_before = 0; // by keepers that have ended
    std::set<int> wanted;
    std::set<int> theirs; // made by others
};

TEST_F(VlanWalk, HoldsThroughAThousandRequestsAndDisturbances)
{
    Seeded chance;
    begin();
    for (int number = 1; number <= 1000; ++number) {
        const int id = 100 + chance.number(0, 9);
        const int deed = chance.number(0, 99);
        SCOPED_TRACE("step " + std::to_string(number) + ", deed " + std::to_string(deed) + ", VLAN " +
                     std::to_string(id));
        ASSERT_NO_FATAL_FAILURE(step(deed, id));
        chance.number(0, 1) == 0 ? take_news() : settle();
        ASSERT_EQ(found(), expected());
        if (number % 100 == 0) {
            ASSERT_EQ(devices(), expected());
        }
    }
    EXPECT_GT(mended_before + kernel()["mended"].get<int>(), 0);
}

} // namespace
} // namespace kap_node
