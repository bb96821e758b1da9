// A configuration beside the machine (check.hpp).
#include "check.hpp"

#include "config.hpp"
#include "kernel/interface_watch.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <optional>
#include <system_error>

namespace kap_node
{

namespace
{

constexpr size_t INTERFACE_MOST = 15;
constexpr size_t LONGEST_VLAN_ENDING = 5; // ".4094"

// What is in a namespace, or why that cannot be said.
struct place {
    interface_table interfaces;
    std::string problem;
};

place look_into(const std::string &name_space)
{
    place found;
    try {
        netlink_socket requests(NETLINK_ROUTE, name_space);
        if (auto refused = read_interfaces(requests, found.interfaces)) {
            found.problem = refused->words;
        }
    } catch (const std::system_error &problem) {
        const bool missing = problem.code().value() == ENOENT;
        found.problem = missing ? "there is no namespace \"" + name_space + "\"; \"kap-node prepare\" makes it"
                                : "namespace \"" + name_space + "\" cannot be looked into: " + problem.what();
    }
    return found;
}

class checking
{
public:
    explicit checking(std::string path) : path_(std::move(path)) {}

    void check(const port_config &port)
    {
        if (port.vlan == vlan_mode::device && port.interface.size() + LONGEST_VLAN_ENDING > INTERFACE_MOST) {
            remark(port, "a VLAN device's name is this one, a point and the VLAN's number, in at most " +
                             std::to_string(INTERFACE_MOST) + " characters: there can be none for every VLAN");
        }
        const place &there = place_of(port.name_space);
        const interface_facts *found = find(there, port.interface);
        if (found != nullptr && port.vlan == vlan_mode::bridge && !found->is_bridge_port) {
            remark(port, "\"" + port.interface + "\" is no port of a bridge now, which vlan = \"bridge\" takes");
        }
        if (found != nullptr) {
            return;
        }
        if (!there.problem.empty()) {
            remark(port, there.problem);
        }
        if (port.name_space.empty()) {
            remark(port, "there is no interface \"" + port.interface + "\" now");
        } else if (find(place_of(""), port.interface) != nullptr) {
            remark(port, "\"" + port.interface + "\" is not in \"" + port.name_space +
                             "\" yet; \"kap-node prepare\" moves it there");
        } else if (there.problem.empty()) {
            remark(port, "there is no interface \"" + port.interface + "\" in \"" + port.name_space + "\" now");
        }
    }

private:
    static const interface_facts *find(const place &there, const std::string &interface)
    {
        const auto found = std::find_if(there.interfaces.begin(), there.interfaces.end(),
                                        [&](const auto &indexed) { return indexed.second.name == interface; });
        return found == there.interfaces.end() ? nullptr : &found->second;
    }

    const place &place_of(const std::string &name_space)
    {
        const auto known = places_.find(name_space);
        return known != places_.end() ? known->second
                                      : places_.emplace(name_space, look_into(name_space)).first->second;
    }

    void remark(const port_config &port, const std::string &what)
    {
        (void)printf("%s:%u:%u: note: %s: %s\n", path_.c_str(), port.interface_at.line, port.interface_at.column,
                     port.people_name.c_str(), what.c_str());
    }

    std::string path_;
    std::map<std::string, place> places_;
};

} // namespace

int check_file(const std::string &path)
{
    node_config config;
    try {
        config = read_config_file(path);
    } catch (const config_error &problem) {
        (void)fprintf(stderr, "%s\n", problem.what());
        return 1;
    }
    checking work(path);
    for (const port_config &port : config.ports) {
        work.check(port);
    }
    if (config.ports.empty()) {
        (void)printf("%s: note: no port\n", path.c_str());
    }
    (void)printf("%s: ports: %zu, backend: %s\n", path.c_str(), config.ports.size(),
                 config.backend == backend_kind::kernel ? "kernel" : "memory");
    return 0;
}

} // namespace kap_node
