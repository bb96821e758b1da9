// A peer of the control socket: one line out, one line in.
#pragma once

#include <nlohmann/json.hpp>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
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
    // Nothing: none came in time, or the other side has closed.
    std::optional<nlohmann::json> read_line(int patience_ms = 10'000)
    {
        for (;;) {
            const size_t end = in_.find('\n');
            if (end != std::string::npos) {
                const auto line = nlohmann::json::parse(in_.substr(0, end), nullptr, false);
                in_.erase(0, end + 1);
                return line;
            }
            pollfd wait{fd_, POLLIN, 0};
            char room[4096];
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
    uint64_t id_ = 0;
};
