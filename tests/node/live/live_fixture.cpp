#include "live_fixture.hpp"

#include "control.hpp"

#include <sched.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

namespace kap_node
{

void NodeTest::SetUp()
{
    ItcTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    run("mkdir -p /run/netns && ip netns add near && ip netns add far");
}

void NodeTest::TearDown()
{
    for (const auto &[service, pid] : services_) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    (void)system("ip -all netns del 2>/dev/null");
    ItcTest::TearDown();
}

void NodeTest::run(const std::string &command)
{
    ASSERT_EQ(system(command.c_str()), 0) << command; // NOLINT(cert-env33-c): a test's own words
}

void NodeTest::start(const std::string &service, const std::string &config)
{
    const std::string file = "/run/" + service + ".toml";
    std::ofstream(file) << config;
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execl(KAP_NODE_PATH, "kap-node", service.c_str(), "--config", file.c_str(), nullptr);
        _exit(127);
    }
    services_[service] = pid;
}

int NodeTest::status_of(const std::string &service)
{
    int status = 0;
    const pid_t pid = services_.at(service);
    if (!eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; })) {
        return -1;
    }
    services_.erase(service);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

void NodeTest::signal(const std::string &service, int number) { kill(services_.at(service), number); }

uint32_t NodeTest::join_node()
{
    const uint32_t own = itc_test::join("node-test");
    for (const auto &[service, pid] : services_) {
        itc_test::await(control_mailbox(service).c_str());
    }
    return own;
}

nlohmann::json NodeTest::command(const std::string &service, const std::vector<std::string> &words)
{
    return control_command(service, words, 10000);
}

void NodeTest::send(uint32_t to, const bytes &message)
{
    itc_msg *outgoing = itc_alloc(message.size(), 0);
    memcpy(outgoing, message.data(), message.size());
    itc_send(&outgoing, to, ITC_MY_MBOX);
}

bytes NodeTest::receive()
{
    itc_msg *message = itc_test::receive_any();
    if (message == nullptr) {
        return {};
    }
    const auto *first = reinterpret_cast<const uint8_t *>(message);
    bytes data(first, first + itc_size(message));
    itc_free(&message);
    return data;
}

} // namespace kap_node
