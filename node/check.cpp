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
    bool is_known = true; // whether something is there, or is not
    bool told = false;
};

place look_into(const std::string &name_space)
{
    place found;
    const std::string unseen = "namespace \"" + name_space + "\" cannot be looked into: ";
    try {
        netlink_socket requests(NETLINK_ROUTE, name_space);
        if (auto refused = read_interfaces(requests, found.interfaces)) {
            found.problem = unseen + refused->words;
            found.is_known = false;
        }
    } catch (const std::system_error &problem) {
        found.is_known = problem.code().value() == ENOENT;
        found.problem = found.is_known ? "there is no namespace \"" + name_space + "\"; \"kap-node prepare\" makes it"
                                       : unseen + problem.what();
    }
    return found;
}

class checking
{
public:
    explicit checking(std::string path) : path_(std::move(path)) {}

    void check(const port_config &port)
    {
        const wanted port_wants{port.interface_at, port.people_name, port.interface, port.name_space};
        if (port.vlan == vlan_mode::device && port.interface.size() + LONGEST_VLAN_ENDING > INTERFACE_MOST) {
            remark(port_wants, "a VLAN device's name is this one, a point and the VLAN's number, in at most " +
                                   std::to_string(INTERFACE_MOST) + " characters: there can be none for every VLAN");
        }
        const interface_facts *found = look_for(port_wants, true);
        if (found != nullptr && port.vlan == vlan_mode::bridge && !found->is_bridge_port) {
            remark(port_wants, "\"" + port.interface + "\" is no port of a bridge now, which vlan = \"bridge\" takes");
        }
    }

    void check(const far_end_config &far)
    {
        for (size_t i = 0; i < far.interfaces.size(); ++i) {
            (void)look_for({far.interfaces_at[i], "far_end", far.interfaces[i], far.name_space}, false);
        }
    }

private:
    // An interface, and who has it where.
    struct wanted {
        file_place at;
        std::string who;
        std::string interface;
        std::string name_space;
    };

    // Nothing is said of an interface in a namespace that cannot be looked into.
    const interface_facts *look_for(const wanted &what, bool is_moved)
    {
        place &there = place_of(what.name_space);
        const interface_facts *found = find(there, what.interface);
        if (found != nullptr) {
            return found;
        }
        if (!there.problem.empty() && (there.is_known || !there.told)) {
            there.told = true;
            remark(what, there.problem);
        }
        if (!there.is_known) {
            return nullptr;
        }
        if (what.name_space.empty()) {
            remark(what, "there is no interface \"" + what.interface + "\" now");
        } else if (is_moved && find(place_of(""), what.interface) != nullptr) {
            remark(what, "\"" + what.interface + "\" is not in \"" + what.name_space +
                             "\" yet; \"kap-node prepare\" moves it there");
        } else if (there.problem.empty()) {
            remark(what, "there is no interface \"" + what.interface + "\" in \"" + what.name_space + "\" now");
        }
        return nullptr;
    }

    static const interface_facts *find(const place &there, const std::string &interface)
    {
        const auto found = std::find_if(there.interfaces.begin(), there.interfaces.end(),
                                        [&](const auto &indexed) { return indexed.second.name == interface; });
        return found == there.interfaces.end() ? nullptr : &found->second;
    }

    place &place_of(const std::string &name_space)
    {
        const auto known = places_.find(name_space);
        return known != places_.end() ? known->second
                                      : places_.emplace(name_space, look_into(name_space)).first->second;
    }

    void remark(const wanted &about, const std::string &what)
    {
        (void)printf("%s:%u:%u: note: %s: %s\n", path_.c_str(), about.at.line, about.at.column, about.who.c_str(),
                     what.c_str());
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
    for (const far_end_config &far : config.far_end) {
        work.check(far);
    }
    if (config.ports.empty()) {
        (void)printf("%s: note: no port\n", path.c_str());
    }
    (void)printf("%s: ports: %zu, backend: %s\n", path.c_str(), config.ports.size(),
                 config.backend == backend_kind::kernel ? "kernel" : "memory");
    return 0;
}

} // namespace kap_node
