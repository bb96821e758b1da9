// What the link procedures report back, and the indications of supervision and RTT.
#include <cstdlib>

#include <gmock/gmock.h>

#include "iemli/iemli_session.hpp"
#include "neighbours.hpp"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

class IemliCompletions : public IemliTest
{
protected:
    void SetUp() override
    {
        IemliTest::SetUp();
        open_both();
        ASSERT_EQ(add_link(1, {}), 1U);
    }

    static void start(const Bytes &request)
    {
        EXPECT_TRUE(offer(CLIENT_A, request));
        ASSERT_EQ(neighbours::open_procedures(), 1U);
        EXPECT_TRUE(iemli_session_find(1)->busy);
        fake::traces().clear();
        fake::calls().clear();
    }

    static IemliPendingRequest *pending(uint32_t server_conn_ref, uint32_t action)
    {
        auto *request = static_cast<IemliPendingRequest *>(calloc(1, sizeof(IemliPendingRequest)));
        *request = {server_conn_ref, 0x61, 7, static_cast<iemli_pending_action>(action)};
        return request;
    }
};

TEST_F(IemliCompletions, ACreateIsConfirmedWithTheNewLink)
{
    start(create_req(0x61, 1, {.vlan = 200}));
    neighbours::confirm(12);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E0C).u32(0x61).u32(A_REF).u32(12));
    expect_nothing_sent();
    EXPECT_FALSE(iemli_session_find(1)->busy);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(IemliCompletions, AnUpdateIsConfirmed)
{
    start(update_req(0x61, 1, 1, {APP_1}));
    neighbours::confirm(1);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E0F).u32(0x61).u32(A_REF));
    expect_nothing_sent();
    EXPECT_FALSE(iemli_session_find(1)->busy);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(IemliCompletions, ADeleteIsConfirmed)
{
    set_aasi_service_up(true);
    start(delete_req(0x61, 1, 1));
    neighbours::confirm(1);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E12).u32(0x61).u32(A_REF));
    expect_nothing_sent();
    EXPECT_FALSE(iemli_session_find(1)->busy);
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(IemliCompletions, ACreateAsksForThePathAfterItsConfirm)
{
    set_aasi_service_up(true);
    start(create_req(0x61, 1, {.vlan = 200}));
    const uint32_t link_ref = add_link(1, {.vlan = 200});
    fake::on_send([](const fake::Sent &) { fake::calls().emplace_back("sent"); });
    neighbours::confirm(link_ref);
    EXPECT_THAT(calls(), ElementsAre("sent", "path create " + std::to_string(link_ref)));
    fake::sent().clear();
}

TEST_F(IemliCompletions, AnUpdateAsksForThePathAfterItsConfirm)
{
    set_aasi_service_up(true);
    start(update_req(0x61, 1, 1, {APP_1}));
    fake::on_send([](const fake::Sent &) { fake::calls().emplace_back("sent"); });
    neighbours::confirm(1);
    EXPECT_THAT(calls(), ElementsAre("sent", "path update 1"));
    fake::sent().clear();
}

TEST_F(IemliCompletions, AsksForThePathBeforeTheNextRequestIsTaken)
{
    set_aasi_service_up(true);
    start(create_req(0x61, 1, {.vlan = 200}));
    EXPECT_TRUE(offer(CLIENT_B, delete_req(0x62, 2, 5)));
    const uint32_t link_ref = add_link(1, {.vlan = 200});
    neighbours::confirm(link_ref);
    EXPECT_THAT(calls(), ElementsAre("path create " + std::to_string(link_ref), "delete 5 of 2"));
    fake::sent().clear();
}

TEST_F(IemliCompletions, ACreateIsRejectedWithTheReason)
{
    start(create_req(0x61, 1, {.vlan = 200}));
    neighbours::reject(4);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E0D).u32(0x61).u32(A_REF).u32(4));
    expect_nothing_sent();
    EXPECT_FALSE(iemli_session_find(1)->busy);
}

TEST_F(IemliCompletions, AnUpdateIsRejectedWithTheReason)
{
    start(update_req(0x61, 1, 1, {APP_1}));
    neighbours::reject(3);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E10).u32(0x61).u32(A_REF).u32(3));
    expect_nothing_sent();
    EXPECT_FALSE(iemli_session_find(1)->busy);
}

TEST_F(IemliCompletions, ADeleteThatTheLowerLayerRejectsIsConfirmed)
{
    start(delete_req(0x61, 1, 1));
    neighbours::reject(99);
    expect_sent(CLIENT_A, Builder().u32(0x1B0E12).u32(0x61).u32(A_REF));
    expect_nothing_sent();
    expect_traces({{1, "Reject is not supported on delete link action. Request 97 from client 131073"},
                   {18, "IEMLI_DELETE_IML_LINK_CFM: procedure_ref=0x61, connection_ref=0xa0"}});
    EXPECT_FALSE(iemli_session_find(1)->busy);
}

TEST_F(IemliCompletions, AnswerUnderTheRecordsReferenceButRejectUnderTheSessionsLast)
{
    iemli_session_find(1)->last_procedure_ref = 0x99;
    struct {
        uint32_t action;
        bool confirmed;
        Bytes answer;
    } const rows[] = {
        {0, true, with_u32(header(0x1B0E0C, 0x61, A_REF), 7)},
        {1, true, header(0x1B0E0F, 0x61, A_REF)},
        {2, true, header(0x1B0E12, 0x61, A_REF)},
        {0, false, with_u32(header(0x1B0E0D, 0x99, A_REF), 7)},
        {1, false, with_u32(header(0x1B0E10, 0x99, A_REF), 7)},
        {2, false, header(0x1B0E12, 0x61, A_REF)},
    };
    for (const auto &row : rows) {
        IemliPendingRequest *request = pending(1, row.action);
        (row.confirmed ? iemli_link_procedure_cfm : iemli_link_procedure_rej)(7, &request);
        expect_sent(CLIENT_A, row.answer);
    }
}

TEST_F(IemliCompletions, OfAnUnknownKindAreTracedAndAnswerNobody)
{
    for (const bool confirmed : {true, false}) {
        iemli_session_find(1)->busy = true;
        IemliPendingRequest *request = pending(1, 3);
        (confirmed ? iemli_link_procedure_cfm : iemli_link_procedure_rej)(7, &request);
        EXPECT_EQ(request, nullptr);
        EXPECT_FALSE(iemli_session_find(1)->busy);
    }
    expect_traces({{1, "Unknown pending request 3 for link 7 from client 131073"},
                   {1, "Unknown pending request 3 from client 131073"}});
    expect_nothing_sent();
}

TEST_F(IemliCompletions, ForASessionThatIsGoneAnswerNobodyAndTakeTheNext)
{
    for (const bool confirmed : {true, false}) {
        start(delete_req(0x61, 1, 1));
        EXPECT_TRUE(offer(CLIENT_B, delete_req(0x62, 2, 5)));
        fake::traces().clear();
        IemliPendingRequest *request = pending(3, 0);
        (confirmed ? iemli_link_procedure_cfm : iemli_link_procedure_rej)(7, &request);
        EXPECT_EQ(request, nullptr);
        expect_nothing_sent();
        EXPECT_THAT(traces_of(6), ElementsAre("Session 3 lost while waiting for response from lower layer."));
        EXPECT_THAT(calls(), ElementsAre("delete 5 of 2"));
        neighbours::confirm(1);
        neighbours::confirm(5);
        fake::sent().clear();
    }
}

TEST_F(IemliCompletions, WhileTheRequestStartsLeaveNobodyBusy)
{
    neighbours::end_at_start(link_rejected(99));
    EXPECT_TRUE(offer(CLIENT_A, create_req(0x61, 1, {.vlan = 200})));
    expect_sent(CLIENT_A, rej(0x1B0E0D, 0x61, A_REF, 99));
    neighbours::end_at_start(link_confirmed(1));
    EXPECT_TRUE(offer(CLIENT_A, update_req(0x62, 1, 1, {APP_1})));
    expect_sent(CLIENT_A, header(0x1B0E0F, 0x62, A_REF));
    EXPECT_TRUE(offer(CLIENT_B, delete_req(0x63, 2, 5)));
    EXPECT_EQ(neighbours::open_procedures(), 1U);
}

TEST_F(IemliCompletions, OfAClientThatDiedMeanwhileAnswerItAndThenEndItsSession)
{
    start(create_req(0x61, 1, {.vlan = 200}));
    die(CLIENT_A);
    fake::traces().clear();
    neighbours::confirm(12);
    expect_sent(CLIENT_A, with_u32(header(0x1B0E0C, 0x61, A_REF), 12));
    EXPECT_EQ(iemli_session_find(1), nullptr);
    EXPECT_THAT(calls(), ElementsAre("itc_unmonitor(1)", "delete 1 of 1 unasked"));
    // What the procedure still reports finds nobody.
    iemli_send_link_status_ind(1, 12, IML_LINK_DISABLED, IML_LINK_REASON_NO_CONNECTIVITY);
    expect_nothing_sent();
    EXPECT_THAT(traces_of(4), ElementsAre("WARNING:Unexisting session for connection-ref=1"));
}

TEST_F(IemliCompletions, OfAClientWhoseTermWaitsEndItsSessionAfterTheAnswer)
{
    start(create_req(0x61, 1, {.vlan = 200}));
    EXPECT_TRUE(offer(CLIENT_A, term_req(0x62, 1)));
    neighbours::reject(99);
    expect_sent(CLIENT_A, rej(0x1B0E0D, 0x61, A_REF, 99));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E07).u32(0x62).u32(1));
    expect_nothing_sent();
    EXPECT_EQ(iemli_session_find(1), nullptr);
}

TEST_F(IemliCompletions, OfAClientWhoseDeleteWaitsHandTheLinkToTheDelete)
{
    start(create_req(0x61, 1, {.vlan = 200}));
    EXPECT_TRUE(offer(CLIENT_A, delete_req(0x62, 1, 12)));
    neighbours::confirm(12);
    expect_sent(CLIENT_A, with_u32(header(0x1B0E0C, 0x61, A_REF), 12));
    EXPECT_THAT(calls(), ElementsAre("delete 12 of 1"));
    // The indication that follows a create's confirm carries what is being taken up by then.
    iemli_send_link_status_ind(1, 12, IML_LINK_DISABLED, IML_LINK_REASON_NO_CONNECTIVITY);
    expect_sent(CLIENT_A, Builder{header(0x1B0E13, 0x62, A_REF)}.u32(12).u32(0).u32(4));
}

class IemliIndications : public IemliTest
{
};

TEST_F(IemliIndications, GoToTheOwnerUnderItsLastRequest)
{
    open_both();
    EXPECT_TRUE(offer(CLIENT_B, update_req(0x71, 2, 5, {})));
    fake::take_sent();
    iemli_send_link_status_ind(2, 5, IML_LINK_ENABLED, iml_link_disabled_reason{});
    expect_sent(CLIENT_B, Builder().u32(0x1B0E13).u32(0x71).u32(B_REF).u32(5).u32(1).u32(0));
    iemli_send_link_rtt_ind(2, 5, {0, 100, 0, 150, 0, 200, 1, {}});
    expect_sent(
        CLIENT_B,
        Builder().u32(0x1B0E19).u32(0x71).u32(B_REF).u32(5).u32(0).u32(100).u32(0).u32(150).u32(0).u32(200).u8(1).zeros(
            3));
}

TEST_F(IemliIndications, WithoutAnOwnerGoNowhere)
{
    iemli_send_link_status_ind(2, 5, IML_LINK_ENABLED, iml_link_disabled_reason{});
    iemli_send_link_rtt_ind(3, 5, {});
    expect_nothing_sent();
    expect_traces({{4, "WARNING:Unexisting session for connection-ref=2"},
                   {4, "WARNING:Unexisting session for connection-ref=3"}});
}

} // namespace
