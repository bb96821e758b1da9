/* Messages as memory: no registry, no mailbox. */
#include "itc.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

namespace
{

std::vector<uint8_t> bytes_of(const itc_msg *msg)
{
    const auto *at = reinterpret_cast<const uint8_t *>(msg);
    return {at, at + itc_size(msg)};
}

TEST(ItcMessage, BeginsWithItsNumberAndIsZeroBehindIt)
{
    // Dirty the heap, so that a message that only looks clean is found out.
    std::vector<void *> dirt;
    for (int i = 0; i < 100; i++) {
        dirt.push_back(malloc(400));
        memset(dirt.back(), 0xEE, 400);
    }
    for (void *d : dirt) {
        free(d);
    }
    itc_msg *msg = itc_alloc(344, 0x1B0E00);
    const std::vector<uint8_t> bytes = bytes_of(msg);
    ASSERT_EQ(bytes.size(), 344u);
    uint32_t msgno = 0;
    memcpy(&msgno, bytes.data(), 4);
    EXPECT_EQ(msgno, 0x1B0E00u);
    EXPECT_EQ(std::accumulate(bytes.begin() + 4, bytes.end(), 0), 0);
    itc_free(&msg);
}

TEST(ItcMessage, HasNoSenderBeforeItWasReceived)
{
    itc_msg *msg = itc_alloc(4, 1);
    EXPECT_EQ(itc_sender(msg), ITC_NO_MBOX);
    itc_free(&msg);
}

TEST(ItcMessage, IsNeverSmallerThanItsNumber)
{
    itc_msg *msg = itc_alloc(0, 7);
    EXPECT_EQ(itc_size(msg), 4u);
    EXPECT_EQ(msg->msgno, 7u);
    itc_free(&msg);
}

TEST(ItcMessage, FreeingClearsThePointerAndTwiceIsNothing)
{
    itc_msg *msg = itc_alloc(4, 1);
    itc_free(&msg);
    EXPECT_EQ(msg, nullptr);
    itc_free(&msg);
    itc_free(nullptr);
}

TEST(ItcMessage, IsAlignedForEveryType)
{
    itc_msg *msg = itc_alloc(40, 1);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(msg) % alignof(std::max_align_t), 0u);
    itc_free(&msg);
}

TEST(ItcMessageDeathTest, MemoryThatIsNoMessageEndsTheProcess)
{
    alignas(16) unsigned char memory[256] = {};
    auto *msg = reinterpret_cast<itc_msg *>(memory + 128);
    EXPECT_EXIT(itc_free(&msg), ::testing::KilledBySignal(SIGABRT), "not a message");
}

TEST(ItcMessageDeathTest, AnImpossibleSizeEndsTheProcess)
{
    EXPECT_EXIT(itc_alloc(SIZE_MAX - 8, 1), ::testing::KilledBySignal(SIGABRT), "impossible size");
}

TEST(ItcWithoutRegistry, EveryOperationIsHarmless)
{
    itc_msg *msg = itc_alloc(4, 1);
    itc_send(&msg, 0x1001, ITC_MY_MBOX);
    EXPECT_EQ(msg, nullptr);
    msg = itc_alloc(4, 1);
    itc_locate_async("somebody", &msg, 0x1001);
    EXPECT_EQ(msg, nullptr);
    msg = itc_alloc(4, 1);
    const uint32_t monitor = itc_monitor(0x1001, &msg);
    EXPECT_NE(monitor, 0u);
    EXPECT_EQ(msg, nullptr);
    itc_unmonitor(monitor);
    EXPECT_EQ(itc_create_mailbox("nobody", 0), ITC_NO_MBOX);
    EXPECT_EQ(itc_delete_mailbox(0x1001), EINVAL);
    EXPECT_EQ(itc_add_name(0x1001, "nobody"), EINVAL);
    EXPECT_EQ(itc_current_mbox(), ITC_NO_MBOX);
    EXPECT_EQ(itc_locate("somebody"), ITC_NO_MBOX);
    EXPECT_EQ(itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY), nullptr);
    EXPECT_EQ(itc_get_fd(), -1);
    itc_exit();
}

TEST(ItcWithoutRegistry, InitRefusesReservedArgumentsAndImpossibleCounts)
{
    EXPECT_EQ(itc_init(0, 0, nullptr, nullptr, 0), EINVAL);
    EXPECT_EQ(itc_init(-1, 0, nullptr, nullptr, 0), EINVAL);
    EXPECT_EQ(itc_init(1000000, 0, nullptr, nullptr, 0), EINVAL);
    EXPECT_EQ(itc_init(1, 1, nullptr, nullptr, 0), EINVAL);
    EXPECT_EQ(itc_init(1, 0, "", nullptr, 0), EINVAL);
    EXPECT_EQ(itc_init(1, 0, nullptr, "", 0), EINVAL);
    EXPECT_EQ(itc_init(1, 0, nullptr, nullptr, 1), EINVAL);
}

} // namespace
