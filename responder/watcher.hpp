// What is noteworthy, and said once: the interfaces as they come, go and change, and the times in which requests stay
// without answer because somebody asks too often or the machine cannot keep up. Looked at once a second; it reads no
// clock.
#pragma once

#include "far_end.hpp"
#include "packet_socket.hpp"

#include <optional>
#include <string>
#include <vector>

namespace responder
{

class watcher
{
public:
    watcher(far_end *engine, const std::vector<std::string> &interfaces);

    // Once a second.
    void look();
    // What every peer has asked, the busiest first, and all together.
    void say_counters() const;

private:
    struct watched {
        std::string name;
        std::optional<packet::condition> condition; // none: not looked at yet
        mac_address mac;
    };

    // Something that goes on while a counter grows; it is over when that has not grown for a while.
    struct episode {
        const char *begins;
        const char *ends;
        uint64_t seen = 0;
        uint64_t at_begin = 0;
        unsigned quiet_seconds = 0;
        bool on = false;
        void look(uint64_t counter);
    };

    void look_at(watched &which) const;

    far_end *engine_;
    std::vector<watched> interfaces_;
    episode too_often_;
    episode too_many_;
    episode not_sent_;
};

} // namespace responder
