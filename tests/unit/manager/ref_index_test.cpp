// The hash of references.
#include "base/ref_index.hpp"

#include <vector>

#include "fake_platform.hpp"

namespace
{

class RefIndex : public fake::PlatformTest
{
protected:
    ref_index index = {};

    void TearDown() override
    {
        ref_index_clear(&index);
        PlatformTest::TearDown();
    }

    std::vector<ref_index_node *> all(uint32_t key)
    {
        std::vector<ref_index_node *> found;
        for (ref_index_node *node = ref_index_first(&index, key); node != nullptr; node = ref_index_next(node)) {
            found.push_back(node);
        }
        return found;
    }
};

using Nodes = std::vector<ref_index_node *>;

TEST_F(RefIndex, FindsNothingWhileItIsEmpty)
{
    EXPECT_EQ(ref_index_first(&index, 0), nullptr);
    EXPECT_EQ(ref_index_first(&index, 7), nullptr);
}

TEST_F(RefIndex, GivesTheOwnerOfAKey)
{
    int owner = 0;
    ref_index_node node = {};
    ref_index_insert(&index, &node, 7, &owner);
    ASSERT_NE(ref_index_first(&index, 7), nullptr);
    EXPECT_EQ(ref_index_first(&index, 7)->owner, &owner);
    EXPECT_EQ(ref_index_first(&index, 7 + 16), nullptr) << "another key of the same bucket";
}

TEST_F(RefIndex, MeetsTheNewestOfEqualKeysFirst)
{
    ref_index_node nodes[3] = {};
    for (auto &node : nodes) {
        ref_index_insert(&index, &node, 5, nullptr);
    }
    EXPECT_EQ(all(5), (Nodes{&nodes[2], &nodes[1], &nodes[0]}));
}

TEST_F(RefIndex, KeepsTheOrderOfEqualKeysWhenItGrows)
{
    std::vector<ref_index_node> nodes(200);
    for (uint32_t i = 0; i < nodes.size(); ++i) {
        ref_index_insert(&index, &nodes[i], i % 50, nullptr);
    }
    EXPECT_NE(index.grown_buckets, nullptr);
    for (uint32_t key = 0; key < 50; ++key) {
        EXPECT_EQ(all(key), (Nodes{&nodes[key + 150], &nodes[key + 100], &nodes[key + 50], &nodes[key]})) << key;
    }
}

TEST_F(RefIndex, GivesTheTableOfManyBackWhenFewAreLeftAndKeepsTheirOrder)
{
    std::vector<ref_index_node> nodes(20000);
    for (uint32_t i = 0; i < nodes.size(); ++i) {
        ref_index_insert(&index, &nodes[i], i % 10000, nullptr);
    }
    const uint32_t largest = index.bucket_count;
    EXPECT_GE(largest, 16384u);
    const auto left = [](uint32_t key) { return key % 1000 == 7; };
    for (uint32_t i = 0; i < nodes.size(); ++i) {
        if (!left(i % 10000)) {
            ref_index_remove(&index, &nodes[i]);
        }
    }
    EXPECT_EQ(index.count, 20u);
    EXPECT_LE(index.bucket_count, 1024u);
    for (uint32_t key = 0; key < 10000; ++key) {
        ASSERT_EQ(all(key), left(key) ? (Nodes{&nodes[key + 10000], &nodes[key]}) : Nodes{}) << key;
    }
    for (uint32_t i = 0; i < nodes.size(); ++i) {
        ref_index_remove(&index, &nodes[i]);
    }
    EXPECT_EQ(index.count, 0u);
}

TEST_F(RefIndex, StaysAsLargeAsItIsWithoutMemoryForASmallerTable)
{
    std::vector<ref_index_node> nodes(4000);
    for (uint32_t i = 0; i < nodes.size(); ++i) {
        ref_index_insert(&index, &nodes[i], i, nullptr);
    }
    fake::fail_allocations_from(1);
    for (uint32_t i = 10; i < nodes.size(); ++i) {
        ref_index_remove(&index, &nodes[i]);
    }
    EXPECT_GT(fake::failed_allocations(), 0u);
    fake::fail_allocations_from(0);
    for (uint32_t key = 0; key < nodes.size(); ++key) {
        ASSERT_EQ(all(key), key < 10 ? Nodes{&nodes[key]} : Nodes{}) << key;
    }
}

TEST_F(RefIndex, RemovesOneOfEqualKeysFromAnyPlace)
{
    ref_index_node nodes[3] = {};
    for (auto &node : nodes) {
        ref_index_insert(&index, &node, 5, nullptr);
    }
    ref_index_remove(&index, &nodes[1]);
    EXPECT_EQ(all(5), (Nodes{&nodes[2], &nodes[0]}));
    ref_index_remove(&index, &nodes[2]);
    EXPECT_EQ(all(5), (Nodes{&nodes[0]}));
    ref_index_remove(&index, &nodes[0]);
    EXPECT_TRUE(all(5).empty());
    EXPECT_EQ(index.count, 0u);
}

TEST_F(RefIndex, LeavesANodeAloneThatItDoesNotHold)
{
    ref_index_node held = {};
    ref_index_node other = {};
    ref_index_insert(&index, &held, 5, nullptr);
    ref_index_remove(&index, &other);
    EXPECT_EQ(index.count, 1u);
    EXPECT_FALSE(ref_index_holds(&other));
    EXPECT_TRUE(ref_index_holds(&held));
}

TEST_F(RefIndex, TakesEveryNodeWhenItCannotGrow)
{
    std::vector<ref_index_node> nodes(40);
    for (uint32_t i = 0; i < nodes.size(); ++i) {
        fake::fail_allocation(1);
        ref_index_insert(&index, &nodes[i], i, nullptr);
    }
    EXPECT_EQ(index.grown_buckets, nullptr);
    for (uint32_t i = 0; i < nodes.size(); ++i) {
        EXPECT_EQ(all(i), (Nodes{&nodes[i]}));
    }
}

} // namespace
