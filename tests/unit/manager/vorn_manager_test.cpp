// Start-up in its order, the loop, and signals.
#include <csignal>
#include <set>

#include <gmock/gmock.h>

#include "base/daemon_state.hpp"
#include "support/daemon.hpp"
#include "support/message_windows.hpp"

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
    EXPECT_EQ(fake::traced_before_exit(), 0u);
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

TEST_F(VornManager, StartsWithNothingUp)
{
    handle_service_event(AASI_SERVICE_UP);
    handle_service_event(PMI_SERVICE_UP);
    vorn_manager_run();
    EXPECT_FALSE(is_aasi_service_up());
    EXPECT_EQ(manager_service_mask(), 0u);
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

std::vector<std::string> asked;

bool take_it(const itc_msg *)
{
    asked.emplace_back("takes it");
    return true;
}
bool decline(const itc_msg *)
{
    asked.emplace_back("declines");
    return false;
}

TEST_F(VornManager, OffersAMessageToEveryDispatcherInOrderAlsoWhenOneHasTakenIt)
{
    const message_dispatcher two_of_four[] = {decline, take_it, take_it, decline};
    const message_dispatcher none[] = {decline, decline};
    itc_msg *msg = fake::make(daemon_test::STRANGER, fake::Builder().u32(1));
    asked.clear();
    EXPECT_TRUE(offer_message(two_of_four, 4, msg));
    EXPECT_THAT(asked, ElementsAre("declines", "takes it", "takes it", "declines"));
    EXPECT_FALSE(offer_message(none, 2, msg));
    itc_free(&msg);
}

// Every number where those of a protocol lie, and those beside it: too short for anything else than to be claimed or
// not.
TEST_F(VornManager, ClaimsTheNumbersOfItsProtocolsAndNoOther)
{
    const std::set<uint32_t> claimed = {
        0x1B0E00,  0x1B0E03,  0x1B0E06,  0x1B0E08,  0x1B0E0B,  0x1B0E0E,  0x1B0E11,  0x1B0E14,  0x1B0E17, 0x1B0CE3,
        0x1B1041,  0x1B1042,  0x1B1044,  0x1B1045,  0x1B1047,  0x1B1049,  0x1B104A,  0x1B1051,  0x1B1052, 0x1B1055,
        0x1B1064,  0x1B1065,  0x1B1068,  0x1B1001,  0x1B1002,  0x1B1004,  0x1B1005,  0x1B1007,  0x1B1008, 0x1B100A,
        0x1B100B,  0x1B100D,  0x1B100E,  0x1B0CE4,  0x1B0CE5,  0x1B10C1,  0x1B10C2,  0x1B10C4,  0x1B10C5, 0x1B10C7,
        0x1B10C8,  0x1B10CA,  0x1B10CB,  0x1B0F51,  0x1B0F52,  0x1B0F54,  0x1B0F55,  0x1B0F56,  0x1B0F57, 0x1900000,
        0x1900001, 0x1900002, 0x1A004C0, 0x1A004C1, 0x1A004C4, 0x1A004C5, 0x1A004C6, 0x1A004C7, 0x1B0CE6,
    };
    std::set<uint32_t> found;
    for (const message_windows::window &window : message_windows::EVERY) {
        for (uint32_t msgno = window.first - 1; msgno <= window.first + window.room; ++msgno) {
            fake::traces().clear();
            fake::push(daemon_test::STRANGER, fake::Builder().u32(msgno));
            run();
            char text[64];
            snprintf(text, sizeof text, "Message 0x%x not handled in VORN manager!", msgno);
            if (!fake::traced(4, text)) {
                found.insert(msgno);
            }
        }
    }
    EXPECT_THAT(found, testing::ContainerEq(claimed));
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

// The sessions that end delete their links in the ordinary way; nobody waits for the answers.
TEST_P(VornManagerDeathTest, EndsTheSessionsAndTheirLinksBeforeItLeaves)
{
    start();
    ASSERT_EQ(create_link(open_session(), {}), 1u);
    pmi_answers = daemon_test::answer::never;
    emi_answers = daemon_test::answer::never;
    forget_records();
    fake::calls().clear();
    EXPECT_EXIT(
        {
            atexit(print_calls_at_exit);
            atexit([] {
                fprintf(stderr, "links %u, supervised %zu, asked of pmi %zx, of emi %zx;", iml_link_count(),
                        fake::sessions().size(), size_t{numbers_to(daemon_test::PMI).at(0)},
                        size_t{numbers_to(daemon_test::EMI).at(0)});
            });
            handle_signal(GetParam());
        },
        testing::ExitedWithCode(0),
        "links 0, supervised 0, asked of pmi 1b100c, of emi 1b10c9;"
        "ns_unpublish\\(KAP_IEMLI_SERVICE_NAME,,65537,\\);itc_unmonitor\\([0-9]+\\);"
        "itc_delete_mailbox\\(65537\\);itc_exit\\(\\);");
}

// A wait for the flow manager takes signals too: the procedure in hand never goes on, and what it holds is let go once.
TEST_P(VornManagerDeathTest, LeavesOutOfTheMiddleOfAProcedure)
{
    for (const bool creating : {true, false}) {
        SetUp();
        start();
        const uint32_t session = open_session();
        if (!creating) {
            ASSERT_EQ(create_link(session, {.vlan = 1}), 1u);
            ASSERT_EQ(create_link(session, {.vlan = 2}), 2u);
        }
        fake::push(daemon_test::CLIENT, creating ? create_request(session, 7, {}) : term_request(session, 7));
        EXPECT_EXIT(
            {
                bool once = false;
                fake::on_send([&once](const fake::Sent &message) {
                    if (message.to == daemon_test::FMI && !once) {
                        once = true;
                        handle_signal(GetParam());
                    }
                    if (message.to == daemon_test::PMI || message.to == daemon_test::EMI) {
                        answer_to(message, true);
                    }
                });
                atexit([] { fprintf(stderr, "links %u;", iml_link_count()); });
                run();
            },
            testing::ExitedWithCode(0), "links 0;");
    }
}

INSTANTIATE_TEST_SUITE_P(OnSigintAndSigterm, VornManagerDeathTest, testing::Values(SIGINT, SIGTERM));

} // namespace
