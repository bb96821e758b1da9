// The tour's act of the round trips: what the daemon reports of a batch is held against a capture on the near end of
// the wire and against what the far end has counted.
#include <algorithm>
#include <cstdlib>

#include "slowness.hpp"
#include "tour.hpp"

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

namespace
{

constexpr rtt_settings SETTINGS = {3, 1, 128};
constexpr rtt_settings DO_NOT_FIT = {7, 8, 64}; // 56 seconds a batch: a minute has no whole number of them
constexpr uint16_t USUAL_FRAME_SIZE = 64;
constexpr auto BATCH_BOUND = 6s;

std::string refused(demo &d, const rtt_settings &settings, uint32_t reason)
{
    iemli_answer answer = iemli_client_enable_rtt(d.client, d.links[0].link_ref, settings);
    hold(answer.outcome == iemli_outcome::rejected && answer.reason == reason,
         std::string("RTT was not rejected with ") + iemli_client_reason_name(reason));
    return std::string("rejected with ") + iemli_client_reason_name(answer.reason);
}

// ---- The wire -------------------------------------------------------------------------------------------------------

bool all_answered(const wire_capture &wire)
{
    return std::all_of(wire.pings.begin(), wire.pings.end(), [](const wire_ping &p) { return p.answered != 0; });
}

// What the far end has answered at a moment when no ping was on its way: the capture shows nothing new from before the
// question to after the answer. From there on the far end's count and the capture's must go up side by side.
struct moment {
    uint64_t far_end_answered;
    size_t captured;
};

moment quiet_moment(tour &t)
{
    moment found{};
    stage_wait(t.d.stage, "a moment without a ping under way", FIRST_ANSWER_BOUND, [&] {
        capture_drain(t.wire);
        found = {demo_far_end_counts(t.d.links[0]).answered, t.wire.pings.size()};
        const bool quiet = found.captured > 0 && all_answered(t.wire);
        capture_drain(t.wire);
        return quiet && t.wire.pings.size() == found.captured;
    });
    return found;
}

// ---- A batch --------------------------------------------------------------------------------------------------------

void hold_near(const char *what, int64_t daemon, int64_t wire, int64_t tolerance)
{
    hold(std::abs(daemon - wire) <= tolerance, std::string(what) + " round trip is " + std::to_string(daemon) +
                                                   " ns, on the wire it was " + std::to_string(wire) + " ns; at most " +
                                                   std::to_string(tolerance) + " ns may lie between");
}

int64_t nanoseconds(uint32_t sec, uint32_t nsec) { return int64_t{sec} * 1'000'000'000 + nsec; }

void hold_zero(const rtt_stats &stats)
{
    hold(stats.rtt_validity == 0, "a batch without an answer is called valid");
    hold(stats.min_sec == 0 && stats.min_nsec == 0 && stats.avg_sec == 0 && stats.avg_nsec == 0 && stats.max_sec == 0 &&
             stats.max_nsec == 0,
         "a batch without an answer has figures");
}

void hold_agrees(tour &t, const rtt_stats &stats, const wire_figures &wire)
{
    if (wire.answered == 0) {
        hold_zero(stats);
        return;
    }
    hold(stats.rtt_validity == 1, "a batch with answers is not valid");
    const int64_t average = nanoseconds(stats.avg_sec, stats.avg_nsec);
    hold_near("the shortest", nanoseconds(stats.min_sec, stats.min_nsec), wire.minimum, t.tolerance.single);
    hold_near("the longest", nanoseconds(stats.max_sec, stats.max_nsec), wire.maximum, t.tolerance.single);
    hold_near("the average", average, wire.average, t.tolerance.average);
    t.apart = std::max(t.apart, std::abs(average - wire.average));
}

wire_figures figures_of_batch(const std::vector<wire_ping> &pings, size_t batch)
{
    const size_t first = batch * SETTINGS.batchSize;
    hold(pings.size() >= first + SETTINGS.batchSize, "a batch was reported before its pings were on the wire");
    return capture_figures(pings, first, first + SETTINGS.batchSize);
}

// Every batch that came and was not looked at yet.
void hold_batches_agree(tour &t)
{
    capture_drain(t.wire);
    const auto pings = capture_pings_of_size(t.wire, SETTINGS.frameSize);
    for (; t.agreed < t.d.links[0].batches.size(); t.agreed++) {
        hold_agrees(t, t.d.links[0].batches[t.agreed], figures_of_batch(pings, t.agreed));
    }
}

void wait_batches(tour &t, size_t count)
{
    const auto start = clock_type::now();
    while (t.d.links[0].batches.size() < count) {
        hold(since(start) < BATCH_BOUND * slowness(), "no RTT indication came");
        demo_listen(t.d, 50ms);
    }
}

// The agent is told of a batch, too.
void wait_agent_has(tour &t, const rtt_stats &stats)
{
    stage_wait(t.d.stage, "the agent has the figures of the batch", AT_ONCE, [&] {
        const auto path = demo_agent_path(t.d.links[0].link_ref);
        return path && path->min_nsec == stats.min_nsec && path->avg_nsec == stats.avg_nsec &&
               path->max_nsec == stats.max_nsec;
    });
}

std::string microseconds_text(const wire_figures &wire)
{
    char text[96];
    (void)snprintf(text, sizeof text, "%.2f %.2f %.2f us", static_cast<double>(wire.minimum) / 1e3,
                   static_cast<double>(wire.average) / 1e3, static_cast<double>(wire.maximum) / 1e3);
    return text;
}

link_list::link listed_first(const demo &d) { return find_listed(fetch_list(), d.links[0].link_ref); }

} // namespace

std::string rtt_refused(tour &t) { return refused(t.d, DO_NOT_FIT, IEMLI_REJ_INVALID_RTT_CONFIG_PARAM); }

std::string rtt_twice_refused(tour &t) { return refused(t.d, SETTINGS, IEMLI_REJ_RTT_ALREADY_ENABLED); }

std::string rtt_batch_agrees(tour &t)
{
    demo_link &link = t.d.links[0];
    const stage_port &port = t.d.stage.ports[0];
    t.tolerance = rtt_tolerance_of(send_path_measure(NEAR_NAMESPACE, link.interface));
    t.wire = capture_open(NEAR_NAMESPACE, link.interface, port.wire.near_mac, port.wire.far_mac, link.wish.vlan);
    const moment before = quiet_moment(t);
    demo_enable_rtt(t.d, link, SETTINGS);
    wait_batches(t, 1);
    hold_batches_agree(t);
    wait_agent_has(t, link.batches[0]);
    const moment after = quiet_moment(t);
    const uint64_t answered = after.far_end_answered - before.far_end_answered;
    hold(answered == after.captured - before.captured, "the far end answered " + std::to_string(answered) +
                                                           " pings, the capture has " +
                                                           std::to_string(after.captured - before.captured));
    const auto pings = capture_pings_of_size(t.wire, SETTINGS.frameSize);
    return demo_rtt_text(link.batches[0]) + "; on the wire " + microseconds_text(figures_of_batch(pings, 0)) +
           "; the far end answered " + std::to_string(answered) + ", the agent has the same";
}

std::string rtt_silent_batch(tour &t)
{
    hold_batches_agree(t);
    const auto &batches = t.d.links[0].batches;
    const auto silent =
        std::count_if(batches.begin(), batches.end(), [](const rtt_stats &b) { return b.rtt_validity == 0; });
    hold(silent > 0, "no batch without an answer was reported");
    return std::to_string(silent) + " of " + std::to_string(batches.size()) +
           " batches with validity 0 and zeros; the averages of the others are at most " +
           std::to_string(t.apart / 1000) + " us off the wire";
}

std::string rtt_disabled(tour &t)
{
    hold_batches_agree(t);
    const link_list::link before = listed_first(t.d);
    hold(before.rtt == "on" && before.batch_size == SETTINGS.batchSize && before.frame_size == SETTINGS.frameSize,
         "the link list does not show the settings that were asked for");
    demo_disable_rtt(t.d, t.d.links[0]);
    const link_list::link after = listed_first(t.d);
    hold(after.rtt == "off" && after.batch_size == 5 && after.interval_s == 1 && after.frame_size == USUAL_FRAME_SIZE,
         "the link list does not show the defaults");
    const size_t usual = capture_pings_of_size(t.wire, USUAL_FRAME_SIZE).size();
    stage_wait(t.d.stage, "a ping of the usual size", FIRST_ANSWER_BOUND, [&] {
        capture_drain(t.wire);
        return capture_pings_of_size(t.wire, USUAL_FRAME_SIZE).size() > usual;
    });
    return "listed: RTT off, batch size 5, interval 1, frame size 64; so are the pings again";
}
