// What the journal, the metrics and the programs of notify.d are told: words and bytes, without anybody who reads them.
#include "journal.hpp"
#include "metrics.hpp"
#include "notify.hpp"
#include "settings.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>

namespace linkd
{
namespace
{

using testing::Contains;
using testing::HasSubstr;
using testing::Not;

std::string text_of_file(const std::string &path)
{
    std::ifstream file(std::string(KAP_SOURCE_DIR) + "/" + path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

link_change lost()
{
    return {7,
            1'700'000'000'000'000,
            {"to-north", "IDL_A1", 100, "02:00:00:00:00:02"},
            link_state::enabled,
            link_state::disabled,
            "no connectivity",
            7'500'000'000,
            {{"near_mac", "02:00:00:00:00:01"}}};
}

TEST(Journal, SaysWhatBecameOfALinkInOneSentence)
{
    link_change change = lost();
    EXPECT_EQ(sentence_of(change), "to-north (IDL_A1, VLAN 100): disabled (no connectivity) after 2 h 5 min enabled");
    change.reason = "two\nlines";
    change.lasted_us = 90'000'000 * 1000LL;
    EXPECT_EQ(sentence_of(change), "to-north (IDL_A1, VLAN 100): disabled (two lines) after 1 d 1 h enabled");
    change.reason.clear();
    change.lasted_us = 5000;
    EXPECT_EQ(sentence_of(change), "to-north (IDL_A1, VLAN 100): disabled after 5 ms enabled");
}

TEST(Journal, ALostLinkIsAWarningAndOneThatIsUpANotice)
{
    link_change change = lost();
    EXPECT_THAT(journal_entry_of(change), Contains("PRIORITY=4"));
    std::swap(change.from, change.to);
    EXPECT_THAT(journal_entry_of(change), Contains("PRIORITY=5"));
    change.to = link_state::rejected;
    EXPECT_THAT(journal_entry_of(change), Contains("PRIORITY=4"));
    change.from = link_state::enabled;
    change.to = link_state::waiting;
    EXPECT_THAT(journal_entry_of(change), Contains("PRIORITY=4"));
    change.to = link_state::gone;
    EXPECT_THAT(journal_entry_of(change), Contains("PRIORITY=6"));
}

TEST(Journal, AnEntryHasAFieldForEverythingThatIsLookedFor)
{
    EXPECT_EQ(
        journal_entry_of(lost()),
        (std::vector<std::string>{
            "MESSAGE=to-north (IDL_A1, VLAN 100): disabled (no connectivity) after 2 h 5 min enabled",
            std::string("MESSAGE_ID=") + message_id_of(journal_kind::lost), "PRIORITY=4", "SYSLOG_IDENTIFIER=kap-linkd",
            "LINK=to-north", "PORT=IDL_A1", "VLAN=100", "FAR=02:00:00:00:00:02", "FROM=enabled", "STATE=disabled",
            "REASON=no connectivity", "LASTED_USEC=7500000000", "CHANGE_ID=7"}));
}

TEST(Journal, TheCatalogExplainsEveryMessageAndUsesOnlyFieldsThatThereAre)
{
    const std::string catalog = text_of_file("packaging/catalog/kap-linkd.catalog");
    for (const auto kind : {journal_kind::up, journal_kind::lost, journal_kind::refused, journal_kind::other}) {
        EXPECT_THAT(catalog, HasSubstr(std::string("-- ") + message_id_of(kind) + "\n"));
    }
    std::vector<std::string> names;
    for (const std::string &field : journal_entry_of(lost())) {
        names.push_back(field.substr(0, field.find('=')));
    }
    size_t used = 0;
    for (size_t at = 0; (at = catalog.find('@', at)) != std::string::npos; used++) {
        const size_t end = catalog.find('@', at + 1);
        ASSERT_NE(end, std::string::npos);
        EXPECT_THAT(names, Contains(catalog.substr(at + 1, end - at - 1)));
        at = end + 1;
    }
    EXPECT_GT(used, 10U);
}

TEST(Notify, AProgramGetsTheChangeAsVariablesAndAsOneLineOfJson)
{
    link_change change = lost();
    change.reason = "; rm -rf / $(id)\nKAP_LINK=other";
    const auto variables = environment_of({change, "summary", 12, 3});
    EXPECT_THAT(variables, Contains("KAP_EVENT=summary"));
    EXPECT_THAT(variables, Contains("KAP_LINK=to-north"));
    EXPECT_THAT(variables, Contains("KAP_STATE=disabled"));
    EXPECT_THAT(variables, Contains("KAP_HELD=12"));
    EXPECT_THAT(variables, Contains("KAP_REASON=" + change.reason)) << "as it is: nobody reads it as a command";
    const std::string text = json_text_of({change, "summary", 12, 3});
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
    const auto parsed = nlohmann::json::parse(text);
    EXPECT_EQ(parsed["link"], "to-north");
    EXPECT_EQ(parsed["reason"], change.reason);
    EXPECT_EQ(parsed["event"], "summary");
    EXPECT_EQ(parsed["held"], 12);
    EXPECT_EQ(parsed["dropped"], 3);
    EXPECT_EQ(parsed["known"]["near_mac"], "02:00:00:00:00:01");
}

metrics_input two_links()
{
    metrics_input input;
    link_view up;
    up.link = {"to-north", "IDL_A1", 100, "02:00:00:00:00:02"};
    up.state = link_state::enabled;
    up.since_us = 1'000'000;
    up.last_rtt = rtt_sample{"to-north", 4'000'000, 1000, 2000, 3000, 5};
    up.last_answer_age_us = 2'000'000;
    link_view down;
    down.link = {"to \"south\"", "IDL_A2", 200, "02:00:00:00:00:03"};
    down.state = link_state::disabled;
    down.reason = "no connectivity";
    input.links = {up, down};
    input.lifetimes["to-north"].flaps = 3;
    input.lifetimes["to-north"].results = 100;
    input.lifetimes["to-north"].lost = 1;
    input.node.enabled = 1;
    input.node.disabled = 1;
    input.node.daemon = true;
    input.node.requests_sent = 4;
    input.node.requests_due = 5;
    input.waiting = {6, 7, 8, 9};
    input.services = {{"vorn", true, 2}, {"aasi", false, 0}};
    input.now_us = 6'000'000;
    return input;
}

TEST(Metrics, TellStateReasonCountersAndRoundTripsOfEveryLink)
{
    metrics all;
    all.hand_over(two_links());
    for (const uint64_t ns : {5'000U, 20'000U, 2'000'000'000U}) {
        all.measured({"to-north", 0, ns, ns, ns, 1});
    }
    all.measured({"to-north", 0, 1, 1, 1, 0}); // nothing came back
    const std::string text = all.text();
    for (const char *line :
         {"kap_link_state{link=\"to-north\",port=\"IDL_A1\",state=\"enabled\"} 1\n",
          "kap_link_state{link=\"to-north\",port=\"IDL_A1\",state=\"disabled\"} 0\n",
          "kap_link_state{link=\"to \\\"south\\\"\",port=\"IDL_A2\",state=\"disabled\"} 1\n",
          "kap_link_reason{link=\"to \\\"south\\\"\",port=\"IDL_A2\",reason=\"no connectivity\"} 1\n",
          "kap_link_flaps_total{link=\"to-north\",port=\"IDL_A1\"} 3\n",
          "kap_link_pings_total{link=\"to-north\",port=\"IDL_A1\"} 100\n",
          "kap_link_pings_lost_total{link=\"to-north\",port=\"IDL_A1\"} 1\n",
          "kap_link_last_answer_age_seconds{link=\"to-north\",port=\"IDL_A1\"} 2\n",
          "kap_link_rtt_seconds_count{link=\"to-north\",port=\"IDL_A1\"} 3\n",
          "kap_link_rtt_seconds_bucket{link=\"to-north\",port=\"IDL_A1\",le=\"2.5e-05\"} 2\n",
          "kap_link_rtt_seconds_bucket{link=\"to-north\",port=\"IDL_A1\",le=\"0.25\"} 2\n",
          "kap_link_rtt_seconds_bucket{link=\"to-north\",port=\"IDL_A1\",le=\"+Inf\"} 3\n",
          "kap_service_up{service=\"vorn\"} 1\n",
          "kap_service_up{service=\"aasi\"} 0\n",
          "kap_service_starts_total{service=\"vorn\"} 2\n",
          "kap_requests{state=\"sent\"} 4\n",
          "kap_requests{state=\"due\"} 5\n",
          "kap_itc_waiting_messages{direction=\"in\"} 6\n",
          "kap_itc_waiting_messages{direction=\"out\"} 7\n",
          "kap_itc_waiting_bytes{direction=\"in\"} 8\n",
          "kap_itc_waiting_bytes{direction=\"out\"} 9\n",
          "kap_links{state=\"enabled\"} 1\n",
          "kap_service_up{service=\"daemon\"} 1\n",
          "kap_service_up{service=\"session\"} 0\n",
          "kap_links_not_shown 0\n"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
    EXPECT_THAT(text, Not(HasSubstr("kap_link_reason{link=\"to-north\"")));
    EXPECT_THAT(text, Not(HasSubstr("kap_link_last_answer_age_seconds{link=\"to \\\"south")));
}

TEST(Metrics, AreBoundedInLinksAndForgetWhoIsGone)
{
    metrics all;
    all.measured({"to-north", 0, 1, 1, 1, 1});
    metrics_input input;
    for (size_t i = 0; i < metrics::LINKS_SHOWN + 10; i++) {
        link_view view;
        view.link = {"link" + std::to_string(i), "IDL_A1", 1, ""};
        input.links.push_back(view);
    }
    all.hand_over(std::move(input));
    const std::string text = all.text();
    EXPECT_THAT(text, HasSubstr("kap_links_not_shown 10\n"));
    EXPECT_THAT(text, HasSubstr("link=\"link" + std::to_string(metrics::LINKS_SHOWN - 1) + "\""));
    EXPECT_THAT(text, Not(HasSubstr("link=\"link" + std::to_string(metrics::LINKS_SHOWN) + "\"")));
    EXPECT_THAT(text, Not(HasSubstr("to-north")));
}

TEST(Metrics, TheManualHasEveryFigureAndNoOther)
{
    metrics all;
    all.hand_over(two_links());
    all.measured({"to-north", 0, 1, 1, 1, 1});
    const std::string told = all.text();
    std::set<std::string> names;
    const std::string head = "# TYPE ";
    for (size_t at = 0; (at = told.find(head, at)) != std::string::npos;) {
        at += head.size();
        names.insert(told.substr(at, told.find(' ', at) - at));
    }
    std::set<std::string> described;
    std::istringstream page(text_of_file("docs/man/kap-linkd-metrics.7"));
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("kap_")) {
            described.insert(line.substr(0, line.find('\t')));
        }
    }
    EXPECT_EQ(described, names);
}

TEST(Metrics, TheSampleOfAlertRulesUsesOnlyWhatIsTold)
{
    metrics all;
    all.hand_over(two_links());
    all.measured({"to-north", 0, 1, 1, 1, 1});
    const std::string told = all.text();
    const std::string rules = text_of_file("packaging/prometheus/kap-vorn.rules.yml");
    size_t used = 0;
    for (size_t at = 0; (at = rules.find("kap_", at)) != std::string::npos; used++) {
        const size_t end = rules.find_first_not_of("abcdefghijklmnopqrstuvwxyz_", at);
        EXPECT_THAT(told, HasSubstr("# TYPE " + rules.substr(at, end - at) + " "));
        at = end;
    }
    EXPECT_GT(used, 5U);
}

TEST(Settings, TheSampleHasEveryKeyWithWhatHoldsWithoutIt)
{
    const std::string path = std::string(KAP_SOURCE_DIR) + "/packaging/kap-vorn/linkd.toml";
    std::vector<std::string> mistakes;
    (void)read_settings(path, mistakes);
    EXPECT_TRUE(mistakes.empty());
    // Every key is there as a comment; without the sign it says what holds anyway.
    std::ifstream file(path);
    std::string text;
    for (std::string line; std::getline(file, line);) {
        const bool key = line.starts_with("#") && line.find(" = ") != std::string::npos && line[1] != ' ';
        text += (key ? line.substr(1) : line) + "\n";
    }
    const settings read = read_settings_text(text, path, mistakes);
    EXPECT_TRUE(mistakes.empty()) << mistakes.front();
    const settings plain;
    EXPECT_EQ(read.history_days, plain.history_days);
    EXPECT_EQ(read.history_max_mib, plain.history_max_mib);
    EXPECT_EQ(read.notify_directory, plain.notify_directory);
    EXPECT_EQ(read.notify_seconds, plain.notify_seconds);
    EXPECT_EQ(read.notify_flap_changes, plain.notify_flap_changes);
    EXPECT_EQ(read.notify_flap_seconds, plain.notify_flap_seconds);
    EXPECT_EQ(read.notify_hold_down_s, plain.notify_hold_down_s);
    EXPECT_EQ(read.http_address, plain.http_address);
    EXPECT_EQ(read.http_port, plain.http_port);
    EXPECT_EQ(read.http_group, plain.http_group);
    for (const char *key : {"days", "max_mib", "directory", "seconds", "flap_changes", "flap_seconds", "hold_down_s",
                            "address", "port", "group"}) {
        EXPECT_THAT(text, HasSubstr(std::string("\n") + key + " = "));
    }
}

} // namespace
} // namespace linkd
