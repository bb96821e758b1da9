/* What a mailbox takes from other processes under a policy, and that whoever is let in gets in at once. */
#include "itcd_fixture.hpp"

#include "ns.h"
#include "raw_client.hpp"

#include <csignal>
#include <fstream>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace itc_test;

namespace
{

constexpr uid_t DAEMON = 1; // users that every Debian has
constexpr uid_t GAMES = 5;
constexpr uid_t NOBODY = 65534;

constexpr uint32_t FROM_SERVER = 0x7001; // .. 0x7005
constexpr uint32_t FROM_OPERATOR = 0x7006;
constexpr uint32_t FROM_SELF = 0x7010;
constexpr uint32_t FREE = 0x7020;
constexpr uint32_t OPEN = 0x7031;
constexpr uint32_t OPENED = 0x7032;
constexpr uint32_t REFUSED = 0x7033;
constexpr uint32_t CLOSED = 0x7034;
constexpr uint32_t LARGEST = 100000;

constexpr char POLICY[] = R"(
[connect]
users = ["daemon", "games", "nobody"]

[[name]]
name = "receiver"
users = []

[[name]]
name = "server"
users = ["daemon"]

[[door]]
name = "receiver"
largest = 100000

[[door.only]]
numbers = [[0x7001, 0x7005]]
from = ["server"]

[[door.only]]
numbers = [0x7006]
users = ["games"]

[[door.only]]
numbers = [0x7010]
from = "self"

[[door.share]]
opens = 0x7031
opened = 0x7032
refused = 0x7033
closed = 0x7034
session_at = 4
at_most = 1
users = ["daemon"]

[[door.share]]
opens = 0x7031
opened = 0x7032
refused = 0x7033
closed = 0x7034
session_at = 4
at_most = 1
users = ["games"]
)";

void become(uid_t user)
{
    if (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0) {
        _exit(97);
    }
}

void send_to(uint32_t to, uint32_t msgno, uint32_t word = 0, size_t size = 8)
{
    itc_msg *msg = itc_alloc(size, msgno);
    memcpy(msg + 1, &word, sizeof word);
    itc_send(&msg, to, ITC_MY_MBOX);
}

uint32_t take(itc_msg *msg)
{
    const uint32_t msgno = msg == nullptr ? 0 : msg->msgno;
    itc_free(&msg);
    return msgno;
}

// What was dropped since the test began.
itc_statistics at_begin;

itc_statistics statistics()
{
    itc_statistics now{};
    itc_get_statistics(&now);
    now.dropped_refused -= at_begin.dropped_refused;
    now.dropped_too_large -= at_begin.dropped_too_large;
    return now;
}

// Sends that number and then a free one, as that user under that name; stays until it is killed.
int say(uid_t user, const char *name, uint32_t msgno, size_t size = 8)
{
    become(user);
    join(name);
    const uint32_t to = await("receiver");
    send_to(to, msgno, 0, size);
    send_to(to, FREE);
    receive_any();
    return 0;
}

class Door : public ItcTest
{
protected:
    void SetUp() override
    {
        ItcTest::SetUp();
        itc_get_statistics(&at_begin);
        mkdir("/run/policy.d", 0755);
        std::ofstream("/run/policy.d/test.toml") << POLICY;
        start_registry({"--policy", "/run/policy.d"});
    }

    // What arrives when somebody says that number: itself, or the free one that follows it.
    static uint32_t heard(uid_t user, const char *name, uint32_t msgno, size_t size = 8)
    {
        const Child speaker([=] { return say(user, name, msgno, size); });
        if (receiver == ITC_NO_MBOX) {
            receiver = join("receiver");
        }
        const uint32_t first = take(receive_any());
        if (first != FREE) {
            EXPECT_EQ(take(receive_any()), FREE);
        }
        return first;
    }

    void TearDown() override
    {
        receiver = ITC_NO_MBOX;
        ItcTest::TearDown();
    }

    static inline uint32_t receiver = ITC_NO_MBOX;
};

// ---- Numbers
// ---------------------------------------------------------------------------------------------------------

TEST_F(Door, ANumberThatIsTheServersIsRefusedFromAStrangerCountedAndToldOf)
{
    EXPECT_EQ(heard(NOBODY, "stranger", FROM_SERVER), FREE);
    EXPECT_EQ(statistics().dropped_refused, 1u);
}

TEST_F(Door, ANumberThatIsTheServersIsTakenFromWhoHasItsName)
{
    EXPECT_EQ(heard(DAEMON, "server", FROM_SERVER + 4), FROM_SERVER + 4);
}

TEST_F(Door, ANumberThatIsTheServersIsRefusedFromItsUserUnderAnotherName)
{
    EXPECT_EQ(heard(DAEMON, "another", FROM_SERVER), FREE);
}

TEST_F(Door, ANumberThatIsOfAUserIsTakenFromHimAlone)
{
    EXPECT_EQ(heard(GAMES, "operator", FROM_OPERATOR), FROM_OPERATOR);
}

TEST_F(Door, ANumberThatIsOfAUserIsRefusedFromOthers) { EXPECT_EQ(heard(NOBODY, "stranger", FROM_OPERATOR), FREE); }

TEST_F(Door, ANumberThatIsItsOwnIsRefusedFromEverybodyElse) { EXPECT_EQ(heard(0, "root", FROM_SELF), FREE); }

TEST_F(Door, WhatAProcessSendsItselfAndWhatTheLibraryMakesPassesAlways)
{
    receiver = join("receiver");
    send_to(receiver, FROM_SELF);
    EXPECT_EQ(take(receive_any()), FROM_SELF);
    send_to(receiver, FREE, 0, LARGEST + 1);
    EXPECT_EQ(take(receive_any()), FREE);
    itc_msg *located = itc_alloc(8, FROM_SERVER);
    itc_locate_async("receiver", &located, receiver);
    EXPECT_EQ(take(receive_any()), FROM_SERVER);
    itc_msg *died = itc_alloc(8, FROM_SELF);
    itc_monitor(receiver + 1, &died);
    EXPECT_EQ(take(receive_any()), FROM_SELF);
    EXPECT_EQ(statistics().dropped_refused, 0u);
}

TEST_F(Door, AMailboxThatHasNoDoorTakesEverything)
{
    const Child stranger([] {
        become(NOBODY);
        join("stranger");
        const uint32_t to = await("other");
        send_to(to, FROM_SERVER);
        send_to(to, FROM_SELF, 0, 2 * LARGEST);
        receive_any();
        return 0;
    });
    join("other");
    EXPECT_EQ(take(receive_any()), FROM_SERVER);
    EXPECT_EQ(take(receive_any()), FROM_SELF);
}

TEST_F(Door, ADoorHoldsForANameThatTheMailboxGetsLater)
{
    const Child stranger([] { return say(NOBODY, "stranger", FROM_SERVER); });
    const uint32_t own = join("first");
    ASSERT_EQ(itc_add_name(own, "receiver"), 0);
    EXPECT_EQ(take(receive_any()), FREE);
}

// ---- Who is let in gets in at once
// -----------------------------------------------------------------------------------

// Says its number the moment it has its name, and ends.
int serve_shortly(uint32_t word)
{
    become(DAEMON);
    if (itc_init(2, 0, nullptr, nullptr, 0) != 0 || itc_create_mailbox("before", 0) == ITC_NO_MBOX) {
        return 1;
    }
    const uint32_t to = await("receiver");
    if (itc_create_mailbox("server", 0) == ITC_NO_MBOX) {
        return 2;
    }
    itc_msg *msg = itc_alloc(8, FROM_SERVER);
    memcpy(msg + 1, &word, sizeof word);
    itc_send(&msg, to, itc_locate("server"));
    itc_exit();
    return 0;
}

// Refused numbers without end, so that the receiver is always in the middle of refusing one.
int flood()
{
    become(NOBODY);
    join("stranger");
    const uint32_t to = await("receiver");
    for (;;) {
        for (int i = 0; i < 100; i++) {
            send_to(to, FROM_SERVER);
        }
        usleep(100);
    }
}

TEST_F(Door, AServerThatComesAndGoesIsHeardEveryTimeWhileAStrangerFloods)
{
    const Child stranger([] { return flood(); });
    const Child servers([] {
        for (uint32_t word = 1; word <= 50; word++) {
            Child server([word] { return serve_shortly(word); });
            if (server.finish() != 0) {
                return 1;
            }
        }
        return 0;
    });
    join("receiver");
    for (uint32_t word = 1; word <= 50; word++) {
        itc_msg *msg = receive_any();
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(msg->msgno, FROM_SERVER);
        uint32_t got = 0;
        memcpy(&got, msg + 1, sizeof got);
        EXPECT_EQ(got, word);
        itc_free(&msg);
    }
    EXPECT_GT(statistics().dropped_refused, 0u);
}

TEST_F(Door, WhatADeadServerHadSentIsTakenAlsoWhenAnotherHasItsName)
{
    const Gate sent;
    const Gate again;
    const Child first([&] {
        become(DAEMON);
        join("server");
        const uint32_t to = await("receiver");
        for (uint32_t i = 0; i < 5; i++) {
            send_to(to, FROM_SERVER + i);
        }
        itc_exit();
        sent.open();
        return 0;
    });
    const Child second([&] {
        become(DAEMON);
        if (!sent.wait()) {
            return 1;
        }
        join("server");
        send_to(await("receiver"), FREE);
        again.open();
        receive_any();
        return 0;
    });
    join("receiver");
    ASSERT_TRUE(again.wait()); // nothing is read before both have sent
    for (uint32_t i = 0; i < 5; i++) {
        EXPECT_EQ(take(receive(FROM_SERVER + i)), FROM_SERVER + i);
    }
}

// ---- Sizes
// -----------------------------------------------------------------------------------------------------------

TEST_F(Door, AMessageOfTheLargestSizeIsTaken) { EXPECT_EQ(heard(NOBODY, "stranger", FREE + 1, LARGEST), FREE + 1); }

TEST_F(Door, AMessageThatIsOneByteLargerIsRefusedAndWhatFollowsItIsTaken)
{
    EXPECT_EQ(heard(NOBODY, "stranger", FREE + 1, LARGEST + 1), FREE);
    EXPECT_EQ(statistics().dropped_too_large, 1u);
}

// ---- Sessions
// --------------------------------------------------------------------------------------------------------

// Asks for a session whenever the gate is opened, until it is killed.
int ask(uid_t user, const char *name, const Gate &gate)
{
    become(user);
    join(name);
    const uint32_t to = await("receiver");
    while (gate.wait()) {
        send_to(to, OPEN);
        send_to(to, FREE);
    }
    return 0;
}

// Whether the request for a session came through; whom from.
uint32_t opening()
{
    itc_msg *msg = receive_any();
    const uint32_t from = msg != nullptr && msg->msgno == OPEN ? itc_sender(msg) : ITC_NO_MBOX;
    const bool came = from != ITC_NO_MBOX;
    itc_free(&msg);
    if (came) {
        EXPECT_EQ(take(receive_any()), FREE);
    }
    return from;
}

TEST_F(Door, WhoIsInNoShareOpensNoSession)
{
    const Gate gate;
    const Child stranger([&] { return ask(NOBODY, "stranger", gate); });
    join("receiver");
    gate.open();
    EXPECT_EQ(opening(), ITC_NO_MBOX);
    EXPECT_EQ(statistics().dropped_refused, 1u);
}

TEST_F(Door, RootIsOneOfAllPeople)
{
    const Gate gate;
    const Child root([&] { return ask(0, "root", gate); });
    join("receiver");
    gate.open();
    EXPECT_NE(opening(), ITC_NO_MBOX);
}

TEST_F(Door, AUserThatHasItsSessionKeepsNobodyElseOut)
{
    const Gate silent;
    const Gate greedy;
    const Gate honest;
    const Child first([&] { return ask(DAEMON, "silent", silent); });
    const Child second([&] { return ask(DAEMON, "greedy", greedy); });
    const Child third([&] { return ask(GAMES, "honest", honest); });
    join("receiver");
    silent.open();
    const uint32_t client = opening();
    ASSERT_NE(client, ITC_NO_MBOX);
    send_to(client, OPENED, 1);
    greedy.open();
    EXPECT_EQ(opening(), ITC_NO_MBOX);
    silent.open(); // nor has it a second one
    EXPECT_EQ(opening(), ITC_NO_MBOX);
    honest.open();
    EXPECT_NE(opening(), ITC_NO_MBOX);
}

TEST_F(Door, ASessionThatWasRefusedOrClosedLeavesRoomForTheNextAndOneThatWasNotDoesNot)
{
    const Gate one;
    const Gate two;
    const Child first([&] { return ask(DAEMON, "one", one); });
    const Child second([&] { return ask(DAEMON, "two", two); });
    join("receiver");
    one.open();
    uint32_t client = opening();
    ASSERT_NE(client, ITC_NO_MBOX);
    send_to(client, REFUSED);
    two.open();
    const uint32_t other = opening();
    ASSERT_NE(other, ITC_NO_MBOX);
    send_to(other, OPENED, 7);
    send_to(client, CLOSED, 7); // not to him who has it
    send_to(other, CLOSED, 8);  // not the one he has
    one.open();
    EXPECT_EQ(opening(), ITC_NO_MBOX);
    send_to(other, CLOSED, 7);
    one.open();
    client = opening();
    EXPECT_NE(client, ITC_NO_MBOX);
}

TEST_F(Door, ASessionEndsWithItsClient)
{
    const Gate one;
    const Gate two;
    const Child second([&] { return ask(DAEMON, "two", two); });
    Child first([&] { return ask(DAEMON, "one", one); });
    join("receiver");
    one.open();
    const uint32_t client = opening();
    ASSERT_NE(client, ITC_NO_MBOX);
    send_to(client, OPENED, 1);
    itc_msg *died = itc_alloc(8, FREE + 2);
    itc_monitor(client, &died);
    first.kill();
    EXPECT_EQ(take(receive(FREE + 2)), FREE + 2);
    two.open();
    EXPECT_NE(opening(), ITC_NO_MBOX);
}

TEST_F(Door, SessionsAreOverWhenTheServiceIsWithdrawn)
{
    const Gate one;
    const Gate two;
    const Child first([&] { return ask(DAEMON, "one", one); });
    const Child second([&] { return ask(DAEMON, "two", two); });
    const uint32_t own = join("receiver");
    ASSERT_EQ(ns_publish("service", "", own, ""), 0);
    one.open();
    const uint32_t client = opening();
    ASSERT_NE(client, ITC_NO_MBOX);
    send_to(client, OPENED, 1);
    ASSERT_EQ(ns_unpublish("service", "", own, ""), 0);
    two.open();
    EXPECT_NE(opening(), ITC_NO_MBOX);
}

} // namespace
