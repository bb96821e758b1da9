/*
 * What a message costs: the round trip of 344 bytes between two processes over libitc, and over a bare Unix stream
 * socket with blocking reads and writes, in turns in the same run, both processes on one core; back to back, and one
 * every 2 ms. Then small messages with a backlog, against the same bytes written one by one to a bare socket; and what
 * a small message to a mailbox of the same thread costs, against the block of memory that it is.
 *
 * Starts the itcd that was built with it, in a mount namespace of its own: needs root, and touches nothing of the
 * machine's /run. Each figure is the median of its rounds.
 *
 * usage: itc_roundtrip [rounds]
 */
#include "itc.h"
#include "program_call.hpp"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using clock_type = std::chrono::steady_clock;

constexpr size_t message_size = 344;
constexpr int trips_per_round = 20000;
constexpr int sparse_trips = 200;
constexpr std::chrono::milliseconds sparse_gap{2};
constexpr int small_messages = 200000;
constexpr size_t small_size = 16;

enum : uint32_t {
    PING = 1,
    STOP,
    SMALL,
    DONE
};

[[noreturn]] void give_up(const char *what)
{
    perror(what);
    exit(1);
}

double microseconds(clock_type::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

pid_t start(void (*body)(int), int argument)
{
    const pid_t pid = fork();
    if (pid < 0) {
        give_up("fork");
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        body(argument);
        _exit(0);
    }
    return pid;
}

void stay_on_one_core()
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) {
        give_up("sched_setaffinity");
    }
}

// ---- The yardstick
// ---------------------------------------------------------------------------------------------------

bool read_whole(int fd, void *to, size_t size)
{
    auto *at = static_cast<char *>(to);
    while (size > 0) {
        const ssize_t got = read(fd, at, size);
        if (got <= 0) {
            return false;
        }
        at += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

void socket_echo(int fd)
{
    char message[message_size];
    while (read_whole(fd, message, sizeof message)) {
        if (write(fd, message, sizeof message) != sizeof message) {
            return;
        }
    }
}

void socket_trip(int fd)
{
    char message[message_size] = {};
    if (write(fd, message, sizeof message) != sizeof message || !read_whole(fd, message, sizeof message)) {
        give_up("socket");
    }
}

// ---- libitc
// ----------------------------------------------------------------------------------------------------------

void itc_join(const char *name)
{
    if (itc_init(1, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox(name, 0) == ITC_NO_MBOX) {
        give_up(name);
    }
}

// Answers a PING; counts SMALLs and says DONE after the last.
void itc_echo(int)
{
    itc_join("echo");
    int small = 0;
    for (;;) {
        itc_msg *msg = itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY);
        if (msg == nullptr || msg->msgno == STOP) {
            itc_free(&msg);
            itc_exit();
            return;
        }
        const uint32_t sender = itc_sender(msg);
        if (msg->msgno == SMALL) {
            itc_free(&msg);
            if (++small % small_messages == 0) {
                msg = itc_alloc(4, DONE);
                itc_send(&msg, sender, ITC_MY_MBOX);
            }
            continue;
        }
        itc_free(&msg);
        msg = itc_alloc(message_size, PING);
        itc_send(&msg, sender, ITC_MY_MBOX);
    }
}

void itc_trip(uint32_t to)
{
    itc_msg *msg = itc_alloc(message_size, PING);
    itc_send(&msg, to, ITC_MY_MBOX);
    msg = itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY);
    itc_free(&msg);
}

// ---- Measuring
// -------------------------------------------------------------------------------------------------------

template <typename Trip> double back_to_back(Trip trip)
{
    const auto begin = clock_type::now();
    for (int i = 0; i < trips_per_round; i++) {
        trip();
    }
    return microseconds(clock_type::now() - begin) / trips_per_round;
}

template <typename Trip> double sparse(Trip trip)
{
    std::vector<double> times;
    for (int i = 0; i < sparse_trips; i++) {
        std::this_thread::sleep_for(sparse_gap);
        const auto begin = clock_type::now();
        trip();
        times.push_back(microseconds(clock_type::now() - begin));
    }
    return median(times);
}

void print(const char *what, const std::vector<double> &itc, const std::vector<double> &bare,
           const char *yardstick = "bare stream socket")
{
    std::vector<double> ratios;
    for (size_t i = 0; i < itc.size(); i++) {
        ratios.push_back(itc[i] / bare[i]);
    }
    printf("%-44s libitc %7.2f us   %s %7.2f us   ratio %.2f\n", what, median(itc), yardstick, median(bare),
           median(ratios));
}

double small_over_itc(uint32_t to)
{
    const auto begin = clock_type::now();
    for (int i = 0; i < small_messages; i++) {
        itc_msg *msg = itc_alloc(small_size, SMALL);
        itc_send(&msg, to, ITC_MY_MBOX);
    }
    itc_msg *done = itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY);
    itc_free(&done);
    return microseconds(clock_type::now() - begin) / small_messages;
}

void socket_sink(int fd)
{
    char frame[small_size + 8];
    for (;;) {
        for (int i = 0; i < small_messages; i++) {
            if (!read_whole(fd, frame, sizeof frame)) {
                return;
            }
        }
        (void)!write(fd, "", 1);
    }
}

double small_over_socket(int fd)
{
    const char frame[small_size + 8] = {};
    const auto begin = clock_type::now();
    for (int i = 0; i < small_messages; i++) {
        if (write(fd, frame, sizeof frame) != sizeof frame) {
            give_up("write");
        }
    }
    char done;
    if (!read_whole(fd, &done, 1)) {
        give_up("read");
    }
    return microseconds(clock_type::now() - begin) / small_messages;
}

double small_to_itself()
{
    const uint32_t own = itc_current_mbox();
    const auto begin = clock_type::now();
    for (int i = 0; i < small_messages; i++) {
        itc_msg *msg = itc_alloc(small_size, SMALL);
        itc_send(&msg, own, ITC_MY_MBOX);
        msg = itc_receive(nullptr, ITC_NO_TIMEOUT, ITC_FROM_ANY);
        itc_free(&msg);
    }
    return microseconds(clock_type::now() - begin) / small_messages;
}

double memory_of_small()
{
    const auto begin = clock_type::now();
    for (int i = 0; i < small_messages; i++) {
        void *volatile memory = malloc(small_size + 64);
        free(memory);
    }
    return microseconds(clock_type::now() - begin) / small_messages;
}

int open_pair(void (*peer)(int))
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        give_up("socketpair");
    }
    start(peer, ends[1]);
    close(ends[1]);
    return ends[0];
}

void start_registry()
{
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run", "tmpfs", 0, "mode=755") != 0) {
        give_up("a mount namespace with an empty /run (needs root)");
    }
    start([](int) { execl(ITCD_PATH, "itcd", nullptr); }, 0);
    for (int i = 0; access("/run/kap-itc/itcd.sock", F_OK) != 0; i++) {
        if (i > 1000) {
            give_up(ITCD_PATH);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void measure(int rounds, uint32_t to, int echo, int sink)
{
    std::vector<double> itc;
    std::vector<double> bare;
    for (int i = 0; i < rounds; i++) {
        itc.push_back(back_to_back([&] { itc_trip(to); }));
        bare.push_back(back_to_back([&] { socket_trip(echo); }));
    }
    print("round trip of 344 bytes, back to back", itc, bare);
    itc.clear();
    bare.clear();
    for (int i = 0; i < rounds; i++) {
        itc.push_back(sparse([&] { itc_trip(to); }));
        bare.push_back(sparse([&] { socket_trip(echo); }));
    }
    print("round trip of 344 bytes, one every 2 ms", itc, bare);
    itc.clear();
    bare.clear();
    for (int i = 0; i < rounds; i++) {
        itc.push_back(small_over_itc(to));
        bare.push_back(small_over_socket(sink));
    }
    print("one of 200,000 messages of 16 bytes, one way", itc, bare);
    itc.clear();
    bare.clear();
    for (int i = 0; i < rounds; i++) {
        itc.push_back(small_to_itself());
        bare.push_back(memory_of_small());
    }
    print("a message of 16 bytes to itself", itc, bare, "malloc and free");
}

constexpr program_call PROGRAM = {
    "itc_roundtrip", "usage: itc_roundtrip [ROUNDS] | --help | --version\n"
                     "Messages between two processes beside a bare Unix stream socket, ROUNDS (5) of each.\n"};

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    const long rounds = argc > 1 ? strtol(argv[1], nullptr, 10) : 5;
    if (rounds < 1 || rounds > 1000 || argc > 2) {
        return program_refuse(PROGRAM, "ROUNDS is a whole number from 1 to 1000");
    }
    (void)signal(SIGPIPE, SIG_IGN);
    start_registry();
    stay_on_one_core();
    start(itc_echo, 0);
    const int echo = open_pair(socket_echo);
    const int sink = open_pair(socket_sink);
    itc_join("bench");
    itc_msg *found = itc_alloc(4, PING);
    itc_locate_async("echo", &found, itc_current_mbox());
    found = itc_receive(nullptr, 5000, ITC_FROM_ANY);
    if (found == nullptr) {
        give_up("the echo process");
    }
    const uint32_t to = itc_sender(found);
    itc_free(&found);
    measure(static_cast<int>(rounds), to, echo, sink);
    itc_statistics now{};
    itc_get_statistics(&now);
    if (now.dropped_full != 0) {
        printf("%llu messages were dropped: the figures above are worth nothing\n",
               static_cast<unsigned long long>(now.dropped_full));
        return 1;
    }
    itc_msg *stop = itc_alloc(4, STOP);
    itc_send(&stop, to, ITC_MY_MBOX);
    itc_exit();
    return program_end(PROGRAM, 0);
}
