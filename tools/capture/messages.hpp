// The ITC messages of a process, as it receives and sends them: asked for at the registry, which grants it to root.
// Each is given the form that it has in a capture:
//
//   0  version, 1                              1     every number of this head in network order
//   1  direction: 1 received, 2 sent           1
//   2  flags: 1 the capture has cut the message;
//             2 the machine's own byte order, in which some messages are, is little endian     2
//   4  mailbox of the sender                   4     0xffffffff: none
//   8  mailbox of the receiver                 4
//  12  length of the sender's name             1     0: not known
//  13  length of the receiver's name           1
//  14  where the message begins                2     from here: whoever reads goes by it
//  16  the sender's name, the receiver's name, the message
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "pcapng.hpp"

namespace capture
{

inline constexpr uint8_t MESSAGE_HEAD_VERSION = 1;
inline constexpr size_t MESSAGE_HEAD_SIZE = 16;
inline constexpr uint16_t MESSAGE_CUT = 1;
inline constexpr uint16_t MESSAGE_LITTLE_ENDIAN = 2;

struct told_message {
    uint64_t stamp;
    direction way;
    uint32_t sender;
    uint32_t receiver;
    uint32_t length;            // of the message
    std::vector<uint8_t> bytes; // of them those that were told
};

// A record behind the first, as the process tells it: a message, or that none follows.
struct told_record {
    uint64_t lost; // messages up to here
    bool is_end;
    told_message message;
};

// Nothing where the process tells what makes no sense: no more of it is read.
std::optional<told_record> read_record(std::span<const uint8_t> packet);

// The head and the message; at most `snap_length` bytes of the message.
std::vector<uint8_t> message_packet(const told_message &m, const std::string &sender, const std::string &receiver,
                                    uint32_t snap_length);

// How long that would be with all of the message: on the wire, so to speak.
uint32_t whole_length(const told_message &m, size_t packet_length, uint32_t snap_length);

// Why a process's messages cannot be looked at; `error` is the errno value.
struct tap_refused {
    int error;
    std::string text;
};

class message_source
{
public:
    // Of the process that has a mailbox of that name. The caller has called itc_init. Throws tap_refused.
    explicit message_source(const std::string &process);
    ~message_source();
    message_source(const message_source &) = delete;
    message_source &operator=(const message_source &) = delete;

    int fd() const { return fd_; }
    std::optional<told_message> next(); // nothing when no more is there
    bool ended() const { return ended_; }
    bool replaced() const { return replaced_; } // somebody else looks now
    uint64_t lost() const { return lost_; }     // messages, for want of room
    // A name of the mailbox; empty where none is known.
    const std::string &name_of(uint32_t mailbox);
    // Asks for no more. What is told still comes, then the end.
    void stop();

private:
    void await_begin(const std::string &process);

    int fd_ = -1;
    bool ended_ = false;
    bool replaced_ = false;
    bool stopped_ = false;
    uint64_t lost_ = 0;
    std::map<uint32_t, std::string> names_;
    std::vector<uint8_t> buffer_;
};

} // namespace capture
