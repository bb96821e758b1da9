// What a supervised ping costs: processor time of the supervision library per ping with 10 to 10,000 sessions at one
// per second, beside that of a peer that does the obvious: it wakes for each request when it is due and for each
// answer when it comes, over the same kind of socket with the same frames. Both run in the same two namespaces against
// the same far end, one after the other, each in a process of its own whose whole processor time is counted.
//
//     bench_supervision [SECONDS]      seconds of each measurement, 5 if not given; needs root
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "far_end.hpp"
#include "naive_peer/naive_peer.hpp"
#include "program_call.hpp"
#include "supervision.h"

namespace
{

constexpr int64_t SECOND = 1'000'000'000;
constexpr int WARM_UP_SECONDS = 2;

using figures = ping_figures;

int64_t nanoseconds(clockid_t clock)
{
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<int64_t>(t.tv_sec) * SECOND + t.tv_nsec;
}

void must(bool holds, const char *what)
{
    if (!holds) {
        (void)fprintf(stderr, "bench_supervision: %s: %s\n", what, strerror(errno));
        exit(1);
    }
}

// NOLINTNEXTLINE(cert-env33-c): nothing of these commands comes from outside
void run(const char *command) { must(system(command) == 0, command); }

void enter_far()
{
    const int fd = open("/run/netns/far", O_RDONLY | O_CLOEXEC);
    must(fd >= 0 && setns(fd, CLONE_NEWNET) == 0, "namespace far");
    close(fd);
}

mac_address near_mac() { return {{0x02, 0, 0, 0, 0, 1}}; }

// ---- The far end ----

pid_t start_far_end()
{
    const pid_t pid = fork();
    if (pid != 0) {
        return pid;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    enter_far();
    std::string error;
    far_end *f = far_end_open({"far0"}, &error);
    must(f != nullptr, error.c_str());
    far_end_get_knobs(f).any_address = true; // a far end for each session
    for (;;) {
        pollfd p{far_end_fd(f), POLLIN, 0};
        poll(&p, 1, -1);
        far_end_handle(f);
    }
}

// ---- The library ----

std::atomic<uint64_t> answered;
std::atomic<uint64_t> lost;

void count(const supervision_rtt *, uint32_t, uint32_t result)
{
    (result == SUPERVISION_LOST ? lost : answered).fetch_add(1, std::memory_order_relaxed);
}

void sleep_for(int seconds)
{
    timespec left{seconds, 0};
    while (nanosleep(&left, &left) != 0) {
    }
}

figures measure_library(uint32_t sessions, int seconds)
{
    for (uint32_t i = 0; i < sessions; i++) {
        supervision_params p{};
        (void)snprintf(p.if_name, sizeof p.if_name, "near0");
        p.interval = 1;
        p.sup_type = SUPERVISION_TYPE_LINK;
        p.frameSize = 64;
        memcpy(p.src_mac, near_mac().byte, sizeof p.src_mac);
        memcpy(p.dest_mac, naive_peer_far_mac(i).byte, sizeof p.dest_mac);
        p.vlantag = 0x8100E000u | naive_peer_vlan(i);
        p.ether_type = 0xAEFE;
        uint32_t id = 0;
        must(start_supervision_session(&id, &p, count) == 0, "start_supervision_session");
    }
    sleep_for(WARM_UP_SECONDS);
    const uint64_t answered_before = answered;
    const uint64_t lost_before = lost;
    const int64_t cpu_before = nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
    sleep_for(seconds);
    const auto cpu = static_cast<double>(nanoseconds(CLOCK_PROCESS_CPUTIME_ID) - cpu_before);
    return {answered - answered_before, lost - lost_before, cpu / 1000};
}

// ---- The comparison ----

figures measure_peer(uint32_t sessions, int seconds) { return naive_peer_measure("near0", sessions, seconds); }

figures in_process(figures (*measure)(uint32_t, int), uint32_t sessions, int seconds)
{
    int ends[2];
    must(pipe(ends) == 0, "pipe");
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const figures f = measure(sessions, seconds);
        _exit(write(ends[1], &f, sizeof f) == sizeof f ? 0 : 1);
    }
    close(ends[1]);
    figures f{};
    must(read(ends[0], &f, sizeof f) == sizeof f, "a measurement ended early");
    close(ends[0]);
    waitpid(pid, nullptr, 0);
    return f;
}

void lay_cable()
{
    must(unshare(CLONE_NEWNS | CLONE_NEWNET) == 0, "namespaces of its own (needs root)");
    must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    must(mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0, "a /run of its own");
    run("ip netns add far && ip link add near0 address 02:00:00:00:00:01 type veth peer name far0 netns far &&"
        "ip link set near0 up && ip -n far link set far0 up &&"
        "until ip -o link show near0 | grep -q 'state UP'; do :; done");
}

constexpr program_call PROGRAM = {
    "bench_supervision",
    "usage: bench_supervision [SECONDS] | --help | --version\n"
    "The supervision library beside a peer that wakes for each ping, SECONDS (5) for each number of sessions.\n"};

} // namespace

int main(int argc, char **argv)
{
    if (auto end = program_answer(PROGRAM, argc, argv)) {
        return *end;
    }
    const int seconds = argc > 1 ? atoi(argv[1]) : 5; // NOLINT(cert-err34-c): 0 is refused below
    if (seconds < 1 || argc > 2) {
        return program_refuse(PROGRAM, "SECONDS is a whole number above 0");
    }
    lay_cable();
    const pid_t far = start_far_end();
    printf("processor time per ping, one ping per second and session, %d s each\n", seconds);
    printf("%9s %14s %14s %7s %10s\n", "sessions", "library us", "naive peer us", "ratio", "lost");
    for (const uint32_t sessions : {10u, 100u, 1000u, 10000u}) {
        const figures library = in_process(measure_library, sessions, seconds);
        const figures peer = in_process(measure_peer, sessions, seconds);
        must(library.pings > 0 && peer.pings > 0, "no pings were answered");
        const double ours = library.cpu_us / static_cast<double>(library.pings);
        const double theirs = peer.cpu_us / static_cast<double>(peer.pings);
        printf("%9u %14.2f %14.2f %7.2f %6llu/%llu\n", sessions, ours, theirs, ours / theirs,
               static_cast<unsigned long long>(library.lost), static_cast<unsigned long long>(peer.lost));
        (void)fflush(stdout);
    }
    kill(far, SIGKILL);
    waitpid(far, nullptr, 0);
    return program_end(PROGRAM, 0);
}
