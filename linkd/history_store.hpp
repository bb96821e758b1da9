// The history's database: layout, what is written in one go, what is read, and what is forgotten. It knows no thread
// and no clock; history.cpp has both.
//
//   links    one row a link: who it was last, how it stood, and what was counted in all its life
//   changes  what links.changed was told, by number
//   spans    how long a link was in a state, on the history's own time, each with the link's sums up to its end: two
//            rows give the sums of any time between them, however much happened there
//   raw      samples of round trips as they came; minutes and quarters the same, thinned out
//
// Of synchronous: a transaction that holds changes is synced before it is over (FULL), so that a loss of power costs
// what came after it; one that holds only samples is not (NORMAL), so that measuring does not sync the disk once a
// second. Neither loses anything when the process is killed: what is written is the kernel's then.
#pragma once

#include "change.hpp"

#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace linkd
{

struct history_counters {
    uint64_t changes = 0;
    uint64_t flaps = 0; // enabled, and then not
    int64_t enabled_us = 0;
    int64_t watched_us = 0; // in any state but gone
    int64_t state_us[LINK_STATES] = {};
    uint64_t results = 0; // pings of which it is known what became of them
    uint64_t lost = 0;
    uint64_t samples = 0;
};

struct link_row {
    int64_t key = 0;
    link_identity link;
    link_state state = link_state::gone;
    bool open = false;    // `state` has lasted since `until_us`, and it is not written yet how long
    int64_t until_us = 0; // up to here its time is counted
    history_counters counters;
};

struct change_row {
    link_change change;
    int64_t key = 0; // of the link
    int64_t tick_us = 0;
};

struct span_row {
    int64_t key = 0;
    int64_t since_us = 0, until_us = 0;
    link_state state = link_state::waiting;
    int64_t enabled_us = 0, watched_us = 0; // the link's sums at `until_us`
};

struct sample_row {
    int64_t key = 0;
    int64_t tick_us = 0;
    uint64_t shortest_ns = 0, average_ns = 0, longest_ns = 0;
    uint32_t valid = 0;
};

// What is written in one transaction.
struct history_batch {
    std::vector<change_row> changes;
    std::vector<span_row> spans;
    std::vector<sample_row> samples;
    std::map<int64_t, link_row> links; // by key
    bool empty() const { return changes.empty() && spans.empty() && samples.empty() && links.empty(); }
};

class store_failure : public std::runtime_error
{
public:
    store_failure(int code_, const std::string &what) : std::runtime_error(what), code(code_) {}
    // The file itself is wrong: no waiting mends it.
    bool broken() const;

    int code;
};

// Each function throws store_failure.
class history_store
{
public:
    // To write, and makes what is missing; or only to read.
    history_store(const std::string &path, bool write);
    ~history_store();
    history_store(const history_store &) = delete;
    history_store &operator=(const history_store &) = delete;

    void write(const history_batch &batch);
    // Whether all pages of the file belong together; takes long where it is large.
    void check();

    std::vector<link_row> links();
    uint64_t newest_change();
    std::vector<link_change> since(uint64_t since, int64_t key, size_t limit); // key 0: all links
    // The newest of those between two ids, ascending.
    std::vector<link_change> latest(uint64_t since, uint64_t before, int64_t key, size_t limit);
    // The least id of the changes from that moment of the clock on.
    std::optional<uint64_t> first_from(int64_t at_us);
    struct part {
        std::vector<link_change> changes; // the newest `limit` of that time, ascending
        uint64_t flaps = 0;               // of that time
        uint64_t newest = 0;              // of all changes that are written
    };
    part between(int64_t key, int64_t from_us, int64_t to_us, size_t limit);
    std::map<int64_t, uint64_t> flaps_since(int64_t from_us);
    // The first span of the link that ends after `tick_us`.
    std::optional<span_row> span_after(int64_t key, int64_t tick_us);
    // Ascending; `fine`: as they came where that is still there.
    std::vector<sample_row> samples(int64_t key, int64_t from_us, int64_t to_us, bool fine);

    // Makes minutes of samples, and forgets samples of which that is done. Every minute or so.
    void thin_out(int64_t now_us);
    // Makes quarters of an hour of old minutes. Every quarter of an hour or so: it looks at all minutes.
    void thin_out_more(int64_t now_us);
    // Forgets what is older than that, and links that are gone for so long.
    void forget_before(int64_t tick_us);
    // Forgets the oldest until not more than so much is used. Says how many rows.
    uint64_t forget_above(uint64_t bytes);
    uint64_t used_bytes();

private:
    class statement;
    class transaction;
    statement &prepared(const char *text);
    void execute(const char *text);
    void make_tables();
    void write_changes(const history_batch &batch);
    void write_samples(const history_batch &batch);
    void write_links(const history_batch &batch);
    int64_t number(const char *text);
    uint64_t forget_oldest();

    sqlite3 *database_ = nullptr;
    std::map<const char *, std::unique_ptr<statement>> statements_;
    bool full_sync_ = true;
};

} // namespace linkd
