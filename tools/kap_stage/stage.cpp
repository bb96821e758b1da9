#include "stage.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <poll.h>
#include <unistd.h>

#include "control.hpp"
#ifdef KAP_NODE_KERNEL
#include "kernel/nft_context.hpp"
#include "kernel/rule_layout.hpp"
#endif
#include "itc.h"
#include "slowness.hpp"

namespace
{

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr const char *CONFIG_PATH = "/run/kap-node.toml";
constexpr const char *NODE_SERVICES[] = {"iepcsi", "pmi", "emi", "fmi", AGENT};
constexpr size_t TAIL_LINES = 12;
constexpr int LOOK_EVERY_MS = 10;
constexpr std::chrono::milliseconds STOP_BOUND = 5s;

std::string program_directory() { return fs::read_symlink("/proc/self/exe").parent_path(); }

std::string process_tail(const child_process &child)
{
    return child.name + ": " + process_status_text(child) + "; the end of " + child.log_path + ":\n" +
           process_log_tail(child, TAIL_LINES);
}

// ---- The node's configuration ---------------------------------------------------------------------------------------

void write_port(std::ostream &out, const stage &s, const stage_port &port)
{
    out << "[ports." << port.iemli_name << "]\n"
        << "name = \"" << port.node_name << "\"\n"
        << "fmi_name = \"" << port.fmi_name << "\"\n"
        << "interface = \"" << port.wire.interface << "\"\n"
        << "namespace = \"" << NEAR_NAMESPACE << "\"\n"
        << "vlan = \"" << s.vlan << "\"\n"
        << "vlan_interfaces = " << (port.wire.vlan_device != 0 ? "true" : "false") << "\n";
}

void write_config(const stage &s)
{
    std::ofstream out(CONFIG_PATH);
    std::string far_interfaces;
    out << "backend = \"" << s.backend << "\"\n";
    for (const stage_port &port : s.ports) {
        write_port(out, s, port);
        far_interfaces += (far_interfaces.empty() ? "\"" : ", \"") + std::string(port.wire.interface) + "\"";
    }
    out << "[[far_end]]\nnamespace = \"" << FAR_NAMESPACE << "\"\ninterfaces = [" << far_interfaces << "]\n";
}

// ---- Programs -------------------------------------------------------------------------------------------------------

void append(std::vector<std::string> &command, const std::vector<std::string> &words)
{
    command.insert(command.end(), words.begin(), words.end());
}

std::vector<std::string> command_of(const stage &s, const std::string &name)
{
    std::vector<std::string> command;
    if (s.launchers.contains(name)) {
        append(command, s.launchers.at(name));
    }
    if (name == REGISTRY) {
        append(command, {s.bin_dir + "/" + name});
        append(command, s.registry_arguments);
    } else if (name == DAEMON) {
        append(command, {s.bin_dir + "/" + name});
        append(command, s.daemon_arguments);
    } else {
        append(command, {s.bin_dir + "/kap-node", name, "--config", CONFIG_PATH});
    }
    return command;
}

std::string log_path(const stage &s, const std::string &name) { return s.log_dir + "/" + name + ".log"; }

// What the last run wrote goes, and nothing else: the directory may be somebody's, with files of their own.
void make_room_for_logs(const stage &s)
{
    fs::create_directories(s.log_dir);
    std::vector<std::string> names = {REGISTRY, FAR_END, DAEMON};
    names.insert(names.end(), std::begin(NODE_SERVICES), std::end(NODE_SERVICES));
    for (const std::string &name : names) {
        unlink(log_path(s, name).c_str());
    }
}

// The registry is up when it lets us in: only then has a mailbox anything to be made in.
bool try_enter_itc(const std::string &mbox_name)
{
    int failed = itc_init(1, 0, nullptr, nullptr, 0);
    if (failed == ENOENT || failed == ECONNREFUSED) {
        return false;
    }
    if (failed != 0) {
        throw stage_failure(std::string("the registry does not let us in: ") + strerror(failed));
    }
    if (itc_create_mailbox(mbox_name.c_str(), 0) == ITC_NO_MBOX) {
        throw stage_failure("the registry refuses the mailbox " + mbox_name);
    }
    return true;
}

// Every program of the node takes commands, and ends in order, once its mailbox is there.
void wait_node_is_there(stage &s)
{
    for (const auto &[name, child] : s.processes) {
        if (!kap_node::control_mailbox(name).empty()) {
            stage_wait_node(s, name);
        }
    }
}

// A VLAN that no interface stands for: the port's own interface carries it, and whoever sends there tags.
void add_tagged_vlans(const stage &s)
{
    for (const stage_port &port : s.ports) {
        if (port.wire.vlan_device != 0 && !wires_kernel_has_vlan_devices()) {
            stage_control("iepcsi", {"vlan-add", port.node_name, std::to_string(port.wire.vlan_device),
                                     port.wire.interface, NEAR_NAMESPACE});
        }
    }
}

// ---- What is left ---------------------------------------------------------------------------------------------------

bool is_number(const std::string &text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

pid_t parent_of(const std::string &pid)
{
    std::ifstream file("/proc/" + pid + "/status");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("PPid:")) {
            return std::stoi(line.substr(strlen("PPid:")));
        }
    }
    return 0;
}

// A process that somebody outside has sent in, or a child of such: its line of parents does not lead to the first
// process inside.
bool is_visitor(std::string pid)
{
    while (pid != "1" && pid != "0") {
        pid = std::to_string(parent_of(pid));
    }
    return pid == "0";
}

// Every process inside the sandbox but its first, this one and visitors.
std::string left_processes()
{
    std::string left;
    for (const auto &entry : fs::directory_iterator("/proc")) {
        std::string pid = entry.path().filename();
        if (is_number(pid) && pid != "1" && pid != std::to_string(getpid()) && !is_visitor(pid)) {
            std::string name;
            std::getline(std::ifstream(entry.path() / "comm"), name);
            left.append("process ").append(pid).append(" (").append(name).append("); ");
        }
    }
    return left;
}

std::string left_namespaces()
{
    std::string left;
    if (fs::exists("/run/netns")) {
        for (const auto &entry : fs::directory_iterator("/run/netns")) {
            left += "namespace " + entry.path().filename().string() + "; ";
        }
    }
    return left;
}

std::string left_sockets()
{
    std::string left;
    for (const auto &entry : fs::recursive_directory_iterator("/run")) {
        if (entry.is_socket()) {
            left += "socket " + entry.path().string() + "; ";
        }
    }
    return left;
}

} // namespace

std::vector<stage_port> stage_usual_ports()
{
    return {
        {"IDL_A1", "IDLA1", "DiPort_A1", {"idl_a1", {{0x02, 0, 0, 0, 0xA1, 0x01}}, {{0x02, 0, 0, 0, 0xA1, 0xFE}}, 0}},
        {"TN_A", "TNA", "TNA", {"tn_a", {{0x02, 0, 0, 0, 0xAA, 0x01}}, {{0x02, 0, 0, 0, 0xAA, 0xFE}}, 200}},
    };
}

stage stage_make(const std::string &log_dir)
{
    stage s;
    s.bin_dir = program_directory();
    s.log_dir = log_dir;
    s.ports = stage_usual_ports();
    return s;
}

#ifdef KAP_NODE_KERNEL
void stage_use_kernel(stage &s)
{
    try {
        // What the flow manager itself does first: one of everything, and all of it away again.
        if (const auto refused = kap_node::nft_context("").run(kap_node::rehearsal())) {
            s.kernel_lacks = refused->words;
        }
    } catch (const std::system_error &problem) {
        s.kernel_lacks = problem.what();
    }
    if (s.kernel_lacks.empty()) {
        s.backend = "kernel";
        s.vlan = "none";
    }
}
#else
void stage_use_kernel(stage &s) { s.kernel_lacks = "this build has no kernel backends"; }
#endif

void stage_start_process(stage &s, const std::string &name)
{
    s.processes[name] = process_start(name, command_of(s, name), log_path(s, name));
}

void stage_wait_node(stage &s, const std::string &name)
{
    const std::string mailbox = kap_node::control_mailbox(name);
    stage_wait(s, name + " is there", 15s, [&] { return itc_locate(mailbox.c_str()) != ITC_NO_MBOX; });
}

void stage_start(stage &s, const std::string &mbox_name)
{
    make_room_for_logs(s);
    wires_lay([&] {
        std::vector<wire> wires;
        for (const stage_port &port : s.ports) {
            wires.push_back(port.wire);
        }
        return wires;
    }());
    write_config(s);
    stage_start_process(s, REGISTRY);
    stage_wait(s, "the registry lets us in", 10s, [&] { return try_enter_itc(mbox_name); });
    for (const char *service : NODE_SERVICES) {
        stage_start_process(s, service);
    }
    stage_start_process(s, FAR_END);
    stage_start_process(s, DAEMON);
    wait_node_is_there(s);
    add_tagged_vlans(s);
}

void stage_check(stage &s)
{
    for (auto &[name, child] : s.processes) {
        if (!process_running(child)) {
            throw stage_failure("ended by itself: " + process_tail(child));
        }
    }
}

child_process stage_stop_process(stage &s, const std::string &name, int signo, std::chrono::milliseconds bound)
{
    auto node = s.processes.extract(name);
    if (node.empty()) {
        throw stage_failure(name + " does not run");
    }
    child_process child = node.mapped();
    process_signal(child, signo);
    if (!process_wait(child, bound * slowness())) {
        process_kill(child);
        throw stage_failure(name + " did not end within " + std::to_string(bound.count()) + " ms; " +
                            process_tail(child));
    }
    return child;
}

std::map<std::string, std::string> stage_stop(stage &s)
{
    std::vector<std::string> order = {DAEMON, FAR_END};
    for (const auto &[name, child] : s.processes) {
        if (name != DAEMON && name != FAR_END && name != REGISTRY) {
            order.push_back(name);
        }
    }
    order.emplace_back(REGISTRY);
    std::map<std::string, std::string> statuses;
    for (const std::string &name : order) {
        if (name == REGISTRY) {
            itc_exit();
        }
        if (s.processes.contains(name)) {
            statuses[name] = process_status_text(stage_stop_process(s, name, SIGTERM, STOP_BOUND));
        }
    }
    if (!wires_remove()) {
        throw stage_failure("a network namespace could not be removed");
    }
    return statuses;
}

std::string stage_leftovers() { return left_processes() + left_namespaces() + left_sockets(); }

nlohmann::json stage_control(const std::string &service, const std::vector<std::string> &words)
{
    try {
        return kap_node::control_command(service, words);
    } catch (const std::exception &refused) {
        throw stage_failure(service + ": " + refused.what());
    }
}

void stage_wait(stage &s, const std::string &what, std::chrono::milliseconds bound,
                const std::function<bool()> &condition)
{
    auto deadline = std::chrono::steady_clock::now() + bound * slowness();
    while (!condition()) {
        stage_check(s);
        if (std::chrono::steady_clock::now() > deadline) {
            throw stage_failure("waited " + std::to_string(bound.count()) + " ms in vain: " + what);
        }
        poll(nullptr, 0, LOOK_EVERY_MS);
    }
}
