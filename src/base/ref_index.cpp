// A chained hash with intrusive nodes. Keys are references that are counted up from 1, so their low bits alone spread
// them over the buckets.
#include "ref_index.hpp"

#include <cstdlib>

namespace
{

uint32_t bucket_count(const ref_index *index)
{
    return index->grown_buckets == nullptr ? REF_INDEX_FIRST_BUCKETS : index->bucket_count;
}

ref_index_node **buckets(ref_index *index)
{
    return index->grown_buckets == nullptr ? index->first_buckets : index->grown_buckets;
}

ref_index_node *const *buckets(const ref_index *index)
{
    return index->grown_buckets == nullptr ? index->first_buckets : index->grown_buckets;
}

ref_index_node *skip_to_key(ref_index_node *node, uint32_t key)
{
    while (node != nullptr && node->key != key) {
        node = node->next;
    }
    return node;
}

// Deals the chain of bucket i out to buckets i and i + old_count of a table twice as large, keeping its order.
void split_chain(ref_index_node *node, ref_index_node **table, uint32_t i, uint32_t old_count)
{
    ref_index_node **tails[2] = {&table[i], &table[i + old_count]};
    while (node != nullptr) {
        ref_index_node *next = node->next;
        const uint32_t half = (node->key & old_count) != 0 ? 1 : 0;
        *tails[half] = node;
        node->back = tails[half];
        node->next = nullptr;
        tails[half] = &node->next;
        node = next;
    }
}

void grow(ref_index *index)
{
    const uint32_t old_count = bucket_count(index);
    auto *table = static_cast<ref_index_node **>(calloc(2 * static_cast<size_t>(old_count), sizeof(void *)));
    if (table == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < old_count; ++i) {
        split_chain(buckets(index)[i], table, i, old_count);
    }
    free(index->grown_buckets);
    index->grown_buckets = table;
    index->bucket_count = 2 * old_count;
}

// A table is halved when it has become far too large, so that what many entries took does not stay for good; a small
// one may stay.
constexpr uint32_t SMALL_TABLE = 1024;
constexpr uint32_t FAR_TOO_LARGE = 8; // buckets for an entry

void append_chain(ref_index_node **head, ref_index_node *chain)
{
    while (*head != nullptr) {
        head = &(*head)->next;
    }
    *head = chain;
    if (chain != nullptr) {
        chain->back = head;
    }
}

// Keys of two buckets that become one are different, so that the order within a key stays.
void halve(ref_index *index)
{
    const uint32_t half = index->bucket_count / 2;
    for (uint32_t i = 0; i < half; ++i) {
        append_chain(&index->grown_buckets[i], index->grown_buckets[half + i]);
    }
    index->bucket_count = half;
    // NOLINTNEXTLINE(clang-analyzer-optin.portability.UnixAPI): only what is above SMALL_TABLE is halved
    void *smaller = realloc(index->grown_buckets, half * sizeof(void *));
    if (smaller == nullptr) {
        return;
    }
    index->grown_buckets = static_cast<ref_index_node **>(smaller);
    for (uint32_t i = 0; i < half; ++i) {
        if (index->grown_buckets[i] != nullptr) {
            index->grown_buckets[i]->back = &index->grown_buckets[i];
        }
    }
}

} // namespace

void ref_index_insert(ref_index *index, ref_index_node *node, uint32_t key, void *owner)
{
    if (index->count >= bucket_count(index)) {
        grow(index);
    }
    ref_index_node **head = &buckets(index)[key & (bucket_count(index) - 1)];
    node->key = key;
    node->owner = owner;
    node->next = *head;
    node->back = head;
    if (node->next != nullptr) {
        node->next->back = &node->next;
    }
    *head = node;
    ++index->count;
}

void ref_index_remove(ref_index *index, ref_index_node *node)
{
    if (!ref_index_holds(node)) {
        return;
    }
    *node->back = node->next;
    if (node->next != nullptr) {
        node->next->back = node->back;
    }
    node->back = nullptr;
    node->next = nullptr;
    --index->count;
    if (bucket_count(index) > SMALL_TABLE && index->count < bucket_count(index) / FAR_TOO_LARGE) {
        halve(index);
    }
}

ref_index_node *ref_index_first(const ref_index *index, uint32_t key)
{
    return skip_to_key(buckets(index)[key & (bucket_count(index) - 1)], key);
}

ref_index_node *ref_index_next(const ref_index_node *node) { return skip_to_key(node->next, node->key); }

void ref_index_clear(ref_index *index)
{
    free(index->grown_buckets);
    *index = {};
}
