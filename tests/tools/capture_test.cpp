// What a capture writes, byte by byte. What Wireshark makes of it is tested end to end.
#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "itc_wire.hpp"
#include "messages.hpp"
#include "pcapng.hpp"
#include "target.hpp"

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

TEST(Pcapng, APipeThatNobodyReadsHoldsNobodyUpWhoWantsToEnd)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const int end = eventfd(1, EFD_CLOEXEC);
    pcapng_writer writer(ends[1], "p");
    writer.ends_with(end);
    writer.packet(0, 0, bytes(1000), 1000, direction::inbound);
    EXPECT_TRUE(writer.flush()) << "there is room";
    writer.packet(0, 0, bytes(1 << 20), 1 << 20, direction::inbound);
    EXPECT_FALSE(writer.flush());
    EXPECT_EQ(errno, ECANCELED);
    close(end);
    close(ends[0]);
}

class Target : public testing::Test
{
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/capture_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
        std::ofstream(file()) << "as it was";
    }
    void TearDown() override { std::filesystem::remove_all(directory); }
    std::string file(const char *name = "/file") const { return directory + name; }
    std::string content() const
    {
        std::ifstream stream(file());
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }
    void expect_refused(const std::string &name, const std::string &why) const
    {
        try {
            close(open_target(name));
            ADD_FAILURE() << name << " is taken";
        } catch (const std::runtime_error &refused) {
            EXPECT_EQ(refused.what(), name + ": " + why);
        }
        EXPECT_EQ(content(), "as it was");
    }
    std::string directory;
};

TEST_F(Target, AFileIsForItsOwnerAloneAndEmptyBeforeAnythingIsInIt)
{
    ASSERT_EQ(chmod(file().c_str(), 0644), 0);
    for (const char *name : {"/file", "/new"}) {
        const int fd = open_target(file(name));
        struct stat facts {
        };
        EXPECT_EQ(fstat(fd, &facts), 0);
        EXPECT_EQ(facts.st_mode & 07777, 0600u) << name;
        EXPECT_EQ(facts.st_size, 0) << name;
        close(fd);
    }
}

TEST_F(Target, ALinkIsNotFollowedAndAFileWithTwoNamesNotTaken)
{
    ASSERT_EQ(symlink(file().c_str(), file("/link").c_str()), 0);
    expect_refused(file("/link"), "is a symbolic link; say where it leads");
    ASSERT_EQ(link(file().c_str(), file("/second").c_str()), 0);
    expect_refused(file("/second"), "has another name as well; remove it first");
}

TEST_F(Target, ADirectoryIsNoPlaceForACapture)
{
    ASSERT_EQ(mkdir(file("/directory").c_str(), 0700), 0);
    expect_refused(file("/directory"), "Is a directory");
}

TEST_F(Target, AFileOfSomebodyElseIsNotTaken)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can give a file away";
    }
    if (chown(file().c_str(), 65534, 65534) != 0) {
        GTEST_SKIP() << "there is nobody else in this namespace of users";
    }
    expect_refused(file(), "belongs to another user; remove it first");
}

TEST_F(Target, APipeIsTakenAsItIs)
{
    ASSERT_EQ(mkfifo(file("/pipe").c_str(), 0644), 0);
    const int reader = open(file("/pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const int fd = open_target(file("/pipe"));
    struct stat facts {
    };
    EXPECT_EQ(fstat(fd, &facts), 0);
    EXPECT_TRUE(S_ISFIFO(facts.st_mode));
    EXPECT_EQ(facts.st_mode & 0777, 0644u);
    close(fd);
    close(reader);
}

namespace
{

bytes record_bytes(const itc_wire::tap_record &record, size_t of_the_message)
{
    bytes packet(sizeof record + of_the_message);
    memcpy(packet.data(), &record, sizeof record);
    return packet;
}

const itc_wire::tap_record RECEIVED = {itc_wire::tap_version, itc_wire::tap_received, 1, 2, 3, 4, 5, 0};

} // namespace

TEST(TapRecord, OfAMessageSaysWhoSentItToWhom)
{
    itc_wire::tap_record record = RECEIVED;
    auto told = read_record(record_bytes(record, 5));
    ASSERT_TRUE(told.has_value());
    EXPECT_FALSE(told->is_end);
    EXPECT_EQ(told->lost, 4u);
    EXPECT_EQ(told->message.sender, 2u);
    EXPECT_EQ(told->message.receiver, 1u);
    EXPECT_EQ(told->message.way, direction::inbound);
    EXPECT_EQ(told->message.bytes.size(), 5u);
    record.what = itc_wire::tap_sent;
    told = read_record(record_bytes(record, 4));
    ASSERT_TRUE(told.has_value());
    EXPECT_EQ(told->message.sender, 1u);
    EXPECT_EQ(told->message.receiver, 2u);
    EXPECT_EQ(told->message.length, 5u) << "it was longer than what was told of it";
}

TEST(TapRecord, ThatMakesNoSenseIsNotTaken)
{
    EXPECT_TRUE(read_record(record_bytes(RECEIVED, 5)).has_value());
    EXPECT_FALSE(read_record(record_bytes(RECEIVED, 6)).has_value()) << "more bytes than the message has";
    bytes cut = record_bytes(RECEIVED, 0);
    cut.pop_back();
    EXPECT_FALSE(read_record(cut).has_value());
    itc_wire::tap_record other = RECEIVED;
    other.version++;
    EXPECT_FALSE(read_record(record_bytes(other, 5)).has_value());
    other = RECEIVED;
    other.length = itc_wire::message_limit + 1;
    EXPECT_FALSE(read_record(record_bytes(other, 5)).has_value()) << "no message is so long";
    other = RECEIVED;
    other.what = itc_wire::tap_ends + 1;
    EXPECT_FALSE(read_record(record_bytes(other, 5)).has_value());
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
