// A daemon in memory that takes one request at a time, queues the others and refuses by the same rules as the real one;
// and a keeper with it, under a clock that a test moves.
#pragma once

#include "iemli/iemli_messages.hpp"
#include "keeper.hpp"

#include <deque>
#include <functional>

namespace linkd
{

inline constexpr int64_t MS = 1000;

inline mac_bytes mac(uint8_t last) { return {2, 0, 0, 0, 0, last}; }

inline declaration link_to(const std::string &name, const std::string &port, uint16_t vlan, uint8_t far,
                           std::vector<app_pair> pairs = {})
{
    declaration link;
    link.name = name;
    link.key = {port, vlan, mac(far), 1};
    link.app_links = std::move(pairs);
    return link;
}

inline declarations all_of(const std::vector<declaration> &links)
{
    declarations all;
    for (const declaration &link : links) {
        all[link.name] = link;
    }
    return all;
}

// The daemon: what it has, what it is at, what waits. Messages to it and from it can be lost, and it can be moody.
class daemon_in_memory : public sender
{
public:
    struct held {
        link_key key;
        std::vector<app_pair> app_links;
        bool rtt = false;
        bool ours = true;
        bool enabled = true;
    };

    bool session = false;
    std::map<uint32_t, held> links;
    std::vector<request> seen;                      // in their order of coming
    std::deque<std::function<void(keeper &)>> said; // on its way to the keeper
    std::function<bool()> loses = [] { return false; };
    std::function<uint32_t()> mood = [] { return 0; }; // a reason to refuse a create or an update; 0: none

    uint32_t send(const request &what) override
    {
        seen.push_back(what);
        number_++;
        if (what.kind == request_kind::open || !loses()) {
            coming_.emplace_back(number_, what);
        }
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
        links.clear();
        part();
    }
    // The keeper's process ended: its links are another's until they are taken down.
    void part()
    {
        session = false;
        for (auto &[ref, link] : links) {
            link.ours = false;
        }
        coming_.clear();
        said.clear();
        queue_.clear();
        busy_.reset();
    }
    void take_down_what_is_others()
    {
        std::erase_if(links, [](const auto &each) { return !each.second.ours; });
    }

    // The wire's news.
    void turn(uint32_t ref, bool enabled)
    {
        links.at(ref).enabled = enabled;
        tell([ref, enabled, this](keeper &to) { to.status(ref, enabled, "no connectivity", now); });
    }

    // Asked for its list.
    void list()
    {
        std::vector<listed_link> all;
        for (const auto &[ref, link] : links) {
            if (link.ours) {
                all.push_back({ref, link.key, link.enabled, link.enabled ? "" : "no connectivity", link.app_links,
                               link.rtt, 0, 0});
            }
        }
        tell([all, this](keeper &to) { to.listed(all, now); });
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

    void tell(std::function<void(keeper &)> what)
    {
        if (!loses()) {
            said.push_back(std::move(what));
        }
    }
    void say(answer what)
    {
        tell([what, this](keeper &to) { to.answered(what, now); });
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
            const auto reason = session ? uint32_t{IEMLI_REJ_SERVICE_INITIATED} : 0;
            said.emplace_back([number, reason, this](keeper &to) {
                to.answered({number, reason == 0, reason, 0, {}}, now);
            });
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
        uint32_t reason = what.kind == request_kind::remove ? 0 : mood();
        if (reason != 0) {
            refuse(number, reason);
            return;
        }
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
            turn(ref, false);
            turn(ref, true);
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
    void counted(const std::string &link, uint32_t count, uint64_t results, uint64_t) override
    {
        counts_[link][count] = results;
    }
    // Of all its counts.
    uint64_t pings_of(const std::string &link)
    {
        uint64_t sum = 0;
        for (const auto &[count, results] : counts_[link]) {
            sum += results;
        }
        return sum;
    }

private:
    std::map<std::string, std::map<uint32_t, uint64_t>> counts_;
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
    // For that time, and the daemon is asked for its list every ten seconds of it.
    void settle_with_lists(int64_t ms)
    {
        constexpr int64_t BETWEEN_LISTS_MS = 10'000;
        for (const int64_t end = daemon.now.ms() + ms; daemon.now.ms() < end;) {
            const int64_t next = daemon.now.ms() + BETWEEN_LISTS_MS;
            settle(BETWEEN_LISTS_MS);
            pass(std::max<int64_t>(next - daemon.now.ms(), 0));
            keeps.tick(daemon.now);
            daemon.list();
        }
        quiet();
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

} // namespace linkd
