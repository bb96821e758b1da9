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

struct far_end;

struct far_end_knobs {
    bool silent = false;        // answers nothing
    uint32_t delay_us = 0;      // is added to each answer
    uint32_t loss_percent = 0;  // of the requests stay without answer, by chance
    uint32_t drop_next = 0;     // so many of the next requests stay without answer; counts down
    bool unusable_time = false; // the time stamp in the answers is none
    bool any_address = false;   // answers for every address that is not a group's, in its name
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

// Opens the far end in the network namespace in which the calling thread is. The interfaces need not exist yet, and
// may go and come back. NULL and a text in *error when there is no socket (not allowed) or the list is empty.
far_end *far_end_open(const std::vector<std::string> &interfaces, std::string *error);
void far_end_close(far_end *f);

int far_end_fd(const far_end *f);
void far_end_handle(far_end *f);

// May be changed at any time between two calls.
far_end_knobs &far_end_get_knobs(far_end *f);

// In the order of interface, VLAN and peer.
std::vector<far_end_counters> far_end_get_counters(const far_end *f);
