// Reading the configuration (config.hpp).
#include "config.hpp"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>

// What the library asserts of a key does not hold of every text ("a%b = 1"), and it says what is wrong a few lines on.
// So it shall neither end the program there nor take it for granted.
#undef NDEBUG
#define TOML_ASSERT(condition) static_cast<void>(0)
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

#include "port_name_list.hpp"

namespace kap_node
{

namespace
{

// What the fields of the messages hold beside their terminator.
constexpr size_t PORT_NAME_MOST = 15;
constexpr size_t FMI_NAME_MOST = 63;
constexpr size_t INTERFACE_MOST = 15;
constexpr size_t NAMESPACE_MOST = 255;
// What a client keeps of the namespace of a VLAN.
constexpr size_t VLAN_NAMESPACE_MOST = 15;
constexpr uint32_t MOST_CLIENTS = 4096;
constexpr uint32_t MOST_RECORDS = 16'000'000;

// What a port's name ends in where it stands for a part of the port's rules.
constexpr const char *FMI_CHAINS_OF_A_PORT[] = {".rules", ".static"};

struct mistake {
    toml::source_position at;
    std::string what;
};

// What is wrong with the file, in the order in which it was found.
struct file {
    std::vector<mistake> mistakes;

    void refuse(const toml::source_region &where, const std::string &what) { mistakes.push_back({where.begin, what}); }
};

// What a table may hold: for each key what to do with its value. Whatever else it holds is refused.
using keys = std::map<std::string_view, std::function<void(const toml::node &)>>;

void read_table(file &f, const toml::node &node, const char *written, const keys &known)
{
    const toml::table *table = node.as_table();
    if (table == nullptr) {
        f.refuse(node.source(), std::string("write ") + written);
        return;
    }
    for (const auto &[key, value] : *table) {
        const auto found = known.find(key.str());
        if (found == known.end()) {
            f.refuse(key.source(), "nothing is called \"" + std::string(key.str()) + "\" here");
        } else {
            found->second(value);
        }
    }
}

// ---- Values --------------------------------------------------------------------------------------------------------

using check = std::function<std::string(const std::string &)>; // what is wrong with a text, or nothing

// True when it is a text and nothing is wrong with it.
bool read_text(file &f, const toml::node &node, const check &wrong_with, std::string *to)
{
    const auto *text = node.as_string();
    if (text == nullptr) {
        f.refuse(node.source(), "must be a text");
        return false;
    }
    const std::string bad = wrong_with(text->get());
    if (!bad.empty()) {
        f.refuse(node.source(), bad);
        return false;
    }
    *to = text->get();
    return true;
}

template <class Value>
void read_word(file &f, const toml::node &node, const std::map<std::string, Value> &words, Value *to)
{
    const auto *text = node.as_string();
    const auto found = text == nullptr ? words.end() : words.find(text->get());
    if (found != words.end()) {
        *to = found->second;
        return;
    }
    std::string all;
    for (const auto &[word, value] : words) {
        all += (all.empty() ? "\"" : " or \"") + word + "\"";
    }
    f.refuse(node.source(), "must be " + all);
}

template <class Number> void read_number(file &f, const toml::node &node, uint32_t most, Number *to)
{
    const auto *number = node.as_integer();
    if (number == nullptr || number->get() < 0 || number->get() > most) {
        f.refuse(node.source(), "must be a number from 0 to " + std::to_string(most));
    } else {
        *to = static_cast<Number>(number->get());
    }
}

void read_flag(file &f, const toml::node &node, bool *to)
{
    const auto *flag = node.as_boolean();
    if (flag == nullptr) {
        f.refuse(node.source(), "must be true or false");
    } else {
        *to = flag->get();
    }
}

bool has_control_character(const std::string &text)
{
    return std::any_of(text.begin(), text.end(), [](unsigned char c) { return iscntrl(c) != 0; });
}

check name_of_at_most(size_t longest)
{
    return [longest](const std::string &text) {
        const bool fits = !text.empty() && text.size() <= longest && !has_control_character(text);
        return fits ? "" : "must be a name of 1 to " + std::to_string(longest) + " characters";
    };
}

// As the kernel has it.
std::string wrong_with_interface(const std::string &text)
{
    const auto is_bad = [](unsigned char c) { return c == '/' || c == ':' || isspace(c) != 0; };
    if (text == "." || text == ".." || std::any_of(text.begin(), text.end(), is_bad)) {
        return "\"" + text + "\" can be no interface's name";
    }
    return name_of_at_most(INTERFACE_MOST)(text);
}

// A namespace is named, not found by a path.
std::string wrong_with_namespace(const std::string &text)
{
    if (text.find('/') != std::string::npos || text == "." || text == "..") {
        return "must be the name of a namespace, not a path";
    }
    if (text.size() > NAMESPACE_MOST || has_control_character(text)) {
        return "must be a name of at most " + std::to_string(NAMESPACE_MOST) + " characters";
    }
    return "";
}

// Where the interfaces are that this is about.
std::string wrong_with_place(const std::string &text)
{
    if (text == HOST_NAMESPACE) {
        return "\"" + text + "\" stands for the machine's own namespace: leave the key out";
    }
    return wrong_with_namespace(text);
}

// ---- Ports ---------------------------------------------------------------------------------------------------------

// A port, and where the file says what another must not say too.
struct port_entry {
    port_config port;
    toml::source_region at;
    toml::source_region name_at;
    toml::source_region fmi_name_at;
    toml::source_region name_space_at;
};

bool is_tn(const port_config &port) { return port.people_name.starts_with("TN"); }

// What has been read is kept as it is for what is not wrong, so that one mistake is told once.
port_entry read_port(file &f, const port_names &names, const toml::key &key, const toml::node &node)
{
    port_entry entry{{}, key.source(), key.source(), key.source(), key.source()};
    port_config &port = entry.port;
    port.people_name = names.iemli;
    port.name = names.iepcsi;
    port.fmi_name = names.fmi;
    port.unlocked = true;
    port.vlan_interfaces = is_tn(port);
    bool has_interface = false;
    bool is_told_otherwise = false;
    const std::string written = "[ports." + port.people_name + "]";
    const auto text_to = [&f](std::string *to, toml::source_region *at, const check &wrong_with) {
        return [&f, to, at, wrong_with](const toml::node &value) {
            *at = value.source();
            (void)read_text(f, value, wrong_with, to);
        };
    };
    toml::source_region interface_at = key.source();
    read_table(f, node, written.c_str(),
               {{"name", text_to(&port.name, &entry.name_at, name_of_at_most(PORT_NAME_MOST))},
                {"fmi_name", text_to(&port.fmi_name, &entry.fmi_name_at, name_of_at_most(FMI_NAME_MOST))},
                {"interface",
                 [&](const toml::node &value) {
                     has_interface = true;
                     interface_at = value.source();
                     (void)read_text(f, value, wrong_with_interface, &port.interface);
                 }},
                {"namespace", text_to(&port.name_space, &entry.name_space_at, wrong_with_place)},
                {"reported_namespace",
                 [&](const toml::node &value) {
                     is_told_otherwise = true;
                     entry.name_space_at = value.source();
                     (void)read_text(f, value, wrong_with_namespace, &port.reported_name_space);
                 }},
                {"admin",
                 [&](const toml::node &value) {
                     read_word<bool>(f, value, {{"locked", false}, {"unlocked", true}}, &port.unlocked);
                 }},
                {"vlan",
                 [&](const toml::node &value) {
                     read_word<vlan_mode>(
                         f, value,
                         {{"device", vlan_mode::device}, {"bridge", vlan_mode::bridge}, {"none", vlan_mode::none}},
                         &port.vlan);
                 }},
                {"capability", [&](const toml::node &value) { read_number(f, value, UINT32_MAX, &port.capability); }},
                {"vlan_interfaces", [&](const toml::node &value) { read_flag(f, value, &port.vlan_interfaces); }}});
    if (!has_interface && node.is_table()) {
        f.refuse(key.source(), port.people_name + " lacks \"interface\"");
    }
    port.interface_at = {interface_at.begin.line, interface_at.begin.column};
    port.reported_name_space = is_told_otherwise ? port.reported_name_space : port.name_space;
    return entry;
}

std::string the_line(const toml::source_region &where) { return "line " + std::to_string(where.begin.line); }

// What two ports cannot both have.
void refuse_what_is_taken(file &f, const port_entry &first, const port_entry &second)
{
    const auto taken = [&](const std::string &what) { return what + " is " + first.port.people_name + "'s already"; };
    if (first.port.name == second.port.name) {
        f.refuse(second.name_at, taken("the name \"" + second.port.name + "\"") + ", " + the_line(first.name_at));
    }
    if (first.port.fmi_name == second.port.fmi_name) {
        f.refuse(second.fmi_name_at,
                 taken("the name \"" + second.port.fmi_name + "\"") + ", " + the_line(first.fmi_name_at));
    }
    for (const auto &[port, other] : {std::pair(&first, &second), std::pair(&second, &first)}) {
        for (const char *part : FMI_CHAINS_OF_A_PORT) {
            if (port->port.fmi_name == other->port.fmi_name + part) {
                f.refuse(port->fmi_name_at, "\"" + port->port.fmi_name + "\" is what a part of the rules of \"" +
                                                other->port.fmi_name + "\" is called");
            }
        }
    }
    if (first.port.interface == second.port.interface && first.port.name_space == second.port.name_space &&
        !first.port.interface.empty()) {
        const file_place at = second.port.interface_at;
        f.refuse({{at.line, at.column}, {at.line, at.column}, nullptr},
                 taken("the interface \"" + second.port.interface + "\"") + ", line " +
                     std::to_string(first.port.interface_at.line));
    }
}

void check_ports(file &f, const std::vector<port_entry> &entries)
{
    for (size_t i = 0; i < entries.size(); ++i) {
        for (size_t j = 0; j < i; ++j) {
            refuse_what_is_taken(f, entries[j], entries[i]);
        }
        const port_config &port = entries[i].port;
        if (is_tn(port) && port.vlan_interfaces && port.reported_name_space.size() > VLAN_NAMESPACE_MOST) {
            f.refuse(entries[i].name_space_at, "the namespace of a TN port's VLANs is told to clients in at most " +
                                                   std::to_string(VLAN_NAMESPACE_MOST) + " characters");
        }
    }
}

std::vector<port_config> read_ports(file &f, const toml::node &node)
{
    std::vector<port_entry> entries;
    const toml::table *table = node.as_table();
    if (table == nullptr) {
        f.refuse(node.source(), "write [ports.IDL_A1], or another port's name");
        return {};
    }
    for (const auto &[key, value] : *table) {
        const std::string_view name = key.str();
        const auto *names = std::find_if(std::begin(PORT_NAMES), std::end(PORT_NAMES),
                                         [&](const port_names &each) { return name == each.iemli; });
        if (names == std::end(PORT_NAMES)) {
            f.refuse(key.source(), "there is no port \"" + std::string(name) + "\"; there are " + port_name_list());
        } else {
            entries.push_back(read_port(f, *names, key, value));
        }
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const port_entry &a, const port_entry &b) { return a.at.begin < b.at.begin; });
    check_ports(f, entries);
    std::vector<port_config> ports;
    ports.reserve(entries.size());
    for (port_entry &entry : entries) {
        ports.push_back(std::move(entry.port));
    }
    return ports;
}

// ---- The far end ---------------------------------------------------------------------------------------------------

void read_interfaces(file &f, const toml::node &node, far_end_config *to)
{
    const toml::array *list = node.as_array();
    if (list == nullptr || list->empty()) {
        f.refuse(node.source(), "must be a list of interfaces' names");
        return;
    }
    for (const toml::node &entry : *list) {
        std::string name;
        if (read_text(f, entry, wrong_with_interface, &name)) {
            to->interfaces.push_back(name);
            to->interfaces_at.push_back({entry.source().begin.line, entry.source().begin.column});
        }
    }
}

far_end_config read_far_end(file &f, const toml::node &node)
{
    far_end_config place;
    read_table(f, node, "[[far_end]]",
               {{"namespace",
                 [&](const toml::node &value) { (void)read_text(f, value, wrong_with_place, &place.name_space); }},
                {"interfaces", [&](const toml::node &value) { read_interfaces(f, value, &place); }}});
    if (node.is_table() && !node.as_table()->contains("interfaces")) {
        f.refuse(node.source(), "lacks \"interfaces\"");
    }
    return place;
}

std::vector<far_end_config> read_far_ends(file &f, const toml::node &node)
{
    std::vector<far_end_config> places;
    const toml::array *list = node.as_array();
    if (list == nullptr) {
        f.refuse(node.source(), "write [[far_end]]");
        return places;
    }
    for (const toml::node &entry : *list) {
        places.push_back(read_far_end(f, entry));
    }
    return places;
}

// ---- The file ------------------------------------------------------------------------------------------------------

node_config read_all(file &f, const toml::table &document)
{
    node_config config;
    read_table(
        f, document, "a table",
        {{"backend",
          [&](const toml::node &value) {
              read_word<backend_kind>(f, value, {{"kernel", backend_kind::kernel}, {"memory", backend_kind::memory}},
                                      &config.backend);
          }},
         {"max_clients", [&](const toml::node &value) { read_number(f, value, MOST_CLIENTS, &config.max_clients); }},
         {"ports", [&](const toml::node &value) { config.ports = read_ports(f, value); }},
         {"emi",
          [&](const toml::node &value) {
              read_table(f, value, "[emi]", {{"max_endpoints", [&](const toml::node &number) {
                                                  read_number(f, number, MOST_RECORDS, &config.max_endpoints);
                                              }}});
          }},
         {"fmi",
          [&](const toml::node &value) {
              read_table(f, value, "[fmi]", {{"max_rules", [&](const toml::node &number) {
                                                  read_number(f, number, MOST_RECORDS, &config.max_rules);
                                              }}});
          }},
         {"far_end", [&](const toml::node &value) { config.far_end = read_far_ends(f, value); }}});
    return config;
}

[[noreturn]] void tell(file &f, const std::string &name)
{
    std::stable_sort(f.mistakes.begin(), f.mistakes.end(),
                     [](const mistake &a, const mistake &b) { return a.at < b.at; });
    std::string lines;
    for (const mistake &m : f.mistakes) {
        lines.append(lines.empty() ? "" : "\n").append(name).append(":").append(std::to_string(m.at.line));
        lines.append(":").append(std::to_string(m.at.column)).append(": ").append(m.what);
    }
    throw config_error(lines);
}

} // namespace

node_config read_config(std::istream &text, const std::string &name)
{
    std::stringstream bytes;
    bytes << text.rdbuf();
    file f;
    node_config config;
    const std::string document = bytes.str();
    const toml::parse_result parsed = toml::parse(document);
    if (parsed) {
        config = read_all(f, parsed.table());
    } else {
        f.refuse(parsed.error().source(), std::string(parsed.error().description()));
    }
    if (!f.mistakes.empty()) {
        tell(f, name);
    }
    return config;
}

node_config read_config_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file || file.peek() == std::ifstream::traits_type::eof()) {
        throw config_error(path + ": cannot be read, or is empty");
    }
    return read_config(file, path);
}

} // namespace kap_node
