#include "process.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

std::vector<char *> argument_pointers(const std::vector<std::string> &command)
{
    std::vector<char *> pointers;
    pointers.reserve(command.size() + 1);
    for (const std::string &word : command) {
        pointers.push_back(const_cast<char *>(word.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Between fork and exec: only calls that are safe there.
[[noreturn]] void become(char *const *arguments, int output, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(126);
    }
    setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    execvp(arguments[0], arguments);
    dprintf(STDERR_FILENO, "cannot run %s: %s\n", arguments[0], strerror(errno));
    _exit(127);
}

pid_t spawn(const std::vector<std::string> &command, int output)
{
    auto arguments = argument_pointers(command);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        become(arguments.data(), output, parent);
    }
    return pid;
}

std::runtime_error system_failure(const std::string &what) { return std::runtime_error(what + ": " + strerror(errno)); }

std::string read_all(int fd)
{
    std::string text;
    char buffer[4096];
    ssize_t got = 0;
    while ((got = read(fd, buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR)) {
        text.append(buffer, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    }
    return text;
}

// The fields of /proc/PID/stat behind the name, which may hold blanks: the third field is the first.
std::vector<std::string> stat_fields(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(file, line);
    std::istringstream rest(line.substr(std::min(line.rfind(')') + 1, line.size())));
    std::vector<std::string> fields;
    for (std::string field; rest >> field;) {
        fields.push_back(field);
    }
    return fields;
}

constexpr size_t STAT_UTIME = 11;
constexpr size_t STAT_STIME = 12;
constexpr size_t STAT_THREADS = 17;

} // namespace

child_process process_start(const std::string &name, const std::vector<std::string> &command,
                            const std::string &log_path)
{
    int log = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log < 0) {
        throw system_failure("cannot write " + log_path);
    }
    child_process child;
    child.name = name;
    child.log_path = log_path;
    child.pid = spawn(command, log);
    close(log);
    if (child.pid < 0) {
        throw system_failure("cannot start " + name);
    }
    child.pidfd = static_cast<int>(syscall(SYS_pidfd_open, child.pid, 0));
    return child;
}

bool process_running(child_process &child)
{
    if (child.pid < 0 || child.wait_status) {
        return false;
    }
    int status = 0;
    if (waitpid(child.pid, &status, WNOHANG) != child.pid) {
        return true;
    }
    child.wait_status = status;
    close(child.pidfd);
    child.pidfd = -1;
    return false;
}

void process_signal(const child_process &child, int signo)
{
    if (child.pid > 0 && !child.wait_status) {
        kill(child.pid, signo);
    }
}

bool process_wait(child_process &child, std::chrono::milliseconds bound)
{
    auto deadline = std::chrono::steady_clock::now() + bound;
    while (process_running(child)) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd ended = {child.pidfd, POLLIN, 0};
        poll(&ended, 1, static_cast<int>(left.count()));
    }
    return true;
}

void process_kill(child_process &child)
{
    if (process_running(child)) {
        process_signal(child, SIGKILL);
        process_wait(child, std::chrono::seconds(5));
    }
}

std::string process_status_text(const child_process &child)
{
    if (!child.wait_status) {
        return child.pid < 0 ? "not started" : "running";
    }
    int status = *child.wait_status;
    return WIFSIGNALED(status) ? "killed by signal " + std::to_string(WTERMSIG(status))
                               : "exit status " + std::to_string(WEXITSTATUS(status));
}

std::string process_log_tail(const child_process &child, size_t lines)
{
    std::ifstream file(child.log_path);
    std::deque<std::string> last;
    for (std::string line; std::getline(file, line);) {
        last.push_back(line);
        if (last.size() > lines) {
            last.pop_front();
        }
    }
    std::string text;
    for (const std::string &line : last) {
        text += line + "\n";
    }
    return text;
}

char process_state(const child_process &child)
{
    auto fields = stat_fields(child.pid);
    return fields.empty() ? '\0' : fields[0][0];
}

double process_cpu_seconds(const child_process &child)
{
    auto fields = stat_fields(child.pid);
    if (fields.size() <= STAT_THREADS) {
        return -1;
    }
    double ticks = std::stod(fields[STAT_UTIME]) + std::stod(fields[STAT_STIME]);
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

int process_thread_count(const child_process &child)
{
    auto fields = stat_fields(child.pid);
    return fields.size() <= STAT_THREADS ? -1 : std::stoi(fields[STAT_THREADS]);
}

command_result command_run(const std::vector<std::string> &command)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw system_failure("cannot make a pipe");
    }
    pid_t pid = spawn(command, ends[1]);
    close(ends[1]);
    command_result result;
    if (pid > 0) {
        result.output = read_all(ends[0]);
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    close(ends[0]);
    return result;
}

std::string command_must(const std::vector<std::string> &command)
{
    command_result result = command_run(command);
    if (result.status != 0) {
        std::string line;
        for (const std::string &word : command) {
            line += (line.empty() ? "" : " ") + word;
        }
        throw std::runtime_error(line + ": " + result.output);
    }
    return result.output;
}
