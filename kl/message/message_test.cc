#include "kl/message/message.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>

#include "kl/base/endian.h"
#include "kl/base/sanitizer.h"
#include "kl/message/htable.h"
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

// The ids of the records of a message that holds only bools and u32 values below 256, in
// wire order.
std::vector<uint32_t> recordIds(const message& m) {
  Bytes bytes;
  m.flatten(bytes);
  std::vector<uint32_t> ids;
  for (size_t off = 2; off + 4 <= bytes.size();) {
    const uint32_t word = loadLe32(&bytes[off]);
    ids.push_back(word & ~kWireFlagBit);
    off += (word & kTypeMask) == kTypeU32 ? 5 : 4;
  }
  return ids;
}

// Overwriting a field when its table is at the growth threshold grows the table, whichever
// way the value arrives, for bools as for u32 values: the record order shows the capacity.
TEST(Message, OverwriteAtTheGrowthThresholdGrowsBoolAndU32Tables) {
  enum Path { kInsert, kDecode, kMerge };
  struct Case {
    const char* name;
    uint32_t type;
    Path path;
  };
  const Case cases[] = {
      {"bool insert", kTypeBool, kInsert}, {"bool decode", kTypeBool, kDecode},
      {"bool merge", kTypeBool, kMerge},   {"u32 insert", kTypeU32, kInsert},
      {"u32 decode", kTypeU32, kDecode},   {"u32 merge", kTypeU32, kMerge},
  };
  const uint32_t numbers[] = {10, 21, 1, 2, 3};  // 10 and 21 share a slot in 11, not in 22
  const uint32_t again = 21;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    htable<unsigned int> model;  // five entries, then the overwrite
    for (uint32_t n : numbers) model.get_ref(c.type | n) = 1;
    model.get_ref(c.type | again) = 0;
    std::vector<uint32_t> expected;
    model.forEach([&expected](uint32_t id, unsigned int) { expected.push_back(id); });
    ASSERT_EQ(model.capacity(), 22u);

    auto put = [&c](message& m, uint32_t n, unsigned int v) {
      if (c.type == kTypeBool) {
        m.insert_bool(n, v != 0);
      } else {
        m.insert_u32(n, v);
      }
    };
    message m;
    if (c.path == kDecode) {
      Bytes wire = {0x4D, 0x32};
      auto record = [&wire, &c](uint32_t n, unsigned int v) {
        const uint32_t word = c.type | n | (c.type == kTypeBool && v == 0 ? 0 : kWireFlagBit);
        unsigned char b[4];
        storeLe32(b, word);
        wire.insert(wire.end(), b, b + 4);
        if (c.type == kTypeU32) wire.push_back(static_cast<unsigned char>(v));
      };
      for (uint32_t n : numbers) record(n, 1);
      record(again, 0);
      ASSERT_TRUE(m.unflatten(wire.data(), wire.size(), message::flatten_full));
    } else {
      for (uint32_t n : numbers) put(m, n, 1);
      if (c.path == kInsert) {
        put(m, again, 0);
      } else {
        message other;
        put(other, again, 0);
        m.merge(other);
      }
    }
    EXPECT_EQ(recordIds(m), expected);
    EXPECT_EQ(c.type == kTypeBool ? m.get_bool(again, true) : m.get_u32(again, 9) != 0, false);
  }
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

// operator[] unshares like any mutation but, unlike the get_*_ref accessors, hands out no
// lasting permission to write: a later copy shares and keeps the list order.
TEST(Message, BracketArrayAccessLeavesTheMessageShareable) {
  message a;
  a.insert_string(1, "one");
  a.insert_string(2, "two");
  message before = a;
  a[u32_array_id(5)].push_back(7);
  EXPECT_FALSE(a.same_rep(before));
  EXPECT_TRUE(before.get_u32_array(5).empty());
  message b = a;
  EXPECT_TRUE(b.same_rep(a));
  Bytes wireA, wireB;
  a.flatten(wireA);
  b.flatten(wireB);
  EXPECT_EQ(wireA, wireB);
  EXPECT_EQ(b.get_u32_array(5), std::vector<unsigned int>{7});
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

// A message keeps its list nodes in the block of its representation, in a second block
// once that is full, and on their own beyond both; once the lists are long, an index finds
// them. Whatever the shape of its life (built or decoded, grown past the index and shrunk
// below it again, copied), every field stays where an accessor finds it.
TEST(Message, FieldsAreFoundWhereverTheirNodesLive) {
  struct Shape {
    const char* name;
    unsigned int fields;  // list nodes: strings, u64 values, address and u32 arrays
    unsigned int kept;    // fields left after the removals
    unsigned int added;   // fields added after them
  };
  const Shape shapes[] = {
      {"one node", 1, 1, 0},
      {"a few", 4, 2, 2},
      {"past the pool", 9, 3, 6},
      {"past the chunk", 24, 20, 4},
      {"index, then shrunk", 40, 3, 5},
  };
  for (const Shape& shape : shapes) {
    for (const bool decoded : {false, true}) {
      SCOPED_TRACE(std::string(shape.name) + (decoded ? ", decoded" : ", built"));
      std::map<uint32_t, std::string> model;  // string fields by id
      message built;
      auto put = [&model](message& m, uint32_t n) {
        const std::string text = "value of field " + std::to_string(n);
        m.insert_string(0x20fd0000 | n, text);
        m.insert_u64(0x10fd0000 | n, n);
        m.insert_addr6_array(0x98fd0000 | n, {addr(static_cast<unsigned char>(n))});
        m.insert_u32_array(0x88fd0000 | n, {n, n + 1});
        model[n] = text;
      };
      for (uint32_t n = 1; n <= shape.fields; ++n) put(built, n);
      message m = built;
      if (decoded) {
        Bytes bytes;
        built.flatten(bytes);
        m = message(bytes);
      }
      for (uint32_t n = shape.kept + 1; n <= shape.fields; ++n) {
        m.remove_field(0x20fd0000 | n);
        m.remove_field(0x10fd0000 | n);
        m.remove_array(0x98fd0000 | n);
        m.remove_array(0x88fd0000 | n);
        model.erase(n);
      }
      for (uint32_t n = 100; n < 100 + shape.added; ++n) put(m, n);
      const message copy = m;
      m.insert_u32(1, 1);  // the write makes m a copy of its own
      for (const message* which : {static_cast<const message*>(&m), &copy}) {
        for (uint32_t n = 1; n < 100 + shape.added; ++n) {
          const bool present = model.count(n) != 0;
          ASSERT_EQ(which->size_field(0x20fd0000 | n) != 0, present) << n;
          if (!present) continue;
          EXPECT_EQ(which->get_string(0x20fd0000 | n, ""), model[n]);
          EXPECT_EQ(which->get_u64(0x10fd0000 | n, 0), n);
          EXPECT_EQ(which->get_u32_array(0x88fd0000 | n), (std::vector<unsigned int>{n, n + 1}));
          EXPECT_EQ(which->get_addr6_array(0x98fd0000 | n).size(), 1u);
        }
      }
      Bytes again;
      copy.flatten(again);
      EXPECT_TRUE(message(again) == copy);
    }
  }
}

// Freed representations are reused: a message built from a reused one must start as empty
// as a fresh one, whatever the last owner left in it (a grown table, an index, a side
// buffer).
// Small blocks (built messages) and large ones (decoded) are reused alike.
TEST(Message, ReusedRepresentationsStartEmpty) {
  std::vector<message> used;
  for (int i = 0; i < 40; ++i) {
    message m;
    m.insert_bool(1, true);
    m.insert_bool(2, true);
    for (unsigned int i = 0; i < 30; ++i) m.insert_u32(i, i);
    for (unsigned int i = 0; i < 20; ++i) m.insert_string(i, "value");
    m.insert_u32_array(7, {1, 2, 3});
    Bytes bytes;
    m.flatten(bytes);
    m.unflatten(bytes.data(), bytes.size(), message::flatten_keep_passthrough);
    used.push_back(m);
    used.emplace_back(bytes);
  }
  used.clear();
  for (int round = 0; round < 40; ++round) {
    message fresh;
    fresh.insert_u32(3, 33);
    fresh.insert_string(8, std::string(40, 'x'));  // long enough for a large block
    Bytes want;
    fresh.flatten(want);
    message built;
    built.insert_u32(3, 33);
    built.insert_string(8, std::string(40, 'x'));
    const message decoded(want);
    for (const message* m : {static_cast<const message*>(&built), &decoded}) {
      EXPECT_EQ(m->size_bool(1), 0u);
      EXPECT_EQ(m->size_u32(4), 0u);
      EXPECT_EQ(m->size_field(0x20000005), 0u);
      EXPECT_FALSE(m->has_array(0x88000007));
      EXPECT_EQ(m->passthrough(), nullptr);
      Bytes got;
      m->flatten(got);
      EXPECT_EQ(got, want);
    }
  }
}

#ifdef KL_ADDRESS_SANITIZER
// A released representation kept for reuse is poisoned: a reference kept past the release
// of its message is still reported by the sanitizer.
TEST(Message, KeptRepresentationsArePoisoned) {
  message m;
  m.insert_string(1, "lives in the node pool");
  const std::string* value = static_cast<const message&>(m).get_string_ref(1);
  ASSERT_NE(value, nullptr);
  EXPECT_FALSE(__asan_address_is_poisoned(value));
  m = message();
  EXPECT_TRUE(__asan_address_is_poisoned(value));
  message again;
  again.insert_string(1, "x");
  EXPECT_FALSE(__asan_address_is_poisoned(static_cast<const message&>(again).get_string_ref(1)));
}
#endif

// Messages may be built on one thread and dropped on another, and a thread that ends
// returns what it kept (the sanitizer build reports a leak or a double free here).
TEST(Message, MessagesCrossThreads) {
  std::vector<message> made(50);
  std::thread maker([&made]() {
    for (unsigned int i = 0; i < made.size(); ++i) made[i].insert_u32(1, i);
    std::vector<message> dropped(50);
    for (message& m : dropped) m.insert_string(2, "kept by this thread, then freed");
  });
  maker.join();
  for (unsigned int i = 0; i < made.size(); ++i) EXPECT_EQ(made[i].get_u32(1, 0), i);
  made.clear();
  message after;
  after.insert_u32(1, 9);
  EXPECT_EQ(after.get_u32(1, 0), 9u);
}

}  // namespace
}  // namespace kl
