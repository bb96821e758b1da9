// Interfaces, their VLANs and their entries, in the kernel's messages (links.hpp).
#include "kernel/links.hpp"

#include "kernel/attributes.hpp"

#include <libmnl/libmnl.h>

#include <linux/if_bridge.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace kap_node
{

namespace
{

// A request in the making; none of ours is longer.
class request_message
{
public:
    template <class Head> request_message(int type, int flags, const Head &head)
    {
        message_ = mnl_nlmsg_put_header(buffer_.data());
        message_->nlmsg_type = static_cast<uint16_t>(type);
        message_->nlmsg_flags = static_cast<uint16_t>(flags);
        memcpy(mnl_nlmsg_put_extra_header(message_, sizeof head), &head, sizeof head);
    }

    void put(int type, const std::string &text)
    {
        mnl_attr_put_strz(message_, static_cast<uint16_t>(type), text.c_str());
    }
    void put(int type, uint16_t number) { mnl_attr_put_u16(message_, static_cast<uint16_t>(type), number); }
    void put(int type, uint32_t number) { mnl_attr_put_u32(message_, static_cast<uint16_t>(type), number); }
    void put(int type, const void *data, size_t size)
    {
        mnl_attr_put(message_, static_cast<uint16_t>(type), size, data);
    }
    nlattr *begin(int type) { return mnl_attr_nest_start(message_, static_cast<uint16_t>(type)); }
    void end(nlattr *nest) { mnl_attr_nest_end(message_, nest); }

    nlmsghdr *get() { return message_; }

private:
    alignas(NLMSG_ALIGNTO) std::array<char, 1024> buffer_{};
    nlmsghdr *message_ = nullptr;
};

ifinfomsg about_link(int family, int index)
{
    ifinfomsg head{};
    head.ifi_family = static_cast<unsigned char>(family);
    head.ifi_index = index;
    return head;
}

// The head of a message, when it is as long as one.
template <class Head> std::optional<Head> head_of(const nlmsghdr *message)
{
    Head head{};
    if (mnl_nlmsg_get_payload_len(message) < sizeof head) {
        return std::nullopt;
    }
    memcpy(&head, mnl_nlmsg_get_payload(message), sizeof head);
    return head;
}

void read_kind_data(const nlattr *data, const std::string &kind, kernel_link &link)
{
    bool tagged_as_we_do = true;
    each_attribute_in(data, [&](const nlattr *field) {
        const int type = mnl_attr_get_type(field);
        if (kind == "vlan" && type == IFLA_VLAN_ID) {
            link.vlan_id = number_in<uint16_t>(field).value_or(0);
        } else if (kind == "vlan" && type == IFLA_VLAN_PROTOCOL) {
            tagged_as_we_do = number_in<uint16_t>(field) == htons(ETH_P_8021Q);
        } else if (kind == "bridge" && type == IFLA_BR_VLAN_FILTERING) {
            link.filters_vlans = number_in<uint8_t>(field).value_or(0) != 0;
        }
    });
    link.is_vlan = kind == "vlan" && tagged_as_we_do && link.vlan_id != 0;
}

// The kind stands before its data.
void read_link_info(const nlattr *info, kernel_link &link)
{
    std::string kind;
    each_attribute_in(info, [&](const nlattr *field) {
        switch (mnl_attr_get_type(field)) {
        case IFLA_INFO_KIND:
            kind = text_in(field);
            break;
        case IFLA_INFO_DATA:
            read_kind_data(field, kind, link);
            break;
        case IFLA_INFO_SLAVE_KIND:
            link.is_bridge_port = text_in(field) == "bridge";
            break;
        default:
            break;
        }
    });
}

} // namespace

// ---- Interfaces ----------------------------------------------------------------------------------------------------

const kernel_link *link_table::at(int index) const
{
    const auto found = links.find(index);
    return found == links.end() ? nullptr : &found->second;
}

const kernel_link *link_table::named(const std::string &name) const
{
    for (const auto &[index, link] : links) {
        if (link.name == name) {
            return &link;
        }
    }
    return nullptr;
}

const kernel_link *link_table::vlan_on(int parent, uint16_t vlan_id) const
{
    for (const auto &[index, link] : links) {
        if (link.is_vlan && link.parent == parent && link.vlan_id == vlan_id) {
            return &link;
        }
    }
    return nullptr;
}

// A parent in another namespace has an index that means nothing here.
void apply_link_message(const nlmsghdr *message, link_table &all)
{
    const auto head = head_of<ifinfomsg>(message);
    if (!head || message->nlmsg_type != RTM_NEWLINK || head->ifi_family == AF_BRIDGE) {
        return;
    }
    kernel_link link;
    bool parent_elsewhere = false;
    link.index = head->ifi_index;
    link.up = (head->ifi_flags & IFF_UP) != 0;
    each_attribute(message, sizeof *head, [&](const nlattr *field) {
        switch (mnl_attr_get_type(field)) {
        case IFLA_IFNAME:
            link.name = text_in(field);
            break;
        case IFLA_IFALIAS:
            link.alias = text_in(field);
            break;
        case IFLA_GROUP:
            link.group = number_in<uint32_t>(field).value_or(0);
            break;
        case IFLA_MASTER:
            link.master = number_in<int>(field).value_or(0);
            break;
        case IFLA_LINK:
            link.parent = number_in<int>(field).value_or(0);
            break;
        case IFLA_LINK_NETNSID:
            parent_elsewhere = true;
            break;
        case IFLA_LINKINFO:
            read_link_info(field, link);
            break;
        default:
            break;
        }
    });
    link.parent = parent_elsewhere ? 0 : link.parent;
    all.links[link.index] = std::move(link);
}

// What a bridge tells of its ports: which VLANs each lets through, one by one.
void apply_bridge_message(const nlmsghdr *message, link_table &all)
{
    const auto head = head_of<ifinfomsg>(message);
    const auto port = head && head->ifi_family == AF_BRIDGE ? all.links.find(head->ifi_index) : all.links.end();
    if (port == all.links.end()) {
        return;
    }
    each_attribute(message, sizeof *head, [&](const nlattr *field) {
        if (mnl_attr_get_type(field) != IFLA_AF_SPEC) {
            return;
        }
        each_attribute_in(field, [&](const nlattr *inner) {
            const auto vlan =
                mnl_attr_get_type(inner) == IFLA_BRIDGE_VLAN_INFO ? number_in<bridge_vlan_info>(inner) : std::nullopt;
            if (vlan) {
                port->second.vlans.insert(vlan->vid);
            }
        });
    });
}

std::optional<kernel_refusal> read_links(netlink_socket &ask, link_table &all)
{
    all.links.clear();
    request_message links(RTM_GETLINK, 0, about_link(AF_UNSPEC, 0));
    links.put(IFLA_EXT_MASK, uint32_t{RTEXT_FILTER_SKIP_STATS});
    auto refused = ask.dump(links.get(), [&](const nlmsghdr *message) { apply_link_message(message, all); });
    const bool has_bridge_ports =
        std::any_of(all.links.begin(), all.links.end(), [](const auto &each) { return each.second.is_bridge_port; });
    if (refused || !has_bridge_ports) {
        return refused;
    }
    request_message vlans(RTM_GETLINK, 0, about_link(AF_BRIDGE, 0));
    vlans.put(IFLA_EXT_MASK, uint32_t{RTEXT_FILTER_BRVLAN});
    return ask.dump(vlans.get(), [&](const nlmsghdr *message) { apply_bridge_message(message, all); });
}

int index_of(const netlink_socket &ask, const std::string &name)
{
    ifreq request{};
    if (name.size() >= sizeof request.ifr_name) {
        return 0;
    }
    memcpy(request.ifr_name, name.data(), name.size());
    return ioctl(ask.fd(), SIOCGIFINDEX, &request) == 0 ? request.ifr_ifindex : 0;
}

std::optional<kernel_refusal> make_vlan_device(netlink_socket &ask, const std::string &name, int parent, uint16_t id)
{
    request_message make(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, about_link(AF_UNSPEC, 0));
    make.put(IFLA_IFNAME, name);
    make.put(IFLA_LINK, static_cast<uint32_t>(parent));
    make.put(IFLA_GROUP, UNFINISHED_GROUP);
    nlattr *info = make.begin(IFLA_LINKINFO);
    make.put(IFLA_INFO_KIND, std::string("vlan"));
    nlattr *data = make.begin(IFLA_INFO_DATA);
    make.put(IFLA_VLAN_ID, id);
    make.end(data);
    make.end(info);
    return ask.request(make.get());
}

std::optional<kernel_refusal> change_link(netlink_socket &ask, int index, const link_change &change)
{
    ifinfomsg head = about_link(AF_UNSPEC, index);
    if (change.up) {
        head.ifi_change = IFF_UP;
        head.ifi_flags = *change.up ? IFF_UP : 0;
    }
    request_message message(RTM_NEWLINK, 0, head);
    if (change.name) {
        message.put(IFLA_IFNAME, *change.name);
    }
    if (change.alias) {
        message.put(IFLA_IFALIAS, change.alias->c_str(), change.alias->size());
    }
    if (change.group) {
        message.put(IFLA_GROUP, *change.group);
    }
    return ask.request(message.get());
}

std::optional<kernel_refusal> delete_link(netlink_socket &ask, int index)
{
    request_message message(RTM_DELLINK, 0, about_link(AF_UNSPEC, index));
    return ask.request(message.get());
}

// ---- VLANs of a bridge port ----------------------------------------------------------------------------------------

namespace
{

std::optional<kernel_refusal> ask_for_port_vlan(netlink_socket &ask, int type, int port, uint16_t vlan_id)
{
    request_message message(type, 0, about_link(AF_BRIDGE, port));
    nlattr *spec = message.begin(IFLA_AF_SPEC);
    const bridge_vlan_info vlan{.flags = 0, .vid = vlan_id};
    message.put(IFLA_BRIDGE_VLAN_INFO, &vlan, sizeof vlan);
    message.end(spec);
    return ask.request(message.get());
}

} // namespace

std::optional<kernel_refusal> let_vlan_through(netlink_socket &ask, int port, uint16_t vlan_id)
{
    return ask_for_port_vlan(ask, RTM_SETLINK, port, vlan_id);
}

std::optional<kernel_refusal> stop_vlan(netlink_socket &ask, int port, uint16_t vlan_id)
{
    return ask_for_port_vlan(ask, RTM_DELLINK, port, vlan_id);
}

// ---- Entries of filters and forwarding tables ----------------------------------------------------------------------

std::optional<std::pair<address_entry, known_entry>> entry_in(const nlmsghdr *message)
{
    const auto head = head_of<ndmsg>(message);
    if (!head || (message->nlmsg_type != RTM_NEWNEIGH && message->nlmsg_type != RTM_DELNEIGH) ||
        head->ndm_family != AF_BRIDGE) {
        return std::nullopt;
    }
    address_entry entry{.forwarding = (head->ndm_flags & NTF_SELF) == 0, .address = {}, .vlan_id = 0};
    bool has_address = false;
    each_attribute(message, sizeof *head, [&](const nlattr *field) {
        if (mnl_attr_get_type(field) == NDA_LLADDR) {
            has_address = mnl_attr_get_payload_len(field) == entry.address.size();
            entry.address = number_in<mac>(field).value_or(mac{});
        } else if (mnl_attr_get_type(field) == NDA_VLAN) {
            entry.vlan_id = number_in<uint16_t>(field).value_or(0);
        }
    });
    if (!has_address) {
        return std::nullopt;
    }
    const bool fixed = (head->ndm_state & (NUD_PERMANENT | NUD_NOARP)) != 0;
    return std::pair(entry, known_entry{head->ndm_ifindex, fixed, head->ndm_state, head->ndm_flags});
}

void apply_entry_message(const nlmsghdr *message, entry_table &all)
{
    const auto told = message->nlmsg_type == RTM_NEWNEIGH ? entry_in(message) : std::nullopt;
    if (told) {
        all[told->first] = told->second;
    }
}

// The head is an interface's though neighbours are asked for: by it the kernel leaves the others out.
std::optional<kernel_refusal> read_entries(netlink_socket &ask, int port, int bridge, entry_table &all)
{
    all.clear();
    request_message message(RTM_GETNEIGH, 0, about_link(AF_BRIDGE, port));
    if (bridge != 0) {
        message.put(IFLA_MASTER, static_cast<uint32_t>(bridge));
    }
    return ask.dump(message.get(), [&](const nlmsghdr *answer) { apply_entry_message(answer, all); });
}

namespace
{

std::optional<kernel_refusal> ask_for_entry(netlink_socket &ask, int type, int flags, const address_entry &entry,
                                            const known_entry &how)
{
    ndmsg head{};
    head.ndm_family = AF_BRIDGE;
    head.ndm_ifindex = how.port;
    head.ndm_flags = how.flags;
    head.ndm_state = how.state;
    request_message message(type, flags, head);
    message.put(NDA_LLADDR, entry.address.data(), entry.address.size());
    if (entry.vlan_id != 0) {
        message.put(NDA_VLAN, entry.vlan_id);
    }
    return ask.request(message.get());
}

// How entries of ours are.
known_entry fixed_at(int port, const address_entry &entry)
{
    return {port, true, entry.forwarding ? uint16_t{NUD_NOARP} : uint16_t{NUD_PERMANENT},
            entry.forwarding ? uint8_t{NTF_MASTER} : uint8_t{NTF_SELF}};
}

} // namespace

std::optional<kernel_refusal> put_entry(netlink_socket &ask, int port, const address_entry &entry, when_known known)
{
    const int flags = NLM_F_CREATE | (known == when_known::REPLACE ? NLM_F_REPLACE : NLM_F_EXCL);
    return ask_for_entry(ask, RTM_NEWNEIGH, flags, entry, fixed_at(port, entry));
}

std::optional<kernel_refusal> take_entry(netlink_socket &ask, int port, const address_entry &entry)
{
    return ask_for_entry(ask, RTM_DELNEIGH, 0, entry, fixed_at(port, entry));
}

std::optional<kernel_refusal> put_back(netlink_socket &ask, const address_entry &entry, const known_entry &was)
{
    known_entry how = was;
    how.flags = static_cast<uint8_t>((was.flags & (NTF_STICKY | NTF_EXT_LEARNED)) | NTF_MASTER);
    return ask_for_entry(ask, RTM_NEWNEIGH, NLM_F_CREATE | NLM_F_REPLACE, entry, how);
}

} // namespace kap_node
