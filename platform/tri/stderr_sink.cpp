// Traces as plain lines on stderr.
//
//     2026-11-20T21:43:19.123456Z kap_vorn_manager[6] link_table.cpp:120 Supervision started with session id: 1
//     <6>kap_vorn_manager[6] link_table.cpp:120 Supervision started with session id: 1         (under journald)
//
// That a line holds nobody up, and that lost ones are counted, is the writer's doing; here is their form. Of one place
// in the source a hundred lines are written in a second, and then how many more there were: what others make a process
// trace must not fill its log. Levels beyond the built-in mask are there because a person switched them on, and are
// written whole.
#include "sink.hpp"

#include "limit.hpp"
#include "line.hpp"
#include "mask_share.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace tri
{

namespace
{

constexpr uint32_t LEVEL_OF_A_LOSS = 4;

constinit line::writer out;
constinit line::limiter limits;
std::atomic<bool> out_is_journal{false};

// journald sets JOURNAL_STREAM to device and inode of the socket it made; a program started with stderr redirected
// inherits the variable but not the socket.
bool stderr_is_journal()
{
    struct stat st {
    };
    const char *stream = getenv("JOURNAL_STREAM");
    unsigned long long device = 0;
    unsigned long long inode = 0;
    // NOLINTNEXTLINE(cert-err34-c): a number out of range matches no socket
    return stream != nullptr && fstat(STDERR_FILENO, &st) == 0 && sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
           device == st.st_dev && inode == st.st_ino;
}

// The syslog priority of a level: error, warning, informational.
int journal_priority(uint32_t level) { return level == 1 ? 3 : level == 4 ? 4 : 6; }

void append_time(line::text &t)
{
    timespec now{};
    tm utc{};
    clock_gettime(CLOCK_REALTIME, &now);
    gmtime_r(&now.tv_sec, &utc);
    line::append(t, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ ", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                 utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<long>(now.tv_nsec / 1000));
}

void begin(line::text &t, uint32_t level, const char *process)
{
    if (out_is_journal) {
        line::append(t, "<%d>", journal_priority(level));
    } else {
        append_time(t);
    }
    line::append(t, "%.32s[%u] ", process, level);
}

void append_loss(line::text &t, uint64_t lost, const void *process)
{
    begin(t, LEVEL_OF_A_LOSS, static_cast<const char *>(process));
    line::append(t, "%llu traces lost, they were not taken in time", static_cast<unsigned long long>(lost));
}

// "FILE:LINE". Written for each record, also for the thousands of a second that are only counted.
void write_origin(char (&origin)[sizeof line::told::origin], const record &r)
{
    constexpr size_t MOST_OF_A_NAME = 64;
    const char *file = r.file != nullptr ? r.file : "(null)";
    const size_t length = strnlen(file, MOST_OF_A_NAME);
    memcpy(origin, file, length);
    origin[length] = ':';
    char *end = std::to_chars(origin + length + 1, origin + sizeof origin - 1, r.line).ptr;
    *end = '\0';
}

bool is_limited(const record &r) { return (BUILT_IN_MASK >> r.level & 1u) != 0; }

void tell(const line::told &silent, const char *process)
{
    line::text t;
    begin(t, silent.level, process);
    line::append(t, "%s %llu more of the kind: %s", silent.origin, static_cast<unsigned long long>(silent.count),
                 silent.text);
    line::end(t);
    if (!line::put(out, t, append_loss, process, line::when_lost::CALLER_COUNTS)) {
        out.lost += silent.count;
    }
}

void tell_silent(line::when_told when, int64_t now, const char *process)
{
    line::told silent;
    while (line::take_told(limits, when, now, &silent)) {
        tell(silent, process);
    }
}

} // namespace

void stderr_sink_open()
{
    out_is_journal = stderr_is_journal();
    line::open(out);
}

void stderr_sink_emit(const record &r)
{
    const int64_t now = line::monotonic_now();
    tell_silent(line::when_told::SECOND_IS_OVER, now, r.process);
    char origin[sizeof line::told::origin];
    write_origin(origin, r);
    if (is_limited(r) && !line::admit(limits, {r.file, static_cast<uint32_t>(r.line)}, r.level, origin, r.text, now)) {
        return;
    }
    line::text t;
    begin(t, r.level, r.process);
    line::append(t, "%s ", origin);
    if (r.what != kind::PLAIN) {
        line::append(t, "%s 0x%x %s 0x%x: ", r.what == kind::SENT ? "SEND" : "REC", r.msgno,
                     r.what == kind::SENT ? "to" : "from", r.peer);
    }
    line::append(t, "%s", r.text);
    line::end(t);
    line::put(out, t, append_loss, r.process);
}

void stderr_sink_close(const char *process) { tell_silent(line::when_told::ANY_TIME, line::monotonic_now(), process); }

} // namespace tri
