// The texts and the sizes of the IEMLI messages. Decides nothing and sends nothing; the layouts stand in the header.
#include "iemli_messages.hpp"

namespace
{

// Get-MAC needs room for at least one character of its port name, if only the zero.
constexpr uint8_t GET_MAC_MIN_SIZE = offsetof(iemli_get_mac_req, imlPortName) + 1;

// By number from IEMLI_MSG_BASE on. Create and update hold one app link at the least; more of them come on top.
constexpr uint8_t smallest_size[] = {
    sizeof(iemli_plain_msg),        // IEMLI_CLIENT_DOWN_IND
    0,                              // IEMLI_SERVER_UP_IND, a number without a message
    0,                              // IEMLI_SERVER_DOWN_IND, likewise
    sizeof(iemli_init_service_req), // IEMLI_INIT_SERVICE_REQ
    sizeof(iemli_init_service_cfm), // IEMLI_INIT_SERVICE_CFM
    sizeof(iemli_rej),              // IEMLI_INIT_SERVICE_REJ
    sizeof(iemli_plain_msg),        // IEMLI_TERM_SERVICE_REQ
    sizeof(iemli_plain_msg),        // IEMLI_TERM_SERVICE_CFM
    GET_MAC_MIN_SIZE,               // IEMLI_GET_LOCAL_SUPERVISION_MAC_REQ
    sizeof(iemli_get_mac_cfm),      // IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM
    sizeof(iemli_rej),              // IEMLI_GET_LOCAL_SUPERVISION_MAC_REJ
    sizeof(iemli_create_link_req),  // IEMLI_CREATE_INTER_ME_LINK_REQ
    sizeof(iemli_create_link_cfm),  // IEMLI_CREATE_INTER_ME_LINK_CFM
    sizeof(iemli_rej),              // IEMLI_CREATE_INTER_ME_LINK_REJ
    sizeof(iemli_update_link_req),  // IEMLI_UPDATE_INTER_ME_LINK_REQ
    sizeof(iemli_plain_msg),        // IEMLI_UPDATE_INTER_ME_LINK_CFM
    sizeof(iemli_rej),              // IEMLI_UPDATE_INTER_ME_LINK_REJ
    sizeof(iemli_link_ref_req),     // IEMLI_DELETE_INTER_ME_LINK_REQ
    sizeof(iemli_plain_msg),        // IEMLI_DELETE_INTER_ME_LINK_CFM
    sizeof(iemli_link_status_ind),  // IEMLI_INTER_ME_LINK_STATUS_IND
    sizeof(iemli_enable_rtt_req),   // IEMLI_ENABLE_INTER_ME_LINK_RTT_REQ
    sizeof(iemli_plain_msg),        // IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM
    sizeof(iemli_rej),              // IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ
    sizeof(iemli_link_ref_req),     // IEMLI_DISABLE_INTER_ME_LINK_RTT_REQ
    sizeof(iemli_plain_msg),        // IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM
    sizeof(iemli_link_rtt_ind),     // IEMLI_INTER_ME_LINK_RTT_IND
};
static_assert(sizeof smallest_size == iemli_detail::count);

constexpr const char *message_names[] = {
#define X(name) #name,
    IEMLI_MESSAGES(X)
#undef X
};

// What the app links behind the first one add, in 64 bits: the count comes from the message.
uint64_t size_of_further_app_links(uint32_t count)
{
    return count > 1 ? (static_cast<uint64_t>(count) - 1) * sizeof(IemliAppLink) : 0;
}

} // namespace

uint64_t iemli_message_min_size(const itc_msg *msg)
{
    const uint32_t index = msg->msgno - IEMLI_MSG_BASE;
    if (index >= iemli_detail::count) {
        return 0;
    }
    const uint64_t size = smallest_size[index];
    if (itc_size(msg) < size) {
        return size;
    }
    if (msg->msgno == IEMLI_CREATE_INTER_ME_LINK_REQ) {
        const auto *request = reinterpret_cast<const iemli_create_link_req *>(msg);
        return size + size_of_further_app_links(request->link.numberOfAppLinks);
    }
    if (msg->msgno == IEMLI_UPDATE_INTER_ME_LINK_REQ) {
        const auto *request = reinterpret_cast<const iemli_update_link_req *>(msg);
        return size + size_of_further_app_links(request->numberOfAppLinks);
    }
    return size;
}

const char *iemli_msg_to_string(uint32_t msgno)
{
    const uint32_t index = msgno - IEMLI_MSG_BASE;
    return index < iemli_detail::count ? message_names[index] : "<Unknown>";
}

const char *iemli_rej_reason_to_string(uint32_t reason)
{
    switch (reason) {
#define X(value, name)                                                                                                 \
    case name:                                                                                                         \
        return #name;
        IEMLI_REJECT_REASONS(X)
#undef X
    default:
        return "UNKNOWN REJECT REASON";
    }
}

const char *iemli_ret_to_string(uint32_t code)
{
    switch (code) {
    case IEMLI_RET_OK:
        return "IEMLI_RET_OK";
    case IEMLI_RET_ERR_NGNS:
        return "IEMLI_RET_ERR_NGNS";
    case IEMLI_RET_ERR_ITC:
        return "IEMLI_RET_ERR_ITC";
    default:
        return "<Unknown>";
    }
}

const char *iml_link_status_text(uint32_t status, uint32_t disabled_reason)
{
    if (status == IML_LINK_ENABLED) {
        return "enabled";
    }
    if (status != IML_LINK_DISABLED) {
        return "unknown";
    }
    switch (disabled_reason) {
    case IML_LINK_REASON_DOWN:
        return "disabled with reason down";
    case IML_LINK_REASON_LOCKED:
        return "disabled with reason locked";
    case IML_LINK_REASON_NO_CONNECTIVITY:
        return "disabled with reason no connectivity";
    default:
        return "disabled with invalid reason";
    }
}
