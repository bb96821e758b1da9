#include "command.hpp"

namespace vornctl
{

// In the order in which the help shows them.
const std::vector<command> &commands()
{
    static const std::vector<command> all = {
        {"links", add_links},   {"link", add_link},       {"reload", add_reload}, {"watch", add_watch},
        {"events", add_events}, {"history", add_history}, {"rtt", add_rtt},       {"ports", add_ports},
        {"status", add_status}, {"capture", add_capture}, {"trace", add_trace},
    };
    return all;
}

void add_json(CLI::App &to, call &c) { to.add_flag("--json", c.json, "the same as JSON, for programs"); }

void add_selection(CLI::App &to, selection &chosen)
{
    to.add_option("--port", chosen.ports, "only links on this port; may be given again")
        ->type_name("PORT")
        ->allow_extra_args(false);
    to.add_option("--state", chosen.states, "only links in this state, or disabled for this reason; may be given again")
        ->type_name("STATE")
        ->allow_extra_args(false)
        ->check(CLI::IsMember(state_words()));
}

} // namespace vornctl
