// Takes away what the flow manager left in the packet filter, by the name of its table alone.
#pragma once

#include "kernel_refusal.hpp"

#include <optional>
#include <string>

namespace kap_node
{

// In the network namespace of that name ("" the process's own). Throws std::system_error when it cannot be entered.
std::optional<kernel_refusal> remove_rule_table(const std::string &name_space, bool *was_there);

} // namespace kap_node
