// The FMI client's connection to its server: see fmi_client.hpp. Where it departs from the common pattern: a missing
// mailbox is reported, six capabilities are needed, and the answers to requests never come through the dispatcher.
#include "fmi_client.hpp"

namespace
{

client_record &client = *fmi_client_record();

client_verdict connect(const client_input &)
{
    auto *req = client_alloc_conn_req(&client, FMI_CONN_ESTABLISH_REQ, FMI_PROPOSED_CONNECTION_REF);
    VORN_TRACE_SEND(
        FMI_CONN_ESTABLISH_REQ, client.server_mbox,
        "FMI_CONN_ESTABLISH_REQ: connection_ref = %u, procedure_ref=0x%x, number_of_revisions=%u, protocol_rev[0]=%u",
        FMI_PROPOSED_CONNECTION_REF, client.procedure_ref, 1U, CLIENT_PROTOCOL_VERSION);
    client_send(&client, req);
    return CLIENT_TAKEN;
}

client_verdict ask_for_capabilities(const client_input &in)
{
    client.connection_ref = in.connection_ref;
    auto *req = client_alloc_request<client_plain_msg>(&client, FMI_GET_CAPABILITY_REQ);
    VORN_TRACE_SEND(FMI_GET_CAPABILITY_REQ, client.server_mbox, "FMI_GET_CAPABILITY_REQ: proc_ref: %u, conn_ref: %u",
                    client.procedure_ref, client.connection_ref);
    client_send(&client, req);
    return CLIENT_TAKEN;
}

// Names every capability that is missing, not only the first.
client_verdict check_capabilities(const client_input &in)
{
    static constexpr fmi_capability NEEDED[] = {
        FMI_CAPABILITY_ACL_APPEND_DYNAMIC_RULE, FMI_CAPABILITY_ACL_APPEND_STATIC_RULE,
        FMI_CAPABILITY_ACL_DEFAULT_ACTION,      FMI_CAPABILITY_ACL_POLICER,
        FMI_CAPABILITY_ACL_REMOVE_DYNAMIC_RULE, FMI_CAPABILITY_ACL_REMOVE_STATIC_RULE,
    };
    client_verdict verdict = CLIENT_TAKEN;
    for (const fmi_capability capability : NEEDED) {
        if (!client_lists(in, sizeof(fmi_capability_entry), capability)) {
            VORN_TRACE(TRACE_ERROR, "FMI_GET_CAPABILITIES_CFM does not contain %s",
                       fmi_capability_to_string(capability));
            verdict = CLIENT_REFUSED;
        }
    }
    return verdict;
}

constexpr client_step STEPS[] = {
    {FMI_SERVER_UP, sizeof(client_plain_msg), CLIENT_RECEIVED_AS("FMI_SERVER_UP"),
     only_in(FMI_CLIENT_INIT, CLIENT_NOTICE(TRACE_ERROR, "FMI_SERVER_UP_IND received in wrong state, state_%s")),
     goes_to(FMI_CLIENT_INITIATING), connect},
    {FMI_SERVER_DOWN, sizeof(client_plain_msg), CLIENT_RECEIVED_AS("FMI_SERVER_DOWN"), IN_ANY_STATE,
     goes_to(FMI_CLIENT_INIT, FMI_SERVICE_DOWN)},
    // Its trace has the connection_ref kept so far.
    {FMI_CONN_ESTABLISH_CFM, sizeof(client_conn_establish_cfm),
     CLIENT_RECEIVED_AS("FMI_CONN_ESTABLISH_CFM: connection_ref =%u, procedure_ref=0x%x, protocol_rev=%u",
                        client.connection_ref, in.procedure_ref, in.word),
     only_in(FMI_CLIENT_INITIATING,
             CLIENT_NOTICE(TRACE_ERROR, "FMI_CONN_ESTABLISH_CFM received in wrong state, state_=%s")),
     goes_to(FMI_CLIENT_GET_CAPABILITY), ask_for_capabilities},
    {FMI_CONN_ESTABLISH_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("FMI_CONN_ESTABLISH_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                     fmi_rej_reason_to_string(in.word)),
     never_right(CLIENT_REMARK(TRACE_ERROR, "FMI_CONN_ESTABLISH_REJ received")), STAYS},
    {FMI_GET_CAPABILITIES_CFM, sizeof(fmi_get_capabilities_cfm),
     CLIENT_RECEIVED("FMI_GET_CAPABILITIES_CFM: connection_ref =%u, procedure_ref=%u, num_caps=%u", in.word),
     only_in(FMI_CLIENT_GET_CAPABILITY,
             CLIENT_NOTICE(TRACE_ERROR, "FMI_GET_CAPABILITIES_CFM received in wrong state, state_=%s")),
     goes_to(FMI_CLIENT_INITIATED, FMI_SERVICE_UP), check_capabilities, sizeof(fmi_capability_entry)},
    {FMI_GET_CAPABILITIES_REJ, sizeof(client_rej),
     CLIENT_RECEIVED("FMI_GET_CAPABILITIES_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                     fmi_rej_reason_to_string(in.word)),
     IN_ANY_STATE, goes_to(FMI_CLIENT_FAULTY, FMI_SERVICE_FAULTY)},
};

constexpr client_protocol PROTOCOL = {
    .server_name = FMI_SERVER_NAME,
    .server_up_ind = FMI_SERVER_UP,
    .server_down_ind = FMI_SERVER_DOWN,
    .forget_own = fmi_acl_free,
    .faulty_event = FMI_SERVICE_FAULTY,
    .faulty_state = FMI_CLIENT_FAULTY,
    .faulty_without_mailbox = true,
    .state_name = fmi_client_state_to_string,
    .message_name = fmi_msg_to_string,
    .steps = STEPS,
    .step_count = std::size(STEPS),
};

} // namespace

void fmi_client_init(client_event_handler handler) { client_init(&client, handler, PROTOCOL); }

bool fmi_client_dispatch(const itc_msg *msg) { return client_dispatch(&client, PROTOCOL, msg); }

void fmi_client_forget_all()
{
    fmi_acl_free();
    client = client_record{};
}
