// The operator's commands against the real link manager; and the examples of the manual, run as they are printed.
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>

#include "e2e.hpp"
#include "linkd/control_client.hpp"

using namespace std::chrono_literals;
using nlohmann::json;
using testing::HasSubstr;

namespace
{

constexpr const char *LINKD = "kap-linkd";

class OperatorOfLinkd : public EndToEnd
{
protected:
    void SetUp() override
    {
        EndToEnd::SetUp();
        std::filesystem::create_directories("/run/kap-linkd");
        std::filesystem::create_directories(d.stage.log_dir + "/state");
        start();
        run_linkd();
    }

    void run_linkd()
    {
        d.stage.processes[LINKD] =
            process_start(LINKD,
                          {d.stage.bin_dir + "/" + LINKD, "--links", d.stage.log_dir + "/links.toml", "--state",
                           d.stage.log_dir + "/state", "--settings", "/nowhere"},
                          d.stage.log_dir + "/" + LINKD + ".log");
        stage_wait(d.stage, "kap-linkd answers", 10s, [&] { return shell("vornctl reload").status == 0; });
    }

    // A line as somebody types it, with the programs of this build.
    command_result shell(const std::string &line) const
    {
        return command_run({"/bin/bash", "-c", "PATH=" + d.stage.bin_dir + ":$PATH; " + line});
    }
    json shown(const std::string &line) const
    {
        const command_result result = shell(line);
        const json value = json::parse(result.output, nullptr, false);
        EXPECT_FALSE(value.is_discarded()) << line << ": " << result.output;
        return value;
    }
    // Whether JSON is as a schema says, or a part of it, and has nothing that is not named there.
    bool holds(const json &value, const std::string &schema, const std::string &part = "") const
    {
        const std::string file = d.stage.log_dir + "/value.json";
        std::ofstream(file) << value;
        const command_result result =
            command_run({"/bin/bash", "-c",
                         KAP_SOURCE_DIR "/tests/support/holds_schema " KAP_SOURCE_DIR "/docs/schema/" + schema +
                             ".json " + part + " < " + file});
        said_ = result.output;
        return result.status == 0;
    }
    void add(const std::string &name, const std::string &port, const std::string &vlan)
    {
        const command_result added = shell("vornctl link add " + name + " --port " + port + " --vlan " + vlan +
                                           " --far 02:00:00:00:a1:fe --rtt");
        ASSERT_EQ(added.status, 0) << added.output;
    }
    void wait_enabled(const std::string &name)
    {
        stage_wait(d.stage, name + " is enabled", 20s, [&] { return shell("vornctl link " + name).status == 0; });
    }

    mutable std::string said_; // by the last check of a schema
};

// What the page's section has between .nf and .fi, as it is read.
std::vector<std::string> examples(const std::string &name, const std::string &section)
{
    std::ifstream page(KAP_SOURCE_DIR "/docs/man/" + name);
    std::vector<std::string> found;
    bool in_section = false;
    bool in_block = false;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with(".SH ")) {
            in_section = line == ".SH " + section;
        } else if (line == ".nf" || line == ".fi") {
            in_block = in_section && line == ".nf";
        } else if (in_block) {
            for (const auto &[written, read] : {std::pair(R"(\\-)", "-"), {R"(\\\(dq)", "\""}, {R"(\\\(aq)", "'"}}) {
                line = std::regex_replace(line, std::regex(written), read);
            }
            found.push_back(line);
        }
    }
    return found;
}

} // namespace

TEST_F(OperatorOfLinkd, RunsEveryExampleOfTheManualAsItIsPrinted)
{
    const auto lines = examples("vornctl.1", "EXAMPLES");
    ASSERT_GE(lines.size(), 14u);
    for (const std::string &line : lines) {
        const command_result result = shell("set -o pipefail; " + line);
        EXPECT_EQ(result.status, 0) << line << "\n" << result.output;
        if (line.find(" link add ") != std::string::npos) {
            wait_enabled("to-north");
        }
        if (line.find(" set to-north --app ") != std::string::npos) {
            EXPECT_EQ(shown("vornctl link to-north --json")["link"]["app_links"].size(), 1u);
        }
    }
    EXPECT_EQ(shell("vornctl link to-north").status, 1);
}

TEST_F(OperatorOfLinkd, TheExamplesOfTheOtherPagesAreRight)
{
    const std::string declared = d.stage.log_dir + "/example.toml";
    {
        std::ofstream file(declared);
        for (const std::string &line : examples("kap-linkd-links.toml.5", "EXAMPLE")) {
            file << line << "\n";
        }
    }
    EXPECT_NE(std::filesystem::file_size(declared), 0u);
    EXPECT_EQ(shell("kap-linkd --check " + declared).output, "");
    add("to-north", "IDL_A1", "100");
    const auto asked = examples("kap-linkd-control.7", "EXAMPLE");
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(shown(asked[0])["links"][0]["name"], "to-north");
}

TEST_F(OperatorOfLinkd, SeesNamesAndWhatIsNotWithTheDaemon)
{
    add("to-north", "IDL_A1", "100");
    wait_enabled("to-north");
    EXPECT_EQ(shown("vornctl links --json")["links"][0]["name"], "to-north");
    EXPECT_EQ(shown("vornctl links --json")["missing"], json::array());
    EXPECT_EQ(shell("vornctl links").status, 0);
    add("nowhere", "IDL_B2", "101"); // the node has no such port
    stage_wait(d.stage, "the link is rejected", 10s,
               [&] { return shown("vornctl link nowhere --json")["link"]["state"] == "rejected"; });
    EXPECT_EQ(shell("vornctl links").status, 1);
    EXPECT_THAT(shell("vornctl links").output, HasSubstr("not with the daemon:\n"));
    EXPECT_EQ(shown("vornctl links --json")["missing"][0]["name"], "nowhere");
    EXPECT_EQ(shell("vornctl links --port IDL_A1").status, 0);
    const json status = shown("vornctl status --json");
    EXPECT_EQ(status["next"][0]["command"], "vornctl link nowhere");
    EXPECT_EQ(status["components"].back()["pid"], d.stage.processes.at(LINKD).pid);
}

// With round trips and a past, so that no list is empty.
TEST_F(OperatorOfLinkd, AnswersAndPrintsWhatTheSchemasSayAndNothingElse)
{
    add("to-north", "IDL_A1", "100");
    wait_enabled("to-north");
    stage_wait(d.stage, "round trips are measured", 20s,
               [&] { return !shown("vornctl rtt to-north --json")["samples"].empty(); });
    stage_control(FAR_END, {"silent", "on"});
    stage_wait(d.stage, "the link is lost", 20s, [&] { return shell("vornctl link to-north").status == 1; });
    const json wish = {{"op", "add"}, {"name", "more"}, {"port", "TN_A"}, {"vlan", 9}, {"far", "02:00:00:00:00:09"}};
    const std::pair<json, const char *> requests[] = {
        {{{"op", "links"}}, "answer_links"},
        {{{"op", "links"}, {"members", {"name", "link_ref"}}}, "answer_links"},
        {{{"op", "link"}, {"name", "to-north"}}, "answer_link"},
        {{{"op", "status"}}, "answer_status"},
        {{{"op", "events"}, {"since_us", 0}, {"link", "to-north"}, {"limit", 10}}, "answer_events"},
        {{{"op", "events"}, {"newest", 3}, {"before", 1'000'000'000'000'000}}, "answer_events"},
        {{{"op", "history"}, {"name", "to-north"}, {"from_us", 0}}, "answer_history"},
        {{{"op", "samples"}, {"name", "to-north"}, {"points", 100}}, "answer_samples"},
        {wish, "answer_change"},
        {{{"op", "history"}, {"name", "more"}}, "answer_history"},
        {{{"op", "set"}, {"name", "more"}, {"vlan", 10}}, "answer_change"},
        {{{"op", "rtt"}, {"name", "more"}, {"on", {{"batch", 5}}}}, "answer_change"},
        {{{"op", "reload"}}, "answer_change"},
        {{{"op", "delete"}, {"name", "more"}}, "answer_change"},
        {{{"op", "link"}, {"name", "more"}}, "refusal"},
        {{{"op", "history"}, {"name", "never"}}, "refusal"},
        {{{"op", "events"}, {"follow", true}, {"limit", 0}}, "answer_events"},
    };
    control_client client("/run/kap-linkd/control.sock");
    json answer;
    for (const auto &[request, part] : requests) {
        EXPECT_TRUE(holds(request, "kap-linkd-control", "request")) << request << said_;
        answer = client.ask(request);
        EXPECT_TRUE(holds(answer, "kap-linkd-control", part)) << request << answer << said_;
        EXPECT_TRUE(holds(answer, "kap-linkd-control")) << request << answer << said_;
        for (const char *list : {"links", "events", "samples"}) {
            const bool expected = answer.contains(list) && !request.contains("follow");
            EXPECT_TRUE(!expected || !answer[list].empty()) << request << answer;
        }
    }
    EXPECT_TRUE(holds(*client.read_line(), "kap-linkd-control", "event_line")) << said_;
    for (const char *words : {"links", "link", "events", "history", "rtt", "status", "ports"}) {
        const bool named =
            std::string("link history rtt").find(words) != std::string::npos && std::string(words) != "links";
        EXPECT_TRUE(holds(shown("vornctl " + std::string(words) + (named ? " to-north" : "") + " --json"),
                          "vornctl-" + std::string(words)))
            << words << said_;
    }
    EXPECT_TRUE(holds(shown("vornctl watch --json --since 0 | head -n 1"), "vornctl-watch")) << said_;
    // What the schemas do not name is found, and what is missing is.
    answer["unheard_of"] = 1;
    EXPECT_FALSE(holds(answer, "kap-linkd-control", "answer_events"));
    answer.erase("unheard_of");
    answer.erase("more");
    EXPECT_FALSE(holds(answer, "kap-linkd-control", "answer_events"));
}

TEST_F(OperatorOfLinkd, TellsThePastOfALinkThatIsGoneAndOfNoOther)
{
    add("to-north", "IDL_A1", "100");
    wait_enabled("to-north");
    ASSERT_EQ(shell("vornctl link delete to-north").status, 0);
    const json history = shown("vornctl history to-north --json");
    ASSERT_FALSE(history["events"].empty());
    EXPECT_EQ(history["events"].back()["to"], "gone");
    EXPECT_EQ(shown("vornctl events --link to-north --limit 1 --json")["events"],
              json::array({history["events"].back()}));
    EXPECT_EQ(shell("vornctl rtt to-north").status, 0);
    for (const char *line : {"vornctl history never", "vornctl rtt never", "vornctl events --link never",
                             "vornctl watch --json --link never"}) {
        const command_result result = shell(line);
        EXPECT_EQ(result.status, 1) << line;
        EXPECT_THAT(result.output, HasSubstr("there is no link \"never\"")) << line;
    }
}

TEST_F(OperatorOfLinkd, MissesNoChangeOverARestartOfTheLinkManager)
{
    child_process watch = process_start("watch", {d.stage.bin_dir + "/vornctl", "watch", "--json", "--since", "0"},
                                        d.stage.log_dir + "/watch.log");
    add("to-north", "IDL_A1", "100");
    wait_enabled("to-north");
    const auto ids = [&] {
        std::vector<uint64_t> all;
        std::ifstream log(d.stage.log_dir + "/watch.log");
        for (std::string line; std::getline(log, line);) {
            const json change = json::parse(line, nullptr, false);
            if (change.is_object()) {
                all.push_back(change["id"]);
            }
        }
        return all;
    };
    stage_wait(d.stage, "the first changes are told", 10s, [&] { return !ids().empty(); });
    const size_t before = ids().size();
    (void)stage_stop_process(d.stage, LINKD, SIGTERM, 10s);
    run_linkd();
    wait_enabled("to-north");
    stage_wait(d.stage, "what came after the restart is told", 10s, [&] { return ids().size() > before; });
    std::vector<uint64_t> kept;
    std::string state = "gone"; // each change begins where the one before ended
    bool started = false;
    const json all = shown("vornctl events --json --limit 1000");
    for (const json &change : all["events"]) {
        kept.push_back(change["id"]);
        EXPECT_EQ(change["from"], state) << change;
        state = change["to"];
        started = started || (change["from"] == "enabled" && change["to"] == "waiting" &&
                              change["reason"] == "kap-linkd was started");
    }
    EXPECT_EQ(state, "enabled");
    EXPECT_TRUE(started) << "its end took the link with it";
    stage_wait(d.stage, "all are told", 10s, [&] { return ids().size() >= kept.size(); });
    EXPECT_EQ(ids(), kept); // none is missing, none came twice
    process_kill(watch);
}

TEST_F(OperatorOfLinkd, CompletesTheNamesOfLinks)
{
    add("to-north", "IDL_A1", "100");
    EXPECT_EQ(shell("vornctl complete link delete to").output, "to-north\t\n");
}
