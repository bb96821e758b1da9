// The exit statuses of vornctl: the one table of them. The help, the manual and every command take them from here.
#pragma once

#include <stdexcept>
#include <string>

namespace vornctl
{

enum class exits : int {
    well = 0,
    failed = 1,
    wrong_use = 2,
    no_daemon = 3,
    no_registry = 4,
    not_allowed = 5,
};

struct exit_meaning {
    exits status;
    const char *meaning;
};

inline constexpr exit_meaning EXITS[] = {
    {exits::well, "all well"},
    {exits::failed, "something that was shown is down, something failed, or the output could not be written"},
    {exits::wrong_use, "wrong use"},
    {exits::no_daemon, "a daemon that has to answer is not there or does not: kap-vorn, kap-linkd or port control"},
    {exits::no_registry, "the registry itcd is not there"},
    {exits::not_allowed, "this user is not allowed to"},
};

// A command cannot be carried out: what it ends with, and a line that says why.
struct failure : std::runtime_error {
    failure(exits its_status, const std::string &text) : std::runtime_error(text), status(its_status) {}
    exits status;
};

} // namespace vornctl
