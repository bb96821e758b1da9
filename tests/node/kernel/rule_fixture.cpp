#include "rule_fixture.hpp"

#include "../support.hpp"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

namespace kap_node
{

namespace
{

int packet_socket_at(const std::string &name_space, const std::string &interface, uint16_t ether_type)
{
    const namespace_visit visit(name_space);
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ether_type);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    EXPECT_GE(fd, 0);
    EXPECT_GT(address.sll_ifindex, 0) << interface;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    return fd;
}

bytes bytes_of(const frame &sent)
{
    bytes data(sent.to.begin(), sent.to.end());
    data.insert(data.end(), {2, 0, 0, 0, 0, 0xFE});
    const auto put = [&](uint16_t word) {
        data.push_back(static_cast<uint8_t>(word >> 8));
        data.push_back(static_cast<uint8_t>(word & 255));
    };
    if (sent.vlan_id != 0) {
        put(ETHERTYPE_VLAN);
        put(sent.vlan_id);
    }
    put(sent.ether_type);
    data.resize(std::max(sent.size, data.size()));
    return data;
}

} // namespace

// ---- Frames --------------------------------------------------------------------------------------------------------

frame_sender::frame_sender(const std::string &name_space, const std::string &interface)
    : fd_(packet_socket_at(name_space, interface, 0))
{
}

frame_sender::~frame_sender() { close(fd_); }

void frame_sender::send(const frame &sent, int times) const
{
    const bytes data = bytes_of(sent);
    for (int i = 0; i < times; ++i) {
        (void)!write(fd_, data.data(), data.size());
    }
}

frame_receiver::frame_receiver(const std::string &name_space, const std::string &interface, uint16_t ether_type)
    : fd_(packet_socket_at(name_space, interface, ether_type))
{
}

frame_receiver::~frame_receiver() { close(fd_); }

// Sent frames come by as well: they are not counted.
uint64_t frame_receiver::count()
{
    std::array<uint8_t, 2048> room{};
    sockaddr_ll from{};
    socklen_t size = sizeof from;
    while (recvfrom(fd_, room.data(), room.size(), 0, reinterpret_cast<sockaddr *>(&from), &size) > 0) {
        count_ += from.sll_pkttype == PACKET_OUTGOING ? 0 : 1;
        size = sizeof from;
    }
    return count_;
}

flood::flood(const std::string &name_space, const std::string &interface, const frame &sent)
    : sent_(static_cast<volatile uint64_t *>(
          mmap(nullptr, sizeof(uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
{
    const frame_sender sender(name_space, interface);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (;;) {
            sender.send(sent);
            *sent_ = *sent_ + 1;
        }
    }
    EXPECT_TRUE(eventually([&] { return *sent_ > 0; }));
}

flood::~flood()
{
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    munmap(const_cast<uint64_t *>(sent_), sizeof(uint64_t));
}

// ---- What the kernel has -------------------------------------------------------------------------------------------

seen_port sight_of(const std::string &interface, const port_rules &rules)
{
    seen_port port;
    port.interface = interface;
    port.default_verdict = rules.default_action.value_or(FMI_LET_IN) == FMI_LET_IN ? "accept" : "drop";
    port.policy = port.default_verdict;
    for (const auto &[id, type] : rules.static_rules) {
        port.statics.emplace_back(id, type == FMI_LET_IN ? "accept" : "drop");
    }
    for (const auto &[id, rule] : rules.dynamic_rules) {
        if (rule.addresses.empty() || rule.ether_types.empty()) {
            continue;
        }
        seen_rule seen;
        for (const mac &address : rule.addresses) {
            seen.addresses.insert(mac_text(address));
        }
        seen.ether_types.insert(rule.ether_types.begin(), rule.ether_types.end());
        if (rule.policer_id != FMI_NO_POLICER) {
            const policer &with = rules.policers.at(rule.policer_id);
            const bool committed = with.committed_only != 0;
            const uint64_t rate = (committed ? with.committed_rate : with.peak_rate) / 8;
            seen.nothing_passes = rate == 0;
            if (rate != 0) {
                seen.limit = {rate, committed ? with.committed_burst : with.peak_burst};
            }
        }
        port.rules[id] = seen;
        port.order.push_back(id);
    }
    return port;
}

namespace
{

uint64_t bytes_in(const json &limit, const char *value, const char *unit)
{
    const std::string named = limit.value(unit, "bytes");
    return limit.value(value, uint64_t{0}) * (named == "mbytes" ? 1048576 : named == "kbytes" ? 1024 : 1);
}

// The parts of the listing by kind and name.
std::map<std::string, std::map<std::string, json>> by_kind(const json &entries)
{
    std::map<std::string, std::map<std::string, json>> found;
    for (const json &entry : entries) {
        for (const auto &[kind, fields] : entry.items()) {
            found[kind][fields.value("name", "")] = fields;
        }
    }
    return found;
}

uint16_t ether_type_of(const json &right)
{
    static const std::map<std::string, uint16_t> NAMES = {
        {"ip", 0x0800}, {"arp", 0x0806}, {"ip6", 0x86DD}, {"8021q", 0x8100}, {"8021ad", 0x88A8}};
    return right.is_string() ? NAMES.at(right.get<std::string>()) : right.get<uint16_t>();
}

struct read_rule {
    std::string verdict;
    std::string set;
    std::string limit;
    uint16_t ether_type = 0;
};

read_rule read(const json &expressions)
{
    read_rule rule;
    for (const json &expression : expressions) {
        if (expression.contains("match")) {
            const json &match = expression["match"];
            EXPECT_EQ(match["op"], "==");
            if (match["left"].contains("meta")) {
                EXPECT_EQ(match["left"]["meta"]["key"], "protocol");
                rule.ether_type = ether_type_of(match["right"]);
            } else {
                EXPECT_EQ(match["left"]["payload"], json::parse(R"({"protocol": "ether", "field": "daddr"})"));
                rule.set = match["right"].get<std::string>().substr(1);
            }
        } else if (expression.contains("limit")) {
            rule.limit = expression["limit"];
        } else if (expression.contains("accept") || expression.contains("drop")) {
            rule.verdict = expression.contains("accept") ? "accept" : "drop";
        } else {
            EXPECT_TRUE(expression.contains("counter")) << expression;
        }
    }
    return rule;
}

void read_dynamic(seen_port &port, const json &rule, std::map<std::string, std::map<std::string, json>> &kinds)
{
    unsigned id = 0;
    ASSERT_EQ(sscanf(rule.value("comment", "").c_str(), "rule %u", &id), 1) << rule;
    const read_rule got = read(rule["expr"]);
    const bool fresh = !port.rules.contains(id);
    seen_rule &seen = port.rules[id];
    if (fresh) {
        port.order.push_back(id);
        seen.nothing_passes = true;
    }
    for (const json &address : kinds["set"][got.set]["elem"]) {
        std::string text = address;
        std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
        seen.addresses.insert(text);
    }
    seen.ether_types.insert(got.ether_type);
    if (got.verdict == "accept") {
        seen.nothing_passes = false;
        if (!got.limit.empty()) {
            const json &limit = kinds["limit"][got.limit];
            seen.limit = {bytes_in(limit, "rate", "rate_unit"), bytes_in(limit, "burst", "burst_unit")};
        }
    }
}

} // namespace

std::map<std::string, seen_port> RuleTest::in_kernel(const std::string &name_space)
{
    const json entries = listing(name_space);
    auto kinds = by_kind(entries);
    std::map<std::string, seen_port> ports;
    const std::string words = output_of("ip netns exec " + name_space + " nft list table netdev kap_node 2>/dev/null");
    for (const auto &[name, chain] : kinds["chain"]) {
        if (chain.contains("hook")) {
            ports[name].policy = chain["policy"];
            const size_t at = words.find("device \"", words.find("chain " + name + " {")) + 8;
            ports[name].interface = words.substr(at, words.find('"', at) - at);
        }
    }
    for (const json &entry : entries) {
        const json rule = entry.value("rule", json());
        if (!rule.is_object()) {
            continue;
        }
        const std::string chain = rule["chain"];
        const std::string port = chain.substr(0, chain.find('.'));
        if (chain.ends_with(".rules")) {
            read_dynamic(ports[port], rule, kinds);
        } else if (chain.ends_with(".static")) {
            unsigned id = 0;
            EXPECT_EQ(sscanf(rule.value("comment", "").c_str(), "static rule %u", &id), 1) << rule;
            ports[port].statics.emplace_back(id, read(rule["expr"]).verdict);
        } else if (!rule["expr"][0].contains("jump")) {
            EXPECT_EQ(ports[port].default_verdict, "") << "two default actions";
            ports[port].default_verdict = read(rule["expr"]).verdict;
        }
    }
    return ports;
}

void PrintTo(const seen_port &port, std::ostream *out)
{
    *out << port.interface << " policy " << port.policy << " default " << port.default_verdict;
    for (const auto &[id, verdict] : port.statics) {
        *out << "; static " << id << " " << verdict;
    }
    for (const auto &[id, rule] : port.rules) {
        *out << "; rule " << id << ":";
        for (const std::string &address : rule.addresses) {
            *out << " " << address;
        }
        for (const uint16_t type : rule.ether_types) {
            *out << " " << type;
        }
        if (rule.limit) {
            *out << " limit " << rule.limit->first << " burst " << rule.limit->second;
        }
        *out << (rule.nothing_passes ? " nothing passes" : "");
    }
}

// ---- The fixture ---------------------------------------------------------------------------------------------------

void RuleTest::SetUp()
{
    NodeTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    if (system("nft add table netdev kap_probe && nft delete table netdev kap_probe") != 0) { // NOLINT
        GTEST_SKIP() << "this kernel has no packet filter at interfaces";
    }
    // Nothing sends of its own accord.
    for (const std::string name : {"near", "far"}) {
        run("ip netns exec " + name +
            " sh -c 'echo 1 2>/dev/null >/proc/sys/net/ipv6/conf/default/disable_ipv6; true'");
    }
    for (const std::string name : {"idl_a1", "tn_a"}) {
        run("ip link add " + name + " netns near type veth peer name " + name + " netns far && ip -n near link set " +
            name + " up && ip -n far link set " + name + " up");
    }
    config = two_port_config();
    make_backend();
}

void RuleTest::make_backend()
{
    make_backend_unsettled();
    backend->settle(now);
}

void RuleTest::make_backend_unsettled()
{
    backend.reset();
    backend = std::make_unique<kernel_rules>(config);
}

std::string RuleTest::output_of(const std::string &command)
{
    std::string output;
    FILE *from = popen(command.c_str(), "r"); // NOLINT(cert-env33-c): a test's own words
    std::array<char, 4096> room{};
    while (from != nullptr) {
        const size_t got = fread(room.data(), 1, room.size(), from);
        if (got == 0) {
            break;
        }
        output.append(room.data(), got);
    }
    pclose(from);
    return output;
}

nlohmann::json RuleTest::listing(const std::string &name_space)
{
    const std::string output =
        output_of("ip netns exec " + name_space + " nft -j list table netdev kap_node 2>/dev/null");
    return output.empty() ? json::array() : json::parse(output)["nftables"];
}

void RuleTest::nft(const std::string &words, const std::string &name_space)
{
    run("ip netns exec " + name_space + " nft '" + words + "'");
}

void RuleTest::apply(const std::string &port, const port_rules &rules)
{
    const auto refused = backend->apply(port, rules);
    ASSERT_FALSE(refused) << refused->words;
    wanted[port] = rules;
}

void RuleTest::expect_in_order()
{
    std::map<std::string, seen_port> expected;
    for (const port_config &port : config.ports) {
        if (wanted.contains(port.fmi_name)) {
            expected[port.fmi_name] = sight_of(port.interface, wanted[port.fmi_name]);
        }
    }
    EXPECT_EQ(in_kernel(), expected);
}

port_rules RuleTest::closed()
{
    port_rules rules;
    rules.default_action = FMI_DROP;
    return rules;
}

dynamic_rule RuleTest::rule_for(const mac &address, uint16_t ether_type, uint32_t policer)
{
    return {policer, {address}, {ether_type}};
}

} // namespace kap_node
