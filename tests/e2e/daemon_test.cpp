// The daemon as a process: deaths, signals, arguments, and what it costs when nothing happens.
#include <csignal>
#include <fstream>

#include <poll.h>

#include "e2e.hpp"

using namespace std::chrono_literals;

namespace
{

// How often the process has given the processor back: it grows with every wake-up.
uint64_t wake_ups(const child_process &child)
{
    std::ifstream file("/proc/" + std::to_string(child.pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
            return std::stoull(line.substr(line.find(':') + 1));
        }
    }
    ADD_FAILURE() << "the kernel does not say";
    return 0;
}

constexpr int QUIET_MS = 2000;

// Neither runs nor is woken for as long as it is looked at: the time itself is what is observed here.
bool stays_asleep(const child_process &child)
{
    const double cpu = process_cpu_seconds(child);
    const uint64_t woken = wake_ups(child);
    poll(nullptr, 0, QUIET_MS);
    return process_cpu_seconds(child) == cpu && wake_ups(child) == woken;
}

} // namespace

TEST_F(EndToEnd, AClientIsToldThatTheDaemonDied)
{
    start();
    demo_create(d, demo_first_wish(d));
    kill_process(DAEMON);
    wait_event(iemli_event_kind::server_died);
    EXPECT_EQ(iemli_client_delete_link(d.client, 1).outcome, iemli_outcome::lost);
}

TEST_F(EndToEnd, ANewDaemonIsFoundAfterTheDeathOfTheOld)
{
    start();
    kill_process(DAEMON);
    wait_event(iemli_event_kind::server_died);
    stage_start_process(d.stage, DAEMON);
    stage_wait(d.stage, "the new daemon publishes its service", 10s,
               [this] { return iemli_client_wait_published(d.client, 10); });
    EXPECT_EQ(iemli_client_open(d.client).outcome, iemli_outcome::confirmed);
}

TEST_F(EndToEnd, HangUpIsTracedAndChangesNothing)
{
    start();
    process_signal(daemon(), SIGHUP);
    wait_log(DAEMON, "WARNING: Received SIGHUP signal.");
    EXPECT_EQ(iemli_client_get_mac(d.client, "IDL_A1", 1).outcome, iemli_outcome::confirmed);
}

TEST_F(EndToEnd, InterruptEndsTheDaemonWithStatusZero)
{
    start();
    child_process ended = stage_stop_process(d.stage, DAEMON, SIGINT, 5s);
    EXPECT_EQ(process_status_text(ended), "exit status 0");
    wait_event(iemli_event_kind::withdrawn);
}

TEST_F(EndToEnd, ArgumentsOfTheDaemonAreNotRead)
{
    d.stage.daemon_arguments = {"--help", "--version", "nonsense"};
    start();
    EXPECT_EQ(iemli_client_get_mac(d.client, "IDL_A1", 1).outcome, iemli_outcome::confirmed);
}

TEST_F(EndToEnd, TheDaemonHasOneThreadAndASecondOnceItSupervises)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "the thread sanitizer has a thread of its own";
#endif
    start();
    EXPECT_EQ(process_thread_count(daemon()), 1);
    demo_link &link = demo_create(d, demo_first_wish(d));
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, 5s);
    EXPECT_EQ(process_thread_count(daemon()), 2);
}

TEST_F(EndToEnd, AnIdleDaemonDoesNotWakeUp)
{
    start();
    EXPECT_EQ(iemli_client_close(d.client).outcome, iemli_outcome::confirmed);
    // It has answered, but what the start brought may still be coming in. A daemon that wakes by itself never stays
    // asleep.
    EXPECT_TRUE(stays_asleep(daemon()) || stays_asleep(daemon()) || stays_asleep(daemon()));
}

// ---- A lower-layer service dies -------------------------------------------------------------------------------------

class LowerLayer : public EndToEnd, public testing::WithParamInterface<const char *>
{
};

TEST_P(LowerLayer, ItsDeathWithdrawsTheServiceAndEndsTheSessions)
{
    start();
    kill_process(GetParam());
    wait_event(iemli_event_kind::withdrawn);
    EXPECT_TRUE(process_running(daemon()));
    EXPECT_EQ(iemli_client_get_mac(d.client, "IDL_A1", 1).outcome, iemli_outcome::lost);
}

INSTANTIATE_TEST_SUITE_P(Service, LowerLayer, testing::Values("iepcsi", "pmi", "emi", "fmi"),
                         [](const auto &service) { return std::string(service.param); });
