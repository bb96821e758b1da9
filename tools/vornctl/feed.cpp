#include "feed.hpp"

#include "output.hpp"

namespace vornctl
{

feed::feed(std::string socket_path, std::optional<uint64_t> since, std::string link, taker changed)
    : socket_path_(std::move(socket_path)), last_(since), link_(std::move(link)), changed_(std::move(changed))
{
}

void feed::open(std::chrono::milliseconds bound)
{
    answers_.clear();
    auto fresh = std::make_unique<linkd_client::connection>(socket_path_);
    if (!last_) {
        const auto status = fresh->ask("status", nlohmann::json::object(), bound);
        last_ = static_cast<uint64_t>(number_in(status, "newest_event"));
    }
    nlohmann::json request = {{"since", *last_}, {"follow", true}};
    if (!link_.empty()) {
        request["link"] = link_;
    }
    const auto answer = fresh->ask("events", request, bound);
    connection_ = std::move(fresh);
    for (const nlohmann::json &change : answer.value("events", nlohmann::json::array())) {
        take_change(change);
    }
}

bool feed::reopen()
{
    try {
        open(std::chrono::milliseconds(1000));
        trouble_.clear();
        return true;
    } catch (const linkd_client::failure &problem) {
        lose(problem.what());
        return false;
    }
}

void feed::ask(const std::string &op, nlohmann::json request, taker answered)
{
    if (connection_) {
        answers_[connection_->send(op, std::move(request), LINKD_BOUND)] = std::move(answered);
    }
}

bool feed::take(std::chrono::milliseconds bound)
{
    if (!connection_) {
        return false;
    }
    try {
        for (auto line = connection_->next_line(bound); line;
             line = connection_->next_line(std::chrono::milliseconds(0))) {
            take_line(*line);
        }
        return true;
    } catch (const linkd_client::failure &problem) {
        lose(problem.what());
        return false;
    }
}

void feed::take_line(const nlohmann::json &line)
{
    const auto change = line.find("event");
    if (change != line.end()) {
        take_change(*change);
        return;
    }
    const auto awaited = answers_.find(static_cast<uint64_t>(number_in(line, "id")));
    if (awaited == answers_.end()) {
        return;
    }
    const taker answered = std::move(awaited->second);
    answers_.erase(awaited);
    if (line.value("ok", false)) {
        answered(line);
    }
}

// After a loss the same may be told again.
void feed::take_change(const nlohmann::json &change)
{
    const auto id = static_cast<uint64_t>(number_in(change, "id"));
    if (!last_ || id > *last_) {
        last_ = id;
        changed_(change);
    }
}

void feed::lose(const std::string &why)
{
    connection_.reset();
    answers_.clear();
    trouble_ = why;
}

} // namespace vornctl
