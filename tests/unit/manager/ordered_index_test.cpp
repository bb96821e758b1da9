// Records in the order of their keys, held against a plain sorted list over random steps.
#include "base/ordered_index.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

namespace
{

struct Record {
    ordered_node node;
};

bool before(const ordered_key &a, const ordered_key &b)
{
    return a.major != b.major ? a.major < b.major : a.minor < b.minor;
}

class OrderedIndex : public ::testing::Test
{
protected:
    ordered_index index = {};
    std::vector<std::unique_ptr<Record>> records;
    std::mt19937 random{41}; // NOLINT: the same walk every time

    ordered_key random_key(uint32_t range) { return {random() % range, random() % range}; }

    void add(const ordered_key &key)
    {
        records.push_back(std::make_unique<Record>());
        ordered_index_insert(&index, &records.back()->node, key);
    }
    void drop_one()
    {
        const size_t which = random() % records.size();
        ordered_index_remove(&index, &records[which]->node);
        records.erase(records.begin() + static_cast<ptrdiff_t>(which));
    }
    [[nodiscard]] std::vector<const ordered_node *> in_order() const
    {
        std::vector<const ordered_node *> found;
        for (const ordered_node *node = ordered_index_first_from(&index, {0, 0}); node != nullptr;
             node = ordered_index_next(&index, node)) {
            found.push_back(node);
        }
        return found;
    }
    void expect_true(uint32_t range)
    {
        const std::vector<const ordered_node *> found = in_order();
        ASSERT_EQ(found.size(), records.size());
        std::vector<const ordered_node *> once = found;
        std::sort(once.begin(), once.end());
        ASSERT_EQ(std::adjacent_find(once.begin(), once.end()), once.end()) << "each is met once";
        for (size_t i = 1; i < found.size(); ++i) {
            ASSERT_FALSE(before(found[i]->key, found[i - 1]->key)) << i;
        }
        const ordered_key wanted = random_key(range + 1);
        const ordered_node *first = ordered_index_first_from(&index, wanted);
        const auto expected = std::find_if(found.begin(), found.end(),
                                           [&](const ordered_node *node) { return !before(node->key, wanted); });
        ASSERT_EQ(first, expected != found.end() ? *expected : nullptr);
    }
};

TEST_F(OrderedIndex, OfNothingHasNoFirst) { EXPECT_EQ(ordered_index_first_from(&index, {0, 0}), nullptr); }

TEST_F(OrderedIndex, AgreesWithASortedListOverManyRandomSteps)
{
    for (const uint32_t range : {1u, 4u, 1000u}) { // of equal keys, of many equal ones, of few
        for (int step = 0; step < 1500; ++step) {
            if (records.empty() || random() % 100 < (step < 800 ? 65 : 35)) {
                add(random_key(range));
            } else {
                drop_one();
            }
            if (step % 10 == 0) {
                expect_true(range);
            }
        }
        while (!records.empty()) {
            drop_one();
        }
        expect_true(range);
    }
}

// However keys come, ascending ones first of all, no way through the tree is long.
TEST_F(OrderedIndex, DoesNotGrowDeepWithAscendingKeys)
{
    for (uint64_t i = 0; i < 20000; ++i) {
        add({0, i});
    }
    size_t deepest = 0;
    std::vector<std::pair<const ordered_node *, size_t>> open = {{index.root, 1}};
    while (!open.empty()) {
        const auto [node, depth] = open.back();
        open.pop_back();
        if (node != nullptr) {
            deepest = std::max(deepest, depth);
            open.emplace_back(node->left, depth + 1);
            open.emplace_back(node->right, depth + 1);
        }
    }
    EXPECT_LT(deepest, 100u); // about 35 is usual, 20,000 a list
}

} // namespace
