// What makes a request known as ours when it comes back: the first of its dummy bytes, as many of these as it has room
// for, and the order in which it numbers its measurements.
//
//     0  session          4
//     4  sequence number  4
//     8  the process's    4   the same in every request of it: a filter in the kernel can know it
//    12  the request's    4   a keyed function of session and sequence
//
// Session and sequence are for whoever reads a capture. The last two cannot be guessed: a sender who does not see the
// requests has one chance in 2^64 with a full mark. It is no signature: who sees a request can answer it.
//
// The measurement id is one byte, so its order hides little: who sends all 256 always meets the right one, which is why
// there is a mark. It is for far ends that bring no dummy bytes. There a counter would tell all ids to come to whoever
// knows one (or that the first is 1); in an order of the session's own, which is drawn from the key, one sender of one
// frame has one chance in 256, and no id comes again before all others were used, so that a late answer is not taken
// for another one's. The order is a Feistel network over two halves of four bits, four rounds of it. The function of a
// round is a table of sixteen drawn entries, so that nothing is to be learnt from one session about another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "keyed.hpp"
#include "vorn_types.hpp"

namespace supervision
{

inline constexpr size_t MARK_SIZE = 16;

struct mark {
    be32 session;
    be32 sequence;
    be32 process;
    be32 request;
};
static_assert(sizeof(mark) == MARK_SIZE);
static_assert(offsetof(mark, sequence) == 4);
static_assert(offsetof(mark, process) == 8);
static_assert(offsetof(mark, request) == 12);

// What a value of the keyed function is for. No two uses have the same arguments: a session's id is never 0.
inline constexpr uint64_t FOR_PROCESS = 0;
inline constexpr uint64_t FOR_REQUEST = uint64_t{1} << 32;
inline constexpr uint64_t FOR_IDS = uint64_t{2} << 32;

inline uint32_t mark_of_process(const secret &key) { return static_cast<uint32_t>(keyed(key, 0, FOR_PROCESS)); }

inline mark make_mark(const secret &key, uint32_t process, uint32_t session, uint32_t sequence)
{
    return {to_be32(session), to_be32(sequence), to_be32(process),
            to_be32(static_cast<uint32_t>(keyed(key, session, FOR_REQUEST | sequence)))};
}

inline constexpr int ID_ROUNDS = 4;

struct id_order {
    uint64_t round[ID_ROUNDS];
    uint8_t place; // of the next id in the order
};

inline id_order make_id_order(const secret &key, uint32_t session)
{
    id_order order{};
    for (uint32_t i = 0; i < ID_ROUNDS; i++) {
        order.round[i] = keyed(key, session, FOR_IDS | i);
    }
    order.place = static_cast<uint8_t>(keyed(key, session, FOR_IDS | ID_ROUNDS));
    return order;
}

inline uint8_t next_id(id_order *order)
{
    const uint8_t place = order->place++;
    unsigned left = place >> 4;
    unsigned right = place & 0xF;
    for (const uint64_t table : order->round) {
        const unsigned mixed = left ^ (static_cast<unsigned>(table >> (4 * right)) & 0xF);
        left = right;
        right = mixed;
    }
    return static_cast<uint8_t>(left << 4 | right);
}

} // namespace supervision
