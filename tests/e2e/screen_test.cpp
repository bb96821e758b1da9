// What the live table draws, on screens of different sizes.
#include <gmock/gmock.h>

#include <sstream>

#include "screen.hpp"

using testing::HasSubstr;
using testing::Not;

namespace
{

struct Screen : testing::Test {
    demo d;
    screen_view view;

    Screen()
    {
        d.stage.ports = stage_usual_ports();
        demo_link link{};
        link.link_ref = 1;
        link.wish = demo_first_wish(d);
        link.status = IML_LINK_ENABLED;
        link.told = true;
        d.links.push_back(link);
        view.answered = {17};
        view.paths = {std::nullopt};
        view.port_up = {true, false};
        view.colour = false;
    }

    std::string draw(int columns, int rows) { return screen_render(d, view, {columns, rows}); }
};

std::vector<std::string> lines(const std::string &drawn)
{
    std::vector<std::string> all;
    std::istringstream text(drawn);
    for (std::string line; std::getline(text, line);) {
        all.push_back(line);
    }
    return all;
}

} // namespace

TEST_F(Screen, ShowsEverythingThatIsKnownOfALink)
{
    EXPECT_THAT(draw(132, 40), HasSubstr("    1  IDL_A1  100  02:00:00:00:A1:FE    2  enabled"));
    EXPECT_THAT(draw(132, 40), HasSubstr("      17"));
}

TEST_F(Screen, SaysWhyALinkIsDisabled)
{
    d.links[0].status = IML_LINK_DISABLED;
    d.links[0].reason = IML_LINK_REASON_NO_CONNECTIVITY;
    EXPECT_THAT(draw(132, 40), HasSubstr("disabled with reason no connectivity"));
}

TEST_F(Screen, HasEveryColumnOnATerminalOfTheUsualWidth)
{
    d.links[0].status = IML_LINK_DISABLED;
    d.links[0].reason = IML_LINK_REASON_NO_CONNECTIVITY;
    EXPECT_THAT(draw(80, 24), HasSubstr("  no connectivity "));
    EXPECT_THAT(draw(80, 24), HasSubstr("      17\x1b[K"));
}

TEST_F(Screen, ShowsTheStateOfPortsAndFarEnd)
{
    d.far_end_answers = false;
    EXPECT_THAT(draw(132, 40), HasSubstr("far end: silent    idl_a1: up    tn_a: down"));
}

TEST_F(Screen, CutsLinesAtItsWidthAndShowsNoMoreThanFit)
{
    for (int i = 0; i < 100; i++) {
        d.notes.push_back({{}, std::string(200, 'x')});
    }
    auto drawn = lines(draw(40, 12));
    EXPECT_EQ(drawn.size(), 11u); // the last row stays free: a line feed there would scroll
    for (const std::string &line : drawn) {
        EXPECT_LE(line.size(), 40u + std::string("\x1b[K").size()) << line;
    }
}

TEST_F(Screen, ShowsTheNewestNotesWhenNotAllFit)
{
    d.notes.push_back({{}, "the oldest"});
    for (int i = 0; i < 20; i++) {
        d.notes.push_back({{}, "note"});
    }
    d.notes.push_back({{}, "the newest"});
    EXPECT_THAT(draw(80, 18), HasSubstr("the newest"));
    EXPECT_THAT(draw(80, 18), Not(HasSubstr("the oldest")));
}

TEST_F(Screen, KeepsAStateChangeInSightHoweverManyBatchesCome)
{
    iemli_event status{};
    status.kind = iemli_event_kind::link_status;
    status.link_ref = 1;
    status.status = IML_LINK_DISABLED;
    status.disabled_reason = IML_LINK_REASON_DOWN;
    iemli_event batch{};
    batch.kind = iemli_event_kind::link_rtt;
    batch.link_ref = 1;
    batch.rtt = {0, 40120, 0, 51000, 0, 60330, 1, {}};
    demo_take_event(d, batch);
    demo_take_event(d, status);
    for (int i = 0; i < 1000; i++) {
        demo_take_event(d, batch);
    }
    EXPECT_THAT(draw(80, 24), HasSubstr("link 1 RTT: min 40.12 avg 51.00 max 60.33 us, valid"));
    EXPECT_THAT(draw(80, 24), HasSubstr("link 1 is disabled with reason down"));
    EXPECT_EQ(d.links[0].batches.size(), 1001u);
}

TEST_F(Screen, NotesThatBatchesAreNotValidAnyMoreAndThatTheyAreAgain)
{
    iemli_event batch{};
    batch.kind = iemli_event_kind::link_rtt;
    batch.link_ref = 1;
    for (const bool valid : {true, true, false, false, true}) {
        batch.rtt = {0, 1000, 0, 1000, 0, 1000, valid ? uint8_t{1} : uint8_t{0}, {}};
        demo_take_event(d, batch);
    }
    ASSERT_EQ(d.notes.size(), 3u);
    EXPECT_EQ(d.notes[1].text, "link 1 RTT: not valid");
    EXPECT_THAT(d.notes[2].text, HasSubstr(", valid"));
}

TEST(Colour, IsWantedUnlessTheEnvironmentHasAReasonAgainstIt)
{
    unsetenv("NO_COLOR");
    EXPECT_TRUE(terminal_wants_colour());
    setenv("NO_COLOR", "", 1);
    EXPECT_TRUE(terminal_wants_colour());
    setenv("NO_COLOR", "1", 1);
    EXPECT_FALSE(terminal_wants_colour());
}

TEST_F(Screen, UsesNoColourUnlessAskedTo)
{
    EXPECT_THAT(draw(132, 40), Not(HasSubstr("\x1b[3")));
    view.colour = true;
    EXPECT_THAT(draw(132, 40), HasSubstr("\x1b[32m"));
}

TEST_F(Screen, ShowsTheLastBatchOfALinkWithRtt)
{
    d.links[0].rtt = {5, 1, 64};
    EXPECT_THAT(draw(80, 24), HasSubstr("    1  RTT                       -          -          -  no batch yet"));
    d.links[0].batches = {{0, 1, 0, 2, 0, 3, 1, {}}, {0, 40120, 1, 51003, 2, 60339, 1, {}}};
    EXPECT_THAT(draw(80, 24), HasSubstr("    1  RTT, batch 2          40.12 1000051.00 2000060.34  valid\x1b[K"));
    d.links[0].batches.push_back({});
    EXPECT_THAT(draw(80, 24), HasSubstr("    1  RTT, batch 3              -          -          -  not valid\x1b[K"));
}

TEST_F(Screen, ShowsWhatTheAgentHasOfALink)
{
    EXPECT_THAT(draw(80, 24), HasSubstr("    1  agent's path              -          -          -  none\x1b[K"));
    view.paths = {agent_path{2, IML_LINK_ENABLED, 40120, 51000, 60330, 7}};
    EXPECT_THAT(draw(80, 24),
                HasSubstr("    1  agent's path          40.12      51.00      60.33  enabled, 7 reports"));
    view.paths[0]->link_status = IML_LINK_DISABLED;
    EXPECT_THAT(draw(80, 24), HasSubstr("disabled, 7 reports"));
    view.paths = {agent_path{1, IML_LINK_ENABLED, 0, 0, 0, 1}};
    EXPECT_THAT(draw(80, 24),
                HasSubstr("    1  agent's path              -          -          -  enabled, 1 reports"));
}

TEST_F(Screen, SaysThatAPortIsLocked)
{
    d.port_locked = true;
    EXPECT_THAT(draw(132, 40), HasSubstr("idl_a1: up, locked    tn_a: down"));
}

TEST_F(Screen, ShowsTheLinkListInPlaceOfTheRest)
{
    view.list = "LINK  PORT\n1     IDL_A1\n";
    EXPECT_THAT(draw(80, 24), HasSubstr("LINK  PORT\x1b[K\n1     IDL_A1\x1b[K\n"));
    EXPECT_THAT(draw(80, 24), Not(HasSubstr("far end")));
    EXPECT_THAT(draw(80, 24), Not(HasSubstr("wider")));
    EXPECT_THAT(draw(8, 24), HasSubstr("  (the l"));
}
