// How the rules of a port look in the kernel's packet filter, as commands of libnftables and back from its listings.
// No socket, no clock.
//
// All of it stands in the table "netdev kap_node". A port has the base chain of its name at the ingress hook of its
// interface, and two chains that this one jumps to, NAME.rules (dynamic rules) and NAME.static, so that one more rule
// is added at the end of a chain: the kernel takes milliseconds for whatever is taken away, and next to nothing for
// what is added. The last rule of the base chain is the default action; the chain's policy says the same. What rules
// share or count with has a name of its own with a number that is not used twice: sets macs_N, limits policer_N,
// counters accepted_N, policed_N, static_N, default_accepted_N, default_dropped_N.
#pragma once

#include "fmi_backend.hpp"

#include <nlohmann/json.hpp>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace kap_node
{

using json = nlohmann::json;

inline constexpr const char *RULE_TABLE = "kap_node";

struct frame_count {
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

// What an earlier run has left of a port, as commands: it stays in force beside what is asked for anew.
struct inherited_rules {
    json objects = json::array(); // sets, limits, counters
    json rules = json::array();
    json statics = json::array();
    json default_action = nullptr;
    std::string policy;
    bool empty() const { return policy.empty(); }
};

// Whether these let in only what a dynamic rule names.
bool closes(const inherited_rules &left);

struct port_layout {
    std::string chain;
    std::string interface;
    port_rules rules;
    uint32_t number = 0;                  // of the port's own counters
    std::map<uint32_t, uint32_t> numbers; // of each rule and policer, by its id
    inherited_rules inherited;
    bool stays_closed = false; // an earlier run has left it closed: so it is until a default action is set
    std::map<std::string, frame_count> counted; // what counters begin with, by name
};

// Whether what no rule speaks of is let in.
bool lets_in_by_default(const port_layout &port);

// ---- Commands ------------------------------------------------------------------------------------------------------

json whole_table();
// Everything of the port, where nothing of it is there yet.
json make_port(const port_layout &port);
// One of everything, on the namespace's own loopback interface, and all of it taken away again, as one transaction: the
// kernel has loaded what it needs when the first port is asked for, and nobody sees anything of it.
json rehearsal();
// What leads from the rules before to the rules that the port has now; everything has a number. Empty when the kernel
// has nothing to do: a batch that changes nothing would not make a new generation of its tables.
json change_port(const port_layout &port, const port_rules &before);
json remove_object(const std::string &kind, const std::string &name);
json flush_chain(const std::string &name);

// ---- Listings ------------------------------------------------------------------------------------------------------

// A table as it is, or as commands would make it: names and what is behind them, in a form that can be compared.
struct table_picture {
    bool exists = false;
    std::map<std::string, json> chains;
    std::map<std::string, json> rules; // by chain: an array
    std::map<std::string, json> sets;
    std::map<std::string, json> limits;
    std::map<std::string, frame_count> counters;
    std::map<std::string, std::string> devices; // of base chains; not in a listing
    json listed = json::array();                // as it came
};

// Reads entries of a listing, or commands that add.
table_picture picture_of(const json &entries);

// Whether everything of the port is there as it has to be.
bool shows_port(const table_picture &picture, const port_layout &port);
// The names of the counters of a rule, whatever its kind, and of a port itself.
std::vector<std::string> counters_of_rule(uint32_t number);
std::vector<std::string> counters_of_port(uint32_t number);
// The names of what belongs to the port: chains, sets, limits, counters.
std::set<std::string> names_of(const port_layout &port);
// The chains of a port of that name.
std::vector<std::string> chains_of(const std::string &chain);
// What the table has of a port of that chain; empty where there is none. Rules that are not ours are left out.
inherited_rules inherited_from(const table_picture &picture, const std::string &chain);
// The highest number that a name in the table ends in.
uint32_t highest_number(const table_picture &picture);

// What the counters say of the port's rules.
json shown_counts(const port_layout &port, const std::map<std::string, frame_count> &counters);

} // namespace kap_node
