// Every message that the IEMLI server sends, one function each: allocated at its exact size, filled, traced, sent from
// the daemon's own mailbox. Whether and what to answer is decided elsewhere.
#pragma once

#include "iemli_messages.hpp"

// Where an answer or indication goes, and the two references in its header.
struct iemli_peer {
    uint32_t client_mbox;
    uint32_t procedure_ref;
    uint32_t connection_ref;
};

// The sender of a request and the references it used, for answers that no session stands behind.
iemli_peer iemli_sender_of(const itc_msg *msg);

void send_init_cfm(const iemli_peer &to, uint32_t pv_selected);
void send_init_rej(const iemli_peer &to, uint32_t reason);
void send_term_cfm(const iemli_peer &to);
void send_get_local_supervision_mac_cfm(const iemli_peer &to, uint8_t mp_id, const char *port_name,
                                        const mac_address &mac);
void send_get_local_supervision_mac_rej(const iemli_peer &to, uint32_t reason);
void send_create_cfm(const iemli_peer &to, uint32_t link_ref);
void send_create_rej(const iemli_peer &to, uint32_t reason);
void send_update_cfm(const iemli_peer &to);
void send_update_rej(const iemli_peer &to, uint32_t reason);
void send_delete_cfm(const iemli_peer &to);
void send_enable_rtt_cfm(const iemli_peer &to);
void send_enable_rtt_rej(const iemli_peer &to, uint32_t reason);
void send_disable_rtt_cfm(const iemli_peer &to);
void send_link_status_ind(const iemli_peer &to, uint32_t link_ref, uint32_t status, uint32_t disabled_reason);
void send_link_rtt_ind(const iemli_peer &to, uint32_t link_ref, const rtt_stats &stats);
