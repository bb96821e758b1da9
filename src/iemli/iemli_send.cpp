// Header, fields, send trace, send: the same four steps for every message. The texts of the traces are part of the
// protocol's description; some say "IML_LINK" where the message says "INTER_ME_LINK", and stay so.
#include "iemli_send.hpp"

#include <cstring>

#include "vorn_trace.hpp"

namespace
{

// A zeroed message with its header filled. Its owner sends it.
itc_msg *new_message(const iemli_peer &to, uint32_t msgno, size_t size)
{
    itc_msg *msg = itc_alloc(size, msgno);
    auto *header = reinterpret_cast<iemli_header *>(msg);
    header->procedure_ref = to.procedure_ref;
    header->connection_ref = to.connection_ref;
    return msg;
}

// `format` prints the two references.
void send_plain(const iemli_peer &to, uint32_t msgno, const char *format)
{
    itc_msg *msg = new_message(to, msgno, sizeof(iemli_plain_msg));
    VORN_TRACE_SEND(msgno, to.client_mbox, format, to.procedure_ref, to.connection_ref);
    itc_send(&msg, to.client_mbox, ITC_MY_MBOX);
}

// `format` prints the two references and the reason's name.
void send_rej(const iemli_peer &to, uint32_t msgno, uint32_t reason, const char *format)
{
    itc_msg *msg = new_message(to, msgno, sizeof(iemli_rej));
    reinterpret_cast<iemli_rej *>(msg)->reason = reason;
    VORN_TRACE_SEND(msgno, to.client_mbox, format, to.procedure_ref, to.connection_ref,
                    iemli_rej_reason_to_string(reason));
    itc_send(&msg, to.client_mbox, ITC_MY_MBOX);
}

} // namespace

iemli_peer iemli_sender_of(const itc_msg *msg)
{
    return {itc_sender(msg), iemli_header_of(msg)->procedure_ref, iemli_header_of(msg)->connection_ref};
}

void send_init_cfm(const iemli_peer &to, uint32_t pv_selected)
{
    itc_msg *msg = new_message(to, IEMLI_INIT_SERVICE_CFM, sizeof(iemli_init_service_cfm));
    reinterpret_cast<iemli_init_service_cfm *>(msg)->pv_selected = pv_selected;
    VORN_TRACE_SEND(IEMLI_INIT_SERVICE_CFM, to.client_mbox,
                    "IEMLI_INIT_SERVICE_CFM: procedure_ref=0x%x, connection_ref=0x%x, pv_selected=0x%x",
                    to.procedure_ref, to.connection_ref, pv_selected);
    itc_send(&msg, to.client_mbox, ITC_MY_MBOX);
}

void send_init_rej(const iemli_peer &to, uint32_t reason)
{
    send_rej(to, IEMLI_INIT_SERVICE_REJ, reason,
             "IEMLI_INIT_SERVICE_REJ: procedure_ref=0x%x, connection_ref=0x%x, reason=%s");
}

void send_term_cfm(const iemli_peer &to)
{
    send_plain(to, IEMLI_TERM_SERVICE_CFM, "IEMLI_TERM_SERVICE_CFM: procedure_ref=0x%x, connection_ref=0x%x");
}

void send_get_local_supervision_mac_cfm(const iemli_peer &to, uint8_t mp_id, const char *port_name,
                                        const mac_address &mac)
{
    itc_msg *msg = new_message(to, IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM, sizeof(iemli_get_mac_cfm));
    auto *cfm = reinterpret_cast<iemli_get_mac_cfm *>(msg);
    cfm->mpId = mp_id;
    memcpy(cfm->port_name, port_name, strnlen(port_name, sizeof cfm->port_name - 1));
    cfm->mac = mac;
    VORN_TRACE_SEND(IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM, to.client_mbox,
                    "IEMLI_GET_LOCAL_SUPERVISION_MAC_CFM: procedure_ref=0x%x, connection_ref=0x%x,  port_name=%s, "
                    "%02X:%02X:%02X:%02X:%02X:%02X",
                    to.procedure_ref, to.connection_ref, cfm->port_name, MAC_ARGS(mac));
    itc_send(&msg, to.client_mbox, ITC_MY_MBOX);
}

void send_get_local_supervision_mac_rej(const iemli_peer &to, uint32_t reason)
{
    send_rej(to, IEMLI_GET_LOCAL_SUPERVISION_MAC_REJ, reason,
             "IEMLI_GET_LOCAL_SUPERVISION_MAC_REJ: procedure_ref=0x%x, connection_ref=0x%x, reason=%s");
}

void send_create_cfm(const iemli_peer &to, uint32_t link_ref)
{
    itc_msg *msg = new_message(to, IEMLI_CREATE_INTER_ME_LINK_CFM, sizeof(iemli_create_link_cfm));
    reinterpret_cast<iemli_create_link_cfm *>(msg)->link_ref = link_ref;
    VORN_TRACE_SEND(IEMLI_CREATE_INTER_ME_LINK_CFM, to.client_mbox,
                    "IEMLI_CREATE_IML_LINK_CFM: procedure_ref=0x%x, connection_ref=0x%x, link_ref = %u",
                    to.procedure_ref, to.connection_ref, link_ref);
    itc_send(&msg, to.client_mbox, ITC_MY_MBOX);
}

void send_create_rej(const iemli_peer &to, uint32_t reason)
{
    send_rej(to, IEMLI_CREATE_INTER_ME_LINK_REJ, reason,
             "IEMLI_CREATE_IML_LINK_REJ: procedure_ref=0x%x, connection_ref=0x%x, reason = %s");
}

void send_update_cfm(const iemli_peer &to)
{
    send_plain(to, IEMLI_UPDATE_INTER_ME_LINK_CFM,
               "IEMLI_UPDATE_IML_LINK_CFM: procedure_ref=0x%x, connection_ref=0x%x");
}

void send_update_rej(const iemli_peer &to, uint32_t reason)
{
    send_rej(to, IEMLI_UPDATE_INTER_ME_LINK_REJ, reason,
             "IEMLI_UPDATE_IML_LINK_REJ: procedure_ref=0x%x, connection_ref=0x%x, reason = %s");
}

void send_delete_cfm(const iemli_peer &to)
{
    send_plain(to, IEMLI_DELETE_INTER_ME_LINK_CFM,
               "IEMLI_DELETE_IML_LINK_CFM: procedure_ref=0x%x, connection_ref=0x%x");
}

void send_enable_rtt_cfm(const iemli_peer &to)
{
    send_plain(to, IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM,
               "IEMLI_ENABLE_INTER_ME_LINK_RTT_CFM: procedure_ref=0x%x, connection_ref=0x%x");
}

void send_enable_rtt_rej(const iemli_peer &to, uint32_t reason)
{
    send_rej(to, IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ, reason,
             "IEMLI_ENABLE_INTER_ME_LINK_RTT_REJ: procedure_ref=0x%x, connection_ref=0x%x, reason=%s");
}

void send_disable_rtt_cfm(const iemli_peer &to)
{
    send_plain(to, IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM,
               "IEMLI_DISABLE_INTER_ME_LINK_RTT_CFM: procedure_ref=0x%x, connection_ref=0x%x");
}

void send_link_status_ind(const iemli_peer &to, uint32_t link_ref, uint32_t status, uint32_t disabled_reason)
{
    itc_msg *msg = new_message(to, IEMLI_INTER_ME_LINK_STATUS_IND, sizeof(iemli_link_status_ind));
    auto *indication = reinterpret_cast<iemli_link_status_ind *>(msg);
    indication->link_ref = link_ref;
    indication->status = status;
    indication->disabled_reason = disabled_reason;
    VORN_TRACE_SEND(IEMLI_INTER_ME_LINK_STATUS_IND, to.client_mbox,
                    "IEMLI_INTER_ME_LINK_STATUS_IND: procedure_ref=0x%x, connection_ref=0x%x, status=0x%x, "
                    "disabled_reason=0x%x",
                    to.procedure_ref, to.connection_ref, status, disabled_reason);
    itc_send(&msg, to.client_mbox, ITC_MY_MBOX);
}

// The one message without a send trace: the measurement that causes it traces its figures already.
void send_link_rtt_ind(const iemli_peer &to, uint32_t link_ref, const rtt_stats &stats)
{
    itc_msg *msg = new_message(to, IEMLI_INTER_ME_LINK_RTT_IND, sizeof(iemli_link_rtt_ind));
    auto *indication = reinterpret_cast<iemli_link_rtt_ind *>(msg);
    indication->link_ref = link_ref;
    indication->stats = stats;
    itc_send(&msg, to.client_mbox, ITC_MY_MBOX);
}
