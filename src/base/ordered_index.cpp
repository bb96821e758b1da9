// A binary tree in which every node stands above those of a lower rank. The rank of a node comes from where it lies in
// memory, so that no order of keys makes the tree deep; equal keys are told apart by the same.
#include "ordered_index.hpp"

namespace
{

// Neighbours in memory have nothing in common in their ranks.
uint64_t rank_of(const ordered_node *node)
{
    uint64_t bits = reinterpret_cast<uintptr_t>(node) >> 4;
    bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9U;
    bits = (bits ^ bits >> 27) * 0x94D049BB133111EBU;
    return bits ^ bits >> 31;
}

bool key_before(const ordered_key &a, const ordered_key &b)
{
    return a.major != b.major ? a.major < b.major : a.minor < b.minor;
}

bool node_before(const ordered_node *a, const ordered_node *b)
{
    if (key_before(a->key, b->key) || key_before(b->key, a->key)) {
        return key_before(a->key, b->key);
    }
    return reinterpret_cast<uintptr_t>(a) < reinterpret_cast<uintptr_t>(b);
}

// Deals a tree out to what stands before `pivot`, on its left, and what stands behind it, on its right.
void split(ordered_node *tree, ordered_node *pivot)
{
    ordered_node **before = &pivot->left;
    ordered_node **behind = &pivot->right;
    while (tree != nullptr) {
        if (node_before(tree, pivot)) {
            *before = tree;
            before = &tree->right;
            tree = tree->right;
        } else {
            *behind = tree;
            behind = &tree->left;
            tree = tree->left;
        }
    }
    *before = nullptr;
    *behind = nullptr;
}

// All of `left` stands before all of `right`.
void join(ordered_node **slot, ordered_node *left, ordered_node *right)
{
    while (left != nullptr && right != nullptr) {
        if (rank_of(left) >= rank_of(right)) {
            *slot = left;
            slot = &left->right;
            left = left->right;
        } else {
            *slot = right;
            slot = &right->left;
            right = right->left;
        }
    }
    *slot = left != nullptr ? left : right;
}

} // namespace

void ordered_index_insert(ordered_index *index, ordered_node *node, const ordered_key &key)
{
    node->key = key;
    const uint64_t rank = rank_of(node);
    ordered_node **slot = &index->root;
    while (*slot != nullptr && rank_of(*slot) >= rank) {
        slot = node_before(*slot, node) ? &(*slot)->right : &(*slot)->left;
    }
    split(*slot, node);
    *slot = node;
}

void ordered_index_remove(ordered_index *index, ordered_node *node)
{
    ordered_node **slot = &index->root;
    while (*slot != node) {
        slot = node_before(*slot, node) ? &(*slot)->right : &(*slot)->left;
    }
    join(slot, node->left, node->right);
    node->left = nullptr;
    node->right = nullptr;
}

ordered_node *ordered_index_first_from(const ordered_index *index, const ordered_key &key)
{
    ordered_node *found = nullptr;
    for (ordered_node *node = index->root; node != nullptr;) {
        const bool before = key_before(node->key, key);
        found = before ? found : node;
        node = before ? node->right : node->left;
    }
    return found;
}

ordered_node *ordered_index_next(const ordered_index *index, const ordered_node *node)
{
    ordered_node *found = nullptr;
    for (ordered_node *candidate = index->root; candidate != nullptr;) {
        const bool behind = node_before(node, candidate);
        found = behind ? candidate : found;
        candidate = behind ? candidate->left : candidate->right;
    }
    return found;
}
