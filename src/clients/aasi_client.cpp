// The automation agent client: see aasi_client.hpp. It finds its server through the name service and a direct lookup of
// the announced path, watches no mailbox and asks for no capabilities; otherwise it follows the common pattern.
#include "aasi_client.hpp"

#include "client_framework.hpp"
#include "ns.h"

namespace
{

client_record client;
uint32_t subscribe_sid = 0;

// A service path is an ITC name; no mailbox has a longer one.
constexpr size_t SERVICE_PATH_SIZE = 256;

// The own mailbox and the subscription outlive this: the next announcement of the service finds the client ready.
void reset()
{
    const uint32_t own_mbox = client.own_mbox;
    client_reset(&client);
    client.own_mbox = own_mbox;
}

// ---- Paths ----

void send_path(uint32_t msgno, const aasi_path &path)
{
    const IemliLinkData *data = path.data;
    const size_t list_size = sizeof(IemliAppLink) * static_cast<size_t>(data->numberOfAppLinks);
    auto *req = client_alloc_request<aasi_path_req>(&client, msgno, list_size);
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

struct announcement {
    uint32_t sid;
    char path[SERVICE_PATH_SIZE];
};

announcement read_announcement(const itc_msg *msg)
{
    const auto *ind = client_message<ns_service_ind>(msg);
    announcement read = {ind->sid, {}};
    client_copy_text(read.path, sizeof read.path, ind->path, client_tail_size(msg, sizeof *ind));
    return read;
}

client_verdict keep_subscription(const client_input &in)
{
    subscribe_sid = client_message<ns_subscribe_rsp>(in.msg)->sid;
    VORN_TRACE_REC(in.msg->msgno, itc_sender(in.msg), "NGNS_SUBSCRIBE_RSP: sid=%u", subscribe_sid);
    return CLIENT_TAKEN;
}

void send_connection_establishment_req()
{
    auto *req =
        client_alloc_conn_req(&client, AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ, AASI_PROPOSED_CONNECTION_REF);
    VORN_TRACE_SEND(req->header.msgno, client.server_mbox,
                    "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ: connection_ref = %u, procedure_ref=0x%x, "
                    "number_of_revisions=%u, protocol_rev[0]=%u",
                    AASI_PROPOSED_CONNECTION_REF, client.procedure_ref, 1U, CLIENT_PROTOCOL_VERSION);
    client_send(&client, req);
}

// The announced path is looked up before the state is judged: it is kept in every one.
client_verdict connect(const client_input &in)
{
    const announcement added = read_announcement(in.msg);
    VORN_TRACE_REC(in.msg->msgno, itc_sender(in.msg), "NGNS_SERVICE_ADDED_IND: sid=%u, path=%s", added.sid, added.path);
    if (added.sid != subscribe_sid) {
        VORN_TRACE(TRACE_SERVICE,
                   "NGNS_SERVICE_ADDED_IND received with different sid, received sid = %d, stored sid = %d",
                   static_cast<int>(added.sid), static_cast<int>(subscribe_sid));
        return CLIENT_REFUSED_AT_ONCE;
    }
    client.server_mbox = itc_locate(added.path);
    if (client.state != AASI_CLIENT_INIT) {
        VORN_TRACE(TRACE_ERROR, "NGNS_SERVICE_ADDED_IND received in wrong state, state_%s",
                   aasi_client_state_to_string(client.state));
        return CLIENT_REFUSED;
    }
    if (client.server_mbox == ITC_NO_MBOX) {
        VORN_TRACE(TRACE_ERROR, "Automationagentsi server mbox is not found");
        return CLIENT_REFUSED;
    }
    send_connection_establishment_req();
    return CLIENT_TAKEN;
}

client_verdict forget_server(const client_input &in)
{
    const announcement removed = read_announcement(in.msg);
    VORN_TRACE_REC(in.msg->msgno, itc_sender(in.msg), "NGNS_SERVICE_REMOVED_IND: sid=%u, path=%s", removed.sid,
                   removed.path);
    if (removed.sid != subscribe_sid) {
        VORN_TRACE(TRACE_SERVICE,
                   "NGNS_SERVICE_REMOVED_IND received with different sid, received sid = %d, stored sid = %d",
                   static_cast<int>(removed.sid), static_cast<int>(subscribe_sid));
        return CLIENT_IGNORED;
    }
    if (client.state == AASI_CLIENT_INIT) {
        return CLIENT_IGNORED;
    }
    reset();
    return CLIENT_TAKEN;
}

// ---- Connection ----

// Whatever the state.
void keep_connection_ref(const client_input &in)
{
    client.connection_ref = in.connection_ref;
    VORN_TRACE_REC(
        in.msg->msgno, itc_sender(in.msg),
        "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM: connection_ref=%u, procedure_ref=0x%x, protocol_rev=%u",
        in.connection_ref, in.procedure_ref, in.word);
}

// The name service is not asked any more: only a new init tries again.
void unsubscribe()
{
    ns_unsubscribe(subscribe_sid, client.own_mbox);
    subscribe_sid = 0;
    client.own_mbox = ITC_NO_MBOX;
    reset();
}

client_verdict raise_paths_wanted(const client_input &in)
{
    if (client_lists(in, sizeof(be32), AASI_SERVICE_VORN_PATHS)) {
        client_raise_event(&client, {PATHS_WANTED_EVENT, {}});
    }
    return CLIENT_TAKEN;
}

constexpr auto TRACE_PATH_CFM =
    CLIENT_RECEIVED_AS("%s: connection_ref=%u, procedure_ref=0x%x, link_ref=%u", aasi_msg_to_string(in.msg->msgno),
                       in.connection_ref, in.procedure_ref, in.word);

constexpr client_step STEPS[] = {
    {NS_SUBSCRIBE_RSP, sizeof(ns_subscribe_rsp), nullptr, IN_ANY_STATE, STAYS, keep_subscription},
    {NS_SERVICE_ADDED_IND, sizeof(ns_service_ind), nullptr, IN_ANY_STATE, goes_to(AASI_CLIENT_INITIATING), connect},
    {NS_SERVICE_REMOVED_IND, sizeof(ns_service_ind), nullptr, IN_ANY_STATE,
     goes_to(AASI_CLIENT_INIT, AASI_SERVICE_DOWN), forget_server},
    {AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM, sizeof(client_conn_establish_cfm), keep_connection_ref,
     only_in(AASI_CLIENT_INITIATING,
             CLIENT_NOTICE(TRACE_ERROR, "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM received in wrong state, "
                                        "state_=%s")),
     goes_to(AASI_CLIENT_INITIATED, AASI_SERVICE_UP)},
    {AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ: connection_ref=%u, procedure_ref=0x%x, "
                     "reason=%s",
                     aasi_rej_reason_to_string(in.word)),
     never_right(CLIENT_REMARK(TRACE_ERROR, "AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ received")), STAYS, nullptr,
     0, unsubscribe},
    {AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM, sizeof(aasi_path_cfm), TRACE_PATH_CFM, IN_ANY_STATE, STAYS},
    {AUTOMATIONAGENTSI_VORN_PATH_UPDATE_CFM, sizeof(aasi_path_cfm), TRACE_PATH_CFM, IN_ANY_STATE, STAYS},
    {AUTOMATIONAGENTSI_VORN_PATH_DELETE_CFM, sizeof(aasi_path_cfm), TRACE_PATH_CFM, IN_ANY_STATE, STAYS},
    {AUTOMATIONAGENTSI_CONFIG_UPDATE_IND, sizeof(aasi_config_update_ind),
     CLIENT_RECEIVED("AUTOMATIONAGENTSI_CONFIG_UPDATE_IND: connection_ref=%u, procedure_ref=0x%x, "
                     "number_of_services=%u",
                     in.word),
     IN_ANY_STATE, STAYS, raise_paths_wanted, sizeof(be32)},
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
    }
    return aasi_msg_to_string(msgno);
}

constexpr client_protocol PROTOCOL = {
    .server_name = AASI_SERVICE_NAME,
    .faulty_event = AASI_SERVICE_FAULTY,
    .faulty_state = AASI_CLIENT_FAULTY,
    .faulty_without_mailbox = true,
    .state_name = aasi_client_state_to_string,
    .message_name = received_name,
    .steps = STEPS,
    .step_count = std::size(STEPS),
};

} // namespace

void aasi_client_init(client_event_handler handler)
{
    if (client_begin(&client, handler, PROTOCOL)) {
        ns_subscribe(AASI_SERVICE_NAME, AASI_SERVICE_SCOPE, client.own_mbox);
    }
}

bool aasi_client_dispatch(const itc_msg *msg) { return client_dispatch(&client, PROTOCOL, msg); }

void aasi_send_path_create(const aasi_path &path) { send_path(AUTOMATIONAGENTSI_VORN_PATH_CREATE_REQ, path); }

void aasi_send_path_update(const aasi_path &path) { send_path(AUTOMATIONAGENTSI_VORN_PATH_UPDATE_REQ, path); }

void aasi_send_path_delete(const aasi_path &path)
{
    const IemliLinkData *data = path.data;
    auto *req = client_alloc_request<aasi_path_delete_req>(&client, AUTOMATIONAGENTSI_VORN_PATH_DELETE_REQ);
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
    auto *ind = client_alloc_request<aasi_path_info_ind>(&client, AUTOMATIONAGENTSI_VORN_PATH_INFO_IND);
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
