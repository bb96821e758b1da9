// The client library by itself: what it makes of messages, good and bad. Bytes are written out.
#include <gmock/gmock.h>

#include <array>
#include <bit>
#include <cstring>

#include "iemli_client.hpp"
#include "ns.h"

namespace
{

struct Client : testing::Test {
    iemli_client client;

    Client() { client.published = true; }

    // Hands the client a message made of these words.
    void give(const std::vector<uint32_t> &words, size_t size)
    {
        itc_msg *msg = itc_alloc(size, words[0]);
        memcpy(msg, words.data(), std::min(size, words.size() * sizeof(uint32_t)));
        iemli_client_handle(client, msg);
        itc_free(&msg);
    }
    void give(const std::vector<uint32_t> &words) { give(words, words.size() * sizeof(uint32_t)); }

    void asked(uint32_t procedure, uint32_t msgno)
    {
        iemli_request request;
        request.procedure = procedure;
        request.msgno = msgno;
        client.requests.push_back(request);
    }

    iemli_event only_event()
    {
        EXPECT_EQ(client.events.size(), 1u);
        return client.events.empty() ? iemli_event{} : client.events.front();
    }
};

} // namespace

TEST_F(Client, ReadsAStatusIndication)
{
    give({0x1B0E13, 9, 1, 3, 0, 4});
    iemli_event event = only_event();
    EXPECT_EQ(event.kind, iemli_event_kind::link_status);
    EXPECT_EQ(event.procedure_ref, 9u);
    EXPECT_EQ(event.connection_ref, 1u);
    EXPECT_EQ(event.link_ref, 3u);
    EXPECT_EQ(event.status, 0u);
    EXPECT_EQ(event.disabled_reason, 4u);
}

TEST_F(Client, ReadsAnRttIndication)
{
    const auto valid = std::bit_cast<uint32_t>(std::array<uint8_t, 4>{1}); // one byte, and three that fill up
    give({0x1B0E19, 9, 1, 3, 0, 11, 0, 12, 0, 13, valid});
    iemli_event event = only_event();
    EXPECT_EQ(event.kind, iemli_event_kind::link_rtt);
    EXPECT_EQ(event.link_ref, 3u);
    EXPECT_EQ(event.rtt.min_nsec, 11u);
    EXPECT_EQ(event.rtt.avg_nsec, 12u);
    EXPECT_EQ(event.rtt.max_nsec, 13u);
    EXPECT_EQ(event.rtt.rtt_validity, 1);
}

TEST_F(Client, TakesAConfirmForTheRequestThatItAnswers)
{
    asked(5, 0x1B0E0B);
    asked(6, 0x1B0E0B);
    give({0x1B0E0C, 6, 1, 42});
    iemli_answer answer = iemli_client_await(client, 6);
    EXPECT_EQ(answer.outcome, iemli_outcome::confirmed);
    EXPECT_EQ(answer.link_ref, 42u);
    ASSERT_EQ(client.requests.size(), 1u);
    EXPECT_FALSE(client.requests[0].answered);
}

TEST_F(Client, TakesTheReasonOfAReject)
{
    asked(5, 0x1B0E0E);
    give({0x1B0E10, 5, 1, 8});
    iemli_answer answer = iemli_client_await(client, 5);
    EXPECT_EQ(answer.outcome, iemli_outcome::rejected);
    EXPECT_EQ(answer.reason, 8u);
}

TEST_F(Client, KeepsTheServersReferenceOfTheSession)
{
    asked(1, 0x1B0E03);
    give({0x1B0E04, 1, 77, 1});
    EXPECT_EQ(client.server_ref, 77u);
    asked(2, 0x1B0E06);
    give({0x1B0E07, 2, 77});
    EXPECT_EQ(client.server_ref, 0u);
}

TEST_F(Client, CallsAnAnswerToNothingLate)
{
    give({0x1B0E0F, 5, 1});
    EXPECT_EQ(only_event().kind, iemli_event_kind::late_answer);
}

TEST_F(Client, DoesNotTakeAnotherRequestsAnswerForItsOwn)
{
    asked(5, 0x1B0E0B);     // a create
    give({0x1B0E12, 5, 1}); // the confirm of a delete
    EXPECT_FALSE(client.requests[0].answered);
    EXPECT_EQ(only_event().kind, iemli_event_kind::late_answer);
}

TEST_F(Client, NeverReadsAMessageThatIsTooShort)
{
    const std::pair<uint32_t, size_t> shortest[] = {
        {0x1B0E04, 16}, {0x1B0E05, 16}, {0x1B0E07, 12}, {0x1B0E09, 36}, {0x1B0E0A, 16},  {0x1B0E0C, 16},
        {0x1B0E0D, 16}, {0x1B0E0F, 12}, {0x1B0E10, 16}, {0x1B0E12, 12}, {0x1B0E13, 24},  {0x1B0E15, 12},
        {0x1B0E16, 16}, {0x1B0E18, 12}, {0x1B0E19, 44}, {0x1900000, 8}, {0x1900001, 20}, {0x1900002, 20},
    };
    for (auto [msgno, size] : shortest) {
        client.events.clear();
        give({msgno}, size - 1);
        ASSERT_EQ(client.events.size(), 1u) << std::hex << msgno;
        EXPECT_EQ(client.events.front().kind, iemli_event_kind::malformed) << std::hex << msgno;
        EXPECT_THAT(client.events.front().text, testing::StartsWith("too short: ")) << std::hex << msgno;
    }
}

TEST_F(Client, CallsARequestFromTheServerMalformed)
{
    give({0x1B0E0B, 1, 1});
    EXPECT_EQ(only_event().text, "not for a client: IEMLI_CREATE_INTER_ME_LINK_REQ of 12 bytes");
}

TEST_F(Client, EndsEveryRequestUnderWayWhenTheServiceIsWithdrawn)
{
    client.server_mbox = 0x10002;
    client.server_ref = 1;
    asked(5, 0x1B0E0B);
    give({NS_SERVICE_REMOVED_IND, 1, 0x10002, 0, 0});
    EXPECT_EQ(only_event().kind, iemli_event_kind::withdrawn);
    EXPECT_EQ(client.server_ref, 0u);
    EXPECT_EQ(iemli_client_await(client, 5).outcome, iemli_outcome::lost);
    EXPECT_EQ(iemli_client_delete_link(client, 1).outcome, iemli_outcome::lost);
}

TEST_F(Client, IgnoresTheWithdrawalOfAnotherServer)
{
    client.server_mbox = 0x10002;
    give({NS_SERVICE_REMOVED_IND, 1, 0x10003, 0, 0});
    EXPECT_TRUE(client.published);
    EXPECT_TRUE(client.events.empty());
}

TEST_F(Client, NamesMessagesReasonsAndStates)
{
    EXPECT_STREQ(iemli_client_message_name(0x1B0E19), "IEMLI_INTER_ME_LINK_RTT_IND");
    EXPECT_STREQ(iemli_client_message_name(0x1B0E1A), "a message of another protocol");
    EXPECT_STREQ(iemli_client_reason_name(99), "IEMLI_REJ_OTHER_REASON");
    EXPECT_STREQ(iemli_client_reason_name(10), "an unknown reason");
    EXPECT_STREQ(iemli_client_status_text(1, 4), "enabled");
    EXPECT_STREQ(iemli_client_status_text(0, 2), "disabled with reason down");
    EXPECT_STREQ(iemli_client_status_text(0, 3), "disabled with reason locked");
    EXPECT_STREQ(iemli_client_status_text(0, 4), "disabled with reason no connectivity");
    EXPECT_STREQ(iemli_client_status_text(0, 9), "disabled with an unknown reason");
}
