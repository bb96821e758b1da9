// What Prometheus gets: a text made from a copy that the loop hands over every few seconds.
// Names are in metrics.cpp, each with what it says; here is who may have how many of them.
//
// Labels are the names and ports of the links that are declared, words of a fixed list, and reasons: the daemon's
// reject reasons and the few of this program. No more links are shown than LINKS_SHOWN; how many are not is a number
// of its own.
#pragma once

#include "history_store.hpp"
#include "notify.hpp"
#include "services.hpp"
#include "view.hpp"

#include <prometheus/metric_family.h>

#include <array>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace httplib
{
class Server;
}

namespace linkd
{

// What this process exchanged over ITC.
struct message_figures {
    uint64_t sent = 0, received = 0, dropped_full = 0, dropped_no_mailbox = 0, dropped_refused = 0,
             dropped_too_large = 0;
};

// What waits over ITC at this moment, as this process sees it.
struct waiting_figures {
    uint64_t messages_in = 0, messages_out = 0, bytes_in = 0, bytes_out = 0;
};

struct metrics_input {
    std::vector<link_view> links;
    std::unordered_map<std::string, history_counters> lifetimes;
    node_view node;
    bool registry = false;
    notifier::figures notices;
    message_figures messages;
    waiting_figures waiting;
    std::vector<service_view> services;
    uint64_t newest_change = 0;
    uint64_t unwritten = 0; // changes that are not on the disk yet
    int64_t now_us = 0, started_us = 0;
};

class metrics : public listener
{
public:
    static constexpr size_t LINKS_SHOWN = 4096;

    void measured(const rtt_sample &sample) override;
    // The loop's, every few seconds.
    void hand_over(metrics_input input);

    // Any thread's.
    std::string text() const;

private:
    static constexpr size_t BUCKETS = 15; // the last one has no bound

    struct round_trips {
        std::array<uint64_t, BUCKETS> buckets{};
        uint64_t count = 0;
        double sum_s = 0;
    };

    using all_round_trips = std::unordered_map<std::string, round_trips>;

    std::vector<prometheus::MetricFamily> families() const;
    static void add_round_trips(std::vector<prometheus::MetricFamily> &all, const std::vector<link_view> &links,
                                const all_round_trips &of);

    // The loop waits for it: only copies are made under it.
    mutable std::mutex mutex_;
    std::shared_ptr<const metrics_input> input_ = std::make_shared<metrics_input>();
    all_round_trips round_trips_;
};

// The path /metrics. The text is made once a second at the most, and once at a time, however many ask.
void add_metrics(httplib::Server &server, const metrics &from);

} // namespace linkd
