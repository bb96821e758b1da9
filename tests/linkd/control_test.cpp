// The control socket by itself: a keeper without a daemon behind it, and peers that behave as they like. The loop turns
// on a thread of its own; nothing else touches what is its.
#include "control.hpp"
#include "hub.hpp"

#include "control_client.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include <grp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
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
    void change(const std::string &link)
    {
        on_loop([&] {
            link_change what;
            what.link.name = link;
            hub_.changed(what);
        });
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

TEST_F(Control, TellsASlowFollowerEverythingAllTheSame)
{
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
    for (int i = 0; i < 8'001; i++) {
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
