// Child processes with a log file each: started, watched, stopped. A child never outlives its parent, has a process
// group of its own (so that Ctrl-C on the terminal is not its business) and reads nothing.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

struct child_process {
    std::string name;
    std::string log_path;
    pid_t pid = -1;
    int pidfd = -1;                 // readable once it has ended
    std::optional<int> wait_status; // as waitpid gives it, once it has ended
};

// Starts a program. Throws std::runtime_error when it cannot.
child_process process_start(const std::string &name, const std::vector<std::string> &command,
                            const std::string &log_path);

// Whether it runs. One that has ended is reaped, and its status kept.
bool process_running(child_process &child);

void process_signal(const child_process &child, int signo);

// Waits until it has ended. False: not within the bound.
bool process_wait(child_process &child, std::chrono::milliseconds bound);

// Ends it at once and reaps it.
void process_kill(child_process &child);

// "exit status 0", "killed by signal 9", "running".
std::string process_status_text(const child_process &child);

// The last lines of its log.
std::string process_log_tail(const child_process &child, size_t lines);

// Its state letter ('S': it sleeps; 0: it is gone), the CPU time it has used so far and how many threads it has (-1: it
// is gone), as the kernel says.
char process_state(const child_process &child);
double process_cpu_seconds(const child_process &child);
int process_thread_count(const child_process &child);

struct command_result {
    int status = -1; // exit status; -1: it could not be started or was killed
    std::string output;
};

// Runs a program to its end and gives what it wrote, standard error included.
command_result command_run(const std::vector<std::string> &command);
// The same for one that has to succeed: throws std::runtime_error with its output when it does not.
std::string command_must(const std::vector<std::string> &command);
