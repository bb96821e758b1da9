// Create, update and delete of links: what is asked of the lower layers, what their answers make of it, and what the
// client hears.
#include "manager/links/link_procedures.hpp"

#include <gmock/gmock.h>

#include "iemli/iemli_handlers.hpp"
#include "manager/links/link_paths.hpp"
#include "manager/links/procedure_record.hpp"
#include "support/daemon.hpp"

namespace
{

using daemon_test::answer;
using daemon_test::APP_1;
using daemon_test::APP_2;
using daemon_test::APP_3;
using daemon_test::Link;
using daemon_test::make_link_data;
using daemon_test::make_request;
using daemon_test::Message;
using fake::Builder;
using fake::Trace;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t ENABLE_VLAN = 0x1B1009;
constexpr uint32_t DISABLE_VLAN = 0x1B100C;
constexpr uint32_t ADD_ENDPOINT = 0x1B10C6;
constexpr uint32_t REMOVE_ENDPOINT = 0x1B10C9;
constexpr uint32_t APPEND_RULE = 0x1B0F61;

// ---- Decisions ----

proc_action next_action(uint32_t action, proc_step_state overall)
{
    const IemliPendingRequest request = {1, 2, 3, static_cast<iemli_pending_action>(action)};
    return proc_next_action(&request, overall);
}

TEST(LinkProcedureDecisions, AreTheSameForEveryCombinationOfSteps)
{
    constexpr proc_step_state STATES[] = {PROC_STEP_IDLE, PROC_STEP_ONGOING, PROC_STEP_OK, PROC_STEP_FAILED};
    for (const proc_step_state pmi : STATES) {
        for (const proc_step_state add : STATES) {
            for (const proc_step_state del : STATES) {
                const bool ongoing = pmi == PROC_STEP_ONGOING || add == PROC_STEP_ONGOING || del == PROC_STEP_ONGOING;
                const bool failed =
                    !ongoing && (pmi == PROC_STEP_FAILED || add == PROC_STEP_FAILED || del == PROC_STEP_FAILED);
                const proc_step_state overall = proc_overall_state(pmi, add, del);
                EXPECT_EQ(overall, ongoing  ? PROC_STEP_ONGOING
                                   : failed ? PROC_STEP_FAILED
                                            : PROC_STEP_OK)
                    << pmi << add << del;
                const proc_action wait = PROC_WAIT;
                EXPECT_EQ(next_action(IEMLI_PENDING_CREATE, overall), ongoing  ? wait
                                                                      : failed ? PROC_UNWIND_CREATE
                                                                               : PROC_FINISH_CREATE);
                EXPECT_EQ(next_action(IEMLI_PENDING_UPDATE, overall), ongoing  ? wait
                                                                      : failed ? PROC_UNWIND_UPDATE
                                                                               : PROC_FINISH_UPDATE);
                EXPECT_EQ(next_action(IEMLI_PENDING_DELETE, overall), ongoing ? wait : PROC_CONFIRM_DELETE);
                EXPECT_EQ(next_action(3, overall), ongoing ? wait : PROC_UNKNOWN_REQUEST);
                EXPECT_EQ(proc_next_action(nullptr, overall), ongoing ? wait : PROC_CLOSE);
            }
        }
    }
}

// A procedure that is over when it has hardly begun: the answer goes out as the server sends it.
void answer_at_once(const link_answer &answer, IemliPendingRequest **pending)
{
    ASSERT_NE(answer.kind, LINK_WAITS);
    ASSERT_NE(*pending, nullptr) << "it is still the caller's";
    for (const fake::Sent &message : fake::sent()) {
        EXPECT_NE(message.to, daemon_test::CLIENT) << "the procedure tells nobody";
    }
    if (answer.kind == LINK_CONFIRMED) {
        iemli_answer_confirmed(answer.link_ref, pending);
    } else {
        iemli_answer_rejected(answer.reason, pending);
    }
    EXPECT_EQ(*pending, nullptr);
}

class LinkProcedure : public daemon_test::DaemonTest
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
    // From here on the test answers PMI and EMI itself.
    void answer_by_hand()
    {
        pmi_answers = answer::never;
        emi_answers = answer::never;
    }
    // The test has the one link, on IDL_A1 in VLAN 100 with APP_1.
    iml_link *have_link(const Link &data = {})
    {
        EXPECT_EQ(create_link(session, data), 1u);
        forget_records();
        return iml_link_first();
    }
    static Message pmi_request(uint32_t msgno) { return take_to(daemon_test::PMI, msgno); }
    static Message emi_request(uint32_t msgno) { return take_to(daemon_test::EMI, msgno); }
    // The MACs of an endpoint request, far-end ones marked.
    static std::vector<std::string> endpoints(const Message &request)
    {
        std::vector<std::string> found;
        for (size_t at = 16; at + 100 <= request.bytes.size(); at += 100) {
            const uint8_t *mac = request.bytes.data() + at + 64;
            char text[24];
            snprintf(text, sizeof text, "%02X:%02X:%02X:%02X:%02X:%02X%s", mac[0], mac[1], mac[2], mac[3], mac[4],
                     mac[5], request.bytes[at + 95] == 1 ? " far" : "");
            found.emplace_back(text);
        }
        return found;
    }
    // The reason of the reject that the client got.
    static uint32_t rejected(uint32_t msgno) { return take_to(daemon_test::CLIENT, msgno).word(3); }
    static std::vector<std::string> emca_rules()
    {
        std::vector<std::string> found;
        for (const Message &m : messages_to(daemon_test::FMI)) {
            if (m.msgno() == APPEND_RULE) {
                found.push_back(m.text(12) + " x" + std::to_string(m.net_word(22) - 1));
            }
        }
        return found;
    }
};

// ---- Create ----

TEST_F(LinkProcedure, CreateAsksForTheVlanAndThenForTheEndpoints)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    ASSERT_EQ(fake::sent().size(), 2u);
    const Message vlan = pmi_request(ENABLE_VLAN);
    EXPECT_EQ(vlan.text(12), "IDLA1");
    EXPECT_EQ(vlan.net_word(7), 100u);
    const Message add = emi_request(ADD_ENDPOINT);
    EXPECT_EQ(add.net_word(3), 5u);
    EXPECT_THAT(endpoints(add), ElementsAre("02:00:00:00:0B:01 far", "02:00:00:00:0A:01", "02:00:00:00:0C:01 far",
                                            "01:1B:19:00:00:00", "01:80:C2:00:00:0E"));
    EXPECT_EQ(link_procedure_count(), 1u);
    EXPECT_EQ(iml_link_count(), 0u);
}

TEST_F(LinkProcedure, CreateFinishesWhenBothHaveAnswered)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    const Message vlan = pmi_request(ENABLE_VLAN);
    const Message add = emi_request(ADD_ENDPOINT);
    confirm(add);
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty());
    EXPECT_TRUE(fake::traced(6, "Added endpoint for iml link on port IDL_A1"));
    confirm(vlan);
    EXPECT_TRUE(fake::traced(6, "Added vlan 100 on port IDL_A1"));
    const Message cfm = take_to(daemon_test::CLIENT, IEMLI_CREATE_INTER_ME_LINK_CFM);
    EXPECT_EQ(cfm.word(1), 7u);
    EXPECT_EQ(cfm.word(3), 1u);
    const Message status = take_to(daemon_test::CLIENT, IEMLI_INTER_ME_LINK_STATUS_IND);
    EXPECT_EQ(status.word(3), 1u);
    EXPECT_EQ(status.word(4), 0u);
    EXPECT_EQ(status.word(5), 4u);
    EXPECT_THAT(emca_rules(), ElementsAre("DiPort_A1 x1"));
    EXPECT_EQ(link_procedure_count(), 0u);
    const iml_link *link = iml_link_first();
    EXPECT_EQ(link->connection_ref, session);
    EXPECT_EQ(link->supervision_session_id, 1u);
    EXPECT_EQ(link->keep_alive_sessions[0].session_id, 2u);
    EXPECT_TRUE(fake::traced(6, "Created iml link with ref 1, supervision session id: 1, on port IDL_A1 with remote "
                                "cpm mac: 02:00:00:00:0C:01, status=0x0, disabled_reason=0x4"));
}

TEST_F(LinkProcedure, CreateOnATnPortNeedsTheEndpointsAlone)
{
    answer_by_hand();
    request(create_request(session, 7, {.port = "TN_A", .vlan = 200}));
    EXPECT_THAT(numbers_to(daemon_test::PMI), IsEmpty());
    confirm(emi_request(ADD_ENDPOINT));
    EXPECT_EQ(take_to(daemon_test::CLIENT, IEMLI_CREATE_INTER_ME_LINK_CFM).word(3), 1u);
    EXPECT_TRUE(fake::sessions().empty()) << "the VLAN is not known yet";
}

TEST_F(LinkProcedure, CreateOnAPortThatIsDownStartsDisabledWithReasonDown)
{
    set_port("IDLA1", 1, 0);
    forget_records();
    request(create_request(session, 7, {}));
    const Message status = take_to(daemon_test::CLIENT, IEMLI_INTER_ME_LINK_STATUS_IND);
    EXPECT_EQ(status.word(4), 0u);
    EXPECT_EQ(status.word(5), 2u);
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_TRUE(fake::traced(6, "Created iml link with ref 1, supervision session id: 0, on port IDL_A1 with remote "
                                "cpm mac: 02:00:00:00:0C:01, status=0x0, disabled_reason=0x2"));
}

TEST_F(LinkProcedure, CreateOnAPortOfAnyOtherStateIsNoConnectivity)
{
    set_port("IDLA1", 1, 7);
    request(create_request(session, 7, {}));
    EXPECT_EQ(take_to(daemon_test::CLIENT, IEMLI_INTER_ME_LINK_STATUS_IND).word(5), 4u);
    EXPECT_EQ(fake::sessions().size(), 2u);
}

TEST_F(LinkProcedure, CreateOnALockedPortProgramsNoRule)
{
    set_port("IDLA1", 0, 1);
    forget_records();
    request(create_request(session, 7, {}));
    EXPECT_THAT(emca_rules(), IsEmpty());
    EXPECT_EQ(iml_link_count(), 1u);
}

TEST_F(LinkProcedure, CreateIsRejectedAtOnceAndTheVlanTakenBackWhenEmiRefuses)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    const Message vlan = pmi_request(ENABLE_VLAN);
    const Message add = emi_request(ADD_ENDPOINT);
    confirm(vlan);
    forget_records();
    reject(add);
    EXPECT_EQ(rejected(IEMLI_CREATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::traced(1, "FAILED adding endpoint for iml link on port IDL_A1"));
    EXPECT_TRUE(fake::traced(4, "WARNING: Something went wrong with create iml link req(port IDL_A1 with remote cpm "
                                "mac: 02:00:00:00:0C:01) pmi.state = 2, emi_add.state = 3, emi_del.state = 0"));
    const Message back = pmi_request(DISABLE_VLAN);
    EXPECT_EQ(back.text(12), "IDLA1");
    EXPECT_EQ(back.net_word(7), 100u);
    EXPECT_EQ(link_procedure_count(), 1u) << "until the VLAN is taken back";
    confirm(back);
    EXPECT_EQ(link_procedure_count(), 0u);
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty()) << "rejected once";
    EXPECT_EQ(iml_link_count(), 0u);
}

TEST_F(LinkProcedure, CreateIsRejectedAndTheEndpointsTakenBackWhenPmiRefuses)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    const Message vlan = pmi_request(ENABLE_VLAN);
    confirm(emi_request(ADD_ENDPOINT));
    reject(vlan);
    EXPECT_EQ(rejected(IEMLI_CREATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::traced(1, "Add vlan 100 on port IDL_A1 FAILED"));
    EXPECT_TRUE(fake::traced(4, "WARNING: Something went wrong with create iml link req(port IDL_A1 with remote cpm "
                                "mac: 02:00:00:00:0C:01) pmi.state = 3, emi_add.state = 2, emi_del.state = 0"));
    const Message back = emi_request(REMOVE_ENDPOINT);
    EXPECT_EQ(back.net_word(3), 5u);
    const iml_link_proc *proc = link_proc_find(PROC_STEP_EMI_DEL, back.net_word(1));
    ASSERT_NE(proc, nullptr);
    EXPECT_EQ(proc->steps[PROC_STEP_EMI_ADD].state, PROC_STEP_IDLE);
    forget_records();
    reject(back);
    EXPECT_TRUE(fake::traced(1, "Endpoint not removed successfuly"));
    EXPECT_EQ(link_procedure_count(), 0u) << "a failure while unwinding is only traced";
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty());
}

TEST_F(LinkProcedure, CreateIsRejectedWithNothingToTakeBackWhenBothRefuse)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    const Message vlan = pmi_request(ENABLE_VLAN);
    const Message add = emi_request(ADD_ENDPOINT);
    reject(vlan);
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty()) << "the other answer is awaited";
    reject(add);
    EXPECT_EQ(rejected(IEMLI_CREATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, CreateTracesAVlanThatCannotBeTakenBack)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    confirm(pmi_request(ENABLE_VLAN));
    reject(emi_request(ADD_ENDPOINT));
    take_to(daemon_test::CLIENT, IEMLI_CREATE_INTER_ME_LINK_REJ);
    fake::traces().clear();
    reject(pmi_request(DISABLE_VLAN));
    EXPECT_THAT(notices(), ElementsAre(Trace{1, "Vlan not removed successfuly"}));
    EXPECT_EQ(link_procedure_count(), 0u);
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty());
}

TEST_F(LinkProcedure, CreateStartsNothingWithoutPortData)
{
    iepcsi_client_forget_all();
    IemliLinkData *data = make_link_data({});
    IemliPendingRequest *pending = make_request(IEMLI_PENDING_CREATE, session);
    answer_at_once(iml_link_create(data, &pending), &pending);
    EXPECT_EQ(rejected(IEMLI_CREATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::traced(1, "Failed to get port data"));
    EXPECT_TRUE(fake::traced(1, "Memory error"));
    EXPECT_TRUE(fake::sent().empty());
    free(data);
}

TEST_F(LinkProcedure, CreateIsRejectedWhenMemoryIsOutAtTheStart)
{
    // The procedure, its copy of the parameters, and the endpoint list.
    for (unsigned nth : {1u, 2u, 3u}) {
        IemliLinkData *data = make_link_data({});
        IemliPendingRequest *pending = make_request(IEMLI_PENDING_CREATE, session);
        forget_records();
        fake::fail_allocation(nth);
        const link_answer answer = iml_link_create(data, &pending);
        fake::fail_allocation(0);
        answer_at_once(answer, &pending);
        EXPECT_EQ(rejected(IEMLI_CREATE_INTER_ME_LINK_REJ), 99u) << nth;
        EXPECT_EQ(fake::count_traced(1, "Memory error"), 1u) << nth;
        EXPECT_EQ(fake::count_traced(1, "Out of memory"), nth == 3 ? 1u : 0u);
        EXPECT_TRUE(fake::sent().empty()) << nth;
        EXPECT_EQ(link_procedure_count(), 0u) << nth;
        free(data);
    }
}

TEST_F(LinkProcedure, CreateIsRejectedWhenMemoryIsOutAtTheEnd)
{
    // The link's copy of the parameters, and the link.
    for (unsigned nth : {1u, 2u}) {
        answer_by_hand();
        request(create_request(session, 7, {}));
        confirm(pmi_request(ENABLE_VLAN));
        answer_to(emi_request(ADD_ENDPOINT), true);
        forget_records();
        fake::fail_allocation(nth);
        run();
        EXPECT_EQ(rejected(IEMLI_CREATE_INTER_ME_LINK_REJ), 99u);
        EXPECT_TRUE(fake::traced(1, "Memory error"));
        EXPECT_TRUE(fake::sent().empty()) << "VLAN and endpoints stay in place";
        EXPECT_EQ(iml_link_count(), 0u);
        EXPECT_EQ(link_procedure_count(), 0u);
    }
}

TEST_F(LinkProcedure, CreateIsRejectedWithUnknownPortWhenThePortIsGoneAtTheEnd)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    confirm(pmi_request(ENABLE_VLAN));
    const Message add = emi_request(ADD_ENDPOINT);
    iepcsi_client_forget_all();
    confirm(add);
    EXPECT_EQ(rejected(IEMLI_CREATE_INTER_ME_LINK_REJ), 4u);
    EXPECT_TRUE(fake::traced(6, "Failed to fetch port data."));
    EXPECT_TRUE(fake::sent().empty()) << "VLAN and endpoints stay in place";
    EXPECT_EQ(iml_link_count(), 0u);
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, CreateIsRejectedWhenSupervisionDoesNotStart)
{
    fake::set_start_result(2);
    request(create_request(session, 7, {}));
    EXPECT_EQ(rejected(IEMLI_CREATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::traced(1, "Supervision start failed for link: 0. Result: 2"));
    EXPECT_THAT(numbers_to(daemon_test::PMI), ElementsAre(ENABLE_VLAN)) << "the VLAN stays in place";
    EXPECT_THAT(numbers_to(daemon_test::EMI), ElementsAre(ADD_ENDPOINT));
    EXPECT_EQ(iml_link_count(), 0u);
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, CreateIsRejectedWhenItsNamespaceIsNotThere)
{
    ports[0].name_space = "gone";
    set_port("IDLA1", 1, 1);
    request(create_request(session, 7, {}));
    EXPECT_EQ(rejected(IEMLI_CREATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::traced(1, "Supervision start failed for link: 0. Result: 1"));
}

TEST_F(LinkProcedure, CreateKeepsTheVlanInPlaceWhenTheListToTakeBackCannotBeBuilt)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    const Message vlan = pmi_request(ENABLE_VLAN);
    confirm(emi_request(ADD_ENDPOINT));
    iepcsi_client_forget_all();
    reject(vlan);
    EXPECT_EQ(rejected(IEMLI_CREATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::traced(1, "Memory error"));
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, CreateTellsTheAutomationAgentOfThePathAndTheStatus)
{
    start_aasi();
    forget_records();
    request(create_request(session, 7, {}));
    EXPECT_THAT(numbers_to(daemon_test::AASI), ElementsAre(0x1A00443, 0x1A00446));
    const Message info = take_to(daemon_test::AASI, 0x1A00446);
    EXPECT_EQ(fake::to_hex({info.bytes.begin() + 12, info.bytes.end()}),
              fake::to_hex(Builder().n32(1).n32(0).n32(0).n32(0).n32(0)));
}

TEST_F(LinkProcedure, TakesTheNextRequestBeforeTheStatusOfACreatedLinkIsTold)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    request(create_request(session, 8, {.mp_id = 0})); // waits, and is refused when it is taken
    confirm(pmi_request(ENABLE_VLAN));
    confirm(emi_request(ADD_ENDPOINT));
    EXPECT_THAT(
        numbers_to(daemon_test::CLIENT),
        ElementsAre(IEMLI_CREATE_INTER_ME_LINK_CFM, IEMLI_CREATE_INTER_ME_LINK_REJ, IEMLI_INTER_ME_LINK_STATUS_IND));
    EXPECT_EQ(take_to(daemon_test::CLIENT, IEMLI_INTER_ME_LINK_STATUS_IND).word(1), 8u) << "the newer procedure_ref";
}

TEST_F(LinkProcedure, SurvivesATermOfItsClientThatWaitedForTheCreate)
{
    start_aasi();
    answer_by_hand();
    forget_records();
    request(create_request(session, 7, {}));
    request(term_request(session, 8));
    confirm(pmi_request(ENABLE_VLAN));
    confirm(emi_request(ADD_ENDPOINT));
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), ElementsAre(IEMLI_CREATE_INTER_ME_LINK_CFM, IEMLI_TERM_SERVICE_CFM));
    EXPECT_TRUE(fake::traced(4, "WARNING:Unexisting session for connection-ref=1"));
    EXPECT_EQ(iml_link_count(), 0u) << "the term deleted the link that was just made";
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_EQ(link_procedure_count(), 1u) << "its delete, which nobody asked for";
    confirm(pmi_request(DISABLE_VLAN));
    confirm(emi_request(REMOVE_ENDPOINT));
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, SurvivesTheDeathOfItsClientWhileTheCreateIsOut)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    fake::kill(daemon_test::CLIENT);
    run();
    const Message vlan = pmi_request(ENABLE_VLAN);
    confirm(emi_request(ADD_ENDPOINT));
    confirm(vlan);
    EXPECT_EQ(iml_link_count(), 0u);
    confirm(pmi_request(DISABLE_VLAN));
    confirm(emi_request(REMOVE_ENDPOINT));
    EXPECT_EQ(link_procedure_count(), 0u);
}

// The procedure goes on; its answer and the status of its link have nobody to go to.
TEST_F(LinkProcedure, CreateGoesOnWhenItsSessionEndedWithTheService)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    handle_service_event(FMI_SERVICE_DOWN);
    EXPECT_EQ(link_procedure_count(), 1u);
    confirm(pmi_request(ENABLE_VLAN));
    confirm(emi_request(ADD_ENDPOINT));
    EXPECT_TRUE(fake::traced(6, "Session 1 lost while waiting for response from lower layer."));
    EXPECT_TRUE(fake::traced(4, "WARNING:Unexisting session for connection-ref=1"));
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty());
    EXPECT_EQ(iml_link_count(), 1u);
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, SurvivesADeleteThatWaitedForItsOwnCreate)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    request(delete_request(session, 8, 1));
    confirm(pmi_request(ENABLE_VLAN));
    confirm(emi_request(ADD_ENDPOINT));
    EXPECT_THAT(numbers_to(daemon_test::CLIENT),
                ElementsAre(IEMLI_CREATE_INTER_ME_LINK_CFM, IEMLI_INTER_ME_LINK_STATUS_IND));
    EXPECT_EQ(iml_link_count(), 0u);
    confirm(pmi_request(DISABLE_VLAN));
    confirm(emi_request(REMOVE_ENDPOINT));
    EXPECT_EQ(take_to(daemon_test::CLIENT, IEMLI_DELETE_INTER_ME_LINK_CFM).word(1), 8u);
    EXPECT_EQ(link_procedure_count(), 0u);
}

// ---- Update ----

TEST_F(LinkProcedure, UpdateRemovesAndAddsTheDifference)
{
    have_link({.app_links = {APP_1, APP_2}});
    answer_by_hand();
    request(update_request(session, 9, 1, {APP_2, APP_3}));
    ASSERT_EQ(fake::sent().size(), 2u);
    const Message removal = emi_request(REMOVE_ENDPOINT);
    const Message addition = emi_request(ADD_ENDPOINT);
    EXPECT_THAT(endpoints(removal), ElementsAre("02:00:00:00:0B:01 far", "02:00:00:00:0A:01"));
    EXPECT_THAT(endpoints(addition), ElementsAre("02:00:00:00:0B:03 far", "02:00:00:00:0A:03"));
    EXPECT_EQ(
        fake::count_traced(6, "Updated iml link with ref 1 on port IDL_A1 with remote cpm mac: 02:00:00:00:0C:01"), 1u);
    confirm(removal);
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty());
    confirm(addition);
    EXPECT_EQ(take_to(daemon_test::CLIENT, IEMLI_UPDATE_INTER_ME_LINK_CFM).word(1), 9u);
    EXPECT_EQ(
        fake::count_traced(6, "Updated iml link with ref 1 on port IDL_A1 with remote cpm mac: 02:00:00:00:0C:01"), 2u);
    const iml_link *link = iml_link_first();
    ASSERT_EQ(link->link_data->numberOfAppLinks, 2u);
    EXPECT_TRUE(mac_equal(iemli_app_links(link->link_data)[0].nearEndAppMac, daemon_test::to_mac(APP_2.near_end)));
    EXPECT_TRUE(mac_equal(iemli_app_links(link->link_data)[1].farEndAppMac, daemon_test::to_mac(APP_3.far_end)));
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, UpdateExchangesTheKeepAlivesAndTheRule)
{
    iml_link *link = have_link();
    const uint32_t old_keep_alive = link->keep_alive_sessions[0].session_id;
    const uint32_t supervision_session = link->supervision_session_id;
    request(update_request(session, 9, 1, {APP_2, APP_3}));
    take_to(daemon_test::CLIENT, IEMLI_UPDATE_INTER_ME_LINK_CFM);
    EXPECT_EQ(link->supervision_session_id, supervision_session) << "goes on";
    EXPECT_EQ(fake::sessions().count(old_keep_alive), 0u);
    EXPECT_EQ(link->keep_alive_count, 2u);
    EXPECT_EQ(fake::sessions().size(), 3u);
    EXPECT_THAT(emca_rules(), ElementsAre("DiPort_A1 x2"));
    std::string order;
    for (const Trace &trace : fake::traces()) {
        for (const char *what : {"Keep alive stopped", "FMI_ACL_APPEND_DYNAMIC_RULE_REQ", "Keep alive started"}) {
            order += trace.text.rfind(what, 0) == 0 ? std::string(what) + ";" : "";
        }
    }
    EXPECT_EQ(order, "Keep alive stopped;FMI_ACL_APPEND_DYNAMIC_RULE_REQ;Keep alive started;Keep alive started;");
}

TEST_F(LinkProcedure, UpdateToFewerAndToNoAppLinksKeepsTheRest)
{
    iml_link *link = have_link({.app_links = {APP_1, APP_2, APP_3}});
    request(update_request(session, 9, 1, {APP_3}));
    ASSERT_EQ(link->link_data->numberOfAppLinks, 1u);
    EXPECT_TRUE(mac_equal(iemli_app_links(link->link_data)[0].nearEndAppMac, daemon_test::to_mac(APP_3.near_end)));
    EXPECT_THAT(numbers_to(daemon_test::EMI), ElementsAre(REMOVE_ENDPOINT));
    request(update_request(session, 10, 1, {}));
    EXPECT_EQ(link->link_data->numberOfAppLinks, 0u);
    EXPECT_EQ(link->link_data->vlanId, 100);
    EXPECT_STREQ(link->link_data->imlPortName, "IDL_A1");
    EXPECT_EQ(link->keep_alive_count, 0u);
    EXPECT_EQ(fake::sessions().size(), 1u);
}

TEST_F(LinkProcedure, UpdateOnAPortThatIsDownOnlyStoresTheAppLinks)
{
    iml_link *link = have_link();
    set_port("IDLA1", 1, 0);
    request(update_request(session, 9, 1, {APP_2}));
    take_to(daemon_test::CLIENT, IEMLI_UPDATE_INTER_ME_LINK_CFM);
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_EQ(link->keep_alive_sessions, nullptr);
    EXPECT_TRUE(mac_equal(iemli_app_links(link->link_data)[0].nearEndAppMac, daemon_test::to_mac(APP_2.near_end)));
}

TEST_F(LinkProcedure, UpdateOnALockedPortLeavesKeepAlivesAndRuleAlone)
{
    iml_link *link = have_link();
    set_port("IDLA1", 0, 1);
    forget_records();
    request(update_request(session, 9, 1, {APP_2, APP_3}));
    take_to(daemon_test::CLIENT, IEMLI_UPDATE_INTER_ME_LINK_CFM);
    EXPECT_THAT(emca_rules(), IsEmpty());
    EXPECT_EQ(link->keep_alive_count, 1u) << "those of before";
    EXPECT_EQ(fake::sessions().size(), 2u);
    request(delete_request(session, 10, 1));
    EXPECT_TRUE(fake::sessions().empty());
}

TEST_F(LinkProcedure, UpdateIsRejectedForALinkThatIsNotThere)
{
    IemliPendingRequest *pending = make_request(IEMLI_PENDING_UPDATE, session, 5);
    answer_at_once(iml_link_update(&pending, 0, nullptr), &pending);
    EXPECT_EQ(rejected(IEMLI_UPDATE_INTER_ME_LINK_REJ), 3u);
    EXPECT_TRUE(fake::traced(4, "WARNING:update received for non-existing IML link, link_ref=5"));
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, UpdateIsRejectedForALinkOfAnotherConnection)
{
    have_link();
    const uint32_t other = open_session(daemon_test::OTHER_CLIENT, 12);
    request(update_request(other, 9, 1, {APP_2}), daemon_test::OTHER_CLIENT);
    EXPECT_EQ(take_to(daemon_test::OTHER_CLIENT, IEMLI_UPDATE_INTER_ME_LINK_REJ).word(3), 3u);
    EXPECT_TRUE(fake::traced(4, "WARNING:update received for non-existing IML link, link_ref=1"));
}

TEST_F(LinkProcedure, UpdateThatChangesNothingFinishesAtOnce)
{
    have_link();
    IemliPendingRequest *pending = make_request(IEMLI_PENDING_UPDATE, session, 1);
    IemliLinkData *same = make_link_data({});
    answer_at_once(iml_link_update(&pending, 1, iemli_app_links(same)), &pending);
    EXPECT_EQ(take_to(daemon_test::CLIENT, IEMLI_UPDATE_INTER_ME_LINK_CFM).word(1), 77u);
    EXPECT_THAT(numbers_to(daemon_test::EMI), IsEmpty());
    EXPECT_EQ(link_procedure_count(), 0u);
    free(same);
}

TEST_F(LinkProcedure, UpdateIsRejectedWhenMemoryIsOutAtTheStart)
{
    have_link();
    for (unsigned nth : {1u, 2u}) {
        IemliPendingRequest *pending = make_request(IEMLI_PENDING_UPDATE, session, 1);
        IemliLinkData *data = make_link_data({.app_links = {APP_2}});
        forget_records();
        fake::fail_allocation(nth);
        const link_answer answer = iml_link_update(&pending, 1, iemli_app_links(data));
        fake::fail_allocation(0);
        answer_at_once(answer, &pending);
        EXPECT_EQ(rejected(IEMLI_UPDATE_INTER_ME_LINK_REJ), 99u);
        EXPECT_TRUE(fake::traced(1, "Memory error"));
        EXPECT_TRUE(fake::sent().empty());
        EXPECT_EQ(link_procedure_count(), 0u);
        free(data);
    }
}

TEST_F(LinkProcedure, UpdateIsRejectedAndTheLinkAsBeforeWhenMemoryIsOutAtTheEnd)
{
    const iml_link *link = have_link();
    answer_by_hand();
    request(update_request(session, 9, 1, {APP_1, APP_2}));
    answer_to(emi_request(ADD_ENDPOINT), true);
    fake::fail_allocation(1);
    run();
    EXPECT_EQ(rejected(IEMLI_UPDATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::traced(1, "Memory error"));
    EXPECT_EQ(link->link_data->numberOfAppLinks, 1u);
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, UpdateIsRejectedAndTheLinkAsBeforeWhenThePortIsGone)
{
    const iml_link *link = have_link({.app_links = {APP_1, APP_2, APP_3}});
    answer_by_hand();
    request(update_request(session, 9, 1, {APP_1}));
    const Message removal = emi_request(REMOVE_ENDPOINT);
    iepcsi_client_forget_all();
    confirm(removal);
    EXPECT_EQ(rejected(IEMLI_UPDATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::traced(1, "Failed to fetch port data. App supervision not stoped."));
    ASSERT_EQ(link->link_data->numberOfAppLinks, 3u);
    EXPECT_TRUE(mac_equal(iemli_app_links(link->link_data)[2].nearEndAppMac, daemon_test::to_mac(APP_3.near_end)));
}

TEST_F(LinkProcedure, UpdateTakesTheAddedEndpointsBackWhenTheRemovalFails)
{
    const iml_link *link = have_link();
    answer_by_hand();
    request(update_request(session, 9, 1, {APP_2}));
    const Message removal = emi_request(REMOVE_ENDPOINT);
    confirm(emi_request(ADD_ENDPOINT));
    reject(removal);
    EXPECT_EQ(rejected(IEMLI_UPDATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::traced(4, "WARNING: Something went wrong with update iml link req(port IDL_A1 with remote cpm "
                                "mac: 02:00:00:00:0C:01) pmi.state = 0, emi_add.state = 2, emi_del.state = 3, link_ref "
                                "= 1"));
    const Message back = emi_request(REMOVE_ENDPOINT);
    EXPECT_THAT(endpoints(back), ElementsAre("02:00:00:00:0B:02 far", "02:00:00:00:0A:02"));
    confirm(back);
    EXPECT_EQ(link_procedure_count(), 0u);
    EXPECT_TRUE(mac_equal(iemli_app_links(link->link_data)[0].nearEndAppMac, daemon_test::to_mac(APP_1.near_end)));
}

TEST_F(LinkProcedure, UpdateAddsTheRemovedEndpointsAgainWhenTheAdditionFails)
{
    have_link();
    answer_by_hand();
    request(update_request(session, 9, 1, {APP_2}));
    confirm(emi_request(REMOVE_ENDPOINT));
    reject(emi_request(ADD_ENDPOINT));
    EXPECT_EQ(rejected(IEMLI_UPDATE_INTER_ME_LINK_REJ), 99u);
    const Message back = emi_request(ADD_ENDPOINT);
    EXPECT_THAT(endpoints(back), ElementsAre("02:00:00:00:0B:01 far", "02:00:00:00:0A:01"));
    EXPECT_EQ(link_procedure_count(), 1u);
    confirm(back);
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, UpdateThatFailsWithNothingInPlaceTakesNothingBack)
{
    have_link();
    answer_by_hand();
    request(update_request(session, 9, 1, {APP_1, APP_2}));
    reject(emi_request(ADD_ENDPOINT));
    EXPECT_EQ(rejected(IEMLI_UPDATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, UpdateThatFailsInBothStepsTakesNothingBack)
{
    have_link();
    answer_by_hand();
    request(update_request(session, 9, 1, {APP_2}));
    reject(emi_request(REMOVE_ENDPOINT));
    reject(emi_request(ADD_ENDPOINT));
    EXPECT_EQ(rejected(IEMLI_UPDATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, UpdateThatFailsTakesNothingBackWhenMemoryIsOut)
{
    have_link();
    answer_by_hand();
    request(update_request(session, 9, 1, {APP_2}));
    confirm(emi_request(REMOVE_ENDPOINT));
    answer_to(emi_request(ADD_ENDPOINT), false);
    fake::fail_allocation(1);
    run();
    EXPECT_EQ(rejected(IEMLI_UPDATE_INTER_ME_LINK_REJ), 99u);
    EXPECT_TRUE(fake::traced(1, "Memory realloc failed"));
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, UpdateFindsItsLinkGoneAtTheEnd)
{
    for (const bool good : {true, false}) {
        have_link();
        answer_by_hand();
        request(update_request(session, 9, 1, {APP_2}));
        const Message removal = emi_request(REMOVE_ENDPOINT);
        const Message addition = emi_request(ADD_ENDPOINT);
        iml_link *link = iml_link_first();
        iml_link_remove(link);
        iml_link_free(link);
        confirm(removal);
        answer_to(addition, good);
        run();
        EXPECT_EQ(rejected(IEMLI_UPDATE_INTER_ME_LINK_REJ), 3u);
        EXPECT_EQ(fake::count_traced(1, "Update finished for non-existing IML link, link_ref=1"), good ? 1u : 0u);
        EXPECT_EQ(fake::count_traced(4, "WARNING: unsuccessful update received for non-existing IML link, link_ref=1"),
                  good ? 0u : 1u);
        EXPECT_EQ(link_procedure_count(), 0u);
        pmi_answers = answer::confirm;
        emi_answers = answer::confirm;
    }
}

// The session was ended with the service, and a new one has taken its reference and made another link.
TEST_F(LinkProcedure, UpdateOfALinkThatWasReplacedChangesNothingButAppLinks)
{
    have_link();
    answer_by_hand();
    request(update_request(session, 9, 1, {APP_2, APP_3}));
    const Message removal = emi_request(REMOVE_ENDPOINT);
    const Message addition = emi_request(ADD_ENDPOINT);
    handle_service_event(PMI_SERVICE_DOWN);
    handle_service_event(PMI_SERVICE_UP);
    ASSERT_EQ(iml_link_count(), 0u);
    ASSERT_EQ(open_session(), session);
    pmi_answers = answer::confirm;
    emi_answers = answer::confirm;
    have_link({.cpm = "02:00:00:00:0C:02", .port = "IDL_B1", .vlan = 101});
    confirm(removal);
    confirm(addition);
    EXPECT_EQ(link_procedure_count(), 1u) << "the delete of the old link, which is not answered";
    const IemliLinkData *data = iml_link_first()->link_data;
    EXPECT_STREQ(data->imlPortName, "IDL_B1");
    EXPECT_EQ(data->vlanId, 101);
    EXPECT_TRUE(mac_equal(data->farEndCpmMac, daemon_test::to_mac("02:00:00:00:0C:02")));
    EXPECT_EQ(data->numberOfAppLinks, 2u);
    EXPECT_TRUE(mac_equal(iemli_app_links(data)[1].farEndAppMac, daemon_test::to_mac(APP_3.far_end)));
}

TEST_F(LinkProcedure, UpdateFindsItsLinkInOtherHandsAtTheEnd)
{
    iml_link *link = have_link();
    answer_by_hand();
    request(update_request(session, 9, 1, {APP_1, APP_2}));
    link->connection_ref = session + 1;
    confirm(emi_request(ADD_ENDPOINT));
    EXPECT_EQ(rejected(IEMLI_UPDATE_INTER_ME_LINK_REJ), 3u);
    EXPECT_TRUE(fake::traced(1, "Update finished for non-existing IML link, link_ref=1"));
    EXPECT_EQ(link->link_data->numberOfAppLinks, 1u);
}

TEST_F(LinkProcedure, UpdateUpdatesThePathOfTheLink)
{
    start_aasi();
    have_link();
    request(update_request(session, 9, 1, {APP_2}));
    EXPECT_THAT(numbers_to(daemon_test::AASI), ElementsAre(0x1A00444));
}

// ---- Delete ----

TEST_F(LinkProcedure, DeleteTakesEverythingBackAndConfirms)
{
    have_link({.app_links = {APP_1, APP_2}});
    answer_by_hand();
    request(delete_request(session, 9, 1));
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_EQ(iml_link_count(), 0u);
    EXPECT_TRUE(fake::traced(6, "Removed iml link with ref 1 on port IDL_A1 with remote cpm mac: 02:00:00:00:0C:01"));
    const Message vlan = pmi_request(DISABLE_VLAN);
    const Message removal = emi_request(REMOVE_ENDPOINT);
    EXPECT_EQ(vlan.text(12), "IDLA1");
    EXPECT_EQ(vlan.net_word(7), 100u);
    EXPECT_THAT(endpoints(removal),
                ElementsAre("02:00:00:00:0B:01 far", "02:00:00:00:0A:01", "02:00:00:00:0B:02 far", "02:00:00:00:0A:02",
                            "02:00:00:00:0C:01 far", "01:1B:19:00:00:00", "01:80:C2:00:00:0E"));
    forget_records();
    confirm(vlan);
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty());
    confirm(removal);
    EXPECT_EQ(take_to(daemon_test::CLIENT, IEMLI_DELETE_INTER_ME_LINK_CFM).word(1), 9u);
    EXPECT_THAT(notices(), IsEmpty());
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, DeleteConfirmsAlsoWhenEveryStepFails)
{
    have_link();
    answer_by_hand();
    request(delete_request(session, 9, 1));
    reject(pmi_request(DISABLE_VLAN));
    reject(emi_request(REMOVE_ENDPOINT));
    EXPECT_TRUE(fake::traced(1, "Vlan not removed successfuly"));
    EXPECT_TRUE(fake::traced(1, "Endpoint not removed successfuly"));
    take_to(daemon_test::CLIENT, IEMLI_DELETE_INTER_ME_LINK_CFM);
    EXPECT_EQ(link_procedure_count(), 0u);
}

TEST_F(LinkProcedure, DeleteOnATnPortTakesNoVlanBack)
{
    have_link({.port = "TN_A", .vlan = 200});
    answer_by_hand();
    request(delete_request(session, 9, 1));
    EXPECT_THAT(numbers_to(daemon_test::PMI), IsEmpty());
    confirm(emi_request(REMOVE_ENDPOINT));
    take_to(daemon_test::CLIENT, IEMLI_DELETE_INTER_ME_LINK_CFM);
}

TEST_F(LinkProcedure, DeleteProgramsTheRemainingRuleUnderTheInterfaceName)
{
    have_link();
    ASSERT_EQ(create_link(session, {.cpm = "02:00:00:00:0C:02", .vlan = 101, .app_links = {APP_2}}), 2u);
    forget_records();
    request(delete_request(session, 9, 1));
    EXPECT_THAT(emca_rules(), ElementsAre("eth_a1 x1"));
}

TEST_F(LinkProcedure, DeleteTracesARuleThatIsRefused)
{
    have_link();
    request(delete_request(session, 9, 1));
    EXPECT_TRUE(fake::traced(4, "WARNING: Set emca acl rule on port (eth_a1) for 0 new emcas failed."))
        << "no link is left, and FMI knows no rule under this name";
}

TEST_F(LinkProcedure, DeleteOnALockedPortProgramsNoRule)
{
    have_link();
    set_port("IDLA1", 0, 1);
    forget_records();
    request(delete_request(session, 9, 1));
    EXPECT_THAT(emca_rules(), IsEmpty());
    EXPECT_FALSE(fake::traced(4, "WARNING: Set emca acl rule on port (eth_a1) for 0 new emcas failed."));
}

// A session may end with thousands of links: where no rule is programmed, the MACs of the others are not collected.
TEST_F(LinkProcedure, DeleteCollectsNoMacsOnALockedPort)
{
    have_link();
    ASSERT_EQ(create_link(session, {.cpm = "02:00:00:00:0C:02", .vlan = 101, .app_links = {APP_2}}), 2u);
    set_port("IDLA1", 0, 1);
    IemliPendingRequest *pending = make_request(IEMLI_PENDING_DELETE, session, 1);
    fake::fail_allocation(1);
    EXPECT_FALSE(iml_link_delete(1, session, &pending)) << "the first memory is the procedure's";
    EXPECT_FALSE(fake::traced(1, "Out of memory"));
    free(pending);
}

TEST_F(LinkProcedure, DeleteCollectsNoMacsOnAnUnknownPort)
{
    have_link();
    ASSERT_EQ(create_link(session, {.cpm = "02:00:00:00:0C:02", .vlan = 101, .app_links = {APP_2}}), 2u);
    iepcsi_client_forget_all();
    IemliPendingRequest *pending = make_request(IEMLI_PENDING_DELETE, session, 1);
    fake::fail_allocation(1);
    EXPECT_FALSE(iml_link_delete(1, session, &pending)) << "the first memory is the procedure's";
    EXPECT_FALSE(fake::traced(1, "Out of memory"));
    free(pending);
}

TEST_F(LinkProcedure, DeleteOnAPortThatIsDownStopsNothing)
{
    have_link();
    set_port("IDLA1", 1, 0);
    forget_records();
    fake::set_stop_result(1); // so that every stop is traced
    request(delete_request(session, 9, 1));
    for (const Trace &trace : notices()) {
        EXPECT_THAT(trace.text, testing::Not(testing::HasSubstr("stop"))) << "the sessions ended with the port";
    }
    EXPECT_EQ(iml_link_count(), 0u);
}

// What was not there to stop the sessions in must not keep them: nobody would ever end them.
class DeletedLink : public LinkProcedure
{
protected:
    void SetUp() override
    {
        LinkProcedure::SetUp();
        have_link({.app_links = {APP_1, APP_2}});
        ASSERT_EQ(fake::sessions().size(), 3u);
        forget_records();
    }
    void expect_no_session_after_the_delete()
    {
        request(delete_request(session, 9, 1));
        EXPECT_EQ(iml_link_count(), 0u);
        EXPECT_TRUE(fake::sessions().empty());
    }
};

TEST_F(DeletedLink, HasNoSessionsAlsoWhenItsNamespaceCannotBeEntered)
{
    fake::set_setns_fails(1);
    expect_no_session_after_the_delete();
    EXPECT_EQ(fake::count_traced(1, "Failed to enter ns_a1 namespace"), 1u);
}

// Only a TN port's links live where its VLAN is.
TEST_F(DeletedLink, HasNoSessionsAlsoWhenThePortHasLostItsVlan)
{
    add_vlan("TNA", 200, "eth_tn.200", "ns_tn");
    ASSERT_EQ(create_link(session, {.port = "TN_A", .vlan = 200, .app_links = {APP_3}}), 2u);
    ASSERT_EQ(fake::sessions().size(), 5u);
    remove_vlan("TNA", 200);
    forget_records();
    request(delete_request(session, 9, 2));
    EXPECT_EQ(iml_link_count(), 1u);
    EXPECT_EQ(fake::sessions().size(), 3u) << "those of the other";
    for (const Trace &trace : fake::traces()) {
        EXPECT_THAT(trace.text, testing::Not(testing::HasSubstr("stopped")));
    }
}

// Its end takes nothing back of what was set up below.
TEST_F(DeletedLink, KeepsItsSessionsWhenItWentWithPortControl)
{
    iepcsi_client_forget_all();
    request(delete_request(session, 9, 1));
    EXPECT_EQ(iml_link_count(), 0u);
    EXPECT_EQ(fake::sessions().size(), 3u);
}

TEST_F(LinkProcedure, DeleteOpensNothingForALinkThatIsNotThere)
{
    IemliPendingRequest *pending = make_request(IEMLI_PENDING_DELETE, session, 5);
    EXPECT_FALSE(iml_link_delete(5, session, &pending));
    EXPECT_NE(pending, nullptr) << "the request stays the caller's";
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{6, "Conn_ref 1 tried to delete link with ref 5 that doesn't exist anymore."}));
    EXPECT_TRUE(fake::sent().empty());
    free(pending);
}

TEST_F(LinkProcedure, DeleteOpensNothingForALinkOfAnotherConnection)
{
    have_link();
    IemliPendingRequest *pending = make_request(IEMLI_PENDING_DELETE, 2, 1);
    EXPECT_FALSE(iml_link_delete(1, 2, &pending));
    EXPECT_NE(pending, nullptr);
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{6, "Conn_ref 2 tried to delete link with ref 1 that belongs to conn ref 1"}));
    EXPECT_EQ(iml_link_count(), 1u);
    EXPECT_TRUE(fake::sent().empty());
    free(pending);
}

TEST_F(LinkProcedure, DeleteLetsTheLinkGoAlsoWhenMemoryIsOut)
{
    // The procedure, and its endpoint list; no EMCA list is left to build on this port.
    for (unsigned nth : {1u, 2u}) {
        have_link();
        IemliPendingRequest *pending = make_request(IEMLI_PENDING_DELETE, session, 1);
        fake::fail_allocation(nth);
        EXPECT_FALSE(iml_link_delete(1, session, &pending));
        fake::fail_allocation(0);
        EXPECT_NE(pending, nullptr);
        EXPECT_TRUE(fake::traced(1, "Memory error"));
        EXPECT_EQ(iml_link_count(), 0u);
        EXPECT_EQ(link_procedure_count(), 0u);
        EXPECT_THAT(numbers_to(daemon_test::PMI), IsEmpty());
        free(pending);
    }
}

TEST_F(LinkProcedure, DeleteLetsTheLinkGoAlsoWhenThePortIsUnknown)
{
    have_link();
    iepcsi_client_forget_all();
    request(delete_request(session, 9, 1));
    take_to(daemon_test::CLIENT, IEMLI_DELETE_INTER_ME_LINK_CFM);
    EXPECT_EQ(iml_link_count(), 0u);
    EXPECT_TRUE(fake::traced(1, "Failed to get port data"));
    EXPECT_TRUE(fake::traced(1, "Memory error"));
    EXPECT_THAT(numbers_to(daemon_test::EMI), IsEmpty());
}

TEST_F(LinkProcedure, DeleteWithoutARequestAnswersNobody)
{
    start_aasi();
    have_link();
    EXPECT_TRUE(iml_link_delete(1, session, nullptr));
    run();
    EXPECT_EQ(link_procedure_count(), 0u);
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty());
    EXPECT_THAT(numbers_to(daemon_test::AASI), IsEmpty()) << "and no path delete";
}

TEST_F(LinkProcedure, DeleteDeletesThePathAfterTheConfirm)
{
    start_aasi();
    have_link();
    request(delete_request(session, 9, 1));
    take_to(daemon_test::CLIENT, IEMLI_DELETE_INTER_ME_LINK_CFM);
    const Message path = take_to(daemon_test::AASI, 0x1A00445);
    EXPECT_EQ(path.net_word(3), 1u);
    EXPECT_EQ(path.text(16), "IDL_A1");
}

TEST_F(LinkProcedure, DeleteWithoutParametersHasNoPathToDelete)
{
    start_aasi();
    iml_link_proc *proc = link_proc_alloc();
    proc->request = make_request(IEMLI_PENDING_DELETE, session, 1);
    link_proc_open(proc);
    forget_records();
    link_proc_evaluate(proc);
    EXPECT_TRUE(fake::traced(4, "WARNING: Vorn path cannot be deleted for non existing iml"));
    EXPECT_THAT(numbers_to(daemon_test::AASI), IsEmpty());
}

TEST_F(LinkProcedure, GivesUpARequestThatIsNoneOfTheThree)
{
    IemliLinkData *data = make_link_data({.port = "TN_A", .vlan = 200});
    IemliPendingRequest *pending = make_request(7, session);
    iml_link_create(data, &pending);
    EXPECT_EQ(pending, nullptr);
    run();
    EXPECT_TRUE(fake::traced(1, "Unknown req 7. Can't handle that."));
    EXPECT_EQ(link_procedure_count(), 0u);
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty());
    free(data);
}

TEST_F(LinkProcedure, ForgetsOpenProceduresWithTheirRequests)
{
    answer_by_hand();
    request(create_request(session, 7, {}));
    EXPECT_EQ(link_procedure_count(), 1u);
    link_procedures_forget_all();
    EXPECT_EQ(link_procedure_count(), 0u);
    EXPECT_THAT(numbers_to(daemon_test::CLIENT), IsEmpty());
}

TEST_F(LinkProcedure, TellsNoAutomationAgentThatIsNotThere)
{
    have_link();
    request(update_request(session, 8, 1, {APP_2}));
    request(delete_request(session, 9, 1));
    EXPECT_THAT(numbers_to(ITC_NO_MBOX), IsEmpty());
    ASSERT_EQ(create_link(session, {}), 1u);
    EXPECT_THAT(numbers_to(ITC_NO_MBOX), IsEmpty());
}

// ---- Paths ----

TEST_F(LinkProcedure, HasNoPathForALinkThatIsNotThere)
{
    set_aasi_service_up(true);
    iml_link_create_path(4);
    iml_link_update_path(5);
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{4, "WARNING:vorn path cannot be created for non-existing IML link, link_ref=4"},
                            Trace{4, "WARNING:vorn path cannot be updated for non-existing IML link, link_ref=5"}));
}

// ---- Many at once ----

TEST_F(LinkProcedure, FindsTheNewestOfProceduresThatSentTheSameReference)
{
    iml_link_proc *older = link_proc_alloc();
    iml_link_proc *newer = link_proc_alloc();
    link_proc_open(older);
    link_proc_open(newer);
    link_proc_step_sent(newer, PROC_STEP_PMI, 5);
    link_proc_step_sent(older, PROC_STEP_PMI, 5);
    EXPECT_EQ(link_proc_find(PROC_STEP_PMI, 5), newer);
    EXPECT_EQ(link_proc_find(PROC_STEP_EMI_ADD, 5), nullptr);
    link_proc_step_sent(newer, PROC_STEP_PMI, 6);
    EXPECT_EQ(link_proc_find(PROC_STEP_PMI, 5), older);
    link_proc_step_sent(older, PROC_STEP_EMI_DEL, 0);
    EXPECT_EQ(link_proc_find(PROC_STEP_EMI_DEL, 0), nullptr) << "0 was never sent";
}

TEST_F(LinkProcedure, KeepsDeletesOfManyLinksApart)
{
    for (uint16_t i = 1; i <= 50; ++i) {
        ASSERT_EQ(create_link(session, {.vlan = i, .app_links = {}}), i);
    }
    forget_records();
    answer_by_hand();
    iml_link_delete_all_of_connection(session);
    EXPECT_EQ(link_procedure_count(), 50u);
    const std::vector<fake::Sent> requests = fake::sent();
    for (auto it = requests.rbegin(); it != requests.rend(); ++it) {
        if (it->to != daemon_test::FMI) {
            answer_to(*it, true);
        }
    }
    run();
    EXPECT_EQ(link_procedure_count(), 0u);
    EXPECT_THAT(notices(), testing::Not(testing::Contains(testing::Field(
                               &Trace::text, testing::StartsWith("Not waiting for this response anymore")))));
}

} // namespace
