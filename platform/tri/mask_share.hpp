// Where trace masks are kept so that they can be read and set from outside.
//
// The mask itself lies in memory of the process that has no name in any directory and that nobody can make smaller (a
// sealed memfd): what is mapped is there for good, whatever becomes of any file. Beside it there is a record per
// process, /run/kap-tri/NAME.PID, which says to whom the mask belongs, how it was last set, and under which descriptor
// of the process it is found. Everybody may read the record; who may open that descriptor (root, and the process's own
// user as far as the kernel lets him) may set the mask. A record that is cut, changed or taken away does nothing to the
// process.
//
// The process removes its record when it exits; the record of a process that was killed stays until somebody lists the
// directory, and is told from a living one by pid and start time.
//
// The directory and the default mask: TRI_DIRECTORY is made by the first process that may. TRI_DIRECTORY/default, if
// it exists, holds the mask (a number as strtoull reads it) of processes that start later. It has to be a file of root
// or of the user who reads it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "tri.h"

namespace tri
{

inline constexpr char DIRECTORY[] = "/run/kap-tri";
inline constexpr char DEFAULT_NAME[] = "default";

// Levels 1, 4, 5, 6, 7 and 14: what an operator wants to see of a daemon that nobody has configured.
inline constexpr uint32_t BUILT_IN_MASK = 1u << 1 | 1u << 4 | 1u << 5 | 1u << 6 | 1u << 7 | 1u << 14;

inline constexpr char SHARE_MAGIC[8] = {'K', 'A', 'P', 'T', 'R', 'I', '0', '2'};

// What stands in the memory and in the record. Host byte order: it never leaves the machine.
struct share {
    char magic[8];
    uint32_t pid;
    int32_t memory;      // the process's descriptor of the memory
    uint64_t start_time; // of the process, in clock ticks since the machine started
    tri_proc_info info;
};
static_assert(sizeof(share) == 64);
static_assert(offsetof(share, pid) == 8);
static_assert(offsetof(share, memory) == 12);
static_assert(offsetof(share, start_time) == 16);
static_assert(offsetof(share, info) == 24);
static_assert(offsetof(share, info.name) == 28);

// The share as it lies in the process: alone on its pages, whatever size those have here, so that the memory can be
// mapped over it. Pointers into it that threads took before stay good.
inline constexpr size_t SHARE_ALIGN = 65536;
struct alignas(SHARE_ALIGN) share_pages {
    share s;
};

// The mask of TRI_DIRECTORY/default, or BUILT_IN_MASK when there is none that can be read.
uint32_t default_mask();

// The start time of a process as /proc tells it; 0 when there is no such process.
uint64_t process_start_time(pid_t pid);

// Makes the memory of this process with the contents of `pages`, maps it over them, and makes the record. False:
// nothing is shared, and the pages are as they were.
bool share_open(share_pages *pages);
// Makes the record anew, under the name that `pages` hold now.
void share_rename(const share_pages *pages);
// Removes the record; called in a forked child it does nothing, the record is its parent's.
void share_close();

// A file below TRI_DIRECTORY: no symbolic link on the way, and no wait for whoever is at the other end of a pipe. The
// descriptor of a regular file, or -1.
int share_open_file(const char *file_name, int flags);

// The file name of a process, without the directory; characters that cannot stand in a file name become '_'.
std::string share_file_name(const char *process_name, pid_t pid);

} // namespace tri
