/* What one user can take of the registry: a real registry, a user who takes all he can, and others beside him. */
#include "itcd_fixture.hpp"

#include "itc_wire.hpp"
#include "raw_client.hpp"

#include <cerrno>
#include <dirent.h>
#include <fstream>
#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace itc_test;

namespace
{

constexpr uid_t greedy = 65534;

void become_greedy()
{
    if (setgroups(0, nullptr) != 0 || setgid(greedy) != 0 || setuid(greedy) != 0) {
        _exit(97);
    }
}

// The memory of a process that is its own, in KiB.
long resident(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    while (status >> word) {
        if (word == "RssAnon:") {
            long kib = 0;
            status >> kib;
            return kib;
        }
    }
    return -1;
}

size_t descriptors(pid_t pid)
{
    DIR *directory = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    size_t count = 0;
    while (readdir(directory) != nullptr) {
        count++;
    }
    closedir(directory);
    return count;
}

// How many connections are welcomed before one is refused, and with what. They stay in `all`.
size_t connect_until_refused(std::vector<int> &all, uint32_t *error)
{
    for (size_t welcome = 0; welcome < 2000; welcome++) {
        const int fd = raw_connect();
        write_all(fd, frame(HELLO, 0, words({itc_wire::version})));
        const Bytes answer = read_frame(fd);
        all.push_back(fd);
        if (answer.size() != 16 || word_at(answer, 4) != WELCOME) {
            *error = answer.size() == 16 && word_at(answer, 4) == REFUSED ? word_at(answer, 12) : 0;
            return welcome;
        }
    }
    return 2000;
}

class ItcBounds : public ItcTest
{
protected:
    void SetUp() override
    {
        ItcTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        rlimit limit{};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = limit.rlim_max;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        start_registry({"--allow-user", "nobody"});
    }
};

TEST_F(ItcBounds, AUserHasABoundOfConnectionsAndTheOthersStillGetIn)
{
    Gate full;
    Gate seen;
    Child user([&] {
        become_greedy();
        std::vector<int> all;
        uint32_t error = 0;
        const size_t welcome = connect_until_refused(all, &error);
        full.open();
        return seen.wait() && welcome == 512 && error == EAGAIN ? 0 : 1;
    });
    ASSERT_TRUE(full.wait());
    EXPECT_NE(join("honest"), ITC_NO_MBOX);
    seen.open();
    EXPECT_EQ(user.finish(), 0);
    EXPECT_NE(registry_says().find("itcd: too many processes of user 65534, one turned away\n"), std::string::npos);
}

TEST_F(ItcBounds, WithFewDescriptorsAUserGetsItsShareAndIsToldAndTheOthersMeetEachOther)
{
    const rlimit few{64, 64};
    ASSERT_EQ(prlimit(registry, RLIMIT_NOFILE, &few, nullptr), 0);
    Gate full;
    Gate seen;
    Child user([&] {
        become_greedy();
        std::vector<int> all;
        uint32_t error = 0;
        const size_t welcome = connect_until_refused(all, &error);
        full.open();
        return seen.wait() && welcome > 10 && welcome < 32 && error == EAGAIN ? 0 : 1;
    });
    ASSERT_TRUE(full.wait());
    uint32_t first = 0;
    uint32_t second = 0;
    const int one = raw_join(&first);
    const int other = raw_join(&second);
    const uint32_t mbox = raw_create(other, second, "other");
    const int channel = raw_channel(one, mbox);
    EXPECT_GE(channel, 0);
    seen.open();
    EXPECT_EQ(user.finish(), 0);
    close(channel);
    close(one);
    close(other);
}

TEST_F(ItcBounds, WhoeverSaysNoHelloIsDisconnected)
{
    const uint32_t own = join("own");
    const int silent = raw_connect();
    const int slow = raw_connect();
    write_all(slow, {16, 0});
    EXPECT_TRUE(ended(silent));
    EXPECT_TRUE(ended(slow));
    EXPECT_EQ(itc_locate("own"), own);
    EXPECT_NE(registry_says().find("disconnecting process 0 (user 0): says no hello\n"), std::string::npos);
    close(silent);
    close(slow);
}

TEST_F(ItcBounds, NamesOfAUserAreCountedOverAllItsProcessesAndOthersHaveTheirOwn)
{
    Gate full;
    Gate seen;
    Child user([&] {
        become_greedy();
        size_t given = 0;
        uint32_t error = 0;
        for (int i = 0; i < 5 && error == 0; i++) {
            uint32_t process = 0;
            const int fd = raw_join(&process);
            const uint32_t mbox = raw_create(fd, process, "first of " + std::to_string(i));
            given++;
            for (int j = 0; j < 8000 && error == 0; j++) {
                write_all(fd, frame(4, 1, word_and_text(mbox, std::to_string(i) + "-" + std::to_string(j))));
                error = word_at(read_frame(fd), 12);
                given += error == 0 ? 1 : 0;
            }
        }
        full.open();
        return seen.wait() && given == 16384 && error == ENOSPC ? 0 : 1;
    });
    ASSERT_TRUE(full.wait());
    EXPECT_NE(join("honest"), ITC_NO_MBOX);
    EXPECT_EQ(itc_add_name(itc_current_mbox(), "another"), 0);
    seen.open();
    EXPECT_EQ(user.finish(), 0);
}

// Everything that a user may have, over several processes, with texts as long as they may be.
void take_everything(std::vector<int> &all)
{
    const std::string tail(200, 'x');
    for (uint32_t i = 0; i < 8; i++) {
        uint32_t process = 0;
        const int fd = raw_join(&process);
        all.push_back(fd);
        const uint32_t mbox = raw_create(fd, process, "greedy " + std::to_string(i));
        for (uint32_t j = 1; j <= 2000; j++) {
            const std::string name = std::to_string(i) + " " + std::to_string(j) + tail;
            Bytes service = words({mbox});
            Bytes subscription = words({mbox, j});
            for (const std::string &text : {name, tail, tail}) {
                put_text(service, text);
            }
            for (const std::string &text : {name, tail}) {
                put_text(subscription, text);
            }
            Bytes awaited;
            put_text(awaited, name + "?");
            write_all(fd, frame(4, 1, word_and_text(mbox, name)));
            write_all(fd, frame(12, 1, service));
            write_all(fd, frame(14, 1, subscription));
            write_all(fd, frame(AWAIT, j, awaited));
            write_all(fd, frame(MONITOR, j + 10000, words({mbox})));
            for (int answers = 0; answers < 3;) {
                const Bytes answer = read_frame(fd);
                if (answer.empty()) {
                    return; // too much, and so disconnected
                }
                answers += word_at(answer, 4) == RESULT ? 1 : 0;
            }
        }
    }
}

TEST_F(ItcBounds, WhatAUserTakesIsBoundedAndGivenBackWhenItGoes)
{
#ifdef KAP_SANITIZED
    GTEST_SKIP() << "a sanitizer keeps its own books, and what was freed";
#endif
    uint32_t process = 0;
    const int witness = raw_join(&process);
    const long before = resident(registry);
    const size_t open_before = descriptors(registry);
    Gate full;
    Gate seen;
    Child user([&] {
        become_greedy();
        std::vector<int> all;
        take_everything(all);
        full.open();
        return seen.wait() ? 0 : 1;
    });
    ASSERT_TRUE(full.wait());
    EXPECT_GT(resident(registry), before + 4 * 1024);
    EXPECT_LT(resident(registry), before + 64 * 1024);
    seen.open();
    EXPECT_EQ(user.finish(), 0);
    EXPECT_TRUE(eventually([&] { return resident(registry) < before + 4 * 1024; }))
        << before << " KiB before, " << resident(registry) << " after";
    EXPECT_TRUE(eventually([&] { return descriptors(registry) == open_before; }));
    close(witness);
}

TEST_F(ItcBounds, WhoWantsToMeetABusyProcessComesBeforeMostOfThoseThatOneOtherUserHasWaiting)
{
    uint32_t process = 0;
    const int busy = raw_join(&process);
    const uint32_t mbox = raw_create(busy, process, "busy");
    Gate full;
    Gate seen;
    Child user([&] {
        become_greedy();
        Bytes name;
        put_text(name, "busy");
        std::vector<int> all;
        for (int i = 0; i < 300; i++) {
            uint32_t number = 0;
            all.push_back(raw_join(&number));
            write_all(all.back(), frame(LOCATE, 1, name));
            while (word_at(read_frame(all.back()), 4) != LOCATED) {
            }
        }
        full.open();
        return seen.wait() ? 0 : 1;
    });
    ASSERT_TRUE(full.wait());
    uint32_t honest = 0;
    const int fd = raw_join(&honest);
    write_all(fd, frame(INTRODUCE, 0, words({mbox >> 12})));
    int met_before = 0;
    for (bool met = false; !met; met_before++) {
        int channel = -1;
        const Bytes told = read_frame(busy, &channel);
        ASSERT_EQ(word_at(told, 4), CHANNEL);
        close(channel);
        met = word_at(told, 12) == honest;
    }
    EXPECT_LT(met_before, 50);
    seen.open();
    EXPECT_EQ(user.finish(), 0);
    close(fd);
    close(busy);
}

} // namespace
