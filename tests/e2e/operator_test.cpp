// The operator's commands against the real daemon: the list of links, and the trace mask.
#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

#include "e2e.hpp"

using namespace std::chrono_literals;

namespace
{

constexpr const char *TRACED_NAME = "kap_vorn_manager";

class Operator : public EndToEnd
{
protected:
    command_result vornctl(const std::vector<std::string> &words) const
    {
        std::vector<std::string> command = {d.stage.bin_dir + "/vornctl"};
        command.insert(command.end(), words.begin(), words.end());
        return command_run(command);
    }

    // What vornctl prints as JSON is as its schema says.
    void expect_schema(const std::string &words, const std::string &schema) const
    {
        const std::string line = "set -o pipefail; { '" + d.stage.bin_dir + "/vornctl' " + words +
                                 " --json || [ $? = 1 ]; } | " KAP_SOURCE_DIR
                                 "/tests/support/holds_schema " KAP_SOURCE_DIR "/docs/schema/vornctl-" +
                                 schema + ".json";
        const command_result result = command_run({"/bin/bash", "-c", line});
        EXPECT_EQ(result.status, 0) << line << "\n" << result.output;
    }

    static std::vector<std::string> lines_of(const std::string &text)
    {
        std::vector<std::string> lines;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    static std::vector<std::string> words_of(const std::string &line)
    {
        std::istringstream stream(line);
        return {std::istream_iterator<std::string>(stream), {}};
    }

    // Two links that the far end answers.
    void start_with_links()
    {
        start();
        const uint32_t first = demo_create(d, demo_first_wish(d)).link_ref;
        const uint32_t second = demo_create(d, demo_second_wish(d)).link_ref;
        demo_wait_status(d, first, IML_LINK_ENABLED, 0, 10s);
        demo_wait_status(d, second, IML_LINK_ENABLED, 0, 10s);
    }

    void expect_one_line(const command_result &result, int status, const std::string &line)
    {
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.output, line + "\n");
    }

    std::string kap_trace(const std::vector<std::string> &words) const
    {
        std::vector<std::string> command = {d.stage.bin_dir + "/kap-trace"};
        command.insert(command.end(), words.begin(), words.end());
        return command_must(command);
    }

    // How many lines the daemon has traced at a level.
    long traced(const std::string &level) const
    {
        const auto lines = lines_of(read_log(DAEMON));
        return std::count_if(lines.begin(), lines.end(), [&](const std::string &line) {
            return line.find(TRACED_NAME + ("[" + level + "]")) != std::string::npos;
        });
    }

    void wait_pings(const demo_link &link, uint64_t more)
    {
        const uint64_t before = demo_far_end_counts(link).answered;
        stage_wait(d.stage, "more pings are answered", 10s,
                   [&] { return demo_far_end_counts(link).answered >= before + more; });
    }
};

} // namespace

// ---- The list of links ----------------------------------------------------------------------------------------------

TEST_F(Operator, SeesTheLinksAsATable)
{
    start_with_links();
    const command_result result = vornctl({"links"});
    EXPECT_EQ(result.status, 0);
    const auto lines = lines_of(result.output);
    ASSERT_EQ(lines.size(), 3u) << result.output;
    EXPECT_THAT(words_of(lines[0]),
                testing::ElementsAre("LINK", "PORT", "VLAN", "FAR-END", "CPM", "APPS", "STATUS", "SUPERVISION", "LOST",
                                     "RTT", "MIN", "us", "AVG", "us", "MAX", "us", "OWNER"));
    EXPECT_THAT(lines[1], testing::MatchesRegex("1 +IDL_A1 +100 +02:00:00:00:A1:FE +2 +enabled +running .* 1"));
    EXPECT_THAT(lines[2], testing::MatchesRegex("2 +TN_A +200 +02:00:00:00:AA:FE +1 +enabled +running .* 1"));
}

TEST_F(Operator, SeesTheLinksAsJson)
{
    start_with_links();
    const command_result result = vornctl({"links", "--json"});
    EXPECT_EQ(result.status, 0);
    const auto links = nlohmann::json::parse(result.output)["links"];
    ASSERT_EQ(links.size(), 2u);
    EXPECT_EQ(links[0]["link_ref"], 1);
    EXPECT_EQ(links[0]["port"], "IDL_A1");
    EXPECT_EQ(links[0]["vlan"], 100);
    EXPECT_EQ(links[0]["near_end_cpm_mac"], "02:00:00:00:A1:01");
    EXPECT_EQ(links[0]["far_end_cpm_mac"], "02:00:00:00:A1:FE");
    EXPECT_EQ(links[0]["app_links"].size(), 2u);
    EXPECT_EQ(links[0]["app_links"][0]["near_end_mac"], "06:00:64:00:01:01");
    EXPECT_EQ(links[0]["enabled"], true);
    EXPECT_EQ(links[0]["lost"], 0);
    EXPECT_GE(links[0]["results"], 1);
    EXPECT_GT(links[0]["rtt_us"]["avg"], 0.0);
    EXPECT_EQ(links[1]["port"], "TN_A");
    EXPECT_EQ(links[1]["app_links"].size(), 1u);
}

TEST_F(Operator, IsToldThatTheOutputCouldNotBeWritten)
{
    start_with_links();
    for (const char *line : {"vornctl links", "vornctl links --json", "kap-node ctl pmi show", "kap-trace list",
                             "kap-trace get default"}) {
        const std::string full = d.stage.bin_dir + "/" + line + " >/dev/full";
        const command_result result = command_run({"/bin/sh", "-c", full});
        EXPECT_EQ(result.status, 1) << line;
        EXPECT_THAT(result.output, testing::HasSubstr("the output could not be written")) << line;
    }
}

TEST_F(Operator, SeesThatThereAreNoLinks)
{
    start();
    const command_result table = vornctl({"links"});
    EXPECT_EQ(table.status, 0);
    EXPECT_EQ(lines_of(table.output).size(), 1u) << table.output;
    const command_result list = vornctl({"links", "--json"});
    EXPECT_EQ(list.status, 0);
    EXPECT_EQ(nlohmann::json::parse(list.output), nlohmann::json::parse(R"({"links": []})"));
}

TEST_F(Operator, IsToldInOneLineThatTheDaemonDoesNotRun)
{
    start();
    kill_process(DAEMON);
    wait_event(iemli_event_kind::server_died);
    expect_one_line(vornctl({"links"}), 3, "vornctl: kap-vorn does not run");
    expect_one_line(vornctl({"links", "--json"}), 3, "vornctl: kap-vorn does not run");
}

TEST_F(Operator, IsToldInOneLineThatTheRegistryDoesNotRun)
{
    expect_one_line(vornctl({"links"}), 4, "vornctl: the registry itcd cannot be reached: No such file or directory");
}

TEST_F(Operator, IsToldHowToCall)
{
    using words = std::vector<std::string>;
    for (const words &wrong :
         {words{}, words{"link"}, words{"links", "--xml"}, words{"links", "--json", "1"}, words{"--json"}}) {
        const command_result result = vornctl(wrong);
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(result.output, testing::HasSubstr("usage: vornctl"));
    }
    EXPECT_EQ(vornctl({"--help"}).status, 0);
}

TEST_F(Operator, IsToldByTheStatusThatALinkIsDown)
{
    start_with_links();
    EXPECT_EQ(vornctl({"links"}).status, 0);
    demo_set_locked(d, d.stage.ports[0], true);
    demo_wait_status(d, d.links[0].link_ref, IML_LINK_DISABLED, IML_LINK_REASON_DOWN, 10s);
    EXPECT_EQ(vornctl({"links"}).status, 1);
    EXPECT_EQ(vornctl({"links", "--port", "TNA"}).status, 0);
    EXPECT_EQ(lines_of(vornctl({"links", "--state", "down"}).output).size(), 2u);
    const command_result none = vornctl({"links", "--state", "no-connectivity", "--json"});
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(nlohmann::json::parse(none.output)["links"].size(), 0u);
}

// ---- Ports and the node as a whole ----------------------------------------------------------------------------------

TEST_F(Operator, SeesThePortsWithTheirStatesAddressesAndLinks)
{
    start_with_links();
    const command_result well = vornctl({"ports", "--json"});
    EXPECT_EQ(well.status, 0) << well.output;
    demo_set_locked(d, d.stage.ports[0], true);
    demo_wait_status(d, d.links[0].link_ref, IML_LINK_DISABLED, IML_LINK_REASON_DOWN, 10s);
    const command_result locked = vornctl({"ports", "--json"});
    EXPECT_EQ(locked.status, 1) << locked.output;
    const auto port = nlohmann::json::parse(locked.output)["ports"][0];
    EXPECT_EQ(port["port"], "IDL_A1");
    EXPECT_EQ(port["unlocked"], false);
    EXPECT_EQ(port["mac"], d.links[0].near_mac);
    EXPECT_EQ(port["links"], 1);
    EXPECT_EQ(port["links_enabled"], 0);
    EXPECT_EQ(port["source"], "port control");
    EXPECT_EQ(vornctl({"ports", "--port", "TN_A"}).status, 0);
}

TEST_F(Operator, IsToldThatPortControlDoesNotRun)
{
    start();
    kill_process("iepcsi");
    stage_wait(d.stage, "port control is missed", 10s, [&] { return vornctl({"ports"}).status == 3; });
}

TEST_F(Operator, GetsJsonThatIsAsTheSchemasSay)
{
    start_with_links();
    expect_schema("links", "links");
    expect_schema("ports", "ports");
    expect_schema("status", "status");
    expect_schema("trace list", "trace");
}

TEST_F(Operator, SeesInOneScreenWhatRunsAndSinceWhen)
{
    start_with_links();
    const command_result result = vornctl({"status", "--json"});
    EXPECT_EQ(result.status, 0) << result.output;
    const auto status = nlohmann::json::parse(result.output);
    EXPECT_EQ(status["links"], nlohmann::json::parse(R"({"all": 2, "enabled": 2, "disabled": 0})"));
    EXPECT_EQ(status["missing"].size(), 0u);
    for (const auto &component : status["components"]) {
        const std::string name = component["name"];
        if (name == "kap-linkd") {
            EXPECT_EQ(component["state"], "down");
            continue;
        }
        EXPECT_EQ(component["state"], "up") << name;
        const auto process = d.stage.processes.find(name);
        ASSERT_NE(process, d.stage.processes.end()) << name;
        EXPECT_EQ(component["pid"], process->second.pid) << name;
        EXPECT_GT(component["since_us"], 1'700'000'000'000'000) << name;
    }
    EXPECT_THAT(vornctl({"status"}).output, testing::HasSubstr("Nothing is missing."));
}

TEST_F(Operator, IsToldWhatIsMissingAndWhatToDo)
{
    start_with_links();
    kill_process("pmi");
    stage_wait(d.stage, "the service is missed", 10s, [&] {
        const command_result result = vornctl({"status", "--json"});
        return result.status == 1 && nlohmann::json::parse(result.output)["missing"] == nlohmann::json::array({"pmi"});
    });
    stage_start_process(d.stage, "pmi");
    // The daemon does not look for it again.
    stage_wait(d.stage, "the daemon is to be restarted", 10s, [&] {
        return vornctl({"status"}).output.find("it has lost one of them since it started") != std::string::npos;
    });
    kill_process(DAEMON);
    stage_wait(d.stage, "the daemon is missed", 10s, [&] { return vornctl({"status"}).status == 3; });
}

TEST_F(Operator, IsToldTheStatusEvenWithoutARegistry)
{
    const command_result result = vornctl({"status"});
    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.output, testing::HasSubstr("itcd       registry          not there"));
    EXPECT_THAT(result.output, testing::HasSubstr("links: nobody could be asked"));
}

// ---- Traces ---------------------------------------------------------------------------------------------------------

TEST_F(Operator, SwitchesALevelOfTracesOnAndOffWhileTheDaemonRuns)
{
    start();
    const uint32_t link_ref = demo_create(d, demo_first_wish(d)).link_ref;
    demo_wait_status(d, link_ref, IML_LINK_ENABLED, 0, 10s);
    const demo_link &link = demo_find(d, link_ref);
    EXPECT_THAT(kap_trace({"list"}), testing::HasSubstr(TRACED_NAME));
    EXPECT_EQ(traced("13"), 0);
    kap_trace({"set", TRACED_NAME, "+13"});
    wait_pings(link, 1);
    wait_log(DAEMON, "Received supervision ind with session id");
    kap_trace({"set", TRACED_NAME, "-13"});
    // What it was tracing when the mask changed is still written.
    wait_pings(link, 1);
    EXPECT_EQ(iemli_client_get_mac(d.client, "IDL_A1", 1).outcome, iemli_outcome::confirmed);
    const long before = traced("13");
    wait_pings(link, 3);
    EXPECT_EQ(traced("13"), before);
}

TEST_F(Operator, SeesReceivedAndSentMessagesOnRequest)
{
    start();
    EXPECT_THAT(read_log(DAEMON), testing::Not(testing::HasSubstr("IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ")));
    kap_trace({"set", TRACED_NAME, "+17,18"});
    EXPECT_EQ(iemli_client_get_mac(d.client, "IDL_A1", 1).outcome, iemli_outcome::confirmed);
    wait_log(DAEMON, "IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ");
}
