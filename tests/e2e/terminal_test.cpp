// The live table on a terminal: what it shows, its keys, and that the terminal is as before when it is gone.
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <sstream>

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "e2e.hpp"

using namespace std::chrono_literals;

namespace
{

// A terminal with the demo on it. It makes a sandbox of its own.
class LiveTable : public testing::Test
{
protected:
    int master = -1;
    pid_t pid = -1;
    std::string shown;
    termios before{};

    void SetUp() override
    {
        winsize size{40, 140, 0, 0};
        std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
        std::string bin = stage_make("").bin_dir;
        pid = forkpty(&master, nullptr, nullptr, &size);
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            std::string logs = std::filesystem::path(bin).parent_path() / "logs" / ("LiveTable." + name);
            execl((bin + "/kap-demo").c_str(), "kap-demo", "--logs", logs.c_str(), nullptr);
            _exit(127);
        }
        tcgetattr(master, &before);
    }

    void TearDown() override
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        close(master);
    }

    // Reads what is drawn until a text has been shown that was not there before; throws when it is not.
    void expect_shown(const std::string &text)
    {
        shown.clear();
        auto deadline = std::chrono::steady_clock::now() + 20s;
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
        auto deadline = std::chrono::steady_clock::now() + 5s;
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
    expect_shown("02:00:00:00:A1:FE    2  enabled");
    press("1");
    expect_shown("idl_a1: down");
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
    expect_shown("far-end CPM MAC");
    press("\x03");
    expect_ends_in_order();
}

TEST_F(LiveTable, PutsTheTerminalBackWhenItIsKilledInside)
{
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
    expect_shown("far-end CPM MAC");
    std::vector<pid_t> inside = children_of(innermost());
    EXPECT_EQ(inside.size(), 8u); // the registry, five services, the far end, the daemon
    ASSERT_EQ(kill(pid, SIGKILL), 0);
    for (pid_t process : inside) {
        expect_gone(process);
    }
}
