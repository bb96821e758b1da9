// What the flow manager wants of a port, and where that is made so. Ports are named as in the manager's protocol.
//
// A frame that comes in on a port is judged by the first of these that says something of it:
//   - the dynamic rules, oldest first: a rule lets in the frames to one of its addresses that carry one of its
//     ethertypes, behind a VLAN tag too. What its policer does not let through is dropped. A rule without addresses or
//     without ethertypes lets nothing in.
//   - the oldest static rule: type 0 drops what no dynamic rule lets in, type 1 lets it in.
//   - the default action: 0 drops, 1 lets in. A port for which none was set lets in.
#pragma once

#include "kernel_refusal.hpp"
#include "message.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kap_node
{

// Default actions, and types of static rules.
inline constexpr uint32_t FMI_DROP = 0;
inline constexpr uint32_t FMI_LET_IN = 1;
// The policer id of a rule that has none.
inline constexpr uint32_t FMI_NO_POLICER = 0;

struct dynamic_rule {
    uint32_t policer_id = FMI_NO_POLICER;
    std::vector<mac> addresses;
    std::vector<uint16_t> ether_types;
    bool operator==(const dynamic_rule &) const = default;
};

// Rates in bits per second, bursts in bytes.
struct policer {
    uint32_t committed_rate;
    uint32_t committed_burst;
    uint32_t peak_rate;
    uint32_t peak_burst;
    uint32_t committed_only; // not 0: what exceeds the committed rate is dropped; 0: what exceeds the peak rate
    bool operator==(const policer &) const = default;
};

// By id; of two ids the lower one is older.
struct port_rules {
    std::optional<uint32_t> default_action;
    std::map<uint32_t, uint32_t> static_rules; // their types
    std::map<uint32_t, dynamic_rule> dynamic_rules;
    std::map<uint32_t, policer> policers;
    bool operator==(const port_rules &) const = default;
};

class rule_backend
{
public:
    rule_backend() = default;
    virtual ~rule_backend() = default;
    rule_backend(const rule_backend &) = delete;
    rule_backend &operator=(const rule_backend &) = delete;

    // Makes these the rules of the port, at once and whole: a refusal leaves everything as it was.
    virtual std::optional<kernel_refusal> apply(const std::string &port, const port_rules &wanted) = 0;
    // The part "kernel" of what the service shows; null when there is nothing to tell.
    virtual nlohmann::json show() = 0;
};

// Filters nothing: the rules are kept and shown.
class memory_rule_backend : public rule_backend
{
public:
    std::optional<kernel_refusal> apply(const std::string & /*port*/, const port_rules & /*wanted*/) override
    {
        return {};
    }
    nlohmann::json show() override { return nullptr; }

    static rule_backend &instance()
    {
        static memory_rule_backend only;
        return only;
    }
};

} // namespace kap_node
