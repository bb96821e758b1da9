// RTT samples, their statistics and their reports.
#include "manager/links/rtt.hpp"

#include <gmock/gmock.h>

#include <deque>
#include <random>

#include "support/daemon.hpp"

namespace
{

using daemon_test::make_link_data;
using daemon_test::Message;
using fake::Builder;
using fake::Trace;
using testing::ElementsAre;
using testing::IsEmpty;

struct Sample {
    uint8_t valid;
    uint32_t sec;
    uint32_t nsec;
};

class RttSamples : public daemon_test::DaemonTest
{
protected:
    iml_link *link = nullptr;

    void SetUp() override
    {
        DaemonTest::SetUp();
        link = iml_link_alloc(make_link_data({}));
        iml_link_insert(link);
    }
    void record(uint32_t result, uint32_t sec = 0, uint32_t nsec = 0)
    {
        const supervision_rtt rtt = {sec, nsec};
        rtt_record_sample(result, &rtt, link);
    }
    [[nodiscard]] std::vector<uint32_t> nsecs() const
    {
        std::vector<uint32_t> found;
        for (uint32_t i = 0; i < link->rtt_samples.count; ++i) {
            found.push_back(rtt_sample_at(link->rtt_samples, i).rtt_nsec);
        }
        return found;
    }
    rtt_stats stats_of(const std::vector<Sample> &samples, uint32_t count)
    {
        rtt_samples_clear(&link->rtt_samples);
        for (const Sample &s : samples) {
            record(s.valid == 1 ? 0 : 1, s.sec, s.nsec);
        }
        rtt_stats stats;
        memset(&stats, 0xEE, sizeof stats);
        rtt_compute_stats(&link->rtt_samples, count, &stats);
        return stats;
    }
    static std::string text(const rtt_stats &s)
    {
        return std::to_string(s.min_sec) + "." + std::to_string(s.min_nsec) + " " + std::to_string(s.avg_sec) + "." +
               std::to_string(s.avg_nsec) + " " + std::to_string(s.max_sec) + "." + std::to_string(s.max_nsec) + " " +
               std::to_string(s.rtt_validity);
    }
};

TEST_F(RttSamples, AreKeptOfResults0And1And3Only)
{
    for (uint32_t result = 0; result < 6; ++result) {
        record(result, result, 10 + result);
    }
    EXPECT_THAT(nsecs(), ElementsAre(10, 11, 13));
    EXPECT_EQ(rtt_sample_at(link->rtt_samples, 0).valid, 1);
    EXPECT_EQ(rtt_sample_at(link->rtt_samples, 1).valid, 0);
    EXPECT_EQ(rtt_sample_at(link->rtt_samples, 2).valid, 0);
    EXPECT_EQ(rtt_sample_at(link->rtt_samples, 2).rtt_sec, 3u);
}

TEST_F(RttSamples, AreAtMost60AndTheOldestGoesFirst)
{
    for (uint32_t i = 1; i <= 60; ++i) {
        record(0, 0, i);
    }
    EXPECT_EQ(nsecs().front(), 1u);
    record(0, 0, 61);
    EXPECT_EQ(nsecs().size(), 60u);
    EXPECT_EQ(link->rtt_samples.count, 60u);
    EXPECT_EQ(nsecs().front(), 2u);
    EXPECT_EQ(nsecs().back(), 61u);
}

// The ring is used again and again: each place has its own validity.
TEST_F(RttSamples, AreWhatAPlainListKeepsHoweverManyCome)
{
    std::mt19937 random(60); // NOLINT: the same samples every time
    std::deque<Sample> plain;
    for (int step = 0; step < 1000; ++step) {
        const Sample sample = {static_cast<uint8_t>(random() % 2), static_cast<uint32_t>(random() % 3),
                               static_cast<uint32_t>(random())};
        record(sample.valid == 1 ? 0 : 1, sample.sec, sample.nsec);
        plain.push_back(sample);
        if (plain.size() > 60) {
            plain.pop_front();
        }
        ASSERT_EQ(link->rtt_samples.count, plain.size());
        for (uint32_t i = 0; i < plain.size(); ++i) {
            const rtt_sample kept = rtt_sample_at(link->rtt_samples, i);
            ASSERT_EQ(kept.valid, plain[i].valid) << step << " " << i;
            ASSERT_EQ(kept.rtt_sec, plain[i].sec);
            ASSERT_EQ(kept.rtt_nsec, plain[i].nsec);
        }
    }
}

TEST_F(RttSamples, OfALinkLieInOneBlock)
{
    const unsigned before = fake::allocations();
    for (uint32_t i = 1; i <= 100; ++i) {
        record(0, 0, i);
    }
    EXPECT_EQ(fake::allocations() - before, 1u);
    rtt_samples_clear(&link->rtt_samples);
    EXPECT_THAT(nsecs(), IsEmpty());
    record(0, 0, 7);
    EXPECT_THAT(nsecs(), ElementsAre(7));
}

TEST_F(RttSamples, AreNotKeptWithoutATimeOrALink)
{
    rtt_record_sample(0, nullptr, link);
    const supervision_rtt rtt = {0, 1};
    rtt_record_sample(0, &rtt, nullptr);
    EXPECT_THAT(fake::traces(),
                ElementsAre(Trace{1, "Pointer to rtt data is null"}, Trace{1, "Pointer to iml link is null"}));
    EXPECT_EQ(link->rtt_samples.count, 0u);
}

TEST_F(RttSamples, AreNotKeptWhenMemoryIsOut)
{
    link->rtt_enabled = 1;
    fake::fail_allocation(1);
    record(0, 0, 1);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Memory error"}));
    EXPECT_EQ(link->rtt_samples.count, 0u);
    EXPECT_EQ(link->samples_since_report, 0u);
}

TEST_F(RttSamples, AreCountedForAReportOnlyWhileRttIsEnabled)
{
    record(0, 0, 1);
    EXPECT_EQ(link->samples_since_report, 0u);
    link->rtt_enabled = 1;
    record(0, 0, 1);
    record(2, 0, 1);
    EXPECT_EQ(link->samples_since_report, 1u) << "result 2 adds no sample and does not advance the batch";
}

TEST_F(RttSamples, HaveTheirMinimumMeanAndMaximum)
{
    EXPECT_EQ(text(stats_of({{1, 0, 100}, {1, 0, 101}, {1, 0, 103}}, 3)), "0.100 0.101 0.103 1")
        << "the mean truncates";
    EXPECT_EQ(text(stats_of({{1, 1, 999999999}, {1, 2, 1}, {1, 2, 0}}, 3)), "1.999999999 2.0 2.1 1");
    EXPECT_EQ(text(stats_of({{1, 4294967295u, 999999999}}, 1)), "4294967295.999999999 4294967295.999999999 "
                                                                "4294967295.999999999 1");
}

TEST_F(RttSamples, AreTakenFromTheNewest)
{
    EXPECT_EQ(text(stats_of({{1, 0, 900}, {1, 0, 10}, {1, 0, 20}}, 2)), "0.10 0.15 0.20 1");
    EXPECT_EQ(text(stats_of({{1, 0, 10}, {1, 0, 20}}, 50)), "0.10 0.15 0.20 1") << "not beyond the oldest";
    EXPECT_EQ(text(stats_of({{1, 0, 10}}, 0)), "0.0 0.0 0.0 0");
}

TEST_F(RttSamples, AreLeftOutWhenTheyAreNotValid)
{
    EXPECT_EQ(text(stats_of({{0, 0, 1}, {1, 0, 50}, {0, 9, 9}}, 3)), "0.50 0.50 0.50 1");
    EXPECT_EQ(text(stats_of({{0, 0, 1}, {0, 0, 2}}, 2)), "0.0 0.0 0.0 0");
    EXPECT_EQ(text(stats_of({{1, 0, 900}, {0, 0, 0}, {1, 0, 20}}, 2)), "0.20 0.20 0.20 1")
        << "one that is not valid has its place among the newest";
}

TEST_F(RttSamples, KeepTheFirstOfEqualOnes) { EXPECT_EQ(text(stats_of({{1, 3, 7}, {1, 3, 7}}, 2)), "3.7 3.7 3.7 1"); }

TEST_F(RttSamples, AreNotComputedWithoutCollectionOrResult)
{
    rtt_stats stats = {};
    rtt_compute_stats(nullptr, 1, &stats);
    rtt_compute_stats(&link->rtt_samples, 1, nullptr);
    EXPECT_THAT(fake::traces(), ElementsAre(Trace{1, "Pointer to rtt collection is null"},
                                            Trace{1, "Pointer to measure data is null"}));
}

// ---- Reports ----

class RttReport : public daemon_test::DaemonTest
{
protected:
    uint32_t session = 0;
    iml_link *link = nullptr;

    void SetUp() override
    {
        DaemonTest::SetUp();
        start();
        session = open_session();
        ASSERT_EQ(create_link(session, {}), 1u);
        link = iml_link_first();
        forget_records();
    }
    void enable(uint16_t batch, uint16_t interval = 1, uint16_t frame_size = 64)
    {
        request(enable_rtt_request(session, 50, 1, batch, interval, frame_size));
        take_to(daemon_test::CLIENT, IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM);
        forget_records();
    }
    void measure(uint32_t result, uint32_t sec = 0, uint32_t nsec = 0)
    {
        supervision(link->supervision_session_id, result, sec, nsec);
    }
    static std::vector<std::string> reports()
    {
        std::vector<std::string> found;
        for (const Message &m : messages_to(daemon_test::CLIENT)) {
            if (m.msgno() == IEMLI_INTER_ME_LINK_RTT_IND) {
                found.push_back(fake::to_hex({m.bytes.begin() + 12, m.bytes.end()}));
            }
        }
        return found;
    }
    static std::string report(uint32_t min, uint32_t avg, uint32_t max)
    {
        return fake::to_hex(Builder().u32(1).u32(0).u32(min).u32(0).u32(avg).u32(0).u32(max).u8(1).zeros(3));
    }
};

TEST_F(RttReport, ComesWithTheLastSampleOfABatch)
{
    enable(5);
    for (uint32_t nsec : {100u, 102u, 101u, 104u}) {
        measure(0, 0, nsec);
    }
    EXPECT_THAT(reports(), IsEmpty());
    measure(0, 0, 101);
    EXPECT_THAT(reports(), ElementsAre(report(100, 101, 104))) << "508 / 5 truncated";
    EXPECT_EQ(link->samples_since_report, 0u);
    EXPECT_TRUE(fake::traced(13, "Sending rtt ind with: min_sec=0, min_nsec=100,max_sec=0, max_nsec=104, avg_sec=0, "
                                 "avg_nsec=101,rtt_validity=1, link_ref=1, connection_ref=1"));
}

TEST_F(RttReport, OfABatchWithoutAnyGoodResultIsAllZero)
{
    enable(2);
    measure(1, 3, 3);
    measure(3);
    EXPECT_THAT(reports(), ElementsAre(fake::to_hex(Builder().u32(1).zeros(28))));
}

TEST_F(RttReport, DoesNotComeForResult2)
{
    enable(2);
    measure(0, 0, 7);
    measure(2, 0, 9);
    EXPECT_THAT(reports(), IsEmpty());
    measure(0, 0, 9);
    EXPECT_THAT(reports(), ElementsAre(report(7, 8, 9)));
}

TEST_F(RttReport, TakesTheBatchFromWhatWasCounted)
{
    enable(2);
    measure(0, 0, 1);
    link->rtt_enabled = 0;
    measure(0, 0, 4);
    link->rtt_enabled = 1;
    link->samples_since_report = 2; // more than a batch
    measure(0, 0, 7);
    EXPECT_EQ(link->samples_since_report, 1u) << "the batch is subtracted, the rest goes on";
    EXPECT_THAT(reports(), ElementsAre(report(1, 4, 7))) << "over all that was counted";
}

TEST_F(RttReport, DoesNotComeWhileRttIsDisabled)
{
    for (int i = 0; i < 20; ++i) {
        measure(0, 0, 7);
    }
    EXPECT_THAT(reports(), IsEmpty());
    EXPECT_EQ(link->rtt_samples.count, 20u) << "samples are kept all the same";
}

TEST_F(RttReport, GoesToTheAutomationAgentInNanosecondsOfASecond)
{
    start_aasi();
    enable(2);
    measure(0, 1, 200000000);
    forget_records();
    measure(0, 1, 200000002);
    const Message info = take_to(daemon_test::AASI, 0x1A00446);
    EXPECT_EQ(fake::to_hex({info.bytes.begin() + 12, info.bytes.end()}),
              fake::to_hex(Builder().n32(1).n32(200000000).n32(200000002).n32(200000001).n32(1)));
}

TEST_F(RttReport, TellsTheAutomationAgentTheStatusThatTheLinkHas)
{
    start_aasi();
    enable(2);
    measure(3);
    forget_records();
    measure(3);
    const Message info = take_to(daemon_test::AASI, 0x1A00446);
    EXPECT_EQ(fake::to_hex({info.bytes.begin() + 12, info.bytes.end()}),
              fake::to_hex(Builder().n32(1).n32(0).n32(0).n32(0).n32(0)));
}

TEST_F(RttReport, DoesNotGoToAnAutomationAgentThatIsDown)
{
    start_aasi();
    handle_service_event(AASI_SERVICE_DOWN);
    enable(2);
    measure(0, 0, 7);
    measure(0, 0, 7);
    EXPECT_EQ(reports().size(), 1u);
    EXPECT_THAT(messages_to(daemon_test::AASI), IsEmpty());
}

// The result changes the status first, then it is a sample; the owner hears of each before the automation agent does.
TEST_F(RttReport, FollowsTheStatusThatItsLastSampleChanged)
{
    start_aasi();
    enable(2);
    measure(3);
    forget_records();
    measure(0, 0, 7);
    std::vector<std::pair<uint32_t, uint32_t>> sent;
    for (const fake::Sent &message : fake::sent()) {
        sent.emplace_back(message.to, message.msgno());
    }
    EXPECT_THAT(sent, ElementsAre(testing::Pair(daemon_test::CLIENT, IEMLI_INTER_ME_LINK_STATUS_IND),
                                  testing::Pair(daemon_test::AASI, 0x1A00446),
                                  testing::Pair(daemon_test::CLIENT, IEMLI_INTER_ME_LINK_RTT_IND),
                                  testing::Pair(daemon_test::AASI, 0x1A00446)));
}

TEST_F(RttReport, SettingsRestartTheSession)
{
    const uint32_t before = link->supervision_session_id;
    request(enable_rtt_request(session, 50, 1, 4, 15, 1500));
    EXPECT_EQ(take_to(daemon_test::CLIENT, IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM).word(1), 50u);
    EXPECT_EQ(fake::sessions().count(before), 0u);
    const supervision_params &params = fake::sessions().at(link->supervision_session_id).params;
    EXPECT_EQ(params.interval, 15u);
    EXPECT_EQ(params.frameSize, 1500);
    EXPECT_EQ(link->rtt_enabled, 1u);
    EXPECT_EQ(link->rtt.batchSize, 4);
}

TEST_F(RttReport, SettingsAreTheDefaultsAgainWhenRttIsDisabled)
{
    enable(4, 15, 1500);
    const uint32_t before = link->supervision_session_id;
    request(disable_rtt_request(session, 51, 1));
    take_to(daemon_test::CLIENT, IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM);
    EXPECT_EQ(link->rtt_enabled, 0u);
    EXPECT_EQ(link->rtt.batchSize, 5);
    EXPECT_EQ(link->rtt.measureInterval, 1);
    EXPECT_EQ(link->rtt.frameSize, 64);
    EXPECT_NE(link->supervision_session_id, before);
    EXPECT_EQ(fake::sessions().at(link->supervision_session_id).params.interval, 1u);
}

TEST_F(RttReport, SettingsEmptyTheSamplesByTheRestartAlone)
{
    measure(0, 0, 7);
    set_port("IDLA1", 1, 0); // no session to restart
    ASSERT_EQ(link->rtt_samples.count, 0u);
    const supervision_rtt rtt = {0, 9};
    rtt_record_sample(0, &rtt, link);
    EXPECT_TRUE(rtt_enable(1, {5, 1, 64}));
    EXPECT_EQ(link->rtt_samples.count, 1u) << "enabling by itself keeps them";
    EXPECT_TRUE(fake::sessions().empty());
}

// Else the link would stand as enabled, and nobody would ping.
TEST_F(RttReport, LeavesTheSessionAsItIsWhereItsNamespaceCannotBeEntered)
{
    const uint32_t before = link->supervision_session_id;
    fake::set_next_session_id(900);
    fake::remove_netns("ns_a1");
    EXPECT_TRUE(rtt_enable(1, {5, 1, 64}));
    EXPECT_EQ(link->supervision_session_id, before);
    EXPECT_EQ(link->supervision_state, SUPERVISION_RUNNING);
    EXPECT_EQ(fake::sessions().count(before), 1u);
    EXPECT_TRUE(fake::traced(1, "Supervision start failed for link: 1. Result: 1"));
}

TEST_F(RttReport, TellsWhenTheSessionDoesNotStartAgain)
{
    fake::set_start_result(3);
    EXPECT_TRUE(rtt_enable(1, {5, 1, 64}));
    EXPECT_TRUE(fake::traced(1, "Supervision start failed for link: 1. Result: 3"));
    EXPECT_EQ(link->supervision_state, SUPERVISION_FAILED);
}

TEST_F(RttReport, IsNotEnabledForAnUnknownLink)
{
    EXPECT_FALSE(rtt_enable(9, {5, 1, 64}));
    rtt_disable(9);
    EXPECT_EQ(fake::count_traced(6, "Tried to fetch link with ref 9 that doesn't exist anymore."), 2u);
}

TEST_F(RttReport, IsNotEnabledForALinkWhosePortIsGone)
{
    iepcsi_client_forget_all();
    EXPECT_FALSE(rtt_enable(1, {4, 15, 1500}));
    EXPECT_EQ(link->rtt_enabled, 0u);
    EXPECT_EQ(link->rtt.batchSize, 5);
    EXPECT_TRUE(fake::traced(1, "Failed to get port data"));
}

TEST_F(RttReport, IsDisabledAlsoForALinkWhosePortIsGone)
{
    enable(4, 15, 1500);
    iepcsi_client_forget_all();
    rtt_disable(1);
    EXPECT_EQ(link->rtt_enabled, 0u);
    EXPECT_EQ(link->rtt.batchSize, 5);
    EXPECT_TRUE(fake::traced(1, "Failed to get port data"));
}

TEST_F(RttReport, IsLeftWithoutARestartOnATnPortThatDoesNotKnowTheVlan)
{
    ASSERT_EQ(create_link(session, {.port = "TN_A", .vlan = 200, .app_links = {}}), 2u);
    EXPECT_TRUE(rtt_enable(2, {4, 15, 1500}));
    EXPECT_EQ(iml_link_look_up(2)->supervision_state, SUPERVISION_NOT_RUNNING);
}

} // namespace
