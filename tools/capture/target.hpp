// Where a capture is written to.
//
// Whoever captures is root, and what is in a capture is nobody else's business: a file is root's own and for root alone
// before the first byte is in it, and a name that somebody else has laid out, as a link or as a file, is not taken.
#pragma once

#include <stdexcept>
#include <string>

namespace capture
{

// A new or emptied file, a pipe (a FIFO waits for whoever reads it), or a device of characters; "-" is standard output.
// The caller closes it. Throws std::runtime_error, which says what is the matter.
int open_target(const std::string &file);

} // namespace capture
