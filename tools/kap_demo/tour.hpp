// The acts of the tour: every step checks something and gives in words what was seen, or throws what does not hold.
// The steps of an act stand in a file of their own; their order is the story's (story.cpp).
#pragma once

#include <chrono>
#include <string>

#include "demo.hpp"
#include "link_list/link_list.hpp"
#include "send_path.hpp"
#include "wire_capture.hpp"

struct tour {
    demo &d;
    wire_capture wire = {};              // of the first link, from its RTT's beginning
    rtt_tolerance tolerance = {};        // between what is reported and what is captured
    size_t agreed = 0;                   // batches of the first link that were compared with the capture
    int64_t apart = 0;                   // most that an average was off, in nanoseconds
    std::vector<std::string> rules = {}; // the access rules of the port that is locked
};

// ---- The links (act_links.cpp) --------------------------------------------------------------------------------------

std::string start_everything(tour &t);
std::string create_first(tour &t);
std::string create_second(tour &t);
std::string both_enabled(tour &t);
std::string far_end_silent(tour &t);
std::string far_end_back(tour &t);
std::string update_app_links(tour &t);
std::string refused_create(tour &t);
std::string delete_all(tour &t);
std::string terminate(tour &t);
std::string strike_the_stage(tour &t);

// ---- Round trips (act_rtt.cpp) --------------------------------------------------------------------------------------

std::string rtt_refused(tour &t);
std::string rtt_batch_agrees(tour &t);
std::string rtt_twice_refused(tour &t);
std::string rtt_silent_batch(tour &t);
std::string rtt_disabled(tour &t);

// ---- The automation agent (act_agent.cpp) ---------------------------------------------------------------------------

std::string agent_has_paths(tour &t);
std::string agent_config_update(tour &t);
std::string agent_leaves_and_returns(tour &t);

// ---- Ports (act_ports.cpp) ------------------------------------------------------------------------------------------

std::string interface_down(tour &t);
std::string interface_up(tour &t);
std::string port_locked(tour &t);
std::string port_unlocked(tour &t);
std::string stranger_dropped(tour &t);

// ---- The link list (act_list.cpp) -----------------------------------------------------------------------------------

std::string list_counts(tour &t);
std::string list_in_order(tour &t);
std::string list_printed(tour &t);

// ---- What the acts share (tour.cpp) ---------------------------------------------------------------------------------

// One ping a second; the sixth lost one in a row disables a link, and each is known to be lost within a second.
inline constexpr std::chrono::milliseconds FIRST_ANSWER_BOUND{4000};
inline constexpr std::chrono::milliseconds AT_ONCE{2000};

void hold(bool condition, const std::string &what);
std::chrono::milliseconds since(std::chrono::steady_clock::time_point start);

// What the node's services have and were asked for.
bool pmi_has_vlan(uint16_t vlan);
bool emi_has_vlan(uint16_t vlan);
bool emi_has_mac(const mac_address &mac);
// How many requests of a kind a service has got.
uint64_t received(const std::string &service, const std::string &request);

// The daemon's link list, and a link in it.
std::vector<link_list::link> fetch_list();
link_list::link find_listed(const std::vector<link_list::link> &links, uint32_t link_ref);
