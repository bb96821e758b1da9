/*
 * A registry that makes no sense. libitc meets only our own registry, but what comes over a socket is believed by
 * nobody: an answer to the greeting that is none ends itc_init with an error, a frame that cannot be costs the
 * registry its connection, and a frame that names nothing we know of changes nothing.
 *
 * A thread of the test takes the registry's place on its socket, and answers byte for byte as the test says.
 */
#include "itc.h"
#include "itc_wire.hpp"
#include "itcd_fixture.hpp"

#include <cerrno>
#include <cstring>
#include <functional>
#include <ostream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using namespace itc_test;

namespace
{

std::string number(uint32_t value)
{
    std::string bytes(sizeof value, '\0');
    memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

std::string frame(uint32_t type, uint32_t serial, const std::string &fields)
{
    return number(static_cast<uint32_t>(sizeof(itc_wire::registry_frame) + fields.size())) + number(type) +
           number(serial) + fields;
}

std::string text(const std::string &value, uint16_t claimed)
{
    std::string bytes(sizeof claimed, '\0');
    memcpy(bytes.data(), &claimed, sizeof claimed);
    return bytes + value;
}

// Takes one connection, says `greeting` to the hello, a good result to each request after it and `then` behind the
// first, or what `answers` makes of a request's count and serial; stays until the other side goes, unless it is to go
// first.
class StandIn
{
public:
    using Answers = std::function<std::string(unsigned, uint32_t)>;

    explicit StandIn(std::string greeting, std::string then = "", bool goes = false, Answers answers = nullptr)
        : greeting_(std::move(greeting)), then_(std::move(then)), goes_(goes), answers_(std::move(answers))
    {
        mkdir(itc_wire::directory, 0755);
        unlink(itc_wire::socket_path);
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path, itc_wire::socket_path, sizeof itc_wire::socket_path);
        EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << strerror(errno);
        EXPECT_EQ(listen(listener_, 1), 0);
        thread_ = std::thread([this] { serve(); });
    }
    StandIn(const StandIn &) = delete;
    StandIn &operator=(const StandIn &) = delete;
    ~StandIn()
    {
        thread_.join();
        close(listener_);
    }

private:
    static bool read_all(int fd, void *to, size_t size)
    {
        return recv(fd, to, size, MSG_WAITALL) == static_cast<ssize_t>(size);
    }

    // False when there is none any more.
    static bool next_request(int fd, uint32_t *serial)
    {
        itc_wire::registry_frame head{};
        if (!read_all(fd, &head, sizeof head)) {
            return false;
        }
        *serial = head.serial;
        std::string rest(head.length - sizeof head, '\0');
        return rest.empty() || read_all(fd, rest.data(), rest.size());
    }

    static void say_at_once(int fd, const std::string &bytes)
    {
        (void)send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }

    static void say(int fd, const std::string &bytes)
    {
        for (const char byte : bytes) { // one by one: a frame is whole when it is whole
            (void)send(fd, &byte, 1, MSG_NOSIGNAL);
        }
    }

    void serve()
    {
        const int fd = accept(listener_, nullptr, nullptr);
        uint32_t serial = 0;
        next_request(fd, &serial);
        say(fd, greeting_);
        bool first = true;
        std::string answer = "more";
        for (unsigned count = 1; answers_ && !answer.empty() && next_request(fd, &serial); count++) {
            answer = answers_(count, serial);
            say_at_once(fd, answer);
        }
        while (!answers_ && !goes_ && next_request(fd, &serial)) {
            if (serial == 0) {
                continue; // it wants no answer
            }
            say(fd, frame(itc_wire::result, serial, number(0)));
            if (first) {
                say(fd, then_);
            }
            first = false;
        }
        close(fd);
    }

    std::string greeting_;
    std::string then_;
    bool goes_;
    Answers answers_;
    int listener_;
    std::thread thread_;
};

const std::string WELCOME = frame(itc_wire::welcome, 0, number(7));

struct Greeting {
    const char *name;
    std::string bytes;
    bool goes;
    int error;
};

struct Frame {
    const char *name;
    std::string bytes;
};

void PrintTo(const Greeting &greeting, std::ostream *os) { *os << greeting.name; }
void PrintTo(const Frame &frame, std::ostream *os) { *os << frame.name; }

class StrangeGreeting : public ItcTest, public ::testing::WithParamInterface<Greeting>
{
};
class ImpossibleFrame : public ItcTest, public ::testing::WithParamInterface<Frame>
{
};
class FrameThatNamesNothing : public ItcTest, public ::testing::WithParamInterface<Frame>
{
};

template <typename Param> std::string name_of(const ::testing::TestParamInfo<Param> &test) { return test.param.name; }

TEST_P(StrangeGreeting, EndsInitWithAnError)
{
    const StandIn stand_in(GetParam().bytes, "", GetParam().goes);
    EXPECT_EQ(itc_init(1, 0, nullptr, nullptr, 0), GetParam().error);
    EXPECT_EQ(itc_create_mailbox("own", 0), ITC_NO_MBOX);
}

INSTANTIATE_TEST_SUITE_P(
    Registry, StrangeGreeting,
    ::testing::Values(Greeting{"None", "", true, ECONNREFUSED},
                      Greeting{"HalfAnAnswer", WELCOME.substr(0, 9), true, ECONNREFUSED},
                      Greeting{"ARefusal", frame(itc_wire::refused, 0, number(EPERM)), true, EPERM},
                      Greeting{"ARefusalWithoutAReason", frame(itc_wire::refused, 0, number(0)), true, EPROTO},
                      Greeting{"AnotherAnswer", frame(itc_wire::result, 0, number(7)), true, EPROTO},
                      Greeting{"AnotherLength", number(17) + WELCOME.substr(4), true, EPROTO},
                      Greeting{"NoNumber", frame(itc_wire::welcome, 0, number(0)), true, EPROTO},
                      Greeting{"TooLargeANumber", frame(itc_wire::welcome, 0, number(itc_wire::process_limit)), true,
                               EPROTO},
                      Greeting{"Silence", "", false, ETIMEDOUT}),
    name_of<Greeting>);

TEST_F(StrangeGreeting, OfTheLargestNumberIsTaken)
{
    const StandIn stand_in(frame(itc_wire::welcome, 0, number(itc_wire::process_limit - 1)));
    ASSERT_EQ(itc_init(1, 0, nullptr, nullptr, 0), 0);
    EXPECT_EQ(itc_wire::process_of(itc_create_mailbox("own", 0)), itc_wire::process_limit - 1);
    itc_exit();
}

TEST_P(ImpossibleFrame, CostsTheRegistryItsConnection)
{
    const StandIn stand_in(WELCOME, GetParam().bytes);
    ASSERT_EQ(itc_init(1, 0, nullptr, nullptr, 0), 0);
    ASSERT_NE(itc_create_mailbox("own", 0), ITC_NO_MBOX);
    EXPECT_EQ(itc_receive(nullptr, 10000, ITC_FROM_ANY), nullptr);
    EXPECT_EQ(itc_add_name(itc_current_mbox(), "more"), ENOTCONN);
    itc_exit();
}

const uint32_t BEYOND = itc_wire::registry_frame_limit + 1;

INSTANTIATE_TEST_SUITE_P(
    Registry, ImpossibleFrame,
    ::testing::Values(
        Frame{"ShorterThanItsHead", number(11) + number(itc_wire::result) + number(1)},
        Frame{"LongerThanAnyMayBe", number(BEYOND) + number(itc_wire::result) + number(1)},
        Frame{"OfAnUnknownType", frame(99, 1, number(0))}, Frame{"OfARequest", frame(itc_wire::locate, 1, number(0))},
        Frame{"WithoutItsNumber", frame(itc_wire::result, 1, "")},
        Frame{"WithMoreThanItsNumber", frame(itc_wire::died, 1, number(0) + "x")},
        Frame{"AChannelWithoutItsNumber", frame(itc_wire::channel, 0, number(8))},
        Frame{"AChannelAndMore", frame(itc_wire::channel, 0, number(8) + number(1) + "x")},
        Frame{"AServiceWithoutAPath", frame(itc_wire::added, 0, number(1) + number(0x8001))},
        Frame{"APathThatEndsBeforeItsLength", frame(itc_wire::added, 0, number(1) + number(0x8001) + text("pat", 4))},
        Frame{"APathThatGoesOn", frame(itc_wire::removed, 0, number(1) + number(0x8001) + text("path", 3))},
        Frame{"APathWithAZeroInIt",
              frame(itc_wire::added, 0, number(1) + number(0x8001) + text(std::string("p\0th", 4), 4))},
        Frame{"APathThatIsTooLong",
              frame(itc_wire::added, 0, number(1) + number(0x8001) + text(std::string(256, 'p'), 256))}),
    name_of<Frame>);

TEST_P(FrameThatNamesNothing, ChangesNothing)
{
    const StandIn stand_in(WELCOME, GetParam().bytes);
    ASSERT_EQ(itc_init(1, 0, nullptr, nullptr, 0), 0);
    const uint32_t own = itc_create_mailbox("own", 0);
    ASSERT_NE(own, ITC_NO_MBOX);
    EXPECT_EQ(itc_add_name(own, "more"), 0); // its answer comes behind the frame
    itc_msg *msg = itc_alloc(4, 1);
    itc_send(&msg, own, own);
    msg = itc_receive(nullptr, 10000, ITC_FROM_ANY);
    ASSERT_NE(msg, nullptr);
    itc_free(&msg);
    EXPECT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr);
    EXPECT_EQ(itc_add_name(own, "even more"), 0);
    itc_exit();
}

INSTANTIATE_TEST_SUITE_P(
    Registry, FrameThatNamesNothing,
    ::testing::Values(Frame{"AnAnswerToNothing", frame(itc_wire::result, 0xFFFF, number(EPERM))},
                      Frame{"ANameNobodyWaitsFor", frame(itc_wire::found, 0xFFFF, number(0x8001))},
                      Frame{"ADeathNobodyWatches", frame(itc_wire::died, 0xFFFF, number(0x8001))},
                      Frame{"AProcessNobodyKnows", frame(itc_wire::no_process, 0, number(8))},
                      Frame{"ASubscriptionNobodyHas", frame(itc_wire::subscribed, 0, number(5))},
                      Frame{"AServiceNobodyAskedFor",
                            frame(itc_wire::added, 0, number(5) + number(0x8001) + text("path", 4))},
                      Frame{"AServiceNobodyAskedForThatIsGone",
                            frame(itc_wire::removed, 0, number(5) + number(0x8001) + text("", 0))},
                      Frame{"AChannelWithoutADescriptor", frame(itc_wire::channel, 0, number(8) + number(1))}),
    name_of<Frame>);

TEST_F(FrameThatNamesNothing, AndTheBeginningOfOneIsForgottenWithItsRegistry)
{
    {
        const StandIn first(WELCOME, "", false, [](unsigned count, uint32_t serial) {
            const std::string good = frame(itc_wire::result, serial, number(0));
            return count == 1 ? good + good.substr(0, 9) : "";
        });
        ASSERT_EQ(itc_init(1, 0, nullptr, nullptr, 0), 0);
        ASSERT_NE(itc_create_mailbox("own", 0), ITC_NO_MBOX);
        itc_exit();
    }
    const StandIn second(WELCOME);
    ASSERT_EQ(itc_init(1, 0, nullptr, nullptr, 0), 0);
    EXPECT_NE(itc_create_mailbox("own", 0), ITC_NO_MBOX);
    itc_exit();
}

// A read takes a frame and the beginning of the next: what is left of it waits for the rest.
TEST_F(FrameThatNamesNothing, AndOneThatComesInTwoPartsBehindAnotherIsTakenWhole)
{
    const std::string late = frame(itc_wire::added, 0, number(5) + number(0x8001) + text("path", 4));
    const auto answers = [&late](unsigned count, uint32_t serial) {
        switch (count) {
        case 1:
            return frame(itc_wire::result, serial, number(0));
        case 2:
            return frame(itc_wire::found, serial, number(0x8001)) + late.substr(0, 6);
        default:
            return late.substr(6) + frame(itc_wire::result, serial, number(0));
        }
    };
    const StandIn stand_in(WELCOME, "", false, answers);
    ASSERT_EQ(itc_init(1, 0, nullptr, nullptr, 0), 0);
    const uint32_t own = itc_create_mailbox("own", 0);
    itc_msg *msg = itc_alloc(4, 1);
    itc_locate_async("somebody", &msg, own);
    msg = itc_receive(nullptr, 10000, ITC_FROM_ANY);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(itc_sender(msg), 0x8001U);
    itc_free(&msg);
    EXPECT_EQ(itc_add_name(own, "more"), 0);
    itc_exit();
}

} // namespace
