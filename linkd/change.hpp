// What becomes of a link, as the keeper tells it, and who is told.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace linkd
{

// waiting: not with the daemon (the reason says what is missing); rejected: the daemon refused; gone: taken out of the
// declarations.
enum class link_state {
    waiting,
    rejected,
    disabled,
    enabled,
    gone
};

inline constexpr int LINK_STATES = 5;

const char *name_of(link_state state); // "waiting", ...

struct link_identity {
    std::string name;
    std::string port; // as people write it: "IDL_A1"
    uint16_t vlan = 0;
    std::string far; // the far end's CPM: "02:00:00:00:00:02"
    bool operator==(const link_identity &) const = default;
};

// How a link stood when it was heard of last.
struct link_standing {
    link_identity link;
    link_state state = link_state::waiting;
};

struct link_change {
    uint64_t id = 0;   // given by the history: ascending, never used twice
    int64_t at_us = 0; // CLOCK_REALTIME, microseconds since 1970
    link_identity link;
    link_state from = link_state::waiting;
    link_state to = link_state::waiting;
    std::string reason;    // "down", "locked", "no connectivity", a reject reason's text, "no daemon", ""
    int64_t lasted_us = 0; // how long `from` lasted, by CLOCK_BOOTTIME: a clock set back does no harm
    nlohmann::json known;  // of the far end: last answer's age, last rtt, near MAC...
};

struct rtt_sample {
    std::string link;
    int64_t at_us = 0;
    uint64_t shortest_ns = 0;
    uint64_t average_ns = 0;
    uint64_t longest_ns = 0;
    uint32_t valid = 0;
};

// What the keeper tells. history, notify, journal, metrics and the control socket are each one. Called in order, on the
// loop's thread.
class listener
{
public:
    virtual ~listener() = default;
    virtual void changed(const link_change &change) { (void)change; }
    virtual void measured(const rtt_sample &sample) { (void)sample; }
    // Pings of a link, and how many of them were lost: all of that count. With another `count` they begin at 0 again.
    virtual void counted(const std::string &link, uint32_t count, uint64_t results, uint64_t lost)
    {
        (void)link, (void)count, (void)results, (void)lost;
    }
};

// The member CHANGE of the control protocol, and what it says.
nlohmann::json json_of(const link_change &change);

} // namespace linkd
