#include "kl/looper/policies.h"

#include <gtest/gtest.h>

#include "kl/message/system.h"

namespace kl {
namespace {

message requestWith(unsigned int cmd, unsigned int* policy) {
  message m;
  m.insert(SYS_CMD, cmd);
  if (policy != nullptr) m.insert(SYS_POLICY, *policy);
  return m;
}

TEST(PoliciesTest, DefaultTableInOrder) {
  const std::vector<policies::entry> expected = {
      {0xfe0004, 0x40},  {0xfe0015, 0x40},        {0xfe0005, 0x80},  {0xfe0003, 0x80},
      {0xfe0006, 0x80},  {0xfe0007, 0x80},        {0xfe0002, 0x40},  {0xfe0012, 0x40},
      {0xfe0013, 0x40},  {0xfe000b, 0x80000000u}, {0xfe000d, 0x40},  {0xfe000e, 0x80},
      {0xfe0008, 0x80},  {0xfe0016, 0x80},        {0xfe0010, 0x200}, {0xfe000f, 0x200},
      {0xfe0011, 0x200}, {0xfe0001, 0x40},        {0xfe0000, 0x40}};
  EXPECT_EQ(policies().entries(), expected);
}

TEST(PoliciesTest, Decisions) {
  struct Case {
    unsigned int cmd;
    bool hasPolicy;
    unsigned int policy;
    bool allowed;
  } cases[] = {
      {CMD_NOTIFY, false, 0, true},        {0x123456, false, 0, true},
      {0x123456, true, 0x80000000u, true},  // bit 31: unrestricted
      {CMD_GET, true, 0x40, true},         {CMD_GETALL, true, 0x40, true},
      {CMD_GETOBJ, true, 0x40, true},      {CMD_GETPOLICIES, true, 0x40, true},
      {CMD_NOOP, true, 0x40, true},        {CMD_SET, true, 0x40, false},
      {CMD_POLL, true, 0x40, false},       {CMD_NOTIFY, true, 0x40, false},
      {0x123456, true, 0x7fffffff, false}, {CMD_SET, true, 0xC0, true},
      {CMD_START, true, 0x200, true},      {CMD_GET, true, 0, false},
  };
  const policies table;
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << std::hex << "cmd 0x" << c.cmd << " policy 0x" << c.policy);
    unsigned int policy = c.policy;
    EXPECT_EQ(table.is_allowed(requestWith(c.cmd, c.hasPolicy ? &policy : nullptr)), c.allowed);
  }
}

TEST(PoliciesTest, RequestWithoutCommandIsJudgedAsNoop) {
  policies table;
  message m;
  m.insert(SYS_POLICY, 0x40);
  EXPECT_TRUE(table.is_allowed(m));
  table.set_policy(CMD_NOOP, 0x80);
  EXPECT_FALSE(table.is_allowed(m));
}

TEST(PoliciesTest, SettingAndAdding) {
  policies table;
  unsigned int none = 0;
  EXPECT_FALSE(table.is_allowed(requestWith(CMD_GET, &none)));
  table.set_policy(CMD_GET, 0);
  EXPECT_TRUE(table.is_allowed(requestWith(CMD_GET, &none)));
  table.add_policy(CMD_GETALL, 0x80);
  EXPECT_EQ(table.required_policies(CMD_GETALL), 0xC0u);
  // A new command is appended after all others; unknown ones require nothing here.
  table.add_policy(0x777, 0x4);
  EXPECT_EQ(table.entries().back(), policies::entry(0x777, 0x4));
  EXPECT_EQ(table.entries().size(), 20u);
  EXPECT_EQ(table.required_policies(0x778), 0u);
  EXPECT_EQ(table.find_policy(0x778), nullptr);
}

TEST(PoliciesTest, ListingShowsBitsWithoutTheUnrestrictedExemption) {
  const policies table;
  unsigned int policy = 0x40;
  const message listing = table.get_policies(requestWith(CMD_GETPOLICIES, &policy));
  const std::vector<message::flat_message> objs = listing.get_message_array(STD_OBJS);
  ASSERT_EQ(objs.size(), 19u);
  for (size_t i = 0; i < objs.size(); ++i) {
    const message obj(objs[i]);
    SCOPED_TRACE(i);
    EXPECT_EQ(obj.get(STD_ID, 0), table.entries()[i].first);
    EXPECT_EQ(obj.get_u32(0x08000001, 1), table.entries()[i].second);
    const bool allowed = (0x40 & table.entries()[i].second) == table.entries()[i].second;
    EXPECT_EQ(obj.get_bool(0x00000002, !allowed), allowed);
  }
  EXPECT_FALSE(message(objs[11]).get_bool(2, true));  // CMD_SET
  // Without SYS_POLICY the bits are all ones: every entry shows allowed but CMD_NOTIFY's
  // 0x80000000 too, since 0xFFFFFFFF holds it.
  const message all = table.get_policies(message());
  for (const auto& flat : all.get_message_array(STD_OBJS)) {
    EXPECT_TRUE(message(flat).get_bool(2, false));
  }
  unsigned int high = 0x80000040u;
  const message highListing = table.get_policies(requestWith(CMD_GET, &high));
  EXPECT_FALSE(message(highListing.get_message_array(STD_OBJS)[2]).get_bool(2, true));
}

}  // namespace
}  // namespace kl
