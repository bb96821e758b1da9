#include "e2e.hpp"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

using namespace std::chrono_literals;

void EndToEnd::SetUp()
{
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string(test->test_suite_name()) + "." + test->name();
    std::replace(name.begin(), name.end(), '/', '-');
    d.stage = stage_make("");
    d.stage.log_dir = std::filesystem::path(d.stage.bin_dir).parent_path() / "logs" / name;
    // Nobody's but this test's: what its other processes wrote in an earlier run goes too.
    std::filesystem::remove_all(d.stage.log_dir);
}

void EndToEnd::start() { demo_start(d); }

void EndToEnd::TearDown()
{
    try {
        for (const auto &[name, status] : stage_stop(d.stage)) {
            EXPECT_EQ(status, "exit status 0") << name << ": " << read_log(name);
        }
        EXPECT_EQ(stage_leftovers(), "");
    } catch (const std::exception &failure) {
        ADD_FAILURE() << failure.what();
    }
    if (HasFailure()) {
        std::cerr << "the logs of the processes are in " << d.stage.log_dir << "\n";
    }
}

void EndToEnd::start_client(const std::string &name, const std::vector<std::string> &wishes)
{
    std::vector<std::string> command = {d.stage.bin_dir + "/e2e-client", name};
    command.insert(command.end(), wishes.begin(), wishes.end());
    d.stage.processes[name] = process_start(name, command, d.stage.log_dir + "/" + name + ".log");
}

std::string EndToEnd::read_log(const std::string &name) const
{
    std::ifstream file(d.stage.log_dir + "/" + name + ".log");
    std::stringstream all;
    all << file.rdbuf();
    return all.str();
}

void EndToEnd::wait_log(const std::string &name, const std::string &text)
{
    stage_wait(d.stage, name + " says \"" + text + "\"", 10s,
               [&] { return read_log(name).find(text) != std::string::npos; });
}

void EndToEnd::kill_process(const std::string &name)
{
    child_process killed = stage_stop_process(d.stage, name, SIGKILL, 5s);
    EXPECT_EQ(process_status_text(killed), "killed by signal 9");
}

void EndToEnd::wait_event(iemli_event_kind kind)
{
    auto deadline = std::chrono::steady_clock::now() + 10s * slowness();
    while (std::chrono::steady_clock::now() < deadline) {
        auto event = iemli_client_next_event(d.client, 100);
        if (event && event->kind == kind) {
            return;
        }
    }
    FAIL() << "no such event came";
}

size_t EndToEnd::vlans() { return stage_control("pmi", {"show"})["vlans"].size(); }

size_t EndToEnd::endpoints_in_vlan(uint16_t vlan)
{
    nlohmann::json endpoints = stage_control("emi", {"show"})["endpoints"];
    return static_cast<size_t>(
        std::count_if(endpoints.begin(), endpoints.end(), [=](const auto &e) { return e["vlan_id"] == vlan; }));
}
