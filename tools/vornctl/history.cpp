// vornctl history: one link's past, how much of it the link was there, and its counters.
#include <algorithm>
#include <cstdio>
#include <map>

#include "asking.hpp"
#include "link_facts.hpp"
#include "output.hpp"
#include "past.hpp"
#include "times.hpp"
#include "words.hpp"

namespace vornctl
{

namespace
{

std::string name;
std::string from_word = "1d";
std::string to_word = "now";
size_t limit = 200;

int64_t moment(const std::string &word)
{
    const auto at = read_moment(word, now_us());
    if (!at) {
        throw failure(exits::wrong_use, "\"" + word +
                                            "\" is no moment, as 15m, 2h, 3d, today, 14:30 or \"2026-11-22 "
                                            "14:30\" are");
    }
    return *at;
}

std::string share_text(const nlohmann::json &availability, const char *span)
{
    const auto found = availability.is_object() ? availability.find(span) : availability.end();
    if (!availability.is_object() || found == availability.end() || !found->is_number()) {
        return "-";
    }
    char text[32];
    (void)snprintf(text, sizeof text, "%.4f %%", found->get<double>() * 100);
    return text;
}

void print_people(const nlohmann::json &answer)
{
    std::vector<text_table::row> rows = {change_head()};
    for (const nlohmann::json &change : answer.value("events", nlohmann::json::array())) {
        rows.push_back(change_row(change));
    }
    print_table(rows);
    (void)printf("\n");
    const nlohmann::json availability = answer.value("availability", nlohmann::json::object());
    std::vector<std::pair<std::string, text_table::cell>> facts = {
        {"available in the last hour", share_text(availability, "hour")},
        {"in the last day", share_text(availability, "day")},
        {"in the last 30 days", share_text(availability, "month")},
        {"flaps", std::to_string(number_in(answer, "flaps"))},
    };
    const nlohmann::json counters = answer.value("counters", nlohmann::json::object());
    for (const auto &[what, value] : counters.items()) {
        facts.emplace_back(what, value.is_string() ? value.get<std::string>() : value.dump());
    }
    print_facts(facts);
}

// An answer has the newest changes by the clock. What is before them is asked for by the moment of the oldest, which is
// then told again.
nlohmann::json ask_history(const call &c, int64_t from_us, int64_t to_us)
{
    constexpr size_t PAGE = 10'000;
    const auto linkd = open_linkd(c);
    const auto ask = [&](int64_t up_to_us, size_t most) {
        return linkd->ask("history", {{"name", name}, {"from_us", from_us}, {"to_us", up_to_us}, {"limit", most}},
                          LINKD_BOUND);
    };
    auto answer = ask(to_us, std::min(limit, PAGE));
    std::map<int64_t, nlohmann::json> changes; // by id
    for (auto page = answer.value("events", nlohmann::json::array()); changes.size() < limit;) {
        const size_t before = changes.size();
        int64_t oldest = to_us;
        for (auto &change : page) {
            oldest = std::min(oldest, number_in(change, "at_us"));
            changes.emplace(number_in(change, "id"), std::move(change));
        }
        if (page.size() < PAGE || changes.size() == before || changes.size() >= limit) {
            break;
        }
        page = ask(oldest, PAGE).value("events", nlohmann::json::array());
    }
    auto events = nlohmann::json::array();
    for (auto &[id, change] : changes) {
        events.push_back(std::move(change));
    }
    if (events.size() > limit) {
        events.erase(events.begin(), events.end() - static_cast<std::ptrdiff_t>(limit));
    }
    answer["events"] = std::move(events);
    return answer;
}

exits print_history(const call &c, int64_t from_us, int64_t to_us)
{
    const auto answer = ask_history(c, from_us, to_us);
    if (!c.json) {
        print_people(answer);
        return exits::well;
    }
    json all = {{"name", name}, {"from_us", from_us}, {"to_us", to_us}};
    for (const char *member : {"events", "availability", "flaps", "counters"}) {
        if (answer.contains(member)) {
            all[member] = json(answer[member]);
        }
    }
    print_json(all);
    return exits::well;
}

} // namespace

void add_history(CLI::App &app, call &c)
{
    CLI::App *history = app.add_subcommand("history", "what became of one link, and how much of the time it was there");
    history->add_option("NAME", name, "the link's name")->required()->type_name("");
    add_json(*history, c);
    history->add_option("--from", from_word, "from this moment on (1d)")->type_name("WHEN");
    history->add_option("--to", to_word, "up to this moment (now)")->type_name("WHEN");
    history->add_option("--limit", limit, "at most so many changes (200)")
        ->type_name("N")
        ->check(CLI::Range(1, 100000));
    history->callback([&c] {
        (void)link_name_word(name);
        const int64_t from_us = moment(from_word);
        const int64_t to_us = moment(to_word);
        if (from_us > to_us) {
            throw failure(exits::wrong_use, "--from is later than --to");
        }
        c.run = [&c, from_us, to_us] { return print_history(c, from_us, to_us); };
    });
}

} // namespace vornctl
