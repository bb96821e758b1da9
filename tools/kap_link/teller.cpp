#include "teller.hpp"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace kap_link
{

namespace
{

std::string time_now()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    char seconds[32];
    char text[48];
    (void)strftime(seconds, sizeof seconds, "%Y-%m-%dT%H:%M:%S", &parts);
    (void)snprintf(text, sizeof text, "%s.%03ldZ", seconds, static_cast<long>(now.tv_nsec) / 1'000'000);
    return text;
}

// Microseconds with the nanoseconds behind the point.
std::string microseconds(uint64_t nanoseconds)
{
    char text[40];
    (void)snprintf(text, sizeof text, "%" PRIu64 ".%03" PRIu64, nanoseconds / 1000, nanoseconds % 1000);
    return text;
}

const char *reason_name(uint32_t reason)
{
    switch (reason) {
    case KAP_IEMLI_DOWN:
        return "\"down\"";
    case KAP_IEMLI_LOCKED:
        return "\"locked\"";
    case KAP_IEMLI_NO_CONNECTIVITY:
        return "\"no connectivity\"";
    default:
        return "null";
    }
}

} // namespace

teller::teller(const wish &wanted) : port_(wanted.port), vlan_(wanted.vlan), json_(wanted.json) {}

void teller::line(const char *event, const std::string &words, const std::string &fields) const
{
    const std::string time = time_now();
    if (json_) {
        (void)printf("{\"time\": \"%s\", \"event\": \"%s\", \"port\": \"%s\", \"vlan\": %u%s}\n", time.c_str(), event,
                     port_.c_str(), vlan_, fields.c_str());
    } else {
        (void)printf("%s %s VLAN %u: %s\n", time.c_str(), port_.c_str(), vlan_, words.c_str());
    }
    (void)fflush(stdout);
}

void teller::created(uint32_t link_ref) const
{
    const std::string number = std::to_string(link_ref);
    line("created", "created, link " + number, ", \"link\": " + number);
}

void teller::status(const kap_iemli_event &event) const
{
    line("status", kap_iemli_status_text(event.enabled, event.disabled_reason),
         std::string(", \"enabled\": ") + (event.enabled != 0 ? "true" : "false") +
             ", \"reason\": " + (event.enabled != 0 ? "null" : reason_name(event.disabled_reason)));
}

void teller::round_trip(const kap_iemli_rtt &rtt) const
{
    if (rtt.valid == 0) {
        line("rtt", "round trip: no ping was answered", ", \"min_us\": null, \"avg_us\": null, \"max_us\": null");
        return;
    }
    const std::string shortest = microseconds(rtt.shortest);
    const std::string average = microseconds(rtt.average);
    const std::string longest = microseconds(rtt.longest);
    line("rtt", "round trip min " + shortest + " avg " + average + " max " + longest + " us",
         ", \"min_us\": " + shortest + ", \"avg_us\": " + average + ", \"max_us\": " + longest);
}

void teller::lost(const char *what) const
{
    line("lost", std::string("lost, ") + what, std::string(", \"with\": \"") + what + "\"");
}

void teller::deleted() const { line("deleted", "deleted", ""); }

bool teller::is_heard() { return ferror(stdout) == 0; }

void complain(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    (void)fputs("kap-link: ", stderr);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started above
    (void)vfprintf(stderr, format, arguments);
    (void)fputc('\n', stderr);
    va_end(arguments);
}

} // namespace kap_link
