// One request to the flow manager and the wait for its answer. The wait takes only this request's confirm and reject
// out of the mailbox; everything else stays queued for the main loop. There is one receive per request: a stale answer
// of an earlier request, which nobody waits for any more, makes this one fail.
//
// What a port has is kept elsewhere (fmi_acl.cpp).
#include "fmi_requests.hpp"

#include "fmi_messages.hpp"
#include "fmi_record.hpp"
#include "vorn_trace.hpp"

namespace
{

constexpr uint32_t ANSWER_TIMEOUT_MS = 500;

client_record &client = *fmi_client_record(); // NOLINT

struct port_text {
    char text[FMI_PORT_NAME_LEN + 1];
};

struct error_description {
    char text[FMI_ERROR_TEXT_LEN + 1];
};

// A string of an answer, which ends at its field's or the message's end at the latest.
port_text port_name_of(const itc_msg *msg, size_t offset)
{
    port_text port;
    const size_t tail = client_tail_size(msg, offset);
    client_copy_text(port.text, sizeof port.text, reinterpret_cast<const char *>(msg) + offset,
                     tail < FMI_PORT_NAME_LEN ? tail : FMI_PORT_NAME_LEN);
    return port;
}

error_description error_text_of(const itc_msg *msg, size_t offset)
{
    error_description error;
    const size_t tail = client_tail_size(msg, offset);
    client_copy_text(error.text, sizeof error.text, reinterpret_cast<const char *>(msg) + offset,
                     tail < FMI_ERROR_TEXT_LEN ? tail : FMI_ERROR_TEXT_LEN);
    return error;
}

void write_port_name(char (&field)[FMI_PORT_NAME_LEN], const char *port)
{
    client_copy_text(field, sizeof field, port, FMI_PORT_NAME_LEN);
}

bool wait_for_answer(const fmi_exchange &exchange, uint32_t *id)
{
    const uint32_t filter[] = {2, exchange.cfm, exchange.rej};
    itc_msg *answer = itc_receive(filter, ANSWER_TIMEOUT_MS, ITC_FROM_ANY);
    if (answer == nullptr) {
        VORN_TRACE(TRACE_WARNING, "WARNING: Fmi server didn't send response in expected time.");
        return false;
    }
    const bool confirmed = fmi_take_answer(exchange, answer, id);
    itc_free(&answer);
    return confirmed;
}

bool send_and_wait(void *req, const fmi_exchange &exchange, uint32_t *id)
{
    client_send(&client, req);
    return wait_for_answer(exchange, id);
}

// ---- What the answers look like ----

uint32_t default_action_confirmed(const itc_msg *msg)
{
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_SET_DEFAULT_ACTION_CFM: connection_ref =%u, procedure_ref=%u, port_name: %s",
                   client_connection_ref(msg), client_procedure_ref(msg),
                   port_name_of(msg, offsetof(fmi_set_default_action_cfm, port_name)).text);
    return 0;
}

void default_action_rejected(const itc_msg *msg)
{
    const auto *rej = reinterpret_cast<const fmi_port_rej *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_SET_DEFAULT_ACTION_REJ: connection_ref =%u, procedure_ref=%u, port_name: %s, "
                   "error code=%s, error description=%s",
                   client_connection_ref(msg), client_procedure_ref(msg),
                   port_name_of(msg, offsetof(fmi_port_rej, port_name)).text,
                   fmi_rej_reason_to_string(from_be32(rej->error_code)),
                   error_text_of(msg, offsetof(fmi_port_rej, error_text)).text);
}

uint32_t append_static_confirmed(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const fmi_append_static_rule_cfm *>(msg);
    const uint32_t id = from_be32(cfm->id);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_APPEND_STATIC_RULE_CFM: connection_ref =%u, procedure_ref=%u, port_name: %s, "
                   "rule_type= %u, id= %u",
                   client_connection_ref(msg), client_procedure_ref(msg),
                   port_name_of(msg, offsetof(fmi_append_static_rule_cfm, port_name)).text, from_be32(cfm->rule_type),
                   id);
    return id;
}

void append_static_rejected(const itc_msg *msg)
{
    const auto *rej = reinterpret_cast<const fmi_append_static_rule_rej *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_APPEND_STATIC_RULE_REJ: connection_ref =%u, procedure_ref=%u, port_name: %s, "
                   "rule_type= %u, error code=%s, error description=%s",
                   client_connection_ref(msg), client_procedure_ref(msg),
                   port_name_of(msg, offsetof(fmi_append_static_rule_rej, port_name)).text, from_be32(rej->rule_type),
                   fmi_rej_reason_to_string(from_be32(rej->error_code)),
                   error_text_of(msg, offsetof(fmi_append_static_rule_rej, error_text)).text);
}

uint32_t remove_static_confirmed(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const fmi_rule_id_msg *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_REMOVE_STATIC_RULE_CFM: connection_ref =%u, procedure_ref=%u, rule id=%u, port name=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), from_be32(cfm->id),
                   port_name_of(msg, offsetof(fmi_rule_id_msg, port_name)).text);
    return from_be32(cfm->id);
}

void remove_static_rejected(const itc_msg *msg)
{
    const auto *rej = reinterpret_cast<const fmi_remove_static_rule_rej *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_REMOVE_STATIC_RULE_REJ: connection_ref =%u, procedure_ref=%u, rule id=%u, port name=%s,"
                   "error code=%s error description=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), from_be32(rej->id),
                   port_name_of(msg, offsetof(fmi_remove_static_rule_rej, port_name)).text,
                   fmi_rej_reason_to_string(from_be32(rej->error_code)),
                   error_text_of(msg, offsetof(fmi_remove_static_rule_rej, error_text)).text);
}

uint32_t append_dynamic_confirmed(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const fmi_append_dynamic_rule_cfm *>(msg);
    const uint32_t id = from_be32(cfm->rule_id);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_APPEND_DYNAMIC_RULE_CFM: connection_ref =%u, procedure_ref=%u, port name=%s, rule_id=%u ",
                   client_connection_ref(msg), client_procedure_ref(msg),
                   port_name_of(msg, offsetof(fmi_append_dynamic_rule_cfm, port_name)).text, id);
    return id;
}

void append_dynamic_rejected(const itc_msg *msg)
{
    const auto *rej = reinterpret_cast<const fmi_port_rej *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_APPEND_DYNAMIC_RULE_REJ: connection_ref =%u, procedure_ref=%u, port name=%s,"
                   "error code=%s error description=%s",
                   client_connection_ref(msg), client_procedure_ref(msg),
                   port_name_of(msg, offsetof(fmi_port_rej, port_name)).text,
                   fmi_rej_reason_to_string(from_be32(rej->error_code)),
                   error_text_of(msg, offsetof(fmi_port_rej, error_text)).text);
}

uint32_t remove_dynamic_confirmed(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const fmi_rule_id_msg *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_REMOVE_DYNAMIC_RULE_CFM: connection_ref =%u, procedure_ref=%u, rule id=%u, port name=%s",
                   client_connection_ref(msg), client_procedure_ref(msg), from_be32(cfm->id),
                   port_name_of(msg, offsetof(fmi_rule_id_msg, port_name)).text);
    return from_be32(cfm->id);
}

void remove_dynamic_rejected(const itc_msg *msg)
{
    const auto *rej = reinterpret_cast<const fmi_remove_dynamic_rule_rej *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_REMOVE_DYNAMIC_RULE_REJ: connection_ref =%u, procedure_ref=%u, port_name: %s, "
                   "rule_id= %u, error code=%s, error description=%s",
                   client_connection_ref(msg), client_procedure_ref(msg),
                   port_name_of(msg, offsetof(fmi_remove_dynamic_rule_rej, port_name)).text, from_be32(rej->rule_id),
                   fmi_rej_reason_to_string(from_be32(rej->error_code)),
                   error_text_of(msg, offsetof(fmi_remove_dynamic_rule_rej, error_text)).text);
}

uint32_t create_policer_confirmed(const itc_msg *msg)
{
    const auto *cfm = reinterpret_cast<const fmi_create_policer_cfm *>(msg);
    const port_text port = port_name_of(msg, offsetof(fmi_create_policer_cfm, port_name));
    const uint32_t id = from_be32(cfm->id);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_CREATE_POLICER_CFM: connection_ref =%u, procedure_ref=%u, port_name: %s, id= %u",
                   client_connection_ref(msg), client_procedure_ref(msg), port.text, id);
    if (client.state != FMI_CLIENT_INITIATED) {
        VORN_TRACE(TRACE_ERROR, "FMI_ACL_CREATE_POLICER_CFM received in wrong state, state_=%s",
                   fmi_client_state_to_string(client.state));
    }
    return id;
}

void create_policer_rejected(const itc_msg *msg)
{
    const auto *rej = reinterpret_cast<const fmi_port_rej *>(msg);
    VORN_TRACE_REC(msg->msgno, itc_sender(msg),
                   "FMI_ACL_CREATE_POLICER_REJ: connection_ref =%u, procedure_ref=%u, port_name: %s, error code=%s, "
                   "error description=%s",
                   client_connection_ref(msg), client_procedure_ref(msg),
                   port_name_of(msg, offsetof(fmi_port_rej, port_name)).text,
                   fmi_rej_reason_to_string(from_be32(rej->error_code)),
                   error_text_of(msg, offsetof(fmi_port_rej, error_text)).text);
}

// ---- The exchanges. An answer needs the fields in front of its last string, not the string ----

constexpr fmi_exchange DEFAULT_ACTION = {
    FMI_ACL_SET_DEFAULT_ACTION_CFM,     offsetof(fmi_set_default_action_cfm, port_name),
    default_action_confirmed,           FMI_ACL_SET_DEFAULT_ACTION_REJ,
    offsetof(fmi_port_rej, error_text), default_action_rejected};

constexpr fmi_exchange APPEND_STATIC_RULE = {
    FMI_ACL_APPEND_STATIC_RULE_CFM, offsetof(fmi_append_static_rule_cfm, port_name), append_static_confirmed,
    FMI_ACL_APPEND_STATIC_RULE_REJ, offsetof(fmi_append_static_rule_rej, port_name), append_static_rejected};

constexpr fmi_exchange REMOVE_STATIC_RULE = {FMI_ACL_REMOVE_STATIC_RULE_CFM,
                                             offsetof(fmi_rule_id_msg, port_name),
                                             remove_static_confirmed,
                                             FMI_ACL_REMOVE_STATIC_RULE_REJ,
                                             offsetof(fmi_remove_static_rule_rej, port_name),
                                             remove_static_rejected};

constexpr fmi_exchange APPEND_DYNAMIC_RULE = {FMI_ACL_APPEND_DYNAMIC_RULE_CFM,    sizeof(fmi_append_dynamic_rule_cfm),
                                              append_dynamic_confirmed,           FMI_ACL_APPEND_DYNAMIC_RULE_REJ,
                                              offsetof(fmi_port_rej, error_text), append_dynamic_rejected};

constexpr fmi_exchange REMOVE_DYNAMIC_RULE = {FMI_ACL_REMOVE_DYNAMIC_RULE_CFM,
                                              offsetof(fmi_rule_id_msg, port_name),
                                              remove_dynamic_confirmed,
                                              FMI_ACL_REMOVE_DYNAMIC_RULE_REJ,
                                              offsetof(fmi_remove_dynamic_rule_rej, error_text),
                                              remove_dynamic_rejected};

constexpr fmi_exchange CREATE_POLICER = {
    FMI_ACL_CREATE_POLICER_CFM, offsetof(fmi_create_policer_cfm, port_name), create_policer_confirmed,
    FMI_ACL_CREATE_POLICER_REJ, offsetof(fmi_port_rej, error_text),          create_policer_rejected};

fmi_rule_id_msg *alloc_remove_req(uint32_t msgno, const char *port, uint32_t id)
{
    auto *req = static_cast<fmi_rule_id_msg *>(client_alloc_request(&client, sizeof(fmi_rule_id_msg), msgno));
    req->id = to_be32(id);
    write_port_name(req->port_name, port);
    return req;
}

void write_rule_entries(fmi_dynamic_rule_entry *entry, const mac_address *macs, uint32_t count, uint16_t ether_type)
{
    for (uint32_t i = 0; i < count; ++i, ++entry) {
        entry->type = to_be32(FMI_ENTRY_DEST_MAC);
        entry->mac = macs[i];
        memset(entry->mask.byte, 0xFF, sizeof entry->mask.byte);
    }
    entry->type = to_be32(FMI_ENTRY_ETHER_TYPE);
    entry->ether_type = to_be16(ether_type);
}

} // namespace

bool fmi_take_answer(const fmi_exchange &exchange, const itc_msg *answer, uint32_t *id)
{
    const char *name = fmi_msg_to_string(answer->msgno);
    if (!client_is_long_enough(answer, sizeof(client_header), name)) {
        return false;
    }
    if (client_procedure_ref(answer) != client.procedure_ref) {
        VORN_TRACE(TRACE_WARNING, "Received wrong rsp. Waiting proc_ref  %u, received proc_ref %u",
                   client.procedure_ref, client_procedure_ref(answer));
        return false;
    }
    if (answer->msgno == exchange.cfm) {
        if (!client_is_long_enough(answer, exchange.cfm_min_size, name)) {
            return false;
        }
        *id = exchange.confirmed(answer);
        return true;
    }
    if (answer->msgno != exchange.rej) {
        VORN_TRACE(TRACE_WARNING, "WARNING:Unexpected message received, msg_no=0x%x", answer->msgno);
    } else if (client_is_long_enough(answer, exchange.rej_min_size, name)) {
        exchange.rejected(answer);
    }
    return false;
}

uint32_t fmi_append_static_rule(const char *port, uint32_t type)
{
    auto *req = static_cast<fmi_append_static_rule_req *>(
        client_alloc_request(&client, sizeof(fmi_append_static_rule_req), FMI_ACL_APPEND_STATIC_RULE_REQ));
    req->rule_type = to_be32(type);
    write_port_name(req->port_name, port);
    VORN_TRACE_SEND(FMI_ACL_APPEND_STATIC_RULE_REQ, client.server_mbox,
                    "FMI_ACL_APPEND_STATIC_RULE_REQ: proc_ref: %u, conn_ref: %u, port_name: %s, rule_type %u",
                    client.procedure_ref, client.connection_ref, port, type);
    uint32_t id = 0;
    return send_and_wait(req, APPEND_STATIC_RULE, &id) ? id : FMI_NONE;
}

void fmi_remove_static_rule(const char *port, uint32_t id)
{
    auto *req = alloc_remove_req(FMI_ACL_REMOVE_STATIC_RULE_REQ, port, id);
    VORN_TRACE_SEND(FMI_ACL_REMOVE_STATIC_RULE_REQ, client.server_mbox,
                    "FMI_ACL_REMOVE_STATIC_RULE_REQ: proc_ref: %u, conn_ref: %u, port_name: %s, id %u",
                    client.procedure_ref, client.connection_ref, port, id);
    send_and_wait(req, REMOVE_STATIC_RULE, &id);
}

uint32_t fmi_append_dynamic_rule(const char *port, const mac_address *macs, uint32_t count, uint16_t ether_type,
                                 uint32_t policer_id)
{
    const size_t size =
        offsetof(fmi_append_dynamic_rule_req, entries) + sizeof(fmi_dynamic_rule_entry) * (size_t{count} + 1);
    auto *req = static_cast<fmi_append_dynamic_rule_req *>(
        client_alloc_request(&client, size, FMI_ACL_APPEND_DYNAMIC_RULE_REQ));
    write_port_name(req->port_name, port);
    req->one = to_be32(1);
    req->policer_id = to_be32(policer_id);
    req->no_of_entries = to_be32(count + 1);
    write_rule_entries(fmi_rule_entries(req), macs, count, ether_type);
    VORN_TRACE_SEND(
        FMI_ACL_APPEND_DYNAMIC_RULE_REQ, client.server_mbox,
        "FMI_ACL_APPEND_DYNAMIC_RULE_REQ: proc_ref: %u, conn_ref: %u, port_name: %s, no_of_entries %u, policer_id %u",
        client.procedure_ref, client.connection_ref, port, count + 1, policer_id);
    uint32_t id = 0;
    return send_and_wait(req, APPEND_DYNAMIC_RULE, &id) ? id : FMI_NONE;
}

void fmi_remove_dynamic_rule(const char *port, uint32_t id)
{
    auto *req = alloc_remove_req(FMI_ACL_REMOVE_DYNAMIC_RULE_REQ, port, id);
    VORN_TRACE_SEND(FMI_ACL_REMOVE_DYNAMIC_RULE_REQ, client.server_mbox,
                    "FMI_ACL_REMOVE_DYNAMIC_RULE_REQ: proc_ref: %u, conn_ref: %u, port_name: %s, id %u",
                    client.procedure_ref, client.connection_ref, port, id);
    send_and_wait(req, REMOVE_DYNAMIC_RULE, &id);
}

bool fmi_request_default_action(const char *port, uint32_t action)
{
    auto *req = static_cast<fmi_set_default_action_req *>(
        client_alloc_request(&client, sizeof(fmi_set_default_action_req), FMI_ACL_SET_DEFAULT_ACTION_REQ));
    req->type = to_be32(action);
    write_port_name(req->port_name, port);
    VORN_TRACE_SEND(FMI_ACL_SET_DEFAULT_ACTION_REQ, client.server_mbox,
                    "FMI_ACL_SET_DEFAULT_ACTION_REQ: proc_ref: %u, conn_ref: %u, port_name: %s, type %u",
                    client.procedure_ref, client.connection_ref, port, action);
    uint32_t id = 0;
    return send_and_wait(req, DEFAULT_ACTION, &id);
}

uint32_t fmi_send_create_policer(const char *port, const fmi_policer_rates &rates)
{
    auto *req = static_cast<fmi_create_policer_req *>(
        client_alloc_request(&client, sizeof(fmi_create_policer_req), FMI_ACL_CREATE_POLICER_REQ));
    req->commitedRate = to_be32(rates.commited_rate);
    req->commitedMaxBurstSize = to_be32(rates.commited_max_burst_size);
    req->useCommitedRateOnly = to_be32(1);
    write_port_name(req->port_name, port);
    VORN_TRACE_SEND(FMI_ACL_CREATE_POLICER_REQ, client.server_mbox,
                    "FMI_ACL_CREATE_POLICER_REQ: connection_ref =%u, procedure_ref=0x%x, port_name=%s, "
                    "commitedRate = %u, commitedMaxBurstSize = %u, peakRate = %u, peakMaxBurstSize = %u, "
                    "useCommitedRateOnly = %u",
                    client.connection_ref, client.procedure_ref, port, rates.commited_rate,
                    rates.commited_max_burst_size, from_be32(req->peakRate), from_be32(req->peakMaxBurstSize),
                    from_be32(req->useCommitedRateOnly));
    const uint32_t procedure_ref = client.procedure_ref;
    client_send(&client, req);
    return procedure_ref;
}

bool fmi_wait_create_policer(uint32_t *id)
{
    return wait_for_answer(CREATE_POLICER, id) && client.state == FMI_CLIENT_INITIATED;
}
