// The changes as they come, and what else is asked meanwhile, over one connection with kap-linkd that is made again
// when it is lost: none is missed and none comes twice, whatever happens to kap-linkd.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "asking.hpp"

namespace vornctl
{

class feed
{
public:
    using taker = std::function<void(const nlohmann::json &)>;

    // Changes with an id above `since`; without one, those from now on.
    feed(std::string socket_path, std::optional<uint64_t> since, std::string link, taker changed);

    // The first connection. Throws linkd_client::failure.
    void open(std::chrono::milliseconds bound = LINKD_BOUND);
    // The same after a loss, without much patience; false: not yet, and trouble() says why.
    bool reopen();
    bool is_open() const { return connection_ != nullptr; }
    const std::string &trouble() const { return trouble_; }
    int descriptor() const { return connection_ ? connection_->descriptor() : -1; }

    // Sends a request; `answered` is called from take() with the answer, if it is a good one.
    void ask(const std::string &op, nlohmann::json request, taker answered);
    // How many answers are awaited.
    size_t awaited() const { return answers_.size(); }

    // Takes what has come; waits for the first line at most that long. False: the connection is lost.
    bool take(std::chrono::milliseconds bound);

    // The last change that was taken.
    std::optional<uint64_t> last() const { return last_; }

private:
    void take_line(const nlohmann::json &line);
    void take_change(const nlohmann::json &change);
    void lose(const std::string &why);

    std::string socket_path_;
    std::optional<uint64_t> last_;
    std::string link_;
    taker changed_;
    std::unique_ptr<linkd_client::connection> connection_;
    std::map<uint64_t, taker> answers_;
    std::string trouble_;
};

} // namespace vornctl
