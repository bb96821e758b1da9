// PMI, the protocol of the port management server: opens and closes a VLAN on an Ethernet port.
#pragma once

#include "client_messages.hpp"

inline constexpr const char *PMI_SERVER_NAME = "pmi-server";
inline constexpr uint32_t PMI_PROPOSED_CONNECTION_REF = 200;

// Numbers and names.
#define PMI_MESSAGES(X)                                                                                                \
    X(0x1B1001, PMI_SERVER_UP_IND)                                                                                     \
    X(0x1B1002, PMI_SERVER_DOWN_IND)                                                                                   \
    X(0x1B1003, PMI_CONN_ESTABLISH_REQ)                                                                                \
    X(0x1B1004, PMI_CONN_ESTABLISH_CFM)                                                                                \
    X(0x1B1005, PMI_CONN_ESTABLISH_REJ)                                                                                \
    X(0x1B1006, PMI_GET_CAPABILITY_REQ)                                                                                \
    X(0x1B1007, PMI_GET_CAPABILITY_CFM)                                                                                \
    X(0x1B1008, PMI_GET_CAPABILITY_REJ)                                                                                \
    X(0x1B1009, PMI_ENABLE_PORT_VLAN_REQ)                                                                              \
    X(0x1B100A, PMI_ENABLE_PORT_VLAN_CFM)                                                                              \
    X(0x1B100B, PMI_ENABLE_PORT_VLAN_REJ)                                                                              \
    X(0x1B100C, PMI_DISABLE_PORT_VLAN_REQ)                                                                             \
    X(0x1B100D, PMI_DISABLE_PORT_VLAN_CFM)                                                                             \
    X(0x1B100E, PMI_DISABLE_PORT_VLAN_REJ)

VORN_NAMED_ENUM(pmi_msg_number, PMI_MESSAGES, pmi_msg_to_string, "<Unknown>");

#define PMI_REJECT_REASONS(X)                                                                                          \
    X(0, PMI_REJ_INTERNAL_REASON)                                                                                      \
    X(1, PMI_REJ_SERVICE_INVALID_PV)                                                                                   \
    X(2, PMI_REJ_INVALID_RESOURCE)                                                                                     \
    X(3, PMI_REJ_INVALID_PORTSTATE)                                                                                    \
    X(4, PMI_REJ_NOT_ALLOWED)

VORN_NAMED_ENUM(pmi_reject_reason, PMI_REJECT_REASONS, pmi_rej_reason_to_string, "UNKNOWN_REJECT_REASON");

// Enable and disable.
struct pmi_port_vlan_req {
    client_header header;
    char port_name[16]; // the server's name of the port, zero-terminated
    be32 vlan_id;
};
static_assert(sizeof(pmi_port_vlan_req) == 32);
static_assert(offsetof(pmi_port_vlan_req, port_name) == 12);
static_assert(offsetof(pmi_port_vlan_req, vlan_id) == 28);
