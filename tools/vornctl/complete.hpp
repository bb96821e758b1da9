// Completion of words in shells: what may stand in place of the last word of a call. It is read off the description of
// the call itself, so that nothing has to be kept beside it.
#pragma once

#include <string>
#include <vector>

#include "command.hpp"

namespace vornctl
{

// Who knows the names that live: of links, and of processes that share their trace mask.
struct living_names {
    std::function<std::vector<std::string>()> links;
    std::function<std::vector<std::string>()> traces;
};

struct candidate {
    std::string word;
    std::string description;
};

// `words`: those behind "vornctl", of which the last is the one to be completed, and may be empty.
std::vector<candidate> candidates(const CLI::App &app, const std::vector<std::string> &words,
                                  const living_names &names);

// Prints them, "WORD<tab>DESCRIPTION" each. `words` as above.
int print_candidates(const CLI::App &app, const std::vector<std::string> &words);

} // namespace vornctl
