// A process of ITC that is not held back by libitc: frames to the registry and messages to other processes, as they
// stand on the sockets. It reads only when it is told to, and keeps to nothing.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "itc_wire.hpp"

struct raw_frame {
    uint32_t type;
    uint32_t serial;
    std::vector<uint8_t> fields;
    int fd; // -1, or the descriptor that came with it; the taker's

    uint32_t word(size_t index) const; // 0 when the frame is shorter
};

// A connection to the registry.
struct raw_link {
    int fd = -1;
    uint32_t process = 0;
    std::vector<uint8_t> input;
    std::deque<int> descriptors;

    raw_link() = default;
    raw_link(const raw_link &) = delete;
    raw_link &operator=(const raw_link &) = delete;
    raw_link(raw_link &&other) noexcept;
    raw_link &operator=(raw_link &&other) noexcept;
    ~raw_link();
};

bool raw_connect(raw_link &link);
void raw_close(raw_link &link);
bool raw_send(raw_link &link, itc_wire::writer &frame); // waits for room, at most a second
bool raw_send_bytes(raw_link &link, const std::string &bytes);
// The next frame; none within the time, or none any more (then the connection is closed).
std::optional<raw_frame> raw_next(raw_link &link, int timeout_ms);
// Takes in what there is, closes descriptors that came with it. False: the connection has ended.
bool raw_discard(raw_link &link);

bool raw_hello(raw_link &link); // connects and says hello
// 0, or the errno value with which it was refused; ENOTCONN when the registry does not answer.
int raw_create_box(raw_link &link, uint32_t box, const std::string &name);

// A channel to the process that has a mailbox of that name.
struct raw_channel {
    int fd = -1;
    uint32_t mbox = 0;

    raw_channel() = default;
    raw_channel(const raw_channel &) = delete;
    raw_channel &operator=(const raw_channel &) = delete;
    raw_channel(raw_channel &&other) noexcept;
    raw_channel &operator=(raw_channel &&other) noexcept;
    ~raw_channel();
};

bool raw_meet(raw_link &link, const std::string &name, raw_channel &channel);

// One message, from the sender's box `from_box`. False: it was not taken whole within the time.
bool raw_message(raw_channel &channel, uint16_t from_box, const void *bytes, size_t size, int timeout_ms = 1000);
// As many of these bytes as are taken within the time.
size_t raw_bytes(raw_channel &channel, const void *bytes, size_t size, int timeout_ms);
// Reads and forgets. False: the channel has ended.
bool raw_read_away(raw_channel &channel);
