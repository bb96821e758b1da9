// Addresses that are not an interface's own and whose frames it has to take in all the same, for the sessions of one
// socket. An interface takes in single addresses for the first few dozen, and everything from then on: the kernel looks
// at every address it has been given whenever one more comes, and thousands would hold up whoever starts a session.
//
// Addresses are counted: each is taken back when nobody needs it any more. All calls are serialised by the caller.
#pragma once

#include <cstddef>
#include <unordered_map>

#include "vorn_types.hpp"

namespace supervision
{

inline constexpr size_t MOST_SINGLE_ADDRESSES = 64; // of an interface

struct guest {
    int if_index;
    mac_address mac;
    bool operator==(const guest &other) const { return if_index == other.if_index && mac_equal(mac, other.mac); }
};

struct guest_hash {
    size_t operator()(const guest &g) const;
};

struct guest_place {
    size_t sessions;
    bool single; // else by everything being taken in
};

struct guest_interface {
    size_t singles;
    size_t others;
};

struct guests {
    std::unordered_map<guest, guest_place, guest_hash> places;
    std::unordered_map<int, guest_interface> interfaces;
};

// False: the interface is not there, or memory is out, and nothing is counted.
bool guest_let_in(guests &all, int fd, const guest &g);
// Takes back what guest_let_in gave, once for each time.
void guest_shut_out(guests &all, int fd, const guest &g);

} // namespace supervision
