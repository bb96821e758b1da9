// The web server and whoever is on the same machine: what a stranger does costs him his own place, and nobody else's.
#include "web.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <filesystem>
#include <future>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace linkd
{
namespace
{

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr uint16_t PORT = 9643;
constexpr int PATIENCE_MS = 20'000;
constexpr uid_t STRANGER = 65534;
constexpr size_t BIG = size_t{8} << 20;

std::string get(const std::string &path, const std::string &fields = "")
{
    return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1:9643\r\n" + fields + "\r\n";
}

// A connection with the server, which nothing makes wait longer than PATIENCE_MS.
class client
{
public:
    client() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(PORT);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connected_ = connect(fd_, reinterpret_cast<const sockaddr *>(&to), sizeof to) == 0;
        const timeval bound = {PATIENCE_MS / 1000, 0};
        (void)setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
        (void)setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
    }
    ~client() { close(fd_); }
    client(const client &) = delete;
    client &operator=(const client &) = delete;

    bool is_connected() const { return connected_; }
    bool say(const std::string &text) const
    {
        return send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
    }
    // What comes until `end` is among it, or nothing more does.
    std::string hear(const std::string &end = "") const
    {
        std::string heard;
        char part[65536];
        size_t looked = 0; // so far it is not there
        for (ssize_t got; (end.empty() || heard.find(end, looked) == std::string::npos) &&
                          (got = recv(fd_, part, sizeof part, 0)) > 0;) {
            looked = heard.size() - std::min(heard.size(), end.size());
            heard.append(part, static_cast<size_t>(got));
        }
        return heard;
    }

private:
    int fd_;
    bool connected_ = false;
};

std::string ask(const std::string &request)
{
    const client one;
    return one.say(request) ? one.hear() : "";
}

using clients = std::vector<std::unique_ptr<client>>;

clients many(size_t count, const std::string &each_says)
{
    clients all;
    for (size_t i = 0; i < count; i++) {
        all.push_back(std::make_unique<client>());
        (void)all.back()->say(each_says);
    }
    return all;
}

// Another user's process. It does something, says so, and then does nothing until it is ended.
class stranger
{
public:
    // To be made before there are threads; `does` begins when it is let.
    explicit stranger(const std::function<bool()> &does)
    {
        EXPECT_EQ(pipe2(begin_, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(done_, O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0) {
            const rlimit many_files = {8192, 8192};
            char byte = 0;
            if (setrlimit(RLIMIT_NOFILE, &many_files) == 0 && setresgid(STRANGER, STRANGER, STRANGER) == 0 &&
                setresuid(STRANGER, STRANGER, STRANGER) == 0 && read(begin_[0], &byte, 1) == 1 && does()) {
                (void)!write(done_[1], "+", 1);
            }
            (void)!write(done_[1], "-", 1);
            for (;;) {
                pause();
            }
        }
    }
    ~stranger()
    {
        kill(pid_, SIGKILL);
        (void)waitpid(pid_, nullptr, 0);
        for (const int fd : {begin_[0], begin_[1], done_[0], done_[1]}) {
            close(fd);
        }
    }
    stranger(const stranger &) = delete;
    stranger &operator=(const stranger &) = delete;

    // Lets it begin; whether it could do what it was to do.
    bool act() const
    {
        char said = 0;
        pollfd ready = {done_[0], POLLIN, 0};
        return write(begin_[1], "x", 1) == 1 && poll(&ready, 1, PATIENCE_MS) == 1 && read(done_[0], &said, 1) == 1 &&
               said == '+';
    }

private:
    pid_t pid_ = -1;
    int begin_[2] = {-1, -1};
    int done_[2] = {-1, -1};
};

class Web : public testing::Test
{
protected:
    // A network of this test's own, so that every port is free.
    void SetUp() override
    {
        if (getuid() != 0 || unshare(CLONE_NEWNET) != 0) {
            GTEST_SKIP() << "no network namespace for " << getuid();
        }
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq request = {};
        strcpy(request.ifr_name, "lo");
        request.ifr_flags = IFF_UP;
        ASSERT_EQ(ioctl(fd, SIOCSIFFLAGS, &request), 0);
        close(fd);
    }

    void serve(const std::string &group = "")
    {
        server_ = std::make_unique<web>();
        server_->routes().Get(
            "/", [](const httplib::Request &, httplib::Response &answer) { answer.set_content("well", "text/plain"); });
        server_->routes().Get("/big", [](const httplib::Request &, httplib::Response &answer) {
            answer.set_content(std::string(BIG, 'b'), "text/plain");
        });
        server_->stream("/events", "first\n", [this](uint64_t after) { return past_of(after); });
        server_->listen("127.0.0.1", PORT, group);
    }

    // Another event, of so many bytes.
    void happen(size_t size = 0)
    {
        uint64_t id = 0;
        {
            const std::lock_guard lock(mutex_);
            id = ++newest_;
            size_ = size;
        }
        server_->tell(id, text_of(id, size));
    }

    static std::string text_of(uint64_t id, size_t size)
    {
        return "<" + std::to_string(id) + std::string(size, ' ') + ">\n";
    }

    past_events past_of(uint64_t after)
    {
        const std::lock_guard lock(mutex_);
        past_events told{"", after, false};
        for (int i = 0; i < 100 && told.told < newest_; i++) {
            told.text += text_of(++told.told, size_);
        }
        told.more = told.told < newest_;
        asked_past_++;
        return told;
    }

    // The numbers of the events in a text, in order.
    static std::vector<uint64_t> numbers_in(const std::string &text)
    {
        std::vector<uint64_t> all;
        for (size_t at = 0; (at = text.find('<', at)) != std::string::npos; at++) {
            all.push_back(std::stoull(text.substr(at + 1)));
        }
        return all;
    }
    static std::vector<uint64_t> from_one_to(uint64_t last)
    {
        std::vector<uint64_t> all;
        for (uint64_t id = 1; id <= last; id++) {
            all.push_back(id);
        }
        return all;
    }

    static void expect_answered() { EXPECT_THAT(ask(get("/")), StartsWith("HTTP/1.1 200")); }

    bool ends_in_time()
    {
        auto ended = std::async(std::launch::async, [this] { server_.reset(); });
        return ended.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    }

    std::mutex mutex_;
    uint64_t newest_ = 0;
    size_t size_ = 0;
    int asked_past_ = 0;
    std::unique_ptr<web> server_;
};

TEST_F(Web, AHeadWithoutAnEndIsRefusedBeforeItCostsMemory)
{
    serve();
    const client one;
    ASSERT_TRUE(one.say("GET / HTTP/1.1\r\nHost: localhost\r\nX: "));
    const std::string more(size_t{64} << 10, 'x');
    size_t taken = 0;
    while (taken < size_t{32} << 20 && one.say(more)) {
        taken += more.size();
    }
    EXPECT_LT(taken, size_t{8} << 20) << "what the kernel holds for both ends, and no more";
    EXPECT_THAT(ask("GET /" + std::string(9000, 'y') + " HTTP/1.1\r\n"), StartsWith("HTTP/1.1 431"));
    EXPECT_THAT(ask("GET / HTTP/1.1\r\nHost: localhost\r\nX: \1\r\n\r\n"), StartsWith("HTTP/1.1 400"));
    EXPECT_THAT(ask("\r\n\r\n"), StartsWith("HTTP/1.1 400"));
    expect_answered();
}

TEST_F(Web, WhoSendsSlowlyOrNothingHoldsNobodyUp)
{
    serve();
    for (const char *part : {"GET / HTTP/1.1\r\nHost: loc", ""}) {
        const clients slow = many(300, part);
        expect_answered();
    }
    const clients slow = many(300, "GET ");
    EXPECT_TRUE(ends_in_time());
}

TEST_F(Web, WhoTakesNothingHoldsNobodyUp)
{
    serve();
    const clients slow = many(100, get("/big"));
    expect_answered();
    EXPECT_TRUE(ends_in_time());
}

TEST_F(Web, WhoOnlyListensHoldsNobodyUp)
{
    serve();
    const clients streams = many(300, get("/events"));
    expect_answered();
    EXPECT_TRUE(ends_in_time());
}

TEST_F(Web, HoweverManyConnectTakeABoundedNumberOfDescriptors)
{
    const auto open = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    static clients idle;
    const stranger other([] {
        idle = many(1000, "");
        return true;
    });
    serve();
    const auto before = open();
    ASSERT_TRUE(other.act());
    expect_answered(); // whoever came before it was seen to
    EXPECT_LE(open() - before, 128);
}

TEST_F(Web, AnotherUsersConnectionsTakeNobodysPlace)
{
    static clients held;
    const stranger other([] {
        held = many(500, "");
        return held.back()->is_connected();
    });
    serve();
    const client mine;
    ASSERT_TRUE(mine.say(get("/events")));
    ASSERT_THAT(mine.hear("first\n"), StartsWith("HTTP/1.1 200"));
    ASSERT_TRUE(other.act());
    expect_answered();
    happen();
    EXPECT_THAT(mine.hear(">"), HasSubstr("<1>"));
}

TEST_F(Web, AStreamTellsThePastAndThenWhatComesWithoutAGapAndNothingTwice)
{
    serve();
    for (int i = 0; i < 250; i++) {
        happen(); // nobody listens yet
    }
    const client one;
    ASSERT_TRUE(one.say(get("/events?since=0")));
    for (int i = 0; i < 250; i++) {
        happen();
    }
    std::string heard = one.hear("<500>");
    EXPECT_THAT(heard, HasSubstr("\r\n\r\nfirst\n"));
    EXPECT_THAT(heard, HasSubstr("Content-Type: text/event-stream"));
    happen();
    heard += one.hear("<501>");
    EXPECT_EQ(numbers_in(heard), from_one_to(501));
    const client again;
    ASSERT_TRUE(again.say(get("/events?since=7", "Last-Event-ID: 499\r\n")));
    EXPECT_EQ(numbers_in(again.hear("<501>")), (std::vector<uint64_t>{500, 501}));
    EXPECT_THAT(ask(get("/events?since=yesterday")), StartsWith("HTTP/1.1 400"));
}

TEST_F(Web, AStreamThatFallsBehindIsToldTheRestOutOfThePast)
{
    serve();
    const client one;
    ASSERT_TRUE(one.say(get("/events")));
    std::string heard = one.hear("first\n");
    constexpr uint64_t LAST = 2500; // many times what is kept for it here and in the kernel
    for (uint64_t i = 0; i < LAST; i++) {
        happen(4000);
    }
    heard += one.hear("<" + std::to_string(LAST));
    EXPECT_EQ(numbers_in(heard), from_one_to(LAST));
    const std::lock_guard lock(mutex_);
    EXPECT_GT(asked_past_, 1);
}

TEST_F(Web, WhatIsAskedForInPiecesOrCompressedIsGivenOnceAndAsItIs)
{
    serve();
    std::string ranges = "Range: bytes=0-";
    for (int i = 0; i < 1000; i++) {
        ranges += ",0-";
    }
    const std::string answer = ask(get("/", ranges + "\r\nAccept-Encoding: gzip, br\r\n"));
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(answer, HasSubstr("Content-Length: 4\r\n"));
    EXPECT_THAT(answer, HasSubstr("\r\n\r\nwell"));
    EXPECT_THAT(answer, Not(HasSubstr("Content-Encoding")));
    EXPECT_THAT(answer, HasSubstr("Connection: close\r\n"));
}

TEST_F(Web, APageFromElsewhereMayLeadHereAndAskNothing)
{
    serve();
    for (const char *site : {"cross-site", "same-site"}) {
        const std::string from = std::string("Sec-Fetch-Site: ") + site + "\r\n";
        for (const char *path : {"/", "/big", "/events", "/api/links"}) {
            EXPECT_THAT(ask(get(path, from + "Sec-Fetch-Mode: no-cors\r\n")), StartsWith("HTTP/1.1 403")) << path;
        }
        EXPECT_THAT(ask(get("/", from + "Sec-Fetch-Mode: navigate\r\n")), StartsWith("HTTP/1.1 200"));
        EXPECT_THAT(ask(get("/events", from + "Sec-Fetch-Mode: navigate\r\n")), StartsWith("HTTP/1.1 403"));
    }
    for (const char *site : {"same-origin", "none"}) {
        EXPECT_THAT(ask(get("/", std::string("Sec-Fetch-Site: ") + site + "\r\n")), StartsWith("HTTP/1.1 200"));
    }
}

TEST_F(Web, NothingIsTakenBesideAQuestion)
{
    serve();
    EXPECT_THAT(ask("POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5\r\n\r\nhello"),
                StartsWith("HTTP/1.1 405"));
    EXPECT_THAT(ask("GET / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"),
                StartsWith("HTTP/1.1 405"));
    const std::string head = ask("HEAD / HTTP/1.1\r\nHost: localhost\r\n\r\n");
    EXPECT_THAT(head, StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(head, Not(HasSubstr("well")));
    EXPECT_THAT(ask(get("/nowhere")), StartsWith("HTTP/1.1 404"));
}

TEST_F(Web, WhereAGroupIsNamedOnlyItsMembersAndRootAreAnswered)
{
    static std::string heard;
    const auto asks = [] {
        heard = ask(get("/"));
        return heard.starts_with("HTTP/1.1 200");
    };
    const stranger member(asks);
    const stranger other(asks);
    serve("nogroup"); // the stranger's
    expect_answered();
    EXPECT_TRUE(member.act());
    serve("daemon");
    expect_answered();
    EXPECT_FALSE(other.act());
    web third;
    EXPECT_THROW(third.listen("127.0.0.1", PORT + 1, "no-such-group"), std::runtime_error);
}

} // namespace
} // namespace linkd
