// Requests that wait: in which order they are taken, when they are not, and what is lost with a session.
#include "iemli/iemli_queue.hpp"

#include <gmock/gmock.h>

#include "iemli/iemli_session.hpp"
#include "neighbours.hpp"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

// Two sessions; a create of client B is with the lower layer.
class IemliQueue : public IemliTest
{
protected:
    void SetUp() override
    {
        IemliTest::SetUp();
        open_both();
        keep_b_busy();
    }

    // The create that SetUp left with the lower layer is confirmed.
    static void complete()
    {
        fake::traces().clear();
        neighbours::confirm(9);
        expect_sent(CLIENT_B, with_u32(header(0x1B0E0C, 70, B_REF), 9));
    }
};

TEST_F(IemliQueue, GivesTheNextRequestToTheLowerLayerWhenOneCompletes)
{
    EXPECT_TRUE(offer(CLIENT_A, delete_req(0x61, 1, 5)));
    EXPECT_THAT(calls(), IsEmpty());
    fake::traces().clear();
    neighbours::confirm(9);
    expect_traces(
        {{18, "IEMLI_CREATE_IML_LINK_CFM: procedure_ref=0x46, connection_ref=0xb0, link_ref = 9"},
         {5, "Handle IEMLI_DELETE_INTER_ME_LINK_REQ message from queue"},
         {19, "handle_delete_iml_link_req(): session information: client_conn_ref = 160, server_conn_ref = 1, "
              "last_procedure_ref = 97"},
         {19, "handle_delete_iml_link_req(): request information: header.connection_ref = 1, header.procedure_ref = "
              "97"},
         {19, "handle_delete_iml_link_req(): link_ref = 5"}});
    expect_sent(CLIENT_B, with_u32(header(0x1B0E0C, 70, B_REF), 9));
    EXPECT_THAT(calls(), ElementsAre("delete 5 of 1"));
    neighbours::confirm(5);
    expect_sent(CLIENT_A, header(0x1B0E12, 0x61, A_REF));
    expect_nothing_sent();
}

TEST_F(IemliQueue, TakesRequestsInOrderOfArrivalOverAllSessions)
{
    EXPECT_TRUE(offer(CLIENT_B, delete_req(1, 2, 11)));
    EXPECT_TRUE(offer(CLIENT_A, delete_req(2, 1, 12)));
    EXPECT_TRUE(offer(CLIENT_A, delete_req(3, 1, 13)));
    EXPECT_TRUE(offer(CLIENT_B, delete_req(4, 2, 14)));
    for (unsigned completions = 0; completions < 5; ++completions) {
        ASSERT_EQ(neighbours::open_procedures(), 1U);
        neighbours::confirm(0);
    }
    EXPECT_THAT(calls(), ElementsAre("delete 11 of 2", "delete 12 of 1", "delete 13 of 1", "delete 14 of 2"));
}

TEST_F(IemliQueue, TakesExactlyOneRequestPerCompletion)
{
    EXPECT_TRUE(offer(CLIENT_A, create_req(1, 1, {.mp_id = 0})));
    EXPECT_TRUE(offer(CLIENT_A, create_req(2, 1, {.vlan = 102})));
    complete();
    // The first is refused, so that nothing is in progress; the second waits all the same.
    expect_sent(CLIENT_A, rej(0x1B0E0D, 1, A_REF, 9));
    EXPECT_THAT(calls(), IsEmpty());
    // A request that arrives now goes ahead of it.
    EXPECT_TRUE(offer(CLIENT_B, create_req(3, 2, {.vlan = 103})));
    EXPECT_THAT(calls(), ElementsAre("create " + fake::to_hex(link_data({.vlan = 103}))));
    neighbours::confirm(10);
    expect_sent(CLIENT_B, with_u32(header(0x1B0E0C, 3, B_REF), 10));
    EXPECT_THAT(calls(), ElementsAre("create " + fake::to_hex(link_data({.vlan = 102}))));
}

TEST_F(IemliQueue, IsNotServedByADeleteThatIsConfirmedAtOnce)
{
    neighbours::set_delete_opens(false);
    EXPECT_TRUE(offer(CLIENT_A, delete_req(1, 1, 11)));
    EXPECT_TRUE(offer(CLIENT_A, delete_req(2, 1, 12)));
    complete();
    expect_sent(CLIENT_A, header(0x1B0E12, 1, A_REF));
    expect_nothing_sent();
    EXPECT_THAT(calls(), ElementsAre("delete 11 of 1"));
}

TEST_F(IemliQueue, KeepsAnUpdateWithAllItsAppLinks)
{
    ASSERT_EQ(add_link(1, {}), 1U);
    EXPECT_TRUE(offer(CLIENT_A, update_req(1, 1, 1, {APP_1, APP_2, APP_3})));
    complete();
    EXPECT_THAT(calls(), ElementsAre("update 1 " + fake::to_hex(app_link_array({APP_1, APP_2, APP_3}))));
}

TEST_F(IemliQueue, KeepsACreateWithAllItsAppLinks)
{
    const Link link = {.apps = {APP_1, APP_2, APP_3}};
    EXPECT_TRUE(offer(CLIENT_A, create_req(1, 1, link)));
    complete();
    EXPECT_THAT(calls(), ElementsAre("create " + fake::to_hex(link_data(link))));
}

TEST_F(IemliQueue, KeepsNoMoreOfARequestThanItsCountAsksFor)
{
    Bytes request = update_req(1, 1, 1, {APP_1, APP_2, APP_3});
    fake::put_u32(request, 16, 2);
    EXPECT_TRUE(offer(CLIENT_A, request));
    const IemliQueuedRequest *entry = iemli_session_find(1)->queue_head;
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(itc_size(entry->msg), 44U);
}

TEST_F(IemliQueue, DiscardsWhatASessionHadWaitingWhenItsTermComesToWait)
{
    EXPECT_TRUE(offer(CLIENT_A, delete_req(1, 1, 11)));
    EXPECT_TRUE(offer(CLIENT_A, create_req(2, 1, {})));
    EXPECT_TRUE(offer(CLIENT_B, delete_req(3, 2, 12)));
    EXPECT_EQ(fake::kept_leaks(), 0U);
    EXPECT_TRUE(offer(CLIENT_A, term_req(4, 1)));
    EXPECT_EQ(fake::kept_leaks(), 2U); // the copies of the delete and of the create
    expect_nothing_sent();
    complete();
    EXPECT_THAT(calls(), ElementsAre("delete 12 of 2"));
    expect_nothing_sent();
    neighbours::confirm(12);
    expect_sent(CLIENT_B, header(0x1B0E12, 3, B_REF));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E07).u32(4).u32(1));
    EXPECT_EQ(fake::kept_leaks(), 4U); // and the term's entry with its copy
    EXPECT_EQ(iemli_session_find(1), nullptr);
}

TEST_F(IemliQueue, DiscardsWhatASessionHadWaitingWhenItsClientDies)
{
    EXPECT_TRUE(offer(CLIENT_A, delete_req(1, 1, 11)));
    die(CLIENT_A);
    EXPECT_EQ(fake::kept_leaks(), 1U);
    EXPECT_NE(iemli_session_find(1), nullptr);
    complete();
    expect_nothing_sent();
    EXPECT_EQ(iemli_session_find(1), nullptr);
    EXPECT_EQ(fake::kept_leaks(), 1U);
    EXPECT_THAT(calls(), ElementsAre("itc_unmonitor(1)"));
}

// What a client leaves behind by queueing, leaving and coming back.
TEST_F(IemliQueue, KeepsNoMoreThanAMebibyteOfWhatWasEverFlushed)
{
    const Link link = {.apps = std::vector<AppLink>(3000, APP_1)};
    const size_t size = create_req(1, 1, link).size();
    ASSERT_GT(size, 36000U);
    for (int round = 0; round < 20; round++) {
        for (int i = 0; i < 10; i++) {
            EXPECT_TRUE(offer(CLIENT_A, create_req(1, 1, link)));
        }
        EXPECT_TRUE(offer(CLIENT_A, term_req(2, 1)));
        ASSERT_LE(fake::kept_message_bytes(), 1024U * 1024);
    }
    EXPECT_GT(fake::kept_message_bytes(), 1024U * 1024 - size) << "what is within the bound is kept";
    EXPECT_EQ(fake::live_messages(), 3U) << "two monitors' messages and the term that waits";
}

TEST_F(IemliQueue, KeepsNoMoreThan64MessagesHoweverSmall)
{
    for (int i = 0; i < 1000; i++) {
        EXPECT_TRUE(offer(CLIENT_A, delete_req(1, 1, 11)));
        EXPECT_TRUE(offer(CLIENT_A, term_req(2, 1)));
    }
    EXPECT_EQ(fake::kept_messages(), 64U);
}

TEST_F(IemliQueue, DoesNotKeepWhatIsAloneMoreThanAMebibyte)
{
    const Link link = {.apps = std::vector<AppLink>(90000, APP_1)};
    ASSERT_GT(create_req(1, 1, link).size(), 1024U * 1024);
    EXPECT_TRUE(offer(CLIENT_A, create_req(1, 1, link)));
    EXPECT_TRUE(offer(CLIENT_A, term_req(2, 1)));
    EXPECT_EQ(fake::kept_leaks(), 1U);
    EXPECT_EQ(fake::kept_messages(), 0U);
}

size_t waiting_bytes(const IemliSession *session)
{
    size_t bytes = 0;
    for (const IemliQueuedRequest *entry = session->queue_head; entry != nullptr; entry = entry->next) {
        bytes += itc_size(entry->msg);
    }
    return bytes;
}

TEST_F(IemliQueue, TakesNoMoreThanEightMebibytesOfASession)
{
    const Bytes request = create_req(1, 1, {.apps = std::vector<AppLink>(10000, APP_1)});
    for (int i = 0; i < 100; i++) {
        EXPECT_TRUE(offer(CLIENT_A, request));
    }
    const size_t full = waiting_bytes(iemli_session_find(1));
    EXPECT_LE(full, 8U * 1024 * 1024);
    EXPECT_GT(full, 8U * 1024 * 1024 - 2 * request.size());
    EXPECT_EQ(fake::count_traced(1, "Out of memory"), 100 - full / request.size()) << "each that is dropped is told";
    EXPECT_TRUE(offer(CLIENT_B, delete_req(1, 2, 11)));
    EXPECT_NE(iemli_session_find(2)->queue_head, nullptr) << "the other session has room of its own";
    expect_nothing_sent();

    EXPECT_TRUE(offer(CLIENT_A, term_req(2, 1)));
    EXPECT_EQ(waiting_bytes(iemli_session_find(1)), 12U) << "there is room for the end of a session";
    for (int i = 0; i < 10; i++) {
        EXPECT_TRUE(offer(CLIENT_A, request));
    }
    EXPECT_EQ(waiting_bytes(iemli_session_find(1)), 12U + 10 * request.size()) << "what was discarded left its room";
}

TEST_F(IemliQueue, TakesALargeRequestThatIsAlone)
{
    const Bytes request = create_req(1, 1, {.apps = std::vector<AppLink>(800000, APP_1)});
    ASSERT_GT(request.size(), 8U * 1024 * 1024);
    EXPECT_TRUE(offer(CLIENT_A, request));
    EXPECT_TRUE(offer(CLIENT_A, delete_req(2, 1, 11)));
    EXPECT_EQ(waiting_bytes(iemli_session_find(1)), request.size());
}

TEST_F(IemliQueue, IsNotServedByATerm)
{
    EXPECT_TRUE(offer(CLIENT_A, term_req(1, 1)));
    EXPECT_TRUE(offer(CLIENT_B, delete_req(2, 2, 12)));
    complete();
    expect_sent(CLIENT_A, Builder().u32(0x1B0E07).u32(1).u32(1));
    expect_nothing_sent();
    EXPECT_THAT(traces_of(5),
                ElementsAre("Handle IEMLI_TERM_SERVICE_REQ message from queue",
                            "Client session terminated: client_mbox: 131073, client_conn_ref: 160, server_conn_ref: 1",
                            "Confirming IEMLI service term"));
    EXPECT_THAT(calls(), ElementsAre("itc_unmonitor(1)"));
}

TEST_F(IemliQueue, LetsAnInitPass)
{
    EXPECT_TRUE(offer(CLIENT_A, term_req(1, 1)));
    EXPECT_TRUE(offer(CLIENT_A, init_req(2, A_REF, 1, 0, 0)));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E05).u32(2).u32(A_REF).u32(1));
}

TEST_F(IemliQueue, DropsARequestWithoutMemory)
{
    fake::fail_allocation(1);
    EXPECT_TRUE(offer(CLIENT_A, delete_req(1, 1, 11)));
    expect_traces({{17, "IEMLI_DELETE_INTER_ME_LINK_REQ"}, {1, "Out of memory"}});
    complete();
    expect_nothing_sent();
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(IemliQueue, RefusesANumberThatNeverWaits)
{
    itc_msg *msg = fake::make(CLIENT_A, disable_rtt_req(1, 1, 1));
    iemli_queue_add(iemli_session_find(1), msg);
    itc_free(&msg);
    expect_traces({{6, "WARNING: wrong sigNo received for queue: IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ"}});
    EXPECT_EQ(iemli_session_find(1)->queue_head, nullptr);
}

TEST_F(IemliQueue, SaysWhenANumberIsTakenThatNeverWaits)
{
    EXPECT_TRUE(offer(CLIENT_A, delete_req(1, 1, 11)));
    iemli_session_find(1)->queue_head->msg->msgno = 0x1B0E14;
    complete();
    EXPECT_THAT(traces_of(1), ElementsAre("Filtering by msg number was done before. We should never enter this part."));
    expect_nothing_sent();
}

TEST_F(IemliQueue, CountsArrivalsFromZero)
{
    EXPECT_TRUE(offer(CLIENT_A, delete_req(1, 1, 11)));
    EXPECT_TRUE(offer(CLIENT_B, delete_req(2, 2, 12)));
    EXPECT_EQ(iemli_session_find(1)->queue_head->seq, 0U);
    EXPECT_EQ(iemli_session_find(2)->queue_head->seq, 1U);
}

TEST_F(IemliQueue, GoesOnWhenTheRequestTakenIsRejectedWhileItStarts)
{
    EXPECT_TRUE(offer(CLIENT_A, create_req(1, 1, {})));
    EXPECT_TRUE(offer(CLIENT_A, create_req(2, 1, {})));
    EXPECT_TRUE(offer(CLIENT_B, delete_req(3, 2, 12)));
    neighbours::end_at_start(link_rejected(99));
    neighbours::end_at_start(link_rejected(99));
    complete();
    expect_sent(CLIENT_A, rej(0x1B0E0D, 1, A_REF, 99));
    expect_sent(CLIENT_A, rej(0x1B0E0D, 2, A_REF, 99));
    expect_nothing_sent();
    EXPECT_EQ(calls().back(), "delete 12 of 2");
    EXPECT_EQ(neighbours::open_procedures(), 1U);
    // The session whose requests were rejected waits for nothing; the other one does.
    EXPECT_FALSE(iemli_session_find(1)->busy);
    EXPECT_TRUE(iemli_session_find(2)->busy);
}

TEST_F(IemliQueue, SurvivesAnyNumberOfRequestsThatAreRejectedWhileTheyStart)
{
    constexpr uint32_t MANY = 40000; // more than a stack has room for, if each were taken inside the one before
    fake::set_trace_mask(0);
    for (uint32_t i = 0; i < MANY; ++i) {
        EXPECT_TRUE(offer(CLIENT_A, create_req(i, 1, {})));
        neighbours::end_at_start(link_rejected(99));
    }
    neighbours::confirm(9);
    fake::take_sent();
    for (uint32_t i = 0; i < MANY; ++i) {
        ASSERT_EQ(fake::sent()[i].bytes, rej(0x1B0E0D, i, A_REF, 99));
    }
    EXPECT_EQ(fake::sent().size(), MANY);
    EXPECT_EQ(neighbours::open_procedures(), 0U);
}

TEST_F(IemliQueue, TakesATermAfterARequestThatIsRejectedWhileItStarts)
{
    EXPECT_TRUE(offer(CLIENT_B, create_req(1, 2, {})));
    EXPECT_TRUE(offer(CLIENT_A, term_req(2, 1)));
    neighbours::end_at_start(link_rejected(99));
    complete();
    expect_sent(CLIENT_B, rej(0x1B0E0D, 1, B_REF, 99));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E07).u32(2).u32(1));
    expect_nothing_sent();
}

TEST_F(IemliQueue, IsFlushedByTheEndOfTheService)
{
    EXPECT_TRUE(offer(CLIENT_A, delete_req(1, 1, 11)));
    iemli_unpublish();
    EXPECT_EQ(fake::kept_leaks(), 1U);
    expect_nothing_sent();
    neighbours::confirm(9);
    expect_nothing_sent();
    EXPECT_EQ(traces_of(6).back(), "Session 2 lost while waiting for response from lower layer.");
}

} // namespace
