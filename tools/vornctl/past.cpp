#include "past.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>

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

uint64_t each_change(linkd_client::connection &linkd, uint64_t after, const std::string &link,
                     const std::function<bool(const nlohmann::json &)> &take)
{
    constexpr int PAGE = 500;
    for (;;) {
        nlohmann::json request = {{"since", after}, {"limit", PAGE}};
        if (!link.empty()) {
            request["link"] = link;
        }
        const auto answer = linkd.ask("events", request, LINKD_BOUND);
        bool any = false;
        for (const nlohmann::json &change : answer.value("events", nlohmann::json::array())) {
            const auto id = static_cast<uint64_t>(number_in(change, "id"));
            if (id <= after) {
                continue;
            }
            after = id;
            any = true;
            if (!take(change)) {
                return after;
            }
        }
        if (!any) {
            return after;
        }
    }
}

} // namespace vornctl
