// The EMI client: see emi_client.hpp. Where it departs from the common pattern: a connection confirm's reference is
// kept in every state, a connection reject resets the client, two capabilities are needed, and answers to requests are
// passed on in every state.
#include "emi_client.hpp"

#include <iterator>

#include "client_framework.hpp"
#include "vorn_trace.hpp"

namespace
{

client_record client; // NOLINT

void reset() { client_reset(&client); }

const client_discovery DISCOVERY = {EMI_SERVER_NAME, EMI_SERVER_UP, reset};

const char *state_text() { return emi_client_state_to_string(client.state); }

void fail() { client_fail(&client, EMI_SERVICE_FAULTY, EMI_CLIENT_FAULTY); }

void send_conn_establish_req()
{
    auto *req = client_alloc_conn_req(&client, EMI_CONN_ESTABLISH_REQ, EMI_PROPOSED_CONNECTION_REF);
    VORN_TRACE_SEND(EMI_CONN_ESTABLISH_REQ, client.server_mbox,
                    "EMI_CONN_ESTABLISH_REQ: connection_ref=%u, procedure_ref=0x%x, num_pvs=%u, pv[0]=%u",
                    from_be32(req->header.connection_ref), client.procedure_ref, from_be32(req->num_pvs),
                    from_be32(req->pv[0]));
    client_send(&client, req);
}

void send_get_capability_req()
{
    void *req = client_alloc_request(&client, sizeof(client_plain_msg), EMI_GET_CAPABILITY_REQ);
    VORN_TRACE_SEND(EMI_GET_CAPABILITY_REQ, client.server_mbox,
                    "EMI_GET_CAPABILITY_REQ: connection_ref=%u, procedure_ref=0x%x, ", client.connection_ref,
                    client.procedure_ref);
    client_send(&client, req);
}

emi_endpoint_req *alloc_endpoint_req(uint32_t msgno, const EmiEndpoint *endpoints, uint32_t n)
{
    const size_t list_size = sizeof(EmiEndpoint) * static_cast<size_t>(n);
    auto *req =
        static_cast<emi_endpoint_req *>(client_alloc_request(&client, sizeof(emi_endpoint_req) + list_size, msgno));
    req->num_of_eps = to_be32(n);
    if (n > 0) {
        memcpy(req->endpoints, endpoints, list_size);
    }
    return req;
}

void handle_server_up(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "EMI_SERVER_UP");
    if (client.state != EMI_CLIENT_INIT) {
        VORN_TRACE(TRACE_ERROR, "EMI_SERVER_UP received in wrong state, state_=%s", state_text());
        fail();
        return;
    }
    client.state = EMI_CLIENT_INITIATING;
    client_watch_server(&client, msg, EMI_SERVER_DOWN);
    send_conn_establish_req();
}

void handle_server_down(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "EMI_SERVER_DOWN");
    client_lose_server(&client, reset, EMI_SERVICE_DOWN);
}

void handle_conn_establish_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const client_conn_establish_cfm *>(msg);
    client.connection_ref = client_connection_ref(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "EMI_CONN_ESTABLISH_CFM: connection_ref=%u, procedure_ref=%u, selected_pv=%u", client.connection_ref,
                   client_procedure_ref(msg), from_be32(cfm->pv_selected));
    if (client.state != EMI_CLIENT_INITIATING) {
        VORN_TRACE(TRACE_ERROR, "EMI_CONN_ESTABLISH_CFM received in wrong state, state_=%s", state_text());
        fail();
        return;
    }
    client.state = EMI_CLIENT_CONN_ESTABLISHED;
    send_get_capability_req();
}

// The monitor is left running: the server's death still takes the client out of FAULTY.
void handle_conn_establish_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "EMI_CONN_ESTABLISH_REJ: connection_ref=%u, procedure_ref=%u, reject_reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), emi_rej_reason_to_string(client_reason(msg)));
    client.state = EMI_CLIENT_FAULTY;
    reset();
    client_raise_service_event(&client, EMI_SERVICE_FAULTY);
}

bool has_capability(const emi_get_capability_cfm *cfm, uint32_t capability)
{
    for (uint32_t i = 0; i < from_be32(cfm->num_caps); ++i) {
        if (from_be32(cfm->capability[i]) == capability) {
            return true;
        }
    }
    return false;
}

void handle_get_capability_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const emi_get_capability_cfm *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "EMI_GET_CAPABILITY_CFM: connection_ref=%u, procedure_ref=0x%x, num_caps=%u",
                   client_connection_ref(msg), client_procedure_ref(msg), from_be32(cfm->num_caps));
    if (client.state != EMI_CLIENT_CONN_ESTABLISHED) {
        VORN_TRACE(TRACE_ERROR, "EMI_GET_CAPABILITY_CFM received in wrong state, state_=%s", state_text());
        fail();
        return;
    }
    if (!has_capability(cfm, EMI_NEEDED_CAPABILITY_1) || !has_capability(cfm, EMI_NEEDED_CAPABILITY_2)) {
        VORN_TRACE(TRACE_ERROR, "EMI_GET_CAPABILITY_CFM does not contain needed capabilities");
        fail();
        return;
    }
    client.state = EMI_CLIENT_INITIATED;
    client_raise_service_event(&client, EMI_SERVICE_UP);
}

void handle_get_capability_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "EMI_GET_CAPABILITY_REJ: connection_ref=%u, procedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), emi_rej_reason_to_string(client_reason(msg)));
    VORN_TRACE(TRACE_ERROR, "EMI_GET_CAPABILITY_REJ received");
    client.state = EMI_CLIENT_FAULTY;
    client_raise_service_event(&client, EMI_SERVICE_FAULTY);
}

void handle_add_endpoint_cfm(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "EMI_ADD_ENDPOINT_CFM: connection_ref=%u, procedure_ref=%u",
                   client_connection_ref(msg), client_procedure_ref(msg));
    client_raise_result(&client, EMI_ADD_ENDPOINT_DONE, msg);
}

void handle_add_endpoint_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "EMI_ADD_ENDPOINT_REJ: connection_ref=%u, procedure_ref=0x%x, reason=%s", client_connection_ref(msg),
                   client_procedure_ref(msg), emi_rej_reason_to_string(client_reason(msg)));
    client_raise_result(&client, EMI_ADD_ENDPOINT_FAILED, msg);
}

void handle_remove_endpoint_cfm(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "EMI_REMOVE_ENDPOINT_CFM: connection_ref=%u, procedure_ref=%u",
                   client_connection_ref(msg), client_procedure_ref(msg));
    client_raise_result(&client, EMI_REMOVE_ENDPOINT_DONE, msg);
}

void handle_remove_endpoint_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "EMI_REMOVE_ENDPOINT_REJ: connection_ref=%u, procedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), emi_rej_reason_to_string(client_reason(msg)));
    client_raise_result(&client, EMI_REMOVE_ENDPOINT_FAILED, msg);
}

constexpr client_message RECEIVED[] = {
    {EMI_SERVER_DOWN, sizeof(client_plain_msg), 0, handle_server_down},
    {EMI_SERVER_UP, sizeof(client_plain_msg), 0, handle_server_up},
    {EMI_CONN_ESTABLISH_CFM, sizeof(client_conn_establish_cfm), 0, handle_conn_establish_cfm},
    {EMI_CONN_ESTABLISH_REJ, sizeof(client_rej), 0, handle_conn_establish_rej},
    {EMI_GET_CAPABILITY_CFM, sizeof(emi_get_capability_cfm), sizeof(be32), handle_get_capability_cfm},
    {EMI_GET_CAPABILITY_REJ, sizeof(client_rej), 0, handle_get_capability_rej},
    {EMI_ADD_ENDPOINT_CFM, sizeof(client_plain_msg), 0, handle_add_endpoint_cfm},
    {EMI_ADD_ENDPOINT_REJ, sizeof(client_rej), 0, handle_add_endpoint_rej},
    {EMI_REMOVE_ENDPOINT_CFM, sizeof(client_plain_msg), 0, handle_remove_endpoint_cfm},
    {EMI_REMOVE_ENDPOINT_REJ, sizeof(client_rej), 0, handle_remove_endpoint_rej},
};

} // namespace

void emi_client_init(client_event_handler handler) { client_init(&client, handler, DISCOVERY); }

bool emi_client_dispatch(const itc_msg *msg)
{
    return client_dispatch(RECEIVED, std::size(RECEIVED), emi_msg_to_string, msg);
}

uint32_t emi_add_endpoint(const EmiEndpoint *endpoints, uint32_t n)
{
    auto *req = alloc_endpoint_req(EMI_ADD_ENDPOINT_REQ, endpoints, n);
    VORN_TRACE_SEND(EMI_ADD_ENDPOINT_REQ, client.server_mbox,
                    "EMI_ADD_ENDPOINT_REQ: connection_ref=%u, procedure_ref=0x%x, num_of_eps=%u", client.connection_ref,
                    client.procedure_ref, n);
    client_send(&client, req);
    return client.procedure_ref;
}

uint32_t emi_remove_endpoint(const EmiEndpoint *endpoints, uint32_t n)
{
    auto *req = alloc_endpoint_req(EMI_REMOVE_ENDPOINT_REQ, endpoints, n);
    VORN_TRACE_SEND(EMI_REMOVE_ENDPOINT_REQ, client.server_mbox,
                    "EMI_REMOVE_ENDPOINT_REQ: connection_ref=%u, procedure_ref=0x%x, num_of_eps=%u",
                    client.connection_ref, client.procedure_ref, n);
    client_send(&client, req);
    return client.procedure_ref;
}

uint32_t emi_client_state() { return client.state; }

const char *emi_client_state_to_string(uint32_t state)
{
    static constexpr const char *TEXTS[] = {"INIT", "INITIATING", "CONN_ESTABLISHED", "INITIATED", "FAULTY"};
    return client_state_text(TEXTS, std::size(TEXTS), state);
}

void emi_client_forget_all() { client = client_record{}; }
