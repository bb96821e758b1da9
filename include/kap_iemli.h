/*
 * IEMLI for clients: ask the supervision daemon for links, be told of their status, have their round trips measured.
 * Library libkap_iemli (pkg-config: kap-iemli); it stands on ITC (itc.h), whose registry has to run on this machine.
 *
 * A client belongs to the thread that made it and stands on that thread's mailbox, one client per mailbox: itc_init and
 * itc_create_mailbox come first and are the program's own. The library has no thread. Calls that wait take what is for
 * a client out of the mailbox, and nothing else. What comes while something else is waited for is kept, in order, for
 * kap_iemli_next_event.
 *
 * The daemon ends a client's session, and with it all links of that client, when the client's process ends, when the
 * client's session is closed, and when the daemon withdraws its service or ends. In the last case the client is told in
 * an event, and has to open a session and ask for its links again once the service is back. A process that has lost the
 * registry cannot get it back: it has to be started anew.
 *
 * All integers are in the host's byte order. MAC addresses are six bytes in the order in which they are written and
 * sent. Structures that are handed in are only read, and during the call only; those that are handed out are copies.
 * A process that has no memory left ends in the call.
 */
#ifndef KAP_IEMLI_H
#define KAP_IEMLI_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A client; made by kap_iemli_new, given back by kap_iemli_free. */
struct kap_iemli;

/* As a time-out in milliseconds: wait for ever. */
#define KAP_IEMLI_FOREVER 0xFFFFFFFFu
/* A port's name has at most so many characters: "IDL_A1", "TN_A". */
#define KAP_IEMLI_PORT_NAME_LENGTH 16
/* The VLANs that a link can be in are 1 to this one. */
#define KAP_IEMLI_LAST_VLAN 4094
/* The multi-processor ids of a node's processors are 1 to this one. */
#define KAP_IEMLI_LAST_MP_ID 63

struct kap_iemli_mac {
    uint8_t byte[6];
};

/* Two applications whose frames go over a link. */
struct kap_iemli_app_link {
    struct kap_iemli_mac near_end;
    struct kap_iemli_mac far_end;
};

/* What a link is asked for. */
struct kap_iemli_link {
    const char *port;         /* zero-terminated */
    uint16_t vlan;            /* 1 to KAP_IEMLI_LAST_VLAN */
    uint8_t near_mp_id;       /* 1 to KAP_IEMLI_LAST_MP_ID; 1 where there is but one processor */
    struct kap_iemli_mac far; /* of the far end's control processor, which answers the pings */
    uint32_t app_link_count;
    const struct kap_iemli_app_link *app_links; /* so many; may be NULL when there is none */
};

/* How round trips are measured. One batch after the other; a minute has to hold a whole number of them. */
struct kap_iemli_rtt_settings {
    uint16_t batch;       /* pings that make up one indication, 2 to 60 */
    uint16_t interval;    /* seconds between two pings, 1 to 30 */
    uint16_t frame_bytes; /* of a ping, from the destination MAC to its end, without a VLAN tag: 64 to 1500 */
};

/* What became of a request. */
enum kap_iemli_outcome {
    KAP_IEMLI_CONFIRMED = 0,
    KAP_IEMLI_REJECTED = 1,  /* by the daemon, which says why in `reason` */
    KAP_IEMLI_TIMED_OUT = 2, /* no answer in time (kap_iemli_set_patience); it may have been done all the same */
    KAP_IEMLI_LOST = 3,      /* no service, no registry, or one of them went while the answer was waited for */
    KAP_IEMLI_INVALID = 4    /* nothing was sent: a name that is too long, or NULL where something has to be */
};

/* Why the daemon rejects. */
enum kap_iemli_reason {
    KAP_IEMLI_SERVICE_NOT_INITIATED = 0,     /* there is no such session */
    KAP_IEMLI_SERVICE_INITIATED = 1,         /* this client has its session already */
    KAP_IEMLI_SERVICE_INVALID_PV = 2,        /* the daemon does not speak this version of the protocol */
    KAP_IEMLI_UNKNOWN_LINK_REF = 3,          /* no such link of this client */
    KAP_IEMLI_UNKNOWN_PORT_NAME = 4,         /* no such port, or the node has none of that name */
    KAP_IEMLI_PORT_ALREADY_USED = 5,         /* not given by this daemon */
    KAP_IEMLI_LINK_ALREADY_CREATED = 6,      /* somebody has this very link */
    KAP_IEMLI_INVALID_VLAN_ID = 7,           /* not from 1 to KAP_IEMLI_LAST_VLAN */
    KAP_IEMLI_LINK_DATA_NO_CHANGE = 8,       /* an update that changes nothing */
    KAP_IEMLI_MP_ID_NOT_READY = 9,           /* near_mp_id is not from 1 to KAP_IEMLI_LAST_MP_ID */
    KAP_IEMLI_REMOTE_CPM_MAC_CONFLICT = 11,  /* the far end's address is one of this node's */
    KAP_IEMLI_SAME_CPM_APP_MAC = 12,         /* an application has the far end's address */
    KAP_IEMLI_SAME_SRC_DST_APP_MAC = 13,     /* both applications of a pair have the same address */
    KAP_IEMLI_APP_LINK_ALREADY_USED = 14,    /* another port has a link to that application in this VLAN */
    KAP_IEMLI_DUPLICATE_APP_LINKS = 15,      /* a pair stands there twice */
    KAP_IEMLI_PORT_NOT_RESERVED = 16,        /* not given by this daemon */
    KAP_IEMLI_INVALID_RTT_CONFIG_PARAM = 17, /* RTT settings that are not as above */
    KAP_IEMLI_RTT_ALREADY_ENABLED = 18,
    KAP_IEMLI_OTHER_REASON = 99 /* a lower layer refused, no session is free, ...: the daemon's trace says it */
};

/* The answer to a request. What does not belong to it is 0. */
struct kap_iemli_answer {
    uint32_t outcome;                          /* kap_iemli_outcome */
    uint32_t reason;                           /* of a rejected request: kap_iemli_reason, or one that is newer */
    uint32_t link_ref;                         /* of a confirmed create: what the daemon calls the link, never 0 */
    struct kap_iemli_mac mac;                  /* of a confirmed get-MAC */
    uint8_t near_mp_id;                        /* likewise */
    char port[KAP_IEMLI_PORT_NAME_LENGTH + 1]; /* likewise; zero-terminated */
};

/* What is said without having been asked for. */
enum kap_iemli_event_kind {
    KAP_IEMLI_PUBLISHED = 0,    /* the service is there: a session can be opened */
    KAP_IEMLI_WITHDRAWN = 1,    /* the service is gone, and session and links with it; the daemon may still be there */
    KAP_IEMLI_DAEMON_DIED = 2,  /* the daemon is gone, and session and links with it */
    KAP_IEMLI_LINK_STATUS = 3,  /* a link was enabled or disabled; also once after it was created */
    KAP_IEMLI_LINK_RTT = 4,     /* a batch of round trips was measured */
    KAP_IEMLI_LATE_ANSWER = 5,  /* to a request that had timed out */
    KAP_IEMLI_MALFORMED = 6,    /* somebody sent what is no message of this protocol; it was ignored */
    KAP_IEMLI_REGISTRY_LOST = 7 /* nothing will come any more; told again each time that an event is asked for */
};

/* Why a link is disabled. */
enum kap_iemli_disabled_reason {
    KAP_IEMLI_DOWN = 2,           /* the port is down */
    KAP_IEMLI_LOCKED = 3,         /* the port is locked */
    KAP_IEMLI_NO_CONNECTIVITY = 4 /* the far end does not answer */
};

/* Round-trip times in nanoseconds, over the answered pings of one batch. */
struct kap_iemli_rtt {
    uint64_t shortest;
    uint64_t average;
    uint64_t longest;
    uint32_t valid; /* 0: no ping of the batch was answered, and the times are 0 */
};

/* What does not belong to the kind is 0. */
struct kap_iemli_event {
    uint32_t kind;            /* kap_iemli_event_kind */
    uint32_t link_ref;        /* of a status or a round trip; of a late answer to a create the link that there is */
    uint32_t enabled;         /* of a status: 1 or 0 */
    uint32_t disabled_reason; /* of a status that is disabled: kap_iemli_disabled_reason */
    struct kap_iemli_rtt rtt; /* of a round trip */
};

/*
 * Makes a client and asks the name service for the daemon; what it finds comes as KAP_IEMLI_PUBLISHED. `client_ref`:
 * any number; the daemon's trace names the session by it.
 * NULL and errno: EINVAL (the thread has no mailbox), ENOTCONN (no registry), ETIMEDOUT (it does not answer in 2 s).
 */
struct kap_iemli *kap_iemli_new(uint32_t client_ref);

/*
 * Gives a client back; NULL is none. The daemon is told nothing: it ends the session when the mailbox is gone, or has
 * ended it by kap_iemli_close.
 */
void kap_iemli_free(struct kap_iemli *client);

/* For how long the calls below wait for the daemon's answer, in milliseconds; 5000 if it is not set. */
void kap_iemli_set_patience(struct kap_iemli *client, uint32_t milliseconds);

/* 1: the service is there, as far as is known; 0: it is not. Does not look for news. */
int kap_iemli_is_published(const struct kap_iemli *client);

/*
 * Waits until the service is there. 1: it is; 0: not within the time, or the registry is lost. The event of the
 * publication stays to be taken.
 */
int kap_iemli_wait_published(struct kap_iemli *client, uint32_t timeout_ms);

/*
 * Requests. Each sends one message, waits for the answer, fills *answer (which may be NULL) and returns its outcome.
 * Rejected for reasons of their own:
 *   open          SERVICE_INITIATED, SERVICE_INVALID_PV, OTHER_REASON (the daemon has as many sessions as it can)
 *   create        MP_ID_NOT_READY, INVALID_VLAN_ID, REMOTE_CPM_MAC_CONFLICT, LINK_ALREADY_CREATED,
 *                 APP_LINK_ALREADY_USED, SAME_CPM_APP_MAC, SAME_SRC_DST_APP_MAC, DUPLICATE_APP_LINKS,
 *                 UNKNOWN_PORT_NAME, OTHER_REASON
 *   update        UNKNOWN_LINK_REF, LINK_DATA_NO_CHANGE, and those of create that are about app links
 *   get_mac       UNKNOWN_PORT_NAME, MP_ID_NOT_READY, OTHER_REASON
 *   enable_rtt    UNKNOWN_LINK_REF, INVALID_RTT_CONFIG_PARAM, RTT_ALREADY_ENABLED
 * and all but open with SERVICE_NOT_INITIATED. close, delete and disable_rtt are confirmed as a rule.
 */

/* Opens the session in which everything else is asked for. */
uint32_t kap_iemli_open(struct kap_iemli *client, struct kap_iemli_answer *answer);

/* Ends the session; the daemon deletes its links. */
uint32_t kap_iemli_close(struct kap_iemli *client, struct kap_iemli_answer *answer);

/* Asks for a link. Confirmed: it is set up and supervised; whether it is enabled comes as an event. */
uint32_t kap_iemli_create(struct kap_iemli *client, const struct kap_iemli_link *link, struct kap_iemli_answer *answer);

/* Gives a link other pairs of applications: these, in place of all that it had. */
uint32_t kap_iemli_update(struct kap_iemli *client, uint32_t link_ref, const struct kap_iemli_app_link *app_links,
                          uint32_t app_link_count, struct kap_iemli_answer *answer);

/* Deletes a link. It is gone when this is confirmed; a status that was under way may still come. */
uint32_t kap_iemli_delete(struct kap_iemli *client, uint32_t link_ref, struct kap_iemli_answer *answer);

/* Asks for the address that the node's own pings on a port come from: what the far end has to know. */
uint32_t kap_iemli_get_mac(struct kap_iemli *client, const char *port, uint8_t near_mp_id,
                           struct kap_iemli_answer *answer);

/* Has a link's round trips told, batch by batch; NULL for `settings`: batches of 5, one a second, 64 bytes. */
uint32_t kap_iemli_enable_rtt(struct kap_iemli *client, uint32_t link_ref,
                              const struct kap_iemli_rtt_settings *settings, struct kap_iemli_answer *answer);

/* Ends that. */
uint32_t kap_iemli_disable_rtt(struct kap_iemli *client, uint32_t link_ref, struct kap_iemli_answer *answer);

/*
 * Takes the next event, waiting for at most `timeout_ms` (0: looks only). 1: *event is filled; 0: there is none, or
 * kap_iemli_interrupt was called. A program with descriptors of its own waits for these and for itc_get_fd with poll,
 * and then takes events with time-out 0 until there is none; or it has them watched by itc_watch_fd.
 */
int kap_iemli_next_event(struct kap_iemli *client, uint32_t timeout_ms, struct kap_iemli_event *event);

/*
 * Has kap_iemli_next_event, under way or next, return 0. May be called by a callback of itc_watch_fd, and by no signal
 * handler: have the signal come through a descriptor.
 */
void kap_iemli_interrupt(struct kap_iemli *client);

/*
 * Texts for people, never NULL, not to be freed: what an outcome, a reason, or a link's status is called ("no such
 * port", "enabled", "disabled with reason no connectivity").
 */
const char *kap_iemli_outcome_text(uint32_t outcome);
const char *kap_iemli_reason_text(uint32_t reason);
const char *kap_iemli_status_text(uint32_t enabled, uint32_t disabled_reason);

#ifdef __cplusplus
}
#endif
#endif
