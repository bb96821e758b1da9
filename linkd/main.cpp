// kap-linkd: keeps the links that are declared. Here: options, signals, what begins and ends the program, and what a
// service manager is told.
#include "control.hpp"
#include "history.hpp"
#include "hub.hpp"
#include "itc.h"
#include "itc_internal.h"
#include "journal.hpp"
#include "keeper.hpp"
#include "link_book.hpp"
#include "loop.hpp"
#include "metrics.hpp"
#include "notify.hpp"
#include "page.hpp"
#include "program_call.hpp"
#include "service_manager.hpp"
#include "session.hpp"
#include "settings.hpp"
#include "web.hpp"

#include <getopt.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

namespace
{

using namespace linkd;

constexpr program_call PROGRAM = {
    "kap-linkd",
    "usage: kap-linkd [OPTION]...\n"
    "       kap-linkd --check [FILE]...\n"
    "       kap-linkd --help | --version\n"
    "Keeps the links that are declared, and those that are asked for at run time.\n"
    "  --check            say everything that is wrong with the declarations, and touch nothing: with the FILEs, or "
    "else\n"
    "                     with all that is declared and with the settings; 0 when nothing is wrong, 1 otherwise\n"
    "  --links FILE       where links are declared, and beside it FILE's *.d/*.toml (/etc/kap-vorn/links.toml)\n"
    "  --settings FILE    the settings (/etc/kap-vorn/linkd.toml)\n"
    "  --state DIR        where it keeps what has to stay (/var/lib/kap-linkd)\n"
    "  --control PATH     its socket (/run/kap-linkd/control.sock)\n"
    "  --read-group NAME  who may look (kap-read)\n"
    "  --write-group NAME who may also change something (kap-admin)\n"
    "  --help             print this\n"
    "  --version          print the version\n"
    "SIGHUP has it read the declarations again; SIGTERM ends it, and its links with it.\n"};

constexpr int STATUS_FAILED = 1;
// Given by the loop: the registry is lost, and a process has but one connection with it in its life.
constexpr int STATUS_ANEW = -1;
// How the program tells itself that connections with the registry do not last.
constexpr const char *SHORT_LIVED = "KAP_LINKD_SHORT_LIVED";
constexpr int MANAGER_PATIENCE_MS = 1000;
// So many requests wait in the daemon's queue at the most.
constexpr size_t WINDOW = 8;
constexpr int64_t BETWEEN_FIGURES_MS = 5000;

struct call {
    paths where;
    control_groups groups;
    bool check = false;
};

void say(const std::string &line) { (void)fprintf(stderr, "kap-linkd: %s\n", line.c_str()); }

void say_all(const std::vector<std::string> &lines)
{
    for (const std::string &line : lines) {
        say(line);
    }
}

int check(const call &wanted, const std::vector<std::string> &files)
{
    std::vector<std::string> mistakes;
    if (files.empty()) {
        (void)read_settings(wanted.where.settings, mistakes);
        (void)read_link_files(wanted.where.links, mistakes);
    } else {
        (void)read_link_files(files, mistakes);
    }
    for (const std::string &line : mistakes) {
        (void)fprintf(stderr, "%s\n", line.c_str());
    }
    return mistakes.empty() ? 0 : STATUS_FAILED;
}

void tell_manager(const std::string &state)
{
    const int error = manager_tell(state.c_str(), MANAGER_PATIENCE_MS);
    if (error != 0) {
        say(std::string("the service manager was not told: ") + strerror(error));
    }
}

// What is wrong with the settings does not keep links from being kept: what is right counts.
settings settings_of(const std::string &file)
{
    std::vector<std::string> mistakes;
    const settings found = read_settings(file, mistakes);
    say_all(mistakes);
    return found;
}

link_history::options history_of(const settings &from, const paths &where)
{
    link_history::options wanted;
    wanted.directory = where.state;
    wanted.days = from.history_days;
    wanted.max_mib = from.history_max_mib;
    wanted.say = say;
    return wanted;
}

notify_settings notices_of(const settings &from)
{
    notify_settings wanted;
    wanted.directory = from.notify_directory;
    wanted.seconds = from.notify_seconds;
    wanted.flap_changes = from.notify_flap_changes;
    wanted.flap_seconds = from.notify_flap_seconds;
    wanted.hold_down_s = from.notify_hold_down_s;
    wanted.say = say;
    return wanted;
}

// Everything that runs, in the order of its making.
class program
{
public:
    // `short_lived`: see session.hpp; written when the program has to begin anew.
    program(const call &wanted, uint32_t &short_lived)
        : settings_(settings_of(wanted.where.settings)), book_(wanted.where),
          past_(history_of(settings_, wanted.where)), notices_(turns_, notices_of(settings_)), hub_(past_),
          session_(turns_, short_lived,
                   [this, &short_lived](uint32_t connections) {
                       short_lived = connections;
                       turns_.stop(STATUS_ANEW);
                   }),
          keeper_(session_, hub_, WINDOW),
          control_(turns_, keeper_, book_, past_,
                   {[this] { return session_.has_registry(); }, [this] { return apply(); }})
    {
        session_.set_keeper(keeper_);
        hub_.add(past_);
        hub_.add(control_);
        hub_.add(journal_);
        hub_.add(notices_);
        hub_.add(metrics_);
        control_.listen(wanted.where.control, wanted.groups);
        hub_.add(news_);
        add_page(web_, {.control = wanted.where.control});
        add_metrics(web_.routes(), metrics_);
    }
    ~program()
    {
        if (signals_ >= 0) {
            turns_.forget(signals_);
            close(signals_);
        }
    }
    program(const program &) = delete;
    program &operator=(const program &) = delete;

    int run()
    {
        open_signals();
        const auto wrong = book_.load();
        say_all(wrong);
        said_.insert(wrong.begin(), wrong.end());
        keeper_.remember(past_.standing());
        apply();
        for (const auto &[name, link] : keeper_.declared()) {
            past_.resume(name);
        }
        hand_over();
        serve();
        session_.connect();
        tell_manager("READY=1");
        beat();
        return turns_.run();
    }

private:
    keeper::difference apply()
    {
        const keeper::difference made = keeper_.declare(book_.all(), now());
        session_.settle();
        // What a reload brought about is said once.
        const auto wrong = book_.mistakes();
        for (const std::string &line : wrong) {
            if (!said_.contains(line)) {
                say(line);
            }
        }
        said_ = {wrong.begin(), wrong.end()};
        return made;
    }

    // Links are kept whether somebody can look at them or not.
    void serve()
    {
        if (settings_.http_address.empty()) {
            return;
        }
        try {
            web_.listen(settings_.http_address, settings_.http_port, settings_.http_group);
        } catch (const std::runtime_error &problem) {
            say(problem.what());
        }
    }

    void open_signals()
    {
        sigset_t set;
        sigemptyset(&set);
        for (const int one : {SIGTERM, SIGINT, SIGHUP}) {
            sigaddset(&set, one);
        }
        sigprocmask(SIG_BLOCK, &set, nullptr);
        signals_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
        turns_.watch(signals_, EPOLLIN, [this](uint32_t) { on_signal(); });
    }

    void on_signal()
    {
        signalfd_siginfo info{};
        while (::read(signals_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            if (info.ssi_signo == SIGHUP) {
                reload();
            } else {
                tell_manager("STOPPING=1");
                session_.before_the_end([this] { turns_.stop(0); });
            }
        }
    }

    void reload()
    {
        tell_manager("RELOADING=1");
        const auto mistakes = book_.reload();
        if (mistakes.empty()) {
            const keeper::difference made = apply();
            say("read anew: " + std::to_string(made.added) + " links more, " + std::to_string(made.changed) +
                " changed, " + std::to_string(made.removed) + " less");
        } else {
            say_all(mistakes);
            say("nothing was changed");
        }
        tell_manager("READY=1");
    }

    // What other threads see.
    void hand_over()
    {
        metrics_input input;
        input.links = keeper_.views(now());
        input.lifetimes = past_.lifetimes();
        input.node = keeper_.node();
        input.registry = session_.has_registry();
        input.services = session_.services();
        input.notices = notices_.look();
        if (input.registry) {
            itc_statistics counted{};
            itc_get_statistics(&counted);
            input.messages = {counted.sent,
                              counted.received,
                              counted.dropped_full,
                              counted.dropped_no_mailbox,
                              counted.dropped_refused,
                              counted.dropped_too_large};
            itc_internal_waiting waiting{};
            itc_internal_get_waiting(&waiting);
            input.waiting = {waiting.messages_in, waiting.messages_out, waiting.bytes_in, waiting.bytes_out};
        }
        input.newest_change = past_.newest();
        input.unwritten = past_.unwritten_changes();
        input.now_us = real_us();
        input.started_us = started_us_;
        metrics_.hand_over(std::move(input));
        turns_.after(BETWEEN_FIGURES_MS, [this] { hand_over(); });
    }

    void beat()
    {
        const auto at = pulse_.next_ms();
        if (at) {
            pulse_.beat(static_cast<uint64_t>(boot_ms()));
            turns_.after(manager_watchdog_ms(), [this] { beat(); });
        }
    }

    const settings settings_;
    const int64_t started_us_ = real_us();
    loop turns_;
    link_book book_;
    std::set<std::string> said_; // of what is wrong with the declarations
    link_history past_;
    journal journal_;
    notifier notices_;
    metrics metrics_;
    hub hub_;
    session session_;
    keeper keeper_;
    control control_;
    web web_; // its threads see the metrics
    page_news news_{web_};
    manager_pulse pulse_;
    int signals_ = -1;
};

int run(const call &wanted, uint32_t &short_lived)
{
    (void)signal(SIGPIPE, SIG_IGN);
    try {
        program everything(wanted, short_lived);
        return everything.run();
    } catch (const std::exception &problem) {
        say(problem.what());
        return STATUS_FAILED;
    }
}

bool take_option(int option, call &wanted)
{
    switch (option) {
    case 'c':
        wanted.check = true;
        return true;
    case 'l':
        wanted.where.links = optarg;
        return true;
    case 's':
        wanted.where.settings = optarg;
        return true;
    case 'd':
        wanted.where.state = optarg;
        return true;
    case 'p':
        wanted.where.control = optarg;
        return true;
    case 'r':
        wanted.groups.readers = optarg;
        return true;
    case 'w':
        wanted.groups.writers = optarg;
        return true;
    default:
        return false;
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    static const option options[] = {{"check", no_argument, nullptr, 'c'},
                                     {"links", required_argument, nullptr, 'l'},
                                     {"settings", required_argument, nullptr, 's'},
                                     {"state", required_argument, nullptr, 'd'},
                                     {"control", required_argument, nullptr, 'p'},
                                     {"read-group", required_argument, nullptr, 'r'},
                                     {"write-group", required_argument, nullptr, 'w'},
                                     {nullptr, 0, nullptr, 0}};
    call wanted;
    for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        if (!take_option(c, wanted)) {
            return program_refuse(PROGRAM, "a wrong option");
        }
    }
    if (wanted.check) {
        return check(wanted, {argv + optind, argv + argc});
    }
    if (optind != argc) {
        return program_refuse(PROGRAM, "unknown words");
    }
    const char *before = getenv(SHORT_LIVED);
    uint32_t short_lived = before == nullptr ? 0 : static_cast<uint32_t>(strtoul(before, nullptr, 10));
    const int status = run(wanted, short_lived);
    if (status != STATUS_ANEW) {
        return status;
    }
    // The same program with the same words; it waits for the registry.
    say("the message registry is lost; starting anew");
    (void)setenv(SHORT_LIVED, std::to_string(short_lived).c_str(), 1); // no other thread is left
    execv("/proc/self/exe", argv);
    say(std::string("cannot start anew: ") + strerror(errno));
    return STATUS_FAILED;
}
