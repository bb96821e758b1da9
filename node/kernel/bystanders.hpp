// Entries of a bridge's forwarding table that are not meant by what is asked of it, and are touched all the same.
//
// A bridge that tells no VLANs apart has VLANs at its ports nevertheless (one, when nobody says otherwise), and does to
// an address in each of them what it is asked to do without one. So what is there in them is noted before, and is made
// what it was afterwards.
#pragma once

#include "kernel/links.hpp"

#include <set>

namespace kap_node
{

class bystanders
{
public:
    bystanders(netlink_socket &ask, const kernel_link &on) : ask_(ask), on_(on) {}

    // Before an entry is put in at the port, or taken out.
    std::optional<kernel_refusal> before(const address_entry &entry);
    // After all of them.
    std::optional<kernel_refusal> put_right();

private:
    std::optional<kernel_refusal> put_right(const address_entry &entry, const entry_table &now);

    netlink_socket &ask_;
    const kernel_link &on_;
    bool noted_ = false;
    entry_table were_;
    std::set<mac> touched_;
};

} // namespace kap_node
