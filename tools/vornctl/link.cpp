// vornctl link: one link as kap-linkd knows it; and links that are added, changed and deleted at run time.
#include <cstdio>

#include "asking.hpp"
#include "link_facts.hpp"
#include "output.hpp"
#include "times.hpp"
#include "words.hpp"

namespace vornctl
{

namespace
{

// The words of a call.
struct wish {
    std::string name;
    std::string port;
    unsigned vlan = 0;
    std::string far;
    unsigned near_mp = 0;
    std::vector<std::string> app_links;
    bool no_app_links = false;
    std::string rtt;
    bool no_rtt = false;
};
wish wanted;
CLI::Option *rtt_option[2] = {};

constexpr unsigned LAST_VLAN = 4094;
constexpr unsigned LAST_MP_ID = 63;

exits show(const call &c)
{
    const auto answer = ask_linkd(c, "link", {{"name", wanted.name}});
    const nlohmann::json link = answer.value("link", nlohmann::json::object());
    if (c.json) {
        print_json(json{{"link", json(link)}});
    } else {
        print_facts(facts_of(link, now_us()));
    }
    return text_in(link, "state") == "enabled" ? exits::well : exits::failed;
}

// What is said of the link in the request: what was not given is not in it.
nlohmann::json request_of(const wish &w, bool with_rtt)
{
    nlohmann::json request = {{"name", link_name_word(w.name)}};
    if (!w.port.empty()) {
        request["port"] = people_port(w.port);
    }
    if (w.vlan != 0) {
        request["vlan"] = w.vlan;
    }
    if (!w.far.empty()) {
        request["far"] = mac_word(w.far);
    }
    if (w.near_mp != 0) {
        request["near_mp"] = w.near_mp;
    }
    if (!w.app_links.empty() || w.no_app_links) {
        request["app_links"] = nlohmann::json::array();
        for (const std::string &word : w.app_links) {
            request["app_links"].push_back(app_link_word(word));
        }
    }
    if (with_rtt) {
        request["rtt"] = rtt_word(w.rtt);
    } else if (w.no_rtt) {
        request["rtt"] = false;
    }
    return request;
}

exits change(const call &c, const char *op, const char *done, nlohmann::json request)
{
    ask_linkd(c, op, std::move(request));
    if (c.json) {
        print_json(json{{"name", wanted.name}, {"done", done}});
    } else {
        (void)printf("%s: %s\n", wanted.name.c_str(), done);
    }
    return exits::well;
}

void add_name(CLI::App &to) { to.add_option("NAME", wanted.name, "the link's name")->required()->type_name(""); }

CLI::Option *add_wish(CLI::App &to, bool whole)
{
    to.add_option("--port", wanted.port, "the port: IDL_A1, TN_A, ...")->required(whole)->type_name("PORT");
    to.add_option("--vlan", wanted.vlan, "the VLAN, 1 to 4094")
        ->required(whole)
        ->type_name("VLAN")
        ->check(CLI::Range(1U, LAST_VLAN));
    to.add_option("--far", wanted.far, "the far end's address")->required(whole)->type_name("MAC");
    to.add_option("--near-mp", wanted.near_mp, "the processor of this node that the link is for (1)")
        ->type_name("N")
        ->check(CLI::Range(1U, LAST_MP_ID));
    to.add_option("--app", wanted.app_links, "two applications whose frames go over the link; may be given again")
        ->type_name("NEAR,FAR")
        ->allow_extra_args(false);
    CLI::Option *rtt = to.add_option("--rtt", wanted.rtt, "measure round trips: BATCH,SECONDS,BYTES, or 5,1,64")
                           ->type_name("[SETTINGS]")
                           ->expected(0, 1);
    if (!whole) {
        to.add_flag("--no-app", wanted.no_app_links, "no applications any more");
        to.add_flag("--no-rtt", wanted.no_rtt, "no round trips any more");
    }
    return rtt;
}

} // namespace

void add_link(CLI::App &app, call &c)
{
    CLI::App *link = app.add_subcommand("link", "one link: shown, added, changed, deleted");
    add_json(*link, c);
    link->add_option("NAME", wanted.name, "the link that is shown")->type_name("");
    link->require_subcommand(0, 1);

    CLI::App *add = link->add_subcommand("add", "adds a link, which then stays");
    add_name(*add);
    add_json(*add, c);
    rtt_option[0] = add_wish(*add, true);
    add->callback([&c] {
        auto request = request_of(wanted, rtt_option[0]->count() > 0);
        c.run = [&c, request] { return change(c, "add", "added", request); };
    });

    CLI::App *set = link->add_subcommand("set", "changes what is given of a link that was added");
    add_name(*set);
    add_json(*set, c);
    rtt_option[1] = add_wish(*set, false);
    set->callback([&c] {
        auto request = request_of(wanted, rtt_option[1]->count() > 0);
        if (request.size() == 1) {
            throw failure(exits::wrong_use, "what to change?");
        }
        c.run = [&c, request] { return change(c, "set", "changed", request); };
    });

    CLI::App *remove = link->add_subcommand("delete", "deletes a link that was added");
    add_name(*remove);
    add_json(*remove, c);
    remove->callback([&c] {
        const nlohmann::json request = {{"name", link_name_word(wanted.name)}};
        c.run = [&c, request] { return change(c, "delete", "deleted", request); };
    });

    link->callback([&c, link] {
        if (!link->get_subcommands().empty()) {
            return;
        }
        wanted.name = link_name_word(wanted.name);
        c.run = [&c] { return show(c); };
    });
}

} // namespace vornctl
