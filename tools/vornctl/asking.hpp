// The ways to those who know: the registry and the daemon over ITC, kap-linkd over its control socket. What goes wrong
// on the way becomes a failure with its exit status.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command.hpp"
#include "link_list/link_list.hpp"
#include "linkd_client.hpp"

namespace vornctl
{

inline constexpr uint32_t ITC_BOUND_MS = 3000;
inline constexpr std::chrono::milliseconds LINKD_BOUND{5000};
inline constexpr std::chrono::milliseconds NAMES_BOUND{1000}; // where it is only about names

// A connection with the registry and a mailbox, as long as it lives. Throws failure. One at a time.
class registry
{
public:
    registry();
    ~registry();
    registry(const registry &) = delete;
    registry &operator=(const registry &) = delete;
};

// Throws failure.
std::vector<link_list::link> ask_daemon_for_links();

// A connection with kap-linkd. Throws failure.
std::unique_ptr<linkd_client::connection> open_linkd(const call &c);
// One request, one answer, on a connection of its own. Throws failure.
nlohmann::json ask_linkd(const call &c, const std::string &op, nlohmann::json request = nlohmann::json::object());
// The links that kap-linkd knows, for whom it is no failure that it is not there or may not be asked. The question is
// put when this is made, so that something else can be done until the answer is wanted. Only the named members of each
// link are asked for: there may be a thousand.
class linkd_links
{
public:
    linkd_links(const call &c, const std::vector<std::string> &members);
    // The answer, an array. Nothing: nobody told.
    std::optional<nlohmann::json> take();
    // The next question.
    void ask(const std::vector<std::string> &members);

private:
    std::unique_ptr<linkd_client::connection> connection_;
    uint64_t question_ = 0;
};

failure as_failure(const linkd_client::failure &problem);

} // namespace vornctl
