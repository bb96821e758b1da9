// The near-end MACs of the app links of a port, one beside the other in the order of the table, kept as links come and
// go. Whoever collects them for a rule goes over these and not over the links. What a rule makes of a MAC that occurs
// twice, or of very many, is not known here.
//
// A port for whose MACs there is no memory has lost them until they are entered anew. The nodes are the caller's, one
// for each app link.
#pragma once

#include "base/ordered_index.hpp"
#include "iemli/iemli_messages.hpp"

struct near_end_mac {
    uint32_t link_ref;
    mac_address mac;
};
static_assert(sizeof(near_end_mac) == 12);

struct near_end_macs {
    const near_end_mac *macs; // in the order of the table; valid until a link comes or goes
    uint32_t count;
    uint32_t distinct; // how many different ones
};

// `port` is a port_number(). The link must have none entered.
void near_end_macs_enter(uint32_t port, uint32_t link_ref, const IemliAppLink *app_links, uint32_t count,
                         ordered_node *nodes);
// The same count and nodes as when they were entered.
void near_end_macs_take_out(uint32_t port, uint32_t link_ref, uint32_t count, ordered_node *nodes);

// False when the port has lost them.
bool near_end_macs_of_port(uint32_t port, near_end_macs *out);
// A port that had lost them begins with none. Those of each of its links follow: their nodes have stayed entered.
void near_end_macs_begin_anew(uint32_t port);
void near_end_macs_again(uint32_t port, uint32_t link_ref, const IemliAppLink *app_links, uint32_t count);
