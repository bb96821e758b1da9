// AUTOMATIONAGENTSI, the protocol of the automation agent: a transport path per link, with latency reports.
#pragma once

#include "client_messages.hpp"
#include "iemli/iemli_messages.hpp"

// As the name service knows it.
inline constexpr const char *AASI_SERVICE_NAME = "automationagentsi";
inline constexpr const char *AASI_SERVICE_SCOPE = "tn";
inline constexpr uint32_t AASI_PROPOSED_CONNECTION_REF = 500;
inline constexpr uint32_t AASI_LATENCY_REQ = 30;
// In a configuration update: the service whose path list the agent wants again.
inline constexpr uint32_t AASI_SERVICE_VORN_PATHS = 1;
inline constexpr size_t AASI_PORT_NAME_LEN = 32;

// Numbers and names.
#define AASI_MESSAGES(X)                                                                                               \
    X(0x1A00440, AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REQ)                                                       \
    X(0x1A00443, AUTOMATIONAGENTSI_VORN_PATH_CREATE_REQ)                                                               \
    X(0x1A00444, AUTOMATIONAGENTSI_VORN_PATH_UPDATE_REQ)                                                               \
    X(0x1A00445, AUTOMATIONAGENTSI_VORN_PATH_DELETE_REQ)                                                               \
    X(0x1A00446, AUTOMATIONAGENTSI_VORN_PATH_INFO_IND)                                                                 \
    X(0x1A004C0, AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_CFM)                                                       \
    X(0x1A004C1, AUTOMATIONAGENTSI_CONNECTION_ESTABLISHMENT_REJ)                                                       \
    X(0x1A004C4, AUTOMATIONAGENTSI_VORN_PATH_CREATE_CFM)                                                               \
    X(0x1A004C5, AUTOMATIONAGENTSI_VORN_PATH_UPDATE_CFM)                                                               \
    X(0x1A004C6, AUTOMATIONAGENTSI_VORN_PATH_DELETE_CFM)                                                               \
    X(0x1A004C7, AUTOMATIONAGENTSI_CONFIG_UPDATE_IND)

VORN_NAMED_ENUM(aasi_msg_number, AASI_MESSAGES, aasi_msg_to_string, "<Unknown>");

#define AASI_REJECT_REASONS(X) X(0, AUTOMATIONAGENTSI_NO_COMMONLY_SUPPORTED_PROTOCOL_VERSION)

VORN_NAMED_ENUM(aasi_reject_reason, AASI_REJECT_REASONS, aasi_rej_reason_to_string, "UNKNOWN_REJECT_REASON");

// Create and update.
struct aasi_path_req {
    client_header header;
    be32 link_ref;
    be32 latency_req;
    char port_name[AASI_PORT_NAME_LEN];
    mac_address near_end_cpm_mac;
    mac_address remote_cpm_mac;
    be16 vlan_id;
    uint8_t unwritten[2];
    be32 number_of_app_links;
    IemliAppLink app_links[];
};
static_assert(sizeof(aasi_path_req) == 72);
static_assert(offsetof(aasi_path_req, link_ref) == 12);
static_assert(offsetof(aasi_path_req, latency_req) == 16);
static_assert(offsetof(aasi_path_req, port_name) == 20);
static_assert(offsetof(aasi_path_req, near_end_cpm_mac) == 52);
static_assert(offsetof(aasi_path_req, remote_cpm_mac) == 58);
static_assert(offsetof(aasi_path_req, vlan_id) == 64);
static_assert(offsetof(aasi_path_req, number_of_app_links) == 68);
static_assert(offsetof(aasi_path_req, app_links) == 72);

struct aasi_path_delete_req {
    client_header header;
    be32 link_ref;
    char port_name[AASI_PORT_NAME_LEN];
    mac_address near_end_cpm_mac;
    mac_address remote_cpm_mac;
    be16 vlan_id;
    uint8_t unwritten[2];
};
static_assert(sizeof(aasi_path_delete_req) == 64);
static_assert(offsetof(aasi_path_delete_req, link_ref) == 12);
static_assert(offsetof(aasi_path_delete_req, port_name) == 16);
static_assert(offsetof(aasi_path_delete_req, near_end_cpm_mac) == 48);
static_assert(offsetof(aasi_path_delete_req, remote_cpm_mac) == 54);
static_assert(offsetof(aasi_path_delete_req, vlan_id) == 60);

// Latencies in nanoseconds.
struct aasi_path_info_ind {
    client_header header;
    be32 link_ref;
    be32 min_latency;
    be32 max_latency;
    be32 avg_latency;
    be32 link_status;
};
static_assert(sizeof(aasi_path_info_ind) == 32);
static_assert(offsetof(aasi_path_info_ind, link_ref) == 12);
static_assert(offsetof(aasi_path_info_ind, min_latency) == 16);
static_assert(offsetof(aasi_path_info_ind, max_latency) == 20);
static_assert(offsetof(aasi_path_info_ind, avg_latency) == 24);
static_assert(offsetof(aasi_path_info_ind, link_status) == 28);

// The confirm of create, update and delete.
struct aasi_path_cfm {
    client_header header;
    be32 link_ref;
};
static_assert(sizeof(aasi_path_cfm) == 16);
static_assert(offsetof(aasi_path_cfm, link_ref) == 12);

struct aasi_config_update_ind {
    client_header header;
    be32 number_of_services;
    be32 service_id[];
};
static_assert(sizeof(aasi_config_update_ind) == 16);
static_assert(offsetof(aasi_config_update_ind, number_of_services) == 12);
static_assert(offsetof(aasi_config_update_ind, service_id) == 16);
