/* Looking at the messages of a process: who may, what is told, and that whoever looks holds nobody up. */
#include "itcd_fixture.hpp"

#include "itc_internal.h"
#include "itc_wire.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <grp.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace itc_test;
using itc_wire::tap_record;

namespace
{

constexpr uint32_t QUESTION = 0x71;
constexpr uint32_t ANSWER = 0x72;
constexpr uint32_t TO_MYSELF = 0x73;
constexpr uint32_t END = 0x74;
constexpr uid_t NOBODY = 65534;
constexpr char NAME[] = "looked-at";

// Answers each question with the size of it, tells itself of it, and ends when it is told to.
int answer_questions()
{
    const uint32_t own = join(NAME);
    for (;;) {
        itc_msg *m = itc_receive(nullptr, 20000, ITC_FROM_ANY);
        if (m == nullptr || m->msgno == END) {
            itc_free(&m);
            itc_exit();
            return 0;
        }
        if (m->msgno == QUESTION) {
            itc_msg *answer = itc_alloc(itc_size(m), ANSWER);
            itc_send(&answer, itc_sender(m), ITC_MY_MBOX);
            itc_msg *note = itc_alloc(sizeof(itc_msg), TO_MYSELF);
            itc_send(&note, own, ITC_MY_MBOX);
        }
        itc_free(&m);
    }
}

struct seen {
    tap_record record{};
    std::vector<uint8_t> bytes;
    uint32_t number() const
    {
        uint32_t value = 0;
        memcpy(&value, bytes.data(), bytes.size() < sizeof value ? 0 : sizeof value);
        return value;
    }
};

uint64_t nanoseconds(const timespec &time)
{
    return static_cast<uint64_t>(time.tv_sec) * 1000000000 + static_cast<uint64_t>(time.tv_nsec);
}

// The next record; nothing at the end of the socket, or after 10 seconds.
std::optional<seen> next(int tap)
{
    pollfd wanted{tap, POLLIN, 0};
    std::vector<uint8_t> packet(65536);
    if (poll(&wanted, 1, 10000) != 1) {
        ADD_FAILURE() << "nothing is told";
        return std::nullopt;
    }
    const ssize_t got = recv(tap, packet.data(), packet.size(), 0);
    if (got < static_cast<ssize_t>(sizeof(tap_record))) {
        EXPECT_LE(got, 0);
        return std::nullopt;
    }
    seen s;
    memcpy(&s.record, packet.data(), sizeof s.record);
    s.bytes.assign(packet.begin() + sizeof s.record, packet.begin() + got);
    return s;
}

class Tap : public ItcTest
{
protected:
    void SetUp() override
    {
        ItcTest::SetUp();
        if (!IsSkipped()) {
            start_registry({"--allow-user", "nobody"});
        }
    }

    void look()
    {
        join("looks");
        server = await(NAME);
        int error = EAGAIN;
        ASSERT_TRUE(eventually([&] { return (error = itc_internal_tap(NAME, &tap)) != EAGAIN; }));
        ASSERT_EQ(error, 0);
        expect_what(itc_wire::tap_begins);
    }

    void expect_what(itc_wire::tap_what what)
    {
        const auto told = next(tap);
        ASSERT_TRUE(told.has_value());
        EXPECT_EQ(told->record.version, itc_wire::tap_version);
        EXPECT_EQ(told->record.what, what);
    }

    void expect_message(itc_wire::tap_what what, uint32_t number, uint32_t other, size_t size)
    {
        const auto told = next(tap);
        ASSERT_TRUE(told.has_value());
        EXPECT_EQ(told->record.what, what);
        EXPECT_EQ(told->record.own, server);
        EXPECT_EQ(told->record.other, other);
        EXPECT_EQ(told->record.length, size);
        EXPECT_EQ(told->record.lost, 0u);
        EXPECT_EQ(told->bytes.size(), std::min(size, itc_wire::tap_most));
        EXPECT_EQ(told->number(), number);
    }

    void ask(size_t size = 8) const
    {
        itc_msg *question = itc_alloc(size, QUESTION);
        itc_send(&question, server, ITC_MY_MBOX);
        itc_msg *answer = receive(ANSWER);
        ASSERT_NE(answer, nullptr);
        EXPECT_EQ(itc_size(answer), size);
        itc_free(&answer);
    }

    void end_it() const
    {
        itc_msg *end = itc_alloc(sizeof(itc_msg), END);
        itc_send(&end, server, ITC_MY_MBOX);
    }

    uint32_t server = ITC_NO_MBOX;
    int tap = -1;
};

} // namespace

TEST_F(Tap, EveryMessageIsToldOnceInTheOrderInWhichTheProcessSawIt)
{
    Child child(answer_questions);
    look();
    ask(20);
    const uint32_t me = itc_current_mbox();
    expect_message(itc_wire::tap_received, QUESTION, me, 20);
    expect_message(itc_wire::tap_sent, ANSWER, me, 20);
    expect_message(itc_wire::tap_received, TO_MYSELF, server, 4);
    end_it();
    expect_message(itc_wire::tap_received, END, me, 4);
    EXPECT_FALSE(next(tap).has_value()) << "the process ends, and its end of the socket with it";
    close(tap);
    EXPECT_EQ(child.finish(), 0);
}

TEST_F(Tap, AStampIsTheRealTime)
{
    Child child(answer_questions);
    look();
    timespec before{};
    clock_gettime(CLOCK_REALTIME, &before);
    ask();
    timespec after{};
    clock_gettime(CLOCK_REALTIME, &after);
    const auto told = next(tap);
    ASSERT_TRUE(told.has_value());
    EXPECT_GE(told->record.stamp, nanoseconds(before));
    EXPECT_LE(told->record.stamp, nanoseconds(after));
    close(tap);
    end_it();
    EXPECT_EQ(child.finish(), 0);
}

TEST_F(Tap, OfALongMessageTheFirstBytesAreToldAndHowLongItIs)
{
    Child child(answer_questions);
    look();
    ask(300000);
    const uint32_t me = itc_current_mbox();
    expect_message(itc_wire::tap_received, QUESTION, me, 300000);
    expect_message(itc_wire::tap_sent, ANSWER, me, 300000);
    close(tap);
    end_it();
    EXPECT_EQ(child.finish(), 0);
}

TEST_F(Tap, AReaderWhoDoesNotReadHoldsNobodyUpAndHearsHowMuchHeMissed)
{
    Child child(answer_questions);
    look();
    constexpr uint64_t QUESTIONS = 3000;
    for (uint64_t i = 0; i < QUESTIONS; i++) {
        ask(2000);
    }
    EXPECT_EQ(shutdown(tap, SHUT_WR), 0); // he wants no more
    uint64_t told = 0;
    uint64_t lost = 0;
    bool ended = false;
    while (const auto s = next(tap)) {
        EXPECT_FALSE(ended) << "nothing comes behind the end";
        ended = s->record.what == itc_wire::tap_ends;
        told += ended ? 0 : 1;
        lost = s->record.lost;
    }
    EXPECT_LT(told, 3 * QUESTIONS);
    if (ended) { // there may have been no room for it
        EXPECT_EQ(told + lost, 3 * QUESTIONS);
        EXPECT_GT(lost, 0u);
    }
    close(tap);
    ask();
    end_it();
    EXPECT_EQ(child.finish(), 0);
}

TEST_F(Tap, TheEndIsSaidWithWhatWasMissedWhenTheReaderHasMadeRoom)
{
    Child child(answer_questions);
    look();
    constexpr uint64_t QUESTIONS = 3000;
    for (uint64_t i = 0; i < QUESTIONS; i++) {
        ask(2000);
    }
    uint64_t told = 0;
    for (pollfd wanted{tap, POLLIN, 0}; poll(&wanted, 1, 0) == 1; told++) {
        ASSERT_TRUE(next(tap).has_value());
    }
    EXPECT_EQ(shutdown(tap, SHUT_WR), 0);
    auto last = next(tap);
    if (last && last->record.what != itc_wire::tap_ends) { // what the process tells itself after its last answer
        told++;
        last = next(tap);
    }
    ASSERT_TRUE(last.has_value());
    EXPECT_EQ(last->record.what, itc_wire::tap_ends);
    // That one may also come when nobody looks any more.
    EXPECT_GE(told + last->record.lost, 3 * QUESTIONS - 1);
    EXPECT_LE(told + last->record.lost, 3 * QUESTIONS);
    EXPECT_FALSE(next(tap).has_value());
    close(tap);
    end_it();
    EXPECT_EQ(child.finish(), 0);
}

TEST_F(Tap, AReaderThatIsGoneCostsTheProcessNothingAndAnotherMayLook)
{
    Child child(answer_questions);
    look();
    close(tap);
    ask();
    int error = EAGAIN;
    ASSERT_TRUE(eventually([&] { return (error = itc_internal_tap(NAME, &tap)) != EAGAIN; }));
    ASSERT_EQ(error, 0);
    expect_what(itc_wire::tap_begins);
    ask();
    expect_message(itc_wire::tap_received, QUESTION, itc_current_mbox(), 8);
    close(tap);
    end_it();
    EXPECT_EQ(child.finish(), 0);
}

TEST_F(Tap, WhoeverLooksLastLooksAlone)
{
    Child child(answer_questions);
    look();
    const int first = tap;
    int error = EAGAIN;
    ASSERT_TRUE(eventually([&] { return (error = itc_internal_tap(NAME, &tap)) != EAGAIN; }));
    ASSERT_EQ(error, 0);
    expect_what(itc_wire::tap_begins);
    const auto last = next(first);
    ASSERT_TRUE(last.has_value());
    EXPECT_EQ(last->record.what, itc_wire::tap_ends);
    EXPECT_FALSE(next(first).has_value());
    close(first);
    close(tap);
    end_it();
    EXPECT_EQ(child.finish(), 0);
}

TEST_F(Tap, TheEndOfOneReaderThatComesTogetherWithTheNextReaderEndsTheOneAlone)
{
    Child child(answer_questions);
    look();
    const int first = tap;
    ASSERT_EQ(kill(child.pid, SIGSTOP), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child.pid, &status, WUNTRACED), child.pid);
    // Both wait for the process, in this order: that another looks, and that the first is gone.
    const int error = itc_internal_tap(NAME, &tap);
    close(first);
    ASSERT_EQ(kill(child.pid, SIGCONT), 0);
    ASSERT_EQ(error, 0);
    expect_what(itc_wire::tap_begins);
    ask(8);
    expect_message(itc_wire::tap_received, QUESTION, itc_current_mbox(), 8);
    expect_message(itc_wire::tap_sent, ANSWER, itc_current_mbox(), 8);
    close(tap);
    end_it();
    EXPECT_EQ(child.finish(), 0);
}

TEST_F(Tap, NobodyLooksAtHimselfOrAtWhoIsNotThere)
{
    const uint32_t me = join("looks");
    EXPECT_EQ(itc_internal_tap("looks", &tap), EINVAL);
    EXPECT_EQ(itc_internal_tap("nobody-has-this", &tap), ENOENT);
    char name[256] = {};
    EXPECT_EQ(itc_internal_name_of(me, name), 0);
    EXPECT_STREQ(name, "looks");
    EXPECT_EQ(itc_add_name(me, "another"), 0);
    EXPECT_EQ(itc_internal_name_of(me, name), 0);
    EXPECT_STREQ(name, "looks") << "the name that it was created with";
    EXPECT_EQ(itc_internal_name_of(me + 1, name), ENOENT);
}

TEST_F(Tap, NobodyButRootMayLookOrAskForNames)
{
    Gate there;
    Child looked_at([&] {
        join(NAME);
        there.open();
        itc_msg *m = itc_receive(nullptr, 20000, ITC_FROM_ANY);
        const bool end = m != nullptr && m->msgno == END;
        itc_free(&m);
        itc_exit();
        return end ? 0 : 1;
    });
    ASSERT_TRUE(there.wait());
    Child other([&] {
        if (setgroups(0, nullptr) != 0 || setgid(NOBODY) != 0 || setuid(NOBODY) != 0) {
            return 97;
        }
        join("not-root");
        const uint32_t found = await(NAME);
        int fd = -1;
        char name[256] = {};
        const int tap_error = itc_internal_tap(NAME, &fd);
        const int own_error = itc_internal_tap("not-root", &fd);
        const int absent_error = itc_internal_tap("nobody-has-this", &fd);
        const int name_error = itc_internal_name_of(found, name);
        const bool refused =
            tap_error == EACCES && own_error == EACCES && absent_error == EACCES && name_error == EACCES;
        return refused && fd == -1 && name[0] == 0 ? 0 : 1;
    });
    EXPECT_EQ(other.finish(), 0);
    join("root");
    server = await(NAME);
    end_it();
    EXPECT_EQ(looked_at.finish(), 0);
}
