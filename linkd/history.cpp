// What became of the links (history.hpp).
#include "history.hpp"

#include "quiet_thread.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <sqlite3.h>

namespace linkd
{

namespace
{

constexpr int64_t SECOND = 1'000'000;
constexpr int64_t HOUR = 3600 * SECOND;
constexpr int64_t DAY = 24 * HOUR;
constexpr int64_t MONTH = 30 * DAY;
constexpr int64_t MILLISECOND = 1000;
// How many numbers are reserved at once. A program that was killed may have given all of them; so that many are left
// out.
constexpr uint64_t NUMBERS = 10'000;
constexpr size_t CHANGES_AT_MOST = 100'000; // in one answer
constexpr size_t POINTS_AT_MOST = 20'000;

// Days since 1970, local time.
int64_t day_of(int64_t real_us)
{
    const time_t seconds = static_cast<time_t>(real_us / SECOND);
    tm local = {};
    (void)localtime_r(&seconds, &local);
    return (real_us / SECOND + local.tm_gmtoff) / (DAY / SECOND);
}

int64_t midnight_us(int64_t real_us)
{
    const time_t seconds = static_cast<time_t>(real_us / SECOND);
    tm local = {};
    (void)localtime_r(&seconds, &local);
    local.tm_hour = local.tm_min = local.tm_sec = 0;
    local.tm_isdst = -1;
    return static_cast<int64_t>(mktime(&local)) * SECOND;
}

bool is_flap(const link_change &change)
{
    return change.from == link_state::enabled && change.to != link_state::enabled && change.to != link_state::gone;
}

bool counts(link_state state) { return state != link_state::gone; }

nlohmann::json json_of(const history_counters &all)
{
    const auto time_in = [&](link_state state) { return all.state_us[static_cast<int>(state)]; };
    return {{"changes", all.changes},
            {"flaps", all.flaps},
            {"watched_us", all.watched_us},
            {"enabled_us", all.enabled_us},
            {"disabled_us", time_in(link_state::disabled)},
            {"waiting_us", time_in(link_state::waiting)},
            {"rejected_us", time_in(link_state::rejected)},
            {"results", all.results},
            {"lost", all.lost},
            {"rtt_samples", all.samples}};
}

void append(history_batch &to, history_batch &&from)
{
    to.changes.insert(to.changes.end(), std::make_move_iterator(from.changes.begin()),
                      std::make_move_iterator(from.changes.end()));
    to.spans.insert(to.spans.end(), from.spans.begin(), from.spans.end());
    to.samples.insert(to.samples.end(), from.samples.begin(), from.samples.end());
    for (auto &[key, row] : from.links) {
        to.links[key] = std::move(row);
    }
    from = {};
}

template <typename ROWS> uint64_t keep_newest(ROWS &rows, size_t most)
{
    if (rows.size() <= most) {
        return 0;
    }
    const size_t gone = rows.size() - most;
    rows.erase(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(gone));
    return gone;
}

} // namespace

link_history::link_history(options wanted) : options_(std::move(wanted)), path_(options_.directory + "/history.db")
{
    const clock_reading now = options_.clocks();
    std::string error;
    const bool marked = marks_.open(options_.directory + "/history.marks", &error);
    const history_awake &last = marks_.last();
    boot_base_us_ = now.boot_us;
    if (last.tick_us == 0) {
        tick_base_us_ = now.real_us;
    } else if (!options_.boot.empty() && last.boot == options_.boot && now.boot_us >= last.clocks.boot_us) {
        tick_base_us_ = last.tick_us + now.boot_us - last.clocks.boot_us;
    } else {
        tick_base_us_ = last.tick_us + std::max<int64_t>(now.real_us - last.clocks.real_us, 0);
    }
    // Where nothing is known of the numbers that were given, they go on from the clock: milliseconds, so there are
    // never as many changes.
    last_ = marked ? last.reserved : static_cast<uint64_t>(std::max<int64_t>(now.real_us / MILLISECOND, 0));
    (void)open_store(); // here, so that the first who asks hears of the time before; what fails is tried again
    reserved_ = last_ + NUMBERS;
    mark(true, false);
    writer_ = quiet_thread([this] { write_loop(); });
}

link_history::~link_history()
{
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    writer_.join();
    mark(true, true);
}

int64_t link_history::tick(const clock_reading &now) const { return tick_base_us_ + now.boot_us - boot_base_us_; }

// ---- Told

void link_history::number(link_change &change)
{
    bool reserve = false;
    {
        const std::lock_guard lock(mutex_);
        change.id = ++last_;
        if (last_ >= reserved_) { // the writer had no turn for thousands of changes
            reserved_ = last_ + NUMBERS;
            reserve = true;
        }
    }
    if (reserve) {
        mark(false, false);
    }
}

link_history::record &link_history::record_of(const link_identity &link)
{
    record &of = records_[link.name];
    if (of.row.key == 0) {
        of.row.key = next_key_++;
        of.row.link = link;
    }
    return of;
}

// Adds a time to the link's sums. What is counted already is not counted again, whatever the caller says.
void link_history::account(record &of, link_state state, int64_t since_us, int64_t until_us, history_batch &into)
{
    since_us = std::max(since_us, of.row.until_us);
    if (until_us > since_us) {
        of.row.until_us = until_us;
        if (counts(state)) {
            history_counters &all = of.row.counters;
            all.watched_us += until_us - since_us;
            all.state_us[static_cast<int>(state)] += until_us - since_us;
            all.enabled_us = all.state_us[static_cast<int>(link_state::enabled)];
            into.spans.push_back({of.row.key, since_us, until_us, state, all.enabled_us, all.watched_us});
        }
    }
}

void link_history::changed(const link_change &change)
{
    const clock_reading now = options_.clocks();
    const std::lock_guard lock(mutex_);
    const int64_t now_us = tick(now);
    record &of = record_of(change.link);
    of.row.link = change.link;
    account(of, change.from, now_us - std::max<int64_t>(change.lasted_us, 0), now_us, open_);
    of.row.state = change.to;
    of.row.open = counts(change.to);
    of.row.until_us = std::max(of.row.until_us, now_us);
    of.row.counters.changes++;
    if (is_flap(change)) {
        of.row.counters.flaps++;
        const int64_t today = day_of(change.at_us);
        of.flaps_today = today == of.day ? of.flaps_today + 1 : 1;
        of.day = today;
    }
    open_.changes.push_back({change, of.row.key, now_us});
    open_.links[of.row.key] = of.row;
    bound_pending();
}

void link_history::measured(const rtt_sample &sample)
{
    if (sample.valid == 0) {
        return;
    }
    const clock_reading now = options_.clocks();
    const std::lock_guard lock(mutex_);
    const auto at = records_.find(sample.link);
    if (at == records_.end()) {
        return; // it has become nothing yet; the first change comes before the first answer
    }
    record &of = at->second;
    of.row.counters.samples++;
    open_.samples.push_back(
        {of.row.key, tick(now), sample.shortest_ns, sample.average_ns, sample.longest_ns, sample.valid});
    bound_pending();
}

void link_history::counted(const std::string &link, uint32_t count, uint64_t results, uint64_t lost)
{
    const std::lock_guard lock(mutex_);
    const auto at = records_.find(link);
    if (at == records_.end()) {
        return;
    }
    record &of = at->second;
    const bool anew = count != of.count || results < of.results || lost < of.lost;
    const uint64_t more = results - (anew ? 0 : of.results);
    const uint64_t more_lost = lost - (anew ? 0 : of.lost);
    of.count = count;
    of.results = results;
    of.lost = lost;
    if (more != 0 || more_lost != 0) {
        of.row.counters.results += more;
        of.row.counters.lost += more_lost;
        open_.links[of.row.key] = of.row;
    }
}

std::vector<link_standing> link_history::standing() const
{
    std::vector<link_standing> all;
    const std::lock_guard lock(mutex_);
    for (const auto &[name, of] : records_) {
        if (of.row.state != link_state::gone) {
            all.push_back({of.row.link, of.row.state});
        }
    }
    return all;
}

void link_history::resume(const std::string &link)
{
    const clock_reading now = options_.clocks();
    const std::lock_guard lock(mutex_);
    const auto at = records_.find(link);
    if (at == records_.end() || at->second.row.open || !counts(at->second.row.state)) {
        return;
    }
    link_row &row = at->second.row;
    row.open = true;
    row.until_us = std::max(row.until_us, tick(now));
    open_.links[row.key] = row;
}

// Sums are never dropped: they are in the links' rows, one each.
void link_history::bound_pending()
{
    dropped_ += keep_newest(open_.changes, options_.changes_in_memory);
    (void)keep_newest(open_.spans, options_.changes_in_memory);
    (void)keep_newest(open_.samples, options_.samples_in_memory);
}

// ---- Asked

template <typename ASK> auto link_history::ask(ASK &&question) -> decltype(question(std::declval<history_store &>()))
{
    const std::lock_guard lock(reading_);
    const uint64_t file = file_.load();
    if (file == 0) {
        return {};
    }
    try {
        if (!reader_ || reader_file_ != file) {
            reader_ = std::make_unique<history_store>(path_, false);
            reader_file_ = file;
        }
        return question(*reader_);
    } catch (const store_failure &failure) {
        reader_.reset();
        if (failure.broken()) {
            reader_found_broken_ = true;
        }
        return {};
    }
}

std::vector<change_row> link_history::unwritten(int64_t key) const
{
    std::vector<change_row> rows;
    for (const history_batch *batch : {&writing_, &open_}) {
        std::copy_if(batch->changes.begin(), batch->changes.end(), std::back_inserter(rows),
                     [&](const change_row &row) { return key == 0 || row.key == key; });
    }
    return rows;
}

std::optional<int64_t> link_history::take_unwritten(const std::string &link, std::vector<change_row> &rows) const
{
    const std::lock_guard lock(mutex_);
    int64_t key = 0;
    if (!link.empty()) {
        const auto at = records_.find(link);
        if (at == records_.end()) {
            return std::nullopt;
        }
        key = at->second.row.key;
    }
    rows = unwritten(key);
    return key;
}

std::vector<link_change> link_history::since(uint64_t since, const std::string &link, size_t limit)
{
    limit = std::min(limit, CHANGES_AT_MOST);
    std::vector<change_row> newest;
    const auto key = take_unwritten(link, newest);
    if (!key) {
        return {};
    }
    // First what is not written yet was copied: what is written meanwhile is seen twice, not missed.
    auto found = ask([&](history_store &store) { return store.since(since, *key, limit); });
    const uint64_t last = found.empty() ? since : found.back().id;
    for (change_row &row : newest) {
        if (row.change.id > last && found.size() < limit) {
            found.push_back(std::move(row.change));
        }
    }
    return found;
}

std::vector<link_change> link_history::latest(uint64_t since, uint64_t before, const std::string &link, size_t limit)
{
    limit = std::min(limit, CHANGES_AT_MOST);
    std::vector<change_row> newest;
    const auto key = take_unwritten(link, newest);
    if (!key) {
        return {};
    }
    auto found = ask([&](history_store &store) { return store.latest(since, before, *key, limit); });
    const uint64_t last = found.empty() ? since : found.back().id;
    for (change_row &row : newest) {
        if (row.change.id > last && row.change.id < before) {
            found.push_back(std::move(row.change));
        }
    }
    (void)keep_newest(found, limit);
    return found;
}

uint64_t link_history::newest()
{
    const std::lock_guard lock(mutex_);
    return last_;
}

uint64_t link_history::last_before(int64_t at_us)
{
    std::vector<change_row> newest;
    (void)take_unwritten("", newest);
    uint64_t last = this->newest();
    for (const change_row &row : newest) {
        if (row.change.at_us >= at_us) {
            last = std::min(last, row.change.id - 1);
        }
    }
    const auto written = ask([&](history_store &store) { return store.first_from(at_us); });
    return written ? std::min(last, *written - 1) : last;
}

bool link_history::knows(const std::string &link)
{
    const std::lock_guard lock(mutex_);
    return records_.find(link) != records_.end();
}

uint64_t link_history::flaps_today(const std::string &link)
{
    const int64_t today = day_of(options_.clocks().real_us);
    const std::lock_guard lock(mutex_);
    const auto at = records_.find(link);
    return at != records_.end() && at->second.day == today ? at->second.flaps_today : 0;
}

// With the time that goes on.
link_history::sums link_history::sums_now(const record &of, int64_t now_us) const
{
    const int64_t going_on = of.row.open ? std::max<int64_t>(now_us - of.row.until_us, 0) : 0;
    const bool enabled = of.row.state == link_state::enabled;
    return {of.row.counters.enabled_us + (enabled ? going_on : 0), of.row.counters.watched_us + going_on};
}

nlohmann::json link_history::availability(const record &of, const std::vector<span_row> &unwritten_spans,
                                          int64_t now_us)
{
    const sums now = sums_now(of, now_us);
    nlohmann::json answer = nlohmann::json::object();
    nlohmann::json watched = nlohmann::json::object();
    const std::pair<const char *, int64_t> windows[] = {{"hour", HOUR}, {"day", DAY}, {"month", MONTH}};
    for (const auto &[name, length] : windows) {
        const int64_t begin = now_us - length;
        auto next = ask([&](history_store &store) { return store.span_after(of.row.key, begin); });
        if (!next) {
            const auto at = std::find_if(unwritten_spans.begin(), unwritten_spans.end(),
                                         [&](const span_row &row) { return row.until_us > begin; });
            if (at != unwritten_spans.end()) {
                next = *at;
            }
        }
        // The sums at the window's begin: those at the end of the first span that reaches into it, without what of it
        // does; or, when that time still goes on, those of now without it.
        sums then;
        if (next) {
            const int64_t inside = next->until_us - std::max(next->since_us, begin);
            then = {next->enabled_us - (next->state == link_state::enabled ? inside : 0), next->watched_us - inside};
        } else {
            const int64_t inside = of.row.open ? now_us - std::max(of.row.until_us, begin) : 0;
            then = {now.enabled_us - (of.row.state == link_state::enabled ? inside : 0), now.watched_us - inside};
        }
        const int64_t all = now.watched_us - then.watched_us;
        if (all > 0) {
            answer[name] = static_cast<double>(now.enabled_us - then.enabled_us) / static_cast<double>(all);
        } else {
            answer[name] = nullptr;
        }
        watched[name] = all;
    }
    answer["watched_us"] = watched;
    return answer;
}

nlohmann::json link_history::history(const std::string &link, int64_t from_us, int64_t to_us, size_t limit)
{
    limit = std::min(limit, CHANGES_AT_MOST);
    record of;
    std::vector<change_row> newest;
    std::vector<span_row> spans;
    int64_t now_us = 0;
    {
        const clock_reading now = options_.clocks();
        const std::lock_guard lock(mutex_);
        const auto at = records_.find(link);
        if (at != records_.end()) {
            of = at->second;
            now_us = tick(now);
            newest = unwritten(of.row.key);
            for (const history_batch *batch : {&writing_, &open_}) {
                std::copy_if(batch->spans.begin(), batch->spans.end(), std::back_inserter(spans),
                             [&](const span_row &row) { return row.key == of.row.key; });
            }
        }
    }
    nlohmann::json events = nlohmann::json::array();
    uint64_t flaps = 0;
    if (of.row.key != 0) {
        auto part = ask([&](history_store &store) { return store.between(of.row.key, from_us, to_us, limit); });
        auto &found = part.changes;
        flaps = part.flaps;
        for (change_row &row : newest) {
            if (row.change.id > part.newest && row.change.at_us >= from_us && row.change.at_us <= to_us) {
                flaps += is_flap(row.change) ? 1 : 0;
                found.push_back(std::move(row.change));
            }
        }
        (void)keep_newest(found, limit);
        for (const link_change &change : found) {
            events.push_back(json_of(change));
        }
    }
    const sums now = sums_now(of, now_us);
    history_counters counters = of.row.counters;
    if (of.row.open) {
        counters.state_us[static_cast<int>(of.row.state)] += now.watched_us - counters.watched_us;
    }
    counters.enabled_us = now.enabled_us;
    counters.watched_us = now.watched_us;
    return {{"events", std::move(events)},
            {"availability", availability(of, spans, now_us)},
            {"flaps", flaps},
            {"counters", json_of(counters)}};
}

nlohmann::json link_history::samples(const std::string &link, int64_t from_us, int64_t to_us, size_t points)
{
    constexpr double NANOSECONDS = 1000;
    nlohmann::json answer = nlohmann::json::array();
    points = std::clamp<size_t>(points, 1, POINTS_AT_MOST);
    std::vector<sample_row> newest;
    int64_t key = 0, behind = 0;
    {
        const clock_reading now = options_.clocks();
        const std::lock_guard lock(mutex_);
        // No more than there can be: whoever asks for all gets points of that, and not of half a century.
        from_us = std::max(from_us, now.real_us - options_.days * DAY);
        to_us = std::min(to_us, now.real_us + SECOND);
        const auto at = records_.find(link);
        if (at == records_.end() || to_us <= from_us) {
            return answer;
        }
        key = at->second.row.key;
        behind = tick(now) - now.real_us; // the clock's time of a tick as the clock is set now
        for (const history_batch *batch : {&writing_, &open_}) {
            std::copy_if(batch->samples.begin(), batch->samples.end(), std::back_inserter(newest),
                         [&](const sample_row &row) { return row.key == key; });
        }
    }
    const int64_t step = std::max<int64_t>((to_us - from_us) / static_cast<int64_t>(points), 1);
    auto rows = ask(
        [&](history_store &store) { return store.samples(key, from_us + behind, to_us + behind, step < 60 * SECOND); });
    const int64_t last = rows.empty() ? from_us + behind - 1 : rows.back().tick_us;
    std::copy_if(newest.begin(), newest.end(), std::back_inserter(rows),
                 [&](const sample_row &row) { return row.tick_us > last && row.tick_us <= to_us + behind; });
    struct point {
        uint64_t shortest = UINT64_MAX, longest = 0, valid = 0;
        double sum = 0;
    };
    std::map<int64_t, point> found;
    for (const sample_row &row : rows) {
        point &at = found[std::min((row.tick_us - behind - from_us) / step, static_cast<int64_t>(points) - 1)];
        at.shortest = std::min(at.shortest, row.shortest_ns);
        at.longest = std::max(at.longest, row.longest_ns);
        at.sum += static_cast<double>(row.average_ns) * row.valid;
        at.valid += row.valid;
    }
    for (const auto &[place, at] : found) {
        answer.push_back({{"at_us", from_us + place * step},
                          {"min_us", static_cast<double>(at.shortest) / NANOSECONDS},
                          {"avg_us", at.sum / static_cast<double>(std::max<uint64_t>(at.valid, 1)) / NANOSECONDS},
                          {"max_us", static_cast<double>(at.longest) / NANOSECONDS},
                          {"valid", at.valid}});
    }
    return answer;
}

std::unordered_map<std::string, history_counters> link_history::lifetimes() const
{
    std::unordered_map<std::string, history_counters> all;
    const std::lock_guard lock(mutex_);
    for (const auto &[name, of] : records_) {
        all[name] = of.row.counters;
    }
    return all;
}

uint64_t link_history::unwritten_changes() const
{
    const std::lock_guard lock(mutex_);
    return writing_.changes.size() + open_.changes.size();
}

// ---- Written

bool link_history::written(int64_t patience_ms)
{
    std::unique_lock lock(mutex_);
    return done_.wait_for(lock, std::chrono::milliseconds(patience_ms),
                          [this] { return open_.empty() && writing_.empty() && !busy_; });
}

void link_history::mark(bool sync, bool over)
{
    history_awake awake;
    {
        const clock_reading now = options_.clocks();
        const std::lock_guard lock(mutex_);
        // Half of them are left: more. Over: none is given any more, so none is left out.
        if (over) {
            reserved_ = last_;
        } else if (reserved_ - last_ < NUMBERS / 2) {
            reserved_ = last_ + NUMBERS;
            sync = true;
        }
        if (open_.changes.empty() && writing_.empty()) {
            seen_us_ = tick(now);
        }
        awake = {reserved_, tick(now), seen_us_, now, options_.boot};
    }
    (void)marks_.write(awake, sync);
}

void link_history::write_loop()
{
    const auto pause = std::chrono::milliseconds(options_.write_every_ms);
    for (bool over = false; !over;) {
        {
            std::unique_lock lock(mutex_);
            (void)wake_.wait_for(lock, pause, [this] { return stopping_; });
            over = stopping_;
            busy_ = true;
            append(writing_, std::move(open_));
            dropped_ += keep_newest(writing_.changes, options_.changes_in_memory);
            (void)keep_newest(writing_.spans, options_.changes_in_memory);
            (void)keep_newest(writing_.samples, options_.samples_in_memory);
        }
        if (reader_found_broken_.exchange(false) && store_) {
            set_aside("found so when it was read");
        }
        const bool there = store_ || open_store();
        const bool all = there && write_batch();
        if (all && store_) {
            tidy();
        }
        mark(false, false);
        {
            const std::lock_guard lock(mutex_);
            busy_ = false;
        }
        done_.notify_all();
    }
}

bool link_history::open_store()
{
    std::string unused;
    (void)marks_.open(options_.directory + "/history.marks", &unused);
    for (int attempt = 0; attempt < 2; attempt++) {
        try {
            constexpr uintmax_t CHECKED_BYTES = 32 << 20; // a tenth of a second or so
            auto store = std::make_unique<history_store>(path_, true);
            std::error_code none;
            if (std::filesystem::file_size(path_, none) <= CHECKED_BYTES) {
                store->check();
            }
            adopt(*store);
            store_ = std::move(store);
            file_++;
            return true;
        } catch (const store_failure &failure) {
            if (!failure.broken()) {
                failed(failure);
                return false;
            }
            set_aside(failure.what());
        }
    }
    return false;
}

// Takes over what a file says of the links, or gives a new one what is known.
void link_history::adopt(history_store &store)
{
    const std::vector<link_row> rows = store.links();
    const uint64_t newest_change = store.newest_change();
    const auto flaps = store.flaps_since(midnight_us(options_.clocks().real_us));
    const int64_t today = day_of(options_.clocks().real_us);
    const std::lock_guard lock(mutex_);
    if (adopted_) { // a new file in place of a broken one: all links are written with the next changes
        for (const auto &[name, of] : records_) {
            open_.links[of.row.key] = of.row;
        }
        return;
    }
    // Only a file of which nothing was known until now can change what links are called.
    std::map<int64_t, int64_t> moved;
    auto mine = std::exchange(records_, {});
    for (const link_row &row : rows) {
        record &of = records_[row.link.name];
        of.row = row;
        next_key_ = std::max(next_key_, row.key + 1);
        if (const auto at = flaps.find(row.key); at != flaps.end()) {
            of.day = today;
            of.flaps_today = at->second;
        }
        if (row.open) { // up to the last sign of life it was as it was
            account(of, row.state, row.until_us, std::min(marks_.last().seen_us, tick_base_us_), open_);
            of.row.open = false;
            open_.links[row.key] = of.row;
        }
    }
    if (mine.empty()) {
        // Without its marks the file only says what was written.
        last_ = newest_change > last_ ? newest_change + NUMBERS : last_;
    } else { // it could not be read until now: what has been told meanwhile is added to what it says
        append(open_, std::move(writing_));
        history_batch told = std::exchange(open_, {});
        std::map<int64_t, sums> base;
        for (auto &[name, added] : mine) {
            record &of = records_[name];
            const int64_t key = of.row.key != 0 ? of.row.key : next_key_++;
            const history_counters before = of.row.counters;
            moved[added.row.key] = key;
            base[key] = {before.enabled_us, before.watched_us};
            const uint64_t flaps_before = of.day == added.day || added.day < 0 ? of.flaps_today : 0;
            added.flaps_today += flaps_before;
            added.day = std::max(added.day, of.day);
            added.row.key = key;
            history_counters &all = added.row.counters;
            all.changes += before.changes;
            all.flaps += before.flaps;
            all.enabled_us += before.enabled_us;
            all.watched_us += before.watched_us;
            for (int i = 0; i < LINK_STATES; i++) {
                all.state_us[i] += before.state_us[i];
            }
            all.results += before.results;
            all.lost += before.lost;
            all.samples += before.samples;
            of = added;
        }
        for (auto &row : told.changes) {
            row.key = moved.count(row.key) != 0 ? moved[row.key] : row.key;
        }
        for (auto &row : told.spans) {
            if (moved.count(row.key) != 0) {
                row.key = moved[row.key];
                row.enabled_us += base[row.key].enabled_us;
                row.watched_us += base[row.key].watched_us;
            }
        }
        for (auto &row : told.samples) {
            row.key = moved.count(row.key) != 0 ? moved[row.key] : row.key;
        }
        told.links.clear();
        open_ = std::move(told);
        for (const auto &[name, of] : records_) {
            open_.links[of.row.key] = of.row;
        }
        append(writing_, std::move(open_));
    }
    adopted_ = true;
}

bool link_history::write_batch()
{
    // Only this thread changes `writing_`, so it may be read without the lock while others read it.
    if (writing_.empty()) {
        return true;
    }
    try {
        store_->write(writing_);
    } catch (const store_failure &failure) {
        failed(failure);
        return false;
    }
    uint64_t dropped = 0;
    {
        const std::lock_guard lock(mutex_);
        writing_ = {};
        std::swap(dropped, dropped_);
    }
    if (said_ && options_.say) {
        options_.say("the history is written again" +
                     (dropped == 0 ? std::string() : "; without " + std::to_string(dropped) + " changes"));
    }
    said_ = false;
    return true;
}

void link_history::tidy()
{
    constexpr int64_t MORE = 15, MEBIBYTE = 1 << 20;
    const clock_reading now = options_.clocks();
    const int64_t now_ms = now.boot_us / MILLISECOND;
    if (now_ms - tidied_ms_ < options_.tidy_every_ms) {
        return;
    }
    tidied_ms_ = now_ms;
    int64_t now_us = 0;
    {
        const std::lock_guard lock(mutex_);
        now_us = tick(now);
    }
    try {
        store_->thin_out(now_us);
        if (now_ms - tidied_more_ms_ >= MORE * options_.tidy_every_ms) {
            tidied_more_ms_ = now_ms;
            store_->thin_out_more(now_us);
            const int64_t old = now_us - options_.days * DAY;
            store_->forget_before(old);
            const std::lock_guard lock(mutex_);
            std::erase_if(records_, [&](const auto &each) {
                return !each.second.row.open && each.second.row.until_us < old &&
                       open_.links.count(each.second.row.key) == 0;
            });
        }
        (void)store_->forget_above(static_cast<uint64_t>(options_.max_mib * MEBIBYTE));
    } catch (const store_failure &failure) {
        failed(failure);
    }
}

void link_history::failed(const store_failure &failure)
{
    if (failure.broken()) {
        set_aside(failure.what());
        return;
    }
    if (!said_ && options_.say) {
        options_.say(path_ + ": " + failure.what() +
                     "; what becomes of links is kept in memory until it can be written");
    }
    said_ = true;
    if ((failure.code & 0xff) == SQLITE_CANTOPEN || (failure.code & 0xff) == SQLITE_IOERR) {
        store_.reset(); // it may be another directory by now
    }
}

void link_history::set_aside(const std::string &why)
{
    store_.reset();
    // The number keeps two of one second apart.
    const std::string name = path_ + ".broken-" + std::to_string(options_.clocks().real_us);
    for (const char *part : {"-shm", "-wal", ""}) {
        (void)rename((path_ + part).c_str(), (name + part).c_str());
    }
    if (options_.say) {
        options_.say(path_ + ": " + why + "; set aside as " + name + ", a new one is begun");
    }
}

} // namespace linkd
