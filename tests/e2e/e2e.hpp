// What every end-to-end test stands on: the whole scene with this process as a client of the daemon. At the end
// everything is stopped in order, and every process must have ended as it should: a sanitizer's complaint in any of
// them fails the test.
#pragma once

#include <gtest/gtest.h>

#include "demo.hpp"
#include "slowness.hpp"

class EndToEnd : public testing::Test
{
protected:
    demo d;

    // The stage is made but nothing runs: a test may change it before it calls start.
    void SetUp() override;
    void TearDown() override;

    void start();

    // Starts another client of the daemon as a process of its own (see other_client.cpp).
    void start_client(const std::string &name, const std::vector<std::string> &wishes);
    // Waits until the log of a process holds a text.
    void wait_log(const std::string &name, const std::string &text);
    std::string read_log(const std::string &name) const;
    // A process of the stage is going to be killed: it is taken off the stage, so that nobody misses it.
    void kill_process(const std::string &name);
    // Waits for an event of this kind, past others.
    void wait_event(iemli_event_kind kind);

    child_process &daemon() { return d.stage.processes.at(DAEMON); }

    // What the node's services have.
    static size_t vlans();
    static size_t endpoints_in_vlan(uint16_t vlan);
};
