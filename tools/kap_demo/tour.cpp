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
