// The yardstick of supervision: a process that does the obvious. It wakes for each request when it is due and for each
// answer when it comes, over the same kind of socket and with the same frames as the supervision library.
#pragma once

#include <cstdint>

#include "vorn_types.hpp"

struct ping_figures {
    uint64_t pings; // answered
    uint64_t lost;
    double cpu_us; // processor time of the process meanwhile
};

// Supervises `sessions` far ends once a second over an interface of the current network namespace and measures for
// `seconds`, after two of warming up. Ends the process with a sentence when it cannot.
ping_figures naive_peer_measure(const char *if_name, uint32_t sessions, int seconds);

// The session's far end and its VLAN.
mac_address naive_peer_far_mac(uint32_t session);
uint16_t naive_peer_vlan(uint32_t session);
