/*
 * What libitc offers to libns, and to tests: the name service lives in the registry, and a process has one
 * connection to it. Arguments are checked by libns: no pointer is NULL, every text is at most 255 bytes long.
 * Each of these returns 0 or an errno value.
 */
#ifndef ITC_INTERNAL_H
#define ITC_INTERNAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

int itc_internal_publish(const char *name, const char *scope, uint32_t mbox, const char *path);
int itc_internal_unpublish(const char *name, const char *scope, uint32_t mbox, const char *path);
int itc_internal_subscribe(const char *name, const char *scope, uint32_t mbox);
int itc_internal_unsubscribe(uint32_t sid, uint32_t mbox);

/*
 * For root: the messages of the process that has a mailbox of that name, see tap_record in itc_wire.hpp. The descriptor
 * is the caller's. ENOENT: nobody has the name. EACCES: not root. EAGAIN: not now. EINVAL: it is the caller's own.
 */
int itc_internal_tap(const char *name, int *fd);
/* For root: the name that a mailbox was created with; `name` has room for 256 bytes. */
int itc_internal_name_of(uint32_t mbox, char *name);

/*
 * What waits now: messages of this process's mailboxes that nobody has taken, messages to other processes for which
 * their sockets have no room yet, what lies in the sockets for this process to read (bytes), and what lies in them that
 * the others have not read (bytes of the kernel's memory, which is more than the messages have).
 */
struct itc_internal_waiting {
    uint64_t messages_in;
    uint64_t messages_out;
    uint64_t bytes_in;
    uint64_t bytes_out;
};
void itc_internal_get_waiting(struct itc_internal_waiting *out);

/* For tests: how many writes to other processes' sockets took something, since the process began. */
uint64_t itc_internal_channel_writes(void);
/* For tests: how long a half-sent message may stand still while others need the room, in place of 30 s. */
void itc_internal_set_half_sent_limit(uint32_t ms);

#ifdef __cplusplus
}
#endif
#endif
