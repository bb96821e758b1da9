// The PMI client: see pmi_client.hpp. It follows the common pattern without a deviation.
#include "pmi_client.hpp"

#include "client_framework.hpp"
#include "port_names.hpp"

namespace
{

client_record client;

// A port that the server does not know goes out without a name.
pmi_port_vlan_req *alloc_vlan_req(uint32_t msgno, const char *port_name, uint32_t vlan_id)
{
    auto *req = client_alloc_request<pmi_port_vlan_req>(&client, msgno);
    for (const port_names &port : PORT_NAMES) {
        if (port.pmi != nullptr && strcmp(port_name, port.iemli) == 0) {
            client_copy_text(req->port_name, sizeof req->port_name, port.pmi, sizeof req->port_name);
        }
    }
    req->vlan_id = to_be32(vlan_id);
    return req;
}

client_verdict connect(const client_input &)
{
    auto *req = client_alloc_conn_req(&client, PMI_CONN_ESTABLISH_REQ, PMI_PROPOSED_CONNECTION_REF);
    VORN_TRACE_SEND(PMI_CONN_ESTABLISH_REQ, client.server_mbox,
                    "PMI_CONN_ESTABLISH_REQ: connection_ref =%u, procedure_ref=0x%x, num_pvs=%u, pv[0]=%u",
                    PMI_PROPOSED_CONNECTION_REF, client.procedure_ref, 1U, CLIENT_PROTOCOL_VERSION);
    client_send(&client, req);
    return CLIENT_TAKEN;
}

client_verdict ask_for_capabilities(const client_input &in)
{
    client.connection_ref = in.connection_ref;
    auto *req = client_alloc_request<client_plain_msg>(&client, PMI_GET_CAPABILITY_REQ);
    VORN_TRACE_SEND(PMI_GET_CAPABILITY_REQ, client.server_mbox, "PMI_GET_CAPABILITY_REQ:proc_ref: %u, conn_ref: %u",
                    client.procedure_ref, client.connection_ref);
    client_send(&client, req);
    return CLIENT_TAKEN;
}

constexpr client_step STEPS[] = {
    {PMI_SERVER_UP_IND, sizeof(client_plain_msg),
     CLIENT_RECEIVED("PMI_SERVER_UP_IND: connection_ref=%u, procedure_ref=%u"),
     only_in(PMI_CLIENT_INIT, CLIENT_NOTICE(TRACE_ERROR, "PMI_SERVER_UP_IND received in wrong state, state_=%s")),
     goes_to(PMI_CLIENT_INITIATING), connect},
    {PMI_SERVER_DOWN_IND, sizeof(client_plain_msg),
     CLIENT_RECEIVED("PMI_SERVER_DOWN_IND: connection_ref=%u, procedure_ref=%u"), IN_ANY_STATE,
     goes_to(PMI_CLIENT_INIT, PMI_SERVICE_DOWN)},
    // Its trace has the connection_ref kept so far.
    {PMI_CONN_ESTABLISH_CFM, sizeof(client_conn_establish_cfm),
     CLIENT_RECEIVED_AS("PMI_CONN_ESTABLISH_CFM: connection_ref =%u, procedure_ref=0x%x, pv_selected=%u",
                        client.connection_ref, in.procedure_ref, in.word),
     only_in(PMI_CLIENT_INITIATING,
             CLIENT_NOTICE(TRACE_ERROR, "PMI_CONN_ESTABLISH_CFM received in wrong state, state_=%s")),
     goes_to(PMI_CLIENT_GET_CAPABILITY), ask_for_capabilities},
    {PMI_CONN_ESTABLISH_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("PMI_CONN_ESTABLISH_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                     pmi_rej_reason_to_string(in.word)),
     never_right(CLIENT_REMARK(TRACE_ERROR, "PMI_CONN_ESTABLISH_REJ received")), STAYS},
    {PMI_GET_CAPABILITY_CFM, sizeof(client_capability_cfm),
     CLIENT_RECEIVED("PMI_GET_CAPABILITY_CFM: connection_ref =%u, procedure_ref=0x%x, num_caps=%u", in.word),
     only_in(PMI_CLIENT_GET_CAPABILITY,
             CLIENT_NOTICE(TRACE_ERROR, "PMI_GET_CAPABILITY_CFM received in wrong state, state_=%s")),
     goes_to(PMI_CLIENT_INITIATED, PMI_SERVICE_UP)},
    {PMI_GET_CAPABILITY_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("PMI_GET_CAPABILITY_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                     pmi_rej_reason_to_string(in.word)),
     IN_ANY_STATE, goes_to(PMI_CLIENT_FAULTY, PMI_SERVICE_FAULTY)},
    {PMI_ENABLE_PORT_VLAN_CFM, sizeof(client_plain_msg),
     CLIENT_RECEIVED("PMI_ENABLE_PORT_VLAN_CFM: connection_ref =%u, procedure_ref=0x%x, "),
     dropped_unless(PMI_CLIENT_INITIATED,
                    CLIENT_NOTICE(TRACE_WARNING, "PMI_ENABLE_PORT_VLAN_CFM received in wrong state, state = %s.")),
     reports(PMI_ENABLE_PORT_VLAN_DONE)},
    {PMI_ENABLE_PORT_VLAN_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("PMI_ENABLE_PORT_VLAN_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                     pmi_rej_reason_to_string(in.word)),
     dropped_unless(PMI_CLIENT_INITIATED,
                    CLIENT_NOTICE(TRACE_WARNING, "PMI_ENABLE_PORT_VLAN_REJ received in wrong state, state = %s.")),
     reports(PMI_ENABLE_PORT_VLAN_FAILED)},
    {PMI_DISABLE_PORT_VLAN_CFM, sizeof(client_plain_msg),
     CLIENT_RECEIVED("PMI_DISABLE_PORT_VLAN_CFM: connection_ref =%u, procedure_ref=0x%x, "),
     dropped_unless(PMI_CLIENT_INITIATED,
                    CLIENT_NOTICE(TRACE_WARNING, "PMI_DISABLE_PORT_VLAN_CFM received in wrong state, state = %s.")),
     reports(PMI_DISABLE_PORT_VLAN_DONE)},
    {PMI_DISABLE_PORT_VLAN_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("PMI_DISABLE_PORT_VLAN_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                     pmi_rej_reason_to_string(in.word)),
     dropped_unless(PMI_CLIENT_INITIATED,
                    CLIENT_NOTICE(TRACE_WARNING, "PMI_DISABLE_PORT_VLAN_REJ received in wrong state, state = %s.")),
     reports(PMI_DISABLE_PORT_VLAN_FAILED)},
};

constexpr client_protocol PROTOCOL = {
    .server_name = PMI_SERVER_NAME,
    .server_up_ind = PMI_SERVER_UP_IND,
    .server_down_ind = PMI_SERVER_DOWN_IND,
    .faulty_event = PMI_SERVICE_FAULTY,
    .faulty_state = PMI_CLIENT_FAULTY,
    .state_name = pmi_client_state_to_string,
    .message_name = pmi_msg_to_string,
    .steps = STEPS,
    .step_count = std::size(STEPS),
};

} // namespace

void pmi_client_init(client_event_handler handler) { client_init(&client, handler, PROTOCOL); }

bool pmi_client_dispatch(const itc_msg *msg) { return client_dispatch(&client, PROTOCOL, msg); }

uint32_t pmi_enable_port_vlan(const char *port_name, uint32_t vlan_id)
{
    auto *req = alloc_vlan_req(PMI_ENABLE_PORT_VLAN_REQ, port_name, vlan_id);
    VORN_TRACE_SEND(PMI_ENABLE_PORT_VLAN_REQ, client.server_mbox,
                    "PMI_ENABLE_PORT_VLAN_REQ: connection_ref =%u, procedure_ref=0x%x, port_name=%s, vlan=%u, ",
                    client.connection_ref, client.procedure_ref, port_name, vlan_id);
    return client_send(&client, req);
}

uint32_t pmi_disable_port_vlan(const char *port_name, uint32_t vlan_id)
{
    auto *req = alloc_vlan_req(PMI_DISABLE_PORT_VLAN_REQ, port_name, vlan_id);
    VORN_TRACE_SEND(PMI_DISABLE_PORT_VLAN_REQ, client.server_mbox,
                    "PMI_DISABLE_PORT_VLAN_REQ: connection_ref =%u, procedure_ref=0x%x, port_name=%s vlan=%u, ",
                    client.connection_ref, client.procedure_ref, port_name, vlan_id);
    return client_send(&client, req);
}

uint32_t pmi_client_state() { return client.state; }

const char *pmi_client_state_to_string(uint32_t state)
{
    static constexpr const char *TEXTS[] = {"INIT", "INITIATING", "GET_CAPABILITY", "INITIATED", "FAULTY"};
    return client_state_text(TEXTS, std::size(TEXTS), state);
}

void pmi_client_forget_all() { client = client_record{}; }
