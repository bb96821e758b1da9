// kap-node: the services of the reference node, one per process, and the command that speaks with them.
#include "aasi.hpp"
#include "check.hpp"
#include "control.hpp"
#include "emi.hpp"
#include "event_loop.hpp"
#include "far_end_program.hpp"
#include "fmi.hpp"
#include "link_monitor.hpp"
#include "name_space.hpp"
#include "own_namespace.hpp"
#include "pmi.hpp"
#include "prepare.hpp"

#ifdef KAP_NODE_KERNEL
#include "kernel/rule_kernel.hpp"
#include "kernel/rule_removal.hpp"
#else
namespace kap_node
{
class kernel_rules;
} // namespace kap_node
#endif

#ifdef KAP_NODE_KERNEL
#include "kernel/endpoint_keeper.hpp"
#include "kernel/vlan_keeper.hpp"
#else
namespace kap_node
{
class endpoint_keeper;
class vlan_keeper;
} // namespace kap_node
#endif

#include "clients/aasi_messages.hpp"
#include "itc.h"
#include "ns.h"
#include "program_call.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <system_error>

namespace
{

using namespace kap_node;

constexpr millis NAMESPACE_CHECK_MS = 200;

constexpr program_call PROGRAM = {
    "kap-node",
    "usage: kap-node SERVICE --config FILE\n"
    "       kap-node ctl SERVICE COMMAND...\n"
    "       kap-node check FILE             everything that is wrong with a configuration\n"
    "       kap-node prepare --config FILE [--wait SECONDS]\n"
    "                                       makes the namespaces, moves the interfaces there, switches them on\n"
    "       kap-node clean SERVICE [--config FILE]\n"
    "                                       takes away what a service that does not run left in the kernel, in every\n"
    "                                       namespace and whatever is configured now (FILE is not read)\n"
    "       kap-node --help | --version\n"
    "SERVICE: iepcsi, pmi, emi, fmi, aasi or far-end\n"
    "COMMAND of every service:\n"
    "  show                            what it keeps and counts, as JSON\n"
    "  fault reject REQUEST N REASON   refuse the next N requests (REQUEST by its name, or any)\n"
    "  fault delay REQUEST N MS        answer them late\n"
    "  fault silent REQUEST N          do and answer nothing\n"
    "  fault unsolicited MESSAGE [HEX [MAILBOX]]\n"
    "                                  send a message nobody asked for (HEX: what follows its number)\n"
    "  fault clear                     forget all faults\n"
    "  die                             end at once without cleaning up\n"
    "iepcsi:  lock PORT, unlock PORT, vlan-add PORT VLAN INTERFACE NAMESPACE, vlan-remove PORT VLAN\n"
    "aasi:    appear, disappear, announce-foreign [SID [MAILBOX]], config-update [ID...]\n"
    "far-end: silent on|off, delay US, loss PERCENT, drop N, unusable-time on|off,\n"
    "         any-address on|off\n"};

int run_service(event_loop &loop, service &runs)
{
    loop.open_mailbox(runs.mailbox_name());
    return loop.run(runs);
}

bool is_told_without_namespace(const port_config &port)
{
    return port.name_space.empty() && port.reported_name_space.empty();
}

// A client enters the namespace of a port by its name, so that the one this process is in needs one, too.
node_config tell_own_namespace(node_config config, std::optional<own_namespace> *own)
{
    for (port_config &port : config.ports) {
        if (is_told_without_namespace(port)) {
            if (!*own) {
                own->emplace();
            }
            port.reported_name_space = (*own)->name();
        }
    }
    return config;
}

// The first look at the kernel comes before the mailbox, so that no client is told of ports without their addresses.
int run_iepcsi(event_loop &loop, const node_config &config)
{
    std::optional<own_namespace> own;
    iepcsi_service ports(tell_own_namespace(config, &own), loop);
    link_monitor monitor(loop, ports);
    monitor.check_name_spaces();
    loop.every(NAMESPACE_CHECK_MS, [&] { monitor.check_name_spaces(); });
    const mailbox own_mailbox = loop.open_mailbox(ports.mailbox_name());
    if (config.backend == backend_kind::kernel) {
        const int failure = ns_subscribe(DAEMON_SERVICE, "", own_mailbox);
        if (failure != 0) {
            throw std::runtime_error(std::string("when the daemon is ready cannot be heard: ") + strerror(failure));
        }
        ports.wait_for_daemon();
    }
    return loop.run(ports);
}

int run_aasi(event_loop &loop, const node_config &config)
{
    mailbox own = ITC_NO_MBOX;
    aasi_service agent(config, loop, [&own](bool present) {
        return (present ? ns_publish : ns_unpublish)(AASI_SERVICE_NAME, AASI_SERVICE_SCOPE, own, AASI_SERVICE_NAME);
    });
    own = loop.open_mailbox(agent.mailbox_name());
    agent.control({"appear"});
    return loop.run(agent);
}

int run_far_end(event_loop &loop, const node_config &config)
{
    far_end_program far(config, {[&](int fd, auto callback) { loop.watch_fd(fd, std::move(callback)); },
                                 [&](int fd) { loop.unwatch_fd(fd); }});
    far.check_name_spaces();
    loop.every(NAMESPACE_CHECK_MS, [&] { far.check_name_spaces(); });
    loop.open_mailbox(FAR_END_MAILBOX);
    return loop.run(far);
}

#ifdef KAP_NODE_KERNEL
// The first look comes before the mailbox: what an earlier run has left is known before it is asked for again.
void keep(event_loop &loop, kernel_keeper &keeper)
{
    keeper.watch(
        {[&](int fd, auto callback) { loop.watch_fd(fd, std::move(callback)); }, [&](int fd) { loop.unwatch_fd(fd); }});
    keeper.settle(event_loop::now());
    loop.every(SETTLE_PERIOD_MS, [&] { keeper.settle(event_loop::now()); });
}
#endif

// A service with the backend that the configuration names.
template <class Service, class Keeper> int run_kept(event_loop &loop, const node_config &config)
{
    if (config.backend == backend_kind::memory) {
        Service runs(config, loop);
        return run_service(loop, runs);
    }
#ifdef KAP_NODE_KERNEL
    Keeper keeper(config);
    keep(loop, keeper);
    Service runs(config, loop, keeper);
    return run_service(loop, runs);
#else
    throw std::runtime_error("backend = \"kernel\": this program was built without what it takes");
#endif
}

int run_named(const std::string &name, const node_config &config)
{
    event_loop loop;
    if (name == "iepcsi") {
        return run_iepcsi(loop, config);
    }
    if (name == "pmi") {
        return run_kept<pmi_service, vlan_keeper>(loop, config);
    }
    if (name == "emi") {
        return run_kept<emi_service, endpoint_keeper>(loop, config);
    }
    if (name == "fmi") {
        return run_kept<fmi_service, kernel_rules>(loop, config);
    }
    return name == "aasi" ? run_aasi(loop, config) : run_far_end(loop, config);
}

#ifdef KAP_NODE_KERNEL
// Where the service manager has the service keep its journal, when nobody says otherwise.
void find_journal(const std::string &name)
{
    const std::string kept = "/run/kap-node/" + name;
    if (getenv("RUNTIME_DIRECTORY") == nullptr && access(kept.c_str(), F_OK) == 0) {
        (void)setenv("RUNTIME_DIRECTORY", kept.c_str(), 1);
    }
}

// What a service left in the kernel, as if nothing were configured: by its names and its journal. What it takes away
// and what it cannot it says itself.
template <class Keeper> bool clean()
{
    Keeper keeper{node_config{}};
    keeper.settle(0);
    keeper.settle(LEFT_VLANS_KEPT_MS);
    return keeper.show()["troubles"].empty();
}

bool remove_rules(const std::string &name_space)
{
    try {
        bool was_there = false;
        const auto refused = remove_rule_table(name_space, &was_there);
        if (refused || was_there) {
            (void)fprintf(stderr, "kap-node fmi: namespace \"%s\": its rules %s%s\n", name_space.c_str(),
                          refused ? "stay: " : "are taken away", refused ? refused->words.c_str() : "");
        }
        return !refused;
    } catch (const std::system_error &problem) {
        const int error = problem.code().value();
        const bool is_none = error == EINVAL || error == ENOENT; // something else lies there, or it is just gone
        if (!is_none) {
            (void)fprintf(stderr, "kap-node fmi: %s\n", problem.what());
        }
        return is_none;
    }
}
#endif

int run_clean([[maybe_unused]] const std::string &name)
{
    bool done = true;
#ifdef KAP_NODE_KERNEL
    find_journal(name);
    if (name == "pmi") {
        done = clean<vlan_keeper>();
    }
    if (name == "emi") {
        done = clean<endpoint_keeper>();
    }
    if (name == "fmi") {
        done = remove_rules("");
        for (const std::string &name_space : namespace_names()) {
            done = remove_rules(name_space) && done;
        }
    }
#endif
    return done ? 0 : 1;
}

int run_ctl(const std::string &service_name, const arguments &words)
{
    const int failure = itc_init(1, 0, nullptr, nullptr, 0);
    if (failure != 0) {
        throw std::runtime_error(std::string("the message registry cannot be reached: ") + strerror(failure));
    }
    const std::string own = "kap-node-ctl-" + std::to_string(getpid());
    if (itc_create_mailbox(own.c_str(), 0) == ITC_NO_MBOX) {
        throw std::runtime_error("no mailbox for the answer");
    }
    const json result = control_command(service_name, words);
    if (!result.is_null()) {
        (void)printf("%s\n", result.dump(2).c_str());
    }
    itc_exit();
    return program_end(PROGRAM, 0);
}

int run_prepare(const arguments &words)
{
    constexpr uint32_t longest_wait_s = 3600;
    const bool waits = words.size() == 5 && words[3] == "--wait";
    if ((words.size() != 3 && !waits) || words[1] != "--config") {
        return program_refuse(PROGRAM, "write: prepare --config FILE [--wait SECONDS]");
    }
    uint32_t seconds = 0;
    try {
        seconds = waits ? parse_number(words[4], longest_wait_s, "SECONDS") : 0;
    } catch (const command_error &problem) {
        return program_refuse(PROGRAM, problem.what());
    }
    return program_end(PROGRAM, prepare(read_config_file(words[2]), static_cast<int>(seconds) * 1000));
}

int run(const arguments &words)
{
    if (words.size() == 2 && words[0] == "check") {
        return program_end(PROGRAM, check_file(words[1]));
    }
    if (!words.empty() && words[0] == "prepare") {
        return run_prepare(words);
    }
    const bool names_file = words.size() == 4 && words[2] == "--config";
    if ((words.size() == 2 || names_file) && words[0] == "clean" && !control_mailbox(words[1]).empty()) {
        return program_end(PROGRAM, run_clean(words[1]));
    }
    if (words.size() >= 3 && words[0] == "ctl") {
        return run_ctl(words[1], {words.begin() + 2, words.end()});
    }
    if (words.size() != 3 || words[1] != "--config" || control_mailbox(words[0]).empty()) {
        return program_refuse(PROGRAM, words.empty() ? "which service?" : "unknown words or options");
    }
    return run_named(words[0], read_config_file(words[2]));
}

} // namespace

int main(int argc, char **argv)
{
    const arguments words(argv + 1, argv + argc);
    if (auto answered = program_answer(PROGRAM, argc, argv)) {
        return *answered;
    }
    try {
        return run(words);
    } catch (const config_error &problem) {
        (void)fprintf(stderr, "%s\n", problem.what());
        return 1;
    } catch (const std::exception &problem) {
        (void)fprintf(stderr, "kap-node%s%s: %s\n", words.empty() ? "" : " ", words.empty() ? "" : words[0].c_str(),
                      problem.what());
        return 1;
    }
}
