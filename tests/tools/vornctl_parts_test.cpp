// What vornctl does without asking anybody: words, times, advice, the live table, completion.
#include <gmock/gmock.h>

#include <cstdlib>

#include "complete.hpp"
#include "output.hpp"
#include "port_control.hpp"
#include "status.hpp"
#include "times.hpp"
#include "watch_view.hpp"

using namespace vornctl;
using plain = nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace
{

constexpr int64_t NOW = 1'795'000'000 * SECOND_US;
constexpr int64_t HOUR = 3600 * SECOND_US;

plain linkd_link(const std::string &name, const std::string &state, const std::string &reason = "")
{
    return {{"name", name},
            {"port", "IDL_A1"},
            {"vlan", 100},
            {"far", "02:00:00:00:00:02"},
            {"state", state},
            {"reason", reason},
            {"since_us", NOW - HOUR},
            {"flaps_today", 3},
            {"link_ref", 1},
            {"rtt_us", {{"avg", 51.25}}}};
}

size_t longest_line(const std::string &drawn)
{
    size_t longest = 0;
    size_t length = 0;
    bool in_code = false;
    for (const char c : drawn) {
        const bool begins = (static_cast<unsigned char>(c) & 0xC0U) != 0x80U;
        if (c == '\x1b') {
            in_code = true;
        } else if (in_code) {
            in_code = isalpha(static_cast<unsigned char>(c)) == 0;
        } else if (c == '\n') {
            length = 0;
        } else if (begins) {
            longest = std::max(longest, ++length);
        }
    }
    return longest;
}

} // namespace

// ---- Times ----------------------------------------------------------------------------------------------------------

TEST(Moment, IsReadAsPeopleWriteIt)
{
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(read_moment("now", NOW), NOW);
    EXPECT_EQ(read_moment("90s", NOW), NOW - 90 * SECOND_US);
    EXPECT_EQ(read_moment("2h", NOW), NOW - 2 * HOUR);
    EXPECT_EQ(read_moment("3d", NOW), NOW - 72 * HOUR);
    EXPECT_EQ(read_moment("@1795000000", NOW), NOW);
    for (const char *same : {"2026-11-18 08:06:40", "2026-11-18T08:06:40"}) {
        EXPECT_EQ(read_moment(same, 0), 1'794'989'200 * SECOND_US) << same;
    }
    EXPECT_EQ(read_moment("today", NOW), *read_moment("00:00", NOW));
    EXPECT_EQ(iso_text(*read_moment("2026-11-18", 0)), "2026-11-18T00:00:00.000000Z");
    EXPECT_EQ(clock_text(*read_moment("2026-11-18 14:30", 0)), "2026-11-18 14:30:00");
}

TEST(Moment, IsNothingThatCouldMeanSomethingElse)
{
    for (const char *wrong : {"", "h", "2", "2w", "-2h", "@", "@x", "2026-13-01", "25:00", "2026-11-18 x", "now "}) {
        EXPECT_FALSE(read_moment(wrong, NOW)) << wrong;
    }
}

TEST(Span, IsToldInTwoFigures)
{
    EXPECT_EQ(span_text(350'000), "350ms");
    EXPECT_EQ(span_text(12 * SECOND_US), "12s");
    EXPECT_EQ(span_text(185 * SECOND_US), "3m 05s");
    EXPECT_EQ(span_text(2 * HOUR + 600 * SECOND_US), "2h 10m");
    EXPECT_EQ(span_text(123 * HOUR), "5d 03h");
    EXPECT_EQ(span_text(-1), "0ms");
}

// ---- Words ----------------------------------------------------------------------------------------------------------

TEST(Port, HasItsNameHoweverItIsWritten)
{
    for (const char *same : {"IDL_A1", "IDLA1", "idl_a1", "IDL_a1"}) {
        EXPECT_EQ(people_port(same), "IDL_A1");
    }
    EXPECT_EQ(people_port("eth1"), "eth1");
    EXPECT_FALSE(same_port("IDL_A1", "IDL_A2"));
}

TEST(Selection, PassesWhatItNamesAndEverythingWhenItNamesNothing)
{
    EXPECT_TRUE(selection().takes("TN_A", "waiting", "no daemon"));
    const selection some = {{"IDLA1"}, {"down", "rejected", "no-connectivity"}};
    EXPECT_TRUE(some.takes("IDL_A1", "disabled", "down"));
    EXPECT_TRUE(some.takes("IDL_A1", "disabled", "no connectivity"));
    EXPECT_TRUE(some.takes("IDL_A1", "rejected", "unknown port"));
    EXPECT_FALSE(some.takes("IDL_A1", "disabled", "locked"));
    EXPECT_FALSE(some.takes("IDL_A1", "waiting", "down"));
    EXPECT_FALSE(some.takes("TN_A", "disabled", "down"));
}

TEST(Sparkline, GoesFromTheLeastToTheGreatestAndHasGaps)
{
    EXPECT_EQ(sparkline({}), "");
    EXPECT_EQ(sparkline({5, 5}), "▁▁");
    EXPECT_EQ(sparkline({0, 7, -1, 3.5}), "▁█ ▅");
}

// ---- Ports ----------------------------------------------------------------------------------------------------------

TEST(Ports, OfWhichPortControlSaysNothingAreUnknown)
{
    const auto ports = ports_shown(plain::parse(R"({"ports": [
        {"name": "IDLA1", "mac": "02:00:00:00:00:01", "interface": "eth1", "namespace": "n", "capability": 2,
         "adm_state": 1, "oper_state": 0}, {"name": "TNA", "capability": 1}]})"));
    ASSERT_EQ(ports.size(), 2u);
    EXPECT_EQ(ports[0].name, "IDL_A1");
    EXPECT_EQ(ports[0].unlocked, true);
    EXPECT_EQ(ports[0].operational, false);
    EXPECT_FALSE(ports[1].carries_links);
    EXPECT_EQ(ports[1].unlocked, std::nullopt);
}

TEST(Ports, HaveTheStatesThatFollowFromTheirLinks)
{
    link_list::link l = {};
    l.port = "IDL_A1";
    port_facts port;
    port.name = "IDL_A1";
    add_states_of_links(port, {});
    EXPECT_EQ(port.operational, std::nullopt);
    l.reason = "no connectivity";
    add_states_of_links(port, {l});
    EXPECT_EQ(port.operational, true);
    l.reason = "locked";
    add_states_of_links(port, {l});
    EXPECT_EQ(port.unlocked, false);
    EXPECT_EQ(port.operational, false);
}

// ---- Advice ---------------------------------------------------------------------------------------------------------

namespace
{

component missing(const std::string &name, const std::string &state = "inactive")
{
    component one;
    one.name = name;
    one.unit = name + ".service";
    one.package = name;
    one.there = presence::down;
    one.managed = unit_facts{true, state, state == "failed" ? "exit-code" : "success", NOW};
    return one;
}

std::vector<std::string> commands_of(const node_status &status)
{
    std::vector<std::string> all;
    for (const advice &one : advice_for(status)) {
        all.push_back(one.command);
    }
    return all;
}

} // namespace

TEST(Advice, IsNoneWhereAllIsWell)
{
    node_status status;
    component up = missing("kap-vorn");
    up.there = presence::up;
    status.components = {up};
    EXPECT_TRUE(advice_for(status).empty());
}

TEST(Advice, StartsWhatIsInstalledInstallsWhatIsNotAndReadsTheJournalOfWhatFailed)
{
    node_status status;
    status.systemd = true;
    status.components = {missing("kap-itcd"), missing("kap-vorn", "failed"), missing("kap-node-pmi")};
    status.components[2].managed->installed = false;
    EXPECT_THAT(commands_of(status),
                ElementsAre("systemctl start kap-itcd", "journalctl -u kap-vorn -n 20", "apt install kap-node-pmi"));
    EXPECT_THAT(advice_for(status)[1].why, HasSubstr("failed (exit-code)"));
}

TEST(Advice, DoesNotMissWhatNeedNotBeThere)
{
    node_status status;
    status.systemd = true;
    status.components = {missing("kap-linkd")};
    status.components[0].needed = false;
    EXPECT_THAT(commands_of(status), ElementsAre("systemctl start kap-linkd"));
    status.components[0].managed->installed = false;
    EXPECT_TRUE(advice_for(status).empty());
}

TEST(Advice, NamesACommandForEachReasonThatLinksAreDown)
{
    node_status status;
    status.down_links = {{"", "IDL_A1", "locked"},
                         {"", "IDL_A1", "locked"},
                         {"", "TN_A", "down"},
                         {"to-north", "TN_B", "no connectivity"},
                         {"to-south", "TN_B", "rejected"}};
    EXPECT_THAT(commands_of(status), ElementsAre("vornctl ports --port TN_A", "kap-node ctl iepcsi unlock IDL_A1",
                                                 "vornctl link to-north", "vornctl link to-south"));
    EXPECT_EQ(advice_for(status)[1].why, "2 links are disabled with reason locked");
}

TEST(Since, IsOnlyToldOfTheStateThatTheThingIsIn)
{
    component one = missing("kap-vorn", "active");
    EXPECT_EQ(one.since_us(), std::nullopt); // systemd has it active, and it is not there
    one.managed->state = "failed";
    EXPECT_EQ(one.since_us(), NOW);
    one.there = presence::up;
    EXPECT_EQ(one.since_us(), std::nullopt);
    one.process = running{1, NOW - 1};
    EXPECT_EQ(one.since_us(), NOW - 1);
    one.there = presence::unknown;
    EXPECT_EQ(one.since_us(), std::nullopt);
}

// ---- The live table -------------------------------------------------------------------------------------------------

namespace
{

struct LiveView : testing::Test {
    watch_view view;
    bool quit = false;

    LiveView()
    {
        view.set_connected(true, "");
        plain links = plain::array();
        for (int i = 0; i < 40; ++i) {
            links.push_back(linkd_link("link-" + std::to_string(100 + i), "enabled"));
        }
        links.push_back(linkd_link("to-south", "disabled", "no connectivity"));
        view.take_links(links);
    }
};

} // namespace

TEST_F(LiveView, FitsEveryScreen)
{
    view.painted = true;
    for (int i = 0; i < 50; ++i) {
        view.take_change({{"id", i}, {"at_us", NOW}, {"link", "x"}, {"from", "enabled"}, {"to", "disabled"}});
    }
    for (size_t columns = 1; columns < 200; ++columns) {
        for (const size_t rows : std::initializer_list<size_t>{1, 2, 3, 5, 12, 13, 24, 60}) {
            const std::string drawn = view.draw({columns, rows}, NOW);
            EXPECT_LE(longest_line(drawn), columns) << columns << " by " << rows;
            EXPECT_LE(std::count(drawn.begin(), drawn.end(), '\n'), std::max<long>(1, static_cast<long>(rows) - 1));
        }
    }
}

TEST_F(LiveView, ShowsWhatIsNotWellFirstAndGivesUpTheColumnsThatMatterLeast)
{
    EXPECT_THAT(view.draw({200, 10}, NOW), HasSubstr("to-south  IDL_A1  100   02:00:00:00:00:02  disabled"));
    EXPECT_THAT(view.draw({60, 10}, NOW), HasSubstr("\nto-south  disabled  1h 00m  no connectivity  3"));
    EXPECT_THAT(view.draw({20, 10}, NOW), HasSubstr("\nto-south  disabled"));
}

TEST_F(LiveView, KeepsTheRoundTripsOfALinkOverANewList)
{
    view.take_samples("to-south", plain::parse(R"([{"avg_us": 1, "valid": 1}, {"avg_us": 0, "valid": 0},
                                                  {"avg_us": 2, "valid": 3}])"));
    view.take_links(plain::array({linkd_link("to-south", "enabled")}));
    EXPECT_THAT(view.draw({120, 10}, NOW), HasSubstr("▁ █"));
}

TEST_F(LiveView, TakesAChangeAtOnceAndDropsWhatIsGone)
{
    view.take_change({{"id", 1}, {"at_us", NOW}, {"link", "link-100"}, {"from", "enabled"}, {"to", "gone"}});
    EXPECT_THAT(view.draw({80, 60}, NOW), HasSubstr("40 links, 1 disabled, 39 enabled"));
    view.take_change({{"id", 2},
                      {"at_us", NOW},
                      {"link", "link-101"},
                      {"from", "enabled"},
                      {"to", "disabled"},
                      {"reason", "locked"}});
    EXPECT_THAT(view.draw({80, 60}, NOW), HasSubstr("\nlink-101  "));
    EXPECT_THAT(view.draw({80, 60}, NOW), HasSubstr("locked"));
}

TEST_F(LiveView, SaysThatItHasLostTheLinkManager)
{
    view.set_connected(false, "it has closed the connection");
    EXPECT_THAT(view.draw({80, 24}, NOW), HasSubstr("kap-linkd: it has closed the connection; trying again"));
}

TEST_F(LiveView, TypedLettersAreTheFilterAndNoKeys)
{
    for (const char *key : {"/", "s", "o", "q", "\x7f", "u", "\r"}) {
        view.press(key, quit);
    }
    EXPECT_FALSE(quit);
    EXPECT_THAT(view.draw({80, 24}, NOW), HasSubstr("; 1 shown"));
    view.press("q", quit);
    EXPECT_TRUE(quit);
}

// ---- Completion -----------------------------------------------------------------------------------------------------

namespace
{

std::vector<std::string> completed(const std::vector<std::string> &words)
{
    static CLI::App app;
    static call c;
    if (app.get_subcommands([](const CLI::App *) { return true; }).empty()) {
        app.add_option("--linkd", c.linkd_socket, "");
        for (const command &one : commands()) {
            one.add(app, c);
        }
    }
    std::vector<std::string> found;
    for (const candidate &one : candidates(app, words,
                                           {[] {
                                                return std::vector<std::string>{"to-north", "links"};
                                            },
                                            [] { return std::vector<std::string>{"vorn"}; }})) {
        found.push_back(one.word);
    }
    return found;
}

} // namespace

TEST(Completion, KnowsCommandsOptionsAndNames)
{
    EXPECT_THAT(completed({"re"}), ElementsAre("reload"));
    EXPECT_THAT(completed({"link", "s"}), ElementsAre("set"));
    EXPECT_THAT(completed({"--linkd", "x", "link", "t"}), ElementsAre("to-north"));
    EXPECT_THAT(completed({"link", "delete", ""}), ElementsAre("to-north", "links"));
    EXPECT_THAT(completed({"link", "add", ""}), ElementsAre());
    EXPECT_THAT(completed({"history", "links", ""}), ElementsAre()); // a name that is a command's, too
    EXPECT_THAT(completed({"links", "--json", "--st"}), ElementsAre("--state"));
    EXPECT_THAT(completed({"links", "--state", "no"}), ElementsAre("no-connectivity"));
    EXPECT_THAT(completed({"rtt", "to-north", ""}), ElementsAre("on", "off"));
    EXPECT_THAT(completed({"trace", "get", ""}), ElementsAre("vorn"));
    EXPECT_THAT(completed({"links", "--lin"}), ElementsAre("--linkd"));
}
