// The tour's act of the links: they come up, are disabled with the reason and come back, are changed, refused, deleted.
#include <algorithm>
#include <csignal>

#include "tour.hpp"

using namespace std::chrono_literals;
using std::chrono::milliseconds;
using clock_type = std::chrono::steady_clock;

namespace
{

constexpr milliseconds SIX_LOST_LEAST = 5s;
constexpr milliseconds SIX_LOST_MOST = 8s;

constexpr const char *PMI_ENABLE = "PMI_ENABLE_PORT_VLAN_REQ";
constexpr const char *PMI_DISABLE = "PMI_DISABLE_PORT_VLAN_REQ";
constexpr const char *PATH_CREATE = "AUTOMATIONAGENTSI_VORN_PATH_CREATE_REQ";
constexpr const char *PATH_UPDATE = "AUTOMATIONAGENTSI_VORN_PATH_UPDATE_REQ";
constexpr const char *PATH_DELETE = "AUTOMATIONAGENTSI_VORN_PATH_DELETE_REQ";

std::string both(milliseconds first, milliseconds second)
{
    return "after " + demo_seconds(first) + " and " + demo_seconds(second);
}

std::string create(demo &d, const iemli_link_wish &wish)
{
    demo_link &link = demo_create(d, wish);
    hold(emi_has_mac(wish.far_cpm_mac), "the endpoint manager does not know the far end");
    return "confirmed, link_ref " + std::to_string(link.link_ref);
}

} // namespace

std::string start_everything(tour &t)
{
    demo &d = t.d;
    demo_start(d);
    std::string tagged = wires_kernel_has_vlan_devices() ? "TN_A has an interface of its own for its VLAN"
                                                         : "this kernel has no VLAN devices: all tags are the sender's";
    const std::string kept = d.stage.kernel_lacks.empty()
                                 ? "rules and endpoints are in the kernel"
                                 : "rules and endpoints stay in memory, the kernel lacks: " + d.stage.kernel_lacks;
    return std::to_string(d.stage.processes.size()) + " processes; " + tagged + "; " + kept;
}

std::string create_first(tour &t) { return create(t.d, demo_first_wish(t.d)); }

std::string create_second(tour &t) { return create(t.d, demo_second_wish(t.d)); }

std::string both_enabled(tour &t)
{
    demo &d = t.d;
    auto start = clock_type::now();
    demo_wait_status(d, d.links[0].link_ref, IML_LINK_ENABLED, 0, FIRST_ANSWER_BOUND);
    auto first = since(start);
    demo_wait_status(d, d.links[1].link_ref, IML_LINK_ENABLED, 0, FIRST_ANSWER_BOUND);
    return "\"enabled\" " + both(first, since(start));
}

std::string far_end_silent(tour &t)
{
    demo &d = t.d;
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

std::string far_end_back(tour &t)
{
    demo &d = t.d;
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

std::string update_app_links(tour &t)
{
    demo &d = t.d;
    demo_link &link = d.links[0];
    const uint64_t creates = received(AGENT, PATH_CREATE);
    IemliAppLink removed = link.wish.app_links.back();
    IemliAppLink added = removed;
    added.nearEndAppMac.byte[4] = added.farEndAppMac.byte[4] = 0x77;
    link.wish.app_links.back() = added;
    iemli_answer answer = iemli_client_update_link(d.client, link.link_ref, link.wish.app_links);
    hold(answer.outcome == iemli_outcome::confirmed, "the update was not confirmed");
    stage_wait(d.stage, "the agent gets a path update", AT_ONCE, [&] { return received(AGENT, PATH_UPDATE) == 1; });
    const std::string paths = stage_control(AGENT, {"show"})["paths"].dump();
    hold(paths.find(mac_to_text(added.farEndAppMac)) != std::string::npos, "the agent does not know the new app link");
    hold(paths.find(mac_to_text(removed.farEndAppMac)) == std::string::npos, "the agent still knows the old app link");
    hold(received(AGENT, PATH_CREATE) == creates, "an update made a path create");
    hold(emi_has_mac(added.farEndAppMac), "the endpoint manager does not know the new app link");
    hold(!emi_has_mac(removed.farEndAppMac), "the endpoint manager still knows the old app link");
    return "confirmed; the endpoint manager and the agent have the new app link in place of the old";
}

std::string refused_create(tour &t)
{
    demo &d = t.d;
    uint64_t enabled = received("pmi", PMI_ENABLE);
    uint64_t disabled = received("pmi", PMI_DISABLE);
    stage_control("emi", {"fault", "reject", "EMI_ADD_ENDPOINT_REQ", "1", "EMI_REJ_MAX_NUM_ENDPOINTS_REACHED"});
    iemli_answer answer = iemli_client_create_link(d.client, demo_wish(d, "IDL_A1", 101, 1));
    hold(answer.outcome == iemli_outcome::rejected && answer.reason == IEMLI_REJ_OTHER_REASON,
         "the create was not rejected with IEMLI_REJ_OTHER_REASON");
    stage_wait(d.stage, "VLAN 101 is taken back", AT_ONCE,
               [&] { return received("pmi", PMI_DISABLE) == disabled + 1; });
    hold(received("pmi", PMI_ENABLE) == enabled + 1, "VLAN 101 was never enabled");
    hold(!pmi_has_vlan(101), "the port still has VLAN 101");
    return std::string("rejected with ") + iemli_client_reason_name(answer.reason) +
           "; VLAN 101 was enabled on the port and taken back";
}

std::string delete_all(tour &t)
{
    demo &d = t.d;
    const std::vector<demo_link> deleted = d.links;
    demo_delete_all(d);
    for (const demo_link &link : deleted) {
        hold(!pmi_has_vlan(link.wish.vlan), "the port still has VLAN " + std::to_string(link.wish.vlan));
        hold(!emi_has_vlan(link.wish.vlan),
             "the endpoint manager still has endpoints in VLAN " + std::to_string(link.wish.vlan));
    }
    stage_wait(d.stage, "the agent gets a path delete for each", AT_ONCE,
               [&] { return received(AGENT, PATH_DELETE) == deleted.size(); });
    hold(stage_control(AGENT, {"show"})["paths"].empty(), "the agent still has a path");
    return "confirmed; no VLAN, no endpoint and no path of theirs is left";
}

std::string terminate(tour &t)
{
    demo &d = t.d;
    demo_stop_daemon(d);
    return "exit status 0";
}

std::string strike_the_stage(tour &t)
{
    demo &d = t.d;
    demo_stop_rest(d);
    return "no process, no namespace, no socket";
}
