// Which of the node's services are there, and how often each has come: as the registry says, which knows their names
// and when the process that has one ends. Nothing is asked of the services themselves.
#pragma once

#include "itc.h"

#include <array>
#include <cstdint>
#include <vector>

namespace linkd
{

struct service_view {
    const char *name = ""; // of a fixed list: "iepcsi"
    bool up = false;
    uint64_t starts = 0; // that were seen
};

class node_services
{
public:
    // The process has a mailbox. Once, as it has one connection with the registry in its life.
    void begin();
    // False: the message is about something else. It stays the caller's.
    bool take(const itc_msg *msg);
    void registry_lost();
    std::vector<service_view> look() const;

private:
    static constexpr size_t COUNT = 6;

    struct state {
        uint32_t mbox = ITC_NO_MBOX; // while it is there
        uint64_t starts = 0;
    };

    static void await(size_t which);

    std::array<state, COUNT> states_;
};

} // namespace linkd
