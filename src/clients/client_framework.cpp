// The common half of every client: see client_framework.hpp.
#include "client_framework.hpp"

namespace
{

bool has_handler(const client_record *client)
{
    if (client->handler == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Event handler is NULL and that should never happen.");
        return false;
    }
    return true;
}

// An event that equals the one raised last is swallowed.
void raise_service_event(client_record *client, uint32_t event)
{
    if (event != 0 && has_handler(client) && client->service_event.service.id != event) {
        client->service_event.service.id = event;
        client->handler(&client->service_event);
    }
}

// Never swallowed. `procedure_ref`: of the answer that the manager waits for.
void raise_result(client_record *client, uint32_t code, uint32_t procedure_ref)
{
    if (code != 0 && has_handler(client)) {
        client->result.result.code = code;
        client->result.result.procedure_ref = procedure_ref;
        client->handler(&client->result);
    }
}

// The character behind a conversion; `p` stands behind its "%".
const char *skip_conversion(const char *p)
{
    p += strspn(p, "-+ #'0");
    p += strspn(p, "0123456789*");
    if (*p == '.') {
        p += 1 + strspn(p + 1, "0123456789*");
    }
    p += strspn(p, "hlLjztq");
    return *p == '\0' ? p : p + 1;
}

const client_step *find_step(const client_protocol &protocol, uint32_t msgno)
{
    for (size_t i = 0; i < protocol.step_count; ++i) {
        if (protocol.steps[i].msgno == msgno) {
            return &protocol.steps[i];
        }
    }
    return nullptr;
}

bool is_whole(const client_step &step, const client_input &in, const char *name)
{
    return client_is_long_enough(in.msg, step.min_size, name) &&
           client_is_long_enough(in.msg, step.min_size + static_cast<uint64_t>(step.entry_size) * in.word, name);
}

// The server is the sender of the server-up indication.
void watch_server(client_record *client, const itc_msg *server_up, uint32_t server_down_ind)
{
    client->server_mbox = itc_sender(server_up);
    auto *down = static_cast<itc_msg *>(client_alloc_msg(client, sizeof(client_plain_msg), server_down_ind));
    client->monitor_id = itc_monitor(client->server_mbox, &down);
}

void reset(client_record *client, const client_protocol &protocol)
{
    if (protocol.forget_own != nullptr) {
        protocol.forget_own();
    }
    client_reset(client);
}

// Everything but the event raised last, so that a second notice of the same death is swallowed.
void forget_server(client_record *client, const client_protocol &protocol)
{
    itc_unmonitor(client->monitor_id);
    const uint32_t last_raised = client->service_event.service.id;
    reset(client, protocol);
    client->service_event.service.id = last_raised;
}

client_verdict act(client_record *client, const client_protocol &protocol, const client_step &step,
                   const client_input &in)
{
    if (step.msgno == protocol.server_up_ind) {
        watch_server(client, in.msg, protocol.server_down_ind);
    } else if (step.msgno == protocol.server_down_ind) {
        forget_server(client, protocol);
    }
    return step.act != nullptr ? step.act(in) : CLIENT_TAKEN;
}

void follow(client_record *client, const client_protocol &protocol, const client_step &step, const client_input &in,
            client_verdict verdict)
{
    switch (verdict) {
    case CLIENT_TAKEN:
        client_enter(client, step.outcome.next, step.outcome.event, STATE_THEN_EVENT);
        raise_result(client, step.outcome.result, in.procedure_ref);
        break;
    case CLIENT_TAKEN_EVENT_FIRST:
        client_enter(client, step.outcome.next, step.outcome.event, EVENT_THEN_STATE);
        raise_result(client, step.outcome.result, in.procedure_ref);
        break;
    case CLIENT_IGNORED:
        break;
    case CLIENT_REFUSED:
        client_enter(client, protocol.faulty_state, protocol.faulty_event, EVENT_THEN_STATE);
        break;
    case CLIENT_REFUSED_AT_ONCE:
        client_enter(client, protocol.faulty_state, protocol.faulty_event, STATE_THEN_EVENT);
        break;
    }
}

void take(client_record *client, const client_protocol &protocol, const client_step &step, const client_input &in)
{
    if (step.trace != nullptr) {
        step.trace(in);
    }
    if (step.need.state != CLIENT_ANY_STATE && step.need.state != client->state) {
        step.need.notice(protocol.state_name(client->state));
        follow(client, protocol, step, in, step.need.misfit);
    } else {
        follow(client, protocol, step, in, act(client, protocol, step, in));
    }
    if (step.afterwards != nullptr) {
        step.afterwards();
    }
}

} // namespace

bool client_dispatch(client_record *client, const client_protocol &protocol, const itc_msg *msg)
{
    const client_step *step = find_step(protocol, msg->msgno);
    if (step == nullptr) {
        return false;
    }
    const client_input in = client_decode(msg);
    if (is_whole(*step, in, protocol.message_name(msg->msgno))) {
        take(client, protocol, *step, in);
    }
    return true;
}

bool client_is_long_enough(const itc_msg *msg, uint64_t min_size, const char *name)
{
    if (itc_size(msg) < min_size) {
        VORN_TRACE(TRACE_ERROR, "%s too short: %zu bytes", name, itc_size(msg));
        return false;
    }
    return true;
}

uint32_t client_word(const itc_msg *msg, size_t offset)
{
    be32 word = {};
    if (itc_size(msg) >= offset + sizeof word) {
        memcpy(&word, reinterpret_cast<const uint8_t *>(msg) + offset, sizeof word);
    }
    return from_be32(word);
}

client_input client_decode(const itc_msg *msg)
{
    return {msg, client_word(msg, offsetof(client_header, procedure_ref)),
            client_word(msg, offsetof(client_header, connection_ref)), client_word(msg, sizeof(client_header))};
}

bool client_lists(const client_input &in, size_t entry_size, uint32_t value)
{
    for (uint32_t i = 0; i < in.word; ++i) {
        if (client_word(in.msg, sizeof(client_capability_cfm) + i * entry_size) == value) {
            return true;
        }
    }
    return false;
}

bool client_begin(client_record *client, client_event_handler handler, const client_protocol &protocol)
{
    if (handler == nullptr) {
        VORN_TRACE(TRACE_ERROR, "CB event is NULL");
        return false;
    }
    client->handler = handler;
    if (client->state != 0) {
        VORN_TRACE(TRACE_WARNING, "WARNING: Client in wrong state");
        if (protocol.server_up_ind != 0) {
            itc_unmonitor(client->monitor_id);
        }
        reset(client, protocol);
        client_enter(client, 0, 0, STATE_THEN_EVENT);
    }
    client->own_mbox = itc_current_mbox();
    if (client->own_mbox == ITC_NO_MBOX) {
        VORN_TRACE(TRACE_ERROR, "Own mailbox is 0!");
        if (protocol.faulty_without_mailbox) {
            client_enter(client, protocol.faulty_state, protocol.faulty_event, STATE_THEN_EVENT);
        }
        return false;
    }
    return true;
}

void client_init(client_record *client, client_event_handler handler, const client_protocol &protocol)
{
    if (client_begin(client, handler, protocol)) {
        auto *up = static_cast<itc_msg *>(client_alloc_msg(client, sizeof(client_plain_msg), protocol.server_up_ind));
        itc_locate_async(protocol.server_name, &up, client->own_mbox);
    }
}

void client_reset(client_record *client)
{
    client->server_mbox = ITC_NO_MBOX;
    client->own_mbox = ITC_NO_MBOX;
    client->connection_ref = 0;
    client->procedure_ref = 0;
    client->monitor_id = 0;
    memset(client->service_event.word, 0, sizeof client->service_event.word);
    memset(client->result.word, 0, sizeof client->result.word);
}

void client_enter(client_record *client, client_state state, uint32_t event, client_order order)
{
    if (order == EVENT_THEN_STATE) {
        raise_service_event(client, event);
    }
    if (state != CLIENT_SAME_STATE) {
        client->state = state;
    }
    if (order == STATE_THEN_EVENT) {
        raise_service_event(client, event);
    }
}

void client_raise_event(const client_record *client, const client_event &event)
{
    if (has_handler(client)) {
        client->handler(&event);
    }
}

void *client_alloc_msg(client_record *client, size_t size, uint32_t msgno)
{
    client->procedure_ref++;
    auto *header = reinterpret_cast<client_header *>(itc_alloc(size, msgno));
    header->procedure_ref = to_be32(client->procedure_ref);
    return header;
}

void *client_alloc_request(client_record *client, size_t size, uint32_t msgno)
{
    void *msg = client_alloc_msg(client, size, msgno);
    static_cast<client_header *>(msg)->connection_ref = to_be32(client->connection_ref);
    return msg;
}

client_conn_establish_req *client_alloc_conn_req(client_record *client, uint32_t msgno, uint32_t proposed_ref)
{
    auto *req =
        static_cast<client_conn_establish_req *>(client_alloc_msg(client, sizeof(client_conn_establish_req), msgno));
    req->header.connection_ref = to_be32(proposed_ref);
    req->num_pvs = to_be32(1);
    req->pv[0] = to_be32(CLIENT_PROTOCOL_VERSION);
    return req;
}

uint32_t client_send(const client_record *client, void *msg)
{
    auto *owned = static_cast<itc_msg *>(msg);
    itc_send(&owned, client->server_mbox, client->own_mbox);
    return client->procedure_ref;
}

const char *client_state_text(const char *const *texts, size_t count, client_state state)
{
    return state < count ? texts[state] : "UNKNOWN_STATE";
}

void client_copy_text(char *field, size_t size, const char *text, size_t bound)
{
    const size_t room = size - 1;
    const size_t length = strnlen(text, bound < room ? bound : room);
    memcpy(field, text, length);
    field[length] = '\0';
}

size_t client_tail_size(const itc_msg *msg, size_t offset)
{
    const size_t size = itc_size(msg);
    return size > offset ? size - offset : 0;
}

void client_copy_as_format(char *field, size_t size, const char *text)
{
    size_t length = 0;
    while (*text != '\0' && length + 1 < size) {
        if (*text != '%') {
            field[length++] = *text++;
        } else if (text[1] == '%') {
            field[length++] = '%';
            text += 2;
        } else {
            text = skip_conversion(text + 1);
        }
    }
    field[length] = '\0';
}
