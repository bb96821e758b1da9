/*
 * The policy's files: every *.toml of a directory, in the order of their names. What they say adds up.
 *
 *   [connect]                      who may connect, besides root and the registry's own user and group
 *   users = ["kap-vorn"]
 *   groups = ["kap-admin"]
 *
 *   [[name]]                       a mailbox name, or with `prefix` all that begin so, and whose it is
 *   name = "pmi-server"
 *   users = ["kap-node"]
 *
 *   [[service]]                    a service, in one scope or in all, and who may publish it
 *   name = "automationagentsi"
 *   scope = "tn"
 *   users = ["kap-node"]
 *
 *   [[door]]                       what the mailbox of a name takes from other processes
 *   name = "kap-vorn"
 *   largest = 1048576              bytes of a message
 *
 *   [[door.only]]                  these numbers only from who has one of these names (or, with users and groups, is
 * one numbers = [[0x1B1001, 0x1B100E], 0x1B1010]                 of these); "self": only from its own process from =
 * ["pmi-server"]
 *
 *   [[door.share]]                 how many sessions these people may have, together
 *   opens = 0x1B0E03
 *   opened = 0x1B0E04
 *   refused = 0x1B0E05
 *   closed = 0x1B0E07
 *   session_at = 8
 *   at_most = 1
 *   users = ["kap-linkd"]
 */
#ifndef ITCD_POLICY_FILE_HPP
#define ITCD_POLICY_FILE_HPP

#include "policy.hpp"

inline constexpr char policy_directory[] = "/etc/kap-itc/policy.d";

// Reads the directory's files into `p`. Returns what is wrong, one line for each: "FILE:LINE:COLUMN: what". `files`:
// how many there were. No directory is as one without files.
std::vector<std::string> policy_read(policy &p, const std::string &directory, size_t *files);

#endif
