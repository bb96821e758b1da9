// Builders of the per-port and per-link rule sets: endpoint lists for EMI, MAC lists and the access-control set-up for
// FMI. An endpoint record and an access-control rule entry are one and the same 100-byte layout, EmiEndpoint.
#pragma once

#include <cstdint>

#include "clients/emi_messages.hpp"
#include "iemli/iemli_messages.hpp"

inline constexpr mac_address PTP_MULTICAST_MAC = {{0x01, 0x1B, 0x19, 0x00, 0x00, 0x00}};
inline constexpr mac_address LLDP_MULTICAST_MAC = {{0x01, 0x80, 0xC2, 0x00, 0x00, 0x0E}};

// A port whose rules could not be set is left with this default action and no rule at all.
inline constexpr uint32_t FMI_FALLBACK_ACTION = 1;

// Heap arrays owned by the caller (free()); null when there is none or memory is out, then *count is 0.
mac_address *collect_local_port_macs(uint32_t *count);
mac_address *collect_emca_macs_for_port(uint32_t *count, const char *iemli_port_name);

void set_emca_acl_rule_on_port(const char *iemli_port_name);
void setup_port_acl(const char *iepcsi_port_name);
void port_acl_fall_back(const char *fmi_name);
// The supervision rule on every unlocked port; a port that refuses it falls back to default action 1.
void set_supervision_acl_rule_on_ports(const mac_address *macs, uint32_t count);

void fill_ptp_lldp_mac_rules(const char *port_name, uint16_t vlan, EmiEndpoint *out);
void fill_lldp_mac_rule(const char *port_name, uint16_t vlan, EmiEndpoint *out);

// Writes a calloc'ed array through `out` (free()) and returns its count; 0 on failure, then nothing is written.
uint32_t build_link_acl_rules(const IemliLinkData *link, EmiEndpoint **out);
// The two entries of every app link of `link` that `old_link` lacks. *out is null and *count 0 when there is none or
// memory is out.
void build_new_app_link_acl_rules(const IemliLinkData *link, const IemliLinkData *old_link, EmiEndpoint **out,
                                  uint32_t *count);
