// The daemon's link list, as somebody who asked for it sees it: the request, the reply read with every bound checked,
// and its two printed forms.
//
// The JSON form is an interface: fields are added, never renamed or dropped.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "itc.h"
#include "shell/shell_messages.hpp"
#include "text_table.hpp"

namespace link_list
{

struct round_trip {
    double minimum_us;
    double average_us;
    double maximum_us;
};

struct app_link {
    std::string near_end_mac;
    std::string far_end_mac;
};

struct link {
    std::string name; // what the link manager calls it; empty: the daemon knows no names
    uint32_t connection_ref;
    uint32_t link_ref;
    uint32_t mp_id;
    std::string near_end_cpm_mac; // "00:00:00:00:00:00": the daemon could not tell
    std::string far_end_cpm_mac;
    std::string port;
    uint32_t vlan;
    std::vector<app_link> app_links; // the first 16 at the most
    bool enabled;
    std::string reason; // "down", "locked", "no connectivity", "" when enabled
    std::string status; // "enabled", "disabled with reason down", ...
    std::string rtt;    // "off", "on", "unknown"
    std::string supervision;
    uint32_t batch_size;
    uint32_t interval_s;
    uint32_t frame_size;
    uint32_t results;
    uint32_t lost;
    std::optional<round_trip> rtt_us; // absent: no valid sample yet
};

// Reads a reply. Nothing, and a sentence in *error, when it is not one or is shorter than its own count asks for.
std::optional<std::vector<link>> decode(const uint8_t *bytes, size_t size, std::string *error);

// Asks the daemon over the calling thread's mailbox; other messages stay there. Nothing and a sentence in *error when
// it does not run, does not answer in time, or answers nonsense.
std::optional<std::vector<link>> fetch(uint32_t timeout_ms, std::string *error);

// A row a link, under a head; with names only where a link has one.
std::vector<text_table::row> to_rows(const std::vector<link> &links);
// One line a link, under a head.
std::string to_table(const std::vector<link> &links);
// The same with no line longer than `columns`, as text_table::draw does it.
std::string to_table(const std::vector<link> &links, size_t columns);
// All of them as one object of JSON; and the array alone, as it stands there.
std::string to_json(const std::vector<link> &links);
std::string to_json_array(const std::vector<link> &links);

} // namespace link_list
