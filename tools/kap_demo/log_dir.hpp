// The directory of a demo's logs: one demo at a time writes there, and by it another command finds the demo.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

// Makes the directory and keeps it for this demo as long as one of its processes lives. Throws std::runtime_error, for
// one when another demo has it.
void log_dir_keep(const std::string &path);

// Inside the sandbox: throws std::runtime_error when the directory is hidden by what is mounted there.
void log_dir_check_visible(const std::string &path);

// A demo that runs, as it is seen from outside its sandbox.
struct running_demo {
    pid_t first;         // the process 1 of its sandbox
    std::string log_dir; // as the demo called it
    std::string bin_dir; // its programs
};

// The demos that run here and that this user may enter. `log_dir`: only the one that keeps this directory; empty: all.
std::vector<running_demo> log_dir_find_demos(const std::string &log_dir);
