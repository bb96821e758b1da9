// vornctl ports: what ports the node has, and how many links are on each.
#include <algorithm>
#include <cstdio>

#include "asking.hpp"
#include "output.hpp"
#include "port_control.hpp"
#include "words.hpp"

namespace vornctl
{

namespace
{

using text_table::colour;

std::vector<std::string> chosen;

struct link_count {
    size_t all = 0;
    size_t enabled = 0;
};

text_table::cell word_of(const std::optional<bool> &value, const char *yes, const char *no)
{
    if (!value) {
        return {"unknown", colour::warning};
    }
    return {*value ? yes : no, *value ? colour::good : colour::bad};
}

json json_of(const std::optional<bool> &value) { return value ? json(*value) : json(nullptr); }

std::string count_text(const std::optional<link_count> &count)
{
    return count ? std::to_string(count->enabled) + "/" + std::to_string(count->all) : "-";
}

exits print_ports(const call &c)
{
    std::vector<port_facts> ports;
    std::optional<std::vector<link_list::link>> links;
    {
        const registry connected;
        std::string error;
        links = link_list::fetch(ITC_BOUND_MS, &error);
        ports = ask_for_ports(links);
    }
    std::erase_if(ports, [](const port_facts &port) {
        return !chosen.empty() &&
               std::none_of(chosen.begin(), chosen.end(), [&](const auto &word) { return same_port(word, port.name); });
    });
    json list = json::array();
    std::vector<text_table::row> rows = {{"PORT", "ADMIN", "OPERATIONAL", "MAC", "INTERFACE", "NAMESPACE", "LINKS"}};
    bool well = true;
    for (const port_facts &port : ports) {
        std::optional<link_count> count;
        if (links) {
            count = link_count();
            for (const link_list::link &l : *links) {
                count->all += same_port(l.port, port.name) ? 1 : 0;
                count->enabled += same_port(l.port, port.name) && l.enabled ? 1 : 0;
            }
        }
        well = well && (!port.carries_links || (port.unlocked == true && port.operational == true));
        rows.push_back({port.name, port.carries_links ? word_of(port.unlocked, "unlocked", "locked") : "for others",
                        port.carries_links ? word_of(port.operational, "up", "down") : "-", port.mac,
                        port.interface.empty() ? "-" : port.interface, port.name_space.empty() ? "-" : port.name_space,
                        count_text(count)});
        list.push_back({{"port", port.name},
                        {"carries_links", port.carries_links},
                        {"unlocked", json_of(port.unlocked)},
                        {"operational", json_of(port.operational)},
                        {"mac", port.mac},
                        {"interface", port.interface},
                        {"namespace", port.name_space},
                        {"links", count ? json(count->all) : json(nullptr)},
                        {"source", port.source},
                        {"links_enabled", count ? json(count->enabled) : json(nullptr)}});
    }
    if (c.json) {
        print_json(json{{"ports", list}});
    } else {
        print_table(rows);
    }
    return well ? exits::well : exits::failed;
}

} // namespace

void add_ports(CLI::App &app, call &c)
{
    CLI::App *ports = app.add_subcommand("ports", "the ports of the node: states, addresses, links");
    add_json(*ports, c);
    ports->add_option("--port", chosen, "only this port; may be given again")
        ->type_name("PORT")
        ->allow_extra_args(false);
    ports->callback([&c] { c.run = [&c] { return print_ports(c); }; });
}

} // namespace vornctl
