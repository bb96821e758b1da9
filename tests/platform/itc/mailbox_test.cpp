/* What two processes see of each other through ITC: messages, order, names, deaths. */
#include "itcd_fixture.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>

#include "slowness.hpp"

using namespace itc_test;

namespace
{

constexpr uint32_t PING = 0x5001;
constexpr uint32_t PONG = 0x5002;
constexpr uint32_t STOP = 0x5003;
constexpr uint32_t GONE = 0x5004;

struct numbered {
    uint32_t msgno;
    uint32_t value;
};

void send_number(uint32_t to, uint32_t msgno, uint32_t value, uint32_t from = ITC_MY_MBOX)
{
    itc_msg *msg = itc_alloc(sizeof(numbered), msgno);
    reinterpret_cast<numbered *>(msg)->value = value;
    itc_send(&msg, to, from);
}

uint32_t number_of(const itc_msg *msg) { return reinterpret_cast<const numbered *>(msg)->value; }

// Takes the message apart and frees it: number, value, sender. Number 0 for none.
struct seen {
    uint32_t msgno = 0;
    uint32_t value = 0;
    uint32_t sender = ITC_NO_MBOX;
    bool operator==(const seen &) const = default;
};

std::ostream &operator<<(std::ostream &to, const seen &s)
{
    return to << "{" << std::hex << s.msgno << ", " << s.value << ", " << s.sender << "}";
}

seen take(itc_msg *msg)
{
    if (msg == nullptr) {
        return {};
    }
    const seen s{msg->msgno, itc_size(msg) >= sizeof(numbered) ? number_of(msg) : 0, itc_sender(msg)};
    itc_free(&msg);
    return s;
}

seen look() { return take(itc_receive(nullptr, 0, ITC_FROM_ANY)); }

// Echoes every PING as a PONG with the same value, until STOP.
int echo(const char *name)
{
    join(name);
    for (;;) {
        const seen s = take(itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY));
        if (s.msgno != PING) {
            itc_exit();
            return s.msgno == STOP ? 0 : 1;
        }
        send_number(s.sender, PONG, s.value);
    }
}

class ItcMailbox : public ItcTest
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

TEST_F(ItcMailbox, AMessageToAnotherProcessComesBackWithItsSender)
{
    Child other([] { return echo("other"); });
    const uint32_t own = join("own");
    const uint32_t mbox = await("other");
    ASSERT_NE(mbox, ITC_NO_MBOX);
    EXPECT_NE(mbox, own);
    send_number(mbox, PING, 42);
    EXPECT_EQ(take(receive_any()), (seen{PONG, 42, mbox}));
    send_number(mbox, STOP, 0);
    EXPECT_EQ(other.finish(), 0);
}

TEST_F(ItcMailbox, IdsAreFarFromTheOnesWithAMeaning)
{
    const uint32_t own = join("own");
    EXPECT_GT(own, 0xFFFu);
    EXPECT_LT(own, 0xF0000000u);
}

TEST_F(ItcMailbox, InitTwiceIsRefusedAndAfterExitItWorksAgain)
{
    join("own");
    EXPECT_EQ(itc_init(1, 0, nullptr, nullptr, 0), EALREADY);
    itc_exit();
    EXPECT_EQ(itc_current_mbox(), ITC_NO_MBOX);
    EXPECT_NE(join("own"), ITC_NO_MBOX);
}

TEST_F(ItcMailbox, CurrentMailboxIsTheFirstOfTheCallingThread)
{
    const uint32_t first = join("first");
    const uint32_t second = itc_create_mailbox("second", 0);
    ASSERT_NE(second, ITC_NO_MBOX);
    EXPECT_EQ(itc_current_mbox(), first);
    std::thread([] { EXPECT_EQ(itc_current_mbox(), ITC_NO_MBOX); }).join();
    EXPECT_EQ(itc_delete_mailbox(first), 0);
    EXPECT_EQ(itc_current_mbox(), second);
}

TEST_F(ItcMailbox, BothMailboxesOfAThreadAreReceivedFromInOrderOfArrival)
{
    const uint32_t first = join("first");
    const uint32_t second = itc_create_mailbox("second", 0);
    send_number(second, PING, 1, first);
    send_number(first, PING, 2, second);
    EXPECT_EQ(look(), (seen{PING, 1, first}));
    EXPECT_EQ(look(), (seen{PING, 2, second}));
}

TEST_F(ItcMailbox, NoMoreMailboxesThanInitAllowed)
{
    join("one", 1);
    EXPECT_EQ(itc_create_mailbox("two", 0), ITC_NO_MBOX);
    EXPECT_EQ(itc_delete_mailbox(itc_current_mbox()), 0);
    EXPECT_NE(itc_create_mailbox("two", 0), ITC_NO_MBOX);
}

TEST_F(ItcMailbox, ATakenNameIsRefusedAndFreeAgainWhenItsMailboxIsGone)
{
    const uint32_t own = join("name");
    EXPECT_EQ(itc_create_mailbox("name", 0), ITC_NO_MBOX);
    const uint32_t second = itc_create_mailbox("second", 0);
    EXPECT_EQ(itc_add_name(second, "name"), EEXIST);
    EXPECT_EQ(itc_delete_mailbox(own), 0);
    EXPECT_EQ(itc_add_name(second, "name"), 0);
    EXPECT_EQ(itc_locate("name"), second);
}

TEST_F(ItcMailbox, ASecondNameFindsTheSameMailboxAndMayBeGivenAgain)
{
    const uint32_t own = join("own");
    EXPECT_EQ(itc_add_name(own, "alias"), 0);
    EXPECT_EQ(itc_add_name(own, "alias"), 0);
    EXPECT_EQ(itc_locate("alias"), own);
    EXPECT_EQ(itc_locate("own"), own);
    EXPECT_EQ(itc_locate("nobody"), ITC_NO_MBOX);
}

TEST_F(ItcMailbox, NamesThatAreNoNamesAreRefused)
{
    const uint32_t own = join("own");
    const std::string longest(255, 'n');
    EXPECT_EQ(itc_add_name(own, longest.c_str()), 0);
    EXPECT_EQ(itc_locate(longest.c_str()), own);
    EXPECT_EQ(itc_add_name(own, (longest + "n").c_str()), EINVAL);
    EXPECT_EQ(itc_add_name(own, ""), EINVAL);
    EXPECT_EQ(itc_add_name(own, nullptr), EINVAL);
    EXPECT_EQ(itc_add_name(own + 1, "foreign"), EINVAL);
    EXPECT_EQ(itc_create_mailbox("", 0), ITC_NO_MBOX);
    EXPECT_EQ(itc_create_mailbox("flagged", 1), ITC_NO_MBOX);
}

TEST_F(ItcMailbox, DeletingOneThatIsNotOursIsRefused)
{
    const uint32_t own = join("own");
    EXPECT_EQ(itc_delete_mailbox(own + 1), EINVAL);
    EXPECT_EQ(itc_delete_mailbox(ITC_NO_MBOX), EINVAL);
    EXPECT_EQ(itc_delete_mailbox(own), 0);
    EXPECT_EQ(itc_delete_mailbox(own), EINVAL);
}

TEST_F(ItcMailbox, DeletingAMailboxFreesItsMessagesAndNoOthers)
{
    const uint32_t first = join("first");
    const uint32_t second = itc_create_mailbox("second", 0);
    send_number(first, PING, 1);
    send_number(second, PING, 2);
    send_number(first, PING, 3);
    EXPECT_EQ(itc_delete_mailbox(first), 0);
    EXPECT_EQ(look(), (seen{PING, 2, first}));
    EXPECT_EQ(look(), seen{});
}

TEST_F(ItcMailbox, ALateMessageToADeadMailboxDoesNotReachTheNextOne)
{
    const uint32_t dead = join("own");
    EXPECT_EQ(itc_delete_mailbox(dead), 0);
    const uint32_t fresh = itc_create_mailbox("own", 0);
    EXPECT_NE(fresh, dead);
    send_number(dead, PING, 1);
    EXPECT_EQ(look(), seen{});
}

TEST_F(ItcMailbox, OrderBetweenTwoMailboxesIsKeptAlsoThroughABacklog)
{
    constexpr uint32_t count = 200000; // far more than the sockets hold
    Child sender([] {
        join("sender");
        const uint32_t to = await("receiver");
        uint32_t sent = 0;
        while (sent < count) {
            itc_statistics now{};
            for (int i = 0; i < 1000; i++) {
                send_number(to, PING, sent++);
            }
            // Stay below the outbox's bound: one acknowledgement for each thousand.
            if (take(receive(PONG)).msgno != PONG) {
                return 1;
            }
            itc_get_statistics(&now);
            if (now.dropped_full != 0) {
                return 2;
            }
        }
        itc_exit();
        return 0;
    });
    join("receiver");
    for (uint32_t i = 0; i < count; i++) {
        const seen s = take(receive_any());
        ASSERT_EQ(s.value, i);
        if (i % 1000 == 500) {
            send_number(s.sender, PONG, i); // half a thousand ahead, so that two thousand are under way
        }
    }
    EXPECT_EQ(sender.finish(), 0);
}

TEST_F(ItcMailbox, TenThousandMessagesGoBothWays)
{
    constexpr uint32_t count = 10000;
    const auto exchange = [](const char *own, const char *other) {
        join(own);
        const uint32_t to = await(other);
        for (uint32_t i = 0; i < count; i++) {
            send_number(to, PING, i);
        }
        for (uint32_t i = 0; i < count; i++) {
            if (take(receive_any()).value != i) {
                return 1;
            }
        }
        itc_exit();
        return 0;
    };
    Child one([&] { return exchange("one", "two"); });
    Child two([&] { return exchange("two", "one"); });
    EXPECT_EQ(one.finish(), 0);
    EXPECT_EQ(two.finish(), 0);
}

TEST_F(ItcMailbox, AFilterTakesTheFirstThatPassesAndLeavesTheOthersInOrder)
{
    const uint32_t own = join("own");
    for (uint32_t i = 1; i <= 6; i++) {
        send_number(own, i % 2 == 0 ? PONG : PING, i);
    }
    const uint32_t pongs[] = {2, 0x9999, PONG};
    EXPECT_EQ(take(itc_receive(pongs, 0, ITC_FROM_ANY)).value, 2u);
    EXPECT_EQ(take(itc_receive(pongs, 0, ITC_FROM_ANY)).value, 4u);
    EXPECT_EQ(look().value, 1u);
    send_number(own, PONG, 7);
    EXPECT_EQ(look().value, 3u);
    EXPECT_EQ(look().value, 5u);
    EXPECT_EQ(look().value, 6u);
    EXPECT_EQ(look().value, 7u);
    EXPECT_EQ(look(), seen{});
}

TEST_F(ItcMailbox, AFilterOfNoNumbersPassesNothing)
{
    const uint32_t own = join("own");
    send_number(own, PING, 1);
    const uint32_t none[] = {0};
    EXPECT_EQ(itc_receive(none, 0, ITC_FROM_ANY), nullptr);
    EXPECT_EQ(look().value, 1u);
}

TEST_F(ItcMailbox, OnlyTheWantedSenderPasses)
{
    const uint32_t first = join("first");
    const uint32_t second = itc_create_mailbox("second", 0);
    send_number(first, PING, 1, first);
    send_number(first, PING, 2, second);
    EXPECT_EQ(take(itc_receive(nullptr, 0, second)).value, 2u);
    EXPECT_EQ(itc_receive(nullptr, 0, second), nullptr);
    EXPECT_EQ(look().value, 1u);
}

TEST_F(ItcMailbox, AFilteredWaitIsNotEndedByOtherMessages)
{
    Child other([] { return echo("other"); });
    join("own");
    const uint32_t mbox = await("other");
    itc_msg *queued = itc_alloc(4, STOP);
    itc_send(&queued, itc_current_mbox(), ITC_MY_MBOX);
    send_number(mbox, PING, 5);
    EXPECT_EQ(take(receive(PONG)), (seen{PONG, 5, mbox}));
    EXPECT_EQ(look().msgno, STOP);
    send_number(mbox, STOP, 0);
    EXPECT_EQ(other.finish(), 0);
}

TEST_F(ItcMailbox, AReceiveWithATimeOutEndsWhenItIsOverAndNotBefore)
{
    join("own");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(itc_receive(nullptr, 60, ITC_FROM_ANY), nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
}

TEST_F(ItcMailbox, AMessageThatWasReceivedCanBeSentOnAndCarriesTheNewSender)
{
    const uint32_t first = join("first");
    const uint32_t second = itc_create_mailbox("second", 0);
    send_number(first, PING, 9, first);
    itc_msg *msg = itc_receive(nullptr, 0, ITC_FROM_ANY);
    itc_send(&msg, second, second);
    EXPECT_EQ(msg, nullptr);
    EXPECT_EQ(look(), (seen{PING, 9, second}));
}

TEST_F(ItcMailbox, AForeignMailboxAsSenderIsNotBelieved)
{
    const uint32_t own = join("own");
    send_number(own, PING, 1, 0x00F00123);
    EXPECT_EQ(look(), (seen{PING, 1, ITC_NO_MBOX}));
}

TEST_F(ItcMailbox, AMessageToNobodyIsFreedAndCountedAndNothingMore)
{
    const uint32_t own = join("own");
    itc_statistics before{};
    itc_get_statistics(&before);
    for (const uint32_t to : {ITC_NO_MBOX, 0u, own + 7, ITC_FROM_ANY, ITC_MY_MBOX}) {
        send_number(to, PING, 1);
    }
    itc_statistics after{};
    itc_get_statistics(&after);
    EXPECT_EQ(after.dropped_no_mailbox - before.dropped_no_mailbox, 5u);
    send_number(0x0EEEE000, PING, 1); // a process that never was: the registry says so
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(itc_receive(nullptr, 1, ITC_FROM_ANY), nullptr);
        itc_get_statistics(&after);
        return after.dropped_no_mailbox - before.dropped_no_mailbox == 6;
    }));
}

TEST_F(ItcMailbox, AMessageOfAHundredMegabytesArrivesWhole)
{
    constexpr size_t size = 100u << 20;
    Child sender([] {
        join("sender");
        const uint32_t to = await("receiver");
        itc_msg *msg = itc_alloc(size, PING);
        auto *bytes = reinterpret_cast<uint8_t *>(msg);
        for (size_t i = 4; i < size; i += 4093) {
            bytes[i] = static_cast<uint8_t>(i / 4093);
        }
        bytes[size - 1] = 0xAB;
        itc_send(&msg, to, ITC_MY_MBOX);
        send_number(to, PONG, 1); // behind it
        const seen s = take(receive(STOP));
        itc_exit();
        return s.msgno == STOP ? 0 : 1;
    });
    join("receiver");
    itc_msg *msg = receive_any();
    ASSERT_NE(msg, nullptr);
    ASSERT_EQ(itc_size(msg), size);
    const auto *bytes = reinterpret_cast<const uint8_t *>(msg);
    size_t wrong = 0;
    for (size_t i = 4; i < size - 1; i += 4093) {
        wrong += bytes[i] == static_cast<uint8_t>(i / 4093) ? 0 : 1;
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(bytes[size - 1], 0xAB);
    const uint32_t sender_mbox = itc_sender(msg);
    itc_free(&msg);
    EXPECT_EQ(take(receive_any()).msgno, PONG);
    send_number(sender_mbox, STOP, 0);
    EXPECT_EQ(sender.finish(), 0);
}

TEST_F(ItcMailbox, SizesAroundTheReadersBufferArriveWholeAndInOrder)
{
    const std::vector<size_t> sizes = {4, 5, 4096, 65527, 65528, 65529, 65536, 65537, 131072, 200001, 4};
    Child sender([&] {
        join("sender");
        const uint32_t to = await("receiver");
        for (const size_t size : sizes) {
            itc_msg *msg = itc_alloc(size, PING);
            memset(reinterpret_cast<uint8_t *>(msg) + 4, static_cast<int>(size % 251), size - 4);
            itc_send(&msg, to, ITC_MY_MBOX);
        }
        itc_exit();
        return 0;
    });
    join("receiver");
    for (const size_t size : sizes) {
        itc_msg *msg = receive_any();
        ASSERT_NE(msg, nullptr);
        ASSERT_EQ(itc_size(msg), size);
        const auto *bytes = reinterpret_cast<const uint8_t *>(msg);
        EXPECT_EQ(std::vector<uint8_t>(bytes + 4, bytes + size),
                  std::vector<uint8_t>(size - 4, static_cast<uint8_t>(size % 251)));
        itc_free(&msg);
    }
    EXPECT_EQ(sender.finish(), 0);
}

TEST_F(ItcMailbox, SendingToAReceiverThatNeverReadsDoesNotBlockAndWhatTheBoundDropsIsCounted)
{
    Gate done;
    Child deaf([&] {
        join("deaf");
        return done.wait() ? 0 : 1;
    });
    join("own");
    const uint32_t to = await("deaf");
    constexpr uint64_t count = 400;
    constexpr size_t size = 100000; // 40 megabytes against a bound of 16
    itc_statistics before{};
    itc_get_statistics(&before);
    const auto start = std::chrono::steady_clock::now();
    for (uint64_t i = 0; i < count; i++) {
        itc_msg *msg = itc_alloc(size, PING);
        itc_send(&msg, to, ITC_MY_MBOX);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5) * slowness());
    itc_statistics now{};
    itc_get_statistics(&now);
    const uint64_t dropped = now.dropped_full - before.dropped_full;
    EXPECT_GT(dropped, 200u);
    EXPECT_LT(dropped, 250u);
    EXPECT_EQ(now.sent - before.sent + dropped, count);
    done.open();
    EXPECT_EQ(deaf.finish(), 0);
}

TEST_F(ItcMailbox, WhatTheBoundLetThroughArrivesInOrderWhenTheReceiverReads)
{
    Gate read;
    Child late([&] {
        join("late");
        if (!read.wait()) {
            return 1;
        }
        uint32_t last = 0;
        for (;;) {
            const seen s = take(receive_any());
            if (s.msgno == STOP) {
                return 0;
            }
            if (s.value <= last) {
                return 2;
            }
            last = s.value;
        }
    });
    join("own");
    const uint32_t to = await("late");
    for (uint32_t i = 1; i <= 300; i++) {
        itc_msg *msg = itc_alloc(100000, PING);
        reinterpret_cast<numbered *>(msg)->value = i;
        itc_send(&msg, to, ITC_MY_MBOX);
    }
    itc_msg *down = itc_alloc(4, GONE);
    itc_monitor(to, &down);
    read.open();
    ASSERT_EQ(itc_receive(nullptr, 50, ITC_FROM_ANY), nullptr); // the outbox goes out in here
    ASSERT_TRUE(eventually([&] {
        itc_statistics now{};
        itc_get_statistics(&now);
        const uint64_t dropped = now.dropped_full;
        send_number(to, STOP, 0);
        itc_get_statistics(&now);
        return now.dropped_full == dropped;
    }));
    EXPECT_EQ(take(receive(GONE)).sender, to);
    EXPECT_EQ(late.finish(), 0);
}

// ---- Locating and deaths
// ---------------------------------------------------------------------------------------------

TEST_F(ItcMailbox, ALocatedMessageComesWhenTheNameAppearsAndItsSenderIsTheMailboxFound)
{
    Gate go;
    Child late([&] {
        if (!go.wait()) {
            return 1;
        }
        return echo("late");
    });
    const uint32_t own = join("own");
    itc_msg *up = itc_alloc(12, PONG);
    itc_locate_async("late", &up, own);
    EXPECT_EQ(up, nullptr);
    EXPECT_EQ(itc_receive(nullptr, 30, ITC_FROM_ANY), nullptr);
    go.open();
    const seen s = take(receive_any());
    EXPECT_EQ(s.msgno, PONG);
    EXPECT_EQ(s.sender, itc_locate("late"));
    EXPECT_NE(s.sender, ITC_NO_MBOX);
    send_number(s.sender, STOP, 0);
    EXPECT_EQ(late.finish(), 0);
}

TEST_F(ItcMailbox, ALocateIsDeliveredOnce)
{
    const uint32_t own = join("own");
    itc_msg *up = itc_alloc(4, PONG);
    itc_locate_async("alias", &up, own);
    ASSERT_EQ(itc_add_name(own, "alias"), 0);
    EXPECT_EQ(take(receive_any()).msgno, PONG);
    const uint32_t second = itc_create_mailbox("second", 0);
    ASSERT_EQ(itc_delete_mailbox(own), 0);
    ASSERT_EQ(itc_add_name(second, "alias"), 0);
    EXPECT_EQ(look(), seen{});
}

TEST_F(ItcMailbox, ALocateForADeletedMailboxIsForgotten)
{
    const uint32_t own = join("own");
    const uint32_t second = itc_create_mailbox("second", 0);
    itc_msg *up = itc_alloc(4, PONG);
    itc_locate_async("alias", &up, second);
    ASSERT_EQ(itc_delete_mailbox(second), 0);
    ASSERT_EQ(itc_add_name(own, "alias"), 0);
    EXPECT_EQ(look(), seen{});
}

TEST_F(ItcMailbox, TheMonitorsMessageHasTheDeadMailboxAsItsSender)
{
    Child victim([] { return echo("victim"); });
    join("own");
    const uint32_t mbox = await("victim");
    itc_msg *down = itc_alloc(12, GONE);
    EXPECT_NE(itc_monitor(mbox, &down), 0u);
    EXPECT_EQ(down, nullptr);
    EXPECT_EQ(look(), seen{});
    victim.kill();
    EXPECT_EQ(take(receive_any()), (seen{GONE, 0, mbox}));
    EXPECT_EQ(itc_locate("victim"), ITC_NO_MBOX);
}

TEST_F(ItcMailbox, DeletingTheMailboxIsADeathToo)
{
    const uint32_t own = join("own");
    const uint32_t second = itc_create_mailbox("second", 0);
    itc_msg *down = itc_alloc(4, GONE);
    itc_monitor(second, &down);
    ASSERT_EQ(itc_delete_mailbox(second), 0);
    EXPECT_EQ(take(receive_any()), (seen{GONE, 0, second}));
    EXPECT_EQ(itc_current_mbox(), own);
}

TEST_F(ItcMailbox, AMonitorOfAMailboxThatDoesNotExistIsDeliveredAtOnce)
{
    join("own");
    itc_msg *down = itc_alloc(4, GONE);
    itc_monitor(0x0EEEE001, &down);
    EXPECT_EQ(take(receive_any()), (seen{GONE, 0, 0x0EEEE001}));
}

TEST_F(ItcMailbox, AnEndedMonitorDeliversNothing)
{
    join("own");
    const uint32_t second = itc_create_mailbox("second", 0);
    itc_msg *down = itc_alloc(4, GONE);
    const uint32_t monitor = itc_monitor(second, &down);
    itc_unmonitor(monitor);
    ASSERT_EQ(itc_delete_mailbox(second), 0);
    EXPECT_EQ(look(), seen{});
    itc_unmonitor(monitor);
    itc_unmonitor(0);
}

TEST_F(ItcMailbox, EndingAMonitorTakesBackAMessageThatWasNotReceivedYet)
{
    const uint32_t own = join("own");
    const uint32_t second = itc_create_mailbox("second", 0);
    itc_msg *down = itc_alloc(4, GONE);
    const uint32_t monitor = itc_monitor(second, &down);
    ASSERT_EQ(itc_delete_mailbox(second), 0);
    send_number(own, PING, 1);
    const uint32_t pings[] = {1, PING};
    ASSERT_EQ(take(itc_receive(pings, 1000, ITC_FROM_ANY)).msgno, PING); // the death is queued by now
    itc_unmonitor(monitor);
    EXPECT_EQ(look(), seen{});
}

TEST_F(ItcMailbox, WhatADeadPeerHadSentIsDeliveredBeforeItsDeath)
{
    for (int round = 0; round < 20; round++) {
        Gate go;
        const std::string name = "victim" + std::to_string(round);
        Child victim([&] {
            join(name.c_str());
            const uint32_t to = take(receive(PING)).sender;
            if (!go.wait()) {
                return 1;
            }
            for (uint32_t i = 0; i < 200; i++) {
                send_number(to, PONG, i);
            }
            (void)raise(SIGKILL);
            return 1;
        });
        Child watcher([&] {
            join("watcher");
            const uint32_t mbox = await(name.c_str());
            itc_msg *down = itc_alloc(4, GONE);
            itc_monitor(mbox, &down);
            send_number(mbox, PING, 0);
            go.open();
            for (uint32_t i = 0; i < 200; i++) {
                const seen s = take(receive_any());
                if (s.msgno != PONG || s.value != i) {
                    return 1;
                }
            }
            const seen s = take(receive_any());
            itc_exit();
            return s.msgno == GONE && s.sender == mbox ? 0 : 2;
        });
        ASSERT_EQ(watcher.finish(), 0);
        EXPECT_EQ(victim.finish(), 1000 + SIGKILL);
    }
}

TEST_F(ItcMailbox, WhatADeletedMailboxHadSentIsDeliveredBeforeItsEnd)
{
    Child victim([] {
        const uint32_t mbox = join("victim");
        const uint32_t keep = itc_create_mailbox("keep", 0);
        const uint32_t to = await("own");
        if (take(receive(PING)).msgno != PING) {
            return 1;
        }
        for (uint32_t i = 0; i < 1000; i++) {
            send_number(to, PONG, i, mbox);
        }
        itc_delete_mailbox(mbox);
        const seen s = take(receive(STOP));
        (void)keep;
        itc_exit();
        return s.msgno == STOP ? 0 : 2;
    });
    join("own");
    const uint32_t mbox = await("victim");
    const uint32_t keep = await("keep");
    itc_msg *down = itc_alloc(4, GONE);
    itc_monitor(mbox, &down);
    send_number(mbox, PING, 0);
    for (uint32_t i = 0; i < 1000; i++) {
        ASSERT_EQ(take(receive_any()), (seen{PONG, i, mbox}));
    }
    EXPECT_EQ(take(receive_any()), (seen{GONE, 0, mbox}));
    send_number(keep, STOP, 0);
    EXPECT_EQ(victim.finish(), 0);
}

TEST_F(ItcMailbox, WhatWasSentRightBeforeExitStillArrives)
{
    Child sender([] {
        join("sender");
        const uint32_t to = await("own");
        for (uint32_t i = 0; i < 50; i++) {
            send_number(to, PING, i); // the introduction is not done yet
        }
        itc_exit();
        return 0;
    });
    join("own");
    for (uint32_t i = 0; i < 50; i++) {
        ASSERT_EQ(take(receive_any()).value, i);
    }
    EXPECT_EQ(sender.finish(), 0);
}

TEST_F(ItcMailbox, ANameIsFreeAsSoonAsExitReturns)
{
    for (int i = 0; i < 50; i++) {
        join("own");
        itc_exit();
    }
}

} // namespace
