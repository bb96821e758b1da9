// The IEPCSI client's conversation with its server: see iepcsi_client.hpp. Its set-up is an init-service exchange and a
// port-support query; the ports it learns of are kept by iepcsi_ports.cpp.
#include "iepcsi_client.hpp"

#include "client_framework.hpp"

namespace
{

constexpr client_record AT_START = {.result = {IEPCSI_EVENT, {}}};

client_record client = AT_START;

// ---- What the messages say ----

struct port_status {
    uint32_t adm_state;
    uint32_t oper_state;
    char port_name[PORT_NAME_LEN + 1];
    char name_space[sizeof eth_port::name_space];
};

port_status read_port_status(const itc_msg *msg)
{
    const auto *ind = client_message<iepcsi_eth_port_status_ind>(msg);
    port_status status = {from_be32(ind->port_adm_state), from_be32(ind->port_oper_state), {}, {}};
    client_copy_field(status.port_name, ind->port_name);
    client_copy_text(status.name_space, sizeof status.name_space, ind->name_space, client_tail_size(msg, sizeof *ind));
    return status;
}

struct vlan_status {
    uint16_t vlan_id;
    uint32_t action;
    uint32_t port_role;
    char if_name[PORT_NAME_LEN + 1];
    char port_name[PORT_NAME_LEN + 1];
    char name_space[sizeof port_vlan::name_space];
};

vlan_status read_vlan_status(const itc_msg *msg)
{
    const auto *ind = client_message<iepcsi_port_vlan_status_ind>(msg);
    vlan_status status = {from_be16(ind->vlan_id), from_be32(ind->vlan_action), from_be32(ind->port_role), {}, {}, {}};
    client_copy_field(status.if_name, ind->if_name);
    client_copy_field(status.port_name, ind->port_name);
    client_copy_text(status.name_space, sizeof status.name_space, ind->name_space, client_tail_size(msg, sizeof *ind));
    return status;
}

struct supported_port {
    uint32_t capability;
    mac_address mac;
    char port_name[PORT_NAME_LEN + 1];
    char if_name[PORT_NAME_LEN + 1];
};

supported_port read_supported_port(const itc_msg *msg, uint32_t i)
{
    const iepcsi_port_entry &entry = client_message<iepcsi_get_eth_port_support_cfm>(msg)->ports[i];
    supported_port port = {from_be32(entry.capability), entry.mac, {}, {}};
    client_copy_field(port.port_name, entry.port_name);
    client_copy_field(port.if_name, entry.if_name);
    return port;
}

// ---- Set-up ----

client_verdict connect(const client_input &)
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
                    IEPCSI_PROPOSED_CONNECTION_REF, client.procedure_ref, CLIENT_PROTOCOL_VERSION,
                    CLIENT_PROTOCOL_VERSION, CLIENT_PROTOCOL_VERSION);
    client_send(&client, req);
    return CLIENT_TAKEN;
}

void note_server_down(const client_input &in)
{
    VORN_TRACE_REC(in.msg->msgno, itc_sender(in.msg), "IEPCSI_SERVER_DOWN_IND: connection_ref=%u, procedure_ref=%u",
                   in.connection_ref, in.procedure_ref);
    VORN_TRACE(TRACE_WARNING, "IEPCSI service down received, state_=%s", iepcsi_client_state_to_string(client.state));
}

client_verdict ask_for_ports(const client_input &in)
{
    client.connection_ref = in.connection_ref;
    auto *req = client_alloc_request<client_plain_msg>(&client, IEPCSI_GET_ETH_PORT_SUPPORT_REQ);
    VORN_TRACE_SEND(IEPCSI_GET_ETH_PORT_SUPPORT_REQ, client.server_mbox,
                    "IEPCSI_GET_ETH_PORT_SUPPORT_REQ: connection_ref =%u, procedure_ref=0x%x", client.connection_ref,
                    client.procedure_ref);
    client_send(&client, req);
    return CLIENT_TAKEN;
}

// The name stays empty, which subscribes for all ports.
iepcsi_subscribe_req *alloc_subscribe_req(uint32_t msgno)
{
    auto *req = client_alloc_request<iepcsi_subscribe_req>(&client, msgno);
    req->port_role = to_be32(IEPCSI_PORT_ROLE_LINK);
    return req;
}

void send_subscribe_reqs()
{
    auto *req = alloc_subscribe_req(IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ);
    VORN_TRACE_SEND(
        IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ, client.server_mbox,
        "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ: connection_ref=%u, procedure_ref=0x%x, port_role=0x%x, port_name=%s",
        client.connection_ref, client.procedure_ref, IEPCSI_PORT_ROLE_LINK, req->port_name);
    client_send(&client, req);
    req = alloc_subscribe_req(IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ);
    VORN_TRACE_SEND(
        IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ, client.server_mbox,
        "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ: connection_ref=%u, procedure_ref=0x%x, port_role=0x%x, port_name=%s",
        client.connection_ref, client.procedure_ref, IEPCSI_PORT_ROLE_LINK, req->port_name);
    client_send(&client, req);
}

// A service without ports is up before the client is initiated.
client_verdict keep_ports(const client_input &in)
{
    for (uint32_t i = 0; i < in.word; ++i) {
        const supported_port port = read_supported_port(in.msg, i);
        VORN_TRACE(TRACE_PORT, "Port name %s, capability=0x%x, MAC address %02x:%02x:%02x:%02x:%02x:%02x",
                   port.port_name, port.capability, MAC_ARGS(port.mac));
        if ((port.capability & IEPCSI_CAPABILITY_LINK) != 0) {
            iepcsi_ports_insert(port.port_name, port.if_name, port.mac);
        }
    }
    if (iepcsi_get_port_list() == nullptr) {
        VORN_TRACE(TRACE_SERVICE, "IEPCSI service is added");
        return CLIENT_TAKEN_EVENT_FIRST;
    }
    send_subscribe_reqs();
    return CLIENT_TAKEN;
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

client_verdict update_port(const client_input &in)
{
    const port_status status = read_port_status(in.msg);
    eth_port *port = iepcsi_ports_find(status.port_name);
    if (port != nullptr) {
        update_adm_state(port, status.adm_state);
        client_copy_as_format(port->name_space, sizeof port->name_space, status.name_space);
        update_oper_state(port, status.oper_state);
    }
    return CLIENT_TAKEN;
}

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

client_verdict update_vlan(const client_input &in)
{
    const vlan_status status = read_vlan_status(in.msg);
    switch (static_cast<iepcsi_vlan_action>(status.action)) {
    case IEPCSI_VLAN_ADDED:
        add_vlan(status);
        return CLIENT_TAKEN;
    case IEPCSI_VLAN_REMOVED:
        remove_vlan(status);
        return CLIENT_TAKEN;
    }
    VORN_TRACE(TRACE_ERROR, "Received IEPCSI_PORT_VLAN_STATUS_IND with unknown vlan_action=%u", status.action);
    return CLIENT_TAKEN;
}

void trace_port_status(const client_input &in)
{
    const port_status status = read_port_status(in.msg);
    VORN_TRACE_REC(in.msg->msgno, itc_sender(in.msg),
                   "IEPCSI_ETH_PORT_STATUS_IND: connection_ref =%u, procedure_ref=0x%x, port_name=%s, "
                   "port_adm_state=%u, port_oper_state=%u, name_space=%s",
                   in.connection_ref, in.procedure_ref, status.port_name, status.adm_state, status.oper_state,
                   status.name_space);
}

void trace_vlan_status(const client_input &in)
{
    const vlan_status status = read_vlan_status(in.msg);
    VORN_TRACE_REC(in.msg->msgno, itc_sender(in.msg),
                   "IEPCSI_PORT_VLAN_STATUS_IND: connection_ref=%u, procedure_ref=0x%x, vlan_id=%u, vlan_action=%u, "
                   "port_role=%u, if_name=%s, port_name=%s, namespace=%s",
                   in.connection_ref, in.procedure_ref, status.vlan_id, status.action, status.port_role, status.if_name,
                   status.port_name, status.name_space);
}

void note_term_service_cfm(const client_input &in)
{
    VORN_TRACE(TRACE_WARNING, "WARNING: IEPCSI_TERM_SERVICE_CFM received without sending request, sender_mbox=0x%x",
               itc_sender(in.msg));
}

constexpr client_step STEPS[] = {
    {IEPCSI_SERVER_UP_IND, sizeof(client_plain_msg),
     CLIENT_RECEIVED("IEPCSI_SERVER_UP_IND: connection_ref=%u, procedure_ref=%u"),
     only_in(IEPCSI_CLIENT_INIT, CLIENT_NOTICE(TRACE_ERROR, "IEPCSI_SERVER_UP_IND received in wrong state, state_=%s")),
     goes_to(IEPCSI_CLIENT_INITIATING), connect},
    {IEPCSI_SERVER_DOWN_IND, sizeof(client_plain_msg), note_server_down, IN_ANY_STATE,
     goes_to(IEPCSI_CLIENT_INIT, IEPCSI_SERVICE_DOWN)},
    // Its trace has the connection_ref kept so far.
    {IEPCSI_INIT_SERVICE_CFM, sizeof(client_conn_establish_cfm),
     CLIENT_RECEIVED_AS("IEPCSI_INIT_SERVICE_CFM: connection_ref =%u, procedure_ref=0x%x, pv_selected=%u",
                        client.connection_ref, in.procedure_ref, in.word),
     only_in(IEPCSI_CLIENT_INITIATING,
             CLIENT_NOTICE(TRACE_ERROR, "IEPCSI_INIT_SERVICE_CFM received in wrong state, state_=%s")),
     goes_to(IEPCSI_CLIENT_GET_PORT_CAP), ask_for_ports},
    {IEPCSI_INIT_SERVICE_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("IEPCSI_INIT_SERVICE_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                     iepcsi_rej_reason_to_string(in.word)),
     never_right(CLIENT_NOTICE(TRACE_ERROR, "IEPCSI_INIT_SERVICE_REJ received, state_=%s")), STAYS},
    {IEPCSI_TERM_SERVICE_CFM, sizeof(client_plain_msg), note_term_service_cfm, IN_ANY_STATE, STAYS},
    {IEPCSI_GET_ETH_PORT_SUPPORT_CFM, sizeof(iepcsi_get_eth_port_support_cfm),
     CLIENT_RECEIVED("IEPCSI_GET_ETH_PORT_SUPPORT_CFM: connection_ref =%u, procedure_ref=0x%x, number_of_ports=%u",
                     in.word),
     only_in(IEPCSI_CLIENT_GET_PORT_CAP,
             CLIENT_NOTICE(TRACE_ERROR, "IEPCSI_GET_ETH_PORT_SUPPORT_CFM received in wrong state, state_=%s")),
     goes_to(IEPCSI_CLIENT_INITIATED, IEPCSI_SERVICE_UP), keep_ports, sizeof(iepcsi_port_entry)},
    {IEPCSI_GET_ETH_PORT_SUPPORT_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("IEPCSI_GET_ETH_PORT_SUPPORT_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                     iepcsi_rej_reason_to_string(in.word)),
     never_right(CLIENT_NOTICE(TRACE_ERROR, "IEPCSI_GET_ETH_PORT_SUPPORT_REJ received, state_=%s")), STAYS},
    {IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM, sizeof(iepcsi_subscribe_cfm),
     CLIENT_RECEIVED("IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM: connection_ref =%u, procedure_ref=0x%x, subscribe_ref=%u",
                     in.word),
     only_in(IEPCSI_CLIENT_INITIATED,
             CLIENT_NOTICE(TRACE_ERROR, "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM received in wrong state, state_=%s")),
     STAYS},
    {IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                     iepcsi_rej_reason_to_string(in.word)),
     never_right(CLIENT_NOTICE(TRACE_ERROR, "IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ received, state_=%s")), STAYS},
    {IEPCSI_ETH_PORT_STATUS_IND, sizeof(iepcsi_eth_port_status_ind), trace_port_status,
     dropped_unless(IEPCSI_CLIENT_INITIATED,
                    CLIENT_NOTICE(TRACE_ERROR, "IEPCSI_ETH_PORT_STATUS_IND received in wrong state, state = %s.")),
     STAYS, update_port},
    {IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM, sizeof(iepcsi_subscribe_cfm),
     CLIENT_RECEIVED("IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM: connection_ref=%u, procedure_ref=0x%x, subscribe_ref=%u",
                     in.word),
     only_in(IEPCSI_CLIENT_INITIATED,
             CLIENT_NOTICE(TRACE_ERROR, "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM received in wrong state, state=%s")),
     STAYS},
    // Its trace looks the reason up as it stands on the wire.
    {IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ: connection_ref=%uprocedure_ref=0x%x, reason=%s",
                     iepcsi_rej_reason_to_string(to_be32(in.word).raw)),
     never_right(CLIENT_NOTICE(TRACE_ERROR, "IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ received, state_=%s")), STAYS},
    {IEPCSI_PORT_VLAN_STATUS_IND, sizeof(iepcsi_port_vlan_status_ind), trace_vlan_status,
     only_in(IEPCSI_CLIENT_INITIATED,
             CLIENT_NOTICE(TRACE_ERROR, "IEPCSI_PORT_VLAN_STATUS_IND received in wrong state, state=%s")),
     STAYS, update_vlan},
};

constexpr client_protocol PROTOCOL = {
    .server_name = IEPCSI_SERVER_NAME,
    .server_up_ind = IEPCSI_SERVER_UP_IND,
    .server_down_ind = IEPCSI_SERVER_DOWN_IND,
    .forget_own = iepcsi_ports_free,
    .faulty_event = IEPCSI_SERVICE_FAULTY,
    .faulty_state = IEPCSI_CLIENT_FAULTY,
    .state_name = iepcsi_client_state_to_string,
    .message_name = iepcsi_msg_to_string,
    .steps = STEPS,
    .step_count = std::size(STEPS),
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

void iepcsi_client_init(client_event_handler handler) { client_init(&client, handler, PROTOCOL); }

bool iepcsi_client_dispatch(const itc_msg *msg) { return client_dispatch(&client, PROTOCOL, msg); }

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
