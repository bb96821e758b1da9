// The frame of a delay measurement, byte by byte.
#include "ecpri.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace
{

using Bytes = std::vector<uint8_t>;

const ecpri::measurement REQUEST{.destination = {{0x02, 0x11, 0x22, 0x33, 0x44, 0x55}},
                                 .source = {{0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE}},
                                 .ether_type = 0xAEFE,
                                 .measurement_id = 0x7F,
                                 .action = 0,
                                 .seconds = 0x123456789ABC,
                                 .nanoseconds = 0x3B9AC9FF};

// Of 64 bytes: 46 behind the common header.
const Bytes WIRE{
    0x02, 0x11, 0x22, 0x33, 0x44, 0x55,                         // destination
    0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE,                         // source
    0xAE, 0xFE,                                                 // EtherType
    0x10, 0x05, 0x00, 0x2E,                                     // revision, type, payload size
    0x7F, 0x00,                                                 // id, action
    0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0x3B, 0x9A, 0xC9, 0xFF, // time stamp
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,             // compensation
};

Bytes whole_frame()
{
    Bytes frame = WIRE;
    frame.resize(64);
    return frame;
}

// As a heap block of exactly that size, so that a sanitizer sees the first byte read behind it.
bool parses(const Bytes &frame, size_t length)
{
    const Bytes exact(frame.begin(), frame.end());
    ecpri::measurement m{};
    return ecpri::get_measurement(exact.data(), exact.size(), length, &m);
}

TEST(Ecpri, RequestStandsOnTheWireAsLaidDown)
{
    Bytes frame(38);
    EXPECT_EQ(ecpri::put_measurement(frame.data(), REQUEST, 64, nullptr), 38u);
    EXPECT_EQ(frame, WIRE);
}

TEST(Ecpri, TagStandsBetweenAddressAndEtherTypeAndIsNotCounted)
{
    Bytes frame(42);
    const ecpri::vlan_tag tag{to_be16(0x8100), to_be16(0xE064)};
    EXPECT_EQ(ecpri::put_measurement(frame.data(), REQUEST, 64, &tag), 42u);
    Bytes expected = WIRE;
    const Bytes inserted{0x81, 0x00, 0xE0, 0x64};
    expected.insert(expected.begin() + 12, inserted.begin(), inserted.end());
    EXPECT_EQ(frame, expected);
}

TEST(Ecpri, FrameIsReadBack)
{
    const Bytes frame = whole_frame();
    ecpri::measurement m{};
    ASSERT_TRUE(ecpri::get_measurement(frame.data(), frame.size(), frame.size(), &m));
    EXPECT_TRUE(mac_equal(m.destination, REQUEST.destination));
    EXPECT_TRUE(mac_equal(m.source, REQUEST.source));
    EXPECT_EQ(m.ether_type, 0xAEFE);
    EXPECT_EQ(m.measurement_id, 0x7F);
    EXPECT_EQ(m.action, 0);
    EXPECT_EQ(m.seconds, 0x123456789ABCu);
    EXPECT_EQ(m.nanoseconds, 999999999u);
    EXPECT_TRUE(ecpri::time_is_valid(m));
}

TEST(Ecpri, FrameCutAnywhereBeforeItsDummyBytesIsRefused)
{
    for (size_t kept = 0; kept < 64; kept++) {
        Bytes frame = whole_frame();
        frame.resize(kept);
        // What is cut off on the wire is missing in the payload too, so even a frame of 63 bytes is too short.
        EXPECT_FALSE(parses(frame, kept)) << kept;
    }
    EXPECT_TRUE(parses(whole_frame(), 64));
}

TEST(Ecpri, FrameOfWhichOnlyTheHeadIsKeptIsJudgedByItsLengthOnTheWire)
{
    Bytes frame = whole_frame();
    frame[16] = 1482 >> 8;
    frame[17] = 1482 & 0xFF;
    EXPECT_TRUE(parses(frame, 1500));
    EXPECT_FALSE(parses(frame, 1499));
    frame.resize(37);
    EXPECT_FALSE(parses(frame, 1500));
}

TEST(Ecpri, PayloadMayBeShorterThanTheFrameButNotThanAMeasurement)
{
    Bytes frame = whole_frame();
    frame[17] = 20;
    EXPECT_TRUE(parses(frame, 64));
    frame[17] = 19;
    EXPECT_FALSE(parses(frame, 64));
    frame[17] = 47;
    EXPECT_FALSE(parses(frame, 64));
    frame[16] = 0xFF;
    EXPECT_FALSE(parses(frame, 64));
}

TEST(Ecpri, OtherRevisionsTypesAndConcatenatedMessagesAreRefused)
{
    const auto with = [](size_t at, uint8_t value) {
        Bytes frame = whole_frame();
        frame[at] = value;
        return parses(frame, 64);
    };
    EXPECT_TRUE(with(14, 0x1E)); // reserved bits are not looked at
    EXPECT_FALSE(with(14, 0x20));
    EXPECT_FALSE(with(14, 0x00));
    EXPECT_FALSE(with(14, 0x11));
    EXPECT_FALSE(with(15, 4));
    EXPECT_FALSE(with(15, 6));
}

TEST(Ecpri, NanosecondsOfASecondOrMoreAreNoTime)
{
    ecpri::measurement m = REQUEST;
    m.nanoseconds = 1000000000;
    EXPECT_FALSE(ecpri::time_is_valid(m));
    m.nanoseconds = 0xFFFFFFFF;
    EXPECT_FALSE(ecpri::time_is_valid(m));
}

} // namespace
