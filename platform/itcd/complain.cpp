#include "complain.hpp"

#include "line.hpp"

#include <cstdarg>

namespace
{

constinit line::writer out;

void append_loss(line::text &t, uint64_t lost, const void *)
{
    line::append(t, "itcd: %llu lines lost, they were not taken in time", static_cast<unsigned long long>(lost));
}

} // namespace

void complain_open() { line::open(out); }

void complain(const char *format, ...)
{
    line::text t;
    line::append(t, "itcd: ");
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started above
    line::append_list(t, format, arguments);
    va_end(arguments);
    line::end(t);
    (void)line::put(out, t, append_loss, nullptr);
}
