// The interfaces of a namespace as the keepers of VLANs and endpoints look at them, and what they ask of them.
#pragma once

#include "kernel/netlink_socket.hpp"
#include "message.hpp"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

namespace kap_node
{

// By this a VLAN device of ours is known, whoever looks at it.
inline constexpr const char *OWN_ALIAS = "kap-node";
// A device cannot be made with its alias. Until it has it, it has this group ("kap"), and is down.
inline constexpr uint32_t UNFINISHED_GROUP = 0x6b6170;

struct kernel_link {
    int index = 0;
    std::string name;
    std::string alias;
    uint32_t group = 0;
    bool up = false;
    int master = 0;
    bool is_bridge_port = false;
    bool filters_vlans = false; // a bridge that tells VLANs apart
    bool is_vlan = false;       // an 802.1Q device, and on which interface of this namespace
    int parent = 0;
    uint16_t vlan_id = 0;
    std::set<uint16_t> vlans; // of a bridge port
};

class link_table
{
public:
    std::map<int, kernel_link> links; // by their index

    const kernel_link *at(int index) const;
    const kernel_link *named(const std::string &name) const;
    // The VLAN device of that id on the interface of that index.
    const kernel_link *vlan_on(int parent, uint16_t vlan_id) const;
};

// All there are now.
std::optional<kernel_refusal> read_links(netlink_socket &ask, link_table &all);
// The same from one message of the kernel's, for tests of what is not well formed.
void apply_link_message(const nlmsghdr *message, link_table &all);
void apply_bridge_message(const nlmsghdr *message, link_table &all);

// A VLAN device that is down, in UNFINISHED_GROUP.
std::optional<kernel_refusal> make_vlan_device(netlink_socket &ask, const std::string &name, int parent, uint16_t id);
// What is not to be changed is left out.
struct link_change {
    std::optional<bool> up;
    std::optional<std::string> name;
    std::optional<std::string> alias;
    std::optional<uint32_t> group;
};
std::optional<kernel_refusal> change_link(netlink_socket &ask, int index, const link_change &change);
std::optional<kernel_refusal> delete_link(netlink_socket &ask, int index);
// The index of the interface of that name; 0 when there is none.
int index_of(const netlink_socket &ask, const std::string &name);

// A VLAN is let through on a bridge port, tagged, or not any more.
std::optional<kernel_refusal> let_vlan_through(netlink_socket &ask, int port, uint16_t vlan_id);
std::optional<kernel_refusal> stop_vlan(netlink_socket &ask, int port, uint16_t vlan_id);

// Which entry of a filter or of a forwarding table: in the interface's own unicast and multicast filter, or in the
// table of the bridge that it is a port of, in a VLAN (0: the bridge tells none apart).
struct address_entry {
    bool forwarding;
    mac address;
    uint16_t vlan_id;
    auto operator<=>(const address_entry &) const = default;
};

struct known_entry {
    int port;           // the interface it is at
    bool fixed;         // not learnt
    uint16_t state = 0; // as the kernel tells them
    uint8_t flags = 0;
    bool operator==(const known_entry &) const = default;
};
using entry_table = std::map<address_entry, known_entry>;

// Which entry a message of the kernel's tells of, whether it is new or gone; nothing when of none.
std::optional<std::pair<address_entry, known_entry>> entry_in(const nlmsghdr *message);

// The entries at an interface; those of the whole bridge when `bridge` is its index and `port` 0.
std::optional<kernel_refusal> read_entries(netlink_socket &ask, int port, int bridge, entry_table &all);
// The same from one message of the kernel's, for tests of what is not well formed.
void apply_entry_message(const nlmsghdr *message, entry_table &all);

enum class when_known {
    REFUSE,
    REPLACE,
};
std::optional<kernel_refusal> put_entry(netlink_socket &ask, int port, const address_entry &entry, when_known known);
std::optional<kernel_refusal> take_entry(netlink_socket &ask, int port, const address_entry &entry);
// Makes an entry of a forwarding table what it was.
std::optional<kernel_refusal> put_back(netlink_socket &ask, const address_entry &entry, const known_entry &was);

} // namespace kap_node
