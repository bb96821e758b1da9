// How long a thousand declared links take from the start of kap-linkd, and from that of a daemon that was killed, until
// all are enabled; what kap-linkd takes of processor and memory while it keeps them; how long it takes to tell all of
// them. Real processes and frames.
//
//     bench_linkd [LINKS]      1000
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include <unistd.h>

#include "demo.hpp"
#include "linkd/control_client.hpp"
#include "program_call.hpp"
#include "sandbox.hpp"

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr program_call PROGRAM = {"bench_linkd",
                                  "usage: bench_linkd [LINKS]\n"
                                  "Keeps LINKS (1000; at most 4094) declared links and prints what it takes.\n"
                                  "  --help     print this\n"
                                  "  --version  print the version\n"};
constexpr const char *LINKD = "kap-linkd";
constexpr const char *SOCKET = "/run/kap-linkd/control.sock";
constexpr int MOST_LINKS = 4094;
constexpr auto BOUND = 120s;
constexpr auto LOOK_EVERY = 10ms;
constexpr int AT_REST_S = 20;

double seconds_since(clock_type::time_point start)
{
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

void declare(const std::string &file, int links)
{
    std::ofstream out(file);
    for (int i = 1; i <= links; i++) {
        char app[64];
        (void)snprintf(app, sizeof app, "02:00:00:0%x:%02x:", 1, i / 256 % 256);
        char last[8];
        (void)snprintf(last, sizeof last, "%02x", i % 256);
        out << "[links.l" << i << "]\nport = \"IDL_A1\"\nvlan = " << i << "\nfar = \"02:00:00:00:a1:fe\"\n"
            << "app_links = [{ near = \"" << app << last << "\", far = \"06:00:00:01:" << (app + 12) << last
            << "\" }]\n";
    }
}

size_t enabled()
{
    control_client client(SOCKET);
    if (!client.connected()) {
        return 0;
    }
    const auto answer = client.ask("status");
    return answer.is_object() && answer.contains("links") ? answer["links"]["enabled"].get<size_t>() : 0;
}

double wait_enabled(demo &d, size_t links, clock_type::time_point start)
{
    while (enabled() != links) {
        if (clock_type::now() - start > BOUND) {
            throw stage_failure("after the bound " + std::to_string(enabled()) + " links are enabled");
        }
        stage_check(d.stage);
        std::this_thread::sleep_for(LOOK_EVERY);
    }
    return seconds_since(start);
}

uint64_t pss_kib(const child_process &child)
{
    std::ifstream file("/proc/" + std::to_string(child.pid) + "/smaps_rollup");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("Pss:")) {
            return strtoull(line.c_str() + 4, nullptr, 10);
        }
    }
    return 0;
}

template <typename WHAT> double median_ms(WHAT what)
{
    constexpr int ROUNDS = 21;
    std::vector<double> times;
    for (int i = 0; i < ROUNDS; i++) {
        const auto start = clock_type::now();
        what();
        times.push_back(seconds_since(start) * 1000);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// Until the end of the answer; whoever asks reads it as he likes.
void take_list()
{
    control_client client(SOCKET);
    if (!client.send_text("{\"op\":\"links\"}\n") || client.count_lines(1) != 1) {
        throw stage_failure("no links were told");
    }
}

// The program from its start to its end, with its output in a pipe.
void call_vornctl(const demo &d, size_t links)
{
    const command_result result = command_run({d.stage.bin_dir + "/vornctl", "links", "--json"});
    const auto printed = static_cast<size_t>(std::count(result.output.begin(), result.output.end(), '\n'));
    if (result.status != 0 || printed < links) {
        throw stage_failure("vornctl links --json: " + result.output.substr(0, 200));
    }
}

void start_linkd(demo &d)
{
    d.stage.processes[LINKD] = process_start(LINKD,
                                             {d.stage.bin_dir + "/" + LINKD, "--links", d.stage.log_dir + "/links.toml",
                                              "--state", d.stage.log_dir, "--settings", "/nowhere"},
                                             d.stage.log_dir + "/kap-linkd.log");
}

void measure(demo &d, int links)
{
    std::filesystem::create_directories("/run/kap-linkd");
    std::filesystem::create_directories(d.stage.log_dir);
    declare(d.stage.log_dir + "/links.toml", links);
    demo_start(d);
    const auto count = static_cast<size_t>(links);
    auto start = clock_type::now();
    start_linkd(d);
    printf("%d links, from the start of kap-linkd to all enabled: %.2f s\n", links, wait_enabled(d, count, start));
    child_process killed = stage_stop_process(d.stage, "kap-vorn", SIGKILL, 5s);
    start = clock_type::now();
    stage_start_process(d.stage, "kap-vorn");
    printf("... from the start of a daemon that was killed to all enabled again: %.2f s\n",
           wait_enabled(d, count, start));
    const child_process &linkd = d.stage.processes.at(LINKD);
    const double before = process_cpu_seconds(linkd);
    std::this_thread::sleep_for(std::chrono::seconds(AT_REST_S));
    printf("... kap-linkd takes then, of a core: %.2f %%\n", (process_cpu_seconds(linkd) - before) / AT_REST_S * 100);
    printf("... and of memory (proportional set size): %.1f MiB\n", static_cast<double>(pss_kib(linkd)) / 1024);
    printf("... all links over the control socket, median of 21: %.1f ms\n", median_ms(take_list));
    printf("... vornctl links --json, from its start to its end, median of 21: %.1f ms\n",
           median_ms([&] { call_vornctl(d, count); }));
    stage_stop(d.stage);
}

int run(int links)
{
    std::string error;
    if (!sandbox_enter(error)) {
        (void)fprintf(stderr, "bench_linkd: %s\n", error.c_str());
        return 1;
    }
    char directory[] = "/tmp/bench_linkd.XXXXXX";
    if (mkdtemp(directory) == nullptr) {
        return 1;
    }
    demo d;
    d.stage = stage_make(std::string(directory) + "/logs");
    try {
        measure(d, links);
    } catch (const std::exception &failure) {
        (void)fprintf(stderr, "bench_linkd: %s\n", failure.what());
        return 1;
    }
    std::filesystem::remove_all(directory);
    return program_end(PROGRAM, 0);
}

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    int links = 1000;
    for (int i = 1; i < argc; i++) {
        links = atoi(argv[i]);
        if (links < 1 || links > MOST_LINKS) {
            return program_refuse(PROGRAM, "not a number from 1 to 4094");
        }
    }
    return run(links);
}
