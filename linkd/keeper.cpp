// Keeping what is declared (keeper.hpp).
#include "keeper.hpp"

#include "iemli/iemli_messages.hpp"

#include <algorithm>

namespace linkd
{

namespace
{

constexpr int64_t FIRST_DELAY_MS = 1000;
constexpr int64_t LONGEST_DELAY_MS = 300'000;
constexpr int64_t LONGEST_OPEN_DELAY_MS = 30'000;
// A link of a session that has just ended goes soon.
constexpr int64_t SOON_MS = 250;
constexpr uint32_t SOON_TRIES = 20;
// One that is refused again and again, whatever happens around it, is not asked for more often.
constexpr int64_t BETWEEN_HURRIED_MS = 200;
constexpr int64_t STALL_MS = 1000;
constexpr int64_t STALL_AFTER_REFUSAL_MS = 50;
constexpr int64_t LONGEST_STALL_MS = 10'000;
constexpr int64_t OPEN_PATIENCE_MS = 5000;
constexpr size_t MOST_TWINS = 8; // of one request, whose answers are waited for
constexpr int64_t US_PER_MS = 1000;
constexpr const char *ASKED = "asked for";
constexpr const char *STARTED = "kap-linkd was started";
// Round trips that are measured in another way than anybody asks for.
constexpr rtt_wish RTT_UNKNOWN = {0, 0, 0};
constexpr int RTT_RANK = 2;

int64_t doubled(int64_t first, uint32_t times, int64_t most)
{
    int64_t delay = first;
    for (uint32_t i = 1; i < times && delay < most; i++) {
        delay *= 2;
    }
    return std::min(delay, most);
}

int64_t delay_after(uint32_t failures, uint32_t reason)
{
    if (reason == IEMLI_REJ_LINK_ALREADY_CREATED && failures <= SOON_TRIES) {
        return doubled(SOON_MS, failures, FIRST_DELAY_MS);
    }
    return doubled(FIRST_DELAY_MS, failures, LONGEST_DELAY_MS);
}

// What another link's end or change may have made possible.
bool is_about_other_links(uint32_t reason)
{
    return reason == IEMLI_REJ_LINK_ALREADY_CREATED || reason == IEMLI_REJ_APP_LINK_ALREADY_USED ||
           reason == IEMLI_REJ_OTHER_REASON;
}

link_key port_and_processor(const link_key &key) { return {key.port, 0, {}, key.near_mp}; }

bool waits_in_line(request_kind kind)
{
    return kind == request_kind::create || kind == request_kind::update || kind == request_kind::remove;
}

} // namespace

std::string reason_text(uint32_t reason)
{
    switch (static_cast<iemli_reject_reason>(reason)) {
    case IEMLI_REJ_SERVICE_NOT_INITIATED:
        return "there is no session";
    case IEMLI_REJ_SERVICE_INITIATED:
        return "there is a session already";
    case IEMLI_REJ_SERVICE_INVALID_PV:
        return "the daemon does not speak this version of the protocol";
    case IEMLI_REJ_UNKNOWN_LINK_REF:
        return "no such link";
    case IEMLI_REJ_UNKNOWN_PORT_NAME:
        return "no such port";
    case IEMLI_REJ_PORT_ALREADY_USED:
        return "the port is used already";
    case IEMLI_REJ_LINK_ALREADY_CREATED:
        return "somebody else has this link";
    case IEMLI_REJ_INVALID_VLAN_ID:
        return "no such VLAN";
    case IEMLI_REJ_LINK_DATA_NO_CHANGE:
        return "nothing would change";
    case IEMLI_REJ_MP_ID_NOT_READY:
        return "no such processor";
    case IEMLI_REJ_REMOTE_CPM_MAC_CONFLICT:
        return "the far end's address is one of this node's own";
    case IEMLI_REJ_SAME_CPM_APP_MAC:
        return "an application has the far end's address";
    case IEMLI_REJ_SAME_SRC_DST_APP_MAC:
        return "both applications of a pair have the same address";
    case IEMLI_REJ_APP_LINK_ALREADY_USED:
        return "another port has a link to that application in this VLAN";
    case IEMLI_REJ_DUPLICATE_APP_LINKS:
        return "a pair of applications stands there twice";
    case IEMLI_REJ_PORT_NOT_RESERVED:
        return "the port is not reserved";
    case IEMLI_REJ_INVALID_RTT_CONFIG_PARAM:
        return "round trips cannot be measured like that";
    case IEMLI_REJ_RTT_ALREADY_ENABLED:
        return "round trips are measured already";
    case IEMLI_REJ_OTHER_REASON:
        return "another reason, which the daemon's trace says";
    }
    return "an unknown reason";
}

keeper::keeper(sender &out, listener &told, size_t window) : out_(out), told_(told), window_(window) {}

// ---- What is next for a link ---------------------------------------------------------------------------------------

std::optional<request_kind> keeper::plan(const entry &e, int64_t now_ms)
{
    if (e.under_way > 0) {
        return std::nullopt;
    }
    if (now_ms < e.next_try_ms) {
        return std::nullopt;
    }
    if (!e.wanted || e.anew) {
        return e.link_ref == 0 ? std::nullopt : std::optional(request_kind::remove);
    }
    if (e.link_ref == 0) {
        return request_kind::create;
    }
    if (e.app_links != e.wanted->app_links || e.doubted) {
        return request_kind::update;
    }
    if (e.rtt != e.wanted->rtt) {
        return e.rtt ? request_kind::disable_rtt : request_kind::enable_rtt;
    }
    return std::nullopt;
}

// What goes makes room for what changes, and that for what comes.
int keeper::rank_of(request_kind kind)
{
    switch (kind) {
    case request_kind::remove:
        return 0;
    case request_kind::update:
        return 1;
    case request_kind::disable_rtt:
    case request_kind::enable_rtt:
        return RTT_RANK;
    default:
        return RTT_RANK + 1;
    }
}

// Puts a link where it belongs: among those that have something to do now, or later, or nowhere.
void keeper::refresh(const link_key &key, const instant &now)
{
    const auto found = entries_.find(key);
    if (const auto was = todo_rank_.find(key); was != todo_rank_.end()) {
        todo_.erase({was->second, key});
        todo_rank_.erase(was);
    }
    if (found == entries_.end()) {
        return;
    }
    const entry &e = found->second;
    later_.erase({e.next_try_ms, key});
    if (!e.wanted && e.link_ref == 0 && e.under_way == 0) {
        entries_.erase(found);
        return;
    }
    if (!session_) {
        return;
    }
    if (const auto kind = plan(e, now.ms())) {
        const int rank = rank_of(*kind);
        todo_.emplace(rank, key);
        todo_rank_.emplace(key, rank);
    } else if (plan(e, e.next_try_ms)) {
        later_.emplace(e.next_try_ms, key);
    }
}

// ---- States --------------------------------------------------------------------------------------------------------

nlohmann::json keeper::known_of(const link_key &key, const instant &now) const
{
    nlohmann::json known = nlohmann::json::object();
    if (const auto mac = macs_.find(port_and_processor(key)); mac != macs_.end()) {
        known["near_mac"] = text_of(mac->second);
    }
    const auto found = entries_.find(key);
    if (found == entries_.end()) {
        return known;
    }
    const entry &e = found->second;
    if (e.last_rtt && e.last_rtt->valid != 0) {
        known["last_rtt_us"] = static_cast<double>(e.last_rtt->average_ns) / 1000;
        known["last_rtt_age_us"] = now.boot_us - e.last_rtt_boot_us;
    }
    if (e.results != e.results_before) {
        known["results"] = e.results - e.results_before;
        known["lost"] = e.lost_pings - e.lost_before;
    }
    return known;
}

// The one place where the state of a link is written. What a link that waits is waiting for may change untold.
void keeper::set_state(named &link, link_state state, const std::string &reason, const instant &now)
{
    if (link.state == state && (link.reason == reason || state == link_state::waiting)) {
        link.reason = reason;
        return;
    }
    link_change change;
    change.at_us = now.real_us;
    change.link = link.identity;
    change.from = link.state;
    change.to = state;
    change.reason = reason;
    change.lasted_us = link.since_boot_us == 0 ? 0 : now.boot_us - link.since_boot_us;
    change.known = known_of(link.key, now);
    link.state = state;
    link.reason = reason;
    link.since_boot_us = now.boot_us;
    link.since_real_us = now.real_us;
    told_.changed(change);
}

// The state of a link's name as it follows from what the daemon said.
void keeper::show(const link_key &key, const instant &now)
{
    const auto found = entries_.find(key);
    if (found == entries_.end() || !found->second.wanted) {
        return;
    }
    const entry &e = found->second;
    named &link = names_.at(e.wanted->name);
    if (!session_) {
        set_state(link, link_state::waiting, missing_, now);
    } else if (e.told && e.link_ref != 0) {
        set_state(link, *e.told, e.told_reason, now);
    } else if (!e.refusal.empty() && e.link_ref == 0) {
        set_state(link, link_state::rejected, e.refusal, now);
    } else {
        set_state(link, link_state::waiting, ASKED, now);
    }
}

void keeper::miss(const std::string &what, const instant &now)
{
    missing_ = what;
    for (const auto &[name, link] : declared_) {
        show(link.key, now);
    }
}

// ---- What is declared ----------------------------------------------------------------------------------------------

void keeper::remember(const std::vector<link_standing> &links)
{
    for (const link_standing &each : links) {
        earlier_[each.link.name] = each;
    }
}

void keeper::forget_names(const declarations &links, const instant &now)
{
    for (auto at = names_.begin(); at != names_.end();) {
        if (links.contains(at->first)) {
            ++at;
        } else {
            set_state(at->second, link_state::gone, "", now);
            at = names_.erase(at);
        }
    }
}

void keeper::forget_entries(const declarations &links, const instant &now)
{
    std::set<link_key> stay;
    for (const auto &[name, link] : links) {
        stay.insert(link.key);
    }
    std::vector<link_key> go;
    for (auto &[key, e] : entries_) {
        if (!stay.contains(key) && e.wanted) {
            e.wanted.reset();
            e.failures = 0;
            try_at(key, e, 0);
            go.push_back(key);
        }
    }
    for (const link_key &key : go) {
        refresh(key, now);
    }
}

keeper::difference keeper::declare(declarations links, const instant &now)
{
    difference made;
    const declarations before = std::exchange(declared_, std::move(links));
    for (const auto &[name, link] : before) {
        made.removed += declared_.contains(name) ? 0 : 1;
    }
    forget_names(declared_, now);
    forget_entries(declared_, now);
    for (const auto &[name, link] : std::exchange(earlier_, {})) {
        named &known = names_[name];
        known.identity = link.link;
        known.state = link.state;
        if (!declared_.contains(name)) {
            set_state(known, link_state::gone, "", now);
            names_.erase(name);
        }
    }
    for (const auto &[name, link] : declared_) {
        const auto was = before.find(name);
        const bool same_key = was != before.end() && was->second.key == link.key;
        const bool same = same_key && was->second.app_links == link.app_links && was->second.rtt == link.rtt;
        made.added += was == before.end() ? 1 : 0;
        made.changed += was != before.end() && !same ? 1 : 0;
        entry &e = entries_[link.key];
        e.wanted = link;
        e.anew = false;
        if (e.name != name) {
            e.name = name;
            begin_count(e);
        }
        try_at(link.key, e, 0);
        e.failures = 0;
        const auto [at, is_new] = names_.try_emplace(name);
        named &known = at->second;
        const bool stayed = was == before.end() && !is_new; // since the program ended before
        const bool changed = stayed ? !(known.identity == link.identity()) : was != before.end() && !same_key;
        known.key = link.key;
        if (is_new) {
            known.identity = link.identity();
            known.state = link_state::gone;
            set_state(known, link_state::waiting, session_ ? ASKED : missing_, now);
        } else if (changed || stayed) {
            known.identity = link.identity();
            set_state(known, link_state::waiting, changed ? "changed" : STARTED, now);
        }
        if (stayed) { // how long it waited already is not known
            known.since_boot_us = now.boot_us;
            known.since_real_us = now.real_us;
        }
        if (!link.rtt) {
            e.last_rtt.reset();
        }
    }
    for (const auto &[name, link] : declared_) {
        show(link.key, now);
        refresh(link.key, now);
        ask_for_mac(link.key);
    }
    pump(now);
    return made;
}

// ---- The session ---------------------------------------------------------------------------------------------------

void keeper::published(const instant &now)
{
    mark_gone_sessions("no session", now);
    published_ = true;
    open_failures_ = 0;
    next_open_ms_ = now.ms();
    pump(now);
}

void keeper::lost(const std::string &why, const instant &now)
{
    published_ = false;
    mark_gone_sessions(why, now);
}

// Everything that the daemon had of ours went with the session.
void keeper::mark_gone_sessions(const std::string &why, const instant &now)
{
    session_ = false;
    opening_ = 0;
    openings_.clear();
    missing_ = why;
    waits_.clear();
    short_.clear();
    short_first_.clear();
    stale_.clear();
    by_ref_.clear();
    todo_.clear();
    todo_rank_.clear();
    later_.clear();
    macs_todo_.clear();
    macs_asked_.clear();
    stalls_ = 0;
    was_refused_ = false;
    std::erase_if(entries_, [](const auto &each) { return !each.second.wanted; });
    for (auto &[key, e] : entries_) {
        set_state(names_.at(e.wanted->name), link_state::waiting, why, now);
        entry fresh;
        fresh.wanted = std::move(e.wanted);
        fresh.name = std::move(e.name);
        fresh.last_rtt = e.last_rtt;
        fresh.last_rtt_boot_us = e.last_rtt_boot_us;
        fresh.last_answer_boot_us = e.last_answer_boot_us;
        e = std::move(fresh);
    }
}

void keeper::opened(const answer &what, const instant &now)
{
    opening_ = 0;
    if (!what.confirmed) {
        open_failures_++;
        next_open_ms_ = now.ms() + doubled(FIRST_DELAY_MS, open_failures_, LONGEST_OPEN_DELAY_MS);
        miss("no session: " + reason_text(what.reason), now);
        return;
    }
    session_ = true;
    missing_ = "";
    sessions_++;
    session_since_us_ = now.real_us;
    open_failures_ = 0;
    progress_ms_ = now.ms();
    for (const auto &[name, link] : declared_) {
        show(link.key, now);
        refresh(link.key, now);
        ask_for_mac(link.key);
    }
}

void keeper::ask_for_mac(const link_key &key)
{
    const link_key place = port_and_processor(key);
    if (session_ && macs_asked_.insert(place).second) {
        macs_todo_.insert(place);
    }
}

// ---- Sending -------------------------------------------------------------------------------------------------------

void keeper::pump_session(const instant &now)
{
    if (published_ && opening_ == 0 && now.ms() >= next_open_ms_) {
        opening_ = out_.send(request{});
        openings_.insert(opening_);
        next_open_ms_ = now.ms() + OPEN_PATIENCE_MS; // then once more, if nothing was answered
    } else if (published_ && opening_ != 0 && now.ms() >= next_open_ms_) {
        opening_ = 0;
        open_failures_++;
        next_open_ms_ = now.ms() + doubled(FIRST_DELAY_MS, open_failures_, LONGEST_OPEN_DELAY_MS);
        miss("no session: the daemon does not answer", now);
    }
}

void keeper::pump(const instant &now)
{
    if (!session_) {
        pump_session(now);
        return;
    }
    while (!macs_todo_.empty() && short_.size() < window_) {
        const link_key place = macs_todo_.extract(macs_todo_.begin()).value();
        ask({request_kind::get_mac, place, 0, {}, {}}, place, now);
    }
    while (const auto key = next_to_do()) {
        const auto kind = plan(entries_.at(*key), now.ms());
        if (kind) {
            send_for(*key, *kind, now);
        }
        refresh(*key, now);
    }
}

// The first for which there is room.
std::optional<link_key> keeper::next_to_do() const
{
    const bool line = waits_.size() < window_;
    const bool at_once = short_.size() < window_;
    auto at = line ? todo_.begin() : todo_.lower_bound({RTT_RANK, {}});
    if (at != todo_.end() && at->first == RTT_RANK && !at_once) {
        at = todo_.lower_bound({RTT_RANK + 1, {}});
    }
    if (at == todo_.end() || (!line && at->first != RTT_RANK)) {
        return std::nullopt;
    }
    return at->second;
}

void keeper::ask(const request &what, const link_key &key, const instant &now)
{
    const uint32_t number = out_.send(what);
    short_[number] = {{what, key}, now.ms() + STALL_MS, 0, {number}};
    short_first_[number] = number;
}

// The first answer to any of them counts: they ask for the same, and what comes after them is asked after them.
void keeper::ask_again(const instant &now)
{
    for (auto &[first, each] : short_) {
        if (each.again_ms > now.ms()) {
            continue;
        }
        each.times++;
        each.again_ms = now.ms() + doubled(STALL_MS, each.times + 1, LONGEST_STALL_MS);
        const uint32_t number = out_.send(each.was.what);
        each.numbers.push_back(number);
        short_first_[number] = first;
        if (each.numbers.size() > MOST_TWINS) {
            short_first_.erase(each.numbers.front());
            each.numbers.erase(each.numbers.begin());
        }
    }
}

keeper::sent keeper::take_asked(uint32_t first)
{
    const auto all = short_.extract(first);
    for (const uint32_t number : all.mapped().numbers) {
        short_first_.erase(number);
    }
    return all.mapped().was;
}

void keeper::send_for(const link_key &key, request_kind kind, const instant &now)
{
    entry &e = entries_.at(key);
    request what{kind, key, e.link_ref, {}, {}};
    if (kind == request_kind::create || kind == request_kind::update) {
        what.app_links = e.wanted->app_links;
    }
    if (kind == request_kind::enable_rtt) {
        what.rtt = *e.wanted->rtt;
    }
    if (waits_in_line(kind) && waits_.empty()) {
        progress_ms_ = now.ms();
        stalls_ = 0;
        was_refused_ = false;
    }
    if (waits_in_line(kind)) {
        waits_[out_.send(what)] = {what, key};
    } else {
        ask(what, key, now);
    }
    e.under_way++;
}

std::optional<int64_t> keeper::stall_ms() const
{
    if (waits_.empty()) {
        return std::nullopt;
    }
    const int64_t first = was_refused_ ? STALL_AFTER_REFUSAL_MS : STALL_MS;
    return progress_ms_ + doubled(first, stalls_ + 1, LONGEST_STALL_MS);
}

// The oldest, since what was sent after it waits behind it. Its twin stands for it from here on: whatever the first one
// is answered, and when, is only taken for what it says of the daemon's links.
void keeper::send_again(const instant &now)
{
    auto oldest = waits_.extract(waits_.begin());
    stalls_++;
    progress_ms_ = now.ms();
    waits_[out_.send(oldest.mapped().what)] = oldest.mapped();
    stale_.insert(std::move(oldest));
}

void keeper::tick(const instant &now)
{
    while (!later_.empty() && later_.begin()->first <= now.ms()) {
        const link_key key = later_.begin()->second;
        later_.erase(later_.begin());
        refresh(key, now);
    }
    const auto stalls = stall_ms();
    if (stalls && *stalls <= now.ms()) {
        send_again(now);
    }
    ask_again(now);
    pump(now);
}

std::optional<int64_t> keeper::next_ms() const
{
    if (!session_) {
        return published_ ? std::optional(next_open_ms_) : std::nullopt;
    }
    auto next = stall_ms();
    if (!later_.empty() && (!next || later_.begin()->first < *next)) {
        next = later_.begin()->first;
    }
    for (const auto &[first, each] : short_) {
        next = next ? std::min(*next, each.again_ms) : each.again_ms;
    }
    return next;
}

// ---- What the daemon says ------------------------------------------------------------------------------------------

void keeper::answered(const answer &what, const instant &now)
{
    if (openings_.erase(what.number) != 0) {
        if (!session_) {
            opened(what, now);
            pump(now);
        }
        return;
    }
    if (const auto stale = stale_.find(what.number); stale != stale_.end()) {
        const sent was = stale->second;
        stale_.erase(stale);
        progress_ms_ = now.ms();
        settle_stale(was, what, now);
        pump(now);
        return;
    }
    if (const auto first = short_first_.find(what.number); first != short_first_.end()) {
        const sent was = take_asked(first->second);
        settle(was, what, now);
        pump(now);
        return;
    }
    if (const auto found = waits_.extract(what.number); !found.empty()) {
        progress_ms_ = now.ms();
        stalls_ = 0;
        was_refused_ = !what.confirmed;
        settle(found.mapped(), what, now);
        pump(now);
    }
}

void keeper::settle(const sent &was, const answer &what, const instant &now)
{
    if (!what.confirmed && what.reason == IEMLI_REJ_SERVICE_NOT_INITIATED) {
        mark_gone_sessions("no session", now);
        next_open_ms_ = now.ms() + FIRST_DELAY_MS;
        return;
    }
    if (was.what.kind == request_kind::get_mac) {
        if (what.confirmed) {
            macs_[was.key] = what.mac;
        } else {
            macs_asked_.erase(was.key); // asked for again with the next news of the port
        }
        return;
    }
    const auto found = entries_.find(was.key);
    if (found == entries_.end()) {
        return;
    }
    entry &e = found->second;
    e.under_way--;
    if (what.confirmed) {
        confirmed(was, what, e, now);
    } else {
        refused(was, what, e, now);
    }
    show(was.key, now);
    refresh(was.key, now);
}

// A refusal is its twin's matter.
void keeper::settle_stale(const sent &was, const answer &what, const instant &now)
{
    if (!what.confirmed) {
        return;
    }
    link_key key = was.key;
    if (was.what.kind != request_kind::create) {
        const auto found = by_ref_.find(was.what.link_ref); // the reference may be another link's by now
        if (found == by_ref_.end()) {
            return;
        }
        key = found->second;
    }
    entry &e = entries_[key];
    if (was.what.kind == request_kind::create || was.what.kind == request_kind::update) {
        confirmed({was.what, key}, what, e, now);
    } else {
        e.doubted = true;
    }
    show(key, now);
    refresh(key, now);
}

void keeper::confirmed(const sent &was, const answer &what, entry &e, const instant &now)
{
    if (was.what.kind == request_kind::remove) {
        removed(was, e, now);
        return;
    }
    if (was.what.kind == request_kind::create) {
        if (e.link_ref == what.link_ref) {
            return; // it was found in the daemon's list before
        }
        by_ref_.erase(e.link_ref); // it has gone untold, and was created again
        hand_on(what.link_ref, was.key, now);
        e.link_ref = what.link_ref;
        e.app_links = was.what.app_links;
        e.doubted = false;
        e.rtt.reset();
        e.told.reset();
        e.results = 0;
        e.lost_pings = 0;
        begin_count(e);
    } else if (was.what.kind == request_kind::update) {
        e.app_links = was.what.app_links;
        e.doubted = false;
        retry_what_may_go_now(now);
    } else if (was.what.kind == request_kind::enable_rtt) {
        e.rtt = was.what.rtt;
    } else if (was.what.kind == request_kind::disable_rtt) {
        e.rtt.reset();
    }
    try_at(was.key, e, 0);
    e.failures = 0;
    e.refusal = "";
}

void keeper::removed(const sent &was, entry &e, const instant &now)
{
    if (e.link_ref == was.what.link_ref) {
        forget_link(e);
        try_at(was.key, e, 0);
        retry_what_may_go_now(now);
    }
}

// The daemon calls that link by this number now; whichever it called so before, nobody told us that it is gone.
void keeper::hand_on(uint32_t link_ref, const link_key &to, const instant &now)
{
    const auto found = by_ref_.find(link_ref);
    if (found != by_ref_.end() && found->second != to) {
        const link_key other = found->second;
        forget_link(entries_.at(other));
        show(other, now);
        refresh(other, now);
    }
    by_ref_[link_ref] = to;
}

void keeper::forget_link(entry &e)
{
    by_ref_.erase(e.link_ref);
    e.link_ref = 0;
    e.anew = false;
    e.doubted = false;
    e.listed.reset();
    e.app_links.clear();
    e.rtt.reset();
    e.told.reset();
}

void keeper::refused(const sent &was, const answer &what, entry &e, const instant &now)
{
    const request_kind kind = was.what.kind;
    if (kind == request_kind::create && e.link_ref != 0) {
        return; // the twin of one that was confirmed after all
    }
    if (kind == request_kind::update && what.reason == IEMLI_REJ_LINK_DATA_NO_CHANGE) {
        e.app_links = was.what.app_links;
        e.doubted = false;
        return;
    }
    if (what.reason == IEMLI_REJ_UNKNOWN_LINK_REF && kind != request_kind::create) {
        if (e.link_ref == was.what.link_ref) {
            forget_link(e); // nobody told us that it is gone
        }
        return;
    }
    if (what.reason == IEMLI_REJ_RTT_ALREADY_ENABLED) {
        e.rtt = RTT_UNKNOWN; // ended first
        return;
    }
    // Two links that exchange applications keep each other from it until one of them goes.
    e.anew = kind == request_kind::update && what.reason == IEMLI_REJ_APP_LINK_ALREADY_USED && e.failures > 0;
    e.failures++;
    e.reason = what.reason;
    e.refusal = reason_text(what.reason);
    try_at(was.key, e, e.anew ? 0 : now.ms() + delay_after(e.failures, what.reason));
}

// The time of the next try is a key of later_.
void keeper::try_at(const link_key &key, entry &e, int64_t ms)
{
    later_.erase({e.next_try_ms, key});
    e.next_try_ms = ms;
}

void keeper::hurry(const link_key &key, entry &e, const instant &now)
{
    const int64_t last_try_ms = e.next_try_ms - delay_after(e.failures, e.reason);
    const int64_t soonest = std::max(now.ms(), last_try_ms + BETWEEN_HURRIED_MS);
    if (e.failures > 0 && soonest < e.next_try_ms) {
        try_at(key, e, soonest);
        refresh(key, now);
    }
}

void keeper::retry_what_may_go_now(const instant &now)
{
    std::vector<link_key> which;
    for (const auto &[at, key] : later_) {
        if (is_about_other_links(entries_.at(key).reason)) {
            which.push_back(key);
        }
    }
    for (const link_key &key : which) {
        hurry(key, entries_.at(key), now);
    }
}

void keeper::status(uint32_t link_ref, bool enabled, const std::string &reason, const instant &now)
{
    const auto found = by_ref_.find(link_ref);
    if (found == by_ref_.end()) {
        return;
    }
    const link_key key = found->second;
    entry &e = entries_.at(key);
    e.told = enabled ? link_state::enabled : link_state::disabled;
    e.told_reason = enabled ? "" : reason;
    show(key, now);
    std::vector<link_key> same_port;
    for (const auto &[at, other] : later_) {
        if (other.port == key.port) {
            same_port.push_back(other);
        }
    }
    for (const link_key &other : same_port) {
        hurry(other, entries_.at(other), now);
    }
    ask_for_mac(key);
    pump(now);
}

void keeper::measured(uint32_t link_ref, rtt_sample sample, const instant &now)
{
    const auto found = by_ref_.find(link_ref);
    if (found == by_ref_.end()) {
        return;
    }
    entry &e = entries_.at(found->second);
    if (sample.valid != 0) {
        e.last_answer_boot_us = now.boot_us;
    }
    if (!e.wanted || !e.wanted->rtt) {
        return;
    }
    sample.link = e.wanted->name;
    sample.at_us = now.real_us;
    e.last_rtt = sample;
    e.last_rtt_boot_us = now.boot_us;
    told_.measured(sample);
}

// ---- The daemon's list ---------------------------------------------------------------------------------------------

// What is counted from here on is another count.
void keeper::begin_count(entry &e)
{
    e.results_before = e.results;
    e.lost_before = e.lost_pings;
    e.count = ++counts_;
}

void keeper::listed(const std::vector<listed_link> &links, const instant &now)
{
    if (!session_) {
        return;
    }
    std::set<uint32_t> refs;
    for (const listed_link &link : links) {
        refs.insert(link.link_ref);
        if (const auto found = by_ref_.find(link.link_ref); found != by_ref_.end() && found->second == link.key) {
            compare(link, entries_.at(found->second), now);
        } else {
            take_up(link, now);
        }
    }
    forget_unlisted(refs, now);
    pump(now);
}

// News that never came: what two lists say is so. In the first the daemon may not have told it yet.
void keeper::compare(const listed_link &link, entry &e, const instant &now)
{
    // More answers than before: the last of them came after the counts before these were taken.
    const bool anew = link.results < e.results;
    if (link.results - link.lost > (anew ? 0 : e.results - e.lost_pings)) {
        e.last_answer_boot_us = now.boot_us;
    }
    e.results = link.results;
    e.lost_pings = link.lost;
    if (e.count == 0 || e.results < e.results_before || e.lost_pings < e.lost_before) {
        e.results_before = 0;
        e.lost_before = 0;
        e.count = ++counts_;
    }
    told_.counted(e.name, e.count, e.results - e.results_before, e.lost_pings - e.lost_before);
    // What was sent twice may have met another link: a number is given again as soon as it is free.
    if (e.under_way == 0 && e.wanted) {
        e.doubted = e.doubted || (link.app_links && *link.app_links != e.app_links);
        if (link.rtt && *link.rtt != e.rtt.has_value()) {
            e.rtt = *link.rtt ? std::optional(RTT_UNKNOWN) : std::nullopt;
        }
        refresh(link.key, now);
    }
    const std::pair<link_state, std::string> seen = {link.enabled ? link_state::enabled : link_state::disabled,
                                                     link.enabled ? "" : link.reason};
    if (e.told == seen.first && e.told_reason == seen.second) {
        e.listed.reset();
    } else if (e.listed != seen) {
        e.listed = seen;
    } else {
        e.listed.reset();
        e.told = seen.first;
        e.told_reason = seen.second;
        show(link.key, now);
    }
}

// The answer to its create was lost. What else it was asked for is not known either.
void keeper::take_up(const listed_link &link, const instant &now)
{
    entry &e = entries_[link.key];
    if (e.link_ref != 0 || e.under_way != 0) {
        return; // its answer is on its way, or it is asked for again
    }
    hand_on(link.link_ref, link.key, now);
    e.link_ref = link.link_ref;
    e.doubted = true;
    e.rtt = link.rtt.value_or(true) ? std::optional(RTT_UNKNOWN) : std::nullopt;
    e.told = link.enabled ? link_state::enabled : link_state::disabled;
    e.told_reason = link.enabled ? "" : link.reason;
    e.results = 0;
    e.lost_pings = 0;
    begin_count(e);
    e.failures = 0;
    e.refusal = "";
    try_at(link.key, e, 0);
    show(link.key, now);
    refresh(link.key, now);
}

// Nobody told us that it is gone.
void keeper::forget_unlisted(const std::set<uint32_t> &refs, const instant &now)
{
    std::vector<link_key> which;
    for (const auto &[ref, key] : by_ref_) {
        if (!refs.contains(ref) && entries_.at(key).under_way == 0) {
            which.push_back(key);
        }
    }
    for (const link_key &key : which) {
        forget_link(entries_.at(key));
        show(key, now);
        refresh(key, now);
    }
}

// ---- What is seen --------------------------------------------------------------------------------------------------

link_view keeper::view_of(const named &link, const declaration &wanted, const instant &now) const
{
    link_view view;
    const entry &e = entries_.at(link.key);
    view.link = link.identity;
    view.near_mp = link.key.near_mp;
    view.app_links = wanted.app_links;
    view.rtt = wanted.rtt;
    view.declared = wanted.declared;
    view.file = wanted.at.file;
    view.state = link.state;
    view.reason = link.reason;
    if (view.reason.empty() && !e.refusal.empty()) {
        view.reason = "a change is refused: " + e.refusal;
    }
    view.since_us = link.since_real_us;
    view.link_ref = e.link_ref;
    if (const auto mac = macs_.find(port_and_processor(link.key)); mac != macs_.end()) {
        view.near_mac = text_of(mac->second);
    }
    view.last_rtt = wanted.rtt ? e.last_rtt : std::nullopt;
    view.results = e.results - e.results_before;
    view.lost = e.lost_pings - e.lost_before;
    if (e.last_answer_boot_us) {
        view.last_answer_age_us = now.boot_us - *e.last_answer_boot_us;
    }
    if (e.failures > 0 && e.next_try_ms > now.ms()) {
        view.next_try_us = now.real_us + (e.next_try_ms - now.ms()) * US_PER_MS;
    }
    return view;
}

std::vector<link_view> keeper::views(const instant &now) const
{
    std::vector<link_view> all;
    all.reserve(names_.size());
    for (const auto &[name, link] : names_) {
        all.push_back(view_of(link, declared_.at(name), now));
    }
    return all;
}

std::optional<link_view> keeper::view(const std::string &name, const instant &now) const
{
    const auto found = names_.find(name);
    return found == names_.end() ? std::nullopt : std::optional(view_of(found->second, declared_.at(name), now));
}

node_view keeper::node() const
{
    node_view seen;
    seen.daemon = published_;
    seen.session = session_;
    seen.missing = missing_;
    seen.since_us = session_ ? session_since_us_ : 0;
    seen.sessions = sessions_;
    seen.requests_sent = waits_.size() + stale_.size() + short_.size();
    seen.requests_due = todo_.size();
    for (const auto &[name, link] : names_) {
        seen.waiting += link.state == link_state::waiting ? 1 : 0;
        seen.rejected += link.state == link_state::rejected ? 1 : 0;
        seen.disabled += link.state == link_state::disabled ? 1 : 0;
        seen.enabled += link.state == link_state::enabled ? 1 : 0;
    }
    return seen;
}

} // namespace linkd
