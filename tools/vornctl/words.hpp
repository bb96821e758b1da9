// The words of a call as people write them, and what they mean to others. Pure functions; each throws failure, as wrong
// use, for what is none.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "exits.hpp"

namespace vornctl
{

// The ports that a link may be on, as people write them.
const std::vector<std::string> &port_names();
// IDL_A1 for "IDL_A1", "idl_a1" or "IDLA1"; what is no such port as it is.
std::string people_port(const std::string &word);
bool same_port(const std::string &one, const std::string &other);

std::string mac_word(const std::string &word);
// "NEAR,FAR" as an object with "near" and "far".
nlohmann::json app_link_word(const std::string &word);
// "" as true, "BATCH,SECONDS,BYTES" as the settings.
nlohmann::json rtt_word(const std::string &word);
// A name of a link: letters, digits, - _ . ; at most 64.
std::string link_name_word(const std::string &word);

// Whether a link passes --port and --state, of which each may be given several times and none is all.
struct selection {
    std::vector<std::string> ports;
    std::vector<std::string> states; // "enabled", "disabled", "waiting", "rejected", or a reason: "down", ...

    bool takes(const std::string &port, const std::string &state, const std::string &reason) const;
};
// What --state takes.
const std::vector<std::string> &state_words();

} // namespace vornctl
