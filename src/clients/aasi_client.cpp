// The automation agent client: see aasi_client.hpp. It finds its server through the name service and a direct lookup of
// the announced path, watches no mailbox and asks for no capabilities; otherwise it follows the common pattern.
#include "aasi_client.hpp"

#include <iterator>

#include "client_framework.hpp"
#include "ns.h"
#include "vorn_trace.hpp"

namespace
{

client_record client;       // NOLINT
uint32_t subscribe_sid = 0; // NOLINT

// A service path is an ITC name; no mailbox has a longer one.
constexpr size_t SERVICE_PATH_SIZE = 256;

const char *state_text() { return aasi_client_state_to_string(client.state); }

void fail() { client_fail(&client, AASI_SERVICE_FAULTY, AASI_CLIENT_FAULTY); }

// The own mailbox and the subscription outlive this: the next announcement of the service finds the client ready.
void reset()
{
    const uint32_t own_mbox = client.own_mbox;
    client_reset(&client);
    client.own_mbox = own_mbox;
}

void send_connection_establishment_req()
{
    auto *req =
        client_alloc_conn_req(&client, AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ, AASI_PROPOSED_CONNECTION_REF);
    VORN_TRACE_SEND(req->header.msgno, client.server_mbox,
                    "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ: connection_ref = %u, procedure_ref=0x%x, "
                    "number_of_revisions=%u, protocol_rev[0]=%u",
                    from_be32(req->header.connection_ref), client.procedure_ref, from_be32(req->num_pvs),
                    from_be32(req->pv[0]));
    client_send(&client, req);
}

// ---- Paths ----

void send_path(uint32_t msgno, const aasi_path &path)
{
    const IemliLinkData *data = path.data;
    const size_t list_size = sizeof(IemliAppLink) * static_cast<size_t>(data->numberOfAppLinks);
    auto *req = static_cast<aasi_path_req *>(client_alloc_request(&client, sizeof(aasi_path_req) + list_size, msgno));
    req->link_ref = to_be32(path.link_ref);
    req->latency_req = to_be32(AASI_LATENCY_REQ);
    client_copy_text(req->port_name, sizeof req->port_name, data->imlPortName, sizeof data->imlPortName);
    req->near_end_cpm_mac = path.near_end_cpm_mac;
    req->remote_cpm_mac = data->farEndCpmMac;
    req->vlan_id = to_be16(data->vlanId);
    req->number_of_app_links = to_be32(data->numberOfAppLinks);
    memcpy(req->app_links, iemli_app_links(data), list_size);
    VORN_TRACE_SEND(msgno, client.server_mbox,
                    "%s: connection_ref=%u, procedure_ref=0x%x, link_ref=%u, port_name=%s, vlan_id=%u, "
                    "number_of_app_links=%u",
                    aasi_msg_to_string(msgno), client.connection_ref, client.procedure_ref, path.link_ref,
                    req->port_name, data->vlanId, data->numberOfAppLinks);
    client_send(&client, req);
}

// ---- Name service ----

void handle_subscribe_rsp(const itc_msg *msg)
{
    const auto *rsp = reinterpret_cast<const ns_subscribe_rsp *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "NGNS_SUBSCRIBE_RSP: sid=%u", rsp->sid);
    subscribe_sid = rsp->sid;
}

void connect_to(const char *path)
{
    client.server_mbox = itc_locate(path);
    if (client.state != AASI_CLIENT_INIT) {
        VORN_TRACE(TRACE_ERROR, "NGNS_SERVICE_ADDED_IND received in wrong state, state_%s", state_text());
        fail();
        return;
    }
    if (client.server_mbox == ITC_NO_MBOX) {
        VORN_TRACE(TRACE_ERROR, "Automationagentsi server mbox is not found");
        fail();
        return;
    }
    client.state = AASI_CLIENT_INITIATING;
    send_connection_establishment_req();
}

void handle_service_added_ind(const itc_msg *msg)
{
    const auto *ind = reinterpret_cast<const ns_service_ind *>(msg);
    char path[SERVICE_PATH_SIZE];
    client_copy_text(path, sizeof path, ind->path, client_tail_size(msg, sizeof *ind));
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "NGNS_SERVICE_ADDED_IND: sid=%u, path=%s", ind->sid, path);
    if (ind->sid != subscribe_sid) {
        VORN_TRACE(TRACE_SERVICE,
                   "NGNS_SERVICE_ADDED_IND received with different sid, received sid = %d, stored sid = %d",
                   static_cast<int>(ind->sid), static_cast<int>(subscribe_sid));
        client.state = AASI_CLIENT_FAULTY;
        client_raise_service_event(&client, AASI_SERVICE_FAULTY);
        return;
    }
    connect_to(path);
}

void handle_service_removed_ind(const itc_msg *msg)
{
    const auto *ind = reinterpret_cast<const ns_service_ind *>(msg);
    char path[SERVICE_PATH_SIZE];
    client_copy_text(path, sizeof path, ind->path, client_tail_size(msg, sizeof *ind));
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "NGNS_SERVICE_REMOVED_IND: sid=%u, path=%s", ind->sid, path);
    if (ind->sid != subscribe_sid) {
        VORN_TRACE(TRACE_SERVICE,
                   "NGNS_SERVICE_REMOVED_IND received with different sid, received sid = %d, stored sid = %d",
                   static_cast<int>(ind->sid), static_cast<int>(subscribe_sid));
        return;
    }
    if (client.state != AASI_CLIENT_INIT) {
        client.state = AASI_CLIENT_INIT;
        reset();
        client_raise_service_event(&client, AASI_SERVICE_DOWN);
    }
}

// ---- Connection ----

void handle_connection_establishment_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const client_conn_establish_cfm *>(msg);
    client.connection_ref = client_connection_ref(msg);
    VORN_TRACE_REC(
        msg->msgno, itc_sender(msg),
        "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM: connection_ref=%u, procedure_ref=0x%x, protocol_rev=%u",
        client.connection_ref, client_procedure_ref(msg), from_be32(cfm->pv_selected));
    if (client.state != AASI_CLIENT_INITIATING) {
        VORN_TRACE(TRACE_ERROR, "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM received in wrong state, state_=%s",
                   state_text());
        fail();
        return;
    }
    client.state = AASI_CLIENT_INITIATED;
    client_raise_service_event(&client, AASI_SERVICE_UP);
}

// The name service is not asked any more: only a new init tries again.
void handle_connection_establishment_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ: connection_ref=%u, procedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg),
                   aasi_rej_reason_to_string(client_reason(msg)));
    VORN_TRACE(TRACE_ERROR, "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ received");
    fail();
    ns_unsubscribe(subscribe_sid, client.own_mbox);
    subscribe_sid = 0;
    client.own_mbox = ITC_NO_MBOX;
    reset();
}

void handle_path_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const aasi_path_cfm *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "%s: connection_ref=%u, procedure_ref=0x%x, link_ref=%u",
                   aasi_msg_to_string(msg->msgno), client_connection_ref(msg), client_procedure_ref(msg),
                   from_be32(cfm->link_ref));
}

bool lists_vorn_paths(const aasi_config_update_ind *ind)
{
    for (uint32_t i = 0; i < from_be32(ind->number_of_services); ++i) {
        if (from_be32(ind->service_id[i]) == AASI_SERVICE_VORN_PATHS) {
            return true;
        }
    }
    return false;
}

void handle_config_update_ind(const itc_msg *msg)
{
    const auto *ind = reinterpret_cast<const aasi_config_update_ind *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "AUTOMATIONAGENTSI_CONFIG_UPDATE_IND: connection_ref=%u, procedure_ref=0x%x, number_of_services=%u",
                   client_connection_ref(msg), client_procedure_ref(msg), from_be32(ind->number_of_services));
    if (lists_vorn_paths(ind)) {
        client_raise_event(&client, {PATHS_WANTED_EVENT, {}});
    }
}

constexpr client_message RECEIVED[] = {
    {NS_SUBSCRIBE_RSP, sizeof(ns_subscribe_rsp), 0, handle_subscribe_rsp},
    {NS_SERVICE_ADDED_IND, sizeof(ns_service_ind), 0, handle_service_added_ind},
    {NS_SERVICE_REMOVED_IND, sizeof(ns_service_ind), 0, handle_service_removed_ind},
    {AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM, sizeof(client_conn_establish_cfm), 0,
     handle_connection_establishment_cfm},
    {AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ, sizeof(client_rej), 0, handle_connection_establishment_rej},
    {AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM, sizeof(aasi_path_cfm), 0, handle_path_cfm},
    {AUTOMATIONAGENTSI_VORN_PATH_UPDATE_CFM, sizeof(aasi_path_cfm), 0, handle_path_cfm},
    {AUTOMATIONAGENTSI_VORN_PATH_DELETE_CFM, sizeof(aasi_path_cfm), 0, handle_path_cfm},
    {AUTOMATIONAGENTSI_CONFIG_UPDATE_IND, sizeof(aasi_config_update_ind), sizeof(be32), handle_config_update_ind},
};

const char *received_name(uint32_t msgno)
{
    switch (msgno) {
    case NS_SUBSCRIBE_RSP:
        return "NGNS_SUBSCRIBE_RSP";
    case NS_SERVICE_ADDED_IND:
        return "NGNS_SERVICE_ADDED_IND";
    case NS_SERVICE_REMOVED_IND:
        return "NGNS_SERVICE_REMOVED_IND";
    default:
        return aasi_msg_to_string(msgno);
    }
}

} // namespace

void aasi_client_init(client_event_handler handler)
{
    if (handler == nullptr) {
        VORN_TRACE(TRACE_ERROR, "CB event is NULL");
        return;
    }
    client.handler = handler;
    if (client.state != AASI_CLIENT_INIT) {
        VORN_TRACE(TRACE_WARNING, "WARNING: Client in wrong state");
        client.state = AASI_CLIENT_INIT;
        reset();
    }
    client.own_mbox = itc_current_mbox();
    if (client.own_mbox == ITC_NO_MBOX) {
        VORN_TRACE(TRACE_ERROR, "Own mailbox is 0!");
        client.state = AASI_CLIENT_FAULTY;
        client_raise_service_event(&client, AASI_SERVICE_FAULTY);
        return;
    }
    ns_subscribe(AASI_SERVICE_NAME, AASI_SERVICE_SCOPE, client.own_mbox);
}

bool aasi_client_dispatch(const itc_msg *msg)
{
    return client_dispatch(RECEIVED, std::size(RECEIVED), received_name, msg);
}

void aasi_send_path_create(const aasi_path &path) { send_path(AUTOMATIONAGENTSI_VORN_PATH_CREATE_REQ, path); }

void aasi_send_path_update(const aasi_path &path) { send_path(AUTOMATIONAGENTSI_VORN_PATH_UPDATE_REQ, path); }

void aasi_send_path_delete(const aasi_path &path)
{
    const IemliLinkData *data = path.data;
    auto *req = static_cast<aasi_path_delete_req *>(
        client_alloc_request(&client, sizeof(aasi_path_delete_req), AUTOMATIONAGENTSI_VORN_PATH_DELETE_REQ));
    req->link_ref = to_be32(path.link_ref);
    client_copy_text(req->port_name, sizeof req->port_name, data->imlPortName, sizeof data->imlPortName);
    req->near_end_cpm_mac = path.near_end_cpm_mac;
    req->remote_cpm_mac = data->farEndCpmMac;
    req->vlan_id = to_be16(data->vlanId);
    VORN_TRACE_SEND(AUTOMATIONAGENTSI_VORN_PATH_DELETE_REQ, client.server_mbox,
                    "AUTOMATIONAGENTSI_VORN_PATH_DELETE_REQ: connection_ref=%u, procedure_ref=0x%x, link_ref=%u, "
                    "port_name=%s, vlan_id=%u",
                    client.connection_ref, client.procedure_ref, path.link_ref, req->port_name, data->vlanId);
    client_send(&client, req);
}

void aasi_send_path_info(uint32_t link_ref, uint32_t min_latency, uint32_t max_latency, uint32_t avg_latency,
                         uint32_t status)
{
    auto *ind = static_cast<aasi_path_info_ind *>(
        client_alloc_request(&client, sizeof(aasi_path_info_ind), AUTOMATIONAGENTSI_VORN_PATH_INFO_IND));
    ind->link_ref = to_be32(link_ref);
    ind->min_latency = to_be32(min_latency);
    ind->max_latency = to_be32(max_latency);
    ind->avg_latency = to_be32(avg_latency);
    ind->link_status = to_be32(status);
    VORN_TRACE_SEND(AUTOMATIONAGENTSI_VORN_PATH_INFO_IND, client.server_mbox,
                    "AUTOMATIONAGENTSI_VORN_PATH_INFO_IND: connection_ref=%u, procedure_ref=0x%x, link_ref=%u, "
                    "minLatency=%u, maxLatency=%u, avgLatency=%u, link_status=%u",
                    client.connection_ref, client.procedure_ref, link_ref, min_latency, max_latency, avg_latency,
                    status);
    client_send(&client, ind);
}

uint32_t aasi_client_state() { return client.state; }

const char *aasi_client_state_to_string(uint32_t state)
{
    static constexpr const char *TEXTS[] = {"INIT", "INITIATING", "INITIATED", "FAULTY"};
    return client_state_text(TEXTS, std::size(TEXTS), state);
}

void aasi_client_forget_all()
{
    client = client_record{};
    subscribe_sid = 0;
}
