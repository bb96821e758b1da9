// A peer of the control socket: one line out, one line in.
#pragma once

#include <nlohmann/json.hpp>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>

class control_client
{
public:
    explicit control_client(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    }
    ~control_client() { close(fd_); }
    control_client(const control_client &) = delete;
    control_client &operator=(const control_client &) = delete;

    bool connected() const { return connected_; }
    bool send_text(const std::string &text)
    {
        return send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    void send_end() { (void)shutdown(fd_, SHUT_WR); }
    // Takes lines as quickly as they come, up to so many; gives how many came, each within the patience.
    uint64_t count_lines(uint64_t most, int patience_ms = 10'000)
    {
        static constexpr size_t MUCH = 1 << 20;
        const auto room = std::make_unique<char[]>(MUCH);
        uint64_t lines = 0;
        pollfd wait{fd_, POLLIN, 0};
        while (lines < most && poll(&wait, 1, patience_ms) == 1) {
            const ssize_t n = read(fd_, room.get(), MUCH);
            if (n <= 0) {
                break;
            }
            lines += static_cast<uint64_t>(std::count(room.get(), room.get() + n, '\n'));
        }
        return lines;
    }
    // Nothing: none came in time, or the other side has closed.
    std::optional<nlohmann::json> read_line(int patience_ms = 10'000)
    {
        for (;;) {
            const size_t end = in_.find('\n', looked_);
            if (end != std::string::npos) {
                auto line =
                    nlohmann::json::parse(in_.begin(), in_.begin() + static_cast<ptrdiff_t>(end), nullptr, false);
                in_.erase(0, end + 1);
                looked_ = 0;
                return line;
            }
            looked_ = in_.size();
            pollfd wait{fd_, POLLIN, 0};
            char room[65536];
            const ssize_t n = poll(&wait, 1, patience_ms) == 1 ? read(fd_, room, sizeof room) : -1;
            if (n <= 0) {
                closed_ = n == 0;
                return std::nullopt;
            }
            in_.append(room, static_cast<size_t>(n));
        }
    }
    bool closed() const { return closed_; }
    nlohmann::json ask(nlohmann::json request)
    {
        request["v"] = 1;
        request["id"] = ++id_;
        if (!send_text(request.dump() + "\n")) {
            return nullptr;
        }
        const auto line = read_line();
        return line ? *line : nlohmann::json();
    }
    nlohmann::json ask(const char *op) { return ask(nlohmann::json{{"op", op}}); }

private:
    int fd_;
    bool connected_ = false;
    bool closed_ = false;
    std::string in_;
    size_t looked_ = 0; // of in_: there is no end of a line so far
    uint64_t id_ = 0;
};
