// The endpoint manager (emi.hpp).
#include "emi.hpp"

#include "clients/emi_messages.hpp"

#include <algorithm>
#include <cerrno>

namespace kap_node
{

namespace
{

constexpr uint32_t VLAN_MOST = 4094;
constexpr size_t RECORDS_AT = offsetof(emi_endpoint_req, endpoints);
constexpr size_t RECORD_SIZE = sizeof(EmiEndpoint);

constexpr request_kind REQUESTS[] = {
    {EMI_CONN_ESTABLISH_REQ, "EMI_CONN_ESTABLISH_REQ", EMI_CONN_ESTABLISH_CFM, EMI_CONN_ESTABLISH_REJ, 16},
    {EMI_GET_CAPABILITY_REQ, "EMI_GET_CAPABILITY_REQ", EMI_GET_CAPABILITY_CFM, EMI_GET_CAPABILITY_REJ,
     sizeof(client_plain_msg)},
    {EMI_ADD_ENDPOINT_REQ, "EMI_ADD_ENDPOINT_REQ", EMI_ADD_ENDPOINT_CFM, EMI_ADD_ENDPOINT_REJ,
     sizeof(emi_endpoint_req)},
    {EMI_REMOVE_ENDPOINT_REQ, "EMI_REMOVE_ENDPOINT_REQ", EMI_REMOVE_ENDPOINT_CFM, EMI_REMOVE_ENDPOINT_REJ,
     sizeof(emi_endpoint_req)},
};

constexpr sent_kind SENT[] = {
    {EMI_CONN_ESTABLISH_CFM, "EMI_CONN_ESTABLISH_CFM", sizeof(client_conn_establish_cfm)},
    {EMI_CONN_ESTABLISH_REJ, "EMI_CONN_ESTABLISH_REJ", sizeof(client_rej)},
    {EMI_GET_CAPABILITY_CFM, "EMI_GET_CAPABILITY_CFM", sizeof(client_capability_cfm)},
    {EMI_GET_CAPABILITY_REJ, "EMI_GET_CAPABILITY_REJ", sizeof(client_rej)},
    {EMI_ADD_ENDPOINT_CFM, "EMI_ADD_ENDPOINT_CFM", sizeof(client_plain_msg)},
    {EMI_ADD_ENDPOINT_REJ, "EMI_ADD_ENDPOINT_REJ", sizeof(client_rej)},
    {EMI_REMOVE_ENDPOINT_CFM, "EMI_REMOVE_ENDPOINT_CFM", sizeof(client_plain_msg)},
    {EMI_REMOVE_ENDPOINT_REJ, "EMI_REMOVE_ENDPOINT_REJ", sizeof(client_rej)},
};

constexpr reason_name REASONS[] = {
#define X(value, name) {value, #name},
    EMI_REJECT_REASONS(X)
#undef X
};

// What this server can do: 1 adds endpoints, 2 removes them.
constexpr uint32_t CAPABILITIES[] = {EMI_NEEDED_CAPABILITY_1, EMI_NEEDED_CAPABILITY_2};

constexpr protocol EMI = {
    .service = "emi",
    .mailbox_name = EMI_SERVER_NAME,
    .requests = REQUESTS,
    .sent = SENT,
    .reasons = REASONS,
    .reason = {.too_short = EMI_REJ_INTERNAL_REASON,
               .bad_version = EMI_REJ_INVALID_PV,
               .unknown_connection = EMI_REJ_CLIENT_NOT_REGISTERED,
               .too_many_clients = EMI_REJ_INTERNAL_REASON},
    .establish_req = EMI_CONN_ESTABLISH_REQ,
    .capability_req = EMI_GET_CAPABILITY_REQ,
    .versions_at_fixed_place = 0,
    .capabilities = CAPABILITIES,
    .capability_size = 4,
};

uint32_t reason_of(const kernel_refusal &refusal)
{
    switch (refusal.error) {
    case ENOSPC:
    case E2BIG:
        return EMI_REJ_MAX_NUM_ENDPOINTS_REACHED;
    case ENODEV:
    case ENXIO:
        return EMI_REJ_UNKNOWN_PORT_NAME;
    default:
        return EMI_REJ_INTERNAL_REASON;
    }
}

} // namespace

emi_service::emi_service(const node_config &config, outlet &out, endpoint_backend &backend)
    : service(EMI, out, config.max_clients), backend_(backend), max_endpoints_(config.max_endpoints)
{
    for (const port_config &port : config.ports) {
        ports_.insert(port.fmi_name);
    }
}

verdict emi_service::perform(const request_kind &kind, client &from, const message_view &message)
{
    const uint32_t count = message.word(offsetof(emi_endpoint_req, num_of_eps));
    if (!message.holds(RECORDS_AT, count, RECORD_SIZE)) {
        return rejected(EMI_REJ_INTERNAL_REASON);
    }
    std::vector<endpoint> records;
    for (uint32_t i = 0; i < count; ++i) {
        auto record = endpoint_at(message, i);
        if (const auto reason = refusal(record)) {
            return rejected(*reason);
        }
        records.push_back(std::move(*record));
    }
    return kind.number == EMI_ADD_ENDPOINT_REQ ? add(records, by_connection_[from.connection_ref])
                                               : remove(records, from.connection_ref);
}

// Nothing when the port name of the record has no end.
std::optional<emi_service::endpoint> emi_service::endpoint_at(const message_view &message, uint32_t index)
{
    const size_t at = RECORDS_AT + size_t{index} * RECORD_SIZE;
    auto port = message.text(at + offsetof(EmiEndpoint, ifName), sizeof(EmiEndpoint::ifName));
    if (!port) {
        return std::nullopt;
    }
    return endpoint{.port = std::move(*port),
                    .address = message.mac_at(at + offsetof(EmiEndpoint, mac)),
                    .type = message.word(at + offsetof(EmiEndpoint, epType)),
                    .vlan_id = message.word(at + offsetof(EmiEndpoint, vlanId)),
                    .far_end = message.word(at + offsetof(EmiEndpoint, farEnd))};
}

std::optional<uint32_t> emi_service::refusal(const std::optional<endpoint> &record) const
{
    if (!record || (!record->port.empty() && !ports_.contains(record->port))) {
        return EMI_REJ_UNKNOWN_PORT_NAME;
    }
    if (record->vlan_id == 0 || record->vlan_id > VLAN_MOST) {
        return EMI_REJ_ILLEGAL_VLAN_ID;
    }
    return std::nullopt;
}

// Where the records without a port belong.
std::set<std::string> emi_service::ports_of(const std::vector<endpoint> &records) const
{
    std::set<std::string> named;
    for (const endpoint &record : records) {
        if (!record.port.empty()) {
            named.insert(record.port);
        }
    }
    return named.empty() ? ports_ : named;
}

placed_endpoint emi_service::place(const endpoint &record, const std::string &port)
{
    return {port, record.address, static_cast<uint16_t>(record.vlan_id), record.far_end != 0};
}

verdict emi_service::add(const std::vector<endpoint> &records, asked_endpoints &asked)
{
    const auto ports = ports_of(records);
    if (!has_room_for(records, ports, asked)) {
        return rejected(EMI_REJ_MAX_NUM_ENDPOINTS_REACHED);
    }
    for (const endpoint &record : records) {
        users_.add(record);
        if (!record.port.empty()) {
            placed_.add(place(record, record.port));
            continue;
        }
        for (const std::string &port : ports) {
            shared_.add({record, port});
            placed_.add(place(record, port));
        }
    }
    if (users_.size() > max_endpoints_ && !users_.fresh().empty()) {
        take_back();
        return rejected(EMI_REJ_MAX_NUM_ENDPOINTS_REACHED);
    }
    const auto fresh = placed_.fresh();
    verdict result = ended(fresh.empty() ? std::nullopt : backend_.add(fresh));
    if (!result.reject_reason) {
        for (const endpoint &record : records) {
            asked_ += ++asked[{record, ports}] == 1 ? 1 : 0;
        }
    }
    return result;
}

bool emi_service::has_room_for(const std::vector<endpoint> &records, const std::set<std::string> &ports,
                               const asked_endpoints &asked)
{
    const auto fresh = static_cast<size_t>(std::count_if(records.begin(), records.end(), [&](const endpoint &record) {
        return !asked.contains({record, ports});
    }));
    const auto fits = [&] { return fresh == 0 || asked_ + fresh <= 2 * max_endpoints_; };
    while (!fits() && forget_first_ended()) {
    }
    return fits();
}

verdict emi_service::remove(const std::vector<endpoint> &records, uint32_t connection_ref)
{
    const auto ports = ports_of(records);
    std::vector<asked_endpoint> known;
    for (const endpoint &record : records) {
        if (users_.of(record) != 0) {
            count_removal(record, ports);
            known.push_back({record, ports});
        }
    }
    const auto gone = placed_.gone();
    verdict result = ended(gone.empty() ? std::nullopt : backend_.remove(gone));
    if (!result.reject_reason) {
        unknown_removals_ += records.size() - known.size();
        for (const asked_endpoint &removed : known) {
            no_more_asked(removed, connection_ref);
        }
    }
    return result;
}

// One user less: of the same ports where the connection has one, of its own where it has any, else of another's.
void emi_service::no_more_asked(const asked_endpoint &gone, uint32_t connection_ref)
{
    const auto take_from = [this](asked_endpoints &asked, auto found) {
        const bool is_there = found != asked.end();
        if (is_there && --found->second == 0) {
            asked.erase(found);
            --asked_;
        }
        return is_there;
    };
    const auto of_any_ports = [&](asked_endpoints &asked) {
        return std::find_if(asked.begin(), asked.end(),
                            [&](const auto &entry) { return entry.first.record == gone.record; });
    };
    auto &own = by_connection_[connection_ref];
    if (take_from(own, own.find(gone)) || take_from(own, of_any_ports(own))) {
        return;
    }
    (void)std::any_of(by_connection_.begin(), by_connection_.end(),
                      [&](auto &each) { return take_from(each.second, of_any_ports(each.second)); });
}

bool emi_service::forget(uint32_t connection_ref)
{
    for (const auto &[asked, users] : by_connection_[connection_ref]) {
        for (uint64_t i = 0; i < users; ++i) {
            count_removal(asked.record, asked.ports);
        }
    }
    const auto gone = placed_.gone();
    if (ended(gone.empty() ? std::nullopt : backend_.remove(gone)).reject_reason) {
        return false;
    }
    asked_ -= by_connection_[connection_ref].size();
    by_connection_.erase(connection_ref);
    return true;
}

bool emi_service::asked_for_nothing(uint32_t connection_ref) const
{
    const auto found = by_connection_.find(connection_ref);
    return found == by_connection_.end() || found->second.empty();
}

// The last removal of an endpoint without a port takes it from every port, whichever the request names.
void emi_service::count_removal(const endpoint &record, const std::set<std::string> &ports)
{
    users_.take(record);
    if (!record.port.empty()) {
        placed_.take(place(record, record.port));
        return;
    }
    for (const std::string &port : ports_) {
        const uint64_t here = shared_.of({record, port});
        const uint64_t left = users_.of(record) == 0 ? 0 : here - std::min<uint64_t>(here, ports.count(port));
        shared_.set({record, port}, left);
        const placed_endpoint placed = place(record, port);
        placed_.set(placed, placed_.of(placed) - (here - left));
    }
}

verdict emi_service::ended(const std::optional<kernel_refusal> &refused)
{
    if (refused) {
        take_back();
        return rejected(reason_of(*refused));
    }
    users_.keep();
    shared_.keep();
    placed_.keep();
    return confirmed();
}

void emi_service::take_back()
{
    users_.take_back();
    shared_.take_back();
    placed_.take_back();
}

json emi_service::state() const
{
    auto endpoints = json::array();
    for (const auto &[record, users] : users_.all()) {
        endpoints.push_back({{"port", record.port},
                             {"mac", mac_text(record.address)},
                             {"type", record.type},
                             {"vlan_id", record.vlan_id},
                             {"far_end", record.far_end},
                             {"users", users}});
    }
    json shown = {{"ports", ports_},
                  {"max_endpoints", max_endpoints_},
                  {"endpoints", std::move(endpoints)},
                  {"unknown_removals", unknown_removals_}};
    if (json kernel = backend_.show(); !kernel.is_null()) {
        shown["kernel"] = std::move(kernel);
    }
    return shown;
}

} // namespace kap_node
