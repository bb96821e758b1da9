// What a service manager is told, at a socket of the test's own.
#include "service_manager.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

constexpr int LITTLE_PATIENCE_MS = 20;

// Takes no file: its name is abstract.
class ServiceManager : public testing::Test
{
protected:
    void SetUp() override
    {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
    }
    void TearDown() override
    {
        SetUp();
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    void listen()
    {
        name_ = "@kap-notify-" + std::to_string(getpid());
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        memcpy(address.sun_path + 1, name_.data() + 1, name_.size() - 1);
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size());
        ASSERT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), size), 0);
        setenv("NOTIFY_SOCKET", name_.c_str(), 1);
    }
    // What was said next; "" when nothing was.
    std::string heard() const
    {
        char text[64];
        const ssize_t got = recv(fd_, text, sizeof text, 0);
        return got > 0 ? std::string(text, static_cast<size_t>(got)) : "";
    }

private:
    std::string name_;
    int fd_ = -1;
};

TEST_F(ServiceManager, HearsWhatItIsTold)
{
    listen();
    EXPECT_EQ(manager_tell("READY=1", LITTLE_PATIENCE_MS), 0);
    EXPECT_EQ(manager_tell("WATCHDOG=1", LITTLE_PATIENCE_MS), 0);
    EXPECT_EQ(heard(), "READY=1");
    EXPECT_EQ(heard(), "WATCHDOG=1");
    EXPECT_EQ(heard(), "");
}

TEST_F(ServiceManager, IsNotMissedWhereNoneAsked)
{
    EXPECT_EQ(manager_tell("READY=1", LITTLE_PATIENCE_MS), 0);
    setenv("NOTIFY_SOCKET", "", 1);
    EXPECT_EQ(manager_tell("READY=1", LITTLE_PATIENCE_MS), 0);
}

TEST_F(ServiceManager, ThatDoesNotReadIsWaitedForAndThenDoneWithout)
{
    listen();
    int told = 0;
    constexpr int more_than_fit = 100000;
    for (int i = 0; i < more_than_fit && told == 0; i++) {
        told = manager_tell("READY=1", LITTLE_PATIENCE_MS);
    }
    EXPECT_EQ(told, ETIMEDOUT);
}

TEST_F(ServiceManager, ThatIsGoneIsSaid)
{
    setenv("NOTIFY_SOCKET", "/nowhere/notify", 1);
    EXPECT_EQ(manager_tell("READY=1", LITTLE_PATIENCE_MS), ENOENT);
}

TEST_F(ServiceManager, WantsToHearTwiceInTheTimeThatItAllows)
{
    EXPECT_EQ(manager_watchdog_ms(), 0u);
    setenv("WATCHDOG_USEC", "30000000", 1);
    EXPECT_EQ(manager_watchdog_ms(), 15000u);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    EXPECT_EQ(manager_watchdog_ms(), 15000u);
    setenv("WATCHDOG_PID", std::to_string(getpid() + 1).c_str(), 1);
    EXPECT_EQ(manager_watchdog_ms(), 0u) << "another process is meant";
}

TEST_F(ServiceManager, HearsThePulseAtOnceAndThenInHalfOfItsTime)
{
    listen();
    setenv("WATCHDOG_USEC", "30000000", 1);
    manager_pulse pulse;
    pulse.beat(1000);
    EXPECT_EQ(heard(), "WATCHDOG=1");
    EXPECT_EQ(pulse.next_ms(), 16000u);
    pulse.beat(15999);
    EXPECT_EQ(heard(), "");
    pulse.beat(16000);
    EXPECT_EQ(heard(), "WATCHDOG=1");
    EXPECT_EQ(pulse.next_ms(), 31000u);
}

TEST_F(ServiceManager, WithoutAWatchdogHearsNoPulse)
{
    listen();
    manager_pulse pulse;
    pulse.beat(1000);
    EXPECT_EQ(heard(), "");
    EXPECT_EQ(pulse.next_ms(), std::nullopt);
}

TEST_F(ServiceManager, WhoseTimeIsNoNumberWantsNothing)
{
    for (const char *wrong : {"", "soon", "-5", "10s", "0"}) {
        setenv("WATCHDOG_USEC", wrong, 1);
        EXPECT_EQ(manager_watchdog_ms(), 0u) << wrong;
    }
}

} // namespace
