// The port management server (pmi.hpp).
#include "pmi.hpp"

#include "clients/pmi_messages.hpp"

#include <algorithm>
#include <cerrno>

namespace kap_node
{

namespace
{

constexpr uint32_t VLAN_MOST = 4094;

constexpr request_kind REQUESTS[] = {
    {PMI_CONN_ESTABLISH_REQ, "PMI_CONN_ESTABLISH_REQ", PMI_CONN_ESTABLISH_CFM, PMI_CONN_ESTABLISH_REJ, 16},
    {PMI_GET_CAPABILITY_REQ, "PMI_GET_CAPABILITY_REQ", PMI_GET_CAPABILITY_CFM, PMI_GET_CAPABILITY_REJ,
     sizeof(client_plain_msg)},
    {PMI_ENABLE_PORT_VLAN_REQ, "PMI_ENABLE_PORT_VLAN_REQ", PMI_ENABLE_PORT_VLAN_CFM, PMI_ENABLE_PORT_VLAN_REJ,
     sizeof(pmi_port_vlan_req)},
    {PMI_DISABLE_PORT_VLAN_REQ, "PMI_DISABLE_PORT_VLAN_REQ", PMI_DISABLE_PORT_VLAN_CFM, PMI_DISABLE_PORT_VLAN_REJ,
     sizeof(pmi_port_vlan_req)},
};

constexpr sent_kind SENT[] = {
    {PMI_CONN_ESTABLISH_CFM, "PMI_CONN_ESTABLISH_CFM", sizeof(client_conn_establish_cfm)},
    {PMI_CONN_ESTABLISH_REJ, "PMI_CONN_ESTABLISH_REJ", sizeof(client_rej)},
    {PMI_GET_CAPABILITY_CFM, "PMI_GET_CAPABILITY_CFM", sizeof(client_capability_cfm)},
    {PMI_GET_CAPABILITY_REJ, "PMI_GET_CAPABILITY_REJ", sizeof(client_rej)},
    {PMI_ENABLE_PORT_VLAN_CFM, "PMI_ENABLE_PORT_VLAN_CFM", sizeof(client_plain_msg)},
    {PMI_ENABLE_PORT_VLAN_REJ, "PMI_ENABLE_PORT_VLAN_REJ", sizeof(client_rej)},
    {PMI_DISABLE_PORT_VLAN_CFM, "PMI_DISABLE_PORT_VLAN_CFM", sizeof(client_plain_msg)},
    {PMI_DISABLE_PORT_VLAN_REJ, "PMI_DISABLE_PORT_VLAN_REJ", sizeof(client_rej)},
};

constexpr reason_name REASONS[] = {
#define X(value, name) {value, #name},
    PMI_REJECT_REASONS(X)
#undef X
};

// What this server can do: 1 opens a VLAN on a port, 2 closes it.
constexpr uint32_t CAPABILITIES[] = {1, 2};

constexpr protocol PMI = {
    .service = "pmi",
    .mailbox_name = PMI_SERVER_NAME,
    .requests = REQUESTS,
    .sent = SENT,
    .reasons = REASONS,
    .reason = {.too_short = PMI_REJ_INTERNAL_REASON,
               .bad_version = PMI_REJ_SERVICE_INVALID_PV,
               .unknown_connection = PMI_REJ_NOT_ALLOWED,
               .too_many_clients = PMI_REJ_NOT_ALLOWED},
    .establish_req = PMI_CONN_ESTABLISH_REQ,
    .capability_req = PMI_GET_CAPABILITY_REQ,
    .versions_at_fixed_place = 0,
    .capabilities = CAPABILITIES,
    .capability_size = 4,
};

// The reason that fits: the port is not there, it is not allowed, or the VLAN's place is taken or unfit for one.
uint32_t reason_of(const kernel_refusal &refusal)
{
    switch (refusal.error) {
    case ENODEV:
    case ENOENT:
    case ENXIO:
    case ENETDOWN:
        return PMI_REJ_INVALID_PORTSTATE;
    case EPERM:
    case EACCES:
        return PMI_REJ_NOT_ALLOWED;
    case EEXIST:
    case EBUSY:
    case EINVAL:
    case ERANGE:
    case ENAMETOOLONG:
        return PMI_REJ_INVALID_RESOURCE;
    default:
        return PMI_REJ_INTERNAL_REASON;
    }
}

} // namespace

pmi_service::pmi_service(const node_config &config, outlet &out, vlan_backend &backend)
    : service(PMI, out, config.max_clients), backend_(backend)
{
    for (const port_config &port : config.ports) {
        ports_.insert(port.name);
    }
}

verdict pmi_service::perform(const request_kind &kind, client &from, const message_view &message)
{
    const auto port = message.text(offsetof(pmi_port_vlan_req, port_name), sizeof(pmi_port_vlan_req::port_name));
    const uint32_t vlan_id = message.word(offsetof(pmi_port_vlan_req, vlan_id));
    if (!port || !ports_.contains(*port) || vlan_id == 0 || vlan_id > VLAN_MOST) {
        return rejected(PMI_REJ_INVALID_RESOURCE);
    }
    const port_vlan meant{*port, static_cast<uint16_t>(vlan_id)};
    return kind.number == PMI_ENABLE_PORT_VLAN_REQ ? enable(meant, from.connection_ref)
                                                   : disable(meant, from.connection_ref);
}

verdict pmi_service::enable(const port_vlan &wanted, uint32_t connection_ref)
{
    if (!users_.contains(wanted)) {
        if (const auto refusal = backend_.open(wanted.port, wanted.vlan_id)) {
            return rejected(reason_of(*refusal));
        }
    }
    ++users_[wanted];
    ++by_connection_[connection_ref][wanted];
    return confirmed();
}

// What the connection has not enabled itself is taken from another's: each disable takes one user away.
verdict pmi_service::disable(const port_vlan &unwanted, uint32_t connection_ref)
{
    if (!users_.contains(unwanted)) {
        return rejected(PMI_REJ_NOT_ALLOWED);
    }
    if (const auto refusal = take_users(unwanted, 1)) {
        return rejected(reason_of(*refusal));
    }
    auto whose = by_connection_.find(connection_ref);
    if (whose == by_connection_.end() || !whose->second.contains(unwanted)) {
        whose = std::find_if(by_connection_.begin(), by_connection_.end(),
                             [&](const auto &entry) { return entry.second.contains(unwanted); });
    }
    const auto counted = whose->second.find(unwanted);
    if (--counted->second == 0) {
        whose->second.erase(counted);
    }
    return confirmed();
}

// The VLAN is closed with its last user. A refusal leaves all as it was.
std::optional<kernel_refusal> pmi_service::take_users(const port_vlan &unwanted, uint64_t users)
{
    const auto found = users_.find(unwanted);
    if (found->second > users) {
        found->second -= users;
        return std::nullopt;
    }
    auto refusal = backend_.close(unwanted.port, unwanted.vlan_id);
    if (!refusal) {
        users_.erase(found);
    }
    return refusal;
}

bool pmi_service::forget(uint32_t connection_ref)
{
    auto &asked = by_connection_[connection_ref];
    std::erase_if(asked, [&](const auto &entry) { return !take_users(entry.first, entry.second); });
    if (!asked.empty()) {
        return false;
    }
    by_connection_.erase(connection_ref);
    return true;
}

bool pmi_service::asked_for_nothing(uint32_t connection_ref) const
{
    const auto found = by_connection_.find(connection_ref);
    return found == by_connection_.end() || found->second.empty();
}

json pmi_service::state() const
{
    auto vlans = json::array();
    for (const auto &[meant, users] : users_) {
        vlans.push_back({{"port", meant.port}, {"vlan_id", meant.vlan_id}, {"users", users}});
    }
    json shown = {{"ports", ports_}, {"vlans", std::move(vlans)}};
    if (json kernel = backend_.show(); !kernel.is_null()) {
        shown["kernel"] = std::move(kernel);
    }
    return shown;
}

} // namespace kap_node
