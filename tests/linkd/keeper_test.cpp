// The keeper against a daemon in memory: single stories, and random walks that end in what is declared.
#include "daemon_in_memory.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

namespace
{

using namespace linkd;
using testing::ElementsAre;
using testing::IsEmpty;

// ---- Stories -------------------------------------------------------------------------------------------------------

TEST(Keeper, CreatesWhatIsDeclaredWhenTheDaemonComes)
{
    scene s;
    s.keeps.lost("no registry", s.daemon.now);
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    EXPECT_EQ(s.state("a"), "waiting: no registry");
    EXPECT_THAT(s.daemon.seen, IsEmpty());
    s.pass(2000);
    s.publish();
    s.quiet();
    EXPECT_EQ(s.state("a"), "enabled");
    EXPECT_THAT(s.told.lines, ElementsAre("a: gone -> waiting (no registry)",
                                          "a: waiting -> disabled (no connectivity)", "a: disabled -> enabled"));
    EXPECT_EQ(s.told.changes[1].lasted_us, 2000 * MS);
}

TEST(Keeper, CreatesAllAgainWhenTheDaemonDied)
{
    scene s;
    s.declare({link_to("a", "IDL_A1", 100, 1), link_to("b", "IDL_A1", 101, 1)});
    s.publish();
    s.quiet();
    s.daemon.die();
    s.keeps.lost("no daemon", s.daemon.now);
    EXPECT_EQ(s.state("a"), "waiting: no daemon");
    EXPECT_EQ(s.keeps.next_ms(), std::nullopt);
    s.publish();
    s.quiet();
    EXPECT_EQ(s.state("a"), "enabled");
    EXPECT_EQ(s.state("b"), "enabled");
    EXPECT_EQ(s.daemon.links.size(), 2u);
}

TEST(Keeper, SendsNothingForALinkThatStaysAsItIs)
{
    scene s;
    const auto a = link_to("a", "IDL_A1", 100, 1, {{mac(10), mac(11)}, {mac(12), mac(13)}});
    s.declare({a});
    s.publish();
    s.quiet();
    const size_t before = s.daemon.seen.size();
    s.declare({a});
    s.settle(600'000);
    EXPECT_EQ(s.daemon.seen.size(), before);
}

TEST(Keeper, UpdatesAppLinksAndCreatesAnewOnlyWhereItMust)
{
    scene s;
    s.declare({link_to("a", "IDL_A1", 100, 1), link_to("b", "IDL_A1", 101, 1)});
    s.publish();
    s.quiet();
    const size_t before = s.daemon.seen.size();
    s.declare({link_to("a", "IDL_A1", 100, 1, {{mac(10), mac(11)}}), link_to("b", "IDL_A1", 102, 1)});
    s.quiet();
    EXPECT_THAT(s.kinds_since(before), ElementsAre(request_kind::remove, request_kind::update, request_kind::create));
    EXPECT_EQ(s.daemon.links.size(), 2u);
}

TEST(Keeper, TouchesNoLinkThatIsOnlyCalledOtherwise)
{
    scene s;
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    s.publish();
    s.quiet();
    const size_t before = s.daemon.seen.size();
    s.told.lines.clear();
    s.declare({link_to("z", "IDL_A1", 100, 1)});
    s.quiet();
    EXPECT_EQ(s.daemon.seen.size(), before);
    EXPECT_EQ(s.state("z"), "enabled");
    EXPECT_THAT(s.told.lines,
                ElementsAre("a: enabled -> gone", "z: gone -> waiting (asked for)", "z: waiting -> enabled"));
}

TEST(Keeper, MeasuresAsItIsDeclared)
{
    scene s;
    auto a = link_to("a", "IDL_A1", 100, 1);
    a.rtt = rtt_wish{};
    s.declare({a});
    s.publish();
    s.quiet();
    const size_t before = s.daemon.seen.size();
    a.rtt = rtt_wish{10, 1, 64};
    s.declare({a});
    s.quiet();
    EXPECT_THAT(s.kinds_since(before), ElementsAre(request_kind::disable_rtt, request_kind::enable_rtt));
    EXPECT_EQ(s.daemon.seen.back().rtt, *a.rtt);
    a.rtt.reset();
    s.declare({a});
    s.quiet();
    EXPECT_EQ(s.daemon.seen.back().kind, request_kind::disable_rtt);
    EXPECT_FALSE(s.daemon.links.begin()->second.rtt);
}

TEST(Keeper, KnowsSinceWhenTheFarEndWasNotSeenToAnswer)
{
    scene s;
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    s.publish();
    s.quiet();
    const auto age_ms = [&]() -> std::optional<int64_t> {
        const auto age = s.keeps.view("a", s.daemon.now)->last_answer_age_us;
        return age ? std::optional(*age / MS) : std::nullopt;
    };
    const uint32_t link_ref = s.daemon.links.begin()->first;
    const auto counted = [&](uint64_t results, uint64_t lost) {
        s.keeps.listed({{link_ref, s.daemon.links.begin()->second.key, true, "", {}, {}, results, lost}}, s.daemon.now);
    };
    counted(6, 6);
    EXPECT_FALSE(age_ms()) << "lost pings are no answers";
    counted(10, 6);
    EXPECT_EQ(age_ms(), 0);
    s.pass(3000);
    counted(12, 8);
    EXPECT_EQ(age_ms(), 3000) << "no more of them than before";
    counted(2, 1);
    EXPECT_EQ(age_ms(), 0) << "the daemon counts from 0 again";
    s.pass(1000);
    s.keeps.measured(link_ref, {"a", 0, 0, 0, 0, 0}, s.daemon.now);
    EXPECT_EQ(age_ms(), 1000) << "a batch without an answer";
    s.keeps.measured(link_ref, {"a", 0, 1, 1, 1, 1}, s.daemon.now);
    EXPECT_EQ(age_ms(), 0);
    s.pass(500);
    s.keeps.lost("no daemon", s.daemon.now);
    EXPECT_EQ(age_ms(), 500) << "that the daemon has gone does not make it forgotten";
}

TEST(Keeper, AsksLaterAndLaterForWhatIsRefused)
{
    scene s;
    s.daemon.take_for_another({"TN_A", 100, mac(1), 1}); // the far end, over another port
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    s.publish();
    s.quiet();
    EXPECT_EQ(s.state("a"), "rejected: another reason, which the daemon's trace says");
    std::vector<int64_t> delays;
    for (int i = 0; i < 11; i++) {
        const int64_t began = s.daemon.now.ms();
        const size_t before = s.daemon.seen.size();
        while (s.daemon.seen.size() == before) {
            s.pass(*s.keeps.next_ms() - s.daemon.now.ms());
            s.keeps.tick(s.daemon.now);
        }
        s.quiet();
        delays.push_back((s.daemon.now.ms() - began) / 1000);
    }
    EXPECT_THAT(delays, ElementsAre(1, 2, 4, 8, 16, 32, 64, 128, 256, 300, 300));
    EXPECT_EQ(s.told.lines.back(), "a: waiting -> rejected (another reason, which the daemon's trace says)");
}

TEST(Keeper, AsksAtOnceWhenANeighbourOfItsPortHasNews)
{
    scene s;
    const uint32_t other = s.daemon.take_for_another({"TN_A", 100, mac(1), 1});
    s.declare({link_to("a", "IDL_A1", 100, 1), link_to("b", "IDL_A1", 101, 1)});
    s.publish();
    s.settle(100'000);
    s.daemon.links.erase(other);
    s.pass(1000);
    const uint32_t of_b = s.keeps.view("b", s.daemon.now)->link_ref;
    s.keeps.status(of_b, false, "down", s.daemon.now);
    s.quiet();
    EXPECT_EQ(s.state("a"), "enabled");
    EXPECT_EQ(s.state("b"), "disabled: down");
}

TEST(Keeper, AsksSoonForALinkThatAnEarlierSessionStillHas)
{
    scene s;
    const uint32_t old = s.daemon.take_for_another({"IDL_A1", 100, mac(1), 1});
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    s.publish();
    s.quiet();
    s.daemon.links.erase(old);
    s.settle(300);
    EXPECT_EQ(s.state("a"), "enabled");
}

// Each has what the other wants, and neither is told to give it up first.
TEST(Keeper, LetsTwoLinksOnTwoPortsExchangeTheirApplications)
{
    scene s;
    s.declare(
        {link_to("a", "IDL_A1", 100, 1, {{mac(10), mac(11)}}), link_to("b", "TN_A", 100, 2, {{mac(12), mac(13)}})});
    s.publish();
    s.quiet();
    s.declare(
        {link_to("a", "IDL_A1", 100, 1, {{mac(10), mac(13)}}), link_to("b", "TN_A", 100, 2, {{mac(12), mac(11)}})});
    s.settle(10'000);
    EXPECT_EQ(s.state("a"), "enabled");
    EXPECT_EQ(s.state("b"), "enabled");
    for (const auto &[ref, link] : s.daemon.links) {
        EXPECT_EQ(link.app_links[0].far, link.key.port == "IDL_A1" ? mac(13) : mac(11));
    }
}

TEST(Keeper, OpensAnotherSessionWhenTheDaemonKnowsOfNone)
{
    scene s;
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    s.publish();
    s.quiet();
    s.daemon.session = false;
    s.daemon.links.clear();
    s.declare({link_to("a", "IDL_A1", 100, 1), link_to("b", "IDL_A1", 101, 1)});
    s.settle(2000);
    EXPECT_EQ(s.state("a"), "enabled");
    EXPECT_EQ(s.state("b"), "enabled");
}

TEST(Keeper, WaitsAndTriesAgainWhenItGetsNoSession)
{
    scene s;
    s.daemon.session = true; // somebody's
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    s.publish();
    s.settle(500);
    EXPECT_EQ(s.state("a"), "waiting: no session: there is a session already");
    s.daemon.session = false;
    s.settle(1500);
    EXPECT_EQ(s.state("a"), "enabled");
}

TEST(Keeper, HasNoMoreUnderWayThanItsWindow)
{
    scene s(4);
    std::vector<declaration> links;
    for (int i = 0; i < 100; i++) {
        links.push_back(link_to("l" + std::to_string(i), "IDL_A1", static_cast<uint16_t>(i + 1), 1));
    }
    s.declare(links);
    s.publish();
    while (s.deliver() || s.daemon.take()) {
    }
    EXPECT_EQ(std::count_if(s.daemon.seen.begin(), s.daemon.seen.end(),
                            [](const request &r) { return r.kind == request_kind::create; }),
              4);
    s.quiet();
    EXPECT_EQ(s.daemon.links.size(), 100u);
}

// What waits behind one that is refused out of the queue is not forgotten.
TEST(Keeper, BringsTheQueueToTurnAgainWhenItStandsStill)
{
    scene s;
    s.daemon.take_for_another({"TN_A", 2, mac(1), 1});
    s.declare({link_to("a", "IDL_A1", 1, 1), link_to("b", "IDL_A1", 2, 1), link_to("c", "IDL_A1", 3, 1),
               link_to("d", "IDL_A1", 4, 1)});
    s.publish();
    s.quiet();
    EXPECT_EQ(s.state("c"), "waiting: asked for");
    s.settle(500);
    EXPECT_EQ(s.state("c"), "enabled");
    EXPECT_EQ(s.state("d"), "enabled");
    EXPECT_EQ(s.state("b"), "rejected: another reason, which the daemon's trace says");
}

TEST(Keeper, AsksAgainForWhatIsAnsweredAtOnceWhenTheAnswerWasLost)
{
    scene s;
    auto a = link_to("a", "IDL_A1", 100, 1);
    s.declare({a});
    s.publish();
    s.quiet();
    a.rtt = rtt_wish{};
    s.declare({a});
    ASSERT_TRUE(s.daemon.take());
    s.daemon.said.clear(); // the answer
    s.declare({});         // nothing else is asked for a link with a request under way
    s.settle(20'000);
    EXPECT_THAT(s.daemon.links, IsEmpty());
}

TEST(Keeper, KnowsTheNearAddressThoughTheFirstAnswerWasLost)
{
    scene s;
    s.daemon.loses = [] { return true; };
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    s.publish();
    s.quiet();
    s.daemon.loses = [] { return false; };
    s.settle(5000);
    EXPECT_EQ(s.keeps.view("a", s.daemon.now)->near_mac, "02:00:00:00:00:aa");
    EXPECT_EQ(s.state("a"), "enabled");
}

TEST(Keeper, HasNoMoreUnderWayOfWhatIsAnsweredAtOnceThanItsWindow)
{
    scene s(4);
    std::vector<declaration> links;
    for (uint16_t i = 1; i <= 30; i++) {
        links.push_back(link_to("l" + std::to_string(i), "IDL_A1", i, 1));
    }
    s.declare(links);
    s.publish();
    s.quiet();
    for (declaration &link : links) {
        link.rtt = rtt_wish{};
    }
    const size_t before = s.daemon.seen.size();
    s.declare(links);
    EXPECT_EQ(s.daemon.seen.size(), before + 4);
    // Those are not in the way of what waits in line.
    links.push_back(link_to("more", "IDL_A1", 99, 1));
    s.declare(links);
    EXPECT_EQ(s.daemon.seen.back().kind, request_kind::create);
    s.quiet();
    for (const auto &[ref, link] : s.daemon.links) {
        EXPECT_EQ(link.rtt, link.key.vlan != 99);
    }
}

TEST(Keeper, SaysThatTheDaemonDoesNotAnswer)
{
    scene s;
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    s.publish(); // and nobody takes what is sent
    EXPECT_EQ(s.state("a"), "waiting: no session");
    s.pass(5000);
    s.keeps.tick(s.daemon.now);
    EXPECT_EQ(s.state("a"), "waiting: no session: the daemon does not answer");
    s.settle(10'000);
    EXPECT_EQ(s.state("a"), "enabled");
}

TEST(Keeper, GoesOnFromWhereAnEarlierProgramEnded)
{
    scene s;
    const auto a = link_to("a", "IDL_A1", 100, 1);
    const auto b = link_to("b", "IDL_A1", 101, 1);
    const auto c = link_to("c", "IDL_A1", 102, 1);
    s.keeps.remember({{a.identity(), link_state::enabled},
                      {b.identity(), link_state::waiting},
                      {c.identity(), link_state::disabled}});
    s.declare({a, b, link_to("d", "IDL_A1", 103, 1)});
    EXPECT_THAT(s.told.lines, ElementsAre("c: disabled -> gone", "a: enabled -> waiting (kap-linkd was started)",
                                          "d: gone -> waiting (no registry)"));
    EXPECT_EQ(s.told.changes[1].lasted_us, 0) << "nobody looked meanwhile";
    EXPECT_EQ(s.state("a"), "waiting: no registry");
    s.pass(3000);
    s.publish();
    s.quiet();
    EXPECT_EQ(s.state("b"), "enabled");
    for (const link_change &change : s.told.changes) {
        if (change.from == link_state::waiting) {
            EXPECT_EQ(change.lasted_us, 3000 * MS) << change.link.name;
        }
    }
    s.told.lines.clear();
    s.declare({a, b});
    EXPECT_THAT(s.told.lines, ElementsAre("d: enabled -> gone"));
}

TEST(Keeper, SaysThatALinkIsAnotherThanBeforeTheProgramEnded)
{
    scene s;
    s.keeps.remember({{link_to("a", "IDL_A1", 100, 1).identity(), link_state::enabled}});
    s.declare({link_to("a", "IDL_A1", 200, 1)});
    EXPECT_THAT(s.told.lines, ElementsAre("a: enabled -> waiting (changed)"));
    EXPECT_EQ(s.told.changes[0].link.vlan, 200);
}

TEST(Keeper, CountsEachPingForOneName)
{
    scene s;
    const auto a = link_to("a", "IDL_A1", 100, 1);
    const auto z = link_to("z", "IDL_A1", 100, 1);
    s.declare({a});
    s.publish();
    s.quiet();
    const uint32_t ref = s.keeps.view("a", s.daemon.now)->link_ref;
    const auto pinged = [&](uint64_t results) {
        s.keeps.listed({{ref, a.key, true, "", {}, false, results, 0}}, s.daemon.now);
    };
    pinged(100);
    s.declare({z});
    pinged(130);
    EXPECT_EQ(s.told.pings_of("a"), 100U);
    EXPECT_EQ(s.told.pings_of("z"), 30U);
    EXPECT_EQ(s.keeps.view("z", s.daemon.now)->results, 30U);
    s.declare({a});
    pinged(250);
    EXPECT_EQ(s.told.pings_of("a"), 100U + 120U);
    // The last of one that goes count, too.
    s.declare({});
    pinged(260);
    s.quiet();
    EXPECT_EQ(s.told.pings_of("a"), 100U + 130U);
    EXPECT_THAT(s.daemon.links, IsEmpty());
}

TEST(Keeper, ForgetsTheLastRoundTripWhenNoneIsMeasuredAnyMore)
{
    scene s;
    auto a = link_to("a", "IDL_A1", 100, 1);
    a.rtt = rtt_wish{};
    s.declare({a});
    s.publish();
    s.quiet();
    const uint32_t ref = s.keeps.view("a", s.daemon.now)->link_ref;
    s.keeps.measured(ref, {"", 0, 1, 2, 3, 1}, s.daemon.now);
    EXPECT_TRUE(s.keeps.view("a", s.daemon.now)->last_rtt);
    a.rtt.reset();
    s.declare({a});
    s.keeps.measured(ref, {"", 0, 1, 2, 3, 1}, s.daemon.now); // it was on its way
    EXPECT_FALSE(s.keeps.view("a", s.daemon.now)->last_rtt);
    s.quiet();
    s.keeps.status(ref, false, "down", s.daemon.now);
    EXPECT_FALSE(s.told.changes.back().known.contains("last_rtt_us"));
}

// ---- The daemon's list

TEST(Keeper, TakesUpALinkWhoseAnswerWasLost)
{
    scene s;
    s.declare({link_to("a", "IDL_A1", 100, 1, {{mac(10), mac(11)}})});
    s.publish();
    while (s.daemon.links.empty()) {
        ASSERT_TRUE(s.deliver() || s.daemon.take() || s.daemon.complete());
    }
    s.daemon.said.clear(); // the answer, and its first news
    s.settle(5000);
    EXPECT_EQ(s.state("a"), "rejected: somebody else has this link");
    s.settle_with_lists(20'000);
    EXPECT_EQ(s.state("a"), "enabled");
    s.declare({});
    s.quiet();
    EXPECT_THAT(s.daemon.links, IsEmpty());
}

TEST(Keeper, RemovesALinkWhoseAnswerWasLostWhenNobodyWantsItAnyMore)
{
    scene s;
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    s.publish();
    while (s.daemon.links.empty()) {
        ASSERT_TRUE(s.deliver() || s.daemon.take() || s.daemon.complete());
    }
    s.daemon.said.clear();
    s.settle(5000);
    s.declare({});
    s.settle_with_lists(20'000);
    EXPECT_THAT(s.daemon.links, IsEmpty());
}

TEST(Keeper, CreatesAgainWhatTheDaemonDoesNotListAnyMore)
{
    scene s;
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    s.publish();
    s.quiet();
    s.daemon.links.clear();
    s.settle_with_lists(20'000);
    EXPECT_EQ(s.daemon.links.size(), 1U);
    EXPECT_EQ(s.state("a"), "enabled");
}

// A number is given again as soon as it is free.
TEST(Keeper, MendsALinkThatAnothersRequestMet)
{
    scene s;
    auto a = link_to("a", "IDL_A1", 100, 1, {{mac(10), mac(11)}});
    a.rtt = rtt_wish{};
    s.declare({a});
    s.publish();
    s.quiet();
    auto &held = s.daemon.links.begin()->second;
    held.app_links.clear();
    held.rtt = false;
    s.settle_with_lists(20'000);
    EXPECT_EQ(s.daemon.links.begin()->second.app_links, a.app_links);
    EXPECT_TRUE(s.daemon.links.begin()->second.rtt);
}

TEST(Keeper, MakesUpForNewsThatNeverCame)
{
    scene s;
    s.declare({link_to("a", "IDL_A1", 100, 1)});
    s.publish();
    s.quiet();
    s.daemon.turn(s.keeps.view("a", s.daemon.now)->link_ref, false);
    s.daemon.said.clear();
    s.daemon.list();
    s.quiet();
    EXPECT_EQ(s.state("a"), "enabled") << "the news may be on their way";
    s.daemon.list();
    s.quiet();
    EXPECT_EQ(s.state("a"), "disabled: no connectivity");
}

// ---- Walks ---------------------------------------------------------------------------------------------------------

class walk : public scene
{
public:
    explicit walk(uint32_t seed) : scene(1 + seed % 9), random_(seed) {}

    uint32_t pick(uint32_t below) { return std::uniform_int_distribution<uint32_t>(0, below - 1)(random_); }

    declarations some_links()
    {
        static const char *const PORTS[] = {"IDL_A1", "TN_A"};
        declarations links;
        for (uint32_t i = pick(7); i > 0; i--) {
            const uint32_t port = pick(2);
            auto link = link_to("l" + std::to_string(pick(8)), PORTS[port], static_cast<uint16_t>(1 + pick(3)),
                                static_cast<uint8_t>(port * 8 + 1 + pick(2)));
            for (uint32_t pairs = pick(3); pairs > 0; pairs--) {
                link.app_links.push_back(
                    {mac(static_cast<uint8_t>(0x40 + pairs)), mac(static_cast<uint8_t>(0x50 + pick(4)))});
            }
            std::sort(link.app_links.begin(), link.app_links.end());
            if (pick(2) == 0) {
                link.rtt = rtt_wish{};
            }
            links[link.name] = link;
        }
        // What the declarations are checked for keeps out what cannot be.
        for (auto at = links.begin(); at != links.end();) {
            at = conflict_of(at->second, links).empty() ? std::next(at) : links.erase(at);
        }
        return links;
    }

    void step()
    {
        switch (pick(12)) {
        case 0:
            keeps.declare(some_links(), daemon.now);
            break;
        case 1:
            if (pick(6) == 0) {
                daemon.die();
                keeps.lost("no daemon", daemon.now);
                there_ = false;
            }
            break;
        case 2:
            if (!there_) {
                publish();
                there_ = true;
            }
            break;
        case 3:
            pass(pick(1500));
            keeps.tick(daemon.now);
            break;
        case 4:
        case 5:
        case 6:
            (void)daemon.complete();
            break;
        case 7:
        case 8:
        case 9:
            (void)daemon.take();
            break;
        default:
            (void)deliver();
        }
    }

    void expect_what_is_declared()
    {
        std::map<link_key, std::vector<app_pair>> wanted;
        std::map<link_key, std::vector<app_pair>> had;
        for (const auto &[name, link] : keeps.declared()) {
            wanted[link.key] = link.app_links;
            EXPECT_EQ(state(name), "enabled") << name;
        }
        for (const auto &[ref, link] : daemon.links) {
            had[link.key] = link.app_links;
        }
        EXPECT_EQ(had, wanted);
        for (const auto &[name, link] : keeps.declared()) {
            const auto view = keeps.view(name, daemon.now);
            EXPECT_EQ(daemon.links.at(view->link_ref).rtt, link.rtt.has_value()) << name;
        }
    }

    bool there_ = false;

private:
    std::mt19937 random_;
};

TEST(KeeperWalk, EndsInWhatIsDeclaredWhateverHappenedOnTheWay)
{
    for (uint32_t seed = 0; seed < 150 && !testing::Test::HasFailure(); seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        walk w(seed);
        for (int i = 0; i < 400; i++) {
            w.step();
        }
        if (!w.there_) {
            w.publish();
        }
        w.settle(3'600'000);
        w.expect_what_is_declared();
        // Every change that was told begins with the state that the one before ended in.
        std::map<std::string, link_state> states;
        for (const link_change &change : w.told.changes) {
            const auto at = states.find(change.link.name);
            EXPECT_EQ(change.from, at == states.end() ? link_state::gone : at->second);
            EXPECT_GE(change.lasted_us, 0);
            states[change.link.name] = change.to;
        }
        const size_t before = w.daemon.seen.size();
        w.keeps.declare(w.keeps.declared(), w.daemon.now);
        w.settle(600'000);
        EXPECT_EQ(w.daemon.seen.size(), before) << "nothing was different";
    }
}

} // namespace
