// The keeper against a daemon in memory that takes one request at a time, queues the others and refuses by the same
// rules as the real one: single stories, and random walks that end in what is declared.
#include "iemli/iemli_messages.hpp"
#include "keeper.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <random>

namespace
{

using namespace linkd;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t MS = 1000;

mac_bytes mac(uint8_t last) { return {2, 0, 0, 0, 0, last}; }

declaration link_to(const std::string &name, const std::string &port, uint16_t vlan, uint8_t far,
                    std::vector<app_pair> pairs = {})
{
    declaration link;
    link.name = name;
    link.key = {port, vlan, mac(far), 1};
    link.app_links = std::move(pairs);
    return link;
}

declarations all_of(const std::vector<declaration> &links)
{
    declarations all;
    for (const declaration &link : links) {
        all[link.name] = link;
    }
    return all;
}

// The daemon: what it has, what it is at, what waits.
class daemon_in_memory : public sender
{
public:
    struct held {
        link_key key;
        std::vector<app_pair> app_links;
        bool rtt = false;
        bool ours = true;
    };

    bool session = false;
    std::map<uint32_t, held> links;
    std::vector<request> seen;                      // in their order of coming
    std::deque<std::function<void(keeper &)>> said; // on its way to the keeper

    uint32_t send(const request &what) override
    {
        seen.push_back(what);
        coming_.emplace_back(++number_, what);
        return number_;
    }

    // Takes the next message in; false: there is none.
    bool take()
    {
        if (coming_.empty()) {
            return false;
        }
        const auto [number, what] = coming_.front();
        coming_.pop_front();
        if (can_wait(what.kind) && busy_) {
            queue_.emplace_back(number, what);
        } else {
            handle(number, what);
        }
        return true;
    }

    // The lower layers answer; false: nothing is under way.
    bool complete()
    {
        if (!busy_) {
            return false;
        }
        const auto [number, what] = *std::exchange(busy_, std::nullopt);
        finish(number, what);
        // One is taken for each that ends, whatever becomes of it.
        if (!queue_.empty()) {
            const auto [next, waiting] = queue_.front();
            queue_.pop_front();
            handle(next, waiting);
        }
        return true;
    }

    bool idle() const { return coming_.empty() && said.empty() && !busy_; }

    void die()
    {
        session = false;
        links.clear();
        coming_.clear();
        said.clear();
        queue_.clear();
        busy_.reset();
    }

    // Another client's.
    uint32_t take_for_another(const link_key &key)
    {
        const uint32_t ref = free_ref();
        links[ref] = {key, {}, false, false};
        return ref;
    }

    instant now{1'000'000 * MS, 5'000'000 * MS};

private:
    static bool can_wait(request_kind kind)
    {
        return kind == request_kind::create || kind == request_kind::update || kind == request_kind::remove;
    }

    uint32_t free_ref() const
    {
        uint32_t ref = 1;
        while (links.contains(ref)) {
            ref++;
        }
        return ref;
    }

    void say(answer what)
    {
        said.emplace_back([what, this](keeper &to) { to.answered(what, now); });
    }
    void refuse(uint32_t number, uint32_t reason) { say({number, false, reason, 0, {}}); }
    void confirm(uint32_t number, uint32_t ref = 0) { say({number, true, 0, ref, mac(0xAA)}); }

    uint32_t wrong_with(const link_key &key, const std::vector<app_pair> &pairs, uint32_t except) const
    {
        for (const auto &[ref, other] : links) {
            if (ref == except) {
                continue;
            }
            if (except == 0 && other.key == key) {
                return IEMLI_REJ_LINK_ALREADY_CREATED;
            }
            if (other.key.vlan != key.vlan || other.key.port == key.port) {
                continue;
            }
            for (const app_pair &a : pairs) {
                for (const app_pair &b : other.app_links) {
                    if (a.far == b.far) {
                        return IEMLI_REJ_APP_LINK_ALREADY_USED;
                    }
                }
            }
            if (except == 0 && other.key.far == key.far) {
                return IEMLI_REJ_OTHER_REASON;
            }
        }
        return 0;
    }

    bool is_ours(uint32_t ref) const { return links.contains(ref) && links.at(ref).ours; }

    void handle(uint32_t number, const request &what)
    {
        if (what.kind == request_kind::open) {
            session ? refuse(number, IEMLI_REJ_SERVICE_INITIATED) : confirm(number);
            session = true;
        } else if (!session) {
            what.kind == request_kind::remove ? confirm(number) : refuse(number, IEMLI_REJ_SERVICE_NOT_INITIATED);
        } else if (what.kind == request_kind::get_mac) {
            confirm(number);
        } else if (what.kind == request_kind::enable_rtt || what.kind == request_kind::disable_rtt) {
            handle_rtt(number, what);
        } else {
            handle_link(number, what);
        }
    }

    void handle_rtt(uint32_t number, const request &what)
    {
        const bool on = what.kind == request_kind::enable_rtt;
        if (on && !is_ours(what.link_ref)) {
            refuse(number, IEMLI_REJ_UNKNOWN_LINK_REF);
        } else if (on && links.at(what.link_ref).rtt) {
            refuse(number, IEMLI_REJ_RTT_ALREADY_ENABLED);
        } else {
            if (is_ours(what.link_ref)) {
                links.at(what.link_ref).rtt = on;
            }
            confirm(number);
        }
    }

    void handle_link(uint32_t number, const request &what)
    {
        uint32_t reason = 0;
        if (what.kind == request_kind::create) {
            reason = wrong_with(what.key, what.app_links, 0);
        } else if (!links.contains(what.link_ref)) {
            if (what.kind == request_kind::remove) {
                confirm(number); // without the next one being taken
                return;
            }
            reason = IEMLI_REJ_UNKNOWN_LINK_REF;
        } else if (what.kind == request_kind::update) {
            const held &link = links.at(what.link_ref);
            reason = link.app_links == what.app_links ? uint32_t{IEMLI_REJ_LINK_DATA_NO_CHANGE}
                                                      : wrong_with(link.key, what.app_links, what.link_ref);
        }
        if (reason != 0) {
            refuse(number, reason); // without the next one being taken
            return;
        }
        busy_ = {number, what};
    }

    void finish(uint32_t number, const request &what)
    {
        if (what.kind == request_kind::create) {
            const uint32_t ref = free_ref();
            links[ref] = {what.key, what.app_links};
            confirm(number, ref);
            said.emplace_back([ref, this](keeper &to) { to.status(ref, false, "no connectivity", now); });
            said.emplace_back([ref, this](keeper &to) { to.status(ref, true, "", now); });
        } else if (what.kind == request_kind::update) {
            if (links.contains(what.link_ref)) {
                links.at(what.link_ref).app_links = what.app_links;
            }
            confirm(number);
        } else {
            if (is_ours(what.link_ref)) {
                links.erase(what.link_ref);
            }
            confirm(number);
        }
    }

    uint32_t number_ = 0;
    std::deque<std::pair<uint32_t, request>> coming_;
    std::deque<std::pair<uint32_t, request>> queue_;
    std::optional<std::pair<uint32_t, request>> busy_;
};

// Keeps what it is told as lines.
class diary : public listener
{
public:
    std::vector<std::string> lines;
    std::vector<link_change> changes;
    void changed(const link_change &change) override
    {
        changes.push_back(change);
        lines.push_back(change.link.name + ": " + name_of(change.from) + " -> " + name_of(change.to) +
                        (change.reason.empty() ? "" : " (" + change.reason + ")"));
    }
};

struct scene {
    explicit scene(size_t window = 8) : keeps(daemon, told, window) {}

    daemon_in_memory daemon;
    diary told;
    keeper keeps;

    void pass(int64_t ms)
    {
        daemon.now.boot_us += ms * MS;
        daemon.now.real_us += ms * MS;
    }
    bool deliver()
    {
        if (daemon.said.empty()) {
            return false;
        }
        const auto what = daemon.said.front();
        daemon.said.pop_front();
        what(keeps);
        return true;
    }
    void quiet()
    {
        while (deliver() || daemon.take() || daemon.complete()) {
        }
    }
    // Until nothing more is due within that time.
    void settle(int64_t most_ms)
    {
        const int64_t end = daemon.now.ms() + most_ms;
        for (;;) {
            quiet();
            const auto next = keeps.next_ms();
            if (!next || *next > end) {
                return;
            }
            pass(std::max<int64_t>(*next - daemon.now.ms(), 1));
            keeps.tick(daemon.now);
        }
    }
    void declare(const std::vector<declaration> &links) { keeps.declare(all_of(links), daemon.now); }
    void publish() { keeps.published(daemon.now); }
    std::string state(const std::string &name) const
    {
        const auto view = keeps.view(name, daemon.now);
        return view ? std::string(name_of(view->state)) + (view->reason.empty() ? "" : ": " + view->reason) : "none";
    }
    std::vector<request_kind> kinds_since(size_t first) const
    {
        std::vector<request_kind> kinds;
        for (size_t i = first; i < daemon.seen.size(); i++) {
            kinds.push_back(daemon.seen[i].kind);
        }
        return kinds;
    }
};

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
    s.keeps.counted(link_ref, 6, 6, s.daemon.now);
    EXPECT_FALSE(age_ms()) << "lost pings are no answers";
    s.keeps.counted(link_ref, 10, 6, s.daemon.now);
    EXPECT_EQ(age_ms(), 0);
    s.pass(3000);
    s.keeps.counted(link_ref, 12, 8, s.daemon.now);
    EXPECT_EQ(age_ms(), 3000) << "no more of them than before";
    s.keeps.counted(link_ref, 2, 1, s.daemon.now);
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
