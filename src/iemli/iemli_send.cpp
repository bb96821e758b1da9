// Header, fields, send trace, send: the same four steps for every message. The texts of the traces are part of the
// protocol's description; some say "IML_LINK" where the message says "INTER_ME_LINK", and stay so.
#include "iemli_send.hpp"

#include <cstring>

#include "vorn_trace.hpp"

namespace
{

// A zeroed message with its header filled. Its owner sends it.
template <typename Message> Message *new_message(const iemli_peer &to, uint32_t msgno)
{
    auto *msg = reinterpret_cast<Message *>(itc_alloc(sizeof(Message), msgno));
    msg->header.procedure_ref = to.procedure_ref;
    msg->header.connection_ref = to.connection_ref;
    return msg;
}

void send(const iemli_peer &to, void *message)
{
    auto *msg = static_cast<itc_msg *>(message);
    itc_send(&msg, to.client_mbox, ITC_MY_MBOX);
}

// The trace of a message, before it is sent; the format prints the two references and what follows them.
#define TRACE_SEND(msgno, format, ...)                                                                                 \
    VORN_TRACE_SEND(msgno, to.client_mbox, format, to.procedure_ref, to.connection_ref __VA_OPT__(, ) __VA_ARGS__)

} // namespace

// A message that has a header alone.
#define SENDS_PLAIN(function, msgno, format)                                                                           \
    void function(const iemli_peer &to)                                                                                \
    {                                                                                                                  \
        auto *msg = new_message<iemli_plain_msg>(to, msgno);                                                           \
        TRACE_SEND(msgno, format);                                                                                     \
        send(to, msg);                                                                                                 \
    }

// A reject; the format prints the reason's name too.
#define SENDS_REJ(function, msgno, format)                                                                             \
    void function(const iemli_peer &to, uint32_t reason)                                                               \
    {                                                                                                                  \
        auto *rej = new_message<iemli_rej>(to, msgno);                                                                 \
        rej->reason = reason;                                                                                          \
        TRACE_SEND(msgno, format, iemli_rej_reason_to_string(reason));                                                 \
        send(to, rej);                                                                                                 \
    }

SENDS_PLAIN(send_term_cfm, IEMLI_TERM_SERVICE_CFM, "IEMLI_TERM_SERVICE_CFM: procedure_ref=0x%x, connection_ref=0x%x")
SENDS_PLAIN(send_update_cfm, IEMLI_UPDATE_INTER_ME_LINK_CFM,
            "IEMLI_UPDATE_IML_LINK_CFM: procedure_ref=0x%x, connection_ref=0x%x")
SENDS_PLAIN(send_delete_cfm, IEMLI_DELETE_INTER_ME_LINK_CFM,
            "IEMLI_DELETE_IML_LINK_CFM: procedure_ref=0x%x, connection_ref=0x%x")
SENDS_PLAIN(send_enable_rtt_cfm, IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM,
            "IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM: procedure_ref=0x%x, connection_ref=0x%x")
SENDS_PLAIN(send_disable_rtt_cfm, IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM,
            "IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM: procedure_ref=0x%x, connection_ref=0x%x")

SENDS_REJ(send_init_rej, IEMLI_INIT_SERVICE_REJ,
          "IEMLI_INIT_SERVICE_REJ: procedure_ref=0x%x, connection_ref=0x%x, reason=%s")
SENDS_REJ(send_get_local_supervision_mac_rej, IEMLI_GET_LOCAL_SUPERVISION_MAC_REJ,
          "IEMLI_GET_LOCAL_SUPERVISION_MAC_REJ: procedure_ref=0x%x, connection_ref=0x%x, reason=%s")
SENDS_REJ(send_create_rej, IEMLI_CREATE_INTER_ME_LINK_REJ,
          "IEMLI_CREATE_IML_LINK_REJ: procedure_ref=0x%x, connection_ref=0x%x, reason = %s")
SENDS_REJ(send_update_rej, IEMLI_UPDATE_INTER_ME_LINK_REJ,
          "IEMLI_UPDATE_IML_LINK_REJ: procedure_ref=0x%x, connection_ref=0x%x, reason = %s")
SENDS_REJ(send_enable_rtt_rej, IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ,
          "IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ: procedure_ref=0x%x, connection_ref=0x%x, reason=%s")

void send_init_cfm(const iemli_peer &to, uint32_t pv_selected)
{
    auto *cfm = new_message<iemli_init_service_cfm>(to, IEMLI_INIT_SERVICE_CFM);
    cfm->pv_selected = pv_selected;
    TRACE_SEND(IEMLI_INIT_SERVICE_CFM,
               "IEMLI_INIT_SERVICE_CFM: procedure_ref=0x%x, connection_ref=0x%x, pv_selected=0x%x", pv_selected);
    send(to, cfm);
}

void send_get_local_supervision_mac_cfm(const iemli_peer &to, uint8_t mp_id, const char *port_name,
                                        const mac_address &mac)
{
    auto *cfm = new_message<iemli_get_mac_cfm>(to, IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM);
    cfm->mpId = mp_id;
    memcpy(cfm->port_name, port_name, strnlen(port_name, sizeof cfm->port_name - 1));
    cfm->mac = mac;
    TRACE_SEND(IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM,
               "IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM: procedure_ref=0x%x, connection_ref=0x%x,  port_name=%s, "
               "%02X:%02X:%02X:%02X:%02X:%02X",
               cfm->port_name, MAC_ARGS(mac));
    send(to, cfm);
}

void send_create_cfm(const iemli_peer &to, uint32_t link_ref)
{
    auto *cfm = new_message<iemli_create_link_cfm>(to, IEMLI_CREATE_INTER_ME_LINK_CFM);
    cfm->link_ref = link_ref;
    TRACE_SEND(IEMLI_CREATE_INTER_ME_LINK_CFM,
               "IEMLI_CREATE_IML_LINK_CFM: procedure_ref=0x%x, connection_ref=0x%x, link_ref = %u", link_ref);
    send(to, cfm);
}

void send_link_status_ind(const iemli_peer &to, uint32_t link_ref, uint32_t status, uint32_t disabled_reason)
{
    auto *indication = new_message<iemli_link_status_ind>(to, IEMLI_INTER_ME_LINK_STATUS_IND);
    indication->link_ref = link_ref;
    indication->status = status;
    indication->disabled_reason = disabled_reason;
    TRACE_SEND(IEMLI_INTER_ME_LINK_STATUS_IND,
               "IEMLI_INTER_ME_LINK_STATUS_IND: procedure_ref=0x%x, connection_ref=0x%x, status=0x%x, "
               "disabled_reason=0x%x",
               status, disabled_reason);
    send(to, indication);
}

// The one message without a send trace: the measurement that causes it traces its figures already.
void send_link_rtt_ind(const iemli_peer &to, uint32_t link_ref, const rtt_stats &stats)
{
    auto *indication = new_message<iemli_link_rtt_ind>(to, IEMLI_INTER_ME_LINK_RTT_IND);
    indication->link_ref = link_ref;
    indication->stats = stats;
    send(to, indication);
}

iemli_peer iemli_sender_of(const itc_msg *msg)
{
    return {itc_sender(msg), iemli_header_of(msg)->procedure_ref, iemli_header_of(msg)->connection_ref};
}
