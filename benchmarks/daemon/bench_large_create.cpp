// What a client with large requests costs the others: one client creates, updates and deletes a link of APP_LINKS app
// links, back to back, while this program, another client, measures its own round trip with the shortest request there
// is. Real processes, real frames.
//
//     bench_large_create [SECONDS [APP_LINKS]]      of each measurement, 5; 10000
//     bench_large_create --attack APP_LINKS         the other client; started by the first
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

#include "demo.hpp"
#include "program_call.hpp"
#include "sandbox.hpp"

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr const char *PORT = "IDL_A1";
constexpr const char *SELF = "bench_large_create";
constexpr uint16_t ATTACK_VLAN = 3000;
constexpr uint32_t ATTACK_REF = 77;
constexpr mac_address FAR_MAC = {{0x02, 0, 0, 0, 0xA1, 0xFE}};

std::vector<IemliAppLink> app_links(unsigned count, uint8_t kind)
{
    std::vector<IemliAppLink> list;
    for (unsigned i = 0; i < count; i++) {
        const auto high = static_cast<uint8_t>(i >> 8);
        const auto low = static_cast<uint8_t>(i);
        list.push_back({{{0x06, kind, 0, high, low, 1}}, {{0x06, kind, 1, high, low, 0xFE}}});
    }
    return list;
}

// ---- The client with the large requests ----

int attack(unsigned count)
{
    iemli_client client;
    if (itc_init(1, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox("large", 0) == ITC_NO_MBOX ||
        !iemli_client_start(client, ATTACK_REF) || !iemli_client_wait_published(client, 5000) ||
        iemli_client_open(client).outcome != iemli_outcome::confirmed) {
        puts("cannot begin");
        return 1;
    }
    client.bound_ms = 60000;
    const iemli_link_wish wish = {1, FAR_MAC, PORT, ATTACK_VLAN, app_links(count, 1)};
    for (unsigned round = 0;; round++) {
        const iemli_answer created = iemli_client_create_link(client, wish);
        const iemli_answer updated = iemli_client_update_link(client, created.link_ref, app_links(count, 2));
        const iemli_answer deleted = iemli_client_delete_link(client, created.link_ref);
        const bool well = created.outcome == iemli_outcome::confirmed && updated.outcome == iemli_outcome::confirmed &&
                          deleted.outcome == iemli_outcome::confirmed;
        printf("round %u %s\n", round, well ? "done" : "refused");
        (void)fflush(stdout);
        while (iemli_client_next_event(client, 0)) {
        }
    }
}

// ---- The client that measures ----

long resident_kb(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stol(line.substr(line.find(':') + 1));
        }
    }
    throw stage_failure("the daemon's size cannot be read");
}

// Processor time of the daemon's own thread, the one that receives.
double cpu_ms(pid_t pid)
{
    const std::string id = std::to_string(pid);
    std::ifstream file("/proc/" + id + "/task/" + id + "/schedstat");
    double nanoseconds = 0;
    if (!(file >> nanoseconds)) {
        throw stage_failure("the daemon's processor time cannot be read");
    }
    return nanoseconds / 1e6;
}

struct figures {
    size_t asked = 0;
    double median_us = 0;
    double worst_us = 0;
    long worst_kb = 0;
};

figures measure(demo &d, int seconds)
{
    std::vector<double> times;
    figures f;
    const pid_t pid = d.stage.processes.at(DAEMON).pid;
    for (const auto end = clock_type::now() + std::chrono::seconds(seconds); clock_type::now() < end;) {
        const auto start = clock_type::now();
        if (iemli_client_get_mac(d.client, PORT, 1).outcome != iemli_outcome::confirmed) {
            throw stage_failure("the client that measures was not answered");
        }
        times.push_back(std::chrono::duration<double, std::micro>(clock_type::now() - start).count());
        if (times.size() % 64 == 0) {
            f.worst_kb = std::max(f.worst_kb, resident_kb(pid));
        }
    }
    std::sort(times.begin(), times.end());
    f.asked = times.size();
    f.median_us = times[times.size() / 2];
    f.worst_us = times.back();
    return f;
}

void print(const char *what, const figures &f)
{
    printf("%-28s %9zu %12.1f %12.1f %12ld\n", what, f.asked, f.median_us, f.worst_us, f.worst_kb);
    (void)fflush(stdout);
}

size_t rounds_done(const std::string &log)
{
    std::ifstream file(log);
    size_t count = 0;
    for (std::string line; std::getline(file, line);) {
        count += line.find("done") != std::string::npos ? 1 : 0;
    }
    return count;
}

// Processor time of the daemon for one request and all that follows from it until it is answered.
double cost_of(pid_t pid, const std::function<iemli_answer()> &request)
{
    const double before = cpu_ms(pid);
    if (request().outcome != iemli_outcome::confirmed) {
        throw stage_failure("a large request was refused");
    }
    return cpu_ms(pid) - before;
}

void print_costs(demo &d, unsigned count)
{
    constexpr int ROUNDS = 5;
    const pid_t pid = d.stage.processes.at(DAEMON).pid;
    const iemli_link_wish wish = {1, FAR_MAC, PORT, ATTACK_VLAN, app_links(count, 1)};
    double most[3] = {};
    for (int round = 0; round < ROUNDS; round++) {
        uint32_t link_ref = 0;
        const double costs[] = {
            cost_of(pid,
                    [&] {
                        iemli_answer created = iemli_client_create_link(d.client, wish);
                        link_ref = created.link_ref;
                        return created;
                    }),
            cost_of(pid, [&] { return iemli_client_update_link(d.client, link_ref, app_links(count, 2)); }),
            cost_of(pid, [&] { return iemli_client_delete_link(d.client, link_ref); }),
        };
        for (int i = 0; i < 3; i++) {
            most[i] = std::max(most[i], costs[i]);
        }
    }
    printf("processor time of the daemon's receiving thread until it has answered, most of %d: create %.1f ms, update "
           "%.1f ms, delete %.1f ms\n",
           ROUNDS, most[0], most[1], most[2]);
}

void compare(demo &d, int seconds, const std::string &count)
{
    const pid_t pid = d.stage.processes.at(DAEMON).pid;
    printf("round trip of a get-MAC request, %d s each; the daemon's resident size\n", seconds);
    printf("%-28s %9s %12s %12s %12s\n", "beside it", "requests", "median us", "worst us", "worst kB");
    print("nobody", measure(d, seconds));
    const long before = resident_kb(pid);
    const std::string log = d.stage.log_dir + "/large.log";
    child_process other = process_start("large", {d.stage.bin_dir + "/" + SELF, "--attack", count}, log);
    const figures beside = measure(d, seconds);
    const size_t rounds = rounds_done(log);
    process_kill(other);
    print((count + " app links, again and again").c_str(), beside);
    std::this_thread::sleep_for(2s); // what the death of the other client takes
    printf("%zu rounds; size before %ld kB, after %ld kB\n", rounds, before, resident_kb(pid));
    if (rounds == 0) {
        throw stage_failure("no large request was answered");
    }
}

constexpr program_call PROGRAM = {
    SELF,
    "usage: bench_large_create [SECONDS [APP_LINKS]] | --attack APP_LINKS | --help | --version\n"
    "The round trip of one client (5 SECONDS each) alone, and beside one that creates, updates and deletes a link\n"
    "of 10000 APP_LINKS again and again.\n"};

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    if (argc == 3 && strcmp(argv[1], "--attack") == 0) {
        return attack(static_cast<unsigned>(atoi(argv[2]))); // NOLINT(cert-err34-c): its own caller's number
    }
    const int seconds = argc > 1 ? atoi(argv[1]) : 5;            // NOLINT(cert-err34-c): 0 is refused below
    const int app_link_count = argc > 2 ? atoi(argv[2]) : 10000; // NOLINT(cert-err34-c)
    std::string error;
    if (seconds < 1 || app_link_count < 1 || app_link_count > 65535 || argc > 3) {
        return program_refuse(PROGRAM, "SECONDS and APP_LINKS are whole numbers above 0, APP_LINKS below 65536");
    }
    if (!sandbox_enter(error)) {
        (void)fprintf(stderr, "%s: %s\n", SELF, error.c_str());
        return 1;
    }
    demo d;
    try {
        d.stage = stage_make("/run/bench-logs");
        demo_start(d);
        compare(d, seconds, std::to_string(app_link_count));
        print_costs(d, static_cast<unsigned>(app_link_count));
        demo_stop_daemon(d);
        demo_stop_rest(d);
    } catch (const std::exception &failure) {
        (void)fprintf(stderr, "%s: %s\n", SELF, failure.what());
        return 1;
    }
    return program_end(PROGRAM, 0);
}
