// The flow manager as a process, with its rules in the kernel.
#include "rule_fixture.hpp"

#include "../support.hpp"
#include "control.hpp"

#include <csignal>

namespace kap_node
{
namespace
{

const std::string NODE = R"(
    [ports.IDL_A1]
    interface = "idl_a1"
    namespace = "near"
)";
const std::string HEAD = "00 00 00 07  00 00 00 01  ";
const std::string PORT = "'DiPort_A1' 0*55  ";
const bytes CONNECT = message_of(0x1B0F50, "00 00 00 02  00 00 01 90  00 00 00 01  00 00 00 01");
const bytes CONNECTED = message_of(0x1B0F51, "00 00 00 02  00 00 00 01  00 00 00 01");
const bytes CLOSE = message_of(0x1B0F58, HEAD + "00 00 00 00  " + PORT + "0*4");
const bytes CLOSED = message_of(0x1B0F59, HEAD + PORT);

class RuleProgram : public RuleTest
{
protected:
    void SetUp() override
    {
        RuleTest::SetUp();
        if (!IsSkipped() && !HasFatalFailure()) {
            start_registry();
        }
    }
    void ask_to_close()
    {
        const uint32_t manager = itc_locate("flow-manager");
        send(manager, CONNECT);
        EXPECT_EQ(receive(), CONNECTED);
        send(manager, CLOSE);
        EXPECT_EQ(receive(), CLOSED);
        wanted["DiPort_A1"] = closed();
    }
};

TEST_F(RuleProgram, HasTheKernelDoWhatItIsAsked)
{
    start("fmi", NODE);
    join_node();
    ask_to_close();
    expect_in_order();
    frame_sender("far", "idl_a1").send({}, 4);
    EXPECT_TRUE(eventually([] {
        const json kernel = command("fmi", {"show"})["kernel"];
        return kernel["ports"]["DiPort_A1"]["default_action"]["dropped"]["packets"] == 4;
    }));
}

TEST_F(RuleProgram, HasUsedAllOfTheFilterOnceBeforeItIsAskedAndLeavesNothingOfThat)
{
    nft_context filter("");
    EXPECT_FALSE(filter.run(rehearsal()));
    json found;
    ASSERT_FALSE(filter.list({{"list", {{"tables", nullptr}}}}, found));
    EXPECT_EQ(found.size(), 1u) << found; // what the library says of itself
}

TEST_F(RuleProgram, NoticesADisturbanceByItselfAndMendsIt)
{
    start("fmi", NODE);
    join_node();
    ask_to_close();
    nft("flush ruleset");
    EXPECT_TRUE(eventually([] { return command("fmi", {"show"})["kernel"]["mended"] == 1; }));
    expect_in_order();
    // The kernel shows a change before it tells whose it was.
    EXPECT_TRUE(
        eventually([] { return command("fmi", {"show"})["kernel"]["disturbed_by"] == json::parse(R"({"nft": 1})"); }));
}

TEST_F(RuleProgram, ItsRulesOutliveItsDeath)
{
    start("fmi", NODE);
    join_node();
    ask_to_close();
    frame_receiver seen("near", "idl_a1", DATA);
    {
        const flood sending("far", "idl_a1", {});
        signal("fmi", SIGKILL);
        status_of("fmi");
        start("fmi", NODE);
        itc_test::await("flow-manager");
        ask_to_close();
        const uint64_t so_far = sending.sent();
        EXPECT_TRUE(eventually([&] { return sending.sent() > so_far + 1000; }));
    }
    EXPECT_EQ(seen.count(), 0u);
    expect_in_order();
}

TEST_F(RuleProgram, ItsRulesAreTakenAwayByCleanAndNobodyElsesAre)
{
    start("fmi", NODE);
    join_node();
    ask_to_close();
    nft("add table netdev somebody");
    signal("fmi", SIGKILL);
    status_of("fmi");
    run("ip netns exec near nft list tables | grep -q kap_node");
    run("echo broken >/run/fmi.toml && " + std::string(KAP_NODE_PATH) + " clean fmi --config /run/fmi.toml");
    run("test \"$(ip netns exec near nft list tables)\" = \"table netdev somebody\"");
}

} // namespace
} // namespace kap_node
