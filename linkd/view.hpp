// A link as it stands: what was asked for and what became of it. The control socket and the metrics show it.
#pragma once

#include "change.hpp"

#include <array>
#include <optional>
#include <string_view>
#include <vector>

namespace linkd
{

using mac_bytes = std::array<uint8_t, 6>;
std::string text_of(const mac_bytes &mac); // "02:00:00:00:00:02"

struct app_pair {
    mac_bytes near = {};
    mac_bytes far = {};
    auto operator<=>(const app_pair &) const = default;
};

// How round trips are measured.
struct rtt_wish {
    uint16_t batch = 5;
    uint16_t interval = 1;
    uint16_t frame_bytes = 64;
    auto operator<=>(const rtt_wish &) const = default;
};

struct link_view {
    link_identity link;
    uint8_t near_mp = 1;
    std::vector<app_pair> app_links;
    std::optional<rtt_wish> rtt;
    bool declared = true; // or asked for at run time
    std::string file;     // where it is declared
    link_state state = link_state::waiting;
    std::string reason;
    int64_t since_us = 0;  // CLOCK_REALTIME
    uint32_t link_ref = 0; // 0: the daemon has none
    std::string near_mac;  // "": not known
    std::optional<rtt_sample> last_rtt;
    uint64_t results = 0; // pings of which it is known what became of them, since the link was created
    uint64_t lost = 0;
    std::optional<int64_t> last_answer_age_us; // of the far end, as far as it is known
    uint64_t flaps_today = 0;
    int64_t next_try_us = 0; // CLOCK_REALTIME; 0: none
};

// The member LINK of the control protocol.
nlohmann::json json_of(const link_view &view);

// The same as text, with those of its members that are wanted: of many links it is written, not built.
using link_members = uint32_t;
inline constexpr link_members ALL_MEMBERS = UINT32_MAX;
link_members member_bit(std::string_view name); // 0: LINK has no such member
void append_json(std::string &to, const link_view &view, link_members wanted = ALL_MEMBERS);

// What the daemon and its surroundings look like: the answer to "status".
struct node_view {
    bool registry = false;
    bool daemon = false; // its service is published
    bool session = false;
    std::string missing; // in words; "": nothing
    int64_t since_us = 0;
    uint64_t sessions = 0;    // opened since the start
    size_t requests_sent = 0; // that the daemon has not answered
    size_t requests_due = 0;  // that wait for those
    size_t waiting = 0, rejected = 0, disabled = 0, enabled = 0;
};

} // namespace linkd
