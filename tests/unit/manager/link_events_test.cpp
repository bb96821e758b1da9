// Answers that nobody waits for, answers to procedures without a link, and port events.
#include <gmock/gmock.h>

#include "manager/links/procedure_record.hpp"
#include "support/daemon.hpp"

namespace
{

using daemon_test::answer;
using daemon_test::APP_1;
using daemon_test::APP_2;
using daemon_test::make_link_data;
using fake::Trace;
using testing::ElementsAre;
using testing::IsEmpty;

class LinkEvent : public daemon_test::DaemonTest
{
protected:
    uint32_t session = 0;

    void SetUp() override
    {
        DaemonTest::SetUp();
        start();
        session = open_session();
        forget_records();
    }
    static void event(uint32_t code, uint32_t procedure_ref)
    {
        client_event record = {};
        record.type = PROCEDURE_RESULT_EVENT;
        record.result.code = code;
        record.result.procedure_ref = procedure_ref;
        client_event_cb(&record);
    }
    // A procedure that waits in one step, without anybody who asked and without a link.
    static void wait_in(proc_step_kind kind, uint32_t procedure_ref)
    {
        iml_link_proc *proc = link_proc_alloc();
        link_proc_open(proc);
        link_proc_step_sent(proc, kind, procedure_ref);
    }
};

TEST_F(LinkEvent, IsDroppedWhenNobodyWaitsForIt)
{
    const char *const what[] = {"Vlan is added",       "Vlan is not added",      "Vlan is removed",
                                "Vlan is not removed", "Endpoint is added",      "Endpoint is not added",
                                "Endpoint is removed", "Endpoint is not removed"};
    for (uint32_t code = 1; code <= 8; ++code) {
        forget_records();
        event(code, 900 + code);
        EXPECT_THAT(
            fake::traces(),
            ElementsAre(Trace{1, std::string("Not waiting for this response anymore. ") + what[code - 1] +
                                     " and we are not expecting response for proc ref " + std::to_string(900 + code)}));
    }
    EXPECT_TRUE(fake::sent().empty());
}

TEST_F(LinkEvent, WithReference0MatchesNothing)
{
    wait_in(PROC_STEP_PMI, 5); // its other steps never sent anything
    event(PMI_ENABLE_PORT_VLAN_DONE, 0);
    event(EMI_ADD_ENDPOINT_DONE, 0);
    event(EMI_REMOVE_ENDPOINT_DONE, 0);
    EXPECT_EQ(fake::traces().size(), 3u);
    EXPECT_EQ(link_procedure_count(), 1u);
}

TEST_F(LinkEvent, OfAnUnknownCodeIsTraced)
{
    event(0, 1);
    event(9, 1);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Unknown link event 0 or NO_LINK_EVENT received"},
                                            Trace{1, "Unknown link event 9 or NO_LINK_EVENT received"}));
}

TEST_F(LinkEvent, GoesToTheStepOfItsKindOnly)
{
    wait_in(PROC_STEP_PMI, 5);
    wait_in(PROC_STEP_EMI_ADD, 5);
    wait_in(PROC_STEP_EMI_DEL, 5);
    event(EMI_ADD_ENDPOINT_DONE, 5);
    EXPECT_EQ(link_procedure_count(), 2u);
    EXPECT_EQ(link_proc_find(PROC_STEP_EMI_ADD, 5), nullptr);
    event(EMI_REMOVE_ENDPOINT_DONE, 5);
    EXPECT_EQ(link_proc_find(PROC_STEP_EMI_DEL, 5), nullptr);
    event(PMI_DISABLE_PORT_VLAN_DONE, 5);
    EXPECT_EQ(link_procedure_count(), 0u);
    EXPECT_THAT(fake::traces(), IsEmpty()) << "without a link none of these says anything";
}

TEST_F(LinkEvent, OfAProcedureWithoutALinkNamesNone)
{
    wait_in(PROC_STEP_PMI, 5);
    event(PMI_ENABLE_PORT_VLAN_FAILED, 5);
    wait_in(PROC_STEP_PMI, 6);
    event(PMI_ENABLE_PORT_VLAN_DONE, 6);
    wait_in(PROC_STEP_EMI_ADD, 7);
    event(EMI_ADD_ENDPOINT_FAILED, 7);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Received VLAN_ADD_NOK for request without link."}));
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkEvent, ThatComesTwiceIsDroppedTheSecondTime)
{
    pmi_answers = answer::never;
    emi_answers = answer::never;
    request(create_request(session, 7, {}));
    const daemon_test::Message vlan = take_to(daemon_test::PMI, 0x1B1009);
    const daemon_test::Message add = take_to(daemon_test::EMI, 0x1B10C6);
    confirm(vlan);
    confirm(add);
    forget_records();
    confirm(add);
    EXPECT_THAT(notices(), ElementsAre(Trace{1, "Not waiting for this response anymore. Endpoint is added and we are "
                                                "not expecting response for proc ref " +
                                                    std::to_string(add.net_word(1))}));
    EXPECT_EQ(iml_link_count(), 1u);
}

// ---- Port events ----

class PortEvent : public LinkEvent
{
protected:
    static void vlan_event(uint32_t id, uint16_t vlan, const char *port)
    {
        client_event record = {};
        record.type = IEPCSI_EVENT;
        record.vlan.id = id;
        record.vlan.vlan_id = vlan;
        memcpy(record.vlan.port_name, port, strlen(port));
        client_event_cb(&record);
    }
};

TEST_F(PortEvent, OfAnUnknownCodeIsTraced)
{
    vlan_event(0, 1, "IDLA1");
    vlan_event(7, 1, "IDLA1");
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Unknown link event 0 or NO__PORT_EVENT received"},
                                            Trace{1, "Unknown link event 7 or NO__PORT_EVENT received"}));
}

TEST_F(PortEvent, OfAVlanThatCameUpStartsItsLinks)
{
    ASSERT_EQ(create_link(session, {.port = "TN_A", .vlan = 200, .app_links = {APP_1}}), 1u);
    ASSERT_EQ(create_link(session, {.port = "TN_A", .vlan = 201, .app_links = {APP_2}}), 2u);
    ASSERT_TRUE(fake::sessions().empty());
    forget_records();
    add_vlan("TNA", 200, "eth_tna.200", "ns_200");
    EXPECT_EQ(fake::sessions().size(), 2u);
    const iml_link *link = iml_link_look_up(1);
    EXPECT_EQ(link->supervision_state, SUPERVISION_RUNNING);
    EXPECT_EQ(link->disabled_reason, 4u);
    EXPECT_STREQ(fake::sessions().at(link->supervision_session_id).params.if_name, "eth_tna.200");
    EXPECT_EQ(iml_link_look_up(2)->supervision_state, SUPERVISION_NOT_RUNNING);
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty()) << "the status did not change";
}

TEST_F(PortEvent, OfAVlanThatCameUpTwiceLeavesNoSessionBehind)
{
    ASSERT_EQ(create_link(session, {.port = "TN_A", .vlan = 200, .app_links = {APP_1}}), 1u);
    add_vlan("TNA", 200, "eth_tna.200", "ns_200");
    add_vlan("TNA", 200, "eth_tna.200", "ns_200");
    EXPECT_EQ(fake::sessions().size(), 2u) << "restarted, not doubled";
    EXPECT_EQ(fake::sessions().count(iml_link_first()->supervision_session_id), 1u);
    EXPECT_EQ(fake::sessions().count(iml_link_first()->keep_alive_sessions[0].session_id), 1u);
}

TEST_F(PortEvent, OfAVlanThatCameUpOnAnIdlPortRestartsItsLinks)
{
    ASSERT_EQ(create_link(session, {}), 1u);
    supervision(1, SUPERVISION_ANSWERED);
    forget_records();
    add_vlan("IDLA1", 100, "eth_a1.100", "ns_a1");
    EXPECT_EQ(fake::sessions().size(), 2u);
    EXPECT_EQ(fake::sessions().count(1), 0u);
    EXPECT_EQ(iml_link_first()->status, 1u) << "until frames are lost";
    EXPECT_STREQ(fake::sessions().at(iml_link_first()->supervision_session_id).params.if_name, "eth_a1");
}

TEST_F(PortEvent, OfAVlanThatCameUpLeavesTheSessionsOfALinkThatCannotBeStartedAnew)
{
    ASSERT_EQ(create_link(session, {.app_links = {APP_1, APP_2}}), 1u);
    supervision(1, SUPERVISION_ANSWERED);
    forget_records();
    fake::set_start_result(2);
    add_vlan("IDLA1", 100, "eth_a1.100", "ns_a1");
    const iml_link *link = iml_link_first();
    EXPECT_TRUE(fake::traced(1, "Supervision start failed for link: 1. Result: 2"));
    EXPECT_EQ(link->status, 1u);
    EXPECT_EQ(link->supervision_state, SUPERVISION_RUNNING);
    EXPECT_EQ(fake::sessions().size(), 3u);
    for (int i = 0; i < 6; ++i) {
        supervision(1, SUPERVISION_LOST);
    }
    EXPECT_EQ(link->status, 0u) << "the old session still tells of a link that is cut";
}

TEST_F(PortEvent, OfAVlanThatCameUpTwiceChangesNothingThatAClientSees)
{
    ASSERT_EQ(create_link(session, {}), 1u);
    supervision(1, SUPERVISION_ANSWERED, 0, 500);
    supervision(1, SUPERVISION_LOST);
    forget_records();
    add_vlan("IDLA1", 100, "eth_a1.100", "ns_a1");
    const iml_link *link = iml_link_first();
    EXPECT_EQ(link->supervision_results, 2u);
    EXPECT_EQ(link->supervision_lost, 1u);
    EXPECT_EQ(link->rtt_samples.count, 2u);
    EXPECT_EQ(fake::count_traced(6, "Supervision stopped for link ref: 1 with session id: 1"), 0u);
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty());
}

TEST_F(PortEvent, OfAVlanThatCameUpTellsWhenSupervisionDoesNotStart)
{
    ASSERT_EQ(create_link(session, {.port = "TN_A", .vlan = 200}), 1u);
    fake::set_start_results({2, 0});
    add_vlan("TNA", 200, "eth_tna.200", "ns_200");
    EXPECT_TRUE(fake::traced(1, "Supervision start failed for link: 1. Result: 2"));
    EXPECT_EQ(fake::sessions().size(), 1u) << "keep-alive starts all the same";
}

TEST_F(PortEvent, OfAVlanOnAPortThatIsDownStartsNothing)
{
    ASSERT_EQ(create_link(session, {.port = "TN_A", .vlan = 200}), 1u);
    set_port("TNA", 1, 0);
    add_vlan("TNA", 200, "eth_tna.200", "ns_200");
    EXPECT_TRUE(fake::sessions().empty());
    remove_vlan("TNA", 200);
    EXPECT_FALSE(fake::traced(1, "link with id 1 on port TNA and vlan 200 should already been deleted"));
}

TEST_F(PortEvent, OfAVlanOnAnUnknownPortIsTraced)
{
    vlan_event(PORT_VLAN_ADDED, 100, "IDLB2");
    vlan_event(PORT_VLAN_REMOVED, 100, "A-PORT-OF-16-CHA");
    EXPECT_TRUE(fake::traced(1, "Failed to fetch port data for port name IDLB2"));
    EXPECT_TRUE(fake::traced(1, "Failed to fetch port data for port name A-PORT-OF-16-CHA"));
}

TEST_F(PortEvent, OfAVlanThatWentDownNamesTheLinksThatAreStillThere)
{
    ASSERT_EQ(create_link(session, {.port = "TN_A", .vlan = 200}), 1u);
    ASSERT_EQ(create_link(session, {.port = "TN_A", .vlan = 201}), 2u);
    forget_records();
    remove_vlan("TNA", 200);
    EXPECT_TRUE(fake::traced(1, "link with id 1 on port TNA and vlan 200 should already been deleted"));
    EXPECT_FALSE(fake::traced(1, "link with id 2 on port TNA and vlan 201 should already been deleted"));
    EXPECT_EQ(iml_link_count(), 2u) << "nothing else changes";
}

} // namespace
