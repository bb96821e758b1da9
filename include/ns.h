/*
 * The name service: who offers which service. Lives in the registry beside the mailbox names; needs itc_init.
 *
 * A service has a name, a scope ("" = every scope), the mailbox that offers it and a path: the ITC name under which
 * itc_locate finds that mailbox ("" = the service's name). It is withdrawn by ns_unpublish or when its mailbox is gone.
 * A name is published once per scope; publishing it again from the same mailbox changes nothing, or only the path.
 * Whoever subscribes in a scope is told of the services of that scope and of those of every scope; whoever subscribes
 * in the scope "" is told of all.
 *
 * A subscriber gets, as messages to its mailbox, first NS_SUBSCRIBE_RSP, then NS_SERVICE_ADDED_IND for every service
 * of that name that is there already or appears later, and NS_SERVICE_REMOVED_IND for every one that goes, behind what
 * its mailbox had sent. Fields are in host byte order. The sender is ITC_NO_MBOX: the registry has no mailbox.
 */
#ifndef NS_H
#define NS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    NS_SUBSCRIBE_RSP = 0x1900000,
    NS_SERVICE_ADDED_IND = 0x1900001,
    NS_SERVICE_REMOVED_IND = 0x1900002
};

/* 8 bytes. `sid`: the subscription, from 1. */
struct ns_subscribe_rsp {
    uint32_t msgno;
    uint32_t sid;
};

/* 20 bytes and the path, zero-terminated. */
struct ns_service_ind {
    uint32_t msgno;
    uint32_t sid;
    uint32_t mbox;
    uint32_t reserved[2];
    char path[];
};

/*
 * Each returns 0, or an errno value: EEXIST (published already by another mailbox), ENOENT, EACCES, EINVAL, ENOTCONN
 * (the registry is lost), ETIMEDOUT (it does not answer within 2 s). `mbox` is an own mailbox.
 */
int ns_publish(const char *name, const char *scope, uint32_t mbox, const char *path);
int ns_unpublish(const char *name, const char *scope, uint32_t mbox, const char *path);
int ns_subscribe(const char *name, const char *scope, uint32_t mbox);
int ns_unsubscribe(uint32_t sid, uint32_t mbox);

#ifdef __cplusplus
}
#endif
#endif
