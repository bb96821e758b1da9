#include "complain.hpp"

#include "limit.hpp"
#include "line.hpp"

#include <cstdarg>
#include <cstdlib>

namespace
{

constinit line::writer out;
constinit line::limiter limits;

void append_loss(line::text &t, uint64_t lost, const void *)
{
    line::append(t, "itcd: %llu lines lost, they were not taken in time", static_cast<unsigned long long>(lost));
}

void tell_silent(line::when_told when)
{
    line::told silent;
    while (line::take_told(limits, when, line::monotonic_now(), &silent)) {
        line::text t;
        line::append(t, "itcd: %llu more of the kind: %s", static_cast<unsigned long long>(silent.count), silent.text);
        line::end(t);
        if (!line::put(out, t, append_loss, nullptr, line::when_lost::CALLER_COUNTS)) {
            out.lost += silent.count;
        }
    }
}

void tell_at_exit() { tell_silent(line::when_told::ANY_TIME); }

__attribute__((format(printf, 2, 0))) void say(const char *kind, const char *format, va_list arguments)
{
    constexpr size_t WHO = sizeof "itcd: " - 1;
    tell_silent(line::when_told::SECOND_IS_OVER);
    line::text t;
    line::append(t, "itcd: ");
    line::append_list(t, format, arguments);
    t.bytes[t.length] = '\0';
    if (line::admit(limits, {kind, 0}, 0, "", t.bytes + WHO, line::monotonic_now())) {
        line::end(t);
        (void)line::put(out, t, append_loss, nullptr);
    }
}

} // namespace

void complain_open()
{
    line::open(out);
    (void)atexit(tell_at_exit); // without it a count may stay untold
}

void complain(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started above
    say(format, format, arguments);
    va_end(arguments);
}

void complain_of(const char *kind, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started above
    say(kind, format, arguments);
    va_end(arguments);
}
