// The history's database (history_store.hpp).
#include "history_store.hpp"

#include <algorithm>
#include <limits>
#include <sqlite3.h>

namespace linkd
{

namespace
{

constexpr int64_t SECOND = 1'000'000;
constexpr int64_t MINUTE = 60 * SECOND;
constexpr int64_t QUARTER = 15 * MINUTE;
constexpr int64_t RAW_KEPT = 10 * MINUTE;
constexpr int64_t MINUTES_KEPT = 48 * 60 * MINUTE;
constexpr int LAYOUT = 1;

constexpr const char *TABLES = R"(
CREATE TABLE IF NOT EXISTS links(key INTEGER PRIMARY KEY, name TEXT NOT NULL UNIQUE, port TEXT NOT NULL,
  vlan INTEGER NOT NULL, far TEXT NOT NULL, state INTEGER NOT NULL, open INTEGER NOT NULL, until_us INTEGER NOT NULL,
  changes INTEGER NOT NULL, flaps INTEGER NOT NULL, enabled_us INTEGER NOT NULL, watched_us INTEGER NOT NULL,
  waiting_us INTEGER NOT NULL, rejected_us INTEGER NOT NULL, disabled_us INTEGER NOT NULL, results INTEGER NOT NULL,
  lost INTEGER NOT NULL, samples INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS changes(id INTEGER PRIMARY KEY, link INTEGER NOT NULL, name TEXT NOT NULL,
  at_us INTEGER NOT NULL, tick_us INTEGER NOT NULL, port TEXT NOT NULL, vlan INTEGER NOT NULL, far TEXT NOT NULL,
  state_from INTEGER NOT NULL, state_to INTEGER NOT NULL, reason TEXT NOT NULL, lasted_us INTEGER NOT NULL,
  known TEXT NOT NULL, flap INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS changes_of_link ON changes(link);
CREATE INDEX IF NOT EXISTS changes_by_time ON changes(link, at_us);
CREATE INDEX IF NOT EXISTS changes_by_clock ON changes(at_us);
CREATE INDEX IF NOT EXISTS flaps_by_time ON changes(link, at_us) WHERE flap;
CREATE TABLE IF NOT EXISTS spans(link INTEGER NOT NULL, until_us INTEGER NOT NULL, since_us INTEGER NOT NULL,
  state INTEGER NOT NULL, enabled_us INTEGER NOT NULL, watched_us INTEGER NOT NULL,
  PRIMARY KEY(link, until_us)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS raw(number INTEGER PRIMARY KEY, link INTEGER NOT NULL, tick_us INTEGER NOT NULL,
  shortest INTEGER NOT NULL, average INTEGER NOT NULL, longest INTEGER NOT NULL, valid INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS minutes(link INTEGER NOT NULL, tick_us INTEGER NOT NULL, shortest INTEGER NOT NULL,
  average INTEGER NOT NULL, longest INTEGER NOT NULL, valid INTEGER NOT NULL, PRIMARY KEY(link, tick_us)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS quarters(link INTEGER NOT NULL, tick_us INTEGER NOT NULL, shortest INTEGER NOT NULL,
  average INTEGER NOT NULL, longest INTEGER NOT NULL, valid INTEGER NOT NULL, PRIMARY KEY(link, tick_us)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS thinned(one INTEGER PRIMARY KEY CHECK(one = 1), number INTEGER NOT NULL);
INSERT OR IGNORE INTO thinned VALUES(1, 0);
)";

// Samples of one link and time become one: the extremes are kept, the average counts each valid answer alike.
constexpr const char *MERGED = R"(
ON CONFLICT DO UPDATE SET shortest = min(shortest, excluded.shortest), longest = max(longest, excluded.longest),
  average = (average * valid + excluded.average * excluded.valid) / max(valid + excluded.valid, 1),
  valid = valid + excluded.valid)";

constexpr const char *CHANGE_COLUMNS =
    "SELECT id, at_us, name, port, vlan, far, state_from, state_to, reason, lasted_us, known FROM changes ";

link_state state_of(int64_t number)
{
    return number >= 0 && number < LINK_STATES ? static_cast<link_state>(number) : link_state::gone;
}

} // namespace

bool store_failure::broken() const
{
    const int kind = code & 0xff;
    return kind == SQLITE_CORRUPT || kind == SQLITE_NOTADB || kind == SQLITE_FORMAT;
}

// A statement that is bound from the first parameter on, and gives its columns from the first on.
class history_store::statement
{
public:
    statement(sqlite3 *database, const char *text) : database_(database)
    {
        const int code = sqlite3_prepare_v3(database, text, -1, SQLITE_PREPARE_PERSISTENT, &statement_, nullptr);
        if (code != SQLITE_OK) {
            throw store_failure(sqlite3_extended_errcode(database), sqlite3_errmsg(database));
        }
    }
    ~statement() { sqlite3_finalize(statement_); }
    statement(const statement &) = delete;
    statement &operator=(const statement &) = delete;

    statement &begin()
    {
        (void)sqlite3_reset(statement_);
        parameter_ = 0;
        return *this;
    }
    statement &bind(int64_t value)
    {
        (void)sqlite3_bind_int64(statement_, ++parameter_, value);
        return *this;
    }
    statement &bind(const std::string &text)
    {
        (void)sqlite3_bind_text64(statement_, ++parameter_, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
        return *this;
    }
    bool step()
    {
        const int code = sqlite3_step(statement_);
        if (code == SQLITE_ROW) {
            column_ = 0;
            return true;
        }
        const int extended = sqlite3_extended_errcode(database_);
        (void)sqlite3_reset(statement_);
        if (code != SQLITE_DONE) {
            throw store_failure(extended, sqlite3_errmsg(database_));
        }
        return false;
    }
    void run()
    {
        while (step()) {
        }
    }
    int64_t number() { return sqlite3_column_int64(statement_, column_++); }
    std::string text()
    {
        const int column = column_++;
        const auto *at = reinterpret_cast<const char *>(sqlite3_column_text(statement_, column));
        return at == nullptr ? "" : std::string(at, static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
    }

private:
    sqlite3 *database_;
    sqlite3_stmt *statement_ = nullptr;
    int parameter_ = 0;
    int column_ = 0;
};

// All or nothing.
class history_store::transaction
{
public:
    explicit transaction(history_store &store, const char *begin = "BEGIN IMMEDIATE") : store_(store)
    {
        store.execute(begin);
    }
    ~transaction()
    {
        if (!over_) {
            (void)sqlite3_exec(store_.database_, "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
    transaction(const transaction &) = delete;
    transaction &operator=(const transaction &) = delete;
    void commit()
    {
        store_.execute("COMMIT");
        over_ = true;
    }

private:
    history_store &store_;
    bool over_ = false;
};

history_store::history_store(const std::string &path, bool write)
{
    constexpr int PATIENCE_MS = 2000;
    const int flags = write ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY;
    const int code = sqlite3_open_v2(path.c_str(), &database_, flags | SQLITE_OPEN_NOMUTEX, nullptr);
    try {
        if (code != SQLITE_OK) {
            throw store_failure(code, database_ != nullptr ? sqlite3_errmsg(database_) : sqlite3_errstr(code));
        }
        (void)sqlite3_extended_result_codes(database_, 1);
        (void)sqlite3_busy_timeout(database_, write ? PATIENCE_MS : PATIENCE_MS / 10);
        execute("PRAGMA cache_size = -1024");
        execute("PRAGMA temp_store = MEMORY");
        if (write) {
            make_tables();
        }
    } catch (...) {
        statements_.clear();
        (void)sqlite3_close(database_);
        throw;
    }
}

history_store::~history_store()
{
    statements_.clear();
    (void)sqlite3_close(database_);
}

void history_store::make_tables()
{
    execute("PRAGMA auto_vacuum = INCREMENTAL"); // counts for a file that is new
    execute("PRAGMA journal_mode = WAL");
    execute("PRAGMA synchronous = FULL");
    execute("PRAGMA journal_size_limit = 4194304");
    const int64_t layout = number("PRAGMA user_version");
    if (layout > LAYOUT) {
        throw store_failure(SQLITE_FORMAT, "written by a later version");
    }
    transaction all(*this);
    execute(TABLES);
    execute(("PRAGMA user_version = " + std::to_string(LAYOUT)).c_str());
    all.commit();
}

history_store::statement &history_store::prepared(const char *text)
{
    auto &place = statements_[text];
    if (!place) {
        place = std::make_unique<statement>(database_, text);
    }
    return place->begin();
}

void history_store::execute(const char *text)
{
    if (sqlite3_exec(database_, text, nullptr, nullptr, nullptr) != SQLITE_OK) {
        throw store_failure(sqlite3_extended_errcode(database_), sqlite3_errmsg(database_));
    }
}

int64_t history_store::number(const char *text)
{
    statement one(database_, text);
    return one.step() ? one.number() : 0;
}

void history_store::check()
{
    statement one(database_, "PRAGMA quick_check(1)");
    const std::string said = one.step() ? one.text() : "ok";
    if (said != "ok") {
        throw store_failure(SQLITE_CORRUPT, said);
    }
}

// ---- Written

void history_store::write(const history_batch &batch)
{
    const bool sync = !batch.changes.empty() || !batch.spans.empty();
    if (sync != full_sync_) {
        execute(sync ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
        full_sync_ = sync;
    }
    transaction all(*this);
    write_links(batch);
    write_changes(batch);
    write_samples(batch);
    all.commit();
}

void history_store::write_links(const history_batch &batch)
{
    for (const auto &[key, row] : batch.links) {
        const history_counters &all = row.counters;
        statement &to = prepared("INSERT OR REPLACE INTO links VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
        to.bind(key).bind(row.link.name).bind(row.link.port).bind(row.link.vlan).bind(row.link.far);
        to.bind(static_cast<int64_t>(row.state)).bind(row.open ? 1 : 0).bind(row.until_us);
        to.bind(static_cast<int64_t>(all.changes)).bind(static_cast<int64_t>(all.flaps));
        to.bind(all.enabled_us).bind(all.watched_us);
        for (const link_state state : {link_state::waiting, link_state::rejected, link_state::disabled}) {
            to.bind(all.state_us[static_cast<int>(state)]);
        }
        to.bind(static_cast<int64_t>(all.results)).bind(static_cast<int64_t>(all.lost));
        to.bind(static_cast<int64_t>(all.samples)).run();
    }
}

void history_store::write_changes(const history_batch &batch)
{
    for (const change_row &row : batch.changes) {
        const link_change &change = row.change;
        const bool flap =
            change.from == link_state::enabled && change.to != link_state::enabled && change.to != link_state::gone;
        statement &to = prepared("INSERT OR REPLACE INTO changes VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
        to.bind(static_cast<int64_t>(change.id)).bind(row.key).bind(change.link.name).bind(change.at_us);
        to.bind(row.tick_us).bind(change.link.port).bind(change.link.vlan).bind(change.link.far);
        to.bind(static_cast<int64_t>(change.from)).bind(static_cast<int64_t>(change.to)).bind(change.reason);
        to.bind(change.lasted_us);
        to.bind(change.known.is_null() ? "{}"
                                       : change.known.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
        to.bind(flap ? 1 : 0).run();
    }
    for (const span_row &row : batch.spans) {
        statement &to = prepared("INSERT OR REPLACE INTO spans VALUES(?,?,?,?,?,?)");
        to.bind(row.key).bind(row.until_us).bind(row.since_us).bind(static_cast<int64_t>(row.state));
        to.bind(row.enabled_us).bind(row.watched_us).run();
    }
}

void history_store::write_samples(const history_batch &batch)
{
    for (const sample_row &row : batch.samples) {
        statement &to = prepared("INSERT INTO raw VALUES(NULL,?,?,?,?,?,?)");
        to.bind(row.key).bind(row.tick_us).bind(static_cast<int64_t>(row.shortest_ns));
        to.bind(static_cast<int64_t>(row.average_ns)).bind(static_cast<int64_t>(row.longest_ns));
        to.bind(row.valid).run();
    }
}

// ---- Read

std::vector<link_row> history_store::links()
{
    std::vector<link_row> rows;
    statement &from = prepared("SELECT * FROM links");
    while (from.step()) {
        link_row row;
        row.key = from.number();
        row.link.name = from.text();
        row.link.port = from.text();
        row.link.vlan = static_cast<uint16_t>(from.number());
        row.link.far = from.text();
        row.state = state_of(from.number());
        row.open = from.number() != 0;
        row.until_us = from.number();
        history_counters &all = row.counters;
        all.changes = static_cast<uint64_t>(from.number());
        all.flaps = static_cast<uint64_t>(from.number());
        all.enabled_us = from.number();
        all.watched_us = from.number();
        for (const link_state state : {link_state::waiting, link_state::rejected, link_state::disabled}) {
            all.state_us[static_cast<int>(state)] = from.number();
        }
        all.state_us[static_cast<int>(link_state::enabled)] = all.enabled_us;
        all.results = static_cast<uint64_t>(from.number());
        all.lost = static_cast<uint64_t>(from.number());
        all.samples = static_cast<uint64_t>(from.number());
        rows.push_back(std::move(row));
    }
    return rows;
}

uint64_t history_store::newest_change() { return static_cast<uint64_t>(number("SELECT max(id) FROM changes")); }

namespace
{

// Ids are SQLite's numbers; above them there is none.
int64_t id_of(uint64_t id) { return static_cast<int64_t>(std::min<uint64_t>(id, INT64_MAX)); }

template <typename STATEMENT> std::vector<link_change> changes_of(STATEMENT &from)
{
    std::vector<link_change> found;
    while (from.step()) {
        link_change change;
        change.id = static_cast<uint64_t>(from.number());
        change.at_us = from.number();
        change.link.name = from.text();
        change.link.port = from.text();
        change.link.vlan = static_cast<uint16_t>(from.number());
        change.link.far = from.text();
        change.from = state_of(from.number());
        change.to = state_of(from.number());
        change.reason = from.text();
        change.lasted_us = from.number();
        change.known = nlohmann::json::parse(from.text(), nullptr, false);
        if (change.known.is_discarded()) {
            change.known = nlohmann::json::object();
        }
        found.push_back(std::move(change));
    }
    return found;
}

} // namespace

std::vector<link_change> history_store::since(uint64_t since, int64_t key, size_t limit)
{
    static const std::string all = std::string(CHANGE_COLUMNS) + "WHERE id > ? ORDER BY id LIMIT ?";
    static const std::string one = std::string(CHANGE_COLUMNS) + "WHERE link = ? AND id > ? ORDER BY id LIMIT ?";
    statement &from = prepared(key == 0 ? all.c_str() : one.c_str());
    if (key != 0) {
        from.bind(key);
    }
    from.bind(id_of(since)).bind(static_cast<int64_t>(limit));
    return changes_of(from);
}

std::vector<link_change> history_store::latest(uint64_t since, uint64_t before, int64_t key, size_t limit)
{
    static const std::string all = std::string(CHANGE_COLUMNS) + "WHERE id > ? AND id < ? ORDER BY id DESC LIMIT ?";
    static const std::string one =
        std::string(CHANGE_COLUMNS) + "WHERE link = ? AND id > ? AND id < ? ORDER BY id DESC LIMIT ?";
    statement &from = prepared(key == 0 ? all.c_str() : one.c_str());
    if (key != 0) {
        from.bind(key);
    }
    from.bind(id_of(since)).bind(id_of(before)).bind(static_cast<int64_t>(limit));
    auto found = changes_of(from);
    std::reverse(found.begin(), found.end());
    return found;
}

std::optional<uint64_t> history_store::first_from(int64_t at_us)
{
    statement &first = prepared("SELECT id, at_us FROM changes ORDER BY id LIMIT 1");
    if (first.step()) {
        const auto id = static_cast<uint64_t>(first.number());
        const bool all = first.number() >= at_us;
        (void)first.begin();
        if (all) {
            return id;
        }
    }
    // Not by min(id), for which the whole table would be walked: the index has only what is asked for.
    statement &from = prepared("SELECT id FROM changes WHERE at_us >= ?");
    from.bind(at_us);
    std::optional<uint64_t> least;
    while (from.step()) {
        const auto id = static_cast<uint64_t>(from.number());
        least = std::min(least.value_or(id), id);
    }
    return least;
}

history_store::part history_store::between(int64_t key, int64_t from_us, int64_t to_us, size_t limit)
{
    static const std::string text =
        std::string(CHANGE_COLUMNS) + "WHERE link = ? AND at_us >= ? AND at_us <= ? ORDER BY at_us DESC LIMIT ?";
    transaction same(*this, "BEGIN"); // all three of one moment
    part found;
    found.newest = newest_change();
    found.changes =
        changes_of(prepared(text.c_str()).bind(key).bind(from_us).bind(to_us).bind(static_cast<int64_t>(limit)));
    std::sort(found.changes.begin(), found.changes.end(), [](const auto &a, const auto &b) { return a.id < b.id; });
    statement &flaps = prepared("SELECT count(*) FROM changes WHERE flap AND link = ? AND at_us >= ? AND at_us <= ?");
    found.flaps = flaps.bind(key).bind(from_us).bind(to_us).step() ? static_cast<uint64_t>(flaps.number()) : 0;
    (void)flaps.begin();
    same.commit();
    return found;
}

std::map<int64_t, uint64_t> history_store::flaps_since(int64_t from_us)
{
    std::map<int64_t, uint64_t> found;
    statement &from = prepared("SELECT link, count(*) FROM changes WHERE flap AND at_us >= ? GROUP BY link");
    from.bind(from_us);
    while (from.step()) {
        const int64_t key = from.number();
        found[key] = static_cast<uint64_t>(from.number());
    }
    return found;
}

std::optional<span_row> history_store::span_after(int64_t key, int64_t tick_us)
{
    statement &from = prepared("SELECT since_us, until_us, state, enabled_us, watched_us FROM spans "
                               "WHERE link = ? AND until_us > ? ORDER BY until_us LIMIT 1");
    if (!from.bind(key).bind(tick_us).step()) {
        return {};
    }
    span_row row;
    row.key = key;
    row.since_us = from.number();
    row.until_us = from.number();
    row.state = state_of(from.number());
    row.enabled_us = from.number();
    row.watched_us = from.number();
    (void)from.begin();
    return row;
}

std::vector<sample_row> history_store::samples(int64_t key, int64_t from_us, int64_t to_us, bool fine)
{
    transaction same(*this, "BEGIN"); // what is thinned out meanwhile is not seen twice
    std::vector<sample_row> found;
    const auto take = [&](statement &from) {
        while (from.step()) {
            sample_row row;
            row.key = key;
            row.tick_us = from.number();
            row.shortest_ns = static_cast<uint64_t>(from.number());
            row.average_ns = static_cast<uint64_t>(from.number());
            row.longest_ns = static_cast<uint64_t>(from.number());
            row.valid = static_cast<uint32_t>(from.number());
            found.push_back(row);
        }
    };
    // As they came: all that is left, or what is not in the minutes yet.
    const int64_t above = fine ? 0 : number("SELECT number FROM thinned");
    const int64_t first_raw = number("SELECT tick_us FROM raw ORDER BY number LIMIT 1");
    const int64_t up_to = fine && first_raw != 0 ? std::min(to_us, first_raw - 1) : to_us;
    const int64_t thinned_from = fine && first_raw != 0 ? (first_raw / MINUTE) * MINUTE : to_us + 1;
    for (const char *text : {"SELECT tick_us, shortest, average, longest, valid FROM quarters "
                             "WHERE link = ? AND tick_us >= ? AND tick_us <= ? AND tick_us < ? ORDER BY tick_us",
                             "SELECT tick_us, shortest, average, longest, valid FROM minutes "
                             "WHERE link = ? AND tick_us >= ? AND tick_us <= ? AND tick_us < ? ORDER BY tick_us"}) {
        take(prepared(text).bind(key).bind(from_us).bind(up_to).bind(thinned_from));
    }
    take(prepared("SELECT tick_us, shortest, average, longest, valid FROM raw "
                  "WHERE number > ? AND link = ? AND tick_us >= ? AND tick_us <= ? ORDER BY number")
             .bind(above)
             .bind(key)
             .bind(from_us)
             .bind(to_us));
    same.commit();
    return found;
}

// ---- Forgotten

void history_store::thin_out(int64_t now_us)
{
    static const std::string to_minutes =
        std::string("INSERT INTO minutes SELECT link, tick_us / 60000000 * 60000000 AS minute, min(shortest), "
                    "sum(average * valid) / max(sum(valid), 1), max(longest), sum(valid) FROM raw "
                    "WHERE number > ? AND number <= ? GROUP BY link, minute ") +
        MERGED;
    transaction all(*this);
    const int64_t done = number("SELECT number FROM thinned");
    statement &last = prepared("SELECT max(number) FROM raw WHERE number > ? AND tick_us < ?");
    const int64_t upto = last.bind(done).bind(now_us / MINUTE * MINUTE).step() ? last.number() : 0;
    (void)last.begin();
    if (upto > done) {
        prepared(to_minutes.c_str()).bind(done).bind(upto).run();
        prepared("UPDATE thinned SET number = ?").bind(upto).run();
    }
    // The newest row stays, so that a number is never given to another one and counted as thinned already.
    prepared(
        "DELETE FROM raw WHERE number <= ? AND number < "
        "coalesce((SELECT number FROM raw WHERE tick_us >= ? ORDER BY number LIMIT 1), (SELECT max(number) FROM raw))")
        .bind(std::max(upto, done))
        .bind(now_us - RAW_KEPT)
        .run();
    all.commit();
}

void history_store::thin_out_more(int64_t now_us)
{
    static const std::string to_quarters =
        std::string("INSERT INTO quarters SELECT link, tick_us / 900000000 * 900000000 AS quarter, min(shortest), "
                    "sum(average * valid) / max(sum(valid), 1), max(longest), sum(valid) FROM minutes "
                    "WHERE tick_us < ? GROUP BY link, quarter ") +
        MERGED;
    transaction all(*this);
    const int64_t old = (now_us - MINUTES_KEPT) / QUARTER * QUARTER;
    prepared(to_quarters.c_str()).bind(old).run();
    prepared("DELETE FROM minutes WHERE tick_us < ?").bind(old).run();
    all.commit();
}

void history_store::forget_before(int64_t tick_us)
{
    transaction all(*this);
    for (const char *text : {"DELETE FROM changes WHERE tick_us < ? AND id <= (SELECT min(id) + 5000 FROM changes)",
                             "DELETE FROM quarters WHERE tick_us < ?", "DELETE FROM minutes WHERE tick_us < ?",
                             "DELETE FROM spans WHERE until_us < ?",
                             "DELETE FROM links WHERE NOT open AND until_us < ? AND NOT EXISTS "
                             "(SELECT 1 FROM changes WHERE changes.link = links.key)"}) {
        prepared(text).bind(tick_us).run();
    }
    all.commit();
    execute("PRAGMA incremental_vacuum(1000)");
}

uint64_t history_store::used_bytes()
{
    return static_cast<uint64_t>((number("PRAGMA page_count") - number("PRAGMA freelist_count")) *
                                 number("PRAGMA page_size"));
}

// A part of what takes most. Changes are worth more than samples: as long as samples take as much, they go first.
uint64_t history_store::forget_oldest()
{
    constexpr int64_t PART = 10, CHANGE_BYTES = 400, SAMPLE_BYTES = 40;
    const int64_t changes = number("SELECT count(*) FROM changes");
    const int64_t minutes = number("SELECT count(*) FROM minutes");
    const int64_t quarters = number("SELECT count(*) FROM quarters");
    transaction all(*this);
    const int before = sqlite3_total_changes(database_);
    if ((minutes + quarters) * SAMPLE_BYTES > changes * CHANGE_BYTES) {
        const char *text = quarters > 0
                               ? "DELETE FROM quarters WHERE tick_us <= (SELECT min(tick_us) + ? FROM quarters)"
                               : "DELETE FROM minutes WHERE tick_us <= (SELECT min(tick_us) + ? FROM minutes)";
        const int64_t span = quarters > 0 ? number("SELECT max(tick_us) - min(tick_us) FROM quarters")
                                          : number("SELECT max(tick_us) - min(tick_us) FROM minutes");
        prepared(text).bind(span / PART).run();
    } else {
        prepared("DELETE FROM changes WHERE id <= (SELECT max(id) FROM (SELECT id FROM changes ORDER BY id LIMIT ?))")
            .bind(changes / PART + 1)
            .run();
        prepared("DELETE FROM spans WHERE until_us < coalesce((SELECT tick_us FROM changes ORDER BY id LIMIT 1), 0)")
            .run();
    }
    all.commit();
    execute("PRAGMA incremental_vacuum(1000)");
    return static_cast<uint64_t>(sqlite3_total_changes(database_) - before);
}

uint64_t history_store::forget_above(uint64_t bytes)
{
    constexpr int ROUNDS = 20; // then the writer has something else to do first
    uint64_t rows = 0;
    for (int round = 0; round < ROUNDS && used_bytes() > bytes; round++) {
        const uint64_t gone = forget_oldest();
        rows += gone;
        if (gone == 0) {
            break;
        }
    }
    return rows;
}

} // namespace linkd
