// Those who are told of changes: programs of notify.d, a journal's socket, whoever asks the web server.
#include "journal.hpp"
#include "metrics.hpp"
#include "notify.hpp"
#include "web.hpp"

#include <httplib.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace linkd
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;

class NotifyTest : public testing::Test
{
protected:
    static constexpr int64_t PATIENCE_MS = 20'000;

    NotifyTest()
    {
        std::string name = std::filesystem::temp_directory_path() / "kap-notify-XXXXXX";
        directory_ = mkdtemp(name.data());
        std::filesystem::create_directory(directory_ + "/notify.d");
        wanted_.directory = directory_ + "/notify.d";
        wanted_.say = [this](const std::string &what) { said_.push_back(what); };
    }
    ~NotifyTest() override { std::filesystem::remove_all(directory_); }

    void SetUp() override
    {
        if (getuid() != 0) {
            GTEST_SKIP() << "only what is root's is run";
        }
    }

    void program(const std::string &name, const std::string &text, mode_t mode = 0755)
    {
        const std::string path = wanted_.directory + "/" + name;
        std::ofstream(path) << "#!/bin/sh\nO=" << directory_ << "\n" << text << "\n";
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }
    static link_change change(const std::string &link, uint64_t id)
    {
        return {id, 0, {link, "IDL_A1", 1, ""}, link_state::enabled, link_state::disabled, "down", 1, {}};
    }
    std::vector<std::string> lines(const std::string &name) const
    {
        std::ifstream file(directory_ + "/" + name);
        std::vector<std::string> all;
        for (std::string line; std::getline(file, line);) {
            all.push_back(line);
        }
        return all;
    }
    // Turns the loop until that is so.
    bool until(const std::function<bool()> &so)
    {
        const int64_t end = boot_ms() + PATIENCE_MS;
        bool was = false;
        std::function<void()> look = [&] {
            was = so();
            if (was || boot_ms() > end) {
                turns_.stop(0);
            } else {
                turns_.after(5, look);
            }
        };
        if (so()) {
            return true;
        }
        turns_.after(0, look);
        (void)turns_.run();
        return was;
    }

    std::string directory_;
    loop turns_;
    notify_settings wanted_;
    std::vector<std::string> said_;
};

TEST_F(NotifyTest, EachLinkIsToldInOrderByEachProgramInTurn)
{
    program("10-first", "echo \"first $KAP_ID\" >> $O/$KAP_LINK");
    program("20-second", "read line; echo \"second $line\" >> $O/$KAP_LINK");
    notifier told(turns_, wanted_);
    for (uint64_t id = 1; id <= 5; id++) {
        told.changed(change("a", id));
        told.changed(change("b", 10 + id));
    }
    ASSERT_TRUE(until([&] { return lines("a").size() == 10 && lines("b").size() == 10; }));
    const auto a = lines("a");
    for (uint64_t id = 1; id <= 5; id++) {
        EXPECT_EQ(a[2 * id - 2], "first " + std::to_string(id));
        EXPECT_THAT(a[2 * id - 1], HasSubstr("\"id\":" + std::to_string(id)));
    }
    ASSERT_TRUE(until([&] { return told.look().running == 0; }));
    EXPECT_EQ(told.look().started, 20U);
    EXPECT_EQ(told.look().failed, 0U);
}

TEST_F(NotifyTest, OnlyWhatIsRootsAndNobodyElseMayWriteIsRun)
{
    program("fine", "echo fine >> $O/out");
    program("writable", "echo writable >> $O/out", 0757);
    program("others", "echo others >> $O/out");
    ASSERT_EQ(chown((wanted_.directory + "/others").c_str(), 65534, 65534), 0);
    program("plain", "echo plain >> $O/out", 0644);
    program("fine.dpkg-old", "echo old >> $O/out");
    std::filesystem::create_symlink(wanted_.directory + "/fine", wanted_.directory + "/link");
    notifier told(turns_, wanted_);
    told.changed(change("a", 1));
    told.changed(change("a", 2));
    ASSERT_TRUE(until([&] { return told.look().waiting == 0 && told.look().running == 0; }));
    EXPECT_THAT(lines("out"), ElementsAre("fine", "fine"));
    EXPECT_EQ(said_.size(), 3U) << "writable, others, link: once each";
    ASSERT_EQ(chmod(wanted_.directory.c_str(), 0777), 0);
    told.changed(change("a", 3));
    ASSERT_TRUE(until([&] { return told.look().waiting == 0 && told.look().running == 0; }));
    EXPECT_EQ(lines("out").size(), 2U) << "whoever may write the directory may put anything there";
}

TEST_F(NotifyTest, AProgramThatTakesTooLongIsEndedWithAllThatItStarted)
{
    wanted_.seconds = 1;
    program("slow", "trap '' TERM; sleep 1000 & echo $! >> $O/pids; echo $$ >> $O/pids; wait; sleep 1000");
    notifier told(turns_, wanted_);
    told.changed(change("a", 1));
    ASSERT_TRUE(until([&] { return told.look().failed == 1 && told.look().running == 0; }));
    EXPECT_EQ(told.look().ended, 1U);
    const auto pids = lines("pids");
    ASSERT_EQ(pids.size(), 2U);
    // A child of its own is gone, or dead and waited for by nobody here.
    for (const std::string &pid : pids) {
        EXPECT_TRUE(until([&] {
            std::ifstream stat("/proc/" + pid + "/stat");
            std::string text;
            std::getline(stat, text);
            return text.empty() || text.find(") Z ") != std::string::npos;
        })) << pid;
    }
}

TEST_F(NotifyTest, OneSlowLinkHoldsUpNoOtherAndOnlySoManyRun)
{
    wanted_.programs_at_once = 3;
    program("one", "echo + >> $O/count; [ $KAP_LINK = fast ] || while [ ! -e $O/go ]; do sleep 0.01; done");
    notifier told(turns_, wanted_);
    told.changed(change("slow", 1));
    told.changed(change("slow", 2));
    told.changed(change("fast", 3));
    ASSERT_TRUE(until([&] { return lines("count").size() == 2; })) << "slow's first and fast";
    for (int i = 0; i < 10; i++) {
        told.changed(change("more" + std::to_string(i), 10));
    }
    ASSERT_TRUE(until([&] { return told.look().running == 3 && told.look().waiting == 9; }));
    std::ofstream(directory_ + "/go") << "go";
    ASSERT_TRUE(until([&] { return told.look().started == 13 && told.look().running == 0; }));
}

TEST_F(NotifyTest, AFlappingLinkIsHeldDownAndSummedUpOnce)
{
    wanted_.flap_changes = 3;
    wanted_.hold_down_s = 1;
    program("one", "echo $KAP_EVENT $KAP_ID $KAP_HELD >> $O/$KAP_LINK");
    notifier told(turns_, wanted_);
    for (uint64_t id = 1; id <= 1000; id++) {
        told.changed(change("a", id));
    }
    told.changed(change("b", 2000));
    ASSERT_TRUE(until([&] { return lines("a").size() == 5; }));
    EXPECT_THAT(lines("a"), ElementsAre("change 1 0", "change 2 0", "change 3 0", "flapping 4 0", "summary 1000 996"));
    EXPECT_THAT(lines("b"), ElementsAre("change 2000 0"));
    told.changed(change("a", 3000));
    ASSERT_TRUE(until([&] { return lines("a").size() == 6; }));
    EXPECT_EQ(lines("a").back(), "change 3000 0") << "calm again";
}

TEST_F(NotifyTest, AFlappingLinkThatIsCalmAtOnceIsSummedUpToo)
{
    wanted_.flap_changes = 3;
    wanted_.hold_down_s = 1;
    program("one", "echo $KAP_EVENT $KAP_STATE $KAP_ID $KAP_HELD >> $O/$KAP_LINK");
    notifier told(turns_, wanted_);
    for (uint64_t id = 1; id <= 4; id++) {
        told.changed(change("a", id));
    }
    ASSERT_TRUE(until([&] { return lines("a").size() == 5; }));
    EXPECT_EQ(lines("a")[3], "flapping disabled 4 0");
    EXPECT_EQ(lines("a")[4], "summary disabled 4 0") << "whoever was told that it flaps is told that it does not";
}

TEST_F(NotifyTest, NothingIsRunBelowADirectoryThatIsNotRootsAlone)
{
    program("one", "echo run >> $O/out");
    notifier told(turns_, wanted_);
    uint64_t id = 0;
    const auto runs = [&] {
        const size_t before = lines("out").size();
        told.changed(change("a", ++id));
        EXPECT_TRUE(until([&] { return told.look().waiting == 0 && told.look().running == 0; }));
        return lines("out").size() == before + 1;
    };
    EXPECT_TRUE(runs());
    EXPECT_EQ(chmod(directory_.c_str(), 0775), 0);
    EXPECT_FALSE(runs()) << "a group may put another notify.d in its place";
    EXPECT_EQ(chmod(directory_.c_str(), 01777), 0);
    EXPECT_TRUE(runs()) << "sticky: what is root's stays";
    EXPECT_EQ(chmod(directory_.c_str(), 0755), 0);
    EXPECT_EQ(chown(directory_.c_str(), 65534, 65534), 0);
    EXPECT_FALSE(runs()) << "its owner may";
    EXPECT_EQ(chown(directory_.c_str(), 0, 0), 0);
    EXPECT_TRUE(runs());
    EXPECT_EQ(said_.size(), 1U) << "once";
}

TEST_F(NotifyTest, ADirectoryIsReachedOnlyByLinksThatAreRoots)
{
    program("one", "echo run >> $O/out");
    const std::string safe = directory_ + "/safe";
    const std::string link = directory_ + "/link";
    std::filesystem::rename(wanted_.directory, safe);
    std::filesystem::create_symlink("./safe", link);
    wanted_.directory = link;
    {
        notifier told(turns_, wanted_);
        told.changed(change("a", 1));
        ASSERT_TRUE(until([&] { return lines("out").size() == 1; }));
    }
    ASSERT_EQ(lchown(link.c_str(), 65534, 65534), 0);
    notifier told(turns_, wanted_);
    told.changed(change("a", 2));
    ASSERT_TRUE(until([&] { return told.look().waiting == 0 && told.look().running == 0; }));
    EXPECT_EQ(lines("out").size(), 1U);
    EXPECT_EQ(told.look().started, 0U);
}

TEST_F(NotifyTest, WhatAProgramWritesIsSaidUpToABound)
{
    program("10-loud", "echo hello; printf 'a\\033[31mb\\n' >&2; i=0; while [ $i -lt 20000 ]; do echo line $i; "
                       "i=$((i+1)); done; printf 'no end'");
    program("20-quiet", "echo done >> $O/out");
    notifier told(turns_, wanted_);
    told.changed(change("a", 1));
    ASSERT_TRUE(until([&] { return lines("out").size() == 1 && told.look().running == 0; }));
    const std::string name = wanted_.directory + "/10-loud: ";
    ASSERT_GT(said_.size(), 4U);
    EXPECT_EQ(said_[0], name + "hello");
    EXPECT_EQ(said_[1], name + "a [31mb");
    EXPECT_EQ(said_[2], name + "line 0");
    EXPECT_EQ(said_.back(), name + "and more, which is not shown");
    size_t bytes = 0;
    for (const std::string &line : said_) {
        bytes += line.size() - name.size();
    }
    EXPECT_LT(bytes, 5000U);
}

TEST_F(NotifyTest, ALongLineWithoutAnEndIsNotKept)
{
    program("one", "head -c 3000000 /dev/zero | tr '\\0' x; echo end >> $O/out");
    notifier told(turns_, wanted_);
    told.changed(change("a", 1));
    ASSERT_TRUE(until([&] { return lines("out").size() == 1 && told.look().running == 0; }));
    ASSERT_EQ(said_.size(), 2U);
    EXPECT_LT(said_[0].size(), wanted_.directory.size() + 600);
}

TEST_F(NotifyTest, ALinkThatIsGoneIsForgottenWhatEverWasDropped)
{
    wanted_.hold_down_s = 0;
    wanted_.programs_at_once = 1;
    wanted_.waiting = 1;
    program("one", "while [ ! -e $O/go ]; do sleep 0.01; done; echo $KAP_LINK $KAP_DROPPED >> $O/out");
    notifier told(turns_, wanted_);
    told.changed(change("first", 1));
    for (uint64_t id = 2; id <= 20; id++) { // each pushes out the one before
        link_change gone = change("l" + std::to_string(id), id);
        gone.to = link_state::gone;
        told.changed(gone);
    }
    std::ofstream(directory_ + "/go") << "go";
    ASSERT_TRUE(until([&] { return lines("out").size() == 2 && told.look().running == 0; }));
    EXPECT_EQ(lines("out")[1], "l20 0");
    EXPECT_EQ(told.look().dropped, 18U);
    EXPECT_EQ(told.look().links, 0U);
}

TEST_F(NotifyTest, WhatCannotWaitIsDroppedFromTheOldestAndCounted)
{
    wanted_.hold_down_s = 0;
    wanted_.waiting_of_a_link = 3;
    program("one", "echo $KAP_ID $KAP_DROPPED >> $O/$KAP_LINK; while [ ! -e $O/go ]; do sleep 0.01; done");
    notifier told(turns_, wanted_);
    for (uint64_t id = 1; id <= 10; id++) {
        told.changed(change("a", id));
    }
    std::ofstream(directory_ + "/go") << "go";
    ASSERT_TRUE(until([&] { return lines("a").size() == 4 && told.look().running == 0; }));
    EXPECT_THAT(lines("a"), ElementsAre("1 0", "8 6", "9 0", "10 0"));
}

// ---- The journal

TEST(JournalSocket, GetsOneEntryForEveryChangeWithItsFields)
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("run", "/run", "tmpfs", 0, nullptr) != 0) {
        GTEST_SKIP() << "no mount namespace for " << getuid();
    }
    std::filesystem::create_directories("/run/systemd/journal");
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un at = {};
    at.sun_family = AF_UNIX;
    strcpy(at.sun_path, "/run/systemd/journal/socket");
    ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&at), sizeof at), 0);
    journal told;
    const link_change change{7,
                             0,
                             {"to-north", "IDL_A1", 100, "02:00:00:00:00:02"},
                             link_state::enabled,
                             link_state::disabled,
                             "no connectivity",
                             5'000'000,
                             {}};
    told.changed(change);
    pollfd ready = {fd, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 20'000), 1);
    std::string entry(65536, '\0');
    const ssize_t size = recv(fd, entry.data(), entry.size(), 0);
    ASSERT_GT(size, 0);
    entry.resize(static_cast<size_t>(size));
    std::string expected;
    for (const std::string &field : journal_entry_of(change)) {
        expected += field + "\n";
    }
    EXPECT_EQ(entry, expected);
    close(fd);
}

TEST(JournalSocket, WithoutAJournalALineOnStderrSaysTheSame)
{
    testing::internal::CaptureStderr();
    {
        journal told("/nonexistent/socket");
        told.changed(
            {7, 0, {"to-north", "IDL_A1", 100, ""}, link_state::waiting, link_state::enabled, "", 5'000'000, {}});
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kap-linkd: to-north (IDL_A1, VLAN 100): enabled after 5 s waiting\n");
}

// ---- The web server

std::string ask(uint16_t port, const std::string &request)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0 &&
        send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
        char part[4096];
        for (ssize_t got; (got = recv(fd, part, sizeof part, 0)) > 0;) {
            answer.append(part, static_cast<size_t>(got));
        }
    }
    close(fd);
    return answer;
}

// A network of this test's own, so that every port is free.
bool enter_network()
{
    if (unshare(CLONE_NEWNET) != 0) {
        return false;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP;
    const bool up = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    close(fd);
    return up;
}

TEST(Metrics, AreGivenOutOnlyToWhoAsksForThisMachine)
{
    if (!enter_network()) {
        GTEST_SKIP() << "no network namespace for " << getuid();
    }
    constexpr uint16_t PORT = 9643;
    metrics figures;
    metrics_input input;
    input.newest_change = 4711;
    figures.hand_over(std::move(input));
    web server;
    add_metrics(server.routes(), figures);
    server.listen("127.0.0.1", PORT);
    const auto get = [&](const std::string &path, const std::string &host) {
        return ask(PORT, "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n\r\n");
    };
    const std::string good = get("/metrics", "127.0.0.1:9643");
    EXPECT_THAT(good, HasSubstr("HTTP/1.1 200"));
    EXPECT_THAT(good, HasSubstr("Content-Type: text/plain; version=0.0.4"));
    EXPECT_THAT(good, HasSubstr("\nkap_history_newest_change 4711\n"));
    EXPECT_THAT(get("/metrics", "localhost"), HasSubstr("HTTP/1.1 200"));
    EXPECT_THAT(get("/metrics", "[::1]:9643"), HasSubstr("HTTP/1.1 200"));
    for (const char *other : {"evil.example", "127.0.0.1.evil.example", "", "localhost.evil.example:9643"}) {
        const std::string refused = get("/metrics", other);
        EXPECT_THAT(refused, HasSubstr("HTTP/1.1 403")) << other;
        EXPECT_EQ(refused.find("4711"), std::string::npos);
    }
    web second;
    EXPECT_THROW(second.listen("127.0.0.1", PORT), std::runtime_error) << "somebody has it";
}

} // namespace
} // namespace linkd
