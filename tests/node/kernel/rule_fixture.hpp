// Ports with rules in the kernel, cables to whoever sends, and what the kernel says of the rules in the words of its
// own tool.
#pragma once

#include "../live/live_fixture.hpp"
#include "kernel/rule_kernel.hpp"

#include <sys/types.h>

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kap_node
{

inline constexpr uint16_t DATA = 0xEBC0;
inline constexpr uint16_t SUPERVISION = 0xAEFE;
inline constexpr mac ADDRESS = {2, 0, 0, 0, 0, 5};
inline constexpr mac OTHER_ADDRESS = {2, 0, 0, 0, 0, 6};

struct frame {
    mac to = ADDRESS;
    uint16_t ether_type = DATA;
    uint16_t vlan_id = 0; // 0: no tag
    size_t size = 100;
};

// Sends frames from an interface of a namespace.
class frame_sender
{
public:
    frame_sender(const std::string &name_space, const std::string &interface);
    ~frame_sender();
    frame_sender(const frame_sender &) = delete;
    frame_sender &operator=(const frame_sender &) = delete;
    void send(const frame &sent, int times = 1) const;

private:
    int fd_;
};

// Counts the frames of one ethertype that an interface has let in: a packet socket for a single ethertype stands behind
// the ingress hook.
class frame_receiver
{
public:
    frame_receiver(const std::string &name_space, const std::string &interface, uint16_t ether_type);
    ~frame_receiver();
    frame_receiver(const frame_receiver &) = delete;
    frame_receiver &operator=(const frame_receiver &) = delete;
    // Of all frames since it was opened.
    uint64_t count();

private:
    int fd_;
    uint64_t count_ = 0;
};

// Another process that sends one frame after the other for as long as this object lives.
class flood
{
public:
    flood(const std::string &name_space, const std::string &interface, const frame &sent);
    ~flood();
    flood(const flood &) = delete;
    flood &operator=(const flood &) = delete;
    uint64_t sent() const { return *sent_; }

private:
    volatile uint64_t *sent_;
    pid_t pid_ = -1;
};

// ---- What the kernel has -------------------------------------------------------------------------------------------

struct seen_rule {
    std::set<std::string> addresses;
    std::set<uint16_t> ether_types;
    std::optional<std::pair<uint64_t, uint64_t>> limit; // bytes per second, burst
    bool nothing_passes = false;
    bool operator==(const seen_rule &) const = default;
};

struct seen_port {
    std::string interface;
    std::string policy;
    std::string default_verdict;
    std::vector<std::pair<uint32_t, std::string>> statics; // id, verdict
    std::vector<uint32_t> order;                           // of the dynamic rules
    std::map<uint32_t, seen_rule> rules;
    bool operator==(const seen_port &) const = default;
};

// What has to be seen of these rules.
seen_port sight_of(const std::string &interface, const port_rules &rules);

class RuleTest : public NodeTest
{
protected:
    void SetUp() override;

    void make_backend();
    void make_backend_unsettled();
    // The output of a command.
    static std::string output_of(const std::string &command);
    static nlohmann::json listing(const std::string &name_space = "near");
    // By the name of the port.
    static std::map<std::string, seen_port> in_kernel(const std::string &name_space = "near");
    static void nft(const std::string &words, const std::string &name_space = "near");

    void apply(const std::string &port, const port_rules &wanted);
    void settle() { backend->settle(now); }
    // Settles as often as it takes until nothing more than what is wanted is there.
    void expect_in_order();
    nlohmann::json counters(const std::string &port) { return backend->show()["ports"][port]; }

    static port_rules closed();
    static dynamic_rule rule_for(const mac &address, uint16_t ether_type, uint32_t policer = FMI_NO_POLICER);

    node_config config;
    std::unique_ptr<kernel_rules> backend;
    std::map<std::string, port_rules> wanted; // as applied
    millis now = 1000;
};

} // namespace kap_node
