// Start-up in its order, the loop, and signals.
#include <csignal>

#include <gmock/gmock.h>

#include "support/daemon.hpp"

namespace
{

using fake::Trace;
using testing::ElementsAre;

class VornManager : public daemon_test::DaemonTest
{
};

TEST_F(VornManager, StartsInItsFixedOrder)
{
    EXPECT_EQ(vorn_manager_run(), 0);
    EXPECT_THAT(fake::calls(),
                ElementsAre("set_signal_handler()", "tri_init()", "itc_init(1,0,0,0,0)",
                            "itc_create_mailbox(kap-vorn,0)", "itc_locate_async(flow-manager,65537)",
                            "itc_locate_async(iepcsi-server,65537)", "itc_locate_async(pmi-server,65537)",
                            "itc_locate_async(endpoint_mgr,65537)", "ns_subscribe(automationagentsi,tn,65537,)",
                            "itc_delete_mailbox(65537)", "itc_exit()"));
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{4, "VORN Mailbox initialized"}, Trace{14, "New state is: KAP_VORN_INITIATING"}));
    EXPECT_EQ(fake::thread_name(), "kap_vorn_manager");
    EXPECT_EQ(fake::signal_handler(), handle_signal);
    EXPECT_EQ(vorn_own_mailbox(), fake::OWN_MBOX);
    EXPECT_THAT(fake::receive_timeouts(), ElementsAre(0xFFFFFFFFu));
}

TEST_F(VornManager, TakesATraceLibraryThatIsOpenAlreadyAsSuccess)
{
    fake::set_tri_init_result(4);
    EXPECT_EQ(vorn_manager_run(), 0);
    EXPECT_EQ(fake::thread_name(), "kap_vorn_manager");
    EXPECT_FALSE(fake::traced(1, "Tri init failed. Provider name will be empty in traces."));
}

TEST_F(VornManager, GoesOnWithoutAThreadNameWhenTracingFails)
{
    fake::set_tri_init_result(5);
    EXPECT_EQ(vorn_manager_run(), 0);
    EXPECT_EQ(fake::thread_name(), "");
    EXPECT_TRUE(fake::traced(1, "Tri init failed. Provider name will be empty in traces."));
    EXPECT_EQ(manager_state(), KAP_VORN_INITIATING);
}

TEST_F(VornManager, EndsWithStatus1WhenItcCannotBeInitialised)
{
    fake::set_init_result(111);
    EXPECT_EQ(vorn_manager_run(), 1);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "itc_init failed, result 111"}));
    EXPECT_THAT(fake::calls(), ElementsAre("set_signal_handler()", "tri_init()", "itc_init(1,0,0,0,0)"));
    EXPECT_EQ(manager_state(), KAP_VORN_INIT);
}

TEST_F(VornManager, LeavesItcBeforeItTracesThatTheMailboxIsMissing)
{
    fake::set_create_result(ITC_NO_MBOX);
    EXPECT_EQ(vorn_manager_run(), 1);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "VORN Mailbox not initialized kap-vorn"}));
    EXPECT_THAT(fake::calls(), ElementsAre("set_signal_handler()", "tri_init()", "itc_init(1,0,0,0,0)",
                                           "itc_create_mailbox(kap-vorn,0)", "itc_exit()"));
}

TEST_F(VornManager, EmptiesTheLinkTableAtStartUp)
{
    IemliLinkData *data = daemon_test::make_link_data({});
    iml_link_insert(iml_link_alloc(data));
    vorn_manager_run();
    EXPECT_EQ(iml_link_count(), 0u);
}

TEST_F(VornManager, TracesAMessageThatNobodyClaims)
{
    start();
    fake::push(daemon_test::STRANGER, fake::Builder().u32(0x1B0CE1));
    run();
    EXPECT_TRUE(fake::traced(4, "Message 0x1b0ce1 not handled in VORN manager!"));
}

TEST_F(VornManager, DoesNotHandleANumberOfItsOwnProtocolThatIsNoRequest)
{
    start();
    fake::push(daemon_test::STRANGER, fake::Builder().u32(0x1B0E01).u32(0).u32(0));
    run();
    EXPECT_TRUE(fake::traced(4, "Message 0x1b0e01 not handled in VORN manager!"));
}

TEST_F(VornManager, OffersAMessageToTheDispatchersUntilTheLast)
{
    start();
    fake::push(fake::OWN_MBOX, fake::Builder().u32(0x1B0CE6).u32(99).u32(0).u32(0).u32(0));
    run();
    EXPECT_THAT(notices(),
                ElementsAre(Trace{4, "WARNING: Received supervision ind(99) for link that doesn't exist any more."}));
}

TEST_F(VornManager, StaysAsItIsOnSighup)
{
    start();
    fake::calls().clear();
    handle_signal(SIGHUP);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{4, "WARNING: Received SIGHUP signal."}));
    EXPECT_EQ(manager_state(), KAP_VORN_INITIATED);
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(VornManager, NamesASignalThatItDoesNotKnow)
{
    handle_signal(SIGUSR1);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{4, "WARNING: Unhandled signal User defined signal 1"}));
}

// What the process does on its way out is told on stderr, since it ends inside the callback.
void print_calls_at_exit()
{
    for (const std::string &call : fake::calls()) {
        fprintf(stderr, "%s;", call.c_str());
    }
}

class VornManagerDeathTest : public VornManager, public testing::WithParamInterface<int>
{
};

TEST_P(VornManagerDeathTest, WithdrawsTheServiceLeavesItcAndExitsWithStatus0)
{
    start();
    fake::calls().clear();
    EXPECT_EXIT(
        {
            atexit(print_calls_at_exit);
            handle_signal(GetParam());
        },
        testing::ExitedWithCode(0),
        "ns_unpublish\\(KAP_IEMLI_SERVICE_NAME,,65537,\\);itc_delete_mailbox\\(65537\\);"
        "itc_exit\\(\\);");
}

INSTANTIATE_TEST_SUITE_P(OnSigintAndSigterm, VornManagerDeathTest, testing::Values(SIGINT, SIGTERM));

} // namespace
