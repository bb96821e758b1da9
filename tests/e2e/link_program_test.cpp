// kap-link against the whole scene: what a person sees who runs it, and a service manager.
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <set>
#include <sstream>
#include <utility>

#include <unistd.h>

#include "e2e.hpp"

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace
{

constexpr const char *PROGRAM = "kap-link";
constexpr const char *FAR_MAC = "02:00:00:00:A1:FE"; // of the far end of the stage's first port
constexpr const char *PAIR = "06:01:01:01:01:01,06:01:01:01:01:FE";

class LinkProgram : public EndToEnd
{
protected:
    void run_link(const std::vector<std::string> &words)
    {
        std::vector<std::string> command{d.stage.bin_dir + "/" + PROGRAM};
        command.insert(command.end(), words.begin(), words.end());
        d.stage.processes[PROGRAM] = process_start(PROGRAM, command, d.stage.log_dir + "/" + PROGRAM + ".log");
    }
    void run_usual_link() { run_link({"IDL_A1", "100", FAR_MAC, PAIR}); }

    size_t times(const std::string &text) const
    {
        const std::string log = read_log(PROGRAM);
        size_t count = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            count++;
        }
        return count;
    }
    void wait_times(const std::string &text, size_t count)
    {
        stage_wait(d.stage, text, 20s, [&] { return times(text) >= count; });
    }
    // Ends by itself, or by the signal.
    std::string end_status(int signal = 0)
    {
        auto node = d.stage.processes.extract(PROGRAM);
        if (signal != 0) {
            process_signal(node.mapped(), signal);
        }
        const bool ended = process_wait(node.mapped(), 20s * slowness());
        const std::string status = process_status_text(node.mapped());
        process_kill(node.mapped());
        return ended ? status : "still there";
    }
};

TEST_F(LinkProgram, KeepsALinkAndDeletesItWhenItIsEnded)
{
    start();
    run_usual_link();
    wait_times("IDL_A1 VLAN 100: enabled", 1);
    EXPECT_EQ(times("IDL_A1 VLAN 100: disabled with reason no connectivity"), 1u) << "before the first answer";
    EXPECT_THAT(read_log(PROGRAM), testing::MatchesRegex("(.|\n)*[0-9]+-[0-9]+-[0-9]+T[0-9:.]+Z IDL_A1 VLAN 100: "
                                                         "created, link [0-9]+\n(.|\n)*"));
    EXPECT_EQ(vlans(), 1u);
    stage_control(FAR_END, {"silent", "on"});
    wait_times("IDL_A1 VLAN 100: disabled with reason no connectivity", 2);
    stage_control(FAR_END, {"silent", "off"});
    wait_times("IDL_A1 VLAN 100: enabled", 2);
    EXPECT_EQ(end_status(SIGTERM), "exit status 0");
    EXPECT_EQ(times("IDL_A1 VLAN 100: deleted"), 1u);
    stage_wait(d.stage, "the VLAN is closed", 5s, [] { return vlans() == 0; });
    EXPECT_EQ(endpoints_in_vlan(100), 0u);
}

TEST_F(LinkProgram, PrintsRoundTripsAndLinesOfJson)
{
    start();
    run_link({"--json", "--rtt=2,1,100", "IDL_A1", "100", FAR_MAC});
    wait_times("\"event\": \"rtt\"", 2);
    EXPECT_EQ(end_status(SIGINT), "exit status 0");
    std::istringstream lines(read_log(PROGRAM));
    std::set<std::string> events;
    bool measured = false;
    for (std::string line; std::getline(lines, line);) {
        const nlohmann::json all = nlohmann::json::parse(line);
        EXPECT_EQ(all["port"], "IDL_A1");
        EXPECT_EQ(all["vlan"], 100);
        EXPECT_EQ(all["time"].get<std::string>().size(), std::string("2000-01-01T00:00:00.000Z").size());
        events.insert(all["event"]);
        if (all["event"] == "rtt" && !all["avg_us"].is_null()) {
            measured = true;
            EXPECT_GT(all["min_us"], 0);
            EXPECT_LE(all["min_us"], all["avg_us"]);
            EXPECT_LE(all["avg_us"], all["max_us"]);
        }
    }
    EXPECT_THAT(events, testing::ElementsAre("created", "deleted", "rtt", "status"));
    EXPECT_TRUE(measured);
}

TEST_F(LinkProgram, AsksAgainWhenTheDaemonWasKilledAndStartedAgain)
{
    start();
    run_usual_link();
    wait_times(": enabled", 1);
    kill_process(DAEMON);
    wait_times(": lost, the daemon's service is gone", 1);
    stage_start_process(d.stage, DAEMON);
    wait_times(": created, link ", 2);
    wait_times(": enabled", 2);
    EXPECT_EQ(end_status(SIGTERM), "exit status 0");
}

TEST_F(LinkProgram, IsToldOfAServiceThatIsWithdrawnAndEndsWhileItWaits)
{
    start();
    run_usual_link();
    wait_times(": enabled", 1);
    kill_process("pmi");
    wait_times(": lost, the daemon's service is gone", 1);
    wait_times("waits for the daemon's service", 1);
    EXPECT_EQ(end_status(SIGTERM), "exit status 0");
    EXPECT_EQ(times(": deleted"), 0u) << "there was nothing to delete";
}

TEST_F(LinkProgram, StartsItselfAnewWhenTheRegistryWasLost)
{
    start();
    run_usual_link();
    wait_times(": enabled", 1);
    auto rest = std::exchange(d.stage.processes, {});
    child_process link = rest.extract(PROGRAM).mapped();
    child_process registry = rest.extract(REGISTRY).mapped();
    process_kill(registry);
    for (auto &[name, child] : rest) {
        EXPECT_TRUE(process_wait(child, 10s * slowness())) << name;
        process_kill(child);
    }
    std::filesystem::remove_all("/run/kap-itc");
    // It is the same process still, and waits.
    const auto deadline = std::chrono::steady_clock::now() + 10s * slowness();
    while (times("waits for the message registry") == 0 && std::chrono::steady_clock::now() < deadline) {
        usleep(10000);
    }
    EXPECT_EQ(times(": lost, the message registry is gone"), 1u);
    EXPECT_TRUE(process_running(link));
    process_signal(link, SIGTERM);
    EXPECT_TRUE(process_wait(link, 10s * slowness()));
    EXPECT_EQ(process_status_text(link), "exit status 0");
    process_kill(link);
}

// What is not there yet when it starts is waited for: registry, services, daemon.
TEST_F(LinkProgram, WaitsForEverythingThatIsNotThereYet)
{
    std::filesystem::create_directories(d.stage.log_dir);
    run_usual_link();
    const auto deadline = std::chrono::steady_clock::now() + 10s * slowness();
    while (times("waits for the message registry") == 0 && std::chrono::steady_clock::now() < deadline) {
        usleep(10000);
    }
    child_process link = d.stage.processes.extract(PROGRAM).mapped();
    start();
    d.stage.processes[PROGRAM] = link;
    wait_times(": enabled", 1);
    EXPECT_EQ(end_status(SIGTERM), "exit status 0");
}

TEST_F(LinkProgram, EndsWithTheReasonWhenTheDaemonRefuses)
{
    start();
    run_link({"IDL_A1", "100", FAR_MAC, std::string(FAR_MAC) + ",06:01:01:01:01:FE"});
    EXPECT_EQ(end_status(), "exit status 1");
    EXPECT_THAT(read_log(PROGRAM), HasSubstr("kap-link: the link is refused: an application has the far end's address "
                                             "(reason 12)"));
    run_link({"IDL_B2", "100", FAR_MAC});
    EXPECT_EQ(end_status(), "exit status 1");
    EXPECT_THAT(read_log(PROGRAM), HasSubstr("(reason "));
    EXPECT_THAT(read_log(PROGRAM), Not(HasSubstr("created")));
}

TEST_F(LinkProgram, EndsWhenItsOutputCannotBeWritten)
{
    start();
    const command_result result =
        command_run({"sh", "-c", d.stage.bin_dir + "/kap-link IDL_A1 100 " + FAR_MAC + " >/dev/full"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, HasSubstr("kap-link: the output could not be written"));
    stage_wait(d.stage, "the VLAN is closed", 5s, [] { return vlans() == 0; });
}

// Every request of the client library, from a program in C.
TEST_F(LinkProgram, HasNeighboursThatAreWrittenInC)
{
    start();
    const command_result result = command_run({d.stage.bin_dir + "/e2e-c-client"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "create without session: rejected, there is no session\n"
                             "open: confirmed\n"
                             "open again: rejected, the client has a session already\n"
                             "get mac: confirmed\n"
                             "IDL_A1 processor 1 02:00:00:00:A1:01\n"
                             "get mac of no port: rejected, no such port\n"
                             "create in no VLAN: rejected, no such VLAN\n"
                             "create: confirmed\n"
                             "status: enabled\n"
                             "create again: rejected, this link is there already\n"
                             "update: confirmed\n"
                             "update to the same: rejected, nothing would change\n"
                             "wrong rtt: rejected, round trips cannot be measured like that\n"
                             "rtt: confirmed\n"
                             "rtt again: rejected, round trips are measured already\n"
                             "round trip in order: 1\n"
                             "no rtt: confirmed\n"
                             "delete: confirmed\n"
                             "rtt of no link: rejected, no such link\n"
                             "close: confirmed\n");
}

TEST_F(LinkProgram, RefusesWordsThatMakeNoSense)
{
    const std::pair<std::vector<std::string>, const char *> calls[] = {
        {{}, "which link? PORT VLAN FAR-CPM-MAC"},
        {{"IDL_A1", "100"}, "which link?"},
        {{"IDLA1", "100", FAR_MAC}, "no port (IDL_A1, IDL_A2, IDL_B1, IDL_B2, TN_A, TN_B, TN_C, TN_D): IDLA1"},
        {{"IDL_A1", "4095", FAR_MAC}, "not a VLAN from 1 to 4094: 4095"},
        {{"IDL_A1", "100", "02:00:00:00:A1"}, "not a MAC address like"},
        {{"IDL_A1", "100", FAR_MAC, "06:00:00:00:00:01"}, "not a pair of applications"},
        {{"--rtt=7,1,64", "IDL_A1", "100", FAR_MAC}, "not BATCH,SECONDS,BYTES"},
        {{"--mp-id", "0", "IDL_A1", "100", FAR_MAC}, "not a processor from 1 to 63: 0"},
        {{"--jason", "IDL_A1", "100", FAR_MAC}, "a wrong option"},
    };
    for (const auto &[words, complaint] : calls) {
        std::vector<std::string> command = words;
        command.insert(command.begin(), d.stage.bin_dir + "/kap-link");
        const command_result result = command_run(command);
        EXPECT_EQ(result.status, 2) << complaint;
        EXPECT_THAT(result.output, HasSubstr(complaint));
    }
}

} // namespace
