// vornctl links: the links that the daemon has, asked over ITC; kap-linkd, where it is there, adds their names and
// those that are not with the daemon.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <unordered_map>

#include "asking.hpp"
#include "output.hpp"
#include "words.hpp"

namespace vornctl
{

namespace
{

using text_table::colour;

selection chosen;

// Declared links that the daemon does not have.
using missing_links = std::vector<nlohmann::json>;

// Gives links their names; false: there are some that the daemon does not have.
bool take_names(std::vector<link_list::link> &links, const nlohmann::json &known)
{
    std::unordered_map<int64_t, std::string> names;
    bool all = true;
    for (const nlohmann::json &one : known) {
        const int64_t link_ref = number_in(one, "link_ref");
        all = all && link_ref > 0;
        names[link_ref] = text_in(one, "name");
    }
    for (link_list::link &l : links) {
        const auto found = names.find(l.link_ref);
        l.name = found == names.end() ? "" : found->second;
    }
    return all;
}

missing_links ask_for_missing(linkd_links &linkd)
{
    linkd.ask({"name", "link_ref", "port", "vlan", "far", "state", "reason"});
    missing_links missing;
    if (const auto known = linkd.take()) {
        std::copy_if(known->begin(), known->end(), std::back_inserter(missing),
                     [](const nlohmann::json &one) { return number_in(one, "link_ref") == 0; });
    }
    return missing;
}

void print_missing(const missing_links &missing)
{
    if (missing.empty()) {
        return;
    }
    std::vector<text_table::row> rows = {{"NAME", "PORT", "VLAN", "FAR-END CPM", "STATE", "REASON"}};
    for (const nlohmann::json &one : missing) {
        const std::string state = text_in(one, "state");
        rows.push_back({text_in(one, "name"),
                        text_in(one, "port"),
                        std::to_string(number_in(one, "vlan")),
                        text_in(one, "far"),
                        {state, colour_of_state(state)},
                        text_in(one, "reason")});
    }
    (void)printf("\nnot with the daemon:\n");
    print_table(rows);
}

void print_as_json(const std::vector<link_list::link> &links, const missing_links *missing)
{
    if (missing == nullptr) {
        (void)fputs(link_list::to_json(links).c_str(), stdout);
        return;
    }
    json absent = json::array();
    for (const nlohmann::json &one : *missing) {
        absent.push_back({{"name", text_in(one, "name")},
                          {"port", text_in(one, "port")},
                          {"vlan", number_in(one, "vlan")},
                          {"far", text_in(one, "far")},
                          {"state", text_in(one, "state")},
                          {"reason", text_in(one, "reason")}});
    }
    print_json_members({{"links", link_list::to_json_array(links)}, {"missing", inner_json(absent)}});
}

exits print_links(const call &c)
{
    linkd_links names(c, {"name", "link_ref"}); // they are put together while the daemon is asked
    std::vector<link_list::link> links;
    {
        const registry connected;
        links = ask_daemon_for_links();
    }
    const auto known = names.take();
    missing_links missing;
    if (known && !take_names(links, *known)) {
        missing = ask_for_missing(names);
    }
    std::erase_if(links, [](const link_list::link &l) {
        return !chosen.takes(l.port, l.enabled ? "enabled" : "disabled", l.reason);
    });
    std::erase_if(missing, [](const nlohmann::json &one) {
        return !chosen.takes(text_in(one, "port"), text_in(one, "state"), text_in(one, "reason"));
    });
    if (c.json) {
        print_as_json(links, known ? &missing : nullptr);
    } else {
        print_table(link_list::to_rows(links));
        print_missing(missing);
    }
    const bool well =
        missing.empty() && std::all_of(links.begin(), links.end(), [](const auto &l) { return l.enabled; });
    return well ? exits::well : exits::failed;
}

} // namespace

void add_links(CLI::App &app, call &c)
{
    CLI::App *links = app.add_subcommand("links", "the links that the daemon supervises");
    add_json(*links, c);
    add_selection(*links, chosen);
    links->callback([&c] { c.run = [&c] { return print_links(c); }; });
}

} // namespace vornctl
