// What the acts of the tour share: claims, and what the node's services have.
#include "tour.hpp"

#include <algorithm>

void hold(bool condition, const std::string &what)
{
    if (!condition) {
        throw stage_failure(what);
    }
}

std::chrono::milliseconds since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

bool pmi_has_vlan(uint16_t vlan)
{
    nlohmann::json vlans = stage_control("pmi", {"show"})["vlans"];
    return std::any_of(vlans.begin(), vlans.end(), [=](const auto &v) { return v["vlan_id"] == vlan; });
}

bool emi_has_vlan(uint16_t vlan)
{
    nlohmann::json endpoints = stage_control("emi", {"show"})["endpoints"];
    return std::any_of(endpoints.begin(), endpoints.end(), [=](const auto &e) { return e["vlan_id"] == vlan; });
}

bool emi_has_mac(const mac_address &mac)
{
    nlohmann::json endpoints = stage_control("emi", {"show"})["endpoints"];
    return std::any_of(endpoints.begin(), endpoints.end(), [&](const auto &e) { return e["mac"] == mac_to_text(mac); });
}

uint64_t received(const std::string &service, const std::string &request)
{
    return stage_control(service, {"show"})["counters"]["received"][request];
}

std::vector<link_list::link> fetch_list()
{
    constexpr uint32_t BOUND_MS = 2000;
    std::string error;
    auto links = link_list::fetch(BOUND_MS, &error);
    hold(links.has_value(), error);
    return *links;
}

link_list::link find_listed(const std::vector<link_list::link> &links, uint32_t link_ref)
{
    auto found = std::find_if(links.begin(), links.end(), [=](const auto &l) { return l.link_ref == link_ref; });
    hold(found != links.end(), "the link list lacks link " + std::to_string(link_ref));
    return *found;
}
