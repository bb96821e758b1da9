// The flow manager: access-control lists of the node's ports (a default action, static rules and dynamic rules per
// port) and policers. What they mean stands in fmi_backend.hpp; a change that the backend refuses is rejected and
// changes nothing. Ids are counted from 1 over all ports. Rules and policers of a connection that ends go after it; a
// default action stays.
#pragma once

#include "config.hpp"
#include "fmi_backend.hpp"
#include "service.hpp"

#include <map>
#include <set>

namespace kap_node
{

class fmi_service : public service
{
public:
    fmi_service(const node_config &config, outlet &out, rule_backend &backend = memory_rule_backend::instance());

protected:
    verdict perform(const request_kind &kind, client &from, const message_view &message) override;
    bytes reject_fields(const request_kind &kind, const message_view &message, uint32_t reason) const override;
    json state() const override;
    std::optional<json> own_command(const arguments & /*words*/) override { return std::nullopt; }
    const char *own_commands() const override { return ""; }

private:
    verdict set_default_action(const std::string &port, const message_view &message);
    verdict append_static_rule(const std::string &port, const message_view &message);
    verdict remove_static_rule(const std::string &port, const message_view &message);
    verdict append_dynamic_rule(const std::string &port, const message_view &message);
    verdict remove_dynamic_rule(const std::string &port, const message_view &message);
    verdict create_policer(const std::string &port, const message_view &message);
    bool forget(uint32_t connection_ref) override;
    bool full() const;
    template <class Entry>
    std::optional<uint32_t> append(const std::string &port, std::map<uint32_t, Entry> port_rules::*where, Entry entry);
    template <class Entry>
    std::optional<uint32_t> remove(const std::string &port, std::map<uint32_t, Entry> port_rules::*where, uint32_t id,
                                   uint32_t unknown);
    std::optional<uint32_t> have_rules(const std::string &port);
    static std::optional<uint32_t> add_entry(dynamic_rule &rule, const message_view &message, size_t at);

    rule_backend &backend_;
    size_t max_rules_;
    uint32_t last_id_ = 0;
    size_t entries_ = 0; // rules and policers of all ports
    std::map<std::string, port_rules> ports_;
    uint32_t asking_ = 0;                                  // the connection whose request is carried out
    std::map<uint32_t, std::set<uint32_t>> by_connection_; // the ids of its rules and policers
};

} // namespace kap_node
