// The common half of every client: see client_framework.hpp.
#include "client_framework.hpp"

#include "vorn_trace.hpp"

namespace
{

constexpr size_t COUNT_OFFSET = 12;

uint32_t count_of(const itc_msg *msg)
{
    be32 count;
    memcpy(&count, reinterpret_cast<const uint8_t *>(msg) + COUNT_OFFSET, sizeof count);
    return from_be32(count);
}

bool has_handler(const client_record *client)
{
    if (client->handler == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Event handler is NULL and that should never happen.");
        return false;
    }
    return true;
}

void locate_server(client_record *client, const client_discovery &discovery)
{
    auto *up = static_cast<itc_msg *>(client_alloc_msg(client, sizeof(client_plain_msg), discovery.server_up_ind));
    itc_locate_async(discovery.server_name, &up, client->own_mbox);
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

const client_message *find_message(const client_message *messages, size_t count, uint32_t msgno)
{
    if (msgno < messages[0].msgno || msgno > messages[count - 1].msgno) {
        return nullptr;
    }
    for (size_t i = 0; i < count; ++i) {
        if (messages[i].msgno == msgno) {
            return &messages[i];
        }
    }
    return nullptr;
}

} // namespace

client_init_result client_init(client_record *client, client_event_handler handler, const client_discovery &discovery)
{
    if (handler == nullptr) {
        VORN_TRACE(TRACE_ERROR, "CB event is NULL");
        return CLIENT_INIT_NO_HANDLER;
    }
    client->handler = handler;
    if (client->state != 0) {
        VORN_TRACE(TRACE_WARNING, "WARNING: Client in wrong state");
        itc_unmonitor(client->monitor_id);
        discovery.reset();
        client->state = 0;
    }
    client->own_mbox = itc_current_mbox();
    if (client->own_mbox == ITC_NO_MBOX) {
        VORN_TRACE(TRACE_ERROR, "Own mailbox is 0!");
        return CLIENT_INIT_NO_MAILBOX;
    }
    locate_server(client, discovery);
    return CLIENT_INIT_LOCATING;
}

void client_watch_server(client_record *client, const itc_msg *server_up, uint32_t server_down_ind)
{
    client->server_mbox = itc_sender(server_up);
    auto *down = static_cast<itc_msg *>(client_alloc_msg(client, sizeof(client_plain_msg), server_down_ind));
    client->monitor_id = itc_monitor(client->server_mbox, &down);
}

void client_lose_server(client_record *client, client_reset_function reset, uint32_t down_event)
{
    itc_unmonitor(client->monitor_id);
    client->state = 0;
    const uint32_t last_raised = client->service_event.service.id;
    reset();
    client->service_event.service.id = last_raised;
    client_raise_service_event(client, down_event);
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

void client_send(const client_record *client, void *msg)
{
    auto *owned = static_cast<itc_msg *>(msg);
    itc_send(&owned, client->server_mbox, client->own_mbox);
}

void client_raise_service_event(client_record *client, uint32_t event)
{
    if (!has_handler(client) || client->service_event.service.id == event) {
        return;
    }
    client->service_event.service.id = event;
    client->handler(&client->service_event);
}

void client_raise_result(client_record *client, uint32_t code, const itc_msg *msg)
{
    if (!has_handler(client)) {
        return;
    }
    client->result.result.code = code;
    client->result.result.procedure_ref = client_procedure_ref(msg);
    client->handler(&client->result);
}

void client_raise_event(const client_record *client, const client_event &event)
{
    if (has_handler(client)) {
        client->handler(&event);
    }
}

void client_fail(client_record *client, uint32_t faulty_event, client_state faulty_state)
{
    client_raise_service_event(client, faulty_event);
    client->state = faulty_state;
}

bool client_is_long_enough(const itc_msg *msg, uint64_t min_size, const char *name)
{
    if (itc_size(msg) < min_size) {
        VORN_TRACE(TRACE_ERROR, "%s too short: %zu bytes", name, itc_size(msg));
        return false;
    }
    return true;
}

bool client_dispatch(const client_message *messages, size_t count, const char *(*name)(uint32_t msgno),
                     const itc_msg *msg)
{
    const client_message *found = find_message(messages, count, msg->msgno);
    if (found == nullptr) {
        return false;
    }
    if (!client_is_long_enough(msg, found->min_size, name(msg->msgno))) {
        return true;
    }
    if (found->entry_size != 0) {
        const uint64_t list = static_cast<uint64_t>(found->entry_size) * count_of(msg);
        if (!client_is_long_enough(msg, found->min_size + list, name(msg->msgno))) {
            return true;
        }
    }
    found->handle(msg);
    return true;
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
