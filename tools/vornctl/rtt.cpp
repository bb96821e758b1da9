// vornctl rtt: the round trips of a link over the last while; and whether they are measured.
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

constexpr int SPARKS = 60;

std::string name;
std::string on_or_off;
std::string settings;
std::string from_word = "1h";
int points = SPARKS;

double figure(const nlohmann::json &sample, const char *member)
{
    const auto found = sample.find(member);
    return found != sample.end() && found->is_number() ? found->get<double>() : -1;
}

std::string figure_text(double us)
{
    char text[32];
    (void)snprintf(text, sizeof text, "%.2f", us);
    return us < 0 ? "-" : text;
}

void print_people(const nlohmann::json &samples)
{
    std::vector<text_table::row> rows = {{"TIME", "MIN us", "AVG us", "MAX us", "VALID"}};
    std::vector<double> averages;
    for (const nlohmann::json &sample : samples) {
        const bool valid = number_in(sample, "valid") > 0;
        averages.push_back(valid ? figure(sample, "avg_us") : -1);
        rows.push_back({clock_text(number_in(sample, "at_us")), valid ? figure_text(figure(sample, "min_us")) : "-",
                        valid ? figure_text(figure(sample, "avg_us")) : "-",
                        valid ? figure_text(figure(sample, "max_us")) : "-",
                        std::to_string(number_in(sample, "valid"))});
    }
    print_table(rows);
    if (!averages.empty()) {
        (void)printf("\n%s\n", sparkline(averages).c_str());
    }
}

exits print_samples(const call &c, int64_t from_us)
{
    const auto answer =
        ask_linkd(c, "samples", {{"name", name}, {"from_us", from_us}, {"to_us", now_us()}, {"points", points}});
    const nlohmann::json samples = answer.value("samples", nlohmann::json::array());
    if (c.json) {
        print_json(json{{"name", name}, {"samples", json(samples)}});
    } else {
        print_people(samples);
    }
    return exits::well;
}

exits switch_rtt(const call &c)
{
    const bool on = on_or_off == "on";
    nlohmann::json how = on;
    if (on && !settings.empty()) {
        how = rtt_word(settings);
    }
    ask_linkd(c, "rtt", {{"name", name}, {"on", how}});
    if (c.json) {
        print_json(json{{"name", name}, {"done", on ? "on" : "off"}});
    } else {
        (void)printf("%s: RTT is %s\n", name.c_str(), on ? "on" : "off");
    }
    return exits::well;
}

} // namespace

void add_rtt(CLI::App &app, call &c)
{
    CLI::App *rtt = app.add_subcommand("rtt", "round trips of a link; on and off");
    rtt->add_option("NAME", name, "the link's name")->required()->type_name("");
    rtt->add_option("SWITCH", on_or_off, "on or off; without it, what was measured")
        ->type_name("")
        ->check(CLI::IsMember({"on", "off"}));
    add_json(*rtt, c);
    rtt->add_option("--settings", settings, "with on: BATCH,SECONDS,BYTES (5,1,64)")->type_name("SETTINGS");
    rtt->add_option("--from", from_word, "from this moment on (1h)")->type_name("WHEN");
    rtt->add_option("--points", points, "at most so many points (60)")->type_name("N")->check(CLI::Range(1, 10000));
    rtt->callback([&c] {
        (void)link_name_word(name);
        if (!settings.empty() && on_or_off != "on") {
            throw failure(exits::wrong_use, "--settings goes with \"on\"");
        }
        (void)rtt_word(settings);
        const auto from_us = read_moment(from_word, now_us());
        if (!from_us) {
            throw failure(exits::wrong_use, "\"" + from_word + "\" is no moment");
        }
        const int64_t from = *from_us;
        c.run = on_or_off.empty() ? std::function<exits()>([&c, from] { return print_samples(c, from); })
                                  : [&c] { return switch_rtt(c); };
    });
}

} // namespace vornctl
