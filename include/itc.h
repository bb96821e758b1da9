/*
 * ITC: messages between mailboxes, in one process or in two.
 *
 * A message is a block of memory whose first 32-bit word is its message number, in host byte order; the rest is the
 * business of the protocol it belongs to. A mailbox is named by a 32-bit id that is unique on the machine, and names no
 * other for a day after its end; so a process can have 4,096 mailboxes in a day. Every mailbox of a process belongs to
 * the thread that created it; only that thread receives from it, and the mailboxes of a thread that ends are deleted. A
 * thread with several mailboxes receives from all of them, in the order of arrival. A process does not fork after
 * itc_init, except to execute another program. itc_alloc and itc_send may be called from any thread, also from one that
 * owns no mailbox.
 *
 * Ownership: itc_alloc and itc_receive give a message to the caller. itc_send, itc_locate_async and itc_monitor take
 * it and set the caller's pointer to NULL. Whoever holds a message frees it with itc_free.
 *
 * Order between two mailboxes is kept. What a dead peer had sent is delivered before its death is reported.
 * Other processes are read in turns, a share each; one whose messages are not taken is not read any further, and what
 * it sends waits on its side.
 */
#ifndef ITC_H
#define ITC_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* No mailbox. A message sent to it is freed and traced, nothing more. */
#define ITC_NO_MBOX 0xFFFFFFFFu
/* As a time-out: wait for ever. */
#define ITC_NO_TIMEOUT 0xFFFFFFFFu
/* As the sender of itc_receive: from anybody. */
#define ITC_FROM_ANY 0xFFF11111u
/* As the sender of itc_send: the calling thread's own mailbox. */
#define ITC_MY_MBOX 0xFFF00000u

/* What every message begins with. */
struct itc_msg {
    uint32_t msgno;
};

/*
 * Connects the process to the registry. `mailbox_count`: how many mailboxes the process will have at the most.
 * The other arguments are reserved and 0. Returns 0, or an errno value (ECONNREFUSED, ENOENT: no registry runs;
 * EACCES: its policy refuses this user; ETIMEDOUT: it does not answer within 2 s; EINVAL; EALREADY: called twice).
 */
int itc_init(int mailbox_count, int alloc_scheme, const void *scheme_params, const char *name_space, uint32_t flags);

/* Leaves ITC: hands on what waits to be sent (for at most 100 ms), deletes what mailboxes are left, frees everything.
 */
void itc_exit(void);

/*
 * Creates a mailbox of the calling thread and publishes its name. `flags` is reserved and 0.
 * Returns its id, or ITC_NO_MBOX (name taken or refused by the registry's policy, too many mailboxes, no itc_init).
 */
uint32_t itc_create_mailbox(const char *name, uint32_t flags);

/* Deletes a mailbox and every message in it; whoever monitors it is told. Returns 0, or EINVAL for one not ours. */
int itc_delete_mailbox(uint32_t mbox);

/*
 * Gives an own mailbox one more name; again, if it has it already. Returns 0, or an errno value: EEXIST (another
 * mailbox has it), EACCES, EINVAL.
 */
int itc_add_name(uint32_t mbox, const char *name);

/* The calling thread's mailbox (the first it created), or ITC_NO_MBOX. */
uint32_t itc_current_mbox(void);

/*
 * A zero-filled message of `size` bytes (at least 4) whose first word is `msgno`. Never NULL: a process that has no
 * memory left for a message ends here.
 */
struct itc_msg *itc_alloc(size_t size, uint32_t msgno);

/* Frees a message and sets the pointer to NULL. */
void itc_free(struct itc_msg **msg);

/* The size of a message in bytes, as it was allocated by its sender. At least 4 for every message received. */
size_t itc_size(const struct itc_msg *msg);

/*
 * The mailbox that sent a received message; for the message of a monitor the mailbox that died, for that of
 * itc_locate_async the mailbox found. ITC_NO_MBOX for a message that was only allocated.
 */
uint32_t itc_sender(const struct itc_msg *msg);

/*
 * Sends a message. Never blocks, never fails: what cannot go out now waits in an outbox that later ITC calls flush;
 * the outbox is bounded (16 MiB of memory for each peer, less when many are full), and what the bound drops is counted
 * and traced. `from`: an own mailbox or ITC_MY_MBOX; for a mailbox that is not ours, and from a thread that has none,
 * the message arrives with the sender ITC_NO_MBOX.
 */
void itc_send(struct itc_msg **msg, uint32_t to, uint32_t from);

/*
 * Takes the first queued message of the calling thread's mailbox that passes the filter; the others keep their order.
 * `filter`: NULL for every message, else a count followed by that many message numbers.
 * `timeout_ms`: 0 looks without waiting, ITC_NO_TIMEOUT waits for ever.
 * `from`: ITC_FROM_ANY, or the only sender whose messages pass.
 * Callbacks of itc_watch_fd and the signal library run inside this call, between two messages.
 * What passes is not found behind more than 8 MiB of the same process, or 16 MiB of all, that do not: take those first.
 * Returns NULL when the time is over, when the thread owns no mailbox, or when the registry is lost.
 */
struct itc_msg *itc_receive(const uint32_t *filter, uint32_t timeout_ms, uint32_t from);

/* The mailbox of that name now, or ITC_NO_MBOX. Asks the registry, and waits for its answer for at most 2 s. */
uint32_t itc_locate(const char *name);

/* Delivers *msg once to the own mailbox `deliver_to`, now or as soon as a mailbox of that name exists. */
void itc_locate_async(const char *name, struct itc_msg **msg, uint32_t deliver_to);

/*
 * Delivers *msg to the calling thread's mailbox when `mbox` is gone (at once if it does not exist).
 * Returns an id for itc_unmonitor, never 0.
 */
uint32_t itc_monitor(uint32_t mbox, struct itc_msg **msg);

/* Ends a monitor and frees its message; also takes the message back if it was delivered and not yet received. */
void itc_unmonitor(uint32_t monitor_id);

/* ---- For programs that wait for more than messages -------------------------------------------------------------- */

/* A descriptor that is readable while itc_receive with time-out 0 may have something to do. -1 before itc_init. */
int itc_get_fd(void);

/*
 * Has `callback(arg)` called on the thread that calls itc_receive, out of its wait, whenever `fd` is readable. May be
 * called before itc_init. `callback` may not return (a signal that ends the process). Returns 0 or an errno value.
 */
int itc_watch_fd(int fd, void (*callback)(void *arg), void *arg);
void itc_unwatch_fd(int fd);

/*
 * How many messages of this process were dropped: outbox full, no such mailbox, or the registry's policy has its
 * mailbox not take them from there, or not so large.
 */
struct itc_statistics {
    uint64_t sent;
    uint64_t received;
    uint64_t dropped_full;
    uint64_t dropped_no_mailbox;
    uint64_t dropped_refused;
    uint64_t dropped_too_large;
};
void itc_get_statistics(struct itc_statistics *out);

#ifdef __cplusplus
}
#endif
#endif
