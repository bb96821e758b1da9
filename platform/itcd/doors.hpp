/*
 * Tells processes what their mailboxes take from others, as the policy has it: libitc holds it, where messages arrive.
 * Whoever is to be let in by name is told of before he hears himself that he has the name, and what a mailbox takes is
 * told before its process hears that it has the name which that stands under. So the word is there before the message.
 */
#ifndef ITCD_DOORS_HPP
#define ITCD_DOORS_HPP

#include "registry.hpp"

void doors_start(registry_output &output, const policy &rules);
void doors_name_given(registry_client &owner, uint32_t mbox, const std::string &name);
void doors_name_gone(const std::string &name);
// A channel is about to be given to the two: `to` hears what the other's user is let in to.
void doors_meet(registry_client &to, const registry_client &other, uint32_t channel);
bool doors_are_empty();

#endif
