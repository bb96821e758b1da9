// The flow manager (fmi.hpp).
#include "fmi.hpp"

#include "clients/fmi_messages.hpp"

namespace kap_node
{

namespace
{

constexpr uint32_t HIGHEST_ACTION = 1;
constexpr uint32_t HIGHEST_STATIC_RULE_TYPE = 1;
constexpr uint32_t NO_POLICER = 0;
constexpr size_t ENTRIES_AT = offsetof(fmi_append_dynamic_rule_req, entries);
constexpr size_t ENTRY_SIZE = sizeof(fmi_dynamic_rule_entry);

constexpr request_kind REQUESTS[] = {
    {FMI_CONN_ESTABLISH_REQ, "FMI_CONN_ESTABLISH_REQ", FMI_CONN_ESTABLISH_CFM, FMI_CONN_ESTABLISH_REJ, 16},
    {FMI_GET_CAPABILITY_REQ, "FMI_GET_CAPABILITY_REQ", FMI_GET_CAPABILITIES_CFM, FMI_GET_CAPABILITIES_REJ,
     sizeof(client_plain_msg)},
    // The four bytes behind the port name are padding of the sender's.
    {FMI_ACL_SET_DEFAULT_ACTION_REQ, "FMI_ACL_SET_DEFAULT_ACTION_REQ", FMI_ACL_SET_DEFAULT_ACTION_CFM,
     FMI_ACL_SET_DEFAULT_ACTION_REJ, offsetof(fmi_set_default_action_req, unwritten)},
    {FMI_ACL_APPEND_STATIC_RULE_REQ, "FMI_ACL_APPEND_STATIC_RULE_REQ", FMI_ACL_APPEND_STATIC_RULE_CFM,
     FMI_ACL_APPEND_STATIC_RULE_REJ, sizeof(fmi_append_static_rule_req)},
    {FMI_ACL_REMOVE_STATIC_RULE_REQ, "FMI_ACL_REMOVE_STATIC_RULE_REQ", FMI_ACL_REMOVE_STATIC_RULE_CFM,
     FMI_ACL_REMOVE_STATIC_RULE_REJ, sizeof(fmi_rule_id_msg)},
    {FMI_ACL_APPEND_DYNAMIC_RULE_REQ, "FMI_ACL_APPEND_DYNAMIC_RULE_REQ", FMI_ACL_APPEND_DYNAMIC_RULE_CFM,
     FMI_ACL_APPEND_DYNAMIC_RULE_REJ, sizeof(fmi_append_dynamic_rule_req)},
    {FMI_ACL_REMOVE_DYNAMIC_RULE_REQ, "FMI_ACL_REMOVE_DYNAMIC_RULE_REQ", FMI_ACL_REMOVE_DYNAMIC_RULE_CFM,
     FMI_ACL_REMOVE_DYNAMIC_RULE_REJ, sizeof(fmi_rule_id_msg)},
    {FMI_ACL_CREATE_POLICER_REQ, "FMI_ACL_CREATE_POLICER_REQ", FMI_ACL_CREATE_POLICER_CFM, FMI_ACL_CREATE_POLICER_REJ,
     sizeof(fmi_create_policer_req)},
};

constexpr sent_kind SENT[] = {
    {FMI_CONN_ESTABLISH_CFM, "FMI_CONN_ESTABLISH_CFM", sizeof(client_conn_establish_cfm)},
    {FMI_CONN_ESTABLISH_REJ, "FMI_CONN_ESTABLISH_REJ", sizeof(client_rej)},
    {FMI_GET_CAPABILITIES_CFM, "FMI_GET_CAPABILITIES_CFM", sizeof(fmi_get_capabilities_cfm)},
    {FMI_GET_CAPABILITIES_REJ, "FMI_GET_CAPABILITIES_REJ", sizeof(client_rej)},
    {FMI_ACL_SET_DEFAULT_ACTION_CFM, "FMI_ACL_SET_DEFAULT_ACTION_CFM", sizeof(fmi_set_default_action_cfm)},
    {FMI_ACL_SET_DEFAULT_ACTION_REJ, "FMI_ACL_SET_DEFAULT_ACTION_REJ", sizeof(fmi_port_rej)},
    {FMI_ACL_APPEND_STATIC_RULE_CFM, "FMI_ACL_APPEND_STATIC_RULE_CFM", sizeof(fmi_append_static_rule_cfm)},
    {FMI_ACL_APPEND_STATIC_RULE_REJ, "FMI_ACL_APPEND_STATIC_RULE_REJ", sizeof(fmi_append_static_rule_rej)},
    {FMI_ACL_REMOVE_STATIC_RULE_CFM, "FMI_ACL_REMOVE_STATIC_RULE_CFM", sizeof(fmi_rule_id_msg)},
    {FMI_ACL_REMOVE_STATIC_RULE_REJ, "FMI_ACL_REMOVE_STATIC_RULE_REJ", sizeof(fmi_remove_static_rule_rej)},
    {FMI_ACL_APPEND_DYNAMIC_RULE_CFM, "FMI_ACL_APPEND_DYNAMIC_RULE_CFM", sizeof(fmi_append_dynamic_rule_cfm)},
    {FMI_ACL_APPEND_DYNAMIC_RULE_REJ, "FMI_ACL_APPEND_DYNAMIC_RULE_REJ", sizeof(fmi_port_rej)},
    {FMI_ACL_REMOVE_DYNAMIC_RULE_CFM, "FMI_ACL_REMOVE_DYNAMIC_RULE_CFM", sizeof(fmi_rule_id_msg)},
    {FMI_ACL_REMOVE_DYNAMIC_RULE_REJ, "FMI_ACL_REMOVE_DYNAMIC_RULE_REJ", sizeof(fmi_remove_dynamic_rule_rej)},
    {FMI_ACL_CREATE_POLICER_CFM, "FMI_ACL_CREATE_POLICER_CFM", sizeof(fmi_create_policer_cfm)},
    {FMI_ACL_CREATE_POLICER_REJ, "FMI_ACL_CREATE_POLICER_REJ", sizeof(fmi_port_rej)},
};

constexpr reason_name REASONS[] = {
#define X(value, name) {value, #name},
    FMI_REJECT_REASONS(X)
#undef X
};

constexpr uint32_t CAPABILITIES[] = {
#define X(value, name) (value),
    FMI_CAPABILITIES(X)
#undef X
};

constexpr protocol FMI = {
    .service = "fmi",
    .mailbox_name = FMI_SERVER_NAME,
    .requests = REQUESTS,
    .sent = SENT,
    .reasons = REASONS,
    .reason = {.too_short = FMI_ERROR_ACL_INVALID_ARGS,
               .bad_version = FMI_ERROR_UNSUCCESSFUL,
               .unknown_connection = FMI_ERROR_ACL_NOT_READY,
               .too_many_clients = FMI_ERROR_MAX_NO_OF_CLIENTS},
    .establish_req = FMI_CONN_ESTABLISH_REQ,
    .capability_req = FMI_GET_CAPABILITY_REQ,
    .versions_at_fixed_place = 0,
    .capabilities = CAPABILITIES,
    .capability_size = sizeof(fmi_capability_entry),
};

// Where a request names its port.
size_t port_name_at(uint32_t request)
{
    switch (request) {
    case FMI_ACL_APPEND_DYNAMIC_RULE_REQ:
        return offsetof(fmi_append_dynamic_rule_req, port_name);
    case FMI_ACL_CREATE_POLICER_REQ:
        return offsetof(fmi_create_policer_req, port_name);
    default:
        return offsetof(fmi_rule_id_msg, port_name);
    }
}

std::string error_text(uint32_t reason)
{
    switch (reason) {
    case FMI_ERROR_ACL_UNKNOWN_PORT:
        return "no port of this name";
    case FMI_ERROR_ACL_UNKNOWN_ACTION:
        return "no default action of this number";
    case FMI_ERROR_ACL_UNKNOWN_STATIC_RULE:
        return "no static rule of this type or id";
    case FMI_ERROR_ACL_INVALID_ARGS:
        return "an argument is out of range, or the message is too short for it";
    case FMI_ERROR_ACL_NOT_READY:
        return "the sender is not connected";
    case FMI_ERROR_MAX_NO_OF_CLIENTS:
        return "no room for one more client";
    default:
        return "refused";
    }
}

} // namespace

fmi_service::fmi_service(const node_config &config, outlet &out)
    : service(FMI, out, config.max_clients), max_rules_(config.max_rules)
{
    for (const port_config &port : config.ports) {
        ports_.insert(port.fmi_name);
    }
}

verdict fmi_service::perform(const request_kind &kind, client & /*from*/, const message_view &message)
{
    const auto port = message.text(port_name_at(kind.number), FMI_PORT_NAME_LEN);
    if (!port) {
        return rejected(FMI_ERROR_ACL_INVALID_ARGS);
    }
    if (!ports_.contains(*port)) {
        return rejected(FMI_ERROR_ACL_UNKNOWN_PORT);
    }
    switch (kind.number) {
    case FMI_ACL_SET_DEFAULT_ACTION_REQ:
        return set_default_action(*port, message);
    case FMI_ACL_APPEND_STATIC_RULE_REQ:
        return append_static_rule(*port, message);
    case FMI_ACL_REMOVE_STATIC_RULE_REQ:
        return remove_static_rule(*port, message);
    case FMI_ACL_APPEND_DYNAMIC_RULE_REQ:
        return append_dynamic_rule(*port, message);
    case FMI_ACL_REMOVE_DYNAMIC_RULE_REQ:
        return remove_dynamic_rule(*port, message);
    case FMI_ACL_CREATE_POLICER_REQ:
        return create_policer(*port, message);
    default:
        return rejected(FMI_ERROR_ACL_NOT_SUPPORTED);
    }
}

bool fmi_service::full() const { return static_rules_.size() + dynamic_rules_.size() + policers_.size() >= max_rules_; }

verdict fmi_service::set_default_action(const std::string &port, const message_view &message)
{
    const uint32_t action = message.word(offsetof(fmi_set_default_action_req, type));
    if (action > HIGHEST_ACTION) {
        return rejected(FMI_ERROR_ACL_UNKNOWN_ACTION);
    }
    default_actions_[port] = action;
    return confirmed(message_writer().text(port, FMI_PORT_NAME_LEN).take());
}

verdict fmi_service::append_static_rule(const std::string &port, const message_view &message)
{
    const uint32_t type = message.word(offsetof(fmi_append_static_rule_req, rule_type));
    if (type > HIGHEST_STATIC_RULE_TYPE) {
        return rejected(FMI_ERROR_ACL_UNKNOWN_STATIC_RULE);
    }
    if (full()) {
        return rejected(FMI_ERROR_UNSUCCESSFUL);
    }
    static_rules_[++last_id_] = {port, type};
    return confirmed(message_writer().word(type).word(last_id_).text(port, FMI_PORT_NAME_LEN).take());
}

verdict fmi_service::remove_static_rule(const std::string &port, const message_view &message)
{
    const uint32_t id = message.word(offsetof(fmi_rule_id_msg, id));
    const auto found = static_rules_.find(id);
    if (found == static_rules_.end() || found->second.port != port) {
        return rejected(FMI_ERROR_ACL_UNKNOWN_STATIC_RULE);
    }
    static_rules_.erase(found);
    return confirmed(message_writer().word(id).text(port, FMI_PORT_NAME_LEN).take());
}

verdict fmi_service::append_dynamic_rule(const std::string &port, const message_view &message)
{
    const uint32_t count = message.word(offsetof(fmi_append_dynamic_rule_req, no_of_entries));
    dynamic_rule rule{port, message.word(offsetof(fmi_append_dynamic_rule_req, policer_id)), {}, {}};
    const auto policed = policers_.find(rule.policer_id);
    if (!message.holds(ENTRIES_AT, count, ENTRY_SIZE) ||
        (rule.policer_id != NO_POLICER && (policed == policers_.end() || policed->second.port != port))) {
        return rejected(FMI_ERROR_ACL_INVALID_ARGS);
    }
    for (uint32_t i = 0; i < count; ++i) {
        const size_t at = ENTRIES_AT + size_t{i} * ENTRY_SIZE;
        switch (message.word(at + offsetof(fmi_dynamic_rule_entry, type))) {
        case FMI_ENTRY_DEST_MAC:
            rule.addresses.push_back(message.mac_at(at + offsetof(fmi_dynamic_rule_entry, mac)));
            break;
        case FMI_ENTRY_ETHER_TYPE:
            rule.ether_types.push_back(message.half(at + offsetof(fmi_dynamic_rule_entry, ether_type)));
            break;
        default:
            return rejected(FMI_ERROR_ACL_INVALID_ARGS);
        }
    }
    if (full()) {
        return rejected(FMI_ERROR_UNSUCCESSFUL);
    }
    dynamic_rules_[++last_id_] = std::move(rule);
    return confirmed(message_writer().text(port, FMI_PORT_NAME_LEN).word(last_id_).take());
}

verdict fmi_service::remove_dynamic_rule(const std::string &port, const message_view &message)
{
    const uint32_t id = message.word(offsetof(fmi_rule_id_msg, id));
    const auto found = dynamic_rules_.find(id);
    if (found == dynamic_rules_.end() || found->second.port != port) {
        return rejected(FMI_ERROR_ACL_INVALID_ARGS);
    }
    dynamic_rules_.erase(found);
    return confirmed(message_writer().word(id).text(port, FMI_PORT_NAME_LEN).take());
}

verdict fmi_service::create_policer(const std::string &port, const message_view &message)
{
    if (full()) {
        return rejected(FMI_ERROR_UNSUCCESSFUL);
    }
    policers_[++last_id_] = {
        .port = port,
        .committed_rate = message.word(offsetof(fmi_create_policer_req, commitedRate)),
        .committed_burst = message.word(offsetof(fmi_create_policer_req, commitedMaxBurstSize)),
        .peak_rate = message.word(offsetof(fmi_create_policer_req, peakRate)),
        .peak_burst = message.word(offsetof(fmi_create_policer_req, peakMaxBurstSize)),
        .committed_only = message.word(offsetof(fmi_create_policer_req, useCommitedRateOnly)),
    };
    return confirmed(message_writer().word(last_id_).text(port, FMI_PORT_NAME_LEN).take());
}

// Every reject of the access-control lists says which request it refuses and why in words, each in its own order.
bytes fmi_service::reject_fields(const request_kind &kind, const message_view &message, uint32_t reason) const
{
    message_writer fields;
    fields.word(reason);
    const std::string port = message.text(port_name_at(kind.number), FMI_PORT_NAME_LEN).value_or("");
    const uint32_t id_or_type = message.word(HEAD_SIZE);
    switch (kind.number) {
    case FMI_CONN_ESTABLISH_REQ:
    case FMI_GET_CAPABILITY_REQ:
        return fields.take();
    case FMI_ACL_APPEND_STATIC_RULE_REQ:
    case FMI_ACL_REMOVE_STATIC_RULE_REQ:
        return fields.word(id_or_type)
            .text(error_text(reason), FMI_ERROR_TEXT_LEN)
            .text(port, FMI_PORT_NAME_LEN)
            .take();
    case FMI_ACL_REMOVE_DYNAMIC_RULE_REQ:
        fields.word(id_or_type);
        [[fallthrough]];
    default:
        return fields.text(port, FMI_PORT_NAME_LEN).text(error_text(reason), FMI_ERROR_TEXT_LEN).take();
    }
}

json fmi_service::state() const
{
    auto statics = json::array();
    for (const auto &[id, rule] : static_rules_) {
        statics.push_back({{"id", id}, {"port", rule.port}, {"type", rule.type}});
    }
    auto dynamics = json::array();
    for (const auto &[id, rule] : dynamic_rules_) {
        auto addresses = json::array();
        for (const mac &address : rule.addresses) {
            addresses.push_back(mac_text(address));
        }
        dynamics.push_back({{"id", id},
                            {"port", rule.port},
                            {"policer_id", rule.policer_id},
                            {"macs", std::move(addresses)},
                            {"ether_types", rule.ether_types}});
    }
    auto policers = json::array();
    for (const auto &[id, entry] : policers_) {
        policers.push_back({{"id", id},
                            {"port", entry.port},
                            {"committed_rate", entry.committed_rate},
                            {"committed_burst", entry.committed_burst},
                            {"peak_rate", entry.peak_rate},
                            {"peak_burst", entry.peak_burst},
                            {"committed_only", entry.committed_only}});
    }
    return {{"ports", ports_},
            {"default_actions", default_actions_},
            {"static_rules", std::move(statics)},
            {"dynamic_rules", std::move(dynamics)},
            {"policers", std::move(policers)}};
}

} // namespace kap_node
