// Lines on stderr, written by processes that must not wait and must not end for it. A line that is not taken at once is
// lost and counted; the next line that is taken is preceded by one that tells how many were lost.
//
// Whatever stderr is: no write blocks, no signal ends or stops the process, and no flag of the open file is changed,
// because O_NONBLOCK belongs to the open file, which other processes share, a shell among them. What a line of text
// means, where it begins and how a loss is told is the caller's; errno is the same after a call as before it.
//
// Any number of threads may write through one writer.
#pragma once

#include <atomic>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include <unistd.h>

namespace line
{

inline constexpr size_t MOST_BYTES = 3072;
static_assert(MOST_BYTES <= PIPE_BUF, "a pipe must take a line in one piece, so that those of two threads never mix");

// A line in the making.
struct text {
    char bytes[MOST_BYTES];
    size_t length = 0;
};

// What does not fit is cut; one byte stays free for the line feed.
__attribute__((format(printf, 2, 3))) void append(text &t, const char *format, ...);
void append_list(text &t, const char *format, va_list arguments);
// Adds the line feed. What is no printable character becomes a '?': a text may hold what a client sent, and that must
// not look like the start of another line, nor reach a terminal as an escape sequence.
void end(text &t);

enum class channel {
    NOT_OPENED,       // looked at anew for each line
    CLOSED,           // nothing is ever written: descriptor 2 may by now be something else
    NON_BLOCKING,     // a pipe, a terminal or a device, opened a second time with a flag of its own
    SOCKET,           // the flag goes with each line
    PLAIN_FILE,       // does not block anyway
    FOREIGN_PIPE,     // a pipe that this user may not open a second time
    FOREIGN_TERMINAL, // likewise, a terminal or a device
};

struct writer {
    std::atomic<int> fd{STDERR_FILENO};
    std::atomic<channel> kind{channel::NOT_OPENED};
    std::atomic<uint64_t> lost{0};
    std::atomic<bool> line_is_open{false}; // a part of a line went out; what comes next starts with a line feed
};

// Looks at what stderr is, once and for all. To be called before anything else opens descriptors: a program that was
// started without descriptor 2 gets another file there.
void open(writer &w);
// Only sees whether there is a stderr at all; what it is, is looked at anew for each line.
void open_if_closed(writer &w);

// Appends to the empty text the line that tells of a loss; `context` is what was given to put().
using loss_text = void (*)(text &t, uint64_t lost, const void *context);

enum class when_lost {
    COUNT,
    CALLER_COUNTS, // the line is told in another way
};

// One line, which has its end. True when the whole line was taken, and what had been lost was told before it.
bool put(writer &w, const text &t, loss_text tell, const void *context, when_lost lost = when_lost::COUNT);

} // namespace line
