// A registry, a network namespace for the test, and "near" and "far" in it: for tests of the reference node's programs
// on real sockets and interfaces. Needs root.
//
// Programs are started before the test itself joins ITC.
#pragma once

#include "itcd_fixture.hpp"
#include "message.hpp"

#include <nlohmann/json.hpp>

#include <map>
#include <memory>

namespace kap_node
{

using itc_test::eventually;

class NodeTest : public itc_test::ItcTest
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Runs a shell command; a failure fails the test.
    static void run(const std::string &command);

    // Starts "kap-node SERVICE" with this configuration, a text in TOML.
    void start(const std::string &service, const std::string &config);
    // The exit status of a started service once it has ended; -1 when it does not within 10 seconds.
    int status_of(const std::string &service);
    void signal(const std::string &service, int number);

    // Joins ITC with a mailbox of this test and waits until the services are there.
    uint32_t join_node();
    // What a command of the running service gives.
    static nlohmann::json command(const std::string &service, const std::vector<std::string> &words);

    // Sends a message and waits for the next one, which comes as its bytes (none after 10 seconds).
    static void send(uint32_t to, const bytes &message);
    static bytes receive();

private:
    std::map<std::string, pid_t> services_;
};

} // namespace kap_node
