// vornctl status: what is up, what is missing, since when, and what to do. Here: everybody is asked, and it is printed.
#include "status.hpp"

#include <algorithm>
#include <cstdio>

#include <unistd.h>

#include "asking.hpp"
#include "iemli_client.hpp"
#include "itc_wire.hpp"
#include "output.hpp"
#include "times.hpp"

namespace vornctl
{

namespace
{

using text_table::colour;

constexpr uint32_t PUBLISHED_BOUND_MS = 500;

struct service {
    const char *name;
    const char *role;
    const char *mailbox;
    bool needed;
};
// The node's services that the daemon is a client of, under the names of the reference node.
constexpr service SERVICES[] = {
    {"iepcsi", "port control", "iepcsi-server", true},        {"pmi", "port management", "pmi-server", true},
    {"emi", "endpoint manager", "endpoint_mgr", true},        {"fmi", "flow manager", "flow-manager", true},
    {"aasi", "automation agent", "automationagentsi", false},
};

component make(const char *name, const char *role, const std::string &unit, const char *package, bool needed)
{
    component one;
    one.name = name;
    one.role = role;
    one.unit = unit + ".service";
    one.package = package;
    one.needed = needed;
    return one;
}

presence there(bool is_there) { return is_there ? presence::up : presence::down; }

// What the daemon and the services are, asked over ITC.
void ask_over_itc(node_status &status, component &daemon, std::vector<component> &services)
{
    const registry connected;
    size_t needed_there = 0;
    size_t needed = 0;
    for (size_t i = 0; i < std::size(SERVICES); ++i) {
        services[i].there = there(itc_locate(SERVICES[i].mailbox) != ITC_NO_MBOX);
        needed += SERVICES[i].needed ? 1 : 0;
        needed_there += SERVICES[i].needed && services[i].there == presence::up ? 1 : 0;
    }
    daemon.there = there(itc_locate("kap-vorn") != ITC_NO_MBOX);
    if (daemon.there == presence::down) {
        return;
    }
    iemli_client client;
    const bool published = iemli_client_start(client, static_cast<uint32_t>(getpid())) &&
                           iemli_client_wait_published(client, PUBLISHED_BOUND_MS);
    iemli_client_stop(client);
    if (!published) {
        daemon.note = "offers no links";
        status.daemon_stale = needed_there == needed;
    }
    std::string error;
    if (const auto links = link_list::fetch(ITC_BOUND_MS, &error)) {
        status.links = links->size();
        status.enabled =
            static_cast<size_t>(std::count_if(links->begin(), links->end(), [](const auto &l) { return l.enabled; }));
        for (const link_list::link &l : *links) {
            if (!l.enabled) {
                status.down_links.push_back({"", l.port, l.reason.empty() ? "unknown" : l.reason});
            }
        }
    } else {
        daemon.note = error;
    }
}

// kap-linkd knows the names, and which links the daemon does not have.
void ask_linkd_for_more(const call &c, node_status &status, component &linkd)
{
    try {
        linkd_client::connection connection(c.linkd_socket);
        linkd.there = presence::up;
        linkd.process = process_of(connection.peer());
        const auto answer = connection.ask("links", nlohmann::json::object(), NAMES_BOUND);
        for (const nlohmann::json &one : answer.value("links", nlohmann::json::array())) {
            const std::string state = text_in(one, "state");
            if (state == "rejected" || state == "waiting") {
                status.down_links.push_back({text_in(one, "name"), text_in(one, "port"), state});
            }
            if (state == "disabled") {
                const auto nameless =
                    std::find_if(status.down_links.begin(), status.down_links.end(), [&](const down_link &known) {
                        return known.name.empty() && known.port == text_in(one, "port") &&
                               known.reason == text_in(one, "reason");
                    });
                if (nameless != status.down_links.end()) {
                    nameless->name = text_in(one, "name");
                }
            }
        }
        const auto own = connection.ask("status", nlohmann::json::object(), NAMES_BOUND);
        linkd.note = text_in(own, "missing");
    } catch (const linkd_client::failure &problem) {
        linkd.there = problem.kind == linkd_client::trouble::not_there ? presence::down : linkd.there;
        linkd.note = linkd.there == presence::down ? "" : problem.what();
    }
}

const char *word_of(presence what)
{
    return what == presence::up ? "up" : what == presence::down ? "not there" : "unknown";
}

void print_people(const node_status &status, const std::vector<advice> &next)
{
    const int64_t now = now_us();
    std::vector<text_table::row> rows = {{"WHAT", "IS", "STATE", "SINCE", "NOTE"}};
    for (const component &one : status.components) {
        const auto since = one.since_us();
        const colour paint = one.there == presence::up ? (one.note.empty() ? colour::good : colour::warning)
                             : one.is_missed()         ? colour::bad
                                                       : colour::faint;
        rows.push_back({one.name,
                        one.role,
                        {word_of(one.there), paint},
                        since ? clock_text(*since) + ", " + span_text(now - *since) : std::string("unknown"),
                        one.note});
    }
    print_table(rows);
    if (status.links) {
        const bool all = *status.enabled == *status.links && status.down_links.empty();
        const std::string text = std::to_string(*status.links) + " with the daemon, " +
                                 std::to_string(*status.enabled) + " enabled, " +
                                 std::to_string(*status.links - *status.enabled) + " disabled";
        (void)printf("\nlinks: %s\n", with_colour()
                                          ? text_table::painted(text, all ? colour::good : colour::bad).c_str()
                                          : text.c_str());
    } else {
        (void)printf("\nlinks: nobody could be asked\n");
    }
    if (next.empty()) {
        (void)printf("Nothing is missing.\n");
        return;
    }
    (void)printf("\nto do:\n");
    for (const advice &one : next) {
        (void)printf("  %s\n      %s\n", one.why.c_str(), one.command.c_str());
    }
}

json time_json(const std::optional<int64_t> &at_us) { return at_us ? json(*at_us) : json(nullptr); }

void print_as_json(const node_status &status, const std::vector<advice> &next)
{
    json components = json::array();
    json missing = json::array();
    for (const component &one : status.components) {
        components.push_back({{"name", one.name},
                              {"role", one.role},
                              {"state", one.there == presence::up     ? "up"
                                        : one.there == presence::down ? "down"
                                                                      : "unknown"},
                              {"since_us", time_json(one.since_us())},
                              {"pid", one.process ? json(one.process->pid) : json(nullptr)},
                              {"unit", one.unit},
                              {"note", one.note}});
        if (one.is_missed()) {
            missing.push_back(one.name);
        }
    }
    json links = nullptr;
    if (status.links) {
        links = {{"all", *status.links}, {"enabled", *status.enabled}, {"disabled", *status.links - *status.enabled}};
    }
    json todo = json::array();
    for (const advice &one : next) {
        todo.push_back({{"why", one.why}, {"command", one.command}});
    }
    print_json(json{{"components", components}, {"links", links}, {"missing", missing}, {"next", todo}});
}

std::vector<component> services_of_the_node()
{
    std::vector<component> services;
    for (const service &one : SERVICES) {
        services.push_back(make(one.name, one.role, std::string("kap-node-") + one.name, "kap-node", one.needed));
    }
    return services;
}

void add_processes(node_status &status)
{
    std::vector<std::string> units;
    for (const component &one : status.components) {
        units.push_back(one.unit);
    }
    const auto managed = ask_systemd(units);
    status.systemd = !managed.empty();
    for (component &one : status.components) {
        const auto found = managed.find(one.unit);
        if (found != managed.end()) {
            one.managed = found->second;
        }
        if (one.process || one.there != presence::up) {
            continue;
        }
        const bool of_node = one.unit.starts_with("kap-node-");
        one.process = one.name == "itcd" ? process_behind(itc_wire::socket_path)
                      : of_node          ? process_called("kap-node", one.name)
                                         : process_called(one.name);
    }
}

exits print_status(const call &c)
{
    component itcd = make("itcd", "registry", "kap-itcd", "kap-itc", true);
    component daemon = make("kap-vorn", "daemon", "kap-vorn", "kap-vorn", true);
    component linkd = make("kap-linkd", "link manager", "kap-linkd", "kap-linkd", false);
    std::vector<component> services = services_of_the_node();
    node_status status;
    exits result = exits::well;
    try {
        ask_over_itc(status, daemon, services);
        itcd.there = presence::up;
    } catch (const failure &problem) {
        itcd.there = problem.status == exits::no_registry ? presence::down : presence::up;
        itcd.note = problem.what();
        result = problem.status;
    }
    ask_linkd_for_more(c, status, linkd);
    status.components.push_back(itcd);
    status.components.push_back(daemon);
    status.components.insert(status.components.end(), services.begin(), services.end());
    status.components.push_back(linkd);
    add_processes(status);
    const auto next = advice_for(status);
    c.json ? print_as_json(status, next) : print_people(status, next);
    if (result != exits::well) {
        return result;
    }
    if (daemon.there == presence::down) {
        return exits::no_daemon;
    }
    return next.empty() ? exits::well : exits::failed;
}

} // namespace

void add_status(CLI::App &app, call &c)
{
    CLI::App *status = app.add_subcommand("status", "what is up, what is missing, since when, and what to do");
    add_json(*status, c);
    status->callback([&c] { c.run = [&c] { return print_status(c); }; });
}

} // namespace vornctl
