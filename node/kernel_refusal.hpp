// What stood in the way of a change in the kernel, as a backend tells its service.
#pragma once

#include <string>

namespace kap_node
{

struct kernel_refusal {
    int error = 0;     // errno
    std::string words; // what the kernel said of it, or the text of errno
};

} // namespace kap_node
