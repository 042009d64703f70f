#include <gtest/gtest.h>

#include "kl/message/message.h"
#include "kl/message/system.h"

namespace kl {
namespace {

// A message with one field of every kind, for merge and mask cases.
message sample() {
  message m;
  m.insert_bool(0x00fe0007, true);
  m.insert_bool(0x00000001, false);
  m.insert(SYS_CMD, CMD_GET);
  m.insert(STD_ID, 4);
  m.insert_string(STD_DESCR, "d");
  m.insert_string(0x20000002, "g");
  m.insert_u64(0x10fe0010, 9);
  m.insert(SYS_TO, {1, 2});
  m.insert_string_array(0xa0fe0011, {"x"});
  return m;
}

TEST(Merge, SelfAndEmptyChangeNothing) {
  message a = sample();
  const message before = a;
  a.merge(a);
  a.merge(message());
  EXPECT_TRUE(a == before);
  EXPECT_TRUE(a.same_rep(before));
}

TEST(Merge, IntoAnEmptyMessageShares) {
  const message b = sample();
  message a;
  a.merge(b);
  EXPECT_TRUE(a.same_rep(b));
}

TEST(Merge, OtherWinsAndArraysAreReplaced) {
  message a;
  a.insert(SYS_TO, {1, 2, 3});
  a.insert_string(1, "mine");
  a.insert_u32(2, 2);
  a.insert_bool(3, true);
  message b;
  b.insert(SYS_TO, {9});
  b.insert_string(1, "theirs");
  b.insert_u64(4, 4);
  b.insert_bool(3, false);
  b.insert_bool(5, true);
  a.merge(b);
  EXPECT_EQ(a.get_u32_array(SYS_TO), (std::vector<unsigned int>{9}));
  EXPECT_EQ(a.get_string(1, ""), "theirs");
  EXPECT_EQ(a.get_u32(2, 0), 2u);
  EXPECT_EQ(a.get_u64(4, 0), 4u);
  EXPECT_FALSE(a.get_bool(3, true));
  EXPECT_TRUE(a.get_bool(5, false));
  EXPECT_TRUE(a.includes(b));
}

TEST(Merge, SingleBoolsMeetTables) {
  using Ids = std::vector<unsigned int>;
  const struct {
    const char* name;
    std::vector<unsigned int> mine, theirs;
  } cases[] = {
      {"single into single, same id", Ids{1}, Ids{1}},
      {"single into single, other id", Ids{1}, Ids{2}},
      {"table into single", Ids{1}, Ids{2, 3}},
      {"single into table", Ids{1, 2}, Ids{3}},
      {"table into table", Ids{1, 2}, Ids{2, 3}},
      {"table into none", Ids{}, Ids{2, 3}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    message a, b;
    a.insert_u32(99, 0);  // not empty: merge copies field by field
    for (unsigned int id : c.mine) a.insert_bool(id, false);
    for (unsigned int id : c.theirs) b.insert_bool(id, true);
    a.merge(b);
    for (unsigned int id : c.theirs) EXPECT_TRUE(a.get_bool(id, false)) << id;
    for (unsigned int id : c.mine) {
      if (std::find(c.theirs.begin(), c.theirs.end(), id) == c.theirs.end()) {
        EXPECT_EQ(a.size_bool(id), 1u) << id;
        EXPECT_FALSE(a.get_bool(id, true)) << id;
      }
    }
  }
}

TEST(Includes, SubsetsAndEquality) {
  const message a = sample();
  EXPECT_TRUE(a.includes(message()));
  EXPECT_TRUE(a.includes(a));
  message b = sample();
  b.remove_field(STD_DESCR);
  EXPECT_TRUE(a.includes(b));
  EXPECT_FALSE(b.includes(a));
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a == sample());
}

TEST(Includes, EveryKindOfDifferenceIsSeen) {
  const std::vector<void (*)(message&)> changes = {
      [](message& m) { m.insert_bool(0x00fe0007, false); },
      [](message& m) { m.insert(SYS_CMD, CMD_SET); },
      [](message& m) { m.insert_string(STD_DESCR, "e"); },
      [](message& m) { m.insert_string(STD_DESCR, "dd"); },
      [](message& m) { m.insert_u64(0x10fe0010, 1ull << 40 | 9); },
      [](message& m) { m.insert(SYS_TO, {1}); },
      [](message& m) {
        m.insert(SYS_TO, {2, 1});
      },
      [](message& m) { m.insert_string_array(0xa0fe0011, {"y"}); },
  };
  for (size_t i = 0; i < changes.size(); ++i) {
    SCOPED_TRACE(i);
    message changed = sample();
    changes[i](changed);
    EXPECT_FALSE(changed == sample());
    EXPECT_FALSE(changed.includes(sample()));
    EXPECT_FALSE(sample().includes(changed));
  }
}

TEST(Equality, ExtraFieldOfAnyKindBreaksEquality) {
  const std::vector<void (*)(message&)> extras = {
      [](message& m) { m.insert_bool(77, false); },
      [](message& m) { m.insert_u32(77, 0); },
      [](message& m) { m.insert_string(77, ""); },
      [](message& m) { m.insert_u32_array(77, {}); },
  };
  for (size_t i = 0; i < extras.size(); ++i) {
    SCOPED_TRACE(i);
    message bigger = sample();
    extras[i](bigger);
    EXPECT_TRUE(bigger.includes(sample()));
    EXPECT_FALSE(bigger == sample());
    EXPECT_FALSE(sample() == bigger);
  }
}

TEST(Equality, SingleBoolEqualsTheSameBoolInATable) {
  message single;
  single.insert_bool(1, true);
  message table;
  table.insert_bool(1, true);
  table.insert_bool(2, true);
  table.remove_bool(2);
  EXPECT_TRUE(single == table);
  EXPECT_TRUE(table == single);
  EXPECT_TRUE(single.includes(table));
  table.insert_bool(3, true);
  EXPECT_FALSE(single.includes(table));
}

TEST(Equality, NestedMessagesCompareInFlattenedForm) {
  message x, y;
  x.insert_u32(1, 1);
  x.insert_u32(2, 2);
  y.insert_u32(2, 2);
  y.insert_u32(1, 1);
  message a, b;
  a.insert_message(5, x);
  b.insert_message(5, y);
  EXPECT_TRUE(a == b);  // same ids land in the same slots
  message z;
  z.insert_u32(1, 1);
  b.insert_message(5, z);
  EXPECT_FALSE(a == b);
}

TEST(RemoveIdMask, Table) {
  const struct {
    const char* name;
    uint32_t value, mask;
    unsigned int fieldsLeft;
  } cases[] = {
      {"all standard fields", 0x00fe0000, 0x00ff0000, 4},
      {"all strings", 0x20000000, 0xF8000000, 7},
      {"one u32", uint32_t(SYS_CMD), 0xFFFFFFFF, 8},
      {"one bool", 0x00fe0007, 0xFFFFFFFF, 8},
      {"one array", 0x88ff0001, 0xFFFFFFFF, 8},
      {"mask zero", 0x12345678, 0, 0},
      {"bool type bits only", 0, 0xF8000000, 7},
  };
  auto fieldCount = [](const message& m) {
    unsigned int n = 0;
    for (uint32_t id : {0x00fe0007u, 0x00000001u}) n += m.size_bool(id);
    for (uint32_t id : {uint32_t(SYS_CMD), uint32_t(STD_ID)}) n += m.size_u32(id);
    for (uint32_t id : {STD_DESCR, 0x20000002u, 0x10fe0010u}) n += m.size_field(id);
    for (uint32_t id : {uint32_t(SYS_TO), 0xa0fe0011u}) n += m.has_array(id);
    return n;
  };
  ASSERT_EQ(fieldCount(sample()), 9u);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    message m = sample();
    m.removeIdMask(c.value, c.mask);
    EXPECT_EQ(fieldCount(m), c.fieldsLeft);
  }
}

TEST(RemoveIdMask, StandardNamespaceLeavesOthers) {
  message m = sample();
  m.removeIdMask(0x00fe0000, 0x00ff0000);
  EXPECT_EQ(m.size_bool(0x00fe0007), 0u);
  EXPECT_EQ(m.size_u32(STD_ID), 0u);
  EXPECT_EQ(m.size_field(STD_DESCR), 0u);
  EXPECT_FALSE(m.has_array(0xa0fe0011));
  EXPECT_EQ(m.get(SYS_CMD, 0), CMD_GET);
  EXPECT_EQ(m.get_string(0x20000002, ""), "g");
  message nil;
  nil.removeIdMask(0, 0);
  EXPECT_TRUE(nil.is_nil());
}

TEST(Remove, AbsentFieldOnASharedMessageLeavesTheSharerAlone) {
  const message a = sample();
  message b = a;
  b.remove_u32(0x12345);
  b.remove_field(0x20000099);
  EXPECT_FALSE(a.same_rep(b));
  EXPECT_TRUE(a == b);
  b.remove(STD_ID);
  EXPECT_EQ(a.get(STD_ID, 0), 4u);
}

TEST(Remove, FieldAndArrayRemoveOnlyTheirId) {
  message m;
  m.insert_string(1, "a");
  m.insert_raw(1, {1});
  m.insert_string_array(1, {"a"});
  m.remove_field(0x20000001);
  EXPECT_EQ(m.size_field(0x20000001), 0u);
  EXPECT_EQ(m.size_field(0x30000001), 1u);
  m.remove_array(0xa0000001);
  EXPECT_FALSE(m.has_array(0xa0000001));
}

}  // namespace
}  // namespace kl
