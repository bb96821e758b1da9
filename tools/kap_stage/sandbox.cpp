#include "sandbox.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

volatile pid_t signal_target = 0;

void hand_on(int signo)
{
    if (signal_target > 0) {
        kill(signal_target, signo);
    }
}

// Waits for the next one inside and ends with its status. Ctrl-C reaches all of us from the terminal: only the
// innermost decides what it means.
[[noreturn]] void wait_and_exit(pid_t child, void (*at_end)())
{
    signal_target = child;
    (void)signal(SIGINT, SIG_IGN);
    (void)signal(SIGQUIT, SIG_IGN);
    (void)signal(SIGTERM, hand_on);
    (void)signal(SIGHUP, hand_on);
    for (;;) {
        int status = 0;
        pid_t ended = waitpid(-1, &status, 0);
        if (ended == child) {
            if (at_end != nullptr) {
                at_end();
            }
            _exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
        }
        if (ended < 0 && errno != EINTR) {
            _exit(125);
        }
    }
}

bool write_file(const char *path, const std::string &text)
{
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    bool whole = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return whole;
}

std::string failure(const char *what) { return std::string(what) + ": " + strerror(errno); }

bool enter_user_namespace(std::string &error)
{
    std::string user = std::to_string(geteuid());
    std::string group = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER) != 0 || !write_file("/proc/self/setgroups", "deny") ||
        !write_file("/proc/self/uid_map", "0 " + user + " 1") ||
        !write_file("/proc/self/gid_map", "0 " + group + " 1")) {
        error =
            "needs root, or a machine that lets an ordinary user have namespaces (" + failure("user namespace") + ")";
        return false;
    }
    return true;
}

bool enter_namespaces(std::string &error)
{
    constexpr int INNER = CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID;
    if (geteuid() == 0 && unshare(INNER) == 0) {
        return true;
    }
    if (!enter_user_namespace(error)) {
        return false;
    }
    if (unshare(INNER) != 0) {
        error = failure("needs root: namespaces");
        return false;
    }
    return true;
}

bool mount_fresh(const char *type, const char *where, const char *options, std::string &error)
{
    if (mount("none", where, type, MS_NOSUID | MS_NODEV, options) != 0) {
        error = failure((std::string("cannot mount a fresh ") + where).c_str());
        return false;
    }
    return true;
}

bool set_up_mounts(std::string &error)
{
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        error = failure("cannot make mounts private");
        return false;
    }
    struct stat var_run {
    };
    bool var_run_apart = lstat("/var/run", &var_run) == 0 && S_ISDIR(var_run.st_mode);
    // The machine's own policy names users of the machine; nobody in here is one of them.
    const bool has_policy = access("/etc/kap-itc", F_OK) == 0;
    return mount_fresh("tmpfs", "/run", "mode=0755", error) && mount_fresh("proc", "/proc", nullptr, error) &&
           (!var_run_apart || mount_fresh("tmpfs", "/var/run", "mode=0755", error)) &&
           (!has_policy || mount_fresh("tmpfs", "/etc/kap-itc", "mode=0755", error));
}

// The first process inside. Its end ends all others inside, so it dies with the one outside, which may have died while
// this was being arranged: the pipe tells.
void tie_to_outside(int outside_alive)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    pollfd hung_up = {outside_alive, 0, 0};
    if (poll(&hung_up, 1, 0) != 0) {
        _exit(125);
    }
}

// Forks; only the child returns, the parent waits for it and ends as it ends. False: no process could be had.
bool go_on_in_child(int alive_pipe[2], void (*at_end)())
{
    pid_t child = fork();
    if (child < 0) {
        return false;
    }
    if (child > 0) {
        if (alive_pipe != nullptr) {
            close(alive_pipe[0]);
        }
        wait_and_exit(child, at_end);
    }
    if (alive_pipe != nullptr) {
        close(alive_pipe[1]);
        tie_to_outside(alive_pipe[0]);
        close(alive_pipe[0]);
    }
    return true;
}

bool is_own_user_namespace(int fd)
{
    struct stat own {
    };
    struct stat other {
    };
    return stat("/proc/self/ns/user", &own) == 0 && fstat(fd, &other) == 0 && own.st_dev == other.st_dev &&
           own.st_ino == other.st_ino;
}

// The user namespace first: it gives the right to the others. There we are root, as the sandbox's own programs are.
bool join_namespaces(pid_t process, std::string &error)
{
    int spaces[4];
    const char *names[] = {"user", "mnt", "net", "pid"};
    for (size_t i = 0; i < std::size(names); i++) {
        const std::string path = "/proc/" + std::to_string(process) + "/ns/" + names[i];
        spaces[i] = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (spaces[i] < 0) {
            error = failure(("cannot open " + path).c_str());
            return false;
        }
    }
    if (!is_own_user_namespace(spaces[0]) && (setns(spaces[0], 0) != 0 || setgid(0) != 0 || setuid(0) != 0)) {
        error = failure("cannot enter the user namespace");
        return false;
    }
    for (size_t i = 1; i < std::size(names); i++) {
        if (setns(spaces[i], 0) != 0) {
            error = failure((std::string("cannot enter the namespace: ") + names[i]).c_str());
            return false;
        }
    }
    return true;
}

} // namespace

bool sandbox_enter(std::string &error, void (*at_end)())
{
    (void)fflush(nullptr);
    int alive_pipe[2];
    if (!enter_namespaces(error)) {
        return false;
    }
    if (pipe2(alive_pipe, O_CLOEXEC) != 0 || !go_on_in_child(alive_pipe, at_end)) {
        error = failure("cannot start a process");
        return false;
    }
    if (!set_up_mounts(error)) {
        return false;
    }
    if (!go_on_in_child(nullptr, nullptr)) {
        error = failure("cannot start a process");
        return false;
    }
    return true;
}

bool sandbox_visit(pid_t first, std::string &error)
{
    std::error_code gone;
    const std::string directory = std::filesystem::current_path(gone);
    if (gone) {
        error = "the working directory: " + gone.message();
        return false;
    }
    if (!join_namespaces(first, error)) {
        return false;
    }
    if (chdir(directory.c_str()) != 0) {
        error = failure((directory + " is not to be seen inside").c_str());
        return false;
    }
    if (!go_on_in_child(nullptr, nullptr)) {
        error = failure("cannot start a process");
        return false;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    return true;
}
