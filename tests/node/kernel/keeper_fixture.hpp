// Network namespaces for a keeper of something in the kernel: the test's own and "near", with /run of their own; what
// the kernel has, as the usual tools tell it; and the keeper's descriptors, without a loop. Needs root.
#pragma once

#include "config.hpp"
#include "kernel_keeper.hpp"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>

namespace kap_node
{

using json = nlohmann::json;

// What a command prints; its status.
struct ran {
    int status;
    std::string output;
};

inline ran try_run(const std::string &command)
{
    FILE *pipe = popen((command + " 2>&1").c_str(), "r"); // NOLINT(cert-env33-c): a test's own words
    ran result{-1, ""};
    std::array<char, 4096> part{};
    for (size_t got = 0; pipe != nullptr && (got = fread(part.data(), 1, part.size(), pipe)) > 0;) {
        result.output.append(part.data(), got);
    }
    result.status = pipe == nullptr ? -1 : pclose(pipe);
    return result;
}

class KeeperTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root";
        }
        ASSERT_EQ(unshare(CLONE_NEWNET | CLONE_NEWNS), 0) << strerror(errno);
        ASSERT_EQ(mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(mount("run", "/run", "tmpfs", 0, nullptr), 0);
        ASSERT_EQ(setenv("RUNTIME_DIRECTORY", "/run/kept", 1), 0);
        run("mkdir -p /run/netns && ip netns add near");
    }
    void TearDown() override { (void)system("ip -all netns del 2>/dev/null"); }

    static void run(const std::string &command)
    {
        const ran result = try_run(command);
        ASSERT_EQ(result.status, 0) << command << ": " << result.output;
    }
    // In "near"; lines of it.
    static void near(const std::string &lines) { run("ip netns exec near sh -ec '" + lines + "'"); }
    static json listed(const std::string &command)
    {
        const ran result = try_run("ip netns exec near " + command);
        EXPECT_EQ(result.status, 0) << command << ": " << result.output;
        return json::parse(result.output.empty() ? "[]" : result.output);
    }

    // Whether this kernel makes devices of a kind.
    static bool makes(const std::string &what)
    {
        const bool can = try_run("ip netns exec near ip link add probe " + what).status == 0;
        (void)try_run("ip netns exec near ip link del probe");
        return can;
    }
    static bool has_vlan_devices()
    {
        const ran made = try_run("ip netns exec near sh -ec 'ip link add pa type veth peer name pb; "
                                 "ip link add link pa name pa.7 type vlan id 7'");
        (void)try_run("ip netns exec near ip link del pa");
        return made.status == 0;
    }
    static bool has_vlan_bridges() { return makes("type bridge vlan_filtering 1"); }

    // The keeper's descriptors, called as the loop would.
    descriptor_hooks hooks()
    {
        return {[this](int fd, std::function<void()> callback) { watched[fd] = std::move(callback); },
                [this](int fd) { watched.erase(fd); }};
    }
    // Gives every descriptor that is ready its turn until none is, at most 20 times.
    void take_news()
    {
        for (int turn = 0; turn < 20; ++turn) {
            const auto now = watched;
            bool any = false;
            for (const auto &[fd, callback] : now) {
                pollfd ready{fd, POLLIN, 0};
                if (poll(&ready, 1, 0) == 1) {
                    any = true;
                    callback();
                }
            }
            if (!any) {
                return;
            }
        }
    }

    std::map<int, std::function<void()>> watched;
};

inline port_config kernel_port(const std::string &people_name, const std::string &name, const std::string &fmi_name,
                               const std::string &interface, vlan_mode vlan)
{
    port_config port;
    port.people_name = people_name;
    port.name = name;
    port.fmi_name = fmi_name;
    port.interface = interface;
    port.name_space = port.reported_name_space = "near";
    port.unlocked = true;
    port.vlan = vlan;
    return port;
}

} // namespace kap_node
