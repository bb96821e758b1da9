// The queues of waiting requests. Taking is in order of arrival over all sessions; there are at most two to look at.
#include "iemli_queue.hpp"

#include <cstdlib>
#include <cstring>

#include "iemli_session.hpp"
#include "keep_leak.hpp"
#include "vorn_trace.hpp"

namespace
{

uint32_t next_seq;

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

void append(IemliSession *session, IemliQueuedRequest *entry)
{
    if (session->queue_tail == nullptr) {
        session->queue_head = entry;
    } else {
        session->queue_tail->next = entry;
    }
    session->queue_tail = entry;
}

// The session's first entry, unlinked; null when nothing waits.
IemliQueuedRequest *pop(IemliSession *session)
{
    IemliQueuedRequest *entry = session->queue_head;
    if (entry != nullptr) {
        session->queue_head = entry->next;
        if (session->queue_head == nullptr) {
            session->queue_tail = nullptr;
        }
    }
    return entry;
}

} // namespace

void iemli_queue_add(IemliSession *session, const itc_msg *msg)
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
    entry->msg = copy_of(msg);
    entry->seq = next_seq++;
    VORN_TRACE(TRACE_SERVICE, "%s inserted in queue", iemli_msg_to_string(msg->msgno));
    append(session, entry);
}

void iemli_queue_flush(IemliSession *session)
{
    while (IemliQueuedRequest *entry = pop(session)) {
        keep_leak(entry->msg);
        free(entry);
    }
}

void iemli_queue_drop(IemliSession *session)
{
    while (IemliQueuedRequest *entry = pop(session)) {
        iemli_queue_free(entry);
    }
}

IemliQueuedRequest *iemli_queue_take_oldest(IemliSession **session)
{
    *session = nullptr;
    for (IemliSession *candidate = iemli_session_first(); candidate != nullptr; candidate = candidate->next) {
        const IemliQueuedRequest *head = candidate->queue_head;
        if (head != nullptr && (*session == nullptr || head->seq < (*session)->queue_head->seq)) {
            *session = candidate;
        }
    }
    return *session != nullptr ? pop(*session) : nullptr;
}

void iemli_queue_free(IemliQueuedRequest *entry)
{
    itc_free(&entry->msg);
    free(entry);
}

void iemli_queue_restart_numbering() { next_seq = 0; }
