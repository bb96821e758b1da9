// The control socket by itself: a keeper without a daemon behind it, and peers that behave as they like. The loop turns
// on a thread of its own; nothing else touches what is its.
#include "control.hpp"
#include "hub.hpp"

#include "control_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <list>
#include <thread>

#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace
{

using namespace linkd;
using nlohmann::json;
using testing::HasSubstr;

class no_daemon : public sender
{
public:
    uint32_t send(const request &) override { return ++number_; }

private:
    uint32_t number_ = 0;
};

// Remembers everything, in memory.
class long_past : public no_past
{
public:
    std::vector<link_change> all;
    std::function<void()> asked_for_samples = [] {};
    std::function<void()> asked_for_history = [] {};
    void number(link_change &change) override
    {
        change.id = all.size() + 1;
        all.push_back(change);
    }
    std::vector<link_change> since(uint64_t since, const std::string &link, size_t limit) override
    {
        std::vector<link_change> out;
        for (size_t i = since; i < all.size() && out.size() < limit; i++) {
            if (link.empty() || all[i].link.name == link) {
                out.push_back(all[i]);
            }
        }
        return out;
    }
    std::vector<link_change> latest(uint64_t since, uint64_t before, const std::string &link, size_t limit) override
    {
        std::vector<link_change> out;
        for (size_t i = std::min<size_t>(before - 1, all.size()); i > since && out.size() < limit; i--) {
            if (link.empty() || all[i - 1].link.name == link) {
                out.insert(out.begin(), all[i - 1]);
            }
        }
        return out;
    }
    uint64_t newest() override { return all.size(); }
    uint64_t last_before(int64_t at_us) override
    {
        const auto first = std::find_if(all.begin(), all.end(), [&](const auto &each) { return each.at_us >= at_us; });
        return static_cast<uint64_t>(first - all.begin());
    }
    bool knows(const std::string &link) override
    {
        return std::any_of(all.begin(), all.end(), [&](const auto &each) { return each.link.name == link; });
    }
    json history(const std::string &, int64_t, int64_t, size_t) override
    {
        asked_for_history();
        return json::object();
    }
    json samples(const std::string &, int64_t, int64_t, size_t) override
    {
        asked_for_samples();
        return json::array();
    }
};

class Control : public testing::Test
{
protected:
    void SetUp() override
    {
        std::filesystem::create_directory(where.state);
        std::ofstream(where.links) << "[links.declared]\nport = \"IDL_A1\"\nvlan = 1\nfar = \"02:00:00:00:00:02\"\n";
        EXPECT_TRUE(book.load().empty());
        hub_.add(control_);
        keeps.declare(book.all(), {boot_us(), real_us()});
        control_.listen(socket_path, {"", ""});
        turns.watch(jobs, EPOLLIN, [this](uint32_t) {
            uint64_t count = 0;
            (void)!read(jobs, &count, sizeof count);
            job();
            job_done.set_value();
        });
        runs = std::thread([this] { turns.run(); });
    }
    void TearDown() override
    {
        on_loop([this] { turns.stop(0); });
        runs.join();
        close(jobs);
        std::filesystem::remove_all(directory);
    }
    void on_loop(std::function<void()> what)
    {
        job = std::move(what);
        job_done = {};
        const uint64_t one = 1;
        (void)!write(jobs, &one, sizeof one);
        job_done.get_future().wait();
    }
    void change(const std::string &link, int64_t at_us = 0)
    {
        on_loop([&] {
            link_change what;
            what.link.name = link;
            what.at_us = at_us;
            hub_.changed(what);
        });
    }
    static std::vector<uint64_t> ids(const json &answer)
    {
        std::vector<uint64_t> all;
        for (const json &each : answer["events"]) {
            all.push_back(each["id"]);
        }
        return all;
    }

    static std::string temporary()
    {
        char pattern[] = "/tmp/linkd_control.XXXXXX";
        return mkdtemp(pattern);
    }

    static paths paths_in(const std::string &directory)
    {
        paths where;
        where.links = directory + "/links.toml";
        where.state = directory + "/state";
        return where;
    }

    std::string directory = temporary();
    std::string socket_path = directory + "/s";
    paths where = paths_in(directory);
    loop turns;
    no_daemon nobody;
    long_past before;
    hub hub_{before};
    keeper keeps{nobody, hub_, 8};
    link_book book{where};
    control control_{turns,
                     keeps,
                     book,
                     before,
                     {[] { return false; },
                      [this] {
                          return keeps.declare(book.all(), {boot_us(), real_us()});
                      }}};
    int jobs = eventfd(0, EFD_CLOEXEC);
    std::function<void()> job;
    std::promise<void> job_done;
    std::thread runs;
};

TEST_F(Control, TellsAllOfEachLink)
{
    control_client client(socket_path);
    const json answer = client.ask("links");
    EXPECT_TRUE(answer["ok"]);
    EXPECT_EQ(answer["v"], 1);
    EXPECT_EQ(answer["id"], 1);
    ASSERT_EQ(answer["links"].size(), 1u);
    for (const char *member :
         {"name", "port", "vlan", "far", "near_mp", "app_links", "rtt", "source", "file", "state", "reason", "since_us",
          "flaps_today", "link_ref", "near_mac", "rtt_us", "results", "lost", "next_try_us"}) {
        EXPECT_TRUE(answer["links"][0].contains(member)) << member;
    }
    EXPECT_EQ(answer["links"][0]["state"], "waiting");
    EXPECT_EQ(client.ask("status")["missing"], "no registry");
}

TEST_F(Control, AnswersEveryHostileLineWithWhatIsWrongWithIt)
{
    control_client client(socket_path);
    const std::pair<std::string, const char *> lines[] = {
        {"x", "bad_request"},
        {"[]", "bad_request"},
        {"{}", "bad_request"},
        {R"({"op":1})", "bad_request"},
        {R"({"op":"links","v":2})", "bad_request"},
        {R"({"op":"links","id":{"a":1}})", "bad_request"},
        {R"({"op":"shoot"})", "unknown_op"},
        {R"({"op":"link"})", "bad_request"},
        {R"({"op":"link","name":"nobody"})", "unknown_link"},
        {R"({"op":"events","since":-1})", "bad_request"},
        {R"({"op":"events","since":9223372036854775808})", "bad_request"},
        {R"({"op":"events","before":18446744073709551615})", "bad_request"},
        {R"({"op":"events","newest":-1})", "bad_request"},
        {R"({"op":"events","since_us":"today"})", "bad_request"},
        {R"({"op":"events","before":2,"follow":true})", "bad_request"},
        {R"({"op":"events","link":"nobody"})", "unknown_link"},
        {R"({"op":"history","name":"nobody"})", "unknown_link"},
        {R"({"op":"samples","name":"nobody"})", "unknown_link"},
        {R"({"op":"links","members":"name"})", "bad_request"},
        {R"({"op":"links","members":[1]})", "bad_request"},
        {R"({"op":"links","id":")" + std::string(129, 'x') + R"("})", "bad_request"},
        {R"({"op":"events","follow":1})", "bad_request"},
        {R"({"op":"history","name":7})", "bad_request"},
        {R"({"op":"add","name":"a b","port":"IDL_A1","vlan":1,"far":"02:00:00:00:00:03"})", "invalid"},
        {R"({"op":"add","name":"declared","port":"IDL_A1","vlan":1,"far":"02:00:00:00:00:03"})", "exists"},
        {R"({"op":"add","name":"new","port":"TN_A","vlan":1,"far":"02:00:00:00:00:02"})", "invalid"},
        {R"({"op":"add","name":"new","port":"IDL_A1","vlan":1})", "invalid"},
        {R"({"op":"set","name":"declared","vlan":2})", "invalid"},
        {R"({"op":"delete","name":"declared"})", "invalid"},
        {R"({"op":"rtt","name":"declared"})", "bad_request"},
        {R"({"op":"rtt","name":"declared","on":7})", "invalid"},
        {"{\"op\":\"\xff\"}", "bad_request"},
        {std::string(10'000, '['), "bad_request"},
    };
    for (const auto &[line, code] : lines) {
        ASSERT_TRUE(client.send_text(line + "\n"));
        const auto answer = client.read_line();
        ASSERT_TRUE(answer) << line;
        EXPECT_EQ((*answer)["error"]["code"], code) << line;
        EXPECT_FALSE((*answer)["ok"]);
    }
    EXPECT_TRUE(client.ask("links")["ok"]) << "it is served still";
}

TEST_F(Control, TakesAnIdOf128BytesAndKeepsNoLongerOne)
{
    control_client client(socket_path);
    const std::string longest(128, 'x');
    ASSERT_TRUE(client.send_text(R"({"op":"status","id":")" + longest + "\"}\n"));
    EXPECT_EQ((*client.read_line())["id"], longest);
    ASSERT_TRUE(client.send_text(R"({"op":"events","follow":true,"id":"x)" + longest + "\"}\n"));
    const json answer = *client.read_line();
    EXPECT_EQ(answer["id"], nullptr);
    EXPECT_EQ(answer["error"]["text"], "\"id\" must be a number or a text of at most 128 bytes");
}

TEST_F(Control, TellsOfEachLinkOnlyTheMembersThatAreAskedFor)
{
    control_client client(socket_path);
    const json answer = client.ask({{"op", "links"}, {"members", {"name", "link_ref", "unheard_of"}}});
    EXPECT_EQ(answer["links"], json::parse(R"([{"name": "declared", "link_ref": 0}])"));
    EXPECT_EQ(client.ask({{"op", "links"}, {"members", json::array()}})["links"], json::parse("[{}]"));
    EXPECT_EQ(client.ask("links")["links"][0], client.ask({{"op", "link"}, {"name", "declared"}})["link"]);
}

TEST(LinkText, IsTheJsonOfTheLinkWhateverIsInIt)
{
    link_view view;
    view.link = {"a.b-c_d", "IDL_A1", 4094, "02:00:00:00:00:02"};
    view.reason = "a \"reason\" \\ of\ntwo lines, \xc3\xa4 and \xff";
    view.file = std::string("/nul\0byte", 9);
    view.near_mp = 63;
    view.app_links = {{{2, 0, 0, 0, 1, 1}, {2, 0, 0, 0, 1, 2}}, {{2, 0, 0, 0, 2, 1}, {2, 0, 0, 0, 2, 2}}};
    view.rtt = rtt_wish{10, 2, 128};
    view.last_rtt = rtt_sample{"", 0, 40'000, 51'120, 60'001, 3};
    view.since_us = -1;
    view.results = UINT64_MAX;
    std::string text;
    append_json(text, view);
    EXPECT_EQ(text.find('\n'), std::string::npos) << "it is one line";
    const json link = json::parse(text);
    EXPECT_EQ(link["reason"], "a \"reason\" \\ of\ntwo lines, \xc3\xa4 and \xef\xbf\xbd");
    EXPECT_EQ(link["file"], view.file);
    EXPECT_EQ(link["near_mp"], 63);
    EXPECT_EQ(link["app_links"][1], json::parse(R"({"near": "02:00:00:00:02:01", "far": "02:00:00:00:02:02"})"));
    EXPECT_EQ(link["app_links"].size(), 2u);
    EXPECT_EQ(link["rtt"], json::parse(R"({"batch": 10, "interval": 2, "frame_bytes": 128})"));
    EXPECT_EQ(link["rtt_us"], json::parse(R"({"min": 40.0, "avg": 51.12, "max": 60.001})"));
    EXPECT_EQ(link["since_us"], -1);
    EXPECT_EQ(link["results"], UINT64_MAX);
    EXPECT_EQ(link["vlan"], 4094);
    view.rtt.reset();
    view.last_rtt->valid = 0;
    EXPECT_EQ(json_of(view)["rtt"], false);
    EXPECT_EQ(json_of(view)["rtt_us"], nullptr);
}

// What another user is answered to a line: the code of the refusal, "ok", or "none".
std::string answer_to(const std::string &socket_path, gid_t group, const std::vector<gid_t> &groups,
                      const std::string &line)
{
    constexpr uid_t NOBODY = 65534;
    int ends[2];
    if (pipe(ends) != 0) {
        return "no pipe";
    }
    const pid_t child = fork();
    if (child == 0) {
        if (setgroups(groups.size(), groups.data()) != 0 || setresgid(group, group, group) != 0 ||
            setresuid(NOBODY, NOBODY, NOBODY) != 0) {
            _exit(9);
        }
        control_client client(socket_path);
        (void)client.send_text(line + "\n");
        const auto got = client.read_line();
        const std::string text = !got                   ? "none"
                                 : (*got)["ok"] == true ? "ok"
                                                        : (*got)["error"]["code"].get<std::string>();
        (void)!write(ends[1], text.data(), text.size());
        _exit(0);
    }
    close(ends[1]);
    char room[100];
    std::string text;
    for (ssize_t n = 0; (n = read(ends[0], room, sizeof room)) > 0;) {
        text.append(room, static_cast<size_t>(n));
    }
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 9 ? "cannot be another" : text;
}

// Whoever copies or prints a value goes down as deep as it is nested, and a line has room for more than a stack has.
TEST_F(Control, TakesNothingThatIsNestedDeeperThanAnyRequest)
{
    const auto nested = [](size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); };
    control_client client(socket_path);
    for (const std::string &line : {R"({"op":"status","id":)" + nested(200'000) + "}\n",
                                    R"({"op":"rtt","name":"declared","on":{"a":)" + nested(200'000) + "}}\n",
                                    R"({"op":"status","other":)" + nested(9) + "}\n"}) {
        ASSERT_TRUE(client.send_text(line));
        auto answer = client.read_line();
        ASSERT_TRUE(answer);
        EXPECT_EQ((*answer)["error"]["code"], "bad_request");
        EXPECT_EQ((*answer)["error"]["text"], "nothing is nested so deep");
    }
    json request = {{"op", "status"}};
    request["other"] = json::parse(nested(8));
    EXPECT_EQ(client.ask(request)["ok"], true);
}

TEST_F(Control, LetsReadersLookAndOnlyWritersChangeSomething)
{
    constexpr gid_t READERS = 65534; // "nogroup"
    constexpr gid_t WRITERS = 1;     // "daemon"
    constexpr gid_t OTHERS = 65533;
    const std::string look = R"({"op":"links"})";
    const std::string change = R"({"op":"reload"})";
    const std::string path = directory + "/t";
    std::filesystem::permissions(directory, std::filesystem::perms::all);
    control second(turns, keeps, book, before, {[] { return false; }, [] { return keeper::difference{}; }});
    on_loop([&] { second.listen(path, {"nogroup", "daemon"}); });
    if (answer_to(path, READERS, {}, look) == "cannot be another") {
        GTEST_SKIP() << "this user cannot become another";
    }
    EXPECT_EQ(answer_to(path, READERS, {}, look), "ok");
    EXPECT_EQ(answer_to(path, READERS, {}, change), "not_allowed");
    EXPECT_EQ(answer_to(path, WRITERS, {}, change), "ok");
    EXPECT_EQ(answer_to(path, OTHERS, {}, look), "not_allowed");
    EXPECT_EQ(answer_to(path, OTHERS, {2, WRITERS}, change), "ok") << "one group of several";
    on_loop([&] { second.stop(); });
}

// Somebody of another user, who takes as many places as he gets and keeps them until he is told to go.
struct occupant {
    pid_t child = -1;
    int go = -1; // closed: he goes
    int places = 0;

    occupant(const std::string &socket_path, uid_t user, gid_t group)
    {
        int told[2];
        int leave[2];
        if (pipe(told) != 0 || pipe(leave) != 0) {
            return;
        }
        child = fork();
        if (child == 0) {
            close(leave[1]);
            if (setgroups(0, nullptr) != 0 || setresgid(group, group, group) != 0 || setresuid(user, user, user) != 0) {
                _exit(9);
            }
            std::list<control_client> all;
            int got = 0;
            for (int i = 0; i < 70; i++) {
                const json answer = all.emplace_back(socket_path).ask("status");
                got += answer.is_object() && answer.value("ok", false) ? 1 : 0;
            }
            (void)!write(told[1], &got, sizeof got);
            (void)!read(leave[0], &got, 1);
            _exit(0);
        }
        close(told[1]);
        close(leave[0]);
        go = leave[1];
        if (read(told[0], &places, sizeof places) != sizeof places) {
            places = -1; // he could not be another user
        }
        close(told[0]);
    }
    ~occupant()
    {
        close(go);
        int status = 0;
        waitpid(child, &status, 0);
    }
    occupant(const occupant &) = delete;
    occupant &operator=(const occupant &) = delete;
};

TEST_F(Control, KeepsPlacesThatReadersCannotTake)
{
    constexpr gid_t READERS = 65534; // "nogroup"
    constexpr gid_t WRITERS = 1;     // "daemon"
    const std::string path = directory + "/t";
    std::filesystem::permissions(directory, std::filesystem::perms::all);
    control second(turns, keeps, book, before, {[] { return false; }, [] { return keeper::difference{}; }});
    on_loop([&] { second.listen(path, {"nogroup", "daemon"}); });
    {
        const occupant first(path, 65'531, READERS);
        if (first.places < 0) {
            GTEST_SKIP() << "this user cannot become another";
        }
        const occupant other(path, 65'532, READERS);
        const occupant third(path, 65'533, READERS);
        EXPECT_EQ(first.places, 24);
        EXPECT_EQ(other.places, 24);
        EXPECT_EQ(third.places, 0) << "readers have 48 places, whoever they are";
        EXPECT_EQ(answer_to(path, READERS, {}, R"({"op":"status"})"), "busy");
        const occupant writer(path, 65'530, WRITERS);
        EXPECT_EQ(writer.places, 8);
        control_client root(path);
        EXPECT_TRUE(root.ask("status")["ok"]);
    }
    on_loop([&] { second.stop(); });
}

TEST_F(Control, WaitsForDescriptorsWithoutTurningAndThenTakesWhoeverWaited)
{
    // Made before there are no more descriptors.
    const int waiting = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int free = dup(waiting);
    close(free);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{static_cast<rlim_t>(free), limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, socket_path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(connect(waiting, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(send(waiting, "{\"op\":\"status\"}\n", 16, MSG_NOSIGNAL), 16);
    clockid_t of_loop{};
    pthread_getcpuclockid(runs.native_handle(), &of_loop);
    timespec then{};
    timespec now{};
    clock_gettime(of_loop, &then);
    pollfd wait{waiting, POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 300), 0) << "it cannot be taken in";
    clock_gettime(of_loop, &now);
    EXPECT_LT((now.tv_sec - then.tv_sec) * 1'000'000'000 + now.tv_nsec - then.tv_nsec, 30'000'000)
        << "the loop turns for nothing";
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(poll(&wait, 1, 10'000), 1);
    close(waiting);
}

// Another thread of the process makes files all the time.
TEST_F(Control, ListensForEverybodyAndLeavesTheMaskOfTheProcessAlone)
{
    const mode_t mask = umask(027);
    const std::string path = directory + "/t";
    const std::string file = directory + "/file";
    std::atomic<bool> over = false;
    std::atomic<int> files = 0;
    std::atomic<int> others = 0;
    std::thread makes([&] {
        while (!over) {
            const int fd = open(file.c_str(), O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            struct stat made {
            };
            others += fstat(fd, &made) != 0 || (made.st_mode & 0777) != 0640 ? 1 : 0;
            files++;
            close(fd);
            (void)unlink(file.c_str());
        }
    });
    for (int i = 0; i < 300 || files < 1000; i++) {
        on_loop([&] {
            control second(turns, keeps, book, before, {[] { return false; }, [] { return keeper::difference{}; }});
            second.listen(path, {"", ""});
            struct stat made {
            };
            EXPECT_EQ(stat(path.c_str(), &made), 0);
            EXPECT_EQ(made.st_mode & 0777, 0666u);
        });
    }
    over = true;
    makes.join();
    umask(mask);
    EXPECT_EQ(others, 0);
}

TEST_F(Control, ReadsNoLineWithoutAnEnd)
{
    control_client client(socket_path);
    while (client.send_text(std::string(65536, 'x'))) {
    }
    const auto answer = client.read_line();
    if (answer) { // it may be gone with what was not read
        EXPECT_EQ((*answer)["error"]["code"], "bad_request");
    }
    control_client other(socket_path);
    EXPECT_TRUE(other.ask("links")["ok"]);
}

TEST_F(Control, AnswersWhatWasSentAtOnceInItsOrder)
{
    control_client client(socket_path);
    std::string lines;
    for (int i = 1; i <= 2000; i++) {
        lines += R"({"op":"links","id":)" + std::to_string(i) + "}\n";
    }
    std::thread sends([&] { EXPECT_TRUE(client.send_text(lines)); });
    for (int i = 1; i <= 2000; i++) {
        const auto answer = client.read_line();
        ASSERT_TRUE(answer);
        ASSERT_EQ((*answer)["id"], i);
    }
    sends.join();
}

TEST_F(Control, AnswersWhatWasSentBeforeItsPeerClosedItsSide)
{
    control_client client(socket_path);
    std::string lines;
    for (int i = 1; i <= 200; i++) {
        lines += R"({"op":"status","id":)" + std::to_string(i) + "}\n";
    }
    ASSERT_TRUE(client.send_text(lines));
    client.send_end();
    for (int i = 1; i <= 200; i++) {
        const auto answer = client.read_line();
        ASSERT_TRUE(answer) << i;
        ASSERT_EQ((*answer)["id"], i);
    }
    EXPECT_FALSE(client.read_line());
    EXPECT_TRUE(client.closed());
}

// He has gone before his first request is answered.
TEST_F(Control, DoesWhatWasAskedForByOneWhoHangsUpAtOnce)
{
    std::promise<void> hung_up;
    auto gone = hung_up.get_future().share();
    before.asked_for_samples = [&] { gone.wait(); };
    {
        control_client hasty(socket_path);
        ASSERT_TRUE(hasty.send_text(R"({"op":"samples","name":"declared"})"
                                    "\n"
                                    R"({"op":"events","follow":true})"
                                    "\n"
                                    R"({"op":"add","name":"m","port":"TN_A","vlan":9,"far":"02:00:00:00:00:09"})"
                                    "\n"));
    }
    hung_up.set_value();
    control_client client(socket_path);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (client.ask("links")["links"].size() != 2 && std::chrono::steady_clock::now() < end) {
    }
    EXPECT_TRUE(client.ask({{"op", "link"}, {"name", "m"}})["ok"]);
}

// All of them are in the socket before the first is answered; the other's is there then, too.
TEST_F(Control, ServesOthersBetweenTheLinesOfOneWhoSentMany)
{
    constexpr int MANY = 1000;
    std::promise<void> all_sent;
    auto sent = all_sent.get_future().share();
    int done = 0; // of the one who sent many; on the loop's thread
    int done_before_other = 0;
    before.asked_for_samples = [&] {
        sent.wait();
        done++;
    };
    before.asked_for_history = [&] { done_before_other = done; };
    control_client eager(socket_path);
    control_client other(socket_path);
    ASSERT_TRUE(eager.ask("status")["ok"]);
    ASSERT_TRUE(other.ask("status")["ok"]);
    std::string lines;
    for (int i = 0; i < MANY; i++) {
        lines += R"({"op":"samples","name":"declared"})"
                 "\n";
    }
    ASSERT_TRUE(eager.send_text(lines));
    ASSERT_TRUE(other.send_text(R"({"op":"history","name":"declared"})"
                                "\n"));
    all_sent.set_value();
    ASSERT_TRUE(other.read_line());
    for (int i = 0; i < MANY; i++) {
        ASSERT_TRUE(eager.read_line()) << i;
    }
    EXPECT_EQ(done, MANY);
    EXPECT_LT(done_before_other, MANY / 2);
}

// Its answers fill its socket and stop; the others are served meanwhile.
TEST_F(Control, LetsOneThatTakesNoAnswersHoldUpNobody)
{
    control_client deaf(socket_path);
    std::string lines;
    for (int i = 0; i < 1000; i++) {
        lines += "{\"op\":\"links\"}\n";
    }
    std::thread sends([&] {
        for (int i = 0; i < 4 && deaf.send_text(lines); i++) {
        }
    });
    for (int i = 0; i < 100; i++) {
        control_client other(socket_path);
        ASSERT_TRUE(other.ask("links")["ok"]);
    }
    for (int i = 0; i < 4000; i++) {
        ASSERT_TRUE(deaf.read_line()) << i;
    }
    sends.join();
}

TEST_F(Control, TellsAFollowerThePastFromAnIdOnAndThenWhatComesWithoutAGap)
{
    for (int i = 0; i < 2000; i++) {
        change(i % 2 == 0 ? "a" : "b");
    }
    control_client client(socket_path);
    const json first = client.ask({{"op", "events"}, {"since", 1}, {"limit", 3}, {"follow", true}});
    ASSERT_EQ(first["events"].size(), 3u);
    EXPECT_EQ(first["events"][0]["id"], 2);
    for (int i = 0; i < 100; i++) {
        change("c");
    }
    for (uint64_t id = 5; id <= 2101; id++) {
        const auto line = client.read_line();
        ASSERT_TRUE(line) << id;
        ASSERT_EQ((*line)["event"]["id"], id);
        ASSERT_EQ((*line)["id"], 1);
    }
}

// Whatever is sent is taken at once, so that the socket has nothing to tell while there is a past to tell still.
TEST_F(Control, TellsAFollowerWhoTakesEverythingAtOnceAllOfThePast)
{
    constexpr uint64_t CHANGES = 40'000;
    on_loop([&] {
        for (uint64_t i = 1; i < CHANGES; i++) {
            link_change what;
            what.link.name = "declared";
            hub_.changed(what);
        }
    });
    control_client client(socket_path);
    ASSERT_TRUE(client.send_text("{\"op\":\"events\",\"follow\":true,\"limit\":0}\n"));
    const uint64_t lines = client.count_lines(CHANGES + 1);
    EXPECT_EQ(lines, CHANGES + 1);
}

TEST_F(Control, TellsTheNewestEventsAndThoseBeforeThemInPages)
{
    for (int i = 0; i < 9; i++) {
        change(i % 2 == 0 ? "a" : "b"); // ids 2 to 10
    }
    control_client client(socket_path);
    json answer = client.ask({{"op", "events"}, {"newest", 3}});
    EXPECT_THAT(ids(answer), testing::ElementsAre(8, 9, 10));
    EXPECT_EQ(answer["more"], true);
    answer = client.ask({{"op", "events"}, {"newest", 3}, {"before", 8}});
    EXPECT_THAT(ids(answer), testing::ElementsAre(5, 6, 7));
    answer = client.ask({{"op", "events"}, {"newest", 3}, {"before", 4}});
    EXPECT_THAT(ids(answer), testing::ElementsAre(1, 2, 3));
    EXPECT_EQ(answer["more"], false);
    answer = client.ask({{"op", "events"}, {"newest", 3}, {"since", 8}});
    EXPECT_THAT(ids(answer), testing::ElementsAre(9, 10));
    EXPECT_EQ(answer["more"], false);
    EXPECT_THAT(ids(client.ask({{"op", "events"}, {"newest", 2}, {"link", "b"}})), testing::ElementsAre(7, 9));
    answer = client.ask({{"op", "events"}, {"since", 4}, {"before", 7}});
    EXPECT_THAT(ids(answer), testing::ElementsAre(5, 6));
    answer = client.ask({{"op", "events"}, {"since", 4}, {"limit", 2}});
    EXPECT_THAT(ids(answer), testing::ElementsAre(5, 6));
    EXPECT_EQ(answer["more"], true);
}

TEST_F(Control, TellsEventsFromAMomentOn)
{
    const int64_t start = real_us() + 1'000'000; // the change that is there was made before
    for (int i = 0; i < 5; i++) {
        change("a", start + i * 1000); // ids 2 to 6
    }
    control_client client(socket_path);
    EXPECT_THAT(ids(client.ask({{"op", "events"}, {"since_us", start + 2000}})), testing::ElementsAre(4, 5, 6));
    EXPECT_THAT(ids(client.ask({{"op", "events"}, {"since_us", start + 1001}, {"limit", 1}})), testing::ElementsAre(4));
    EXPECT_THAT(ids(client.ask({{"op", "events"}, {"since_us", start + 5000}})), testing::IsEmpty());
    EXPECT_THAT(ids(client.ask({{"op", "events"}, {"since_us", start}, {"since", 5}})), testing::ElementsAre(6));
}

TEST_F(Control, TellsAFollowerTheNewestAndThenWhatComes)
{
    for (int i = 0; i < 9; i++) {
        change("a");
    }
    control_client client(socket_path);
    EXPECT_THAT(ids(client.ask({{"op", "events"}, {"newest", 2}, {"follow", true}})), testing::ElementsAre(9, 10));
    change("b");
    const auto line = client.read_line();
    ASSERT_TRUE(line);
    EXPECT_EQ((*line)["event"]["id"], 11);
}

TEST_F(Control, KnowsALinkThatIsGoneByItsPast)
{
    change("was-there");
    control_client client(socket_path);
    EXPECT_TRUE(client.ask({{"op", "history"}, {"name", "was-there"}})["ok"]);
    EXPECT_TRUE(client.ask({{"op", "samples"}, {"name", "was-there"}})["ok"]);
    EXPECT_THAT(ids(client.ask({{"op", "events"}, {"link", "was-there"}})), testing::ElementsAre(2));
    EXPECT_EQ(client.ask({{"op", "link"}, {"name", "was-there"}})["error"]["code"], "unknown_link");
    EXPECT_EQ(client.ask({{"op", "history"}, {"name", "never"}})["error"]["text"],
              "there is no link \"never\", and nothing is known of one");
}

TEST_F(Control, TellsASlowFollowerEverythingAllTheSame)
{
    change("a");
    control_client client(socket_path);
    ASSERT_TRUE(client.ask({{"op", "events"}, {"follow", true}, {"since", 1000000}, {"link", "a"}})["ok"]);
    control_client slow(socket_path);
    ASSERT_TRUE(slow.ask({{"op", "events"}, {"follow", true}, {"limit", 0}})["ok"]);
    on_loop([&] {
        for (int i = 0; i < 8'000; i++) {
            link_change what;
            what.link.name = "declared";
            hub_.changed(what);
        }
    });
    uint64_t last = 0;
    for (int i = 0; i < 8'002; i++) {
        const auto line = slow.read_line();
        ASSERT_TRUE(line) << i;
        ASSERT_EQ((*line)["event"]["id"], last + 1);
        last++;
    }
}

TEST_F(Control, KeepsWhatIsAddedInAFileThatIsReadAgain)
{
    control_client client(socket_path);
    const json wish = {{"op", "add"},
                       {"name", "more"},
                       {"port", "TN_A"},
                       {"vlan", 9},
                       {"far", "02:00:00:00:00:09"},
                       {"app_links", {{{"near", "02:00:00:00:01:01"}, {"far", "02:00:00:00:01:02"}}}}};
    EXPECT_EQ(client.ask(wish)["added"], 1);
    EXPECT_EQ(client.ask({{"op", "set"}, {"name", "more"}, {"vlan", 10}})["changed"], 1);
    link_book again(where);
    EXPECT_TRUE(again.load().empty());
    ASSERT_TRUE(again.all().contains("more"));
    EXPECT_EQ(again.all().at("more").key.vlan, 10);
    EXPECT_FALSE(again.all().at("more").declared);
    EXPECT_EQ(client.ask({{"op", "delete"}, {"name", "more"}})["removed"], 1);
    link_book last(where);
    EXPECT_TRUE(last.load().empty());
    EXPECT_EQ(last.all().size(), 1u);
}

TEST_F(Control, DoesNothingThatItCannotKeep)
{
    control_client client(socket_path);
    std::filesystem::create_directory(where.state + "/links.toml.new"); // what it would write first
    const json answer =
        client.ask({{"op", "add"}, {"name", "m"}, {"port", "TN_A"}, {"vlan", 9}, {"far", "02:00:00:00:00:09"}});
    EXPECT_EQ(answer["error"]["code"], "failed");
    EXPECT_THAT(answer["error"]["text"].get<std::string>(), HasSubstr("it cannot be kept in"));
    EXPECT_EQ(client.ask("links")["links"].size(), 1u);
}

TEST_F(Control, ReloadsNothingThatIsWrong)
{
    control_client client(socket_path);
    std::ofstream(where.links) << "[links.declared]\nport = \"IDL_A1\"\n";
    const json answer = client.ask("reload");
    EXPECT_EQ(answer["error"]["code"], "invalid");
    EXPECT_THAT(answer["error"]["text"].get<std::string>(),
                HasSubstr(where.links + ":1:8: \"declared\" lacks \"vlan\""));
    EXPECT_EQ(client.ask("links")["links"].size(), 1u);
    EXPECT_EQ(client.ask("status")["mistakes"].size(), 2u);
}

TEST_F(Control, MeasuresADeclaredLinkOtherwiseUntilTheNextReload)
{
    control_client client(socket_path);
    EXPECT_EQ(client.ask({{"op", "rtt"}, {"name", "declared"}, {"on", true}})["changed"], 1);
    EXPECT_EQ(client.ask({{"op", "link"}, {"name", "declared"}})["link"]["rtt"]["batch"], 5);
    EXPECT_EQ(client.ask("reload")["changed"], 1);
    EXPECT_EQ(client.ask({{"op", "link"}, {"name", "declared"}})["link"]["rtt"], false);
}

TEST(LinkBook, SetsAsideWhatItCannotReadAndKeepsTheRest)
{
    char pattern[] = "/tmp/linkd_book.XXXXXX";
    const std::string directory = mkdtemp(pattern);
    std::filesystem::create_directory(directory + "/state");
    std::ofstream(directory + "/state/links.toml")
        << "[links.a]\nport = \"IDL_A1\"\nvlan = 1\nfar = \"02:00:00:00:00:02\"\n"
           "[links.b]\nport = \"IDL_A1\"\n";
    paths where;
    where.links = directory + "/links.toml";
    where.state = directory + "/state";
    link_book book(where);
    EXPECT_THAT(book.load(), testing::Contains(HasSubstr("set aside as " + directory + "/state/links.toml.broken-")));
    EXPECT_TRUE(book.all().contains("a"));
    link_book again(where);
    EXPECT_THAT(again.load(), testing::IsEmpty()) << "what was right is in a file of its own now";
    EXPECT_TRUE(again.all().contains("a"));
    std::filesystem::remove_all(directory);
}

} // namespace
