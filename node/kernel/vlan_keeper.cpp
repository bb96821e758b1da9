// VLANs of ports in the kernel (vlan_keeper.hpp).
#include "kernel/vlan_keeper.hpp"

#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cerrno>
#include <sstream>

namespace kap_node
{

namespace
{

constexpr const char *JOURNAL = "pmi.journal";
constexpr size_t NAME_MOST = IFNAMSIZ - 1;

std::set<std::string> name_spaces_of(const std::map<std::string, port_config> &ports)
{
    std::set<std::string> names;
    for (const auto &[name, port] : ports) {
        names.insert(port.name_space);
    }
    return names;
}

std::map<std::string, port_config> ports_by_name(const node_config &config)
{
    std::map<std::string, port_config> ports;
    for (const port_config &port : config.ports) {
        ports[port.name] = port;
    }
    return ports;
}

std::string text_of(const port_config &port, uint16_t vlan_id)
{
    return "VLAN " + std::to_string(vlan_id) + " of " + (port.people_name.empty() ? port.name : port.people_name);
}

// Made by us, or by an earlier run of us. One that was being made when the maker died has no alias yet.
bool is_own_device(const kernel_link &link)
{
    return link.is_vlan &&
           (link.alias == OWN_ALIAS || (link.group == UNFINISHED_GROUP && link.alias.empty() && !link.up));
}

// What a journal says of a VLAN on a bridge port: in which namespace, whatever its name stands for later, and where.
std::string journal_entry(const kernel_place &where, int port, uint16_t vlan_id, const std::string &name_space)
{
    return where.mark + " " + std::to_string(port) + " " + std::to_string(vlan_id) + " " + name_space;
}

struct journal_words {
    std::string mark;
    int port = 0;
    unsigned vlan_id = 0;
    std::string name_space;
};

std::optional<journal_words> read_entry(const std::string &entry)
{
    journal_words words;
    std::istringstream line(entry);
    line >> words.mark >> words.port >> words.vlan_id;
    if (!line || line.get() != ' ') {
        return std::nullopt;
    }
    std::getline(line, words.name_space);
    return words;
}

} // namespace

std::string vlan_device_name(const port_config &port, uint16_t vlan_id)
{
    const std::string id = "." + std::to_string(vlan_id);
    for (const std::string &base : {port.interface, port.people_name, port.name}) {
        if (!base.empty() && base.size() + id.size() <= NAME_MOST) {
            return base + id;
        }
    }
    return "";
}

vlan_keeper::vlan_keeper(const node_config &config)
    : ports_(ports_by_name(config)), report_("pmi"), journal_(JOURNAL),
      places_(name_spaces_of(ports_), {RTNLGRP_LINK, RTNLGRP_BRVLAN},
              [](const std::string &, const nlmsghdr *) { return true; })
{
}

void vlan_keeper::watch(descriptor_hooks hooks)
{
    places_.watch(std::move(hooks), [this](const std::string &name_space) { settle_place(name_space, now_); });
}

// ---- Requests ------------------------------------------------------------------------------------------------------

std::optional<kernel_refusal> vlan_keeper::look(kernel_place &place, link_table &links) const
{
    return read_links(place.ask, links);
}

std::optional<kernel_refusal> vlan_keeper::open(const std::string &port_name, uint16_t vlan_id)
{
    const port_config &port = port_of(port_name);
    kept_vlan kept;
    std::optional<kernel_refusal> refused;
    if (port.vlan != vlan_mode::none) {
        kernel_place *place = places_.find(port.name_space);
        link_table links;
        if (place == nullptr) {
            refused = places_.why_closed(port.name_space);
        } else if (!(refused = look(*place, links))) {
            refused = make({*place, links, port}, vlan_id, kept);
        }
        places_.forget_news(port.name_space);
    }
    if (refused) {
        report_.refused(text_of(port, vlan_id), *refused);
        return refused;
    }
    wanted_[{port_name, vlan_id}] = kept;
    return std::nullopt;
}

std::optional<kernel_refusal> vlan_keeper::close(const std::string &port_name, uint16_t vlan_id)
{
    const port_config &port = port_of(port_name);
    const auto found = wanted_.find({port_name, vlan_id});
    kernel_place *place = places_.find(port.name_space);
    if (found != wanted_.end() && found->second.by == holder::us && place != nullptr) {
        link_table links;
        auto refused = look(*place, links);
        if (!refused) {
            refused = take_away({*place, links, port}, vlan_id, found->second);
        }
        places_.forget_news(port.name_space);
        if (refused) {
            report_.refused(text_of(port, vlan_id) + " is to go", *refused);
            return refused;
        }
    }
    report_.no_trouble(text_of(port, vlan_id));
    wanted_.erase({port_name, vlan_id});
    return std::nullopt;
}

// ---- Making and taking away ----------------------------------------------------------------------------------------

// Makes what is missing of a VLAN, and says whose it is.
std::optional<kernel_refusal> vlan_keeper::make(const scene &where, uint16_t vlan_id, kept_vlan &kept)
{
    return where.port.vlan == vlan_mode::bridge ? let_through(where, vlan_id, kept) : make_device(where, vlan_id, kept);
}

std::optional<kernel_refusal> vlan_keeper::make_device(const scene &where, uint16_t vlan_id, kept_vlan &kept)
{
    const std::string name = vlan_device_name(where.port, vlan_id);
    if (name.empty()) {
        return kernel_refusal{ENAMETOOLONG, "no name for a device of at most 15 characters"};
    }
    const kernel_link *on = where.links.named(where.port.interface);
    if (on == nullptr) {
        return kernel_refusal{ENODEV, "there is no interface " + where.port.interface};
    }
    const kernel_link *device = where.links.vlan_on(on->index, vlan_id);
    if (device == nullptr) {
        return create_device(where, *on, vlan_id, kept);
    }
    const bool known = kept.by == holder::us && kept.index == device->index;
    kept = {known || is_own_device(*device) ? holder::us : holder::other, device->index, device->name};
    return kept.by == holder::us ? finish_device(where, *on, *device, name) : std::nullopt;
}

std::optional<kernel_refusal> vlan_keeper::create_device(const scene &where, const kernel_link &on, uint16_t vlan_id,
                                                         kept_vlan &kept)
{
    const std::string name = vlan_device_name(where.port, vlan_id);
    if (where.links.named(name) != nullptr) {
        return kernel_refusal{EEXIST, name + " is another interface"};
    }
    if (auto refused = make_vlan_device(where.place.ask, name, on.index, vlan_id)) {
        return refused;
    }
    const int index = index_of(where.place.ask, name);
    kernel_link bare;
    bare.index = index;
    bare.name = name;
    bare.group = UNFINISHED_GROUP;
    if (auto refused = finish_device(where, on, bare, name)) {
        (void)delete_link(where.place.ask, index);
        return refused;
    }
    kept = {holder::us, index, name};
    return std::nullopt;
}

// Gives a device of ours its name and alias, and has it up when its interface is; with that one it goes up by itself.
std::optional<kernel_refusal> vlan_keeper::finish_device(const scene &where, const kernel_link &on,
                                                         const kernel_link &device, const std::string &name)
{
    link_change set_down;
    set_down.up = false;
    link_change rename;
    rename.name = name;
    if (device.name != name && where.links.named(name) != nullptr) {
        return kernel_refusal{EEXIST, name + " is another interface"};
    }
    if (device.name != name) { // not every kernel renames what is up
        if (auto refused = change_link(where.place.ask, device.index, set_down)) {
            return refused;
        }
        if (auto refused = change_link(where.place.ask, device.index, rename)) {
            return refused;
        }
    }
    link_change change;
    if (device.alias != OWN_ALIAS) {
        change.alias = OWN_ALIAS;
    }
    if (device.group == UNFINISHED_GROUP) {
        change.group = 0;
    }
    if (on.up && (!device.up || device.name != name)) {
        change.up = true;
    }
    if (!change.alias && !change.group && !change.up) {
        return std::nullopt;
    }
    return change_link(where.place.ask, device.index, change);
}

std::optional<kernel_refusal> vlan_keeper::let_through(const scene &where, uint16_t vlan_id, kept_vlan &kept)
{
    const kernel_link *port = where.links.named(where.port.interface);
    if (port == nullptr) {
        return kernel_refusal{ENODEV, "there is no interface " + where.port.interface};
    }
    if (!port->is_bridge_port) {
        return kernel_refusal{ENXIO, where.port.interface + " is no port of a bridge"};
    }
    const std::string entry = journal_entry(where.place, port->index, vlan_id, where.port.name_space);
    if (port->vlans.contains(vlan_id)) {
        kept = {journal_.holds(entry) ? holder::us : holder::other, port->index, port->name};
        return std::nullopt;
    }
    if (auto refused = journal_.add({&entry, 1})) {
        return refused;
    }
    if (auto refused = let_vlan_through(where.place.ask, port->index, vlan_id)) {
        journal_.forget(entry);
        return refused;
    }
    kept = {holder::us, port->index, port->name};
    return std::nullopt;
}

// Only what is still what was made.
std::optional<kernel_refusal> vlan_keeper::take_away(const scene &where, uint16_t vlan_id, const kept_vlan &kept)
{
    const kernel_link *there = where.links.at(kept.index);
    if (where.port.vlan == vlan_mode::device) {
        const bool is_it = there != nullptr && there->is_vlan && there->vlan_id == vlan_id;
        auto refused = is_it ? delete_link(where.place.ask, kept.index) : std::nullopt;
        return refused && refused->error == ENODEV ? std::nullopt : refused;
    }
    if (there != nullptr && there->vlans.contains(vlan_id)) {
        if (auto refused = stop_vlan(where.place.ask, kept.index, vlan_id)) {
            return refused;
        }
    }
    journal_.forget(journal_entry(where.place, kept.index, vlan_id, where.port.name_space));
    return std::nullopt;
}

// ---- Keeping -------------------------------------------------------------------------------------------------------

void vlan_keeper::settle(millis now)
{
    now_ = now;
    places_.check([this](const std::string &name_space) { place_is_gone(name_space); });
    for (const std::string &name_space : places_.names()) {
        settle_place(name_space, now);
    }
    began_ = began_.value_or(now);
    if (!others_visited_ && now - *began_ >= LEFT_VLANS_KEPT_MS) {
        others_visited_ = true;
        remove_others();
    }
}

// What was in a namespace is gone with it.
void vlan_keeper::place_is_gone(const std::string &name_space)
{
    for (auto &[key, kept] : wanted_) {
        if (port_of(key.first).name_space == name_space) {
            kept = {};
        }
    }
}

void vlan_keeper::settle_place(const std::string &name_space, millis now)
{
    kernel_place *place = places_.find(name_space);
    const std::string what = "network namespace \"" + name_space + "\"";
    if (place == nullptr) {
        report_.trouble(what, places_.why_closed(name_space));
        return;
    }
    report_.no_trouble(what);
    link_table links;
    if (const auto refused = look(*place, links)) {
        report_.trouble("looking at the interfaces", *refused);
        return;
    }
    report_.no_trouble("looking at the interfaces");
    for (auto &[key, kept] : wanted_) {
        const port_config &port = port_of(key.first);
        if (port.name_space == name_space && port.vlan != vlan_mode::none) {
            settle_vlan({*place, links, port}, key.second, kept);
        }
    }
    remove_left_devices(name_space, *place, links, now);
    remove_left_vlans(name_space, *place, links, now);
    places_.forget_news(name_space);
}

namespace
{

// What somebody else has done to a VLAN that was kept, by what is left of it.
std::string what_happened(const kernel_link *left, bool is_device, const std::string &device)
{
    if (left == nullptr || !is_device) {
        return device + (is_device ? " was deleted" : " let it through no more");
    }
    if (left->name != device) {
        return device + " was renamed to " + left->name;
    }
    return left->alias != OWN_ALIAS ? device + " lost its alias" : device + " was set down";
}

} // namespace

void vlan_keeper::settle_vlan(const scene &where, uint16_t vlan_id, kept_vlan &kept)
{
    const kept_vlan before = kept;
    const std::string what = text_of(where.port, vlan_id);
    const kernel_link *on = where.links.named(where.port.interface);
    if (on == nullptr) {
        kept = {};
        report_.trouble(what, {ENODEV, "the interface " + where.port.interface + " is away"});
        return;
    }
    const bool is_device = where.port.vlan == vlan_mode::device;
    const kernel_link *left = is_device ? where.links.vlan_on(on->index, vlan_id) : on;
    const bool is_there = is_device ? left != nullptr : on->vlans.contains(vlan_id);
    const bool is_whole = is_there && (!is_device || (left->name == vlan_device_name(where.port, vlan_id) &&
                                                      left->alias == OWN_ALIAS && (left->up || !on->up)));
    if (before.by == holder::us && is_whole && left->index == before.index) {
        report_.no_trouble(what);
        return;
    }
    if (const auto refused = make(where, vlan_id, kept)) {
        kept.by = is_there && before.index == left->index ? before.by : holder::nobody;
        report_.trouble(what, *refused);
        return;
    }
    report_.no_trouble(what);
    if (kept.by == holder::us && before.by != holder::nobody) {
        report_.mended(what + ": " + what_happened(is_there ? left : nullptr, is_device, before.device) +
                       " by somebody else, and is mended");
    } else if (kept.by == holder::us && before.by == holder::nobody) {
        report_.mended(what + ": " + kept.device + " is put back");
    }
}

bool vlan_keeper::has_been_left(const std::string &what, millis now, millis kept)
{
    const auto [since, is_new] = left_since_.try_emplace(what, now);
    return now - since->second >= kept;
}

// Of an earlier run, or of a port that is no longer configured, in a namespace that another port still has.
void vlan_keeper::remove_left_devices(const std::string &name_space, kernel_place &place, const link_table &links,
                                      millis now)
{
    std::set<int> kept_devices;
    for (const auto &[key, kept] : wanted_) {
        if (port_of(key.first).name_space == name_space) {
            kept_devices.insert(kept.index);
        }
    }
    for (const auto &[index, link] : links.links) {
        const std::string what = "device " + place.mark + " " + std::to_string(index);
        const bool is_left = is_own_device(link) && !kept_devices.contains(index);
        if (!is_left || (has_been_left(what, now, LEFTOVERS_KEPT_MS) && remove_left_device(place, link))) {
            left_since_.erase(what);
        }
    }
}

bool vlan_keeper::remove_left_device(kernel_place &place, const kernel_link &link)
{
    const std::string what = link.name + ", which an earlier run has left";
    const auto refused = delete_link(place.ask, link.index);
    if (refused && refused->error != ENODEV) {
        report_.trouble(what, *refused);
        return false;
    }
    report_.no_trouble(what);
    report_.left_over(what + ", is taken away");
    return true;
}

void vlan_keeper::remove_left_vlans(const std::string &name_space, kernel_place &place, const link_table &links,
                                    millis now)
{
    std::set<std::string> kept_entries;
    for (const auto &[key, kept] : wanted_) {
        const port_config &port = port_of(key.first);
        if (kept.by == holder::us && port.name_space == name_space && port.vlan == vlan_mode::bridge) {
            kept_entries.insert(journal_entry(place, kept.index, key.second, name_space));
        }
    }
    const std::set<std::string> entries = journal_.entries();
    for (const std::string &entry : entries) {
        const auto words = read_entry(entry);
        if (words && words->name_space != name_space) {
            continue;
        }
        const kernel_link *port = words ? links.at(words->port) : nullptr;
        const auto vlan_id = static_cast<uint16_t>(words ? words->vlan_id : 0);
        if (kept_entries.contains(entry)) { // also what was mended after `links` was read
            left_since_.erase(entry);
        } else if (port == nullptr || words->mark != place.mark || !port->vlans.contains(vlan_id) ||
                   (has_been_left(entry, now, LEFT_VLANS_KEPT_MS) && remove_left_vlan(place, *port, vlan_id))) {
            journal_.forget(entry);
            left_since_.erase(entry);
        }
    }
}

bool vlan_keeper::remove_left_vlan(kernel_place &place, const kernel_link &port, uint16_t vlan_id)
{
    const std::string what = "VLAN " + std::to_string(vlan_id) + " at " + port.name + ", which an earlier run has left";
    if (const auto refused = stop_vlan(place.ask, port.index, vlan_id)) {
        report_.trouble(what, *refused);
        return false;
    }
    report_.no_trouble(what);
    report_.left_over(what + ", is taken away");
    return true;
}

// In namespaces that no port is in: an earlier run had another configuration. What is written down of a namespace that
// is found nowhere is gone with it.
void vlan_keeper::remove_others()
{
    std::set<std::string> looked_for;
    for (const std::string &entry : journal_.entries()) {
        const auto words = read_entry(entry);
        if (!words || !places_.names().contains(words->name_space)) {
            looked_for.insert(entry);
        }
    }
    std::set<std::string> gone = looked_for;
    const bool all = places_.visit_others([&](const std::string &, kernel_place &place) {
        link_table links;
        const bool unknown = look(place, links).has_value();
        for (const auto &[index, link] : links.links) {
            if (is_own_device(link)) {
                (void)remove_left_device(place, link);
            }
        }
        for (const std::string &entry : looked_for) {
            const auto words = read_entry(entry);
            if (!words || words->mark != place.mark) {
                continue;
            }
            const kernel_link *port = links.at(words->port);
            const auto vlan_id = static_cast<uint16_t>(words->vlan_id);
            const bool is_there = port != nullptr && port->vlans.contains(vlan_id);
            if (unknown || (is_there && !remove_left_vlan(place, *port, vlan_id))) {
                gone.erase(entry);
            }
        }
    });
    for (const std::string &entry : gone) {
        if (all) {
            journal_.forget(entry);
        }
    }
}

// ---- Showing -------------------------------------------------------------------------------------------------------

nlohmann::json vlan_keeper::show() const
{
    static constexpr const char *HOLDERS[] = {"nobody", "kap-node", "other"};
    nlohmann::json shown = report_.show();
    auto vlans = nlohmann::json::array();
    for (const auto &[key, kept] : wanted_) {
        vlans.push_back(
            {{"port", key.first},
             {"vlan_id", key.second},
             {"interface", kept.device},
             {"by", port_of(key.first).vlan == vlan_mode::none ? "none" : HOLDERS[static_cast<size_t>(kept.by)]}});
    }
    shown["vlans"] = std::move(vlans);
    return shown;
}

} // namespace kap_node
