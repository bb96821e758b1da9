#include "shares.hpp"

#include <map>

namespace
{

std::map<uid_t, share> shares;

} // namespace

share &share_of(uid_t user)
{
    share &found = shares[user];
    found.user = user;
    return found;
}

bool share_has_room(const share &of, held what, size_t by)
{
    const auto kind = static_cast<size_t>(what);
    return of.counts[kind] + by <= share_bounds[kind];
}

bool share_take(share &of, held what, size_t bytes)
{
    if (!share_has_room(of, what, 1) || of.bytes + bytes > share_bytes_bound) {
        return false;
    }
    of.counts[static_cast<size_t>(what)]++;
    of.bytes += bytes;
    return true;
}

void share_owe(share &of, held what) { of.counts[static_cast<size_t>(what)]++; }

void share_give(share &of, held what, size_t bytes)
{
    of.counts[static_cast<size_t>(what)]--;
    of.bytes -= bytes;
}

void share_forget(share &of)
{
    bool empty = of.bytes == 0 && of.queued == 0 && of.in_flight == 0;
    for (const size_t count : of.counts) {
        empty = empty && count == 0;
    }
    if (empty) {
        shares.erase(of.user);
    }
}

size_t shares_held()
{
    size_t sum = 0;
    for (const auto &[user, of] : shares) {
        sum += of.bytes + of.queued;
    }
    return sum;
}

bool shares_are_empty() { return shares.empty(); }
