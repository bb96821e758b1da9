// How many lines of a kind are written in a second: 100. The rest of that second is counted, and told as one line when
// it is over, so that whoever can cause a line cannot fill a log with it. A kind is the place in the source that the
// line comes from: a flood of one hides no other.
//
// The limiter writes nothing and reads no clock. Whoever writes asks it before each line, and asks for what is to be
// told whenever it writes and when it ends. Any number of threads may ask at a time, also out of a signal handler:
// nobody waits, and who would have to has the line let through.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace line
{

inline constexpr uint32_t LINES_PER_SECOND = 100; // of one kind
inline constexpr size_t KINDS = 64;               // that are counted at a time; of more than these all are let through

// Which place a line comes from: two lines are of one kind when both are equal.
struct kind {
    const void *place; // never looked into
    uint32_t detail;
};

// What is told of a kind that was limited: how many lines were not written, and the first of them, cut.
struct told {
    uint64_t count;
    uint32_t level;  // the writer's own
    char origin[80]; // where it comes from, as the writer shows it
    char text[160];
};

struct limited_kind {
    kind which;
    int64_t began; // its second
    uint32_t lines;
    told silent; // count 0: nothing
};

struct limiter {
    std::atomic_flag taken = ATOMIC_FLAG_INIT;
    std::atomic<uint32_t> silent_kinds{0};
    limited_kind kinds[KINDS] = {};
};

// Whether a line may be written now. If not, it is counted. `now`: monotonic, in nanoseconds.
bool admit(limiter &l, const kind &which, uint32_t level, const char *origin, const char *text, int64_t now);

enum class when_told {
    SECOND_IS_OVER,
    ANY_TIME, // the process ends
};

// Takes what is to be told of one kind. False: nothing. To be called until then.
bool take_told(limiter &l, when_told when, int64_t now, told *out);

int64_t monotonic_now();

} // namespace line
