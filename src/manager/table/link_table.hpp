// The table of IML links: which exist, who owns them, their status, their sessions and their RTT samples. Iteration is
// in ascending link_ref; a new link takes the lowest free reference. No lookup walks the links: those by reference and
// by session id do not grow with their number, those by port, VLAN and far end with its logarithm.
//
// The table owns its records, a record its link data, keep-alive array and samples. Only link procedures insert and
// remove.
#pragma once

#include <cstdint>

#include "base/ordered_index.hpp"
#include "base/ref_index.hpp"
#include "base/rtt_samples.hpp"
#include "iemli/iemli_messages.hpp"
#include "port_names.hpp"

inline constexpr uint16_t RTT_DEFAULT_BATCH_SIZE = 5;
inline constexpr uint16_t RTT_DEFAULT_INTERVAL = 1;
inline constexpr uint16_t RTT_DEFAULT_FRAME_SIZE = 64;

enum supervision_run_state : uint32_t {
    SUPERVISION_NOT_RUNNING = 0,
    SUPERVISION_RUNNING = 1,
    SUPERVISION_FAILED = 2, // a start or a stop failed
};

struct keep_alive_session {
    uint32_t session_id;
    uint32_t results;
    uint32_t lost;
    uint32_t last_ok;
};
static_assert(sizeof(keep_alive_session) == 16);

// The keep-alive sessions of a link, taken out of it; found by no lookup.
struct keep_alive_array {
    keep_alive_session *sessions; // owned, may be null
    uint32_t count;
};

struct iml_link {
    uint32_t connection_ref; // the owner: server_conn_ref of the IEMLI session that created it
    uint32_t samples_since_report;
    uint32_t link_ref;
    iml_link_status status;
    iml_link_disabled_reason disabled_reason; // meaningful while disabled; 0 before the first one
    IemliLinkData *link_data;                 // owned, with room for at least one app link
    const port_names *port; // of link_data's port; its names are looked up once, when the link is made
    rtt_settings rtt;       // batchSize, measureInterval, frameSize
    uint32_t rtt_enabled;
    supervision_run_state supervision_state;
    uint32_t supervision_session_id;
    uint32_t supervision_results;
    uint32_t supervision_lost;
    uint32_t supervision_last_ok;            // supervision_results at the last good result
    keep_alive_session *keep_alive_sessions; // owned, may be null; keep_alive_count entries
    uint32_t keep_alive_count;
    rtt_sample_queue rtt_samples;

    iml_link *next; // in ascending link_ref
    iml_link *prev;

    // The table's own. A link is in the table while it is in the index of references.
    ref_index_node by_ref;
    ref_index_node by_session;
    ordered_node by_port;
    ordered_node by_port_vlan;
    ordered_node by_far_end;
    ordered_node before_gap;       // entered while the reference behind its own is free and a higher one is not
    ordered_node *app_link_places; // owned; two for each app link
    uint32_t places_entered;       // of app links
};

// Room for other app links than a link has.
struct app_link_room {
    IemliLinkData *data;  // null: what the link has is large enough
    ordered_node *places; // likewise
};

// Empties the table. Frees every record; sessions are not stopped.
void iml_link_table_clear();

// A zeroed record with default RTT settings that takes over `data`; null when memory is out (`data` stays the
// caller's). What the link is known by does not change afterwards, but for its app links.
iml_link *iml_link_alloc(IemliLinkData *data);
// A copy of link data (calloc), with room for max(1, n) app links, of which min(n, its own) are copied; null when
// memory is out. numberOfAppLinks becomes n.
IemliLinkData *iml_link_data_copy(const IemliLinkData *data, uint32_t n);

// Gives the link the lowest free link_ref and its sorted place. The table owns it from here on. Never fails.
void iml_link_insert(iml_link *link);
// Unlinks; the record becomes the caller's.
void iml_link_remove(iml_link *link);
// Frees a record that is not in the table, with everything it owns.
void iml_link_free(iml_link *link);

// Exchanging the app links of a link: first the room for as many as `n`, false when memory is out; then, unless the
// room is freed again, the app links of `data`, of which the room has as many. The room is used up.
bool iml_link_make_room(const iml_link *link, uint32_t n, app_link_room *room);
void iml_link_store_app_links(iml_link *link, const IemliLinkData *data, app_link_room *room);
void app_link_room_free(app_link_room *room);

iml_link *iml_link_first();
uint32_t iml_link_count();

// In ascending link_ref; null at the end. `next` takes what the same kind of call has returned.
iml_link *iml_link_first_on_port(const port_names &port);
iml_link *iml_link_next_on_port(const iml_link *link);
iml_link *iml_link_first_on_port_vlan(const port_names &port, uint16_t vlan);
iml_link *iml_link_next_on_port_vlan(const iml_link *link);
iml_link *iml_link_first_to_far_end(uint16_t vlan, const mac_address &far_end_cpm);
iml_link *iml_link_next_to_far_end(const iml_link *link);
// The first in table order that has this far-end app MAC in the VLAN on another port than this one; null when none has.
iml_link *iml_link_with_far_end_app_elsewhere(uint16_t vlan, const mac_address &far_end_app, const port_names &port);

// Traces and returns null when there is none.
iml_link *iml_link_find_by_ref(uint32_t link_ref);
// No trace. Of several with the same session id the first in table order.
iml_link *iml_link_look_up(uint32_t link_ref);
iml_link *iml_link_find_owned(uint32_t link_ref, uint32_t connection_ref);
iml_link *iml_link_find_by_session(uint32_t session_id);
keep_alive_session *keep_alive_find_by_session(uint32_t session_id);

// The writers of session ids keep the lookups true. 0 means none, and is found by nobody.
void iml_link_set_session(iml_link *link, uint32_t session_id);
// Gives the link an array of zeroed keep-alive sessions, one per app link; what it had becomes the caller's. False when
// memory is out: the link keeps what it has.
bool iml_link_renew_keep_alives(iml_link *link, keep_alive_array *previous);
// The session that the array has for this app link; null when its `app_link`th was for another near-end MAC or none.
keep_alive_session *keep_alive_of_app_link(const keep_alive_array &array, uint32_t app_link,
                                           const mac_address &near_end);
void keep_alive_array_free(keep_alive_array *array);
void iml_link_set_keep_alive_session(iml_link *link, uint32_t app_link, uint32_t session_id);
// Frees the array, if there is one; sessions are not stopped.
void iml_link_free_keep_alives(iml_link *link);

// True when the link's port, as IEPCSI names it, and VLAN are these.
bool iml_link_is_on_port(const iml_link *link, const char *iepcsi_port_name);
bool iml_link_is_on_port_vlan(const iml_link *link, const char *iepcsi_port_name, uint16_t vlan);

bool iml_link_is_rtt_enabled(uint32_t link_ref);
// The one writer of a link's status. Tells nobody.
void iml_link_write_status(iml_link *link, iml_link_status status, iml_link_disabled_reason disabled_reason);
void iml_link_set_status(uint32_t link_ref, iml_link_status status, iml_link_disabled_reason disabled_reason);
