// The bytes of one fuzz input, taken from the front. What is not there reads as zero, so that every input is a whole
// story.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace fuzz
{

struct Input {
    const uint8_t *at;
    const uint8_t *end;

    Input(const uint8_t *data, size_t size) : at(data), end(data + size) {}

    [[nodiscard]] bool more() const { return at < end; }
    uint8_t byte() { return at < end ? *at++ : 0; }
    uint16_t half()
    {
        const uint8_t low = byte();
        return static_cast<uint16_t>(low | byte() << 8);
    }
    uint32_t word()
    {
        const uint32_t low = half();
        return low | static_cast<uint32_t>(half()) << 16;
    }
    // 0 to n - 1.
    size_t pick(size_t n) { return byte() % n; }
    std::vector<uint8_t> bytes(size_t n)
    {
        const auto there = static_cast<size_t>(end - at);
        const uint8_t *from = at;
        at += n < there ? n : there;
        return {from, at};
    }
    std::string text(size_t n)
    {
        const std::vector<uint8_t> taken = bytes(n);
        return {taken.begin(), taken.end()};
    }
};

// Ends the process, which a fuzzer counts as a crash: something did not hold.
inline void require(bool holds, const char *what)
{
    if (!holds) {
        (void)fprintf(stderr, "does not hold: %s\n", what);
        abort();
    }
}

} // namespace fuzz
