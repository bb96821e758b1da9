// What a service manager is told that asked for it: readiness, and that the program still runs. The manager names its
// socket in NOTIFY_SOCKET and how often it wants to hear in WATCHDOG_USEC; without these nothing is done.
#pragma once

#include <cstdint>
#include <optional>

// Sends "READY=1" and its like, one assignment per line. A manager whose socket is full is waited for at most
// `patience_ms`. Returns 0, also when nobody asked, or an errno value (ETIMEDOUT: it was not told in time).
int manager_tell(const char *state, int patience_ms);

// How long to wait between two "WATCHDOG=1", in milliseconds: half of what the manager allows. 0: it wants none.
uint32_t manager_watchdog_ms();

// Tells a manager that wants it that the program still runs, from a loop that asks when it has to be next.
class manager_pulse
{
public:
    // When `beat` has something to do, in milliseconds of a clock of the loop's choice; nothing when there is no
    // watchdog.
    std::optional<uint64_t> next_ms() const;
    // Tells the manager when it is time to. Does not wait for one that does not read.
    void beat(uint64_t now_ms);

private:
    uint32_t every_ms_ = manager_watchdog_ms();
    uint64_t next_ms_ = 0;
};
