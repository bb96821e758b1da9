// What is remembered of links: numbers, sums, availability, samples; over restarts and clocks that are set.
#include "history_fixture.hpp"

#include <fstream>
#include <gmock/gmock.h>
#include <random>

namespace linkd
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
constexpr link_state ENABLED = link_state::enabled, DISABLED = link_state::disabled, WAITING = link_state::waiting,
                     GONE = link_state::gone;

std::vector<uint64_t> ids(const std::vector<link_change> &changes)
{
    std::vector<uint64_t> found;
    for (const link_change &change : changes) {
        found.push_back(change.id);
    }
    return found;
}

TEST_F(HistoryTest, GivesBackWhatItWasToldWhetherItIsWrittenOrNot)
{
    auto slow = options();
    slow.write_every_ms = 3'600'000;
    for (const bool wait : {true, false}) {
        std::filesystem::remove_all(directory_);
        std::filesystem::create_directory(directory_);
        link_history history(wait ? options() : slow);
        tell(history, "a", WAITING, ENABLED, SECOND);
        pass(MINUTE);
        tell(history, "b", WAITING, ENABLED, SECOND);
        tell(history, "a", ENABLED, DISABLED, MINUTE, "no connectivity");
        if (wait) {
            ASSERT_TRUE(history.written(PATIENCE_MS));
        }
        EXPECT_THAT(ids(history.since(0, "", 100)), ElementsAre(1, 2, 3));
        EXPECT_THAT(ids(history.since(0, "a", 100)), ElementsAre(1, 3));
        EXPECT_THAT(ids(history.since(1, "", 1)), ElementsAre(2));
        EXPECT_TRUE(history.since(0, "no such", 100).empty());
        EXPECT_EQ(history.newest(), 3U);
        const auto answer = history.history("a", 0, INT64_MAX, 100);
        ASSERT_EQ(answer["events"].size(), 2U);
        EXPECT_EQ(answer["events"][1]["reason"], "no connectivity");
        EXPECT_EQ(answer["events"][1]["lasted_us"], MINUTE);
        EXPECT_EQ(answer["flaps"], 1);
        EXPECT_EQ(answer["counters"]["changes"], 2);
        EXPECT_EQ(answer["counters"]["enabled_us"], MINUTE);
        EXPECT_EQ(history.flaps_today("a"), 1U);
        EXPECT_EQ(history.history("a", 0, INT64_MAX, 1)["events"][0]["id"], 3) << "the newest of them";
    }
}

TEST_F(HistoryTest, FindsTheNewestAndThoseFromAMomentOnWhetherTheyAreWrittenOrNot)
{
    auto slow = options();
    slow.write_every_ms = 3'600'000;
    for (const int written : {6, 3, 0}) {
        std::filesystem::remove_all(directory_);
        std::filesystem::create_directory(directory_);
        const int64_t start = now().real_us;
        if (written > 0) {
            link_history before(options());
            for (int i = 0; i < written; i++) {
                pass(SECOND);
                tell(before, i % 2 == 0 ? "a" : "b", WAITING, ENABLED, SECOND);
            }
        }
        link_history history(slow);
        for (int i = written; i < 6; i++) {
            pass(SECOND);
            tell(history, i % 2 == 0 ? "a" : "b", WAITING, ENABLED, SECOND);
        }
        EXPECT_THAT(ids(history.latest(0, INT64_MAX, "", 2)), ElementsAre(5, 6));
        EXPECT_THAT(ids(history.latest(0, 5, "", 3)), ElementsAre(2, 3, 4));
        EXPECT_THAT(ids(history.latest(2, 5, "", 3)), ElementsAre(3, 4));
        EXPECT_THAT(ids(history.latest(0, INT64_MAX, "a", 2)), ElementsAre(3, 5));
        EXPECT_THAT(ids(history.latest(0, INT64_MAX, "", 100)), ElementsAre(1, 2, 3, 4, 5, 6));
        EXPECT_TRUE(history.latest(0, INT64_MAX, "no such", 100).empty());
        EXPECT_EQ(history.last_before(0), 0U);
        EXPECT_EQ(history.last_before(start + 3 * SECOND), 2U);
        EXPECT_EQ(history.last_before(start + 3 * SECOND + 1), 3U);
        EXPECT_EQ(history.last_before(start + HOUR), 6U) << "the newest, where there is none from then on";
        EXPECT_TRUE(history.knows("a"));
        EXPECT_FALSE(history.knows("no such"));
    }
}

TEST_F(HistoryTest, RemembersEverythingOverARestart)
{
    {
        link_history history(options());
        tell(history, "a", WAITING, ENABLED, SECOND);
        pass(HOUR);
        tell(history, "a", ENABLED, DISABLED, HOUR, "down");
        history.counted("a", 7, 100, 3);
    }
    link_history history(options());
    EXPECT_EQ(tell(history, "a", WAITING, ENABLED, 0), 3U);
    EXPECT_THAT(ids(history.since(0, "", 100)), ElementsAre(1, 2, 3));
    const auto answer = history.history("a", 0, INT64_MAX, 100);
    EXPECT_EQ(answer["counters"]["enabled_us"], HOUR);
    EXPECT_EQ(answer["counters"]["results"], 100);
    EXPECT_EQ(answer["counters"]["lost"], 3);
    EXPECT_EQ(history.flaps_today("a"), 1U);
}

TEST_F(HistoryTest, CountsThePingsOfALifeThoughTheDaemonBeginsAnew)
{
    link_history history(options());
    tell(history, "a", WAITING, ENABLED, SECOND);
    history.counted("a", 7, 100, 3);
    history.counted("a", 7, 150, 3);
    history.counted("a", 7, 20, 1); // the daemon counts from 0 again
    history.counted("a", 8, 30, 2); // and so it does with another reference
    const auto counters = history.history("a", 0, INT64_MAX, 1)["counters"];
    EXPECT_EQ(counters["results"], 150 + 20 + 30);
    EXPECT_EQ(counters["lost"], 3 + 1 + 2);
}

TEST_F(HistoryTest, NeverGivesANumberTwiceThoughTheDatabaseIsLost)
{
    uint64_t last = 0;
    {
        link_history history(options());
        for (int i = 0; i < 100; i++) {
            last = tell(history, "a", WAITING, ENABLED, 0);
        }
    }
    for (const char *name : {"/history.db", "/history.db-wal", "/history.db-shm"}) {
        std::filesystem::remove(directory_ + name);
    }
    {
        link_history history(options());
        EXPECT_GT(tell(history, "a", WAITING, ENABLED, 0), last);
        last = history.newest();
    }
    std::filesystem::remove(directory_ + "/history.marks");
    link_history history(options());
    EXPECT_GT(tell(history, "a", WAITING, ENABLED, 0), last);
}

TEST_F(HistoryTest, IsNotTouchedByAClockThatIsSetBack)
{
    link_history history(options());
    tell(history, "a", WAITING, ENABLED, 0);
    pass(30 * MINUTE);
    set_clock(now().real_us - 10 * DAY);
    pass(30 * MINUTE);
    const auto id = tell(history, "a", ENABLED, DISABLED, HOUR, "down");
    set_clock(now().real_us + 3 * DAY);
    pass(HOUR);
    const auto answer = history.history("a", 0, INT64_MAX, 100);
    EXPECT_DOUBLE_EQ(answer["availability"]["day"], 0.5);
    EXPECT_DOUBLE_EQ(answer["availability"]["hour"], 0.0);
    EXPECT_EQ(answer["counters"]["watched_us"], 2 * HOUR);
    EXPECT_EQ(answer["events"][1]["id"], id) << "in the order in which it was, not in that of the clock";
}

TEST_F(HistoryTest, ATimeInWhichNobodyLookedCountsNeitherWay)
{
    {
        link_history history(options());
        tell(history, "a", WAITING, ENABLED, 0);
        pass(HOUR);
        tell(history, "b", WAITING, ENABLED, 0);
        ASSERT_TRUE(history.written(PATIENCE_MS));
    } // the program ends; its last sign of life is of now
    pass(5 * HOUR);
    link_history history(options());
    pass(10 * SECOND);
    tell(history, "a", WAITING, ENABLED, 10 * SECOND);
    pass(HOUR);
    const auto answer = history.history("a", 0, INT64_MAX, 100);
    EXPECT_EQ(answer["availability"]["watched_us"]["day"], 2 * HOUR + 10 * SECOND);
    EXPECT_DOUBLE_EQ(answer["availability"]["day"],
                     static_cast<double>(2 * HOUR) / static_cast<double>(2 * HOUR + 10 * SECOND));
}

TEST_F(HistoryTest, TheTimeGoesOnOverARestartOfTheMachineAndNeverBack)
{
    {
        link_history history(options());
        tell(history, "a", WAITING, ENABLED, 0);
        pass(HOUR);
    }
    boot_ = "two";
    set_clock(now().real_us - DAY); // no battery
    link_history history(options());
    pass(HOUR);
    tell(history, "a", WAITING, DISABLED, HOUR);
    const auto answer = history.history("a", 0, INT64_MAX, 100);
    EXPECT_EQ(answer["counters"]["enabled_us"], HOUR);
    EXPECT_EQ(answer["counters"]["waiting_us"], HOUR);
    EXPECT_DOUBLE_EQ(answer["availability"]["day"], 0.5);
}

TEST_F(HistoryTest, ALinkThatIsGoneIsNotMeasuredAgainstTheTimeAfterwards)
{
    link_history history(options());
    tell(history, "a", WAITING, ENABLED, 0);
    pass(HOUR);
    tell(history, "a", ENABLED, GONE, HOUR);
    pass(HOUR);
    const auto answer = history.history("a", 0, INT64_MAX, 100);
    EXPECT_DOUBLE_EQ(answer["availability"]["day"], 1.0);
    EXPECT_EQ(answer["availability"]["hour"], nullptr);
    EXPECT_EQ(answer["flaps"], 0) << "nobody lost it";
}

TEST_F(HistoryTest, ABrokenFileIsSetAsideAndTheSumsAreKept)
{
    {
        link_history history(options());
        tell(history, "a", WAITING, ENABLED, 0);
        pass(HOUR);
    }
    {
        std::ofstream file(directory_ + "/history.db", std::ios::in | std::ios::out);
        file << std::string(2000, 'x');
    }
    std::filesystem::remove(directory_ + "/history.db-wal");
    link_history history(options());
    ASSERT_EQ(said().size(), 1U);
    EXPECT_THAT(said()[0], HasSubstr("set aside as " + directory_ + "/history.db.broken-"));
    const auto id = tell(history, "a", WAITING, ENABLED, 0);
    EXPECT_GT(id, 1U);
    ASSERT_TRUE(history.written(PATIENCE_MS));
    EXPECT_THAT(ids(history.since(0, "", 10)), ElementsAre(id));
    size_t aside = 0;
    for (const auto &entry : std::filesystem::directory_iterator(directory_)) {
        aside += entry.path().filename().string().starts_with("history.db.broken-") ? 1U : 0U;
    }
    EXPECT_GE(aside, 1U);
}

TEST_F(HistoryTest, AFileThatBreaksWhileItIsUsedIsSetAside)
{
    link_history history(options());
    for (int i = 0; i < 2000; i++) {
        tell(history, "a", i % 2 == 0 ? WAITING : ENABLED, i % 2 == 0 ? ENABLED : DISABLED, 0, std::string(500, 'r'));
        pass(SECOND);
    }
    ASSERT_TRUE(history.written(PATIENCE_MS));
    {
        std::ofstream file(directory_ + "/history.db", std::ios::in | std::ios::out | std::ios::binary);
        for (int page = 0; page < 400; page++) {
            file.seekp(page * 4096);
            file << std::string(4096, 'x');
        }
        std::ofstream wal(directory_ + "/history.db-wal", std::ios::in | std::ios::out | std::ios::binary);
        wal << std::string(1 << 20, 'x');
    }
    uint64_t id = 0;
    for (int i = 0; i < 1000 && said().empty(); i++) {
        id = tell(history, "b", WAITING, ENABLED, 0);
        ASSERT_TRUE(history.written(PATIENCE_MS));
        (void)history.since(0, "", 10'000);
    }
    ASSERT_FALSE(said().empty());
    EXPECT_THAT(said()[0], HasSubstr("set aside"));
    id = tell(history, "b", WAITING, ENABLED, 0);
    ASSERT_TRUE(history.written(PATIENCE_MS));
    EXPECT_EQ(ids(history.since(id - 1, "", 10)), std::vector<uint64_t>{id});
    EXPECT_EQ(history.history("a", 0, INT64_MAX, 1)["counters"]["changes"], 2000);
}

TEST_F(HistoryTest, ADirectoryThatComesLaterCostsNothing)
{
    tell(*std::make_unique<link_history>(options()), "a", WAITING, ENABLED, 0);
    std::filesystem::rename(directory_, directory_ + ".away");
    pass(MINUTE);
    link_history history(options());
    ASSERT_EQ(said().size(), 1U) << "said once";
    pass(MINUTE);
    const uint64_t id = tell(history, "b", WAITING, ENABLED, MINUTE);
    const uint64_t next = tell(history, "a", WAITING, DISABLED, MINUTE);
    EXPECT_THAT(ids(history.since(0, "", 10)), ElementsAre(id, next));
    std::filesystem::rename(directory_ + ".away", directory_);
    ASSERT_TRUE(history.written(PATIENCE_MS));
    EXPECT_THAT(ids(history.since(0, "", 10)), ElementsAre(1, id, next));
    EXPECT_EQ(history.history("a", 0, INT64_MAX, 10)["counters"]["changes"], 2);
    EXPECT_EQ(history.history("b", 0, INT64_MAX, 10)["counters"]["waiting_us"], MINUTE);
    EXPECT_EQ(said().size(), 2U) << "and that it is well again";
}

TEST_F(HistoryTest, ForgetsWhatIsTooOldButNotTheSums)
{
    auto wanted = options();
    wanted.days = 2;
    wanted.tidy_every_ms = 0;
    link_history history(wanted);
    tell(history, "a", WAITING, ENABLED, 0);
    tell(history, "old", WAITING, GONE, SECOND);
    pass(3 * DAY);
    const uint64_t kept = tell(history, "a", ENABLED, DISABLED, 3 * DAY);
    for (int i = 0; i < 5000 && history.since(0, "", 10).size() > 1; i++) {
        (void)history.written(PATIENCE_MS);
    }
    EXPECT_THAT(ids(history.since(0, "", 10)), ElementsAre(kept));
    EXPECT_EQ(history.history("a", 0, INT64_MAX, 1)["counters"]["enabled_us"], 3 * DAY);
    EXPECT_DOUBLE_EQ(history.history("a", 0, INT64_MAX, 1)["availability"]["day"], 1.0);
    EXPECT_EQ(history.history("old", 0, INT64_MAX, 1)["counters"]["changes"], 0);
}

TEST_F(HistoryTest, ForgetsTheOldestWhenTheFileIsTooLarge)
{
    auto wanted = options();
    wanted.max_mib = 1;
    wanted.tidy_every_ms = 1000; // of the test's clock
    link_history history(wanted);
    uint64_t last = 0;
    for (int i = 0; i < 10'000; i++) {
        last = tell(history, "a", i % 2 == 0 ? DISABLED : ENABLED, i % 2 == 0 ? ENABLED : DISABLED, SECOND,
                    std::string(200, 'r'));
        pass(SECOND);
        if (i % 500 == 0) {
            ASSERT_TRUE(history.written(PATIENCE_MS));
        }
    }
    for (int i = 0; i < 20; i++) {
        pass(2 * SECOND);
        last = tell(history, "a", ENABLED, ENABLED, 0);
        ASSERT_TRUE(history.written(PATIENCE_MS));
    }
    const auto kept = history.since(0, "", 100'000);
    EXPECT_LT(kept.size(), 6000U);
    EXPECT_GT(kept.size(), 500U);
    EXPECT_EQ(kept.back().id, last);
    EXPECT_LT(std::filesystem::file_size(directory_ + "/history.db"), 3U << 20);
}

TEST_F(HistoryTest, SamplesAreThinnedOutWithAge)
{
    auto wanted = options();
    wanted.tidy_every_ms = 60'000; // of the test's clock
    link_history history(wanted);
    tell(history, "a", WAITING, ENABLED, 0);
    tell(history, "b", WAITING, ENABLED, 0);
    const int64_t begin = now().real_us;
    constexpr int HOURS = 72;
    for (int i = 0; i < HOURS * 60 * 4; i++) {
        pass(15 * SECOND);
        const auto spread = static_cast<uint64_t>(i % 7);
        history.measured({"a", now().real_us, 1000 + spread, 2000, 3000 + spread, 5});
        history.measured({"b", now().real_us, 1, 1, 1, 1});
        if (i % 60 == 0) {
            ASSERT_TRUE(history.written(PATIENCE_MS));
        }
    }
    ASSERT_TRUE(history.written(PATIENCE_MS));
    const int64_t end = now().real_us;
    // A day in 96 points: every sample is in one of them, once.
    const auto day = history.samples("a", end - DAY, end, 96);
    EXPECT_EQ(day.size(), 96U);
    uint64_t valid = 0;
    for (const auto &point : day) {
        valid += point["valid"].get<uint64_t>();
        EXPECT_EQ(point["avg_us"], 2.0);
        if (point["valid"] >= 50) { // all seven kinds are among them
            EXPECT_EQ(point["min_us"], 1.0);
            EXPECT_EQ(point["max_us"], 3.006);
        }
    }
    EXPECT_NEAR(static_cast<double>(valid), 24 * 60 * 4 * 5, 4 * 5);
    // The newest minutes as they came, the oldest day as quarters of an hour.
    EXPECT_EQ(history.samples("a", end - 5 * MINUTE + 1, end, 1000).size(), 20U);
    const auto oldest = history.samples("a", begin, begin + 12 * HOUR, 10'000);
    EXPECT_NEAR(static_cast<double>(oldest.size()), 12 * 4, 1);
    EXPECT_EQ(history.samples("a", end - HOUR, end, 2).size(), 2U);
    EXPECT_TRUE(history.samples("a", end, begin, 2).empty());
    EXPECT_GE(history.samples("a", 0, INT64_MAX, 1000).size(), 70U) << "all of three days, of thirty in 1000 points";
}

// ---- Sums against a model that knows every moment

class Model
{
public:
    void was(link_state state, int64_t since, int64_t until)
    {
        if (until > since && state != GONE) {
            spans_.push_back({state, since, until});
        }
    }
    std::pair<int64_t, int64_t> sums(int64_t from, int64_t to) const
    {
        int64_t enabled = 0, watched = 0;
        for (const auto &[state, since, until] : spans_) {
            const int64_t inside = std::min(until, to) - std::max(since, from);
            if (inside > 0) {
                watched += inside;
                enabled += state == ENABLED ? inside : 0;
            }
        }
        return {enabled, watched};
    }

private:
    std::vector<std::tuple<link_state, int64_t, int64_t>> spans_;
};

class HistoryWalk : public HistoryTest, public testing::WithParamInterface<unsigned>
{
};

TEST_P(HistoryWalk, AgreesWithAModelThatKnowsEveryMoment)
{
    std::mt19937 random(GetParam());
    const auto any = [&](int64_t from, int64_t to) { return std::uniform_int_distribution<int64_t>(from, to)(random); };
    struct one {
        link_state state = GONE;
        int64_t since = 0; // as the keeper knows it, by the clock that goes on
        Model model;
        uint64_t changes = 0, flaps = 0;
    };
    std::map<std::string, one> links;
    auto wanted = options();
    wanted.days = 100'000; // nothing is forgotten
    auto history = std::make_unique<link_history>(wanted);
    for (int step = 0; step < 400; step++) {
        pass(any(0, 3) == 0 ? any(1, 5 * DAY) : any(1, 20 * MINUTE));
        const int64_t at = now().boot_us;
        one &link = links["link" + std::to_string(any(0, 3))];
        const std::string &name =
            std::find_if(links.begin(), links.end(), [&](auto &e) { return &e.second == &link; })->first;
        switch (any(0, 9)) {
        case 0: // the program ends and begins again some time later
            for (auto &[other, each] : links) {
                each.model.was(each.state, each.since, at);
                each.state = GONE;
            }
            history.reset();
            pass(any(0, DAY));
            if (any(0, 1) == 0) {
                set_clock(now().real_us + any(-DAY, DAY));
            }
            history = std::make_unique<link_history>(wanted);
            for (auto &[other, each] : links) {
                each.state = WAITING;
                each.since = now().boot_us;
                tell(*history, other, GONE, WAITING, 0);
                each.changes++;
            }
            break;
        case 1:
            set_clock(now().real_us + any(-DAY, DAY));
            break;
        default: {
            const auto to = static_cast<link_state>(any(0, LINK_STATES - 1));
            link.model.was(link.state, link.since, at);
            link.changes++;
            link.flaps += link.state == ENABLED && to != ENABLED && to != GONE ? 1U : 0U;
            tell(*history, name, link.state, to, at - link.since);
            link.state = to;
            link.since = at;
        }
        }
        if (any(0, 2) == 0) {
            ASSERT_TRUE(history->written(PATIENCE_MS));
        }
        const int64_t end = now().boot_us;
        for (auto &[other, each] : links) {
            Model model = each.model;
            model.was(each.state, each.since, end);
            const auto answer = history->history(other, INT64_MIN, INT64_MAX, 1);
            const auto [enabled, watched] = model.sums(INT64_MIN, INT64_MAX);
            ASSERT_EQ(answer["counters"]["enabled_us"], enabled) << step;
            ASSERT_EQ(answer["counters"]["watched_us"], watched) << step;
            ASSERT_EQ(answer["counters"]["changes"], each.changes);
            ASSERT_EQ(answer["counters"]["flaps"], each.flaps);
            ASSERT_EQ(answer["flaps"], each.flaps);
            for (const auto &[window, length] :
                 std::map<std::string, int64_t>{{"hour", HOUR}, {"day", DAY}, {"month", 30 * DAY}}) {
                const auto [good, all] = model.sums(end - length, end);
                ASSERT_EQ(answer["availability"]["watched_us"][window], all) << step << " " << window;
                if (all > 0) {
                    ASSERT_DOUBLE_EQ(answer["availability"][window],
                                     static_cast<double>(good) / static_cast<double>(all));
                } else {
                    ASSERT_TRUE(answer["availability"][window].is_null());
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, HistoryWalk, testing::Range(1U, 7U));

} // namespace
} // namespace linkd
