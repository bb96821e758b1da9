// A table of the interfaces of a namespace (interface_watch.hpp).
//
// News that are older than what was read of everything are applied to it, too. That is harmless: each says all of its
// interface, and the last of an interface is how it is.
#include "kernel/interface_watch.hpp"

#include "kernel/attributes.hpp"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <array>
#include <cstring>
#include <system_error>

namespace kap_node
{

namespace
{

constexpr int LINKS[] = {RTNLGRP_LINK};

// Which namespace a socket that is opened now would be in.
namespace_identity identity_of_place(const std::string &name_space)
{
    const namespace_visit visit(name_space);
    return namespace_identity::of("");
}

mac address_in(const nlattr *attribute)
{
    mac address{};
    if (mnl_attr_get_payload_len(attribute) == address.size()) {
        memcpy(address.data(), mnl_attr_get_payload(attribute), address.size());
    }
    return address;
}

// One that tags as nobody here does (802.1ad) is no VLAN device to anybody here.
void read_link_info(const nlattr *info, interface_facts &facts)
{
    bool tags_as_we_do = true;
    each_attribute_in(info, [&](const nlattr *attribute) {
        const uint16_t type = mnl_attr_get_type(attribute);
        if (type == IFLA_INFO_KIND) {
            facts.is_vlan = text_in(attribute) == "vlan";
        } else if (type == IFLA_INFO_SLAVE_KIND) {
            facts.is_bridge_port = text_in(attribute) == "bridge";
        } else if (type == IFLA_INFO_DATA) {
            each_attribute_in(attribute, [&](const nlattr *inner) {
                if (mnl_attr_get_type(inner) == IFLA_VLAN_ID) {
                    facts.vlan_id = number_in<uint16_t>(inner).value_or(0);
                } else if (mnl_attr_get_type(inner) == IFLA_VLAN_PROTOCOL) {
                    tags_as_we_do = number_in<uint16_t>(inner) == htons(ETH_P_8021Q);
                }
            });
        }
    });
    facts.is_vlan = facts.is_vlan && tags_as_we_do;
}

// A parent in another namespace has an index that means nothing here.
interface_facts read_link(const nlmsghdr *message, const ifinfomsg &head)
{
    interface_facts facts;
    bool parent_elsewhere = false;
    facts.up = (head.ifi_flags & IFF_UP) != 0;
    each_attribute(message, sizeof head, [&](const nlattr *attribute) {
        switch (mnl_attr_get_type(attribute)) {
        case IFLA_IFNAME:
            facts.name = text_in(attribute);
            break;
        case IFLA_ADDRESS:
            facts.address = address_in(attribute);
            break;
        case IFLA_CARRIER:
            facts.carrier = number_in<uint8_t>(attribute).value_or(0) != 0;
            break;
        case IFLA_LINK:
            facts.parent = number_in<int>(attribute).value_or(0);
            break;
        case IFLA_LINK_NETNSID:
            parent_elsewhere = true;
            break;
        case IFLA_LINKINFO:
            read_link_info(attribute, facts);
            break;
        default:
            break;
        }
    });
    facts.parent = parent_elsewhere ? 0 : facts.parent;
    facts.vlan_id = facts.is_vlan ? facts.vlan_id : uint16_t{0};
    return facts;
}

} // namespace

bool apply_link(const nlmsghdr *message, interface_table &table)
{
    const bool gone = message->nlmsg_type == RTM_DELLINK;
    ifinfomsg head;
    if ((!gone && message->nlmsg_type != RTM_NEWLINK) || mnl_nlmsg_get_payload_len(message) < sizeof head) {
        return false;
    }
    memcpy(&head, mnl_nlmsg_get_payload(message), sizeof head);
    if (head.ifi_family != AF_UNSPEC) {
        return false; // a bridge tells of its ports in the same words, in a family of its own
    }
    if (gone) {
        return table.erase(head.ifi_index) > 0;
    }
    const interface_facts facts = read_link(message, head);
    const auto [place, fresh] = table.try_emplace(head.ifi_index, facts);
    const bool changed = fresh || place->second != facts;
    place->second = facts;
    return changed;
}

std::optional<kernel_refusal> read_interfaces(netlink_socket &requests, interface_table &table)
{
    alignas(nlmsghdr) std::array<uint8_t, MNL_ALIGN(sizeof(nlmsghdr)) + MNL_ALIGN(sizeof(ifinfomsg))> room{};
    nlmsghdr *all = mnl_nlmsg_put_header(room.data());
    all->nlmsg_type = RTM_GETLINK;
    mnl_nlmsg_put_extra_header(all, sizeof(ifinfomsg));
    return requests.dump(all, [&](const nlmsghdr *message) { (void)apply_link(message, table); });
}

interface_watch::interface_watch(const std::string &name_space)
    : name_space_(name_space), identity_(identity_of_place(name_space)), news_(NETLINK_ROUTE, name_space, LINKS),
      requests_(NETLINK_ROUTE, name_space)
{
    if (auto refused = read_interfaces(requests_, table_)) {
        throw std::system_error(refused->error, std::generic_category(),
                                "the interfaces of \"" + name_space + "\": " + refused->words);
    }
}

// What the new table does not name is gone.
bool interface_watch::read_anew()
{
    interface_table fresh;
    out_of_date_ = read_interfaces(requests_, fresh).has_value();
    if (out_of_date_ || fresh == table_) {
        return false;
    }
    table_ = std::move(fresh);
    return true;
}

bool interface_watch::read_news()
{
    bool changed = out_of_date_ && read_anew();
    const bool whole =
        news_.read_news([&](const nlmsghdr *message) { changed = apply_link(message, table_) || changed; });
    return whole ? changed : read_anew() || changed;
}

} // namespace kap_node
