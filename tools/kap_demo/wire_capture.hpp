// What the near end of a wire carries of one link's pings, with the kernel's time stamps: the tour's own witness, which
// shares nothing with the daemon or its supervision library.
//
// It looks only: nothing is sent, and the frames go their way. Frames wait in the socket until capture_drain takes
// them; the times are those at which the kernel saw the frames, however late that is.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vorn_types.hpp"

// A request on the wire and what became of it. Times in nanoseconds of the real-time clock.
struct wire_ping {
    uint8_t id;
    size_t size; // from the destination MAC to the end, without the tag
    int64_t asked;
    int64_t answered = 0; // 0: not (yet)
};

struct wire_capture {
    int fd = -1;
    mac_address near_mac = {};
    mac_address far_mac = {};
    uint16_t vlan = 0;
    std::vector<wire_ping> pings; // in the order of the requests
};

// Looks at an interface of a namespace for pings between two MACs in a VLAN. Throws std::system_error.
wire_capture capture_open(const std::string &name_space, const std::string &interface, const mac_address &near_mac,
                          const mac_address &far_mac, uint16_t vlan);
void capture_close(wire_capture &c);

// Takes in what has come. Throws std::runtime_error when the kernel had to drop something: then nothing can be proved.
void capture_drain(wire_capture &c);

// The pings of one frame size.
std::vector<wire_ping> capture_pings_of_size(const wire_capture &c, size_t size);

// The round trips among pings from `first` to before `last`, in nanoseconds.
struct wire_figures {
    size_t answered = 0;
    int64_t minimum = 0;
    int64_t average = 0;
    int64_t maximum = 0;
};
wire_figures capture_figures(const std::vector<wire_ping> &pings, size_t first, size_t last);
