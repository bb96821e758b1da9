// Dialogues of the whole core with its neighbours: what arrives, and everything that leaves, in order.
#include "iemli/iemli_session.hpp"
#include "transcript.hpp"

namespace
{

using namespace transcript;

class Stories : public Story
{
protected:
    uint32_t a = 0; // A's session

    void begin()
    {
        start();
        a = open_session(CLIENT, 11);
        ASSERT_EQ(a, 1u);
        forget_records();
    }

    void lower_layers_wait()
    {
        pmi_answers = answer::never;
        emi_answers = answer::never;
    }

    static fake::Sent find_sent(uint32_t msgno)
    {
        for (const fake::Sent &message : fake::sent()) {
            if (message.msgno() == msgno) {
                return message;
            }
        }
        ADD_FAILURE() << "not sent: " << std::hex << msgno;
        return {0, 0, Bytes(12)};
    }
};

TEST_F(Stories, ALinkOnAnIdlPortIsCreatedConfirmedEnabledAndDeleted)
{
    begin();
    request(create_request(a, 5, {.port = "IDL_A1", .vlan = 100, .app_links = {APP_1, APP_2}}));
    EXPECT_EQ(happened(), "pmi <- enable vlan 100 on IDLA1\n"
                          "emi <- add 7 endpoints\n"
                          "fmi <- append rule of 3 entries on DiPort_A1\n"
                          "A <- IEMLI_CREATE_INTER_ME_LINK_CFM 5 link 1\n"
                          "A <- IEMLI_INTER_ME_LINK_STATUS_IND 5 link 1 disabled with reason no connectivity\n"
                          "supervision 1 began: link every 1 s on eth_a1 in ns_a1\n"
                          "supervision 2 began: keep-alive every 5 s on eth_a1 in ns_a1\n"
                          "supervision 3 began: keep-alive every 5 s on eth_a1 in ns_a1\n");
    supervision(1, SUPERVISION_ANSWERED, 0, 1000);
    EXPECT_EQ(happened(), "A <- IEMLI_INTER_ME_LINK_STATUS_IND 5 link 1 enabled\n");
    request(delete_request(a, 6, 1));
    EXPECT_EQ(happened(), "pmi <- disable vlan 100 on IDLA1\n"
                          "emi <- remove 7 endpoints\n"
                          "A <- IEMLI_DELETE_INTER_ME_LINK_CFM 6\n"
                          "supervision 1 ended\n"
                          "supervision 2 ended\n"
                          "supervision 3 ended\n");
}

TEST_F(Stories, ALinkOnATnPortNeedsNoVlanFromPmiAndLivesWhereItsVlanDoes)
{
    begin();
    add_vlan("TNA", 200, "eth_tna.200", "ns_200");
    request(create_request(a, 5, {.port = "TN_A", .vlan = 200, .app_links = {}}));
    EXPECT_EQ(happened(), "emi <- add 4 endpoints\n"
                          "fmi <- append rule of 1 entries on TNA\n"
                          "A <- IEMLI_CREATE_INTER_ME_LINK_CFM 5 link 1\n"
                          "A <- IEMLI_INTER_ME_LINK_STATUS_IND 5 link 1 disabled with reason no connectivity\n"
                          "supervision 1 began: link every 1 s on eth_tna.200 in ns_200\n");
}

TEST_F(Stories, ACreateThatTheEndpointManagerRefusesIsRejectedAtOnceAndItsVlanTakenBack)
{
    begin();
    lower_layers_wait();
    request(create_request(a, 5, {}));
    const fake::Sent vlan = find_sent(0x1B1009);
    const fake::Sent endpoints = find_sent(0x1B10C6);
    EXPECT_EQ(happened(), "pmi <- enable vlan 100 on IDLA1\nemi <- add 5 endpoints\n");
    confirm(vlan);
    EXPECT_EQ(happened(), "");
    reject(endpoints);
    const fake::Sent back = find_sent(0x1B100C);
    EXPECT_EQ(happened(), "pmi <- disable vlan 100 on IDLA1\nA <- IEMLI_CREATE_INTER_ME_LINK_REJ 5 reason 99\n");
    EXPECT_EQ(link_procedure_count(), 1u);
    confirm(back);
    EXPECT_EQ(happened(), "");
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(Stories, WhileOneCreateWaitsAnotherClientsDeleteIsQueuedAndTakenUpRightAfterIt)
{
    begin();
    const uint32_t b = open_session(OTHER_CLIENT, 12);
    create_link(b, {.vlan = 101}, OTHER_CLIENT);
    lower_layers_wait();
    happened();
    request(create_request(a, 5, {.vlan = 102}));
    const fake::Sent vlan = find_sent(0x1B1009);
    const fake::Sent endpoints = find_sent(0x1B10C6);
    happened();
    request(delete_request(b, 6, 1), OTHER_CLIENT);
    EXPECT_EQ(happened(), "");
    confirm(vlan);
    confirm(endpoints);
    EXPECT_EQ(happened(), "fmi <- append rule of 2 entries on DiPort_A1\n"
                          "fmi <- remove rule 25 on DiPort_A1\n"
                          "A <- IEMLI_CREATE_INTER_ME_LINK_CFM 5 link 2\n"
                          "fmi <- append rule of 2 entries on eth_a1\n"
                          "pmi <- disable vlan 101 on IDLA1\n"
                          "emi <- remove 5 endpoints\n"
                          "A <- IEMLI_INTER_ME_LINK_STATUS_IND 5 link 2 disabled with reason no connectivity\n"
                          "supervision 1 ended\n"
                          "supervision 2 ended\n"
                          "supervision 3 began: link every 1 s on eth_a1 in ns_a1\n"
                          "supervision 4 began: keep-alive every 5 s on eth_a1 in ns_a1\n");
}

TEST_F(Stories, AClientThatDiesWhileItsCreateWaitsHasItsLinkMadeAndAtOnceDeleted)
{
    begin();
    lower_layers_wait();
    request(create_request(a, 5, {}));
    const fake::Sent vlan = find_sent(0x1B1009);
    const fake::Sent endpoints = find_sent(0x1B10C6);
    fake::kill(CLIENT);
    run();
    happened();
    confirm(vlan);
    confirm(endpoints);
    EXPECT_EQ(happened(), "fmi <- append rule of 2 entries on DiPort_A1\n"
                          "A <- IEMLI_CREATE_INTER_ME_LINK_CFM 5 link 1\n"
                          "pmi <- disable vlan 100 on IDLA1\n"
                          "emi <- remove 5 endpoints\n");
    EXPECT_EQ(iml_link_count(), 0u);
    EXPECT_EQ(iemli_session_first(), nullptr);
}

TEST_F(Stories, APortThatGoesDownAndComesUpTakesItsLinksWithIt)
{
    begin();
    create_link(a, {.app_links = {}});
    supervision(1, SUPERVISION_ANSWERED);
    happened();
    set_port("IDLA1", 1, 0);
    EXPECT_EQ(happened(), "A <- IEMLI_INTER_ME_LINK_STATUS_IND 1000 link 1 disabled with reason down\n"
                          "supervision 1 ended\n");
    set_port("IDLA1", 1, 1);
    EXPECT_EQ(happened(), "A <- IEMLI_INTER_ME_LINK_STATUS_IND 1000 link 1 disabled with reason no connectivity\n"
                          "supervision 2 began: link every 1 s on eth_a1 in ns_a1\n");
}

TEST_F(Stories, SixLossesInARowDisableALinkAndTheFirstAnswerEnablesItAgain)
{
    begin();
    create_link(a, {.app_links = {}});
    supervision(1, SUPERVISION_ANSWERED);
    happened();
    for (int i = 0; i < 5; ++i) {
        supervision(1, SUPERVISION_LOST);
    }
    EXPECT_EQ(happened(), "");
    supervision(1, SUPERVISION_LOST);
    EXPECT_EQ(happened(), "A <- IEMLI_INTER_ME_LINK_STATUS_IND 1000 link 1 disabled with reason no connectivity\n");
    supervision(1, SUPERVISION_ANSWERED_NO_TIME);
    EXPECT_EQ(happened(), "A <- IEMLI_INTER_ME_LINK_STATUS_IND 1000 link 1 enabled\n");
}

TEST_F(Stories, ALostServiceEndsTheSessionsAndTheirLinksAndLeavesWhatCannotBeReached)
{
    begin();
    create_link(a, {.app_links = {}});
    happened();
    fake::kill(PMI);
    run();
    EXPECT_EQ(happened(), "nobody <- disable vlan 100 on IDLA1\n"
                          "emi <- remove 3 endpoints\n"
                          "supervision 1 ended\n");
    EXPECT_EQ(manager_state(), KAP_VORN_FAULTY_STATE);
    request(create_request(a, 9, {}));
    EXPECT_EQ(happened(), "A <- IEMLI_CREATE_INTER_ME_LINK_REJ 9 reason 0\n");
}

TEST_F(Stories, TheAutomationAgentHearsOfPathsStatusAndLatencies)
{
    begin();
    start_aasi();
    happened();
    create_link(a, {.app_links = {}});
    request(enable_rtt_request(a, 7, 1, 2, 1, 100));
    happened();
    supervision(2, SUPERVISION_ANSWERED, 0, 3000);
    supervision(2, SUPERVISION_ANSWERED, 1, 5001);
    EXPECT_EQ(happened(), "A <- IEMLI_INTER_ME_LINK_STATUS_IND 1000 link 1 enabled\n"
                          "agent <- path of link 1: latencies 0 0 0, status 1\n"
                          "A <- IEMLI_INTER_ME_LINK_RTT_IND 1000 link 1 min 3000 avg 500004000 max 5001 valid 1\n"
                          "agent <- path of link 1: latencies 3000 5001 500004000, status 1\n");
    request(delete_request(a, 8, 1));
    EXPECT_EQ(happened(), "pmi <- disable vlan 100 on IDLA1\n"
                          "emi <- remove 3 endpoints\n"
                          "A <- IEMLI_DELETE_INTER_ME_LINK_CFM 8\n"
                          "agent <- delete path of link 1\n"
                          "supervision 2 ended\n");
}

} // namespace
