// vornctl events: what became of the links, change by change.
#include "asking.hpp"
#include "link_facts.hpp"
#include "output.hpp"
#include "past.hpp"
#include "words.hpp"

namespace vornctl
{

namespace
{

constexpr size_t USUAL_LIMIT = 50;

selection chosen;
std::string from_word;
std::string link_name;
size_t limit = USUAL_LIMIT;

exits print_events(const call &c)
{
    const since from = from_word.empty() ? since() : read_since(from_word);
    const auto linkd = open_linkd(c);
    const auto changes = newest_changes(*linkd, from, link_name, limit, [](const nlohmann::json &change) {
        return chosen.takes(text_in(change, "port"), text_in(change, "to"), text_in(change, "reason"));
    });
    if (c.json) {
        json list = json::array();
        for (const nlohmann::json &change : changes) {
            list.push_back(json(change));
        }
        print_json(json{{"events", std::move(list)}});
        return exits::well;
    }
    std::vector<text_table::row> rows = {change_head()};
    for (const nlohmann::json &change : changes) {
        rows.push_back(change_row(change));
    }
    print_table(rows);
    return exits::well;
}

} // namespace

void add_events(CLI::App &app, call &c)
{
    CLI::App *events = app.add_subcommand("events", "what became of the links, change by change");
    add_json(*events, c);
    add_selection(*events, chosen);
    events
        ->add_option("--since", from_word, "only changes after this id, or from this moment on: 15m, today, 14:30, ...")
        ->type_name("ID|WHEN");
    events->add_option("--link", link_name, "only of this link")->type_name("NAME");
    events->add_option("--limit", limit, "at most so many, the newest (50)")
        ->type_name("N")
        ->check(CLI::Range(1, 1000000));
    events->callback([&c] {
        if (!from_word.empty()) {
            (void)read_since(from_word);
        }
        c.run = [&c] { return print_events(c); };
    });
}

} // namespace vornctl
