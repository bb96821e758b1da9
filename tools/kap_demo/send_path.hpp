// How long a frame takes from its sender's clock to the wire on this machine, here and now: what a round trip that
// begins with the sender's own stamp is longer than one between the kernel's stamps. Measured with frames of this
// process's own, an experimental EtherType that nobody listens to, with pauses between them as between pings.
#pragma once

#include <cstdint>
#include <string>

struct send_path {
    int64_t median; // nanoseconds
    int64_t most;
};

// Half a second. Throws std::system_error, or std::runtime_error when the kernel shows none of the frames.
send_path send_path_measure(const std::string &name_space, const std::string &interface);

// Sends so many frames of that EtherType to the address, one right after the other. Throws std::system_error.
void send_experimental(const std::string &name_space, const std::string &interface, const uint8_t (&to)[6], int count);

// How far the round trips of the daemon may be from those of a capture, in nanoseconds.
//
// They end with the same stamp, the kernel's, and begin apart: the daemon's with its reading of the clock, the
// capture's when the kernel puts the frame on the wire. What lies between is the send path, 13 us at the median on the
// machine that this was found on and 120 us under an emulator (docs/reliability.md); the daemon's thread comes from a
// longer sleep, so it gets three times that. A machine that is fast enough is held to the first figure. A stamp that is
// taken when a thread gets to it is some milliseconds late and exceeds both.
struct rtt_tolerance {
    int64_t average;
    int64_t single; // one frame may be held up, which evens out over a batch
};
rtt_tolerance rtt_tolerance_of(const send_path &path);
