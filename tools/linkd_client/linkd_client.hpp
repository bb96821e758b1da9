// A client of kap-linkd's control socket: one JSON object a line, both ways (docs/schema/linkd-control.json).
//
// Nothing that the other side does makes it wait longer than it was told to, or take more memory than a line may have.
// It starts no thread and keeps nothing but the connection; whoever has lost that connects again.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/types.h>

#include <nlohmann/json.hpp>

namespace linkd_client
{

inline constexpr int PROTOCOL_VERSION = 1;
inline constexpr const char *SOCKET_PATH = "/run/kap-linkd/control.sock";
inline constexpr size_t LONGEST_LINE = size_t{64} << 20;

enum class trouble {
    not_there,   // nobody listens there, or it ended
    not_allowed, // this user may not, or not this
    silent,      // it does not answer in time
    nonsense,    // it speaks something else, or another version
    refused,     // it said no: the text says why
};

struct failure : std::runtime_error {
    failure(trouble its_kind, const std::string &text, std::string its_code = "")
        : std::runtime_error(text), kind(its_kind), code(std::move(its_code))
    {
    }
    trouble kind;
    std::string code; // of a refusal, as the protocol has it: "unknown_link", ...
};

class connection
{
public:
    // Throws failure.
    explicit connection(const std::string &path = SOCKET_PATH);
    ~connection();
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    // A request and its answer; lines that answer something else are kept for next_line. Throws failure, also where the
    // answer is a refusal.
    nlohmann::json ask(const std::string &op, nlohmann::json request, std::chrono::milliseconds bound);

    // The two halves, for who waits for more than this. send gives the request's id.
    uint64_t send(const std::string &op, nlohmann::json request, std::chrono::milliseconds bound);
    // The answer to a request that was sent, as ask() gives it.
    nlohmann::json await(uint64_t id, std::chrono::milliseconds bound);
    // The next line that is there; waits for one at most that long.
    std::optional<nlohmann::json> next_line(std::chrono::milliseconds bound);

    int descriptor() const { return fd_; }
    // The process at the other end; 0: not known.
    pid_t peer() const;

private:
    std::optional<nlohmann::json> line_in_buffer();
    bool read_some(std::chrono::steady_clock::time_point end);
    void write_whole(const std::string &line, std::chrono::steady_clock::time_point end);

    int fd_ = -1;
    uint64_t last_id_ = 0;
    std::string buffer_;
    size_t looked_ = 0; // so far the buffer has no end of a line
    std::vector<nlohmann::json> kept_;
};

// Throws failure where an answer is none, or a refusal.
void expect_good(const nlohmann::json &answer);

} // namespace linkd_client
