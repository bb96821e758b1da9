// The queues of waiting requests, and what is kept of them when they are no more.
#include "iemli_queue.hpp"

#include <cstdlib>
#include <cstring>

#include "base/keep_leak.hpp"
#include "vorn_trace.hpp"

namespace
{

uint32_t next_seq;

// A session may have this much waiting, each request counted with what it costs beside its bytes. Without a bound a
// client that sends while another's request is with the lower layer could take all memory.
constexpr size_t MOST_WAITING_BYTES = size_t{8} * 1024 * 1024;
constexpr size_t COST_OF_A_REQUEST = 128;

// What is kept of queues that are no more: the newest, within both bounds, or a client that fills its queue and leaves,
// again and again, could take all memory.
constexpr uint32_t MOST_KEPT = 64;
constexpr size_t MOST_KEPT_BYTES = size_t{1024} * 1024;

struct kept_request {
    itc_msg *msg;
    IemliQueuedRequest *entry; // of a term; null: freed
};

kept_request kept[MOST_KEPT];
uint32_t oldest_kept;
uint32_t kept_count;
size_t kept_bytes;

void free_oldest_kept()
{
    kept_request *oldest = &kept[oldest_kept];
    kept_bytes -= itc_size(oldest->msg);
    itc_free(&oldest->msg);
    free(oldest->entry);
    oldest_kept = (oldest_kept + 1) % MOST_KEPT;
    --kept_count;
}

// The newest may itself be more than is kept.
void keep(const kept_request &newest)
{
    keep_leak(newest.msg);
    if (newest.entry != nullptr) {
        keep_leak(newest.entry);
    }
    if (kept_count == MOST_KEPT) {
        free_oldest_kept();
    }
    kept[(oldest_kept + kept_count) % MOST_KEPT] = newest;
    ++kept_count;
    kept_bytes += itc_size(newest.msg);
    while (kept_bytes > MOST_KEPT_BYTES) {
        free_oldest_kept();
    }
}

bool can_wait(uint32_t msgno)
{
    return msgno == IEMLI_CLIENT_DOWN_IND || msgno == IEMLI_TERM_SERVICE_REQ ||
           msgno == IEMLI_CREATE_INTER_ME_LINK_REQ || msgno == IEMLI_UPDATE_INTER_ME_LINK_REQ ||
           msgno == IEMLI_DELETE_INTER_ME_LINK_REQ;
}

// As many bytes as the message needs, whatever its sender appended.
itc_msg *copy_of(const itc_msg *msg)
{
    const auto size = static_cast<size_t>(iemli_message_min_size(msg));
    itc_msg *copy = itc_alloc(size, msg->msgno);
    memcpy(copy, msg, size);
    return copy;
}

size_t cost_of(const itc_msg *msg) { return COST_OF_A_REQUEST + static_cast<size_t>(iemli_message_min_size(msg)); }

// What is alone in the queue has room, however large it is.
bool has_room_for(const iemli_queue *queue, const itc_msg *msg)
{
    return queue->queue_head == nullptr || queue->queue_bytes + cost_of(msg) <= MOST_WAITING_BYTES;
}

void append(iemli_queue *queue, IemliQueuedRequest *entry)
{
    queue->queue_bytes += cost_of(entry->msg);
    if (queue->queue_tail == nullptr) {
        queue->queue_head = entry;
    } else {
        queue->queue_tail->next = entry;
    }
    queue->queue_tail = entry;
}

} // namespace

void iemli_queue_add(iemli_queue *queue, const itc_msg *msg)
{
    auto *entry = static_cast<IemliQueuedRequest *>(calloc(1, sizeof(IemliQueuedRequest)));
    if (entry == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Out of memory");
        return;
    }
    if (!can_wait(msg->msgno)) {
        VORN_TRACE(TRACE_LINK, "WARNING: wrong sigNo received for queue: %s", iemli_msg_to_string(msg->msgno));
        free(entry);
        return;
    }
    if (!has_room_for(queue, msg)) {
        VORN_TRACE(TRACE_ERROR, "Out of memory");
        free(entry);
        return;
    }
    entry->msg = copy_of(msg);
    entry->seq = next_seq++;
    VORN_TRACE(TRACE_SERVICE, "%s inserted in queue", iemli_msg_to_string(msg->msgno));
    append(queue, entry);
}

void iemli_queue_flush(iemli_queue *queue)
{
    while (IemliQueuedRequest *entry = iemli_queue_take(queue)) {
        keep({entry->msg, nullptr});
        free(entry);
    }
}

void iemli_queue_drop(iemli_queue *queue)
{
    while (IemliQueuedRequest *entry = iemli_queue_take(queue)) {
        iemli_queue_free(entry);
    }
}

IemliQueuedRequest *iemli_queue_take(iemli_queue *queue)
{
    IemliQueuedRequest *entry = queue->queue_head;
    if (entry != nullptr) {
        queue->queue_bytes -= cost_of(entry->msg);
        queue->queue_head = entry->next;
        if (queue->queue_head == nullptr) {
            queue->queue_tail = nullptr;
        }
    }
    return entry;
}

void iemli_queue_free(IemliQueuedRequest *entry)
{
    itc_free(&entry->msg);
    free(entry);
}

void iemli_queue_keep(IemliQueuedRequest *entry) { keep({entry->msg, entry}); }

void iemli_queue_forget_all()
{
    next_seq = 0;
    while (kept_count > 0) {
        free_oldest_kept();
    }
}
