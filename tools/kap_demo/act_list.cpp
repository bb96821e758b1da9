// The tour's act of the link list: the daemon's own records, held against what the tour knows, and what vornctl prints
// of them.
#include <algorithm>

#include "tour.hpp"

using namespace std::chrono_literals;

namespace
{

constexpr size_t MOST_LISTED = 16;
constexpr unsigned MANY_APP_LINKS = 20;
constexpr uint16_t RTT_FRAME_SIZE = 128;

void hold_near(const tour &t, const char *what, double listed_us, int64_t wire_ns)
{
    const double wire_us = static_cast<double>(wire_ns) / 1000;
    hold(std::abs(listed_us - wire_us) <= static_cast<double>(t.tolerance.single) / 1000,
         std::string(what) + " is listed with " + std::to_string(listed_us) + " us, on the wire it was " +
             std::to_string(wire_us) + " us");
}

// 1 says that a link is down.
std::string output_for_links(const command_result &result, const std::vector<link_list::link> &links)
{
    const bool all_enabled = std::all_of(links.begin(), links.end(), [](const auto &l) { return l.enabled; });
    hold(result.status == (all_enabled ? 0 : 1), "vornctl ended with " + std::to_string(result.status));
    return result.output;
}

// The list between two looks that were the same: nothing has changed in between.
std::string run_vornctl(tour &t, const std::vector<std::string> &words,
                        std::string (*print)(const std::vector<link_list::link> &))
{
    std::string printed;
    std::vector<std::string> command = {t.d.stage.bin_dir + "/vornctl"};
    command.insert(command.end(), words.begin(), words.end());
    bool same = false;
    stage_wait(t.d.stage, "the list stays as it is for a moment", 10s, [&] {
        const auto links = fetch_list();
        const std::string before = print(links);
        const command_result result = command_run(command);
        if (print(fetch_list()) != before) {
            return false;
        }
        printed = output_for_links(result, links);
        same = printed == before;
        return true;
    });
    hold(same, "vornctl printed something else: " + printed);
    return printed;
}

} // namespace

std::string list_counts(tour &t)
{
    std::vector<wire_ping> pings;
    link_list::link shown;
    wire_figures wire;
    size_t lost = 0;
    stage_wait(t.d.stage, "the list counts every ping of the wire", FIRST_ANSWER_BOUND, [&] {
        capture_drain(t.wire);
        pings = capture_pings_of_size(t.wire, RTT_FRAME_SIZE);
        wire = capture_figures(pings, 0, pings.size());
        lost = pings.size() - wire.answered;
        shown = find_listed(fetch_list(), t.d.links[0].link_ref);
        return shown.results == pings.size() && shown.lost == lost;
    });
    hold(shown.rtt_us.has_value(), "the list has no round trips");
    hold_near(t, "the shortest round trip", shown.rtt_us->minimum_us, wire.minimum);
    hold_near(t, "the average round trip", shown.rtt_us->average_us, wire.average);
    hold_near(t, "the longest round trip", shown.rtt_us->maximum_us, wire.maximum);
    char text[128];
    (void)snprintf(text, sizeof text, "%u results, %u lost; %.2f %.2f %.2f us", shown.results, shown.lost,
                   shown.rtt_us->minimum_us, shown.rtt_us->average_us, shown.rtt_us->maximum_us);
    return text;
}

std::string list_in_order(tour &t)
{
    const uint32_t many = demo_create(t.d, demo_wish(t.d, "IDL_A1", 102, MANY_APP_LINKS)).link_ref;
    const auto links = fetch_list();
    hold(links.size() == t.d.links.size(), std::to_string(links.size()) + " links are listed");
    hold(std::is_sorted(links.begin(), links.end(),
                        [](const auto &a, const auto &b) { return a.link_ref < b.link_ref; }),
         "the list is not in the order of link_ref");
    hold(find_listed(links, many).app_links.size() == MOST_LISTED, "other than the first 16 app links are listed");
    for (const demo_link &link : t.d.links) {
        const auto shown = find_listed(links, link.link_ref);
        const size_t app_links = std::min(link.wish.app_links.size(), MOST_LISTED);
        hold(shown.port == link.wish.port && shown.vlan == link.wish.vlan, "a link is listed with another place");
        hold(shown.near_end_cpm_mac == link.near_mac && shown.far_end_cpm_mac == mac_to_text(link.wish.far_cpm_mac),
             "a link is listed with other MACs");
        hold(shown.app_links.size() == app_links, "a link is listed with other app links");
        for (size_t i = 0; i < app_links; i++) {
            hold(shown.app_links[i].near_end_mac == mac_to_text(link.wish.app_links[i].nearEndAppMac) &&
                     shown.app_links[i].far_end_mac == mac_to_text(link.wish.app_links[i].farEndAppMac),
                 "an app link is listed with other MACs");
        }
    }
    return std::to_string(links.size()) + " links in the order of link_ref; the first 16 of the 20 app links";
}

std::string list_printed(tour &t)
{
    run_vornctl(t, {"links", "--json"}, link_list::to_json);
    const std::string table = run_vornctl(t, {"links"}, link_list::to_table);
    return "as a table of " + std::to_string(std::count(table.begin(), table.end(), '\n')) + " lines and as JSON";
}
