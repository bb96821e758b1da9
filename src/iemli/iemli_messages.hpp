// IEMLI, the protocol that the daemon serves: every message, its layout and its texts. All fields are in host byte
// order. Clients share this header; a message is never read before its size was checked (iemli_message_min_size).
//
//   0        4               8                12
//   +--------+---------------+----------------+---------------------
//   | msgno  | procedure_ref | connection_ref | fields of the message
//   +--------+---------------+----------------+---------------------
#pragma once

#include <cstddef>
#include <cstdint>

#include "itc.h"
#include "vorn_types.hpp"

inline constexpr const char *IEMLI_SERVICE_NAME = "KAP_IEMLI_SERVICE_NAME";
inline constexpr uint32_t IEMLI_PROTOCOL_VERSION = 1;

// Numbers, names and smallest sizes in bytes; a number without a message has 0. Create and update hold one app link at
// the least, more of them come on top.
#define IEMLI_MESSAGES(X)                                                                                              \
    X(0x1B0E00, IEMLI_CLIENT_DOWN_IND, sizeof(iemli_plain_msg))                                                        \
    X(0x1B0E01, IEMLI_SERVER_UP_IND, 0)                                                                                \
    X(0x1B0E02, IEMLI_SERVER_DOWN_IND, 0)                                                                              \
    X(0x1B0E03, IEMLI_INIT_SERVICE_REQ, sizeof(iemli_init_service_req))                                                \
    X(0x1B0E04, IEMLI_INIT_SERVICE_CFM, sizeof(iemli_init_service_cfm))                                                \
    X(0x1B0E05, IEMLI_INIT_SERVICE_REJ, sizeof(iemli_rej))                                                             \
    X(0x1B0E06, IEMLI_TERM_SERVICE_REQ, sizeof(iemli_plain_msg))                                                       \
    X(0x1B0E07, IEMLI_TERM_SERVICE_CFM, sizeof(iemli_plain_msg))                                                       \
    X(0x1B0E08, IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ, IEMLI_GET_MAC_MIN_SIZE)                                           \
    X(0x1B0E09, IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM, sizeof(iemli_get_mac_cfm))                                        \
    X(0x1B0E0A, IEMLI_GET_LOCAL_SUPERVISION_MAC_REJ, sizeof(iemli_rej))                                                \
    X(0x1B0E0B, IEMLI_CREATE_INTER_ME_LINK_REQ, sizeof(iemli_create_link_req))                                         \
    X(0x1B0E0C, IEMLI_CREATE_INTER_ME_LINK_CFM, sizeof(iemli_create_link_cfm))                                         \
    X(0x1B0E0D, IEMLI_CREATE_INTER_ME_LINK_REJ, sizeof(iemli_rej))                                                     \
    X(0x1B0E0E, IEMLI_UPDATE_INTER_ME_LINK_REQ, sizeof(iemli_update_link_req))                                         \
    X(0x1B0E0F, IEMLI_UPDATE_INTER_ME_LINK_CFM, sizeof(iemli_plain_msg))                                               \
    X(0x1B0E10, IEMLI_UPDATE_INTER_ME_LINK_REJ, sizeof(iemli_rej))                                                     \
    X(0x1B0E11, IEMLI_DELETE_INTER_ME_LINK_REQ, sizeof(iemli_link_ref_req))                                            \
    X(0x1B0E12, IEMLI_DELETE_INTER_ME_LINK_CFM, sizeof(iemli_plain_msg))                                               \
    X(0x1B0E13, IEMLI_INTER_ME_LINK_STATUS_IND, sizeof(iemli_link_status_ind))                                         \
    X(0x1B0E14, IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ, sizeof(iemli_enable_rtt_req))                                      \
    X(0x1B0E15, IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM, sizeof(iemli_plain_msg))                                           \
    X(0x1B0E16, IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ, sizeof(iemli_rej))                                                 \
    X(0x1B0E17, IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ, sizeof(iemli_link_ref_req))                                       \
    X(0x1B0E18, IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM, sizeof(iemli_plain_msg))                                          \
    X(0x1B0E19, IEMLI_INTER_ME_LINK_RTT_IND, sizeof(iemli_link_rtt_ind))

VORN_NAMED_ENUM(iemli_msg_number, IEMLI_MESSAGES, iemli_msg_to_string, "<Unknown>");

// Reject reasons: value, name. 10 is unassigned; 5 and 16 are never produced by this daemon.
#define IEMLI_REJECT_REASONS(X)                                                                                        \
    X(0, IEMLI_REJ_SERVICE_NOT_INITIATED)                                                                              \
    X(1, IEMLI_REJ_SERVICE_INITIATED)                                                                                  \
    X(2, IEMLI_REJ_SERVICE_INVALID_PV)                                                                                 \
    X(3, IEMLI_REJ_UNKNOWN_LINK_REF)                                                                                   \
    X(4, IEMLI_REJ_UNKNOWN_PORT_NAME)                                                                                  \
    X(5, IEMLI_REJ_PORT_ALREADY_USED)                                                                                  \
    X(6, IEMLI_REJ_LINK_ALREADY_CREATED)                                                                               \
    X(7, IEMLI_REJ_INVALID_VLAN_ID)                                                                                    \
    X(8, IEMLI_REJ_LINK_DATA_NO_CHANGE)                                                                                \
    X(9, IEMLI_REJ_MP_ID_NOT_READY)                                                                                    \
    X(11, IEMLI_REJ_REMOTE_CPM_MAC_CONFLICT)                                                                           \
    X(12, IEMLI_REJ_SAME_CPM_APP_MAC)                                                                                  \
    X(13, IEMLI_REJ_SAME_SRC_DST_APP_MAC)                                                                              \
    X(14, IEMLI_REJ_APP_LINK_ALREADY_USED)                                                                             \
    X(15, IEMLI_REJ_DUPLICATE_APP_LINKS)                                                                               \
    X(16, IEMLI_REJ_PORT_NOT_RESERVED)                                                                                 \
    X(17, IEMLI_REJ_INVALID_RTT_CONFIG_PARAM)                                                                          \
    X(18, IEMLI_REJ_RTT_ALREADY_ENABLED)                                                                               \
    X(99, IEMLI_REJ_OTHER_REASON)

VORN_NAMED_ENUM(iemli_reject_reason, IEMLI_REJECT_REASONS, iemli_rej_reason_to_string, "UNKNOWN REJECT REASON");

// How a publication ended.
#define IEMLI_RETURN_CODES(X)                                                                                          \
    X(0, IEMLI_RET_OK)                                                                                                 \
    X(1, IEMLI_RET_ERR_NGNS)                                                                                           \
    X(2, IEMLI_RET_ERR_ITC)

VORN_NAMED_ENUM(iemli_return_code, IEMLI_RETURN_CODES, iemli_ret_to_string, "<Unknown>");

// Link status and the reasons for a disabled link, as status indications carry them.
enum iml_link_status : uint32_t {
    IML_LINK_DISABLED = 0,
    IML_LINK_ENABLED = 1,
};

// Value, name, the reason in a word or two, the status of a link that is disabled for it.
#define IML_LINK_DISABLED_REASONS(X)                                                                                   \
    X(2, IML_LINK_REASON_DOWN, "down", "disabled with reason down")                                                    \
    X(3, IML_LINK_REASON_LOCKED, "locked", "disabled with reason locked")                                              \
    X(4, IML_LINK_REASON_NO_CONNECTIVITY, "no connectivity", "disabled with reason no connectivity")

enum iml_link_disabled_reason : uint32_t {
    IML_LINK_DISABLED_REASONS(VORN_ENUMERATOR)
};

// What a reason that is none of them is called is the caller's business.
inline const char *iml_link_reason_text(uint32_t disabled_reason, const char *unknown)
{
#define VORN_REASON_OF(value, name, reason, status)                                                                    \
    case value:                                                                                                        \
        return reason;
    switch (disabled_reason) {
        IML_LINK_DISABLED_REASONS(VORN_REASON_OF)
    }
    return unknown;
#undef VORN_REASON_OF
}

inline const char *iml_link_disabled_text(uint32_t disabled_reason, const char *unknown)
{
#define VORN_STATUS_OF(value, name, reason, status)                                                                    \
    case value:                                                                                                        \
        return status;
    switch (disabled_reason) {
        IML_LINK_DISABLED_REASONS(VORN_STATUS_OF)
    }
    return unknown;
#undef VORN_STATUS_OF
}

// The reason counts only while disabled.
inline const char *iml_link_status_text(uint32_t status, uint32_t disabled_reason)
{
    switch (status) {
    case IML_LINK_ENABLED:
        return "enabled";
    case IML_LINK_DISABLED:
        return iml_link_disabled_text(disabled_reason, "disabled with invalid reason");
    }
    return "unknown";
}

struct iemli_header {
    uint32_t msgno;
    uint32_t procedure_ref;
    uint32_t connection_ref;
};
static_assert(sizeof(iemli_header) == 12);
static_assert(offsetof(iemli_header, procedure_ref) == 4);
static_assert(offsetof(iemli_header, connection_ref) == 8);

// A received message as its layout; that it is as long was checked before.
template <typename Layout> const Layout *iemli_message(const itc_msg *msg)
{
    return reinterpret_cast<const Layout *>(msg);
}

inline const iemli_header *iemli_header_of(const itc_msg *msg) { return iemli_message<iemli_header>(msg); }

// Messages without further fields: client down, term request and confirm, the confirms of update, delete and RTT.
struct iemli_plain_msg {
    iemli_header header;
};
static_assert(sizeof(iemli_plain_msg) == 12);

struct iemli_init_service_req {
    iemli_header header;
    uint32_t pv_1;
    uint32_t pv_2;
    uint32_t pv_3;
};
static_assert(sizeof(iemli_init_service_req) == 24);
static_assert(offsetof(iemli_init_service_req, pv_1) == 12);
static_assert(offsetof(iemli_init_service_req, pv_2) == 16);
static_assert(offsetof(iemli_init_service_req, pv_3) == 20);

struct iemli_init_service_cfm {
    iemli_header header;
    uint32_t pv_selected;
};
static_assert(sizeof(iemli_init_service_cfm) == 16);
static_assert(offsetof(iemli_init_service_cfm, pv_selected) == 12);

// Every reject.
struct iemli_rej {
    iemli_header header;
    uint32_t reason;
};
static_assert(sizeof(iemli_rej) == 16);
static_assert(offsetof(iemli_rej, reason) == 12);

struct IemliAppLink {
    mac_address nearEndAppMac;
    mac_address farEndAppMac;
};
static_assert(sizeof(IemliAppLink) == 12);
static_assert(offsetof(IemliAppLink, farEndAppMac) == 6);

// The link parameters, as they stand in a create request from offset 12 on and as a link keeps them. One app link slot
// is always there; with n > 1 the structure is followed by n - 1 more (iemli_link_data_size).
struct IemliLinkData {
    uint8_t nearEndMpId;
    mac_address farEndCpmMac;
    char imlPortName[17];
    uint16_t vlanId;
    uint8_t padding[2];
    uint32_t numberOfAppLinks;
    IemliAppLink appLinks[1];
};
static_assert(sizeof(IemliLinkData) == 44);
static_assert(alignof(IemliLinkData) == 4);
static_assert(offsetof(IemliLinkData, nearEndMpId) == 12 - 12);
static_assert(offsetof(IemliLinkData, farEndCpmMac) == 13 - 12);
static_assert(offsetof(IemliLinkData, imlPortName) == 19 - 12);
static_assert(offsetof(IemliLinkData, vlanId) == 36 - 12);
static_assert(offsetof(IemliLinkData, numberOfAppLinks) == 40 - 12);
static_assert(offsetof(IemliLinkData, appLinks) == 44 - 12);

// The n app links of a link, as an array: the declaration holds one, the allocation as many as are counted.
inline const IemliAppLink *iemli_app_links(const IemliLinkData *data)
{
    return reinterpret_cast<const IemliAppLink *>(reinterpret_cast<const uint8_t *>(data) +
                                                  offsetof(IemliLinkData, appLinks));
}

inline IemliAppLink *iemli_app_links(IemliLinkData *data)
{
    return reinterpret_cast<IemliAppLink *>(reinterpret_cast<uint8_t *>(data) + offsetof(IemliLinkData, appLinks));
}

// Bytes of link data with n app links, one slot at the least. 64 bits: n comes from a message.
inline uint64_t iemli_link_data_size(uint32_t n) { return 32 + 12 * static_cast<uint64_t>(n > 1 ? n : 1); }

struct iemli_create_link_req {
    iemli_header header;
    IemliLinkData link;
};
static_assert(sizeof(iemli_create_link_req) == 56);
static_assert(offsetof(iemli_create_link_req, link) == 12);

struct iemli_create_link_cfm {
    iemli_header header;
    uint32_t link_ref;
};
static_assert(sizeof(iemli_create_link_cfm) == 16);
static_assert(offsetof(iemli_create_link_cfm, link_ref) == 12);

struct iemli_update_link_req {
    iemli_header header;
    uint32_t link_ref;
    uint32_t numberOfAppLinks;
    IemliAppLink appLinks[1];
};
static_assert(sizeof(iemli_update_link_req) == 32);
static_assert(offsetof(iemli_update_link_req, link_ref) == 12);
static_assert(offsetof(iemli_update_link_req, numberOfAppLinks) == 16);
static_assert(offsetof(iemli_update_link_req, appLinks) == 20);

inline const IemliAppLink *iemli_app_links(const iemli_update_link_req *request)
{
    return reinterpret_cast<const IemliAppLink *>(reinterpret_cast<const uint8_t *>(request) +
                                                  offsetof(iemli_update_link_req, appLinks));
}

// Delete and disable RTT.
struct iemli_link_ref_req {
    iemli_header header;
    uint32_t link_ref;
};
static_assert(sizeof(iemli_link_ref_req) == 16);
static_assert(offsetof(iemli_link_ref_req, link_ref) == 12);

struct iemli_get_mac_req {
    iemli_header header;
    uint8_t mpId;
    char imlPortName[17]; // zero-terminated; a sender may send less than the whole field, or pad it to 32 bytes
    uint8_t padding[2];
};
static_assert(sizeof(iemli_get_mac_req) == 32);
static_assert(offsetof(iemli_get_mac_req, mpId) == 12);
static_assert(offsetof(iemli_get_mac_req, imlPortName) == 13);
// Room for at least one character of the port name, if only the zero.
inline constexpr size_t IEMLI_GET_MAC_MIN_SIZE = offsetof(iemli_get_mac_req, imlPortName) + 1;

struct iemli_get_mac_cfm {
    iemli_header header;
    uint8_t mpId;
    char port_name[16];
    mac_address mac;
    uint8_t padding;
};
static_assert(sizeof(iemli_get_mac_cfm) == 36);
static_assert(offsetof(iemli_get_mac_cfm, mpId) == 12);
static_assert(offsetof(iemli_get_mac_cfm, port_name) == 13);
static_assert(offsetof(iemli_get_mac_cfm, mac) == 29);

// The settings of an RTT measurement, as an enable request carries them and a link keeps them.
struct rtt_settings {
    uint16_t batchSize;
    uint16_t measureInterval;
    uint16_t frameSize;
};
static_assert(sizeof(rtt_settings) == 6);
static_assert(offsetof(rtt_settings, measureInterval) == 2);
static_assert(offsetof(rtt_settings, frameSize) == 4);

struct iemli_enable_rtt_req {
    iemli_header header;
    uint32_t link_ref;
    rtt_settings settings;
    uint8_t padding[2];
};
static_assert(sizeof(iemli_enable_rtt_req) == 24);
static_assert(offsetof(iemli_enable_rtt_req, link_ref) == 12);
static_assert(offsetof(iemli_enable_rtt_req, settings.batchSize) == 16);
static_assert(offsetof(iemli_enable_rtt_req, settings.measureInterval) == 18);
static_assert(offsetof(iemli_enable_rtt_req, settings.frameSize) == 20);

struct iemli_link_status_ind {
    iemli_header header;
    uint32_t link_ref;
    uint32_t status;
    uint32_t disabled_reason;
};
static_assert(sizeof(iemli_link_status_ind) == 24);
static_assert(offsetof(iemli_link_status_ind, link_ref) == 12);
static_assert(offsetof(iemli_link_status_ind, status) == 16);
static_assert(offsetof(iemli_link_status_ind, disabled_reason) == 20);

// The result of an RTT measurement.
struct rtt_stats {
    uint32_t min_sec;
    uint32_t min_nsec;
    uint32_t avg_sec;
    uint32_t avg_nsec;
    uint32_t max_sec;
    uint32_t max_nsec;
    uint8_t rtt_validity; // 1: at least one sample was valid; 0: the rest is 0
    uint8_t padding[3];
};
static_assert(sizeof(rtt_stats) == 28);
static_assert(offsetof(rtt_stats, min_nsec) == 4);
static_assert(offsetof(rtt_stats, avg_sec) == 8);
static_assert(offsetof(rtt_stats, avg_nsec) == 12);
static_assert(offsetof(rtt_stats, max_sec) == 16);
static_assert(offsetof(rtt_stats, max_nsec) == 20);
static_assert(offsetof(rtt_stats, rtt_validity) == 24);

struct iemli_link_rtt_ind {
    iemli_header header;
    uint32_t link_ref;
    rtt_stats stats;
};
static_assert(sizeof(iemli_link_rtt_ind) == 44);
static_assert(offsetof(iemli_link_rtt_ind, link_ref) == 12);
static_assert(offsetof(iemli_link_rtt_ind, stats.min_sec) == 16);
static_assert(offsetof(iemli_link_rtt_ind, stats.min_nsec) == 20);
static_assert(offsetof(iemli_link_rtt_ind, stats.avg_sec) == 24);
static_assert(offsetof(iemli_link_rtt_ind, stats.avg_nsec) == 28);
static_assert(offsetof(iemli_link_rtt_ind, stats.max_sec) == 32);
static_assert(offsetof(iemli_link_rtt_ind, stats.max_nsec) == 36);
static_assert(offsetof(iemli_link_rtt_ind, stats.rtt_validity) == 40);

#define VORN_SIZE_OF(value, name, size)                                                                                \
    case value:                                                                                                        \
        return size;
inline uint64_t iemli_fixed_size(uint32_t msgno)
{
    switch (msgno) {
        IEMLI_MESSAGES(VORN_SIZE_OF)
    }
    return 0;
}

// What the app links behind the first one add, in 64 bits: the count comes from the message.
inline uint64_t iemli_size_of_further_app_links(uint32_t count)
{
    return count > 1 ? (static_cast<uint64_t>(count) - 1) * sizeof(IemliAppLink) : 0;
}

// The smallest size in bytes that the message's number, and the count it carries, ask for. Reads the count only where
// the message reaches that far. Also what a copy of the message needs. 0 for a number that has no message.
inline uint64_t iemli_message_min_size(const itc_msg *msg)
{
    const uint64_t size = iemli_fixed_size(msg->msgno);
    if (itc_size(msg) < size) {
        return size;
    }
    if (msg->msgno == IEMLI_CREATE_INTER_ME_LINK_REQ) {
        const auto *request = iemli_message<iemli_create_link_req>(msg);
        return size + iemli_size_of_further_app_links(request->link.numberOfAppLinks);
    }
    if (msg->msgno == IEMLI_UPDATE_INTER_ME_LINK_REQ) {
        const auto *request = iemli_message<iemli_update_link_req>(msg);
        return size + iemli_size_of_further_app_links(request->numberOfAppLinks);
    }
    return size;
}
