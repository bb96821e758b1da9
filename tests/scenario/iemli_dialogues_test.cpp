// Clients of the IEMLI service against the whole daemon: sessions and links that end while a request of theirs is being
// answered, and requests that wait behind it.
#include <gmock/gmock.h>

#include "support/daemon.hpp"

namespace
{

using daemon_test::answer;
using daemon_test::APP_1;
using daemon_test::APP_2;
using daemon_test::APP_3;
using daemon_test::CLIENT;
using daemon_test::Link;
using daemon_test::Message;
using daemon_test::OTHER_CLIENT;
using fake::Builder;
using fake::Bytes;
using testing::ElementsAre;
using testing::IsEmpty;

class IemliDialogue : public daemon_test::DaemonTest
{
protected:
    uint32_t session = 0;
    uint32_t other_session = 0;

    void SetUp() override
    {
        DaemonTest::SetUp();
        start();
        session = open_session(CLIENT, 11);
        other_session = open_session(OTHER_CLIENT, 22);
        forget_records();
    }

    // A create of CLIENT for which only EMI's answer is missing; returns the request that waits for it.
    Message create_up_to_emi(const Link &link = {})
    {
        emi_answers = answer::never;
        request(create_request(session, 1, link));
        emi_answers = answer::confirm;
        return take_to(daemon_test::EMI, 0x1B10C6);
    }

    static void die(uint32_t client)
    {
        fake::kill(client);
        run();
    }

    static std::string hex(const Message &message) { return fake::to_hex(message.bytes); }
    static std::string hex(const Builder &builder) { return fake::to_hex(builder.bytes); }
};

TEST_F(IemliDialogue, ADeleteOfAnotherClientWaitsForACreateAndIsThenTakenUpAtOnce)
{
    const uint32_t link_ref = create_link(other_session, {.vlan = 300}, OTHER_CLIENT);
    forget_records();
    const Message waiting = create_up_to_emi();
    request(delete_request(other_session, 2, link_ref), OTHER_CLIENT);
    EXPECT_THAT(numbers_to(OTHER_CLIENT), IsEmpty());
    EXPECT_EQ(iml_link_count(), 1U);
    confirm(waiting);
    EXPECT_EQ(hex(take_to(CLIENT, 0x1B0E0C)), hex(Builder().u32(0x1B0E0C).u32(1).u32(11).u32(2)));
    EXPECT_EQ(hex(take_to(OTHER_CLIENT, 0x1B0E12)), hex(Builder().u32(0x1B0E12).u32(2).u32(22)));
    EXPECT_EQ(link_procedure_count(), 0U);
    EXPECT_EQ(iml_link_count(), 1U);
}

TEST_F(IemliDialogue, AClientThatDiesWhileItsCreateCompletesLeavesNothingBehind)
{
    const Message waiting = create_up_to_emi();
    die(CLIENT);
    confirm(waiting);
    EXPECT_THAT(numbers_to(CLIENT), ElementsAre(0x1B0E0C));
    EXPECT_EQ(iml_link_count(), 0U);
    EXPECT_EQ(link_procedure_count(), 0U);
    EXPECT_TRUE(fake::sessions().empty());
    EXPECT_TRUE(fake::traced(4, "WARNING:Unexisting session for connection-ref=1"));
    EXPECT_THAT(numbers_to(daemon_test::PMI), ElementsAre(0x1B1009, 0x1B100C));
}

TEST_F(IemliDialogue, ATermThatWaitsForItsOwnCreateIsAnsweredAfterItsConfirm)
{
    const Message waiting = create_up_to_emi();
    request(term_request(session, 2));
    EXPECT_THAT(numbers_to(CLIENT), IsEmpty());
    confirm(waiting);
    EXPECT_THAT(numbers_to(CLIENT), ElementsAre(0x1B0E0C, 0x1B0E07));
    EXPECT_EQ(iml_link_count(), 0U);
    EXPECT_EQ(link_procedure_count(), 0U);
}

TEST_F(IemliDialogue, ADeleteThatWaitsForItsOwnCreateTakesTheLinkBeforeItsIndication)
{
    const Message waiting = create_up_to_emi();
    request(delete_request(session, 2, 1));
    confirm(waiting);
    EXPECT_THAT(numbers_to(CLIENT), ElementsAre(0x1B0E0C, 0x1B0E13, 0x1B0E12));
    EXPECT_EQ(hex(take_to(CLIENT, 0x1B0E13)), hex(Builder().u32(0x1B0E13).u32(2).u32(11).u32(1).u32(0).u32(4)));
    EXPECT_EQ(iml_link_count(), 0U);
    EXPECT_EQ(link_procedure_count(), 0U);
    EXPECT_TRUE(fake::sessions().empty());
}

TEST_F(IemliDialogue, AClientThatDiesWhileItsUpdateCompletesLeavesNothingBehind)
{
    const uint32_t link_ref = create_link(session, {.app_links = {APP_1}});
    forget_records();
    emi_answers = answer::never;
    request(update_request(session, 2, link_ref, {APP_1, APP_2}));
    emi_answers = answer::confirm;
    const Message waiting = take_to(daemon_test::EMI, 0x1B10C6);
    die(CLIENT);
    confirm(waiting);
    EXPECT_THAT(numbers_to(CLIENT), ElementsAre(0x1B0E0F));
    EXPECT_EQ(iml_link_count(), 0U);
    EXPECT_EQ(link_procedure_count(), 0U);
}

TEST_F(IemliDialogue, AClientThatDiesWhileItsDeleteCompletesLeavesNothingBehind)
{
    const uint32_t link_ref = create_link(session, {});
    forget_records();
    emi_answers = answer::never;
    request(delete_request(session, 2, link_ref));
    emi_answers = answer::confirm;
    const Message waiting = take_to(daemon_test::EMI, 0x1B10C9);
    die(CLIENT);
    confirm(waiting);
    EXPECT_THAT(numbers_to(CLIENT), ElementsAre(0x1B0E12));
    EXPECT_EQ(link_procedure_count(), 0U);
}

TEST_F(IemliDialogue, AnUpdateOfASomebodyElsesLinkIsRejectedByTheProcedureAndHoldsNobodyUp)
{
    const uint32_t link_ref = create_link(session, {});
    forget_records();
    request(update_request(other_session, 2, link_ref, {APP_3}), OTHER_CLIENT);
    EXPECT_EQ(hex(take_to(OTHER_CLIENT, 0x1B0E10)), hex(Builder().u32(0x1B0E10).u32(2).u32(22).u32(3)));
    request(delete_request(session, 3, link_ref));
    EXPECT_EQ(hex(take_to(CLIENT, 0x1B0E12)), hex(Builder().u32(0x1B0E12).u32(3).u32(11)));
}

TEST_F(IemliDialogue, QueuedRequestsThatAreRejectedWhileTheyStartAreTakenInOneGo)
{
    const Message waiting = create_up_to_emi({.app_links = {APP_1}});
    for (uint32_t i = 2; i < 6; ++i) {
        request(update_request(other_session, i, 1, {APP_2}), OTHER_CLIENT);
    }
    request(delete_request(session, 6, 1));
    confirm(waiting);
    EXPECT_THAT(numbers_to(OTHER_CLIENT), ElementsAre(0x1B0E10, 0x1B0E10, 0x1B0E10, 0x1B0E10));
    EXPECT_THAT(numbers_to(CLIENT), ElementsAre(0x1B0E0C, 0x1B0E13, 0x1B0E12));
    EXPECT_EQ(link_procedure_count(), 0U);
}

TEST_F(IemliDialogue, ADeleteOfALinkThatIsNotTheirsIsConfirmedAndChangesNothing)
{
    const uint32_t link_ref = create_link(session, {});
    forget_records();
    request(delete_request(other_session, 2, link_ref), OTHER_CLIENT);
    request(delete_request(other_session, 3, 77), OTHER_CLIENT);
    EXPECT_THAT(numbers_to(OTHER_CLIENT), ElementsAre(0x1B0E12, 0x1B0E12));
    EXPECT_EQ(iml_link_count(), 1U);
    request(update_request(session, 4, link_ref, {}));
    EXPECT_EQ(hex(take_to(CLIENT, 0x1B0E0F)), hex(Builder().u32(0x1B0E0F).u32(4).u32(11)));
}

TEST_F(IemliDialogue, AnAnswerForASessionThatUnpublishingEndedGoesNowhere)
{
    const Message waiting = create_up_to_emi();
    iemli_unpublish();
    confirm(waiting);
    EXPECT_THAT(numbers_to(CLIENT), IsEmpty());
    EXPECT_TRUE(fake::traced(6, "Session 1 lost while waiting for response from lower layer."));
    EXPECT_EQ(link_procedure_count(), 0U);
}

} // namespace
