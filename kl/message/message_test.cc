#include "kl/message/message.h"

#include <gtest/gtest.h>

#include "kl/message/system.h"

namespace kl {
namespace {

using Bytes = std::vector<unsigned char>;

IPAddr6 addr(unsigned char last) {
  IPAddr6 a;
  a.bytes[0] = 0x20;
  a.bytes[15] = last;
  return a;
}

TEST(Message, DefaultMessagesShareTheEmptyRepresentation) {
  message a, b;
  EXPECT_TRUE(a.is_nil());
  EXPECT_TRUE(a.same_rep(b));
  EXPECT_TRUE(a.empty());
  message decoded(nullptr, 0);
  EXPECT_TRUE(decoded.empty());
  EXPECT_FALSE(decoded.is_nil());
}

TEST(Message, ScalarsOfEveryTypeRoundTrip) {
  message m;
  m.insert_bool(1, true);
  m.insert_u32(2, 0xdeadbeef);
  m.insert_u64(3, 0x0123456789abcdefull);
  m.insert_addr6(4, addr(9));
  m.insert_string(5, "hello");
  m.insert_raw(6, Bytes{0, 1, 2});
  message nested;
  nested.insert_u32(1, 7);
  m.insert_message(7, nested);

  EXPECT_TRUE(m.get_bool(1, false));
  EXPECT_EQ(m.get_u32(2, 0), 0xdeadbeefu);
  EXPECT_EQ(m.get_u64(3, 0), 0x0123456789abcdefull);
  EXPECT_EQ(m.get_addr6(4), addr(9));
  EXPECT_EQ(m.get_string(5, ""), "hello");
  EXPECT_EQ(m.get_raw(6, {}), (Bytes{0, 1, 2}));
  EXPECT_EQ(message(m.get_message(7, {})).get_u32(1, 0), 7u);

  // Absent fields give the default, and the typed accessors see only their own type.
  EXPECT_EQ(m.get_u32(1, 42), 42u);
  EXPECT_EQ(m.get_string(2, "none"), "none");
  EXPECT_EQ(m.get_addr6(5), IPAddr6());
  const message& view = m;  // the const forms look without creating
  EXPECT_EQ(view.get_u32_ref(9), nullptr);
  EXPECT_EQ(view.get_string_ref(9), nullptr);
}

TEST(Message, TypedAccessorsForceTheirTypeBits) {
  message m;
  m.insert_string(0x08000003, "s");
  EXPECT_EQ(m.size_field(0x20000003), 1u);
  EXPECT_EQ(m.size_field(0x08000003), 0u);
  m.insert(u32_id(0x20ff0006), 5);
  EXPECT_EQ(m.get_u32(0x08ff0006, 0), 5u);
  EXPECT_EQ(m.get(SYS_REQID, 0), 5u);
  m.insert_vector(0xff0001, 9);
  EXPECT_TRUE(m.has_array(0x88ff0001));
  EXPECT_TRUE(m.has(SYS_TO));
  EXPECT_FALSE(m.has(SYS_FROM));
}

TEST(Message, StoringTheSameU32TwiceKeepsOneField) {
  message m;
  m.insert(SYS_CMD, 1);
  m.insert(SYS_CMD, 2);
  EXPECT_EQ(m.get(SYS_CMD, 0), 2u);
  EXPECT_EQ(m.size_u32(SYS_CMD), 1u);
  EXPECT_EQ(m.max_length(), 2u + 8u);
}

TEST(Message, BE32FormsStoreNetworkOrder) {
  message m;
  m.insert_be32(1, 0x0a000001);
  EXPECT_EQ(m.get_u32(1, 0), 0x0100000au);
  EXPECT_EQ(m.get_be32(1, 0), 0x0a000001u);
  m.insert_be32_array(2, {0x01020304, 5});
  EXPECT_EQ(m.get_u32_array(2), (std::vector<unsigned int>{0x04030201, 0x05000000}));
  EXPECT_EQ(m.get_be32_array(2), (std::vector<unsigned int>{0x01020304, 5}));
}

TEST(Message, ArraysOfEveryTypeRoundTrip) {
  message m;
  m.insert_bool_array(1, {true, false, true});
  m.insert_u32_array(2, {1, 2});
  m.insert_u64_array(3, {1ull << 40});
  m.insert_addr6_array(4, {addr(1), addr(2)});
  m.insert_string_array(5, {"a", "", "c"});
  m.insert_raw_array(6, {Bytes{1}, Bytes{}});
  m.insert_message_array(7, {message::flat_message(message())});

  EXPECT_EQ(m.get_bool_array(1), (std::vector<bool>{true, false, true}));
  EXPECT_EQ(m.get_u32_array(2), (std::vector<unsigned int>{1, 2}));
  EXPECT_EQ(m.get_u64_array(3), (std::vector<unsigned long long>{1ull << 40}));
  EXPECT_EQ(m.get_addr6_array(4), (std::vector<IPAddr6>{addr(1), addr(2)}));
  EXPECT_EQ(m.get_string_array(5), (std::vector<std::string>{"a", "", "c"}));
  EXPECT_EQ(m.get_raw_array(6), (std::vector<Bytes>{Bytes{1}, Bytes{}}));
  EXPECT_EQ(m.size_message_array(7), 1u);
  EXPECT_EQ(m.size_bool_array(1), 3u);
  EXPECT_EQ(m.size_unsigned_array(2), 2u);
  EXPECT_EQ(m.size_u64_array(3), 1u);
  EXPECT_EQ(m.size_addr6_array(4), 2u);
  EXPECT_EQ(m.size_string_array(5), 3u);
  EXPECT_EQ(m.size_raw_array(6), 2u);
  EXPECT_EQ(m.size_unsigned_array(5), 0u);  // same number, other type
  EXPECT_TRUE(m.get_u32_array(99).empty());

  m.insert_u32_array(2, {7});  // replaces, never appends
  EXPECT_EQ(m.get_u32_array(2), (std::vector<unsigned int>{7}));
}

TEST(Message, OneBoolStaysInlineAndASecondMovesBothIntoATable) {
  message m;
  m.insert_bool(1, true);
  EXPECT_EQ(m.max_length(), 2u + 4u);
  m.insert_bool(1, false);
  EXPECT_FALSE(m.get_bool(1, true));
  m.insert_bool(2, true);
  EXPECT_FALSE(m.get_bool(1, true));
  EXPECT_TRUE(m.get_bool(2, false));
  m.remove_bool(1);
  m.remove_bool(2);
  EXPECT_EQ(static_cast<const message&>(m).get_bool_ref(1), nullptr);
  m.insert_bool(3, true);  // the table stays in use after removals
  EXPECT_TRUE(m.get_bool(3, false));
  EXPECT_EQ(m.size_bool(3), 1u);
}

TEST(Message, CopiesShareUntilAWrite) {
  message a;
  a.insert(SYS_CMD, 1);
  message b = a;
  EXPECT_TRUE(a.same_rep(b));
  b.insert(SYS_CMD, 2);
  EXPECT_FALSE(a.same_rep(b));
  EXPECT_EQ(a.get(SYS_CMD, 0), 1u);
  EXPECT_EQ(b.get(SYS_CMD, 0), 2u);
}

TEST(Message, EveryMutationUnshares) {
  message base;
  base.insert_string(1, "x");
  base.insert_u32_array(2, {1});
  base.insert_bool(3, true);
  base.insert(SYS_CMD, 1);
  const std::vector<void (*)(message&)> mutations = {
      [](message& m) { m.insert_u64(9, 1); },
      [](message& m) { m.remove_field(0x20000001); },
      [](message& m) { m.remove_array(0x88000002); },
      [](message& m) { m.remove_bool(3); },
      [](message& m) { m.remove(SYS_CMD); },
      [](message& m) { m.remove_u32(0x12345); },  // absent: still unshares
      [](message& m) { m.removeIdMask(0, 0); },
      [](message& m) { m.get_string_ref(1) = "y"; },
      [](message& m) { m[u32_array_id(2)].push_back(5); },
      [](message& m) {
        message other;
        other.insert_u32(7, 7);
        m.merge(other);
      },
  };
  const message snapshot = base;
  for (size_t i = 0; i < mutations.size(); ++i) {
    SCOPED_TRACE(i);
    message copy = base;
    mutations[i](copy);
    EXPECT_FALSE(copy.same_rep(base));
    EXPECT_TRUE(base == snapshot);
    EXPECT_EQ(base.get_string(1, ""), "x");
    EXPECT_EQ(base.get(SYS_CMD, 0), 1u);
  }
}

TEST(Message, MutableReferenceMakesTheMessageUnshareable) {
  message a;
  std::string& ref = a.get_string_ref(3);
  message b = a;  // clones at once
  EXPECT_FALSE(a.same_rep(b));
  ref = "written later";
  EXPECT_EQ(b.get_string(3, "?"), "");
  EXPECT_EQ(a.get_string(3, "?"), "written later");
  message c;
  c = a;
  EXPECT_FALSE(c.same_rep(a));
}

TEST(Message, MutableReferencesCreateZeroValues) {
  message m;
  EXPECT_EQ(m.get_u32_ref(5), 0u);
  EXPECT_FALSE(m.get_bool_ref(5));
  EXPECT_EQ(m.get_u64_ref(5), 0u);
  EXPECT_EQ(m.get_addr6_ref(5), IPAddr6());
  EXPECT_TRUE(m.get_raw_ref(5).empty());
  EXPECT_TRUE(m.get_u32_array_ref(5).empty());
  EXPECT_EQ(m.size_u32(5), 1u);
  EXPECT_EQ(m.size_bool(5), 1u);
  EXPECT_TRUE(m.has_array(0x88000005));
}

TEST(Message, CloneKeepsEveryField) {
  message a;
  a.insert_bool(1, true);
  a.insert_bool(2, false);
  for (unsigned int i = 0; i < 20; ++i) a.insert_u32(i, i * 3);
  a.insert_string(1, "one");
  a.insert_u64(2, 2);
  a.insert_string_array(3, {"x"});
  a.insert_addr6_array(4, {addr(4)});
  message b = a;
  b.clone();
  EXPECT_FALSE(a.same_rep(b));
  EXPECT_TRUE(a == b);
}

}  // namespace
}  // namespace kl
