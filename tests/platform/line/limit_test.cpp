// How many lines of a kind are written, with a clock that the test drives.
#include "limit.hpp"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace
{

constexpr int64_t SECOND = 1'000'000'000;
constexpr int64_t START = 5 * SECOND;

struct Limit : testing::Test {
    line::limiter limits;
    const char *file = "a.cpp";

    bool admit(uint32_t detail, int64_t now, const std::string &text = "text")
    {
        return line::admit(limits, {file, detail}, 6, "a.cpp:1", text.c_str(), now);
    }
    // How many of `lines` are let through.
    unsigned let_through(unsigned lines, uint32_t detail, int64_t now)
    {
        unsigned passed = 0;
        for (unsigned i = 0; i < lines; i++) {
            passed += admit(detail, now, "line " + std::to_string(i)) ? 1 : 0;
        }
        return passed;
    }
    // What is told, as "COUNT LEVEL ORIGIN TEXT".
    std::vector<std::string> told(line::when_told when, int64_t now)
    {
        std::vector<std::string> all;
        line::told t;
        while (line::take_told(limits, when, now, &t)) {
            all.push_back(std::to_string(t.count) + " " + std::to_string(t.level) + " " + t.origin + " " + t.text);
        }
        return all;
    }
    std::vector<std::string> told(int64_t now) { return told(line::when_told::SECOND_IS_OVER, now); }
};

using strings = std::vector<std::string>;

TEST_F(Limit, LetsAHundredLinesOfAKindThroughInASecond)
{
    EXPECT_EQ(let_through(100, 1, START), 100u);
    EXPECT_FALSE(admit(1, START));
    EXPECT_FALSE(admit(1, START + SECOND - 1));
}

TEST_F(Limit, HidesNoOtherKind)
{
    EXPECT_EQ(let_through(1000, 1, START), 100u);
    EXPECT_TRUE(admit(2, START));
    file = "b.cpp";
    EXPECT_TRUE(admit(1, START));
}

TEST_F(Limit, TellsOnceHowManyMoreThereWereAndTheFirstOfThem)
{
    let_through(350, 1, START);
    EXPECT_EQ(told(START + SECOND - 1), strings{}) << "its second is not over";
    EXPECT_EQ(told(START + SECOND), strings{"250 6 a.cpp:1 line 100"});
    EXPECT_EQ(told(START + 9 * SECOND), strings{});
}

TEST_F(Limit, TellsAtAnyTimeWhenTheProcessEnds)
{
    let_through(101, 1, START);
    EXPECT_EQ(told(line::when_told::ANY_TIME, START), strings{"1 6 a.cpp:1 line 100"});
}

TEST_F(Limit, BeginsAnewWhenTheSecondIsOver)
{
    let_through(200, 1, START);
    told(START + SECOND);
    EXPECT_EQ(let_through(200, 1, START + SECOND), 100u);
    EXPECT_EQ(told(START + 2 * SECOND), strings{"100 6 a.cpp:1 line 100"});
}

TEST_F(Limit, ForgetsNothingOfASecondThatNobodyAskedFor)
{
    let_through(200, 1, START);
    EXPECT_EQ(let_through(50, 1, START + 3 * SECOND), 0u) << "what was counted is told first";
    EXPECT_EQ(told(START + 3 * SECOND), strings{"150 6 a.cpp:1 line 100"});
    EXPECT_EQ(let_through(50, 1, START + 3 * SECOND), 50u);
}

TEST_F(Limit, CutsWhatItKeepsOfALongLine)
{
    let_through(100, 1, START);
    admit(1, START, std::string(5000, 'x'));
    const strings all = told(START + SECOND);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0], "1 6 a.cpp:1 " + std::string(sizeof line::told::text - 1, 'x'));
}

TEST_F(Limit, LetsAllThroughThatItCannotCount)
{
    for (uint32_t kind = 0; kind < line::KINDS; kind++) {
        EXPECT_EQ(let_through(101, kind, START), 100u);
    }
    EXPECT_EQ(let_through(500, line::KINDS, START), 500u);
    EXPECT_EQ(told(START + SECOND).size(), line::KINDS);
    EXPECT_EQ(let_through(500, line::KINDS, START + SECOND), 100u) << "there is room again";
}

TEST_F(Limit, CountsOrLetsThroughEveryLineOfManyThreads)
{
    std::atomic<unsigned> passed{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&] { passed += let_through(5000, 1, START); });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    line::told t;
    ASSERT_TRUE(line::take_told(limits, line::when_told::ANY_TIME, START, &t));
    EXPECT_EQ(passed + t.count, 20000u);
}

} // namespace
