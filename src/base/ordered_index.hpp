// Records in the order of a key of two words. The nodes lie inside the records, so entering one never fails; finding,
// entering and taking out cost the logarithm of how many there are, whatever keys a client chooses. Equal keys may be
// entered more than once; which of them stands first is not said.
//
// An index owns nothing. A zeroed ordered_index is empty and ready. While a node is in an index, nobody else writes it.
#pragma once

#include <cstdint>

struct ordered_key {
    uint64_t major;
    uint64_t minor;
};

struct ordered_node {
    ordered_key key;
    ordered_node *left;
    ordered_node *right;
};

struct ordered_index {
    ordered_node *root;
};

// `node` must not be in an index.
void ordered_index_insert(ordered_index *index, ordered_node *node, const ordered_key &key);
// `node` must be in this one.
void ordered_index_remove(ordered_index *index, ordered_node *node);

// The first whose key is not before this one; null behind the last.
ordered_node *ordered_index_first_from(const ordered_index *index, const ordered_key &key);
// The one behind a node that is in the index; null behind the last.
ordered_node *ordered_index_next(const ordered_index *index, const ordered_node *node);
