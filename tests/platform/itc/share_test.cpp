/* What one sender can make of a receiver: how much memory it takes, and how long it keeps the others waiting. The
   sender is held by the test itself, byte by byte. */
#include "itcd_fixture.hpp"

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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t memory_factor = 8; // a sanitizer keeps its own books beside each block
#else
constexpr size_t memory_factor = 1;
#endif

size_t resident_kilobytes()
{
    malloc_trim(0); // what is free is not held
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
    EXPECT_GT(full, before + 12 * 1024); // and there is use in it
}

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

} // namespace
