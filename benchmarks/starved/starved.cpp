// A machine that is short of everything: are links whose far end answers ever reported down, and is a real cut reported
// in time? Ours and Debian's BFD daemon do the same work at the same time, once a second and six lost in a row: as
// many sessions, each on a wire of its own that leads through a bridge. Under each load the two are left alone for a
// while, then both wires are cut, and mended again.
//
// This program is the observer. It has a higher real-time priority than the load, so that its stamps are true; what it
// observes has none.
#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "demo.hpp"
#include "load.hpp"
#include "naive_peer/naive_peer.hpp"
#include "program_call.hpp"
#include "rival.hpp"
#include "sandbox.hpp"
#include "watched_wire.hpp"

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr const char *PORT = "IDL_A1";
constexpr const char *INTERFACE = "idl_a1";
constexpr int64_t SECOND = 1'000'000'000;
constexpr int INTERVAL_MS = 1000;
constexpr int LOSSES = 6;
constexpr auto REPORT_BOUND = 60s; // for what follows a cut or its mending
constexpr int MOST_MEMORY_MIB = 4096;

struct options {
    int seconds = 300;
    uint32_t links = 300;
    int memory_mib = 1024;
    std::string wrong;
};

// What one side made of a load.
struct figures {
    size_t false_downs = 0;
    size_t reported = 0;
    int64_t worst_after_cut = 0;
    int64_t worst_lateness = INT64_MIN;
};

struct down {
    uint32_t link; // its place among those created
    int64_t at;
};

struct scene {
    demo d;
    rival other;
    std::vector<child_process> loads;
    std::vector<down> downs; // of ours, as they were indicated
    size_t enabled = 0;
};

// ---- The load -------------------------------------------------------------------------------------------------------

void add_load(scene &s, const std::vector<std::string> &words)
{
    std::vector<std::string> command = {"/proc/self/exe", "load"};
    command.insert(command.end(), words.begin(), words.end());
    const std::string name = "load-" + words[0] + "-" + std::to_string(s.loads.size());
    s.loads.push_back(process_start(name, command, s.d.stage.log_dir + "/" + name + ".log"));
}

void check_loads(scene &s)
{
    for (child_process &load : s.loads) {
        if (!process_running(load)) {
            throw stage_failure(load.name + " ended: " + process_log_tail(load, 3));
        }
    }
}

void end_loads(scene &s)
{
    // The ones that keep the others from running came last.
    for (; !s.loads.empty(); s.loads.pop_back()) {
        process_kill(s.loads.back());
    }
}

// ---- Ours -----------------------------------------------------------------------------------------------------------

// Takes in every indication of the coming `time`.
void observe(scene &s, std::chrono::milliseconds time)
{
    for (const auto end = clock_type::now() + time; clock_type::now() < end;) {
        auto event = iemli_client_next_event(s.d.client, 20);
        if (!event) {
            continue;
        }
        if (event->kind != iemli_event_kind::link_status) {
            throw stage_failure("the daemon said something else than a link's status");
        }
        const auto link = std::find_if(s.d.links.begin(), s.d.links.end(),
                                       [&](const demo_link &l) { return l.link_ref == event->link_ref; });
        if (link == s.d.links.end()) {
            throw stage_failure("an indication of a link that is none of ours");
        }
        const bool was_enabled = link->status == IML_LINK_ENABLED;
        link->status = event->status;
        if (was_enabled && event->status != IML_LINK_ENABLED) {
            s.downs.push_back({static_cast<uint32_t>(link - s.d.links.begin()), now_real_ns()});
            s.enabled--;
        } else if (!was_enabled && event->status == IML_LINK_ENABLED) {
            s.enabled++;
        }
    }
    stage_check(s.d.stage);
}

void create_links(scene &s, uint32_t count)
{
    for (uint32_t i = 0; i < count; i++) {
        iemli_link_wish wish = demo_wish(s.d, PORT, naive_peer_vlan(i), 0);
        wish.far_cpm_mac = naive_peer_far_mac(i);
        demo_create(s.d, wish);
        observe(s, 0ms);
    }
}

size_t rival_up(scene &s)
{
    std::vector<bool> up(s.other.sessions);
    for (const rival_event &event : rival_events(s.other)) {
        up.at(event.session) = event.up;
    }
    return static_cast<size_t>(std::count(up.begin(), up.end(), true));
}

void wait_all_up(scene &s, const char *when)
{
    const auto deadline = clock_type::now() + REPORT_BOUND;
    while (s.enabled < s.d.links.size() || rival_up(s) < s.other.sessions) {
        observe(s, 200ms);
        if (clock_type::now() > deadline) {
            throw stage_failure(std::string(when) + ": of " + std::to_string(s.d.links.size()) + " links only " +
                                std::to_string(s.enabled) + " of ours and " + std::to_string(rival_up(s)) +
                                " of the rival's are up");
        }
    }
}

// ---- Figures --------------------------------------------------------------------------------------------------------

// Ours: the verdict on the sixth unanswered request is due one interval after it was on the wire.
figures figures_of_ours(const scene &s, const Watch &watch, int64_t since, int64_t cut)
{
    figures f;
    for (const down &down : s.downs) {
        if (down.at < since) {
            continue;
        }
        if (down.at < cut) {
            f.false_downs++;
            continue;
        }
        const conversation seen = watch.of_mac(naive_peer_far_mac(down.link));
        if (seen.unanswered.size() < LOSSES) {
            f.false_downs++; // reported before six requests were lost
            continue;
        }
        const int64_t due = seen.unanswered[LOSSES - 1] + SECOND * INTERVAL_MS / 1000;
        f.reported++;
        f.worst_after_cut = std::max(f.worst_after_cut, down.at - cut);
        f.worst_lateness = std::max(f.worst_lateness, down.at - due);
    }
    return f;
}

// The rival's: a session is down six intervals after the last packet that arrived.
figures figures_of_rival(scene &s, const Watch &watch, int64_t since, int64_t cut)
{
    figures f;
    for (const rival_event &event : rival_events(s.other)) {
        if (event.up || event.at < since) {
            continue;
        }
        if (event.at < cut) {
            f.false_downs++;
            continue;
        }
        const conversation seen = watch.of_address(rival_far_address(event.session));
        const int64_t due = seen.last_answer + SECOND * LOSSES * INTERVAL_MS / 1000;
        f.reported++;
        f.worst_after_cut = std::max(f.worst_after_cut, event.at - cut);
        f.worst_lateness = std::max(f.worst_lateness, event.at - due);
    }
    return f;
}

double seconds(int64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e9; }

void print_row(const char *load, const char *whose, const figures &f)
{
    printf("%-34s %-9s %12zu %14zu %16.2f %16.2f\n", load, whose, f.false_downs, f.reported, seconds(f.worst_after_cut),
           f.reported == 0 ? 0.0 : seconds(f.worst_lateness));
    (void)fflush(stdout);
}

// ---- The run --------------------------------------------------------------------------------------------------------

// True if ours held: no false down, and every link reported in time.
bool run_load(scene &s, const Watch &watch, const char *name, int seconds_alone)
{
    const int64_t since = now_real_ns();
    for (const auto end = clock_type::now() + std::chrono::seconds(seconds_alone); clock_type::now() < end;) {
        observe(s, 1s);
        check_loads(s);
    }
    wire_cut(INTERFACE, true);
    wire_cut(RIVAL_INTERFACE, true);
    const int64_t cut = now_real_ns();
    const auto deadline = clock_type::now() + REPORT_BOUND;
    while ((s.enabled > 0 || rival_up(s) > 0) && clock_type::now() < deadline) {
        observe(s, 200ms);
    }
    observe(s, 200ms);
    const figures ours = figures_of_ours(s, watch, since, cut);
    print_row(name, "kap-vorn", ours);
    print_row("", "bfdd", figures_of_rival(s, watch, since, cut));
    wire_cut(INTERFACE, false);
    wire_cut(RIVAL_INTERFACE, false);
    return ours.false_downs == 0 && ours.reported == s.d.links.size() && ours.worst_lateness <= SECOND;
}

std::string flood_said(const scene &s)
{
    for (const child_process &load : s.loads) {
        if (load.name.starts_with("load-requests")) {
            const std::string last = process_log_tail(load, 1);
            return last.empty() ? "0\n" : last;
        }
    }
    return "0\n";
}

bool run(const options &o)
{
    scene s;
    s.d.stage = stage_make("/run/starved-logs");
    demo_start(s.d);
    stage_control("far-end", {"any-address", "on"}); // a far end for each link
    if (!load_take_precedence()) {
        throw stage_failure(std::string("real-time priority: ") + strerror(errno));
    }
    wire_lay_through_middle(NEAR_NAMESPACE, FAR_NAMESPACE, INTERFACE, s.d.stage.ports[0].wire.near_mac,
                            s.d.stage.ports[0].wire.far_mac);
    if (mount("none", "/var/tmp", "tmpfs", 0, nullptr) != 0) { // the rival leaves a directory there
        throw stage_failure("no /var/tmp of our own");
    }
    s.other = rival_start("/run/rival", o.links, INTERVAL_MS, LOSSES);
    observe(s, 1s); // the port is back on its new wire
    create_links(s, o.links);
    const Watch watch(RIVAL_NEAR);
    wait_all_up(s, "before the load");
    printf("%u links each, one ping a second, down after %d lost; %u cores; %d s under each load\n\n", o.links, LOSSES,
           std::thread::hardware_concurrency(), o.seconds / 2);
    printf("%-34s %-9s %12s %14s %16s %16s\n", "load", "", "false downs", "cut reported", "worst after cut",
           "worst lateness");
    for (unsigned i = 0; i < 2 * std::thread::hardware_concurrency(); i++) {
        add_load(s, {"spin"});
    }
    add_load(s, {"memory", std::to_string(o.memory_mib)});
    add_load(s, {"requests"});
    bool held = run_load(s, watch, "busy loops, memory, requests", o.seconds / 2);
    wait_all_up(s, "after the first cut");
    for (unsigned i = 0; i < std::thread::hardware_concurrency(); i++) {
        add_load(s, {"spin-rt"});
    }
    held = run_load(s, watch, "the same and real-time busy loops", o.seconds - o.seconds / 2) && held;
    printf("\nrequests of the flood that were answered meanwhile: %s", flood_said(s).c_str());
    end_loads(s);
    rival_stop(s.other);
    demo_delete_all(s.d);
    demo_stop_daemon(s.d);
    command_must({"ip", "netns", "delete", MIDDLE_NAMESPACE});
    demo_stop_rest(s.d);
    return held;
}

// ---- Options --------------------------------------------------------------------------------------------------------

constexpr program_call PROGRAM = {"starved",
                                  "usage: starved [--seconds N] [--links N] [--memory MIB] | --help | --version\n"
                                  "Links on a machine that is short of everything, and Debian's BFD daemon beside "
                                  "them: N seconds (300) in all, N links\n"
                                  "(300) each, MIB (1024, at most 4096) of memory that is taken and given back.\n"};

bool take_number(const char *text, long least, long most, long *number)
{
    char *end = nullptr;
    *number = strtol(text, &end, 10);
    return *text != '\0' && *end == '\0' && *number >= least && *number <= most;
}

options read_options(int argc, char **argv)
{
    options o;
    for (int i = 1; i < argc && o.wrong.empty(); i++) {
        const std::string word = argv[i];
        const char *value = i + 1 < argc ? argv[i + 1] : "";
        long number = 0;
        if (word == "--seconds" && take_number(value, 2, 3600, &number)) {
            o.seconds = static_cast<int>(number);
            i++;
        } else if (word == "--links" && take_number(value, 1, 1000, &number)) {
            o.links = static_cast<uint32_t>(number);
            i++;
        } else if (word == "--memory" && take_number(value, 1, MOST_MEMORY_MIB, &number)) {
            o.memory_mib = static_cast<int>(number);
            i++;
        } else {
            o.wrong = word;
        }
    }
    return o;
}

} // namespace

int main(int argc, char **argv)
{
    load_become({argv + 1, argv + argc});
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    const options o = read_options(argc, argv);
    if (!o.wrong.empty()) {
        return program_refuse(PROGRAM, ("wrong: " + o.wrong).c_str());
    }
    std::string error;
    if (!sandbox_enter(error)) {
        (void)fprintf(stderr, "starved: %s\n", error.c_str());
        return 1;
    }
    try {
        const bool held = run(o);
        puts(held ? "held" : "NOT HELD: a link whose far end answered was reported down, or a cut too late");
        return program_end(PROGRAM, held ? 0 : 1);
    } catch (const std::exception &failure) {
        (void)fprintf(stderr, "starved: %s\n", failure.what());
        return 1;
    }
}
