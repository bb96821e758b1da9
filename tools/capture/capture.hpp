// vornctl capture: supervision frames of ports, and the ITC messages of the daemon, into a pcapng file.
//
// It needs root to open what it looks at, and gives everything up before the first packet is read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace capture
{

// The exit statuses of vornctl.
inline constexpr int STATUS_FAILED = 1;
inline constexpr int STATUS_WRONG_USE = 2;
inline constexpr int STATUS_NO_DAEMON = 3;
inline constexpr int STATUS_NO_REGISTRY = 4;
inline constexpr int STATUS_NOT_ALLOWED = 5;

struct capture_options {
    std::string file = "-";            // "-": standard output
    std::vector<std::string> ports;    // "IDL_A1"
    std::optional<uint32_t> link_ref;  // of the daemon's link list: its port, its VLAN, its far ends
    std::string interface;             // in place of ports
    std::string name_space;            // of the interface; "": the caller's own
    std::optional<uint16_t> vlan;      // only frames of this VLAN
    std::vector<std::string> far_ends; // MACs: only frames from or to one of them
    bool all = false;                  // every frame, not the supervision frames alone
    bool messages = false;
    std::string process = "kap-vorn"; // whose messages
    uint32_t snap_length = 262144;    // bytes of a packet that are kept
    uint64_t count = 0;               // packets; 0: until it is ended
    double duration_s = 0;            // 0: until it is ended
    std::string node_config = "/etc/kap-node/kap-node.toml";
};

// Captures until SIGINT or SIGTERM, or until there are enough. Gives the exit status; says on standard error what it
// looks at, what went wrong, and at the end how much it saw and lost.
int capture_command(const capture_options &options);

} // namespace capture
