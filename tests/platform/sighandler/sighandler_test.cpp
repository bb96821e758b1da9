// Signals as plain calls, in processes that wait in itc_receive under a real registry.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <thread>
#include <vector>

#include "itc.h"
#include "itcd_fixture.hpp"
#include "sighandler.h"

namespace
{

using itc_test::Child;
using itc_test::Gate;
using itc_test::join;

constexpr uint32_t MSG_HELLO = 0x100;

std::vector<int> given;
pthread_t given_on;

void take(int signo)
{
    given.push_back(signo);
    given_on = pthread_self();
}

void take_other(int signo) { given.push_back(1000 + signo); }

class Signals : public itc_test::ItcTest
{
protected:
    void SetUp() override
    {
        ItcTest::SetUp();
        start_registry();
    }

    // A process with a mailbox whose signals go to `callback`, set before it joined.
    static int in_process(signal_callback callback, const std::function<bool()> &body)
    {
        Child child([&] {
            if (set_signal_handler(callback) != 0) {
                return 2;
            }
            join("signals");
            return body() ? 0 : 1;
        });
        return child.finish();
    }
};

bool received_nothing() { return itc_receive(nullptr, 0, ITC_FROM_ANY) == nullptr; }

TEST_F(Signals, AreGivenInsideItcReceiveOnTheThreadThatCallsItAndNowhereElse)
{
    EXPECT_EQ(in_process(take,
                         [] {
                             raise(SIGHUP);
                             const bool too_early = !given.empty();
                             const bool quiet = received_nothing();
                             return !too_early && quiet && given == std::vector<int>{SIGHUP} &&
                                    pthread_equal(given_on, pthread_self()) != 0;
                         }),
              0);
}

TEST_F(Signals, OfAllEightKindsReachTheCallback)
{
    EXPECT_EQ(
        in_process(take,
                   [] {
                       for (const int signo : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGWINCH, SIGCONT}) {
                           given.clear();
                           kill(getpid(), signo);
                           received_nothing();
                           if (given != std::vector<int>{signo}) {
                               return false;
                           }
                       }
                       return true;
                   }),
        0);
}

TEST_F(Signals, WakeAProcessThatWaitsForEverAndItsCallbackMayEndTheProcess)
{
    Gate ready;
    Child child([&] {
        set_signal_handler([](int signo) {
            itc_delete_mailbox(itc_current_mbox());
            itc_exit();
            exit(signo == SIGTERM ? 42 : 1);
        });
        join("signals");
        ready.open();
        itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY);
        return 2;
    });
    ASSERT_TRUE(ready.wait());
    ::kill(child.pid, SIGTERM);
    EXPECT_EQ(child.finish(), 42);
}

TEST_F(Signals, LeaveTheMessagesThatWaitInOrder)
{
    EXPECT_EQ(in_process(take,
                         [] {
                             for (uint32_t i = 0; i < 3; i++) {
                                 itc_msg *message = itc_alloc(sizeof(itc_msg), MSG_HELLO + i);
                                 itc_send(&message, itc_current_mbox(), ITC_MY_MBOX);
                             }
                             raise(SIGUSR1);
                             for (uint32_t i = 0; i < 3; i++) {
                                 itc_msg *message = itc_receive(nullptr, 1000, ITC_FROM_ANY);
                                 if (message == nullptr || message->msgno != MSG_HELLO + i) {
                                     return false;
                                 }
                                 itc_free(&message);
                             }
                             received_nothing();
                             return given == std::vector<int>{SIGUSR1};
                         }),
              0);
}

TEST_F(Signals, GoToTheNewCallbackOnceItIsReplaced)
{
    EXPECT_EQ(in_process(take,
                         [] {
                             if (set_signal_handler(take_other) != 0) {
                                 return false;
                             }
                             raise(SIGUSR2);
                             received_nothing();
                             return given == std::vector<int>{1000 + SIGUSR2};
                         }),
              0);
}

TEST_F(Signals, DoNotDisturbThreadsStartedLater)
{
    EXPECT_EQ(in_process(take,
                         [] {
                             bool blocked = false;
                             std::thread([&] {
                                 sigset_t mask;
                                 pthread_sigmask(SIG_BLOCK, nullptr, &mask);
                                 blocked = sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGHUP) == 1;
                             }).join();
                             return blocked;
                         }),
              0);
}

TEST_F(Signals, OfAPipeWithoutReaderAreIgnored)
{
    EXPECT_EQ(in_process(take,
                         [] {
                             int ends[2];
                             if (pipe(ends) != 0 || close(ends[0]) != 0) {
                                 return false;
                             }
                             const bool refused = write(ends[1], "x", 1) == -1 && errno == EPIPE;
                             received_nothing();
                             return refused && given.empty();
                         }),
              0);
}

TEST(SignalHandler, NeedsACallback) { EXPECT_EQ(set_signal_handler(nullptr), EINVAL); }

} // namespace
