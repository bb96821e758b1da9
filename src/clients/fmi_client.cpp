// The FMI client's connection to its server: see fmi_client.hpp. Where it departs from the common pattern: a missing
// mailbox is reported, six capabilities are needed, and the answers to requests never come through the dispatcher.
#include "fmi_client.hpp"

#include <iterator>

#include "vorn_trace.hpp"

namespace
{

client_record &client = *fmi_client_record(); // NOLINT

void reset()
{
    fmi_acl_free();
    client_reset(&client);
}

const client_discovery DISCOVERY = {FMI_SERVER_NAME, FMI_SERVER_UP, reset};

const char *state_text() { return fmi_client_state_to_string(client.state); }

void fail() { client_fail(&client, FMI_SERVICE_FAULTY, FMI_CLIENT_FAULTY); }

void send_conn_establish_req()
{
    auto *req = client_alloc_conn_req(&client, FMI_CONN_ESTABLISH_REQ, FMI_PROPOSED_CONNECTION_REF);
    VORN_TRACE_SEND(
        FMI_CONN_ESTABLISH_REQ, client.server_mbox,
        "FMI_CONN_ESTABLISH_REQ: connection_ref = %u, procedure_ref=0x%x, number_of_revisions=%u, protocol_rev[0]=%u",
        from_be32(req->header.connection_ref), client.procedure_ref, from_be32(req->num_pvs), from_be32(req->pv[0]));
    client_send(&client, req);
}

void send_get_capability_req()
{
    void *req = client_alloc_request(&client, sizeof(client_plain_msg), FMI_GET_CAPABILITY_REQ);
    VORN_TRACE_SEND(FMI_GET_CAPABILITY_REQ, client.server_mbox, "FMI_GET_CAPABILITY_REQ: proc_ref: %u, conn_ref: %u",
                    client.procedure_ref, client.connection_ref);
    client_send(&client, req);
}

void handle_server_up(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "FMI_SERVER_UP");
    if (client.state != FMI_CLIENT_INIT) {
        VORN_TRACE(TRACE_ERROR, "FMI_SERVER_UP_IND received in wrong state, state_%s", state_text());
        fail();
        return;
    }
    client_watch_server(&client, msg, FMI_SERVER_DOWN);
    client.state = FMI_CLIENT_INITIATING;
    send_conn_establish_req();
}

void handle_server_down(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg), "FMI_SERVER_DOWN");
    client_lose_server(&client, reset, FMI_SERVICE_DOWN);
}

void handle_conn_establish_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const client_conn_establish_cfm *>(msg);
    // The connection_ref in this trace is the one kept so far.
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_CONN_ESTABLISH_CFM: connection_ref =%u, procedure_ref=0x%x, protocol_rev=%u",
                   client.connection_ref, client_procedure_ref(msg), from_be32(cfm->pv_selected));
    if (client.state != FMI_CLIENT_INITIATING) {
        VORN_TRACE(TRACE_ERROR, "FMI_CONN_ESTABLISH_CFM received in wrong state, state_=%s", state_text());
        fail();
        return;
    }
    client.connection_ref = client_connection_ref(msg);
    client.state = FMI_CLIENT_GET_CAPABILITY;
    send_get_capability_req();
}

void handle_conn_establish_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_CONN_ESTABLISH_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), fmi_rej_reason_to_string(client_reason(msg)));
    VORN_TRACE(TRACE_ERROR, "FMI_CONN_ESTABLISH_REJ received");
    fail();
}

bool has_capability(const fmi_get_capabilities_cfm *cfm, uint32_t capability)
{
    for (uint32_t i = 0; i < from_be32(cfm->num_caps); ++i) {
        if (from_be32(cfm->entries[i].capability) == capability) {
            return true;
        }
    }
    return false;
}

// Names every capability that is missing, not only the first.
bool has_needed_capabilities(const fmi_get_capabilities_cfm *cfm)
{
    static constexpr uint32_t NEEDED[] = {
        FMI_CAPABILITY_ACL_APPEND_DYNAMIC_RULE, FMI_CAPABILITY_ACL_APPEND_STATIC_RULE,
        FMI_CAPABILITY_ACL_DEFAULT_ACTION,      FMI_CAPABILITY_ACL_POLICER,
        FMI_CAPABILITY_ACL_REMOVE_DYNAMIC_RULE, FMI_CAPABILITY_ACL_REMOVE_STATIC_RULE,
    };
    bool all = true;
    for (const uint32_t capability : NEEDED) {
        if (!has_capability(cfm, capability)) {
            VORN_TRACE(TRACE_ERROR, "FMI_GET_CAPABILITIES_CFM does not contain %s",
                       fmi_capability_to_string(capability));
            all = false;
        }
    }
    return all;
}

void handle_get_capabilities_cfm(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const fmi_get_capabilities_cfm *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_GET_CAPABILITIES_CFM: connection_ref =%u, procedure_ref=%u, num_caps=%u",
                   client_connection_ref(msg), client_procedure_ref(msg), from_be32(cfm->num_caps));
    if (client.state != FMI_CLIENT_GET_CAPABILITY) {
        VORN_TRACE(TRACE_ERROR, "FMI_GET_CAPABILITIES_CFM received in wrong state, state_=%s", state_text());
        fail();
        return;
    }
    if (!has_needed_capabilities(cfm)) {
        fail();
        return;
    }
    client.state = FMI_CLIENT_INITIATED;
    client_raise_service_event(&client, FMI_SERVICE_UP);
}

void handle_get_capabilities_rej(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_GET_CAPABILITIES_REJ: connection_ref =%u, procedure_ref=0x%x, reason=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), fmi_rej_reason_to_string(client_reason(msg)));
    client.state = FMI_CLIENT_FAULTY;
    client_raise_service_event(&client, FMI_SERVICE_FAULTY);
}

constexpr client_message RECEIVED[] = {
    {FMI_CONN_ESTABLISH_CFM, sizeof(client_conn_establish_cfm), 0, handle_conn_establish_cfm},
    {FMI_CONN_ESTABLISH_REJ, sizeof(client_rej), 0, handle_conn_establish_rej},
    {FMI_GET_CAPABILITIES_CFM, sizeof(fmi_get_capabilities_cfm), sizeof(fmi_capability_entry),
     handle_get_capabilities_cfm},
    {FMI_GET_CAPABILITIES_REJ, sizeof(client_rej), 0, handle_get_capabilities_rej},
    {FMI_SERVER_UP, sizeof(client_plain_msg), 0, handle_server_up},
    {FMI_SERVER_DOWN, sizeof(client_plain_msg), 0, handle_server_down},
};

} // namespace

void fmi_client_init(client_event_handler handler)
{
    if (client_init(&client, handler, DISCOVERY) == CLIENT_INIT_NO_MAILBOX) {
        client.state = FMI_CLIENT_FAULTY;
        client_raise_service_event(&client, FMI_SERVICE_FAULTY);
    }
}

bool fmi_client_dispatch(const itc_msg *msg)
{
    return client_dispatch(RECEIVED, std::size(RECEIVED), fmi_msg_to_string, msg);
}

void fmi_client_forget_all()
{
    fmi_acl_free();
    client = client_record{};
}
