// The live table: the links as the client sees them, redrawn as things change, with keys to break and mend the scene.
#pragma once

#include <string>

#include "demo.hpp"
#include "terminal.hpp"

// Shows the table until q, Ctrl-C or SIGTERM, then ends everything in order. Returns the exit status.
int screen_run(demo &d);

// What is known beside the links: for drawing.
struct screen_view {
    std::chrono::system_clock::time_point now;
    std::vector<uint64_t> answered; // per link
    std::vector<bool> port_up;      // per port of the stage
    bool colour;
};

// The whole screen as text, every line cut to the size.
std::string screen_render(const demo &d, const screen_view &view, terminal_size size);
