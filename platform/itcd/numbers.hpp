/*
 * Which process numbers may be given. A number whose process has gone rests for a day before it names another process,
 * so that nobody receives what was meant for a mailbox that is no more. Numbers that rest are counted for the user
 * whose processes had them; one user can have a quarter of them at rest, and is then refused until the first day is
 * over. So no user takes the numbers of the others. Time is a parameter, in seconds.
 *
 * The same for the boxes of one process: one that was deleted rests for a day.
 */
#ifndef ITCD_NUMBERS_HPP
#define ITCD_NUMBERS_HPP

#include "itc_wire.hpp"

#include <cstdint>
#include <sys/types.h>
#include <vector>

inline constexpr uint32_t NUMBER_REST_S = 24 * 3600;
inline constexpr uint32_t NUMBERS_AT_REST_LIMIT = itc_wire::process_limit / 4; // of one user

void numbers_start(uint32_t last);                // nothing is taken; the next number is the one after `last`
uint32_t number_take(uid_t user, uint32_t now_s); // 0 when that user can have none now
void number_rest(uint32_t number, uid_t user, uint32_t now_s);

// When each box of a process may be used again; empty while none was ever deleted.
using resting_boxes = std::vector<uint32_t>;

bool box_may_be_used(const resting_boxes &boxes, uint32_t box, uint32_t now_s);
void box_rest(resting_boxes &boxes, uint32_t box, uint32_t now_s);

#endif
