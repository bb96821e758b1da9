/*
 * What waits for a thread. A message that a receive has looked past, because it wanted others, is put in the line of
 * its number: the next receive that wants numbers looks at the heads of their lines, and at what has come since. So
 * every message is looked past once, however often others are wanted, and one that nobody looks past costs nothing
 * more.
 */
#include "state.hpp"

#include <utility>

namespace itc
{
namespace
{

constexpr size_t few_places = 4096; // whose memory may stay

uint32_t number_of(const block *b)
{
    uint32_t msgno = 0;
    memcpy(&msgno, const_cast<block *>(b)->bytes(), sizeof msgno);
    return msgno;
}

bool is_from(const block *b, uint32_t from) { return from == ITC_FROM_ANY || b->sender == from; }

bool is_wanted(const block *b, const uint32_t *filter, uint32_t from)
{
    if (!is_from(b, from)) {
        return false;
    }
    if (filter == nullptr) {
        return true;
    }
    const uint32_t msgno = number_of(b);
    for (uint32_t i = 1; i <= filter[0]; i++) {
        if (filter[i] == msgno) {
            return true;
        }
    }
    return false;
}

} // namespace

block *message_queue::take(const uint32_t *filter, uint32_t from, bool *looked_at)
{
    if (first != none && !*looked_at) {
        const uint32_t found = find(filter, from);
        if (found != none) {
            return take_place(found);
        }
    }
    while (fresh.head != nullptr) {
        block *b = fresh.take_after(nullptr);
        if (is_wanted(b, filter, from)) {
            return b;
        }
        look_past(b);
    }
    *looked_at = true;
    return nullptr;
}

// Of those that were looked past, the first that is wanted.
uint32_t message_queue::find(const uint32_t *filter, uint32_t from) const
{
    if (filter == nullptr) {
        uint32_t place = first;
        while (place != none && !is_from(places[place].message, from)) {
            place = places[place].next;
        }
        return place;
    }
    uint32_t found = none;
    for (uint32_t i = 1; i <= filter[0]; i++) {
        const auto of = lines.find(filter[i]);
        uint32_t place = of != lines.end() ? of->second.first : none;
        while (place != none && !is_from(places[place].message, from)) {
            place = places[place].next_of_number;
        }
        if (place != none && (found == none || places[place].arrived < places[found].arrived)) {
            found = place;
        }
    }
    return found;
}

uint32_t message_queue::free_place()
{
    if (unused == none) {
        places.emplace_back();
        return static_cast<uint32_t>(places.size() - 1);
    }
    return std::exchange(unused, places[unused].next);
}

message_queue::line &message_queue::line_of(uint32_t msgno)
{
    if (last_line == nullptr || msgno != last_number) {
        last_line = &lines[msgno]; // stays where it is
        last_number = msgno;
    }
    return *last_line;
}

void message_queue::look_past(block *b)
{
    line &of = line_of(number_of(b));
    const uint32_t place = free_place();
    places[place] = {b, arrivals++, none, last, none, of.last};
    (last == none ? first : places[last].next) = place;
    last = place;
    (of.last == none ? of.first : places[of.last].next_of_number) = place;
    of.last = place;
    passed++;
}

void message_queue::leave_line(const place_in_line &place)
{
    const uint32_t msgno = number_of(place.message);
    line &of = line_of(msgno);
    (place.before_of_number == none ? of.first : places[place.before_of_number].next_of_number) = place.next_of_number;
    (place.next_of_number == none ? of.last : places[place.next_of_number].before_of_number) = place.before_of_number;
    if (of.first == none) {
        lines.erase(msgno); // or whoever sends ever other numbers would fill our memory
        last_line = nullptr;
    }
}

block *message_queue::take_place(uint32_t number)
{
    const place_in_line place = places[number];
    leave_line(place);
    (place.before == none ? first : places[place.before].next) = place.next;
    (place.next == none ? last : places[place.next].before) = place.before;
    places[number].next = unused;
    unused = number;
    passed--;
    if (first == none && places.size() > few_places) {
        places = {};
        unused = none;
    }
    return place.message;
}

} // namespace itc
