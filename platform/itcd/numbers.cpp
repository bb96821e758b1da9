#include "numbers.hpp"

#include <deque>
#include <map>

namespace
{

constexpr unsigned released_at_once = 4096; // of numbers whose day is over, so that none waits long for the others

struct resting {
    uint32_t number;
    uint32_t until_s;
};

std::vector<bool> taken; // in use or at rest
std::map<uid_t, std::deque<resting>> at_rest;
uint32_t last_number;

void release(std::deque<resting> &numbers, uint32_t now_s)
{
    for (unsigned i = 0; i < released_at_once && !numbers.empty() && numbers.front().until_s <= now_s; i++) {
        taken[numbers.front().number] = false;
        numbers.pop_front();
    }
}

void release_all(uint32_t now_s)
{
    for (auto it = at_rest.begin(); it != at_rest.end();) {
        release(it->second, now_s);
        it = it->second.empty() ? at_rest.erase(it) : std::next(it);
    }
}

} // namespace

void numbers_start(uint32_t last)
{
    taken.assign(itc_wire::process_limit, false);
    at_rest.clear();
    last_number = last % itc_wire::process_limit;
}

uint32_t number_take(uid_t user, uint32_t now_s)
{
    release_all(now_s);
    const auto own = at_rest.find(user);
    if (own != at_rest.end() && own->second.size() >= NUMBERS_AT_REST_LIMIT) {
        return 0;
    }
    for (uint32_t tried = 1; tried < itc_wire::process_limit; tried++) {
        last_number = last_number + 1 < itc_wire::process_limit ? last_number + 1 : 1;
        if (!taken[last_number]) {
            taken[last_number] = true;
            return last_number;
        }
    }
    return 0;
}

void number_rest(uint32_t number, uid_t user, uint32_t now_s)
{
    at_rest[user].push_back({number, now_s + NUMBER_REST_S});
}

bool box_may_be_used(const resting_boxes &boxes, uint32_t box, uint32_t now_s)
{
    return boxes.empty() || boxes[box] <= now_s;
}

void box_rest(resting_boxes &boxes, uint32_t box, uint32_t now_s)
{
    if (boxes.empty()) {
        boxes.resize(itc_wire::box_limit);
    }
    boxes[box] = now_s + NUMBER_REST_S;
}
