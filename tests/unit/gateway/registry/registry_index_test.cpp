#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "gateway/registry/registry_index.h"

namespace {

using gw_registry::detail::DeviceIndex;

struct FreeNode {
    void operator()(DEV_CNTL_N_S *node) const { std::free(node); }
};
using NodePtr = std::unique_ptr<DEV_CNTL_N_S, FreeNode>;

NodePtr node_with_id(const std::string &id)
{
    NodePtr node(static_cast<DEV_CNTL_N_S *>(std::calloc(1, sizeof(DEV_CNTL_N_S))));
    std::strncpy(node->dev_if.id, id.c_str(), DEV_ID_LEN);
    return node;
}

std::string id_of(int n)
{
    char id[16];
    std::snprintf(id, sizeof id, "dev%05d", n);
    return id;
}

TEST(RegistryIndex, FindsEveryIndexedIdAcrossGrowthAndNothingElse)
{
    DeviceIndex index;
    EXPECT_EQ(nullptr, index.find("dev00000"));
    std::vector<NodePtr> nodes;
    for (int n = 0; n < 1000; ++n) {
        nodes.push_back(node_with_id(id_of(n)));
        index.insert(nodes.back().get());
    }
    EXPECT_EQ(1000u, index.size());
    for (int n = 0; n < 1000; ++n) {
        EXPECT_EQ(nodes[static_cast<size_t>(n)].get(), index.find(id_of(n).c_str())) << id_of(n);
    }
    EXPECT_EQ(nullptr, index.find(id_of(1000).c_str()));
    EXPECT_EQ(nullptr, index.find(nullptr));
}

TEST(RegistryIndex, MatchesWholeIdsOnlyWithTheirLetterCase)
{
    DeviceIndex index;
    NodePtr abc = node_with_id("abc");
    NodePtr longest = node_with_id(std::string(DEV_ID_LEN, 'x'));
    NodePtr eight = node_with_id("abcdefgh"); /* one whole word of the hash, no tail */
    index.insert(abc.get());
    index.insert(longest.get());
    index.insert(eight.get());
    EXPECT_EQ(abc.get(), index.find("abc"));
    EXPECT_EQ(nullptr, index.find("ab"));
    EXPECT_EQ(nullptr, index.find("abcd"));
    EXPECT_EQ(nullptr, index.find("ABC"));
    EXPECT_EQ(nullptr, index.find(""));
    EXPECT_EQ(eight.get(), index.find("abcdefgh"));
    EXPECT_EQ(nullptr, index.find("abcdefg"));
    EXPECT_EQ(longest.get(), index.find(std::string(DEV_ID_LEN, 'x').c_str()));
    /* longer than any node's id array: never compared past it */
    EXPECT_EQ(nullptr, index.find(std::string(DEV_ID_LEN + 1, 'x').c_str()));
    EXPECT_EQ(nullptr, index.find(std::string(DEV_ID_LEN - 1, 'x').c_str()));
}

TEST(RegistryIndex, ErasedIdsAreGoneAndTheOthersStayReachable)
{
    DeviceIndex index;
    std::vector<NodePtr> nodes;
    for (int n = 0; n < 300; ++n) {
        nodes.push_back(node_with_id(id_of(n)));
        index.insert(nodes.back().get());
    }
    /* removals in a random order, so that entries of every probe chain move back over holes */
    std::vector<int> order(300);
    for (int n = 0; n < 300; ++n) {
        order[static_cast<size_t>(n)] = n;
    }
    std::shuffle(order.begin(), order.end(), std::mt19937(7));
    std::vector<bool> erased(300, false);
    for (size_t k = 0; k < 200; ++k) {
        const int n = order[k];
        index.erase(nodes[static_cast<size_t>(n)].get());
        erased[static_cast<size_t>(n)] = true;
        if (k % 50 == 49) {
            for (int m = 0; m < 300; ++m) {
                const DEV_CNTL_N_S *want = erased[static_cast<size_t>(m)] ? nullptr : nodes[static_cast<size_t>(m)].get();
                ASSERT_EQ(want, index.find(id_of(m).c_str())) << id_of(m) << " after " << k + 1 << " removals";
            }
        }
    }
    EXPECT_EQ(100u, index.size());
    index.erase(nodes[static_cast<size_t>(order[0])].get()); /* not indexed any more: nothing happens */
    EXPECT_EQ(100u, index.size());
    for (size_t k = 0; k < 200; ++k) { /* erased ids can be indexed again */
        index.insert(nodes[static_cast<size_t>(order[k])].get());
    }
    EXPECT_EQ(300u, index.size());
    for (int n = 0; n < 300; ++n) {
        EXPECT_EQ(nodes[static_cast<size_t>(n)].get(), index.find(id_of(n).c_str()));
    }
}

TEST(RegistryIndex, ATakenIdIsReplacedAndOnlyItsOwnNodeErasesIt)
{
    DeviceIndex index;
    NodePtr first = node_with_id("same");
    NodePtr second = node_with_id("same");
    index.insert(first.get());
    index.insert(second.get());
    EXPECT_EQ(1u, index.size());
    EXPECT_EQ(second.get(), index.find("same"));
    index.erase(first.get()); /* a node under the same id, but not the one indexed */
    EXPECT_EQ(second.get(), index.find("same"));
    index.erase(second.get());
    EXPECT_EQ(nullptr, index.find("same"));
    EXPECT_EQ(0u, index.size());
}

TEST(RegistryIndex, ClearForgetsEverything)
{
    DeviceIndex index;
    NodePtr node = node_with_id("one");
    index.insert(node.get());
    index.clear();
    EXPECT_EQ(0u, index.size());
    EXPECT_EQ(nullptr, index.find("one"));
    index.insert(node.get());
    EXPECT_EQ(node.get(), index.find("one"));
}

} // namespace
