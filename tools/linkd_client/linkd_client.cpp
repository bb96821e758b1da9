#include "linkd_client.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace linkd_client
{

namespace
{

using steady = std::chrono::steady_clock;
using json = nlohmann::json;

[[noreturn]] void fail_connect(const std::string &path, int error)
{
    if (error == EACCES || error == EPERM) {
        throw failure(trouble::not_allowed,
                      "kap-linkd: this user may not use " + path + " (groups: kap-read to look, kap-admin to change)");
    }
    if (error == EAGAIN || error == EINPROGRESS) {
        throw failure(trouble::silent, "kap-linkd does not take another client at " + path);
    }
    throw failure(trouble::not_there, "kap-linkd is not there (" + path + ": " + strerror(error) +
                                          "); start it: systemctl start kap-linkd");
}

[[noreturn]] void fail_ended() { throw failure(trouble::not_there, "kap-linkd has closed the connection"); }

// True: something can be done; false: the time is over.
bool wait_for(int fd, short events, steady::time_point end)
{
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - steady::now()).count();
        pollfd wait{fd, events, 0};
        const int ready = poll(&wait, 1, left > 0 ? static_cast<int>(std::min<int64_t>(left, 3'600'000)) : 0);
        if (ready > 0) {
            return true;
        }
        if (ready == 0 && left <= 0) {
            return false;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
}

bool answers(const json &line, uint64_t id)
{
    return line.contains("id") && line["id"].is_number_unsigned() && line["id"].get<uint64_t>() == id &&
           !line.contains("event");
}

} // namespace

connection::connection(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        fail_connect(path, ENAMETOOLONG);
    }
    memcpy(address.sun_path, path.data(), path.size());
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ < 0 || connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        const int error = errno;
        if (fd_ >= 0) {
            close(fd_);
        }
        fail_connect(path, error);
    }
}

connection::~connection() { close(fd_); }

pid_t connection::peer() const
{
    ucred who{};
    socklen_t size = sizeof who;
    return getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &who, &size) == 0 ? who.pid : 0;
}

uint64_t connection::send(const std::string &op, json request, std::chrono::milliseconds bound)
{
    request["v"] = PROTOCOL_VERSION;
    request["id"] = ++last_id_;
    request["op"] = op;
    write_whole(request.dump(-1, ' ', false, json::error_handler_t::replace) + "\n", steady::now() + bound);
    return last_id_;
}

json connection::ask(const std::string &op, json request, std::chrono::milliseconds bound)
{
    return await(send(op, std::move(request), bound), bound);
}

json connection::await(uint64_t id, std::chrono::milliseconds bound)
{
    const auto end = steady::now() + bound;
    for (;;) {
        std::optional<json> line = line_in_buffer();
        if (steady::now() >= end + std::chrono::seconds(1) ||
            (!line && !read_some(end))) { // also when other lines never end
            throw failure(trouble::silent, "kap-linkd did not answer within " + std::to_string(bound.count()) + " ms");
        }
        if (!line) {
            continue;
        }
        if (answers(*line, id)) {
            expect_good(*line);
            return *line;
        }
        // Refused before it was understood: such an answer has no id.
        if (line->contains("ok") && !(line->contains("id") && (*line)["id"].is_number_unsigned())) {
            expect_good(*line);
        }
        kept_.push_back(std::move(*line));
    }
}

std::optional<json> connection::next_line(std::chrono::milliseconds bound)
{
    if (!kept_.empty()) {
        json first = std::move(kept_.front());
        kept_.erase(kept_.begin());
        return first;
    }
    const auto end = steady::now() + bound;
    for (;;) {
        if (auto line = line_in_buffer()) {
            return line;
        }
        if (!read_some(end)) {
            return std::nullopt;
        }
    }
}

std::optional<json> connection::line_in_buffer()
{
    const size_t end = buffer_.find('\n', looked_);
    if (end == std::string::npos) {
        looked_ = buffer_.size();
        return std::nullopt;
    }
    json line = json::parse(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(end), nullptr, false);
    buffer_.erase(0, end + 1);
    looked_ = 0;
    if (!line.is_object()) {
        throw failure(trouble::nonsense, "what listens at the control socket of kap-linkd sends lines that are no JSON "
                                         "objects");
    }
    const auto version = line.find("v");
    if (version == line.end() || !version->is_number_integer() || version->get<int64_t>() != PROTOCOL_VERSION) {
        throw failure(trouble::nonsense, "kap-linkd speaks version " + (version == line.end() ? "?" : version->dump()) +
                                             " of its protocol, and this program version " +
                                             std::to_string(PROTOCOL_VERSION) + ": install both from one release");
    }
    return line;
}

// False: nothing came in time.
bool connection::read_some(steady::time_point end)
{
    char bytes[65536];
    for (;;) {
        const ssize_t got = read(fd_, bytes, sizeof bytes);
        if (got > 0) {
            if (buffer_.size() + static_cast<size_t>(got) > LONGEST_LINE) {
                throw failure(trouble::nonsense, "kap-linkd sends a line without end");
            }
            buffer_.append(bytes, static_cast<size_t>(got));
            return true;
        }
        if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            fail_ended();
        }
        if (errno == EAGAIN && !wait_for(fd_, POLLIN, end)) {
            return false;
        }
    }
}

void connection::write_whole(const std::string &line, steady::time_point end)
{
    size_t written = 0;
    while (written < line.size()) {
        const ssize_t count = ::send(fd_, line.data() + written, line.size() - written, MSG_NOSIGNAL);
        if (count >= 0) {
            written += static_cast<size_t>(count);
        } else if (errno == EAGAIN) {
            if (!wait_for(fd_, POLLOUT, end)) {
                throw failure(trouble::silent, "kap-linkd does not take requests");
            }
        } else if (errno == EPIPE || errno == ECONNRESET) {
            return; // whoever hung up may have said why: the next read finds that, or the end
        } else if (errno != EINTR) {
            fail_ended();
        }
    }
}

void expect_good(const json &answer)
{
    const auto ok = answer.find("ok");
    if (ok != answer.end() && ok->is_boolean() && ok->get<bool>()) {
        return;
    }
    const json error = answer.value("error", json::object());
    if (!error.is_object() || !error.contains("code") || !error["code"].is_string()) {
        throw failure(trouble::nonsense, "kap-linkd answers without sense");
    }
    const auto code = error["code"].get<std::string>();
    const std::string text =
        error.contains("text") && error["text"].is_string() ? error["text"].get<std::string>() : code;
    throw failure(code == "not_allowed" ? trouble::not_allowed : trouble::refused, "kap-linkd: " + text, code);
}

} // namespace linkd_client
