/* What a process had sent when it was killed or stopped at any moment: nothing of it is lost, nothing comes twice. */
#include "itcd_fixture.hpp"
#include "support/seeded.hpp"

#include <atomic>
#include <chrono>
#include <csignal>
#include <new>
#include <string>
#include <sys/mman.h>
#include <thread>

using namespace itc_test;

namespace
{

constexpr uint32_t NUMBER = 0x5301;
constexpr uint32_t HELLO = 0x5302;
constexpr uint32_t GONE = 0x5303;
constexpr int ROUNDS = 10;

// Shared by the processes of a test; `sent` outlives the sender.
struct shared_counts {
    std::atomic<uint32_t> sent{0};     // itc_send has returned for as many
    std::atomic<uint32_t> received{0}; // taken out of the mailbox
    std::atomic<int> stage{0};         // a test's own
};

struct numbered {
    uint32_t msgno;
    uint32_t value;
    uint8_t filling[56];
};

class ItcDeath : public ItcTest
{
protected:
    void SetUp() override
    {
        ItcTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        start_registry();
        void *memory = mmap(nullptr, sizeof(shared_counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        counts = new (memory) shared_counts;
    }

    // Sends numbers from 0 on until it is killed or has sent `last`, at most `window` of which are still to be taken
    // out of the receiver's mailbox. With a small window all that itc_send was given is in the socket when it returns.
    int stream(uint32_t window, uint32_t last) const
    {
        join("sender");
        const uint32_t to = await("receiver");
        for (uint32_t i = 0; i < last; i++) {
            while (i - counts->received >= window) {
                std::this_thread::yield();
            }
            itc_msg *msg = itc_alloc(sizeof(numbered), NUMBER);
            reinterpret_cast<numbered *>(msg)->value = i;
            itc_send(&msg, to, ITC_MY_MBOX);
            counts->sent = i + 1;
        }
        receive(HELLO); // nobody says it: until it is killed
        return 1;
    }

    // Takes numbers until the sender's death is told. The count of them; -1 when one was missing or came twice.
    int64_t take_until_death() const
    {
        join("receiver");
        itc_msg *down = itc_alloc(4, GONE);
        itc_monitor(await("sender"), &down);
        for (uint32_t expected = 0;; expected++) {
            itc_msg *msg = receive_any();
            const bool dead = msg != nullptr && msg->msgno == GONE;
            const bool next = msg != nullptr && msg->msgno == NUMBER && itc_size(msg) == sizeof(numbered) &&
                              reinterpret_cast<numbered *>(msg)->value == expected;
            itc_free(&msg);
            if (!next) {
                itc_exit();
                return dead ? expected : -1;
            }
            counts->received = expected + 1;
        }
    }

    shared_counts *counts = nullptr;
};

TEST_F(ItcDeath, AStreamThatAKillCutsArrivesWithoutAGapAndAsFarAsItWasSent)
{
    constexpr uint32_t WINDOW = 64;
    Seeded moments;
    for (int round = 0; round < ROUNDS; round++) {
        counts->sent = counts->received = 0;
        Child sender([&] { return stream(WINDOW, UINT32_MAX); });
        Child receiver([&] {
            const int64_t got = take_until_death();
            const int64_t sent = counts->sent;
            // One more may have left before the sender could write down that it had.
            return got >= sent && got <= sent + 1 ? 0 : 1;
        });
        ASSERT_TRUE(eventually([&] { return counts->received > 0; }));
        std::this_thread::sleep_for(moments.microseconds(0, 30000)); // the moment itself is what is tried here
        sender.kill();
        ASSERT_EQ(receiver.finish(), 0) << "round " << round << ", sent " << counts->sent << ", received "
                                        << counts->received;
        EXPECT_EQ(sender.finish(), 1000 + SIGKILL);
    }
}

TEST_F(ItcDeath, AllThatLiesInTheSocketArrivesHoweverLateItIsRead)
{
    constexpr uint32_t MANY = 500; // fits in a channel's socket
    Child sender([&] { return stream(UINT32_MAX, MANY); });
    Child receiver([&] {
        join("receiver");
        itc_msg *down = itc_alloc(4, GONE);
        itc_monitor(await("sender"), &down);
        counts->stage = 1;
        // Reads nothing of what comes until the sender is dead.
        if (!eventually([&] { return counts->stage == 2; })) {
            return 1;
        }
        for (uint32_t i = 0; i < MANY; i++) {
            itc_msg *msg = receive_any();
            if (msg == nullptr || msg->msgno != NUMBER || reinterpret_cast<numbered *>(msg)->value != i) {
                return 2;
            }
            itc_free(&msg);
        }
        itc_msg *msg = receive_any();
        const bool dead = msg != nullptr && msg->msgno == GONE;
        itc_free(&msg);
        itc_exit();
        return dead ? 0 : 3;
    });
    ASSERT_TRUE(eventually([&] { return counts->sent == MANY && counts->stage == 1; }));
    sender.kill();
    EXPECT_EQ(sender.finish(), 1000 + SIGKILL);
    counts->stage = 2;
    EXPECT_EQ(receiver.finish(), 0);
}

// What waits in the sender's own memory dies with it; what came through is still without a gap.
TEST_F(ItcDeath, AFloodThatAKillCutsInTheMiddleOfABacklogArrivesWithoutAGap)
{
    Seeded moments;
    for (int round = 0; round < ROUNDS; round++) {
        counts->sent = counts->received = 0;
        Child sender([&] { return stream(UINT32_MAX, UINT32_MAX); });
        Child receiver([&] { return take_until_death() > 0 ? 0 : 1; });
        ASSERT_TRUE(eventually([&] { return counts->received > 0; }));
        std::this_thread::sleep_for(moments.microseconds(0, 10000)); // the moment itself is what is tried here
        sender.kill();
        ASSERT_EQ(receiver.finish(), 0) << "round " << round << ", received " << counts->received;
        EXPECT_EQ(sender.finish(), 1000 + SIGKILL);
    }
}

class ItcStop : public ItcDeath, public ::testing::WithParamInterface<const char *>
{
};

TEST_P(ItcStop, AStreamGoesOnWhereItStopped)
{
    constexpr uint32_t ALL = 20000;
    constexpr uint32_t WINDOW = 1000;
    Seeded moments;
    Child sender([&] { return stream(WINDOW, ALL); });
    Child receiver([&] { return take_until_death() == ALL ? 0 : 1; });
    ASSERT_TRUE(eventually([&] { return counts->received > 0; }));
    const std::string who = GetParam();
    const pid_t pid = who == "sender" ? sender.pid : who == "receiver" ? receiver.pid : registry;
    for (int round = 0; round < ROUNDS; round++) {
        kill(pid, SIGSTOP);
        std::this_thread::sleep_for(moments.microseconds(0, 10000)); // so is the time for which it is stopped
        kill(pid, SIGCONT);
        std::this_thread::sleep_for(moments.microseconds(0, 10000));
    }
    ASSERT_TRUE(eventually([&] { return counts->received == ALL; }));
    sender.kill();
    EXPECT_EQ(receiver.finish(), 0);
    EXPECT_EQ(sender.finish(), 1000 + SIGKILL);
}

INSTANTIATE_TEST_SUITE_P(Of, ItcStop, ::testing::Values("sender", "receiver", "registry"),
                         [](const auto &who) { return std::string(who.param); });

} // namespace
