// The order of the tour's steps, and how each is told.
#include "story.hpp"

#include <cstdio>
#include <iterator>

#include "tour.hpp"

namespace
{

using clock_type = std::chrono::steady_clock;

struct step {
    const char *title;
    std::string (*run)(tour &);
};

constexpr step STEPS[] = {
    {"everything is started, a client opens a session", start_everything},
    {"a link on IDL_A1 in VLAN 100 with two app links", create_first},
    {"a link on TN_A in VLAN 200", create_second},
    {"both links come up", both_enabled},
    {"the automation agent has a path for each", agent_has_paths},
    {"RTT with settings that do not fit is refused", rtt_refused},
    {"RTT in batches of 3, frames of 128 bytes", rtt_batch_agrees},
    {"RTT enabled twice is refused", rtt_twice_refused},
    {"the far end falls silent", far_end_silent},
    {"an RTT batch without an answer", rtt_silent_batch},
    {"the far end is back", far_end_back},
    {"the link list counts what was on the wire", list_counts},
    {"RTT is disabled", rtt_disabled},
    {"the port's interface goes down", interface_down},
    {"the interface comes up", interface_up},
    {"the port is locked", port_locked},
    {"the port is unlocked", port_unlocked},
    {"frames that no access rule lets in", stranger_dropped},
    {"the agent's configuration changes", agent_config_update},
    {"one app link is exchanged for another", update_app_links},
    {"the agent leaves and comes back", agent_leaves_and_returns},
    {"the link list with a link of 20 app links", list_in_order},
    {"vornctl prints the same list", list_printed},
    {"a link that the endpoint manager refuses", refused_create},
    {"the links are deleted", delete_all},
    {"SIGTERM to the daemon", terminate},
    {"what is left behind", strike_the_stage},
};

bool run_step(tour &t, size_t number)
{
    const step &step = STEPS[number];
    auto start = clock_type::now();
    std::string seen;
    bool held = true;
    try {
        seen = step.run(t);
    } catch (const std::exception &failure) {
        seen = failure.what();
        held = false;
    }
    printf("%2zu  %-48s %-4s %7s  %s\n", number + 1, step.title, held ? "ok" : "FAIL",
           demo_seconds(since(start)).c_str(), seen.c_str());
    (void)fflush(stdout);
    return held;
}

} // namespace

int story_run(demo &d)
{
    auto start = clock_type::now();
    tour t{d};
    for (size_t i = 0; i < std::size(STEPS); i++) {
        const bool held = run_step(t, i);
        if (ferror(stdout) != 0) {
            return 1; // nobody hears the rest
        }
        if (!held) {
            printf("the logs of the processes are in %s\n", d.stage.log_dir.c_str());
            return 1;
        }
    }
    printf("all %zu steps held, in %s\n", std::size(STEPS), demo_seconds(since(start)).c_str());
    return 0;
}
