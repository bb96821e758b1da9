// What a capture writes, byte by byte. What Wireshark makes of it is tested end to end.
#include <gtest/gtest.h>

#include <bit>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "messages.hpp"
#include "pcapng.hpp"

using namespace capture;

namespace
{

using bytes = std::vector<uint8_t>;

void add(bytes &to, uint32_t number)
{
    uint8_t raw[4];
    memcpy(raw, &number, sizeof raw);
    to.insert(to.end(), raw, raw + 4);
}

void add(bytes &to, const char *text)
{
    to.insert(to.end(), text, text + strlen(text));
    to.resize((to.size() + 3) / 4 * 4);
}

uint32_t option_head(uint16_t code, uint16_t size)
{
    const uint16_t head[] = {code, size};
    return std::bit_cast<uint32_t>(head);
}

// A file in memory, and what a writer has written into it.
struct written {
    int fd = memfd_create("capture", MFD_CLOEXEC);

    bytes all() const
    {
        bytes content(65536);
        const ssize_t size = pread(fd, content.data(), content.size(), 0);
        content.resize(size < 0 ? 0 : static_cast<size_t>(size));
        return content;
    }
    ~written() { close(fd); }
};

bytes section()
{
    bytes b;
    add(b, 0x0A0D0D0A);
    add(b, 40);
    add(b, 0x1A2B3C4D);
    add(b, option_head(1, 0)); // version 1.0
    add(b, UINT32_MAX);
    add(b, UINT32_MAX);
    add(b, option_head(4, 1));
    add(b, "p");
    add(b, option_head(0, 0));
    add(b, 40);
    return b;
}

} // namespace

TEST(Pcapng, AFileBeginsWithItsSection)
{
    const written file;
    pcapng_writer writer(dup(file.fd), "p");
    EXPECT_TRUE(writer.flush());
    EXPECT_EQ(file.all(), section());
}

TEST(Pcapng, APlaceHasItsNameItsResolutionAndItsFilter)
{
    const written file;
    pcapng_writer writer(dup(file.fd), "p");
    EXPECT_EQ(writer.add_place({"eth1", "port", LINK_USER0, 96, "all"}), 0u);
    EXPECT_TRUE(writer.flush());
    bytes b = section();
    add(b, 1);
    add(b, 56);
    add(b, option_head(147, 0));
    add(b, 96);
    add(b, option_head(2, 4));
    add(b, "eth1");
    add(b, option_head(3, 4));
    add(b, "port");
    add(b, option_head(9, 1));
    add(b, "\x09");
    add(b, option_head(11, 4));
    b.insert(b.end(), {0, 'a', 'l', 'l'});
    add(b, option_head(0, 0));
    add(b, 56);
    EXPECT_EQ(file.all(), b);
}

TEST(Pcapng, APacketHasItsStampItsLengthsAndItsDirection)
{
    const written file;
    pcapng_writer writer(dup(file.fd), "p");
    const bytes data = {1, 2, 3, 4, 5};
    writer.packet(7, 0x0000000500000006, data, 60, direction::outbound);
    EXPECT_TRUE(writer.flush());
    bytes b = section();
    add(b, 6);
    add(b, 52);
    for (const uint32_t number : {7u, 5u, 6u, 5u, 60u}) {
        add(b, number);
    }
    b.insert(b.end(), {1, 2, 3, 4, 5, 0, 0, 0});
    add(b, option_head(2, 4));
    add(b, 2);
    add(b, option_head(0, 0));
    add(b, 52);
    EXPECT_EQ(file.all(), b);
}

TEST(Pcapng, WhatWasSeenAndLostStandsAtTheEnd)
{
    const written file;
    pcapng_writer writer(dup(file.fd), "p");
    writer.counts(1, 0x0000000500000006, {10, 3});
    EXPECT_TRUE(writer.flush());
    bytes b = section();
    add(b, 5);
    add(b, 52);
    for (const uint32_t number : {1u, 5u, 6u}) {
        add(b, number);
    }
    const uint64_t values[] = {10, 3};
    for (uint16_t i = 0; i < 2; i++) {
        add(b, option_head(static_cast<uint16_t>(4 + i), 8));
        const auto *raw = reinterpret_cast<const uint8_t *>(&values[i]);
        b.insert(b.end(), raw, raw + 8);
    }
    add(b, option_head(0, 0));
    add(b, 52);
    EXPECT_EQ(file.all(), b);
}

TEST(Pcapng, AFileThatTakesNoMoreIsToldOfAndStaysSo)
{
    pcapng_writer writer(open("/dev/full", O_WRONLY | O_CLOEXEC), "p");
    EXPECT_FALSE(writer.flush());
    EXPECT_EQ(errno, ENOSPC);
    writer.counts(0, 0, {});
    EXPECT_FALSE(writer.flush());
    EXPECT_EQ(errno, ENOSPC);
}

TEST(MessageHead, HasTheMailboxesAndTheirNamesInNetworkOrder)
{
    const bool little = std::endian::native == std::endian::little;
    const told_message m{1, direction::inbound, 0x01020304, 0x05060708, 3, {9, 8, 7}};
    const bytes expected = {
        1, 1, 0, static_cast<uint8_t>(little ? 2 : 0), 1, 2, 3, 4, 5, 6, 7, 8, 2, 1, 0, 19, 'a', 'b', 'c', 9, 8, 7};
    EXPECT_EQ(message_packet(m, "ab", "c", 100), expected);
}

TEST(MessageHead, SaysThatTheMessageWasCutByTheSenderOfTheTapOrHere)
{
    const told_message long_one{1, direction::outbound, 1, 2, 70000, bytes(60000)};
    EXPECT_EQ(message_packet(long_one, "", "", 262144)[3] & MESSAGE_CUT, MESSAGE_CUT);
    const told_message whole{1, direction::outbound, 1, 2, 100, bytes(100)};
    EXPECT_EQ(message_packet(whole, "", "", 100)[3] & MESSAGE_CUT, 0);
    const bytes cut = message_packet(whole, "", "", 99);
    EXPECT_EQ(cut[3] & MESSAGE_CUT, MESSAGE_CUT);
    EXPECT_EQ(cut.size(), MESSAGE_HEAD_SIZE + 99);
}
