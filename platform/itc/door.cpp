#include "door.hpp"

#include "state.hpp"

#include <algorithm>

namespace itc
{
namespace
{

enum class judgement {
    pass,
    too_large,
    not_from_there,
    no_session_left
};

bool has_number(const std::vector<uint32_t> &all, uint32_t one)
{
    return std::find(all.begin(), all.end(), one) != all.end();
}

bool is_member(uint32_t rule, uint32_t sender)
{
    const auto &membership = g().doors.membership;
    const auto rules = sender == ITC_NO_MBOX ? membership.end() : membership.find(itc_wire::process_of(sender));
    return rules != membership.end() && has_number(rules->second.rules, rule);
}

bool lets_in(uint32_t rule, uint32_t sender)
{
    if (sender == ITC_NO_MBOX) {
        return false;
    }
    const auto named = g().doors.named.find(rule);
    return is_member(rule, sender) ||
           (named != g().doors.named.end() && std::any_of(named->second.begin(), named->second.end(),
                                                          [&](const door_named &n) { return n.mbox == sender; }));
}

judgement judge_ranges(const door &d, const arrival &a)
{
    bool ruled = false;
    for (const door_range &range : d.ranges) {
        if (a.msgno >= range.first && a.msgno <= range.last) {
            if (lets_in(range.rule, a.sender)) {
                return judgement::pass;
            }
            ruled = true;
        }
    }
    return ruled ? judgement::not_from_there : judgement::pass;
}

// The share that a client which opens a session would have it from; NULL: none is left to it.
door_share *share_for(door &d, uint32_t sender, uint32_t msgno)
{
    for (door_share &share : d.shares) {
        if (share.opens == msgno && share.sessions.size() < share.at_most && is_member(share.rule, sender)) {
            return &share;
        }
    }
    return nullptr;
}

bool opens_session(const door &d, uint32_t msgno)
{
    return std::any_of(d.shares.begin(), d.shares.end(), [&](const door_share &s) { return s.opens == msgno; });
}

judgement judge(door &d, const arrival &a)
{
    if (a.size > d.largest) {
        return judgement::too_large;
    }
    const judgement by_number = judge_ranges(d, a);
    if (by_number == judgement::pass && opens_session(d, a.msgno) && share_for(d, a.sender, a.msgno) == nullptr) {
        return judgement::no_session_left;
    }
    return by_number;
}

void refuse(judgement why)
{
    itc_statistics &count = g().statistics;
    switch (why) {
    case judgement::pass:
        break;
    case judgement::too_large:
        note_drop(&count.dropped_too_large, "it is larger than its receiver takes");
        break;
    case judgement::not_from_there:
        note_drop(&count.dropped_refused, "its receiver does not take that number from there");
        break;
    case judgement::no_session_left:
        note_drop(&count.dropped_refused, "there is no session left to its sender");
        break;
    }
}

door *door_of(uint32_t mbox)
{
    const auto found = g().doors.of.find(mbox);
    return found == g().doors.of.end() ? nullptr : &found->second;
}

// ---- Sessions

// Tells us of the client's end. A message is not delivered for it.
uint32_t await_end(uint32_t client)
{
    const uint32_t id = new_serial();
    g().monitors[id] = {nullptr, ITC_NO_MBOX};
    itc_wire::writer request(itc_wire::monitor, id);
    registry_send(request.u32(client));
    return id;
}

void forget_end(uint32_t monitor_id)
{
    if (g().monitors.erase(monitor_id) != 0) {
        itc_wire::writer request(itc_wire::unmonitor, monitor_id);
        registry_send(request);
    }
}

template <typename Which> void end_sessions(door_share &share, Which which)
{
    const auto kept = std::stable_partition(share.sessions.begin(), share.sessions.end(),
                                            [&](const door_session &s) { return !which(s); });
    std::vector<uint32_t> awaited;
    for (auto it = kept; it != share.sessions.end(); ++it) {
        awaited.push_back(it->monitor_id);
    }
    share.sessions.erase(kept, share.sessions.end());
    for (const uint32_t id : awaited) {
        forget_end(id);
    }
}

// Answers come in the order of the requests: this one is to the first of that client that has none yet.
door_session *first_unanswered(door_share &share, uint32_t client)
{
    for (door_session &s : share.sessions) {
        if (s.client == client && !s.open) {
            return &s;
        }
    }
    return nullptr;
}

uint32_t word_at(block *b, uint32_t offset)
{
    uint32_t word = 0;
    if (b->size >= sizeof word && offset <= b->size - sizeof word) {
        memcpy(&word, b->bytes() + offset, sizeof word);
    }
    return word;
}

void answer_session(door_share &share, uint32_t client, uint32_t msgno, uint32_t reference)
{
    door_session *asked = msgno == share.opened || msgno == share.refused ? first_unanswered(share, client) : nullptr;
    if (asked != nullptr && msgno == share.opened) {
        asked->open = true;
        asked->reference = reference;
    } else if (asked != nullptr) {
        const uint32_t id = asked->monitor_id;
        end_sessions(share, [id](const door_session &s) { return s.monitor_id == id; });
    } else if (msgno == share.closed) {
        end_sessions(share,
                     [&](const door_session &s) { return s.open && s.client == client && s.reference == reference; });
    }
}

// ---- What the registry says

void on_rule(uint32_t mbox, const door_range &range)
{
    std::vector<door_range> &ranges = g().doors.of[mbox].ranges;
    const auto same = [&](const door_range &r) {
        return r.rule == range.rule && r.first == range.first && r.last == range.last;
    };
    if (std::none_of(ranges.begin(), ranges.end(), same)) { // a frame may be looked at twice
        ranges.push_back(range);
    }
}

void on_share(uint32_t mbox, const door_share &share)
{
    std::vector<door_share> &shares = g().doors.of[mbox].shares;
    if (std::none_of(shares.begin(), shares.end(), [&](const door_share &s) { return s.rule == share.rule; })) {
        shares.push_back(share);
    }
}

// That mailbox has the name `which` of the rule. In its turn among what the registry says this ends the time of those
// who had the name before: what they sent while they lived is taken in first.
void on_admit(uint32_t rule, uint32_t which, uint32_t mbox, bool in_turn)
{
    const auto is = [&](const door_named &n) { return n.which == which && n.mbox == mbox; };
    const auto precedes = [&](const door_named &n) { return n.which == which && n.mbox != mbox; };
    std::vector<door_named> &named = g().doors.named[rule]; // its place does not change while others come and go
    if (std::none_of(named.begin(), named.end(), is)) {
        named.push_back({which, mbox});
    }
    while (in_turn) {
        const auto now = std::find_if(named.begin(), named.end(), is);
        const auto before = std::find_if(named.begin(), now, precedes);
        if (before == now) {
            break;
        }
        const uint32_t old = before->mbox;
        peer_drain(itc_wire::process_of(old)); // may look ahead, and let others in
        named.erase(std::find_if(named.begin(), named.end(),
                                 [&](const door_named &n) { return n.mbox == old && n.which == which; }));
    }
}

void on_member(uint32_t rule, uint32_t process, uint32_t channel)
{
    door_membership &of = g().doors.membership[process];
    if (of.channel != channel) {
        of = {channel, {}};
    }
    if (!has_number(of.rules, rule)) {
        of.rules.push_back(rule);
    }
}

} // namespace

bool door_frame_is(uint32_t type) { return type >= itc_wire::door_limit && type <= itc_wire::door_member; }

bool door_frame(const itc_wire::registry_frame &head, itc_wire::reader &fields, bool in_turn)
{
    uint32_t words[8] = {};
    const size_t count = itc_wire::door_words(head.type);
    for (size_t i = 0; i < count; i++) {
        words[i] = fields.u32();
    }
    if (!fields.whole()) {
        return false;
    }
    if (head.type == itc_wire::door_admit) {
        on_admit(words[0], words[1], words[2], in_turn);
    } else if (head.type == itc_wire::door_member) {
        on_member(words[0], words[1], words[2]);
    } else if (!mbox_is_own(words[0])) {
        return true; // deleted meanwhile
    } else if (head.type == itc_wire::door_limit) {
        door &d = g().doors.of[words[0]];
        d.largest = std::min(d.largest, words[1]);
    } else if (head.type == itc_wire::door_rule) {
        on_rule(words[0], {words[1], words[2], words[3]});
    } else {
        on_share(words[0], {words[1], words[2], words[3], words[4], words[5], words[6], words[7], {}});
    }
    return true;
}

bool door_admits(const arrival &a)
{
    door *d = door_of(a.to);
    judgement j = d == nullptr ? judgement::pass : judge(*d, a);
    if (j != judgement::pass) {
        registry_look_ahead();
        d = door_of(a.to);
        j = d == nullptr ? judgement::pass : judge(*d, a);
    }
    refuse(j);
    return j == judgement::pass;
}

bool door_passed(uint32_t sender, uint32_t to, uint32_t msgno)
{
    door *d = door_of(to);
    if (d == nullptr || !opens_session(*d, msgno)) {
        return true;
    }
    door_share *share = share_for(*d, sender, msgno);
    if (share == nullptr) {
        refuse(judgement::no_session_left);
        return false;
    }
    share->sessions.push_back({sender, 0, false, 0});
    share->sessions.back().monitor_id = await_end(sender);
    return true;
}

void door_answered(uint32_t from, uint32_t to, block *b)
{
    door *d = door_of(from);
    if (d == nullptr || d->shares.empty()) {
        return;
    }
    const uint32_t msgno = word_at(b, 0);
    for (door_share &share : d->shares) {
        answer_session(share, to, msgno, word_at(b, share.session_at));
    }
}

void door_client_died(uint32_t client)
{
    for (auto &[mbox, d] : g().doors.of) {
        for (door_share &share : d.shares) {
            end_sessions(share, [client](const door_session &s) { return s.client == client; });
        }
    }
}

void door_service_changed(uint32_t mbox)
{
    door *d = door_of(mbox);
    if (d != nullptr) {
        for (door_share &share : d->shares) {
            end_sessions(share, [](const door_session &s) { return s.open; });
        }
    }
}

void door_forget_mailbox(uint32_t mbox)
{
    door *d = door_of(mbox);
    if (d != nullptr) {
        for (door_share &share : d->shares) {
            end_sessions(share, [](const door_session &) { return true; });
        }
        g().doors.of.erase(mbox);
    }
}

void door_forget_channel(uint32_t process, uint32_t channel)
{
    const auto found = g().doors.membership.find(process);
    if (found != g().doors.membership.end() && found->second.channel == channel) {
        g().doors.membership.erase(found);
    }
}

void door_forget_all() { g().doors = {}; }

} // namespace itc
