// How the daemon's work grows with its links: a create, the end of a session, the loss of port control and a port that
// goes down, with 100, 1,000 and 10,000 links on one unlocked port, and the memory of a link. Real processes, real
// frames, lower layers that answer at once. Beside it what one receive costs that wants one number, with as many
// messages of another waiting.
//
//     bench_growth [--against DIR] [LINKS...]      100 1000 10000
//
// The yardstick is the smallest number: what costs the same for a link, whatever their number, has a growth of 1. With
// --against the programs of another build in DIR do the same before, and each figure stands beside theirs.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>

#include "demo.hpp"
#include "link_list/link_list.hpp"
#include "program_call.hpp"
#include "sandbox.hpp"

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr const char *SELF = "bench_growth";
constexpr const char *PORT = "IDL_A1";
constexpr const char *PORT_CONTROL = "iepcsi";
constexpr uint32_t VLANS = 4000;
constexpr uint32_t LAST_CREATES = 50; // of which the median is taken
constexpr uint32_t LONG_MS = 600000;
constexpr uint32_t OTHER_NUMBER = 0x7F000001;
constexpr uint32_t WANTED_NUMBER = 0x7F000002;

struct figures {
    uint32_t links;
    double create_us;  // of one, with as many there
    double kb;         // resident, of each link
    double down_ms;    // from the port's interface going down until the last link's indication
    double end_ms;     // from the term request until its confirm
    double control_ms; // from the end of port control until the daemon answers and has no link
};

double ms_since(clock_type::time_point start)
{
    return std::chrono::duration<double, std::milli>(clock_type::now() - start).count();
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double resident_kb(const demo &d)
{
    std::ifstream file("/proc/" + std::to_string(d.stage.processes.at(DAEMON).pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stod(line.substr(line.find(':') + 1));
        }
    }
    throw stage_failure("the daemon's size cannot be read");
}

mac_address numbered(uint8_t kind, uint32_t number, uint8_t last)
{
    return {{0x06, kind, static_cast<uint8_t>(number >> 16), static_cast<uint8_t>(number >> 8),
             static_cast<uint8_t>(number), last}};
}

// Every link has a far end and near-end MACs of its own.
iemli_link_wish wish_of(uint32_t number, uint8_t app_links)
{
    iemli_link_wish wish;
    wish.port = PORT;
    wish.vlan = static_cast<uint16_t>(1 + number % VLANS);
    wish.far_cpm_mac = numbered(0xCC, number, 0);
    for (uint8_t i = 0; i < app_links; ++i) {
        wish.app_links.push_back({numbered(0x0A, number, i), numbered(0x0B, number, i)});
    }
    return wish;
}

void drop_events(demo &d)
{
    while (iemli_client_next_event(d.client, 0)) {
    }
}

// The times of the last creates.
std::vector<double> create(demo &d, uint32_t links, uint8_t app_links)
{
    std::vector<double> times;
    for (uint32_t i = 0; i < links; ++i) {
        const iemli_link_wish wish = wish_of(i, app_links);
        const auto start = clock_type::now();
        if (iemli_client_create_link(d.client, wish).outcome != iemli_outcome::confirmed) {
            throw stage_failure("link " + std::to_string(i) + " was not confirmed");
        }
        if (i + LAST_CREATES >= links) {
            times.push_back(1000 * ms_since(start));
        }
        drop_events(d);
    }
    return times;
}

void await_statuses(demo &d, uint32_t links, uint32_t reason)
{
    for (uint32_t seen = 0; seen < links;) {
        const auto event = iemli_client_next_event(d.client, 60000);
        if (!event) {
            throw stage_failure("only " + std::to_string(seen) + " links were told of");
        }
        const bool counts = event->kind == iemli_event_kind::link_status && event->status == IML_LINK_DISABLED &&
                            event->disabled_reason == reason;
        seen += counts ? 1 : 0;
    }
}

double port_goes_down(demo &d, uint32_t links)
{
    drop_events(d);
    const auto start = clock_type::now();
    wires_set_near(d.stage.ports[0].wire.interface, false);
    await_statuses(d, links, IML_LINK_REASON_DOWN);
    const double spent = ms_since(start);
    wires_set_near(d.stage.ports[0].wire.interface, true);
    await_statuses(d, links, IML_LINK_REASON_NO_CONNECTIVITY);
    return spent;
}

void open_session(demo &d)
{
    if (iemli_client_open(d.client).outcome != iemli_outcome::confirmed) {
        throw stage_failure("no session");
    }
}

double session_ends(demo &d)
{
    const auto start = clock_type::now();
    if (iemli_client_close(d.client).outcome != iemli_outcome::confirmed) {
        throw stage_failure("the end of the session was not confirmed");
    }
    return ms_since(start);
}

size_t links_of_daemon()
{
    std::string error;
    const auto links = link_list::fetch(LONG_MS, &error);
    if (!links) {
        throw stage_failure(error);
    }
    return links->size();
}

double port_control_is_lost(demo &d)
{
    const auto start = clock_type::now();
    stage_stop_process(d.stage, PORT_CONTROL, SIGTERM, 10s);
    while (links_of_daemon() != 0) {
    }
    return ms_since(start);
}

figures measure(demo &d, uint32_t links)
{
    figures f = {};
    f.links = links;
    const double empty_kb = resident_kb(d);
    open_session(d);
    f.create_us = median(create(d, links, 2));
    f.kb = (resident_kb(d) - empty_kb) / links;
    f.down_ms = port_goes_down(d, links);
    f.end_ms = session_ends(d);
    drop_events(d);
    open_session(d);
    create(d, links, 1);
    f.control_ms = port_control_is_lost(d);
    return f;
}

// On a stage of its own: a daemon that has lost port control is started anew.
figures measure_on_stage(const std::string &bin_dir, uint32_t links)
{
    demo d;
    d.stage = stage_make("/run/bench-logs");
    if (!bin_dir.empty()) {
        d.stage.bin_dir = bin_dir;
    }
    demo_start(d);
    d.client.bound_ms = LONG_MS;
    stage_control("far-end", {"any-address", "on"}); // a far end for each link
    session_ends(d);
    const figures f = measure(d, links);
    demo_stop_daemon(d);
    demo_stop_rest(d);
    return f;
}

std::vector<figures> measure_all(const std::string &bin_dir, const std::vector<uint32_t> &sizes)
{
    std::vector<figures> all;
    for (const uint32_t links : sizes) {
        all.push_back(measure_on_stage(bin_dir, links));
    }
    return all;
}

// ---- One number wanted, others waiting ----

double filtered_receive_us()
{
    constexpr int TIMES = 1000;
    const uint32_t filter[] = {1, WANTED_NUMBER};
    const auto start = clock_type::now();
    for (int i = 0; i < TIMES; ++i) {
        itc_msg *msg = itc_alloc(16, WANTED_NUMBER);
        itc_send(&msg, itc_current_mbox(), ITC_MY_MBOX);
        msg = itc_receive(filter, 0, ITC_FROM_ANY);
        if (msg == nullptr) {
            throw stage_failure("the message that is wanted was not received");
        }
        itc_free(&msg);
    }
    return 1000 * ms_since(start) / TIMES;
}

void measure_filtered_receives()
{
    puts("\none receive of one number, own mailbox: alloc, send, receive, free");
    printf("%12s %12s\n", "waiting", "us");
    uint32_t waiting = 0;
    for (const uint32_t wanted : {0u, 10000u, 1000000u}) {
        for (; waiting < wanted; ++waiting) {
            itc_msg *msg = itc_alloc(16, OTHER_NUMBER);
            itc_send(&msg, itc_current_mbox(), ITC_MY_MBOX);
        }
        const auto first = clock_type::now();
        const uint32_t filter[] = {1, WANTED_NUMBER};
        itc_receive(filter, 0, ITC_FROM_ANY); // looks past what has come
        const double first_us = 1000 * ms_since(first);
        printf("%12u %12.2f   the first one, which looks past them: %.1f\n", wanted, filtered_receive_us(), first_us);
        (void)fflush(stdout);
    }
}

// In a stage of its own, for its registry.
void receive_with_many_waiting()
{
    demo d;
    d.stage = stage_make("/run/bench-logs");
    demo_start(d);
    measure_filtered_receives();
    demo_stop_daemon(d);
    demo_stop_rest(d);
}

// ---- Output ----

struct column {
    const char *name;
    double figures::*value;
    bool of_all; // of all links together; else of one
};

constexpr column COLUMNS[] = {{"create, us", &figures::create_us, false},
                              {"memory of a link, kB", &figures::kb, false},
                              {"port down, ms", &figures::down_ms, true},
                              {"end of a session, ms", &figures::end_ms, true},
                              {"loss of port control, ms", &figures::control_ms, true}};

double of_a_link(const figures &f, const column &c) { return f.*c.value / (c.of_all ? f.links : 1); }

void print(const std::vector<figures> &now, const std::vector<figures> &before)
{
    printf("%-26s %8s %12s %10s", "links on one port", "links", "figure", "growth");
    puts(before.empty() ? "" : "       before      ratio");
    for (const column &c : COLUMNS) {
        for (size_t i = 0; i < now.size(); ++i) {
            printf("%-26s %8u %12.2f %10.2f", i == 0 ? c.name : "", now[i].links, now[i].*c.value,
                   of_a_link(now[i], c) / of_a_link(now[0], c));
            if (!before.empty()) {
                printf(" %12.2f %10.3f", before[i].*c.value, now[i].*c.value / (before[i].*c.value));
            }
            puts("");
        }
    }
    puts("growth: of what one link costs, over the smallest number of links");
    (void)fflush(stdout);
}

constexpr program_call PROGRAM = {
    SELF,
    "usage: bench_growth [--against DIR] [LINKS...] | --help | --version\n"
    "What a create, the end of a session, a port that goes down and the loss of port control cost with 100, 1000\n"
    "and 10000 LINKS of two app links (one for the loss), and a receive of one number with as many messages\n"
    "waiting. --against DIR: the programs of another build in DIR do it before, and the ratio is printed.\n"};

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    std::string other;
    std::vector<uint32_t> sizes;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--against") == 0 && i + 1 < argc) {
            other = argv[++i];
            continue;
        }
        const int links = atoi(argv[i]); // NOLINT(cert-err34-c): 0 is refused
        if (links < 1 || links > 65000) {
            return program_refuse(PROGRAM, "LINKS is a whole number from 1 to 65000");
        }
        sizes.push_back(static_cast<uint32_t>(links));
    }
    if (sizes.empty()) {
        sizes = {100, 1000, 10000};
    }
    std::string error;
    if (!sandbox_enter(error)) {
        (void)fprintf(stderr, "%s: %s\n", SELF, error.c_str());
        return 1;
    }
    try {
        const std::vector<figures> before = other.empty() ? std::vector<figures>{} : measure_all(other, sizes);
        print(measure_all({}, sizes), before);
        receive_with_many_waiting();
    } catch (const std::exception &failure) {
        (void)fprintf(stderr, "%s: %s\n", SELF, failure.what());
        return 1;
    }
    return program_end(PROGRAM, 0);
}
