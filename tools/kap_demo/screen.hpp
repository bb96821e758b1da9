// The screen of the live table, as text.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "demo.hpp"
#include "terminal.hpp"

// What is known beside the links: for drawing.
struct screen_view {
    std::chrono::system_clock::time_point now;
    std::vector<uint64_t> answered;               // per link
    std::vector<std::optional<agent_path>> paths; // per link
    std::vector<bool> port_up;                    // per port of the stage
    bool colour;
    std::string list; // the daemon's link list, shown in place of the rest; empty: not asked for
};

// The whole screen as text, every line cut to the size.
std::string screen_render(const demo &d, const screen_view &view, terminal_size size);
