#include "where.hpp"

#include <algorithm>
#include <optional>

#include <nlohmann/json.hpp>

#include "config.hpp"
#include "control.hpp"

namespace capture
{

namespace
{

// The one name of a port in its two spellings.
std::string plain(std::string name)
{
    std::erase(name, '_');
    return name;
}

std::runtime_error no_such_port(const std::string &port, const std::string &names)
{
    return std::runtime_error("there is no port \"" + port + "\"; there are" + (names.empty() ? " none" : names));
}

std::string text_of(const nlohmann::json &entry, const char *member)
{
    const auto found = entry.find(member);
    return found != entry.end() && found->is_string() ? found->get<std::string>() : "";
}

port_place from_answer(const nlohmann::json &state, const std::string &port)
{
    std::string names;
    if (state.is_object() && state.contains("ports") && state["ports"].is_array()) {
        for (const nlohmann::json &entry : state["ports"]) {
            const std::string name = entry.is_object() ? text_of(entry, "name") : "";
            if (plain(name) == plain(port)) {
                return {port, text_of(entry, "interface"), text_of(entry, "namespace")};
            }
            names += " " + name;
        }
    }
    throw no_such_port(port, names);
}

port_place from_file(const std::string &path, const std::string &port)
{
    std::string names;
    for (const kap_node::port_config &entry : kap_node::read_config_file(path).ports) {
        if (plain(entry.people_name) == plain(port) || entry.name == port) {
            return {port, entry.interface, entry.name_space};
        }
        names += " " + entry.people_name;
    }
    throw no_such_port(port, names);
}

} // namespace

port_place find_port(const std::string &port, const std::string &node_config)
{
    std::optional<nlohmann::json> state;
    std::string why;
    try {
        state = kap_node::control_command("iepcsi", {"show"});
    } catch (const std::runtime_error &problem) {
        why = problem.what();
    }
    if (state) {
        return from_answer(*state, port);
    }
    try {
        return from_file(node_config, port);
    } catch (const kap_node::config_error &problem) {
        throw std::runtime_error("port control does not say where " + port + " is (" + why + "), nor does " +
                                 problem.what() + "; say --interface, and --namespace if it is in one");
    }
}

} // namespace capture
