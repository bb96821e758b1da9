// Supervision and keep-alive sessions of the links.
#pragma once

#include "clients/iepcsi_client.hpp"
#include "manager/table/link_table.hpp"
#include "supervision.h"

inline constexpr uint32_t SUPERVISION_IND = 0x1B0CE6;

// Sent by the supervision callback to the daemon's own mailbox. Host byte order.
struct supervision_ind {
    uint32_t msgno;
    uint32_t session_id;
    uint32_t result;
    uint32_t rtt_sec;
    uint32_t rtt_nsec;
};
static_assert(sizeof(supervision_ind) == 20);
static_assert(offsetof(supervision_ind, session_id) == 4);
static_assert(offsetof(supervision_ind, result) == 8);
static_assert(offsetof(supervision_ind, rtt_sec) == 12);
static_assert(offsetof(supervision_ind, rtt_nsec) == 16);

// Runs on the supervision library's thread: only builds and sends a SUPERVISION_IND.
void supervision_callback(const supervision_rtt *rtt, uint32_t session_id, uint32_t result);

// 0 success, 1 namespace failure, else the library's code.
//
// Of what the link still has, the new session is started first. When it runs, the old one is ended without a trace, and
// what it had measured and counted goes on; when it cannot be started, the old one goes on. So a start that fails never
// leaves a link that was watched without anybody who watches it.
uint32_t start_link_supervision(const char *if_name, const mac_address &local_mac, iml_link *link,
                                const char *name_space);
void start_keep_alive(const char *if_name, iml_link *link, const char *name_space);

// The library needs no visit to stop a session. That the namespace cannot be entered is traced as it is for a start;
// the sessions are stopped all the same.
void stop_link_supervision(iml_link *link, const char *name_space);
void stop_keep_alive(iml_link *link, const char *name_space);
// What a link still has when it is deleted, because its port's VLAN was not there to stop it in: ended without a trace,
// so that nobody pings for a link that is no more.
void end_sessions_of_deleted_link(iml_link *link);

// Where the sessions of a link live; false while the port does not know the link's VLAN.
struct link_place {
    const char *if_name;
    const char *name_space;
};
bool find_link_place(const eth_port &port, const iml_link *link, link_place *place);
// False, and traced, when it does not start.
bool start_supervision_at(const link_place &place, const eth_port &port, iml_link *link);
// Supervision, traced when it does not start, and keep-alive of a link whose place is known; else nothing.
void start_link_sessions(const eth_port &port, iml_link *link);
// Supervision and keep-alive of a link whose place is known; else nothing.
void stop_link_sessions(const eth_port &port, iml_link *link);

// By IEPCSI port name, after a port came up or went down.
void start_supervision_on_port(const char *iepcsi_port_name);
void stop_supervision_on_port(const char *iepcsi_port_name);

// Stop and start again with the link's current RTT settings, when its port is operational. Where the namespace cannot
// be entered, the session that runs goes on.
void restart_link_supervision(const eth_port &port, iml_link *link);
