// How the rules of a port look in the kernel's packet filter (rule_layout.hpp).
#include "kernel/rule_layout.hpp"

#include "service.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

namespace kap_node
{

namespace
{

constexpr const char *FAMILY = "netdev";
// What our rules say of themselves.
constexpr const char *RULE_COMMENT = "rule ";
constexpr const char *STATIC_COMMENT = "static rule ";
constexpr const char *DEFAULT_COMMENT = "default action";
// The kinds of entries that have a name of their own and no rules.
constexpr std::array<const char *, 3> OBJECT_KINDS = {"set", "limit", "counter"};

std::string rules_chain(const std::string &chain) { return chain + ".rules"; }
std::string static_chain(const std::string &chain) { return chain + ".static"; }

std::string numbered(const char *what, uint32_t number) { return std::string(what) + "_" + std::to_string(number); }

json in_table(json fields)
{
    fields["family"] = FAMILY;
    fields["table"] = RULE_TABLE;
    return fields;
}

json add(const char *kind, json fields) { return {{"add", {{kind, in_table(std::move(fields))}}}}; }

json add_counter(const port_layout &port, const std::string &name)
{
    const auto begin = port.counted.find(name);
    const frame_count from = begin == port.counted.end() ? frame_count{} : begin->second;
    return add("counter", {{"name", name}, {"packets", from.packets}, {"bytes", from.bytes}});
}

json add_rule(const std::string &chain, const std::string &comment, json expressions)
{
    return add("rule", {{"chain", chain}, {"comment", comment}, {"expr", std::move(expressions)}});
}

void append(json &commands, json more)
{
    for (json &command : more) {
        commands.push_back(std::move(command));
    }
}

json verdict_of(bool lets_in) { return lets_in ? json{{"accept", nullptr}} : json{{"drop", nullptr}}; }
json count_with(const std::string &name) { return {{"counter", name}}; }

std::string address_text(const mac &address)
{
    std::string text = mac_text(address);
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// What a policer lets through. The kernel's bucket holds what the rate gives in a second beside the burst.
struct byte_limit {
    uint32_t rate; // bytes per second; 0: nothing passes
    uint32_t burst;
};

byte_limit limit_of(const policer &entry)
{
    constexpr uint32_t BITS_PER_BYTE = 8;
    if (entry.committed_only != 0) {
        return {entry.committed_rate / BITS_PER_BYTE, entry.committed_burst};
    }
    return {entry.peak_rate / BITS_PER_BYTE, entry.peak_burst};
}

json add_policer(const port_layout &port, uint32_t id)
{
    const byte_limit limit = limit_of(port.rules.policers.at(id));
    if (limit.rate == 0) {
        return json::array();
    }
    return json::array({add("limit", {{"name", numbered("policer", port.numbers.at(id))},
                                      {"rate", limit.rate},
                                      {"per", "second"},
                                      {"rate_unit", "bytes"},
                                      {"burst", limit.burst},
                                      {"burst_unit", "bytes"}})});
}

bool lets_nothing_in(const dynamic_rule &rule) { return rule.addresses.empty() || rule.ether_types.empty(); }

// The set and the counters of a dynamic rule.
json add_rule_objects(const port_layout &port, uint32_t id)
{
    const dynamic_rule &rule = port.rules.dynamic_rules.at(id);
    if (lets_nothing_in(rule)) {
        return json::array();
    }
    std::set<std::string> addresses;
    for (const mac &address : rule.addresses) {
        addresses.insert(address_text(address));
    }
    const uint32_t number = port.numbers.at(id);
    json commands = json::array(
        {add("set", {{"name", numbered("macs", number)}, {"type", "ether_addr"}, {"elem", std::move(addresses)}}),
         add_counter(port, numbered("accepted", number))});
    if (rule.policer_id != FMI_NO_POLICER) {
        commands.push_back(add_counter(port, numbered("policed", number)));
    }
    return commands;
}

// The kernel's rules for one ethertype of a dynamic rule: what is let in, then what its policer has left over.
json add_rule_of_type(const port_layout &port, uint32_t id, uint16_t ether_type)
{
    const dynamic_rule &rule = port.rules.dynamic_rules.at(id);
    const uint32_t number = port.numbers.at(id);
    const std::string comment = RULE_COMMENT + std::to_string(id);
    // Not the ethertype of the Ethernet header, which is that of the tag where there is one.
    const json match =
        json::array({{{"match", {{"op", "=="}, {"left", {{"meta", {{"key", "protocol"}}}}}, {"right", ether_type}}}},
                     {{"match",
                       {{"op", "=="},
                        {"left", {{"payload", {{"protocol", "ether"}, {"field", "daddr"}}}}},
                        {"right", "@" + numbered("macs", number)}}}}});
    const bool policed = rule.policer_id != FMI_NO_POLICER;
    json let_in = match;
    json left_over = match;
    if (policed) {
        let_in.push_back({{"limit", numbered("policer", port.numbers.at(rule.policer_id))}});
    }
    append(let_in, {count_with(numbered("accepted", number)), verdict_of(true)});
    append(left_over, {count_with(numbered("policed", number)), verdict_of(false)});

    json commands = json::array();
    if (!policed || limit_of(port.rules.policers.at(rule.policer_id)).rate != 0) {
        commands.push_back(add_rule(rules_chain(port.chain), comment, std::move(let_in)));
    }
    if (policed) {
        commands.push_back(add_rule(rules_chain(port.chain), comment + ", over its policer", std::move(left_over)));
    }
    return commands;
}

json add_dynamic_rule(const port_layout &port, uint32_t id)
{
    const dynamic_rule &rule = port.rules.dynamic_rules.at(id);
    json commands = json::array();
    if (!lets_nothing_in(rule)) {
        for (const uint16_t ether_type : std::set<uint16_t>(rule.ether_types.begin(), rule.ether_types.end())) {
            append(commands, add_rule_of_type(port, id, ether_type));
        }
    }
    return commands;
}

json add_static_rule(const port_layout &port, uint32_t id)
{
    const uint32_t type = port.rules.static_rules.at(id);
    const std::string comment = STATIC_COMMENT + std::to_string(id) + " of type " + std::to_string(type);
    return add_rule(static_chain(port.chain), comment,
                    json::array({count_with(numbered("static", port.numbers.at(id))), verdict_of(type == FMI_LET_IN)}));
}

json add_base_chain(const port_layout &port)
{
    return add("chain", {{"name", port.chain},
                         {"type", "filter"},
                         {"hook", "ingress"},
                         {"dev", port.interface},
                         {"prio", 0},
                         {"policy", lets_in_by_default(port) ? "accept" : "drop"}});
}

bool default_is_inherited(const port_layout &port) { return !port.rules.default_action && !port.inherited.empty(); }

json add_base_rules(const port_layout &port)
{
    json commands = json::array();
    for (const std::string &to : {rules_chain(port.chain), static_chain(port.chain)}) {
        commands.push_back(add("rule", {{"chain", port.chain}, {"expr", {{{"jump", {{"target", to}}}}}}}));
    }
    if (default_is_inherited(port)) {
        commands.push_back(port.inherited.default_action);
        return commands;
    }
    const bool lets_in = lets_in_by_default(port);
    commands.push_back(
        add_rule(port.chain, DEFAULT_COMMENT,
                 json::array({count_with(numbered(lets_in ? "default_accepted" : "default_dropped", port.number)),
                              verdict_of(lets_in)})));
    return commands;
}

json add_all_dynamic_rules(const port_layout &port)
{
    json commands = port.inherited.rules;
    for (const auto &[id, rule] : port.rules.dynamic_rules) {
        append(commands, add_dynamic_rule(port, id));
    }
    return commands;
}

json add_all_static_rules(const port_layout &port)
{
    json commands = port.inherited.statics;
    for (const auto &[id, type] : port.rules.static_rules) {
        commands.push_back(add_static_rule(port, id));
    }
    return commands;
}

json add_all_objects(const port_layout &port)
{
    json commands = port.inherited.objects;
    commands.push_back(add_counter(port, numbered("default_accepted", port.number)));
    commands.push_back(add_counter(port, numbered("default_dropped", port.number)));
    for (const auto &[id, entry] : port.rules.policers) {
        append(commands, add_policer(port, id));
    }
    for (const auto &[id, rule] : port.rules.dynamic_rules) {
        append(commands, add_rule_objects(port, id));
    }
    for (const auto &[id, type] : port.rules.static_rules) {
        commands.push_back(add_counter(port, numbered("static", port.numbers.at(id))));
    }
    return commands;
}

template <class Entry>
std::vector<uint32_t> missing_from(const std::map<uint32_t, Entry> &all, const std::map<uint32_t, Entry> &some)
{
    std::vector<uint32_t> ids;
    for (const auto &[id, entry] : all) {
        if (!some.contains(id)) {
            ids.push_back(id);
        }
    }
    return ids;
}

void change_policers(json &commands, const port_layout &port, const port_rules &before)
{
    for (const uint32_t id : missing_from(port.rules.policers, before.policers)) {
        append(commands, add_policer(port, id));
    }
}

// After the rules that went through them.
void remove_gone_policers(json &commands, const port_layout &port, const port_rules &before)
{
    for (const uint32_t id : missing_from(before.policers, port.rules.policers)) {
        if (limit_of(before.policers.at(id)).rate != 0) {
            commands.push_back(remove_object("limit", numbered("policer", port.numbers.at(id))));
        }
    }
}

void change_dynamic_rules(json &commands, const port_layout &port, const port_rules &before)
{
    auto gone = missing_from(before.dynamic_rules, port.rules.dynamic_rules);
    std::erase_if(gone, [&](uint32_t id) { return lets_nothing_in(before.dynamic_rules.at(id)); });
    const auto fresh = missing_from(port.rules.dynamic_rules, before.dynamic_rules);
    for (const uint32_t id : fresh) {
        append(commands, add_rule_objects(port, id));
    }
    if (gone.empty()) {
        for (const uint32_t id : fresh) {
            append(commands, add_dynamic_rule(port, id));
        }
        return;
    }
    commands.push_back(flush_chain(rules_chain(port.chain)));
    append(commands, add_all_dynamic_rules(port));
    for (const uint32_t id : gone) {
        const dynamic_rule &rule = before.dynamic_rules.at(id);
        const uint32_t number = port.numbers.at(id);
        commands.push_back(remove_object("set", numbered("macs", number)));
        commands.push_back(remove_object("counter", numbered("accepted", number)));
        if (rule.policer_id != FMI_NO_POLICER) {
            commands.push_back(remove_object("counter", numbered("policed", number)));
        }
    }
}

void change_static_rules(json &commands, const port_layout &port, const port_rules &before)
{
    const auto gone = missing_from(before.static_rules, port.rules.static_rules);
    const auto fresh = missing_from(port.rules.static_rules, before.static_rules);
    for (const uint32_t id : fresh) {
        commands.push_back(add_counter(port, numbered("static", port.numbers.at(id))));
        if (gone.empty()) {
            commands.push_back(add_static_rule(port, id));
        }
    }
    if (gone.empty()) {
        return;
    }
    commands.push_back(flush_chain(static_chain(port.chain)));
    append(commands, add_all_static_rules(port));
    for (const uint32_t id : gone) {
        commands.push_back(remove_object("counter", numbered("static", port.numbers.at(id))));
    }
}

} // namespace

bool lets_in_by_default(const port_layout &port)
{
    if (default_is_inherited(port)) {
        return port.inherited.policy == "accept";
    }
    return port.rules.default_action.value_or(port.stays_closed ? FMI_DROP : FMI_LET_IN) == FMI_LET_IN;
}

// The oldest static rule decides before the default action.
bool closes(const inherited_rules &left)
{
    if (left.statics.empty()) {
        return left.policy == "drop";
    }
    const json expressions = left.statics[0].value(json::json_pointer("/add/rule/expr"), json::array());
    return std::any_of(expressions.begin(), expressions.end(),
                       [](const json &expression) { return expression.contains("drop"); });
}

// ---- Commands ------------------------------------------------------------------------------------------------------

json whole_table() { return {{"table", {{"family", FAMILY}, {"name", RULE_TABLE}}}}; }

json remove_object(const std::string &kind, const std::string &name)
{
    return {{"delete", {{kind, in_table({{"name", name}})}}}};
}

json flush_chain(const std::string &name) { return {{"flush", {{"chain", in_table({{"name", name}})}}}}; }

json make_port(const port_layout &port)
{
    json commands = json::array({add("chain", {{"name", rules_chain(port.chain)}}),
                                 add("chain", {{"name", static_chain(port.chain)}}), add_base_chain(port)});
    append(commands, add_all_objects(port));
    append(commands, add_all_dynamic_rules(port));
    append(commands, add_all_static_rules(port));
    append(commands, add_base_rules(port));
    return commands;
}

json rehearsal()
{
    port_layout port;
    port.chain = "first";
    port.interface = "lo";
    port.number = 1;
    port.rules.default_action = FMI_LET_IN;
    port.rules.policers[1] = {
        .committed_rate = 8000, .committed_burst = 1000, .peak_rate = 0, .peak_burst = 0, .committed_only = 1};
    port.rules.dynamic_rules[2] = {.policer_id = 1, .addresses = {{2, 0, 0, 0, 0, 1}}, .ether_types = {1}};
    port.rules.static_rules[3] = FMI_LET_IN;
    port.numbers = {{1, 1}, {2, 2}, {3, 3}};
    json commands = json::array({{{"create", whole_table()}}});
    append(commands, make_port(port));
    commands.push_back({{"delete", whole_table()}});
    // In a table that is nobody's.
    std::string text = commands.dump();
    const std::string ours = json(RULE_TABLE).dump();
    const std::string other = json(RULE_TABLE + std::string("_first")).dump();
    for (size_t at = text.find(ours); at != std::string::npos; at = text.find(ours, at + other.size())) {
        text.replace(at, ours.size(), other);
    }
    return json::parse(text);
}

json change_port(const port_layout &port, const port_rules &before)
{
    json commands = json::array();
    change_policers(commands, port, before);
    change_dynamic_rules(commands, port, before);
    change_static_rules(commands, port, before);
    remove_gone_policers(commands, port, before);
    if (before.default_action != port.rules.default_action) {
        commands.push_back(add_base_chain(port));
        commands.push_back(flush_chain(port.chain));
        append(commands, add_base_rules(port));
    }
    return commands;
}

// ---- Listings ------------------------------------------------------------------------------------------------------

namespace
{

// The library's names of ethertypes.
const std::map<std::string, uint16_t> ETHER_TYPE_NAMES = {{"ip", 0x0800},    {"arp", 0x0806},  {"ip6", 0x86DD},
                                                          {"8021q", 0x8100}, {"vlan", 0x8100}, {"8021ad", 0x88A8}};

json comparable_expressions(json expressions)
{
    for (json &expression : expressions) {
        if (expression.is_object() && expression.contains("match") && expression["match"]["right"].is_string()) {
            json &right = expression["match"]["right"];
            const auto named = ETHER_TYPE_NAMES.find(right.get<std::string>());
            if (named != ETHER_TYPE_NAMES.end()) {
                right = named->second;
            }
        }
    }
    return expressions;
}

json comparable_rule(const json &rule)
{
    return {{"comment", rule.value("comment", "")},
            {"expr", comparable_expressions(rule.value("expr", json::array()))}};
}

json comparable_chain(const json &chain)
{
    if (!chain.contains("hook")) {
        return {{"prio", chain.value("prio", json())}};
    }
    return {{"type", chain.value("type", "")},
            {"hook", chain.value("hook", "")},
            {"prio", chain.value("prio", 0)},
            {"policy", chain.value("policy", "")}};
}

json comparable_set(const json &set)
{
    std::set<std::string> elements;
    for (const json &element : set.value("elem", json::array())) {
        elements.insert(element.is_string() ? element.get<std::string>() : element.dump());
    }
    return {{"type", set.value("type", json())}, {"elem", elements}};
}

uint64_t in_bytes(const json &limit, const char *value, const char *unit)
{
    const std::string named = limit.value(unit, "bytes");
    const uint64_t factor = named == "mbytes" ? 1048576 : named == "kbytes" ? 1024 : 1;
    return limit.value(value, uint64_t{0}) * factor;
}

json comparable_limit(const json &limit)
{
    return {{"rate", in_bytes(limit, "rate", "rate_unit")},
            {"burst", in_bytes(limit, "burst", "burst_unit")},
            {"per", limit.value("per", "")},
            {"inverted", limit.value("inv", false)}};
}

void draw(table_picture &picture, const std::string &kind, const json &fields)
{
    const std::string name = fields.value("name", "");
    if (kind == "table") {
        picture.exists = true;
    } else if (kind == "chain") {
        picture.chains[name] = comparable_chain(fields);
        picture.rules.try_emplace(name, json::array());
    } else if (kind == "rule") {
        picture.rules.try_emplace(fields.value("chain", ""), json::array())
            .first->second.push_back(comparable_rule(fields));
    } else if (kind == "set") {
        picture.sets[name] = comparable_set(fields);
    } else if (kind == "limit") {
        picture.limits[name] = comparable_limit(fields);
    } else if (kind == "counter") {
        picture.counters[name] = {fields.value("packets", uint64_t{0}), fields.value("bytes", uint64_t{0})};
    }
}

template <class Value>
bool holds_all(const std::map<std::string, Value> &found, const std::map<std::string, Value> &wanted)
{
    return std::all_of(wanted.begin(), wanted.end(), [&](const auto &entry) {
        const auto same = found.find(entry.first);
        return same != found.end() && same->second == entry.second;
    });
}

bool has_counters(const table_picture &picture, const table_picture &wanted)
{
    return std::all_of(wanted.counters.begin(), wanted.counters.end(),
                       [&](const auto &entry) { return picture.counters.contains(entry.first); });
}

// The names that a rule uses.
std::set<std::string> used_by(const json &rule)
{
    std::set<std::string> names;
    for (const json &expression : rule.value("expr", json::array())) {
        if (!expression.is_object()) {
            continue;
        }
        for (const char *kind : {"limit", "counter"}) {
            if (expression.contains(kind) && expression[kind].is_string()) {
                names.insert(expression[kind].get<std::string>());
            }
        }
        const json right = expression.value(json::json_pointer("/match/right"), json());
        if (right.is_string() && right.get<std::string>().starts_with("@")) {
            names.insert(right.get<std::string>().substr(1));
        }
    }
    return names;
}

// An entry of a listing as a command that adds it.
json as_command(const std::string &kind, json fields)
{
    fields.erase("handle");
    return {{"add", {{kind, std::move(fields)}}}};
}

} // namespace

table_picture picture_of(const json &entries)
{
    table_picture picture;
    picture.listed = entries;
    for (const json &entry : entries) {
        const json &added = entry.contains("add") ? entry["add"] : entry;
        for (const auto &[kind, fields] : added.items()) {
            draw(picture, kind, fields);
        }
    }
    return picture;
}

bool shows_port(const table_picture &picture, const port_layout &port)
{
    const table_picture wanted = picture_of(make_port(port));
    const auto device = picture.devices.find(port.chain);
    return holds_all(picture.chains, wanted.chains) && holds_all(picture.rules, wanted.rules) &&
           holds_all(picture.sets, wanted.sets) && holds_all(picture.limits, wanted.limits) &&
           has_counters(picture, wanted) && device != picture.devices.end() && device->second == port.interface;
}

std::vector<std::string> counters_of_rule(uint32_t number)
{
    return {numbered("accepted", number), numbered("policed", number), numbered("static", number)};
}

std::vector<std::string> counters_of_port(uint32_t number)
{
    return {numbered("default_accepted", number), numbered("default_dropped", number)};
}

std::set<std::string> names_of(const port_layout &port)
{
    const table_picture wanted = picture_of(make_port(port));
    std::set<std::string> names;
    const auto collect = [&](const auto &entries) {
        for (const auto &[name, value] : entries) {
            names.insert(name);
        }
    };
    collect(wanted.chains);
    collect(wanted.sets);
    collect(wanted.limits);
    collect(wanted.counters);
    return names;
}

std::vector<std::string> chains_of(const std::string &chain)
{
    return {chain, rules_chain(chain), static_chain(chain)};
}

inherited_rules inherited_from(const table_picture &picture, const std::string &chain)
{
    inherited_rules left;
    std::set<std::string> used;
    const auto base = picture.chains.find(chain);
    if (base == picture.chains.end()) {
        return left;
    }
    left.policy = base->second.value("policy", "drop");
    for (const json &entry : picture.listed) {
        const json rule = entry.value("rule", json::object());
        const std::string in = rule.value("chain", "");
        const std::string comment = rule.value("comment", "");
        if (in == rules_chain(chain) && comment.starts_with(RULE_COMMENT)) {
            left.rules.push_back(as_command("rule", rule));
        } else if (in == static_chain(chain) && comment.starts_with(STATIC_COMMENT)) {
            left.statics.push_back(as_command("rule", rule));
        } else if (in == chain && comment == DEFAULT_COMMENT) {
            left.default_action = as_command("rule", rule);
        } else {
            continue;
        }
        used.merge(used_by(rule));
    }
    if (left.default_action.is_null()) {
        left.default_action = add_rule(chain, DEFAULT_COMMENT, json::array({verdict_of(left.policy == "accept")}));
    }
    for (const json &entry : picture.listed) {
        for (const char *kind : OBJECT_KINDS) {
            if (entry.contains(kind) && used.contains(entry[kind].value("name", ""))) {
                left.objects.push_back(as_command(kind, entry[kind]));
            }
        }
    }
    return left;
}

uint32_t highest_number(const table_picture &picture)
{
    uint32_t highest = 0;
    const auto look = [&](const std::string &name) {
        const size_t mark = name.rfind('_');
        uint32_t number = 0;
        if (mark != std::string::npos &&
            std::from_chars(name.data() + mark + 1, name.data() + name.size(), number).ec == std::errc{}) {
            highest = std::max(highest, number);
        }
    };
    for (const json &entry : picture.listed) {
        for (const char *kind : OBJECT_KINDS) {
            if (entry.contains(kind)) {
                look(entry[kind].value("name", ""));
            }
        }
    }
    return highest;
}

// ---- Counters ------------------------------------------------------------------------------------------------------

namespace
{

json shown_count(const std::map<std::string, frame_count> &counters, const std::string &name)
{
    const auto found = counters.find(name);
    const frame_count count = found == counters.end() ? frame_count{} : found->second;
    return {{"packets", count.packets}, {"bytes", count.bytes}};
}

} // namespace

json shown_counts(const port_layout &port, const std::map<std::string, frame_count> &counters)
{
    const auto count = [&](const char *what, uint32_t number) { return shown_count(counters, numbered(what, number)); };
    auto dynamics = json::array();
    for (const auto &[id, rule] : port.rules.dynamic_rules) {
        const uint32_t number = port.numbers.at(id);
        dynamics.push_back({{"id", id}, {"accepted", count("accepted", number)}});
        if (rule.policer_id != FMI_NO_POLICER) {
            dynamics.back()["dropped_by_policer"] = count("policed", number);
        }
    }
    auto statics = json::array();
    for (const auto &[id, type] : port.rules.static_rules) {
        statics.push_back(
            {{"id", id}, {type == FMI_LET_IN ? "accepted" : "dropped", count("static", port.numbers.at(id))}});
    }
    return {
        {"inherited", !port.inherited.empty()},
        {"stays_closed", port.stays_closed},
        {"dynamic_rules", std::move(dynamics)},
        {"static_rules", std::move(statics)},
        {"default_action",
         {{"accepted", count("default_accepted", port.number)}, {"dropped", count("default_dropped", port.number)}}}};
}

} // namespace kap_node
