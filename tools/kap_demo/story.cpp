#include "story.hpp"

#include <algorithm>
#include <cstdio>

namespace
{

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using clock_type = std::chrono::steady_clock;

// One ping a second; the sixth lost one in a row disables a link, and each is known to be lost within a second.
constexpr milliseconds FIRST_ANSWER_BOUND = 4s;
constexpr milliseconds SIX_LOST_LEAST = 5s;
constexpr milliseconds SIX_LOST_MOST = 8s;
constexpr milliseconds AT_ONCE = 2s;

constexpr const char *PMI_ENABLE = "PMI_ENABLE_PORT_VLAN_REQ";
constexpr const char *PMI_DISABLE = "PMI_DISABLE_PORT_VLAN_REQ";

[[noreturn]] void does_not_hold(const std::string &what) { throw stage_failure(what); }

void hold(bool condition, const std::string &what)
{
    if (!condition) {
        does_not_hold(what);
    }
}

std::string both(milliseconds first, milliseconds second)
{
    return "after " + demo_seconds(first) + " and " + demo_seconds(second);
}

milliseconds since(clock_type::time_point start)
{
    return std::chrono::duration_cast<milliseconds>(clock_type::now() - start);
}

// ---- What the node's services were asked for ------------------------------------------------------------------------

bool pmi_has_vlan(uint16_t vlan)
{
    nlohmann::json vlans = stage_control("pmi", {"show"})["vlans"];
    return std::any_of(vlans.begin(), vlans.end(), [=](const auto &v) { return v["vlan_id"] == vlan; });
}

uint64_t pmi_received(const char *request) { return stage_control("pmi", {"show"})["counters"]["received"][request]; }

bool emi_has_mac(const mac_address &mac)
{
    std::string wanted = mac_to_text(mac);
    std::string shown = stage_control("emi", {"show"})["endpoints"].dump();
    std::transform(shown.begin(), shown.end(), shown.begin(), [](unsigned char c) { return std::toupper(c); });
    return shown.find(wanted) != std::string::npos;
}

bool emi_has_vlan(uint16_t vlan)
{
    nlohmann::json endpoints = stage_control("emi", {"show"})["endpoints"];
    return std::any_of(endpoints.begin(), endpoints.end(), [=](const auto &e) { return e["vlan_id"] == vlan; });
}

// ---- The steps: each gives what was seen, or throws what does not hold ----------------------------------------------

std::string start_everything(demo &d)
{
    demo_start(d);
    std::string tagged = wires_kernel_has_vlan_devices() ? "TN_A has an interface of its own for its VLAN"
                                                         : "this kernel has no VLAN devices: all tags are the sender's";
    return std::to_string(d.stage.processes.size()) + " processes; " + tagged;
}

std::string create(demo &d, const iemli_link_wish &wish)
{
    demo_link &link = demo_create(d, wish);
    hold(emi_has_mac(wish.far_cpm_mac), "the endpoint manager does not know the far end");
    return "confirmed, link_ref " + std::to_string(link.link_ref);
}

std::string create_first(demo &d) { return create(d, demo_first_wish(d)); }

std::string create_second(demo &d) { return create(d, demo_second_wish(d)); }

std::string both_enabled(demo &d)
{
    auto start = clock_type::now();
    demo_wait_status(d, d.links[0].link_ref, IML_LINK_ENABLED, 0, FIRST_ANSWER_BOUND);
    auto first = since(start);
    demo_wait_status(d, d.links[1].link_ref, IML_LINK_ENABLED, 0, FIRST_ANSWER_BOUND);
    return "\"enabled\" " + both(first, since(start));
}

std::string far_end_silent(demo &d)
{
    auto start = clock_type::now();
    demo_set_far_end(d, false);
    uint64_t before = demo_far_end_counts(d.links[0]).ignored;
    for (const demo_link &link : d.links) {
        demo_wait_status(d, link.link_ref, IML_LINK_DISABLED, IML_LINK_REASON_NO_CONNECTIVITY, SIX_LOST_MOST);
        hold(since(start) >= SIX_LOST_LEAST, "disabled after " + demo_seconds(since(start)) + " already");
    }
    uint64_t unanswered = demo_far_end_counts(d.links[0]).ignored - before;
    hold(unanswered == 6 || unanswered == 7, std::to_string(unanswered) + " pings were left unanswered");
    return "\"disabled with reason no connectivity\" after " + demo_seconds(since(start)) + ", " +
           std::to_string(unanswered) + " pings unanswered" + (unanswered == 7 ? " (the last not yet given up)" : "");
}

std::string far_end_back(demo &d)
{
    auto start = clock_type::now();
    std::vector<uint64_t> before;
    for (const demo_link &link : d.links) {
        before.push_back(demo_far_end_counts(link).answered);
    }
    demo_set_far_end(d, true);
    for (size_t i = 0; i < d.links.size(); i++) {
        demo_wait_status(d, d.links[i].link_ref, IML_LINK_ENABLED, 0, AT_ONCE);
        hold(demo_far_end_counts(d.links[i]).answered > before[i], "enabled without an answer");
    }
    return "\"enabled\" after " + demo_seconds(since(start));
}

std::string interface_down(demo &d)
{
    auto start = clock_type::now();
    const demo_link &link = d.links[0];
    wires_set_near(link.interface, false);
    demo_wait_status(d, link.link_ref, IML_LINK_DISABLED, IML_LINK_REASON_DOWN, AT_ONCE);
    hold(d.links[1].status == IML_LINK_ENABLED, "the link on the other port was disabled too");
    return "\"disabled with reason down\" after " + demo_seconds(since(start)) + ", the other link enabled as before";
}

std::string interface_up(demo &d)
{
    auto start = clock_type::now();
    const demo_link &link = d.links[0];
    wires_set_near(link.interface, true);
    demo_wait_status(d, link.link_ref, IML_LINK_ENABLED, 0, FIRST_ANSWER_BOUND);
    return "\"enabled\" after " + demo_seconds(since(start));
}

std::string update_app_links(demo &d)
{
    demo_link &link = d.links[0];
    IemliAppLink removed = link.wish.app_links.back();
    IemliAppLink added = removed;
    added.nearEndAppMac.byte[4] = added.farEndAppMac.byte[4] = 0x77;
    link.wish.app_links.back() = added;
    iemli_answer answer = iemli_client_update_link(d.client, link.link_ref, link.wish.app_links);
    hold(answer.outcome == iemli_outcome::confirmed, "the update was not confirmed");
    hold(emi_has_mac(added.farEndAppMac), "the endpoint manager does not know the new app link");
    hold(!emi_has_mac(removed.farEndAppMac), "the endpoint manager still knows the old app link");
    return "confirmed; the endpoint manager has the new app link in place of the old";
}

std::string refused_create(demo &d)
{
    uint64_t enabled = pmi_received(PMI_ENABLE);
    uint64_t disabled = pmi_received(PMI_DISABLE);
    stage_control("emi", {"fault", "reject", "EMI_ADD_ENDPOINT_REQ", "1", "EMI_REJ_MAX_NUM_ENDPOINTS_REACHED"});
    iemli_answer answer = iemli_client_create_link(d.client, demo_wish(d, "IDL_A1", 101, 1));
    hold(answer.outcome == iemli_outcome::rejected && answer.reason == IEMLI_REJ_OTHER_REASON,
         "the create was not rejected with IEMLI_REJ_OTHER_REASON");
    stage_wait(d.stage, "VLAN 101 is taken back", AT_ONCE, [&] { return pmi_received(PMI_DISABLE) == disabled + 1; });
    hold(pmi_received(PMI_ENABLE) == enabled + 1, "VLAN 101 was never enabled");
    hold(!pmi_has_vlan(101), "the port still has VLAN 101");
    return std::string("rejected with ") + iemli_client_reason_name(answer.reason) +
           "; VLAN 101 was enabled on the port and taken back";
}

std::string delete_both(demo &d)
{
    demo_delete_all(d);
    for (uint16_t vlan : std::initializer_list<uint16_t>{100, 200}) {
        hold(!pmi_has_vlan(vlan), "the port still has VLAN " + std::to_string(vlan));
        hold(!emi_has_vlan(vlan), "the endpoint manager still has endpoints in VLAN " + std::to_string(vlan));
    }
    return "confirmed; no VLAN and no endpoint of theirs is left";
}

std::string terminate(demo &d)
{
    demo_stop_daemon(d);
    return "exit status 0";
}

std::string strike_the_stage(demo &d)
{
    demo_stop_rest(d);
    return "no process, no namespace, no socket";
}

struct step {
    const char *title;
    std::string (*run)(demo &);
};

constexpr step STEPS[] = {
    {"everything is started, a client opens a session", start_everything},
    {"a link on IDL_A1 in VLAN 100 with two app links", create_first},
    {"a link on TN_A in VLAN 200", create_second},
    {"both links come up", both_enabled},
    {"the far end falls silent", far_end_silent},
    {"the far end is back", far_end_back},
    {"the port's interface goes down", interface_down},
    {"the interface comes up", interface_up},
    {"one app link is exchanged for another", update_app_links},
    {"a link that the endpoint manager refuses", refused_create},
    {"both links are deleted", delete_both},
    {"SIGTERM to the daemon", terminate},
    {"what is left behind", strike_the_stage},
};

bool run_step(demo &d, size_t number)
{
    const step &step = STEPS[number];
    auto start = clock_type::now();
    std::string seen;
    bool held = true;
    try {
        seen = step.run(d);
    } catch (const std::exception &failure) {
        seen = failure.what();
        held = false;
    }
    printf("%2zu  %-48s %-4s %7s  %s\n", number + 1, step.title, held ? "ok" : "FAIL",
           demo_seconds(since(start)).c_str(), seen.c_str());
    (void)fflush(stdout);
    return held;
}

} // namespace

int story_run(demo &d)
{
    auto start = clock_type::now();
    for (size_t i = 0; i < std::size(STEPS); i++) {
        if (!run_step(d, i)) {
            printf("the logs of the processes are in %s\n", d.stage.log_dir.c_str());
            return 1;
        }
    }
    printf("all %zu steps held, in %s\n", std::size(STEPS), demo_seconds(since(start)).c_str());
    return 0;
}
