// Speaking with a running service of the reference node, for programs beside it (the tour, tests, the shell command).
//
// The caller has called itc_init, and the calling thread owns a mailbox. A call waits for the reply; other messages
// stay in the mailbox in their order.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace kap_node
{

inline constexpr uint32_t CONTROL_TIMEOUT_MS = 2000;

// The mailbox of a service: "iepcsi", "pmi", "emi", "fmi", "aasi" or "far-end". Empty for any other name.
std::string control_mailbox(const std::string &service);

// Sends a request as it is and returns the reply: {"ok": true, "result": ...} or {"ok": false, "error": "..."}. That
// the service is not there, ends meanwhile or does not answer in time is an error reply too.
nlohmann::json control_call(const std::string &mailbox_name, const nlohmann::json &request,
                            uint32_t timeout_ms = CONTROL_TIMEOUT_MS);

// Has a service (by its short name) carry out a command and returns the result; throws std::runtime_error with the
// error.
nlohmann::json control_command(const std::string &service, const std::vector<std::string> &words,
                               uint32_t timeout_ms = CONTROL_TIMEOUT_MS);

} // namespace kap_node
