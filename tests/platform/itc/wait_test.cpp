/* Waiting: other threads that send, watched descriptors, signals as calls, the descriptor of itc_get_fd. */
#include "itcd_fixture.hpp"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>

using namespace itc_test;

namespace
{

constexpr uint32_t WORK = 0x5101;
constexpr uint32_t LAST = 0x5102;

void send_plain(uint32_t to, uint32_t msgno, uint32_t from = ITC_MY_MBOX)
{
    itc_msg *msg = itc_alloc(4, msgno);
    itc_send(&msg, to, from);
}

uint32_t take(itc_msg *msg)
{
    const uint32_t msgno = msg == nullptr ? 0 : msg->msgno;
    itc_free(&msg);
    return msgno;
}

bool readable(int fd)
{
    pollfd wanted{fd, POLLIN, 0};
    return poll(&wanted, 1, 0) == 1;
}

class ItcWait : public ItcTest
{
protected:
    void SetUp() override
    {
        ItcTest::SetUp();
        if (!IsSkipped()) {
            start_registry();
        }
    }
};

TEST_F(ItcWait, AThreadWithoutAMailboxSendsToTheReceiverThatWaits)
{
    const uint32_t own = join("own");
    std::thread other([own] {
        for (int i = 0; i < 5000; i++) {
            send_plain(own, WORK, own);
        }
        send_plain(own, LAST);
    });
    for (int i = 0; i < 5000; i++) {
        itc_msg *msg = receive_any();
        ASSERT_NE(msg, nullptr);
        ASSERT_EQ(itc_sender(msg), own);
        ASSERT_EQ(take(msg), WORK);
    }
    itc_msg *last = receive_any();
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(itc_sender(last), ITC_NO_MBOX); // that thread has no mailbox of its own
    EXPECT_EQ(take(last), LAST);
    other.join();
}

TEST_F(ItcWait, AWaitWithoutEndIsEndedByAnotherThreadsMessage)
{
    const uint32_t own = join("own");
    std::thread other([own] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30)); // most likely in its wait by then
        send_plain(own, WORK);
    });
    EXPECT_EQ(take(itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY)), WORK);
    other.join();
}

TEST_F(ItcWait, ThreadsWithoutAMailboxSendToAnotherProcess)
{
    constexpr int each = 3000;
    Child sink([] {
        join("sink");
        int count = 0;
        for (int i = 0; i < 2 * each; i++) {
            count += take(receive_any()) == WORK ? 1 : 0;
        }
        itc_exit();
        return count == 2 * each ? 0 : 1;
    });
    join("own");
    const uint32_t to = await("sink");
    const auto work = [to] {
        for (int i = 0; i < each; i++) {
            send_plain(to, WORK);
        }
    };
    std::thread one(work);
    std::thread two(work);
    one.join();
    two.join();
    while (itc_receive(nullptr, 10, ITC_FROM_ANY) == nullptr && kill(sink.pid, 0) == 0 &&
           itc_locate("sink") != ITC_NO_MBOX) {
    }
    EXPECT_EQ(sink.finish(), 0);
}

TEST_F(ItcWait, TwoThreadsWithMailboxesTalkToEachOtherAndToAnotherProcess)
{
    constexpr int rounds = 2000;
    Child echo([] {
        join("echo");
        for (int i = 0; i < 2 * rounds; i++) {
            itc_msg *msg = receive_any();
            if (msg == nullptr) {
                return 1;
            }
            const uint32_t sender = itc_sender(msg);
            itc_free(&msg);
            send_plain(sender, LAST);
        }
        itc_exit();
        return 0;
    });
    const uint32_t own = join("own");
    std::atomic<uint32_t> second{0};
    const auto talk = [](uint32_t remote, uint32_t partner) {
        for (int i = 0; i < rounds; i++) {
            send_plain(remote, WORK);
            send_plain(partner, WORK);
            const uint32_t works[] = {1, WORK};
            const uint32_t lasts[] = {1, LAST};
            if (take(itc_receive(lasts, 10000, remote)) != LAST || take(itc_receive(works, 10000, partner)) != WORK) {
                return false;
            }
        }
        return true;
    };
    std::thread partner([&] {
        second = itc_create_mailbox("second", 0);
        EXPECT_EQ(itc_current_mbox(), second);
        EXPECT_TRUE(talk(await("echo"), own));
    });
    ASSERT_TRUE(eventually([&] { return second != 0; }));
    EXPECT_TRUE(talk(await("echo"), second));
    partner.join();
    EXPECT_EQ(echo.finish(), 0);
}

TEST_F(ItcWait, AThreadThatEndsTakesItsMailboxesWithIt)
{
    join("own");
    std::thread([] { EXPECT_NE(itc_create_mailbox("short", 0), ITC_NO_MBOX); }).join();
    EXPECT_TRUE(eventually([] { return itc_locate("short") == ITC_NO_MBOX; }));
    EXPECT_NE(itc_create_mailbox("short", 0), ITC_NO_MBOX);
}

TEST_F(ItcWait, ExitEndsTheWaitOfAnotherThread)
{
    join("own");
    std::atomic<bool> ready{false};
    std::thread other([&] {
        EXPECT_NE(itc_create_mailbox("second", 0), ITC_NO_MBOX);
        ready = true;
        EXPECT_EQ(itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY), nullptr);
    });
    ASSERT_TRUE(eventually([&] { return ready.load(); }));
    itc_exit();
    other.join();
}

TEST_F(ItcWait, AThreadThatGoesOnAfterExitDoesNoHarm)
{
    Child other([] {
        join("other");
        for (;;) {
            itc_msg *msg = receive_any();
            if (msg == nullptr) {
                return 1;
            }
            const bool last = msg->msgno == 0x5F01;
            itc_free(&msg);
            if (last) {
                return 0;
            }
        }
    });
    const uint32_t own = join("own");
    const uint32_t to = await("other");
    std::atomic<bool> stop{false};
    std::atomic<unsigned> rounds{0};
    std::thread busy([&] {
        while (!stop) {
            for (const uint32_t mbox : {own, to, ITC_NO_MBOX}) {
                itc_msg *msg = itc_alloc(200, 0x5F00);
                itc_send(&msg, mbox, ITC_MY_MBOX);
                EXPECT_EQ(msg, nullptr);
            }
            itc_msg *kept = itc_alloc(100, 0x5F00);
            EXPECT_EQ(itc_size(kept), 100u);
            itc_free(&kept);
            rounds++;
        }
    });
    ASSERT_TRUE(eventually([&] { return rounds > 100; }));
    itc_exit();
    const unsigned at_exit = rounds;
    EXPECT_TRUE(eventually([&] { return rounds > at_exit + 100; }));
    itc_statistics now{};
    itc_get_statistics(&now);
    const uint64_t sent = now.sent;
    const unsigned since = rounds;
    EXPECT_TRUE(eventually([&] { return rounds > since + 100; }));
    itc_get_statistics(&now);
    EXPECT_EQ(now.sent, sent) << "nothing is sent any more";
    join("own"); // and a new life begins beside it
    const uint32_t again = await("other");
    EXPECT_EQ(again, to);
    itc_msg *end = itc_alloc(4, 0x5F01);
    itc_send(&end, again, ITC_MY_MBOX);
    EXPECT_EQ(other.finish(), 0);
    stop = true;
    busy.join();
}

int leave_while_a_thread_sends()
{
    join("leaver");
    std::atomic<unsigned> *rounds = new std::atomic<unsigned>; // outlives the process's end, as the thread does
    std::thread([rounds] {
        for (;;) {
            itc_msg *msg = itc_alloc(200, 0x5F00);
            itc_send(&msg, 0x1001, ITC_MY_MBOX);
            msg = itc_alloc(100, 0x5F00);
            itc_free(&msg);
            ++*rounds;
        }
    }).detach();
    const bool running = eventually([&] { return *rounds > 100; });
    itc_exit();
    return running ? 0 : 1; // and the process ends, while the thread still runs
}

TEST_F(ItcWait, AProcessMayEndWhileAThreadStillSends)
{
    for (int i = 0; i < 20; i++) {
        Child leaver([] { return leave_while_a_thread_sends(); });
        ASSERT_EQ(leaver.finish(), 0);
    }
}

// ---- Watched descriptors
// ---------------------------------------------------------------------------------------------

struct counter {
    int fd;
    int calls = 0;
    std::thread::id thread = {};
};

void count(void *arg)
{
    auto *c = static_cast<counter *>(arg);
    uint64_t value;
    (void)!read(c->fd, &value, sizeof value);
    c->calls++;
    c->thread = std::this_thread::get_id();
}

void ring(int fd)
{
    const uint64_t one = 1;
    (void)!write(fd, &one, sizeof one);
}

TEST_F(ItcWait, AWatchedDescriptorCallsOnTheReceivingThreadOutOfItsWait)
{
    counter c{eventfd(0, EFD_CLOEXEC)};
    ASSERT_EQ(itc_watch_fd(c.fd, count, &c), 0); // before itc_init
    join("own");
    std::thread other([&] { ring(c.fd); });
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(itc_receive(nullptr, 1, ITC_FROM_ANY), nullptr);
        return c.calls == 1;
    }));
    other.join();
    EXPECT_EQ(c.thread, std::this_thread::get_id());
    itc_unwatch_fd(c.fd);
    ring(c.fd);
    EXPECT_EQ(itc_receive(nullptr, 5, ITC_FROM_ANY), nullptr);
    EXPECT_EQ(c.calls, 1);
    close(c.fd);
}

TEST_F(ItcWait, AWatchIsNotKeptWaitingByAFloodOfMessages)
{
    counter c{eventfd(0, EFD_CLOEXEC)};
    const uint32_t own = join("own");
    ASSERT_EQ(itc_watch_fd(c.fd, count, &c), 0);
    for (int i = 0; i < 10; i++) {
        send_plain(own, WORK);
    }
    ring(c.fd);
    int taken = 0;
    while (c.calls == 0 && taken < 1000) {
        send_plain(own, WORK);
        ASSERT_EQ(take(receive_any()), WORK);
        taken++;
    }
    EXPECT_EQ(c.calls, 1);
    EXPECT_LT(taken, 100);
    itc_unwatch_fd(c.fd);
    close(c.fd);
}

TEST_F(ItcWait, AWatchDoesNotRunInsideALocate)
{
    counter c{eventfd(0, EFD_CLOEXEC)};
    join("own");
    ASSERT_EQ(itc_watch_fd(c.fd, count, &c), 0);
    ring(c.fd);
    EXPECT_EQ(itc_locate("nobody"), ITC_NO_MBOX);
    EXPECT_EQ(c.calls, 0);
    EXPECT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr);
    EXPECT_EQ(c.calls, 1);
    itc_unwatch_fd(c.fd);
    close(c.fd);
}

TEST_F(ItcWait, WatchingTwiceOrNothingIsRefused)
{
    counter c{eventfd(0, EFD_CLOEXEC)};
    EXPECT_EQ(itc_watch_fd(c.fd, nullptr, &c), EINVAL);
    EXPECT_EQ(itc_watch_fd(-1, count, &c), EBADF);
    EXPECT_EQ(itc_watch_fd(c.fd, count, &c), 0);
    EXPECT_EQ(itc_watch_fd(c.fd, count, &c), EEXIST);
    itc_unwatch_fd(c.fd);
    itc_unwatch_fd(c.fd);
    close(c.fd);
}

TEST_F(ItcWait, ACallbackMayReceiveAndSendItself)
{
    struct nested {
        int fd;
        uint32_t own;
        uint32_t got = 0;
    };
    nested n{eventfd(0, EFD_CLOEXEC), join("own")};
    const auto callback = [](void *arg) {
        auto *it = static_cast<nested *>(arg);
        uint64_t value;
        (void)!read(it->fd, &value, sizeof value);
        send_plain(it->own, LAST);
        it->got = take(itc_receive(nullptr, 1000, ITC_FROM_ANY));
    };
    ASSERT_EQ(itc_watch_fd(n.fd, callback, &n), 0);
    ring(n.fd);
    EXPECT_EQ(itc_receive(nullptr, 20, ITC_FROM_ANY), nullptr);
    EXPECT_EQ(n.got, LAST);
    itc_unwatch_fd(n.fd);
    close(n.fd);
}

// What a daemon does on SIGTERM, called out of its wait.
void leave_on_signal(void *)
{
    itc_delete_mailbox(itc_current_mbox());
    itc_exit();
    exit(7);
}

TEST_F(ItcWait, ACallbackMayLeaveItcAndEndTheProcess)
{
    Child daemon([] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        itc_watch_fd(signalfd(-1, &set, SFD_CLOEXEC), leave_on_signal, nullptr);
        const uint32_t own = join("daemon");
        std::thread([own] {
            for (;;) { // a thread beside it that goes on sending while the process ends
                send_plain(own, WORK, own);
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        }).detach();
        for (;;) {
            itc_msg *msg = itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY);
            itc_free(&msg);
        }
        return 1;
    });
    join("own");
    const uint32_t mbox = await("daemon");
    itc_msg *down = itc_alloc(4, LAST);
    itc_monitor(mbox, &down);
    kill(daemon.pid, SIGTERM);
    itc_msg *msg = receive(LAST);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(itc_sender(msg), mbox);
    itc_free(&msg);
    EXPECT_EQ(daemon.finish(), 7);
}

TEST_F(ItcWait, ACallbackMayLeaveItcAndReturn)
{
    counter c{eventfd(0, EFD_CLOEXEC)};
    join("own");
    ASSERT_EQ(itc_watch_fd(
                  c.fd, [](void *) { itc_exit(); }, nullptr),
              0);
    ring(c.fd);
    EXPECT_EQ(itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY), nullptr);
    EXPECT_EQ(itc_current_mbox(), ITC_NO_MBOX);
    itc_unwatch_fd(c.fd);
    close(c.fd);
}

// ---- The descriptor
// --------------------------------------------------------------------------------------------------

TEST_F(ItcWait, TheDescriptorIsReadableForAMessageOfAnotherProcessAndQuietAfterwards)
{
    Gate go;
    Child other([&] {
        join("other");
        const uint32_t to = await("own");
        if (!go.wait()) {
            return 1;
        }
        send_plain(to, WORK);
        const bool told = take(receive(LAST)) == LAST;
        itc_exit();
        return told ? 0 : 2;
    });
    join("own");
    const uint32_t to = await("other");
    const int fd = itc_get_fd();
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr);
        return !readable(fd);
    }));
    go.open();
    EXPECT_TRUE(eventually([&] { return readable(fd); }));
    EXPECT_EQ(take(itc_receive(nullptr, 0, ITC_FROM_ANY)), WORK);
    EXPECT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr);
    EXPECT_FALSE(readable(fd));
    send_plain(to, LAST);
    EXPECT_EQ(other.finish(), 0);
}

TEST_F(ItcWait, TheDescriptorStaysReadableWhileMessagesAreQueued)
{
    const uint32_t own = join("own");
    const int fd = itc_get_fd();
    EXPECT_FALSE(readable(fd));
    for (int i = 0; i < 3; i++) {
        send_plain(own, WORK);
    }
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(readable(fd));
        EXPECT_EQ(take(itc_receive(nullptr, 0, ITC_FROM_ANY)), WORK);
    }
    EXPECT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr);
    EXPECT_FALSE(readable(fd));
}

TEST_F(ItcWait, NothingHappeningCostsNoTime)
{
    join("own");
    timespec before{};
    timespec after{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
    EXPECT_EQ(itc_receive(nullptr, 300, ITC_FROM_ANY), nullptr);
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
    const double used =
        static_cast<double>(after.tv_sec - before.tv_sec) + static_cast<double>(after.tv_nsec - before.tv_nsec) / 1e9;
    EXPECT_LT(used, 0.05); // a loop that spins would use all of it
}

} // namespace
