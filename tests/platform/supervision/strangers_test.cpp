// Frames of somebody who is not the far end: what he can send without seeing the requests, and how much of it; and what
// the far end itself does not answer.
#include "network.hpp"
#include "stranger.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <optional>
#include <thread>

#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using net::Bytes;
using net::count_of;
using net::FarEnd;
using net::Flood;
using net::frame_of;
using net::NetworkTest;
using net::OTHER_MAC;
using net::REQUEST;
using net::Stranger;
using net::wait_for;
using net::Written;
using net::zeros;

class Strangers : public NetworkTest
{
protected:
    static size_t answers_of(uint32_t session)
    {
        return count_of(session, SUPERVISION_ANSWERED) + count_of(session, SUPERVISION_ANSWERED_NO_TIME);
    }
    static bool answered(uint32_t session, size_t times)
    {
        return wait_for([=] { return answers_of(session) >= times; }, 20);
    }
    static bool lost(uint32_t session, size_t times)
    {
        return wait_for([=] { return count_of(session, SUPERVISION_LOST) >= times; }, 30);
    }
    // While `send` is called over and over, the session loses `times` more requests, and none is answered.
    static void expect_only_losses(uint32_t session, size_t times, const std::function<void()> &send)
    {
        const size_t answers = answers_of(session);
        const size_t losses = count_of(session, SUPERVISION_LOST);
        ASSERT_TRUE(wait_for(
            [&] {
                send();
                return count_of(session, SUPERVISION_LOST) >= losses + times;
            },
            30));
        EXPECT_EQ(answers_of(session), answers);
    }
};

TEST_F(Strangers, ChangeNothingFromOtherAddressesUnderOtherTagsOrWithFramesThatAreTooShort)
{
    lay_cable();
    const FarEnd far({"far0"});
    far.set({.silent = true});
    const uint32_t session = start(params());
    const Stranger stranger("far", "far0");
    expect_only_losses(session, 1, [&] {
        Written other_source;
        other_source.source = OTHER_MAC;
        stranger.send_all_ids(other_source);
        Written other_destination;
        other_destination.destination = OTHER_MAC;
        stranger.send_all_ids(other_destination);
        Written other_vlan;
        other_vlan.tag[3] = 0x65;
        stranger.send_all_ids(other_vlan);
        Written other_protocol;
        other_protocol.tag[0] = 0x88;
        other_protocol.tag[1] = 0xA8;
        stranger.send_all_ids(other_protocol);
        Written without_tag;
        without_tag.tag.clear();
        stranger.send_all_ids(without_tag);
        Written request;
        request.action = REQUEST;
        stranger.send_all_ids(request);
        const Bytes whole = frame_of({});
        for (size_t kept = 14; kept < whole.size(); kept++) {
            stranger.send({whole.begin(), whole.begin() + static_cast<ptrdiff_t>(kept)});
        }
    });
    far.set({});
    EXPECT_TRUE(answered(session, 1));
}

TEST_F(Strangers, KeepNoDeadLinkUpWithAllIdsWhereTheFarEndEchoes)
{
    lay_cable();
    const FarEnd far({"far0"});
    const uint32_t session = start(params());
    ASSERT_TRUE(answered(session, 2));
    far.set({.silent = true});
    ASSERT_TRUE(lost(session, 1));
    const Stranger stranger("far", "far0");
    Bytes guess = zeros(26);
    guess[3] = static_cast<uint8_t>(session);
    expect_only_losses(session, 6, [&] {
        stranger.send_all_ids({});
        stranger.send_all_ids({.dummies = zeros(26)});
        guess[7]++;
        stranger.send_all_ids({.dummies = guess});
    });
    far.set({});
    EXPECT_TRUE(answered(session, answers_of(session) + 1));
}

// It answers as a far end may that does not send dummy bytes back: with none, in a frame that the cable fills up.
class ForeignFarEnd
{
public:
    explicit ForeignFarEnd(Bytes dummies)
        : socket_("far", "far0"), dummies_(std::move(dummies)), thread_([this] { run(); })
    {
    }
    ~ForeignFarEnd()
    {
        ended_ = true;
        thread_.join();
    }
    ForeignFarEnd(const ForeignFarEnd &) = delete;
    ForeignFarEnd &operator=(const ForeignFarEnd &) = delete;

private:
    void run()
    {
        const net::Inside there("far");
        const int listener = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(0x0003)); // all protocols
        const timeval patience{0, 20000};
        setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        uint8_t request[128];
        while (!ended_) {
            // The kernel has taken the tag off: the id stands at 18, the action behind it.
            const ssize_t got = recv(listener, request, sizeof request, 0);
            if (got >= 38 && request[12] == 0xAE && request[13] == 0xFE && request[19] == REQUEST &&
                memcmp(request, net::FAR_MAC.byte, 6) == 0) {
                Written answer;
                answer.id = request[18];
                answer.dummies = dummies_;
                Bytes frame = frame_of(answer);
                frame.resize(64); // padding
                socket_.send(frame);
            }
        }
        close(listener);
    }

    Stranger socket_;
    Bytes dummies_;
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

TEST_F(Strangers, AreFarEndsTooThatAnswerWithoutDummyBytes)
{
    lay_cable();
    const ForeignFarEnd far({});
    const uint32_t session = start(params());
    ASSERT_TRUE(answered(session, 3));
    EXPECT_EQ(count_of(session, SUPERVISION_LOST), 0u);
}

TEST_F(Strangers, AreNotBelievedWithDummyBytesOfTheirOwn)
{
    lay_cable();
    const ForeignFarEnd far(zeros(22));
    const uint32_t session = start(params());
    ASSERT_TRUE(lost(session, 2));
    EXPECT_EQ(answers_of(session), 0u);
}

// ---- More frames than anybody can read ----

// The link is up and its far end echoes: what does not bring its mark is not even queued.
TEST_F(Strangers, LoseNothingAndHoldNobodyUpWithAFloodOfLookAlikes)
{
    lay_cable();
    const FarEnd far({"far0"});
    const uint32_t session = start(params());
    ASSERT_TRUE(answered(session, 2));
    const Stranger stranger("far", "far0");
    const Flood without(stranger, frame_of({}));
    const Flood with(stranger, frame_of({.dummies = zeros(26)}));
    const size_t before = answers_of(session);
    ASSERT_TRUE(answered(session, before + 8));
    EXPECT_EQ(count_of(session, SUPERVISION_LOST), 0u);
    // Who starts and stops sessions has his turn, and what is new is answered too.
    const uint32_t another = start(params());
    ASSERT_TRUE(answered(another, 3));
    EXPECT_EQ(stop(another), 0u);
    // Nor is a cut hidden or late.
    far.set({.silent = true});
    const auto cut = std::chrono::steady_clock::now();
    const size_t answers = answers_of(session);
    ASSERT_TRUE(lost(session, 6));
    EXPECT_LE(answers_of(session), answers + 1) << "but one that was under way";
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - cut;
    RecordProperty("seconds_until_the_sixth_loss", std::to_string(took.count()));
}

// The thread is held up in a callback while more frames arrive than it used to read in a turn, and behind them the
// answer; by then the session's next turn has come.
TEST_F(Strangers, HideNoAnswerBehindMoreFramesThanATurnUsedToRead)
{
    lay_cable();
    const FarEnd far({"far0"});
    far.set({.delay_us = 500000});
    static std::atomic<int64_t> hold_ms;
    hold_ms = 850; // until shortly after the watched one's second request is due
    supervision_params p = params();
    p.vlantag = 0x8100E065;
    uint32_t holding = 0;
    ASSERT_EQ(start_supervision_session(&holding, &p,
                                        [](const supervision_rtt *, uint32_t, uint32_t) {
                                            std::this_thread::sleep_for(std::chrono::milliseconds(hold_ms.exchange(0)));
                                        }),
              0u);
    // The first answer to the holding one, half a second after its request, holds the thread up. The watched one's
    // request leaves shortly before, its answer comes when all of the others' frames are there.
    ASSERT_TRUE(wait_for([&] { return !far.counters().empty(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const uint32_t watched = start(params());
    ASSERT_TRUE(wait_for([] { return hold_ms == 0; }));
    const Stranger stranger("far", "far0");
    const Bytes frame = frame_of({.source = OTHER_MAC, .dummies = {}});
    for (int i = 0; i < 12000; i++) {
        stranger.send(frame);
    }
    ASSERT_TRUE(answered(watched, 2));
    EXPECT_EQ(count_of(watched, SUPERVISION_LOST), 0u);
    EXPECT_EQ(stop(holding), 0u);
}

// ---- What the far end does not answer ----

class FarEndAlone : public Strangers
{
protected:
    void SetUp() override
    {
        Strangers::SetUp();
        lay_cable();
        far_.emplace(std::vector<std::string>{"far0"});
        near_.emplace("", "near0");
    }
    static Written request()
    {
        return {.destination = net::FAR_MAC, .source = net::NEAR_MAC, .action = REQUEST, .dummies = zeros(26)};
    }
    // It takes no note of the frame; it does of a good one behind it.
    void expect_unanswered(const Written &w)
    {
        near_->send(frame_of(w));
        near_->send(frame_of(request()));
        good_++;
        const auto has_answered_the_good_ones = [&] {
            const auto all = far_->counters();
            return std::any_of(all.begin(), all.end(), [&](const far_end_counters &c) {
                return mac_equal(c.peer, net::NEAR_MAC) && c.answered >= good_;
            });
        };
        ASSERT_TRUE(wait_for(has_answered_the_good_ones));
        const auto all = far_->counters();
        ASSERT_EQ(all.size(), 1u);
        EXPECT_EQ(all[0].requests, good_);
    }
    std::optional<FarEnd> far_;
    std::optional<Stranger> near_;
    uint64_t good_ = 0;
};

TEST_F(FarEndAlone, AnswersNoRequestToAGroup)
{
    Written w = request();
    w.destination = {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}};
    expect_unanswered(w);
    w.destination = {{0x01, 0x80, 0xC2, 0, 0, 0x0E}};
    expect_unanswered(w);
}

TEST_F(FarEndAlone, AnswersNoRequestToSomebodyElse)
{
    Written w = request();
    w.destination = OTHER_MAC;
    expect_unanswered(w);
}

TEST_F(FarEndAlone, AnswersNoRequestFromAGroupFromNobodyOrFromItself)
{
    for (const mac_address &source : {mac_address{{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
                                      mac_address{{0x03, 0, 0, 0, 0, 1}}, mac_address{}, net::FAR_MAC}) {
        Written w = request();
        w.source = source;
        expect_unanswered(w);
    }
}

TEST_F(FarEndAlone, AnswersForEveryAddressWhenItIsToldTo)
{
    far_->set({.any_address = true});
    Written w = request();
    w.destination = OTHER_MAC;
    near_->send(frame_of(w));
    EXPECT_TRUE(wait_for([&] { return !far_->counters().empty() && far_->counters()[0].answered == 1; }));
}

} // namespace
