// A hash from a 32-bit reference to the records that carry it. The nodes lie inside the records, so entering one never
// fails: when the table cannot grow it stays as it is and its chains get longer. The same key may be entered more than
// once; what was entered last is met first.
//
// The index owns its bucket table and nothing else. A zeroed ref_index is empty and ready.
#pragma once

#include <cstdint>

struct ref_index_node {
    uint32_t key;
    void *owner; // the record that the node lies in
    ref_index_node *next;
    ref_index_node **back; // what points here; null while the node is in no index
};

inline constexpr uint32_t REF_INDEX_FIRST_BUCKETS = 16;

struct ref_index {
    ref_index_node *first_buckets[REF_INDEX_FIRST_BUCKETS]; // so that an index needs no memory to begin with
    ref_index_node **grown_buckets;                         // owned; null while the first ones serve
    uint32_t bucket_count;                                  // of the grown ones
    uint32_t count;
};

// `node` must not be in an index.
void ref_index_insert(ref_index *index, ref_index_node *node, uint32_t key, void *owner);
// Nothing happens when the node is in no index.
void ref_index_remove(ref_index *index, ref_index_node *node);
inline bool ref_index_holds(const ref_index_node *node) { return node->back != nullptr; }

// All nodes of a key, newest first; null at the end.
ref_index_node *ref_index_first(const ref_index *index, uint32_t key);
ref_index_node *ref_index_next(const ref_index_node *node);

// Frees the bucket table; the nodes are forgotten, not touched.
void ref_index_clear(ref_index *index);
