#include "processes.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "mask_share.hpp"
#include "times.hpp"

namespace vornctl
{

namespace
{

namespace fs = std::filesystem;

// Start times are told in ticks since the machine started, its sleep included.
std::optional<int64_t> since_of(uint64_t ticks)
{
    const long per_second = sysconf(_SC_CLK_TCK);
    timespec boot{};
    if (ticks == 0 || per_second <= 0 || clock_gettime(CLOCK_BOOTTIME, &boot) != 0) {
        return std::nullopt;
    }
    const int64_t started_us = now_us() - (static_cast<int64_t>(boot.tv_sec) * SECOND_US + boot.tv_nsec / 1000);
    return started_us + static_cast<int64_t>(ticks) * (SECOND_US / per_second);
}

std::vector<std::string> words_of_call(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/cmdline", std::ios::binary);
    std::vector<std::string> words;
    for (std::string word; std::getline(file, word, '\0');) {
        words.push_back(word);
    }
    return words;
}

bool is_called(pid_t pid, const std::string &name, const std::string &word)
{
    const auto words = words_of_call(pid);
    return !words.empty() && fs::path(words[0]).filename() == name &&
           (word.empty() || (words.size() > 1 && words[1] == word));
}

// The output of a program, at most so much; empty where it failed.
std::string output_of(std::vector<std::string> command)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return "";
    }
    std::vector<char *> words;
    for (std::string &word : command) {
        words.push_back(word.data());
    }
    words.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const bool started = posix_spawnp(&pid, words[0], &actions, nullptr, words.data(), environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    std::string output;
    char bytes[4096];
    constexpr size_t MOST = 65536;
    for (ssize_t got = 0; started && output.size() < MOST && (got = read(ends[0], bytes, sizeof bytes)) > 0;) {
        output.append(bytes, static_cast<size_t>(got));
    }
    close(ends[0]);
    int status = 0;
    return started && waitpid(pid, &status, 0) == pid && status == 0 ? output : "";
}

// "@1795000000.123456" or "@1795000000": what systemd prints with --timestamp=unix; else nothing.
std::optional<int64_t> unix_time(const std::string &text)
{
    if (text.size() < 2 || text[0] != '@') {
        return std::nullopt;
    }
    return strtoll(text.c_str() + 1, nullptr, 10) * SECOND_US;
}

} // namespace

std::optional<running> process_of(pid_t pid)
{
    if (pid <= 0) {
        return std::nullopt; // of another namespace
    }
    return running{pid, since_of(tri::process_start_time(pid))};
}

std::optional<running> process_called(const std::string &name, const std::string &word)
{
    std::optional<running> found;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/proc", error)) {
        const std::string file = entry.path().filename();
        if (file.find_first_not_of("0123456789") != std::string::npos) {
            continue;
        }
        const auto pid = static_cast<pid_t>(strtol(file.c_str(), nullptr, 10));
        if (is_called(pid, name, word)) {
            if (found) {
                return std::nullopt;
            }
            found = process_of(pid);
        }
    }
    return found;
}

std::optional<running> process_behind(const std::string &socket_path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof address.sun_path) {
        return std::nullopt;
    }
    memcpy(address.sun_path, socket_path.data(), socket_path.size());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    ucred who{};
    socklen_t size = sizeof who;
    const bool known = fd >= 0 && connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                       getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &who, &size) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return known ? process_of(who.pid) : std::nullopt;
}

std::map<std::string, unit_facts> ask_systemd(const std::vector<std::string> &units)
{
    if (access("/run/systemd/system", F_OK) != 0) {
        return {};
    }
    std::vector<std::string> command = {"systemctl", "show", "--timestamp=unix",
                                        "--property=Id,LoadState,ActiveState,Result,StateChangeTimestamp"};
    command.insert(command.end(), units.begin(), units.end());
    std::map<std::string, unit_facts> facts;
    std::istringstream lines(output_of(command));
    std::string id;
    unit_facts one;
    const auto keep = [&] {
        if (!id.empty()) {
            facts[id] = one;
        }
        id.clear();
        one = unit_facts();
    };
    for (std::string line; std::getline(lines, line);) {
        const size_t at = line.find('=');
        const std::string name = line.substr(0, at);
        const std::string value = at == std::string::npos ? "" : line.substr(at + 1);
        if (line.empty()) {
            keep();
        } else if (name == "Id") {
            id = value;
        } else if (name == "LoadState") {
            one.installed = value == "loaded";
        } else if (name == "ActiveState") {
            one.state = value;
        } else if (name == "Result") {
            one.result = value;
        } else if (name == "StateChangeTimestamp") {
            one.since_us = unix_time(value);
        }
    }
    keep();
    return facts;
}

} // namespace vornctl
