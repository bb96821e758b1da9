/* What happens when a socket takes no more, and what never gets to a socket at all. The other end of the channel is
   held by the test itself, which decides when it reads. */
#include "itcd_fixture.hpp"

#include "itc_internal.h"
#include "raw_client.hpp"

#include <chrono>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <set>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>

using namespace itc_test;

namespace
{

constexpr uint32_t WORK = 0x5301;

struct numbered {
    uint32_t msgno;
    uint32_t value;
};

void send_number(uint32_t to, uint32_t value)
{
    itc_msg *msg = itc_alloc(sizeof(numbered), WORK);
    reinterpret_cast<numbered *>(msg)->value = value;
    itc_send(&msg, to, ITC_MY_MBOX);
}

constexpr size_t frame_size = 16; // of a numbered message: length, boxes, number, value

// Every descriptor of this process that is a socket.
std::set<int> sockets()
{
    std::set<int> found;
    DIR *directory = opendir("/proc/self/fd");
    while (const dirent *entry = readdir(directory)) {
        const int fd = static_cast<int>(strtol(entry->d_name, nullptr, 10));
        int type = 0;
        socklen_t size = sizeof type;
        if (entry->d_name[0] != '.' && getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) == 0) {
            found.insert(fd);
        }
    }
    closedir(directory);
    return found;
}

int send_buffer(int fd)
{
    int bytes = 0;
    socklen_t size = sizeof bytes;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, &size), 0);
    return bytes;
}

class ItcBacklog : public ItcTest
{
protected:
    void SetUp() override
    {
        ItcTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        start_registry();
        own = join("own");
        uint32_t process = 0;
        connection = raw_join(&process);
        remote = raw_create(connection, process, "remote");
    }

    void TearDown() override
    {
        close(channel);
        close(connection);
        ItcTest::TearDown();
    }

    void open_channel()
    {
        channel = raw_channel(connection, own);
        ASSERT_EQ(itc_locate("own"), own); // the registry answers behind the introduction: our end is here, too
    }

    // Sends until a message has not gone out at once, and `more` behind it.
    void fill(uint32_t more)
    {
        uint64_t writes = 0;
        do {
            writes = itc_internal_channel_writes();
            send_number(remote, ++sent);
        } while (itc_internal_channel_writes() != writes && sent < 1000000);
        for (uint32_t i = 0; i < more; i++) {
            send_number(remote, ++sent);
        }
        ASSERT_EQ(itc_internal_channel_writes(), writes) << "nothing may go out into a full socket";
    }

    // Reads what is there now, and checks that it goes on where the last reading stopped. Returns the messages.
    uint32_t read_all()
    {
        uint8_t bytes[frame_size];
        uint32_t count = 0;
        while (recv(channel, bytes, sizeof bytes, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof bytes)) {
            uint32_t value = 0;
            memcpy(&value, bytes + 12, sizeof value);
            EXPECT_EQ(value, ++got);
            count++;
        }
        return count;
    }

    uint32_t own = ITC_NO_MBOX;
    uint32_t remote = ITC_NO_MBOX;
    int connection = -1;
    int channel = -1;
    uint32_t sent = 0;
    uint32_t got = 0;
};

TEST_F(ItcBacklog, EveryCallSendsWhatWaitsOnceThePeerHasRead)
{
    open_channel();
    itc_msg *nothing = nullptr;
    const std::vector<std::pair<const char *, std::function<void()>>> calls = {
        {"itc_alloc", [&] { nothing = itc_alloc(4, WORK); }},
        {"itc_free", [&] { itc_free(&nothing); }},
        {"itc_receive", [] { EXPECT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr); }},
        {"itc_send to nobody", [] { send_number(ITC_NO_MBOX, 0); }},
        {"itc_send to itself", [this] { send_number(own, 0); }},
        {"itc_receive of what is queued",
         [] {
             itc_msg *msg = itc_receive(nullptr, 0, ITC_FROM_ANY);
             ASSERT_NE(msg, nullptr);
             itc_free(&msg);
         }},
        {"itc_locate", [this] { EXPECT_EQ(itc_locate("own"), own); }},
        {"itc_locate_async", [&] { itc_locate_async("never", &nothing, own); }},
        {"itc_monitor", [&] { itc_unmonitor(itc_monitor(remote, &nothing)); }},
        {"itc_add_name", [this] { EXPECT_EQ(itc_add_name(own, "own too"), 0); }},
        {"itc_current_mbox", [this] { EXPECT_EQ(itc_current_mbox(), own); }},
        {"itc_get_fd", [] { EXPECT_GE(itc_get_fd(), 0); }},
    };
    for (const auto &[name, make] : calls) {
        fill(20);
        EXPECT_GT(read_all(), 0u);
        ASSERT_LE(got, sent - 20) << "something has to be left over";
        make();
        read_all();
        EXPECT_EQ(got, sent) << name;
    }
}

TEST_F(ItcBacklog, ManyFramesThatWaitedLeaveInOneWrite)
{
    open_channel();
    fill(999);
    read_all();
    ASSERT_EQ(got, sent - 1000);
    const uint64_t writes = itc_internal_channel_writes();
    EXPECT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr);
    EXPECT_LE(itc_internal_channel_writes() - writes, 1000u / 32);
    EXPECT_GT(itc_internal_channel_writes(), writes);
    EXPECT_EQ(read_all(), 1000u);
}

TEST_F(ItcBacklog, WhatWaitsIsHandedOnBeforeItsProcessLeaves)
{
    open_channel();
    fill(500);
    std::thread reader([this] { (void)eventually([this] { return read_all() + got >= sent && got == sent; }); });
    itc_exit();
    reader.join();
    EXPECT_EQ(got, sent);
}

TEST_F(ItcBacklog, AMailboxThatIsDeletedWithABacklogLeavesItsThreadReceiving)
{
    const uint32_t other = itc_create_mailbox("other", 0);
    open_channel();
    fill(20);
    EXPECT_EQ(itc_delete_mailbox(other), 0); // waits for room, in vain
    write_all(channel, words({sizeof(numbered), 0xFFFFU << 16 | (own & 0xFFF), WORK, 7}));
    itc_msg *msg = itc_receive(nullptr, 10000, ITC_FROM_ANY);
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(reinterpret_cast<numbered *>(msg)->value, 7u);
    itc_free(&msg);
    EXPECT_EQ(itc_receive(nullptr, 1, ITC_FROM_ANY), nullptr);
    EXPECT_EQ(itc_add_name(own, "own again"), 0);
}

TEST_F(ItcBacklog, BothEndsOfAChannelHaveMoreRoomThanASocketHasByItself)
{
    int plain[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, plain), 0);
    const int usual = send_buffer(plain[0]);
    const std::set<int> before = sockets();
    open_channel();
    std::set<int> fresh = sockets();
    for (const int fd : before) {
        fresh.erase(fd);
    }
    ASSERT_EQ(fresh.size(), 2u);
    for (const int fd : fresh) {
        EXPECT_GE(send_buffer(fd), 1 << 20);
        EXPECT_GT(send_buffer(fd), usual);
    }
    close(plain[0]);
    close(plain[1]);
}

TEST_F(ItcBacklog, TheRegistrysAnswersWaitForAClientThatReadsLater)
{
    constexpr uint32_t requests = 3000; // more than the socket holds the answers of
    Bytes fields;
    put_text(fields, "remote");
    for (uint32_t serial = 1; serial <= requests; serial++) {
        write_all(connection, frame(5, serial, fields));
    }
    ASSERT_EQ(itc_locate("remote"), remote); // it has seen them all
    for (uint32_t serial = 1; serial <= requests; serial++) {
        ASSERT_EQ(read_frame(connection), frame(104, serial, words({remote})));
    }
}

// ---- What is told on stderr, and that nobody waits for it

enum class deaf {
    full_pipe,
    pipe_without_reader,
    full_socket,
};

// Has stderr lead to something that takes nothing now. Blocking, as stderr is. Returns its reading end.
int deafen(deaf how)
{
    int ends[2];
    if (how == deaf::full_socket ? socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0 : pipe(ends) != 0) {
        _exit(96);
    }
    const int out = ends[1];
    if (how == deaf::pipe_without_reader) {
        close(ends[0]);
    } else {
        fcntl(out, F_SETFL, O_NONBLOCK);
        const std::vector<char> noise(4096, '-');
        for (const size_t size : {noise.size(), size_t{1}}) {
            while (write(out, noise.data(), size) > 0) {
            }
        }
        fcntl(out, F_SETFL, 0);
    }
    dup2(out, STDERR_FILENO);
    close(out);
    return ends[0];
}

uint64_t dropped()
{
    itc_statistics now{};
    itc_get_statistics(&now);
    return now.dropped_no_mailbox;
}

// What a reader that does not wait finds.
std::string read_now(int fd)
{
    fcntl(fd, F_SETFL, O_NONBLOCK);
    std::string text;
    char bytes[4096];
    for (ssize_t got; (got = read(fd, bytes, sizeof bytes)) > 0;) {
        text.append(bytes, static_cast<size_t>(got));
    }
    return text;
}

// Joins, sends to a dead mailbox with a stderr that takes nothing, then lets it be read. 0 for success.
int send_to_the_dead(deaf how)
{
    join("first");
    send_number(ITC_NO_MBOX, 0); // what was dropped before is told of
    itc_exit();
    const uint32_t own = join("sender");
    const uint32_t dead = itc_create_mailbox("dead", 0);
    itc_delete_mailbox(dead);
    const int reader = deafen(how);
    const uint64_t before = dropped();
    for (uint32_t i = 0; i < 1000; i++) {
        send_number(dead, i);
    }
    send_number(own, 1);
    itc_msg *msg = itc_receive(nullptr, 0, ITC_FROM_ANY);
    if (dropped() - before != 1000 || msg == nullptr) {
        return 1;
    }
    itc_free(&msg);
    if (how == deaf::pipe_without_reader) {
        return 0;
    }
    (void)read_now(reader);
    std::string said;
    const bool told = eventually([&] {
        send_number(dead, 0);
        said += read_now(reader);
        return said.find('\n') != std::string::npos;
    });
    const uint64_t silent = dropped() - before - 1;
    const std::string line = "libitc: message dropped, there is no such mailbox (and " + std::to_string(silent) +
                             " before it without a line)\n";
    return told && said == line ? 0 : 2;
}

TEST_F(ItcBacklog, AStderrThatTakesNothingHoldsUpNobodyAndIsToldLater)
{
    itc_exit(); // the children are forked from a process that does not use it
    for (const deaf how : {deaf::full_pipe, deaf::pipe_without_reader, deaf::full_socket}) {
        Child sender([&] { return send_to_the_dead(how); });
        EXPECT_EQ(sender.finish(), 0) << static_cast<int>(how);
    }
}

TEST_F(ItcBacklog, ADropIsCountedAndToldOnStderrButNotEachTime)
{
    const uint64_t before = dropped();
    testing::internal::CaptureStderr();
    for (uint32_t i = 0; i < 5; i++) {
        send_number(ITC_NO_MBOX, i);
    }
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(dropped() - before, 5u);
    EXPECT_EQ(said.find("libitc: message dropped, it was sent to no mailbox (and "), 0u) << said;
    EXPECT_EQ(said.find('\n'), said.size() - 1) << said;
}

TEST_F(ItcBacklog, ALineAboutADropCountsTheSilentOnesBeforeItAndNoOther)
{
    for (int i = 0; i < 3; i++) { // who joins anew hears of the first drop at once
        itc_exit();
        own = join("own");
        testing::internal::CaptureStderr();
        send_number(ITC_NO_MBOX, 1);
        const std::string said = testing::internal::GetCapturedStderr();
        if (i > 0) {
            EXPECT_EQ(said, "libitc: message dropped, it was sent to no mailbox (and 2 before it without a line)\n");
        }
        send_number(ITC_NO_MBOX, 2);
        send_number(ITC_NO_MBOX, 3);
    }
}

TEST_F(ItcBacklog, DropsForOneReasonHideNoneForAnother)
{
    itc_exit();
    own = join("own");
    testing::internal::CaptureStderr();
    for (uint32_t i = 0; i < 5; i++) {
        send_number(ITC_NO_MBOX, i);
    }
    send_number(own + 1, 0); // another mailbox of this process, which it has not
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("it was sent to no mailbox (and "), std::string::npos) << said;
    EXPECT_NE(said.find("there is no such mailbox (and 0 before it without a line)\n"), std::string::npos) << said;
}

// ---- What never gets to a socket

TEST_F(ItcBacklog, AMessageToAnOwnMailboxIsCountedAsSentAndOneToAMailboxThatIsNotThereIsNot)
{
    const auto counted = [] {
        itc_statistics now{};
        itc_get_statistics(&now);
        return now.sent;
    };
    const uint64_t before = counted();
    send_number(own, 1);
    EXPECT_EQ(counted(), before + 1);
    send_number(own + 1, 1);
    EXPECT_EQ(counted(), before + 1);
}

TEST_F(ItcBacklog, AMessageToAnOwnMailboxTouchesNoSocket)
{
    ASSERT_EQ(itc_receive(nullptr, 0, ITC_FROM_ANY), nullptr);
    ASSERT_EQ(kill(registry, SIGSTOP), 0); // whatever was written to it would now lie in the socket
    const std::set<int> open_before = sockets();
    const uint64_t writes = itc_internal_channel_writes();
    for (uint32_t i = 1; i <= 50; i++) { // fewer than a receiver takes between two looks at its descriptors
        send_number(own, i);
        itc_msg *msg = itc_receive(nullptr, 0, ITC_FROM_ANY);
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(reinterpret_cast<numbered *>(msg)->value, i);
        EXPECT_EQ(itc_sender(msg), own);
        itc_free(&msg);
    }
    EXPECT_EQ(sockets(), open_before);
    EXPECT_EQ(itc_internal_channel_writes(), writes);
    for (const int fd : open_before) {
        int unread = -1;
        EXPECT_EQ(ioctl(fd, SIOCOUTQ, &unread), 0);
        EXPECT_EQ(unread, 0) << "something was written to descriptor " << fd;
    }
    EXPECT_EQ(kill(registry, SIGCONT), 0);
}

} // namespace
