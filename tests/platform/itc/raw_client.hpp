/*
 * A client of the registry that does not use libitc: it writes the bytes of each frame itself, so that a test can say
 * what no library would, and can hold the other end of a channel in the same process.
 */
#ifndef RAW_CLIENT_HPP
#define RAW_CLIENT_HPP

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <vector>

namespace itc_test
{

using Bytes = std::vector<uint8_t>;

inline int raw_connect()
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/run/kap-itc/itcd.sock");
    const timeval patience{20, 0}; // an answer that never comes fails a test, and does not hang it
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 ? fd : -1;
}

inline void put32(Bytes &to, uint32_t value)
{
    uint8_t bytes[4];
    memcpy(bytes, &value, 4);
    to.insert(to.end(), bytes, bytes + 4);
}

inline void put_text(Bytes &to, const std::string &text)
{
    const auto length = static_cast<uint16_t>(text.size());
    uint8_t bytes[2];
    memcpy(bytes, &length, 2);
    to.insert(to.end(), bytes, bytes + 2);
    to.insert(to.end(), text.begin(), text.end());
}

inline Bytes frame(uint32_t type, uint32_t serial, const Bytes &fields)
{
    Bytes b;
    put32(b, static_cast<uint32_t>(12 + fields.size()));
    put32(b, type);
    put32(b, serial);
    b.insert(b.end(), fields.begin(), fields.end());
    return b;
}

inline Bytes words(const std::vector<uint32_t> &values)
{
    Bytes b;
    for (const uint32_t value : values) {
        put32(b, value);
    }
    return b;
}

inline Bytes word_and_text(uint32_t word, const std::string &text)
{
    Bytes b = words({word});
    put_text(b, text);
    return b;
}

inline void write_all(int fd, const Bytes &bytes) { (void)!send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

// One frame, and the descriptor that came with it. Empty when the other side closed, or said nothing for too long.
inline Bytes read_frame(int fd, int *descriptor = nullptr)
{
    Bytes b(4);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    iovec part{b.data(), 4};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (recvmsg(fd, &message, MSG_WAITALL | MSG_CMSG_CLOEXEC) != 4) {
        return {};
    }
    const cmsghdr *c = CMSG_FIRSTHDR(&message);
    if (c != nullptr && descriptor != nullptr) {
        memcpy(descriptor, CMSG_DATA(c), sizeof(int));
    }
    uint32_t length = 0;
    memcpy(&length, b.data(), 4);
    b.resize(length);
    return recv(fd, b.data() + 4, length - 4, MSG_WAITALL) == static_cast<ssize_t>(length - 4) ? b : Bytes{};
}

inline bool ended(int fd)
{
    pollfd wanted{fd, POLLIN, 0};
    if (poll(&wanted, 1, 10000) != 1) {
        return false;
    }
    char byte;
    const ssize_t got = recv(fd, &byte, 1, 0);
    return got == 0 || (got < 0 && errno == ECONNRESET);
}

inline constexpr uint32_t HELLO = 1;
inline constexpr uint32_t CREATE = 2;
inline constexpr uint32_t LOCATE = 5;
inline constexpr uint32_t AWAIT = 6;
inline constexpr uint32_t MONITOR = 8;
inline constexpr uint32_t INTRODUCE = 10;
inline constexpr uint32_t WELCOME = 101;
inline constexpr uint32_t REFUSED = 102;
inline constexpr uint32_t RESULT = 103;
inline constexpr uint32_t LOCATED = 104;
inline constexpr uint32_t CHANNEL = 107;

inline uint32_t word_at(const Bytes &b, size_t offset)
{
    uint32_t value = 0;
    EXPECT_GE(b.size(), offset + 4);
    memcpy(&value, b.data() + offset, 4);
    return value;
}

// Connected and past the hello; the process number in *process.
inline int raw_join(uint32_t *process)
{
    const int fd = raw_connect();
    write_all(fd, frame(HELLO, 0, words({1})));
    const Bytes welcome = read_frame(fd);
    EXPECT_EQ(welcome, frame(WELCOME, 0, words({word_at(welcome, 12)})));
    *process = word_at(welcome, 12);
    return fd;
}

inline uint32_t raw_create(int fd, uint32_t process, const std::string &name)
{
    const uint32_t mbox = process << 12 | 5;
    write_all(fd, frame(CREATE, 77, word_and_text(mbox, name)));
    EXPECT_EQ(read_frame(fd), frame(RESULT, 77, words({0})));
    return mbox;
}

// A raw process that has been introduced to `mbox`: the channel's own end.
inline int raw_channel(int fd, uint32_t mbox)
{
    int channel = -1;
    write_all(fd, frame(INTRODUCE, 0, words({mbox >> 12})));
    const Bytes told = read_frame(fd, &channel);
    EXPECT_EQ(word_at(told, 4), CHANNEL);
    EXPECT_EQ(word_at(told, 12), mbox >> 12);
    EXPECT_GE(channel, 0);
    return channel;
}

inline Bytes message_frame(uint32_t length, uint16_t to, uint16_t from, const Bytes &message)
{
    Bytes b = words({length});
    b.push_back(static_cast<uint8_t>(to & 0xFF));
    b.push_back(static_cast<uint8_t>(to >> 8));
    b.push_back(static_cast<uint8_t>(from & 0xFF));
    b.push_back(static_cast<uint8_t>(from >> 8));
    b.insert(b.end(), message.begin(), message.end());
    return b;
}

} // namespace itc_test

#endif
