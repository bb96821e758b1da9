// The JSON of a link as it stands (view.hpp).
#include "view.hpp"

#include <cstdio>

namespace linkd
{

std::string text_of(const mac_bytes &mac)
{
    char text[18];
    (void)snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return text;
}

namespace
{

nlohmann::json rtt_settings_of(const std::optional<rtt_wish> &rtt)
{
    if (!rtt) {
        return false;
    }
    return {{"batch", rtt->batch}, {"interval", rtt->interval}, {"frame_bytes", rtt->frame_bytes}};
}

nlohmann::json round_trips_of(const std::optional<rtt_sample> &sample)
{
    constexpr double NANOSECONDS = 1000;
    if (!sample || sample->valid == 0) {
        return nullptr;
    }
    return {{"min", static_cast<double>(sample->shortest_ns) / NANOSECONDS},
            {"avg", static_cast<double>(sample->average_ns) / NANOSECONDS},
            {"max", static_cast<double>(sample->longest_ns) / NANOSECONDS}};
}

} // namespace

nlohmann::json json_of(const link_view &view)
{
    nlohmann::json pairs = nlohmann::json::array();
    for (const app_pair &pair : view.app_links) {
        pairs.push_back({{"near", text_of(pair.near)}, {"far", text_of(pair.far)}});
    }
    return {{"name", view.link.name},
            {"port", view.link.port},
            {"vlan", view.link.vlan},
            {"far", view.link.far},
            {"near_mp", view.near_mp},
            {"app_links", std::move(pairs)},
            {"rtt", rtt_settings_of(view.rtt)},
            {"source", view.declared ? "declared" : "runtime"},
            {"file", view.file},
            {"state", name_of(view.state)},
            {"reason", view.reason},
            {"since_us", view.since_us},
            {"flaps_today", view.flaps_today},
            {"link_ref", view.link_ref},
            {"near_mac", view.near_mac},
            {"rtt_us", round_trips_of(view.last_rtt)},
            {"results", view.results},
            {"lost", view.lost},
            {"next_try_us", view.next_try_us}};
}

} // namespace linkd
