// The frames of one interface, as the kernel hands them to whoever looks: what comes in and what goes out, with the tag
// where it stood on the wire. It looks only: nothing is sent, and the interface's settings stay as they are.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pcapng.hpp"

namespace capture
{

using mac = std::array<uint8_t, 6>;

// Which frames are wanted.
struct frame_filter {
    bool all = false;             // else supervision frames alone
    std::optional<uint16_t> vlan; // frames of this VLAN
    std::vector<mac> far_ends;    // frames from or to one of these; empty: of anybody
};
std::string filter_text(const frame_filter &f); // as people read it; empty for everything

struct frame {
    uint64_t stamp;
    std::vector<uint8_t> bytes; // at most the snap length
    uint32_t length;            // on the wire
    direction way;
};

class frame_source
{
public:
    // Looks at an interface of a namespace ("": the process's own). Throws std::system_error.
    frame_source(const std::string &name_space, const std::string &interface, const frame_filter &filter,
                 uint32_t snap_length);
    ~frame_source();
    frame_source(const frame_source &) = delete;
    frame_source &operator=(const frame_source &) = delete;

    int fd() const { return fd_; }
    // The next that is wanted; nothing when no more is there, or among the many that are there none is wanted so far:
    // then fd() can still be read. Throws std::system_error when the interface is gone.
    std::optional<frame> next();
    uint64_t dropped(); // by the kernel, for want of room, since the beginning

private:
    bool wanted(const frame &f) const;

    int fd_ = -1;
    frame_filter filter_;
    uint32_t snap_length_;
    uint64_t dropped_ = 0;
    std::vector<uint8_t> buffer_;
};

} // namespace capture
