/* What one sender can make of a receiver: how much memory it takes, and how long it keeps the others waiting. The
   sender is held by the test itself, byte by byte. */
#include "itcd_fixture.hpp"

#include "itc_internal.h"
#include "raw_client.hpp"

#include <fcntl.h>
#include <fstream>
#include <malloc.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

using namespace itc_test;

namespace
{

constexpr uint32_t WORK = 0x5501;
constexpr size_t MEBIBYTE = 1u << 20;

#ifdef KAP_SANITIZED
constexpr size_t memory_factor = 32; // a sanitizer keeps its own books beside each block
#else
constexpr size_t memory_factor = 1;
#endif

size_t resident_kilobytes(bool with_what_is_free = false)
{
    if (!with_what_is_free) {
        malloc_trim(0);
    }
    std::ifstream status("/proc/self/status");
    std::string word;
    size_t kilobytes = 0;
    while (status >> word) {
        if (word == "VmRSS:") {
            status >> kilobytes;
        }
    }
    return kilobytes;
}

itc_statistics statistics()
{
    itc_statistics now{};
    itc_get_statistics(&now);
    return now;
}

// A process that says what the test wants, and its channel to the test.
struct stranger {
    uint32_t process = 0;
    int connection = -1;
    int channel = -1;

    explicit stranger(uint32_t mbox)
    {
        connection = raw_join(&process);
        channel = raw_channel(connection, mbox);
        (void)itc_locate("nobody"); // the registry answers behind the introduction: our end is here, too
        fcntl(channel, F_SETFL, O_NONBLOCK);
    }
    stranger(const stranger &) = delete;
    stranger &operator=(const stranger &) = delete;
    ~stranger()
    {
        close(channel);
        close(connection);
    }

    // As much as goes in now.
    size_t put(const Bytes &bytes, size_t from = 0) const
    {
        const ssize_t count = send(channel, bytes.data() + from, bytes.size() - from, MSG_DONTWAIT | MSG_NOSIGNAL);
        return count < 0 ? 0 : static_cast<size_t>(count);
    }
};

class ItcShare : public ItcTest
{
protected:
    void SetUp() override
    {
        ItcTest::SetUp();
        if (!IsSkipped()) {
            itc_internal_set_half_sent_limit(30000); // as it is when no test has set it
            start_registry();
            own = join("own");
            box = static_cast<uint16_t>(own & 0xFFF);
        }
    }

    uint32_t own = ITC_NO_MBOX;
    uint16_t box = 0;
};

// Has the receiver take in all of it, with no message coming of it.
void pump(const stranger &from, const Bytes &bytes)
{
    size_t at = 0;
    EXPECT_TRUE(eventually([&] {
        at += from.put(bytes, at);
        EXPECT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr);
        return at == bytes.size();
    }));
}

TEST_F(ItcShare, AMessageToNobodyIsReadOverAndTakesNoMemoryHoweverLargeItIs)
{
    const stranger s(own);
    const Bytes half(32 * MEBIBYTE, 0xEE);
    const size_t before = resident_kilobytes();
    const uint64_t dropped = statistics().dropped_no_mailbox;
    for (const uint16_t nobody : {uint16_t{0xFFE}, uint16_t{0xFFFF}}) {
        pump(s, message_frame(static_cast<uint32_t>(2 * half.size()), nobody, 1, {}));
        pump(s, half);
        EXPECT_LT(resident_kilobytes(), before + 8 * 1024);
        pump(s, half);
    }
    pump(s, message_frame(4, 0xFFE, 1, words({WORK}))); // and a small one
    EXPECT_EQ(s.put(message_frame(4, box, 1, words({WORK}))), 12u);
    itc_msg *msg = receive_any();
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(msg->msgno, WORK);
    EXPECT_EQ(itc_size(msg), 4u);
    itc_free(&msg);
    EXPECT_EQ(statistics().dropped_no_mailbox - dropped, 3u);
}

TEST_F(ItcShare, AMessageToNobodyIsRefusedAsSoonAsItsNumberIsThere)
{
    const stranger s(own);
    const uint64_t dropped = statistics().dropped_no_mailbox;
    pump(s, message_frame(1000, 0xFFE, 1, Bytes(3, 0xEE))); // the number lacks a byte
    EXPECT_EQ(statistics().dropped_no_mailbox, dropped);
    pump(s, Bytes(1, 0xEE));
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr);
        return statistics().dropped_no_mailbox == dropped + 1;
    }));
    pump(s, Bytes(996, 0xEE));
    EXPECT_EQ(s.put(message_frame(4, box, 1, words({WORK}))), 12u);
    itc_msg *msg = receive_any();
    ASSERT_NE(msg, nullptr);
    itc_free(&msg);
    EXPECT_EQ(statistics().dropped_no_mailbox, dropped + 1);
}

// ---- What waits to be sent

// Sends that mailbox what fits in its outbox, and some more.
void fill_outbox(uint32_t to, size_t size)
{
    const uint64_t before = statistics().dropped_full;
    while (statistics().dropped_full < before + 10) {
        itc_msg *msg = itc_alloc(size, WORK);
        itc_send(&msg, to, ITC_MY_MBOX);
    }
}

TEST_F(ItcShare, AnOutboxOfSmallMessagesTakesNoMoreMemoryThanItsBound)
{
    stranger s(own);
    const uint32_t remote = raw_create(s.connection, s.process, "remote");
    const size_t before = resident_kilobytes();
    fill_outbox(remote, 4);
    const size_t full = resident_kilobytes();
    EXPECT_LT(full, before + 20 * 1024 * memory_factor);
    if (memory_factor == 1) {
        EXPECT_GT(full, before + 12 * 1024); // and there is use in it
    }
}

#ifndef KAP_SANITIZED
TEST_F(ItcShare, MemoryOfMessagesThatAreGoneIsGivenBackWhenThereIsNothingToDo)
{
    auto s = std::make_unique<stranger>(own);
    const uint32_t remote = raw_create(s->connection, s->process, "remote");
    const size_t before = resident_kilobytes();
    fill_outbox(remote, 4);
    EXPECT_GT(resident_kilobytes(true), before + 12 * 1024);
    itc_msg *later = itc_alloc(64, WORK); // what lies behind it keeps the rest from shrinking by itself
    s.reset();
    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ(itc_receive(nullptr, 1, ITC_FROM_ANY), nullptr);
        return resident_kilobytes(true) < before + 2 * 1024;
    }));
    itc_free(&later);
}
#endif

TEST_F(ItcShare, TheOutboxesOfManyPeersThatReadNothingAreBoundedTogether)
{
    constexpr int DEAF = 8;
    std::vector<std::unique_ptr<stranger>> deaf;
    const size_t before = resident_kilobytes();
    for (int i = 0; i < DEAF; i++) {
        deaf.push_back(std::make_unique<stranger>(own));
        const stranger &s = *deaf.back();
        fill_outbox(raw_create(s.connection, s.process, "remote" + std::to_string(i)), 1000);
    }
    EXPECT_LT(resident_kilobytes(), before + 44 * 1024 * memory_factor); // 32 MiB, and a mebibyte for each of the rest
}

// ---- Turns

constexpr uint32_t FLOOD = 0x5502;
constexpr uint32_t ANSWER = 0x5503;
constexpr uint32_t GONE = 0x5504;

// Numbers from `first` on, each a message of `size` bytes.
Bytes numbers(uint16_t box, uint32_t msgno, uint32_t first, uint32_t count, size_t size = 8)
{
    Bytes all;
    for (uint32_t i = 0; i < count; i++) {
        Bytes message = words({msgno, first + i});
        message.resize(size, 0xEE);
        const Bytes frame = message_frame(static_cast<uint32_t>(size), box, 1, message);
        all.insert(all.end(), frame.begin(), frame.end());
    }
    return all;
}

// Takes messages until one has that number. How many others came before it; -1 if it never comes.
int taken_before(uint32_t msgno)
{
    for (int before = 0;; before++) {
        itc_msg *msg = receive_any();
        if (msg == nullptr) {
            return -1;
        }
        const bool found = msg->msgno == msgno;
        itc_free(&msg);
        if (found) {
            return before;
        }
    }
}

constexpr uint32_t FLOODED = 20000;
constexpr int TWO_TURNS = 1024 + 64; // the one under way, and the next; and what is taken between two looks

TEST_F(ItcShare, AMessageComesInItsTurnHoweverMuchAnotherHasSentBeforeIt)
{
    const stranger flood(own);
    const stranger honest(own);
    const Bytes many = numbers(box, FLOOD, 0, FLOODED);
    ASSERT_EQ(flood.put(many), many.size());
    ASSERT_GT(honest.put(message_frame(4, box, 1, words({WORK}))), 0u);
    const int before = taken_before(WORK);
    EXPECT_GE(before, 0);
    EXPECT_LE(before, TWO_TURNS);
}

TEST_F(ItcShare, TenFloodsDelayAnHonestMessageByNoMoreThanOneDoes)
{
    std::vector<std::unique_ptr<stranger>> floods;
    const Bytes many = numbers(box, FLOOD, 0, FLOODED);
    for (int i = 0; i < 10; i++) {
        floods.push_back(std::make_unique<stranger>(own));
        ASSERT_EQ(floods.back()->put(many), many.size());
    }
    const stranger honest(own);
    for (int i = 0; i < 100; i++) { // in the middle of it, and again and again
        itc_msg *msg = receive_any();
        itc_free(&msg);
        ASSERT_GT(honest.put(message_frame(4, box, 1, words({WORK}))), 0u);
        const int before = taken_before(WORK);
        ASSERT_GE(before, 0);
        ASSERT_LE(before, TWO_TURNS);
    }
}

TEST_F(ItcShare, AReceiverThatNeverRunsDryHearsTheOthers)
{
    const stranger honest(own);
    ASSERT_GT(honest.put(message_frame(4, box, 1, words({WORK}))), 0u);
    bool heard = false;
    for (int i = 0; i < 1000 && !heard; i++) {
        itc_msg *own_work = itc_alloc(4, FLOOD);
        itc_send(&own_work, own, ITC_MY_MBOX);
        itc_msg *msg = receive_any();
        ASSERT_NE(msg, nullptr);
        heard = msg->msgno == WORK;
        itc_free(&msg);
    }
    EXPECT_TRUE(heard);
}

TEST_F(ItcShare, WhatAFloodSentArrivesWholeAndInOrder)
{
    const stranger flood(own);
    const Bytes many = numbers(box, FLOOD, 0, 100000, 40);
    size_t at = 0;
    for (uint32_t expected = 0; expected < 100000; expected++) {
        at += flood.put(many, at);
        itc_msg *msg = receive_any();
        ASSERT_NE(msg, nullptr);
        ASSERT_EQ(reinterpret_cast<uint32_t *>(msg)[1], expected);
        itc_free(&msg);
    }
}

TEST_F(ItcShare, TheDeathOfAFloodIsToldAfterItsMessagesAndTheOthersDoNotWaitForThem)
{
    const stranger honest(own);
    auto flood = std::make_unique<stranger>(own);
    itc_msg *gone = itc_alloc(4, GONE);
    itc_monitor(raw_create(flood->connection, flood->process, "flood"), &gone);
    ASSERT_NE(itc_locate("flood"), ITC_NO_MBOX); // so the monitor is known, too
    const Bytes many = numbers(box, FLOOD, 0, FLOODED);
    ASSERT_EQ(flood->put(many), many.size());
    flood.reset();
    ASSERT_TRUE(eventually([] { return itc_locate("flood") == ITC_NO_MBOX; })); // the news are here
    ASSERT_GT(honest.put(message_frame(4, box, 1, words({WORK}))), 0u);
    const int before = taken_before(WORK);
    EXPECT_GE(before, 0);
    EXPECT_LE(before, TWO_TURNS);
    EXPECT_EQ(before + taken_before(GONE), static_cast<int>(FLOODED));
}

// ---- Queues

TEST_F(ItcShare, WhoseMessagesNobodyTakesIsReadNoFurtherAndLosesNothing)
{
    const stranger flood(own);
    const stranger honest(own);
    constexpr size_t SIZE = 1000;
    constexpr uint32_t ALL = 64 * MEBIBYTE / SIZE;
    const Bytes many = numbers(box, FLOOD, 0, ALL, SIZE);
    const uint32_t answers[] = {1, ANSWER};
    const size_t before = resident_kilobytes();
    size_t at = 0;
    for (int idle = 0; idle < 20; idle++) { // until nothing goes in any more
        const size_t put = flood.put(many, at);
        idle = put > 0 ? 0 : idle;
        at += put;
        ASSERT_EQ(itc_receive(answers, 1, ITC_FROM_ANY), nullptr);
    }
    EXPECT_LT(at, 16 * MEBIBYTE);
    EXPECT_LT(resident_kilobytes(), before + 16 * 1024 * memory_factor);
    // What somebody else has to say is heard, all the same.
    ASSERT_GT(honest.put(message_frame(4, box, 1, words({ANSWER}))), 0u);
    itc_msg *answer = itc_receive(answers, 10000, ITC_FROM_ANY);
    ASSERT_NE(answer, nullptr);
    itc_free(&answer);
    for (uint32_t expected = 0; expected < ALL; expected++) {
        at += flood.put(many, at);
        itc_msg *msg = receive_any();
        ASSERT_NE(msg, nullptr);
        ASSERT_EQ(reinterpret_cast<uint32_t *>(msg)[1], expected);
        itc_free(&msg);
    }
}

TEST_F(ItcShare, AnAnswerBehindMoreThanAShareOfTheSameSenderIsFound)
{
    const stranger s(own);
    for (const uint32_t from : {uint32_t{ITC_FROM_ANY}, s.process << 12 | 1}) {
        const Bytes others = numbers(box, FLOOD, 0, 5000);
        ASSERT_EQ(s.put(others), others.size());
        ASSERT_GT(s.put(message_frame(4, box, 1, words({ANSWER}))), 0u);
        const uint32_t answers[] = {1, ANSWER};
        itc_msg *answer = itc_receive(answers, 10000, from);
        ASSERT_NE(answer, nullptr);
        itc_free(&answer);
        for (int i = 0; i < 5000; i++) {
            itc_msg *msg = receive_any();
            ASSERT_NE(msg, nullptr);
            itc_free(&msg);
        }
    }
}

TEST_F(ItcShare, WhileAnAnswerIsAwaitedAFloodGetsNoMoreThanItsShareAheadOfTheOthers)
{
    const stranger flood(own);
    const stranger server(own);
    const Bytes many = numbers(box, FLOOD, 0, FLOODED);
    ASSERT_EQ(flood.put(many), many.size());
    ASSERT_GT(server.put(message_frame(4, box, 1, words({ANSWER}))), 0u);
    const uint32_t answers[] = {1, ANSWER};
    itc_msg *answer = itc_receive(answers, 10000, ITC_FROM_ANY);
    ASSERT_NE(answer, nullptr);
    itc_free(&answer);
    ASSERT_GT(server.put(message_frame(4, box, 1, words({WORK}))), 0u);
    const int before = taken_before(WORK);
    EXPECT_GE(before, 0);
    EXPECT_LE(before, TWO_TURNS);
}

// ---- Messages that are half sent

TEST_F(ItcShare, HalfSentMessagesOfManyAreBoundedTogetherAndSmallOnesPassThem)
{
    constexpr size_t PROMISED = 16 * MEBIBYTE;
    const Bytes part(4 * MEBIBYTE, 0xEE);
    std::vector<std::unique_ptr<stranger>> halves;
    std::vector<size_t> at(20, 0);
    const size_t before = resident_kilobytes();
    for (size_t i = 0; i < at.size(); i++) {
        halves.push_back(std::make_unique<stranger>(own));
        pump(*halves.back(), message_frame(PROMISED, box, 1, {}));
    }
    for (int idle = 0; idle < 20; idle++) { // until nothing goes in any more
        for (size_t i = 0; i < at.size(); i++) {
            const size_t put = halves[i]->put(part, at[i]);
            idle = put > 0 ? 0 : idle;
            at[i] += put;
        }
        ASSERT_EQ(itc_receive(nullptr, 1, ITC_FROM_ANY), nullptr);
    }
    // 8 MiB, 128 KiB for each, and one of them whole.
    EXPECT_LT(resident_kilobytes(), before + 20 * 1024 * memory_factor);
    const stranger honest(own);
    for (const size_t size : {size_t{4}, size_t{100000}}) {
        ASSERT_EQ(honest.put(message_frame(static_cast<uint32_t>(size), box, 1, Bytes(size, 0x11))), size + 8);
        itc_msg *msg = receive_any();
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(itc_size(msg), size);
        itc_free(&msg);
    }
}

// Has the stranger send a part of a large message, and the receiver take that in.
void send_half(const stranger &s, uint16_t box, size_t promised, size_t sent)
{
    pump(s, message_frame(static_cast<uint32_t>(promised), box, 1, {}));
    pump(s, Bytes(sent, 0xEE));
    while (itc_receive(nullptr, 20, ITC_FROM_ANY) != nullptr) {
    }
}

TEST_F(ItcShare, WhoStopsInTheMiddleOfAMessageLosesItsChannelWhenOthersNeedTheRoom)
{
    itc_internal_set_half_sent_limit(200);
    const stranger stopped(own);
    send_half(stopped, box, 16 * MEBIBYTE, 4 * MEBIBYTE);
    const stranger honest(own);
    const Bytes whole = message_frame(4 * MEBIBYTE, box, 1, Bytes(4 * MEBIBYTE, 0x11));
    size_t at = 0;
    itc_msg *msg = nullptr;
    EXPECT_TRUE(eventually([&] {
        at += honest.put(whole, at);
        msg = itc_receive(nullptr, 1, ITC_FROM_ANY);
        return msg != nullptr;
    }));
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(itc_size(msg), 4 * MEBIBYTE);
    itc_free(&msg);
    EXPECT_TRUE(ended(stopped.channel));
}

TEST_F(ItcShare, WhoStopsInTheMiddleOfAMessageGoesOnWhereItWasWhenNobodyNeedsTheRoom)
{
    itc_internal_set_half_sent_limit(20);
    const stranger stopped(own);
    send_half(stopped, box, 16 * MEBIBYTE, 4 * MEBIBYTE);
    const stranger honest(own);
    for (int i = 0; i < 10; i++) { // small ones do not need it
        ASSERT_GT(honest.put(message_frame(4, box, 1, words({WORK}))), 0u);
        EXPECT_EQ(taken_before(WORK), 0);
        EXPECT_EQ(itc_receive(nullptr, 10, ITC_FROM_ANY), nullptr);
    }
    const Bytes rest(12 * MEBIBYTE, 0xEE);
    size_t at = 0;
    itc_msg *msg = nullptr;
    EXPECT_TRUE(eventually([&] {
        at += stopped.put(rest, at);
        msg = itc_receive(nullptr, 1, ITC_FROM_ANY);
        return msg != nullptr;
    }));
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(itc_size(msg), 16 * MEBIBYTE);
    itc_free(&msg);
}

TEST_F(ItcShare, ManyWhoSendLargeMessagesAtOnceAllGetThrough)
{
    constexpr size_t SIZE = 3 * MEBIBYTE;
    const Bytes whole = message_frame(SIZE, box, 1, Bytes(SIZE, 0x11));
    std::vector<std::unique_ptr<stranger>> all;
    std::vector<size_t> at(12, 0);
    for (size_t i = 0; i < at.size(); i++) {
        all.push_back(std::make_unique<stranger>(own));
    }
    size_t got = 0;
    EXPECT_TRUE(eventually([&] {
        for (size_t i = 0; i < at.size(); i++) {
            at[i] += all[i]->put(whole, at[i]);
        }
        itc_msg *msg = itc_receive(nullptr, 1, ITC_FROM_ANY);
        got += msg != nullptr && itc_size(msg) == SIZE ? 1 : 0;
        itc_free(&msg);
        return got == at.size();
    }));
}

} // namespace
