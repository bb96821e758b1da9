/*
 * Link supervision over real Ethernet frames: a session sends one eCPRI one-way delay measurement request per interval
 * and reports, per request, whether it was answered and how long it took.
 *
 * A session lives in the network namespace in which the calling thread is when it starts it, and stays there. Sending,
 * matching answers, timing and loss run on one thread of the library's own.
 *
 * The request's dummy bytes begin with sixteen that only this process knows. An answer that brings dummy bytes has to
 * bring these; one that brings none is taken until the session's far end has been seen to send them back.
 */
#ifndef SUPERVISION_H
#define SUPERVISION_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    SUPERVISION_TYPE_LINK = 1,
    SUPERVISION_TYPE_KEEP_ALIVE = 2
};

enum {
    SUPERVISION_ANSWERED = 0,         /* with a usable round trip */
    SUPERVISION_ANSWERED_NO_TIME = 1, /* the time is not usable */
    SUPERVISION_KEEP_ALIVE_OK = 2,
    SUPERVISION_LOST = 3
};

/* 48 bytes, host byte order. */
struct supervision_params {
    char if_name[16];  /* zero-terminated; in the calling thread's network namespace */
    uint32_t interval; /* seconds between two requests, at least 1 */
    uint8_t sup_type;  /* SUPERVISION_TYPE_* */
    uint8_t reserved0;
    uint16_t frameSize; /* bytes from the destination MAC to the end of the payload; the 802.1Q tag does not count */
    uint32_t reserved1;
    uint8_t dest_mac[6];
    uint8_t src_mac[6];
    uint32_t vlantag; /* TPID in the upper, TCI in the lower half; on an interface of that VLAN no tag is added */
    uint16_t ether_type;
    uint8_t padding[2];
};

struct supervision_rtt {
    uint32_t sec;
    uint32_t nsec;
};

/* Called on the library's own thread; `rtt` is NULL when there is none (lost). It must not block. */
typedef void (*supervision_callback_fn)(const struct supervision_rtt *rtt, uint32_t session_id, uint32_t result);

/*
 * Starts a session and writes its id, never 0. Returns 0, or (nothing started, *session_id untouched):
 * 1 no such interface; 2 no socket could be opened; 3 invalid parameters; 4 no memory or no thread.
 */
uint32_t start_supervision_session(uint32_t *session_id, const struct supervision_params *params,
                                   supervision_callback_fn callback);

/*
 * Stops a session; when this returns its callback does not run any more. Returns 0; 1: the library's thread does not
 * answer; 4: no such session.
 */
uint32_t stop_supervision_session(uint32_t session_id);

#ifdef __cplusplus
}
#endif
#endif
