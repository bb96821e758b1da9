// The tour's act of the automation agent: it is found, told of every path, asks for them again, leaves and comes back.
#include <csignal>

#include "tour.hpp"

using namespace std::chrono_literals;

namespace
{

constexpr const char *PATH_CREATE = "AUTOMATIONAGENTSI_VORN_PATH_CREATE_REQ";
constexpr const char *PATH_SERVICE = "1"; // of a configuration update: the agent wants the paths again
constexpr const char *OTHER_SERVICE = "2";

bool is_connected() { return stage_control(AGENT, {"show"})["clients"].size() == 1; }

// The agent has the link as the client asked for it.
void hold_path(const demo_link &link)
{
    const auto path = demo_agent_path(link.link_ref);
    hold(path.has_value(), "the agent has no path for link " + std::to_string(link.link_ref));
    hold(path->app_links == link.wish.app_links.size(), "the agent has other app links");
}

} // namespace

std::string agent_has_paths(tour &t)
{
    hold(is_connected(), "the daemon has not connected to the agent");
    for (const demo_link &link : t.d.links) {
        hold_path(link);
        stage_wait(t.d.stage, "the agent is told that the link is enabled", AT_ONCE,
                   [&] { return demo_agent_path(link.link_ref)->link_status == IML_LINK_ENABLED; });
    }
    hold(received(AGENT, PATH_CREATE) == t.d.links.size(), "the agent got another number of path creates");
    return std::to_string(t.d.links.size()) + " path creates, and the status \"enabled\" for both";
}

// The messages of the agent stay in their order, so what the first update leads to is there before that of the second.
std::string agent_config_update(tour &t)
{
    const uint64_t before = received(AGENT, PATH_CREATE);
    stage_control(AGENT, {"config-update", OTHER_SERVICE});
    stage_control(AGENT, {"config-update", OTHER_SERVICE, PATH_SERVICE});
    const uint64_t wanted = before + t.d.links.size();
    stage_wait(t.d.stage, "the agent gets its paths", AT_ONCE, [&] { return received(AGENT, PATH_CREATE) >= wanted; });
    hold(received(AGENT, PATH_CREATE) == wanted, "the agent got more than one path create per link");
    return "one path create per link for service 1, none for service 2";
}

// The agent is ended and started for real: what it knew is gone, and only its own question brings it back.
std::string agent_leaves_and_returns(tour &t)
{
    const child_process ended = stage_stop_process(t.d.stage, AGENT, SIGTERM, 5s);
    hold(process_status_text(ended) == "exit status 0",
         std::string(AGENT) + " ended with " + process_status_text(ended));
    hold(iemli_client_get_mac(t.d.client, "IDL_A1", 1).outcome == iemli_outcome::confirmed, "the service has gone too");
    stage_start_process(t.d.stage, AGENT);
    stage_wait_node(t.d.stage, AGENT);
    stage_wait(t.d.stage, "the daemon connects to the new agent", 5s, is_connected);
    hold(received(AGENT, PATH_CREATE) == 0, "the agent got paths that it did not ask for");
    stage_control(AGENT, {"config-update", PATH_SERVICE});
    stage_wait(t.d.stage, "the new agent gets its paths", AT_ONCE,
               [&] { return received(AGENT, PATH_CREATE) == t.d.links.size(); });
    demo_listen(t.d, 0ms);
    for (const demo_link &link : t.d.links) {
        hold_path(link);
        hold(link.status == IML_LINK_ENABLED, "a link was disabled meanwhile");
    }
    return "the links stay enabled; connected again, and every path after a configuration update";
}
