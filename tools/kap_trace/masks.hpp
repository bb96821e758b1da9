// The trace masks of running processes, seen and changed from outside. kap-trace and vornctl stand on it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "mask_share.hpp"

namespace trace_masks
{

struct process {
    std::string file; // NAME.PID
    std::string name; // what its traces print
    uid_t owner;      // of the record
    tri::share record;
};

// Processes that live, in the order of their file names. What dead ones left is removed.
std::vector<process> processes();
// Those of this name, or of this NAME.PID.
std::vector<process> find(const std::string &name);

// As the process has it; to whom that may not be shown, as the record has it.
uint32_t mask_of(const process &p);
// False, and errno says why.
bool set_mask(const process &p, uint32_t mask);

// What processes that start later begin with.
uint32_t default_mask();
// False, and errno says why, and *file whose fault it is.
bool set_default(uint32_t mask, std::string *file);

// "1,4,14", or "none".
std::string levels_of(uint32_t mask);
// A mask as people write it: a number, or +L,L,... or -L,L,... for what is switched on or off in `mask`.
std::optional<uint32_t> changed_mask(uint32_t mask, const std::string &how);
inline constexpr const char *NO_MASK = "is no mask: give a number, or +L,L,... or -L,L,... with levels 0 to 31";

} // namespace trace_masks
