// The whole scene, for real: the registry, the reference node's services, the far end and the daemon, each a process of
// its own, on wires of their own. Runs inside a sandbox; the demo and the end-to-end tests share it.
//
// The stage owns the processes and the wires. Whoever uses it speaks ITC for itself (stage_start connects the calling
// process, since that is how it knows that the registry is up) and is one more client of the daemon.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "process.hpp"
#include "wires.hpp"

// Something on the stage is not as it has to be; the text says what, with the end of the log concerned.
struct stage_failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct stage_port {
    std::string iemli_name; // as clients of the daemon call it
    std::string node_name;  // as the node's services call it
    std::string fmi_name;   // as the endpoint and flow managers call it
    struct wire wire;
};

struct stage {
    std::string bin_dir; // where the programs are
    std::string log_dir; // one file per process; of what else is there, nothing is touched
    std::vector<stage_port> ports;
    std::vector<std::string> daemon_arguments;   // none, as a rule
    std::vector<std::string> registry_arguments; // none, as a rule
    // By name, the words that stand before a program's own: they make it another user, with other rights and limits.
    std::map<std::string, std::vector<std::string>> launchers;
    std::map<std::string, child_process> processes; // by name; one that may end is taken out before it does
    std::string backend = "memory";                 // of the node's services, or "kernel"
    std::string vlan = "device";                    // what opening a VLAN does, where it does something
    std::string kernel_lacks;                       // why the backend is "memory", in the kernel's words
};

inline constexpr const char *DAEMON = "kap-vorn";
inline constexpr const char *REGISTRY = "itcd";
inline constexpr const char *FAR_END = "far-end";
inline constexpr const char *AGENT = "aasi"; // the automation agent

// Two ports: "IDL_A1", and "TN_A" with an interface of its own for VLAN 200 where the kernel has such.
std::vector<stage_port> stage_usual_ports();

// A stage whose programs are where this one is. Nothing runs yet.
stage stage_make(const std::string &log_dir);

// Has the services do what they are asked in the kernel, where that has a packet filter at interfaces; else says in
// kernel_lacks what it answers. VLANs stay the senders' to tag: wires and captures are laid for that. Needs the
// sandbox.
void stage_use_kernel(stage &s);

// Lays the wires and starts everything; `mbox_name` is the calling process's own mailbox. Throws stage_failure.
void stage_start(stage &s, const std::string &mbox_name);
// Starts one program again after it ended.
void stage_start_process(stage &s, const std::string &name);
// Waits until a program of the node takes commands.
void stage_wait_node(stage &s, const std::string &name);

// Throws stage_failure when a process has ended by itself.
void stage_check(stage &s);

// Ends a process that is expected to end in an orderly way, and gives it back with its status. Throws stage_failure
// when it does not end within the bound.
child_process stage_stop_process(stage &s, const std::string &name, int signo, std::chrono::milliseconds bound);

// Ends everything (the daemon first, the registry last), leaves ITC and removes the wires. Gives the status of every
// process that ran. Throws stage_failure when one does not end or a namespace stays.
std::map<std::string, std::string> stage_stop(stage &s);
// What is left inside the sandbox beside this process, in words; empty: nothing. A process that was sent in from
// outside (sandbox_visit) is none of the stage's.
std::string stage_leftovers();

// A command to one of the node's services, and its answer. Throws stage_failure when it is refused or not answered.
nlohmann::json stage_control(const std::string &service, const std::vector<std::string> &words);

// Waits for a condition: looks every hundredth of a second, checks the processes, and throws stage_failure with `what`
// when the bound is over.
void stage_wait(stage &s, const std::string &what, std::chrono::milliseconds bound,
                const std::function<bool()> &condition);
