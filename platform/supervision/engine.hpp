// The supervision engine: which session sends when, which answer belongs to whom, and what is reported. It has no
// thread, no socket and no clock of its own; supervision.cpp drives it, and tests drive it with a clock they warp.
//
// Time. Sending goes in slots of 10 ms of the monotonic clock. A session sends once per interval, always in the same
// slot of its second; sessions are spread over the slots of their interval. A request is lost when the session's
// next one is due and no answer was handed in before. Round trips are taken from the real-time clock, because that is
// the one the kernel stamps received frames with; each request keeps both clocks, so that a step of the real-time
// clock is seen and such a round trip is not passed off as one.
//
// A late engine. When the engine itself was kept from running, an answer that is missing says little of the link: the
// request gets one more interval, beside the next one, which is sent all the same; so does one that has not been out
// for half an interval. A session whose request was lost even so is not given more time for lateness again until an
// answer comes, be it to a request that was given up: else a cut would be seen twice as late on a busy machine.
//
// What was never sent or never read is not judged. A request has been out since the call that sent it came back, not
// since its time stamp: the process may have been stopped in between. Where the kernel dropped frames, or had no room
// for the request, for reasons of this machine's own, a request without an answer is neither answered nor lost; that
// too is said only once, until an answer comes.
//
// Whose answer. An answer is matched by interface, addresses, VLAN and the protocol of its tag, and measurement id; and
// by the mark (mark.hpp) that the request carried in its dummy bytes. One that brings dummy bytes must bring ours. One
// that brings none is taken, for there are far ends that do not send them back, but not any more once the session's far
// end has been seen to: from then on nobody who does not see the requests keeps a dead link up.
//
// Sessions belong to the caller; the engine holds pointers to those that were added. All calls on one engine are
// serialised by the caller. Callbacks are called out of engine_answer and engine_run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "ecpri.hpp"
#include "mark.hpp"
#include "supervision.h"

namespace supervision
{

inline constexpr int64_t SLOT_NS = 10'000'000;
inline constexpr int64_t SLOTS_PER_SECOND = 100;
inline constexpr int64_t LATE_SLOTS = 10;           // from here on the engine calls itself late
inline constexpr int64_t CLOCK_STEP_NS = 1'000'000; // clocks that drift apart by more than this were set
inline constexpr int64_t NEVER = INT64_MAX;

struct clocks {
    int64_t monotonic;
    int64_t real;
};

// What an answer is matched by, besides the measurement id.
struct session_key {
    uint32_t domain; // which network namespace
    int32_t if_index;
    mac_address local;
    mac_address remote;
    uint16_t vlan;     // 0: untagged
    uint16_t tpid = 0; // see tag_protocol
    bool operator==(const session_key &other) const
    {
        return domain == other.domain && if_index == other.if_index && vlan == other.vlan && tpid == other.tpid &&
               mac_equal(local, other.local) && mac_equal(remote, other.remote);
    }
};

// The protocol of a tag as it is matched; 0: no tag, or a tag of 802.1Q that names no VLAN but only a priority, which a
// switch may put before any frame.
inline uint16_t tag_protocol(bool tagged, uint16_t tpid, uint16_t vlan)
{
    return !tagged || (vlan == 0 && tpid == 0x8100) ? uint16_t{0} : tpid;
}

struct session_key_hash {
    size_t operator()(const session_key &key) const;
};

// A request that was sent, while its answer is waited for.
struct request {
    bool outstanding;
    uint8_t measurement_id;
    clocks sent;  // its time stamp
    int64_t left; // monotonic: when it was on its way
    bool no_room; // it could not leave, and the link is not to blame
    uint32_t sequence;
};

struct session {
    uint32_t id;
    session_key key;
    bool tagged;         // the library writes the tag
    ecpri::vlan_tag tag; // if so
    uint16_t ether_type;
    uint16_t frame_size;
    uint8_t type; // SUPERVISION_TYPE_*
    uint32_t interval;
    supervision_callback_fn callback;
    void *link; // the caller's

    // The engine's own.
    int64_t due; // slot
    size_t bucket;
    size_t place;  // in the bucket
    session *twin; // another session with the same key
    request latest;
    request extended; // the one before, while it has its second interval
    bool hasty;       // lateness is no excuse any more
    bool echoes;      // its far end sends the dummy bytes back
    bool has_ids;     // made with its first request: whoever starts thousands does not wait for that
    id_order ids;
    uint32_t sequence;
};

struct answer {
    session_key key; // as seen from here: local is the frame's destination
    uint8_t measurement_id;
    bool time_valid;
    int64_t received;         // the kernel's stamp; 0: none
    uint16_t dummy_bytes = 0; // that it brings
    size_t marked = 0;        // how many of them stand in `bytes`
    uint8_t bytes[MARK_SIZE] = {};
};

// How the engine reaches the outside.
struct engine_io {
    void *context;
    clocks (*read_clocks)(void *context);
    // Sends one frame; 0 or an errno value. A frame that was not sent counts as lost when its time has come.
    int (*send)(void *context, session &s, const uint8_t *frame, size_t length);
    // Whether frames that arrived for the session since then may not have been handed in. May be null: never.
    bool (*may_have_missed)(void *context, const session &s, int64_t since) = nullptr;
};

struct engine_counters {
    uint64_t sent;
    uint64_t not_sent;
    uint64_t answered;
    uint64_t lost;
    uint64_t stale;    // answers that match no outstanding request
    uint64_t late;     // requests sent late because the engine was
    uint64_t extended; // requests that got a second interval for it
    uint64_t unjudged; // requests without an answer for which the link is not to blame
    uint64_t foreign;  // answers with dummy bytes that were not ours, or without where they had to be
};

struct bucket {
    std::vector<session *> sessions;
    int64_t earliest = NEVER; // no session in it is due before
};

struct engine {
    bucket buckets[SLOTS_PER_SECOND];
    uint32_t fill[SLOTS_PER_SECOND] = {}; // how many sessions each bucket has
    uint32_t fewest = 0;                  // the least of these
    uint32_t with_fewest = SLOTS_PER_SECOND;
    std::unordered_map<session_key, session *, session_key_hash> by_key;
    uint32_t longer_added = 0; // sessions added so far whose interval is longer than a second
    secret key{};              // drawn by the owner before the first session is added
    uint32_t process_mark = 0; // follows from it
    uint64_t echoing = 0;      // counts the sessions whose far end was seen to echo
    engine_counters counters{};
    std::vector<uint8_t> frame;
};

// Before the first session. Without it everybody can know marks and ids.
void engine_set_key(engine &e, const secret &key);

// Adds a session; its first request is due within its interval, in the slot of the second that has least to do and is
// next.
// Throws std::bad_alloc, and has then added nothing.
void engine_add(engine &e, session *s, int64_t now);
void engine_remove(engine &e, session *s);
// Gives a session a new key, for an interface that came back with another index. What is outstanding stays so.
void engine_rekey(engine &e, session *s, const session_key &key);

// When the engine wants to run next, on the monotonic clock; NEVER without sessions.
int64_t engine_deadline(const engine &e);

// Hands in an answer. `now`: both clocks, read after it was received.
void engine_answer(engine &e, const answer &a, const clocks &now);
// Judges and sends whatever is due. Every answer that has arrived must have been handed in before.
// Returns how many slots the engine was late, 0 if it was not.
int64_t engine_run(engine &e, int64_t now, const engine_io &io);

} // namespace supervision
