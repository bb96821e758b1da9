// The EMI client: see emi_client.hpp. Where it departs from the common pattern: a connection confirm's reference is
// kept in every state, a connection reject resets the client, two capabilities are needed, and answers to requests are
// passed on in every state.
#include "emi_client.hpp"

#include "client_framework.hpp"

namespace
{

client_record client;

emi_endpoint_req *alloc_endpoint_req(uint32_t msgno, const EmiEndpoint *endpoints, uint32_t n)
{
    const size_t list_size = sizeof(EmiEndpoint) * static_cast<size_t>(n);
    auto *req = client_alloc_request<emi_endpoint_req>(&client, msgno, list_size);
    req->num_of_eps = to_be32(n);
    if (n > 0) {
        memcpy(req->endpoints, endpoints, list_size);
    }
    return req;
}

client_verdict connect(const client_input &)
{
    auto *req = client_alloc_conn_req(&client, EMI_CONN_ESTABLISH_REQ, EMI_PROPOSED_CONNECTION_REF);
    VORN_TRACE_SEND(EMI_CONN_ESTABLISH_REQ, client.server_mbox,
                    "EMI_CONN_ESTABLISH_REQ: connection_ref=%u, procedure_ref=0x%x, num_pvs=%u, pv[0]=%u",
                    EMI_PROPOSED_CONNECTION_REF, client.procedure_ref, 1U, CLIENT_PROTOCOL_VERSION);
    client_send(&client, req);
    return CLIENT_TAKEN;
}

// Whatever the state.
void keep_connection_ref(const client_input &in)
{
    client.connection_ref = in.connection_ref;
    VORN_TRACE_REC(in.msg->msgno, itc_sender(in.msg),
                   "EMI_CONN_ESTABLISH_CFM: connection_ref=%u, procedure_ref=%u, selected_pv=%u", in.connection_ref,
                   in.procedure_ref, in.word);
}

client_verdict ask_for_capabilities(const client_input &)
{
    auto *req = client_alloc_request<client_plain_msg>(&client, EMI_GET_CAPABILITY_REQ);
    VORN_TRACE_SEND(EMI_GET_CAPABILITY_REQ, client.server_mbox,
                    "EMI_GET_CAPABILITY_REQ: connection_ref=%u, procedure_ref=0x%x, ", client.connection_ref,
                    client.procedure_ref);
    client_send(&client, req);
    return CLIENT_TAKEN;
}

// The monitor is left running: the server's death still takes the client out of FAULTY.
client_verdict forget_connection(const client_input &)
{
    client_reset(&client);
    return CLIENT_TAKEN;
}

client_verdict check_capabilities(const client_input &in)
{
    if (client_lists(in, sizeof(be32), EMI_NEEDED_CAPABILITY_1) &&
        client_lists(in, sizeof(be32), EMI_NEEDED_CAPABILITY_2)) {
        return CLIENT_TAKEN;
    }
    VORN_TRACE(TRACE_ERROR, "EMI_GET_CAPABILITY_CFM does not contain needed capabilities");
    return CLIENT_REFUSED;
}

client_verdict note_capability_rej(const client_input &)
{
    VORN_TRACE(TRACE_ERROR, "EMI_GET_CAPABILITY_REJ received");
    return CLIENT_TAKEN;
}

constexpr client_step STEPS[] = {
    {EMI_SERVER_UP, sizeof(client_plain_msg), CLIENT_RECEIVED_AS("EMI_SERVER_UP"),
     only_in(EMI_CLIENT_INIT, CLIENT_NOTICE(TRACE_ERROR, "EMI_SERVER_UP received in wrong state, state_=%s")),
     goes_to(EMI_CLIENT_INITIATING), connect},
    {EMI_SERVER_DOWN, sizeof(client_plain_msg), CLIENT_RECEIVED_AS("EMI_SERVER_DOWN"), IN_ANY_STATE,
     goes_to(EMI_CLIENT_INIT, EMI_SERVICE_DOWN)},
    {EMI_CONN_ESTABLISH_CFM, sizeof(client_conn_establish_cfm), keep_connection_ref,
     only_in(EMI_CLIENT_INITIATING,
             CLIENT_NOTICE(TRACE_ERROR, "EMI_CONN_ESTABLISH_CFM received in wrong state, state_=%s")),
     goes_to(EMI_CLIENT_CONN_ESTABLISHED), ask_for_capabilities},
    {EMI_CONN_ESTABLISH_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("EMI_CONN_ESTABLISH_REJ: connection_ref=%u, procedure_ref=%u, reject_reason=%s",
                     emi_rej_reason_to_string(in.word)),
     IN_ANY_STATE, goes_to(EMI_CLIENT_FAULTY, EMI_SERVICE_FAULTY), forget_connection},
    {EMI_GET_CAPABILITY_CFM, sizeof(emi_get_capability_cfm),
     CLIENT_RECEIVED("EMI_GET_CAPABILITY_CFM: connection_ref=%u, procedure_ref=0x%x, num_caps=%u", in.word),
     only_in(EMI_CLIENT_CONN_ESTABLISHED,
             CLIENT_NOTICE(TRACE_ERROR, "EMI_GET_CAPABILITY_CFM received in wrong state, state_=%s")),
     goes_to(EMI_CLIENT_INITIATED, EMI_SERVICE_UP), check_capabilities, sizeof(be32)},
    {EMI_GET_CAPABILITY_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("EMI_GET_CAPABILITY_REJ: connection_ref=%u, procedure_ref=0x%x, reason=%s",
                     emi_rej_reason_to_string(in.word)),
     IN_ANY_STATE, goes_to(EMI_CLIENT_FAULTY, EMI_SERVICE_FAULTY), note_capability_rej},
    {EMI_ADD_ENDPOINT_CFM, sizeof(client_plain_msg),
     CLIENT_RECEIVED("EMI_ADD_ENDPOINT_CFM: connection_ref=%u, procedure_ref=%u"), IN_ANY_STATE,
     reports(EMI_ADD_ENDPOINT_DONE)},
    {EMI_ADD_ENDPOINT_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("EMI_ADD_ENDPOINT_REJ: connection_ref=%u, procedure_ref=0x%x, reason=%s",
                     emi_rej_reason_to_string(in.word)),
     IN_ANY_STATE, reports(EMI_ADD_ENDPOINT_FAILED)},
    {EMI_REMOVE_ENDPOINT_CFM, sizeof(client_plain_msg),
     CLIENT_RECEIVED("EMI_REMOVE_ENDPOINT_CFM: connection_ref=%u, procedure_ref=%u"), IN_ANY_STATE,
     reports(EMI_REMOVE_ENDPOINT_DONE)},
    {EMI_REMOVE_ENDPOINT_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("EMI_REMOVE_ENDPOINT_REJ: connection_ref=%u, procedure_ref=0x%x, reason=%s",
                     emi_rej_reason_to_string(in.word)),
     IN_ANY_STATE, reports(EMI_REMOVE_ENDPOINT_FAILED)},
};

constexpr client_protocol PROTOCOL = {
    .server_name = EMI_SERVER_NAME,
    .server_up_ind = EMI_SERVER_UP,
    .server_down_ind = EMI_SERVER_DOWN,
    .faulty_event = EMI_SERVICE_FAULTY,
    .faulty_state = EMI_CLIENT_FAULTY,
    .state_name = emi_client_state_to_string,
    .message_name = emi_msg_to_string,
    .steps = STEPS,
    .step_count = std::size(STEPS),
};

} // namespace

void emi_client_init(client_event_handler handler) { client_init(&client, handler, PROTOCOL); }

bool emi_client_dispatch(const itc_msg *msg) { return client_dispatch(&client, PROTOCOL, msg); }

uint32_t emi_add_endpoint(const EmiEndpoint *endpoints, uint32_t n)
{
    auto *req = alloc_endpoint_req(EMI_ADD_ENDPOINT_REQ, endpoints, n);
    VORN_TRACE_SEND(EMI_ADD_ENDPOINT_REQ, client.server_mbox,
                    "EMI_ADD_ENDPOINT_REQ: connection_ref=%u, procedure_ref=0x%x, num_of_eps=%u", client.connection_ref,
                    client.procedure_ref, n);
    return client_send(&client, req);
}

uint32_t emi_remove_endpoint(const EmiEndpoint *endpoints, uint32_t n)
{
    auto *req = alloc_endpoint_req(EMI_REMOVE_ENDPOINT_REQ, endpoints, n);
    VORN_TRACE_SEND(EMI_REMOVE_ENDPOINT_REQ, client.server_mbox,
                    "EMI_REMOVE_ENDPOINT_REQ: connection_ref=%u, procedure_ref=0x%x, num_of_eps=%u",
                    client.connection_ref, client.procedure_ref, n);
    return client_send(&client, req);
}

uint32_t emi_client_state() { return client.state; }

const char *emi_client_state_to_string(uint32_t state)
{
    static constexpr const char *TEXTS[] = {"INIT", "INITIATING", "CONN_ESTABLISHED", "INITIATED", "FAULTY"};
    return client_state_text(TEXTS, std::size(TEXTS), state);
}

void emi_client_forget_all() { client = client_record{}; }
