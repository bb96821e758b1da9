// One array for each port, and an index by MAC that tells how many different ones stand in it.
#include "near_end_macs.hpp"

#include <cstdlib>
#include <cstring>

#include "manager/ports/port_mapping.hpp"

namespace
{

constexpr uint32_t FIRST_ROOM = 8;
constexpr uint32_t FAR_TOO_LARGE = 4; // as much room as is used

struct port_near_ends {
    near_end_mac *macs; // owned, null while the port has none
    uint32_t count;
    uint32_t room;
    uint32_t distinct;
    bool lost;
    ordered_index by_mac;
};

port_near_ends near_ends[PORT_NUMBERS];

ordered_key key_of(const mac_address &mac, uint32_t link_ref) { return {mac_bits(mac), link_ref}; }

bool has_mac(const ordered_index &by_mac, uint64_t mac)
{
    const ordered_node *node = ordered_index_first_from(&by_mac, {mac, 0});
    return node != nullptr && node->key.major == mac;
}

// The place of the first entry of a link that is not before this one.
uint32_t place_from(const port_near_ends &port, uint32_t link_ref)
{
    uint32_t low = 0;
    uint32_t high = port.count;
    if (high > 0 && port.macs[high - 1].link_ref < link_ref) {
        return high;
    }
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        if (port.macs[middle].link_ref < link_ref) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

void lose(port_near_ends *port)
{
    free(port->macs);
    port->macs = nullptr;
    port->count = 0;
    port->room = 0;
    port->lost = true;
}

bool set_room(port_near_ends *port, uint32_t room)
{
    void *moved = realloc(port->macs, size_t{room} * sizeof(near_end_mac));
    if (moved == nullptr) {
        return false;
    }
    port->macs = static_cast<near_end_mac *>(moved);
    port->room = room;
    return true;
}

bool has_room_for(port_near_ends *port, uint32_t more)
{
    uint32_t room = port->room != 0 ? port->room : FIRST_ROOM;
    while (room - port->count < more) {
        room *= 2;
    }
    return room == port->room || set_room(port, room);
}

// What many took does not stay for good. That it cannot be given back changes nothing.
void give_room_back(port_near_ends *port)
{
    if (port->count == 0) {
        free(port->macs);
        port->macs = nullptr;
        port->room = 0;
    } else if (port->room > FIRST_ROOM && port->count < port->room / FAR_TOO_LARGE) {
        (void)set_room(port, port->room / 2);
    }
}

void open_gap(port_near_ends *port, uint32_t place, uint32_t count)
{
    memmove(port->macs + place + count, port->macs + place, (port->count - place) * sizeof(near_end_mac));
    port->count += count;
}

void close_gap(port_near_ends *port, uint32_t place, uint32_t count)
{
    memmove(port->macs + place, port->macs + place + count, (port->count - place - count) * sizeof(near_end_mac));
    port->count -= count;
}

} // namespace

void near_end_macs_enter(uint32_t port, uint32_t link_ref, const IemliAppLink *app_links, uint32_t count,
                         ordered_node *nodes)
{
    port_near_ends *of = &near_ends[port];
    for (uint32_t i = 0; i < count; ++i) {
        const ordered_key key = key_of(app_links[i].nearEndAppMac, link_ref);
        of->distinct += has_mac(of->by_mac, key.major) ? 0 : 1;
        ordered_index_insert(&of->by_mac, &nodes[i], key);
    }
    near_end_macs_again(port, link_ref, app_links, count);
}

void near_end_macs_take_out(uint32_t port, uint32_t link_ref, uint32_t count, ordered_node *nodes)
{
    port_near_ends *of = &near_ends[port];
    for (uint32_t i = 0; i < count; ++i) {
        ordered_index_remove(&of->by_mac, &nodes[i]);
        of->distinct -= has_mac(of->by_mac, nodes[i].key.major) ? 0 : 1;
    }
    if (of->lost || count == 0) {
        return;
    }
    close_gap(of, place_from(*of, link_ref), count);
    give_room_back(of);
}

bool near_end_macs_of_port(uint32_t port, near_end_macs *out)
{
    const port_near_ends &of = near_ends[port];
    *out = {of.macs, of.count, of.distinct};
    return !of.lost;
}

void near_end_macs_begin_anew(uint32_t port)
{
    lose(&near_ends[port]);
    near_ends[port].lost = false;
}

void near_end_macs_again(uint32_t port, uint32_t link_ref, const IemliAppLink *app_links, uint32_t count)
{
    port_near_ends *of = &near_ends[port];
    if (of->lost || count == 0) {
        return;
    }
    if (!has_room_for(of, count)) {
        lose(of);
        return;
    }
    const uint32_t place = place_from(*of, link_ref);
    open_gap(of, place, count);
    for (uint32_t i = 0; i < count; ++i) {
        of->macs[place + i] = {link_ref, app_links[i].nearEndAppMac};
    }
}
