// Publication, and the sessions of clients: admitted, ended, dead.
#include <gmock/gmock.h>

#include "neighbours.hpp"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

class IemliPublication : public IemliTest
{
};

class IemliSessions : public IemliTest
{
};

TEST_F(IemliPublication, GoesToTheNameServiceAndThenToItc)
{
    EXPECT_TRUE(iemli_publish());
    EXPECT_THAT(calls(), ElementsAre("ns_publish(KAP_IEMLI_SERVICE_NAME,,65537,)",
                                     "itc_add_name(65537,KAP_IEMLI_SERVICE_NAME)"));
    expect_traces({{5, "Iemli server published"}});
}

TEST_F(IemliPublication, FailsWithTheNameServiceAndLeavesItcAlone)
{
    fake::set_ns_result("ns_publish", 17);
    EXPECT_FALSE(iemli_publish());
    EXPECT_THAT(calls(), ElementsAre("ns_publish(KAP_IEMLI_SERVICE_NAME,,65537,)"));
    expect_traces({{1, "Failed to register KAP_IEMLI_SERVICE_NAME in the NS, result = 17"},
                   {6, "Iemli init service failed, reason: IEMLI_RET_ERR_NGNS"}});
}

TEST_F(IemliPublication, FailsWithItc)
{
    fake::set_add_name_result(13);
    EXPECT_FALSE(iemli_publish());
    expect_traces({{1, "Failed to register KAP_IEMLI_SERVICE_NAME in the ITC, result = 13"},
                   {6, "Iemli init service failed, reason: IEMLI_RET_ERR_ITC"}});
}

TEST_F(IemliPublication, ClearsSessionsAndTheirCountWithoutEndingThem)
{
    open_both();
    add_link(1, {});
    keep_b_busy();
    EXPECT_TRUE(offer(CLIENT_A, delete_req(2, 1, 1)));
    fake::traces().clear();
    EXPECT_TRUE(iemli_publish());
    expect_traces({{5, "Iemli server published"}});
    expect_nothing_sent();
    EXPECT_THAT(fake::monitors(), IsEmpty());
    EXPECT_EQ(fake::kept_leaks(), 0U);
    EXPECT_NE(iml_link_first(), nullptr);
    EXPECT_EQ(open_session(CLIENT_A, 7), 1U);
    EXPECT_EQ(open_session(CLIENT_B, 7), 2U);
}

TEST_F(IemliPublication, IsWithdrawnFromTheNameService)
{
    iemli_unpublish();
    EXPECT_THAT(calls(), ElementsAre("ns_unpublish(KAP_IEMLI_SERVICE_NAME,,65537,)"));
    expect_traces({{5, "Iemli server unpublished"}});
}

TEST_F(IemliPublication, EndsEverySessionEvenWhenItCannotBeWithdrawn)
{
    open_both();
    add_link(1, {});
    add_link(2, {.vlan = 101});
    fake::set_ns_result("ns_unpublish", 2);
    iemli_unpublish();
    expect_traces({{1, "Failed to unpublish KAP_IEMLI_SERVICE_NAME in the NS, result = 2"},
                   {6, "Iemli term service failed, reason: IEMLI_RET_ERR_NGNS"},
                   {5, "Client session terminated: client_mbox: 131073, client_conn_ref: 160, server_conn_ref: 1"},
                   {5, "Client session terminated: client_mbox: 196609, client_conn_ref: 176, server_conn_ref: 2"}});
    EXPECT_THAT(calls(), ElementsAre("ns_unpublish(KAP_IEMLI_SERVICE_NAME,,65537,)", "itc_unmonitor(1)",
                                     "delete 1 of 1 unasked", "itc_unmonitor(2)", "delete 2 of 2 unasked"));
    expect_nothing_sent();
}

TEST_F(IemliSessions, AreConfirmedUnderTheServersReference)
{
    EXPECT_TRUE(offer(CLIENT_A, init_req(0x31, 0xA0, 1, 2, 3)));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E04).u32(0x31).u32(1).u32(1));
    expect_traces({{17, "IEMLI_INIT_SERVICE_REQ"},
                   {17, "Init service received with:client_mbox: 131073, connection_ref: 160, procedure_ref: 49, "
                        "pv_1: 1, pv_2: 2, pv_3: 3"},
                   {5, "Confirming IEMLI service init"},
                   {18, "IEMLI_INIT_SERVICE_CFM: procedure_ref=0x31, connection_ref=0x1, pv_selected=0x1"}});
    EXPECT_THAT(calls(), ElementsAre("itc_monitor(131073)"));
    ASSERT_EQ(fake::monitors().size(), 1U);
    EXPECT_EQ(fake::to_hex(fake::monitors()[0].bytes), fake::to_hex(Builder().u32(0x1B0E00).u32(0).u32(1)));
}

TEST_F(IemliSessions, AcceptVersion1InAnyPlace)
{
    EXPECT_TRUE(offer(CLIENT_A, init_req(1, 1, 7, 0, 1)));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E04).u32(1).u32(1).u32(1));
    EXPECT_TRUE(offer(CLIENT_A, init_req(2, 2, 9, 1, 9)));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E04).u32(2).u32(2).u32(1));
}

TEST_F(IemliSessions, AreRefusedWithoutVersion1)
{
    EXPECT_TRUE(offer(CLIENT_A, init_req(4, 5, 2, 3, 0)));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E05).u32(4).u32(5).u32(2));
    expect_traces({{17, "IEMLI_INIT_SERVICE_REQ"},
                   {17, "Init service received with:client_mbox: 131073, connection_ref: 5, procedure_ref: 4, "
                        "pv_1: 2, pv_2: 3, pv_3: 0"},
                   {6, "Rejecting IEMLI service init, invalid protocol version"},
                   {18, "IEMLI_INIT_SERVICE_REJ: procedure_ref=0x4, connection_ref=0x5, "
                        "reason=IEMLI_REJ_SERVICE_INVALID_PV"}});
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(IemliSessions, AreRefusedASecondTimeUnderTheSameReference)
{
    open_session(CLIENT_A, A_REF);
    EXPECT_TRUE(offer(CLIENT_A, init_req(4, A_REF, 2, 3, 0)));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E05).u32(4).u32(A_REF).u32(1));
    expect_traces({{17, "IEMLI_INIT_SERVICE_REQ"},
                   {18, "IEMLI_INIT_SERVICE_REJ: procedure_ref=0x4, connection_ref=0xa0, "
                        "reason=IEMLI_REJ_SERVICE_INITIATED"}});
}

TEST_F(IemliSessions, OfOneClientMayBeTwo)
{
    EXPECT_EQ(open_session(CLIENT_A, A_REF), 1U);
    EXPECT_EQ(open_session(CLIENT_A, A_REF + 1), 2U);
}

TEST_F(IemliSessions, OfTwoClientsMayShareAReference)
{
    EXPECT_EQ(open_session(CLIENT_A, A_REF), 1U);
    EXPECT_EQ(open_session(CLIENT_B, A_REF), 2U);
}

TEST_F(IemliSessions, AreTwoAtTheMost)
{
    open_both();
    EXPECT_TRUE(offer(CLIENT_C, init_req(4, 5, 1, 0, 0)));
    expect_sent(CLIENT_C, Builder().u32(0x1B0E05).u32(4).u32(5).u32(99));
    EXPECT_THAT(traces_of(6), ElementsAre("Rejecting IEMLI service init, could not create session"));
    EXPECT_THAT(traces_of(1), IsEmpty());
}

TEST_F(IemliSessions, TakeTheLowestFreeReference)
{
    open_both();
    EXPECT_TRUE(offer(CLIENT_A, term_req(1, 1)));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E07).u32(1).u32(1));
    EXPECT_EQ(open_session(CLIENT_C, 5), 1U);
    EXPECT_TRUE(offer(CLIENT_B, term_req(1, 2)));
    expect_sent(CLIENT_B, Builder().u32(0x1B0E07).u32(1).u32(2));
    EXPECT_EQ(open_session(CLIENT_A, 5), 2U);
}

TEST_F(IemliSessions, AreRefusedWithoutMemory)
{
    fake::fail_allocation(1);
    EXPECT_TRUE(offer(CLIENT_A, init_req(4, 5, 1, 0, 0)));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E05).u32(4).u32(5).u32(99));
    EXPECT_THAT(traces_of(1), ElementsAre("Memory allocation failed"));
    EXPECT_THAT(traces_of(6), ElementsAre("Rejecting IEMLI service init, could not create session"));
    EXPECT_EQ(open_session(CLIENT_A, A_REF), 1U);
}

TEST_F(IemliSessions, AreAdmittedWhileARequestIsInProgress)
{
    open_both();
    EXPECT_TRUE(offer(CLIENT_A, term_req(1, 1)));
    fake::take_sent();
    keep_b_busy();
    EXPECT_EQ(open_session(CLIENT_C, 5), 1U);
}

TEST_F(IemliSessions, EndInTheirOrderWhenTheClientTerminates)
{
    open_both();
    add_link(1, {});
    add_link(2, {.vlan = 101});
    add_link(1, {.vlan = 102});
    EXPECT_TRUE(offer(CLIENT_A, term_req(0x44, 1)));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E07).u32(0x44).u32(1));
    expect_nothing_sent();
    expect_traces(
        {{17, "IEMLI_TERM_SERVICE_REQ"},
         {17, "Terminate service received with:client_mbox: 131073, connection_ref: 160, procedure_ref: 68, "},
         {5, "Client session terminated: client_mbox: 131073, client_conn_ref: 160, server_conn_ref: 1"},
         {5, "Confirming IEMLI service term"},
         {18, "IEMLI_TERM_SERVICE_CFM: procedure_ref=0x44, connection_ref=0x1"}});
    EXPECT_THAT(calls(), ElementsAre("itc_unmonitor(1)", "delete 1 of 1 unasked", "delete 3 of 1 unasked"));
}

TEST_F(IemliSessions, EndWithoutAWordWhenTheClientDies)
{
    open_both();
    add_link(1, {});
    die(CLIENT_A);
    expect_nothing_sent();
    expect_traces({{17, "IEMLI_CLIENT_DOWN_IND"},
                   {17, "Client down ind received: client_mbox: 131073"},
                   {5, "Client session terminated: client_mbox: 131073, client_conn_ref: 160, server_conn_ref: 1"}});
    EXPECT_THAT(calls(), ElementsAre("itc_unmonitor(1)", "delete 1 of 1 unasked"));
    EXPECT_EQ(iml_link_first(), nullptr);
    EXPECT_EQ(open_session(CLIENT_C, 5), 1U);
}

TEST_F(IemliSessions, BothOfAClientEndWhenItDies)
{
    open_session(CLIENT_A, 1);
    open_session(CLIENT_A, 2);
    add_link(1, {});
    add_link(2, {.vlan = 101});
    die(CLIENT_A);
    EXPECT_EQ(iml_link_first(), nullptr);
    EXPECT_THAT(traces_of(5), testing::SizeIs(2));
}

TEST_F(IemliSessions, AreNotEndedByADeathThatSomebodyElseReports)
{
    open_both();
    EXPECT_TRUE(offer(CLIENT_B, header(0x1B0E00, 0, 1)));
    expect_traces({{17, "IEMLI_CLIENT_DOWN_IND"}});
    expect_nothing_sent();
    EXPECT_EQ(fake::monitors().size(), 2U);
}

} // namespace
