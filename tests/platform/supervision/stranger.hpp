// Somebody on the cable who writes his own frames.
#pragma once

#include "network.hpp"

#include <csignal>
#include <linux/if_packet.h>
#include <net/if.h>
#include <optional>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace net
{

using Bytes = std::vector<uint8_t>;

inline constexpr uint8_t REQUEST = 0;
inline constexpr uint8_t RESPONSE = 2;
inline constexpr mac_address OTHER_MAC{{0x02, 0, 0, 0, 0, 7}};

// A measurement as a stranger writes it. `dummies` are counted by its payload size.
struct Written {
    mac_address destination = NEAR_MAC;
    mac_address source = FAR_MAC;
    Bytes tag{0x81, 0x00, 0xE0, 0x64};
    uint8_t id = 1;
    uint8_t action = RESPONSE;
    Bytes dummies;
};

inline Bytes frame_of(const Written &w)
{
    Bytes f(w.destination.byte, w.destination.byte + 6);
    f.insert(f.end(), w.source.byte, w.source.byte + 6);
    f.insert(f.end(), w.tag.begin(), w.tag.end());
    const auto payload = static_cast<uint8_t>(20 + w.dummies.size());
    for (const uint8_t byte :
         {uint8_t{0xAE}, uint8_t{0xFE}, uint8_t{0x10}, uint8_t{5}, uint8_t{0}, payload, w.id, w.action}) {
        f.push_back(byte);
    }
    f.resize(f.size() + 18); // time and compensation
    f.insert(f.end(), w.dummies.begin(), w.dummies.end());
    return f;
}

inline Bytes zeros(size_t count) { return Bytes(count); }

// A packet socket on an interface, in the namespace "far" or here.
class Stranger
{
public:
    explicit Stranger(const std::string &name_space, const std::string &interface)
    {
        std::optional<Inside> there;
        if (!name_space.empty()) {
            there.emplace(name_space);
        }
        fd_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
        EXPECT_EQ(bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    }
    ~Stranger() { close(fd_); }
    Stranger(const Stranger &) = delete;
    Stranger &operator=(const Stranger &) = delete;

    void send(const Bytes &frame) const
    {
        EXPECT_EQ(::send(fd_, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
    }
    // Every measurement id there is.
    void send_all_ids(Written w) const
    {
        for (int id = 0; id < 256; id++) {
            w.id = static_cast<uint8_t>(id);
            send(frame_of(w));
        }
    }
    [[nodiscard]] int fd() const { return fd_; }

private:
    int fd_ = -1;
};

// Sends one frame over and over, many with each call, from a process of its own.
class Flood
{
public:
    Flood(const Stranger &from, const Bytes &frame) : pid_(fork())
    {
        if (pid_ != 0) {
            return;
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        constexpr unsigned MANY = 256;
        static mmsghdr headers[MANY];
        iovec bytes{const_cast<uint8_t *>(frame.data()), frame.size()}; // NOLINT(cppcoreguidelines-pro-type-const-cast)
        for (mmsghdr &h : headers) {
            h.msg_hdr.msg_iov = &bytes;
            h.msg_hdr.msg_iovlen = 1;
        }
        for (;;) {
            sendmmsg(from.fd(), headers, MANY, 0);
        }
    }
    ~Flood()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Flood(const Flood &) = delete;
    Flood &operator=(const Flood &) = delete;

private:
    pid_t pid_;
};

} // namespace net
