// Requests that wait because another one is with the lower layer: a queue per session, and one order of arrival over
// all of them. The queue owns its entries and their copies of the messages, and decides neither what waits nor when
// the next is taken.
#pragma once

#include "iemli_messages.hpp"

struct IemliQueuedRequest {
    itc_msg *msg; // a copy under the request's number; it has no sender
    uint32_t seq; // arrival, across all sessions
    IemliQueuedRequest *next;
};

// What a session has waiting. Zeroed, it is empty.
struct iemli_queue {
    IemliQueuedRequest *queue_head;
    IemliQueuedRequest *queue_tail;
    size_t queue_bytes;
};

// Copies the message to the tail. Without memory, when the queue has 8 MiB waiting, and for a number that never
// waits, the request is dropped. The message has the size that its number and count ask for.
void iemli_queue_add(iemli_queue *queue, const itc_msg *msg);

// Discards what waits, unanswered, and keeps the messages: the leak that is part of this service. It has a bound: of
// all that was ever kept, 64 messages and 1 MiB of them stay, the newest.
void iemli_queue_flush(iemli_queue *queue);
// Discards what waits and frees it all.
void iemli_queue_drop(iemli_queue *queue);

// Unlinks the entry that arrived first; null when none waits. It becomes the caller's.
IemliQueuedRequest *iemli_queue_take(iemli_queue *queue);
void iemli_queue_free(IemliQueuedRequest *entry);
// Keeps an entry with its message, as a flush keeps messages.
void iemli_queue_keep(IemliQueuedRequest *entry);

// Nothing is kept, and the next arrival number is 0 again.
void iemli_queue_forget_all();
