#include "itcd_fixture.hpp"

#include "raw_client.hpp"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "slowness.hpp"

namespace itc_test
{
namespace
{

const int limit_ms = 10000 * slowness();
constexpr char registry_log[] = "/run/itcd.log";

[[noreturn]] void end(const char *what)
{
    perror(what);
    _exit(99);
}

} // namespace

Gate::Gate()
{
    if (pipe2(ends, O_CLOEXEC) != 0) {
        end("pipe2");
    }
}

Gate::~Gate()
{
    close(ends[0]);
    close(ends[1]);
}

void Gate::open() const { (void)!write(ends[1], "", 1); }

bool Gate::wait() const
{
    pollfd wanted{ends[0], POLLIN, 0};
    char byte;
    return poll(&wanted, 1, limit_ms) == 1 && read(ends[0], &byte, 1) == 1;
}

Child::Child(const std::function<int()> &body)
{
    (void)fflush(nullptr);
    pid = fork();
    if (pid < 0) {
        end("fork");
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int status = body();
        (void)fflush(nullptr);
        exit(status);
    }
}

Child::~Child()
{
    if (!finished) {
        kill();
        waitpid(pid, nullptr, 0);
    }
}

void Child::kill() const { ::kill(pid, SIGKILL); }

int Child::finish()
{
    int status = 0;
    const bool ended = eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; });
    if (!ended) {
        kill();
        waitpid(pid, &status, 0);
    }
    finished = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

void ItcTest::SetUp()
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root: each test has a mount namespace of its own";
    }
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << strerror(errno);
    ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0) << strerror(errno);
    ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755"), 0) << strerror(errno);
    if (access("/etc/kap-itc", F_OK) == 0) { // no test goes by the machine's own policy
        ASSERT_EQ(mount("tmpfs", "/etc/kap-itc", "tmpfs", MS_NOSUID | MS_NODEV, "mode=755"), 0) << strerror(errno);
    }
}

void ItcTest::TearDown()
{
    itc_exit();
    if (registry > 0) {
        EXPECT_EQ(stop_registry(SIGTERM), 0) << registry_says();
    }
    (void)umount2("/run", MNT_DETACH);
}

void ItcTest::launch_registry(int stderr_fd, const std::vector<std::string> &arguments)
{
    registry = fork();
    ASSERT_GE(registry, 0);
    if (registry == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (stderr_fd >= 0) {
            dup2(stderr_fd, STDERR_FILENO);
        } else {
            close(STDERR_FILENO);
        }
        std::vector<char *> argv = {const_cast<char *>("itcd")};
        for (const std::string &argument : arguments) {
            argv.push_back(const_cast<char *>(argument.c_str()));
        }
        argv.push_back(nullptr);
        execv(ITCD_PATH, argv.data());
        end(ITCD_PATH);
    }
}

void ItcTest::start_registry(const std::vector<std::string> &arguments)
{
    (void)::remove(registry_log);
    const int log = open(registry_log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    launch_registry(log, arguments);
    close(log);
    ASSERT_TRUE(eventually([&] { return registry_says().find("itcd: ready on ") != std::string::npos; }))
        << registry_says();
}

void ItcTest::start_registry_with_stderr(int fd)
{
    launch_registry(fd, {});
    ASSERT_TRUE(eventually([] {
        const int connection = raw_connect();
        close(connection);
        return connection >= 0;
    }));
}

int ItcTest::stop_registry(int signal)
{
    ::kill(registry, signal);
    int status = 0;
    const bool ended = eventually([&] { return waitpid(registry, &status, WNOHANG) == registry; });
    if (!ended) {
        ::kill(registry, SIGKILL);
        waitpid(registry, &status, 0);
    }
    registry = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

std::string ItcTest::registry_says() const
{
    std::stringstream text;
    text << std::ifstream(registry_log).rdbuf();
    return text.str();
}

uint32_t join(const char *name, int mailbox_count)
{
    const int error = itc_init(mailbox_count, 0, nullptr, nullptr, 0);
    const uint32_t mbox = error == 0 ? itc_create_mailbox(name, 0) : ITC_NO_MBOX;
    if (mbox == ITC_NO_MBOX) {
        (void)fprintf(stderr, "%s cannot join: %s\n", name, error != 0 ? strerror(error) : "no mailbox");
        _exit(98);
    }
    return mbox;
}

uint32_t await(const char *name)
{
    constexpr uint32_t found = 0x7E57F0FD;
    itc_msg *msg = itc_alloc(4, found);
    itc_locate_async(name, &msg, itc_current_mbox());
    msg = receive(found);
    if (msg == nullptr) {
        return ITC_NO_MBOX;
    }
    const uint32_t mbox = itc_sender(msg);
    itc_free(&msg);
    return mbox;
}

itc_msg *receive(uint32_t msgno)
{
    const uint32_t filter[] = {1, msgno};
    return itc_receive(filter, static_cast<uint32_t>(limit_ms), ITC_FROM_ANY);
}

itc_msg *receive_any() { return itc_receive(nullptr, static_cast<uint32_t>(limit_ms), ITC_FROM_ANY); }

bool eventually(const std::function<bool()> &condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace itc_test
