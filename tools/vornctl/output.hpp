// How everything is printed: tables and JSON in one style, colour only where it is wanted.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "text_table.hpp"

namespace vornctl
{

using json = nlohmann::ordered_json;

// Standard output is a terminal that takes colours, and NO_COLOR is not set.
bool with_colour();
// How wide the terminal is that standard output is; no bound where it is none.
size_t columns();

void print_table(const std::vector<text_table::row> &rows);
// A line for each: what, and its value, below each other.
void print_facts(const std::vector<std::pair<std::string, text_table::cell>> &facts);
void print_json(const json &value);
// An object of members that are texts of JSON already, as they stand there; and such a text.
void print_json_members(const std::vector<std::pair<std::string, std::string>> &members);
std::string inner_json(const json &value);
// In one line, at once.
void print_json_line(const nlohmann::json &value);

// The colour of a link's state: "enabled", "disabled", "waiting", "rejected", "gone".
text_table::colour colour_of_state(const std::string &state);

// A bar for each value, from the least to the greatest of them; a blank where there is none (negative).
std::string sparkline(const std::vector<double> &values);

// Members of what another program said: the text or number where it is one, else what stands for nothing.
std::string text_in(const nlohmann::json &object, const char *name);
int64_t number_in(const nlohmann::json &object, const char *name);

} // namespace vornctl
