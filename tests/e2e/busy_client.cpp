// A client of the daemon that is never idle: it creates, updates and deletes links and switches RTT on and off, as
// chance has it, through every loss of the service. Its first link it leaves alone, so that one lives long enough to be
// reported down. A process of its own, which a test may kill and stop.
//
//   e2e-busy NAME FIRST_VLAN SEED
//
// While the file HOLD is there it begins nothing, sees to it that it has a link, and keeps its list in
// /run/NAME.links: a line "LINK_REF VLAN STATUS" each, status 1 when the link is enabled. On standard output it says
// what a test has to know: "down LINK_REF" when an enabled link is reported disabled. It ends with 0 by SIGTERM, with 1
// when the registry is lost, and with 3 when the daemon did what it must not.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "iemli_client.hpp"
#include "sighandler.h"

namespace
{

using clock_type = std::chrono::steady_clock;

constexpr const char *HOLD = "/run/hold";
constexpr const char *PORT = "IDL_A1";
constexpr mac_address FAR_MAC = {{0x02, 0, 0, 0, 0xA1, 0xFE}};
constexpr uint32_t CLIENT_REF = 7;
constexpr uint32_t ANSWER_BOUND_MS = 60000; // longer than anything is stopped
constexpr uint32_t PAUSE_MS = 20;
constexpr size_t MOST_LINKS = 6;
constexpr const char *NEVER_WRITTEN = "-";
constexpr int STATUS_LOST_REGISTRY = 1;
constexpr int STATUS_WRONG = 3;

struct owned_link {
    uint32_t link_ref;
    uint16_t vlan;
    bool rtt = false;
    bool enabled = false;
};

struct busy {
    std::string name;
    uint16_t first_vlan = 0;
    std::mt19937 chance;
    iemli_client client;
    std::vector<owned_link> links;
    std::string written = NEVER_WRITTEN; // the list as it stands in the file
};

void stop(int signo)
{
    if (signo == SIGTERM) {
        exit(0);
    }
}

int pick(busy &b, int most) { return std::uniform_int_distribution<>(0, most)(b.chance); }

// An empty wait that ends early.
bool registry_is_lost()
{
    constexpr uint32_t NOTHING[] = {0};
    constexpr uint32_t MOMENT_MS = 5;
    const auto start = clock_type::now();
    itc_receive(NOTHING, MOMENT_MS, ITC_FROM_ANY);
    return clock_type::now() - start < std::chrono::milliseconds(MOMENT_MS - 1);
}

[[noreturn]] void give_up(const char *what)
{
    const bool lost = registry_is_lost();
    printf("%s\n", lost ? "the registry is lost" : what);
    exit(lost ? STATUS_LOST_REGISTRY : STATUS_WRONG);
}

// ---- What the daemon says by itself ----

void take_status(busy &b, const iemli_event &event)
{
    const auto link =
        std::find_if(b.links.begin(), b.links.end(), [&](const owned_link &l) { return l.link_ref == event.link_ref; });
    if (link == b.links.end()) {
        return; // of a link whose deletion is under way
    }
    const bool enabled = event.status == IML_LINK_ENABLED;
    if (link->enabled && !enabled) {
        printf("down %u: %s\n", event.link_ref, iemli_client_status_text(event.status, event.disabled_reason));
    }
    link->enabled = enabled;
}

void take_event(busy &b, const iemli_event &event)
{
    switch (event.kind) {
    case iemli_event_kind::link_status:
        take_status(b, event);
        break;
    case iemli_event_kind::withdrawn:
    case iemli_event_kind::server_died:
        b.links.clear();
        break;
    case iemli_event_kind::malformed:
        give_up(event.text.c_str());
    case iemli_event_kind::published:
    case iemli_event_kind::link_rtt:
    case iemli_event_kind::late_answer: // of a request whose session ended
        break;
    }
}

void listen(busy &b, uint32_t ms)
{
    while (auto event = iemli_client_next_event(b.client, ms)) {
        take_event(b, *event);
        ms = 0;
    }
    if (registry_is_lost()) {
        give_up("");
    }
}

// ---- Requests ----

// True when it was confirmed.
bool take_answer(busy &b, const iemli_answer &answer)
{
    if (answer.outcome == iemli_outcome::timed_out) {
        give_up("a request was not answered");
    }
    listen(b, 0);
    return answer.outcome == iemli_outcome::confirmed;
}

std::vector<IemliAppLink> app_links(uint16_t vlan, int count)
{
    std::vector<IemliAppLink> list;
    for (int i = 1; i <= count; i++) {
        const auto high = static_cast<uint8_t>(vlan >> 8);
        const auto low = static_cast<uint8_t>(vlan);
        const auto number = static_cast<uint8_t>(i);
        list.push_back({{{0x06, high, low, 0, number, 1}}, {{0x06, high, low, 0, number, 0xFE}}});
    }
    return list;
}

uint16_t free_vlan(const busy &b)
{
    uint16_t vlan = b.first_vlan;
    while (std::any_of(b.links.begin(), b.links.end(), [=](const owned_link &l) { return l.vlan == vlan; })) {
        vlan++;
    }
    return vlan;
}

void create(busy &b)
{
    iemli_link_wish wish;
    wish.port = PORT;
    wish.vlan = free_vlan(b);
    wish.far_cpm_mac = FAR_MAC;
    wish.app_links = app_links(wish.vlan, pick(b, 3));
    const iemli_answer answer = iemli_client_create_link(b.client, wish);
    if (answer.outcome == iemli_outcome::confirmed) {
        // Before what came behind the answer is looked at.
        b.links.push_back({answer.link_ref, wish.vlan});
    }
    take_answer(b, answer);
}

void remove(busy &b, size_t index)
{
    const owned_link link = b.links[index];
    const iemli_answer answer = iemli_client_delete_link(b.client, link.link_ref);
    if (answer.outcome == iemli_outcome::confirmed) {
        b.links.erase(b.links.begin() + static_cast<ptrdiff_t>(index));
    }
    take_answer(b, answer);
}

void switch_rtt(busy &b, owned_link &link)
{
    const rtt_settings settings = {2, 1, 64};
    const bool on = !link.rtt;
    const uint32_t link_ref = link.link_ref;
    const iemli_answer answer =
        on ? iemli_client_enable_rtt(b.client, link_ref, settings) : iemli_client_disable_rtt(b.client, link_ref);
    if (answer.outcome == iemli_outcome::confirmed) {
        link.rtt = on;
    }
    take_answer(b, answer);
}

void do_something(busy &b)
{
    const int deed = pick(b, 9);
    if (b.links.size() < 2 || (deed < 3 && b.links.size() < MOST_LINKS)) {
        create(b);
        return;
    }
    const auto index = 1 + static_cast<size_t>(pick(b, static_cast<int>(b.links.size()) - 2));
    if (deed < 5) {
        remove(b, index);
    } else if (deed < 8) {
        switch_rtt(b, b.links[index]);
    } else {
        owned_link &link = b.links[index];
        take_answer(b, iemli_client_update_link(b.client, link.link_ref, app_links(link.vlan, pick(b, 3))));
    }
}

// ---- The list ----

void write_list(busy &b)
{
    std::string list;
    for (const owned_link &link : b.links) {
        list +=
            std::to_string(link.link_ref) + " " + std::to_string(link.vlan) + " " + (link.enabled ? "1" : "0") + "\n";
    }
    if (list == b.written) {
        return;
    }
    const std::string path = "/run/" + b.name + ".links";
    std::ofstream(path + ".new") << list;
    std::filesystem::rename(path + ".new", path); // whole, or not yet
    b.written = list;
}

void hold_still(busy &b)
{
    if (b.links.empty()) {
        create(b);
    }
    write_list(b);
}

// True with a session.
bool have_session(busy &b)
{
    if (b.client.server_ref != 0) {
        return true;
    }
    return b.client.published && take_answer(b, iemli_client_open(b.client));
}

void run(busy &b)
{
    for (;;) {
        if (have_session(b)) {
            if (std::filesystem::exists(HOLD)) {
                hold_still(b);
            } else {
                b.written = NEVER_WRITTEN;
                do_something(b);
            }
        }
        listen(b, PAUSE_MS);
    }
}

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    set_signal_handler(stop);
    if (argc != 4) {
        return STATUS_WRONG;
    }
    busy b;
    b.name = argv[1];
    b.first_vlan = static_cast<uint16_t>(strtoul(argv[2], nullptr, 10));
    b.chance.seed(static_cast<uint32_t>(strtoul(argv[3], nullptr, 10)));
    if (itc_init(1, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox(argv[1], 0) == ITC_NO_MBOX ||
        !iemli_client_start(b.client, CLIENT_REF)) {
        give_up("the registry does not let it in");
    }
    b.client.bound_ms = ANSWER_BOUND_MS;
    run(b);
}
