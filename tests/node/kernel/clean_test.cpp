// "kap-node clean": what services left in the kernel goes by its names and the journals, whatever is configured now.
#include "keeper_fixture.hpp"
#include "kernel/endpoint_keeper.hpp"
#include "kernel/vlan_keeper.hpp"

namespace kap_node
{
namespace
{

class Clean : public KeeperTest
{
protected:
    void SetUp() override
    {
        KeeperTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        near("ip link add eth1 type veth peer name far1; ip link set eth1 up");
        config.ports = {kernel_port("IDL_A1", "IDLA1", "DiPort_A1", "eth1", vlan_mode::device)};
    }
    static ran clean(const std::string &words) { return try_run(std::string(KAP_NODE_PATH) + " clean " + words); }
    static bool has(const std::string &address)
    {
        return try_run("ip netns exec near bridge fdb show dev eth1").output.find(address) != std::string::npos;
    }
    // What a run that was ended leaves.
    void leave_an_endpoint()
    {
        endpoint_keeper keeper(config);
        keeper.settle(1000);
        const placed_endpoint left{"DiPort_A1", {2, 0, 0, 0, 0, 5}, 100, false};
        ASSERT_FALSE(keeper.add({&left, 1}));
        near("bridge fdb add 02:00:00:00:00:06 dev eth1 self");
    }

    node_config config;
};

TEST_F(Clean, TakesAwayEndpointsAlsoWhenTheConfigurationIsBrokenOrGone)
{
    for (const char *words : {"emi", "emi --config /nowhere", "emi --config /run/broken.toml"}) {
        SCOPED_TRACE(words);
        run("echo broken >/run/broken.toml");
        leave_an_endpoint();
        ASSERT_TRUE(has("02:00:00:00:00:05"));
        const ran done = clean(words);
        EXPECT_EQ(done.status, 0) << done.output;
        EXPECT_FALSE(has("02:00:00:00:00:05"));
        EXPECT_TRUE(has("02:00:00:00:00:06"));
        near("bridge fdb del 02:00:00:00:00:06 dev eth1 self");
    }
}

TEST_F(Clean, FindsTheJournalWhereTheServiceManagerHasItKept)
{
    ASSERT_EQ(setenv("RUNTIME_DIRECTORY", "/run/kap-node/emi", 1), 0);
    run("mkdir -p /run/kap-node/emi");
    leave_an_endpoint();
    ASSERT_EQ(unsetenv("RUNTIME_DIRECTORY"), 0);
    EXPECT_EQ(clean("emi").status, 0);
    EXPECT_FALSE(has("02:00:00:00:00:05"));
}

TEST_F(Clean, TakesAwayVlanDevicesWithoutAConfiguration)
{
    if (!has_vlan_devices()) {
        GTEST_SKIP() << "this kernel has no VLAN devices";
    }
    {
        vlan_keeper keeper(config);
        keeper.settle(1000);
        ASSERT_FALSE(keeper.open("IDLA1", 100));
    }
    near("ip link add link eth1 name mine type vlan id 300");
    EXPECT_EQ(clean("pmi").status, 0);
    EXPECT_NE(try_run("ip -n near link show eth1.100").status, 0);
    EXPECT_EQ(try_run("ip -n near link show mine").status, 0);
}

TEST_F(Clean, RefusesWordsThatMakeNoSense)
{
    for (const char *words : {"", "everything", "emi now", "emi --config", "emi --config a b"}) {
        EXPECT_EQ(WEXITSTATUS(clean(words).status), 2) << words;
    }
}

} // namespace
} // namespace kap_node
