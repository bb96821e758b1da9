// What the tour and the live table share: the stage, a client's session with the daemon, and the links this client has
// asked for with what it was told of them.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "iemli_client.hpp"
#include "stage.hpp"

struct demo_link {
    uint32_t link_ref;
    iemli_link_wish wish;
    std::string interface; // of the port, on both sides of the wire
    std::string near_mac;  // of the port
    uint32_t status = IML_LINK_DISABLED;
    uint32_t reason = 0;
    bool told = false; // an indication has come
    std::chrono::system_clock::time_point changed;
    rtt_settings rtt = {};          // batch size 0: not enabled
    std::vector<rtt_stats> batches; // one per RTT indication since it was enabled
};

// One line of what happened, newest last.
struct demo_note {
    std::chrono::system_clock::time_point when;
    std::string text;
};

struct demo {
    struct stage stage;
    iemli_client client;
    std::vector<demo_link> links;
    std::vector<demo_note> notes;
    bool far_end_answers = true;
    bool port_locked = false; // the first port of the stage
};

// Starts everything and opens the session. Throws stage_failure.
void demo_start(demo &d);

// The two links of the demo: "IDL_A1" in VLAN 100 with two app links, "TN_A" in VLAN 200 with one.
iemli_link_wish demo_first_wish(const demo &d);
iemli_link_wish demo_second_wish(const demo &d);
// A wish for a port of the stage: the far end's MAC is the far end of the port's wire.
iemli_link_wish demo_wish(const demo &d, const std::string &port, uint16_t vlan, unsigned app_links);

// Creates a link and keeps it. Throws stage_failure unless it is confirmed.
demo_link &demo_create(demo &d, const iemli_link_wish &wish);
// Deletes every link that is kept.
void demo_delete_all(demo &d);

// RTT of a link: its batches are counted anew. Throws stage_failure unless it is confirmed.
void demo_enable_rtt(demo &d, demo_link &link, const rtt_settings &settings);
void demo_disable_rtt(demo &d, demo_link &link);

// Takes in one thing that the daemon said. Of the batches of a link only the first is noted, and those after which it
// is another thing whether any ping was answered: a note every few seconds would hide what happened. Throws
// stage_failure for what must not come.
void demo_take_event(demo &d, const iemli_event &event);
// Takes in what the daemon says for at most that long; returns after the first event.
void demo_listen(demo &d, std::chrono::milliseconds most);
// Waits until a link has this status. Gives the time it took; throws stage_failure when the bound is over.
std::chrono::milliseconds demo_wait_status(demo &d, uint32_t link_ref, uint32_t status, uint32_t reason,
                                           std::chrono::milliseconds bound);
demo_link &demo_find(demo &d, uint32_t link_ref);

// The far end: silent or answering, and what it has seen of a link's pings.
struct far_end_counts {
    uint64_t answered;
    uint64_t ignored;
};
void demo_set_far_end(demo &d, bool answers);
far_end_counts demo_far_end_counts(const demo_link &link);

// What the automation agent has of a link. Nothing: no path.
struct agent_path {
    uint32_t app_links;
    uint32_t link_status;
    uint32_t min_nsec;
    uint32_t avg_nsec;
    uint32_t max_nsec;
    uint64_t reports;
};
std::optional<agent_path> demo_agent_path(uint32_t link_ref);

// Locks or unlocks a port of the stage at the port control server.
void demo_set_locked(demo &d, const stage_port &port, bool locked);

// Takes the near interface of a port of the stage down or up.
void demo_set_port(demo &d, const stage_port &port, bool up);

// Stops everything as an operator would. The daemon's exit status is looked at. Throws stage_failure.
void demo_stop_daemon(demo &d);
void demo_stop_rest(demo &d);

std::string demo_seconds(std::chrono::milliseconds time); // "1.25 s"
std::string demo_rtt_text(const rtt_stats &stats);        // "min 40.12 avg 51.00 max 60.33 us, valid", or "not valid"
bool demo_is_measured(const rtt_stats &stats);            // else all its figures are 0 and mean nothing
double demo_microseconds(uint32_t sec, uint32_t nsec);
