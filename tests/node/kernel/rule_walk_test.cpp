// A random walk: requests to the flow manager, disturbances by others and restarts; whenever things have settled, the
// kernel has what the flow manager says that it keeps.
#include "rule_fixture.hpp"

#include "../../support/seeded.hpp"
#include "../support.hpp"
#include "fmi.hpp"

namespace kap_node
{
namespace
{

constexpr int STEPS = 1000;

std::string hex_word(uint32_t value)
{
    const uint32_t wire = htonl(value);
    return hex_text({reinterpret_cast<const uint8_t *>(&wire), sizeof wire});
}

class RuleWalk : public RuleTest
{
protected:
    void start_service()
    {
        make_backend();
        service = std::make_unique<fmi_service>(config, out, *backend);
        ids.clear();
        ask(0x1B0F50, "00 00 00 02  00 00 01 90  00 00 00 01  00 00 00 01");
    }
    void ask(uint32_t number, const std::string &rest) { service->receive(CLIENT, message_of(number, rest), now); }
    void request(uint32_t number, const std::string &rest) { ask(number, "00 00 00 07  00 00 00 01  " + rest); }

    static std::string field(const std::string &port) { return "'" + port + "' 0*" + std::to_string(64 - port.size()); }
    std::string some_port() { return config.ports[static_cast<size_t>(chance.number(0, 1))].fmi_name; }
    // The id of an entry that the port got at some time, or one that nobody has.
    uint32_t some_id(const char *kind, const std::string &port)
    {
        const std::vector<uint32_t> &given = ids[kind + port];
        return given.empty() ? 0xFFFF
                             : given[static_cast<size_t>(chance.number(0, static_cast<int>(given.size()) - 1))];
    }
    // Of every answer that gives an id. Rules that are gone are asked for again now and then.
    void note_ids(const std::string &port)
    {
        for (const sent_message &sent : out.take()) {
            const message_view answer(sent.data);
            if (answer.number() == 0x1B0F5C) {
                ids["static_rules" + port].push_back(answer.word(16));
            } else if (answer.number() == 0x1B0F62) {
                ids["dynamic_rules" + port].push_back(answer.word(76));
            } else if (answer.number() == 0x1B0F68) {
                ids["policers" + port].push_back(answer.word(12));
            } else if (answer.number() == 0x1B0F65) {
                std::erase(ids["dynamic_rules" + port], answer.word(12));
            }
        }
    }

    void append_dynamic_rule(const std::string &port)
    {
        const int addresses = chance.number(0, 4);
        const int types = chance.number(0, 2);
        std::string entries;
        for (int i = 0; i < addresses; ++i) {
            const uint32_t last = static_cast<uint32_t>(chance.number(0, 5));
            entries += "00 00 00 02 0*12 02 00 " + hex_word(last) + " FF FF FF FF FF FF 0*8 ";
        }
        for (int i = 0; i < types; ++i) {
            constexpr const char *TYPES[] = {"EB C0", "AE FE", "88 F7", "88 CC", "08 00", "81 00"};
            entries += std::string("00 00 00 08 0*28 ") + TYPES[chance.number(0, 5)] + " 0*2 ";
        }
        entries += addresses + types == 0 ? "0*36" : "";
        const uint32_t policer = chance.number(0, 1) == 0 ? FMI_NO_POLICER : some_id("policers", port);
        request(0x1B0F61, field(port) + " 00 00 00 01 00 00 00 00 " + hex_word(policer) +
                              hex_word(static_cast<uint32_t>(addresses + types)) + entries);
    }
    void create_policer(const std::string &port)
    {
        const std::string rate = hex_word(static_cast<uint32_t>(chance.number(0, 3) * chance.number(1, 20000000)));
        const std::string burst = hex_word(static_cast<uint32_t>(chance.number(0, 2) * chance.number(1, 300000)));
        request(0x1B0F67,
                rate + burst + burst + rate + hex_word(static_cast<uint32_t>(chance.number(0, 1))) + field(port));
    }
    void make_request()
    {
        const std::string port = some_port();
        switch (chance.number(0, 11)) {
        case 0:
            request(0x1B0F58, hex_word(static_cast<uint32_t>(chance.number(0, 2))) + field(port) + " 0*4");
            break;
        case 1:
            request(0x1B0F5B, hex_word(static_cast<uint32_t>(chance.number(0, 2))) + field(port));
            break;
        case 2:
            request(0x1B0F5E, hex_word(some_id("static_rules", port)) + field(port));
            break;
        case 3:
            create_policer(port);
            break;
        case 4:
        case 5:
        case 6:
        case 7:
            append_dynamic_rule(port);
            break;
        default:
            request(0x1B0F64, hex_word(some_id("dynamic_rules", port)) + field(port));
        }
        note_ids(port);
    }

    static void try_nft(const std::string &words)
    {
        (void)!system(("ip netns exec near nft '" + words + "' 2>/dev/null").c_str()); // NOLINT: a test's own words
    }
    void disturb()
    {
        const std::string port = some_port();
        switch (chance.number(0, 7)) {
        case 0:
            try_nft("flush ruleset");
            break;
        case 1:
            try_nft("flush chain netdev kap_node " + port + ".rules");
            break;
        case 2:
            try_nft("flush chain netdev kap_node " + port + "; delete chain netdev kap_node " + port);
            break;
        case 3:
            try_nft("insert rule netdev kap_node " + port + " accept; add chain netdev kap_node more");
            break;
        case 4:
            try_nft("add table netdev foreign; add chain netdev foreign of_others");
            break;
        case 5:
            run("ip -n near link del tn_a && ip link add tn_a netns near type veth peer name tn_a netns far");
            break;
        case 6:
            run("ip -n near link set tn_a down name away && ip -n near link set away name tn_a");
            break;
        default:
            start_service();
            now += LEFTOVERS_KEPT_MS;
        }
    }

    static port_rules kept_of(const json &shown, const std::string &port)
    {
        port_rules rules;
        if (shown["default_actions"].contains(port)) {
            rules.default_action = shown["default_actions"][port];
        }
        for (const json &entry : shown["static_rules"]) {
            if (entry["port"] == port) {
                rules.static_rules[entry["id"]] = entry["type"];
            }
        }
        for (const json &entry : shown["policers"]) {
            if (entry["port"] == port) {
                rules.policers[entry["id"]] = {entry["committed_rate"], entry["committed_burst"], entry["peak_rate"],
                                               entry["peak_burst"], entry["committed_only"]};
            }
        }
        for (const json &entry : shown["dynamic_rules"]) {
            if (entry["port"] == port) {
                dynamic_rule &rule = rules.dynamic_rules[entry["id"]];
                rule.policer_id = entry["policer_id"];
                rule.ether_types = entry["ether_types"].get<std::vector<uint16_t>>();
                for (const std::string address : entry["macs"]) {
                    mac bytes_of_it{};
                    for (size_t i = 0; i < bytes_of_it.size(); ++i) {
                        bytes_of_it[i] = static_cast<uint8_t>(std::stoul(address.substr(i * 3, 2), nullptr, 16));
                    }
                    rule.addresses.push_back(bytes_of_it);
                }
            }
        }
        return rules;
    }
    void expect_kept_is_in_kernel()
    {
        const json shown = service->show();
        wanted.clear();
        for (const auto &[port, counts] : shown["kernel"]["ports"].items()) {
            wanted[port] = kept_of(shown, port);
            if (counts["stays_closed"] == true) {
                wanted[port].default_action = FMI_DROP;
            }
        }
        expect_in_order();
        EXPECT_EQ(shown["kernel"]["refusals"], 0) << shown["kernel"];
    }

    Seeded chance;
    recording_outlet out;
    std::map<std::string, std::vector<uint32_t>> ids; // by kind and port
    std::unique_ptr<fmi_service> service;
};

TEST_F(RuleWalk, KeptStateAndKernelAreEqualWheneverThingsHaveSettled)
{
    start_service();
    for (int step = 0; step < STEPS && !HasFailure(); ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        const bool disturbed = chance.number(0, 9) == 0;
        if (disturbed) {
            disturb();
        }
        make_request();
        if (disturbed || chance.number(0, 3) == 0 || step + 1 == STEPS) {
            settle();
            expect_kept_is_in_kernel();
        }
    }
    EXPECT_FALSE(listing().empty());
}

} // namespace
} // namespace kap_node
