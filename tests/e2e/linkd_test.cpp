// kap-linkd against the whole scene: links that are declared come up and come back, whatever ends and in whatever
// order.
#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "e2e.hpp"
#include "linkd/control_client.hpp"

using namespace std::chrono_literals;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

namespace
{

constexpr const char *PROGRAM = "kap-linkd";
constexpr const char *SOCKET = "/run/kap-linkd/control.sock";
constexpr const char *TWO_LINKS = R"([links.north]
port = "IDL_A1"
vlan = 100
far = "02:00:00:00:a1:fe"
app_links = [{ near = "06:00:00:00:01:01", far = "06:00:00:00:01:fe" }]
[links.south]
port = "IDL_A1"
vlan = 101
far = "02:00:00:00:a1:fe"
rtt = { batch = 2, interval = 1, frame_bytes = 100 }
)";

class Linkd : public EndToEnd
{
protected:
    void SetUp() override
    {
        EndToEnd::SetUp();
        std::filesystem::create_directories("/run/kap-linkd");
        std::filesystem::create_directories(state());
    }

    std::string state() const { return d.stage.log_dir + "/state"; }
    std::string links_file() const { return d.stage.log_dir + "/links.toml"; }
    void declare(const std::string &text) const { std::ofstream(links_file()) << text; }

    void run_linkd()
    {
        d.stage.processes[PROGRAM] = process_start(
            PROGRAM,
            {d.stage.bin_dir + "/" + PROGRAM, "--links", links_file(), "--state", state(), "--settings", "/nowhere"},
            d.stage.log_dir + "/" + PROGRAM + ".log");
        stage_wait(d.stage, "kap-linkd answers", 10s, [] { return control_client(SOCKET).connected(); });
    }

    static json ask(const json &request)
    {
        control_client client(SOCKET);
        return client.ask(request);
    }
    static json link(const std::string &name)
    {
        const json answer = ask({{"op", "link"}, {"name", name}});
        return answer.is_object() && answer.contains("link") ? answer["link"] : json::object();
    }
    static std::string state_of(const std::string &name) { return link(name).value("state", "unknown"); }
    // What Prometheus would get.
    static std::string figures()
    {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(9643);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const std::string request = "GET /metrics HTTP/1.0\r\nHost: 127.0.0.1:9643\r\n\r\n";
        std::string text;
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
            send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
            char room[4096];
            for (ssize_t got = 0; (got = recv(fd, room, sizeof room, 0)) > 0;) {
                text.append(room, static_cast<size_t>(got));
            }
        }
        close(fd);
        return text;
    }
    void wait_figure(const std::string &line)
    {
        stage_wait(d.stage, line, 20s, [&] { return figures().find("\n" + line + "\n") != std::string::npos; });
    }

    void wait_state(const std::string &name, const std::string &state)
    {
        stage_wait(d.stage, name + " is " + state, 20s, [&] { return state_of(name) == state; });
    }
};

TEST_F(Linkd, BringsUpWhatIsDeclaredAndTakesItAwayWhenItEnds)
{
    declare(TWO_LINKS);
    start();
    run_linkd();
    wait_state("north", "enabled");
    wait_state("south", "enabled");
    EXPECT_EQ(vlans(), 2u);
    const json north = link("north");
    EXPECT_EQ(north["source"], "declared");
    EXPECT_EQ(north["file"], links_file());
    EXPECT_EQ(north["near_mac"], "02:00:00:00:a1:01");
    EXPECT_GT(north["link_ref"], 0);
    stage_wait(d.stage, "round trips are measured", 20s, [] { return !link("south")["rtt_us"].is_null(); });
    EXPECT_TRUE(link("north")["rtt_us"].is_null()) << "nobody asked for them";
    child_process ended = stage_stop_process(d.stage, PROGRAM, SIGTERM, 10s);
    EXPECT_EQ(process_status_text(ended), "exit status 0");
    stage_wait(d.stage, "the VLANs are closed", 10s, [] { return vlans() == 0; });
}

TEST_F(Linkd, TellsEachChangeToWhoFollows)
{
    declare(TWO_LINKS);
    start();
    run_linkd();
    wait_state("north", "enabled");
    control_client follower(SOCKET);
    ASSERT_TRUE(follower.ask({{"op", "events"}, {"follow", true}, {"link", "north"}})["ok"]);
    stage_control(FAR_END, {"silent", "on"});
    const auto down = follower.read_line();
    ASSERT_TRUE(down);
    EXPECT_EQ((*down)["event"]["link"], "north");
    EXPECT_EQ((*down)["event"]["from"], "enabled");
    EXPECT_EQ((*down)["event"]["to"], "disabled");
    EXPECT_EQ((*down)["event"]["reason"], "no connectivity");
    EXPECT_GT((*down)["event"]["lasted_us"], 0);
    stage_control(FAR_END, {"silent", "off"});
    const auto up = follower.read_line();
    ASSERT_TRUE(up);
    EXPECT_EQ((*up)["event"]["to"], "enabled");
}

TEST_F(Linkd, AsksAgainWhenTheDaemonWasKilledAndStartedAgain)
{
    declare(TWO_LINKS);
    start();
    run_linkd();
    wait_state("north", "enabled");
    kill_process(DAEMON);
    wait_state("north", "waiting");
    EXPECT_EQ(link("north")["reason"], "no daemon");
    EXPECT_EQ(ask({{"op", "status"}})["missing"], "no daemon");
    stage_start_process(d.stage, DAEMON);
    wait_state("north", "enabled");
    wait_state("south", "enabled");
}

TEST_F(Linkd, AsksAgainWhenAServiceWasLostAndTheDaemonFoundItAgain)
{
    declare(TWO_LINKS);
    start();
    run_linkd();
    wait_state("north", "enabled");
    kill_process("pmi");
    wait_state("north", "waiting");
    EXPECT_EQ(link("north")["reason"], "no service");
    kill_process(DAEMON);
    stage_start_process(d.stage, "pmi");
    stage_start_process(d.stage, DAEMON);
    wait_state("north", "enabled");
    wait_state("south", "enabled");
}

TEST_F(Linkd, TellsWhichServicesAreThereHowOftenTheyCameAndWhatWaits)
{
    command_must({"ip", "link", "set", "lo", "up"}); // of this test's own namespace
    declare(TWO_LINKS);
    start();
    run_linkd();
    for (const std::string service : {"registry", "daemon", "session", "vorn", "iepcsi", "pmi", "emi", "fmi", "aasi"}) {
        wait_figure("kap_service_up{service=\"" + service + "\"} 1");
    }
    wait_figure("kap_service_starts_total{service=\"pmi\"} 1");
    wait_figure("kap_requests{state=\"sent\"} 0");
    wait_figure("kap_itc_waiting_bytes{direction=\"out\"} 0");
    // Of a link whose round trips nobody measures, too.
    stage_wait(d.stage, "an answer of the far end was seen", 20s, [] {
        return figures().find("kap_link_last_answer_age_seconds{link=\"north\",port=\"IDL_A1\"} ") != std::string::npos;
    });
    kill_process("pmi");
    wait_figure("kap_service_up{service=\"pmi\"} 0");
    wait_figure("kap_service_up{service=\"emi\"} 1");
    kill_process(DAEMON);
    wait_figure("kap_service_up{service=\"vorn\"} 0");
    stage_start_process(d.stage, "pmi");
    stage_start_process(d.stage, DAEMON);
    for (const std::string service : {"pmi", "vorn"}) {
        wait_figure("kap_service_up{service=\"" + service + "\"} 1");
        wait_figure("kap_service_starts_total{service=\"" + service + "\"} 2");
    }
    wait_figure("kap_service_starts_total{service=\"emi\"} 1");
    wait_state("north", "enabled");
    // A daemon that does nothing: what it was told lies in the socket.
    kill(daemon().pid, SIGSTOP);
    stage_wait(d.stage, "something waits for the daemon", 20s, [] {
        const std::string text = figures();
        const std::string name = "kap_itc_waiting_bytes{direction=\"out\"} ";
        const size_t at = text.find(name);
        return at != std::string::npos && atoi(text.c_str() + at + name.size()) > 0;
    });
    kill(daemon().pid, SIGCONT);
    wait_figure("kap_itc_waiting_bytes{direction=\"out\"} 0");
}

TEST_F(Linkd, WaitsForEverythingThatIsNotThereYet)
{
    std::filesystem::create_directories(d.stage.log_dir);
    declare(TWO_LINKS);
    run_linkd();
    EXPECT_EQ(state_of("north"), "waiting");
    EXPECT_EQ(link("north")["reason"], "no registry");
    child_process linkd = d.stage.processes.extract(PROGRAM).mapped();
    start();
    d.stage.processes[PROGRAM] = linkd;
    wait_state("north", "enabled");
    wait_state("south", "enabled");
}

TEST_F(Linkd, StartsItselfAnewWhenTheRegistryWasLost)
{
    declare(TWO_LINKS);
    start();
    run_linkd();
    wait_state("north", "enabled");
    auto rest = std::exchange(d.stage.processes, {});
    child_process linkd = rest.extract(PROGRAM).mapped();
    child_process registry = rest.extract(REGISTRY).mapped();
    process_kill(registry);
    for (auto &[name, child] : rest) {
        EXPECT_TRUE(process_wait(child, 10s * slowness())) << name;
        process_kill(child);
    }
    std::filesystem::remove_all("/run/kap-itc");
    const auto deadline = std::chrono::steady_clock::now() + 10s * slowness();
    while (read_log(PROGRAM).find("waits for the message registry") == std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
        usleep(10'000);
    }
    EXPECT_THAT(read_log(PROGRAM), HasSubstr("the message registry is lost; starting anew"));
    EXPECT_EQ(state_of("north"), "waiting") << "it is the same process still, and answers";
    process_signal(linkd, SIGTERM);
    EXPECT_TRUE(process_wait(linkd, 10s * slowness()));
    EXPECT_EQ(process_status_text(linkd), "exit status 0");
    process_kill(linkd);
}

TEST_F(Linkd, ReloadTouchesOnlyWhatIsDifferent)
{
    declare(TWO_LINKS);
    start();
    run_linkd();
    wait_state("north", "enabled");
    wait_state("south", "enabled");
    const json north = link("north");
    const json south = link("south");
    declare(R"([links.north]
port = "IDLA1"
vlan = 100
far = "02:00:00:00:A1:FE"
app_links = [{ near = "06:00:00:00:01:01", far = "06:00:00:00:01:fe" }]
[links.south]
port = "IDL_A1"
vlan = 101
far = "02:00:00:00:a1:fe"
app_links = [{ near = "06:00:00:00:02:01", far = "06:00:00:00:02:fe" }]
[links.west]
port = "IDL_A1"
vlan = 102
far = "02:00:00:00:a1:fe"
)");
    const json made = ask({{"op", "reload"}});
    EXPECT_EQ(made["added"], 1) << made;
    EXPECT_EQ(made["changed"], 1) << made;
    EXPECT_EQ(made["removed"], 0) << made;
    wait_state("west", "enabled");
    EXPECT_EQ(link("north")["link_ref"], north["link_ref"]);
    EXPECT_EQ(link("north")["since_us"], north["since_us"]);
    EXPECT_EQ(link("south")["link_ref"], south["link_ref"]) << "app links are updated, not the link";
    EXPECT_EQ(link("south")["since_us"], south["since_us"]);
    stage_wait(d.stage, "the new app link has its endpoint", 10s, [] { return endpoints_in_vlan(101) > 0; });
    declare("[links.north]\nport = \"IDL_A1\"\nvlan = 100\nfar = \"02:00:00:00:a1:ff:\"\n");
    process_signal(d.stage.processes.at(PROGRAM), SIGHUP);
    wait_log(PROGRAM, links_file() + ":4:7: ");
    wait_log(PROGRAM, "nothing was changed");
    EXPECT_EQ(ask({{"op", "links"}})["links"].size(), 3u);
    declare("");
    process_signal(d.stage.processes.at(PROGRAM), SIGHUP);
    stage_wait(d.stage, "the VLANs are closed", 10s, [] { return vlans() == 0; });
    EXPECT_EQ(ask({{"op", "links"}})["links"].size(), 0u);
}

TEST_F(Linkd, KeepsWhatWasAskedForAtRunTimeWhenItIsKilled)
{
    declare("");
    start();
    run_linkd();
    const json wish = {
        {"op", "add"}, {"name", "east"}, {"port", "IDL_A1"}, {"vlan", 103}, {"far", "02:00:00:00:a1:fe"}};
    EXPECT_EQ(ask(wish)["added"], 1);
    EXPECT_EQ(ask(wish)["error"]["code"], "exists");
    wait_state("east", "enabled");
    kill_process(PROGRAM);
    run_linkd();
    wait_state("east", "enabled");
    EXPECT_EQ(link("east")["source"], "runtime");
    EXPECT_EQ(ask({{"op", "set"}, {"name", "east"}, {"vlan", 104}})["changed"], 1);
    stage_wait(d.stage, "it is in the other VLAN", 20s,
               [] { return link("east")["vlan"] == 104 && state_of("east") == "enabled"; });
    EXPECT_EQ(vlans(), 1u);
    EXPECT_EQ(ask({{"op", "rtt"}, {"name", "east"}, {"on", {{"batch", 2}}}})["changed"], 1);
    stage_wait(d.stage, "round trips are measured", 20s, [] { return !link("east")["rtt_us"].is_null(); });
    EXPECT_EQ(ask({{"op", "delete"}, {"name", "east"}})["removed"], 1);
    stage_wait(d.stage, "the VLAN is closed", 10s, [] { return vlans() == 0; });
    EXPECT_EQ(ask({{"op", "link"}, {"name", "east"}})["error"]["code"], "unknown_link");
}

// The daemon's own list is read every ten seconds, and says what is so: pings are counted, and nothing is touched.
TEST_F(Linkd, TouchesNoLinkThatTheDaemonListsAsItIs)
{
    declare(TWO_LINKS);
    start();
    run_linkd();
    wait_state("north", "enabled");
    wait_state("south", "enabled");
    const json north = link("north");
    const json south = link("south");
    const json newest = ask({{"op", "status"}})["newest_event"];
    const auto pings = [](const std::string &name) { return link(name)["results"].get<uint64_t>(); };
    stage_wait(d.stage, "pings are counted", 30s, [&] { return pings("north") > 0 && pings("south") > 0; });
    const uint64_t first = pings("north");
    stage_wait(d.stage, "more are counted", 30s, [&] { return pings("north") > first; });
    EXPECT_EQ(link("north")["link_ref"], north["link_ref"]);
    EXPECT_EQ(link("south")["link_ref"], south["link_ref"]);
    EXPECT_EQ(ask({{"op", "status"}})["newest_event"], newest);
    EXPECT_FALSE(link("south")["rtt_us"].is_null());
    EXPECT_THAT(read_log(DAEMON), Not(HasSubstr("UPDATE_INTER_ME_LINK_REQ")));
    // The last pings count, too.
    const uint64_t before = pings("north");
    ASSERT_EQ(process_status_text(stage_stop_process(d.stage, PROGRAM, SIGTERM, 10s)), "exit status 0");
    run_linkd();
    EXPECT_GE(ask({{"op", "history"}, {"name", "north"}})["counters"]["results"], before);
}

TEST_F(Linkd, GivesWayToADeclarationAndSaysSo)
{
    declare("");
    start();
    run_linkd();
    EXPECT_EQ(
        ask({{"op", "add"}, {"name", "east"}, {"port", "IDL_A1"}, {"vlan", 103}, {"far", "02:00:00:00:a1:fe"}})["ok"],
        true);
    wait_state("east", "enabled");
    declare("[links.east]\nport = \"IDL_A1\"\nvlan = 104\nfar = \"02:00:00:00:a1:fe\"\n");
    EXPECT_TRUE(ask({{"op", "reload"}})["ok"]);
    const std::string said = links_file() + ":1:8: \"east\" stands in the place of \"east\"";
    EXPECT_THAT(ask({{"op", "status"}})["mistakes"][0].get<std::string>(), HasSubstr(said));
    wait_log(PROGRAM, said);
    stage_wait(d.stage, "it is in the other VLAN", 20s,
               [] { return link("east")["vlan"] == 104 && state_of("east") == "enabled"; });
    EXPECT_EQ(ask({{"op", "delete"}, {"name", "east"}})["removed"], 0) << "the one that was hidden is forgotten";
    EXPECT_EQ(ask({{"op", "status"}})["mistakes"].size(), 0u);
    EXPECT_EQ(link("east")["source"], "declared");
    EXPECT_EQ(ask({{"op", "delete"}, {"name", "east"}})["error"]["code"], "invalid");
}

TEST_F(Linkd, MeasuresRoundTripsAsBeforeWhenTheyAreSwitchedOnAgain)
{
    declare(TWO_LINKS);
    start();
    run_linkd();
    stage_wait(d.stage, "round trips are measured", 20s, [] { return !link("south")["rtt_us"].is_null(); });
    const json settings = link("south")["rtt"];
    EXPECT_EQ(ask({{"op", "rtt"}, {"name", "south"}, {"on", false}})["changed"], 1);
    EXPECT_TRUE(link("south")["rtt_us"].is_null());
    EXPECT_EQ(ask({{"op", "rtt"}, {"name", "south"}, {"on", true}})["changed"], 1);
    EXPECT_EQ(link("south")["rtt"], settings);
    EXPECT_EQ(settings["batch"], 2);
    stage_wait(d.stage, "round trips are measured again", 20s, [] { return !link("south")["rtt_us"].is_null(); });
}

// What the daemon alone can know is wrong.
TEST_F(Linkd, KeepsARefusalWithItsReasonAndAsksAgainWhenItMayHaveGone)
{
    declare(R"([links.own]
port = "IDL_A1"
vlan = 105
far = "02:00:00:00:a1:01"
)");
    start();
    run_linkd();
    wait_state("own", "rejected");
    EXPECT_EQ(link("own")["reason"], "the far end's address is one of this node's own");
    EXPECT_GT(link("own")["next_try_us"], 0);
    // This test's own link keeps it out.
    declare(R"([links.north]
port = "IDL_A1"
vlan = 100
far = "02:00:00:00:a1:fe"
)");
    const auto mine = iemli_client_create_link(d.client, demo_wish(d, "IDL_A1", 100, 0));
    ASSERT_EQ(mine.outcome, iemli_outcome::confirmed);
    EXPECT_TRUE(ask({{"op", "reload"}})["ok"]);
    wait_state("north", "rejected");
    EXPECT_EQ(link("north")["reason"], "somebody else has this link");
    ASSERT_EQ(iemli_client_delete_link(d.client, mine.link_ref).outcome, iemli_outcome::confirmed);
    wait_state("north", "enabled");
}

TEST_F(Linkd, SaysWhatIsWrongAndTouchesNothing)
{
    std::filesystem::create_directories(d.stage.log_dir);
    declare("[links.a]\nport = \"IDL_C1\"\nvlan = 100\nfar = \"03:00:00:00:00:01\"\n");
    const command_result wrong = command_run({d.stage.bin_dir + "/kap-linkd", "--check", links_file()});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_THAT(wrong.output, HasSubstr(links_file() + ":2:8: there is no port \"IDL_C1\""));
    EXPECT_THAT(wrong.output, HasSubstr(links_file() + ":4:7: \"03:00:00:00:00:01\" is the address of a group"));
    declare(TWO_LINKS);
    const command_result right = command_run({d.stage.bin_dir + "/kap-linkd", "--check", "--links", links_file()});
    EXPECT_EQ(right.status, 0) << right.output;
    EXPECT_EQ(right.output, "");
}

} // namespace
