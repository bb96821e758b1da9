// Links on real frames, seen by one client and by two.
#include <csignal>

#include "e2e.hpp"

using namespace std::chrono_literals;

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

TEST_F(EndToEnd, ACutFarEndDisablesTheLinkAndAMendedOneEnablesItAgain)
{
    start();
    demo_link &link = demo_create(d, demo_first_wish(d));
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
    demo_set_far_end(d, false);
    demo_wait_status(d, link.link_ref, IML_LINK_DISABLED, IML_LINK_REASON_NO_CONNECTIVITY, 10s);
    demo_set_far_end(d, true);
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
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
