// Times as people write and read them. Pure functions, but for the time zone, which is the machine's.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vornctl
{

inline constexpr int64_t SECOND_US = 1'000'000;

int64_t now_us(); // CLOCK_REALTIME, microseconds since 1970

// A moment: "now", "today", "15m" or "2h" or "3d" or "90s" (so long ago), "14:30" (today), "2026-11-22",
// "2026-11-22 14:30", "2026-11-22T14:30:05" and so on, "@1795000000" (seconds since 1970).
std::optional<int64_t> read_moment(const std::string &word, int64_t now);

std::string clock_text(int64_t at_us);                    // "2026-11-22 14:30:05", local time
std::string iso_text(int64_t at_us);                      // "2026-11-22T13:30:05.123456Z"
std::string short_clock_text(int64_t at_us, int64_t now); // "14:30:05" of today, else "11-22 14:30"
std::string span_text(int64_t us);                        // "350ms", "12s", "3m 05s", "2h 10m", "5d 03h"

} // namespace vornctl
