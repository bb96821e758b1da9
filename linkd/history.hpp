// What became of the links: every change, round trips, sums of a whole life, how much of an hour, a day and 30 days a
// link was well. Files of the directory: history.db (SQLite) and history.marks.
//
// A thread of its own writes, at the latest a second after something was told; whoever tells or asks never waits for
// it. What is asked for is what is written and what is not written yet. While it cannot be written (no room, no
// directory) it is kept in memory, so and so much of it, written when that is possible again, and said once each. A
// file that is not a whole database is set aside under another name, and a new one is begun with the sums that are in
// memory.
//
// Time. How long a link was in a state is what the keeper says, which goes by CLOCK_BOOTTIME. Where these times lie is
// told by the history's own time, the tick: it goes on like CLOCK_BOOTTIME while the machine runs, over a restart of
// the program too, and over a restart of the machine like the clock, but never back. So an availability is not touched
// by a clock that is set, and samples are as old as they really are; only the times that are shown (at_us) are the
// clock's.
//
// Availability is the time enabled by the time in which the link was declared and this program looked: waiting,
// rejected and disabled count as not available, whoever was to blame; the time in which this program did not run counts
// neither way, nor does the time from a killed program's last sign of life to its end.
#pragma once

#include "history_marks.hpp"
#include "history_store.hpp"
#include "past.hpp"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace linkd
{

class link_history : public past, public listener
{
public:
    struct options {
        std::string directory;
        uint32_t days = 30;
        uint32_t max_mib = 256;
        size_t changes_in_memory = 20'000; // while nothing can be written; the oldest go first
        size_t samples_in_memory = 100'000;
        int64_t write_every_ms = 1000;
        int64_t tidy_every_ms = 60'000;
        // What somebody should know; called on any thread.
        std::function<void(const std::string &)> say;
        std::function<clock_reading()> clocks = read_clocks;
        std::string boot = boot_name();
    };

    explicit link_history(options wanted);
    ~link_history() override; // writes what is left
    link_history(const link_history &) = delete;
    link_history &operator=(const link_history &) = delete;

    void number(link_change &change) override;
    std::vector<link_change> since(uint64_t since, const std::string &link, size_t limit) override;
    std::vector<link_change> latest(uint64_t since, uint64_t before, const std::string &link, size_t limit) override;
    uint64_t newest() override;
    uint64_t last_before(int64_t at_us) override;
    bool knows(const std::string &link) override;
    nlohmann::json history(const std::string &link, int64_t from_us, int64_t to_us, size_t limit) override;
    nlohmann::json samples(const std::string &link, int64_t from_us, int64_t to_us, size_t points) override;
    uint64_t flaps_today(const std::string &link) override;

    void changed(const link_change &change) override;
    void measured(const rtt_sample &sample) override;
    // A smaller number is a new beginning, too.
    void counted(const std::string &link, uint32_t count, uint64_t results, uint64_t lost) override;

    // The links that were not gone when they were heard of last, also before this program began.
    std::vector<link_standing> standing() const;
    // Goes on watching a link of which nothing new was told: its time counts from here on.
    void resume(const std::string &link);

    // The sums of all links, each up to its last change; and how many changes are not written yet.
    std::unordered_map<std::string, history_counters> lifetimes() const;
    uint64_t unwritten_changes() const;

    // Waits until what was told is written; not for longer than that.
    bool written(int64_t patience_ms);

private:
    struct record {
        link_row row;
        int64_t day = -1; // of flaps_today
        uint64_t flaps_today = 0;
        uint32_t count = 0; // which one was told last
        uint64_t results = 0, lost = 0;
    };
    struct sums {
        int64_t enabled_us = 0, watched_us = 0;
    };

    int64_t tick(const clock_reading &now) const;
    record &record_of(const link_identity &link);
    void account(record &of, link_state state, int64_t since_us, int64_t until_us, history_batch &into);
    void bound_pending();
    sums sums_now(const record &of, int64_t now_us) const;
    nlohmann::json availability(const record &of, const std::vector<span_row> &unwritten, int64_t now_us);
    std::vector<change_row> unwritten(int64_t key) const;
    // Of that link, or of all (""), what is not written yet. Gives its key, 0 for all; nothing: there is no such link.
    std::optional<int64_t> take_unwritten(const std::string &link, std::vector<change_row> &rows) const;

    // The writer's.
    void write_loop();
    bool open_store();
    void adopt(history_store &store);
    bool write_batch();
    void tidy();
    void failed(const store_failure &failure);
    void set_aside(const std::string &why);
    void mark(bool sync, bool over);

    // The reader's: nothing, when there is nothing to read from.
    template <typename ASK> auto ask(ASK &&question) -> decltype(question(std::declval<history_store &>()));

    const options options_;
    const std::string path_;
    history_marks marks_;

    mutable std::mutex mutex_; // all that follows, up to the reader
    std::condition_variable wake_, done_;
    int64_t tick_base_us_ = 0, boot_base_us_ = 0;
    uint64_t last_ = 0, reserved_ = 0;
    int64_t seen_us_ = 0; // what became of the links up to here is written
    std::unordered_map<std::string, record> records_;
    int64_t next_key_ = 1;
    history_batch open_;    // being filled
    history_batch writing_; // being written: whoever reads finds each in one of three
    bool busy_ = false;
    bool stopping_ = false;
    uint64_t dropped_ = 0;

    // The reader; of the caller's thread, whichever it is.
    std::mutex reading_;
    std::unique_ptr<history_store> reader_;
    uint64_t reader_file_ = 0;
    std::atomic<uint64_t> file_{0}; // counts the files that were begun or opened; 0: none yet
    std::atomic<bool> reader_found_broken_{false};

    // The writer's alone.
    std::unique_ptr<history_store> store_;
    bool adopted_ = false;
    bool said_ = false;
    int64_t tidied_ms_ = 0;
    int64_t tidied_more_ms_ = 0;
    std::thread writer_;
};

} // namespace linkd
