// The table of IML links: a list in ascending link_ref, and beside it hashes by reference, by supervision session and
// by keep-alive session, and orders by port, VLAN, far end and free reference, so that no lookup walks the links. What
// a link's status or sessions mean is not known here; sessions are neither started nor stopped.
//
// The orders have the link_ref in the low half of the second word of their keys, so that a place leads to its link and
// the first of several stands first.
#include "link_table.hpp"

#include <cstdlib>
#include <utility>

#include "manager/ports/port_mapping.hpp"
#include "near_end_macs.hpp"
#include "vorn_trace.hpp"

namespace
{

iml_link *first_link;
iml_link *last_link;
uint32_t link_count;

ref_index links_by_ref;
ref_index links_by_session;
ref_index keep_alives_by_session;
ordered_index links_by_port;
ordered_index links_by_port_vlan;
ordered_index links_by_far_end;
ordered_index app_links_by_far_end;
ordered_index links_before_gap;

bool is_in_table(const iml_link *link) { return ref_index_holds(&link->by_ref); }

uint32_t entries_for(uint32_t app_links) { return app_links > 1 ? app_links : 1; }

// What the table knows of a keep-alive session besides. These stand behind the sessions, in the same block.
struct keep_alive_place {
    ref_index_node by_session;
    mac_address near_end; // of the app link
};

keep_alive_place *keep_alive_places(const keep_alive_array &array)
{
    return reinterpret_cast<keep_alive_place *>(array.sessions + entries_for(array.count));
}

keep_alive_array keep_alives_of(const iml_link *link) { return {link->keep_alive_sessions, link->keep_alive_count}; }

void index_session(iml_link *link)
{
    ref_index_remove(&links_by_session, &link->by_session);
    if (is_in_table(link) && link->supervision_session_id != 0) {
        ref_index_insert(&links_by_session, &link->by_session, link->supervision_session_id, link);
    }
}

void index_keep_alive(iml_link *link, uint32_t i)
{
    ref_index_node *node = &keep_alive_places(keep_alives_of(link))[i].by_session;
    ref_index_remove(&keep_alives_by_session, node);
    if (is_in_table(link) && link->keep_alive_sessions[i].session_id != 0) {
        ref_index_insert(&keep_alives_by_session, node, link->keep_alive_sessions[i].session_id, link);
    }
}

void index_keep_alives(iml_link *link)
{
    for (uint32_t i = 0; i < link->keep_alive_count; ++i) {
        index_keep_alive(link, i);
    }
}

keep_alive_array take_keep_alives(iml_link *link)
{
    const keep_alive_array taken = keep_alives_of(link);
    for (uint32_t i = 0; i < taken.count; ++i) {
        ref_index_remove(&keep_alives_by_session, &keep_alive_places(taken)[i].by_session);
    }
    link->keep_alive_sessions = nullptr;
    link->keep_alive_count = 0;
    return taken;
}

// ---- References: the gaps between them are found by the links before them ----

constexpr ordered_key LOWEST = {0, 0};

bool is_before_gap(const iml_link *link) { return link->next != nullptr && link->next->link_ref != link->link_ref + 1; }

// The link that the next one comes behind; null for the first place.
iml_link *link_before_lowest_free_ref()
{
    if (first_link == nullptr || first_link->link_ref > 1) {
        return nullptr;
    }
    const ordered_node *node = ordered_index_first_from(&links_before_gap, LOWEST);
    return node != nullptr ? iml_link_look_up(static_cast<uint32_t>(node->key.minor)) : last_link;
}

void note_gap(iml_link *link)
{
    if (link != nullptr && is_before_gap(link)) {
        ordered_index_insert(&links_before_gap, &link->before_gap, {0, link->link_ref});
    }
}

void forget_gap(iml_link *link)
{
    if (link != nullptr && is_before_gap(link)) {
        ordered_index_remove(&links_before_gap, &link->before_gap);
    }
}

// Gives the link the lowest free reference and the place that this is in the list.
void link_in(iml_link *link)
{
    iml_link *before = link_before_lowest_free_ref();
    forget_gap(before);
    link->link_ref = before != nullptr ? before->link_ref + 1 : 1;
    link->prev = before;
    link->next = before != nullptr ? before->next : first_link;
    (before != nullptr ? before->next : first_link) = link;
    (link->next != nullptr ? link->next->prev : last_link) = link;
    note_gap(link);
}

void link_out(iml_link *link)
{
    iml_link *before = link->prev;
    forget_gap(before);
    forget_gap(link);
    (before != nullptr ? before->next : first_link) = link->next;
    (link->next != nullptr ? link->next->prev : last_link) = before;
    link->next = nullptr;
    link->prev = nullptr;
    note_gap(before);
}

// ---- Orders ----

uint64_t port_key(const port_names &port) { return port_number(port); }

uint64_t port_vlan_key(const port_names &port, uint16_t vlan) { return uint64_t{port_number(port)} << 16 | vlan; }

uint64_t far_end_key(uint16_t vlan, const mac_address &far_end) { return uint64_t{vlan} << 48 | mac_bits(far_end); }

iml_link *link_at(const ordered_node *node, uint64_t major)
{
    const bool found = node != nullptr && node->key.major == major;
    return found ? iml_link_look_up(static_cast<uint32_t>(node->key.minor)) : nullptr;
}

iml_link *first_at(const ordered_index &order, uint64_t major)
{
    return link_at(ordered_index_first_from(&order, {major, 0}), major);
}

iml_link *next_at(const ordered_index &order, const ordered_node &node)
{
    return link_at(ordered_index_next(&order, &node), node.key.major);
}

// The orders hold what the link's data said when it was entered: taking out does not look at it.
void enter_in_orders(iml_link *link)
{
    const IemliLinkData *data = link->link_data;
    const uint64_t ref = link->link_ref;
    ordered_index_insert(&links_by_port, &link->by_port, {port_key(*link->port), ref});
    ordered_index_insert(&links_by_port_vlan, &link->by_port_vlan, {port_vlan_key(*link->port, data->vlanId), ref});
    ordered_index_insert(&links_by_far_end, &link->by_far_end, {far_end_key(data->vlanId, data->farEndCpmMac), ref});
}

void take_out_of_orders(iml_link *link)
{
    ordered_index_remove(&links_by_port, &link->by_port);
    ordered_index_remove(&links_by_port_vlan, &link->by_port_vlan);
    ordered_index_remove(&links_by_far_end, &link->by_far_end);
}

// ---- App links ----

ordered_node *places_alloc(uint32_t app_links)
{
    return static_cast<ordered_node *>(calloc(entries_for(app_links), 2 * sizeof(ordered_node)));
}

// A port that had lost its near-end MACs for want of memory has another try, with those of its other links.
void keep_near_ends_again(const iml_link *link)
{
    const uint32_t port = port_number(*link->port);
    near_end_macs kept;
    if (near_end_macs_of_port(port, &kept)) {
        return;
    }
    near_end_macs_begin_anew(port);
    for (const iml_link *on = iml_link_first_on_port(*link->port); on != nullptr; on = iml_link_next_on_port(on)) {
        if (on != link) {
            near_end_macs_again(port, on->link_ref, iemli_app_links(on->link_data), on->link_data->numberOfAppLinks);
        }
    }
}

void enter_app_links(iml_link *link)
{
    const IemliLinkData *data = link->link_data;
    const uint32_t count = data->numberOfAppLinks;
    const uint64_t minor = port_key(*link->port) << 32 | link->link_ref;
    for (uint32_t i = 0; i < count; ++i) {
        const ordered_key key = {far_end_key(data->vlanId, iemli_app_links(data)[i].farEndAppMac), minor};
        ordered_index_insert(&app_links_by_far_end, &link->app_link_places[i], key);
    }
    keep_near_ends_again(link);
    near_end_macs_enter(port_number(*link->port), link->link_ref, iemli_app_links(data), count,
                        link->app_link_places + count);
    link->places_entered = count;
}

void take_app_links_out(iml_link *link)
{
    const uint32_t count = link->places_entered;
    for (uint32_t i = 0; i < count; ++i) {
        ordered_index_remove(&app_links_by_far_end, &link->app_link_places[i]);
    }
    near_end_macs_take_out(port_number(*link->port), link->link_ref, count, link->app_link_places + count);
}

// Of two entries of one session id, whether `a` stands before `b` in table order.
bool stands_before(const ref_index_node *a, const ref_index_node *b)
{
    const auto *link_a = static_cast<const iml_link *>(a->owner);
    const auto *link_b = static_cast<const iml_link *>(b->owner);
    return link_a->link_ref < link_b->link_ref || (link_a == link_b && a < b);
}

ref_index_node *first_in_table_order(const ref_index *index, uint32_t key)
{
    ref_index_node *found = ref_index_first(index, key);
    if (found == nullptr) {
        return nullptr;
    }
    for (ref_index_node *node = ref_index_next(found); node != nullptr; node = ref_index_next(node)) {
        if (stands_before(node, found)) {
            found = node;
        }
    }
    return found;
}

} // namespace

void iml_link_table_clear()
{
    while (first_link != nullptr) {
        iml_link *link = first_link;
        iml_link_remove(link);
        iml_link_free(link);
    }
    ref_index_clear(&links_by_ref);
    ref_index_clear(&links_by_session);
    ref_index_clear(&keep_alives_by_session);
}

iml_link *iml_link_alloc(IemliLinkData *data)
{
    auto *link = static_cast<iml_link *>(calloc(1, sizeof(iml_link)));
    ordered_node *places = link != nullptr ? places_alloc(data->numberOfAppLinks) : nullptr;
    if (places == nullptr) {
        free(link);
        return nullptr;
    }
    link->app_link_places = places;
    link->link_data = data;
    link->port = &port_of_iemli_name(data->imlPortName);
    link->rtt = {RTT_DEFAULT_BATCH_SIZE, RTT_DEFAULT_INTERVAL, RTT_DEFAULT_FRAME_SIZE};
    return link;
}

IemliLinkData *iml_link_data_copy(const IemliLinkData *data, uint32_t n)
{
    const uint64_t size = iemli_link_data_size(n);
    if (size > SIZE_MAX) {
        return nullptr;
    }
    auto *copy = static_cast<IemliLinkData *>(calloc(1, static_cast<size_t>(size)));
    if (copy == nullptr) {
        return nullptr;
    }
    const uint32_t kept = n < data->numberOfAppLinks ? n : data->numberOfAppLinks;
    memcpy(copy, data, offsetof(IemliLinkData, appLinks));
    memcpy(iemli_app_links(copy), iemli_app_links(data), kept * sizeof(IemliAppLink));
    copy->numberOfAppLinks = n;
    return copy;
}

void iml_link_insert(iml_link *link)
{
    link_in(link);
    ++link_count;
    ref_index_insert(&links_by_ref, &link->by_ref, link->link_ref, link);
    enter_app_links(link);
    enter_in_orders(link);
    index_session(link);
    index_keep_alives(link);
}

void iml_link_remove(iml_link *link)
{
    link_out(link);
    --link_count;
    take_app_links_out(link);
    take_out_of_orders(link);
    ref_index_remove(&links_by_ref, &link->by_ref);
    index_session(link);
    index_keep_alives(link);
}

void iml_link_free(iml_link *link)
{
    rtt_samples_clear(&link->rtt_samples);
    iml_link_free_keep_alives(link);
    free(link->link_data);
    free(link->app_link_places);
    free(link);
}

bool iml_link_make_room(const iml_link *link, uint32_t n, app_link_room *room)
{
    *room = {};
    if (n == link->link_data->numberOfAppLinks) {
        return true;
    }
    room->data = iml_link_data_copy(link->link_data, n);
    room->places = room->data != nullptr ? places_alloc(n) : nullptr;
    if (room->places == nullptr) {
        app_link_room_free(room);
        return false;
    }
    return true;
}

void iml_link_store_app_links(iml_link *link, const IemliLinkData *data, app_link_room *room)
{
    const bool entered = is_in_table(link);
    if (entered) {
        take_app_links_out(link);
    }
    if (room->data != nullptr) {
        std::swap(link->link_data, room->data);
        std::swap(link->app_link_places, room->places);
    }
    memcpy(iemli_app_links(link->link_data), iemli_app_links(data), data->numberOfAppLinks * sizeof(IemliAppLink));
    if (entered) {
        enter_app_links(link);
    }
    app_link_room_free(room);
}

void app_link_room_free(app_link_room *room)
{
    free(room->data);
    free(room->places);
    *room = {};
}

iml_link *iml_link_first() { return first_link; }

uint32_t iml_link_count() { return link_count; }

iml_link *iml_link_first_on_port(const port_names &port) { return first_at(links_by_port, port_key(port)); }

iml_link *iml_link_next_on_port(const iml_link *link) { return next_at(links_by_port, link->by_port); }

iml_link *iml_link_first_on_port_vlan(const port_names &port, uint16_t vlan)
{
    return first_at(links_by_port_vlan, port_vlan_key(port, vlan));
}

iml_link *iml_link_next_on_port_vlan(const iml_link *link) { return next_at(links_by_port_vlan, link->by_port_vlan); }

iml_link *iml_link_first_to_far_end(uint16_t vlan, const mac_address &far_end_cpm)
{
    return first_at(links_by_far_end, far_end_key(vlan, far_end_cpm));
}

iml_link *iml_link_next_to_far_end(const iml_link *link) { return next_at(links_by_far_end, link->by_far_end); }

// One step for each port that has such an app link: its first link.
iml_link *iml_link_with_far_end_app_elsewhere(uint16_t vlan, const mac_address &far_end_app, const port_names &port)
{
    const uint64_t major = far_end_key(vlan, far_end_app);
    uint32_t found = 0;
    const ordered_node *node = ordered_index_first_from(&app_links_by_far_end, {major, 0});
    while (node != nullptr && node->key.major == major) {
        const uint64_t on = node->key.minor >> 32;
        const auto link_ref = static_cast<uint32_t>(node->key.minor);
        if (on != port_key(port) && (found == 0 || link_ref < found)) {
            found = link_ref;
        }
        node = ordered_index_first_from(&app_links_by_far_end, {major, (on + 1) << 32});
    }
    return found != 0 ? iml_link_look_up(found) : nullptr;
}

iml_link *iml_link_look_up(uint32_t link_ref)
{
    const ref_index_node *node = ref_index_first(&links_by_ref, link_ref);
    return node != nullptr ? static_cast<iml_link *>(node->owner) : nullptr;
}

iml_link *iml_link_find_by_ref(uint32_t link_ref)
{
    iml_link *link = iml_link_look_up(link_ref);
    if (link == nullptr) {
        VORN_TRACE(TRACE_LINK, "Tried to fetch link with ref %u that doesn't exist anymore.", link_ref);
    }
    return link;
}

iml_link *iml_link_find_owned(uint32_t link_ref, uint32_t connection_ref)
{
    iml_link *link = iml_link_look_up(link_ref);
    return link != nullptr && link->connection_ref == connection_ref ? link : nullptr;
}

iml_link *iml_link_find_by_session(uint32_t session_id)
{
    const ref_index_node *node = first_in_table_order(&links_by_session, session_id);
    return node != nullptr ? static_cast<iml_link *>(node->owner) : nullptr;
}

keep_alive_session *keep_alive_find_by_session(uint32_t session_id)
{
    const ref_index_node *node = first_in_table_order(&keep_alives_by_session, session_id);
    if (node == nullptr) {
        return nullptr;
    }
    const auto *link = static_cast<const iml_link *>(node->owner);
    const auto *place = reinterpret_cast<const keep_alive_place *>(node); // its first member
    return &link->keep_alive_sessions[place - keep_alive_places(keep_alives_of(link))];
}

void iml_link_set_session(iml_link *link, uint32_t session_id)
{
    link->supervision_session_id = session_id;
    index_session(link);
}

bool iml_link_renew_keep_alives(iml_link *link, keep_alive_array *previous)
{
    const uint32_t count = link->link_data->numberOfAppLinks;
    auto *sessions = static_cast<keep_alive_session *>(
        calloc(entries_for(count), sizeof(keep_alive_session) + sizeof(keep_alive_place)));
    if (sessions == nullptr) {
        return false;
    }
    *previous = take_keep_alives(link);
    link->keep_alive_sessions = sessions;
    link->keep_alive_count = count;
    for (uint32_t i = 0; i < count; ++i) {
        keep_alive_places({sessions, count})[i].near_end = iemli_app_links(link->link_data)[i].nearEndAppMac;
    }
    return true;
}

keep_alive_session *keep_alive_of_app_link(const keep_alive_array &array, uint32_t app_link,
                                           const mac_address &near_end)
{
    const bool has = app_link < array.count && mac_equal(keep_alive_places(array)[app_link].near_end, near_end);
    return has ? &array.sessions[app_link] : nullptr;
}

void keep_alive_array_free(keep_alive_array *array)
{
    free(array->sessions);
    *array = {};
}

void iml_link_set_keep_alive_session(iml_link *link, uint32_t app_link, uint32_t session_id)
{
    link->keep_alive_sessions[app_link].session_id = session_id;
    index_keep_alive(link, app_link);
}

void iml_link_free_keep_alives(iml_link *link)
{
    keep_alive_array taken = take_keep_alives(link);
    keep_alive_array_free(&taken);
}

bool iml_link_is_on_port(const iml_link *link, const char *iepcsi_port_name)
{
    return port_name_equal(link->port->iepcsi, iepcsi_port_name);
}

bool iml_link_is_on_port_vlan(const iml_link *link, const char *iepcsi_port_name, uint16_t vlan)
{
    return link->link_data->vlanId == vlan && iml_link_is_on_port(link, iepcsi_port_name);
}

bool iml_link_is_rtt_enabled(uint32_t link_ref)
{
    const iml_link *link = iml_link_find_by_ref(link_ref);
    return link != nullptr && link->rtt_enabled == 1;
}

void iml_link_write_status(iml_link *link, iml_link_status status, iml_link_disabled_reason disabled_reason)
{
    link->status = status;
    link->disabled_reason = disabled_reason;
}

void iml_link_set_status(uint32_t link_ref, iml_link_status status, iml_link_disabled_reason disabled_reason)
{
    iml_link *link = iml_link_look_up(link_ref);
    if (link == nullptr) {
        VORN_TRACE(TRACE_LINK, "Tried to update link status on link with ref %u that doesn't exist anymore.", link_ref);
        return;
    }
    VORN_TRACE(TRACE_LINK, "Updated iml link status on link with ref %u. Old status %s, new status %s", link_ref,
               iml_link_status_text(link->status, link->disabled_reason),
               iml_link_status_text(status, disabled_reason));
    iml_link_write_status(link, status, disabled_reason);
}
