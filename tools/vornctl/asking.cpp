#include "asking.hpp"

#include <cerrno>
#include <cstring>

#include <unistd.h>

#include "itc.h"

namespace vornctl
{

using linkd_client::trouble;

registry::registry()
{
    const int result = itc_init(1, 0, nullptr, nullptr, 0);
    if (result == EACCES) {
        throw failure(exits::not_allowed, "the registry itcd does not let this user in (group kap-admin; see itcd(8))");
    }
    if (result != 0) {
        throw failure(exits::no_registry, std::string("the registry itcd cannot be reached: ") + strerror(result));
    }
    const std::string name = "vornctl." + std::to_string(getpid());
    if (itc_create_mailbox(name.c_str(), 0) == ITC_NO_MBOX) {
        itc_exit();
        throw failure(exits::not_allowed, "the registry itcd gives no mailbox");
    }
}

registry::~registry() { itc_exit(); }

std::vector<link_list::link> ask_daemon_for_links()
{
    std::string error;
    auto links = link_list::fetch(ITC_BOUND_MS, &error);
    if (!links) {
        throw failure(exits::no_daemon, error);
    }
    return std::move(*links);
}

failure as_failure(const linkd_client::failure &problem)
{
    switch (problem.kind) {
    case trouble::not_there:
    case trouble::silent:
        return {exits::no_daemon, problem.what()};
    case trouble::not_allowed:
        return {exits::not_allowed, problem.what()};
    default:
        return {exits::failed, problem.what()};
    }
}

std::unique_ptr<linkd_client::connection> open_linkd(const call &c)
{
    try {
        return std::make_unique<linkd_client::connection>(c.linkd_socket);
    } catch (const linkd_client::failure &problem) {
        throw as_failure(problem);
    }
}

nlohmann::json ask_linkd(const call &c, const std::string &op, nlohmann::json request)
{
    const auto connection = open_linkd(c);
    try {
        return connection->ask(op, std::move(request), LINKD_BOUND);
    } catch (const linkd_client::failure &problem) {
        throw as_failure(problem);
    }
}

linkd_links::linkd_links(const call &c, const std::vector<std::string> &members)
{
    try {
        connection_ = std::make_unique<linkd_client::connection>(c.linkd_socket);
    } catch (const linkd_client::failure &) {
        return;
    }
    ask(members);
}

void linkd_links::ask(const std::vector<std::string> &members)
{
    try {
        question_ = connection_ ? connection_->send("links", {{"members", members}}, NAMES_BOUND) : 0;
    } catch (const linkd_client::failure &) {
        connection_.reset();
    }
}

std::optional<nlohmann::json> linkd_links::take()
{
    if (!connection_) {
        return std::nullopt;
    }
    try {
        auto answer = connection_->await(question_, NAMES_BOUND);
        const auto links = answer.find("links");
        return links != answer.end() && links->is_array() ? std::optional(std::move(*links)) : std::nullopt;
    } catch (const linkd_client::failure &) {
        return std::nullopt;
    }
}

} // namespace vornctl
