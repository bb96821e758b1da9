// Makes true what is declared, and keeps it: events in, requests out. It has no socket and no clock; whoever drives it
// brings the daemon's words and the time, and sends what it asks for.
//
// A link is known to the daemon by its key (port, VLAN, far end, processor) and to people by its name. What the daemon
// has belongs to the key, so that a link that is only called otherwise is not touched.
//
// The daemon takes one create, update or delete at a time and queues the others, for all sessions together; and when
// the one that it takes from the queue is refused at once, the rest of the queue waits for the end of the next one. So
// at most a window of requests is under way, and what has had no answer for long is sent again: that is the next one.
// Its own twin is then answered as one that changes nothing. What the daemon answers at once has a window of its own,
// and is sent again as well.
//
// Whatever was lost on the way, the daemon's own list says what it has: a link whose answer was lost is taken up or
// removed, one that is not there any more is created again, and news that never came are made up for.
//
// What is refused is kept with its reason and asked for again later and later; at once when the reason may have gone.
#pragma once

#include "declaration.hpp"

#include <optional>
#include <set>

namespace linkd
{

enum class request_kind {
    open,
    create,
    update,
    remove,
    enable_rtt,
    disable_rtt,
    get_mac
};

// What does not belong to the kind is empty.
struct request {
    request_kind kind = request_kind::open;
    link_key key;                    // of create, get_mac (port and processor)
    uint32_t link_ref = 0;           // of the others
    std::vector<app_pair> app_links; // of create and update
    rtt_wish rtt;                    // of enable_rtt
};

class sender
{
public:
    virtual ~sender() = default;
    // Gives the number by which the answer is known: ascending, never 0.
    virtual uint32_t send(const request &what) = 0;
};

struct answer {
    uint32_t number = 0;
    bool confirmed = false;
    uint32_t reason = 0;   // of one that is not
    uint32_t link_ref = 0; // of a create
    mac_bytes mac = {};    // of a get_mac
};

struct instant {
    int64_t boot_us = 0; // CLOCK_BOOTTIME
    int64_t real_us = 0; // CLOCK_REALTIME
    int64_t ms() const { return boot_us / 1000; }
};

// A link of this session as the daemon's own list has it.
struct listed_link {
    uint32_t link_ref = 0;
    link_key key;
    bool enabled = false;
    std::string reason;                             // of one that is not
    std::optional<std::vector<app_pair>> app_links; // ascending; nothing: more than a list has
    std::optional<bool> rtt;                        // nothing: the daemon does not know
    uint64_t results = 0;                           // pings since it was created
    uint64_t lost = 0;
};

class keeper
{
public:
    struct difference {
        size_t added = 0;
        size_t changed = 0;
        size_t removed = 0;
    };

    // `window`: how many creates, updates and deletes are under way at the most, and how many of the others.
    keeper(sender &out, listener &told, size_t window);

    // Before the first `declare`: what it then tells goes on from there.
    void remember(const std::vector<link_standing> &links);

    // All links that there shall be. What was refused is tried again at once.
    difference declare(declarations links, const instant &now);
    const declarations &declared() const { return declared_; }

    void published(const instant &now);
    // Session and links are gone; `why` in words: "no daemon", "no registry".
    void lost(const std::string &why, const instant &now);
    void answered(const answer &what, const instant &now);
    void status(uint32_t link_ref, bool enabled, const std::string &reason, const instant &now);
    void measured(uint32_t link_ref, rtt_sample sample, const instant &now);
    // All links of the session, in the order of the daemon's other words: what it said before came before.
    void listed(const std::vector<listed_link> &links, const instant &now);

    // Does what is due; and when there is something next.
    void tick(const instant &now);
    std::optional<int64_t> next_ms() const;

    std::vector<link_view> views(const instant &now) const;
    std::optional<link_view> view(const std::string &name, const instant &now) const;
    node_view node() const;
    bool has_session() const { return session_; }

private:
    // What became of one link of the daemon's.
    struct entry {
        std::optional<declaration> wanted; // nothing: it shall go
        std::string name;                  // what it was called last
        uint32_t link_ref = 0;             // 0: the daemon has none
        std::vector<app_pair> app_links;   // that the daemon has
        std::optional<rtt_wish> rtt;       // that the daemon has
        bool anew = false;                 // it shall go, and then be created again
        bool doubted = false;              // it may have gone untold: an update that changes nothing tells
        size_t under_way = 0;
        uint32_t failures = 0; // since the last success
        uint32_t reason = 0;   // of the last one
        int64_t next_try_ms = 0;
        std::optional<link_state> told; // by the daemon: enabled or disabled
        std::string told_reason;
        std::string refusal; // of what was asked for last; empty: it was not refused
        std::optional<rtt_sample> last_rtt;
        int64_t last_rtt_boot_us = 0;
        uint64_t results = 0;
        uint64_t lost_pings = 0;
        std::optional<int64_t> last_answer_boot_us; // of the far end, as far as it is known
        // What of these was counted under another name, and which count of the keeper's it is.
        uint64_t results_before = 0;
        uint64_t lost_before = 0;
        uint32_t count = 0;
        std::optional<std::pair<link_state, std::string>> listed; // in the last list, where it is not what was told
    };

    // What people know of a link.
    struct named {
        link_key key;
        link_identity identity;
        link_state state = link_state::waiting;
        std::string reason;
        int64_t since_boot_us = 0;
        int64_t since_real_us = 0;
    };

    struct sent {
        request what;
        link_key key; // of the entry
    };

    // What is answered at once, and every number under which it was sent.
    struct asked {
        sent was;
        int64_t again_ms = 0;
        uint32_t times = 0;
        std::vector<uint32_t> numbers;
    };

    using entries = std::map<link_key, entry>;

    static std::optional<request_kind> plan(const entry &e, int64_t now_ms);
    static int rank_of(request_kind kind);
    void refresh(const link_key &key, const instant &now);
    void set_state(named &link, link_state state, const std::string &reason, const instant &now);
    void show(const link_key &key, const instant &now);
    nlohmann::json known_of(const link_key &key, const instant &now) const;

    void miss(const std::string &what, const instant &now);
    void begin_count(entry &e);
    void take_up(const listed_link &link, const instant &now);
    void compare(const listed_link &link, entry &e, const instant &now);
    void forget_unlisted(const std::set<uint32_t> &refs, const instant &now);

    void pump(const instant &now);
    void pump_session(const instant &now);
    std::optional<link_key> next_to_do() const;
    void ask(const request &what, const link_key &key, const instant &now);
    void ask_again(const instant &now);
    sent take_asked(uint32_t first);
    void send_for(const link_key &key, request_kind kind, const instant &now);
    void send_again(const instant &now);
    void ask_for_mac(const link_key &key);
    std::optional<int64_t> stall_ms() const;

    void opened(const answer &what, const instant &now);
    void settle(const sent &was, const answer &what, const instant &now);
    void settle_stale(const sent &was, const answer &what, const instant &now);
    void confirmed(const sent &was, const answer &what, entry &e, const instant &now);
    void refused(const sent &was, const answer &what, entry &e, const instant &now);
    void removed(const sent &was, entry &e, const instant &now);
    void forget_link(entry &e);
    void hand_on(uint32_t link_ref, const link_key &to, const instant &now);
    void try_at(const link_key &key, entry &e, int64_t ms);
    void retry_what_may_go_now(const instant &now);
    void hurry(const link_key &key, entry &e, const instant &now);
    void mark_gone_sessions(const std::string &why, const instant &now);
    void forget_names(const declarations &links, const instant &now);
    void forget_entries(const declarations &links, const instant &now);

    link_view view_of(const named &link, const declaration &wanted, const instant &now) const;

    sender &out_;
    listener &told_;
    size_t window_;

    declarations declared_;
    std::map<std::string, link_standing> earlier_; // until the first `declare`
    entries entries_;
    std::map<std::string, named> names_;
    std::map<uint32_t, link_key> by_ref_;
    std::set<std::pair<int, link_key>> todo_;      // by rank
    std::map<link_key, int> todo_rank_;            // of those in todo_
    std::set<std::pair<int64_t, link_key>> later_; // by the time of their next try

    bool published_ = false;
    bool session_ = false;
    std::string missing_ = "no registry";
    uint32_t opening_ = 0;        // the number of the request that is waited for
    std::set<uint32_t> openings_; // of all that may still be answered
    uint32_t open_failures_ = 0;
    int64_t next_open_ms_ = 0;
    uint64_t sessions_ = 0;
    int64_t session_since_us_ = 0;

    std::map<uint32_t, sent> waits_;           // for the daemon: creates, updates, deletes
    std::map<uint32_t, sent> stale_;           // of those, what was sent again and is unanswered
    std::map<uint32_t, asked> short_;          // the others, by the first number
    std::map<uint32_t, uint32_t> short_first_; // by number: the first of the same
    std::set<link_key> macs_todo_;             // port and processor alone
    std::set<link_key> macs_asked_;            // those too
    std::map<link_key, mac_bytes> macs_;
    int64_t progress_ms_ = 0;
    uint32_t stalls_ = 0;
    uint32_t counts_ = 0;
    bool was_refused_ = false; // the last answer to one of waits_
};

// A reject reason in words.
std::string reason_text(uint32_t reason);

} // namespace linkd
