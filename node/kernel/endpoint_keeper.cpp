// Endpoints of links in the kernel (endpoint_keeper.hpp).
#include "kernel/endpoint_keeper.hpp"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <vector>

namespace kap_node
{

namespace
{

constexpr const char *JOURNAL = "emi.journal";

std::map<std::string, port_config> ports_by_name(const node_config &config)
{
    std::map<std::string, port_config> ports;
    for (const port_config &port : config.ports) {
        ports[port.fmi_name] = port;
    }
    return ports;
}

std::set<std::string> name_spaces_of(const node_config &config)
{
    std::set<std::string> names;
    for (const port_config &port : config.ports) {
        names.insert(port.name_space);
    }
    return names;
}

std::string text_of(const port_config &port) { return port.people_name.empty() ? port.name : port.people_name; }

std::string text_of(const address_entry &entry)
{
    std::string text = mac_text(entry.address) + (entry.forwarding ? " in the forwarding table" : " in the filter");
    return entry.vlan_id == 0 ? text : text + ", VLAN " + std::to_string(entry.vlan_id);
}

// The first of several, and how many more there are.
std::string text_of(const std::set<address_entry> &entries)
{
    const std::string first = text_of(*entries.begin());
    return entries.size() == 1 ? first : first + " and " + std::to_string(entries.size() - 1) + " more";
}

struct journal_words {
    std::string mark; // of the namespace
    int port = 0;
    address_entry entry{};
    std::string name_space;
};

std::string written(const journal_words &words)
{
    const mac &m = words.entry.address;
    char text[96];
    (void)snprintf(text, sizeof text, " %d %u %02x:%02x:%02x:%02x:%02x:%02x %u ", words.port,
                   words.entry.forwarding ? 1U : 0U, m[0], m[1], m[2], m[3], m[4], m[5], words.entry.vlan_id);
    return words.mark + text + words.name_space;
}

bool read_address(const std::string &text, mac &address)
{
    bool whole = text.size() == address.size() * 3 - 1;
    for (size_t i = 0; whole && i < address.size(); ++i) {
        const char *digits = text.data() + i * 3;
        whole = std::from_chars(digits, digits + 2, address[i], 16).ptr == digits + 2;
    }
    return whole;
}

std::optional<journal_words> read_entry(const std::string &text)
{
    journal_words words;
    std::istringstream line(text);
    std::string address;
    line >> words.mark >> words.port >> words.entry.forwarding >> address >> words.entry.vlan_id;
    if (!line || line.get() != ' ' || !read_address(address, words.entry.address)) {
        return std::nullopt;
    }
    std::getline(line, words.name_space);
    return words;
}

// The answer to a removal that means that nothing was there.
bool is_gone_already(const kernel_refusal &refused) { return refused.error == ENOENT || refused.error == ENODEV; }

// Whether somebody has fixed the entry at that port.
bool is_at(const entry_table &there, const address_entry &entry, int port)
{
    const auto found = there.find(entry);
    return found != there.end() && found->second.fixed && found->second.port == port;
}

// What is at a port is read once.
bool is_there(kernel_place &place, int port, const address_entry &entry, std::map<int, entry_table> &read)
{
    const auto [at, fresh] = read.try_emplace(port);
    if (fresh && read_entries(place.ask, port, 0, at->second)) {
        read.erase(at);
        return true; // nobody knows
    }
    return is_at(at->second, entry, port);
}

// Of a VLAN that its bridge port lets through no more: the kernel takes nothing of it away then.
bool is_without_vlan(const address_entry &entry, const kernel_link &on)
{
    return entry.forwarding && entry.vlan_id != 0 && on.is_bridge_port && !on.vlans.contains(entry.vlan_id);
}

} // namespace

endpoint_keeper::endpoint_keeper(const node_config &config)
    : ports_(ports_by_name(config)), report_("emi"), journal_(JOURNAL),
      places_(name_spaces_of(config), {RTNLGRP_LINK, RTNLGRP_NEIGH, RTNLGRP_BRVLAN},
              [this](const std::string &name_space, const nlmsghdr *message) { return concerns(name_space, message); })
{
}

void endpoint_keeper::watch(descriptor_hooks hooks)
{
    places_.watch(std::move(hooks), [this](const std::string &name_space) { settle_place(name_space, now_); });
}

// Addresses of bridges come and go all the time: only those that are wanted there are looked after.
bool endpoint_keeper::concerns(const std::string &name_space, const nlmsghdr *message) const
{
    if (message->nlmsg_type != RTM_NEWNEIGH && message->nlmsg_type != RTM_DELNEIGH) {
        return true;
    }
    const auto told = entry_in(message);
    return told && is_wanted(name_space, told->first.address);
}

bool endpoint_keeper::is_wanted(const std::string &name_space, const mac &address) const
{
    return std::any_of(ports_.begin(), ports_.end(), [&](const auto &port) {
        const auto first = wanted_.lower_bound({port.first, address, 0, false});
        return port.second.name_space == name_space && first != wanted_.end() && first->port == port.first &&
               first->address == address;
    });
}

// ---- What endpoints need -------------------------------------------------------------------------------------------

void endpoint_keeper::need(const placed_endpoint &endpoint, const link_table &links, const kernel_link &on, needs &all)
{
    if (!endpoint.far_end) {
        all.now.insert({.forwarding = false, .address = endpoint.address, .vlan_id = 0});
        return;
    }
    const kernel_link *bridge = on.is_bridge_port ? links.at(on.master) : nullptr;
    if (bridge == nullptr) {
        return;
    }
    address_entry entry{.forwarding = true, .address = endpoint.address, .vlan_id = 0};
    if (!bridge->filters_vlans) {
        all.now.insert(entry);
        return;
    }
    entry.vlan_id = endpoint.vlan_id;
    (on.vlans.contains(entry.vlan_id) ? all.now : all.waiting).insert(entry);
}

endpoint_keeper::needs endpoint_keeper::needs_of(const std::string &port, const link_table &links,
                                                 const kernel_link &on) const
{
    needs all;
    const placed_endpoint first{port, {}, 0, false};
    for (auto at = wanted_.lower_bound(first); at != wanted_.end() && at->port == port; ++at) {
        need(*at, links, on, all);
    }
    return all;
}

// What stands beside what was asked for could not be left as it was, or was.
void endpoint_keeper::tell_bystanders(const kernel_link &on, const std::optional<kernel_refusal> &refused)
{
    const std::string what = "entries of others at " + on.name;
    if (refused) {
        report_.trouble(what, *refused);
    } else {
        report_.no_trouble(what);
    }
}

// ---- Requests ------------------------------------------------------------------------------------------------------

// The endpoints of a request are of few ports. Whatever one port refuses is taken back at all of them.
std::optional<kernel_refusal> endpoint_keeper::add(std::span<const placed_endpoint> fresh)
{
    std::map<std::string, std::vector<placed_endpoint>> by_port;
    for (const placed_endpoint &each : fresh) {
        by_port[each.port].push_back(each);
    }
    for (const auto &[port, endpoints] : by_port) {
        wanted_.insert(endpoints.begin(), endpoints.end());
        if (auto refused = add_on(port, endpoints)) {
            report_.refused("endpoints of " + text_of(port_of(port)), *refused);
            for (const placed_endpoint &each : fresh) {
                wanted_.erase(each);
            }
            for (const auto &[changed, unused] : by_port) {
                (void)remove_unneeded(changed);
            }
            return refused;
        }
    }
    return std::nullopt;
}

std::optional<kernel_refusal> endpoint_keeper::add_on(const std::string &port, std::span<const placed_endpoint> fresh)
{
    const port_config &config = port_of(port);
    kernel_place *place = places_.find(config.name_space);
    link_table links;
    if (place == nullptr) {
        const kernel_refusal why = places_.why_closed(config.name_space);
        return why.error == ENOENT ? std::nullopt : std::optional(why);
    }
    if (auto refused = read_links(place->ask, links)) {
        return refused;
    }
    const kernel_link *on = links.named(config.interface);
    kept_port &kept = kept_[port];
    if (on == nullptr || on->index != kept.index) { // what the port had before went with its interface
        port_is_away(port);
    }
    if (on == nullptr) {
        return std::nullopt;
    }
    kept.index = on->index;
    needs wanted;
    for (const placed_endpoint &each : fresh) {
        need(each, links, *on, wanted);
    }
    kept.waiting.insert(wanted.waiting.begin(), wanted.waiting.end());
    auto refused = put_in({*place, links, config, *on}, kept, wanted.now, when_refused::STOP);
    places_.forget_news(config.name_space);
    return refused;
}

// Confirmed even when the interface is away: nothing is left to be removed then.
std::optional<kernel_refusal> endpoint_keeper::remove(std::span<const placed_endpoint> unwanted)
{
    std::set<std::string> changed;
    for (const placed_endpoint &each : unwanted) {
        wanted_.erase(each);
        changed.insert(each.port);
    }
    for (const std::string &port : changed) {
        if (auto refused = remove_unneeded(port)) {
            report_.refused("endpoints of " + text_of(port_of(port)) + " are to go", *refused);
            wanted_.insert(unwanted.begin(), unwanted.end());
            for (const std::string &each : changed) {
                settle_place(port_of(each).name_space, now_);
            }
            return refused;
        }
    }
    return std::nullopt;
}

std::optional<kernel_refusal> endpoint_keeper::remove_unneeded(const std::string &port)
{
    const port_config &config = port_of(port);
    kernel_place *place = places_.find(config.name_space);
    const auto found = kept_.find(port);
    if (place == nullptr || found == kept_.end()) {
        return std::nullopt;
    }
    link_table links;
    if (auto refused = read_links(place->ask, links)) {
        return refused;
    }
    const kernel_link *on = links.named(config.interface);
    if (on == nullptr || on->index != found->second.index) {
        port_is_away(port);
        return std::nullopt;
    }
    const needs wanted = needs_of(port, links, *on);
    kept_port &kept = found->second;
    kept.waiting = wanted.waiting;
    const auto entries = kept.entries;
    std::optional<kernel_refusal> refused;
    bystanders others(place->ask, *on);
    for (const auto &[entry, by] : entries) {
        if (!refused && !wanted.now.contains(entry)) {
            refused = take_out({*place, links, config, *on}, kept, others, entry);
        }
    }
    tell_bystanders(*on, others.put_right());
    places_.forget_news(config.name_space);
    return refused;
}

// ---- Putting in and taking out -------------------------------------------------------------------------------------

std::string endpoint_keeper::journal_entry(const scene &where, const address_entry &entry)
{
    return written({where.place.mark, where.on.index, entry, where.port.name_space});
}

// What is at the port, and in the forwarding table wherever it is.
std::optional<kernel_refusal> endpoint_keeper::look(const scene &where, const std::vector<address_entry> &fresh,
                                                    entry_table &there)
{
    auto refused = read_entries(where.place.ask, where.on.index, 0, there);
    const bool forwarding =
        std::any_of(fresh.begin(), fresh.end(), [](const address_entry &entry) { return entry.forwarding; });
    if (refused || !forwarding) {
        return refused;
    }
    entry_table of_bridge;
    refused = read_entries(where.place.ask, 0, where.on.master, of_bridge);
    for (const auto &[entry, known] : of_bridge) { // the filters of other ports are in it, too
        if (entry.forwarding) {
            there[entry] = known;
        }
    }
    return refused;
}

// Those that are not there yet. What has been put in before a refusal stays for the caller to take out.
//
// Written down before is what is not there: what was written down and is there after a crash is ours.
std::optional<kernel_refusal> endpoint_keeper::put_in(const scene &where, kept_port &kept,
                                                      const std::set<address_entry> &entries, when_refused next)
{
    std::vector<address_entry> fresh;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(fresh),
                 [&](const address_entry &entry) { return !kept.entries.contains(entry); });
    if (fresh.empty()) {
        return std::nullopt;
    }
    entry_table before;
    if (auto refused = look(where, fresh, before)) {
        return refused;
    }
    std::set<std::string> known; // left by an earlier run
    std::vector<std::string> lines;
    for (const address_entry &entry : fresh) {
        const std::string line = journal_entry(where, entry);
        if (journal_.holds(line)) {
            known.insert(line);
        } else if (!is_at(before, entry, where.on.index)) {
            lines.push_back(line);
        }
    }
    if (auto refused = lines.empty() ? std::nullopt : journal_.add(lines)) {
        return refused;
    }
    bystanders others(where.place.ask, where.on);
    std::optional<kernel_refusal> last;
    for (const address_entry &entry : fresh) {
        const std::string line = journal_entry(where, entry);
        holder by = known.contains(line) ? holder::us : holder::other;
        auto refused = last && next == when_refused::STOP ? last : others.before(entry);
        if (!refused) {
            refused = put_in(where, before, entry, &by);
        }
        if (!refused) {
            kept.entries[entry] = by;
        }
        if ((refused && !known.contains(line)) || by == holder::other) {
            journal_.forget(line);
        }
        last = refused ? refused : last;
    }
    tell_bystanders(where.on, others.put_right());
    return last;
}

// `by` says whose the entry is when there is one, and is told whose it is now.
std::optional<kernel_refusal> endpoint_keeper::put_in(const scene &where, const entry_table &before,
                                                      const address_entry &entry, holder *by)
{
    if (is_at(before, entry, where.on.index)) {
        return std::nullopt;
    }
    auto refused = put_entry(where.place.ask, where.on.index, entry, when_known::REFUSE);
    if (!refused) {
        *by = holder::us;
        return std::nullopt;
    }
    if (refused->error != EEXIST) {
        return refused;
    }
    return entry.forwarding ? make_static(where, before, entry, by) : std::nullopt;
}

// The bridge knows the address already; or it has just taken it, and met it in a VLAN that nobody means.
std::optional<kernel_refusal> endpoint_keeper::make_static(const scene &where, const entry_table &before,
                                                           const address_entry &entry, holder *by)
{
    entry_table there;
    if (auto refused = read_entries(where.place.ask, 0, where.on.master, there)) {
        return refused;
    }
    const auto found = there.find(entry);
    if (found != there.end() && found->second.fixed) {
        if (found->second.port == where.on.index) {
            const bool just_taken = entry.vlan_id == 0 && !where.on.vlans.empty() && !before.contains(entry);
            *by = just_taken ? holder::us : *by;
            return std::nullopt;
        }
        const kernel_link *elsewhere = where.links.at(found->second.port);
        if (!take_from_stuck(where, entry, found->second.port)) {
            return kernel_refusal{EEXIST, text_of(entry) + " is fixed at " +
                                              (elsewhere == nullptr ? "another port" : elsewhere->name)};
        }
    }
    auto refused = put_entry(where.place.ask, where.on.index, entry, when_known::REPLACE);
    if (!refused) {
        *by = holder::us;
    }
    return refused;
}

// Whether an entry at another port of ours is nobody's any more, and may move.
bool endpoint_keeper::take_from_stuck(const scene &where, const address_entry &entry, int port)
{
    for (auto &[name, kept] : kept_) {
        if (kept.index == port && port_of(name).name_space == where.port.name_space && kept.stuck.erase(entry) != 0) {
            journal_.forget(written({where.place.mark, port, entry, where.port.name_space}));
            return true;
        }
    }
    return false;
}

std::optional<kernel_refusal> endpoint_keeper::take_out(const scene &where, kept_port &kept, bystanders &others,
                                                        const address_entry &entry)
{
    if (kept.entries.at(entry) == holder::us) {
        auto refused = others.before(entry);
        if (!refused) {
            refused = take_entry(where.place.ask, where.on.index, entry);
        }
        if (refused && is_without_vlan(entry, where.on)) {
            kept.stuck.insert(entry);
            kept.entries.erase(entry);
            return std::nullopt;
        }
        if (refused && !is_gone_already(*refused) && !(entry.forwarding && !where.on.is_bridge_port)) {
            return refused;
        }
        journal_.forget(journal_entry(where, entry));
    }
    kept.entries.erase(entry);
    return std::nullopt;
}

// What was at an interface is gone with it.
void endpoint_keeper::port_is_away(const std::string &port) { kept_[port] = {}; }

// ---- Keeping -------------------------------------------------------------------------------------------------------

void endpoint_keeper::settle(millis now)
{
    now_ = now;
    places_.check([this](const std::string &name_space) {
        for (const auto &[name, port] : ports_) {
            if (port.name_space == name_space) {
                port_is_away(name);
            }
        }
    });
    for (const std::string &name_space : places_.names()) {
        settle_place(name_space, now);
    }
    began_ = began_.value_or(now);
    if (!others_visited_ && now - *began_ >= LEFTOVERS_KEPT_MS) {
        others_visited_ = true;
        remove_others();
    }
}

void endpoint_keeper::settle_place(const std::string &name_space, millis now)
{
    kernel_place *place = places_.find(name_space);
    const std::string what = "network namespace \"" + name_space + "\"";
    if (place == nullptr) {
        report_.trouble(what, places_.why_closed(name_space));
        return;
    }
    report_.no_trouble(what);
    ++comparisons_;
    link_table links;
    if (const auto refused = read_links(place->ask, links)) {
        report_.trouble("looking at the interfaces", *refused);
        return;
    }
    report_.no_trouble("looking at the interfaces");
    for (const auto &[name, port] : ports_) {
        if (port.name_space != name_space) {
            continue;
        }
        const kernel_link *on = links.named(port.interface);
        if (on == nullptr || on->index != kept_[name].index) {
            port_is_away(name);
        }
        if (on != nullptr) {
            settle_port({*place, links, port, *on}, kept_[name]);
        }
    }
    remove_left_entries(name_space, *place, links, now);
    places_.forget_news(name_space);
}

// What is wanted again is taken over by who puts it in, since the journal knows it.
void endpoint_keeper::take_out_stuck(const scene &where, kept_port &kept, const needs &wanted)
{
    const auto stuck = kept.stuck;
    for (const address_entry &entry : stuck) {
        if (wanted.now.contains(entry)) {
            kept.stuck.erase(entry);
        } else if (!is_without_vlan(entry, where.on)) {
            (void)take_entry(where.place.ask, where.on.index, entry);
            journal_.forget(journal_entry(where, entry));
            kept.stuck.erase(entry);
        }
    }
}

void endpoint_keeper::settle_port(const scene &where, kept_port &kept)
{
    const needs wanted = needs_of(where.port.fmi_name, where.links, where.on);
    const std::string what = "endpoints of " + text_of(where.port);
    const bool is_back = kept.index == 0;
    kept.index = where.on.index;
    kept.waiting = wanted.waiting;
    take_out_stuck(where, kept, wanted);
    if (wanted.now.empty() && kept.entries.empty()) {
        return;
    }
    entry_table there;
    std::optional<kernel_refusal> refused = read_entries(where.place.ask, where.on.index, 0, there);
    if (refused) {
        report_.trouble(what, *refused);
        return;
    }
    std::set<address_entry> lost;
    bystanders others(where.place.ask, where.on);
    const auto entries = kept.entries;
    for (const auto &[entry, by] : entries) {
        const auto found = there.find(entry);
        if (!wanted.now.contains(entry)) {
            const auto stays = take_out(where, kept, others, entry);
            refused = stays ? stays : refused;
        } else if (found == there.end() || !found->second.fixed) {
            lost.insert(entry);
            kept.entries.erase(entry);
        }
    }
    tell_bystanders(where.on, others.put_right());
    const size_t before = kept.entries.size();
    if (const auto stays_out = put_in(where, kept, wanted.now, when_refused::GO_ON)) {
        refused = stays_out;
    }
    if (refused) {
        report_.trouble(what, *refused);
        return;
    }
    report_.no_trouble(what);
    if (!lost.empty()) {
        report_.mended(what + ": " + text_of(lost) + " was taken away by somebody else, and is put back", lost.size());
    } else if (kept.entries.size() > before) {
        report_.mended(what + ": " + std::to_string(kept.entries.size() - before) + " are put in" +
                           (is_back ? ", the interface is there" : ", their VLAN is there"),
                       0);
    }
}

// Of an earlier run. An entry of a namespace that is not there any more, or of an interface, is gone with it; so is one
// that the kernel does not have: whoever makes it from now on is somebody else.
void endpoint_keeper::remove_left_entries(const std::string &name_space, kernel_place &place, const link_table &links,
                                          millis now)
{
    std::set<std::string> ours;
    for (const auto &[name, kept] : kept_) {
        for (const auto &[entry, by] : kept.entries) {
            if (port_of(name).name_space == name_space && by == holder::us) {
                ours.insert(written({place.mark, kept.index, entry, name_space}));
            }
        }
    }
    std::map<int, entry_table> there;
    const std::set<std::string> lines = journal_.entries();
    for (const std::string &line : lines) {
        const auto words = read_entry(line);
        if (words && words->name_space != name_space) {
            continue;
        }
        const kernel_link *on = words ? links.at(words->port) : nullptr;
        if (on == nullptr || words->mark != place.mark) {
            journal_.forget(line);
        } else if (ours.contains(line)) {
            left_since_.erase(line);
        } else if (!is_there(place, words->port, words->entry, there)) {
            journal_.forget(line);
            left_since_.erase(line);
        } else if (const auto since = left_since_.try_emplace(line, now).first->second;
                   now - since >= LEFTOVERS_KEPT_MS &&
                   !is_without_vlan(words->entry, *on)) { // refused until it is back
            remove_left_entry(place, *on, words->entry, line);
        }
    }
}

void endpoint_keeper::remove_left_entry(kernel_place &place, const kernel_link &on, const address_entry &entry,
                                        const std::string &line)
{
    const std::string what = on.name + ": " + text_of(entry) + ", which an earlier run has left";
    bystanders others(place.ask, on);
    auto refused = others.before(entry);
    if (!refused) {
        refused = take_entry(place.ask, on.index, entry);
        tell_bystanders(on, others.put_right());
    }
    if (refused && !is_gone_already(*refused)) {
        report_.trouble(what, *refused);
        return;
    }
    if (!refused) {
        report_.left_over(what + ", is taken away");
    }
    report_.no_trouble(what);
    journal_.forget(line);
    left_since_.erase(line);
}

// In namespaces that no port is in: an earlier run had another configuration. What is written down of a namespace that
// is found nowhere is gone with it.
void endpoint_keeper::remove_others()
{
    std::set<std::string> looked_for;
    for (const std::string &line : journal_.entries()) {
        const auto words = read_entry(line);
        if (!words || !places_.names().contains(words->name_space)) {
            looked_for.insert(line);
        }
    }
    if (looked_for.empty()) {
        return;
    }
    std::set<std::string> gone = looked_for;
    const bool all = places_.visit_others([&](const std::string &, kernel_place &place) {
        link_table links;
        const bool unknown = read_links(place.ask, links).has_value();
        for (const std::string &line : looked_for) {
            const auto words = read_entry(line);
            if (!words || words->mark != place.mark) {
                continue;
            }
            const kernel_link *on = links.at(words->port);
            if (unknown || on != nullptr) {
                gone.erase(line);
            }
            if (on != nullptr) {
                remove_left_entry(place, *on, words->entry, line);
            }
        }
    });
    for (const std::string &line : gone) {
        if (all) {
            journal_.forget(line);
        }
    }
}

// ---- Showing -------------------------------------------------------------------------------------------------------

nlohmann::json endpoint_keeper::show() const
{
    nlohmann::json shown = report_.show();
    auto ports = nlohmann::json::object();
    for (const auto &[name, kept] : kept_) {
        const auto ours = std::count_if(kept.entries.begin(), kept.entries.end(),
                                        [](const auto &each) { return each.second == holder::us; });
        ports[name] = {{"interface", kept.index == 0 ? "" : port_of(name).interface},
                       {"entries", ours},
                       {"of_others", kept.entries.size() - static_cast<size_t>(ours)},
                       {"waiting", kept.waiting.size()}};
    }
    shown["ports"] = std::move(ports);
    shown["comparisons"] = comparisons_;
    return shown;
}

} // namespace kap_node
