/* What one sender can make of a receiver: how much memory it takes, and how long it keeps the others waiting. The
   sender is held by the test itself, byte by byte. */
#include "itcd_fixture.hpp"

#include "raw_client.hpp"

#include <fcntl.h>
#include <fstream>
#include <sys/socket.h>
#include <unistd.h>

using namespace itc_test;

namespace
{

constexpr uint32_t WORK = 0x5501;
constexpr size_t MEBIBYTE = 1u << 20;

size_t resident_kilobytes()
{
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

} // namespace
