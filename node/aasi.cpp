// The automation agent (aasi.hpp).
#include "aasi.hpp"

#include "clients/aasi_messages.hpp"
#include "ns.h"

#include <cstring>

namespace kap_node
{

namespace
{

constexpr const char *DAEMON_MAILBOX = "kap-vorn";
// A subscription that nobody has: the name service counts from 1.
constexpr uint32_t FOREIGN_SID = 0x7FFFFFF0;

constexpr request_kind REQUESTS[] = {
    {AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ, "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ",
     AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM, AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ, 16},
    {AUTOMATIONAGENTSI_VORN_PATH_CREATE_REQ, "AUTOMATIONAGENTSI_VORN_PATH_CREATE_REQ",
     AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM, 0, sizeof(aasi_path_req)},
    {AUTOMATIONAGENTSI_VORN_PATH_UPDATE_REQ, "AUTOMATIONAGENTSI_VORN_PATH_UPDATE_REQ",
     AUTOMATIONAGENTSI_VORN_PATH_UPDATE_CFM, 0, sizeof(aasi_path_req)},
    {AUTOMATIONAGENTSI_VORN_PATH_DELETE_REQ, "AUTOMATIONAGENTSI_VORN_PATH_DELETE_REQ",
     AUTOMATIONAGENTSI_VORN_PATH_DELETE_CFM, 0, sizeof(aasi_path_delete_req)},
    {AUTOMATIONAGENTSI_VORN_PATH_INFO_IND, "AUTOMATIONAGENTSI_VORN_PATH_INFO_IND", 0, 0, sizeof(aasi_path_info_ind)},
};

constexpr sent_kind SENT[] = {
    {AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM, "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM",
     sizeof(client_conn_establish_cfm)},
    {AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ, "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ",
     sizeof(client_rej)},
    {AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM, "AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM", sizeof(aasi_path_cfm)},
    {AUTOMATIONAGENTSI_VORN_PATH_UPDATE_CFM, "AUTOMATIONAGENTSI_VORN_PATH_UPDATE_CFM", sizeof(aasi_path_cfm)},
    {AUTOMATIONAGENTSI_VORN_PATH_DELETE_CFM, "AUTOMATIONAGENTSI_VORN_PATH_DELETE_CFM", sizeof(aasi_path_cfm)},
    {AUTOMATIONAGENTSI_CONFIG_UPDATE_IND, "AUTOMATIONAGENTSI_CONFIG_UPDATE_IND", sizeof(aasi_config_update_ind)},
};

constexpr reason_name REASONS[] = {
#define X(value, name) {value, #name},
    AASI_REJECT_REASONS(X)
#undef X
};

// The protocol knows one reason; every refusal of a connection carries it.
constexpr protocol AASI = {
    .service = "aasi",
    .mailbox_name = AASI_SERVICE_NAME,
    .requests = REQUESTS,
    .sent = SENT,
    .reasons = REASONS,
    .reason = {.too_short = AUTOMATIONAGENTSI_NO_COMMONLY_SUPPORTED_PROTOCOL_VERSION,
               .bad_version = AUTOMATIONAGENTSI_NO_COMMONLY_SUPPORTED_PROTOCOL_VERSION,
               .unknown_connection = AUTOMATIONAGENTSI_NO_COMMONLY_SUPPORTED_PROTOCOL_VERSION,
               .too_many_clients = AUTOMATIONAGENTSI_NO_COMMONLY_SUPPORTED_PROTOCOL_VERSION},
    .establish_req = AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ,
    .capability_req = 0,
    .versions_at_fixed_place = 0,
    .capabilities = {},
    .capability_size = 4,
};

} // namespace

aasi_service::aasi_service(const node_config &config, outlet &out, publish_hook publish)
    : service(AASI, out, config.max_clients), publish_(std::move(publish))
{
}

verdict aasi_service::perform(const request_kind &kind, client &from, const message_view &message)
{
    // Every path message has its link_ref at the same place.
    const path_key key{from.address, message.word(offsetof(aasi_path_req, link_ref))};
    switch (kind.number) {
    case AUTOMATIONAGENTSI_VORN_PATH_DELETE_REQ:
        unknown_paths_ += paths_.erase(key) == 0 ? 1 : 0;
        return confirmed(message_writer().word(key.link_ref).take());
    case AUTOMATIONAGENTSI_VORN_PATH_INFO_IND:
        return keep_info(key, message);
    default:
        return keep_path(key, message);
    }
}

verdict aasi_service::keep_path(const path_key &key, const message_view &message)
{
    const auto port = message.text(offsetof(aasi_path_req, port_name), AASI_PORT_NAME_LEN);
    const uint32_t count = message.word(offsetof(aasi_path_req, number_of_app_links));
    if (!port || !message.holds(offsetof(aasi_path_req, app_links), count, sizeof(IemliAppLink))) {
        ++malformed_paths_;
        return rejected(AUTOMATIONAGENTSI_NO_COMMONLY_SUPPORTED_PROTOCOL_VERSION);
    }
    path &kept = paths_[key];
    kept.latency_req = message.word(offsetof(aasi_path_req, latency_req));
    kept.port = *port;
    kept.near_end = message.mac_at(offsetof(aasi_path_req, near_end_cpm_mac));
    kept.far_end = message.mac_at(offsetof(aasi_path_req, remote_cpm_mac));
    kept.vlan_id = message.half(offsetof(aasi_path_req, vlan_id));
    kept.app_links.clear();
    for (uint32_t i = 0; i < count; ++i) {
        const size_t at = offsetof(aasi_path_req, app_links) + size_t{i} * sizeof(IemliAppLink);
        kept.app_links.push_back({message.mac_at(at), message.mac_at(at + sizeof(mac))});
    }
    return confirmed(message_writer().word(key.link_ref).take());
}

verdict aasi_service::keep_info(const path_key &key, const message_view &message)
{
    const auto found = paths_.find(key);
    if (found == paths_.end()) {
        ++unknown_paths_;
        return confirmed();
    }
    latencies &info = found->second.info;
    info.min = message.word(offsetof(aasi_path_info_ind, min_latency));
    info.max = message.word(offsetof(aasi_path_info_ind, max_latency));
    info.avg = message.word(offsetof(aasi_path_info_ind, avg_latency));
    info.link_status = message.word(offsetof(aasi_path_info_ind, link_status));
    ++info.reports;
    return confirmed();
}

// ---- Commands ------------------------------------------------------------------------------------------------------

std::optional<json> aasi_service::own_command(const arguments &words)
{
    const std::string name = words.empty() ? "" : words[0];
    if (name == "appear" || name == "disappear") {
        expect_words(words, 1, 1, "appear | disappear");
        set_presence(name == "appear");
    } else if (name == "announce-foreign") {
        announce_foreign(words);
    } else if (name == "config-update") {
        update_config(words);
    } else {
        return std::nullopt;
    }
    return json(nullptr);
}

void aasi_service::set_presence(bool present)
{
    if (present == present_) {
        return;
    }
    const int failure = publish_(present);
    if (failure != 0) {
        throw command_error(std::string("the name service refuses: ") + strerror(failure));
    }
    present_ = present;
}

// An added indication of a subscription that the receiver does not have. The name service itself never sends one, so it
// comes from here, laid out as the name service's.
void aasi_service::announce_foreign(const arguments &words)
{
    expect_words(words, 1, 3, "announce-foreign [SID [MAILBOX]]");
    const std::string name = words.size() > 2 ? words[2] : DAEMON_MAILBOX;
    const auto to = out().locate(name);
    if (!to) {
        throw command_error("no mailbox of the name " + name);
    }
    const uint32_t sid = words.size() > 1 ? parse_number(words[1], UINT32_MAX, "subscription") : FOREIGN_SID;
    out().send(*to, message_writer()
                        .host_word(NS_SERVICE_ADDED_IND)
                        .host_word(sid)
                        .zeros(sizeof(ns_service_ind) - 8)
                        .open_text(AASI_SERVICE_NAME, 64)
                        .take());
}

void aasi_service::update_config(const arguments &words)
{
    message_writer fields;
    fields.word(static_cast<uint32_t>(words.size() - 1));
    for (size_t i = 1; i < words.size(); ++i) {
        fields.word(parse_number(words[i], UINT32_MAX, "service"));
    }
    const bytes update = fields.take();
    for (const auto &[address, known] : clients()) {
        send_to(known, AUTOMATIONAGENTSI_CONFIG_UPDATE_IND, 0, update);
    }
}

json aasi_service::show_path(const path_key &key, const path &kept) const
{
    auto app_links = json::array();
    for (const app_link &link : kept.app_links) {
        app_links.push_back({{"near_end", mac_text(link.near_end)}, {"far_end", mac_text(link.far_end)}});
    }
    return {{"client", key.owner},
            {"link_ref", key.link_ref},
            {"latency_req", kept.latency_req},
            {"port", kept.port},
            {"near_end_cpm_mac", mac_text(kept.near_end)},
            {"remote_cpm_mac", mac_text(kept.far_end)},
            {"vlan_id", kept.vlan_id},
            {"app_links", std::move(app_links)},
            {"info",
             {{"min", kept.info.min},
              {"max", kept.info.max},
              {"avg", kept.info.avg},
              {"link_status", kept.info.link_status},
              {"reports", kept.info.reports}}}};
}

json aasi_service::state() const
{
    auto paths = json::array();
    for (const auto &[key, kept] : paths_) {
        paths.push_back(show_path(key, kept));
    }
    return {{"published", present_},
            {"paths", std::move(paths)},
            {"unknown_paths", unknown_paths_},
            {"malformed_paths", malformed_paths_}};
}

} // namespace kap_node
