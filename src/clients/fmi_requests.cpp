// One request to the flow manager and the wait for its answer. The wait takes only this request's confirm and reject
// out of the mailbox; everything else stays queued for the main loop. There is one receive per request: a stale answer
// of an earlier request, which nobody waits for any more, makes this one fail.
//
// What a port has is kept elsewhere (fmi_acl.cpp).
#include "fmi_requests.hpp"

#include "fmi_record.hpp"

namespace
{

constexpr uint32_t ANSWER_TIMEOUT_MS = 500;

client_record &client = *fmi_client_record();

// A string of an answer, which ends at its field's or the message's end at the latest.
template <size_t N> void read_text(char (&text)[N], const itc_msg *msg, size_t offset)
{
    if (offset != 0) {
        const size_t tail = client_tail_size(msg, offset);
        client_copy_text(text, N, reinterpret_cast<const char *>(msg) + offset, tail < N - 1 ? tail : N - 1);
    }
}

fmi_answer read_answer(const fmi_answer_layout &layout, const client_input &in)
{
    fmi_answer answer = {in, client_word(in.msg, sizeof(client_header) + sizeof(be32)), 0, {}, {}};
    answer.id = layout.id != 0 ? client_word(in.msg, layout.id) : 0;
    read_text(answer.port_name, in.msg, layout.port_name);
    read_text(answer.error_text, in.msg, layout.error_text);
    return answer;
}

void write_port_name(char (&field)[FMI_PORT_NAME_LEN], const char *port)
{
    client_copy_text(field, sizeof field, port, FMI_PORT_NAME_LEN);
}

bool wait_for_answer(const fmi_exchange &exchange, uint32_t *id)
{
    const uint32_t filter[] = {2, exchange.confirm.msgno, exchange.reject.msgno};
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

// ---- The exchanges. An answer needs the fields in front of its last string, not the string ----

#define FMI_ANSWERED(format, ...)                                                                                      \
    [](const fmi_answer &answer) {                                                                                     \
        VORN_TRACE_REC(answer.in.msg->msgno, itc_sender(answer.in.msg), format, answer.in.connection_ref,              \
                       answer.in.procedure_ref, __VA_ARGS__);                                                          \
    }

// A reject that names the port behind its error code.
constexpr fmi_answer_layout port_rej(uint32_t msgno, void (*trace)(const fmi_answer &))
{
    return {msgno,
            offsetof(fmi_port_rej, error_text),
            0,
            offsetof(fmi_port_rej, port_name),
            offsetof(fmi_port_rej, error_text),
            trace};
}

// A confirm that names the id and the port.
constexpr fmi_answer_layout rule_id_cfm(uint32_t msgno, void (*trace)(const fmi_answer &))
{
    return {msgno,
            offsetof(fmi_rule_id_msg, port_name),
            offsetof(fmi_rule_id_msg, id),
            offsetof(fmi_rule_id_msg, port_name),
            0,
            trace};
}

const char *error_of(const fmi_answer &answer) { return fmi_rej_reason_to_string(answer.in.word); }

constexpr fmi_exchange DEFAULT_ACTION = {
    {FMI_ACL_SET_DEFAULT_ACTION_CFM, offsetof(fmi_set_default_action_cfm, port_name), 0,
     offsetof(fmi_set_default_action_cfm, port_name), 0,
     FMI_ANSWERED("FMI_ACL_SET_DEFAULT_ACTION_CFM: connection_ref =%u, procedure_ref=%u, port_name: %s",
                  answer.port_name)},
    port_rej(FMI_ACL_SET_DEFAULT_ACTION_REJ,
             FMI_ANSWERED("FMI_ACL_SET_DEFAULT_ACTION_REJ: connection_ref =%u, procedure_ref=%u, port_name: %s, "
                          "error code=%s, error description=%s",
                          answer.port_name, error_of(answer), answer.error_text))};

constexpr fmi_exchange APPEND_STATIC_RULE = {
    {FMI_ACL_APPEND_STATIC_RULE_CFM, offsetof(fmi_append_static_rule_cfm, port_name),
     offsetof(fmi_append_static_rule_cfm, id), offsetof(fmi_append_static_rule_cfm, port_name), 0,
     FMI_ANSWERED("FMI_ACL_APPEND_STATIC_RULE_CFM: connection_ref =%u, procedure_ref=%u, port_name: %s, "
                  "rule_type= %u, id= %u",
                  answer.port_name, answer.in.word, answer.id)},
    {FMI_ACL_APPEND_STATIC_RULE_REJ, offsetof(fmi_append_static_rule_rej, port_name), 0,
     offsetof(fmi_append_static_rule_rej, port_name), offsetof(fmi_append_static_rule_rej, error_text),
     FMI_ANSWERED("FMI_ACL_APPEND_STATIC_RULE_REJ: connection_ref =%u, procedure_ref=%u, port_name: %s, "
                  "rule_type= %u, error code=%s, error description=%s",
                  answer.port_name, answer.second, error_of(answer), answer.error_text)}};

constexpr fmi_exchange REMOVE_STATIC_RULE = {
    rule_id_cfm(FMI_ACL_REMOVE_STATIC_RULE_CFM,
                FMI_ANSWERED("FMI_ACL_REMOVE_STATIC_RULE_CFM: connection_ref =%u, procedure_ref=%u, rule id=%u, "
                             "port name=%s",
                             answer.id, answer.port_name)),
    {FMI_ACL_REMOVE_STATIC_RULE_REJ, offsetof(fmi_remove_static_rule_rej, port_name), 0,
     offsetof(fmi_remove_static_rule_rej, port_name), offsetof(fmi_remove_static_rule_rej, error_text),
     FMI_ANSWERED("FMI_ACL_REMOVE_STATIC_RULE_REJ: connection_ref =%u, procedure_ref=%u, rule id=%u, port name=%s,"
                  "error code=%s error description=%s",
                  answer.second, answer.port_name, error_of(answer), answer.error_text)}};

constexpr fmi_exchange APPEND_DYNAMIC_RULE = {
    {FMI_ACL_APPEND_DYNAMIC_RULE_CFM, sizeof(fmi_append_dynamic_rule_cfm),
     offsetof(fmi_append_dynamic_rule_cfm, rule_id), offsetof(fmi_append_dynamic_rule_cfm, port_name), 0,
     FMI_ANSWERED("FMI_ACL_APPEND_DYNAMIC_RULE_CFM: connection_ref =%u, procedure_ref=%u, port name=%s, rule_id=%u ",
                  answer.port_name, answer.id)},
    port_rej(FMI_ACL_APPEND_DYNAMIC_RULE_REJ,
             FMI_ANSWERED("FMI_ACL_APPEND_DYNAMIC_RULE_REJ: connection_ref =%u, procedure_ref=%u, port name=%s,"
                          "error code=%s error description=%s",
                          answer.port_name, error_of(answer), answer.error_text))};

constexpr fmi_exchange REMOVE_DYNAMIC_RULE = {
    rule_id_cfm(FMI_ACL_REMOVE_DYNAMIC_RULE_CFM,
                FMI_ANSWERED("FMI_ACL_REMOVE_DYNAMIC_RULE_CFM: connection_ref =%u, procedure_ref=%u, rule id=%u, "
                             "port name=%s",
                             answer.id, answer.port_name)),
    {FMI_ACL_REMOVE_DYNAMIC_RULE_REJ, offsetof(fmi_remove_dynamic_rule_rej, error_text), 0,
     offsetof(fmi_remove_dynamic_rule_rej, port_name), offsetof(fmi_remove_dynamic_rule_rej, error_text),
     FMI_ANSWERED("FMI_ACL_REMOVE_DYNAMIC_RULE_REJ: connection_ref =%u, procedure_ref=%u, port_name: %s, "
                  "rule_id= %u, error code=%s, error description=%s",
                  answer.port_name, answer.second, error_of(answer), answer.error_text)}};

void trace_policer_cfm(const fmi_answer &answer)
{
    VORN_TRACE_REC(answer.in.msg->msgno, itc_sender(answer.in.msg),
                   "FMI_ACL_CREATE_POLICER_CFM: connection_ref =%u, procedure_ref=%u, port_name: %s, id= %u",
                   answer.in.connection_ref, answer.in.procedure_ref, answer.port_name, answer.id);
    if (client.state != FMI_CLIENT_INITIATED) {
        VORN_TRACE(TRACE_ERROR, "FMI_ACL_CREATE_POLICER_CFM received in wrong state, state_=%s",
                   fmi_client_state_to_string(client.state));
    }
}

constexpr fmi_exchange CREATE_POLICER = {
    rule_id_cfm(FMI_ACL_CREATE_POLICER_CFM, trace_policer_cfm),
    port_rej(FMI_ACL_CREATE_POLICER_REJ,
             FMI_ANSWERED("FMI_ACL_CREATE_POLICER_REJ: connection_ref =%u, procedure_ref=%u, port_name: %s, "
                          "error code=%s, error description=%s",
                          answer.port_name, error_of(answer), answer.error_text))};

fmi_rule_id_msg *alloc_remove_req(uint32_t msgno, const char *port, uint32_t id)
{
    auto *req = client_alloc_request<fmi_rule_id_msg>(&client, msgno);
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

bool fmi_take_answer(const fmi_exchange &exchange, const itc_msg *msg, uint32_t *id)
{
    const char *name = fmi_msg_to_string(msg->msgno);
    if (!client_is_long_enough(msg, sizeof(client_header), name)) {
        return false;
    }
    const client_input in = client_decode(msg);
    if (in.procedure_ref != client.procedure_ref) {
        VORN_TRACE(TRACE_WARNING, "Received wrong rsp. Waiting proc_ref  %u, received proc_ref %u",
                   client.procedure_ref, in.procedure_ref);
        return false;
    }
    const bool confirmed = msg->msgno == exchange.confirm.msgno;
    const fmi_answer_layout &layout = confirmed ? exchange.confirm : exchange.reject;
    if (msg->msgno != layout.msgno) {
        VORN_TRACE(TRACE_WARNING, "WARNING:Unexpected message received, msg_no=0x%x", msg->msgno);
        return false;
    }
    if (!client_is_long_enough(msg, layout.min_size, name)) {
        return false;
    }
    const fmi_answer answer = read_answer(layout, in);
    layout.trace(answer);
    if (confirmed) {
        *id = answer.id;
    }
    return confirmed;
}

uint32_t fmi_append_static_rule(const char *port, uint32_t type)
{
    auto *req = client_alloc_request<fmi_append_static_rule_req>(&client, FMI_ACL_APPEND_STATIC_RULE_REQ);
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
    auto *req = client_alloc_request<fmi_set_default_action_req>(&client, FMI_ACL_SET_DEFAULT_ACTION_REQ);
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
    auto *req = client_alloc_request<fmi_create_policer_req>(&client, FMI_ACL_CREATE_POLICER_REQ);
    req->commitedRate = to_be32(rates.commited_rate);
    req->commitedMaxBurstSize = to_be32(rates.commited_max_burst_size);
    req->useCommitedRateOnly = to_be32(1);
    write_port_name(req->port_name, port);
    VORN_TRACE_SEND(FMI_ACL_CREATE_POLICER_REQ, client.server_mbox,
                    "FMI_ACL_CREATE_POLICER_REQ: connection_ref =%u, procedure_ref=0x%x, port_name=%s, "
                    "commitedRate = %u, commitedMaxBurstSize = %u, peakRate = %u, peakMaxBurstSize = %u, "
                    "useCommitedRateOnly = %u",
                    client.connection_ref, client.procedure_ref, port, rates.commited_rate,
                    rates.commited_max_burst_size, 0U, 0U, 1U);
    return client_send(&client, req);
}

bool fmi_wait_create_policer(uint32_t *id)
{
    return wait_for_answer(CREATE_POLICER, id) && client.state == FMI_CLIENT_INITIATED;
}
