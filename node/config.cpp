// Reading the configuration (config.hpp).
#include "config.hpp"

#include <algorithm>
#include <fstream>
#include <set>

namespace kap_node
{

using nlohmann::json;

namespace
{

// What the fields of the messages hold beside their terminator.
constexpr size_t PORT_NAME_MOST = 15;
constexpr size_t FMI_NAME_MOST = 63;
constexpr size_t INTERFACE_MOST = 15;
constexpr size_t NAMESPACE_MOST = 255;
constexpr uint32_t MOST_CLIENTS = 4096;
constexpr uint32_t MOST_RECORDS = 16'000'000;

[[noreturn]] void fail(const std::string &where, const std::string &what) { throw config_error(where + ": " + what); }

void expect_keys(const json &object, const std::string &where, const std::vector<std::string> &known)
{
    if (!object.is_object()) {
        fail(where, "is not an object");
    }
    for (const auto &[key, value] : object.items()) {
        if (std::find(known.begin(), known.end(), key) == known.end()) {
            fail(where, "unknown key \"" + key + "\"");
        }
    }
}

std::string text_of(const json &object, const std::string &where, const char *key, const std::string &fallback,
                    size_t longest)
{
    if (!object.contains(key)) {
        return fallback;
    }
    if (!object[key].is_string()) {
        fail(where + "." + key, "is not a string");
    }
    auto text = object[key].get<std::string>();
    if (text.size() > longest || text.find('\0') != std::string::npos) {
        fail(where + "." + key, "is longer than " + std::to_string(longest) + " characters or holds a zero byte");
    }
    return text;
}

uint32_t number_of(const json &object, const std::string &where, const char *key, uint32_t fallback, uint32_t most)
{
    if (!object.contains(key)) {
        return fallback;
    }
    const json &value = object[key];
    if (!value.is_number_unsigned() || value.get<uint64_t>() > most) {
        fail(where + "." + key, "is no number from 0 to " + std::to_string(most));
    }
    return value.get<uint32_t>();
}

bool flag_of(const json &object, const std::string &where, const char *key, bool fallback)
{
    if (!object.contains(key)) {
        return fallback;
    }
    if (!object[key].is_boolean()) {
        fail(where + "." + key, "is neither true nor false");
    }
    return object[key].get<bool>();
}

// A namespace is named, not found by a path.
std::string name_space_of(const json &object, const std::string &where)
{
    std::string name = text_of(object, where, "namespace", "", NAMESPACE_MOST);
    if (name.find('/') != std::string::npos || name == "." || name == "..") {
        fail(where + ".namespace", "is a path");
    }
    return name;
}

bool parse_adm_state(const json &object, const std::string &where)
{
    const std::string text = text_of(object, where, "adm_state", "locked", 16);
    if (text != "locked" && text != "unlocked") {
        fail(where + ".adm_state", "\"" + text + "\" is neither \"locked\" nor \"unlocked\"");
    }
    return text == "unlocked";
}

port_config parse_port(const json &object, const std::string &where)
{
    expect_keys(object, where,
                {"name", "fmi_name", "interface", "namespace", "reported_namespace", "adm_state", "capability",
                 "vlan_interfaces"});
    port_config port;
    port.name = text_of(object, where, "name", "", PORT_NAME_MOST);
    if (port.name.empty()) {
        fail(where, "a port needs a name");
    }
    port.fmi_name = text_of(object, where, "fmi_name", port.name, FMI_NAME_MOST);
    port.interface = text_of(object, where, "interface", "", INTERFACE_MOST);
    port.name_space = name_space_of(object, where);
    port.reported_name_space = text_of(object, where, "reported_namespace", port.name_space, NAMESPACE_MOST);
    port.unlocked = parse_adm_state(object, where);
    port.capability = number_of(object, where, "capability", 2, UINT32_MAX);
    port.vlan_interfaces = flag_of(object, where, "vlan_interfaces", false);
    return port;
}

std::vector<port_config> parse_ports(const json &list)
{
    if (!list.is_array()) {
        fail("ports", "is not a list");
    }
    std::vector<port_config> ports;
    std::set<std::string> names;
    for (size_t i = 0; i < list.size(); ++i) {
        const std::string where = "ports[" + std::to_string(i) + "]";
        ports.push_back(parse_port(list[i], where));
        if (!names.insert(ports.back().name).second) {
            fail(where, "a second port of the name " + ports.back().name);
        }
    }
    return ports;
}

far_end_config parse_far_end(const json &object, const std::string &where)
{
    expect_keys(object, where, {"namespace", "interfaces"});
    far_end_config place;
    place.name_space = name_space_of(object, where);
    const json list = object.value("interfaces", json());
    if (!list.is_array() || list.empty()) {
        fail(where + ".interfaces", "is not a list of names");
    }
    for (const json &name : list) {
        if (!name.is_string() || name.get<std::string>().empty() || name.get<std::string>().size() > INTERFACE_MOST) {
            fail(where + ".interfaces", name.dump() + " is no name of an interface");
        }
        place.interfaces.push_back(name.get<std::string>());
    }
    return place;
}

std::vector<far_end_config> parse_far_ends(const json &list)
{
    if (!list.is_array()) {
        fail("far_end", "is not a list");
    }
    std::vector<far_end_config> places;
    for (size_t i = 0; i < list.size(); ++i) {
        places.push_back(parse_far_end(list[i], "far_end[" + std::to_string(i) + "]"));
    }
    return places;
}

} // namespace

node_config parse_config(const json &document)
{
    expect_keys(document, "configuration", {"max_clients", "ports", "emi", "fmi", "far_end"});
    node_config config;
    config.max_clients = number_of(document, "configuration", "max_clients", 64, MOST_CLIENTS);
    if (document.contains("ports")) {
        config.ports = parse_ports(document["ports"]);
    }
    if (document.contains("emi")) {
        expect_keys(document["emi"], "emi", {"max_endpoints"});
        config.max_endpoints = number_of(document["emi"], "emi", "max_endpoints", 65536, MOST_RECORDS);
    }
    if (document.contains("fmi")) {
        expect_keys(document["fmi"], "fmi", {"max_rules"});
        config.max_rules = number_of(document["fmi"], "fmi", "max_rules", 65536, MOST_RECORDS);
    }
    if (document.contains("far_end")) {
        config.far_end = parse_far_ends(document["far_end"]);
    }
    return config;
}

node_config read_config(std::istream &text, const std::string &name)
{
    try {
        return parse_config(json::parse(text));
    } catch (const json::exception &problem) {
        throw config_error(name + ": " + problem.what());
    } catch (const config_error &problem) {
        throw config_error(name + ": " + problem.what());
    }
}

node_config read_config_file(const std::string &path)
{
    std::ifstream file(path);
    if (!file) {
        throw config_error(path + ": cannot be opened");
    }
    return read_config(file, path);
}

} // namespace kap_node
