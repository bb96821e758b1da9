/*
 * What travels on ITC's sockets: the frames between a process and the registry, the frames between two processes, and
 * the reader and writer that both sides use. Everything is in host byte order: no socket here leaves the machine.
 *
 * Nobody trusts the other side. A frame is looked at only when it is whole, its length is bounded from below and from
 * above, strings carry their length, and a reader that ran short once stays failed, so that one check at the end
 * decides.
 *
 * A mailbox id is a process number (20 bits, from 1) and a box number (12 bits). Process numbers end well below
 * 0xFFF00, where the ids with a meaning of their own begin.
 */
#ifndef ITC_WIRE_HPP
#define ITC_WIRE_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace itc_wire
{

inline constexpr char directory[] = "/run/kap-itc";
inline constexpr char socket_path[] = "/run/kap-itc/itcd.sock";
inline constexpr char lock_path[] = "/run/kap-itc/itcd.lock";

inline constexpr uint32_t box_bits = 12;
inline constexpr uint32_t box_limit = 1u << box_bits;
inline constexpr uint32_t process_limit = 0xF0000; // process numbers are 1 .. process_limit - 1

constexpr uint32_t process_of(uint32_t mbox) { return mbox >> box_bits; }
constexpr uint32_t box_of(uint32_t mbox) { return mbox & (box_limit - 1); }
constexpr uint32_t mbox_of(uint32_t process, uint32_t box) { return process << box_bits | box; }

// ---- Between two processes ------------------------------------------------------------------------------------------
//
//   0  length of the message that follows, 4 .. message_limit
//   4  box of the receiving process
//   6  box of the sending process, no_box for a message without a sender
//   8  the message
//
// Process numbers are not in the frame: each end has them from the registry, with the socket.
struct channel_frame {
    uint32_t length;
    uint16_t to_box;
    uint16_t from_box;
};
static_assert(sizeof(channel_frame) == 8);
static_assert(offsetof(channel_frame, length) == 0);
static_assert(offsetof(channel_frame, to_box) == 4);
static_assert(offsetof(channel_frame, from_box) == 6);

inline constexpr uint16_t no_box = 0xFFFF;
inline constexpr uint32_t message_limit = 1u << 30;

// ---- Between a process and the registry -----------------------------------------------------------------------------
//
//   0  length of the whole frame, registry_frame .. registry_frame_limit
//   4  type
//   8  serial: a request's number, which its answer carries; in `found` and `died` the token of the request
//  12  the fields of the type, packed; u is 32 bits, s is a 16-bit length and that many bytes without a zero byte
struct registry_frame {
    uint32_t length;
    uint32_t type;
    uint32_t serial;
};
static_assert(sizeof(registry_frame) == 12);
static_assert(offsetof(registry_frame, length) == 0);
static_assert(offsetof(registry_frame, type) == 4);
static_assert(offsetof(registry_frame, serial) == 8);

inline constexpr uint32_t registry_frame_limit = 1024;
inline constexpr size_t name_limit = 255;
inline constexpr uint32_t version = 1;

enum frame_type : uint32_t {
    // From a process.                        Answered by
    hello = 1,        // u version            welcome or refused; must be the first
    create_box = 2,   // u mbox, s name       result
    delete_box = 3,   // u mbox               result
    add_name = 4,     // u mbox, s name       result
    locate = 5,       // s name               located; before it channel, if there is such a mailbox and none yet
    await_name = 6,   // s name               found, once, when there is a mailbox of that name
    cancel_await = 7, // (serial: the token)  nothing
    monitor = 8,      // u mbox               died, once
    unmonitor = 9,    // (serial: the token)  nothing
    introduce = 10,   // u process            channel (to both) or no_process
    closed = 11,      // u process, u channel nothing: this end of the channel is closed
    publish = 12,     // u mbox, s name, s scope, s path    result
    unpublish = 13,   // u mbox, s name, s scope, s path    result
    subscribe = 14,   // u mbox, u sid, s name, s scope     subscribed, added..., result; later added, removed
    unsubscribe = 15, // u mbox, u sid        result
    bye = 16,         //                      result, after everything the process had is gone
    tap = 17,         // s name               tapping and result; root alone: the messages of who has that name
    name_of = 18,     // u mbox               named and result; root alone

    // From the registry.
    welcome = 101,    // u process
    refused = 102,    // u errno value
    result = 103,     // u errno value
    located = 104,    // u mbox, 0xFFFFFFFF for none
    found = 105,      // u mbox
    died = 106,       // u mbox
    channel = 107,    // u process, u channel; one descriptor comes with it
    no_process = 108, // u process
    subscribed = 109, // u sid
    added = 110,      // u sid, u mbox, s path
    removed = 111,    // u sid, u mbox, s path

    // What a mailbox takes from other processes. Those of a mailbox come before the result that it has the name which
    // they stand under. What belongs to one policy rule carries its number.
    door_limit = 112,  // u mbox, u bytes: no message is larger
    door_rule = 113,   // u mbox, u rule, u first, u last: these numbers only from whom the rule lets in
    door_share = 114,  // u mbox, u rule, u opens, u opened, u refused, u closed, u session_at, u at_most
    door_admit = 115,  // u rule, u which of its names, u mbox that has it; before the result for that one
    door_member = 116, // u rule, u process whose user is in it, u channel; before either end of the channel is given

    // Looking at messages: see tap_record below.
    tapped = 117,  // one descriptor comes with it: the process's messages are to be told there
    tapping = 118, // the other end of it, for the request of that serial; before its result
    named = 119,   // s the name that the mailbox was created with; before the result
};

constexpr size_t door_words(uint32_t type)
{
    constexpr size_t words[] = {2, 4, 8, 3, 3};
    return type >= door_limit && type <= door_member ? words[type - door_limit] : 0;
}

// ---- Between a process and whoever looks at its messages
// -------------------------------------------------------------
//
// A socket of packets. Each is a record, and the first bytes of the message behind it. Who looks asks for the end by
// shutting down his side; then, or when somebody else looks in his place, a record tap_ends comes last. A process that
// ends closes without.
enum tap_what : uint32_t {
    tap_begins = 1, // from here on; no message
    tap_received = 2,
    tap_sent = 3, // to another process: one to itself is told when it is received
    tap_ends = 4,
};

struct tap_record {
    uint32_t version;
    uint32_t what;
    uint32_t own;   // the mailbox that has received or sent it; 0xFFFFFFFF for none
    uint32_t other; // the one at the other end
    uint64_t stamp; // nanoseconds since 1970
    uint64_t lost;  // messages up to here for which there was no room
    uint32_t length;
    uint32_t reserved;
};
static_assert(sizeof(tap_record) == 40);
static_assert(offsetof(tap_record, stamp) == 16);
static_assert(offsetof(tap_record, lost) == 24);
static_assert(offsetof(tap_record, length) == 32);

inline constexpr uint32_t tap_version = 1;
inline constexpr size_t tap_most = 65536 - sizeof(tap_record); // bytes of a message that are told

struct reader {
    const uint8_t *at;
    const uint8_t *end;
    bool failed = false;

    reader(const uint8_t *bytes, size_t size) : at(bytes), end(bytes + size) {}

    uint32_t u32()
    {
        uint32_t value = 0;
        take(&value, sizeof value);
        return value;
    }

    std::string_view text()
    {
        uint16_t length = 0;
        take(&length, sizeof length);
        if (failed || length > name_limit || static_cast<size_t>(end - at) < length ||
            memchr(at, 0, length) != nullptr) {
            failed = true;
            return {};
        }
        const std::string_view value(reinterpret_cast<const char *>(at), length);
        at += length;
        return value;
    }

    // True if every field was there and nothing is left over.
    bool whole() const { return !failed && at == end; }

    void take(void *to, size_t size)
    {
        if (failed || static_cast<size_t>(end - at) < size) {
            failed = true;
            return;
        }
        memcpy(to, at, size);
        at += size;
    }
};

// Builds one frame. Texts are at most name_limit bytes long (callers refuse longer ones), so every frame fits.
struct writer {
    uint8_t bytes[registry_frame_limit];
    uint32_t size = sizeof(registry_frame);

    writer(frame_type type, uint32_t serial)
    {
        const registry_frame head{0, type, serial};
        memcpy(bytes, &head, sizeof head);
    }

    writer &u32(uint32_t value)
    {
        put(&value, sizeof value);
        return *this;
    }

    writer &text(std::string_view value)
    {
        const uint16_t length = static_cast<uint16_t>(value.size());
        put(&length, sizeof length);
        put(value.data(), value.size());
        return *this;
    }

    void set_serial(uint32_t serial) { memcpy(bytes + offsetof(registry_frame, serial), &serial, sizeof serial); }

    // Writes the length in. To be called last.
    std::string_view frame()
    {
        memcpy(bytes, &size, sizeof size);
        return {reinterpret_cast<const char *>(bytes), size};
    }

    void put(const void *from, size_t count)
    {
        if (count > sizeof bytes - size) {
            __builtin_trap();
        }
        memcpy(bytes + size, from, count);
        size += static_cast<uint32_t>(count);
    }
};
static_assert(sizeof(registry_frame) + 2 * sizeof(uint32_t) + 3 * (sizeof(uint16_t) + name_limit) <=
              registry_frame_limit);

} // namespace itc_wire

#endif
