/*
 * itcd, the ITC registry: options, the directory under /run, the lock that keeps a second registry out, readiness.
 *
 *   --policy DIR                read the policy from DIR, and do not start without one
 *   --check [DIR]               say everything that is wrong with the policy, and end
 *   --allow-user USER           USER may connect too (the socket is then open to all, and the registry decides)
 *   --reserve PREFIX=USER       mailbox and service names that begin with PREFIX are USER's alone (and root's)
 *
 * Without options and without a policy in /etc/kap-itc/policy.d root, the registry's own user and its own group may
 * connect and claim any free name.
 */
#include "complain.hpp"
#include "itc_wire.hpp"
#include "policy_file.hpp"
#include "program_call.hpp"
#include "server.hpp"
#include "service_manager.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <getopt.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

namespace
{

constexpr program_call PROGRAM = {
    "itcd",
    "usage: itcd [--policy DIR] [--allow-user USER]... [--reserve PREFIX=USER]...\n"
    "       itcd --check [DIR]\n"
    "The registry of ITC: gives out mailboxes and names, introduces processes to each other, tells of deaths.\n"
    "It listens on /run/kap-itc/itcd.sock.\n"
    "  --policy DIR           read the policy from DIR, not from /etc/kap-itc/policy.d; there must be one\n"
    "  --check                say everything that is wrong with the policy, and end: 1 if anything is, 0 if not\n"
    "  --allow-user USER      let USER connect, besides root and the registry's own user and group\n"
    "  --reserve PREFIX=USER  names that begin with PREFIX may be claimed by USER and root only\n"
    "  --help                 print this\n"
    "  --version              print the version\n"};

// What is taken back at the end.
int lock_fd = -1;
bool made_directory = false;

struct call {
    policy rules;
    const char *directory = nullptr; // that was asked for
    bool check = false;
};

bool take_option(int option, call &wanted)
{
    switch (option) {
    case 'a':
        return policy_allow_user(wanted.rules, optarg);
    case 'r':
        return policy_reserve(wanted.rules, optarg);
    case 'p':
        wanted.directory = optarg;
        return true;
    case 'c':
        wanted.check = true;
        return true;
    default:
        return false;
    }
}

// Ends with the exit status for a command line that is wrong, or returns.
void read_options(int argc, char **argv, call &wanted)
{
    static const option options[] = {{"allow-user", required_argument, nullptr, 'a'},
                                     {"reserve", required_argument, nullptr, 'r'},
                                     {"policy", required_argument, nullptr, 'p'},
                                     {"check", no_argument, nullptr, 'c'},
                                     {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        const bool good = take_option(c, wanted);
        if (!good && c != '?') {
            (void)fprintf(stderr, "itcd: %s\n", optarg);
        }
        if (!good) {
            exit(program_refuse(PROGRAM, c == '?' ? "a wrong option" : "no such user, or not PREFIX=USER"));
        }
    }
    if (wanted.check && optind < argc) {
        wanted.directory = argv[optind++];
    }
    if (optind < argc) {
        exit(program_refuse(PROGRAM, "takes options only"));
    }
}

// Adds what the policy's files say. False if they say something wrong, or there are none where there must be.
bool read_policy(call &wanted)
{
    const char *directory = wanted.directory != nullptr ? wanted.directory : policy_directory;
    size_t files = 0;
    const std::vector<std::string> wrong = policy_read(wanted.rules, directory, &files);
    for (const std::string &line : wrong) {
        complain("%s", line.c_str());
    }
    if (wrong.empty() && files == 0 && (wanted.check || wanted.directory != nullptr)) {
        complain("%s: no policy there, not one file *.toml", directory);
        return false;
    }
    return wrong.empty();
}

// Holds the lock file that is in the directory, not one that its last owner has just removed. It has to be a file of
// our own under this one name: no link leads us elsewhere, nothing that blocks when it is opened holds us up, and
// nobody else can keep us out by holding the lock of a file of his. Returns an errno value.
int take_lock()
{
    for (;;) {
        lock_fd = open(itc_wire::lock_path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
        if (lock_fd < 0) {
            return errno;
        }
        struct stat mine {
        };
        struct stat there {
        };
        if (fstat(lock_fd, &mine) != 0 || !S_ISREG(mine.st_mode) || mine.st_uid != geteuid() || mine.st_nlink > 1) {
            close(lock_fd);
            return EPERM;
        }
        if (flock(lock_fd, LOCK_EX | LOCK_NB) != 0) {
            const int error = errno;
            close(lock_fd);
            return error;
        }
        if (fstat(lock_fd, &mine) == 0 && stat(itc_wire::lock_path, &there) == 0 && mine.st_ino == there.st_ino) {
            return 0;
        }
        close(lock_fd);
    }
}

// The listening socket, or -1. Whatever lies at its path was left by a registry that is no more: we hold the lock.
int listen_at(const policy &rules)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, itc_wire::socket_path, sizeof itc_wire::socket_path);
    (void)unlink(itc_wire::socket_path);
    const mode_t old = umask(policy_is_open(rules) ? 0111 : 0117);
    const bool bound =
        fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 && listen(fd, SOMAXCONN) == 0;
    umask(old);
    return bound ? fd : -1;
}

int open_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

// A manager that does not read is waited for a second, and then done without.
void notify_ready()
{
    constexpr int limit_ms = 1000;
    const int error = manager_tell("READY=1", limit_ms);
    if (error != 0) {
        complain("the service manager was not told: %s", strerror(error));
    }
}

// What a service manager's watchdog wants between two turns. Returns for how long the next may wait at most.
int beat()
{
    static manager_pulse pulse;
    if (!pulse.next_ms()) {
        return -1;
    }
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    const uint64_t now = static_cast<uint64_t>(time.tv_sec) * 1000 + static_cast<uint64_t>(time.tv_nsec) / 1'000'000;
    pulse.beat(now);
    return static_cast<int>(*pulse.next_ms() - now);
}

void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void clean_up()
{
    (void)unlink(itc_wire::socket_path);
    (void)unlink(itc_wire::lock_path);
    if (made_directory) {
        (void)rmdir(itc_wire::directory);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    complain_open();
    call wanted;
    read_options(argc, argv, wanted);
    const policy &rules = wanted.rules;
    const bool good = read_policy(wanted);
    if (wanted.check || !good) {
        return good ? 0 : 1;
    }
    raise_descriptor_limit();
    const int signals = open_signals();
    made_directory = mkdir(itc_wire::directory, 0755) == 0;
    const int locked = take_lock();
    if (locked != 0) {
        complain("%s: %s", itc_wire::lock_path,
                 locked == EWOULDBLOCK ? "a registry runs already"
                 : locked == EPERM     ? "is not a file of our own"
                                       : strerror(locked));
        return 1;
    }
    const int listener = listen_at(rules);
    if (listener < 0 || signals < 0) {
        complain("%s: %s", itc_wire::socket_path, strerror(errno));
        clean_up();
        return 1;
    }
    complain("ready on %s", itc_wire::socket_path);
    notify_ready();
    const int error = server_run(listener, signals, rules, beat);
    clean_up();
    if (error != 0) {
        complain("%s", strerror(error));
    }
    return error == 0 ? 0 : 1;
}
