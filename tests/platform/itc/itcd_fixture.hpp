/*
 * A real registry for tests of everything that uses ITC: a mount namespace of the test's own with an empty /run, an
 * itcd in it, and child processes that use libitc. Needs root.
 *
 * A fixture derives from ItcTest. The test process forks its children before it calls itc_init itself (a process that
 * uses ITC does not fork). Children report through their exit status: 0 for success. A child stops at
 * `gate.wait()` until the test, or another child, has called `gate.open()`.
 */
#ifndef ITCD_FIXTURE_HPP
#define ITCD_FIXTURE_HPP

#include "itc.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/types.h>
#include <vector>

namespace itc_test
{

// A pipe that carries "go on" between two processes, once per open().
class Gate
{
public:
    Gate();
    Gate(const Gate &) = delete;
    Gate &operator=(const Gate &) = delete;
    ~Gate();
    void open() const;
    bool wait() const; // false after 10 seconds

private:
    int ends[2];
};

// A process that runs `body` and exits with what it returns. Killed with the test.
class Child
{
public:
    explicit Child(const std::function<int()> &body);
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child();
    int finish();      // waits for the end (at most 20 seconds); the exit status, or 1000 and the signal
    void kill() const; // SIGKILL
    pid_t pid;

private:
    bool finished = false;
};

class ItcTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts a registry; returns when it accepts connections.
    void start_registry(const std::vector<std::string> &arguments = {});
    // Likewise, its stderr at `fd`; -1: it has none.
    void start_registry_with_stderr(int fd);
    int stop_registry(int signal); // the exit status of itcd
    std::string registry_says() const;
    pid_t registry = -1;

private:
    void launch_registry(int stderr_fd, const std::vector<std::string> &arguments);
};

// An own mailbox in a fresh connection; ends the process if that fails. For children.
uint32_t join(const char *name, int mailbox_count = 4);
// The mailbox of that name, waited for up to 10 seconds. From a process that has a mailbox.
uint32_t await(const char *name);
// The first message of that number, waited for up to 10 seconds; NULL then.
itc_msg *receive(uint32_t msgno);
itc_msg *receive_any();
// True as soon as `condition` holds; false after 10 seconds.
bool eventually(const std::function<bool()> &condition);

} // namespace itc_test

#endif
