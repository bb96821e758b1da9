/* The registry's turns: its real server and tables in this process, driven one turn at a time, and clients that write
   and read when the test says so. What is served in which turn is so decided by the order alone. */
#include "itc_wire.hpp"
#include "itcd/registry.hpp"
#include "itcd/server.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

using itc_wire::frame_type;

struct Told {
    uint32_t type;
    uint32_t serial;
    uint32_t first;
    uint32_t second;
    std::string text;
};

// A listening socket under a name that the kernel chooses, and the registry behind it: one for all tests of a process.
struct doorstep {
    int fd = -1;
    sockaddr_un address{};
    socklen_t length = sizeof(sockaddr_un);
    policy rules;

    doorstep()
    {
        signal(SIGPIPE, SIG_IGN);
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un any{};
        any.sun_family = AF_UNIX;
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&any), sizeof any.sun_family), 0);
        EXPECT_EQ(listen(fd, 1024), 0);
        EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length), 0);
        EXPECT_EQ(server_open(fd, eventfd(0, EFD_CLOEXEC), rules), 0);
    }
};

doorstep &door()
{
    static doorstep one;
    return one;
}

class Registry : public ::testing::Test
{
protected:
    void SetUp() override { (void)door(); }

    void TearDown() override
    {
        settle();
        EXPECT_TRUE(registry_is_empty()) << "nothing is left of processes that have gone";
    }

    // Turns until nothing more happens; how many something was done in is not known, so none is counted.
    static void settle()
    {
        for (int i = 0; i < 4000; i++) {
            server_turn(0);
        }
    }

    static int connect_raw()
    {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr *>(&door().address), door().length), 0);
        return fd;
    }
};

// A process of the test's. Frames are written at once; what came is taken when it is asked for.
class Process
{
public:
    explicit Process(int connection) : fd(connection)
    {
        say(itc_wire::writer(itc_wire::hello, 0).u32(itc_wire::version));
        server_turn(0);
        server_turn(0);
        const auto came = hear();
        EXPECT_EQ(came.size(), 1u);
        number = came.empty() ? 0 : came[0].first;
    }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    ~Process() { leave(); }

    void leave()
    {
        if (fd >= 0) {
            close(fd);
        }
        fd = -1;
    }

    // False when the registry takes no more.
    bool say(itc_wire::writer &frame) const
    {
        const std::string_view bytes = frame.frame();
        return send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    bool say(itc_wire::writer &&frame) const { return say(frame); }

    // The same, with turns of the registry's until it is taken.
    void say_in_turns(itc_wire::writer &frame) const
    {
        for (int i = 0; i < 10000 && !say(frame); i++) {
            server_turn(0);
        }
    }

    void create(uint32_t box, const std::string &name) const
    {
        say_in_turns(itc_wire::writer(itc_wire::create_box, 1).u32(mbox(box)).text(name));
    }
    void publish(uint32_t box, const std::string &name, const std::string &scope, const std::string &path) const
    {
        say_in_turns(itc_wire::writer(itc_wire::publish, 2).u32(mbox(box)).text(name).text(scope).text(path));
    }
    void unpublish(uint32_t box, const std::string &name, const std::string &scope, const std::string &path) const
    {
        say_in_turns(itc_wire::writer(itc_wire::unpublish, 3).u32(mbox(box)).text(name).text(scope).text(path));
    }
    void subscribe(uint32_t box, uint32_t sid, const std::string &name) const
    {
        say_in_turns(itc_wire::writer(itc_wire::subscribe, 4).u32(mbox(box)).u32(sid).text(name).text(""));
    }
    void locate(const std::string &name, uint32_t serial = 5) const
    {
        say_in_turns(itc_wire::writer(itc_wire::locate, serial).text(name));
    }
    void monitor(uint32_t of, uint32_t token) const
    {
        say_in_turns(itc_wire::writer(itc_wire::monitor, token).u32(of));
    }

    uint32_t mbox(uint32_t box) const { return itc_wire::mbox_of(number, box); }

    // Every whole frame that is there by now.
    std::vector<Told> hear()
    {
        char bytes[16384];
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
        for (;;) {
            iovec part{bytes, sizeof bytes};
            msghdr message{};
            message.msg_iov = &part;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            const ssize_t got = recvmsg(fd, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
            if (got <= 0) {
                ended = got == 0 || errno != EAGAIN;
                break;
            }
            const cmsghdr *c = CMSG_FIRSTHDR(&message);
            if (c != nullptr) {
                int channel = -1;
                memcpy(&channel, CMSG_DATA(c), sizeof channel);
                close(channel);
            }
            unread_.append(bytes, static_cast<size_t>(got));
        }
        return take();
    }

    // What comes while the registry has turns, until `enough` says so. At most 20,000 turns.
    template <typename Enough> std::vector<Told> hear_until(Enough enough)
    {
        std::vector<Told> all;
        for (int i = 0; i < 20000 && !enough(all) && !ended; i++) {
            server_turn(0);
            const auto more = hear();
            all.insert(all.end(), more.begin(), more.end());
        }
        EXPECT_TRUE(enough(all));
        return all;
    }

    int fd;
    uint32_t number = 0;
    bool ended = false;

private:
    std::vector<Told> take()
    {
        std::vector<Told> all;
        size_t at = 0;
        itc_wire::registry_frame head;
        while (unread_.size() - at >= sizeof head) {
            memcpy(&head, unread_.data() + at, sizeof head);
            if (head.length > unread_.size() - at) {
                break;
            }
            itc_wire::reader fields(reinterpret_cast<const uint8_t *>(unread_.data()) + at + sizeof head,
                                    head.length - sizeof head);
            Told told{head.type, head.serial, fields.u32(), 0, ""};
            if (head.type == itc_wire::channel || head.type == itc_wire::added || head.type == itc_wire::removed) {
                told.second = fields.u32();
            }
            if (head.type == itc_wire::added || head.type == itc_wire::removed) {
                told.text = fields.text();
            }
            EXPECT_TRUE(fields.whole());
            all.push_back(told);
            at += head.length;
        }
        unread_.erase(0, at);
        return all;
    }

    std::string unread_;
};

size_t count(const std::vector<Told> &told, frame_type type)
{
    return static_cast<size_t>(std::count_if(told.begin(), told.end(), [&](const Told &t) { return t.type == type; }));
}

constexpr uint32_t MANY = itc_wire::box_limit - 1;

// As much as one process can have: a mailbox, a service and a subscription for each of its numbers.
void fill(Process &big)
{
    for (uint32_t box = 1; box <= MANY; box++) {
        const std::string name = "big-" + std::to_string(box);
        big.create(box, name);
        big.publish(box, name, "", "");
        big.subscribe(box, box, name);
        if (box % 8 == 0) {
            server_turn(0);
            (void)big.hear();
        }
    }
    for (int i = 0; i < 200; i++) {
        server_turn(0);
        (void)big.hear();
    }
}

// Has `honest` locate something in every turn until `over`, and tells in how many turns. Each is answered in its turn.
template <typename Over> int turns_with_a_locate_each(Process &honest, std::vector<Told> &other_news, Over over)
{
    int turns = 0;
    while (turns < 20000 && !over(other_news)) {
        honest.locate("nobody");
        server_turn(0);
        turns++;
        const auto told = honest.hear();
        EXPECT_EQ(count(told, itc_wire::located), 1u) << "in turn " << turns;
        other_news.insert(other_news.end(), told.begin(), told.end());
    }
    return turns;
}

TEST_F(Registry, WhatALargeProcessLeavesBehindIsRemovedInManyTurnsAndTheOthersAreServedInEach)
{
    Process honest(connect_raw());
    Process big(connect_raw());
    fill(big);
    for (uint32_t box = 1; box <= MANY; box++) {
        honest.monitor(big.mbox(box), box);
        server_turn(0);
    }
    server_turn(0);
    EXPECT_EQ(honest.hear().size(), 0u);
    big.leave();
    std::vector<Told> news;
    const int turns =
        turns_with_a_locate_each(honest, news, [](const auto &all) { return count(all, itc_wire::died) == MANY; });
    EXPECT_GT(turns, 20);
    uint32_t last = 0;
    for (const Told &told : news) {
        if (told.type == itc_wire::died) {
            EXPECT_EQ(told.first, big.mbox(++last)) << "in order";
        }
    }
}

TEST_F(Registry, AMailboxWithThousandsOfServicesIsDeletedInManyTurnsAndTheAnswerComesLast)
{
    Process honest(connect_raw());
    Process big(connect_raw());
    big.create(1, "big");
    honest.create(1, "honest");
    honest.subscribe(1, 7, "offer");
    for (uint32_t i = 0; i < 4096; i++) {
        big.publish(1, "offer", std::to_string(i), "");
        if (i % 16 == 0) {
            server_turn(0);
            (void)big.hear();
            (void)honest.hear();
        }
    }
    settle();
    (void)big.hear();
    (void)honest.hear();
    big.say(itc_wire::writer(itc_wire::delete_box, 99).u32(big.mbox(1)));
    std::vector<Told> news;
    const int turns =
        turns_with_a_locate_each(honest, news, [&](const auto &all) { return count(all, itc_wire::removed) == 4096; });
    EXPECT_GT(turns, 20);
    EXPECT_EQ(count(big.hear_until([](const auto &all) { return !all.empty(); }), itc_wire::result), 1u);
}

TEST_F(Registry, ANameThatThousandsWaitForIsToldInManyTurns)
{
    Process honest(connect_raw());
    Process crowd(connect_raw());
    Process late(connect_raw());
    for (uint32_t token = 1; token <= 4096; token++) {
        crowd.say_in_turns(itc_wire::writer(itc_wire::await_name, token).text("late"));
    }
    settle();
    late.create(1, "late");
    std::vector<Told> news;
    std::vector<Told> told;
    const int turns = turns_with_a_locate_each(honest, news, [&](const auto &) {
        const auto more = crowd.hear();
        EXPECT_LE(count(more, itc_wire::found), 100u) << "in one turn";
        told.insert(told.end(), more.begin(), more.end());
        return count(told, itc_wire::found) == 4096;
    });
    EXPECT_GT(turns, 10);
    EXPECT_EQ(count(told, itc_wire::channel), 1u);
    EXPECT_EQ(told.front().type, itc_wire::channel) << "whoever is found is introduced first";
}

TEST_F(Registry, NamesAndServicesOfAProcessThatLeavesAreFreeAtOnce)
{
    Process big(connect_raw());
    Process watcher(connect_raw());
    Process next(connect_raw());
    fill(big);
    watcher.create(1, "watcher");
    watcher.subscribe(1, 7, "big-4095");
    settle();
    (void)watcher.hear();
    big.leave();
    server_turn(0); // the removal has begun
    next.create(1, "big-4095");
    next.publish(1, "big-4095", "", "");
    const auto answers = next.hear_until([](const auto &all) { return all.size() == 2; });
    EXPECT_EQ(answers[0].first, 0u);
    EXPECT_EQ(answers[1].first, 0u);
    settle();
    const auto news = watcher.hear();
    ASSERT_EQ(news.size(), 2u);
    EXPECT_EQ(news[0].type, itc_wire::removed);
    EXPECT_EQ(news[0].second, big.mbox(4095));
    EXPECT_EQ(news[1].type, itc_wire::added);
    EXPECT_EQ(news[1].second, next.mbox(1));
    watcher.locate("big-4095");
    EXPECT_EQ(count(watcher.hear_until([](const auto &all) { return count(all, itc_wire::located) == 1; }),
                    itc_wire::located),
              1u);
}

TEST_F(Registry, AByeIsAnsweredWhenEverythingIsGone)
{
    Process big(connect_raw());
    fill(big);
    big.say(itc_wire::writer(itc_wire::bye, 55));
    const auto told = big.hear_until([](const auto &all) { return count(all, itc_wire::result) == 1; });
    EXPECT_EQ(told.back().serial, 55u);
    EXPECT_EQ(share_of(getuid()).counts[static_cast<size_t>(held::mailboxes)], 0u);
    EXPECT_EQ(share_of(getuid()).counts[static_cast<size_t>(held::services)], 0u);
    EXPECT_EQ(share_of(getuid()).counts[static_cast<size_t>(held::subscriptions)], 0u);
}

// ---- Nobody is doomed for what others do
// ----------------------------------------------------------------------------

TEST_F(Registry, ASubscriberThatDoesNotReadIsNotDisconnectedForWhatOthersPublishAndKnowsInTheEndWhatIsThere)
{
    Process busy(connect_raw());
    Process restless(connect_raw());
    busy.create(1, "busy");
    busy.subscribe(1, 7, "offer");
    restless.create(1, "restless");
    settle();
    (void)busy.hear();
    const std::string path(255, 'p');
    for (int i = 0; i < 20000; i++) {
        restless.publish(1, "offer", "", path);
        restless.unpublish(1, "offer", "", path);
        server_turn(0);
        (void)restless.hear();
    }
    restless.publish(1, "offer", "", "in the end");
    settle();
    bool there = false;
    std::string what;
    for (int i = 0; i < 50; i++) {
        for (const Told &told : busy.hear()) {
            EXPECT_EQ(told.type, there ? itc_wire::removed : itc_wire::added) << "nothing twice";
            there = !there;
            what = told.text;
        }
        server_turn(0);
    }
    EXPECT_FALSE(busy.ended);
    EXPECT_TRUE(there);
    EXPECT_EQ(what, "in the end");
}

TEST_F(Registry, NineHundredWhoWantToMeetAProcessThatDoesNotReadEndNobody)
{
    Process busy(connect_raw());
    busy.create(1, "busy");
    server_turn(0);
    (void)busy.hear();
    for (int i = 0; i < 900; i++) {
        Process one(connect_raw());
        one.locate("busy");
        const auto told = one.hear_until([](const auto &all) { return count(all, itc_wire::located) == 1; });
        EXPECT_EQ(told.back().first, busy.mbox(1));
    }
    Process honest(connect_raw());
    honest.locate("busy");
    server_turn(0);
    settle();
    bool met = false;
    for (int i = 0; i < 1000 && !met; i++) {
        for (const Told &told : busy.hear()) {
            met = met || (told.type == itc_wire::channel && told.first == honest.number);
        }
        server_turn(0);
    }
    EXPECT_TRUE(met);
    EXPECT_FALSE(busy.ended);
    EXPECT_EQ(count(honest.hear(), itc_wire::channel), 1u);
}

TEST_F(Registry, ChannelsOfProcessesThatAreGoneCountForTheirUserUntilTheyAreReadToTheEnd)
{
    Process reader(connect_raw());
    reader.create(1, "reader");
    const auto locates = [](Process &one) {
        one.locate("reader");
        return one.hear_until([](const auto &all) { return count(all, itc_wire::located) == 1; });
    };
    std::vector<Told> unread;
    for (size_t i = 0; i < share_bounds[static_cast<size_t>(held::unread)]; i++) {
        Process one(connect_raw());
        EXPECT_EQ(count(locates(one), itc_wire::channel), 1u);
        for (const Told &told : reader.hear()) {
            if (told.type == itc_wire::channel) {
                unread.push_back(told);
            }
        }
    }
    settle();
    Process late(connect_raw());
    const auto told = locates(late);
    EXPECT_EQ(count(told, itc_wire::channel), 0u);
    EXPECT_EQ(count(told, itc_wire::no_process), 1u);
    ASSERT_FALSE(unread.empty());
    reader.say_in_turns(itc_wire::writer(itc_wire::closed, 0).u32(unread[0].first).u32(unread[0].second));
    settle();
    EXPECT_EQ(count(locates(late), itc_wire::channel), 1u);
}

TEST_F(Registry, AnIntroductionThatWaitsEndsWithEitherProcess)
{
    Process busy(connect_raw());
    busy.create(1, "busy");
    server_turn(0);
    std::vector<std::unique_ptr<Process>> all;
    for (int i = 0; i < 40; i++) {
        all.push_back(std::make_unique<Process>(connect_raw()));
        all.back()->locate("busy");
        server_turn(0);
    }
    settle();
    size_t met = 0;
    for (const auto &one : all) {
        met += count(one->hear(), itc_wire::channel);
    }
    EXPECT_LT(met, all.size()) << "some wait";
    EXPECT_GT(met, 0u);
    all.erase(all.begin() + 30, all.end());
    settle();
    busy.leave();
    settle();
    size_t told = 0;
    for (const auto &one : all) {
        const auto news = one->hear();
        told += count(news, itc_wire::no_process) + count(news, itc_wire::channel); // or one that has ended
        one->leave();
    }
    EXPECT_EQ(told + met, all.size()) << "who waited is told that it is in vain";
    settle();
    EXPECT_TRUE(registry_is_empty());
}

TEST_F(Registry, TwoThatDoNotReadAndMeetEachOtherGoOnWhenTheyRead)
{
    Process a(connect_raw());
    Process b(connect_raw());
    a.create(1, "a");
    b.create(1, "b");
    std::vector<std::unique_ptr<Process>> others;
    for (int i = 0; i < 20; i++) {
        others.push_back(std::make_unique<Process>(connect_raw()));
        others.back()->locate("a");
        others.back()->locate("b");
        server_turn(0);
    }
    a.locate("b");
    b.locate("a");
    settle();
    std::vector<Told> to_a;
    std::vector<Told> to_b;
    for (int i = 0; i < 100; i++) {
        const auto more_a = a.hear();
        to_a.insert(to_a.end(), more_a.begin(), more_a.end());
        const auto more_b = b.hear();
        to_b.insert(to_b.end(), more_b.begin(), more_b.end());
        server_turn(0);
    }
    EXPECT_EQ(count(to_a, itc_wire::channel), 21u);
    EXPECT_EQ(count(to_b, itc_wire::channel), 21u);
}

TEST_F(Registry, WhenTheKernelTakesNoDescriptorAlongTheAskerIsToldAndNobodyIsDisconnected)
{
    if (geteuid() == 0) {
        ASSERT_EQ(setgid(65534) == 0 && setuid(65534) == 0, true); // root may have any number under way
    }
    Process one(connect_raw());
    Process other(connect_raw());
    other.create(1, "other");
    settle();
    (void)other.hear();
    // Descriptors of this user's that are under way count for the registry, which runs as the same.
    const rlimit few{64, 64};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, ends), 0);
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int under_way = 0;
    for (int sent = 0; sent >= 0; under_way++) {
        char byte = 0;
        iovec part{&byte, 1};
        alignas(cmsghdr) char control[CMSG_SPACE(50 * sizeof(int))] = {};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *rights = CMSG_FIRSTHDR(&message);
        rights->cmsg_level = SOL_SOCKET;
        rights->cmsg_type = SCM_RIGHTS;
        rights->cmsg_len = CMSG_LEN(50 * sizeof(int));
        for (size_t i = 0; i < 50; i++) {
            memcpy(CMSG_DATA(rights) + i * sizeof(int), &null, sizeof(int));
        }
        sent = static_cast<int>(sendmsg(ends[1], &message, 0));
    }
    ASSERT_EQ(errno, ETOOMANYREFS);
    ASSERT_GT(under_way, 1);
    one.locate("other");
    const auto told = one.hear_until([](const auto &all) { return count(all, itc_wire::located) == 1; });
    EXPECT_EQ(count(told, itc_wire::no_process), 1u);
    EXPECT_EQ(count(told, itc_wire::channel), 0u);
    close(ends[0]);
    close(ends[1]);
    settle();
    (void)other.hear();
    EXPECT_FALSE(one.ended);
    EXPECT_FALSE(other.ended);
    one.say(itc_wire::writer(itc_wire::introduce, 0).u32(other.number)); // and now there is room
    EXPECT_EQ(count(one.hear_until([](const auto &all) { return !all.empty(); }), itc_wire::channel), 1u);
}

} // namespace
