// What the honest client tells the arena, in memory that both have mapped: how long each of its calls took, and what
// the daemon said of its links. One writer, the client; the arena only sets `measuring` and `ending`.
#pragma once

#include <atomic>
#include <cstdint>

inline constexpr uint32_t HONEST_SAMPLES = 400'000;

enum honest_state : uint32_t {
    HONEST_STARTING,
    HONEST_LIVING, // both links are there and the far end answers for both, where it is to answer for both at first
    HONEST_READY,  // one link is enabled, the other is not
};

struct honest_calls {
    std::atomic<uint32_t> count; // of samples; what comes after the last is not kept
    std::atomic<uint32_t> failed;
    uint32_t microseconds[HONEST_SAMPLES];
};

struct honest_report {
    std::atomic<uint32_t> state;
    std::atomic<uint32_t> measuring; // set by the arena: an attack runs
    std::atomic<uint32_t> seen;      // `measuring` as it was before the round under way
    std::atomic<uint32_t> ending;    // set by the arena: delete the links and end
    std::atomic<uint32_t> false_ups;
    std::atomic<uint32_t> false_downs;
    std::atomic<uint32_t> withdrawals;
    std::atomic<uint32_t> sessions;         // opened, of the operator
    std::atomic<uint32_t> refused_sessions; // ... and refused
    honest_calls locates;
    honest_calls requests;
};
