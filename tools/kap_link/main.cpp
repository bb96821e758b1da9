// kap-link: asks the supervision daemon for one link, keeps it as long as it runs, and prints what becomes of it. Here:
// options, signals, the way to the registry and, when that is lost, a new start: a process has one connection with the
// registry in its life.
#include "itc.h"
#include "keeper.hpp"
#include "program_call.hpp"

#include <getopt.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace
{

using kap_link::complain;
using kap_link::ending;
using kap_link::keeper;
using kap_link::wish;

constexpr int BETWEEN_TRIES_MS = 500;
constexpr int STATUS_FAILED = 1;

constexpr program_call PROGRAM = {
    "kap-link",
    "usage: kap-link [--rtt[=BATCH,SECONDS,BYTES]] [--mp-id N] [--json] PORT VLAN FAR-CPM-MAC [NEAR-MAC,FAR-MAC]...\n"
    "       kap-link --help | --version\n"
    "Asks the supervision daemon for a link on PORT (IDL_A1, TN_A, ...) in VLAN to the control processor at "
    "FAR-CPM-MAC,\n"
    "for the pairs of applications that follow, keeps it until it is ended, and prints a line for each change.\n"
    "  --rtt          print round-trip times too: one line for every BATCH pings (5), SECONDS apart (1), in frames of\n"
    "                 BYTES (64)\n"
    "  --mp-id N      the processor of this node that the link is for (1)\n"
    "  --json         lines of JSON\n"
    "  --help         print this\n"
    "  --version      print the version\n"
    "SIGTERM has it delete the link and end.\n"};

std::string take_option(int option, wish &wanted)
{
    switch (option) {
    case 'r':
        wanted.rtt = true;
        return optarg == nullptr ? "" : kap_link::read_rtt(optarg, wanted);
    case 'm':
        return kap_link::read_mp_id(optarg, wanted);
    case 'j':
        wanted.json = true;
        return "";
    default:
        return "a wrong option";
    }
}

// What is wrong with the call; empty: nothing.
std::string read_call(int argc, char **argv, wish &wanted)
{
    static const option options[] = {{"rtt", optional_argument, nullptr, 'r'},
                                     {"mp-id", required_argument, nullptr, 'm'},
                                     {"json", no_argument, nullptr, 'j'},
                                     {nullptr, 0, nullptr, 0}};
    std::string wrong;
    for (int c; wrong.empty() && (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        wrong = take_option(c, wanted);
    }
    return wrong.empty() ? kap_link::read_words({argv + optind, argv + argc}, wanted) : wrong;
}

int open_signals()
{
    (void)signal(SIGPIPE, SIG_IGN); // the output says so itself
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

// True: a signal has come.
bool wait_for_signal(int signals, int ms)
{
    pollfd wait{signals, POLLIN, 0};
    return poll(&wait, 1, ms) > 0;
}

enum class way {
    IS_FREE,
    WAS_LONG, // somebody had to be waited for
    IS_CLOSED,
    IS_LEFT, // a signal came
};

way connect(int signals)
{
    for (way so_far = way::IS_FREE;; so_far = way::WAS_LONG) {
        const int error = itc_init(1, 0, nullptr, nullptr, 0);
        if (error == 0) {
            return so_far;
        }
        if (error == EACCES) {
            complain("the message registry does not let this user in; see itcd(8)");
            return way::IS_CLOSED;
        }
        if (so_far == way::IS_FREE) {
            complain("waits for the message registry: %s", strerror(error));
        }
        if (wait_for_signal(signals, BETWEEN_TRIES_MS)) {
            return way::IS_LEFT;
        }
    }
}

// The name of a mailbox is free again once the registry knows of its owner's end.
kap_iemli *make_client()
{
    const std::string name = "kap-link-" + std::to_string(getpid());
    if (itc_create_mailbox(name.c_str(), 0) == ITC_NO_MBOX) {
        complain("the message registry refuses the mailbox %s", name.c_str());
        return nullptr;
    }
    kap_iemli *client = kap_iemli_new(static_cast<uint32_t>(getpid()));
    if (client == nullptr) {
        complain("the message registry does not answer: %s", strerror(errno));
    }
    return client;
}

struct stopper {
    int signals;
    keeper *what;
};

void on_signal(void *arg)
{
    const auto *stop = static_cast<const stopper *>(arg);
    signalfd_siginfo info{};
    while (read(stop->signals, &info, sizeof info) == sizeof info) {
        stop->what->stop();
    }
}

ending keep_link(int signals, const wish &wanted, bool patient)
{
    kap_iemli *client = make_client();
    if (client == nullptr) {
        return ending::REGISTRY_LOST;
    }
    keeper one(client, wanted, patient);
    stopper stop{signals, &one};
    const int error = itc_watch_fd(signals, on_signal, &stop);
    if (error != 0) {
        complain("signals cannot be waited for: %s", strerror(error));
    }
    const ending end = error == 0 ? one.keep() : ending::REFUSED;
    itc_unwatch_fd(signals);
    kap_iemli_free(client);
    return end;
}

// Itself anew, with the same words, after a while in which a signal ends it instead. The program of that name may be a
// newer one by now; if there is none, it is this one.
int start_anew(int signals, char **argv)
{
    if (wait_for_signal(signals, BETWEEN_TRIES_MS)) {
        return program_end(PROGRAM, 0);
    }
    (void)setenv("KAP_LINK_AGAIN", "1", 1);
    execvp(argv[0], argv);
    execv("/proc/self/exe", argv);
    complain("cannot start anew: %s", strerror(errno));
    return STATUS_FAILED;
}

int run(char **argv, const wish &wanted)
{
    const int signals = open_signals();
    const bool again = getenv("KAP_LINK_AGAIN") != nullptr;
    const way there = connect(signals);
    if (there == way::IS_CLOSED || there == way::IS_LEFT) {
        return there == way::IS_LEFT ? program_end(PROGRAM, 0) : STATUS_FAILED;
    }
    const ending end = keep_link(signals, wanted, again || there == way::WAS_LONG);
    itc_exit();
    switch (end) {
    case ending::STOPPED:
        return program_end(PROGRAM, 0);
    case ending::REGISTRY_LOST:
        return start_anew(signals, argv);
    default:
        return program_end(PROGRAM, STATUS_FAILED);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    wish wanted;
    const std::string wrong = read_call(argc, argv, wanted);
    return wrong.empty() ? run(argv, wanted) : program_refuse(PROGRAM, wrong.c_str());
}
