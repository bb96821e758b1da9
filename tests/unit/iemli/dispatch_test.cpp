// Which messages are the server's, who is answered without a session, what waits while a request is in progress, and
// what happens to messages that were cut off.
#include <gmock/gmock.h>

#include <functional>

#include "neighbours.hpp"

namespace
{

using testing::ElementsAre;
using testing::IsEmpty;

class IemliDispatch : public IemliTest
{
};

class IemliShortMessages : public IemliTest
{
};

TEST_F(IemliDispatch, TracesEveryMessageAndDeclinesForeignNumbers)
{
    EXPECT_FALSE(offer(CLIENT_A, Builder().u32(0x1B0CE3)));
    EXPECT_FALSE(offer(CLIENT_A, Builder().u32(0x1B0E1A)));
    EXPECT_FALSE(offer(CLIENT_A, Builder().u32(0x1B0DFF)));
    expect_traces({{17, "<Unknown>"}, {17, "<Unknown>"}, {17, "<Unknown>"}});
}

TEST_F(IemliDispatch, DeclinesNumbersOfTheProtocolThatAreNoRequests)
{
    for (const uint32_t msgno :
         {0x1B0E01U, 0x1B0E02U, 0x1B0E04U, 0x1B0E05U, 0x1B0E07U, 0x1B0E09U, 0x1B0E0AU, 0x1B0E0CU, 0x1B0E0DU, 0x1B0E0FU,
          0x1B0E10U, 0x1B0E12U, 0x1B0E13U, 0x1B0E15U, 0x1B0E16U, 0x1B0E18U, 0x1B0E19U}) {
        EXPECT_FALSE(offer(CLIENT_A, Builder().u32(msgno).zeros(60))) << msgno;
        expect_traces({{17, iemli_msg_to_string(msgno)}});
    }
    expect_nothing_sent();
}

TEST_F(IemliDispatch, HandlingAMessageLeavesTheTraceOfItsArrivalToTheDispatcher)
{
    EXPECT_TRUE(fake::dispatch(iemli_handle_message, CLIENT_A, term_req(1, 9)));
    expect_sent(CLIENT_A, Builder().u32(0x1B0E07).u32(1).u32(9));
    expect_traces({{18, "IEMLI_TERM_SERVICE_CFM: procedure_ref=0x1, connection_ref=0x9"}});
}

// One request of each kind, under a connection_ref.
std::vector<Bytes> every_request(uint32_t connection_ref)
{
    return {header(0x1B0E00, 0x50, connection_ref),
            term_req(0x51, connection_ref),
            get_mac_req(0x52, connection_ref, 1, std::string("IDL_A1\0", 7)),
            create_req(0x53, connection_ref, {}),
            update_req(0x54, connection_ref, 1, {APP_1}),
            delete_req(0x55, connection_ref, 1),
            enable_rtt_req(0x56, connection_ref, 1, 5, 1, 64),
            disable_rtt_req(0x57, connection_ref, 1)};
}

void expect_answers_to_a_stranger(uint32_t connection_ref, const std::function<void(const Bytes &)> &expect)
{
    expect(Builder().u32(0x1B0E07).u32(0x51).u32(connection_ref));
    expect(Builder().u32(0x1B0E0A).u32(0x52).u32(connection_ref).u32(0));
    expect(Builder().u32(0x1B0E0D).u32(0x53).u32(connection_ref).u32(0));
    expect(Builder().u32(0x1B0E10).u32(0x54).u32(connection_ref).u32(0));
    expect(Builder().u32(0x1B0E12).u32(0x55).u32(connection_ref));
    expect(Builder().u32(0x1B0E16).u32(0x56).u32(connection_ref).u32(0));
    expect(Builder().u32(0x1B0E18).u32(0x57).u32(connection_ref));
}

TEST_F(IemliDispatch, AnswersAStrangerByTheRequest)
{
    for (const Bytes &request : every_request(0x77)) {
        EXPECT_TRUE(offer(CLIENT_C, request));
    }
    expect_answers_to_a_stranger(0x77, [](const Bytes &answer) { expect_sent(CLIENT_C, answer); });
    expect_nothing_sent();
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(IemliDispatch, TakesASessionOfSomebodyElseForNoSession)
{
    open_both();
    for (const Bytes &request : every_request(1)) {
        EXPECT_TRUE(offer(CLIENT_B, request));
    }
    expect_answers_to_a_stranger(1, [](const Bytes &answer) { expect_sent(CLIENT_B, answer); });
    expect_nothing_sent();
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(IemliDispatch, AnswersAStrangerAtOnceAlsoWhileARequestIsInProgress)
{
    open_both();
    keep_b_busy();
    for (const Bytes &request : every_request(0x77)) {
        EXPECT_TRUE(offer(CLIENT_C, request));
    }
    expect_answers_to_a_stranger(0x77, [](const Bytes &answer) { expect_sent(CLIENT_C, answer); });
    EXPECT_THAT(traces_of(5), IsEmpty());
}

TEST_F(IemliDispatch, LetsWhatChangesLinksOrSessionsWaitWhileARequestIsInProgress)
{
    const std::vector<std::pair<Bytes, std::string>> waiting = {
        {create_req(1, 1, {}), "IEMLI_CREATE_INTER_ME_LINK_REQ"},
        {update_req(2, 1, 1, {APP_1}), "IEMLI_UPDATE_INTER_ME_LINK_REQ"},
        {delete_req(3, 1, 1), "IEMLI_DELETE_INTER_ME_LINK_REQ"},
        {term_req(4, 1), "IEMLI_TERM_SERVICE_REQ"},
        {header(0x1B0E00, 0, 1), "IEMLI_CLIENT_DOWN_IND"}};
    open_both();
    keep_b_busy();
    for (const auto &[request, name] : waiting) {
        EXPECT_TRUE(offer(CLIENT_A, request));
        expect_traces({{17, name}, {5, name + " inserted in queue"}});
    }
    expect_nothing_sent();
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(IemliDispatch, LetsTheBusySessionsOwnRequestsWaitToo)
{
    open_both();
    keep_b_busy();
    EXPECT_TRUE(offer(CLIENT_B, delete_req(3, 2, 1)));
    EXPECT_THAT(traces_of(5), ElementsAre("IEMLI_DELETE_INTER_ME_LINK_REQ inserted in queue"));
}

TEST_F(IemliDispatch, AnswersTheRestAtOnceWhileARequestIsInProgress)
{
    open_both();
    add_link(1, {});
    keep_b_busy();
    EXPECT_TRUE(offer(CLIENT_A, get_mac_req(1, 1, 9, std::string("IDL_A1\0", 7))));
    EXPECT_TRUE(offer(CLIENT_A, enable_rtt_req(2, 1, 1, 5, 1, 64)));
    EXPECT_TRUE(offer(CLIENT_A, disable_rtt_req(3, 1, 1)));
    expect_sent(CLIENT_A, Builder{header(0x1B0E09, 1, A_REF)}.u8(9).text("IDL_A1", 16).mac("02:00:00:00:00:A1").u8(0));
    expect_sent(CLIENT_A, header(0x1B0E15, 2, A_REF));
    expect_sent(CLIENT_A, header(0x1B0E18, 3, A_REF));
    EXPECT_THAT(traces_of(5), IsEmpty());
}

// The last_procedure_ref of a session shows in its indications.
void expect_last_procedure_ref(uint32_t expected)
{
    iemli_send_link_status_ind(1, 0, IML_LINK_DISABLED, IML_LINK_REASON_DOWN);
    const fake::Sent indication = fake::take_sent();
    EXPECT_EQ(fake::to_hex(indication.bytes),
              fake::to_hex(Builder{header(0x1B0E13, expected, A_REF)}.u32(0).u32(0).u32(2)));
}

TEST_F(IemliDispatch, RemembersTheLastRequestThatWasTakenUp)
{
    open_both();
    add_link(1, {});
    expect_last_procedure_ref(0);
    EXPECT_TRUE(offer(CLIENT_A, create_req(11, 1, {.mp_id = 0})));
    fake::take_sent();
    expect_last_procedure_ref(11);
    EXPECT_TRUE(offer(CLIENT_A, update_req(12, 1, 9, {})));
    fake::take_sent();
    expect_last_procedure_ref(12);
    neighbours::set_delete_opens(false);
    EXPECT_TRUE(offer(CLIENT_A, delete_req(13, 1, 9)));
    fake::take_sent();
    expect_last_procedure_ref(13);
}

TEST_F(IemliDispatch, DoesNotRememberRequestsThatNeverWait)
{
    open_both();
    add_link(1, {});
    EXPECT_TRUE(offer(CLIENT_A, get_mac_req(1, 1, 9, std::string("IDL_A1\0", 7))));
    EXPECT_TRUE(offer(CLIENT_A, enable_rtt_req(2, 1, 1, 5, 1, 64)));
    EXPECT_TRUE(offer(CLIENT_A, disable_rtt_req(3, 1, 1)));
    fake::sent().clear();
    expect_last_procedure_ref(0);
}

TEST_F(IemliDispatch, DoesNotRememberARequestThatWaits)
{
    open_both();
    keep_b_busy();
    EXPECT_TRUE(offer(CLIENT_A, delete_req(13, 1, 9)));
    expect_last_procedure_ref(0);
}

// ---- Cut off ----

Bytes cut(Bytes message, size_t size)
{
    message.resize(size);
    return message;
}

// Offers every length below the message's own; a client that is known is answered as `reject_msgno` says (0: not).
void expect_cut_off_is_refused(const Bytes &message, const std::string &name, uint32_t reject_msgno)
{
    uint32_t procedure_ref = 0;
    memcpy(&procedure_ref, message.data() + 4, 4);
    for (size_t size = 4; size < message.size(); ++size) {
        fake::traces().clear();
        EXPECT_TRUE(fake::dispatch(iemli_server_dispatch, CLIENT_A, cut(message, size)));
        std::vector<Trace> expected = {{17, name}, {1, name + " too short: " + std::to_string(size) + " bytes"}};
        ASSERT_GE(fake::traces().size(), 2U);
        EXPECT_EQ(fake::traces()[0], expected[0]);
        EXPECT_EQ(fake::traces()[1], expected[1]);
        if (reject_msgno != 0 && size >= 12) {
            const fake::Sent answer = fake::take_sent();
            EXPECT_EQ(answer.to, CLIENT_A);
            EXPECT_EQ(fake::to_hex(answer.bytes),
                      fake::to_hex(Builder().u32(reject_msgno).u32(procedure_ref).u32(A_REF).u32(99)));
        }
        EXPECT_TRUE(fake::sent().empty());
    }
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(IemliShortMessages, InitOfAStrangerIsDropped)
{
    expect_cut_off_is_refused(init_req(0x61, 0x62, 1, 1, 1), "IEMLI_INIT_SERVICE_REQ", 0);
}

TEST_F(IemliShortMessages, InitOfAClientThatIsInIsDroppedToo)
{
    open_both();
    expect_cut_off_is_refused(init_req(0x61, A_REF, 1, 1, 1), "IEMLI_INIT_SERVICE_REQ", 0);
}

TEST_F(IemliShortMessages, ClientDownIsDropped)
{
    open_both();
    expect_cut_off_is_refused(header(0x1B0E00, 0, 1), "IEMLI_CLIENT_DOWN_IND", 0);
}

TEST_F(IemliShortMessages, TermIsDropped)
{
    open_both();
    expect_cut_off_is_refused(term_req(0x61, 1), "IEMLI_TERM_SERVICE_REQ", 0);
}

TEST_F(IemliShortMessages, GetMacIsRejected)
{
    open_both();
    expect_cut_off_is_refused(get_mac_req(0x61, 1, 1, "I"), "IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ", 0x1B0E0A);
}

TEST_F(IemliShortMessages, CreateIsRejected)
{
    open_both();
    for (const Link &link : {Link{}, Link{.apps = {APP_1}}, Link{.apps = {APP_1, APP_2, APP_3}}}) {
        expect_cut_off_is_refused(create_req(0x61, 1, link), "IEMLI_CREATE_INTER_ME_LINK_REQ", 0x1B0E0D);
    }
}

TEST_F(IemliShortMessages, UpdateIsRejected)
{
    open_both();
    add_link(1, {});
    for (const auto &apps : std::vector<std::vector<AppLink>>{{}, {APP_1}, {APP_1, APP_2, APP_3}}) {
        expect_cut_off_is_refused(update_req(0x61, 1, 1, apps), "IEMLI_UPDATE_INTER_ME_LINK_REQ", 0x1B0E10);
    }
}

TEST_F(IemliShortMessages, DeleteIsDropped)
{
    open_both();
    add_link(1, {});
    expect_cut_off_is_refused(delete_req(0x61, 1, 1), "IEMLI_DELETE_INTER_ME_LINK_REQ", 0);
}

TEST_F(IemliShortMessages, EnableRttIsRejected)
{
    open_both();
    add_link(1, {});
    expect_cut_off_is_refused(enable_rtt_req(0x61, 1, 1, 5, 1, 64), "IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ", 0x1B0E16);
}

TEST_F(IemliShortMessages, DisableRttIsDropped)
{
    open_both();
    add_link(1, {});
    expect_cut_off_is_refused(disable_rtt_req(0x61, 1, 1), "IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ", 0);
}

TEST_F(IemliShortMessages, ACountThatTheMessageDoesNotHoldIsRejected)
{
    open_both();
    Bytes message = create_req(0x61, 1, {.apps = {APP_1}});
    for (const uint32_t count : {2U, 0x15555556U, 0xFFFFFFFFU}) {
        memcpy(message.data() + 40, &count, 4);
        EXPECT_TRUE(offer(CLIENT_A, message));
        expect_sent(CLIENT_A, rej(0x1B0E0D, 0x61, A_REF, 99));
    }
    EXPECT_THAT(traces_of(1), testing::Each("IEMLI_CREATE_INTER_ME_LINK_REQ too short: 56 bytes"));
    EXPECT_THAT(calls(), IsEmpty());
}

TEST_F(IemliShortMessages, AreRejectedAtOnceWhileARequestIsInProgress)
{
    open_both();
    keep_b_busy();
    EXPECT_TRUE(offer(CLIENT_A, header(0x1B0E0B, 0x61, 1)));
    expect_sent(CLIENT_A, rej(0x1B0E0D, 0x61, A_REF, 99));
    EXPECT_THAT(traces_of(5), IsEmpty());
}

TEST_F(IemliShortMessages, OfAStrangerAreDropped)
{
    open_both();
    EXPECT_TRUE(offer(CLIENT_B, header(0x1B0E0B, 0x61, 1)));
    expect_traces({{17, "IEMLI_CREATE_INTER_ME_LINK_REQ"}, {1, "IEMLI_CREATE_INTER_ME_LINK_REQ too short: 12 bytes"}});
    expect_nothing_sent();
}

} // namespace
