// Says of a configuration what is wrong with it, and what the machine lacks for it now.
#pragma once

#include <string>

namespace kap_node
{

// Mistakes on standard error, remarks on standard output, each with its line and column. Gives the exit status: 1 when
// there are mistakes. A remark is no mistake: an interface may come yet.
int check_file(const std::string &path);

} // namespace kap_node
