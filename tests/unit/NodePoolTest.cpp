// Tests of the entries that commands leave to each other.
#include "NodePool.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <vector>

namespace
{
typedef std::map<int, const char*> CMap;
typedef std::multimap<uint64_t, const char*> CMultimap;
} // namespace

TEST(NodePool, EntryThatLeftIsTheNextThatEnters)
{
    CMap map;
    CNodePool<CMap> pool;
    const void* const pEntry = &*pool.insert(map, map.end(), 1, "one");
    pool.erase(map, map.begin());
    EXPECT_TRUE(map.empty());
    const auto it = pool.insert(map, map.end(), 2, "two");
    EXPECT_EQ(pEntry, &*it);
    EXPECT_EQ(2, it->first);
    EXPECT_STREQ("two", it->second);
    EXPECT_EQ(1u, map.size());
}

TEST(NodePool, EntriesStandInOrderWhereverTheyComeFrom)
{
    CMap map;
    CNodePool<CMap> pool;
    for (const int nKey : {5, 3, 9})
        pool.insert(map, map.lower_bound(nKey), nKey, "");
    pool.erase(map, map.find(3));
    pool.erase(map, map.find(9));
    for (const int nKey : {7, 1, 8})
        pool.insert(map, map.lower_bound(nKey), nKey, "");
    std::vector<int> vKeys;
    for (const auto& entry : map)
        vKeys.push_back(entry.first);
    EXPECT_EQ((std::vector<int>{1, 5, 7, 8}), vKeys);
}

TEST(NodePool, EntryOfAMultimapStandsBehindThoseOfItsKey)
{
    CMultimap map;
    CNodePool<CMultimap> pool;
    pool.insert(map, 1, "kept");
    pool.insert(map, 2, "leaves");
    pool.erase(map, map.find(2));
    pool.insert(map, 1, "reused");
    pool.insert(map, 1, "new");
    std::vector<std::string> vTexts;
    for (const auto& entry : map)
        vTexts.push_back(entry.second);
    EXPECT_EQ((std::vector<std::string>{"kept", "reused", "new"}), vTexts);
}

TEST(NodePool, NoMoreThan256EntriesAreKept)
{
    CMap map;
    CNodePool<CMap> pool;
    std::vector<const void*> vEntries;
    for (int n = 0; n < 300; ++n)
        vEntries.push_back(&*pool.insert(map, map.end(), n, ""));
    while (!map.empty())
        pool.erase(map, map.begin());
    // The last that was kept comes first.
    for (int n = 255; n >= 0; --n)
        EXPECT_EQ(vEntries[static_cast<size_t>(n)], &*pool.insert(map, map.end(), 255 - n, ""));
    pool.insert(map, map.end(), 1000, "a new one");
    EXPECT_EQ(257u, map.size());
}

TEST(NodePool, ClearedPoolFreesAllThatItKept)
{
    CMap map;
    CNodePool<CMap> pool;
    pool.insert(map, map.end(), 1, "kept");
    const auto itOther = pool.insert(map, map.end(), 2, "stays");
    pool.erase(map, map.begin());
    pool.clear(); // the leak check looks after the rest
    pool.insert(map, map.end(), 3, "a new one");
    EXPECT_EQ(2u, map.size());
    EXPECT_STREQ("stays", itOther->second);
}
