// What the messages of all lower-layer protocols share: the header and the layouts of the connection set-up. The
// message number is in host byte order, every other integer in network byte order. A message is never read before its
// size was checked.
//
//   0        4               8                12
//   +--------+---------------+----------------+---------------------
//   | msgno  | procedure_ref | connection_ref | fields of the message
//   +--------+---------------+----------------+---------------------
#pragma once

#include "itc.h"
#include "vorn_types.hpp"

// The one protocol version that every client offers.
inline constexpr uint32_t CLIENT_PROTOCOL_VERSION = 1;

struct client_header {
    uint32_t msgno;
    be32 procedure_ref;
    be32 connection_ref;
};
static_assert(sizeof(client_header) == 12);
static_assert(offsetof(client_header, procedure_ref) == 4);
static_assert(offsetof(client_header, connection_ref) == 8);

// Messages without further fields: server up and down, the capability request, confirms that only confirm.
struct client_plain_msg {
    client_header header;
};
static_assert(sizeof(client_plain_msg) == 12);

// A connection request offers a list of versions; every client offers one.
struct client_conn_establish_req {
    client_header header; // connection_ref: the client's proposal
    be32 num_pvs;
    be32 pv[1];
};
static_assert(sizeof(client_conn_establish_req) == 20);
static_assert(offsetof(client_conn_establish_req, num_pvs) == 12);
static_assert(offsetof(client_conn_establish_req, pv) == 16);

struct client_conn_establish_cfm {
    client_header header; // connection_ref: the server's, to be used from here on
    be32 pv_selected;
};
static_assert(sizeof(client_conn_establish_cfm) == 16);
static_assert(offsetof(client_conn_establish_cfm, pv_selected) == 12);

// Every reject that carries a reason and nothing else.
struct client_rej {
    client_header header;
    be32 reason;
};
static_assert(sizeof(client_rej) == 16);
static_assert(offsetof(client_rej, reason) == 12);

// The part of a capability confirm before the list; what an entry is, each protocol says for itself.
struct client_capability_cfm {
    client_header header;
    be32 num_caps;
};
static_assert(sizeof(client_capability_cfm) == 16);
static_assert(offsetof(client_capability_cfm, num_caps) == 12);
