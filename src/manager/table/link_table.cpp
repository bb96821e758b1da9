// The table of IML links: a list in ascending link_ref, and beside it one index by reference, one by supervision
// session and one by keep-alive session, so that no lookup walks the links. What a link's status or sessions mean is
// not known here; sessions are neither started nor stopped.
#include "link_table.hpp"

#include <cstdlib>

#include "manager/ports/port_mapping.hpp"
#include "vorn_trace.hpp"

namespace
{

iml_link *first_link;
uint32_t link_count;
uint32_t lowest_maybe_free = 1; // every reference below this one is in use

ref_index links_by_ref;
ref_index links_by_session;
ref_index keep_alives_by_session;

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

uint32_t take_lowest_free_ref()
{
    while (iml_link_look_up(lowest_maybe_free) != nullptr) {
        ++lowest_maybe_free;
    }
    return lowest_maybe_free++;
}

// Every reference below the link's own is in use, so its neighbour before is the one that counts one less.
void link_in(iml_link *link)
{
    link->prev = iml_link_look_up(link->link_ref - 1);
    link->next = link->prev != nullptr ? link->prev->next : first_link;
    (link->prev != nullptr ? link->prev->next : first_link) = link;
    if (link->next != nullptr) {
        link->next->prev = link;
    }
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
    if (link != nullptr) {
        link->link_data = data;
        link->port = &port_of_iemli_name(data->imlPortName);
        link->rtt = {RTT_DEFAULT_BATCH_SIZE, RTT_DEFAULT_INTERVAL, RTT_DEFAULT_FRAME_SIZE};
    }
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
    link->link_ref = take_lowest_free_ref();
    link_in(link);
    ++link_count;
    ref_index_insert(&links_by_ref, &link->by_ref, link->link_ref, link);
    index_session(link);
    index_keep_alives(link);
}

void iml_link_remove(iml_link *link)
{
    (link->prev != nullptr ? link->prev->next : first_link) = link->next;
    if (link->next != nullptr) {
        link->next->prev = link->prev;
    }
    link->next = nullptr;
    link->prev = nullptr;
    --link_count;
    if (link->link_ref < lowest_maybe_free) {
        lowest_maybe_free = link->link_ref;
    }
    ref_index_remove(&links_by_ref, &link->by_ref);
    index_session(link);
    index_keep_alives(link);
}

void iml_link_free(iml_link *link)
{
    rtt_samples_clear(&link->rtt_samples);
    iml_link_free_keep_alives(link);
    free(link->link_data);
    free(link);
}

iml_link *iml_link_first() { return first_link; }

uint32_t iml_link_count() { return link_count; }

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
