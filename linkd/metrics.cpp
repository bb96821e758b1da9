// What Prometheus gets (metrics.hpp).
#include "metrics.hpp"

#include <httplib.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <iterator>
#include <limits>
#include <sstream>
#include <unordered_set>

namespace linkd
{

namespace
{

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using labels = std::vector<ClientMetric::Label>;

constexpr double MICROSECONDS = 1e6;
constexpr double NANOSECONDS = 1e9;
constexpr size_t LONGEST_REASON = 80;

// From a cable to a far end behind a slow network.
constexpr double BOUNDS_S[] = {10e-6,  25e-6, 50e-6, 100e-6, 250e-6, 500e-6, 1e-3,
                               2.5e-3, 5e-3,  10e-3, 25e-3,  50e-3,  100e-3, 250e-3};

class family
{
public:
    family(std::vector<MetricFamily> &all, const char *name, MetricType type, const char *help) : all_(all)
    {
        mine_.name = name;
        mine_.help = help;
        mine_.type = type;
    }
    ~family()
    {
        if (!mine_.metric.empty()) {
            all_.push_back(std::move(mine_));
        }
    }
    family(const family &) = delete;
    family &operator=(const family &) = delete;

    void add(labels of, double value)
    {
        ClientMetric one;
        one.label = std::move(of);
        (mine_.type == MetricType::Counter ? one.counter.value : one.gauge.value) = value;
        mine_.metric.push_back(std::move(one));
    }
    void add(labels of, ClientMetric::Histogram value)
    {
        ClientMetric one;
        one.label = std::move(of);
        one.histogram = std::move(value);
        mine_.metric.push_back(std::move(one));
    }

private:
    std::vector<MetricFamily> &all_;
    MetricFamily mine_;
};

labels of_link(const link_view &view) { return {{"link", view.link.name}, {"port", view.link.port}}; }

labels with(labels all, const char *name, const std::string &value)
{
    all.push_back({name, value});
    return all;
}

constexpr link_state SHOWN_STATES[] = {link_state::waiting, link_state::rejected, link_state::disabled,
                                       link_state::enabled};

void add_states(std::vector<MetricFamily> &all, const std::vector<link_view> &links)
{
    family state(all, "kap_link_state", MetricType::Gauge, "1 for the state that the link is in, 0 for the others");
    family reason(all, "kap_link_reason", MetricType::Gauge, "1 for why the link is not enabled");
    family since(all, "kap_link_state_since_seconds", MetricType::Gauge, "since when the link is in its state");
    for (const link_view &view : links) {
        for (const link_state each : SHOWN_STATES) {
            state.add(with(of_link(view), "state", name_of(each)), view.state == each ? 1 : 0);
        }
        if (view.state != link_state::enabled && !view.reason.empty()) {
            reason.add(with(of_link(view), "reason", view.reason.substr(0, LONGEST_REASON)), 1);
        }
        since.add(of_link(view), static_cast<double>(view.since_us) / MICROSECONDS);
    }
}

void add_counters(std::vector<MetricFamily> &all, const std::vector<link_view> &links, const metrics_input &input)
{
    family flaps(all, "kap_link_flaps_total", MetricType::Counter, "how often the link was lost, in all its life");
    family changes(all, "kap_link_changes_total", MetricType::Counter, "changes of the link's state, in all its life");
    family pings(all, "kap_link_pings_total", MetricType::Counter,
                 "pings sent of which it is known what became of them, in all the link's life");
    family lost(all, "kap_link_pings_lost_total", MetricType::Counter, "those of them that were lost");
    family enabled(all, "kap_link_enabled_seconds_total", MetricType::Counter,
                   "how long the link was enabled in all its life, up to its last change");
    for (const link_view &view : links) {
        const auto at = input.lifetimes.find(view.link.name);
        if (at == input.lifetimes.end()) {
            continue;
        }
        const history_counters &life = at->second;
        flaps.add(of_link(view), static_cast<double>(life.flaps));
        changes.add(of_link(view), static_cast<double>(life.changes));
        pings.add(of_link(view), static_cast<double>(life.results));
        lost.add(of_link(view), static_cast<double>(life.lost));
        enabled.add(of_link(view), static_cast<double>(life.enabled_us) / MICROSECONDS);
    }
}

void add_last_round_trips(std::vector<MetricFamily> &all, const std::vector<link_view> &links)
{
    family least(all, "kap_link_rtt_min_seconds", MetricType::Gauge, "shortest round trip of the last batch");
    family average(all, "kap_link_rtt_avg_seconds", MetricType::Gauge, "average round trip of the last batch");
    family most(all, "kap_link_rtt_max_seconds", MetricType::Gauge, "longest round trip of the last batch");
    for (const link_view &view : links) {
        if (!view.last_rtt || view.last_rtt->valid == 0) {
            continue;
        }
        least.add(of_link(view), static_cast<double>(view.last_rtt->shortest_ns) / NANOSECONDS);
        average.add(of_link(view), static_cast<double>(view.last_rtt->average_ns) / NANOSECONDS);
        most.add(of_link(view), static_cast<double>(view.last_rtt->longest_ns) / NANOSECONDS);
    }
}

void add_answers(std::vector<MetricFamily> &all, const std::vector<link_view> &links)
{
    family age(all, "kap_link_last_answer_age_seconds", MetricType::Gauge,
               "how long ago it was seen last that the far end had answered");
    for (const link_view &view : links) {
        if (view.last_answer_age_us) {
            age.add(of_link(view), static_cast<double>(*view.last_answer_age_us) / MICROSECONDS);
        }
    }
}

void add_services(std::vector<MetricFamily> &all, const metrics_input &input)
{
    family up(all, "kap_service_up", MetricType::Gauge, "whether the service is there, as kap-linkd sees it");
    family starts(all, "kap_service_starts_total", MetricType::Counter,
                  "how often the service has come since kap-linkd was started; each but the first is a restart");
    up.add({{"service", "registry"}}, input.registry ? 1 : 0);
    up.add({{"service", "daemon"}}, input.node.daemon ? 1 : 0);
    up.add({{"service", "session"}}, input.node.session ? 1 : 0);
    for (const service_view &each : input.services) {
        up.add({{"service", each.name}}, each.up ? 1 : 0);
        starts.add({{"service", each.name}}, static_cast<double>(each.starts));
    }
}

void add_queues(std::vector<MetricFamily> &all, const metrics_input &input)
{
    family messages(all, "kap_itc_waiting_messages", MetricType::Gauge,
                    "messages that wait in kap-linkd: taken in and not looked at, or not sent for want of room");
    messages.add({{"direction", "in"}}, static_cast<double>(input.waiting.messages_in));
    messages.add({{"direction", "out"}}, static_cast<double>(input.waiting.messages_out));
    family bytes(all, "kap_itc_waiting_bytes", MetricType::Gauge,
                 "what lies in the sockets: for kap-linkd to read, or from it and unread by the others");
    bytes.add({{"direction", "in"}}, static_cast<double>(input.waiting.bytes_in));
    bytes.add({{"direction", "out"}}, static_cast<double>(input.waiting.bytes_out));
    family requests(all, "kap_requests", MetricType::Gauge,
                    "requests to the daemon: sent and not answered, or held back until those are");
    requests.add({{"state", "sent"}}, static_cast<double>(input.node.requests_sent));
    requests.add({{"state", "due"}}, static_cast<double>(input.node.requests_due));
}

void add_program(std::vector<MetricFamily> &all, const metrics_input &input)
{
    {
        family links(all, "kap_links", MetricType::Gauge, "links by state");
        const size_t counts[] = {input.node.waiting, input.node.rejected, input.node.disabled, input.node.enabled};
        for (size_t i = 0; i < std::size(counts); i++) {
            links.add({{"state", name_of(SHOWN_STATES[i])}}, static_cast<double>(counts[i]));
        }
    }
    {
        family messages(all, "kap_itc_messages_total", MetricType::Counter, "messages of kap-linkd");
        messages.add({{"direction", "sent"}}, static_cast<double>(input.messages.sent));
        messages.add({{"direction", "received"}}, static_cast<double>(input.messages.received));
    }
    {
        family dropped(all, "kap_itc_dropped_total", MetricType::Counter, "messages to kap-linkd or from it, dropped");
        dropped.add({{"why", "full"}}, static_cast<double>(input.messages.dropped_full));
        dropped.add({{"why", "no mailbox"}}, static_cast<double>(input.messages.dropped_no_mailbox));
        dropped.add({{"why", "refused"}}, static_cast<double>(input.messages.dropped_refused));
        dropped.add({{"why", "too large"}}, static_cast<double>(input.messages.dropped_too_large));
    }
    const auto one = [&](const char *name, MetricType type, const char *help, double value) {
        family(all, name, type, help).add({}, value);
    };
    constexpr MetricType GAUGE = MetricType::Gauge, COUNTER = MetricType::Counter;
    one("kap_sessions_total", COUNTER, "sessions with the daemon that were opened; each but the first is a new start",
        static_cast<double>(input.node.sessions));
    one("kap_linkd_start_time_seconds", GAUGE, "when kap-linkd was started",
        static_cast<double>(input.started_us) / MICROSECONDS);
    one("kap_linkd_seen_time_seconds", GAUGE, "of when these figures are",
        static_cast<double>(input.now_us) / MICROSECONDS);
    one("kap_links_not_shown", GAUGE, "links for which there was no more room here",
        static_cast<double>(input.links.size() - std::min(input.links.size(), metrics::LINKS_SHOWN)));
    one("kap_history_newest_change", GAUGE, "number of the newest change", static_cast<double>(input.newest_change));
    one("kap_history_unwritten_changes", GAUGE, "changes that are not on the disk yet",
        static_cast<double>(input.unwritten));
    one("kap_notify_running", GAUGE, "programs of notify.d that run", static_cast<double>(input.notices.running));
    one("kap_notify_waiting", GAUGE, "notices that wait", static_cast<double>(input.notices.waiting));
    one("kap_notify_started_total", COUNTER, "programs started", static_cast<double>(input.notices.started));
    one("kap_notify_failed_total", COUNTER, "programs that could not be started or ended badly",
        static_cast<double>(input.notices.failed));
    one("kap_notify_timeouts_total", COUNTER, "programs ended because they took too long",
        static_cast<double>(input.notices.ended));
    one("kap_notify_dropped_total", COUNTER, "notices that could not wait", static_cast<double>(input.notices.dropped));
    one("kap_notify_held_total", COUNTER, "changes of flapping links that were held down",
        static_cast<double>(input.notices.held));
}

} // namespace

void metrics::measured(const rtt_sample &sample)
{
    if (sample.valid == 0) {
        return;
    }
    const double seconds = static_cast<double>(sample.average_ns) / NANOSECONDS;
    const std::lock_guard lock(mutex_);
    if (round_trips_.size() >= LINKS_SHOWN && round_trips_.count(sample.link) == 0) {
        return;
    }
    static_assert(BUCKETS == std::size(BOUNDS_S) + 1);
    round_trips &of = round_trips_[sample.link];
    of.buckets[static_cast<size_t>(
        std::distance(std::begin(BOUNDS_S), std::lower_bound(std::begin(BOUNDS_S), std::end(BOUNDS_S), seconds)))]++;
    of.count++;
    of.sum_s += seconds;
}

void metrics::hand_over(metrics_input input)
{
    std::unordered_set<std::string> there;
    for (const link_view &view : input.links) {
        there.insert(view.link.name);
    }
    std::shared_ptr<const metrics_input> next = std::make_shared<metrics_input>(std::move(input));
    const std::lock_guard lock(mutex_);
    std::erase_if(round_trips_, [&](const auto &each) { return there.count(each.first) == 0; });
    input_.swap(next); // the old one is freed when the mutex is free again
}

std::vector<MetricFamily> metrics::families() const
{
    std::shared_ptr<const metrics_input> input;
    all_round_trips of;
    {
        const std::lock_guard lock(mutex_);
        input = input_;
        of = round_trips_;
    }
    std::vector<MetricFamily> all;
    add_services(all, *input);
    add_queues(all, *input);
    add_program(all, *input);
    const auto shown = std::min(input->links.size(), LINKS_SHOWN);
    const std::vector<link_view> links(input->links.begin(), input->links.begin() + static_cast<std::ptrdiff_t>(shown));
    add_states(all, links);
    add_counters(all, links, *input);
    add_last_round_trips(all, links);
    add_answers(all, links);
    add_round_trips(all, links, of);
    return all;
}

void metrics::add_round_trips(std::vector<MetricFamily> &all, const std::vector<link_view> &links,
                              const all_round_trips &of)
{
    family histogram(all, "kap_link_rtt_seconds", MetricType::Histogram, "average round trip of each batch");
    for (const link_view &view : links) {
        const auto at = of.find(view.link.name);
        if (at == of.end()) {
            continue;
        }
        ClientMetric::Histogram value;
        value.sample_count = at->second.count;
        value.sample_sum = at->second.sum_s;
        uint64_t below = 0;
        for (size_t i = 0; i <= std::size(BOUNDS_S); i++) {
            below += at->second.buckets[i];
            value.bucket.push_back(
                {below, i < std::size(BOUNDS_S) ? BOUNDS_S[i] : std::numeric_limits<double>::infinity()});
        }
        histogram.add(of_link(view), std::move(value));
    }
}

std::string metrics::text() const
{
    std::ostringstream out;
    prometheus::TextSerializer().Serialize(out, families());
    return out.str();
}

namespace
{

constexpr std::chrono::seconds TEXT_HOLDS{1};

struct last_text {
    std::mutex making;
    std::string text;
    std::chrono::steady_clock::time_point made;
};

} // namespace

void add_metrics(httplib::Server &server, const metrics &from)
{
    auto last = std::make_shared<last_text>();
    server.Get("/metrics", [&from, last](const httplib::Request &, httplib::Response &answer) {
        const std::lock_guard lock(last->making);
        const auto now = std::chrono::steady_clock::now();
        if (last->text.empty() || now - last->made >= TEXT_HOLDS) {
            last->text = from.text();
            last->made = now;
        }
        answer.set_content(last->text, "text/plain; version=0.0.4; charset=utf-8");
    });
}

} // namespace linkd
