// The flow manager: access-control lists of the node's ports (a default action, static rules and dynamic rules per
// port) and policers. It keeps what it is given and filters nothing; ids are counted from 1 over all ports.
#pragma once

#include "config.hpp"
#include "service.hpp"

#include <set>

namespace kap_node
{

class fmi_service : public service
{
public:
    fmi_service(const node_config &config, outlet &out);

protected:
    verdict perform(const request_kind &kind, client &from, const message_view &message) override;
    bytes reject_fields(const request_kind &kind, const message_view &message, uint32_t reason) const override;
    json state() const override;
    std::optional<json> own_command(const arguments & /*words*/) override { return std::nullopt; }
    const char *own_commands() const override { return ""; }

private:
    struct static_rule {
        std::string port;
        uint32_t type;
    };
    struct dynamic_rule {
        std::string port;
        uint32_t policer_id;
        std::vector<mac> addresses;
        std::vector<uint16_t> ether_types;
    };
    struct policer {
        std::string port;
        uint32_t committed_rate;
        uint32_t committed_burst;
        uint32_t peak_rate;
        uint32_t peak_burst;
        uint32_t committed_only;
    };

    verdict set_default_action(const std::string &port, const message_view &message);
    verdict append_static_rule(const std::string &port, const message_view &message);
    verdict remove_static_rule(const std::string &port, const message_view &message);
    verdict append_dynamic_rule(const std::string &port, const message_view &message);
    verdict remove_dynamic_rule(const std::string &port, const message_view &message);
    verdict create_policer(const std::string &port, const message_view &message);
    bool full() const;

    std::set<std::string> ports_;
    size_t max_rules_;
    uint32_t last_id_ = 0;
    std::map<std::string, uint32_t> default_actions_;
    std::map<uint32_t, static_rule> static_rules_;
    std::map<uint32_t, dynamic_rule> dynamic_rules_;
    std::map<uint32_t, policer> policers_;
};

} // namespace kap_node
