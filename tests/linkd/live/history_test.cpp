// What is left of the history when its process is killed, and when its disk is full.
#include "../history_fixture.hpp"

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <random>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

namespace linkd
{
namespace
{

using testing::HasSubstr;

struct told {
    uint64_t id = 0;
    int64_t boot_us = 0; // when somebody was told of it
};

class HistoryOfAProcess : public HistoryTest
{
protected:
    link_history::options real_options()
    {
        auto wanted = options();
        wanted.clocks = read_clocks;
        wanted.boot = boot_name();
        wanted.write_every_ms = 1000; // as it is used
        return wanted;
    }
};

// Tells changes as fast as it can, each through the pipe once it has its number, until it is killed.
[[noreturn]] void write_until_killed(const link_history::options &wanted, int pipe)
{
    link_history history(wanted);
    for (uint64_t i = 0;; i++) {
        link_change change{0,
                           read_clocks().real_us,
                           {"a", "IDL_A1", 1, ""},
                           i % 2 == 0 ? link_state::disabled : link_state::enabled,
                           i % 2 == 0 ? link_state::enabled : link_state::disabled,
                           "",
                           1,
                           {}};
        history.number(change);
        history.changed(change);
        const told one{change.id, read_clocks().boot_us};
        if (write(pipe, &one, sizeof one) != static_cast<ssize_t>(sizeof one)) {
            _exit(1);
        }
        usleep(200); // not to wait for anything: the kill shall hit all places, not only one full pipe
    }
}

TEST_F(HistoryOfAProcess, LosesNothingOlderThanASecondWhenItIsKilledAndGivesNoNumberTwice)
{
    constexpr int ROUNDS = 3;
    constexpr int64_t WRITTEN_AFTER = 1'500'000; // a second, and what a loaded machine takes to write
    std::mt19937 random(7);
    uint64_t highest = 0;
    for (int round = 0; round < ROUNDS; round++) {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            write_until_killed(real_options(), ends[1]);
        }
        close(ends[1]);
        std::vector<told> all;
        const int64_t end = read_clocks().boot_us + 1'700'000 + static_cast<int64_t>(random() % 600'000);
        told one;
        while (read_clocks().boot_us < end && read(ends[0], &one, sizeof one) == static_cast<ssize_t>(sizeof one)) {
            all.push_back(one);
        }
        const int64_t killed = read_clocks().boot_us;
        ASSERT_EQ(kill(child, SIGKILL), 0);
        ASSERT_EQ(waitpid(child, nullptr, 0), child);
        while (read(ends[0], &one, sizeof one) == static_cast<ssize_t>(sizeof one)) {
            all.push_back(one);
        }
        close(ends[0]);
        ASSERT_FALSE(all.empty());
        EXPECT_GT(all.front().id, highest) << "somebody was told of that number";
        highest = all.back().id;

        history_store store(directory_ + "/history.db", false);
        std::set<uint64_t> written;
        for (const link_change &change : store.since(all.front().id - 1, 0, 1'000'000)) {
            written.insert(change.id);
        }
        size_t old = 0;
        for (const told &each : all) {
            if (killed - each.boot_us > WRITTEN_AFTER) {
                old++;
                ASSERT_EQ(written.count(each.id), 1U) << "told " << killed - each.boot_us << " us before the end";
            }
        }
        EXPECT_GT(old, 0U) << "nothing was old enough to be looked for";
        EXPECT_NO_THROW(store.check());
    }
}

// A disk of its own for this process, as small as that. Tests run one by one, each in a process of its own.
bool mount_disk(const std::string &where, const char *size)
{
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("disk", where.c_str(), "tmpfs", 0, size) == 0;
}

TEST_F(HistoryTest, AFullDiskCostsNothingOnceThereIsRoomAgain)
{
    if (!mount_disk(directory_, "size=4m")) {
        GTEST_SKIP() << "no mount namespace for " << getuid();
    }
    auto wanted = options();
    link_history history(wanted);
    const uint64_t first = tell(history, "a", link_state::waiting, link_state::enabled, 0);
    ASSERT_TRUE(history.written(PATIENCE_MS));
    const std::string filler = directory_ + "/filler";
    const int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string block(4096, 'x');
    while (write(fd, block.data(), block.size()) > 0) {
    }
    close(fd);
    uint64_t last = 0;
    for (int i = 0; i < 3000; i++) {
        last = tell(history, "a", i % 2 == 0 ? link_state::enabled : link_state::disabled,
                    i % 2 == 0 ? link_state::disabled : link_state::enabled, SECOND, std::string(100, 'r'));
        pass(SECOND);
    }
    for (int i = 0; i < 5000 && said().empty(); i++) {
        usleep(1000); // until the writer has tried
    }
    ASSERT_EQ(said().size(), 1U);
    EXPECT_THAT(said()[0], HasSubstr("kept in memory"));
    EXPECT_FALSE(history.written(50)) << "there is no room";
    EXPECT_EQ(history.since(0, "", 10'000).size(), 3001U) << "what is in memory is told too";
    EXPECT_EQ(said().size(), 1U) << "said once";

    ASSERT_EQ(unlink(filler.c_str()), 0);
    ASSERT_TRUE(history.written(PATIENCE_MS));
    EXPECT_EQ(said().size(), 2U);
    const auto all = history.since(0, "", 10'000);
    ASSERT_EQ(all.size(), 3001U);
    EXPECT_EQ(all.front().id, first);
    EXPECT_EQ(all.back().id, last);
}

TEST_F(HistoryTest, WhileTheDiskIsFullSoMuchIsKeptAndNotMore)
{
    if (!mount_disk(directory_, "size=1m")) {
        GTEST_SKIP() << "no mount namespace for " << getuid();
    }
    std::string block(1 << 20, 'x');
    const int fd = open((directory_ + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    auto wanted = options();
    wanted.changes_in_memory = 100;
    while (write(fd, block.data(), 4096) > 0) { // full before the file is begun
    }
    link_history history(wanted);
    for (int i = 0; i < 1000; i++) {
        pass(SECOND);
        tell(history, "a", i % 2 == 0 ? link_state::disabled : link_state::enabled,
             i % 2 == 0 ? link_state::enabled : link_state::disabled, SECOND);
    }
    EXPECT_LE(history.since(0, "", 10'000).size(), 200U);
    ASSERT_EQ(ftruncate(fd, 0), 0);
    close(fd);
    ASSERT_TRUE(history.written(PATIENCE_MS));
    EXPECT_THAT(said().back(), HasSubstr("without "));
    const auto counters = history.history("a", 0, INT64_MAX, 1)["counters"];
    EXPECT_EQ(counters["changes"], 1000) << "sums are kept whole";
    EXPECT_EQ(counters["enabled_us"], 500 * SECOND);
    EXPECT_EQ(counters["flaps"], 500);
}

} // namespace
} // namespace linkd
