// How many lines of a kind are written. See limit.hpp.
#include "limit.hpp"

#include <cstring>
#include <ctime>

namespace line
{

namespace
{

constexpr int64_t SECOND_NS = 1'000'000'000;
constexpr int TRIES = 1000; // as long as another thread needs for its turn, and little more

// No lock that one waits for: a signal handler may have interrupted its owner, and a forked child may have none.
bool take(limiter &l)
{
    for (int i = 0; i < TRIES; i++) {
        if (!l.taken.test_and_set(std::memory_order_acquire)) {
            return true;
        }
    }
    return false;
}

void give_back(limiter &l) { l.taken.clear(std::memory_order_release); }

bool is_over(const limited_kind &k, int64_t now) { return now - k.began >= SECOND_NS; }

bool is_of(const limited_kind &k, const kind &which)
{
    return k.lines > 0 && k.which.place == which.place && k.which.detail == which.detail;
}

// What stands there may go: its second is over and there is nothing to tell of it.
bool is_free(const limited_kind &k, int64_t now) { return k.lines == 0 || (is_over(k, now) && k.silent.count == 0); }

void copy(char *to, size_t size, const char *from)
{
    const size_t length = strnlen(from, size - 1);
    memcpy(to, from, length);
    to[length] = '\0';
}

// The record of a kind, or a free one; null when there is neither.
limited_kind *find(limiter &l, const kind &which, int64_t now)
{
    const auto number = reinterpret_cast<uintptr_t>(which.place) / 8 + which.detail;
    limited_kind *free = nullptr;
    for (size_t i = 0; i < KINDS; i++) {
        limited_kind *k = &l.kinds[(number + i) % KINDS];
        if (is_of(*k, which)) {
            return k;
        }
        if (free == nullptr && is_free(*k, now)) {
            free = k;
        }
    }
    if (free != nullptr) {
        free->which = which;
        free->lines = 0;
    }
    return free;
}

bool count(limiter &l, limited_kind *k, uint32_t level, const char *origin, const char *text, int64_t now)
{
    // What was not written in a second that is over is told before the next one is counted.
    if (k->lines == 0 || (is_over(*k, now) && k->silent.count == 0)) {
        k->began = now;
        k->lines = 0;
    }
    if (k->lines < LINES_PER_SECOND) {
        ++k->lines;
        return true;
    }
    if (k->silent.count == 0) {
        k->silent.level = level;
        copy(k->silent.origin, sizeof k->silent.origin, origin);
        copy(k->silent.text, sizeof k->silent.text, text);
        ++l.silent_kinds;
    }
    ++k->silent.count;
    return false;
}

bool take_first(limiter &l, when_told when, int64_t now, told *out)
{
    for (limited_kind &k : l.kinds) {
        if (k.silent.count > 0 && (when == when_told::ANY_TIME || is_over(k, now))) {
            *out = k.silent;
            k.silent.count = 0;
            --l.silent_kinds;
            return true;
        }
    }
    return false;
}

} // namespace

bool admit(limiter &l, const kind &which, uint32_t level, const char *origin, const char *text, int64_t now)
{
    if (!take(l)) {
        return true;
    }
    limited_kind *k = find(l, which, now);
    const bool may = k == nullptr || count(l, k, level, origin, text, now);
    give_back(l);
    return may;
}

bool take_told(limiter &l, when_told when, int64_t now, told *out)
{
    if (l.silent_kinds == 0 || !take(l)) {
        return false;
    }
    const bool found = take_first(l, when, now, out);
    give_back(l);
    return found;
}

int64_t monotonic_now()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * SECOND_NS + t.tv_nsec;
}

} // namespace line
