// The PMI client: see pmi_client.hpp. It follows the common pattern without a deviation.
#include "pmi_client.hpp"

#include <iterator>

#include "client_framework.hpp"
#include "vorn_trace.hpp"

namespace
{

client_record client; // NOLINT

void reset() { client_reset(&client); }

const client_discovery DISCOVERY = {PMI_SERVER_NAME, PMI_SERVER_UP_IND, reset};

const char *state_text() { return pmi_client_state_to_string(client.state); }

void fail() { client_fail(&client, PMI_SERVICE_FAULTY, PMI_CLIENT_FAULTY); }

// The server's name of a port, null for a port that it does not serve.
const char *server_port_name(const char *port_name)
{
    static constexpr struct {
        const char *name;
        const char *server_name;
    } NAMES[] = {{"IDL_A1", "IDLA1"}, {"IDL_B1", "IDLB1"}, {"IDL_A2", "IDLA2"}, {"IDL_B2", "IDLB2"}};
    for (const auto &entry : NAMES) {
        if (strcmp(port_name, entry.name) == 0) {
            return entry.server_name;
        }
    }
    return nullptr;
}

void send_conn_establish_req()
{
    auto *req = client_alloc_conn_req(&client, PMI_CONN_ESTABLISH_REQ, PMI_PROPOSED_CONNECTION_REF);
    VORN_TRACE_SEND(PMI_CONN_ESTABLISH_REQ, client.server_mbox,
                    "PMI_CONN_ESTABLISH_REQ: connection_ref =%u, procedure_ref=0x%x, num_pvs=%u, pv[0]=%u",
                    from_be32(req->header.connection_ref), client.procedure_ref, from_be32(req->num_pvs),
                    from_be32(req->pv[0]));
    client_send(&client, req);
}

void send_get_capability_req()
{
    void *req = client_alloc_request(&client, sizeof(client_plain_msg), PMI_GET_CAPABILITY_REQ);
    VORN_TRACE_SEND(PMI_GET_CAPABILITY_REQ, client.server_mbox, "PMI_GET_CAPABILITY_REQ:proc_ref: %u, conn_ref: %u",
                    client.procedure_ref, client.connection_ref);
    client_send(&client, req);
}

pmi_port_vlan_req *alloc_vlan_req(uint32_t msgno, const char *port_name, uint32_t vlan_id)
{
    auto *req = static_cast<pmi_port_vlan_req *>(client_alloc_request(&client, sizeof(pmi_port_vlan_req), msgno));
    const char *name = server_port_name(port_name);
    if (name != nullptr) {
        client_copy_text(req->port_name, sizeof req->port_name, name, sizeof req->port_name);
    }
    req->vlan_id = to_be32(vlan_id);
    return req;
}

void handle_server_up(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "PMI_SERVER_UP_IND: connection_ref=%u, procedure_ref=%u",
                   client_connection_ref(msg), client_procedure_ref(msg));
    if (client.state != PMI_CLIENT_INIT) {
        VORN_TRACE(TRACE_ERROR, "PMI_SERVER_UP_IND received in wrong state, state_=%s", state_text());
        fail();
        return;
    }
    client_watch_server(&client, msg, PMI_SERVER_DOWN_IND);
    client.state = PMI_CLIENT_INITIATING;
    send_conn_establish_req();
}

void handle_server_down(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "PMI_SERVER_DOWN_IND: connection_ref=%u, procedure_ref=%u",
                   client_connection_ref(msg), client_procedure_ref(msg));
    client_lose_server(&client, reset, PMI_SERVICE_DOWN);
}

void handle_conn_establish_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const client_conn_establish_cfm *>(msg);
    // The connection_ref in this trace is the one kept so far.
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "PMI_CONN_ESTABLISH_CFM: connection_ref =%u, procedure_ref=0x%x, pv_selected=%u",
                   client.connection_ref, client_procedure_ref(msg), from_be32(cfm->pv_selected));
    if (client.state != PMI_CLIENT_INITIATING) {
        VORN_TRACE(TRACE_ERROR, "PMI_CONN_ESTABLISH_CFM received in wrong state, state_=%s", state_text());
        fail();
        return;
    }
    client.connection_ref = client_connection_ref(msg);
    client.state = PMI_CLIENT_GET_CAPABILITY;
    send_get_capability_req();
}

void handle_conn_establish_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "PMI_CONN_ESTABLISH_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), pmi_rej_reason_to_string(client_reason(msg)));
    VORN_TRACE(TRACE_ERROR, "PMI_CONN_ESTABLISH_REJ received");
    fail();
}

void handle_get_capability_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const client_capability_cfm *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "PMI_GET_CAPABILITY_CFM: connection_ref =%u, procedure_ref=0x%x, num_caps=%u",
                   client_connection_ref(msg), client_procedure_ref(msg), from_be32(cfm->num_caps));
    if (client.state != PMI_CLIENT_GET_CAPABILITY) {
        VORN_TRACE(TRACE_ERROR, "PMI_GET_CAPABILITY_CFM received in wrong state, state_=%s", state_text());
        fail();
        return;
    }
    client.state = PMI_CLIENT_INITIATED;
    client_raise_service_event(&client, PMI_SERVICE_UP);
}

void handle_get_capability_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "PMI_GET_CAPABILITY_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), pmi_rej_reason_to_string(client_reason(msg)));
    client.state = PMI_CLIENT_FAULTY;
    client_raise_service_event(&client, PMI_SERVICE_FAULTY);
}

// An answer that nobody can wait for yet is dropped; `wrong_state_text` is the format of its trace.
void raise_vlan_result(const itc_msg *msg, uint32_t code, const char *wrong_state_text)
{
    if (client.state != PMI_CLIENT_INITIATED) {
        VORN_TRACE(TRACE_WARNING, wrong_state_text, state_text());
        return;
    }
    client_raise_result(&client, code, msg);
}

void handle_enable_port_vlan_cfm(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "PMI_ENABLE_PORT_VLAN_CFM: connection_ref =%u, procedure_ref=0x%x, ",
                   client_connection_ref(msg), client_procedure_ref(msg));
    raise_vlan_result(msg, PMI_ENABLE_PORT_VLAN_DONE, "PMI_ENABLE_PORT_VLAN_CFM received in wrong state, state = %s.");
}

void handle_enable_port_vlan_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "PMI_ENABLE_PORT_VLAN_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), pmi_rej_reason_to_string(client_reason(msg)));
    raise_vlan_result(msg, PMI_ENABLE_PORT_VLAN_FAILED,
                      "PMI_ENABLE_PORT_VLAN_REJ received in wrong state, state = %s.");
}

void handle_disable_port_vlan_cfm(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "PMI_DISABLE_PORT_VLAN_CFM: connection_ref =%u, procedure_ref=0x%x, ",
                   client_connection_ref(msg), client_procedure_ref(msg));
    raise_vlan_result(msg, PMI_DISABLE_PORT_VLAN_DONE,
                      "PMI_DISABLE_PORT_VLAN_CFM received in wrong state, state = %s.");
}

void handle_disable_port_vlan_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "PMI_DISABLE_PORT_VLAN_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), pmi_rej_reason_to_string(client_reason(msg)));
    raise_vlan_result(msg, PMI_DISABLE_PORT_VLAN_FAILED,
                      "PMI_DISABLE_PORT_VLAN_REJ received in wrong state, state = %s.");
}

constexpr client_message RECEIVED[] = {
    {PMI_SERVER_UP_IND, sizeof(client_plain_msg), 0, handle_server_up},
    {PMI_SERVER_DOWN_IND, sizeof(client_plain_msg), 0, handle_server_down},
    {PMI_CONN_ESTABLISH_CFM, sizeof(client_conn_establish_cfm), 0, handle_conn_establish_cfm},
    {PMI_CONN_ESTABLISH_REJ, sizeof(client_rej), 0, handle_conn_establish_rej},
    {PMI_GET_CAPABILITY_CFM, sizeof(client_capability_cfm), 0, handle_get_capability_cfm},
    {PMI_GET_CAPABILITY_REJ, sizeof(client_rej), 0, handle_get_capability_rej},
    {PMI_ENABLE_PORT_VLAN_CFM, sizeof(client_plain_msg), 0, handle_enable_port_vlan_cfm},
    {PMI_ENABLE_PORT_VLAN_REJ, sizeof(client_rej), 0, handle_enable_port_vlan_rej},
    {PMI_DISABLE_PORT_VLAN_CFM, sizeof(client_plain_msg), 0, handle_disable_port_vlan_cfm},
    {PMI_DISABLE_PORT_VLAN_REJ, sizeof(client_rej), 0, handle_disable_port_vlan_rej},
};

} // namespace

void pmi_client_init(client_event_handler handler) { client_init(&client, handler, DISCOVERY); }

bool pmi_client_dispatch(const itc_msg *msg)
{
    return client_dispatch(RECEIVED, std::size(RECEIVED), pmi_msg_to_string, msg);
}

uint32_t pmi_enable_port_vlan(const char *port_name, uint32_t vlan_id)
{
    auto *req = alloc_vlan_req(PMI_ENABLE_PORT_VLAN_REQ, port_name, vlan_id);
    VORN_TRACE_SEND(PMI_ENABLE_PORT_VLAN_REQ, client.server_mbox,
                    "PMI_ENABLE_PORT_VLAN_REQ: connection_ref =%u, procedure_ref=0x%x, port_name=%s, vlan=%u, ",
                    client.connection_ref, client.procedure_ref, port_name, vlan_id);
    client_send(&client, req);
    return client.procedure_ref;
}

uint32_t pmi_disable_port_vlan(const char *port_name, uint32_t vlan_id)
{
    auto *req = alloc_vlan_req(PMI_DISABLE_PORT_VLAN_REQ, port_name, vlan_id);
    VORN_TRACE_SEND(PMI_DISABLE_PORT_VLAN_REQ, client.server_mbox,
                    "PMI_DISABLE_PORT_VLAN_REQ: connection_ref =%u, procedure_ref=0x%x, port_name=%s vlan=%u, ",
                    client.connection_ref, client.procedure_ref, port_name, vlan_id);
    client_send(&client, req);
    return client.procedure_ref;
}

uint32_t pmi_client_state() { return client.state; }

const char *pmi_client_state_to_string(uint32_t state)
{
    static constexpr const char *TEXTS[] = {"INIT", "INITIATING", "GET_CAPABILITY", "INITIATED", "FAULTY"};
    return client_state_text(TEXTS, std::size(TEXTS), state);
}

void pmi_client_forget_all() { client = client_record{}; }
