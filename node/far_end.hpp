// The far end of supervised links: it answers one-way delay measurements, as the units at the other ends of the
// cables do, and counts them. It takes faults: silence, loss, delay, times that cannot be used.
//
// It answers requests to the address of the interface on which they arrive, with the request's VLAN tag and its dummy
// bytes, and only those that come from a single other one: not what is sent to a group or passes by, so that nobody can
// have it speak for others or to many. (A knob has it answer for every address, for whoever needs a thousand far ends
// on one interface.) An interface and the VLAN device above it must not both be listed, or a request of that VLAN is
// answered twice.
//
// It has no thread: far_end_fd is readable when there is something to do, far_end_handle then does it. What is to be
// answered late waits in the far end; its timer makes far_end_fd readable.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vorn_types.hpp"

// What is read in turns: a sender's frames are all in one of so many queues, so that one who floods holds up the few
// that share his.
inline constexpr unsigned FAR_END_QUEUES = 8;

struct far_end;

struct far_end_knobs {
    bool silent = false;        // answers nothing
    uint32_t delay_us = 0;      // is added to each answer
    uint32_t loss_percent = 0;  // of the requests stay without answer, by chance
    uint32_t drop_next = 0;     // so many of the next requests stay without answer; counts down
    bool unusable_time = false; // the time stamp in the answers is none
    bool any_address = false;   // answers for every address that is not a group's, in its name
    uint32_t per_second = 0;    // of one peer's requests are answered; 0: all
};

// What came from one peer. Counters start at 0 and never go back; a request is either answered, dropped by a knob,
// waiting (delayed), or could not be sent (interface gone or down).
struct far_end_counters {
    std::string interface;
    uint16_t vlan; // 0: without a tag
    mac_address peer;
    uint64_t requests;
    uint64_t answered;
    uint64_t dropped;
    uint64_t failed;
};

// The same of all peers together, and what cannot be said of one. Of ever new peers the first 65,536 are counted by
// themselves; the others are answered like these.
struct far_end_totals {
    uint64_t requests;
    uint64_t answered;
    uint64_t dropped;
    uint64_t failed;
    uint64_t uncounted; // requests of the others
    uint64_t lost;      // frames that the kernel dropped because they were not read in time
};

// Opens the far end in the network namespace in which the calling thread is. The interfaces need not exist yet, and
// may go and come back. NULL, a text in *error and errno when there is no socket (not allowed); NULL and a text when
// the list is empty. `queues`: at most FAR_END_QUEUES; where the kernel has no such thing it is one.
far_end *far_end_open(const std::vector<std::string> &interfaces, std::string *error, unsigned queues = 1);
void far_end_close(far_end *f);

int far_end_fd(const far_end *f);
void far_end_handle(far_end *f);

// May be changed at any time between two calls.
far_end_knobs &far_end_get_knobs(far_end *f);

// In the order of interface, VLAN and peer.
std::vector<far_end_counters> far_end_get_counters(const far_end *f);
far_end_totals far_end_get_totals(far_end *f);

// Asks the kernel anew which interface has which name; until then one that was renamed has its old one.
void far_end_look_anew(far_end *f);
// For questions about an interface of its namespace (packet_socket.hpp).
int far_end_socket(const far_end *f);
