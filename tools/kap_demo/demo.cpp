#include "demo.hpp"

#include <algorithm>
#include <csignal>

#include <strings.h>

#include "slowness.hpp"

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr const char *CLIENT_MAILBOX = "kap-demo";
constexpr uint32_t CLIENT_REF = 1;
constexpr size_t KEPT_NOTES = 100;

void note(demo &d, const std::string &text)
{
    d.notes.push_back({std::chrono::system_clock::now(), text});
    if (d.notes.size() > KEPT_NOTES) {
        d.notes.erase(d.notes.begin());
    }
}

// Null, and a note of it: the event speaks of a link that is not ours.
demo_link *link_of(demo &d, const iemli_event &event, const char *what)
{
    auto link =
        std::find_if(d.links.begin(), d.links.end(), [&](const demo_link &l) { return l.link_ref == event.link_ref; });
    if (link == d.links.end()) {
        note(d, std::string(what) + " of link " + std::to_string(event.link_ref) + ", which is not ours");
        return nullptr;
    }
    return &*link;
}

void take_status(demo &d, const iemli_event &event)
{
    demo_link *link = link_of(d, event, "status");
    if (link == nullptr) {
        return;
    }
    link->status = event.status;
    link->reason = event.disabled_reason;
    link->told = true;
    link->changed = std::chrono::system_clock::now();
    note(d, "link " + std::to_string(link->link_ref) + " is " +
                iemli_client_status_text(event.status, event.disabled_reason));
}

void take_rtt(demo &d, const iemli_event &event)
{
    demo_link *link = link_of(d, event, "RTT");
    if (link == nullptr) {
        return;
    }
    const bool news = link->batches.empty() || demo_is_measured(link->batches.back()) != demo_is_measured(event.rtt);
    link->batches.push_back(event.rtt);
    if (news) {
        note(d, "link " + std::to_string(link->link_ref) + " RTT: " + demo_rtt_text(event.rtt));
    }
}

// The app links of a wish: MACs that say which link (by VLAN), which app link and which end they belong to.
std::vector<IemliAppLink> make_app_links(uint16_t vlan, unsigned count)
{
    std::vector<IemliAppLink> app_links;
    for (unsigned i = 1; i <= count; i++) {
        auto high = static_cast<uint8_t>(vlan >> 8);
        auto low = static_cast<uint8_t>(vlan);
        auto number = static_cast<uint8_t>(i);
        app_links.push_back({{{0x06, high, low, 0, number, 0x01}}, {{0x06, high, low, 0, number, 0xFE}}});
    }
    return app_links;
}

const stage_port &find_port(const demo &d, const std::string &name)
{
    auto port = std::find_if(d.stage.ports.begin(), d.stage.ports.end(),
                             [&](const stage_port &p) { return p.iemli_name == name; });
    if (port == d.stage.ports.end()) {
        throw stage_failure("no port " + name + " on this stage");
    }
    return *port;
}

bool same_mac(const std::string &one, const std::string &other) { return strcasecmp(one.c_str(), other.c_str()) == 0; }

void expect_confirmed(const iemli_answer &answer, const std::string &what)
{
    switch (answer.outcome) {
    case iemli_outcome::confirmed:
        return;
    case iemli_outcome::rejected:
        throw stage_failure(what + " was rejected: " + iemli_client_reason_name(answer.reason));
    case iemli_outcome::timed_out:
        throw stage_failure(what + " was not answered");
    case iemli_outcome::lost:
        throw stage_failure(what + ": the daemon is gone");
    }
}

void expect_ended_well(const demo &d, const std::string &name, const std::string &status)
{
    if (status != "exit status 0") {
        throw stage_failure(name + " ended with " + status + ", see " + d.stage.log_dir + "/" + name + ".log");
    }
}

} // namespace

void demo_take_event(demo &d, const iemli_event &event)
{
    switch (event.kind) {
    case iemli_event_kind::link_status:
        take_status(d, event);
        break;
    case iemli_event_kind::published:
        note(d, "the service is published");
        break;
    case iemli_event_kind::withdrawn:
        note(d, "the service was withdrawn");
        break;
    case iemli_event_kind::link_rtt:
        take_rtt(d, event);
        break;
    case iemli_event_kind::server_died:
        throw stage_failure("the daemon died");
    case iemli_event_kind::malformed:
        throw stage_failure("the daemon sent what it must not: " + event.text);
    case iemli_event_kind::late_answer:
        throw stage_failure(std::string("an answer to nothing: ") + iemli_client_message_name(event.msgno));
    }
}

void demo_start(demo &d)
{
    stage_start(d.stage, CLIENT_MAILBOX);
    d.client.bound_ms *= static_cast<uint32_t>(slowness());
    if (!iemli_client_start(d.client, CLIENT_REF)) {
        throw stage_failure("the name service refuses the subscription");
    }
    stage_wait(d.stage, "the daemon publishes its service", 15s,
               [&] { return iemli_client_wait_published(d.client, 10); });
    expect_confirmed(iemli_client_open(d.client), "the session");
    while (auto event = iemli_client_next_event(d.client, 0)) {
        demo_take_event(d, *event);
    }
}

iemli_link_wish demo_wish(const demo &d, const std::string &port, uint16_t vlan, unsigned app_links)
{
    iemli_link_wish wish;
    wish.mp_id = 1;
    wish.far_cpm_mac = find_port(d, port).wire.far_mac;
    wish.port = port;
    wish.vlan = vlan;
    wish.app_links = make_app_links(vlan, app_links);
    return wish;
}

iemli_link_wish demo_first_wish(const demo &d) { return demo_wish(d, "IDL_A1", 100, 2); }

iemli_link_wish demo_second_wish(const demo &d) { return demo_wish(d, "TN_A", 200, 1); }

demo_link &demo_create(demo &d, const iemli_link_wish &wish)
{
    iemli_answer answer = iemli_client_create_link(d.client, wish);
    expect_confirmed(answer, "the link on " + wish.port);
    demo_link link;
    link.link_ref = answer.link_ref;
    link.wish = wish;
    link.interface = find_port(d, wish.port).wire.interface;
    link.near_mac = mac_to_text(find_port(d, wish.port).wire.near_mac);
    link.changed = std::chrono::system_clock::now();
    d.links.push_back(link);
    note(d, "link " + std::to_string(link.link_ref) + " is created");
    return d.links.back();
}

void demo_delete_all(demo &d)
{
    while (!d.links.empty()) {
        uint32_t link_ref = d.links.front().link_ref;
        expect_confirmed(iemli_client_delete_link(d.client, link_ref), "deleting link " + std::to_string(link_ref));
        d.links.erase(d.links.begin());
    }
}

void demo_enable_rtt(demo &d, demo_link &link, const rtt_settings &settings)
{
    expect_confirmed(iemli_client_enable_rtt(d.client, link.link_ref, settings), "RTT");
    link.rtt = settings;
    link.batches.clear();
    note(d, "link " + std::to_string(link.link_ref) + " has RTT enabled");
}

void demo_disable_rtt(demo &d, demo_link &link)
{
    expect_confirmed(iemli_client_disable_rtt(d.client, link.link_ref), "the end of RTT");
    link.rtt = {};
    note(d, "link " + std::to_string(link.link_ref) + " has RTT disabled");
}

void demo_listen(demo &d, std::chrono::milliseconds most)
{
    stage_check(d.stage);
    if (auto event = iemli_client_next_event(d.client, static_cast<uint32_t>(most.count()))) {
        demo_take_event(d, *event);
    }
}

demo_link &demo_find(demo &d, uint32_t link_ref)
{
    return *std::find_if(d.links.begin(), d.links.end(), [=](const demo_link &l) { return l.link_ref == link_ref; });
}

std::chrono::milliseconds demo_wait_status(demo &d, uint32_t link_ref, uint32_t status, uint32_t reason,
                                           std::chrono::milliseconds bound)
{
    auto start = clock_type::now();
    auto waited = [=] { return std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - start); };
    for (;;) {
        const demo_link &link = demo_find(d, link_ref);
        if (link.told && link.status == status && (status == IML_LINK_ENABLED || link.reason == reason)) {
            return waited();
        }
        if (waited() > bound * slowness()) {
            throw stage_failure(
                "link " + std::to_string(link_ref) + " is not \"" + iemli_client_status_text(status, reason) +
                "\" after " + demo_seconds(bound) +
                (link.told ? std::string(" but \"") + iemli_client_status_text(link.status, link.reason) + "\""
                           : std::string("; nothing was said of it")));
        }
        demo_listen(d, 50ms);
    }
}

void demo_set_far_end(demo &d, bool answers)
{
    stage_control(FAR_END, {"silent", answers ? "off" : "on"});
    d.far_end_answers = answers;
    note(d, answers ? "the far end answers again" : "the far end is silent");
}

// The far end counts per interface, VLAN and asking MAC: a link's pings come from its port's MAC, keep-alives from
// others.
far_end_counts demo_far_end_counts(const demo_link &link)
{
    far_end_counts counts{};
    const nlohmann::json shown = stage_control(FAR_END, {"show"});
    for (const auto &place : shown["places"]) {
        for (const auto &peer : place["peers"]) {
            if (peer["interface"] == link.interface && peer["vlan_id"] == link.wish.vlan &&
                same_mac(peer["peer"], link.near_mac)) {
                counts.answered += peer["answered"].get<uint64_t>();
                counts.ignored += peer["dropped"].get<uint64_t>();
            }
        }
    }
    return counts;
}

std::optional<agent_path> demo_agent_path(uint32_t link_ref)
{
    const nlohmann::json shown = stage_control(AGENT, {"show"});
    for (const auto &path : shown["paths"]) {
        if (path["link_ref"] == link_ref) {
            const auto &info = path["info"];
            return agent_path{static_cast<uint32_t>(path["app_links"].size()),
                              info["link_status"],
                              info["min"],
                              info["avg"],
                              info["max"],
                              info["reports"]};
        }
    }
    return std::nullopt;
}

void demo_set_locked(demo &d, const stage_port &port, bool locked)
{
    stage_control("iepcsi", {locked ? "lock" : "unlock", port.node_name});
    d.port_locked = locked;
    note(d, port.iemli_name + (locked ? " is locked" : " is unlocked"));
}

void demo_set_port(demo &d, const stage_port &port, bool up)
{
    wires_set_near(port.wire.interface, up);
    note(d, port.wire.interface + (up ? " is taken up" : " is taken down"));
}

void demo_stop_daemon(demo &d)
{
    child_process daemon = stage_stop_process(d.stage, DAEMON, SIGTERM, 5s);
    expect_ended_well(d, DAEMON, process_status_text(daemon));
}

void demo_stop_rest(demo &d)
{
    iemli_client_stop(d.client);
    for (const auto &[name, status] : stage_stop(d.stage)) {
        expect_ended_well(d, name, status);
    }
    std::string left = stage_leftovers();
    if (!left.empty()) {
        throw stage_failure("left behind: " + left);
    }
}

std::string demo_seconds(std::chrono::milliseconds time)
{
    char text[32];
    (void)snprintf(text, sizeof text, "%.2f s", static_cast<double>(time.count()) / 1000);
    return text;
}

double demo_microseconds(uint32_t sec, uint32_t nsec) { return sec * 1e6 + nsec / 1e3; }

bool demo_is_measured(const rtt_stats &stats) { return stats.rtt_validity == 1; }

std::string demo_rtt_text(const rtt_stats &stats)
{
    if (!demo_is_measured(stats)) {
        return "not valid";
    }
    char text[96];
    (void)snprintf(text, sizeof text, "min %.2f avg %.2f max %.2f us, valid",
                   demo_microseconds(stats.min_sec, stats.min_nsec), demo_microseconds(stats.avg_sec, stats.avg_nsec),
                   demo_microseconds(stats.max_sec, stats.max_nsec));
    return text;
}
