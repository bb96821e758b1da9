/*
 * Tracing. A trace has a level (1 to 31), the short name of a source file, a line and a text. It is emitted only when
 * the bit of its level is set in the trace mask; callers test the bit before they evaluate any argument.
 *
 * Levels: 1 errors and warnings that abort an operation; 4 warnings and notable information; 5 services added and
 * removed, queue and session notices; 6 link life events and reject notices; 7 port-list details; 12 parameter dumps;
 * 13 supervision and RTT traffic; 14 state changes; 17 received messages; 18 sent messages; 19 request dumps.
 *
 * errno is the same after a trace as before it. A sink that is gone or does not take more never blocks the caller;
 * what is lost is counted and told when the sink takes lines again. Of the levels that are on by default a sink may
 * count what is more than a hundred lines from one file and line in a second, and tell how many there were.
 */
#ifndef TRI_H
#define TRI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TRI_LEVEL_RECEIVED 17u
#define TRI_LEVEL_SENT 18u

struct tri_proc_info {
    uint32_t mask; /* bit L set: level L is emitted. May be changed from outside while the process runs. */
    char name[32]; /* what traces print as the process's name */
};

/* The mask of the calling thread; all threads of a process share one. Never NULL, also before tri_init. */
extern __thread struct tri_proc_info *procInfo;

/* Opens the sink and shares the mask. Returns 0; 4: opened already, or the mask cannot be shared; else an errno value.
 */
int tri_init(void);
/* Names the process in its traces and the calling thread in the process list. Returns 0 or an errno value. */
int tri_register_thread_name(const char *name);

/* The part of a path behind the last slash. */
const char *short_fname(const char *path);
/* printf into a buffer of the calling thread; valid until its next call; longer texts are cut at 2047 characters. */
const char *formatStr(const char *format, ...) __attribute__((format(printf, 1, 2)));

void lttngTriTrace(uint32_t level, const char *file, int line, const char *text);
/* `peer`: the mailbox the message goes to or came from. */
void lttngTriSendSigTrace(const char *file, int line, uint32_t msgno, uint32_t peer, const char *text);
void lttngTriRecSigTrace(const char *file, int line, uint32_t msgno, uint32_t peer, const char *text);

static inline int tri_enabled(uint32_t level)
{
    return (int)((__atomic_load_n(&procInfo->mask, __ATOMIC_RELAXED) >> level) & 1u);
}

#ifdef __cplusplus
}
#endif
#endif
