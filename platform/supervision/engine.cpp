// The supervision engine. See engine.hpp.
#include "engine.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace supervision
{

namespace
{

int64_t slot_of(int64_t monotonic) { return monotonic / SLOT_NS; }

int64_t period_of(const session &s) { return static_cast<int64_t>(s.interval) * SLOTS_PER_SECOND; }

// With a tag; an interface that comes back may need one.
size_t frame_length(const session &s) { return s.frame_size + sizeof(ecpri::vlan_tag); }

uint64_t mac_number(const mac_address &mac)
{
    uint64_t number = 0;
    memcpy(&number, mac.byte, sizeof mac.byte);
    return number;
}

// Spreads keys that differ in few bits; far from any secret, a peer cannot choose keys.
uint64_t mix(uint64_t value)
{
    value ^= value >> 32;
    value *= 0xD6E8FEB86659FD93u;
    value ^= value >> 32;
    value *= 0xD6E8FEB86659FD93u;
    return value ^ value >> 32;
}

// ---- Buckets: the sessions of one slot of the second ----

// What is looked at for each session that is added must not be a hundred buckets.
void count_in(engine &e, size_t at)
{
    e.with_fewest -= e.fill[at] == e.fewest ? 1 : 0;
    e.fill[at]++;
    if (e.with_fewest == 0) {
        e.fewest++;
        e.with_fewest = static_cast<uint32_t>(std::count(e.fill, e.fill + SLOTS_PER_SECOND, e.fewest));
    }
}

void count_out(engine &e, size_t at)
{
    e.fill[at]--;
    if (e.fill[at] < e.fewest) {
        e.fewest = e.fill[at];
        e.with_fewest = 1;
    } else if (e.fill[at] == e.fewest) {
        e.with_fewest++;
    }
}

void put_in_bucket(engine &e, session *s)
{
    bucket &b = e.buckets[s->bucket];
    s->place = b.sessions.size();
    b.sessions.push_back(s);
    count_in(e, s->bucket);
    b.earliest = std::min(b.earliest, s->due);
}

void take_out_of_bucket(engine &e, const session *s)
{
    bucket &b = e.buckets[s->bucket];
    b.sessions[s->place] = b.sessions.back();
    b.sessions[s->place]->place = s->place;
    b.sessions.pop_back();
    count_out(e, s->bucket);
    if (b.sessions.empty()) {
        b.earliest = NEVER;
    }
}

// The first of the coming hundred slots with the fewest sessions.
int64_t quietest_slot(const engine &e, int64_t now_slot)
{
    const uint32_t *end = e.fill + SLOTS_PER_SECOND;
    const uint32_t *next = e.fill + (now_slot + 1) % SLOTS_PER_SECOND;
    const uint32_t *found = std::find(next, end, e.fewest);
    const uint32_t *place = found != end ? found : std::find(e.fill, end, e.fewest);
    return now_slot + 1 + (place - next + SLOTS_PER_SECOND) % SLOTS_PER_SECOND;
}

// Which second of its interval a session begins in: each in turn, so that sessions started together do not all send in
// one second and then leave the wire alone until the interval is over.
int64_t next_second(engine &e, const session &s) { return s.interval > 1 ? e.longer_added++ % s.interval : 0; }

// ---- Keys ----

void enter_key(engine &e, session *s)
{
    session *&first = e.by_key[s->key];
    s->twin = first;
    first = s;
}

void leave_key(engine &e, session *s)
{
    const auto found = e.by_key.find(s->key);
    session **link = &found->second;
    while (*link != s) {
        link = &(*link)->twin;
    }
    *link = s->twin;
    if (found->second == nullptr) {
        e.by_key.erase(found);
    }
}

bool is_of(const request &r, uint8_t id) { return r.outstanding && r.measurement_id == id; }

bool id_is_taken(const engine &e, const session *s, uint8_t id)
{
    for (const session *t = e.by_key.find(s->key)->second; t != nullptr; t = t->twin) {
        if ((t != s && is_of(t->latest, id)) || is_of(t->extended, id)) {
            return true;
        }
    }
    return false;
}

// Sessions between the same two addresses are told apart by the id alone: none may have two owners at a time.
uint8_t next_measurement_id(const engine &e, session *s)
{
    if (!s->has_ids) {
        s->ids = make_id_order(e.key, s->id);
        s->has_ids = true;
    }
    uint8_t id = next_id(&s->ids);
    for (int tries = 1; tries < 256 && id_is_taken(e, s, id); tries++) {
        id = next_id(&s->ids);
    }
    return id;
}

// ---- Marks ----

// How much of a mark a session's requests have room for.
size_t mark_room(const session &s) { return std::min<size_t>(MARK_SIZE, s.frame_size - ecpri::MIN_FRAME_SIZE); }

bool brings_mark_of(const engine &e, const session &s, uint32_t sequence, const answer &a)
{
    const size_t room = mark_room(s);
    const mark ours = make_mark(e.key, e.process_mark, s.id, sequence);
    return a.marked >= room && memcmp(a.bytes, &ours, room) == 0;
}

// Whether an answer can be one to the request with that sequence number, as far as its dummy bytes go.
bool may_answer(const engine &e, const session &s, uint32_t sequence, const answer &a)
{
    return a.dummy_bytes == 0 ? !s.echoes : brings_mark_of(e, s, sequence, a);
}

// The same for any request of the session: the answer itself says for which.
bool may_answer_any(const engine &e, const session &s, const answer &a)
{
    be32 sequence{};
    if (a.marked >= offsetof(mark, sequence) + sizeof sequence) {
        memcpy(&sequence, a.bytes + offsetof(mark, sequence), sizeof sequence);
    }
    return may_answer(e, s, from_be32(sequence), a);
}

void note_echo(engine &e, session &s, const answer &a)
{
    if (!s.echoes && a.dummy_bytes > 0 && mark_room(s) > 0) {
        s.echoes = true;
        e.echoing++;
    }
}

struct owner {
    session *s;
    request *r; // NULL: none waits for the answer
};

owner owner_of(engine &e, const answer &a)
{
    const auto found = e.by_key.find(a.key);
    for (session *s = found == e.by_key.end() ? nullptr : found->second; s != nullptr; s = s->twin) {
        for (request *r : {&s->latest, &s->extended}) {
            if (!is_of(*r, a.measurement_id)) {
                continue;
            }
            if (may_answer(e, *s, r->sequence, a)) {
                return {s, r};
            }
            e.counters.foreign++;
        }
    }
    return {nullptr, nullptr};
}

// The far end lives, however late it answers.
void have_patience_again(engine &e, const answer &a)
{
    const auto found = e.by_key.find(a.key);
    for (session *s = found == e.by_key.end() ? nullptr : found->second; s != nullptr; s = s->twin) {
        s->hasty = s->hasty && !may_answer_any(e, *s, a);
    }
}

// ---- Judging ----

bool clock_was_set(const request &r, const clocks &now)
{
    return std::llabs((now.real - r.sent.real) - (now.monotonic - r.sent.monotonic)) > CLOCK_STEP_NS;
}

bool round_trip_is_usable(const request &r, const answer &a, const clocks &now)
{
    return a.time_valid && a.received >= r.sent.real && a.received <= now.real && !clock_was_set(r, now);
}

uint32_t result_of(const session &s, bool usable)
{
    if (s.type == SUPERVISION_TYPE_KEEP_ALIVE) {
        return SUPERVISION_KEEP_ALIVE_OK;
    }
    return usable ? SUPERVISION_ANSWERED : SUPERVISION_ANSWERED_NO_TIME;
}

void report_lost(engine &e, session &s, request &r)
{
    r.outstanding = false;
    e.counters.lost++;
    s.callback(nullptr, s.id, SUPERVISION_LOST);
}

// ---- Sending ----

void put_dummy_bytes(const engine &e, const session &s, uint8_t *bytes, size_t size)
{
    const mark ours = make_mark(e.key, e.process_mark, s.id, s.latest.sequence);
    memset(bytes, 0, size);
    memcpy(bytes, &ours, std::min(size, sizeof ours));
}

size_t build_request(engine &e, const session &s)
{
    const ecpri::measurement m{.destination = s.key.remote,
                               .source = s.key.local,
                               .ether_type = s.ether_type,
                               .measurement_id = s.latest.measurement_id,
                               .action = ecpri::ACTION_REQUEST,
                               .seconds = static_cast<uint64_t>(s.latest.sent.real / 1'000'000'000),
                               .nanoseconds = static_cast<uint32_t>(s.latest.sent.real % 1'000'000'000)};
    const size_t length = s.tagged ? frame_length(s) : s.frame_size;
    const size_t dummy = ecpri::put_measurement(e.frame.data(), m, s.frame_size, s.tagged ? &s.tag : nullptr);
    put_dummy_bytes(e, s, e.frame.data() + dummy, length - dummy);
    return length;
}

void send_request(engine &e, session &s, const engine_io &io)
{
    s.sequence++;
    const uint8_t id = next_measurement_id(e, &s);
    const clocks stamp = io.read_clocks(io.context);
    s.latest = {true, id, stamp, stamp.monotonic, false, s.sequence};
    const size_t length = build_request(e, s);
    const int result = io.send(io.context, s, e.frame.data(), length);
    s.latest.left = io.read_clocks(io.context).monotonic;
    s.latest.no_room = result == EAGAIN || result == ENOMEM;
    (result == 0 ? e.counters.sent : e.counters.not_sent)++;
}

// The session's next turn in its own slot.
void schedule_next(session &s, int64_t now_slot)
{
    const int64_t period = period_of(s);
    const int64_t missed = std::max<int64_t>(now_slot - s.due, 0) / period;
    s.due += (missed + 1) * period;
}

// Its answer has hardly had time to come: it left long after its turn.
bool is_fresh(const session &s, int64_t now) { return now - s.latest.left < period_of(s) * SLOT_NS / 2; }

// It did not leave, or its answer may be among frames that nobody read.
bool cannot_be_judged(const session &s, const request &r, const engine_io &io)
{
    return r.no_room || (io.may_have_missed != nullptr && io.may_have_missed(io.context, s, r.sent.monotonic));
}

void let_go_or_report_lost(engine &e, session &s, request &r, const engine_io &io)
{
    if (s.hasty || !cannot_be_judged(s, r, io)) {
        report_lost(e, s, r);
        return;
    }
    r.outstanding = false;
    s.hasty = true;
    e.counters.unjudged++;
}

// Whatever is still unanswered is lost now, or gets one more interval.
void judge(engine &e, session &s, int64_t now, bool late, const engine_io &io)
{
    if (s.extended.outstanding) {
        let_go_or_report_lost(e, s, s.extended, io);
        s.hasty = true;
    }
    if (!s.latest.outstanding) {
        return;
    }
    if (is_fresh(s, now) || (late && !s.hasty)) {
        s.extended = s.latest;
        e.counters.extended++;
    } else {
        let_go_or_report_lost(e, s, s.latest, io);
    }
}

void take_turn(engine &e, session &s, int64_t now, const engine_io &io)
{
    const int64_t now_slot = slot_of(now);
    const bool late = now_slot - s.due >= LATE_SLOTS;
    schedule_next(s, now_slot);
    judge(e, s, now, late, io);
    e.counters.late += late ? 1 : 0;
    send_request(e, s, io);
}

// Returns how many slots the latest of its sessions was behind its turn.
int64_t run_bucket(engine &e, bucket &b, int64_t now, const engine_io &io)
{
    const int64_t now_slot = slot_of(now);
    int64_t earliest = NEVER;
    int64_t late = 0;
    for (session *s : b.sessions) {
        if (s->due <= now_slot) {
            late = std::max(late, now_slot - s->due);
            take_turn(e, *s, now, io);
        }
        earliest = std::min(earliest, s->due);
    }
    b.earliest = earliest;
    return late;
}

} // namespace

size_t session_key_hash::operator()(const session_key &key) const
{
    const uint64_t place = static_cast<uint64_t>(key.domain) << 32 | static_cast<uint32_t>(key.if_index);
    const uint64_t local = mac_number(key.local) | static_cast<uint64_t>(key.vlan) << 48;
    const uint64_t remote = mac_number(key.remote) | static_cast<uint64_t>(key.tpid) << 48;
    return static_cast<size_t>(mix(mix(mix(place) ^ local) ^ remote));
}

void engine_set_key(engine &e, const secret &key)
{
    e.key = key;
    e.process_mark = mark_of_process(key);
}

void engine_add(engine &e, session *s, int64_t now)
{
    s->due = quietest_slot(e, slot_of(now)) + next_second(e, *s) * SLOTS_PER_SECOND;
    s->bucket = static_cast<size_t>(s->due % SLOTS_PER_SECOND);
    s->latest.outstanding = s->extended.outstanding = s->hasty = s->echoes = false;
    s->has_ids = false;
    // All memory is taken here, where the caller can be told that there is none.
    e.frame.resize(std::max(e.frame.size(), frame_length(*s)));
    put_in_bucket(e, s);
    try {
        enter_key(e, s);
    } catch (...) {
        take_out_of_bucket(e, s);
        throw;
    }
}

void engine_remove(engine &e, session *s)
{
    take_out_of_bucket(e, s);
    leave_key(e, s);
}

void engine_rekey(engine &e, session *s, const session_key &key)
{
    leave_key(e, s);
    s->key = key;
    enter_key(e, s);
}

int64_t engine_deadline(const engine &e)
{
    int64_t earliest = NEVER;
    for (const bucket &b : e.buckets) {
        earliest = std::min(earliest, b.earliest);
    }
    return earliest == NEVER ? NEVER : earliest * SLOT_NS;
}

void engine_answer(engine &e, const answer &a, const clocks &now)
{
    have_patience_again(e, a);
    const auto [s, r] = owner_of(e, a);
    if (s == nullptr) {
        e.counters.stale++;
        return;
    }
    r->outstanding = false;
    note_echo(e, *s, a);
    e.counters.answered++;
    const bool usable = round_trip_is_usable(*r, a, now);
    const int64_t round_trip = usable ? a.received - r->sent.real : 0;
    const supervision_rtt rtt{static_cast<uint32_t>(round_trip / 1'000'000'000),
                              static_cast<uint32_t>(round_trip % 1'000'000'000)};
    s->callback(usable ? &rtt : nullptr, s->id, result_of(*s, usable));
}

int64_t engine_run(engine &e, int64_t now, const engine_io &io)
{
    const int64_t now_slot = slot_of(now);
    int64_t late = 0;
    for (bucket &b : e.buckets) {
        if (b.earliest <= now_slot) {
            late = std::max(late, run_bucket(e, b, now, io));
        }
    }
    return late >= LATE_SLOTS ? late : 0;
}

} // namespace supervision
