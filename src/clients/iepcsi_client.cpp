// The IEPCSI client's conversation with its server: see iepcsi_client.hpp. Its set-up is an init-service exchange and a
// port-support query; the ports it learns of are kept by iepcsi_ports.cpp.
#include "iepcsi_client.hpp"

#include <iterator>

#include "client_framework.hpp"
#include "vorn_trace.hpp"

namespace
{

constexpr client_record AT_START = {.result = {IEPCSI_EVENT, {}}};

client_record client = AT_START; // NOLINT

void reset()
{
    iepcsi_ports_free();
    client_reset(&client);
}

const client_discovery DISCOVERY = {IEPCSI_SERVER_NAME, IEPCSI_SERVER_UP_IND, reset};

const char *state_text() { return iepcsi_client_state_to_string(client.state); }

void fail() { client_fail(&client, IEPCSI_SERVICE_FAULTY, IEPCSI_CLIENT_FAULTY); }

void send_init_service_req()
{
    auto *req = static_cast<iepcsi_init_service_req *>(
        client_alloc_msg(&client, sizeof(iepcsi_init_service_req), IEPCSI_INIT_SERVICE_REQ));
    req->header.connection_ref = to_be32(IEPCSI_PROPOSED_CONNECTION_REF);
    req->pv_first_wanted = to_be32(CLIENT_PROTOCOL_VERSION);
    req->pv_second_wanted = to_be32(CLIENT_PROTOCOL_VERSION);
    req->pv_third_wanted = to_be32(CLIENT_PROTOCOL_VERSION);
    VORN_TRACE_SEND(IEPCSI_INIT_SERVICE_REQ, client.server_mbox,
                    "IEPCSI_INIT_SERVICE_REQ: connection_ref =%u, procedure_ref=0x%x, pv_first_wanted=%u, "
                    "pv_second_wanted=%u, pv_third_wanted=%u",
                    from_be32(req->header.connection_ref), client.procedure_ref, from_be32(req->pv_first_wanted),
                    from_be32(req->pv_second_wanted), from_be32(req->pv_third_wanted));
    client_send(&client, req);
}

void send_get_eth_port_support_req()
{
    void *req = client_alloc_request(&client, sizeof(client_plain_msg), IEPCSI_GET_ETH_PORT_SUPPORT_REQ);
    VORN_TRACE_SEND(IEPCSI_GET_ETH_PORT_SUPPORT_REQ, client.server_mbox,
                    "IEPCSI_GET_ETH_PORT_SUPPORT_REQ: connection_ref =%u, procedure_ref=0x%x", client.connection_ref,
                    client.procedure_ref);
    client_send(&client, req);
}

// The name stays empty, which subscribes for all ports.
iepcsi_subscribe_req *alloc_subscribe_req(uint32_t msgno)
{
    auto *req = static_cast<iepcsi_subscribe_req *>(client_alloc_request(&client, sizeof(iepcsi_subscribe_req), msgno));
    req->port_role = to_be32(IEPCSI_PORT_ROLE_LINK);
    return req;
}

void send_subscribe_reqs()
{
    auto *req = alloc_subscribe_req(IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ);
    VORN_TRACE_SEND(
        IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ, client.server_mbox,
        "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ: connection_ref=%u, procedure_ref=0x%x, port_role=0x%x, port_name=%s",
        client.connection_ref, client.procedure_ref, from_be32(req->port_role), req->port_name);
    client_send(&client, req);
    req = alloc_subscribe_req(IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ);
    VORN_TRACE_SEND(
        IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ, client.server_mbox,
        "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ: connection_ref=%u, procedure_ref=0x%x, port_role=0x%x, port_name=%s",
        client.connection_ref, client.procedure_ref, from_be32(req->port_role), req->port_name);
    client_send(&client, req);
}

// ---- Set-up ----

void handle_server_up(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "IEPCSI_SERVER_UP_IND: connection_ref=%u, procedure_ref=%u",
                   client_connection_ref(msg), client_procedure_ref(msg));
    if (client.state != IEPCSI_CLIENT_INIT) {
        VORN_TRACE(TRACE_ERROR, "IEPCSI_SERVER_UP_IND received in wrong state, state_=%s", state_text());
        fail();
        return;
    }
    client_watch_server(&client, msg, IEPCSI_SERVER_DOWN_IND);
    client.state = IEPCSI_CLIENT_INITIATING;
    send_init_service_req();
}

void handle_server_down(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "IEPCSI_SERVER_DOWN_IND: connection_ref=%u, procedure_ref=%u",
                   client_connection_ref(msg), client_procedure_ref(msg));
    VORN_TRACE(TRACE_WARNING, "IEPCSI service down received, state_=%s", state_text());
    client_lose_server(&client, reset, IEPCSI_SERVICE_DOWN);
}

void handle_init_service_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const client_conn_establish_cfm *>(msg);
    // The connection_ref in this trace is the one kept so far.
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "IEPCSI_INIT_SERVICE_CFM: connection_ref =%u, procedure_ref=0x%x, pv_selected=%u",
                   client.connection_ref, client_procedure_ref(msg), from_be32(cfm->pv_selected));
    if (client.state != IEPCSI_CLIENT_INITIATING) {
        VORN_TRACE(TRACE_ERROR, "IEPCSI_INIT_SERVICE_CFM received in wrong state, state_=%s", state_text());
        fail();
        return;
    }
    client.connection_ref = client_connection_ref(msg);
    client.state = IEPCSI_CLIENT_GET_PORT_CAP;
    send_get_eth_port_support_req();
}

void handle_init_service_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(
        msg->msgno, itc_sender(msg), "IEPCSI_INIT_SERVICE_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
        client_connection_ref(msg), client_procedure_ref(msg), iepcsi_rej_reason_to_string(client_reason(msg)));
    VORN_TRACE(TRACE_ERROR, "IEPCSI_INIT_SERVICE_REJ received, state_=%s", state_text());
    fail();
}

void handle_term_service_cfm(const itc_msg *msg)
{
    VORN_TRACE(TRACE_WARNING, "WARNING: IEPCSI_TERM_SERVICE_CFM received without sending request, sender_mbox=0x%x",
               itc_sender(msg));
}

void keep_supported_ports(const iepcsi_get_eth_port_support_cfm *cfm)
{
    for (uint32_t i = 0; i < from_be32(cfm->number_of_ports); ++i) {
        const iepcsi_port_entry &entry = cfm->ports[i];
        char name[PORT_NAME_LEN + 1];
        client_copy_text(name, sizeof name, entry.port_name, sizeof entry.port_name);
        VORN_TRACE(TRACE_PORT, "Port name %s, capability=0x%x, MAC address %02x:%02x:%02x:%02x:%02x:%02x", name,
                   from_be32(entry.capability), MAC_ARGS(entry.mac));
        if ((from_be32(entry.capability) & IEPCSI_CAPABILITY_LINK) != 0) {
            iepcsi_ports_insert(entry);
        }
    }
}

void handle_get_eth_port_support_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const iepcsi_get_eth_port_support_cfm *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "IEPCSI_GET_ETH_PORT_SUPPORT_CFM: connection_ref =%u, procedure_ref=0x%x, number_of_ports=%u",
                   client_connection_ref(msg), client_procedure_ref(msg), from_be32(cfm->number_of_ports));
    if (client.state != IEPCSI_CLIENT_GET_PORT_CAP) {
        VORN_TRACE(TRACE_ERROR, "IEPCSI_GET_ETH_PORT_SUPPORT_CFM received in wrong state, state_=%s", state_text());
        fail();
        return;
    }
    keep_supported_ports(cfm);
    if (iepcsi_ports_empty()) {
        VORN_TRACE(TRACE_SERVICE, "IEPCSI service is added");
        client_raise_service_event(&client, IEPCSI_SERVICE_UP);
        client.state = IEPCSI_CLIENT_INITIATED;
        return;
    }
    send_subscribe_reqs();
    client.state = IEPCSI_CLIENT_INITIATED;
    client_raise_service_event(&client, IEPCSI_SERVICE_UP);
}

void handle_get_eth_port_support_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "IEPCSI_GET_ETH_PORT_SUPPORT_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg),
                   iepcsi_rej_reason_to_string(client_reason(msg)));
    VORN_TRACE(TRACE_ERROR, "IEPCSI_GET_ETH_PORT_SUPPORT_REJ received, state_=%s", state_text());
    fail();
}

// ---- Subscriptions ----

void handle_subscribe_eth_port_status_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const iepcsi_subscribe_cfm *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM: connection_ref =%u, procedure_ref=0x%x, subscribe_ref=%u",
                   client_connection_ref(msg), client_procedure_ref(msg), from_be32(cfm->subscribe_ref));
    if (client.state != IEPCSI_CLIENT_INITIATED) {
        VORN_TRACE(TRACE_ERROR, "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM received in wrong state, state_=%s",
                   state_text());
        fail();
    }
}

void handle_subscribe_eth_port_status_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg),
                   iepcsi_rej_reason_to_string(client_reason(msg)));
    VORN_TRACE(TRACE_ERROR, "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ received, state_=%s", state_text());
    fail();
}

void handle_subscribe_port_vlan_status_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const iepcsi_subscribe_cfm *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM: connection_ref=%u, procedure_ref=0x%x, subscribe_ref=%u",
                   client_connection_ref(msg), client_procedure_ref(msg), from_be32(cfm->subscribe_ref));
    if (client.state != IEPCSI_CLIENT_INITIATED) {
        VORN_TRACE(TRACE_ERROR, "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM received in wrong state, state=%s",
                   state_text());
        fail();
    }
}

void handle_subscribe_port_vlan_status_rej(const itc_msg *msg)
{
    const auto *rej = reinterpret_cast<const client_rej *>(msg);
    // Of this reject the trace looks the reason up as it stands on the wire.
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ: connection_ref=%uprocedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), iepcsi_rej_reason_to_string(rej->reason.raw));
    VORN_TRACE(TRACE_ERROR, "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ received, state_=%s", state_text());
    fail();
}

// ---- Indications ----

// The administrative state is stored before its event, the operational one after it: a handler of the second still
// sees the old operational state.
void update_adm_state(eth_port *port, uint32_t adm_state)
{
    if (port->adm_state == adm_state) {
        return;
    }
    const uint32_t event = adm_state == 1 ? PORT_ADM_UNLOCKED : PORT_ADM_LOCKED;
    port->adm_state = adm_state;
    iepcsi_raise_port_event(event, port->port_name);
    VORN_TRACE(TRACE_PORT, "Port admin state updated for port %s, adm_state=%u, event= %u", port->port_name, adm_state,
               event);
}

void update_oper_state(eth_port *port, uint32_t oper_state)
{
    if (port->oper_state == oper_state) {
        return;
    }
    const uint32_t event = oper_state == 1 ? PORT_OPER_UP : PORT_OPER_DOWN;
    iepcsi_raise_port_event(event, port->port_name);
    port->oper_state = oper_state;
    VORN_TRACE(TRACE_PORT, "Port oper state updated for port %s, oper_state=%u, event= %u", port->port_name, oper_state,
               event);
}

void handle_eth_port_status_ind(const itc_msg *msg)
{
    const auto *ind = reinterpret_cast<const iepcsi_eth_port_status_ind *>(msg);
    char port_name[PORT_NAME_LEN + 1];
    char name_space[sizeof eth_port::name_space];
    client_copy_text(port_name, sizeof port_name, ind->port_name, sizeof ind->port_name);
    client_copy_text(name_space, sizeof name_space, ind->name_space, client_tail_size(msg, sizeof *ind));
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "IEPCSI_ETH_PORT_STATUS_IND: connection_ref =%u, procedure_ref=0x%x, port_name=%s, "
                   "port_adm_state=%u, port_oper_state=%u, name_space=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), port_name, from_be32(ind->port_adm_state),
                   from_be32(ind->port_oper_state), name_space);
    if (client.state != IEPCSI_CLIENT_INITIATED) {
        VORN_TRACE(TRACE_ERROR, "IEPCSI_ETH_PORT_STATUS_IND received in wrong state, state = %s.", state_text());
        return;
    }
    eth_port *port = iepcsi_ports_find(port_name);
    if (port == nullptr) {
        return;
    }
    update_adm_state(port, from_be32(ind->port_adm_state));
    client_copy_as_format(port->name_space, sizeof port->name_space, name_space);
    update_oper_state(port, from_be32(ind->port_oper_state));
}

struct vlan_status {
    uint16_t vlan_id;
    uint32_t action;
    char if_name[PORT_NAME_LEN + 1];
    char port_name[PORT_NAME_LEN + 1];
    char name_space[sizeof port_vlan::name_space];
};

void add_vlan(const vlan_status &status)
{
    if (iepcsi_add_port_vlan(status.port_name, status.if_name, status.name_space, status.vlan_id)) {
        iepcsi_raise_vlan_event(PORT_VLAN_ADDED, status.vlan_id, status.port_name);
    } else {
        VORN_TRACE(TRACE_ERROR, "Failed to add vlan on port. vlan_id=%u, port=%s", status.vlan_id, status.port_name);
    }
}

void remove_vlan(const vlan_status &status)
{
    if (iepcsi_remove_port_vlan(status.port_name, status.vlan_id)) {
        iepcsi_raise_vlan_event(PORT_VLAN_REMOVED, status.vlan_id, status.port_name);
    } else {
        VORN_TRACE(TRACE_ERROR, "Failed to remove vlan on port. vlan_id=%u, port=%s", status.vlan_id, status.port_name);
    }
}

void apply_vlan_status(const vlan_status &status)
{
    switch (status.action) {
    case IEPCSI_VLAN_ADDED:
        add_vlan(status);
        break;
    case IEPCSI_VLAN_REMOVED:
        remove_vlan(status);
        break;
    default:
        VORN_TRACE(TRACE_ERROR, "Received IEPCSI_PORT_VLAN_STATUS_IND with unknown vlan_action=%u", status.action);
        break;
    }
}

void handle_port_vlan_status_ind(const itc_msg *msg)
{
    const auto *ind = reinterpret_cast<const iepcsi_port_vlan_status_ind *>(msg);
    vlan_status status = {from_be16(ind->vlan_id), from_be32(ind->vlan_action), {}, {}, {}};
    client_copy_text(status.if_name, sizeof status.if_name, ind->if_name, sizeof ind->if_name);
    client_copy_text(status.port_name, sizeof status.port_name, ind->port_name, sizeof ind->port_name);
    client_copy_text(status.name_space, sizeof status.name_space, ind->name_space, client_tail_size(msg, sizeof *ind));
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "IEPCSI_PORT_VLAN_STATUS_IND: connection_ref=%u, procedure_ref=0x%x, vlan_id=%u, vlan_action=%u, "
                   "port_role=%u, if_name=%s, port_name=%s, namespace=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), status.vlan_id, status.action,
                   from_be32(ind->port_role), status.if_name, status.port_name, status.name_space);
    if (client.state != IEPCSI_CLIENT_INITIATED) {
        VORN_TRACE(TRACE_ERROR, "IEPCSI_PORT_VLAN_STATUS_IND received in wrong state, state=%s", state_text());
        fail();
        return;
    }
    apply_vlan_status(status);
}

constexpr client_message RECEIVED[] = {
    {IEPCSI_SERVER_UP_IND, sizeof(client_plain_msg), 0, handle_server_up},
    {IEPCSI_SERVER_DOWN_IND, sizeof(client_plain_msg), 0, handle_server_down},
    {IEPCSI_INIT_SERVICE_CFM, sizeof(client_conn_establish_cfm), 0, handle_init_service_cfm},
    {IEPCSI_INIT_SERVICE_REJ, sizeof(client_rej), 0, handle_init_service_rej},
    {IEPCSI_TERM_SERVICE_CFM, sizeof(client_plain_msg), 0, handle_term_service_cfm},
    {IEPCSI_GET_ETH_PORT_SUPPORT_CFM, sizeof(iepcsi_get_eth_port_support_cfm), sizeof(iepcsi_port_entry),
     handle_get_eth_port_support_cfm},
    {IEPCSI_GET_ETH_PORT_SUPPORT_REJ, sizeof(client_rej), 0, handle_get_eth_port_support_rej},
    {IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM, sizeof(iepcsi_subscribe_cfm), 0, handle_subscribe_eth_port_status_cfm},
    {IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ, sizeof(client_rej), 0, handle_subscribe_eth_port_status_rej},
    {IEPCSI_ETH_PORT_STATUS_IND, sizeof(iepcsi_eth_port_status_ind), 0, handle_eth_port_status_ind},
    {IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM, sizeof(iepcsi_subscribe_cfm), 0, handle_subscribe_port_vlan_status_cfm},
    {IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ, sizeof(client_rej), 0, handle_subscribe_port_vlan_status_rej},
    {IEPCSI_PORT_VLAN_STATUS_IND, sizeof(iepcsi_port_vlan_status_ind), 0, handle_port_vlan_status_ind},
};

bool can_raise(const char *port_name)
{
    if (client.handler == nullptr) {
        VORN_TRACE(TRACE_ERROR, "ABN:Event handler is NULL");
        return false;
    }
    if (port_name == nullptr) {
        VORN_TRACE(TRACE_ERROR, "ABN:Port name is NULL");
        return false;
    }
    return true;
}

} // namespace

void iepcsi_raise_port_event(uint32_t event_id, const char *port_name)
{
    if (!can_raise(port_name)) {
        return;
    }
    if (event_id < PORT_OPER_UP || event_id > PORT_ADM_LOCKED) {
        VORN_TRACE(TRACE_WARNING, "WARNING:Unknown or unexpected event received, event_id=%u", event_id);
        return;
    }
    client.result.port.id = event_id;
    client_copy_text(client.result.port.port_name, PORT_NAME_LEN, port_name, PORT_NAME_LEN);
    client.handler(&client.result);
}

void iepcsi_raise_vlan_event(uint32_t event_id, uint16_t vlan_id, const char *port_name)
{
    if (!can_raise(port_name)) {
        return;
    }
    if (event_id < PORT_VLAN_ADDED || event_id > PORT_VLAN_REMOVED) {
        VORN_TRACE(TRACE_WARNING, "Warning: Unknown vlan event received, event_id=%u", event_id);
        return;
    }
    client.result.vlan.id = event_id;
    client.result.vlan.vlan_id = vlan_id;
    client_copy_text(client.result.vlan.port_name, PORT_NAME_LEN, port_name, PORT_NAME_LEN);
    client.handler(&client.result);
}

void iepcsi_client_init(client_event_handler handler) { client_init(&client, handler, DISCOVERY); }

bool iepcsi_client_dispatch(const itc_msg *msg)
{
    return client_dispatch(RECEIVED, std::size(RECEIVED), iepcsi_msg_to_string, msg);
}

uint32_t iepcsi_client_state() { return client.state; }

const char *iepcsi_client_state_to_string(uint32_t state)
{
    static constexpr const char *TEXTS[] = {"INIT", "INITIATING", "GET_PORT_CAP", "INITIATED", "FAULTY"};
    return client_state_text(TEXTS, std::size(TEXTS), state);
}

void iepcsi_client_forget_all()
{
    iepcsi_ports_free();
    client = AT_START;
}
