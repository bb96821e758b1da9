#include "times.hpp"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace vornctl
{

namespace
{

constexpr int64_t MINUTE_S = 60;
constexpr int64_t HOUR_S = 3600;
constexpr int64_t DAY_S = 86400;

tm local(int64_t at_us)
{
    const time_t seconds = static_cast<time_t>(at_us / SECOND_US);
    tm fields{};
    localtime_r(&seconds, &fields);
    return fields;
}

std::string formatted(const char *format, const tm &fields)
{
    char text[64];
    return {text, strftime(text, sizeof text, format, &fields)};
}

bool all_digits(const std::string &text)
{
    for (const char c : text) {
        if (isdigit(static_cast<unsigned char>(c)) == 0) {
            return false;
        }
    }
    return !text.empty();
}

// "15m": how many seconds.
std::optional<int64_t> read_span(const std::string &word)
{
    if (word.size() < 2 || word.size() > 10 || !all_digits(word.substr(0, word.size() - 1))) {
        return std::nullopt;
    }
    const int64_t number = strtoll(word.c_str(), nullptr, 10);
    switch (word.back()) {
    case 's':
        return number;
    case 'm':
        return number * MINUTE_S;
    case 'h':
        return number * HOUR_S;
    case 'd':
        return number * DAY_S;
    default:
        return std::nullopt;
    }
}

std::optional<int64_t> read_calendar(const std::string &word, int64_t now)
{
    for (const char *format : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S",
                               "%H:%M", "%H:%M:%S"}) {
        tm fields{};
        if (format[1] == 'H') {
            fields = local(now);
            fields.tm_sec = 0;
        }
        const char *end = strptime(word.c_str(), format, &fields);
        if (end != nullptr && *end == '\0') {
            fields.tm_isdst = -1;
            const time_t seconds = mktime(&fields);
            return seconds < 0 ? std::nullopt : std::optional(static_cast<int64_t>(seconds) * SECOND_US);
        }
    }
    return std::nullopt;
}

} // namespace

int64_t now_us()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * SECOND_US + now.tv_nsec / 1000;
}

std::optional<int64_t> read_moment(const std::string &word, int64_t now)
{
    if (word == "now") {
        return now;
    }
    if (word == "today") {
        return read_calendar("00:00", now);
    }
    if (const auto ago = read_span(word)) {
        return now - *ago * SECOND_US;
    }
    if (word.size() > 1 && word.size() <= 12 && word[0] == '@' && all_digits(word.substr(1))) {
        return strtoll(word.c_str() + 1, nullptr, 10) * SECOND_US;
    }
    return read_calendar(word, now);
}

std::string clock_text(int64_t at_us) { return formatted("%Y-%m-%d %H:%M:%S", local(at_us)); }

std::string iso_text(int64_t at_us)
{
    const time_t seconds = static_cast<time_t>(at_us / SECOND_US);
    tm fields{};
    gmtime_r(&seconds, &fields);
    char fraction[16];
    (void)snprintf(fraction, sizeof fraction, ".%06dZ", static_cast<int>(at_us % SECOND_US));
    return formatted("%Y-%m-%dT%H:%M:%S", fields) + fraction;
}

std::string short_clock_text(int64_t at_us, int64_t now)
{
    const tm then = local(at_us);
    const tm today = local(now);
    const bool same_day = then.tm_yday == today.tm_yday && then.tm_year == today.tm_year;
    return formatted(same_day ? "%H:%M:%S" : "%m-%d %H:%M", then);
}

std::string span_text(int64_t us)
{
    us = us < 0 ? 0 : us;
    const int64_t s = us / SECOND_US;
    char text[48];
    if (us < SECOND_US) {
        (void)snprintf(text, sizeof text, "%dms", static_cast<int>(us / 1000));
    } else if (s < MINUTE_S) {
        (void)snprintf(text, sizeof text, "%ds", static_cast<int>(s));
    } else if (s < HOUR_S) {
        (void)snprintf(text, sizeof text, "%dm %02ds", static_cast<int>(s / MINUTE_S), static_cast<int>(s % MINUTE_S));
    } else if (s < DAY_S) {
        (void)snprintf(text, sizeof text, "%dh %02dm", static_cast<int>(s / HOUR_S),
                       static_cast<int>(s % HOUR_S / MINUTE_S));
    } else {
        (void)snprintf(text, sizeof text, "%lldd %02dh", static_cast<long long>(s / DAY_S),
                       static_cast<int>(s % DAY_S / HOUR_S));
    }
    return text;
}

} // namespace vornctl
