// The operator's commands against the real link manager; and the examples of the manual, run as they are printed.
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>

#include "e2e.hpp"

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
};

// What the section has between .nf and .fi, a command a line.
std::vector<std::string> examples()
{
    std::ifstream page(KAP_SOURCE_DIR "/docs/man/vornctl.1");
    std::vector<std::string> found;
    bool in_section = false;
    bool in_block = false;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with(".SH ")) {
            in_section = line == ".SH EXAMPLES";
        } else if (line == ".nf" || line == ".fi") {
            in_block = in_section && line == ".nf";
        } else if (in_block) {
            found.push_back(std::regex_replace(line, std::regex(R"(\\-)"), "-"));
        }
    }
    return found;
}

} // namespace

TEST_F(OperatorOfLinkd, RunsEveryExampleOfTheManualAsItIsPrinted)
{
    const auto lines = examples();
    ASSERT_GE(lines.size(), 13u);
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

TEST_F(OperatorOfLinkd, CompletesTheNamesOfLinks)
{
    add("to-north", "IDL_A1", "100");
    EXPECT_EQ(shell("vornctl complete link delete to").output, "to-north\t\n");
}
