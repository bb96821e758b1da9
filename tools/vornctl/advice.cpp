// What follows from the status of a node (status.hpp). Pure functions.
#include "status.hpp"

#include <map>

namespace vornctl
{

namespace
{

std::string start_command(const node_status &status, const component &missed)
{
    if (!status.systemd) {
        return "";
    }
    if (!missed.managed || !missed.managed->installed) {
        return "apt install " + missed.package;
    }
    const std::string unit = missed.unit.substr(0, missed.unit.rfind('.'));
    return missed.managed->state == "failed" || missed.managed->state == "activating"
               ? "journalctl -u " + unit + " -n 20"
               : "systemctl start " + unit;
}

std::string why_of(const component &missed)
{
    std::string why = missed.name + " is not there";
    if (missed.managed && missed.managed->installed) {
        why += ": its unit is " + missed.managed->state;
        why += missed.managed->result.empty() || missed.managed->result == "success"
                   ? ""
                   : " (" + missed.managed->result + ")";
    }
    return why;
}

std::string link_command(const down_link &link)
{
    if (link.reason == "locked") {
        return "kap-node ctl iepcsi unlock " + link.port;
    }
    if (link.reason == "down") {
        return "vornctl ports --port " + link.port;
    }
    return link.name.empty() ? "vornctl links --port " + link.port : "vornctl link " + link.name;
}

std::string link_text(const std::string &reason, size_t count)
{
    const std::string links = std::to_string(count) + (count == 1 ? " link is " : " links are ");
    if (reason == "rejected") {
        return links + "rejected by the daemon";
    }
    return reason == "waiting" ? links + "not with the daemon yet" : links + "disabled with reason " + reason;
}

} // namespace

bool component::is_missed() const { return there == presence::down && (needed || (managed && managed->installed)); }

std::optional<int64_t> component::since_us() const
{
    if (there == presence::up && process && process->since_us) {
        return process->since_us;
    }
    const bool same = managed && ((managed->state == "active") == (there == presence::up));
    return there != presence::unknown && same ? managed->since_us : std::nullopt;
}

std::vector<advice> advice_for(const node_status &status)
{
    std::vector<advice> all;
    for (const component &one : status.components) {
        if (one.is_missed()) {
            const std::string command = start_command(status, one);
            all.push_back({why_of(one), command.empty() ? one.name : command});
        }
    }
    if (status.daemon_stale) {
        all.push_back(
            {"kap-vorn offers no links although its services are there: it has lost one of them since it started",
             status.systemd ? "systemctl restart kap-vorn" : "kap-vorn"});
    }
    // One piece of advice for a reason, by the example of its first link.
    std::map<std::string, std::pair<size_t, const down_link *>> reasons;
    for (const down_link &link : status.down_links) {
        auto &[count, first] = reasons[link.reason];
        first = count++ == 0 ? &link : first;
    }
    for (const auto &[reason, counted] : reasons) {
        all.push_back({link_text(reason, counted.first), link_command(*counted.second)});
    }
    return all;
}

} // namespace vornctl
