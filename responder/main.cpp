// kap-responder: answers the pings of supervised links on the interfaces that it is given, and does nothing else. See
// far_end.hpp for what is answered. Here: options, rights, signals, the loop, and what a service manager is told.
#include "far_end.hpp"
#include "place.hpp"
#include "program_call.hpp"
#include "say.hpp"
#include "service_manager.hpp"
#include "watcher.hpp"

#include <getopt.h>
#include <net/if.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace
{

using responder::say;

constexpr uint32_t USUAL_RATE = 1000;
constexpr uint32_t HIGHEST_RATE = 1'000'000;
constexpr int64_t LOOK_MS = 1000;

constexpr program_call PROGRAM = {
    "kap-responder",
    "usage: kap-responder [--netns NAME] [--any-address] [--rate N] IFACE...\n"
    "       kap-responder --help | --version\n"
    "Answers the pings of supervised links (eCPRI one-way delay measurements, in any VLAN and in none) that arrive on\n"
    "the interfaces and are addressed to them. An interface may come later, and go and come back.\n"
    "  --netns NAME   the interfaces are in that network namespace\n"
    "  --any-address  answer also what is addressed to somebody else, in his name\n"
    "  --rate N       answer at most N pings a second of one sender in one VLAN (1000); 0: all\n"
    "  --help         print this\n"
    "  --version      print the version\n"
    "SIGUSR1 has it say its counters on standard error; SIGTERM ends it.\n"};

struct call {
    std::string name_space;
    far_end_knobs knobs;
    std::vector<std::string> interfaces;
};

bool read_number(const char *text, uint32_t most, uint32_t *number)
{
    const char *end = text + strlen(text);
    const auto [stopped, error] = std::from_chars(text, end, *number);
    return error == std::errc{} && stopped == end && *number <= most;
}

bool is_name_space(const std::string &name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

bool is_interface(const std::string &name)
{
    return !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
           std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7F && c != '/' && c != ':'; });
}

// What is wrong with it; empty: nothing.
std::string take_option(int option, call &wanted)
{
    switch (option) {
    case 'n':
        wanted.name_space = optarg;
        return is_name_space(wanted.name_space) ? "" : std::string("no name of a namespace: ") + optarg;
    case 'a':
        wanted.knobs.any_address = true;
        return "";
    case 'r':
        return read_number(optarg, HIGHEST_RATE, &wanted.knobs.per_second)
                   ? ""
                   : std::string("no number from 0 to 1000000: ") + optarg;
    default:
        return "a wrong option";
    }
}

std::string take_interface(const std::string &name, call &wanted)
{
    if (!is_interface(name)) {
        return "no name of an interface: " + name;
    }
    if (std::find(wanted.interfaces.begin(), wanted.interfaces.end(), name) != wanted.interfaces.end()) {
        return "named twice: " + name;
    }
    wanted.interfaces.push_back(name);
    return "";
}

// What is wrong with the call; empty: nothing.
std::string read_call(int argc, char **argv, call &wanted)
{
    static const option options[] = {{"netns", required_argument, nullptr, 'n'},
                                     {"any-address", no_argument, nullptr, 'a'},
                                     {"rate", required_argument, nullptr, 'r'},
                                     {nullptr, 0, nullptr, 0}};
    wanted.knobs.per_second = USUAL_RATE;
    std::string wrong;
    for (int c; wrong.empty() && (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        wrong = take_option(c, wanted);
    }
    for (int i = optind; wrong.empty() && i < argc; i++) {
        wrong = take_interface(argv[i], wanted);
    }
    return wrong.empty() && wanted.interfaces.empty() ? "on which interface?" : wrong;
}

int64_t now_ms()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1'000'000;
}

int open_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGUSR1}) {
        sigaddset(&set, number);
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

// True: a signal ends the process.
bool handle_signals(int signals, const responder::watcher &watch)
{
    signalfd_siginfo info{};
    while (read(signals, &info, sizeof info) == sizeof info) {
        if (info.ssi_signo != SIGUSR1) {
            return true;
        }
        watch.say_counters();
    }
    return false;
}

// The exit status.
int run(far_end *engine, int signals, const call &wanted)
{
    constexpr int ready_patience_ms = 1000;
    responder::watcher watch(engine, wanted.interfaces);
    watch.look();
    const int error = manager_tell("READY=1", ready_patience_ms);
    if (error != 0) {
        say("the service manager was not told: %s", strerror(error));
    }
    const uint32_t watchdog = manager_watchdog_ms();
    const int64_t period = watchdog == 0 ? LOOK_MS : std::min<int64_t>(LOOK_MS, watchdog);
    pollfd fds[2] = {{signals, POLLIN, 0}, {far_end_fd(engine), POLLIN, 0}};
    for (int64_t next = now_ms() + period;;) {
        (void)poll(fds, 2, static_cast<int>(std::max<int64_t>(0, next - now_ms())));
        if (fds[1].revents != 0) {
            far_end_handle(engine);
        }
        if (fds[0].revents != 0 && handle_signals(signals, watch)) {
            return 0;
        }
        const int64_t now = now_ms();
        if (now < next) {
            continue;
        }
        next = now + period;
        watch.look();
        if (watchdog != 0) {
            (void)manager_tell("WATCHDOG=1", 0);
        }
        if (!wanted.name_space.empty() && !responder::is_in_name_space(wanted.name_space)) {
            say("the network namespace \"%s\" is gone", wanted.name_space.c_str());
            return 1;
        }
    }
}

int respond(const call &wanted)
{
    responder::say_open();
    const int signals = open_signals();
    if (!wanted.name_space.empty() && !responder::enter_name_space(wanted.name_space)) {
        return 1;
    }
    std::string problem;
    far_end *engine = far_end_open(wanted.interfaces, &problem, FAR_END_QUEUES);
    if (engine == nullptr) {
        say("%s%s", problem.c_str(), errno == EPERM ? " (CAP_NET_RAW is needed)" : "");
        return 1;
    }
    far_end_get_knobs(engine) = wanted.knobs;
    const int error = responder::drop_all_rights();
    if (error != 0 || signals < 0) {
        say("cannot start: %s", strerror(error != 0 ? error : errno));
        far_end_close(engine);
        return 1;
    }
    const int status = run(engine, signals, wanted);
    far_end_close(engine);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    call wanted;
    const std::string wrong = read_call(argc, argv, wanted);
    return wrong.empty() ? respond(wanted) : program_refuse(PROGRAM, wrong.c_str());
}
