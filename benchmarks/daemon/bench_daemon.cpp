// What the whole daemon costs, with real processes and real frames: its processor time per supervised ping with 10, 100
// and 1,000 sessions at one per second, beside a naive peer on the same cable; and how long a create takes from the
// request to the confirm with lower layers that answer at once, beside the shortest request there is.
//
//     bench_daemon [SECONDS]      seconds of each measurement, 5 if not given
#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "demo.hpp"
#include "link_list/link_list.hpp"
#include "naive_peer/naive_peer.hpp"
#include "program_call.hpp"
#include "sandbox.hpp"

namespace
{

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr const char *PORT = "IDL_A1";
constexpr const char *INTERFACE = "idl_a1";
constexpr int CREATES = 300;

// Processor time of all threads of another process, to the nanosecond.
double cpu_us(pid_t pid)
{
    clockid_t clock = 0;
    timespec t{};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &t) != 0) {
        throw stage_failure("the daemon's processor time cannot be read");
    }
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

struct counts {
    uint64_t answered = 0;
    uint64_t lost = 0;
};

counts supervision_counts()
{
    std::string error;
    const auto links = link_list::fetch(5000, &error);
    if (!links) {
        throw stage_failure(error);
    }
    counts sum;
    for (const auto &link : *links) {
        sum.answered += link.results - link.lost;
        sum.lost += link.lost;
    }
    return sum;
}

iemli_link_wish wish_of(const demo &d, uint32_t session)
{
    iemli_link_wish wish = demo_wish(d, PORT, naive_peer_vlan(session), 0);
    wish.far_cpm_mac = naive_peer_far_mac(session);
    return wish;
}

void listen_for(demo &d, std::chrono::milliseconds time)
{
    for (const auto end = clock_type::now() + time; clock_type::now() < end;) {
        demo_listen(d, std::chrono::duration_cast<std::chrono::milliseconds>(end - clock_type::now()) + 1ms);
    }
}

ping_figures measure_daemon(demo &d, uint32_t sessions, int seconds)
{
    for (auto have = static_cast<uint32_t>(d.links.size()); have < sessions; ++have) {
        demo_create(d, wish_of(d, have));
    }
    listen_for(d, 2s); // warming up
    const pid_t pid = d.stage.processes.at(DAEMON).pid;
    const counts before = supervision_counts();
    const double cpu_before = cpu_us(pid);
    listen_for(d, std::chrono::seconds(seconds));
    const double cpu = cpu_us(pid) - cpu_before;
    const counts after = supervision_counts();
    return {after.answered - before.answered, after.lost - before.lost, cpu};
}

// In the near namespace, in a process of its own.
ping_figures measure_peer(uint32_t sessions, int seconds)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw stage_failure("no pipe");
    }
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int fd = open("/var/run/netns/near", O_RDONLY | O_CLOEXEC);
        if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
            _exit(1);
        }
        const ping_figures f = naive_peer_measure(INTERFACE, sessions, seconds);
        _exit(write(ends[1], &f, sizeof f) == sizeof f ? 0 : 1);
    }
    close(ends[1]);
    ping_figures f{};
    const bool whole = read(ends[0], &f, sizeof f) == sizeof f;
    close(ends[0]);
    waitpid(pid, nullptr, 0);
    if (!whole) {
        throw stage_failure("the peer's measurement ended early");
    }
    return f;
}

double per_ping(const ping_figures &f)
{
    if (f.pings == 0) {
        throw stage_failure("no ping was answered");
    }
    return f.cpu_us / static_cast<double>(f.pings);
}

void compare_pings(demo &d, int seconds)
{
    printf("processor time per supervised ping, one ping per second and session, %d s each\n", seconds);
    printf("%9s %14s %14s %7s %10s\n", "sessions", "daemon us", "naive peer us", "ratio", "lost");
    for (const uint32_t sessions : {10u, 100u, 1000u}) {
        const ping_figures daemon = measure_daemon(d, sessions, seconds);
        const ping_figures peer = measure_peer(sessions, seconds);
        printf("%9u %14.2f %14.2f %7.2f %6llu/%llu\n", sessions, per_ping(daemon), per_ping(peer),
               per_ping(daemon) / per_ping(peer), static_cast<unsigned long long>(daemon.lost),
               static_cast<unsigned long long>(peer.lost));
        (void)fflush(stdout);
    }
}

double median_us(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

double time_us(const std::function<void()> &action)
{
    const auto start = clock_type::now();
    action();
    return std::chrono::duration<double, std::micro>(clock_type::now() - start).count();
}

void compare_creates(demo &d)
{
    std::vector<double> creates;
    std::vector<double> queries;
    const iemli_link_wish wish = demo_wish(d, PORT, 4001, 2);
    for (int i = 0; i < CREATES; ++i) {
        uint32_t link_ref = 0;
        creates.push_back(time_us([&] { link_ref = iemli_client_create_link(d.client, wish).link_ref; }));
        if (link_ref == 0) {
            throw stage_failure("a create was not confirmed");
        }
        queries.push_back(time_us([&] { iemli_client_get_mac(d.client, PORT, 1); }));
        iemli_client_delete_link(d.client, link_ref);
        while (iemli_client_next_event(d.client, 0)) {
        }
    }
    printf("create to confirm, lower layers that answer at once (PMI, EMI, FMI), two app links, median of %d\n",
           CREATES);
    printf("%14s %14s %7s\n", "create us", "get MAC us", "ratio");
    printf("%14.1f %14.1f %7.2f\n", median_us(creates), median_us(queries), median_us(creates) / median_us(queries));
}

constexpr program_call PROGRAM = {
    "bench_daemon",
    "usage: bench_daemon [SECONDS] | --help | --version\n"
    "The whole daemon beside a peer that wakes for each ping, SECONDS (5) for each number of sessions; and creates.\n"};

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    const int seconds = argc > 1 ? atoi(argv[1]) : 5; // NOLINT(cert-err34-c): 0 is refused below
    std::string error;
    if (seconds < 1 || argc > 2) {
        return program_refuse(PROGRAM, "SECONDS is a whole number above 0");
    }
    if (!sandbox_enter(error)) {
        (void)fprintf(stderr, "bench_daemon: %s\n", error.c_str());
        return 1;
    }
    demo d;
    try {
        d.stage = stage_make("/run/bench-logs");
        demo_start(d);
        stage_control("far-end", {"any-address", "on"}); // a far end for each link
        compare_creates(d);
        puts("");
        compare_pings(d, seconds);
        demo_delete_all(d);
        demo_stop_daemon(d);
        demo_stop_rest(d);
    } catch (const std::exception &failure) {
        (void)fprintf(stderr, "bench_daemon: %s\n", failure.what());
        return 1;
    }
    return program_end(PROGRAM, 0);
}
