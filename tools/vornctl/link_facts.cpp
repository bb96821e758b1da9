#include "link_facts.hpp"

#include <cstdio>

#include "output.hpp"
#include "times.hpp"

namespace vornctl
{

namespace
{

std::string app_links_text(const nlohmann::json &link)
{
    std::string text;
    for (const nlohmann::json &one : link.value("app_links", nlohmann::json::array())) {
        text += (text.empty() ? "" : ", ") + text_in(one, "near") + " to " + text_in(one, "far");
    }
    return text.empty() ? "none" : text;
}

std::string rtt_wish_text(const nlohmann::json &link)
{
    const nlohmann::json rtt = link.value("rtt", nlohmann::json());
    if (rtt.is_object()) {
        return "batches of " + std::to_string(number_in(rtt, "batch")) + ", one ping in " +
               std::to_string(number_in(rtt, "interval")) + " s, frames of " +
               std::to_string(number_in(rtt, "frame_bytes")) + " bytes";
    }
    return rtt.is_boolean() && rtt.get<bool>() ? "on" : "off";
}

std::string or_dash(const std::string &text) { return text.empty() ? "-" : text; }

} // namespace

std::string state_and_reason(const std::string &state, const std::string &reason)
{
    return reason.empty() ? state : state + ": " + reason;
}

std::string rtt_text(const nlohmann::json &rtt_us)
{
    if (!rtt_us.is_object()) {
        return "-";
    }
    std::string text;
    for (const char *name : {"min", "avg", "max"}) {
        const auto value = rtt_us.find(name);
        char number[32];
        (void)snprintf(number, sizeof number, "%.2f",
                       value != rtt_us.end() && value->is_number() ? value->get<double>() : 0.0);
        text += (text.empty() ? "" : " / ") + std::string(number);
    }
    return text;
}

std::vector<std::pair<std::string, text_table::cell>> facts_of(const nlohmann::json &link, int64_t now)
{
    const std::string state = text_in(link, "state");
    const int64_t since = number_in(link, "since_us");
    std::vector<std::pair<std::string, text_table::cell>> facts = {
        {"name", text_in(link, "name")},
        {"state", {state_and_reason(state, text_in(link, "reason")), colour_of_state(state)}},
        {"since", since == 0 ? "-" : clock_text(since) + ", " + span_text(now - since)},
        {"port", text_in(link, "port")},
        {"VLAN", std::to_string(number_in(link, "vlan"))},
        {"far end", text_in(link, "far")},
        {"near end", or_dash(text_in(link, "near_mac"))},
        {"processor", std::to_string(number_in(link, "near_mp"))},
        {"app links", app_links_text(link)},
        {"lost", std::to_string(number_in(link, "lost")) + " of " + std::to_string(number_in(link, "results"))},
        {"flaps today", std::to_string(number_in(link, "flaps_today"))},
        {"RTT", rtt_wish_text(link)},
        {"last RTT", rtt_text(link.value("rtt_us", nlohmann::json())) + " us"},
        {"with the daemon", number_in(link, "link_ref") > 0 ? "as link " + std::to_string(number_in(link, "link_ref"))
                                                            : std::string("no")},
        {"comes from", text_in(link, "source") == "runtime" ? "vornctl link add" : or_dash(text_in(link, "file"))},
    };
    const int64_t next = number_in(link, "next_try_us");
    if (next > 0) {
        facts.emplace_back("tried again", next <= now ? "now" : "in " + span_text(next - now));
    }
    return facts;
}

text_table::row change_head() { return {"ID", "TIME", "LINK", "PORT", "VLAN", "FROM", "TO", "REASON", "LASTED"}; }

text_table::row change_row(const nlohmann::json &change)
{
    const std::string to = text_in(change, "to");
    return {std::to_string(number_in(change, "id")),
            clock_text(number_in(change, "at_us")),
            text_in(change, "link"),
            text_in(change, "port"),
            std::to_string(number_in(change, "vlan")),
            text_in(change, "from"),
            {to, colour_of_state(to)},
            or_dash(text_in(change, "reason")),
            span_text(number_in(change, "lasted_us"))};
}

} // namespace vornctl
