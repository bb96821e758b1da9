/*
 * What the mailboxes of this process take from other processes, as the registry's policy has it. The registry says so
 * before it answers the request that creates the mailbox or gives it a name, and it says who has a name that is let in
 * before that one hears that he has it. So whatever is sent by somebody who is let in comes after the word that lets
 * him in, and it is enough to look what the registry has said before a message is refused.
 *
 * Messages of this process itself, and those that libitc makes (of monitors, of names that were waited for, of the name
 * service), never come this way: they pass always.
 */
#ifndef ITC_DOOR_HPP
#define ITC_DOOR_HPP

#include "itc.h"
#include "itc_wire.hpp"

#include <unordered_map>
#include <vector>

namespace itc
{

struct block;
struct arrival;

// These numbers are taken only from whom `rule` lets in.
struct door_range {
    uint32_t rule;
    uint32_t first;
    uint32_t last;
};

// A session that a client asked for, and that was opened when it has a reference.
struct door_session {
    uint32_t client;
    uint32_t monitor_id;
    bool open;
    uint32_t reference;
};

// How many sessions those may have together whom `rule` lets in.
struct door_share {
    uint32_t rule;
    uint32_t opens;
    uint32_t opened;
    uint32_t refused;
    uint32_t closed;
    uint32_t session_at;
    uint32_t at_most;
    std::vector<door_session> sessions;
};

struct door {
    uint32_t largest = itc_wire::message_limit;
    std::vector<door_range> ranges;
    std::vector<door_share> shares;
};

// Who has one of a rule's names.
struct door_named {
    uint32_t which;
    uint32_t mbox;
};

// The rules that the user of the process at the other end of a channel is in.
struct door_membership {
    uint32_t channel = 0;
    std::vector<uint32_t> rules;
};

struct doors {
    std::unordered_map<uint32_t, door> of;                       // by mailbox; only of those that have one
    std::unordered_map<uint32_t, std::vector<door_named>> named; // by rule, in the order in which they got their names
    std::unordered_map<uint32_t, door_membership> membership;    // by process
};

bool door_frame_is(uint32_t type); // a frame that is ours
// Acts on one; false if it makes no sense. `in_turn`: what the registry said before it is acted on already.
bool door_frame(const itc_wire::registry_frame &head, itc_wire::reader &fields, bool in_turn);

// Whether that message of another process is taken; what is refused is counted and told of. May be asked again.
bool door_admits(const arrival &a);
// Such a message is delivered. False if it is refused after all: others have opened the sessions that were left.
bool door_passed(uint32_t sender, uint32_t to, uint32_t msgno);
// A message of the mailbox `from` leaves: it may say what became of a session.
void door_answered(uint32_t from, uint32_t to, block *b);
void door_client_died(uint32_t client);
void door_service_changed(uint32_t mbox); // it was published or withdrawn: the sessions that it had are over
void door_forget_mailbox(uint32_t mbox);
void door_forget_channel(uint32_t process, uint32_t channel);
void door_forget_all();

} // namespace itc

#endif
