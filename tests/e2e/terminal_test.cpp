// The demo on a terminal: what it shows, its keys, that the terminal is as before when it is gone; its log directory,
// and commands that are run inside it.
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "e2e.hpp"

using namespace std::chrono_literals;
using testing::HasSubstr;

namespace
{

// A terminal with the demo on it. It makes a sandbox of its own.
class LiveTable : public testing::Test
{
protected:
    int master = -1;
    pid_t pid = -1;
    std::string program;
    std::string logs;
    std::string shown;
    termios before{};

    void SetUp() override
    {
        std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
        program = stage_make("").bin_dir + "/kap-demo";
        logs = std::filesystem::path(program).parent_path().parent_path() / "logs" / ("LiveTable." + name);
    }

    // Starts a command on a terminal of its own.
    void start(const std::vector<std::string> &command, const char *kind = "xterm", unsigned short columns = 140)
    {
        winsize size{40, columns, 0, 0};
        std::vector<char *> words;
        for (const std::string &word : command) {
            words.push_back(const_cast<char *>(word.c_str()));
        }
        words.push_back(nullptr);
        pid = forkpty(&master, nullptr, nullptr, &size);
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            setenv("TERM", kind, 1);
            execv(words[0], words.data());
            _exit(127);
        }
        tcgetattr(master, &before);
    }

    void start_demo(unsigned short columns = 140) { start({program, "--logs", logs}, "xterm", columns); }

    void TearDown() override
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (master >= 0) {
            close(master);
        }
    }

    // Reads what is drawn until a text has been shown that was not there before; throws when it is not.
    void expect_shown(const std::string &text)
    {
        shown.clear();
        auto deadline = std::chrono::steady_clock::now() + 20s * slowness();
        while (shown.find(text) == std::string::npos) {
            pollfd readable = {master, POLLIN, 0};
            char buffer[4096];
            ssize_t got = poll(&readable, 1, 100) == 1 ? read(master, buffer, sizeof buffer) : 0;
            if (got < 0 || std::chrono::steady_clock::now() > deadline) {
                throw std::runtime_error("\"" + text + "\" is not shown, but: " + shown);
            }
            shown.append(buffer, static_cast<size_t>(got));
        }
    }

    void read_rest()
    {
        char buffer[4096];
        for (ssize_t got = 0; (got = read(master, buffer, sizeof buffer)) > 0;) {
            shown.append(buffer, static_cast<size_t>(got));
        }
    }

    void press(const char *keys) { ASSERT_EQ(write(master, keys, strlen(keys)), static_cast<ssize_t>(strlen(keys))); }

    void expect_ends_in_order()
    {
        expect_shown("nothing is left behind");
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        pid = -1;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        read_rest();
        // A second time it would move the cursor back over what was said since.
        EXPECT_EQ(shown.find("\x1b[?1049l"), shown.rfind("\x1b[?1049l"));
        expect_terminal_as_before();
    }

    static std::vector<pid_t> children_of(pid_t parent)
    {
        std::istringstream listed(command_run({"pgrep", "-P", std::to_string(parent)}).output);
        return {std::istream_iterator<pid_t>(listed), std::istream_iterator<pid_t>()};
    }

    // The innermost process draws; its parent is the first of its sandbox, whose parent is the one that was called.
    pid_t innermost() const { return children_of(children_of(pid).at(0)).at(0); }

    static void expect_gone(pid_t process)
    {
        auto deadline = std::chrono::steady_clock::now() + 5s * slowness();
        while (kill(process, 0) == 0 && std::chrono::steady_clock::now() < deadline) {
            poll(nullptr, 0, 10);
        }
        EXPECT_NE(kill(process, 0), 0) << process;
    }

    void expect_terminal_as_before()
    {
        termios after{};
        tcgetattr(master, &after);
        EXPECT_EQ(after.c_lflag, before.c_lflag);
        EXPECT_EQ(after.c_cc[VSUSP], before.c_cc[VSUSP]);
    }
};

} // namespace

TEST_F(LiveTable, ShowsLinksAndTakesKeysUntilQ)
{
    start_demo();
    expect_shown("02:00:00:00:A1:FE    2  enabled");
    press("1");
    expect_shown("idl_a1: down");
    expect_shown("idl_a1 is taken down");
    expect_shown("disabled with reason down");
    press("1");
    expect_shown("02:00:00:00:A1:FE    2  enabled");
    press("f");
    expect_shown("far end: silent");
    press("f");
    expect_shown("far end: answers");
    press("k");
    expect_shown("idl_a1: up, locked");
    expect_shown("disabled with reason down");
    press("k");
    expect_shown("02:00:00:00:A1:FE    2  enabled");
    expect_shown("RTT, batch ");
    press("l");
    expect_shown("SUPERVISION");
    press("l");
    expect_shown("round trip");
    press("q");
    expect_ends_in_order();
}

TEST_F(LiveTable, EndsInOrderOnCtrlC)
{
    start_demo();
    expect_shown("far-end CPM MAC");
    press("\x03");
    expect_ends_in_order();
}

TEST_F(LiveTable, PutsTheTerminalBackWhenItIsKilledInside)
{
    start_demo();
    expect_shown("far-end CPM MAC");
    ASSERT_EQ(kill(innermost(), SIGKILL), 0);
    int status = 0;
    expect_shown("\x1b[?1049l");
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    pid = -1;
    EXPECT_EQ(WEXITSTATUS(status), 128 + SIGKILL);
    expect_terminal_as_before();
}

TEST_F(LiveTable, LeavesNoProcessBehindWhenItIsKilledItself)
{
    start_demo();
    expect_shown("far-end CPM MAC");
    std::vector<pid_t> inside = children_of(innermost());
    EXPECT_EQ(inside.size(), 8u); // the registry, five services, the far end, the daemon
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    for (pid_t process : inside) {
        expect_gone(process);
    }
}

// The shell is the one that goes on: nothing of the demo is left but a terminal that may be as it was, or not.
TEST_F(LiveTable, PutsTheTerminalBackWhenItIsKilledItselfSoThatTheNextCommandCanBeTyped)
{
    start({"/bin/sh", "-c", "\"$0\" --logs \"$1\"; read line; echo \"read <$line>\"; read line", program, logs});
    expect_shown("far-end CPM MAC");
    ASSERT_EQ(kill(children_of(pid).at(0), SIGKILL), 0);
    expect_shown("\x1b[?1049l");
    expect_terminal_as_before();
    press("hullo\x7fo\n"); // one letter is taken back, as only a line's own editing can
    expect_shown("read <hullo>");
}

TEST_F(LiveTable, GivesWayToTheTourOnATerminalThatTakesNoEscapeCodes)
{
    start({program, "--logs", logs}, "dumb");
    expect_shown("everything is started");
    EXPECT_EQ(shown.find('\x1b'), std::string::npos) << shown;
}

TEST_F(LiveTable, HasTheWholeLinkListOnATerminalOfTheUsualWidth)
{
    start_demo(80);
    expect_shown("RTT, batch ");
    press("l");
    expect_shown("OWNER"); // the last head
    for (const char *head : {"LINK", "SUPERVISION", "LOST", "MIN us", "AVG us", "MAX us"}) {
        EXPECT_NE(shown.find(head), std::string::npos) << head << " is not in " << shown;
    }
}

// ---- The directory of the logs --------------------------------------------------------------------------------------

namespace
{

namespace fs = std::filesystem;

void write_file(const fs::path &path, const std::string &text) { std::ofstream(path) << text; }

std::string read_file(const fs::path &path)
{
    std::stringstream all;
    all << std::ifstream(path).rdbuf();
    return all.str();
}

} // namespace

TEST_F(LiveTable, ReplacesItsOwnLogsAndTouchesNothingElseOfADirectory)
{
    fs::remove_all(logs);
    fs::create_directories(fs::path(logs) / "kept");
    for (const char *own : {"notes.txt", "other.log", "kept/kap-vorn.log", "itcd.log.1"}) {
        write_file(fs::path(logs) / own, "the user's");
    }
    write_file(fs::path(logs) / "kap-vorn.log", "of an earlier run");
    start_demo();
    expect_shown("far-end CPM MAC");
    for (const char *own : {"notes.txt", "other.log", "kept/kap-vorn.log", "itcd.log.1"}) {
        EXPECT_EQ(read_file(fs::path(logs) / own), "the user's") << own;
    }
    EXPECT_THAT(read_file(fs::path(logs) / "kap-vorn.log"), testing::Not(HasSubstr("earlier")));
    EXPECT_THAT(read_file(fs::path(logs) / "kap-vorn.log"), HasSubstr("kap_vorn_manager"));
}

TEST_F(LiveTable, IsAloneInItsLogDirectory)
{
    start_demo();
    expect_shown("far-end CPM MAC");
    const std::string log = read_file(fs::path(logs) / "kap-vorn.log");
    const command_result second = command_run({program, "--tour", "--logs", logs});
    EXPECT_EQ(second.status, 1);
    EXPECT_THAT(second.output, testing::StartsWith("kap-demo: another demo writes its logs to " + logs));
    EXPECT_THAT(read_file(fs::path(logs) / "kap-vorn.log"), testing::StartsWith(log));
    press("q");
    expect_shown("nothing is left behind");
}

TEST_F(LiveTable, LeavesItsLogDirectoryToTheNextWhenItIsKilled)
{
    start_demo();
    expect_shown("far-end CPM MAC");
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
    close(master);
    start_demo();
    expect_shown("far-end CPM MAC");
}

// ---- Commands inside a demo -----------------------------------------------------------------------------------------

namespace
{

command_result run_in(const std::string &directory, const std::string &line)
{
    return command_run({"/bin/bash", "-c", "cd \"$0\" && " + line, directory});
}

// The commands that the README says look into a running demo.
std::vector<std::string> readme_lines()
{
    std::vector<std::string> found;
    std::ifstream readme(KAP_SOURCE_DIR "/README.md");
    for (std::string line; std::getline(readme, line);) {
        if (line.starts_with("./run --exec ")) {
            found.push_back(line);
        }
    }
    return found;
}

class CommandInside : public LiveTable
{
protected:
    void SetUp() override
    {
        LiveTable::SetUp();
        // ./run then uses the programs of this build: it builds none of its own.
        setenv("KAP_RUN_BUILD", fs::path(program).parent_path().parent_path().c_str(), 1);
    }

    static std::string space_of(pid_t process, const std::string &kind)
    {
        return fs::read_symlink("/proc/" + std::to_string(process) + "/ns/" + kind);
    }

    pid_t first_inside() const { return children_of(pid).at(0); }
};

} // namespace

TEST_F(CommandInside, WorksAsTheReadmePrintsIt)
{
    start_demo();
    expect_shown("RTT, batch ");
    const auto lines = readme_lines();
    ASSERT_EQ(lines.size(), 5u);
    const char *expected[] = {"\"vlan_id\": 100", "", "IDL_A1", "kap_vorn_manager", ""};
    for (size_t i = 0; i < lines.size(); i++) {
        const command_result result = run_in(KAP_SOURCE_DIR, lines[i]);
        EXPECT_EQ(result.status, 0) << lines[i] << "\n" << result.output;
        EXPECT_THAT(result.output, HasSubstr(expected[i])) << lines[i];
    }
    EXPECT_THAT(run_in(KAP_SOURCE_DIR, "./run --exec kap-trace get kap_vorn_manager").output, HasSubstr(",13"));
    press("q");
    expect_ends_in_order();
}

TEST_F(CommandInside, KeepsItsWorkingDirectoryItsWordsAndItsStatus)
{
    start_demo();
    expect_shown("far-end CPM MAC");
    const command_result result = run_in(
        "/usr/bin", program + R"( --exec sh -c 'pwd; echo "<$1>"; readlink /proc/self/ns/net; exit 7' 0 "a  b")");
    EXPECT_EQ(result.status, 7);
    EXPECT_EQ(result.output, "/usr/bin\n<a  b>\n" + space_of(first_inside(), "net") + "\n");
    EXPECT_EQ(run_in("/", program + " --exec sh -c 'kill -9 $$'").status, 128 + SIGKILL);
    EXPECT_EQ(run_in("/", program + " --exec no-such-command").status, 127);
    EXPECT_EQ(run_in("/", program + " --exec vornctl --help").output.find("usage: vornctl"), 0u);
}

TEST_F(CommandInside, IsNoneOfWhatTheDemoLeavesBehind)
{
    start_demo();
    expect_shown("far-end CPM MAC");
    child_process visitor =
        process_start("visitor", {program, "--exec", "sh", "-c", "echo inside; sleep 60; :"}, logs + "/visitor.log");
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (process_log_tail(visitor, 1) != "inside\n" && std::chrono::steady_clock::now() < deadline) {
        poll(nullptr, 0, 10);
    }
    ASSERT_EQ(process_log_tail(visitor, 1), "inside\n");
    press("q");
    expect_ends_in_order();
    EXPECT_TRUE(process_wait(visitor, 5s));
    EXPECT_EQ(process_status_text(visitor), "exit status 137"); // it goes with the sandbox
}

TEST_F(CommandInside, IsToldThatNoDemoRuns)
{
    const command_result result = run_in(KAP_SOURCE_DIR, "./run --exec true");
    EXPECT_EQ(result.status, 125);
    EXPECT_EQ(result.output, "kap-demo: no demo of yours runs here: start one first\n");
}

TEST_F(CommandInside, ChoosesAmongDemosByTheirLogDirectory)
{
    start_demo();
    expect_shown("far-end CPM MAC");
    const std::string other_logs = logs + "-other";
    child_process other = process_start("other", {program, "--tour", "--logs", other_logs}, logs + "/other-demo.log");
    const std::string ask = " --exec readlink /proc/self/ns/pid";
    auto deadline = std::chrono::steady_clock::now() + 10s;
    command_result both = run_in("/", program + ask);
    while (both.status == 0 && std::chrono::steady_clock::now() < deadline) {
        both = run_in("/", program + ask);
    }
    EXPECT_EQ(both.status, 125);
    EXPECT_THAT(both.output, testing::StartsWith("kap-demo: 2 demos run here; say which:\n"));
    EXPECT_THAT(both.output, HasSubstr("  --logs " + logs + "\n"));
    EXPECT_THAT(both.output, HasSubstr("  --logs " + other_logs + "\n"));
    EXPECT_EQ(run_in("/", program + " --logs " + logs + ask).output, space_of(first_inside(), "pid") + "\n");
    EXPECT_EQ(run_in(fs::path(other_logs).parent_path(),
                     program + " --logs " + fs::path(other_logs).filename().string() + ask)
                  .output,
              space_of(children_of(other.pid).at(0), "pid") + "\n");
    process_kill(other);
}

// As an ordinary user has it: the demo is in a user namespace too.
TEST_F(CommandInside, EntersTheDemoOfAnOrdinaryUser)
{
    const std::vector<std::string> as_nobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    auto nobody = [&](std::vector<std::string> command) {
        command.insert(command.begin(), as_nobody.begin(), as_nobody.end());
        return command;
    };
    if (command_run(nobody({"/usr/bin/unshare", "-Urmpf", "--mount-proc", program, "--version"})).status != 0) {
        GTEST_SKIP() << "no ordinary user may have a user namespace, or reach the programs";
    }
    fs::create_directories(logs);
    ASSERT_EQ(chown(logs.c_str(), 65534, 65534), 0);
    for (const auto &old : fs::directory_iterator(logs)) {
        fs::remove_all(old.path());
    }
    start(nobody({program, "--logs", logs}));
    expect_shown("02:00:00:00:A1:FE    2  enabled");
    expect_shown("02:00:00:00:AA:FE    1  enabled");
    const command_result own = command_run(nobody({program, "--exec", "vornctl", "links"}));
    EXPECT_EQ(own.status, 0);
    EXPECT_THAT(own.output, HasSubstr("IDL_A1"));
    const command_result from_root = command_run({program, "--exec", "vornctl", "links"});
    EXPECT_EQ(from_root.status, 0);
    EXPECT_THAT(from_root.output, HasSubstr("IDL_A1"));
    press("q");
    expect_ends_in_order();
}

// ---- Output that cannot be written ----------------------------------------------------------------------------------

TEST_F(LiveTable, EndsATourThatNobodyCanReadWithAFailure)
{
    const command_result result = run_in("/", program + " --tour --logs " + logs + " >/dev/full");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.output, testing::StartsWith("kap-demo: the output could not be written"));
}
