// Links on real frames, seen by one client and by two.
#include <gmock/gmock.h>

#include <sstream>

#include "e2e.hpp"

using namespace std::chrono_literals;

namespace
{

// What the daemon traced of a supervision session, one letter per line: '0' to '3' a result, 'd' and 'e' the link
// disabled and enabled for it. Level 13 has to be on.
std::string supervision_story(const std::string &log, const std::string &session)
{
    std::string story;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("Received supervision ind with session id: " + session + ",rtt_sec") != std::string::npos) {
            story += line.back();
        } else if (line.find("Max pings lost") != std::string::npos) {
            story += 'd';
        } else if (line.find("to: enabled") != std::string::npos) {
            story += 'e';
        }
    }
    return story;
}

} // namespace

TEST_F(EndToEnd, ALinkComesUpOnRealFrames)
{
    start();
    demo_link &link = demo_create(d, demo_first_wish(d));
    EXPECT_EQ(link.link_ref, 1u);
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
    EXPECT_GE(demo_far_end_counts(link).answered, 1u);
    EXPECT_EQ(vlans(), 1u);
}

TEST_F(EndToEnd, ALinkOnATransportPortComesUpToo)
{
    start();
    demo_link &link = demo_create(d, demo_second_wish(d));
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
    EXPECT_GE(demo_far_end_counts(link).answered, 1u);
}

TEST_F(EndToEnd, SixResultsInARowWithoutAnAnswerDisableALinkAndTheFirstAnswerEnablesIt)
{
    start();
    command_must({d.stage.bin_dir + "/kap-trace", "set", "kap_vorn_manager", "+13"});
    iemli_link_wish wish = demo_first_wish(d);
    wish.app_links.clear();
    demo_link &link = demo_create(d, wish);
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
    demo_set_far_end(d, false);
    demo_wait_status(d, link.link_ref, IML_LINK_DISABLED, IML_LINK_REASON_NO_CONNECTIVITY, 10s);
    demo_set_far_end(d, true);
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
    std::string story = supervision_story(read_log(DAEMON), "1");
    // The ping that was on its way when the far end was mended may be lost too.
    EXPECT_THAT(story, testing::MatchesRegex("0e0*333333d3*0e")) << story;
}

TEST_F(EndToEnd, ADaemonThatWaitsForAnAnswerLosesNoPings)
{
    start();
    command_must({d.stage.bin_dir + "/kap-trace", "set", "kap_vorn_manager", "+13"});
    iemli_link_wish wish = demo_first_wish(d);
    wish.app_links.clear();
    demo_link &link = demo_create(d, wish);
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
    // The daemon waits half a second for each answer that never comes, and does nothing else meanwhile.
    stage_control("fmi", {"fault", "silent", "any", "1000"});
    for (int i = 0; i < 4; i++) {
        stage_control("iepcsi", {"lock", "TNA"});
        stage_control("iepcsi", {"unlock", "TNA"});
    }
    stage_wait(d.stage, "the daemon has waited for eight answers", 15s,
               [] { return stage_control("fmi", {"show"})["counters"]["kept_silent"].get<uint64_t>() >= 8; });
    stage_control("fmi", {"fault", "clear"});
    stage_wait(d.stage, "the daemon has taken in what was reported meanwhile", 15s,
               [&] { return supervision_story(read_log(DAEMON), "1").size() >= 6; });
    EXPECT_THAT(supervision_story(read_log(DAEMON), "1"), testing::MatchesRegex("0e0*"));
}

TEST_F(EndToEnd, TheDeathOfAClientDeletesItsLinks)
{
    start();
    start_client("mortal", {"IDL_A1", "300"});
    wait_log("mortal", "create: confirmed");
    EXPECT_EQ(vlans(), 1u);
    EXPECT_GT(endpoints_in_vlan(300), 0u);
    kill_process("mortal");
    stage_wait(d.stage, "VLAN and endpoints are gone", 5s, [] { return vlans() == 0 && endpoints_in_vlan(300) == 0; });
}

TEST_F(EndToEnd, AThirdClientIsRefused)
{
    start();
    start_client("second", {});
    wait_log("second", "open: confirmed");
    start_client("third", {});
    wait_log("third", "open: IEMLI_REJ_OTHER_REASON");
}

TEST_F(EndToEnd, AnEndedSessionMakesRoomForTheNextClient)
{
    start();
    start_client("second", {});
    wait_log("second", "open: confirmed");
    EXPECT_EQ(iemli_client_close(d.client).outcome, iemli_outcome::confirmed);
    start_client("third", {});
    wait_log("third", "open: confirmed");
}

TEST_F(EndToEnd, AClientGetsTheLocalMacOfAPort)
{
    start();
    iemli_answer answer = iemli_client_get_mac(d.client, "IDL_A1", 5);
    ASSERT_EQ(answer.outcome, iemli_outcome::confirmed);
    EXPECT_EQ(mac_to_text(answer.mac), "02:00:00:00:A1:01");
    EXPECT_EQ(answer.port_name, "IDL_A1");
    EXPECT_EQ(answer.mp_id, 5);
    answer = iemli_client_get_mac(d.client, "IDL_C1", 5);
    ASSERT_EQ(answer.outcome, iemli_outcome::rejected);
    EXPECT_EQ(answer.reason, uint32_t{IEMLI_REJ_UNKNOWN_PORT_NAME});
}
