/*
 * The registry's socket and its connections. One thread, one epoll. Each client is read at most once per round, so that
 * none starves the others; what a client does not read waits in an outbox of bounded size, and one that overflows it is
 * disconnected.
 */
#ifndef ITCD_SERVER_HPP
#define ITCD_SERVER_HPP

#include "policy.hpp"

// The same in parts, for tests: what server_run does first, and one round of what it does then.
enum class turn {
    done,
    last,   // `signals` is readable
    failed, // errno says why
};
int server_open(int listener, int signals, const policy &rules); // 0, or an errno value
turn server_turn(int timeout_ms);

// Serves `listener` until SIGTERM or SIGINT is read from `signals`. Returns 0 then, or an errno value.
int server_run(int listener, int signals, const policy &rules);

#endif
