// Programs that are told of changes: every executable of a directory gets each change as its environment (KAP_LINK and
// its like) and as one JSON object on its standard input.
//
// Of one link they run one after the other, in the order of its changes and, for each, of their names. Links do not
// wait for each other, but only so many programs run at once, and only so much waits: then the oldest go, and the next
// notice says how many. A program that runs for too long is ended, SIGTERM first, with all of its process group; so is
// what it leaves behind when it ends. No shell is in between, and nothing of a link is part of a command. What a
// program writes is said, line by line, up to a bound; the rest is read and thrown away.
//
// Run is a regular file (no link) whose name is letters, digits, "_" and "-", as run-parts has it, so that what editors
// and package managers leave behind is none; that may be executed; that belongs to root, as its directory does and all
// that lead there; and that nobody else may write, nor those. So only root decides what runs, between the look and the
// start too. Below a directory that everybody may write (sticky) a directory of root's stays root's.
//
// A link that changes often is held down: with a change too many a notice says so ("flapping"), then nothing, and when
// it has been calm for long enough one that sums up ("summary": how it stands, and how many changes were held back, be
// it none). One that does not calm down is summed up once an hour.
//
// All on the loop's thread, which never waits: programs are started and their end is a descriptor.
#pragma once

#include "change.hpp"
#include "loop.hpp"

#include <deque>
#include <functional>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

namespace linkd
{

struct notify_settings {
    std::string directory = "/etc/kap-vorn/notify.d"; // empty: nobody is told
    uint32_t seconds = 10;
    uint32_t flap_changes = 6;  // more than so many ...
    uint32_t flap_seconds = 60; // ... within so long are flapping
    uint32_t hold_down_s = 60;  // and calm is who did not change for so long; 0: nothing is held down
    size_t programs_at_once = 8;
    size_t waiting_of_a_link = 100;
    size_t waiting = 10'000;
    std::function<void(const std::string &)> say;
};

struct notice {
    link_change change;
    std::string event = "change"; // "change", "flapping", "summary"
    uint64_t held = 0;            // how many changes the summary stands for
    uint64_t dropped = 0;         // how many of this link could not wait
};

// The environment of the programs, and what they read.
std::vector<std::string> environment_of(const notice &of);
std::string json_text_of(const notice &of);

class notifier : public listener
{
public:
    notifier(loop &turns, notify_settings wanted);
    ~notifier() override; // ends what runs
    notifier(const notifier &) = delete;
    notifier &operator=(const notifier &) = delete;

    void changed(const link_change &change) override;

    struct figures {
        size_t running = 0, waiting = 0, links = 0; // of which something is remembered
        uint64_t started = 0, failed = 0, ended = 0, dropped = 0, held = 0;
    };
    figures look() const;

private:
    struct holding {
        std::deque<int64_t> recent_ms;
        bool held = false;
        uint64_t changes = 0; // since the last notice
        int64_t since_ms = 0; // the last notice
        link_change last;
        uint64_t timer = 0;
    };
    struct line { // of one link
        std::deque<notice> waiting;
        uint64_t dropped = 0;
        // The notice that is being told now, and the programs that still get it.
        std::vector<std::string> programs;
        notice now;
        pid_t child = 0; // 0: none
        int child_fd = -1;
        uint64_t timer = 0;
        // What the program writes.
        std::string program;
        int output = -1;
        std::string written; // up to the end of a line
        size_t said = 0;     // bytes
        bool ready = false;  // among those that wait for a turn
        bool gone = false;   // the link, as far as was told
        bool busy() const { return child != 0 || !programs.empty(); }
    };

    void queue(notice what);
    bool hold(const link_change &change);
    void calm(const std::string &link);
    void want_turn(const std::string &link, line &of);
    void run_ready();
    void run_next(const std::string &link, line &of);
    bool start(const std::string &link, line &of, const std::string &program);
    void end_slowly(const std::string &link, bool hard);
    void ended(const std::string &link);
    void rest(const std::string &link, const line &of);
    void read_output(line &of);
    void say_output(line &of, const std::string &text);
    void close_output(line &of);
    std::vector<std::string> programs();
    void refuse(const std::string &path, const std::string &why);
    void say(const std::string &what) const;

    loop &turns_;
    const notify_settings settings_;
    std::unordered_map<std::string, line> lines_;
    std::unordered_map<std::string, holding> holdings_;
    std::deque<std::string> ready_;
    size_t waiting_ = 0;
    std::set<std::string> refused_; // said already
    figures figures_;
};

} // namespace linkd
