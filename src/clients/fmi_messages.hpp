// FMI, the protocol of the flow manager: access-control rules, default actions and policers on the node's ports.
//
// The answers end in a text or a name that a server may cut; a receiver needs only the fields in front of it.
#pragma once

#include "client_messages.hpp"

inline constexpr const char *FMI_SERVER_NAME = "flow-manager";
inline constexpr uint32_t FMI_PROPOSED_CONNECTION_REF = 400;

inline constexpr size_t FMI_PORT_NAME_LEN = 64;
inline constexpr size_t FMI_ERROR_TEXT_LEN = 128;

// Numbers and names.
#define FMI_MESSAGES(X)                                                                                                \
    X(0x1B0F50, FMI_CONN_ESTABLISH_REQ)                                                                                \
    X(0x1B0F51, FMI_CONN_ESTABLISH_CFM)                                                                                \
    X(0x1B0F52, FMI_CONN_ESTABLISH_REJ)                                                                                \
    X(0x1B0F53, FMI_GET_CAPABILITY_REQ)                                                                                \
    X(0x1B0F54, FMI_GET_CAPABILITIES_CFM)                                                                              \
    X(0x1B0F55, FMI_GET_CAPABILITIES_REJ)                                                                              \
    X(0x1B0F56, FMI_SERVER_UP)                                                                                         \
    X(0x1B0F57, FMI_SERVER_DOWN)                                                                                       \
    X(0x1B0F58, FMI_ACL_SET_DEFAULT_ACTION_REQ)                                                                        \
    X(0x1B0F59, FMI_ACL_SET_DEFAULT_ACTION_CFM)                                                                        \
    X(0x1B0F5A, FMI_ACL_SET_DEFAULT_ACTION_REJ)                                                                        \
    X(0x1B0F5B, FMI_ACL_APPEND_STATIC_RULE_REQ)                                                                        \
    X(0x1B0F5C, FMI_ACL_APPEND_STATIC_RULE_CFM)                                                                        \
    X(0x1B0F5D, FMI_ACL_APPEND_STATIC_RULE_REJ)                                                                        \
    X(0x1B0F5E, FMI_ACL_REMOVE_STATIC_RULE_REQ)                                                                        \
    X(0x1B0F5F, FMI_ACL_REMOVE_STATIC_RULE_CFM)                                                                        \
    X(0x1B0F60, FMI_ACL_REMOVE_STATIC_RULE_REJ)                                                                        \
    X(0x1B0F61, FMI_ACL_APPEND_DYNAMIC_RULE_REQ)                                                                       \
    X(0x1B0F62, FMI_ACL_APPEND_DYNAMIC_RULE_CFM)                                                                       \
    X(0x1B0F63, FMI_ACL_APPEND_DYNAMIC_RULE_REJ)                                                                       \
    X(0x1B0F64, FMI_ACL_REMOVE_DYNAMIC_RULE_REQ)                                                                       \
    X(0x1B0F65, FMI_ACL_REMOVE_DYNAMIC_RULE_CFM)                                                                       \
    X(0x1B0F66, FMI_ACL_REMOVE_DYNAMIC_RULE_REJ)                                                                       \
    X(0x1B0F67, FMI_ACL_CREATE_POLICER_REQ)                                                                            \
    X(0x1B0F68, FMI_ACL_CREATE_POLICER_CFM)                                                                            \
    X(0x1B0F69, FMI_ACL_CREATE_POLICER_REJ)

VORN_NAMED_ENUM(fmi_msg_number, FMI_MESSAGES, fmi_msg_to_string, "<Unknown>");

// The error codes of rejects.
#define FMI_REJECT_REASONS(X)                                                                                          \
    X(1, FMI_ERROR_UNSUCCESSFUL)                                                                                       \
    X(2, FMI_ERROR_ACL_NOT_SUPPORTED)                                                                                  \
    X(3, FMI_ERROR_ACL_UNKNOWN_PORT)                                                                                   \
    X(4, FMI_ERROR_ACL_UNKNOWN_ACTION)                                                                                 \
    X(5, FMI_ERROR_ACL_UNKNOWN_STATIC_RULE)                                                                            \
    X(6, FMI_ERROR_ACL_INVALID_ARGS)                                                                                   \
    X(7, FMI_ERROR_ACL_NOT_READY)                                                                                      \
    X(8, FMI_ERROR_MAX_NO_OF_CLIENTS)

VORN_NAMED_ENUM(fmi_reject_reason, FMI_REJECT_REASONS, fmi_rej_reason_to_string, "UNKNOWN_REJECT_REASON");

#define FMI_CAPABILITIES(X)                                                                                            \
    X(1, FMI_CAPABILITY_ACL_DEFAULT_ACTION)                                                                            \
    X(2, FMI_CAPABILITY_ACL_APPEND_STATIC_RULE)                                                                        \
    X(3, FMI_CAPABILITY_ACL_REMOVE_STATIC_RULE)                                                                        \
    X(4, FMI_CAPABILITY_ACL_APPEND_DYNAMIC_RULE)                                                                       \
    X(5, FMI_CAPABILITY_ACL_REMOVE_DYNAMIC_RULE)                                                                       \
    X(6, FMI_CAPABILITY_ACL_POLICER)

VORN_NAMED_ENUM(fmi_capability, FMI_CAPABILITIES, fmi_capability_to_string, "UNKNOWN_CAPABILITY");

struct fmi_capability_entry {
    be32 capability;
    uint8_t unread[4];
};
static_assert(sizeof(fmi_capability_entry) == 8);

struct fmi_get_capabilities_cfm {
    client_header header;
    be32 num_caps;
    fmi_capability_entry entries[];
};
static_assert(sizeof(fmi_get_capabilities_cfm) == 16);
static_assert(offsetof(fmi_get_capabilities_cfm, num_caps) == 12);
static_assert(offsetof(fmi_get_capabilities_cfm, entries) == 16);

// ---- Default action ----

struct fmi_set_default_action_req {
    client_header header;
    be32 type; // the action
    char port_name[FMI_PORT_NAME_LEN];
    uint8_t unwritten[4];
};
static_assert(sizeof(fmi_set_default_action_req) == 84);
static_assert(offsetof(fmi_set_default_action_req, type) == 12);
static_assert(offsetof(fmi_set_default_action_req, port_name) == 16);

struct fmi_set_default_action_cfm {
    client_header header;
    char port_name[FMI_PORT_NAME_LEN];
};
static_assert(sizeof(fmi_set_default_action_cfm) == 76);
static_assert(offsetof(fmi_set_default_action_cfm, port_name) == 12);

// A refused request that names the port: default action, dynamic rule appended, policer.
struct fmi_port_rej {
    client_header header;
    be32 error_code;
    char port_name[FMI_PORT_NAME_LEN];
    char error_text[FMI_ERROR_TEXT_LEN];
};
static_assert(sizeof(fmi_port_rej) == 208);
static_assert(offsetof(fmi_port_rej, error_code) == 12);
static_assert(offsetof(fmi_port_rej, port_name) == 16);
static_assert(offsetof(fmi_port_rej, error_text) == 80);

// ---- Static rules ----

struct fmi_append_static_rule_req {
    client_header header;
    be32 rule_type;
    char port_name[FMI_PORT_NAME_LEN];
};
static_assert(sizeof(fmi_append_static_rule_req) == 80);
static_assert(offsetof(fmi_append_static_rule_req, rule_type) == 12);
static_assert(offsetof(fmi_append_static_rule_req, port_name) == 16);

struct fmi_append_static_rule_cfm {
    client_header header;
    be32 rule_type;
    be32 id;
    char port_name[FMI_PORT_NAME_LEN];
};
static_assert(sizeof(fmi_append_static_rule_cfm) == 84);
static_assert(offsetof(fmi_append_static_rule_cfm, rule_type) == 12);
static_assert(offsetof(fmi_append_static_rule_cfm, id) == 16);
static_assert(offsetof(fmi_append_static_rule_cfm, port_name) == 20);

struct fmi_append_static_rule_rej {
    client_header header;
    be32 error_code;
    be32 rule_type;
    char error_text[FMI_ERROR_TEXT_LEN];
    char port_name[FMI_PORT_NAME_LEN];
};
static_assert(sizeof(fmi_append_static_rule_rej) == 212);
static_assert(offsetof(fmi_append_static_rule_rej, error_code) == 12);
static_assert(offsetof(fmi_append_static_rule_rej, rule_type) == 16);
static_assert(offsetof(fmi_append_static_rule_rej, error_text) == 20);
static_assert(offsetof(fmi_append_static_rule_rej, port_name) == 148);

// Removing a rule, static or dynamic, and its confirm.
struct fmi_rule_id_msg {
    client_header header;
    be32 id;
    char port_name[FMI_PORT_NAME_LEN];
};
static_assert(sizeof(fmi_rule_id_msg) == 80);
static_assert(offsetof(fmi_rule_id_msg, id) == 12);
static_assert(offsetof(fmi_rule_id_msg, port_name) == 16);

struct fmi_remove_static_rule_rej {
    client_header header;
    be32 error_code;
    be32 id;
    char error_text[FMI_ERROR_TEXT_LEN];
    char port_name[FMI_PORT_NAME_LEN];
};
static_assert(sizeof(fmi_remove_static_rule_rej) == 212);
static_assert(offsetof(fmi_remove_static_rule_rej, error_code) == 12);
static_assert(offsetof(fmi_remove_static_rule_rej, id) == 16);
static_assert(offsetof(fmi_remove_static_rule_rej, error_text) == 20);
static_assert(offsetof(fmi_remove_static_rule_rej, port_name) == 148);

// ---- Dynamic rules ----

enum fmi_rule_entry_type : uint32_t {
    FMI_ENTRY_DEST_MAC = 2,
    FMI_ENTRY_ETHER_TYPE = 8,
};

struct fmi_dynamic_rule_entry {
    be32 type; // fmi_rule_entry_type
    uint8_t unwritten0[12];
    mac_address mac;  // of FMI_ENTRY_DEST_MAC
    mac_address mask; // of FMI_ENTRY_DEST_MAC
    uint8_t unwritten1[4];
    be16 ether_type; // of FMI_ENTRY_ETHER_TYPE
    uint8_t unwritten2[2];
};
static_assert(sizeof(fmi_dynamic_rule_entry) == 36);
static_assert(offsetof(fmi_dynamic_rule_entry, mac) == 16);
static_assert(offsetof(fmi_dynamic_rule_entry, mask) == 22);
static_assert(offsetof(fmi_dynamic_rule_entry, ether_type) == 32);

// One entry is always there; with n > 1 the structure is followed by n - 1 more.
struct fmi_append_dynamic_rule_req {
    client_header header;
    char port_name[FMI_PORT_NAME_LEN];
    be32 one;  // always 1
    be32 zero; // always 0
    be32 policer_id;
    be32 no_of_entries;
    fmi_dynamic_rule_entry entries[1];
};
static_assert(sizeof(fmi_append_dynamic_rule_req) == 128);
static_assert(offsetof(fmi_append_dynamic_rule_req, port_name) == 12);
static_assert(offsetof(fmi_append_dynamic_rule_req, one) == 76);
static_assert(offsetof(fmi_append_dynamic_rule_req, zero) == 80);
static_assert(offsetof(fmi_append_dynamic_rule_req, policer_id) == 84);
static_assert(offsetof(fmi_append_dynamic_rule_req, no_of_entries) == 88);
static_assert(offsetof(fmi_append_dynamic_rule_req, entries) == 92);

// The entries as an array: the declaration holds one, the message as many as it counts.
inline fmi_dynamic_rule_entry *fmi_rule_entries(fmi_append_dynamic_rule_req *req)
{
    return reinterpret_cast<fmi_dynamic_rule_entry *>(reinterpret_cast<uint8_t *>(req) +
                                                      offsetof(fmi_append_dynamic_rule_req, entries));
}

inline const fmi_dynamic_rule_entry *fmi_rule_entries(const fmi_append_dynamic_rule_req *req)
{
    return reinterpret_cast<const fmi_dynamic_rule_entry *>(reinterpret_cast<const uint8_t *>(req) +
                                                            offsetof(fmi_append_dynamic_rule_req, entries));
}

struct fmi_append_dynamic_rule_cfm {
    client_header header;
    char port_name[FMI_PORT_NAME_LEN];
    be32 rule_id;
};
static_assert(sizeof(fmi_append_dynamic_rule_cfm) == 80);
static_assert(offsetof(fmi_append_dynamic_rule_cfm, port_name) == 12);
static_assert(offsetof(fmi_append_dynamic_rule_cfm, rule_id) == 76);

struct fmi_remove_dynamic_rule_rej {
    client_header header;
    be32 error_code;
    be32 rule_id;
    char port_name[FMI_PORT_NAME_LEN];
    char error_text[FMI_ERROR_TEXT_LEN];
};
static_assert(sizeof(fmi_remove_dynamic_rule_rej) == 212);
static_assert(offsetof(fmi_remove_dynamic_rule_rej, error_code) == 12);
static_assert(offsetof(fmi_remove_dynamic_rule_rej, rule_id) == 16);
static_assert(offsetof(fmi_remove_dynamic_rule_rej, port_name) == 20);
static_assert(offsetof(fmi_remove_dynamic_rule_rej, error_text) == 84);

// ---- Policers ----

struct fmi_create_policer_req {
    client_header header;
    be32 commitedRate;
    be32 commitedMaxBurstSize;
    be32 peakRate;
    be32 peakMaxBurstSize;
    be32 useCommitedRateOnly;
    char port_name[FMI_PORT_NAME_LEN];
};
static_assert(sizeof(fmi_create_policer_req) == 96);
static_assert(offsetof(fmi_create_policer_req, commitedRate) == 12);
static_assert(offsetof(fmi_create_policer_req, commitedMaxBurstSize) == 16);
static_assert(offsetof(fmi_create_policer_req, peakRate) == 20);
static_assert(offsetof(fmi_create_policer_req, peakMaxBurstSize) == 24);
static_assert(offsetof(fmi_create_policer_req, useCommitedRateOnly) == 28);
static_assert(offsetof(fmi_create_policer_req, port_name) == 32);

// The policer id, as a rule's: fmi_rule_id_msg.
using fmi_create_policer_cfm = fmi_rule_id_msg;
