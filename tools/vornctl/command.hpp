// What a command of vornctl is: a name, a file of its own, and a function that adds it to the call. commands.cpp has
// the table of them all.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "exits.hpp"
#include "words.hpp"

namespace vornctl
{

// What the words of a call say, whatever the command.
struct call {
    std::string linkd_socket;
    bool json = false;
    std::function<exits()> run; // set by the command that was chosen
};

struct command {
    const char *name;
    // Adds the command below `app`. What it keeps lives as long as its own static data: one call is read in a process.
    void (*add)(CLI::App &app, call &c);
};

const std::vector<command> &commands();

// The option --json, described the same everywhere.
void add_json(CLI::App &to, call &c);
// Likewise --port and --state.
void add_selection(CLI::App &to, selection &chosen);

void add_links(CLI::App &app, call &c);
void add_link(CLI::App &app, call &c);
void add_reload(CLI::App &app, call &c);
void add_watch(CLI::App &app, call &c);
void add_events(CLI::App &app, call &c);
void add_history(CLI::App &app, call &c);
void add_rtt(CLI::App &app, call &c);
void add_ports(CLI::App &app, call &c);
void add_status(CLI::App &app, call &c);
void add_capture(CLI::App &app, call &c);
void add_trace(CLI::App &app, call &c);

} // namespace vornctl
