/* Which process numbers and boxes the registry gives, by a clock that the test winds. */
#include "numbers.hpp"
#include "registry.hpp"

#include <cerrno>
#include <gtest/gtest.h>
#include <set>

namespace
{

constexpr uid_t HONEST = 1000;
constexpr uid_t HASTY = 1001;
constexpr uint32_t NOW_S = 5000;

// Processes of that user that come and go at once, until one is refused. Returns how many there were.
uint32_t come_and_go(uid_t user, uint32_t limit, std::set<uint32_t> *seen = nullptr)
{
    uint32_t count = 0;
    for (; count < limit; count++) {
        const uint32_t number = number_take(user, NOW_S);
        if (number == 0) {
            break;
        }
        if (seen != nullptr && !seen->insert(number).second) {
            ADD_FAILURE() << number << " was given twice";
        }
        number_rest(number, user, NOW_S);
    }
    return count;
}

// What the registry says to the one who asked last.
struct heard final : registry_output {
    uint32_t type = 0;
    uint32_t value = 0;
    std::string doomed;

    void send(registry_client &, itc_wire::writer &frame, int) override
    {
        itc_wire::registry_frame head;
        memcpy(&head, frame.bytes, sizeof head);
        memcpy(&value, frame.bytes + sizeof head, sizeof value);
        type = head.type;
    }

    void doom(registry_client &, const char *why) override { doomed = why; }
    void say(const registry_client &, const char *) override {}
    bool is_behind(const registry_client &) override { return false; }
    bool takes_descriptor(registry_client &) override { return true; }
    void wake(registry_client &) override {}
};

void leave(registry_client &client)
{
    registry_leave(client);
    int budget = 1000000;
    while (registry_has_work(client)) {
        (void)registry_work(client, budget);
    }
}

void say_hello(registry_client &client)
{
    itc_wire::writer hello(itc_wire::hello, 0);
    const std::string_view frame = hello.u32(itc_wire::version).frame();
    itc_wire::registry_frame head;
    memcpy(&head, frame.data(), sizeof head);
    const auto *fields = reinterpret_cast<const uint8_t *>(frame.data()) + sizeof head;
    registry_request(client, head, itc_wire::reader(fields, frame.size() - sizeof head));
}

class Numbers : public ::testing::Test
{
protected:
    void SetUp() override { numbers_start(41); }
};

TEST_F(Numbers, TheFirstIsTheOneAfterWhereItBegins)
{
    EXPECT_EQ(number_take(HONEST, NOW_S), 42u);
    EXPECT_EQ(number_take(HONEST, NOW_S), 43u);
}

TEST_F(Numbers, AfterTheLastComesTheFirstAndNeverNone)
{
    numbers_start(itc_wire::process_limit - 2);
    EXPECT_EQ(number_take(HONEST, NOW_S), itc_wire::process_limit - 1);
    EXPECT_EQ(number_take(HONEST, NOW_S), 1u);
}

TEST_F(Numbers, WhereverItBeginsANumberIsInItsRange)
{
    numbers_start(0xFFFFFFFF);
    const uint32_t number = number_take(HONEST, NOW_S);
    EXPECT_GT(number, 0u);
    EXPECT_LT(number, itc_wire::process_limit);
}

TEST_F(Numbers, OneUsersProcessesGetNoNumberTwiceAndAreRefusedAtAQuarterOfThem)
{
    std::set<uint32_t> seen;
    EXPECT_EQ(come_and_go(HASTY, itc_wire::process_limit, &seen), NUMBERS_AT_REST_LIMIT);
    EXPECT_EQ(number_take(HASTY, NOW_S + NUMBER_REST_S - 1), 0u);
}

TEST_F(Numbers, AUserWhoIsRefusedKeepsNobodyElseOut)
{
    come_and_go(HASTY, itc_wire::process_limit);
    EXPECT_NE(number_take(HONEST, NOW_S), 0u);
}

TEST_F(Numbers, ADayLaterAUserWhoWasRefusedMayComeAgain)
{
    come_and_go(HASTY, itc_wire::process_limit);
    EXPECT_NE(number_take(HASTY, NOW_S + NUMBER_REST_S), 0u);
}

TEST_F(Numbers, ANumberThatRestsIsLeftOutWhenTheOthersHaveGoneRound)
{
    const uint32_t dead_server = number_take(HONEST, NOW_S);
    number_rest(dead_server, HONEST, NOW_S);
    for (uint32_t i = 0; i < itc_wire::process_limit - 2; i++) {
        ASSERT_NE(number_take(HASTY, NOW_S), dead_server);
    }
    EXPECT_EQ(number_take(HASTY, NOW_S), 0u); // all others are in use
    EXPECT_EQ(number_take(HASTY, NOW_S + NUMBER_REST_S), dead_server);
}

TEST_F(Numbers, TheRegistryRefusesWhoSaysHelloTooOftenADayAndWelcomesTheOthers)
{
    heard answers;
    const policy rules;
    registry_start(answers, rules);
    registry_client server;
    server.who.user = HONEST;
    server.of = &share_of(HONEST);
    say_hello(server);
    const uint32_t dead_server = server.process;
    leave(server);
    for (uint32_t i = 0; i < NUMBERS_AT_REST_LIMIT; i++) {
        registry_client hasty;
        hasty.who.user = HASTY;
        hasty.of = &share_of(HASTY);
        say_hello(hasty);
        ASSERT_EQ(answers.type, itc_wire::welcome);
        ASSERT_NE(answers.value, dead_server);
        leave(hasty);
    }
    registry_client hasty;
    hasty.who.user = HASTY;
    hasty.of = &share_of(HASTY);
    say_hello(hasty);
    EXPECT_EQ(answers.type, itc_wire::refused);
    EXPECT_EQ(answers.value, static_cast<uint32_t>(EAGAIN));
    EXPECT_EQ(answers.doomed, "its user's processes came and went too often today");
    EXPECT_EQ(hasty.process, 0u);
    registry_client honest;
    honest.who.user = HONEST;
    honest.of = &share_of(HONEST);
    say_hello(honest);
    EXPECT_EQ(answers.type, itc_wire::welcome);
    leave(honest);
}

TEST_F(Numbers, ABoxThatWasDeletedRestsForADay)
{
    resting_boxes boxes;
    EXPECT_TRUE(box_may_be_used(boxes, 7, NOW_S));
    box_rest(boxes, 7, NOW_S);
    EXPECT_FALSE(box_may_be_used(boxes, 7, NOW_S + NUMBER_REST_S - 1));
    EXPECT_TRUE(box_may_be_used(boxes, 7, NOW_S + NUMBER_REST_S));
    EXPECT_TRUE(box_may_be_used(boxes, 8, NOW_S));
}

} // namespace
