#include "past.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <utility>

#include "output.hpp"
#include "times.hpp"

namespace vornctl
{

since read_since(const std::string &word)
{
    since from;
    const bool digits = !word.empty() && word.size() < 19 &&
                        std::all_of(word.begin(), word.end(), [](unsigned char c) { return isdigit(c) != 0; });
    if (digits) {
        from.id = strtoull(word.c_str(), nullptr, 10);
        return from;
    }
    from.at_us = read_moment(word, now_us());
    if (!from.at_us) {
        throw failure(exits::wrong_use, "\"" + word +
                                            "\" is neither the id of a change nor a moment (15m, 2h, 3d, "
                                            "today, 14:30, \"2026-11-22 14:30\")");
    }
    return from;
}

std::vector<nlohmann::json> newest_changes(linkd_client::connection &linkd, const since &from, const std::string &link,
                                           size_t limit, const std::function<bool(const nlohmann::json &)> &wanted)
{
    constexpr size_t LEAST_PAGE = 100;
    constexpr size_t MOST_PAGE = 2000;
    size_t page = std::clamp(limit, LEAST_PAGE, MOST_PAGE); // more each time: few of them may be wanted
    std::vector<nlohmann::json> kept;                       // the newest first
    nlohmann::json request = {{"since", from.id.value_or(0)}};
    if (from.at_us) {
        request["since_us"] = std::max<int64_t>(*from.at_us, 0);
    }
    if (!link.empty()) {
        request["link"] = link;
    }
    for (bool more = true; more && kept.size() < limit;) {
        request["newest"] = std::exchange(page, std::min(2 * page, MOST_PAGE));
        auto answer = linkd.ask("events", request, LINKD_BOUND);
        auto events = std::move(answer["events"]);
        more = answer.value("more", false) && events.is_array() && !events.empty();
        if (more) {
            request["before"] = number_in(events.front(), "id");
        }
        for (auto at = events.rbegin(); at != events.rend() && kept.size() < limit; ++at) {
            if (wanted(*at)) {
                kept.push_back(std::move(*at));
            }
        }
    }
    std::reverse(kept.begin(), kept.end());
    return kept;
}

uint64_t id_before(linkd_client::connection &linkd, int64_t at_us)
{
    // Asked for first: what comes meanwhile is behind it.
    const auto status = linkd.ask("status", nlohmann::json::object(), LINKD_BOUND);
    const auto answer = linkd.ask("events", {{"since_us", std::max<int64_t>(at_us, 0)}, {"limit", 1}}, LINKD_BOUND);
    const auto events = answer.value("events", nlohmann::json::array());
    return events.empty() ? static_cast<uint64_t>(number_in(status, "newest_event"))
                          : static_cast<uint64_t>(number_in(events.front(), "id")) - 1;
}

} // namespace vornctl
