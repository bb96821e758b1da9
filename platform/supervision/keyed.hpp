// A keyed function of two numbers: SipHash-2-4 of the sixteen bytes that they are, lowest byte first. Who has not the
// key cannot tell its values from chance, however many of them he has seen.
#pragma once

#include <cstdint>

namespace supervision
{

struct secret {
    uint64_t low = 0;
    uint64_t high = 0;
};

struct keyed_state {
    uint64_t v0, v1, v2, v3;
};

inline uint64_t rotate_left(uint64_t value, int by) { return value << by | value >> (64 - by); }

inline void keyed_round(keyed_state &s)
{
    s.v0 += s.v1;
    s.v2 += s.v3;
    s.v1 = rotate_left(s.v1, 13) ^ s.v0;
    s.v3 = rotate_left(s.v3, 16) ^ s.v2;
    s.v0 = rotate_left(s.v0, 32);
    s.v2 += s.v1;
    s.v0 += s.v3;
    s.v1 = rotate_left(s.v1, 17) ^ s.v2;
    s.v3 = rotate_left(s.v3, 21) ^ s.v0;
    s.v2 = rotate_left(s.v2, 32);
}

inline void keyed_take(keyed_state &s, uint64_t word)
{
    s.v3 ^= word;
    keyed_round(s);
    keyed_round(s);
    s.v0 ^= word;
}

inline uint64_t keyed(const secret &key, uint64_t a, uint64_t b)
{
    constexpr uint64_t LENGTH = uint64_t{16} << 56;
    keyed_state s = {key.low ^ 0x736f6d6570736575u, key.high ^ 0x646f72616e646f6du, key.low ^ 0x6c7967656e657261u,
                     key.high ^ 0x7465646279746573u};
    keyed_take(s, a);
    keyed_take(s, b);
    keyed_take(s, LENGTH);
    s.v2 ^= 0xFF;
    for (int i = 0; i < 4; i++) {
        keyed_round(s);
    }
    return s.v0 ^ s.v1 ^ s.v2 ^ s.v3;
}

} // namespace supervision
