// The flow manager (fmi.hpp).
#include "fmi.hpp"

#include "clients/fmi_messages.hpp"

#include <algorithm>
#include <cerrno>

namespace kap_node
{

namespace
{

constexpr uint32_t HIGHEST_ACTION = FMI_LET_IN;
constexpr uint32_t HIGHEST_STATIC_RULE_TYPE = FMI_LET_IN;
constexpr mac WHOLE_ADDRESS = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
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

fmi_service::fmi_service(const node_config &config, outlet &out, rule_backend &backend)
    : service(FMI, out, config.max_clients), backend_(backend), max_rules_(config.max_rules)
{
    for (const port_config &port : config.ports) {
        ports_[port.fmi_name];
    }
}

verdict fmi_service::perform(const request_kind &kind, client &from, const message_view &message)
{
    asking_ = from.connection_ref;
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

bool fmi_service::full() const { return entries_ >= max_rules_; }

// The reason to reject with when the rules that the port has now cannot be had.
std::optional<uint32_t> fmi_service::have_rules(const std::string &port)
{
    const auto refusal = backend_.apply(port, ports_[port]);
    if (!refusal) {
        return std::nullopt;
    }
    return refusal->error == EOPNOTSUPP ? FMI_ERROR_ACL_NOT_SUPPORTED : FMI_ERROR_UNSUCCESSFUL;
}

// The reason to reject with; nothing when the entry is there, under the id last_id_.
template <class Entry>
std::optional<uint32_t> fmi_service::append(const std::string &port, std::map<uint32_t, Entry> port_rules::*where,
                                            Entry entry)
{
    if (full()) {
        return FMI_ERROR_UNSUCCESSFUL;
    }
    auto &entries = ports_[port].*where;
    const auto added = entries.emplace(last_id_ + 1, std::move(entry)).first;
    if (const auto reason = have_rules(port)) {
        entries.erase(added);
        return reason;
    }
    ++last_id_;
    ++entries_;
    by_connection_[asking_].insert(last_id_);
    return std::nullopt;
}

// The reason to reject with, `unknown` when the port has no entry of this id; nothing when it is gone.
template <class Entry>
std::optional<uint32_t> fmi_service::remove(const std::string &port, std::map<uint32_t, Entry> port_rules::*where,
                                            uint32_t id, uint32_t unknown)
{
    auto &entries = ports_[port].*where;
    auto removed = entries.extract(id);
    if (!removed) {
        return unknown;
    }
    if (const auto reason = have_rules(port)) {
        entries.insert(std::move(removed));
        return reason;
    }
    --entries_;
    for (auto &[connection_ref, ids] : by_connection_) {
        ids.erase(id);
    }
    return std::nullopt;
}

// Port by port, each in one change. A policer that another connection's rule goes through stays as long as that rule.
bool fmi_service::forget(uint32_t connection_ref)
{
    std::set<uint32_t> &ids = by_connection_[connection_ref];
    const auto is_its = [&](const auto &entry) { return ids.contains(entry.first); };
    for (auto &each : ports_) {
        port_rules &rules = each.second;
        const port_rules before = rules;
        size_t gone = std::erase_if(rules.static_rules, is_its) + std::erase_if(rules.dynamic_rules, is_its);
        gone += std::erase_if(rules.policers, [&](const auto &entry) {
            return is_its(entry) &&
                   std::none_of(rules.dynamic_rules.begin(), rules.dynamic_rules.end(),
                                [&](const auto &rule) { return rule.second.policer_id == entry.first; });
        });
        if (gone != 0 && have_rules(each.first)) {
            rules = before;
            return false;
        }
        entries_ -= gone;
    }
    std::erase_if(ids, [&](uint32_t id) {
        return std::none_of(ports_.begin(), ports_.end(),
                            [&](const auto &each) { return each.second.policers.contains(id); });
    });
    if (!ids.empty()) {
        return false;
    }
    by_connection_.erase(connection_ref);
    return true;
}

verdict fmi_service::set_default_action(const std::string &port, const message_view &message)
{
    const uint32_t action = message.word(offsetof(fmi_set_default_action_req, type));
    if (action > HIGHEST_ACTION) {
        return rejected(FMI_ERROR_ACL_UNKNOWN_ACTION);
    }
    const auto before = std::exchange(ports_[port].default_action, action);
    if (const auto reason = have_rules(port)) {
        ports_[port].default_action = before;
        return rejected(*reason);
    }
    return confirmed(message_writer().text(port, FMI_PORT_NAME_LEN).take());
}

verdict fmi_service::append_static_rule(const std::string &port, const message_view &message)
{
    const uint32_t type = message.word(offsetof(fmi_append_static_rule_req, rule_type));
    if (type > HIGHEST_STATIC_RULE_TYPE) {
        return rejected(FMI_ERROR_ACL_UNKNOWN_STATIC_RULE);
    }
    if (const auto reason = append(port, &port_rules::static_rules, type)) {
        return rejected(*reason);
    }
    return confirmed(message_writer().word(type).word(last_id_).text(port, FMI_PORT_NAME_LEN).take());
}

verdict fmi_service::remove_static_rule(const std::string &port, const message_view &message)
{
    const uint32_t id = message.word(offsetof(fmi_rule_id_msg, id));
    if (const auto reason = remove(port, &port_rules::static_rules, id, FMI_ERROR_ACL_UNKNOWN_STATIC_RULE)) {
        return rejected(*reason);
    }
    return confirmed(message_writer().word(id).text(port, FMI_PORT_NAME_LEN).take());
}

// The reason to reject with; nothing when the entry was added to the rule.
std::optional<uint32_t> fmi_service::add_entry(dynamic_rule &rule, const message_view &message, size_t at)
{
    switch (message.word(at + offsetof(fmi_dynamic_rule_entry, type))) {
    case FMI_ENTRY_DEST_MAC:
        if (message.mac_at(at + offsetof(fmi_dynamic_rule_entry, mask)) != WHOLE_ADDRESS) {
            return FMI_ERROR_ACL_NOT_SUPPORTED;
        }
        rule.addresses.push_back(message.mac_at(at + offsetof(fmi_dynamic_rule_entry, mac)));
        return std::nullopt;
    case FMI_ENTRY_ETHER_TYPE:
        rule.ether_types.push_back(message.half(at + offsetof(fmi_dynamic_rule_entry, ether_type)));
        return std::nullopt;
    default:
        return FMI_ERROR_ACL_INVALID_ARGS;
    }
}

verdict fmi_service::append_dynamic_rule(const std::string &port, const message_view &message)
{
    const uint32_t count = message.word(offsetof(fmi_append_dynamic_rule_req, no_of_entries));
    dynamic_rule rule;
    rule.policer_id = message.word(offsetof(fmi_append_dynamic_rule_req, policer_id));
    if (!message.holds(ENTRIES_AT, count, ENTRY_SIZE) ||
        (rule.policer_id != FMI_NO_POLICER && !ports_[port].policers.contains(rule.policer_id))) {
        return rejected(FMI_ERROR_ACL_INVALID_ARGS);
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (const auto reason = add_entry(rule, message, ENTRIES_AT + size_t{i} * ENTRY_SIZE)) {
            return rejected(*reason);
        }
    }
    if (const auto reason = append(port, &port_rules::dynamic_rules, std::move(rule))) {
        return rejected(*reason);
    }
    return confirmed(message_writer().text(port, FMI_PORT_NAME_LEN).word(last_id_).take());
}

verdict fmi_service::remove_dynamic_rule(const std::string &port, const message_view &message)
{
    const uint32_t id = message.word(offsetof(fmi_rule_id_msg, id));
    if (const auto reason = remove(port, &port_rules::dynamic_rules, id, FMI_ERROR_ACL_INVALID_ARGS)) {
        return rejected(*reason);
    }
    return confirmed(message_writer().word(id).text(port, FMI_PORT_NAME_LEN).take());
}

verdict fmi_service::create_policer(const std::string &port, const message_view &message)
{
    const policer entry = {
        .committed_rate = message.word(offsetof(fmi_create_policer_req, commitedRate)),
        .committed_burst = message.word(offsetof(fmi_create_policer_req, commitedMaxBurstSize)),
        .peak_rate = message.word(offsetof(fmi_create_policer_req, peakRate)),
        .peak_burst = message.word(offsetof(fmi_create_policer_req, peakMaxBurstSize)),
        .committed_only = message.word(offsetof(fmi_create_policer_req, useCommitedRateOnly)),
    };
    if (const auto reason = append(port, &port_rules::policers, entry)) {
        return rejected(*reason);
    }
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

namespace
{

json shown(uint32_t id, const std::string &port, uint32_t type) { return {{"id", id}, {"port", port}, {"type", type}}; }

json shown(uint32_t id, const std::string &port, const dynamic_rule &rule)
{
    auto addresses = json::array();
    for (const mac &address : rule.addresses) {
        addresses.push_back(mac_text(address));
    }
    return {{"id", id},
            {"port", port},
            {"policer_id", rule.policer_id},
            {"macs", std::move(addresses)},
            {"ether_types", rule.ether_types}};
}

json shown(uint32_t id, const std::string &port, const policer &entry)
{
    return {{"id", id},
            {"port", port},
            {"committed_rate", entry.committed_rate},
            {"committed_burst", entry.committed_burst},
            {"peak_rate", entry.peak_rate},
            {"peak_burst", entry.peak_burst},
            {"committed_only", entry.committed_only}};
}

// The entries of all ports, by id.
template <class Entry>
json all_shown(const std::map<std::string, port_rules> &ports, std::map<uint32_t, Entry> port_rules::*where)
{
    std::map<uint32_t, json> by_id;
    for (const auto &[port, rules] : ports) {
        for (const auto &[id, entry] : rules.*where) {
            by_id[id] = shown(id, port, entry);
        }
    }
    auto list = json::array();
    for (auto &[id, entry] : by_id) {
        list.push_back(std::move(entry));
    }
    return list;
}

} // namespace

json fmi_service::state() const
{
    auto names = json::array();
    auto actions = json::object();
    for (const auto &[port, rules] : ports_) {
        names.push_back(port);
        if (rules.default_action) {
            actions[port] = *rules.default_action;
        }
    }
    json all = {{"ports", std::move(names)},
                {"default_actions", std::move(actions)},
                {"static_rules", all_shown(ports_, &port_rules::static_rules)},
                {"dynamic_rules", all_shown(ports_, &port_rules::dynamic_rules)},
                {"policers", all_shown(ports_, &port_rules::policers)}};
    if (json kernel = backend_.show(); !kernel.is_null()) {
        all["kernel"] = std::move(kernel);
    }
    return all;
}

} // namespace kap_node
