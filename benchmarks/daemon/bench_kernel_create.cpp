// What a link costs from the request to its confirm when the node's services have the kernel do it, beside the same
// work by hand with `ip link add` and `nft -f`, one after the other in one run: a VLAN device on an interface, and one
// rule that lets the link's frames in. Real processes, a real kernel.
//
//     bench_kernel_create [ROUNDS]      50
//
// By hand means what somebody types: a program started for each command, the rules in a file. It is done in a namespace
// of its own, on an interface and in a table of its own, and each side waits until the other is at rest.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "demo.hpp"
#include "name_space.hpp"
#include "program_call.hpp"
#include "sandbox.hpp"

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;
using words = std::vector<std::string>;

constexpr const char *SELF = "bench_kernel_create";
constexpr const char *PORT = "IDL_A1";
constexpr const char *HAND_NAMESPACE = "hand";
constexpr const char *RULES_FILE = "/run/by-hand.nft";
constexpr uint16_t FIRST_VLAN = 1000;
constexpr uint16_t STANDING_VLAN = 900;
// The services look after the packet filter when somebody has changed it; so long it takes until they are at rest.
constexpr auto REST = 50ms;
constexpr double HIGHEST_RATIO = 1.5;

double ms_of(const std::function<void()> &work)
{
    const auto start = clock_type::now();
    work();
    return std::chrono::duration<double, std::milli>(clock_type::now() - start).count();
}

double median(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// As a shell does it, and no slower.
void run(const words &command)
{
    std::vector<char *> arguments;
    for (const std::string &word : command) {
        arguments.push_back(const_cast<char *>(word.c_str()));
    }
    arguments.push_back(nullptr);
    pid_t pid = 0;
    int status = 0;
    if (posix_spawnp(&pid, arguments[0], nullptr, nullptr, arguments.data(), environ) != 0 ||
        waitpid(pid, &status, 0) != pid || status != 0) {
        throw stage_failure("by hand: " + command[0] + " " + command[1] + " failed");
    }
}

// ---- By hand -------------------------------------------------------------------------------------------------------

void write_rules(const std::string &text) { std::ofstream(RULES_FILE) << text << "\n"; }

std::string let_in(const std::string &addresses)
{
    return "add rule netdev hand in meta protocol 0xebc0 ether daddr { " + addresses + " } counter accept";
}

void prepare_hand()
{
    run({"ip", "netns", "add", HAND_NAMESPACE});
    run({"ip", "link", "add", "h0", "netns", HAND_NAMESPACE, "type", "veth", "peer", "name", "h1", "netns",
         HAND_NAMESPACE});
    const kap_node::namespace_visit visit(HAND_NAMESPACE);
    run({"ip", "link", "set", "h0", "up"});
    write_rules("add table netdev hand\n"
                "add chain netdev hand in { type filter hook ingress device h0 priority 0; policy drop; }");
    run({"nft", "-f", RULES_FILE});
}

// With `standing` the rule stands in for one that was there for another link.
double create_by_hand(uint16_t vlan, bool with_device, bool standing)
{
    const kap_node::namespace_visit visit(HAND_NAMESPACE);
    const std::string own = "06:00:00:00:00:01";
    const std::string other = "06:00:00:00:00:02";
    write_rules(standing ? let_in(other) : "flush chain netdev hand in");
    run({"nft", "-f", RULES_FILE});
    write_rules(standing ? "flush chain netdev hand in\n" + let_in(own + ", " + other) : let_in(own));
    std::this_thread::sleep_for(REST);
    const std::string device = "h0." + std::to_string(vlan);
    const double spent = ms_of([&] {
        if (with_device) {
            run({"ip", "link", "add", "link", "h0", "name", device, "up", "type", "vlan", "id", std::to_string(vlan)});
        }
        run({"nft", "-f", RULES_FILE});
    });
    if (with_device) {
        run({"ip", "link", "del", device});
    }
    write_rules("flush chain netdev hand in");
    run({"nft", "-f", RULES_FILE});
    return spent;
}

// ---- By the daemon -------------------------------------------------------------------------------------------------

double create_by_daemon(demo &d, uint16_t vlan)
{
    const iemli_link_wish wish = demo_wish(d, PORT, vlan, 1);
    std::this_thread::sleep_for(REST);
    iemli_answer created;
    const double spent = ms_of([&] { created = iemli_client_create_link(d.client, wish); });
    if (created.outcome != iemli_outcome::confirmed ||
        iemli_client_delete_link(d.client, created.link_ref).outcome != iemli_outcome::confirmed) {
        throw stage_failure("a link was refused");
    }
    while (iemli_client_next_event(d.client, 0)) {
    }
    return spent;
}

// The rules are in the kernel, and the device is there.
void expect_in_kernel(bool with_device)
{
    command_must({"ip", "netns", "exec", NEAR_NAMESPACE, "nft", "list", "chain", "netdev", "kap_node", "DiPort_A1"});
    if (with_device) {
        command_must({"ip", "-n", NEAR_NAMESPACE, "link", "show", "idl_a1." + std::to_string(STANDING_VLAN)});
    }
}

bool compare(demo &d, int rounds, bool with_device, bool standing)
{
    std::vector<double> daemon;
    std::vector<double> hand;
    for (int i = 0; i < rounds; ++i) {
        const auto vlan = static_cast<uint16_t>(FIRST_VLAN + i % 1000);
        daemon.push_back(create_by_daemon(d, vlan));
        hand.push_back(create_by_hand(vlan, with_device, standing));
    }
    const double ratio = median(daemon) / median(hand);
    printf("%-34s %12.2f %12.2f %8.2f\n", standing ? "one more link of the port" : "the first link of the port",
           median(daemon), median(hand), ratio);
    (void)fflush(stdout);
    return ratio <= HIGHEST_RATIO;
}

bool compare_all(demo &d, int rounds, bool with_device)
{
    printf("%d rounds; medians in ms%s\n%-34s %12s %12s %8s\n", rounds,
           with_device ? "" : "; this kernel has no VLAN devices: the rules alone", "create to confirm", "daemon",
           "by hand", "ratio");
    bool good = compare(d, rounds, with_device, false);
    demo_create(d, demo_wish(d, PORT, STANDING_VLAN, 2));
    expect_in_kernel(with_device);
    good = compare(d, rounds, with_device, true) && good;
    return good;
}

constexpr program_call PROGRAM = {
    SELF, "usage: bench_kernel_create [ROUNDS] | --help | --version\n"
          "What a link costs from the request to its confirm with the node's services working in the kernel, beside\n"
          "the same by hand with `ip link add` and `nft -f`, in turns, ROUNDS (50) times. Fails when the ratio of the\n"
          "medians is above 1.5.\n"};

int run_all(int rounds)
{
    demo d;
    d.stage = stage_make("/run/bench-logs");
    d.stage.backend = "kernel";
    const bool with_device = wires_kernel_has_vlan_devices();
    d.stage.vlan = with_device ? "device" : "none";
    demo_start(d);
    prepare_hand();
    const bool good = compare_all(d, rounds, with_device);
    demo_delete_all(d);
    demo_stop_daemon(d);
    run({"ip", "netns", "delete", HAND_NAMESPACE});
    demo_stop_rest(d);
    return good ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    const int rounds = argc > 1 ? atoi(argv[1]) : 50; // NOLINT(cert-err34-c): 0 is refused below
    std::string error;
    if (rounds < 1 || argc > 2) {
        return program_refuse(PROGRAM, "ROUNDS is a whole number above 0");
    }
    if (!sandbox_enter(error)) {
        (void)fprintf(stderr, "%s: %s\n", SELF, error.c_str());
        return 1;
    }
    try {
        return program_end(PROGRAM, run_all(rounds));
    } catch (const std::exception &failure) {
        (void)fprintf(stderr, "%s: %s\n", SELF, failure.what());
        return 1;
    }
}
