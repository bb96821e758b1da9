// What a service manager is told that asked for it: readiness, and that the program still runs. The manager names its
// socket in NOTIFY_SOCKET and how often it wants to hear in WATCHDOG_USEC; without these nothing is done.
#pragma once

#include <cstdint>

// Sends "READY=1" and its like, one assignment per line. A manager whose socket is full is waited for at most
// `patience_ms`. Returns 0, also when nobody asked, or an errno value (ETIMEDOUT: it was not told in time).
int manager_tell(const char *state, int patience_ms);

// How long to wait between two "WATCHDOG=1", in milliseconds: half of what the manager allows. 0: it wants none.
uint32_t manager_watchdog_ms();
