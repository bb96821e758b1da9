/*
 * What the library has to say on stderr. A line is written from inside calls that must not wait, with the lock held;
 * the writer sees to it that it holds nobody up. Lines about drops have a count of their own: the next one that is
 * taken tells how many there were.
 */
#include "line.hpp"
#include "state.hpp"

#include <cstdarg>
#include <cstring>

namespace itc
{
namespace
{

constexpr std::chrono::seconds drop_line_interval{10};
constexpr std::chrono::milliseconds lost_line_interval{100};

constinit line::writer out;

// The library does not keep a descriptor open for its lines, so it looks at each line what stderr is. A process that
// was started without one must not be taken to have one when a socket has got the number.
__attribute__((constructor)) void see_whether_there_is_a_stderr() { line::open_if_closed(out); }

void append_loss(line::text &t, uint64_t lost, const void *)
{
    line::append(t, "libitc: %llu lines lost, they were not taken in time", static_cast<unsigned long long>(lost));
}

__attribute__((format(printf, 2, 0))) bool say(line::when_lost when_lost, const char *format, va_list arguments)
{
    line::text t;
    line::append(t, "libitc: ");
    line::append_list(t, format, arguments);
    line::end(t);
    return line::put(out, t, append_loss, nullptr, when_lost);
}

// True when the line was taken.
__attribute__((format(printf, 1, 2))) bool say_of_drops(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started above
    const bool taken = say(line::when_lost::CALLER_COUNTS, format, arguments);
    va_end(arguments);
    return taken;
}

drop_kind &kind_of(state &s, const char *why)
{
    for (drop_kind &k : s.drops) {
        if (k.why == nullptr || strcmp(k.why, why) == 0) {
            k.why = why;
            return k;
        }
    }
    return s.drops.back();
}

} // namespace

void complain(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started above
    (void)say(line::when_lost::COUNT, format, arguments);
    va_end(arguments);
}

void note_drop(uint64_t *counter, const char *why)
{
    drop_kind &k = kind_of(g(), why);
    ++*counter;
    const clock::time_point now = clock::now();
    if (now < k.next_line) {
        k.silent++;
        return;
    }
    const bool taken = say_of_drops("message dropped, %s (and %llu before it without a line)", why,
                                    static_cast<unsigned long long>(k.silent));
    k.silent = taken ? 0 : k.silent + 1;
    k.next_line = now + (taken ? clock::duration(drop_line_interval) : clock::duration(lost_line_interval));
}

} // namespace itc
