// The flow manager's rules in the kernel: what they let in and count, and that they stay as they were asked for.
#include "rule_fixture.hpp"

#include "../support.hpp"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace kap_node
{
namespace
{

const std::string IDL = "DiPort_A1";
const std::string TN = "TNA";

// For the rest of the life of this process.
void refuse_every_sendto(int error)
{
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_sendto, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter = {sizeof program / sizeof program[0], program};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

class RuleKernel : public RuleTest
{
protected:
    void SetUp() override
    {
        RuleTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        sender = std::make_unique<frame_sender>("far", "idl_a1");
        data = std::make_unique<frame_receiver>("near", "idl_a1", DATA);
        supervision = std::make_unique<frame_receiver>("near", "idl_a1", SUPERVISION);
    }
    uint64_t default_count(const char *what)
    {
        return counters(IDL)["default_action"][what]["packets"].get<uint64_t>();
    }
    uint64_t rule_count(size_t index, const char *what)
    {
        return counters(IDL)["dynamic_rules"][index][what]["packets"].get<uint64_t>();
    }

    std::unique_ptr<frame_sender> sender;
    std::unique_ptr<frame_receiver> data;
    std::unique_ptr<frame_receiver> supervision;
};

// ---- What is let in ------------------------------------------------------------------------------------------------

TEST_F(RuleKernel, APortNobodyHasAskedForLetsEverythingInAndHasNothingInTheKernel)
{
    sender->send({});
    EXPECT_TRUE(eventually([&] { return data->count() == 1; }));
    EXPECT_EQ(listing(), json::array());
}

TEST_F(RuleKernel, AClosedPortLetsInWhatADynamicRuleNamesAndCountsTheRest)
{
    port_rules rules = closed();
    rules.dynamic_rules[3] = {FMI_NO_POLICER, {ADDRESS, {2, 0, 0, 0, 0, 7}}, {DATA}};
    apply(IDL, rules);
    sender->send({.to = ADDRESS}, 5);
    sender->send({.to = {2, 0, 0, 0, 0, 7}}, 2);
    sender->send({.to = OTHER_ADDRESS}, 3);
    sender->send({.to = ADDRESS, .ether_type = SUPERVISION}, 4);
    EXPECT_TRUE(eventually([&] { return default_count("dropped") == 7 && rule_count(0, "accepted") == 7; }))
        << counters(IDL);
    EXPECT_EQ(data->count(), 7u);
    EXPECT_EQ(supervision->count(), 0u);
    EXPECT_EQ(counters(IDL)["dynamic_rules"][0]["accepted"]["bytes"], 700 - 7 * 14);
}

TEST_F(RuleKernel, AFrameBehindAVlanTagIsKnownByItsOwnEthertype)
{
    port_rules rules = closed();
    rules.dynamic_rules[1] = rule_for(ADDRESS, DATA);
    apply(IDL, rules);
    sender->send({.vlan_id = 100}, 3);
    sender->send({.to = OTHER_ADDRESS, .vlan_id = 100}, 2);
    EXPECT_TRUE(eventually([&] { return rule_count(0, "accepted") == 3 && default_count("dropped") == 2; }))
        << counters(IDL);
    EXPECT_EQ(data->count(), 3u);
}

TEST_F(RuleKernel, AnOpenPortLetsEverythingInAndCountsIt)
{
    port_rules rules;
    rules.default_action = FMI_LET_IN;
    apply(IDL, rules);
    sender->send({}, 4);
    EXPECT_TRUE(eventually([&] { return default_count("accepted") == 4; }));
    EXPECT_EQ(data->count(), 4u);
}

TEST_F(RuleKernel, AStaticRuleDecidesBeforeTheDefaultActionAndAfterTheDynamicRules)
{
    port_rules rules = closed();
    rules.static_rules[1] = FMI_LET_IN;
    apply(IDL, rules);
    sender->send({}, 2);
    EXPECT_TRUE(eventually([&] { return data->count() == 2; }));
    EXPECT_EQ(counters(IDL)["static_rules"][0]["accepted"]["packets"], 2);

    rules.default_action = FMI_LET_IN;
    rules.static_rules = {{2, FMI_DROP}, {3, FMI_LET_IN}};
    rules.dynamic_rules[4] = rule_for(ADDRESS, SUPERVISION);
    apply(IDL, rules);
    sender->send({}, 3);
    sender->send({.ether_type = SUPERVISION}, 1);
    EXPECT_TRUE(eventually([&] { return supervision->count() == 1; }));
    EXPECT_EQ(counters(IDL)["static_rules"], json::parse(R"([{"id": 2, "dropped": {"packets": 3, "bytes": 258}},
                              {"id": 3, "accepted": {"packets": 0, "bytes": 0}}])"));
    EXPECT_EQ(data->count(), 2u);
}

TEST_F(RuleKernel, ARuleWithoutAddressesOrEthertypesLetsNothingIn)
{
    port_rules rules = closed();
    rules.dynamic_rules[1] = {FMI_NO_POLICER, {}, {DATA}};
    rules.dynamic_rules[2] = {FMI_NO_POLICER, {ADDRESS}, {}};
    rules.dynamic_rules[3] = {};
    apply(IDL, rules);
    sender->send({}, 3);
    EXPECT_TRUE(eventually([&] { return default_count("dropped") == 3; }));
    EXPECT_EQ(data->count(), 0u);
    rules.dynamic_rules.clear();
    apply(IDL, rules);
    expect_in_order();
}

TEST_F(RuleKernel, ARemovedRuleLetsNothingInAnyMoreAndTheOthersGoOn)
{
    port_rules rules = closed();
    rules.dynamic_rules[1] = rule_for(ADDRESS, DATA);
    rules.dynamic_rules[2] = rule_for(ADDRESS, SUPERVISION);
    apply(IDL, rules);
    sender->send({.ether_type = SUPERVISION}, 2);
    EXPECT_TRUE(eventually([&] { return supervision->count() == 2; }));
    rules.dynamic_rules.erase(1);
    apply(IDL, rules);
    sender->send({});
    sender->send({.ether_type = SUPERVISION}, 1);
    EXPECT_TRUE(eventually([&] { return supervision->count() == 3; }));
    EXPECT_EQ(rule_count(0, "accepted"), 3u) << "a counter does not begin anew because another rule goes";
    EXPECT_EQ(data->count(), 0u);
}

// ---- Policers ------------------------------------------------------------------------------------------------------

TEST_F(RuleKernel, APolicerLetsThroughItsBurstAndCountsWhatItDrops)
{
    // 8,000 bits per second are 1,000 bytes; the bucket holds a second of them and the burst.
    port_rules rules;
    rules.default_action = FMI_LET_IN;
    rules.policers[1] = {8000, 1000, 0, 0, 1};
    rules.dynamic_rules[2] = rule_for(ADDRESS, DATA, 1);
    apply(IDL, rules);
    sender->send({.size = 114}, 100);
    EXPECT_TRUE(eventually([&] { return rule_count(0, "accepted") + rule_count(0, "dropped_by_policer") == 100; }))
        << counters(IDL);
    const uint64_t accepted = rule_count(0, "accepted");
    EXPECT_GE(accepted, 15u);
    EXPECT_LT(accepted, 60u);
    EXPECT_EQ(data->count(), accepted) << "what a policer drops no later rule lets in";
}

TEST_F(RuleKernel, RulesOfOnePolicerShareIt)
{
    port_rules rules = closed();
    rules.policers[1] = {8000, 1000, 0, 0, 1};
    rules.dynamic_rules[2] = rule_for(ADDRESS, DATA, 1);
    rules.dynamic_rules[3] = rule_for(ADDRESS, SUPERVISION, 1);
    apply(IDL, rules);
    sender->send({.size = 114}, 100);
    sender->send({.ether_type = SUPERVISION, .size = 114}, 20);
    EXPECT_TRUE(eventually([&] { return rule_count(1, "accepted") + rule_count(1, "dropped_by_policer") == 20; }));
    EXPECT_GE(rule_count(1, "dropped_by_policer"), 10u) << counters(IDL);
}

TEST_F(RuleKernel, APolicerWithoutARateLetsNothingThroughAndOneWithAPeakRateGoesByIt)
{
    port_rules rules = closed();
    rules.policers[1] = {0, 0, 8000000, 1000, 1};
    rules.policers[2] = {0, 0, 8000000, 1000, 0};
    rules.dynamic_rules[3] = rule_for(ADDRESS, DATA, 1);
    rules.dynamic_rules[4] = rule_for(ADDRESS, SUPERVISION, 2);
    apply(IDL, rules);
    expect_in_order();
    sender->send({}, 3);
    sender->send({.ether_type = SUPERVISION}, 3);
    EXPECT_TRUE(eventually([&] { return supervision->count() == 3; }));
    EXPECT_EQ(rule_count(0, "dropped_by_policer"), 3u);
    EXPECT_EQ(data->count(), 0u);
}

// ---- What is there -------------------------------------------------------------------------------------------------

TEST_F(RuleKernel, TheKernelHasWhatWasAskedInWordsOfItsOwnTool)
{
    port_rules rules = closed();
    rules.policers[1] = {10000000, 262144, 0, 0, 1};
    rules.dynamic_rules[2] = {1, {ADDRESS, OTHER_ADDRESS}, {SUPERVISION}};
    rules.static_rules[3] = FMI_DROP;
    apply(IDL, rules);
    const std::string words = output_of("ip netns exec near nft list table netdev kap_node");
    for (const char *line :
         {"type filter hook ingress device \"idl_a1\" priority filter; policy drop;", "jump DiPort_A1.rules",
          "jump DiPort_A1.static",
          "meta protocol 0xaefe ether daddr @macs_3 limit name \"policer_2\" counter name \"accepted_3\" accept "
          "comment \"rule 2\"",
          "meta protocol 0xaefe ether daddr @macs_3 counter name \"policed_3\" drop comment \"rule 2, over its "
          "policer\"",
          "counter name \"static_4\" drop comment \"static rule 3 of type 0\"",
          "counter name \"default_dropped_1\" drop comment \"default action\"",
          "rate 1250000 bytes/second burst 256 kbytes", "elements = { 02:00:00:00:00:05,"}) {
        EXPECT_NE(words.find(line), std::string::npos) << line << "\n" << words;
    }
    expect_in_order();
}

TEST_F(RuleKernel, EveryEthertypeIsFoundAgainAsItWasPut)
{
    port_rules rules = closed();
    rules.dynamic_rules[1] = {
        FMI_NO_POLICER, {ADDRESS}, {0x0800, 0x0806, 0x86DD, 0x8100, 0x88A8, 0x88F7, 0x88CC, 0x0001, 0xFFFF, DATA}};
    apply(IDL, rules);
    expect_in_order();
    settle();
    nft("add table netdev foreign"); // so that there is something to compare
    settle();
    EXPECT_EQ(backend->show()["mended"], 0);
}

TEST_F(RuleKernel, WhatOthersHaveInThePacketFilterIsNotTouched)
{
    nft("add table netdev foreign; add chain netdev foreign in { type filter hook ingress device idl_a1 priority 5; }; "
        "add rule netdev foreign in accept; add table inet filter");
    const std::string before = output_of("ip netns exec near nft list ruleset");
    port_rules rules;
    rules.default_action = FMI_LET_IN;
    rules.dynamic_rules[1] = rule_for(ADDRESS, DATA);
    apply(IDL, rules);
    nft("delete table netdev kap_node");
    settle();
    expect_in_order();
    make_backend();
    now += LEFTOVERS_KEPT_MS;
    settle();
    EXPECT_EQ(output_of("ip netns exec near nft list ruleset"), before);
}

TEST_F(RuleKernel, WhatTheKernelRefusesIsSaidAndChangesNothing)
{
    port_rules rules = closed();
    rules.dynamic_rules[1] = rule_for(ADDRESS, DATA);
    apply(IDL, rules);
    rules.dynamic_rules[2] = rule_for(ADDRESS, SUPERVISION);
    ASSERT_EQ(seteuid(65534), 0);
    const auto refused = backend->apply(IDL, rules);
    ASSERT_EQ(seteuid(0), 0);
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->error, EPERM);
    EXPECT_NE(refused->words.find("Operation not permitted"), std::string::npos) << refused->words;
    EXPECT_EQ(backend->show()["refusals"], 1);
    expect_in_order();
    settle();
    expect_in_order();
    EXPECT_EQ(backend->show()["mended"], 0);
    apply(IDL, rules);
    expect_in_order();
}

TEST_F(RuleKernel, ATableFromWhichSomethingCannotBeTakenIsReplacedWhole)
{
    port_rules rules = closed();
    rules.dynamic_rules[1] = rule_for(ADDRESS, DATA);
    apply(IDL, rules);
    // A map of verdicts holds its chain.
    nft("add chain netdev kap_node x; add map netdev kap_node m { type ether_addr : verdict; elements = { "
        "02:00:00:00:00:01 : jump x }; }");
    settle();
    expect_in_order();
    EXPECT_EQ(output_of("ip netns exec near nft list table netdev kap_node").find(" m {"), std::string::npos);
}

// ---- Who disturbs --------------------------------------------------------------------------------------------------

class RuleDisturbed : public RuleKernel
{
protected:
    void SetUp() override
    {
        RuleKernel::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        port_rules rules = closed();
        rules.policers[1] = {10000000, 262144, 0, 0, 1};
        rules.dynamic_rules[2] = {1, {ADDRESS, OTHER_ADDRESS}, {SUPERVISION}};
        rules.dynamic_rules[3] = rule_for(ADDRESS, DATA);
        rules.static_rules[4] = FMI_DROP;
        apply(IDL, rules);
        rules.default_action = FMI_LET_IN;
        apply(TN, rules);
        settle();
    }
    void expect_mended(uint64_t times)
    {
        settle();
        expect_in_order();
        EXPECT_EQ(backend->show()["mended"], times);
    }
};

TEST_F(RuleDisturbed, OwnChangesAreNoDisturbance)
{
    for (int i = 0; i < 5; ++i) {
        port_rules rules = wanted[IDL];
        rules.dynamic_rules[static_cast<uint32_t>(10 + i)] = rule_for(ADDRESS, DATA);
        apply(IDL, rules);
        settle();
    }
    expect_mended(0);
    EXPECT_EQ(backend->show()["disturbed_by"], json::object());
}

TEST_F(RuleDisturbed, WhateverSomebodyElseDoesToTheRulesIsMendedAndCounted)
{
    uint64_t times = 0;
    for (const char *words : {
             "flush ruleset",
             "delete table netdev kap_node",
             "flush table netdev kap_node",
             "flush chain netdev kap_node DiPort_A1",
             "flush chain netdev kap_node DiPort_A1.rules",
             "flush chain netdev kap_node TNA.static",
             "insert rule netdev kap_node DiPort_A1 accept",
             "add rule netdev kap_node DiPort_A1.rules accept",
             "add chain netdev kap_node DiPort_A1 { policy accept; }",
             "add chain netdev kap_node more { type filter hook ingress device idl_a1 priority 7; policy drop; }",
             "add set netdev kap_node more { type ipv4_addr; }",
             "add table netdev kap_node { flags dormant; }",
             "add chain netdev kap_node x; add map netdev kap_node m { type ether_addr : verdict; elements = { "
             "02:00:00:00:00:01 : jump x }; }; add rule netdev kap_node DiPort_A1 ether daddr vmap @m",
             "flush chain netdev kap_node DiPort_A1; delete chain netdev kap_node DiPort_A1; add chain netdev kap_node "
             "DiPort_A1 { type filter hook ingress device tn_a priority 0; policy drop; }",
             "flush chain netdev kap_node DiPort_A1; delete chain netdev kap_node DiPort_A1",
         }) {
        SCOPED_TRACE(words);
        nft(words);
        expect_mended(++times);
    }
    EXPECT_EQ(backend->show()["disturbed_by"], json({{"nft", times}}));
}

TEST_F(RuleDisturbed, RulesThatSomebodyElseHasPutToSleepAreInForceAgainAlsoWithARequest)
{
    nft("add table netdev kap_node { flags dormant; }");
    port_rules rules = wanted[IDL];
    rules.dynamic_rules.erase(3);
    apply(IDL, rules);
    expect_mended(1);
    EXPECT_EQ(output_of("ip netns exec near nft list table netdev kap_node").find("dormant"), std::string::npos);
    sender->send({}, 5);
    EXPECT_TRUE(eventually([&] { return counters(IDL)["static_rules"][0]["dropped"]["packets"] == 5; }));
    EXPECT_EQ(data->count(), 0u);
}

TEST_F(RuleDisturbed, OfRulesThatCameAndWentNothingIsRemembered)
{
    nft("flush ruleset");
    settle();
    (void)backend->show();
    const size_t before = backend->remembered();
    for (uint32_t i = 0; i < 5; ++i) {
        const port_rules all = wanted[IDL];
        port_rules rules = all;
        rules.policers[100 + i] = {8000, 1000, 0, 0, 1};
        rules.dynamic_rules[200 + i] = rule_for(ADDRESS, SUPERVISION, 100 + i);
        rules.static_rules[300 + i] = FMI_DROP;
        apply(IDL, rules);
        (void)backend->show(); // reads what was counted
        if (i % 2 == 1) {
            nft("flush ruleset");
            settle();
        }
        apply(IDL, all);
        settle();
    }
    (void)backend->show();
    EXPECT_EQ(backend->remembered(), before);
    expect_in_order();
}

// ---- What the kernel refuses of one port ---------------------------------------------------------------------------

// An interface takes 1,024 chains: here others have them all.
class RuleRefused : public RuleDisturbed
{
protected:
    static void fill(const std::string &interface)
    {
        std::ofstream file("/run/full.nft");
        file << "add table netdev others\n";
        for (int i = 0; i < 1024; ++i) {
            file << "add chain netdev others c" << i << " { type filter hook ingress device "
                 << interface << " priority 1; }\n";
        }
        file.close();
        run("ip netns exec near nft -f /run/full.nft");
    }
    static void fill_in_place_of_rules()
    {
        nft("delete table netdev kap_node");
        fill("idl_a1");
    }
    void expect_only_in_order(const std::string &port)
    {
        const auto seen = in_kernel();
        const auto found = seen.find(port);
        ASSERT_NE(found, seen.end());
        EXPECT_EQ(found->second, sight_of(port == TN ? "tn_a" : "idl_a1", wanted[port]));
    }
};

TEST_F(RuleRefused, OnePortsRulesKeepNoOtherPortFromItsOwn)
{
    fill_in_place_of_rules();
    settle();
    expect_only_in_order(TN);
    EXPECT_NE(counters(IDL)["refused"], nullptr) << counters(IDL);
    EXPECT_FALSE(counters(TN).contains("refused")) << counters(TN);

    port_rules rules = wanted[TN];
    rules.dynamic_rules[50] = rule_for(ADDRESS, DATA);
    apply(TN, rules);
    expect_only_in_order(TN);
    nft("flush chain netdev kap_node TNA");
    settle();
    expect_only_in_order(TN);

    nft("delete table netdev others");
    settle();
    expect_in_order();
    EXPECT_FALSE(counters(IDL).contains("refused")) << counters(IDL);
}

TEST_F(RuleRefused, ARequestForThatPortIsRefusedAndOneForAnotherIsNot)
{
    fill_in_place_of_rules();
    port_rules rules = wanted[IDL];
    rules.dynamic_rules[50] = rule_for(OTHER_ADDRESS, DATA);
    const auto refused = backend->apply(IDL, rules);
    ASSERT_TRUE(refused);
    EXPECT_NE(refused->words, "");
    rules = wanted[TN];
    rules.dynamic_rules[51] = rule_for(ADDRESS, DATA);
    apply(TN, rules);
    expect_only_in_order(TN);
}

// ---- A start that the kernel refuses in passing --------------------------------------------------------------------

// Whoever makes a namespace makes its file first.
TEST_F(RuleKernel, ARequestBeforeItsNamespaceCanBeEnteredIsRefusedAndNotConfirmedForNothing)
{
    run("ip -n near link del idl_a1 && touch /run/netns/later");
    config.ports[0].name_space = "later";
    make_backend();
    const auto refused = backend->apply(IDL, closed());
    ASSERT_TRUE(refused);
    EXPECT_NE(refused->words, "");
    run("rm /run/netns/later && ip netns add later && "
        "ip link add idl_a1 netns later type veth peer name idl_a1 netns far");
    settle();
    ASSERT_FALSE(backend->apply(IDL, closed()));
    EXPECT_EQ(in_kernel("later").at(IDL), sight_of("idl_a1", closed()));
    run("ip netns del later");
}

// In a process of its own, from which no question gets out any more.
TEST_F(RuleDisturbed, AStartThatIsRefusedForAMomentGoesOnAndTouchesNothing)
{
    const std::string before = output_of("ip netns exec near nft list ruleset");
    const auto start_without_answers = [&] {
        make_backend_unsettled();
        refuse_every_sendto(ENOBUFS);
        backend->settle(now);
        const bool refused = backend->apply(IDL, wanted[IDL]).has_value();
        _exit(refused && backend->show()["refusals"] > 0 ? 0 : 1);
    };
    EXPECT_EXIT(start_without_answers(), testing::ExitedWithCode(0), "the packet filter refuses");
    EXPECT_EQ(output_of("ip netns exec near nft list ruleset"), before);
}

TEST_F(RuleDisturbed, AStartThatIsRefusedForGoodEnds)
{
    make_backend_unsettled();
    ASSERT_EQ(seteuid(65534), 0);
    EXPECT_THROW(backend->settle(now), std::runtime_error);
    ASSERT_EQ(seteuid(0), 0);
}

TEST_F(RuleDisturbed, ARequestThatTheKernelHasNothingToDoForHidesNoDisturbance)
{
    port_rules rules = wanted[IDL];
    rules.dynamic_rules[9] = {};
    apply(IDL, rules);
    rules.dynamic_rules[10] = {};
    nft("flush chain netdev kap_node TNA");
    apply(IDL, rules);
    expect_mended(1);
    rules.dynamic_rules.erase(9);
    nft("flush chain netdev kap_node TNA");
    apply(IDL, rules);
    expect_mended(2);
}

TEST_F(RuleDisturbed, AnAddressTakenOutOfOrPutIntoARuleIsMended)
{
    const auto set_of = [] {
        for (const json &entry : listing()) {
            if (entry.contains("set") && entry["set"]["elem"].size() == 2) {
                return entry["set"]["name"].get<std::string>();
            }
        }
        return std::string();
    };
    nft("delete element netdev kap_node " + set_of() + " { 02:00:00:00:00:05 }");
    expect_mended(1);
    nft("add element netdev kap_node " + set_of() + " { 02:00:00:00:00:99 }");
    expect_mended(2);
}

TEST_F(RuleDisturbed, CountersGoOnWhenTheRulesAreMended)
{
    sender->send({}, 5);
    sender->send({.to = OTHER_ADDRESS}, 2);
    EXPECT_TRUE(eventually([&] { return rule_count(1, "accepted") == 5; }));
    nft("flush ruleset");
    settle();
    sender->send({}, 1);
    EXPECT_TRUE(eventually([&] { return rule_count(1, "accepted") == 6; })) << counters(IDL);
    EXPECT_EQ(counters(IDL)["static_rules"][0]["dropped"]["packets"], 2);
}

TEST_F(RuleDisturbed, AnInterfaceThatIsDeletedAndComesBackGetsItsRulesAgain)
{
    run("ip -n near link del idl_a1");
    settle();
    run("ip link add idl_a1 netns near type veth peer name idl_a1 netns far && ip -n near link set idl_a1 up && "
        "ip -n far link set idl_a1 up");
    settle();
    expect_in_order();
    EXPECT_EQ(backend->show()["interfaces_back"], 1);
    EXPECT_EQ(backend->show()["mended"], 0);
    const frame_sender again("far", "idl_a1");
    frame_receiver seen("near", "idl_a1", DATA);
    again.send({.to = OTHER_ADDRESS}, 3);
    again.send({}, 2);
    EXPECT_TRUE(eventually([&] { return rule_count(1, "accepted") == 2; }));
    EXPECT_EQ(seen.count(), 2u);
}

TEST_F(RuleDisturbed, AnInterfaceOfAnotherNameIsNotFilteredAndOneThatGetsTheNameIs)
{
    run("ip -n near link set idl_a1 down && ip -n near link set idl_a1 name other && ip -n near link set other up");
    settle();
    frame_receiver seen("near", "other", DATA);
    sender->send({.to = OTHER_ADDRESS}, 2);
    EXPECT_TRUE(eventually([&] { return seen.count() == 2; }));
    run("ip -n near link set other down && ip -n near link set other name idl_a1 && ip -n near link set idl_a1 up");
    settle();
    expect_in_order();
    sender->send({.to = OTHER_ADDRESS}, 2);
    sender->send({}, 1);
    EXPECT_TRUE(eventually([&] { return seen.count() == 3; }));
}

TEST_F(RuleDisturbed, RulesThatChangeWhileAnInterfaceHasAnotherNameAreMadeWhenItHasItsOwnAgain)
{
    run("ip -n near link set idl_a1 down && ip -n near link set idl_a1 name other");
    settle();
    port_rules rules = wanted[IDL];
    rules.dynamic_rules.erase(3);
    apply(IDL, rules);
    settle();
    run("ip -n near link set other name idl_a1");
    settle();
    expect_in_order();
}

TEST_F(RuleDisturbed, RulesForAnInterfaceThatIsNotThereAreMadeWhenItComes)
{
    run("ip -n near link del idl_a1");
    settle();
    port_rules rules = wanted[IDL];
    rules.dynamic_rules[9] = rule_for(OTHER_ADDRESS, DATA);
    rules.dynamic_rules.erase(3);
    apply(IDL, rules);
    settle();
    run("ip link add idl_a1 netns near type veth peer name idl_a1 netns far");
    settle();
    expect_in_order();
}

TEST_F(RuleDisturbed, ANamespaceThatIsDeletedAndMadeAnewGetsTheRulesOfItsPorts)
{
    sender.reset();
    data.reset();
    supervision.reset();
    run("ip netns del near");
    settle();
    port_rules rules = wanted[IDL];
    rules.dynamic_rules.erase(3);
    apply(IDL, rules);
    run("ip netns add near && ip link add idl_a1 netns near type veth peer name again && "
        "ip link add tn_a netns near type veth peer name again2");
    settle();
    expect_in_order();
}

// ---- What an earlier run has left ----------------------------------------------------------------------------------

class RuleRestart : public RuleDisturbed
{
protected:
    void SetUp() override
    {
        RuleDisturbed::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        port_rules rules = wanted[TN];
        rules.static_rules.clear();
        apply(TN, rules);
    }
};

TEST_F(RuleRestart, RulesOfAnEarlierRunStayInForceForTenSecondsAndGoThen)
{
    make_backend();
    sender->send({}, 2);
    sender->send({.to = OTHER_ADDRESS}, 3);
    EXPECT_TRUE(eventually([&] { return data->count() == 2; }));
    now += LEFTOVERS_KEPT_MS - 1;
    settle();
    sender->send({}, 2);
    sender->send({.to = OTHER_ADDRESS}, 3);
    EXPECT_TRUE(eventually([&] { return data->count() == 4; }));
    now += 1;
    settle();
    wanted = {{IDL, closed()}};
    expect_in_order();
    EXPECT_EQ(backend->show()["mended"], 0);
}

TEST_F(RuleRestart, APortLeftClosedStaysClosedUntilItsDefaultActionIsSet)
{
    make_backend();
    now += 10 * LEFTOVERS_KEPT_MS;
    settle();
    sender->send({}, 4);
    EXPECT_TRUE(eventually([&] { return default_count("dropped") == 4; })) << counters(IDL);
    EXPECT_EQ(counters(IDL)["stays_closed"], true);
    nft("flush ruleset");
    settle();
    wanted = {{IDL, closed()}};
    expect_in_order();

    make_backend(); // one more restart makes no difference
    now += LEFTOVERS_KEPT_MS;
    settle();
    expect_in_order();

    port_rules rules;
    rules.dynamic_rules[1] = rule_for(OTHER_ADDRESS, DATA);
    ASSERT_FALSE(backend->apply(IDL, rules));
    sender->send({}, 3);
    sender->send({.to = OTHER_ADDRESS}, 2);
    EXPECT_TRUE(eventually([&] { return data->count() == 2; })) << "a rule comes before the default action";
    rules.default_action = FMI_LET_IN;
    apply(IDL, rules);
    sender->send({}, 3);
    EXPECT_TRUE(eventually([&] { return data->count() == 5; }));
    expect_in_order();
    EXPECT_EQ(counters(IDL)["stays_closed"], false);
}

TEST_F(RuleRestart, APortLeftClosedIsWhatItsLateAskerHasMadeOfItWhenThatHadTimeToSayAll)
{
    make_backend();
    now += 2 * LEFTOVERS_KEPT_MS;
    settle();
    port_rules rules;
    rules.dynamic_rules[1] = rule_for(OTHER_ADDRESS, DATA);
    wanted.clear();
    apply(IDL, rules);
    now += LEFTOVERS_KEPT_MS - 1;
    settle();
    sender->send({}, 4);
    EXPECT_TRUE(eventually([&] { return default_count("dropped") == 4; })) << counters(IDL);
    now += 1;
    settle();
    expect_in_order();
    EXPECT_EQ(data->count(), 0u);
}

TEST_F(RuleRestart, APortThatAStaticRuleLeftClosedStaysClosedAndOneThatItLeftOpenIsOpened)
{
    port_rules shut;
    shut.default_action = FMI_LET_IN;
    shut.static_rules[1] = FMI_DROP;
    apply(IDL, shut);
    port_rules open = closed();
    open.static_rules[2] = FMI_LET_IN;
    apply(TN, open);
    make_backend();
    now += LEFTOVERS_KEPT_MS;
    settle();
    wanted = {{IDL, closed()}};
    expect_in_order();
}

TEST_F(RuleRestart, RulesThatSleepAreTakenOverAwake)
{
    nft("add table netdev kap_node { flags dormant; }");
    make_backend();
    sender->send({}, 2);
    sender->send({.to = OTHER_ADDRESS}, 3);
    EXPECT_TRUE(eventually([&] { return data->count() == 2; }));
    now += LEFTOVERS_KEPT_MS;
    settle();
    wanted = {{IDL, closed()}};
    expect_in_order();
}

TEST_F(RuleRestart, RulesThatSomebodyElsePutAmongOursAreNotTakenOver)
{
    nft("add rule netdev kap_node DiPort_A1.rules accept; flush chain netdev kap_node DiPort_A1; "
        "add rule netdev kap_node DiPort_A1 meta pkttype set host accept");
    make_backend();
    settle();
    sender->send({}, 1);
    EXPECT_TRUE(eventually([&] { return data->count() == 1; }));
    sender->send({.to = {2, 0, 0, 0, 0, 9}}, 3);
    EXPECT_TRUE(eventually([&] { return listing().dump().find("pkttype") == std::string::npos; }));
    now += LEFTOVERS_KEPT_MS;
    settle();
    wanted = {{IDL, closed()}};
    expect_in_order();
    EXPECT_EQ(data->count(), 1u);
}

TEST_F(RuleRestart, WhatIsAskedForAnewWorksAtOnceAndIsAllThereIsAfterTenSeconds)
{
    make_backend();
    wanted.clear();
    port_rules rules;
    rules.dynamic_rules[1] = rule_for(OTHER_ADDRESS, DATA);
    apply(IDL, rules);
    sender->send({.to = OTHER_ADDRESS}, 2);
    sender->send({}, 1);
    sender->send({.to = {2, 0, 0, 0, 0, 9}}, 4);
    EXPECT_TRUE(eventually([&] { return data->count() == 3; })) << "old and new rules are in force";
    rules.default_action = FMI_DROP;
    apply(IDL, rules);
    now += LEFTOVERS_KEPT_MS;
    settle();
    expect_in_order();
    sender->send({}, 1);
    sender->send({.to = OTHER_ADDRESS}, 1);
    EXPECT_TRUE(eventually([&] { return data->count() == 4; }));
    EXPECT_EQ(rule_count(0, "accepted"), 3u) << "counters go on";
}

TEST_F(RuleRestart, WhatAnEarlierRunHasLeftIsMendedTooWhileItIsInForce)
{
    make_backend();
    nft("flush ruleset");
    settle();
    EXPECT_EQ(backend->show()["mended"], 1);
    sender->send({}, 2);
    sender->send({.to = OTHER_ADDRESS}, 3);
    EXPECT_TRUE(eventually([&] { return data->count() == 2; }));
}

TEST_F(RuleRestart, AnEarlierRunsRulesForAnotherInterfaceAreNotTakenOver)
{
    config.ports[0].interface = "tn_a";
    config.ports[1].interface = "idl_a1";
    make_backend();
    wanted.clear();
    port_rules rules = closed();
    apply(IDL, rules);
    now += LEFTOVERS_KEPT_MS;
    settle();
    expect_in_order();
}

// ---- Never open ----------------------------------------------------------------------------------------------------

// Frames that no rule lets in are sent all the while.
class RuleGap : public RuleDisturbed
{
protected:
    void SetUp() override
    {
        RuleDisturbed::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        seen = std::make_unique<frame_receiver>("near", "idl_a1", 0xEBC1);
        sending = std::make_unique<flood>("far", "idl_a1", frame{.to = ADDRESS, .ether_type = 0xEBC1});
    }
    // Whatever was done: frames came all the while, and none got in.
    void expect_none_got_in()
    {
        const uint64_t so_far = sending->sent();
        EXPECT_TRUE(eventually([&] { return sending->sent() > so_far + 1000; }));
        sending.reset();
        EXPECT_EQ(seen->count(), 0u);
    }
    std::unique_ptr<frame_receiver> seen;
    std::unique_ptr<flood> sending;
};

TEST_F(RuleGap, NoChangeOfRulesOpensAClosedPort)
{
    for (uint32_t i = 0; i < 40; ++i) {
        port_rules rules = wanted[IDL];
        rules.dynamic_rules[100 + i] = rule_for(ADDRESS, DATA);
        rules.static_rules[200 + i] = FMI_DROP;
        apply(IDL, rules);
        rules.dynamic_rules.erase(rules.dynamic_rules.begin());
        rules.static_rules.erase(rules.static_rules.begin());
        apply(IDL, rules);
        settle();
    }
    expect_none_got_in();
}

TEST_F(RuleGap, NoRestartOpensAClosedPort)
{
    const auto all = wanted;
    for (int i = 0; i < 10; ++i) {
        make_backend();
        for (const auto &[port, rules] : all) {
            port_rules some = rules;
            some.default_action.reset();
            some.static_rules.clear();
            apply(port, some);
            apply(port, rules);
        }
        now += LEFTOVERS_KEPT_MS;
        settle();
        expect_in_order();
    }
    expect_none_got_in();
}

TEST_F(RuleGap, NoMendingOpensAClosedPort)
{
    for (int i = 0; i < 10; ++i) {
        for (const char *words :
             {"flush chain netdev kap_node DiPort_A1", "flush chain netdev kap_node DiPort_A1.rules",
              "add rule netdev kap_node DiPort_A1.rules drop", "add set netdev kap_node more { type ipv4_addr; }"}) {
            nft(words);
            settle();
        }
    }
    expect_in_order();
    expect_none_got_in();
}

} // namespace
} // namespace kap_node
