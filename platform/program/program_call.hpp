// What every program answers in the same way: --help and --version on standard output with status 0, a wrong call with
// a message on standard error and status 2, and status 1 when its output could not be written. The daemon takes no
// argument, so it is none of them.
#pragma once

#include <optional>

struct program_call {
    const char *name;
    const char *usage; // whole lines, the first of which begins with "usage: "
};

// The exit status when --help, -h or --version is among the arguments, which is then answered; else nothing.
std::optional<int> program_answer(const program_call &program, int argc, char **argv);

// Says what is wrong with the call, and how it goes. Gives the exit status.
int program_refuse(const program_call &program, const char *what);

// The exit status of a program that has written its output: `status`, but 1, with a message, when the output could not
// be written and the status was 0.
int program_end(const program_call &program, int status);
