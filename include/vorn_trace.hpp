// The one trace pattern of the daemon: the bit of the level is tested first, then the text is formatted and emitted
// with the module's file name and line.
#pragma once

#include "tri.h"

#define VORN_TRACE(level, ...)                                                                                         \
    do {                                                                                                               \
        if (tri_enabled(level)) {                                                                                      \
            lttngTriTrace((level), short_fname(__FILE__), __LINE__, formatStr(__VA_ARGS__));                           \
        }                                                                                                              \
    } while (0)

// `to` and `from` are mailboxes; `msgno` is the number of the message that is sent or was received.
#define VORN_TRACE_SEND(msgno, to, ...)                                                                                \
    do {                                                                                                               \
        if (tri_enabled(TRI_LEVEL_SENT)) {                                                                             \
            lttngTriSendSigTrace(short_fname(__FILE__), __LINE__, (msgno), (to), formatStr(__VA_ARGS__));              \
        }                                                                                                              \
    } while (0)

#define VORN_TRACE_REC(msgno, from, ...)                                                                               \
    do {                                                                                                               \
        if (tri_enabled(TRI_LEVEL_RECEIVED)) {                                                                         \
            lttngTriRecSigTrace(short_fname(__FILE__), __LINE__, (msgno), (from), formatStr(__VA_ARGS__));             \
        }                                                                                                              \
    } while (0)

// The levels, by what they are for.
enum vorn_trace_level : unsigned {
    TRACE_ERROR = 1,    // errors and warnings that abort an operation
    TRACE_CALL = 2,     // entry of the shell dispatcher
    TRACE_WARNING = 4,  // warnings and notable information
    TRACE_SERVICE = 5,  // services added and removed, queue and session notices
    TRACE_LINK = 6,     // link life events and reject notices
    TRACE_PORT = 7,     // port-list details
    TRACE_PARAMS = 12,  // parameter dumps of the manager
    TRACE_TRAFFIC = 13, // supervision and RTT
    TRACE_STATE = 14,   // state changes
    TRACE_REQUEST = 19, // parameter dumps of the request handlers
};
