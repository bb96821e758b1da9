// The link list on the wire, in host byte order. Requesters share this header.
//
// A reply is allocated as if every link brought a header of its own; what the records do not need stays zero.
#pragma once

#include <cstddef>
#include <cstdint>

#include "iemli/iemli_messages.hpp"

enum shell_msg_number : uint32_t {
    IECTM_COLI_IML_LINK_LIST_RSP = 0x1B0CE2,
    IECTM_COLI_IML_LINK_LIST_REQ = 0x1B0CE3, // its number is all of it
};

inline constexpr uint32_t SHELL_MAX_APP_LINKS = 16;

struct shell_rtt {
    uint32_t microseconds;
    uint32_t hundredths; // of a microsecond
};
static_assert(sizeof(shell_rtt) == 8);
static_assert(offsetof(shell_rtt, hundredths) == 4);

struct shell_link_record {
    uint32_t connection_ref;
    uint32_t link_ref;
    uint8_t near_end_mp_id;
    mac_address near_end_cpm_mac; // zero when it cannot be had
    mac_address far_end_cpm_mac;
    char port_name[16];
    uint8_t padding0;
    uint16_t vlan_id;
    uint32_t app_link_count; // of those listed
    uint32_t status;
    uint32_t disabled_reason;
    IemliAppLink app_links[SHELL_MAX_APP_LINKS];
    uint32_t rtt_state;         // 0 off, 1 on, 2 anything else
    uint32_t supervision_state; // 1 running, 2 failed, 0 anything else
    rtt_settings rtt;
    uint8_t padding1[2];
    uint32_t supervision_results;
    uint32_t supervision_lost;
    uint8_t reserved0[2];
    uint8_t rtt_present; // 1: the figures below are of at least one valid sample
    uint8_t reserved1[49];
    shell_rtt rtt_minimum;
    shell_rtt rtt_average;
    shell_rtt rtt_maximum;
};
static_assert(sizeof(shell_link_record) == 344);
static_assert(offsetof(shell_link_record, link_ref) == 4);
static_assert(offsetof(shell_link_record, near_end_mp_id) == 8);
static_assert(offsetof(shell_link_record, near_end_cpm_mac) == 9);
static_assert(offsetof(shell_link_record, far_end_cpm_mac) == 15);
static_assert(offsetof(shell_link_record, port_name) == 21);
static_assert(offsetof(shell_link_record, padding0) == 37);
static_assert(offsetof(shell_link_record, vlan_id) == 38);
static_assert(offsetof(shell_link_record, app_link_count) == 40);
static_assert(offsetof(shell_link_record, status) == 44);
static_assert(offsetof(shell_link_record, disabled_reason) == 48);
static_assert(offsetof(shell_link_record, app_links) == 52);
static_assert(offsetof(shell_link_record, rtt_state) == 244);
static_assert(offsetof(shell_link_record, supervision_state) == 248);
static_assert(offsetof(shell_link_record, rtt.batchSize) == 252);
static_assert(offsetof(shell_link_record, rtt.measureInterval) == 254);
static_assert(offsetof(shell_link_record, rtt.frameSize) == 256);
static_assert(offsetof(shell_link_record, supervision_results) == 260);
static_assert(offsetof(shell_link_record, supervision_lost) == 264);
static_assert(offsetof(shell_link_record, rtt_present) == 270);
static_assert(offsetof(shell_link_record, reserved1) == 271);
static_assert(offsetof(shell_link_record, rtt_minimum) == 320);
static_assert(offsetof(shell_link_record, rtt_average) == 328);
static_assert(offsetof(shell_link_record, rtt_maximum) == 336);

// A reply with room for one record; those of further links follow the first.
struct shell_link_list {
    uint32_t msgno;
    uint32_t count;
    shell_link_record records[1];
};
static_assert(sizeof(shell_link_list) == 352);
static_assert(offsetof(shell_link_list, count) == 4);
static_assert(offsetof(shell_link_list, records) == 8);
