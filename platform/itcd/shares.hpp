/*
 * What each user holds of the registry, over all processes of that user. One user takes a share, never all: whatever is
 * kept for somebody is counted here before it is kept, in pieces and in bytes of memory as they really are, and given
 * back when it goes.
 */
#ifndef ITCD_SHARES_HPP
#define ITCD_SHARES_HPP

#include <cstddef>
#include <list>
#include <sys/types.h>

struct registry_client;

enum class held : size_t {
    connections,
    mailboxes,
    names,
    services,
    subscriptions,
    awaits,
    monitors,
    pairings,
    unread,
    kinds
};

// Bounds, far above any use. Where there is one per process too, it stands where it is checked.
inline constexpr size_t share_bounds[static_cast<size_t>(held::kinds)] = {
    512,   // connections
    16384, // mailboxes
    16384, // names
    8192,  // services
    8192,  // subscriptions
    16384, // names that are waited for
    65536, // monitors
    16384, // introductions
    256,   // channels of processes that are gone, which others have not read to the end
};
inline constexpr size_t share_bytes_bound = 24u << 20; // of tables
inline constexpr size_t share_queued_bound = 8u << 20; // of frames that its processes have not read

struct share {
    uid_t user = 0;
    size_t counts[static_cast<size_t>(held::kinds)] = {};
    size_t bytes = 0;
    size_t queued = 0;
    size_t in_flight = 0; // descriptors that were sent to its processes and not read yet, as far as is known

    // The server's: which of its processes have something to be done, those first that had nothing a moment ago.
    std::list<registry_client *> fresh;
    std::list<registry_client *> rest;
    bool fresh_was_last = false;
    bool active = false;
};

share &share_of(uid_t user);                                // made when it is asked for
bool share_take(share &of, held what, size_t bytes);        // false, and nothing is taken, at a bound
void share_owe(share &of, held what);                       // the same at any bound, for what cannot be refused
void share_give(share &of, held what, size_t bytes);        // what share_take took
bool share_has_room(const share &of, held what, size_t by); // for `by` more
void share_forget(share &of);                               // if it holds nothing any more
size_t shares_held();                                       // bytes, by all users
bool shares_are_empty();

#endif
