// Where the responder runs, and with which rights.
#pragma once

#include <string>

namespace responder
{

// Enters the network namespace of that name (ip-netns(8)). False, and said why, when it cannot.
bool enter_name_space(const std::string &name);
// Whether the name is still that of the namespace in which the process is. It may have been deleted, and made anew.
bool is_in_name_space(const std::string &name);

// The sockets are open: nothing that comes after needs a right. Whoever takes over the process by a frame has none.
// Returns an errno value.
int drop_all_rights();

} // namespace responder
