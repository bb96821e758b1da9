// The frame of a one-way delay measurement, as the supervision library sends it and the far end answers it: pure
// functions over bytes.
//
//     0  destination MAC            6
//     6  source MAC                 6
//    (12 802.1Q: TPID 2, TCI 2      only where the frame carries a tag)
//    12  EtherType                  2   0xAEFE
//    14  revision 1, no concatenation   1   0x10
//    15  message type               1   5: one-way delay measurement
//    16  payload size               2   from the measurement id to the end
//    18  measurement id             1
//    19  action                     1   0 request, 2 response
//    20  time stamp                10   seconds 6, nanoseconds 4
//    30  compensation value         8   in 2^-16 ns
//    38  dummy bytes                    up to the size of the frame
//
// A response has the responder's time stamp. Its dummy bytes are whatever the responder puts there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vorn_types.hpp"

namespace ecpri
{

inline constexpr uint8_t REVISION_1 = 0x10;
inline constexpr uint8_t REVISION_MASK = 0xF1; // revision and concatenation bit; the three between are reserved
inline constexpr uint8_t ONE_WAY_DELAY_MEASUREMENT = 5;
inline constexpr uint8_t ACTION_REQUEST = 0;
inline constexpr uint8_t ACTION_RESPONSE = 2;

struct ethernet_header {
    mac_address destination;
    mac_address source;
    be16 type;
};
static_assert(sizeof(ethernet_header) == 14);
static_assert(offsetof(ethernet_header, source) == 6);
static_assert(offsetof(ethernet_header, type) == 12);

struct vlan_tag {
    be16 tpid;
    be16 tci;
};
static_assert(sizeof(vlan_tag) == 4);

struct delay_measurement {
    uint8_t revision;
    uint8_t message_type;
    be16 payload_size;
    uint8_t measurement_id;
    uint8_t action;
    be16 seconds_high;
    be32 seconds_low;
    be32 nanoseconds;
    be32 compensation_high;
    be32 compensation_low;
};
static_assert(sizeof(delay_measurement) == 24);
static_assert(offsetof(delay_measurement, message_type) == 1);
static_assert(offsetof(delay_measurement, payload_size) == 2);
static_assert(offsetof(delay_measurement, measurement_id) == 4);
static_assert(offsetof(delay_measurement, action) == 5);
static_assert(offsetof(delay_measurement, seconds_high) == 6);
static_assert(offsetof(delay_measurement, seconds_low) == 8);
static_assert(offsetof(delay_measurement, nanoseconds) == 12);
static_assert(offsetof(delay_measurement, compensation_high) == 16);
static_assert(offsetof(delay_measurement, compensation_low) == 20);

inline constexpr size_t COMMON_HEADER_SIZE = 4;
inline constexpr size_t MIN_FRAME_SIZE = sizeof(ethernet_header) + sizeof(delay_measurement);
inline constexpr size_t MIN_PAYLOAD_SIZE = sizeof(delay_measurement) - COMMON_HEADER_SIZE;
static_assert(MIN_FRAME_SIZE == 38);

// The bytes in front of the dummy bytes, as numbers, and how many of those there are.
struct measurement {
    mac_address destination;
    mac_address source;
    uint16_t ether_type;
    uint8_t measurement_id;
    uint8_t action;
    uint64_t seconds; // 48 bits
    uint32_t nanoseconds;
    uint16_t dummy_bytes = 0; // behind them, of a frame that was read: what its payload size counts, no padding
};

// Writes everything up to the dummy bytes of a frame that has `frame_size` bytes without its tag; the tag is written
// if `tag` is given. Returns where the dummy bytes begin: 38, or 42 with a tag. The buffer holds at least that much.
inline size_t put_measurement(uint8_t *frame, const measurement &m, size_t frame_size, const vlan_tag *tag)
{
    ethernet_header ethernet{m.destination, m.source, to_be16(m.ether_type)};
    delay_measurement body{};
    body.revision = REVISION_1;
    body.message_type = ONE_WAY_DELAY_MEASUREMENT;
    body.payload_size = to_be16(static_cast<uint16_t>(frame_size - sizeof(ethernet_header) - COMMON_HEADER_SIZE));
    body.measurement_id = m.measurement_id;
    body.action = m.action;
    body.seconds_high = to_be16(static_cast<uint16_t>(m.seconds >> 32));
    body.seconds_low = to_be32(static_cast<uint32_t>(m.seconds));
    body.nanoseconds = to_be32(m.nanoseconds);

    constexpr size_t MACS = offsetof(ethernet_header, type);
    size_t at = MACS;
    memcpy(frame, &ethernet, MACS);
    if (tag != nullptr) {
        memcpy(frame + at, tag, sizeof *tag);
        at += sizeof *tag;
    }
    memcpy(frame + at, &ethernet.type, sizeof ethernet.type);
    at += sizeof ethernet.type;
    memcpy(frame + at, &body, sizeof body);
    return at + sizeof body;
}

// Reads a frame without tag (the kernel has taken it off). `available` bytes of it are there, `length` it had on the
// wire. False: it is no delay measurement, or too short for what it says of itself.
inline bool get_measurement(const uint8_t *frame, size_t available, size_t length, measurement *out)
{
    if (available < MIN_FRAME_SIZE || length < available) {
        return false;
    }
    ethernet_header ethernet;
    delay_measurement body;
    memcpy(&ethernet, frame, sizeof ethernet);
    memcpy(&body, frame + sizeof ethernet, sizeof body);
    const size_t payload = from_be16(body.payload_size);
    if ((body.revision & REVISION_MASK) != REVISION_1 || body.message_type != ONE_WAY_DELAY_MEASUREMENT ||
        payload < MIN_PAYLOAD_SIZE || payload > length - sizeof ethernet - COMMON_HEADER_SIZE) {
        return false;
    }
    out->destination = ethernet.destination;
    out->source = ethernet.source;
    out->ether_type = from_be16(ethernet.type);
    out->measurement_id = body.measurement_id;
    out->action = body.action;
    out->seconds = static_cast<uint64_t>(from_be16(body.seconds_high)) << 32 | from_be32(body.seconds_low);
    out->nanoseconds = from_be32(body.nanoseconds);
    out->dummy_bytes = static_cast<uint16_t>(payload - MIN_PAYLOAD_SIZE);
    return true;
}

// A responder without a usable clock says so with nanoseconds that are no fraction of a second.
inline bool time_is_valid(const measurement &m) { return m.nanoseconds < 1000000000u; }

} // namespace ecpri
