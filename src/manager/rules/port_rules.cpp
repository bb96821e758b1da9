// Builds the MAC lists and rule records of a port or a link, and programs a port's access control. What the records
// mean to their services is the services' business; integers in them are in network byte order.
#include "port_rules.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/app_link_index.hpp"
#include "clients/fmi_client.hpp"
#include "clients/iepcsi_client.hpp"
#include "manager/ports/port_mapping.hpp"
#include "manager/table/link_table.hpp"
#include "manager/table/near_end_macs.hpp"
#include "vorn_trace.hpp"

namespace
{

constexpr uint32_t EMCA_INDEX_MASK = 0xFF;

constexpr uint32_t MAC_CHAINS = EMCA_INDEX_MASK + 1;

struct mac_list {
    mac_address *macs; // with room for as many as the next power of two
    uint32_t count;
    // Chains of the places that a duplicate is looked for in, by the MACs' last bytes: a place and 1, 0 ends a chain.
    uint16_t first[MAC_CHAINS];
    uint16_t next[MAC_CHAINS];
};

// The place where the next MAC is written, and how far a duplicate is looked for, is an index of 8 bits: MAC number 257
// takes the place of the first.
uint32_t mac_list_index(const mac_list &list) { return list.count & EMCA_INDEX_MASK; }

uint16_t *chain_of(mac_list *list, const mac_address &mac)
{
    return &list->first[(mac.byte[5] ^ mac.byte[4] * 7u ^ mac.byte[3] * 31u) & EMCA_INDEX_MASK];
}

bool mac_list_has(mac_list *list, const mac_address &mac)
{
    for (uint16_t place = *chain_of(list, mac); place != 0; place = list->next[place - 1]) {
        // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker): where a place is in use there are MACs
        if (mac_equal(list->macs[place - 1], mac)) {
            return true;
        }
    }
    return false;
}

// When the index is at its end it begins anew, and none of the places before it is looked at any more.
void enter_in_chain(mac_list *list, uint32_t place)
{
    if (place == EMCA_INDEX_MASK) {
        memset(list->first, 0, sizeof list->first);
        return;
    }
    uint16_t *first = chain_of(list, list->macs[place]);
    list->next[place] = *first;
    *first = static_cast<uint16_t>(place + 1);
}

// On failure the list is empty.
bool mac_list_grow(mac_list *list, uint32_t room)
{
    void *grown = realloc(list->macs, size_t{room} * sizeof(mac_address));
    if (grown == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Out of memory");
        free(list->macs);
        *list = {};
        return false;
    }
    list->macs = static_cast<mac_address *>(grown);
    return true;
}

bool mac_list_append(mac_list *list, const mac_address &mac)
{
    const bool is_full = (list->count & (list->count - 1)) == 0;
    if (is_full && !mac_list_grow(list, list->count != 0 ? 2 * list->count : 1)) {
        return false;
    }
    list->macs[list->count] = {};
    const uint32_t place = mac_list_index(*list);
    list->macs[place] = mac;
    enter_in_chain(list, place);
    ++list->count;
    return true;
}

bool append_emca_macs_of_link(mac_list *list, const IemliLinkData *data)
{
    for (uint32_t i = 0; i < data->numberOfAppLinks; ++i) {
        const mac_address &mac = iemli_app_links(data)[i].nearEndAppMac;
        if (!mac_list_has(list, mac) && !mac_list_append(list, mac)) {
            return false;
        }
    }
    return true;
}

// Of a port that has lost its MACs for want of memory, and of what is no port.
void append_macs_of_links(mac_list *list, const char *iemli_port_name)
{
    for (const iml_link *link = iml_link_first(); link != nullptr; link = link->next) {
        if (port_name_equal(link->link_data->imlPortName, iemli_port_name) &&
            !append_emca_macs_of_link(list, link->link_data)) {
            return;
        }
    }
}

// Where no MAC occurs twice all of them are listed, and the last that came to a place stands there.
void list_distinct_macs(mac_list *list, const near_end_macs &kept)
{
    if (!mac_list_grow(list, kept.count)) {
        return;
    }
    memset(list->macs, 0, size_t{kept.count} * sizeof(mac_address));
    list->count = kept.count;
    for (uint32_t i = kept.count > MAC_CHAINS ? kept.count - MAC_CHAINS : 0; i < kept.count; ++i) {
        list->macs[i & EMCA_INDEX_MASK] = kept.macs[i].mac;
    }
}

// What the index of 8 bits tells apart is listed once, so that with the last of it the list is whole.
void append_kept_macs(mac_list *list, const near_end_macs &kept)
{
    for (uint32_t i = 0; i < kept.count; ++i) {
        if (list->count == kept.distinct && kept.distinct <= EMCA_INDEX_MASK) {
            return;
        }
        if (!mac_list_has(list, kept.macs[i].mac) && !mac_list_append(list, kept.macs[i].mac)) {
            return;
        }
    }
}

void fill_rule(EmiEndpoint *rule, const char *fmi_name, const mac_address &mac, uint16_t vlan, uint32_t match_on_port)
{
    *rule = {};
    (void)snprintf(rule->ifName, sizeof rule->ifName, "%s", fmi_name);
    rule->mac = mac;
    rule->epType = to_be32(1);
    rule->vlanId = to_be32(vlan);
    rule->farEnd = to_be32(match_on_port);
}

// The two entries of an app link: its far end on the port, its near end on any.
void fill_app_link_rules(EmiEndpoint *rules, const char *fmi_name, const IemliAppLink &app_link, uint16_t vlan)
{
    fill_rule(&rules[0], fmi_name, app_link.farEndAppMac, vlan, 1);
    fill_rule(&rules[1], "", app_link.nearEndAppMac, vlan, 0);
}

bool set_port_rules(const char *fmi_name, uint32_t tn, const mac_address *emcas, uint32_t emca_count)
{
    return fmi_set_default_action(fmi_name, tn) && fmi_set_static_rule(fmi_name, tn) &&
           (emcas == nullptr || fmi_set_emca_acl_rule(fmi_name, emcas, emca_count)) && fmi_set_ptp_macs(fmi_name) &&
           fmi_set_lldp_macs(fmi_name);
}

} // namespace

mac_address *collect_local_port_macs(uint32_t *count)
{
    mac_list list = {};
    for (const eth_port *port = iepcsi_get_port_list(); port != nullptr; port = port->next) {
        if (port->adm_state == ETH_PORT_UNLOCKED && !mac_list_append(&list, port->mac)) {
            break;
        }
    }
    *count = list.count;
    return list.macs;
}

mac_address *collect_emca_macs_for_port(uint32_t *count, const char *iemli_port_name)
{
    mac_list list = {};
    const port_names &port = port_of_iemli_name(iemli_port_name);
    near_end_macs kept = {};
    if (!is_known_port(port) || !near_end_macs_of_port(port_number(port), &kept)) {
        append_macs_of_links(&list, iemli_port_name);
    } else if (kept.count == kept.distinct && kept.count > MAC_CHAINS) {
        list_distinct_macs(&list, kept);
    } else {
        append_kept_macs(&list, kept);
    }
    *count = list.count;
    return list.macs;
}

void set_emca_acl_rule_on_port(const char *iemli_port_name)
{
    uint32_t count = 0;
    mac_address *macs = collect_emca_macs_for_port(&count, iemli_port_name);
    const char *fmi_name = port_name_to_fmi_name(iemli_port_name);
    if (!fmi_set_emca_acl_rule(fmi_name, macs, count)) {
        VORN_TRACE(TRACE_WARNING, "WARNING: Set emca acl rule on port (%s) for %u new emcas failed.", fmi_name, count);
    }
    free(macs);
}

void setup_port_acl(const char *iepcsi_port_name)
{
    const char *fmi_name = port_name_to_fmi_name(iepcsi_port_name);
    uint32_t emca_count = 0;
    uint32_t local_count = 0;
    mac_address *emcas = collect_emca_macs_for_port(&emca_count, iepcsi_to_iemli_port_name(iepcsi_port_name));
    mac_address *locals = collect_local_port_macs(&local_count);
    if (!set_port_rules(fmi_name, is_tn_port(iepcsi_port_name) ? 1 : 0, emcas, emca_count)) {
        port_acl_fall_back(fmi_name);
    } else if (locals != nullptr) {
        set_supervision_acl_rule_on_ports(locals, local_count);
    }
    free(emcas);
    free(locals);
}

void port_acl_fall_back(const char *fmi_name)
{
    fmi_remove_acl_from_port(fmi_name);
    fmi_set_default_action(fmi_name, FMI_FALLBACK_ACTION);
}

void set_supervision_acl_rule_on_ports(const mac_address *macs, uint32_t count)
{
    for (const eth_port *port = iepcsi_get_port_list(); port != nullptr; port = port->next) {
        if (port->adm_state != ETH_PORT_UNLOCKED) {
            continue;
        }
        const char *fmi_name = port_name_to_fmi_name(port->port_name);
        if (!fmi_set_supervision_acl_rule(fmi_name, macs, count)) {
            port_acl_fall_back(fmi_name);
        }
    }
}

void fill_ptp_lldp_mac_rules(const char *port_name, uint16_t vlan, EmiEndpoint *out)
{
    fill_rule(&out[0], port_name_to_fmi_name(port_name), PTP_MULTICAST_MAC, vlan, 0);
    fill_lldp_mac_rule(port_name, vlan, &out[1]);
}

void fill_lldp_mac_rule(const char *port_name, uint16_t vlan, EmiEndpoint *out)
{
    fill_rule(out, port_name_to_fmi_name(port_name), LLDP_MULTICAST_MAC, vlan, 0);
}

uint32_t build_link_acl_rules(const IemliLinkData *link, EmiEndpoint **out)
{
    eth_port port;
    if (!iepcsi_fetch_port_data(iemli_to_iepcsi_port_name(link->imlPortName), &port)) {
        VORN_TRACE(TRACE_ERROR, "Failed to get port data");
        return 0;
    }
    const bool tn = is_tn_port(link->imlPortName);
    const uint32_t count = 2 * link->numberOfAppLinks + (tn ? 4 : 3);
    auto *rules = static_cast<EmiEndpoint *>(calloc(count, sizeof(EmiEndpoint)));
    if (rules == nullptr) {
        VORN_TRACE(TRACE_ERROR, "Out of memory");
        return 0;
    }
    const char *fmi_name = port_name_to_fmi_name(link->imlPortName);
    EmiEndpoint *rule = rules;
    for (uint32_t i = 0; i < link->numberOfAppLinks; ++i, rule += 2) {
        fill_app_link_rules(rule, fmi_name, iemli_app_links(link)[i], link->vlanId);
    }
    fill_rule(rule++, fmi_name, link->farEndCpmMac, link->vlanId, 1);
    if (tn) {
        fill_rule(rule++, "", port.mac, link->vlanId, 0);
    }
    fill_ptp_lldp_mac_rules(link->imlPortName, link->vlanId, rule);
    *out = rules;
    return count;
}

void build_new_app_link_acl_rules(const IemliLinkData *link, const IemliLinkData *old_link, EmiEndpoint **out,
                                  uint32_t *count)
{
    const char *fmi_name = port_name_to_fmi_name(link->imlPortName);
    *out = nullptr;
    *count = 0;
    app_link_index old_app_links = app_link_index_build(iemli_app_links(old_link), old_link->numberOfAppLinks);
    for (uint32_t i = 0; i < link->numberOfAppLinks; ++i) {
        const IemliAppLink &app_link = iemli_app_links(link)[i];
        if (app_link_index_has(old_app_links, app_link)) {
            continue;
        }
        void *grown = realloc(*out, (static_cast<size_t>(*count) + 2) * sizeof(EmiEndpoint));
        if (grown == nullptr) {
            VORN_TRACE(TRACE_ERROR, "Memory realloc failed");
            free(*out);
            *out = nullptr;
            *count = 0;
            break;
        }
        *out = static_cast<EmiEndpoint *>(grown);
        fill_app_link_rules(*out + *count, fmi_name, app_link, link->vlanId);
        *count += 2;
    }
    app_link_index_free(&old_app_links);
}
