// EMI, the protocol of the endpoint manager: MAC endpoints on a port and VLAN.
#pragma once

#include "client_messages.hpp"

inline constexpr const char *EMI_SERVER_NAME = "endpoint_mgr";
inline constexpr uint32_t EMI_PROPOSED_CONNECTION_REF = 300;

// The server must offer both; what they stand for is the server's business.
inline constexpr uint32_t EMI_NEEDED_CAPABILITY_1 = 1;
inline constexpr uint32_t EMI_NEEDED_CAPABILITY_2 = 2;

// Numbers and names.
#define EMI_MESSAGES(X)                                                                                                \
    X(0x1B0CE4, EMI_SERVER_DOWN)                                                                                       \
    X(0x1B0CE5, EMI_SERVER_UP)                                                                                         \
    X(0x1B10C0, EMI_CONN_ESTABLISH_REQ)                                                                                \
    X(0x1B10C1, EMI_CONN_ESTABLISH_CFM)                                                                                \
    X(0x1B10C2, EMI_CONN_ESTABLISH_REJ)                                                                                \
    X(0x1B10C3, EMI_GET_CAPABILITY_REQ)                                                                                \
    X(0x1B10C4, EMI_GET_CAPABILITY_CFM)                                                                                \
    X(0x1B10C5, EMI_GET_CAPABILITY_REJ)                                                                                \
    X(0x1B10C6, EMI_ADD_ENDPOINT_REQ)                                                                                  \
    X(0x1B10C7, EMI_ADD_ENDPOINT_CFM)                                                                                  \
    X(0x1B10C8, EMI_ADD_ENDPOINT_REJ)                                                                                  \
    X(0x1B10C9, EMI_REMOVE_ENDPOINT_REQ)                                                                               \
    X(0x1B10CA, EMI_REMOVE_ENDPOINT_CFM)                                                                               \
    X(0x1B10CB, EMI_REMOVE_ENDPOINT_REJ)

VORN_NAMED_ENUM(emi_msg_number, EMI_MESSAGES, emi_msg_to_string, "<Unknown>");

#define EMI_REJECT_REASONS(X)                                                                                          \
    X(1, EMI_REJ_INTERNAL_REASON)                                                                                      \
    X(2, EMI_REJ_INVALID_PV)                                                                                           \
    X(3, EMI_REJ_CLIENT_NOT_REGISTERED)                                                                                \
    X(4, EMI_REJ_ILLEGAL_VLAN_ID)                                                                                      \
    X(5, EMI_REJ_UNKNOWN_PORT_NAME)                                                                                    \
    X(6, EMI_REJ_MAX_NUM_ENDPOINTS_REACHED)

VORN_NAMED_ENUM(emi_reject_reason, EMI_REJECT_REASONS, emi_rej_reason_to_string, "UNKNOWN_REJECT_REASON");

struct emi_get_capability_cfm {
    client_header header;
    be32 num_caps;
    be32 capability[];
};
static_assert(sizeof(emi_get_capability_cfm) == 16);
static_assert(offsetof(emi_get_capability_cfm, num_caps) == 12);
static_assert(offsetof(emi_get_capability_cfm, capability) == 16);

// An endpoint, and an access-control rule of a link: one and the same record. Whoever builds it fills it in network
// byte order; the client copies it as it is.
struct EmiEndpoint {
    char ifName[64];
    mac_address mac;
    uint8_t padding0[2];
    be32 epType; // always 1
    be32 vlanId;
    uint8_t reserved[12];
    be32 farEnd; // 1: a far-end MAC, 0: a near-end MAC
    uint8_t flag;
    uint8_t padding1[3];
};
static_assert(sizeof(EmiEndpoint) == 100);
static_assert(alignof(EmiEndpoint) == 4);
static_assert(offsetof(EmiEndpoint, ifName) == 0);
static_assert(offsetof(EmiEndpoint, mac) == 64);
static_assert(offsetof(EmiEndpoint, epType) == 72);
static_assert(offsetof(EmiEndpoint, vlanId) == 76);
static_assert(offsetof(EmiEndpoint, reserved) == 80);
static_assert(offsetof(EmiEndpoint, farEnd) == 92);
static_assert(offsetof(EmiEndpoint, flag) == 96);

// Add and remove.
struct emi_endpoint_req {
    client_header header;
    be32 num_of_eps;
    EmiEndpoint endpoints[];
};
static_assert(sizeof(emi_endpoint_req) == 16);
static_assert(offsetof(emi_endpoint_req, num_of_eps) == 12);
static_assert(offsetof(emi_endpoint_req, endpoints) == 16);
