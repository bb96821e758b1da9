// An entry is an app link as two integers and its place. In order of far end, near end and place, equal app links are
// neighbours with the first of them in front, and all of one far end stand together.
#include "app_link_index.hpp"

#include <algorithm>
#include <cstdlib>

struct app_link_entry {
    uint64_t far_end; // and the first two bytes of the near end
    uint32_t near_end;
    uint32_t place;
};
static_assert(sizeof(app_link_entry) == 16);

namespace
{

// Up to here walking costs less than sorting.
constexpr uint32_t FEW = 16;

uint64_t to_integer(const uint8_t *bytes, size_t count)
{
    uint64_t value = 0;
    for (size_t i = 0; i < count; ++i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

uint64_t first_of_far_end(const mac_address &far_end) { return to_integer(far_end.byte, sizeof far_end.byte) << 16; }

app_link_entry entry_of(const IemliAppLink &app_link, uint32_t place)
{
    const uint8_t *near_end = app_link.nearEndAppMac.byte;
    return {first_of_far_end(app_link.farEndAppMac) | to_integer(near_end, 2),
            static_cast<uint32_t>(to_integer(near_end + 2, 4)), place};
}

bool is_same_app_link(const app_link_entry &a, const app_link_entry &b)
{
    return a.far_end == b.far_end && a.near_end == b.near_end;
}

bool stands_before(const app_link_entry &a, const app_link_entry &b)
{
    if (a.far_end != b.far_end) {
        return a.far_end < b.far_end;
    }
    return a.near_end != b.near_end ? a.near_end < b.near_end : a.place < b.place;
}

bool app_link_equal(const IemliAppLink &a, const IemliAppLink &b)
{
    return mac_equal(a.nearEndAppMac, b.nearEndAppMac) && mac_equal(a.farEndAppMac, b.farEndAppMac);
}

bool occurs_from(const app_link_index &index, uint32_t from, const IemliAppLink &app_link)
{
    for (uint32_t i = from; i < index.count; ++i) {
        if (app_link_equal(index.app_links[i], app_link)) {
            return true;
        }
    }
    return false;
}

// The first entry that does not stand before the wanted one; null behind the last.
const app_link_entry *find(const app_link_index &index, const app_link_entry &wanted)
{
    const app_link_entry *end = index.entries + index.count;
    const app_link_entry *found =
        std::lower_bound(static_cast<const app_link_entry *>(index.entries), end, wanted, stands_before);
    return found != end ? found : nullptr;
}

} // namespace

app_link_index app_link_index_build(const IemliAppLink *app_links, uint32_t count)
{
    app_link_index index = {app_links, count, nullptr};
    if (count > FEW) {
        index.entries = static_cast<app_link_entry *>(calloc(count, sizeof(app_link_entry)));
    }
    if (index.entries != nullptr) {
        for (uint32_t i = 0; i < count; ++i) {
            index.entries[i] = entry_of(app_links[i], i);
        }
        std::sort(index.entries, index.entries + count, stands_before);
    }
    return index;
}

void app_link_index_free(app_link_index *index)
{
    free(index->entries);
    *index = {};
}

bool app_link_index_has(const app_link_index &index, const IemliAppLink &app_link)
{
    if (index.entries == nullptr) {
        return occurs_from(index, 0, app_link);
    }
    const app_link_entry wanted = entry_of(app_link, 0);
    const app_link_entry *found = find(index, wanted);
    return found != nullptr && is_same_app_link(*found, wanted);
}

bool app_link_index_has_far_end(const app_link_index &index, const mac_address &far_end)
{
    if (index.entries == nullptr) {
        for (uint32_t i = 0; i < index.count; ++i) {
            if (mac_equal(index.app_links[i].farEndAppMac, far_end)) {
                return true;
            }
        }
        return false;
    }
    const uint64_t first = first_of_far_end(far_end);
    const app_link_entry *found = find(index, {first, 0, 0});
    return found != nullptr && found->far_end >> 16 == first >> 16;
}

bool app_link_index_repeats(const app_link_index &index, uint32_t limit)
{
    if (index.entries == nullptr) {
        for (uint32_t i = 0; i < limit; ++i) {
            if (occurs_from(index, i + 1, index.app_links[i])) {
                return true;
            }
        }
        return false;
    }
    for (uint32_t i = 1; i < index.count; ++i) {
        const app_link_entry &earlier = index.entries[i - 1];
        if (earlier.place < limit && is_same_app_link(earlier, index.entries[i])) {
            return true;
        }
    }
    return false;
}
