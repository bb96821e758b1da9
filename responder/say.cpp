#include "say.hpp"

#include "line.hpp"

#include <cstdarg>

namespace responder
{

namespace
{

constinit line::writer out;

void append_loss(line::text &t, uint64_t lost, const void *)
{
    line::append(t, "kap-responder: %llu lines lost, they were not taken in time",
                 static_cast<unsigned long long>(lost));
}

} // namespace

void say_open() { line::open(out); }

void say(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    line::text t;
    line::append(t, "kap-responder: ");
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started above
    line::append_list(t, format, arguments);
    va_end(arguments);
    line::end(t);
    (void)line::put(out, t, append_loss, nullptr);
}

} // namespace responder
