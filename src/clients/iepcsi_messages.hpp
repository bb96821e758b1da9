// IEPCSI, the protocol of the Ethernet port control server: which ports exist, their state and their VLANs.
#pragma once

#include "client_messages.hpp"

inline constexpr const char *IEPCSI_SERVER_NAME = "iepcsi-server";
inline constexpr uint32_t IEPCSI_PROPOSED_CONNECTION_REF = 100;

// A port entry whose capability has this bit can carry inter-ME links.
inline constexpr uint32_t IEPCSI_CAPABILITY_LINK = 2;
// The role that the daemon subscribes for.
inline constexpr uint32_t IEPCSI_PORT_ROLE_LINK = 2;

// Numbers and names.
#define IEPCSI_MESSAGES(X)                                                                                             \
    X(0x1B1041, IEPCSI_SERVER_UP_IND)                                                                                  \
    X(0x1B1042, IEPCSI_SERVER_DOWN_IND)                                                                                \
    X(0x1B1043, IEPCSI_INIT_SERVICE_REQ)                                                                               \
    X(0x1B1044, IEPCSI_INIT_SERVICE_CFM)                                                                               \
    X(0x1B1045, IEPCSI_INIT_SERVICE_REJ)                                                                               \
    X(0x1B1047, IEPCSI_TERM_SERVICE_CFM)                                                                               \
    X(0x1B1048, IEPCSI_GET_ETH_PORT_SUPPORT_REQ)                                                                       \
    X(0x1B1049, IEPCSI_GET_ETH_PORT_SUPPORT_CFM)                                                                       \
    X(0x1B104A, IEPCSI_GET_ETH_PORT_SUPPORT_REJ)                                                                       \
    X(0x1B1050, IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REQ)                                                                  \
    X(0x1B1051, IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_CFM)                                                                  \
    X(0x1B1052, IEPCSI_SUBSCRIBE_ETH_PORT_STATUS_REJ)                                                                  \
    X(0x1B1055, IEPCSI_ETH_PORT_STATUS_IND)                                                                            \
    X(0x1B1063, IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REQ)                                                                 \
    X(0x1B1064, IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_CFM)                                                                 \
    X(0x1B1065, IEPCSI_SUBSCRIBE_PORT_VLAN_STATUS_REJ)                                                                 \
    X(0x1B1068, IEPCSI_PORT_VLAN_STATUS_IND)

VORN_NAMED_ENUM(iepcsi_msg_number, IEPCSI_MESSAGES, iepcsi_msg_to_string, "<Unknown>");

#define IEPCSI_REJECT_REASONS(X)                                                                                       \
    X(0, IEPCSI_REJ_INTERNAL_REASON)                                                                                   \
    X(1, IEPCSI_REJ_SERVICE_INVALID_PV)                                                                                \
    X(2, IEPCSI_REJ_INVALID_PORTREF)                                                                                   \
    X(3, IEPCSI_REJ_INVALID_PORTNAME)                                                                                  \
    X(4, IEPCSI_REJ_INVALID_PORTSTATE)                                                                                 \
    X(5, IEPCSI_REJ_INVALID_PORTROLE)                                                                                  \
    X(6, IEPCSI_REJ_PORT_RESERVED)                                                                                     \
    X(7, IEPCSI_REJ_PORT_NOT_RESERVED)

VORN_NAMED_ENUM(iepcsi_reject_reason, IEPCSI_REJECT_REASONS, iepcsi_rej_reason_to_string, "UNKNOWN_REJECT_REASON");

enum iepcsi_vlan_action : uint32_t {
    IEPCSI_VLAN_ADDED = 1,
    IEPCSI_VLAN_REMOVED = 2,
};

struct iepcsi_init_service_req {
    client_header header; // connection_ref: the client's proposal
    be32 pv_first_wanted;
    be32 pv_second_wanted;
    be32 pv_third_wanted;
};
static_assert(sizeof(iepcsi_init_service_req) == 24);
static_assert(offsetof(iepcsi_init_service_req, pv_first_wanted) == 12);
static_assert(offsetof(iepcsi_init_service_req, pv_second_wanted) == 16);
static_assert(offsetof(iepcsi_init_service_req, pv_third_wanted) == 20);

struct iepcsi_port_entry {
    be32 capability;
    uint8_t unread0[4];
    mac_address mac;
    char port_name[16];
    char if_name[16];
    uint8_t unread1[2];
};
static_assert(sizeof(iepcsi_port_entry) == 48);
static_assert(offsetof(iepcsi_port_entry, mac) == 8);
static_assert(offsetof(iepcsi_port_entry, port_name) == 14);
static_assert(offsetof(iepcsi_port_entry, if_name) == 30);

struct iepcsi_get_eth_port_support_cfm {
    client_header header;
    be32 number_of_ports;
    iepcsi_port_entry ports[];
};
static_assert(sizeof(iepcsi_get_eth_port_support_cfm) == 16);
static_assert(offsetof(iepcsi_get_eth_port_support_cfm, number_of_ports) == 12);
static_assert(offsetof(iepcsi_get_eth_port_support_cfm, ports) == 16);

// Of port status and of VLAN status. An empty name subscribes for all ports.
struct iepcsi_subscribe_req {
    client_header header;
    be32 port_role;
    char port_name[16];
};
static_assert(sizeof(iepcsi_subscribe_req) == 32);
static_assert(offsetof(iepcsi_subscribe_req, port_role) == 12);
static_assert(offsetof(iepcsi_subscribe_req, port_name) == 16);

struct iepcsi_subscribe_cfm {
    client_header header;
    be32 subscribe_ref;
};
static_assert(sizeof(iepcsi_subscribe_cfm) == 16);
static_assert(offsetof(iepcsi_subscribe_cfm, subscribe_ref) == 12);

struct iepcsi_eth_port_status_ind {
    client_header header;
    be32 port_adm_state;
    be32 port_oper_state;
    char port_name[16];
    char name_space[]; // zero-terminated, up to 256 bytes
};
static_assert(sizeof(iepcsi_eth_port_status_ind) == 36);
static_assert(offsetof(iepcsi_eth_port_status_ind, port_adm_state) == 12);
static_assert(offsetof(iepcsi_eth_port_status_ind, port_oper_state) == 16);
static_assert(offsetof(iepcsi_eth_port_status_ind, port_name) == 20);
static_assert(offsetof(iepcsi_eth_port_status_ind, name_space) == 36);

struct iepcsi_port_vlan_status_ind {
    client_header header;
    be16 vlan_id;
    uint8_t unread[2];
    be32 vlan_action; // iepcsi_vlan_action
    be32 port_role;
    char if_name[16];
    char port_name[16];
    char name_space[]; // zero-terminated
};
static_assert(sizeof(iepcsi_port_vlan_status_ind) == 56);
static_assert(offsetof(iepcsi_port_vlan_status_ind, vlan_id) == 12);
static_assert(offsetof(iepcsi_port_vlan_status_ind, vlan_action) == 16);
static_assert(offsetof(iepcsi_port_vlan_status_ind, port_role) == 20);
static_assert(offsetof(iepcsi_port_vlan_status_ind, if_name) == 24);
static_assert(offsetof(iepcsi_port_vlan_status_ind, port_name) == 40);
static_assert(offsetof(iepcsi_port_vlan_status_ind, name_space) == 56);
