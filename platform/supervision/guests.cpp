// Which addresses an interface takes in. See guests.hpp.
#include "guests.hpp"

#include <cstring>
#include <functional>
#include <new>

#include "packet_socket.hpp"

namespace supervision
{

namespace
{

bool open_single(int fd, const guest &g, guest_interface *i)
{
    if (!packet::let_in(fd, g.if_index, g.mac)) {
        return false;
    }
    ++i->singles;
    return true;
}

bool open_for_all(int fd, const guest &g, guest_interface *i)
{
    if (i->others == 0 && !packet::let_all_in(fd, g.if_index)) {
        return false;
    }
    ++i->others;
    return true;
}

void close_place(int fd, const guest &g, const guest_place &place, guest_interface *i)
{
    if (place.single) {
        --i->singles;
        packet::shut_out(fd, g.if_index, g.mac);
        return;
    }
    --i->others;
    if (i->others == 0) {
        packet::let_all_in_no_more(fd, g.if_index);
    }
}

void forget_if_empty(guests &all, int if_index)
{
    const auto i = all.interfaces.find(if_index);
    if (i != all.interfaces.end() && i->second.singles == 0 && i->second.others == 0) {
        all.interfaces.erase(i);
    }
}

bool let_in_anew(guests &all, int fd, const guest &g)
{
    guest_interface &i = all.interfaces[g.if_index];
    const bool single = i.singles < MOST_SINGLE_ADDRESSES;
    const auto made = all.places.emplace(g, guest_place{1, single}).first;
    if (single ? open_single(fd, g, &i) : open_for_all(fd, g, &i)) {
        return true;
    }
    all.places.erase(made);
    return false;
}

} // namespace

size_t guest_hash::operator()(const guest &g) const
{
    uint64_t number = 0;
    memcpy(&number, g.mac.byte, sizeof g.mac.byte);
    number ^= static_cast<uint64_t>(static_cast<uint32_t>(g.if_index)) << 32;
    number *= 0xD6E8FEB86659FD93u;
    return std::hash<uint64_t>()(number ^ number >> 32);
}

bool guest_let_in(guests &all, int fd, const guest &g)
{
    const auto known = all.places.find(g);
    if (known != all.places.end()) {
        ++known->second.sessions;
        return true;
    }
    bool is_in = false;
    try {
        is_in = let_in_anew(all, fd, g);
    } catch (const std::bad_alloc &) {
        is_in = false;
    }
    if (!is_in) {
        forget_if_empty(all, g.if_index);
    }
    return is_in;
}

void guest_shut_out(guests &all, int fd, const guest &g)
{
    const auto known = all.places.find(g);
    if (known == all.places.end() || --known->second.sessions > 0) {
        return;
    }
    close_place(fd, g, known->second, &all.interfaces[g.if_index]);
    all.places.erase(known);
    forget_if_empty(all, g.if_index);
}

} // namespace supervision
