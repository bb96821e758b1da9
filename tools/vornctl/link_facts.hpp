// What kap-linkd says of a link and of a change, for people. Pure functions.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "text_table.hpp"

namespace vornctl
{

// "disabled: no connectivity", or "enabled".
std::string state_and_reason(const std::string &state, const std::string &reason);
// "40.1 / 51.0 / 60.3", or "-".
std::string rtt_text(const nlohmann::json &rtt_us);

// A link, line by line.
std::vector<std::pair<std::string, text_table::cell>> facts_of(const nlohmann::json &link, int64_t now);

// Changes, one a row.
text_table::row change_head();
text_table::row change_row(const nlohmann::json &change);

} // namespace vornctl
