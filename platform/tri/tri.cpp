// The border of the trace library: the mask, the names, and the way of a record to the sinks.
//
// The mask lies in one page of this library from the start, with the built-in default. tri_init maps the process's
// share file over that page, so that every pointer to the mask, in whichever thread, goes on being right.
#include "tri.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mask_share.hpp"
#include "sink.hpp"

namespace
{

constinit tri::share_pages pages{{{}, 0, 0, 0, {tri::BUILT_IN_MASK, {}}}};

// A further sink is one more entry.
constexpr tri::sink_fn SINKS[] = {tri::stderr_sink_emit};

std::atomic_flag opened = ATOMIC_FLAG_INIT;

constexpr size_t TEXT_SIZE = 2048;
thread_local char text_buffer[TEXT_SIZE];

// The name may be changed while other threads trace; they then see the old one, the new one or a mixture, and always
// one that ends.
void store_name(const char *name)
{
    char(&stored)[32] = pages.s.info.name;
    const size_t length = strnlen(name, sizeof stored - 1);
    for (size_t i = 0; i < sizeof stored; i++) {
        __atomic_store_n(&stored[i], i < length ? name[i] : '\0', __ATOMIC_RELAXED);
    }
}

void load_name(char (&name)[32])
{
    for (size_t i = 0; i < sizeof name; i++) {
        name[i] = __atomic_load_n(&pages.s.info.name[i], __ATOMIC_RELAXED);
    }
    name[sizeof name - 1] = '\0';
    if (name[0] == '\0') {
        (void)snprintf(name, sizeof name, "%s", program_invocation_short_name);
    }
}

void emit(tri::record r)
{
    if (r.level > 31 || tri_enabled(r.level) == 0) {
        return;
    }
    const int saved_errno = errno;
    char name[32];
    load_name(name);
    r.process = name;
    for (const tri::sink_fn sink : SINKS) {
        sink(r);
    }
    errno = saved_errno;
}

pid_t opened_by;

// A forked child that ends has nothing to tell: what it has counted is its parent's.
void close_all()
{
    if (getpid() == opened_by) {
        char name[32];
        load_name(name);
        tri::stderr_sink_close(name);
    }
    tri::share_close();
}

} // namespace

__thread struct tri_proc_info *procInfo = &pages.s.info;

int tri_init(void)
{
    if (opened.test_and_set()) {
        return 4;
    }
    tri::stderr_sink_open();
    opened_by = getpid();
    const bool told_at_exit = atexit(close_all) == 0;
    if (pages.s.info.name[0] == '\0') {
        store_name(program_invocation_short_name);
    }
    __atomic_store_n(&pages.s.info.mask, tri::default_mask(), __ATOMIC_RELAXED);
    if (!tri::share_open(&pages)) {
        return 4;
    }
    return told_at_exit ? 0 : ENOMEM;
}

int tri_register_thread_name(const char *name)
{
    if (name == nullptr || name[0] == '\0') {
        return EINVAL;
    }
    store_name(name);
    tri::share_rename(&pages);
    // The process list has room for 15 characters.
    char shown[16];
    (void)snprintf(shown, sizeof shown, "%.15s", name);
    return pthread_setname_np(pthread_self(), shown);
}

const char *short_fname(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

const char *formatStr(const char *format, ...)
{
    const int saved_errno = errno;
    va_list args;
    va_start(args, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is started above
    if (vsnprintf(text_buffer, sizeof text_buffer, format, args) < 0) {
        text_buffer[0] = '\0';
    }
    va_end(args);
    errno = saved_errno;
    return text_buffer;
}

void lttngTriTrace(uint32_t level, const char *file, int line, const char *text)
{
    emit({level, nullptr, file, line, tri::kind::PLAIN, 0, 0, text});
}

void lttngTriSendSigTrace(const char *file, int line, uint32_t msgno, uint32_t peer, const char *text)
{
    emit({TRI_LEVEL_SENT, nullptr, file, line, tri::kind::SENT, msgno, peer, text});
}

void lttngTriRecSigTrace(const char *file, int line, uint32_t msgno, uint32_t peer, const char *text)
{
    emit({TRI_LEVEL_RECEIVED, nullptr, file, line, tri::kind::RECEIVED, msgno, peer, text});
}
