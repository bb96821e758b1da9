// vornctl watch: the links live, as a table on a terminal or as lines of JSON. Here: the terminal, the signals and the
// turns; what is drawn is watch_view's, what comes is feed's.
#include <algorithm>
#include <csignal>
#include <cstdio>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "feed.hpp"
#include "output.hpp"
#include "past.hpp"
#include "terminal.hpp"
#include "times.hpp"
#include "watch_view.hpp"

namespace vornctl
{

namespace
{

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds BETWEEN_DRAWS{1000};
constexpr milliseconds BETWEEN_QUESTIONS{2000};
constexpr milliseconds BETWEEN_SAMPLES{10000};
constexpr milliseconds BETWEEN_TRIES{300};
constexpr int64_t PAST_US = 600 * SECOND_US;
constexpr int PAST_POINTS = 60;

selection chosen;
std::string since_word;
std::string link_name;

// ---- Lines of JSON --------------------------------------------------------------------------------------------------

// A moment becomes the id before the first change from then on.
std::optional<uint64_t> first_id(const call &c)
{
    if (since_word.empty()) {
        return std::nullopt;
    }
    const since from = read_since(since_word);
    if (from.id) {
        return from.id;
    }
    return id_before(*open_linkd(c), *from.at_us);
}

// Whoever reads the lines has gone, as "head" does when it has enough.
bool nobody_reads()
{
    pollfd out{STDOUT_FILENO, 0, 0};
    return poll(&out, 1, 0) == 1 && (out.revents & POLLERR) != 0;
}

// Until there is something to take, or nobody who reads it.
void wait_for_either(int descriptor)
{
    pollfd waits[2] = {{descriptor, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    (void)poll(waits, 2, -1);
}

exits watch_as_json(const call &c)
{
    (void)signal(SIGPIPE, SIG_IGN);
    feed changes(c.linkd_socket, first_id(c), link_name, [](const nlohmann::json &change) {
        if (chosen.takes(text_in(change, "port"), text_in(change, "to"), text_in(change, "reason"))) {
            print_json_line(change);
        }
    });
    changes.open();
    while (!nobody_reads() && ferror(stdout) == 0) {
        if (changes.take(milliseconds(0))) {
            wait_for_either(changes.descriptor());
            continue;
        }
        (void)fprintf(stderr, "vornctl: %s; trying again\n", changes.trouble().c_str());
        while (!changes.reopen() && !nobody_reads()) {
            poll(nullptr, 0, static_cast<int>(BETWEEN_TRIES.count()));
        }
        if (changes.is_open()) {
            (void)fprintf(stderr, "vornctl: kap-linkd is there again\n");
        }
    }
    if (nobody_reads()) {
        return freopen("/dev/null", "w", stdout) != nullptr ? exits::well : exits::failed; // what is left goes nowhere
    }
    return exits::failed; // the end of the program says that the output could not be written
}

// ---- The table ------------------------------------------------------------------------------------------------------

// One key at a time out of what the terminal sent: a sequence of an arrow key is one.
std::vector<std::string> keys_of(const std::string &bytes)
{
    std::vector<std::string> keys;
    for (size_t i = 0; i < bytes.size();) {
        size_t end = i + 1;
        if (bytes[i] == '\x1b' && end < bytes.size() && (bytes[end] == '[' || bytes[end] == 'O')) {
            end = bytes.find_first_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz~", i + 2);
            end = end == std::string::npos ? bytes.size() : end + 1;
        }
        std::string key = bytes.substr(i, end - i);
        if (key.size() > 2 && key[1] == 'O') { // the other way in which terminals send arrows
            key[1] = '[';
        }
        keys.push_back(key);
        i = end;
    }
    return keys;
}

int open_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGWINCH}) {
        sigaddset(&set, signo);
    }
    sigprocmask(SIG_BLOCK, &set, nullptr);
    return signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

class table
{
public:
    explicit table(const call &c)
        : feed_(c.linkd_socket, std::nullopt, "", [this](const nlohmann::json &change) {
              view_.take_change(change);
              stale_ = true;
          })
    {
        view_.chosen = chosen;
        view_.painted = terminal_wants_colour();
        feed_.open();
        view_.set_connected(true, "");
    }

    // Until a key or a signal ends it. Gives the signal, or 0.
    int run(int signals)
    {
        while (!quit_ && ended_by_ == 0) {
            keep_connected();
            ask();
            draw();
            wait(signals);
        }
        return ended_by_;
    }

private:
    void keep_connected()
    {
        if (feed_.is_open() || steady::now() < next_try_) {
            return;
        }
        next_try_ = steady::now() + BETWEEN_TRIES;
        const bool there = feed_.reopen();
        view_.set_connected(there, feed_.trouble());
        next_question_ = steady::now();
        stale_ = true;
    }

    // An answer that never comes is not asked for again on the same connection.
    void ask()
    {
        const auto now = steady::now();
        if (!feed_.is_open() || now < next_question_) {
            return;
        }
        next_question_ = now + BETWEEN_QUESTIONS;
        if (feed_.awaited() > 0) {
            if (now > asked_ + LINKD_BOUND) {
                view_.set_connected(false, "it does not answer");
                stale_ = true;
            }
            return;
        }
        asked_ = now;
        try {
            feed_.ask("links", nlohmann::json::object(), [this](const nlohmann::json &answer) {
                view_.take_links(answer.value("links", nlohmann::json::array()));
                view_.set_connected(true, "");
                stale_ = true;
            });
            const bool all_again = now >= next_samples_;
            if (all_again) {
                next_samples_ = now + BETWEEN_SAMPLES;
                sampled_.clear();
            }
            for (const std::string &name : view_.visible()) {
                if (std::find(sampled_.begin(), sampled_.end(), name) == sampled_.end()) {
                    ask_samples(name);
                }
            }
        } catch (const linkd_client::failure &) {
            (void)feed_.take(milliseconds(0)); // finds out for itself
        }
    }

    void ask_samples(const std::string &name)
    {
        sampled_.push_back(name);
        const int64_t now = now_us();
        feed_.ask("samples", {{"name", name}, {"from_us", now - PAST_US}, {"to_us", now}, {"points", PAST_POINTS}},
                  [this, name](const nlohmann::json &answer) {
                      view_.take_samples(name, answer.value("samples", nlohmann::json::array()));
                      stale_ = true;
                  });
    }

    void draw()
    {
        const auto now = steady::now();
        if (!stale_ && now < next_draw_) {
            return;
        }
        stale_ = false;
        next_draw_ = now + BETWEEN_DRAWS;
        const terminal_size size = terminal_get_size();
        terminal_draw(view_.draw({static_cast<size_t>(size.columns), static_cast<size_t>(size.rows)}, now_us()));
        if (sampled_.empty() && !view_.visible().empty()) { // the first screen with links
            next_question_ = now;
        }
    }

    void wait(int signals)
    {
        const auto next = feed_.is_open() ? next_draw_ : std::min(next_draw_, next_try_);
        const auto left = std::chrono::duration_cast<milliseconds>(next - steady::now()).count() + 1;
        pollfd waits[3] = {{STDIN_FILENO, POLLIN, 0}, {signals, POLLIN, 0}, {feed_.descriptor(), POLLIN, 0}};
        (void)poll(waits, 3, static_cast<int>(std::clamp<int64_t>(stale_ ? 0 : left, 0, BETWEEN_DRAWS.count())));
        if ((waits[0].revents) != 0) {
            take_keys();
        }
        if (waits[1].revents != 0) {
            take_signals(signals);
        }
        if (feed_.is_open() && waits[2].revents != 0 && !feed_.take(milliseconds(0))) {
            view_.set_connected(false, feed_.trouble());
            next_try_ = steady::now() + BETWEEN_TRIES;
            stale_ = true;
        }
    }

    void take_keys()
    {
        char bytes[256];
        const ssize_t got = read(STDIN_FILENO, bytes, sizeof bytes);
        if (got <= 0) {
            ended_by_ = SIGHUP; // the terminal is gone
            return;
        }
        for (const std::string &key : keys_of({bytes, static_cast<size_t>(got)})) {
            stale_ = view_.press(key, quit_) || stale_;
        }
        next_question_ = std::min(next_question_, steady::now() + milliseconds(100)); // other links may be in sight
    }

    void take_signals(int signals)
    {
        signalfd_siginfo info{};
        while (read(signals, &info, sizeof info) == sizeof info) {
            if (info.ssi_signo == SIGWINCH) {
                stale_ = true;
            } else {
                ended_by_ = static_cast<int>(info.ssi_signo);
            }
        }
    }

    watch_view view_;
    feed feed_;
    std::vector<std::string> sampled_;
    steady::time_point next_draw_, next_question_, next_samples_, next_try_, asked_;
    bool stale_ = true;
    bool quit_ = false;
    int ended_by_ = 0;
};

// Ctrl-C is how people end such a thing; other signals end it as they end others.
exits end_as(int signo)
{
    if (signo != 0 && signo != SIGINT) {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signo);
        (void)signal(signo, SIG_DFL);
        sigprocmask(SIG_UNBLOCK, &set, nullptr);
        (void)raise(signo);
    }
    return exits::well;
}

exits watch_on_terminal(const call &c)
{
    if (!terminal_there()) {
        throw failure(exits::wrong_use, "this is no terminal for a table: --json prints lines");
    }
    table links(c); // before the terminal is touched: kap-linkd may not be there
    const int signals = open_signals();
    if (signals < 0 || !terminal_remember()) {
        throw failure(exits::failed, "the terminal's settings cannot be kept");
    }
    terminal_watch();
    terminal_take();
    int signo = 0;
    try {
        signo = links.run(signals);
    } catch (...) {
        terminal_restore();
        throw;
    }
    terminal_restore();
    return end_as(signo);
}

} // namespace

void add_watch(CLI::App &app, call &c)
{
    CLI::App *watch = app.add_subcommand("watch", "the links live: a table, or a line of JSON for each change");
    watch->add_flag("--json", c.json, "a line of JSON for each change as it comes, until it is ended");
    add_selection(*watch, chosen);
    CLI::Option *from =
        watch->add_option("--since", since_word, "with --json: begin after this id, or at this moment: 15m, today, ...")
            ->type_name("ID|WHEN");
    CLI::Option *link = watch->add_option("--link", link_name, "with --json: only of this link")->type_name("NAME");
    watch->callback([&c, from, link] {
        if (!c.json && (from->count() > 0 || link->count() > 0)) {
            throw failure(exits::wrong_use, "--since and --link go with --json");
        }
        if (!since_word.empty()) {
            (void)read_since(since_word);
        }
        c.run = [&c] { return c.json ? watch_as_json(c) : watch_on_terminal(c); };
    });
}

} // namespace vornctl
