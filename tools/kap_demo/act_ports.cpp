// The tour's act of the ports: an interface goes down and comes up, a port is locked and unlocked.
#include <algorithm>

#include "tour.hpp"

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

namespace
{

constexpr uint16_t PORT_ENDPOINT_VLAN = 10;
constexpr const char *PTP_MAC = "01:1B:19:00:00:00";
constexpr const char *LLDP_MAC = "01:80:C2:00:00:0E";

// How many users the endpoint manager counts for an endpoint of the port's own.
uint64_t port_endpoint_users(const stage_port &port, const std::string &mac)
{
    const nlohmann::json shown = stage_control("emi", {"show"});
    for (const auto &e : shown["endpoints"]) {
        if (e["port"] == port.fmi_name && e["vlan_id"] == PORT_ENDPOINT_VLAN && e["mac"] == mac) {
            return e["users"];
        }
    }
    return 0;
}

// The access rules of the port, static and dynamic: what they say, without the numbers they go by.
std::vector<std::string> access_rules(const stage_port &port)
{
    std::vector<std::string> rules;
    const nlohmann::json shown = stage_control("fmi", {"show"});
    for (const char *list : {"static_rules", "dynamic_rules"}) {
        for (nlohmann::json rule : shown[list]) {
            if (rule["port"] == port.fmi_name) {
                rule.erase("id");
                rule.erase("policer_id");
                rules.push_back(rule.dump());
            }
        }
    }
    std::sort(rules.begin(), rules.end());
    return rules;
}

// A static rule, and dynamic ones for supervision, applications, PTP and LLDP.
constexpr size_t RULES_OF_A_PORT = 5;

// How many frames on the port the kernel has dropped because no dynamic rule lets them in.
uint64_t dropped_frames(const stage_port &port)
{
    const nlohmann::json shown = stage_control("fmi", {"show"})["kernel"]["ports"][port.fmi_name];
    uint64_t dropped = shown["default_action"]["dropped"]["packets"];
    for (const auto &rule : shown["static_rules"]) {
        dropped += rule.contains("dropped") ? rule["dropped"]["packets"].get<uint64_t>() : 0;
    }
    return dropped;
}

bool has_no_endpoints(const stage_port &port)
{
    return port_endpoint_users(port, PTP_MAC) == 0 && port_endpoint_users(port, LLDP_MAC) == 0;
}

// PTP once; LLDP twice, with PTP and by itself.
bool has_endpoints(const stage_port &port)
{
    return port_endpoint_users(port, PTP_MAC) == 1 && port_endpoint_users(port, LLDP_MAC) == 2;
}

void lock(demo &d, const stage_port &port)
{
    demo_set_locked(d, port, true);
    demo_wait_status(d, d.links[0].link_ref, IML_LINK_DISABLED, IML_LINK_REASON_DOWN, AT_ONCE);
    stage_wait(d.stage, "the endpoints are removed", AT_ONCE, [&] { return has_no_endpoints(port); });
    stage_wait(d.stage, "the access rules are removed", AT_ONCE, [&] { return access_rules(port).empty(); });
}

void unlock(demo &d, const stage_port &port)
{
    demo_set_locked(d, port, false);
    stage_wait(d.stage, "the endpoints are added", AT_ONCE, [&] { return has_endpoints(port); });
    stage_wait(d.stage, "the access rules are set up", AT_ONCE,
               [&] { return access_rules(port).size() == RULES_OF_A_PORT; });
    demo_wait_status(d, d.links[0].link_ref, IML_LINK_ENABLED, 0, FIRST_ANSWER_BOUND);
}

} // namespace

std::string interface_down(tour &t)
{
    demo &d = t.d;
    auto start = clock_type::now();
    const demo_link &link = d.links[0];
    wires_set_near(link.interface, false);
    demo_wait_status(d, link.link_ref, IML_LINK_DISABLED, IML_LINK_REASON_DOWN, AT_ONCE);
    hold(d.links[1].status == IML_LINK_ENABLED, "the link on the other port was disabled too");
    return "\"disabled with reason down\" after " + demo_seconds(since(start)) + ", the other link enabled as before";
}

std::string interface_up(tour &t)
{
    demo &d = t.d;
    auto start = clock_type::now();
    const demo_link &link = d.links[0];
    wires_set_near(link.interface, true);
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, FIRST_ANSWER_BOUND);
    return "\"enabled\" after " + demo_seconds(since(start));
}

// At the start the daemon hears of its ports and of the endpoint and flow managers at the same time. A port that is
// unlocked before they are there is left as it is, in part or as a whole, and set up with its next unlock.
std::string port_locked(tour &t)
{
    demo &d = t.d;
    const stage_port &port = d.stage.ports[0];
    const bool set_up = has_endpoints(port) && access_rules(port).size() == RULES_OF_A_PORT;
    if (!set_up) {
        lock(d, port);
        unlock(d, port);
    }
    const auto start = clock_type::now();
    t.rules = access_rules(port);
    lock(d, port);
    hold(d.links[1].status == IML_LINK_ENABLED, "the link on the other port was disabled too");
    return "\"disabled with reason down\"; PTP and LLDP endpoints and " + std::to_string(t.rules.size()) +
           " access rules removed after " + demo_seconds(since(start)) +
           (set_up ? "" : " (unlocked before its managers were there, it had to be set up first)");
}

std::string port_unlocked(tour &t)
{
    const auto start = clock_type::now();
    const stage_port &port = t.d.stage.ports[0];
    unlock(t.d, port);
    stage_wait(t.d.stage, "the access rules are as before", AT_ONCE, [&] { return access_rules(port) == t.rules; });
    return "\"enabled\" after " + demo_seconds(since(start)) + "; the endpoints and the same access rules are back";
}

// The rules let in supervision, applications, PTP and LLDP.
std::string stranger_dropped(tour &t)
{
    constexpr uint64_t FRAMES = 5;
    demo &d = t.d;
    const stage_port &port = d.stage.ports[0];
    if (d.stage.backend != "kernel") {
        return "left out: the rules stay in memory";
    }
    const uint64_t before = dropped_frames(port);
    send_experimental(FAR_NAMESPACE, port.wire.interface, port.wire.near_mac.byte, FRAMES);
    stage_wait(d.stage, "the kernel drops and counts them", AT_ONCE,
               [&] { return dropped_frames(port) >= before + FRAMES; });
    hold(dropped_frames(port) == before + FRAMES, "more frames were dropped than were sent");
    hold(d.links[0].status == IML_LINK_ENABLED, "the link was disabled");
    return std::to_string(FRAMES) +
           " frames of another EtherType from the far side: all dropped by the kernel's rules, "
           "and counted; the link enabled as before";
}
