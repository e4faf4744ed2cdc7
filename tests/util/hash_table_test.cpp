#include <gtest/gtest.h>

#include <stdint.h>

#include <string>
#include <vector>

#include "oxa_hash.h"

namespace {

using StringSlot = OXA_SIMPLE_HASH_SLOT;
using IntSlot = OXA_SIMPLE_INT_HASH_SLOT;

void* Data(uintptr_t value) { return reinterpret_cast<void*>(value); }

// Owns a table for one test.
class IntTable {
 public:
  explicit IntTable(unsigned int capacity) { EXPECT_EQ(0, OXA_SimpleIntHashCreate(capacity, &t_)); }
  ~IntTable() { EXPECT_EQ(0, OXA_SimpleIntHashDestroy(t_)); }
  IntTable(const IntTable&) = delete;
  IntTable& operator=(const IntTable&) = delete;

  OXA_SIMPLE_HASH get() const { return t_; }
  const IntSlot& slot(unsigned int index) const { return static_cast<IntSlot*>(t_->slots)[index]; }
  int Enter(unsigned int key, uintptr_t data) const {
    return OXA_SimpleIntHashEnter({key, Data(data)}, t_);
  }
  // The key's data, or -1 when absent.
  intptr_t Find(unsigned int key) const {
    void* data = Data(99);
    const int result = OXA_SimpleIntHashFind(key, &data, t_);
    if (result != 0) {
      EXPECT_EQ(nullptr, data);
    }
    return result == 0 ? reinterpret_cast<intptr_t>(data) : -1;
  }

 private:
  OXA_SIMPLE_HASH t_ = nullptr;
};

TEST(SimpleHash, TableSizeIsTheNextPrimeFromCapacityOrOne) {
  const std::vector<std::pair<unsigned int, unsigned int>> cases = {
      {0, 1}, {1, 1}, {2, 5}, {3, 5}, {7, 7}, {9, 11}, {10, 11}, {24, 29}, {48, 53}, {120, 127}};
  for (const auto& [capacity, size] : cases) {
    OXA_SIMPLE_HASH table = nullptr;
    ASSERT_EQ(0, OXA_SimpleHashCreate(capacity, &table));
    EXPECT_EQ(size, table->size) << capacity;
    EXPECT_EQ(0u, table->filled);
    EXPECT_EQ(0, OXA_SimpleHashDestroy(table));
  }
  EXPECT_EQ(-1, OXA_SimpleHashCreate(10, nullptr));
  OXA_SIMPLE_HASH table = nullptr;
  EXPECT_EQ(-1, OXA_SimpleIntHashCreate(0xFFFFFFFFu, &table));  // no size fits in 32 bits
  EXPECT_EQ(nullptr, table);
  EXPECT_EQ(-1, OXA_SimpleHashDestroy(nullptr));
  EXPECT_EQ(0u, OXA_HSEARCH_DATA.size + OXA_HSEARCH_INTDATA.size);
}

TEST(SimpleHash, StringKeysLandAtTheirHomeIndexAndFollowTheEnterRules) {
  OXA_SIMPLE_HASH table = nullptr;
  ASSERT_EQ(0, OXA_SimpleHashCreate(10, &table));
  // "a": length 1, then (1 << 4) + 'a' = 113, and 113 mod 11 = 3.
  ASSERT_EQ(0, OXA_SimpleHashEnter({"a", Data(1)}, table));
  const StringSlot& home = static_cast<StringSlot*>(table->slots)[3];
  EXPECT_EQ(3u, home.used);
  EXPECT_STREQ("a", home.key);

  const std::string copy = "a";  // keys compare by content
  EXPECT_EQ(0, OXA_SimpleHashEnter({copy.c_str(), Data(1)}, table));
  EXPECT_EQ(-1, OXA_SimpleHashEnter({copy.c_str(), Data(2)}, table));
  void* data = nullptr;
  EXPECT_EQ(0, OXA_SimpleHashFind(copy.c_str(), &data, table));
  EXPECT_EQ(Data(1), data);  // the old data is kept
  EXPECT_EQ(1u, table->filled);
  EXPECT_EQ(-1, OXA_SimpleHashFind("b", &data, table));
  EXPECT_EQ(nullptr, data);

  EXPECT_EQ(-1, OXA_SimpleHashEnter({nullptr, Data(1)}, table));
  EXPECT_EQ(-1, OXA_SimpleHashFind(nullptr, &data, table));
  EXPECT_EQ(-1, OXA_SimpleHashFind("a", nullptr, table));
  EXPECT_EQ(-1, OXA_SimpleHashRemove("b", table));
  EXPECT_EQ(0, OXA_SimpleHashRemove("a", table));
  EXPECT_EQ(-1, OXA_SimpleHashFind("a", &data, table));
  EXPECT_EQ(0u, table->filled);
  EXPECT_EQ(-1, OXA_SimpleHashEnter({"a", Data(1)}, nullptr));
  EXPECT_EQ(0, OXA_SimpleHashDestroy(table));
}

TEST(SimpleHash, CollidingIntegerKeysFollowTheProbeSequence) {
  IntTable table(10);  // size 11
  ASSERT_EQ(0, table.Enter(3, 30));
  ASSERT_EQ(0, table.Enter(14, 140));  // home 3, step 1 + 3 mod 9 = 4: 3 -> 10
  ASSERT_EQ(0, table.Enter(25, 250));  // 3 -> 10 -> 6
  ASSERT_EQ(0, table.Enter(22, 220));  // 22 mod 11 = 0 counts as 1
  EXPECT_EQ(14u, table.slot(10).key);
  EXPECT_EQ(~14u, table.slot(10).marker);
  EXPECT_EQ(25u, table.slot(6).key);
  EXPECT_EQ(22u, table.slot(1).key);

  // Removing the head of the chain moves its last entry up; the others stay reachable.
  ASSERT_EQ(0, OXA_SimpleIntHashRemove(3, table.get()));
  EXPECT_EQ(25u, table.slot(3).key);
  EXPECT_NE(table.slot(6).marker, ~table.slot(6).key);  // freed
  EXPECT_EQ(-1, table.Find(3));
  EXPECT_EQ(140, table.Find(14));
  EXPECT_EQ(250, table.Find(25));
  EXPECT_EQ(3u, table.get()->filled);
  EXPECT_EQ(-1, OXA_SimpleIntHashRemove(3, table.get()));
  EXPECT_EQ(-1, OXA_SimpleIntHashRemove(5, table.get()));  // free home slot
}

TEST(SimpleHash, AFullTableRefusesNewKeysButStillRemovesAndRefills) {
  IntTable table(5);  // size 5; keys 1, 6, 11, 16, 21 all have home 1
  for (unsigned int key = 1; key <= 21; key += 5)
    ASSERT_EQ(0, table.Enter(key, key));
  EXPECT_EQ(5u, table.get()->filled);
  EXPECT_EQ(-1, table.Enter(26, 26));
  EXPECT_EQ(-1, table.Enter(2, 2));
  EXPECT_EQ(0, table.Enter(6, 6));  // present with the same data
  EXPECT_EQ(-1, table.Enter(6, 7));

  ASSERT_EQ(0, OXA_SimpleIntHashRemove(6, table.get()));  // moves 21 in a full table
  EXPECT_EQ(4u, table.get()->filled);
  for (unsigned int key : {1u, 11u, 16u, 21u})
    EXPECT_EQ(static_cast<intptr_t>(key), table.Find(key));
  EXPECT_EQ(-1, table.Find(6));
  EXPECT_EQ(0, table.Enter(26, 26));
  EXPECT_EQ(26, table.Find(26));
  EXPECT_EQ(-1, table.Enter(31, 31));
}

TEST(SimpleHash, SizeOneTableHoldsOneKey) {
  IntTable table(0);
  ASSERT_EQ(1u, table.get()->size);
  EXPECT_EQ(0, table.Enter(7, 70));
  EXPECT_EQ(-1, table.Enter(8, 80));
  EXPECT_EQ(-1, table.Find(8));
  EXPECT_EQ(70, table.Find(7));
  EXPECT_EQ(0, OXA_SimpleIntHashRemove(7, table.get()));
  EXPECT_EQ(0, table.Enter(0, 5));  // key 0: its marker is all ones, not a free slot
  EXPECT_EQ(5, table.Find(0));
}

}  // namespace
