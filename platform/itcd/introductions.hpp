/*
 * Which two processes have a channel, and giving it to them. An introduction takes place when both sides take a
 * descriptor at once; until then it waits, as an entry and not as a descriptor, with the side that is behind. There the
 * users that ask take turns. It is charged to the user who asked for it first; who may ask for no more gets no_process.
 */
#ifndef ITCD_INTRODUCTIONS_HPP
#define ITCD_INTRODUCTIONS_HPP

#include "registry.hpp"

void introductions_start(registry_output &output);
// Sees to it that the two have a channel. If they have one, `from` has it or finds it on its way.
void introduce_once(registry_client &from, registry_client &other);
void introduction_closed(registry_client &from, uint32_t process, uint32_t channel);
bool introduce_next_waiting(registry_client &client); // the next of those that wait for it; false if that cannot be now
bool introduction_forget_one(registry_client &leaving); // of one that leaves; false if there is none left
bool introductions_are_empty();

int channel_ends(int type, int (&ends)[2]); // a socket pair with room; 0, or an errno value

#endif
