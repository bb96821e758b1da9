// Where traces go. A sink is a function that takes one record; it must neither block nor change errno's meaning for
// the caller (errno is kept around it), and it counts what it could not pass on. tri.cpp holds the table of sinks.
#pragma once

#include <cstdint>

namespace tri
{

enum class kind {
    PLAIN,
    SENT,
    RECEIVED,
};

struct record {
    uint32_t level;
    const char *process;
    const char *file; // short name
    int line;
    kind what;
    uint32_t msgno; // of SENT and RECEIVED
    uint32_t peer;  // of SENT and RECEIVED: the mailbox
    const char *text;
};

using sink_fn = void (*)(const record &r);

// ---- stderr: one line and one write per record ----

// Looks at what stderr is. Before this call lines are written to descriptor 2 as it is.
void stderr_sink_open();
void stderr_sink_emit(const record &r);
// Tells what is still to be told of lines that were only counted. The sink goes on as before.
void stderr_sink_close(const char *process);

} // namespace tri
