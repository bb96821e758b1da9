// The engine under a clock that the test sets: who sends when, what is reported, and to whom an answer belongs.
#include "engine.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <utility>
#include <vector>

namespace
{

using namespace supervision;

constexpr int64_t MS = 1'000'000;
constexpr int64_t SECOND = 1000 * MS;
constexpr int64_t REAL_START = 1'700'000'000 * SECOND;
constexpr secret KEY = {0x0706050403020100, 0x0F0E0D0C0B0A0908};

struct Reported {
    uint32_t session;
    uint32_t result;
    int64_t rtt; // -1: none
    bool operator==(const Reported &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Reported &r)
{
    return os << "{session " << r.session << ", result " << r.result << ", rtt " << r.rtt << "}";
}

std::vector<Reported> reported;

void report(const supervision_rtt *rtt, uint32_t session, uint32_t result)
{
    reported.push_back({session, result, rtt == nullptr ? -1 : rtt->sec * SECOND + rtt->nsec});
}

struct Sent {
    uint32_t session;
    int64_t at; // monotonic
    uint8_t measurement_id;
    std::vector<uint8_t> frame;
};

class Engine : public ::testing::Test
{
protected:
    void SetUp() override
    {
        reported.clear();
        engine_set_key(e, KEY);
    }

    session *add(uint32_t interval = 1, uint8_t type = SUPERVISION_TYPE_LINK, uint8_t remote = 9)
    {
        auto s = std::make_unique<session>();
        s->id = static_cast<uint32_t>(sessions_.size() + 1);
        s->key = {1, 3, {{2, 0, 0, 0, 0, 1}}, {{2, 0, 0, 0, 0, remote}}, 100};
        s->ether_type = 0xAEFE;
        s->frame_size = 64;
        s->tagged = true;
        s->tag = {to_be16(0x8100), to_be16(0xE064)};
        s->type = type;
        s->interval = interval;
        s->callback = report;
        engine_add(e, s.get(), now);
        sessions_.push_back(std::move(s));
        return sessions_.back().get();
    }

    // The clocks go on by that much, and the engine runs whenever it wants to on the way.
    void pass(int64_t time)
    {
        const int64_t end = now + time;
        while (engine_deadline(e) <= end) {
            now = std::max(now, engine_deadline(e));
            engine_run(e, now, io());
        }
        now = end;
    }

    // The engine does not get to run meanwhile; then it does, once.
    int64_t starve(int64_t time)
    {
        now += time;
        return engine_run(e, now, io());
    }

    // The answer to the latest request of the session, received `after` its sending and handed in now.
    answer answer_to(const session &s, int64_t after) const
    {
        for (auto it = sent.rbegin(); it != sent.rend(); ++it) {
            if (it->session == s.id) {
                return {s.key, it->measurement_id, true, real_of(it->at) + after};
            }
        }
        ADD_FAILURE() << "session " << s.id << " has sent nothing";
        return {};
    }

    // The same, with the dummy bytes of the request.
    answer echo_of(const session &s, int64_t after) const
    {
        answer a = answer_to(s, after);
        for (const Sent &request : sent) {
            if (request.session == s.id) {
                a.dummy_bytes = static_cast<uint16_t>(request.frame.size() - 42);
                a.marked = std::min<size_t>(a.dummy_bytes, MARK_SIZE);
                memcpy(a.bytes, request.frame.data() + 42, a.marked);
            }
        }
        return a;
    }

    // What a sender can send who does not see the requests: every id, with these dummy bytes.
    void flood(const session &s, uint16_t dummy_bytes, const mark &guess = {})
    {
        for (int id = 0; id < 256; id++) {
            answer a{s.key, static_cast<uint8_t>(id), true, real_of(now)};
            a.dummy_bytes = dummy_bytes;
            a.marked = std::min<size_t>(dummy_bytes, MARK_SIZE);
            memcpy(a.bytes, &guess, a.marked);
            hand_in(a);
        }
    }

    void hand_in(const answer &a) { engine_answer(e, a, {now, real_of(now)}); }

    [[nodiscard]] int64_t real_of(int64_t monotonic) const { return REAL_START + real_step + monotonic; }

    engine_io io()
    {
        return {this,
                [](void *self) {
                    auto *t = static_cast<Engine *>(self);
                    t->now += std::exchange(t->held_up, 0);
                    return clocks{t->now, t->real_of(t->now)};
                },
                [](void *self, session &s, const uint8_t *frame, size_t length) {
                    auto *t = static_cast<Engine *>(self);
                    t->now += std::exchange(t->held_up_sending, 0);
                    t->sent.push_back({s.id, t->now, s.latest.measurement_id, {frame, frame + length}});
                    return t->send_result;
                },
                [](void *self, const session &, int64_t since) {
                    return since <= static_cast<Engine *>(self)->missed_frames_until;
                }};
    }

    engine e;
    int64_t now = 0;
    int64_t real_step = 0; // by which the real-time clock was set
    int64_t held_up = 0;   // for that long before it next sends
    int64_t held_up_sending = 0;
    int64_t missed_frames_until = -1;
    int send_result = 0;
    std::vector<Sent> sent;

private:
    std::vector<std::unique_ptr<session>> sessions_;
};

TEST_F(Engine, WithoutSessionsNeverWantsToRun)
{
    EXPECT_EQ(engine_deadline(e), NEVER);
    session *s = add();
    EXPECT_LT(engine_deadline(e), NEVER);
    engine_remove(e, s);
    EXPECT_EQ(engine_deadline(e), NEVER);
}

TEST_F(Engine, SendsTheFirstRequestInTheNextSlotAndThenOncePerInterval)
{
    add(5);
    pass(9 * MS);
    EXPECT_TRUE(sent.empty());
    pass(1 * MS);
    ASSERT_EQ(sent.size(), 1u);
    pass(5 * SECOND - 1);
    EXPECT_EQ(sent.size(), 1u);
    pass(1);
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].at - sent[0].at, 5 * SECOND);
}

TEST_F(Engine, RunsOnlyWhenSomethingIsDue)
{
    add(60);
    pass(10 * MS);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(engine_deadline(e), 10 * MS + 60 * SECOND);
}

TEST_F(Engine, SpreadsSessionsOverTheSlotsOfASecond)
{
    for (int i = 0; i < 250; i++) {
        add();
    }
    pass(SECOND);
    std::map<int64_t, int> per_slot;
    for (const Sent &s : sent) {
        per_slot[s.at / SLOT_NS]++;
    }
    EXPECT_EQ(sent.size(), 250u);
    EXPECT_EQ(per_slot.size(), 100u);
    for (const auto &[slot, count] : per_slot) {
        EXPECT_GE(count, 2);
        EXPECT_LE(count, 3);
    }
}

// The first of the coming hundred slots whose bucket has the fewest sessions, found by looking at all of them.
int64_t quietest_by_walk(const engine &e, int64_t now_slot)
{
    int64_t best = now_slot + 1;
    for (int64_t slot = best; slot <= now_slot + SLOTS_PER_SECOND; slot++) {
        const auto fill = [&](int64_t of) { return e.buckets[of % SLOTS_PER_SECOND].sessions.size(); };
        best = fill(slot) < fill(best) ? slot : best;
    }
    return best;
}

TEST_F(Engine, AddsEachSessionToTheQuietestSlotHoweverSessionsCameAndWent)
{
    std::mt19937 chance(20261122);
    std::vector<session *> here;
    for (int step = 0; step < 20000; step++) {
        now += static_cast<int64_t>(chance() % 3) * SLOT_NS;
        // Grows to about 300, is emptied now and then, and grows again.
        const bool empties = step % 5000 > 4000;
        if (here.empty() || chance() % 100 < (empties ? 10u : 52u)) {
            const int64_t quietest = quietest_by_walk(e, now / SLOT_NS);
            here.push_back(add());
            ASSERT_EQ(here.back()->due, quietest) << "step " << step;
        } else {
            std::swap(here[chance() % here.size()], here.back());
            engine_remove(e, here.back());
            here.pop_back();
        }
    }
}

TEST_F(Engine, SpreadsSessionsOverTheSecondsOfTheirInterval)
{
    for (int i = 0; i < 500; i++) {
        add();
        add(5);
    }
    pass(20 * SECOND);
    std::map<int64_t, int> per_second;
    for (const Sent &s : sent) {
        per_second[(s.at - SLOT_NS) / SECOND]++;
    }
    ASSERT_EQ(per_second.size(), 20u);
    for (const auto &[second, count] : per_second) {
        EXPECT_EQ(count, 600) << second;
    }
}

TEST_F(Engine, SendsTheFirstRequestOfALongIntervalWithinIt)
{
    for (int i = 0; i < 7; i++) {
        add(3);
    }
    pass(3 * SECOND);
    EXPECT_EQ(sent.size(), 7u);
    pass(3 * SECOND);
    EXPECT_EQ(sent.size(), 14u);
}

TEST_F(Engine, BuildsTheWholeFrame)
{
    const session *s = add();
    pass(10 * MS);
    ASSERT_EQ(sent.size(), 1u);
    // Addresses, tag, EtherType, revision 1, type 5, payload of 46 bytes, the id, a request; 1,700,000,000 s and 10 ms;
    // no compensation; then the dummy bytes, with the mark in front: session 1, sequence 1, the process, the request.
    // clang-format off
    std::vector<uint8_t> expected{
        0x02, 0, 0, 0, 0, 9, 0x02, 0, 0, 0, 0, 1, 0x81, 0x00, 0xE0, 0x64, 0xAE, 0xFE,
        0x10, 5, 0, 46, s->latest.measurement_id, 0,
        0, 0, 0x65, 0x53, 0xF1, 0x00, 0x00, 0x98, 0x96, 0x80, 0, 0, 0, 0, 0, 0, 0, 0,
        0, 0, 0, 1, 0, 0, 0, 1};
    // clang-format on
    for (const uint64_t word : {keyed(KEY, 0, 0), keyed(KEY, 1, uint64_t{1} << 32 | 1)}) {
        for (const int shift : {24, 16, 8, 0}) {
            expected.push_back(static_cast<uint8_t>(word >> shift));
        }
    }
    expected.resize(68);
    EXPECT_EQ(sent[0].frame, expected);
}

TEST_F(Engine, ReportsTheRoundTripByTheStampOfTheAnswerAndNotByWhenItWasRead)
{
    const session *s = add();
    pass(10 * MS);
    pass(900 * MS);
    hand_in(answer_to(*s, 1234567));
    EXPECT_EQ(reported, (std::vector<Reported>{{1, SUPERVISION_ANSWERED, 1234567}}));
}

TEST_F(Engine, TellsSecondsAndNanosecondsApart)
{
    const session *s = add(5);
    pass(3 * SECOND);
    hand_in(answer_to(*s, 2 * SECOND + 7));
    EXPECT_EQ(reported, (std::vector<Reported>{{1, SUPERVISION_ANSWERED, 2 * SECOND + 7}}));
}

TEST_F(Engine, DeclaresARequestLostWhenTheNextIsDueAndNotBefore)
{
    add();
    pass(10 * MS + SECOND - 1);
    EXPECT_TRUE(reported.empty());
    pass(1);
    EXPECT_EQ(reported, (std::vector<Reported>{{1, SUPERVISION_LOST, -1}}));
    EXPECT_EQ(sent.size(), 2u);
}

TEST_F(Engine, TakesAnAnswerUntilTheNextRequestIsDue)
{
    const session *s = add();
    pass(10 * MS + SECOND - 1);
    hand_in(answer_to(*s, SECOND - 1));
    pass(1);
    EXPECT_EQ(reported, (std::vector<Reported>{{1, SUPERVISION_ANSWERED, SECOND - 1}}));
}

TEST_F(Engine, IgnoresAnAnswerThatCameTooLateOrTwice)
{
    const session *s = add();
    pass(10 * MS);
    const answer first = answer_to(*s, 500);
    pass(SECOND);
    reported.clear();
    hand_in(first); // to a request that was declared lost
    EXPECT_TRUE(reported.empty());
    hand_in(answer_to(*s, 500));
    hand_in(answer_to(*s, 500));
    EXPECT_EQ(reported.size(), 1u);
    EXPECT_EQ(e.counters.stale, 2u);
}

TEST_F(Engine, MatchesByDomainInterfaceAddressesTagAndId)
{
    const session *s = add();
    pass(10 * MS);
    const answer good = answer_to(*s, 500);
    answer wrong[7] = {good, good, good, good, good, good, good};
    wrong[0].key.domain++;
    wrong[1].key.if_index++;
    wrong[2].key.local.byte[5]++;
    wrong[3].key.remote.byte[5]++;
    wrong[4].key.vlan++;
    wrong[5].measurement_id++;
    wrong[6].key.tpid = 0x88A8;
    for (const answer &a : wrong) {
        hand_in(a);
        EXPECT_TRUE(reported.empty());
    }
    hand_in(good);
    EXPECT_EQ(reported.size(), 1u);
}

TEST_F(Engine, NeverGivesOneIdToTwoOutstandingRequestsBetweenTheSameAddresses)
{
    std::vector<const session *> twins;
    for (int i = 0; i < 200; i++) {
        twins.push_back(add());
    }
    pass(SECOND + 5 * MS);
    ASSERT_EQ(sent.size(), 200u);
    for (const session *s : twins) {
        hand_in(answer_to(*s, s->id));
    }
    ASSERT_EQ(reported.size(), 200u);
    for (const Reported &r : reported) {
        EXPECT_EQ(r.rtt, r.session);
    }
}

TEST_F(Engine, KeepAliveIsNeverReportedAsALinkIs)
{
    const session *s = add(1, SUPERVISION_TYPE_KEEP_ALIVE);
    pass(20 * MS);
    hand_in(answer_to(*s, 500));
    pass(SECOND);
    answer no_time = answer_to(*s, 500);
    no_time.time_valid = false;
    hand_in(no_time);
    pass(2 * SECOND);
    EXPECT_EQ(reported,
              (std::vector<Reported>{
                  {1, SUPERVISION_KEEP_ALIVE_OK, 500}, {1, SUPERVISION_KEEP_ALIVE_OK, -1}, {1, SUPERVISION_LOST, -1}}));
}

class UnusableTime : public Engine
{
protected:
    void expect_no_time(const session &s, const answer &a)
    {
        hand_in(a);
        EXPECT_EQ(reported, (std::vector<Reported>{{s.id, SUPERVISION_ANSWERED_NO_TIME, -1}}));
    }
};

TEST_F(UnusableTime, WhenTheFarEndSaysSo)
{
    const session *s = add();
    pass(20 * MS);
    answer a = answer_to(*s, 500);
    a.time_valid = false;
    expect_no_time(*s, a);
}

TEST_F(UnusableTime, WhenTheAnswerWasReceivedBeforeTheRequestWasSent)
{
    const session *s = add();
    pass(20 * MS);
    expect_no_time(*s, answer_to(*s, -1));
}

TEST_F(UnusableTime, WhenTheKernelGaveNoStamp)
{
    const session *s = add();
    pass(20 * MS);
    answer a = answer_to(*s, 500);
    a.received = 0;
    expect_no_time(*s, a);
}

TEST_F(UnusableTime, WhenTheClockWasSetInBetweenForwardsOrBack)
{
    for (const int64_t step : {5 * MS, -5 * MS}) {
        reported.clear();
        real_step = 0;
        const session *s = add();
        pass(20 * MS);
        real_step = step;
        answer a = answer_to(*s, 6 * MS);
        expect_no_time(*s, a);
        pass(SECOND);
        real_step = 0;
    }
}

TEST_F(Engine, CountsARequestThatCouldNotBeSentAsLostWhenItsTimeHasCome)
{
    add();
    send_result = ENETDOWN;
    pass(SECOND);
    EXPECT_TRUE(reported.empty());
    pass(10 * MS);
    EXPECT_EQ(reported, (std::vector<Reported>{{1, SUPERVISION_LOST, -1}}));
    EXPECT_EQ(e.counters.not_sent, 2u);
    EXPECT_EQ(e.counters.sent, 0u);
}

TEST_F(Engine, GivesAnUnansweredRequestOneMoreIntervalWhenItWasLateItself)
{
    const session *s = add();
    pass(10 * MS);
    const answer first = answer_to(*s, SECOND);
    EXPECT_EQ(starve(SECOND + LATE_SLOTS * SLOT_NS), LATE_SLOTS);
    EXPECT_TRUE(reported.empty());
    EXPECT_EQ(sent.size(), 2u) << "the next one leaves all the same";
    EXPECT_EQ(e.counters.extended, 1u);
    hand_in(first);
    EXPECT_EQ(reported, (std::vector<Reported>{{1, SUPERVISION_ANSWERED, SECOND}}));
    hand_in(answer_to(*s, 0));
    EXPECT_EQ(reported.size(), 2u);
}

TEST_F(Engine, IsNotLateOneSlotBelowTheLimit)
{
    add();
    pass(10 * MS);
    EXPECT_EQ(starve(SECOND + (LATE_SLOTS - 1) * SLOT_NS), 0);
    EXPECT_EQ(reported.size(), 1u);
}

TEST_F(Engine, ExtendsARequestOnlyOnceHoweverLateItStays)
{
    add();
    pass(10 * MS);
    starve(SECOND + 200 * MS);
    EXPECT_TRUE(reported.empty());
    starve(SECOND);
    ASSERT_FALSE(reported.empty());
    EXPECT_EQ(reported[0], (Reported{1, SUPERVISION_LOST, -1}));
}

// It gets to run once a second, each time late, as beside busy loops of a higher priority.
TEST_F(Engine, ReportsTheSixthLossOfACutWithinOneIntervalHoweverLateItIs)
{
    add();
    pass(10 * MS);
    now += 200 * MS;
    for (int seconds = 1; seconds <= 6; seconds++) {
        starve(SECOND);
    }
    EXPECT_EQ(reported, std::vector<Reported>(6, {1, SUPERVISION_LOST, -1})) << "the six that have had an interval";
    EXPECT_EQ(sent.size(), 7u);
}

// Each answer comes right after the turn at which it was missed: the far end is as short of time as the engine.
TEST_F(Engine, LosesNothingToAFarEndThatAnswersOneTurnLateWhileItIsLateItself)
{
    const session *s = add();
    pass(10 * MS);
    now += 200 * MS;
    for (int seconds = 1; seconds <= 20; seconds++) {
        const answer missed = answer_to(*s, SECOND);
        starve(SECOND);
        hand_in(missed);
    }
    EXPECT_EQ(reported.size(), 20u);
    for (const Reported &r : reported) {
        EXPECT_NE(r.result, uint32_t{SUPERVISION_LOST});
    }
}

TEST_F(Engine, IsPatientAgainAfterAnAnswerToARequestThatItHadGivenUp)
{
    const session *s = add();
    pass(10 * MS);
    now += 200 * MS;
    const answer first = answer_to(*s, SECOND);
    starve(SECOND);
    starve(SECOND); // the first is lost, and so is the second: no more excuses
    ASSERT_EQ(reported.size(), 2u);
    hand_in(first);
    ASSERT_EQ(reported.size(), 2u);
    starve(SECOND);
    EXPECT_EQ(reported.size(), 2u) << "the third gets its second interval";
}

// Its turn came in time, and then the process did not get to run until shortly before the next one.
TEST_F(Engine, JudgesNoRequestThatHasNotBeenOutForHalfAnInterval)
{
    const session *s = add();
    held_up = 950 * MS;
    starve(10 * MS);
    ASSERT_EQ(sent.size(), 1u);
    const answer first = answer_to(*s, 90 * MS);
    pass(100 * MS); // the next turn is 50 ms after the request
    EXPECT_TRUE(reported.empty());
    EXPECT_EQ(sent.size(), 2u);
    hand_in(first);
    EXPECT_EQ(reported, (std::vector<Reported>{{1, SUPERVISION_ANSWERED, 90 * MS}}));
}

TEST_F(Engine, KeepsItsSlotAfterALateRequest)
{
    const session *s = add();
    pass(10 * MS);
    hand_in(answer_to(*s, 500));
    starve(SECOND + 800 * MS); // 200 ms before its next turn
    ASSERT_EQ(sent.size(), 2u);
    pass(200 * MS);
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ((sent[2].at - sent[0].at) % SECOND, 0);
    EXPECT_EQ(reported.size(), 1u) << "no verdict on the late one yet";
}

TEST_F(Engine, DoesNotMakeUpForTurnsItMissed)
{
    const session *s = add();
    pass(10 * MS);
    hand_in(answer_to(*s, 500));
    starve(30 * SECOND);
    EXPECT_EQ(sent.size(), 2u);
}

TEST_F(Engine, ReportsNothingOfASessionThatWasRemoved)
{
    session *s = add();
    session *other = add();
    pass(SECOND);
    const answer late = answer_to(*s, 500);
    engine_remove(e, s);
    hand_in(late);
    pass(3 * SECOND);
    for (const Reported &r : reported) {
        EXPECT_EQ(r.session, other->id);
    }
    EXPECT_GE(reported.size(), 2u);
}

TEST_F(Engine, FindsASessionUnderItsNewKey)
{
    session *s = add();
    pass(10 * MS);
    answer a = answer_to(*s, 500);
    session_key moved = s->key;
    moved.if_index = 77;
    engine_rekey(e, s, moved);
    hand_in(a);
    EXPECT_TRUE(reported.empty());
    a.key = moved;
    hand_in(a);
    EXPECT_EQ(reported.size(), 1u);
}

// ---- Marks and ids ----

TEST(Keyed, IsSipHash)
{
    // The sixteen bytes 0 to 15 under the key of the bytes 0 to 15, as published with the function.
    EXPECT_EQ(keyed(KEY, 0x0706050403020100, 0x0F0E0D0C0B0A0908), 0x3F2ACC7F57C29BDBu);
}

TEST(IdOrder, HasEveryIdOnceBeforeAnyComesAgain)
{
    for (uint32_t session = 1; session <= 1000; session++) {
        id_order order = make_id_order(KEY, session);
        uint8_t round[256];
        std::vector<bool> seen(256);
        for (uint8_t &id : round) {
            id = next_id(&order);
            EXPECT_FALSE(seen[id]);
            seen[id] = true;
        }
        for (const uint8_t id : round) {
            EXPECT_EQ(next_id(&order), id);
        }
    }
}

// Of 10,000 sessions each: how often each first id is met, and each difference between a session's first two. A counter
// from 1 would have all in one place; chance has 39 in each, within 6.2 of it in two cases of three.
TEST(IdOrder, TellsNothingOfTheNextIdToWhoKnowsTheOneBefore)
{
    std::vector<int> firsts(256);
    std::vector<int> steps(256);
    for (uint32_t session = 1; session <= 10000; session++) {
        id_order order = make_id_order(KEY, session);
        const uint8_t first = next_id(&order);
        firsts[first]++;
        steps[static_cast<uint8_t>(next_id(&order) - first)]++;
    }
    EXPECT_EQ(steps[0], 0) << "no id follows itself";
    EXPECT_LE(*std::max_element(firsts.begin(), firsts.end()), 39 + 6 * 6);
    EXPECT_LE(*std::max_element(steps.begin(), steps.end()), 39 + 6 * 6);
    EXPECT_GE(*std::min_element(firsts.begin(), firsts.end()), 39 - 6 * 6);
    EXPECT_GE(*std::min_element(steps.begin() + 1, steps.end()), 39 - 6 * 6);
}

TEST_F(Engine, SendsNoMarkTwiceAndAnotherOneUnderAnotherKey)
{
    const session *s = add();
    pass(300 * SECOND);
    std::set<std::vector<uint8_t>> marks;
    for (const Sent &request : sent) {
        marks.insert({request.frame.begin() + 42 + 12, request.frame.begin() + 42 + 16});
    }
    EXPECT_EQ(marks.size(), sent.size());
    const mark ours = make_mark(KEY, mark_of_process(KEY), s->id, 1);
    const secret other_key = {1, 2};
    const mark other = make_mark(other_key, mark_of_process(other_key), s->id, 1);
    EXPECT_NE(ours.process.raw, other.process.raw);
    EXPECT_NE(ours.request.raw, other.request.raw);
}

TEST_F(Engine, TakesAnAnswerThatBringsItsDummyBytes)
{
    const session *s = add();
    pass(20 * MS);
    hand_in(echo_of(*s, 500));
    EXPECT_EQ(reported, (std::vector<Reported>{{1, SUPERVISION_ANSWERED, 500}}));
}

TEST_F(Engine, TakesAnAnswerWithoutDummyBytesFromAFarEndThatNeverBroughtAny)
{
    const session *s = add();
    for (int i = 0; i < 3; i++) {
        pass(SECOND);
        hand_in(answer_to(*s, 500));
    }
    EXPECT_EQ(reported.size(), 3u);
}

TEST_F(Engine, TakesNoAnswerWhoseDummyBytesAreNotThoseOfTheRequest)
{
    const session *s = add();
    pass(10 * MS);
    const answer good = echo_of(*s, 500);
    for (size_t i = 0; i < MARK_SIZE; i++) {
        answer wrong = good;
        wrong.bytes[i] ^= 1;
        hand_in(wrong);
    }
    answer shorter = good;
    shorter.dummy_bytes = 15;
    shorter.marked = 15;
    hand_in(shorter);
    EXPECT_TRUE(reported.empty());
    EXPECT_EQ(e.counters.foreign, MARK_SIZE + 1);
    hand_in(good);
    EXPECT_EQ(reported.size(), 1u);
}

TEST_F(Engine, TakesNoMarkOfAnEarlierRequestUnderTheIdOfTheLatest)
{
    const session *s = add();
    pass(10 * MS);
    answer replayed = echo_of(*s, 500);
    pass(SECOND);
    reported.clear();
    replayed.measurement_id = s->latest.measurement_id;
    hand_in(replayed);
    EXPECT_TRUE(reported.empty());
}

// Whoever sends all ids every second, with what can be known of a mark or with nothing.
TEST_F(Engine, ABlindSenderKeepsNoDeadLinkUpWhoseFarEndEchoes)
{
    const session *s = add();
    pass(10 * MS);
    hand_in(echo_of(*s, 500));
    reported.clear();
    for (uint32_t second = 2; second <= 9; second++) {
        pass(SECOND);
        flood(*s, 0);
        flood(*s, 26);
        flood(*s, 26, {to_be32(s->id), to_be32(second), {}, {}});
        flood(*s, 12, {to_be32(s->id), to_be32(second), {}, {}});
    }
    EXPECT_EQ(reported, std::vector<Reported>(7, {1, SUPERVISION_LOST, -1}));
}

TEST_F(Engine, KnowsOnlyFromTheSessionItselfWhetherItsFarEndEchoes)
{
    const session *s = add();
    const session *other = add(1, SUPERVISION_TYPE_LINK, 8);
    pass(SECOND);
    hand_in(echo_of(*s, 500));
    hand_in(answer_to(*other, 500));
    EXPECT_EQ(reported.size(), 2u);
    EXPECT_EQ(e.echoing, 1u);
}

TEST_F(Engine, BlindAnswersBuyADeadLinkNoMorePatience)
{
    const session *s = add();
    pass(10 * MS);
    hand_in(echo_of(*s, 500));
    reported.clear();
    for (int seconds = 1; seconds <= 8; seconds++) {
        starve(SECOND + (seconds == 1 ? 200 * MS : 0)); // late each time
        flood(*s, 0);
        flood(*s, 26, {to_be32(s->id), to_be32(1), {}, {}});
    }
    EXPECT_GE(reported.size(), 6u);
    for (const Reported &r : reported) {
        EXPECT_EQ(r.result, uint32_t{SUPERVISION_LOST});
    }
}

TEST_F(Engine, SendsFramesThatAreTooSmallForAMarkAndTakesTheirAnswers)
{
    session *s = add();
    for (const uint16_t size : {uint16_t{38}, uint16_t{41}, uint16_t{50}, uint16_t{53}, uint16_t{54}}) {
        s->frame_size = size;
        s->echoes = false;
        pass(SECOND);
        reported.clear();
        EXPECT_EQ(sent.back().frame.size(), size + 4u);
        hand_in(echo_of(*s, 500));
        EXPECT_EQ(reported.size(), 1u) << size;
        EXPECT_EQ(s->echoes, size > 38) << size;
    }
}

// ---- What was never sent, or never read ----

// It was stopped between the time stamp of the request and the call that sends it, and again until the next turn.
TEST_F(Engine, CountsTheTimeOfARequestFromItsSendingAndNotFromItsStamp)
{
    const session *s = add();
    pass(10 * MS);
    starve(10 * SECOND); // the first is given more time
    starve(SECOND);      // lost: no more excuses
    reported.clear();
    held_up_sending = 950 * MS;
    now = engine_deadline(e);
    engine_run(e, now, io());
    const answer late = answer_to(*s, 40 * MS);
    now = engine_deadline(e); // the next turn, 50 ms after the frame has left
    engine_run(e, now, io());
    ASSERT_EQ(reported.size(), 1u) << "the one before it";
    hand_in(late);
    ASSERT_EQ(reported.size(), 2u);
    EXPECT_EQ(reported.back().result, uint32_t{SUPERVISION_ANSWERED});
}

TEST_F(Engine, DoesNotJudgeARequestWhoseAnswerTheKernelMayHaveDropped)
{
    const session *s = add();
    pass(10 * MS);
    missed_frames_until = now;
    pass(SECOND);
    EXPECT_TRUE(reported.empty());
    EXPECT_EQ(e.counters.unjudged, 1u);
    EXPECT_EQ(sent.size(), 2u) << "the next one leaves";
    hand_in(answer_to(*s, 500));
    EXPECT_EQ(reported.size(), 1u);
}

TEST_F(Engine, JudgesARequestThatWasSentAfterTheLastDrop)
{
    add();
    pass(10 * MS - 1);
    missed_frames_until = now;
    pass(1 + SECOND);
    EXPECT_EQ(reported, (std::vector<Reported>{{1, SUPERVISION_LOST, -1}}));
}

TEST_F(Engine, ReportsACutOneIntervalLaterAtMostWhereTheKernelDropsFramesWithoutEnd)
{
    const session *s = add();
    pass(10 * MS);
    hand_in(answer_to(*s, 500));
    reported.clear();
    for (int seconds = 1; seconds <= 8; seconds++) {
        pass(SECOND);
        missed_frames_until = now;
    }
    EXPECT_EQ(reported, std::vector<Reported>(6, {1, SUPERVISION_LOST, -1})) << "of seven that had an interval";
}

TEST_F(Engine, DoesNotJudgeARequestThatFoundNoRoomOnThisMachine)
{
    for (const int no_room : {EAGAIN, ENOMEM}) {
        const session *s = add();
        send_result = no_room;
        pass(SECOND);
        send_result = 0;
        reported.clear();
        pass(SECOND);
        for (const Reported &r : reported) {
            EXPECT_NE(r.session, s->id);
        }
    }
    EXPECT_EQ(e.counters.unjudged, 2u);
}

TEST_F(Engine, ReportsALinkOnWhichNothingCanBeSentAnyMoreAllTheSame)
{
    add();
    send_result = EAGAIN;
    pass(10 * MS + 7 * SECOND);
    EXPECT_EQ(reported, std::vector<Reported>(6, {1, SUPERVISION_LOST, -1}));
}

} // namespace
