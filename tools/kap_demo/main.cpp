// kap-demo: shows the daemon at work, in a sandbox of its own, as a live table or as a tour that checks itself; or lets
// a command into a demo that runs.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include "live.hpp"
#include "log_dir.hpp"
#include "program_call.hpp"
#include "sandbox.hpp"
#include "story.hpp"
#include "terminal.hpp"

namespace
{

constexpr int STATUS_FAILED = 1;
constexpr int STATUS_NO_SANDBOX = 3;
// As other commands that run commands have it: not entered, entered but not run, no such command.
constexpr int STATUS_NOT_ENTERED = 125;
constexpr int STATUS_NOT_RUN = 126;
constexpr int STATUS_NOT_FOUND = 127;

constexpr program_call PROGRAM = {
    "kap-demo",
    "usage: kap-demo [--tour] [--logs DIR]\n"
    "       kap-demo [--logs DIR] --exec COMMAND...\n"
    "  without --tour, on a terminal: a live table until q or Ctrl-C\n"
    "  --tour          the tour: every step checked, exit status 0 only if every step held\n"
    "  --logs DIR      where the logs of the processes go (default: logs beside the programs); of what\n"
    "                  else is there, nothing is touched\n"
    "  --exec COMMAND  runs COMMAND inside the demo that runs (--logs DIR: inside the one that writes there)\n"
    "  --help          prints this\n"
    "  --version       prints the version\n"};

struct options {
    bool tour = false;
    std::string log_dir;
    std::vector<char *> command; // ends with a null pointer, once there is one
    std::string wrong;
};

bool is_option(const char *word, const char *option) { return strcmp(word, option) == 0; }

// What follows --exec is the command's own.
int count_own_arguments(int argc, char **argv)
{
    int own = 1;
    while (own < argc && !is_option(argv[own], "--exec")) {
        own++;
    }
    return own;
}

options read_options(int argc, char **argv)
{
    options o;
    const int own = count_own_arguments(argc, argv);
    for (int i = 1; i < own; i++) {
        if (is_option(argv[i], "--tour")) {
            o.tour = true;
        } else if (is_option(argv[i], "--logs") && i + 1 < own && argv[i + 1][0] != '\0') {
            o.log_dir = argv[++i];
        } else if (o.wrong.empty()) {
            o.wrong =
                is_option(argv[i], "--logs") ? "--logs needs a directory" : std::string("unknown option ") + argv[i];
        }
    }
    if (own < argc) {
        o.command.assign(argv + own + 1, argv + argc);
        o.command.push_back(nullptr);
        o.wrong = own + 1 == argc ? "--exec needs a command" : o.tour ? "--exec goes without --tour" : o.wrong;
    }
    return o;
}

std::string default_log_dir()
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "logs";
}

int fail(int status, const std::string &why)
{
    (void)fprintf(stderr, "kap-demo: %s\n", why.c_str());
    return status;
}

// ---- A command inside a demo ----------------------------------------------------------------------------------------

std::string why_not_one(const std::vector<running_demo> &demos, const std::string &log_dir)
{
    if (demos.empty()) {
        return log_dir.empty() ? "no demo of yours runs here: start one first"
                               : "no demo writes its logs to " + log_dir;
    }
    std::string text = std::to_string(demos.size()) + " demos run here; say which:";
    for (const running_demo &demo : demos) {
        text += "\n  --logs " + demo.log_dir;
    }
    return text;
}

int run_inside(const options &o)
{
    const auto demos = log_dir_find_demos(o.log_dir);
    if (demos.size() != 1) {
        return fail(STATUS_NOT_ENTERED, why_not_one(demos, o.log_dir));
    }
    std::string error;
    if (!sandbox_visit(demos[0].first, error)) {
        return fail(STATUS_NOT_ENTERED, error);
    }
    const char *path = getenv("PATH");
    setenv("PATH", (demos[0].bin_dir + (path == nullptr ? "" : std::string(":") + path)).c_str(), 1);
    execvp(o.command[0], o.command.data());
    const int status = errno == ENOENT ? STATUS_NOT_FOUND : STATUS_NOT_RUN;
    return fail(status, std::string(o.command[0]) + ": " + strerror(errno));
}

// ---- The demo itself ------------------------------------------------------------------------------------------------

int run_demo(bool table, const std::string &log_dir)
{
    log_dir_keep(log_dir);
    if (table) {
        terminal_watch();
    }
    std::string error;
    if (!sandbox_enter(error, table ? terminal_restore : nullptr)) {
        return fail(STATUS_NO_SANDBOX, error);
    }
    log_dir_check_visible(log_dir);
    demo d;
    d.stage = stage_make(log_dir);
    stage_use_kernel(d.stage);
    return table ? live_run(d) : story_run(d);
}

} // namespace

int main(int argc, char **argv)
{
    if (auto answered = program_answer(PROGRAM, count_own_arguments(argc, argv), argv)) {
        return *answered;
    }
    const options o = read_options(argc, argv);
    if (!o.wrong.empty()) {
        return program_refuse(PROGRAM, o.wrong.c_str());
    }
    if (!o.command.empty()) {
        return run_inside(o);
    }
    const bool table = !o.tour && terminal_there() && terminal_remember();
    try {
        const std::string log_dir = std::filesystem::absolute(o.log_dir.empty() ? default_log_dir() : o.log_dir);
        return program_end(PROGRAM, run_demo(table, log_dir));
    } catch (const std::exception &failure) {
        return fail(STATUS_FAILED, failure.what());
    }
}
