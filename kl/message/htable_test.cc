#include "kl/message/htable.h"

#include <gtest/gtest.h>

#include <vector>

namespace kl {
namespace {

std::vector<uint32_t> slotOrder(const htable<unsigned int>& t) {
  std::vector<uint32_t> ids;
  t.forEach([&ids](uint32_t id, unsigned int) { ids.push_back(id); });
  return ids;
}

TEST(Htable, GrowsOnTheSixthAndThirteenthEntry) {
  htable<unsigned int> t;
  for (uint32_t id = 1; id <= 5; ++id) t.get_ref(id) = id;
  EXPECT_EQ(t.capacity(), 11u);
  t.get_ref(6) = 6;
  EXPECT_EQ(t.capacity(), 22u);
  for (uint32_t id = 7; id <= 12; ++id) t.get_ref(id) = id;
  EXPECT_EQ(t.capacity(), 22u);
  t.get_ref(13) = 13;
  EXPECT_EQ(t.capacity(), 44u);
  EXPECT_EQ(t.count(), 13u);
  for (uint32_t id = 1; id <= 13; ++id) EXPECT_EQ(*t.find(id), id);
}

TEST(Htable, OverwriteAtTheThresholdAlsoGrows) {
  htable<unsigned int> t;
  for (uint32_t id = 1; id <= 5; ++id) t.get_ref(id) = id;
  t.get_ref(3) = 33;
  EXPECT_EQ(t.capacity(), 22u);
  EXPECT_EQ(t.count(), 5u);
  EXPECT_EQ(*t.find(3), 33u);
}

TEST(Htable, SlotOrderFollowsRemainderAndLinearProbe) {
  htable<unsigned int> t;
  t.get_ref(12) = 0;  // 12 % 11 = 1
  t.get_ref(11) = 0;  // 0
  t.get_ref(22) = 0;  // 0, taken: probes to 1, taken: 2
  t.get_ref(10) = 0;  // 10
  EXPECT_EQ(slotOrder(t), (std::vector<uint32_t>{11, 12, 22, 10}));
}

TEST(Htable, ProbeWrapsFromTheLastSlot) {
  htable<unsigned int> t;
  t.get_ref(10) = 1;
  t.get_ref(21) = 2;  // 21 % 11 = 10, taken: wraps to slot 0
  EXPECT_EQ(slotOrder(t), (std::vector<uint32_t>{21, 10}));
  EXPECT_EQ(*t.find(21), 2u);
}

TEST(Htable, DeletedSlotIsPassedByLookupAndReusedByInsert) {
  htable<unsigned int> t;
  t.get_ref(0) = 1;
  t.get_ref(11) = 2;  // slot 1
  EXPECT_TRUE(t.remove(0));
  EXPECT_EQ(t.find(0), nullptr);
  ASSERT_NE(t.find(11), nullptr);  // the lookup passes the deleted slot 0
  t.get_ref(22) = 3;               // takes deleted slot 0, not never-used slot 2
  EXPECT_EQ(slotOrder(t), (std::vector<uint32_t>{22, 11}));
  EXPECT_EQ(t.count(), 2u);
  EXPECT_FALSE(t.remove(0));
}

TEST(Htable, CopyIsVerbatim) {
  htable<bool> t;
  for (uint32_t id = 0; id < 8; ++id) t.get_ref(id * 7) = id % 2;
  t.remove(14);
  htable<bool> copy(t);
  EXPECT_EQ(copy.capacity(), t.capacity());
  EXPECT_EQ(copy.count(), t.count());
  std::vector<uint32_t> a, b;
  t.forEach([&a](uint32_t id, bool) { a.push_back(id); });
  copy.forEach([&b](uint32_t id, bool) { b.push_back(id); });
  EXPECT_EQ(a, b);
}

}  // namespace
}  // namespace kl
