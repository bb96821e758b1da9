/*
 * The registry's socket and its connections. One thread, one epoll, in turns: whoever has sent something is noted, and
 * then the users for whom something is to be done have a slice of work each, one after the other, until the turn is
 * over. A user's slice goes to one of its processes, first to those that were idle. So a user with many processes, or
 * one whose requests take long, holds up the others by one slice.
 *
 * What a process does not read waits in an outbox. One that leaves more than a bound of its own answers unread is
 * disconnected; what others cause is not held against it.
 */
#ifndef ITCD_SERVER_HPP
#define ITCD_SERVER_HPP

#include "policy.hpp"

#include <functional>

inline constexpr int server_slice = 32; // units of work, see registry.hpp: about a tenth of a millisecond
inline constexpr int server_slices = 8; // per turn, before newcomers and whoever has sent something are looked at

// The same in parts, for tests: what server_run does first, and one round of what it does then.
enum class turn {
    done,
    last,   // `signals` is readable
    failed, // errno says why
};
int server_open(int listener, int signals, const policy &rules); // 0, or an errno value
turn server_turn(int timeout_ms);

// Serves `listener` until SIGTERM or SIGINT is read from `signals`. Returns 0 then, or an errno value. `between_turns`
// says for how many milliseconds the next turn may wait, -1 for as long as it likes.
int server_run(int listener, int signals, const policy &rules, const std::function<int()> &between_turns);

#endif
