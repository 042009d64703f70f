#include <gtest/gtest.h>

#include <string>

#include "kl/base/endian.h"
#include "kl/message/message.h"
#include "kl/message/system.h"
#include "kl/testing/hex.h"

namespace kl {
namespace {

using Bytes = std::vector<unsigned char>;
using testing::fromHex;
using testing::toHex;

Bytes flat(const message& m) {
  Bytes out;
  m.flatten(out);
  return out;
}

// Decodes `bytes` into a fresh message in `mode`; the message is stored in *out.
bool decode(const Bytes& bytes, message* out, message::flatten_type mode = message::flatten_full) {
  *out = message();
  return out->unflatten(bytes.data(), bytes.size(), mode);
}

bool decodes(const std::string& hex) {
  message m;
  return decode(fromHex(hex), &m);
}

message workedExample() {
  message m;
  m.insert(SYS_TO, {5});
  m.insert(SYS_TYPE, 1);
  m.insert_bool(0x00000004, true);
  m.insert_string(0x20000003, "ab");
  return m;
}

const char kWorkedExample[] =
    "4D 32 01 00 FF 88 01 00 05 00 00 00 04 00 00 01 03 00 FF 09 01 03 00 00 21 02 61 62";

TEST(Wire, WorkedExampleEncodesToItsTwentyEightBytes) {
  const message m = workedExample();
  EXPECT_EQ(m.max_length(), 32u);
  EXPECT_EQ(toHex(flat(m)), kWorkedExample);
  message back;
  ASSERT_TRUE(decode(fromHex(kWorkedExample), &back));
  EXPECT_TRUE(back == m);
}

TEST(Wire, TruncatedEncodingsFailExceptAtRecordBoundaries) {
  const Bytes whole = fromHex(kWorkedExample);
  const size_t boundaries[] = {0, 2, 12, 16, 21, 28};
  for (size_t len = 0; len <= whole.size(); ++len) {
    SCOPED_TRACE(len);
    const bool boundary =
        std::find(std::begin(boundaries), std::end(boundaries), len) != std::end(boundaries);
    message m;
    EXPECT_EQ(m.unflatten(whole.data(), len, message::flatten_full), boundary);
  }
}

TEST(Wire, EmptyAndMagicOnlyBuffers) {
  message m;
  EXPECT_TRUE(m.unflatten(nullptr, 0, message::flatten_full));
  EXPECT_TRUE(decode(fromHex("4D 32"), &m));
  EXPECT_TRUE(m.empty());
  EXPECT_EQ(toHex(flat(message())), "4D 32");
}

TEST(Wire, ShortAndLongForms) {
  const struct {
    const char* name;
    message m;
    size_t size;
  } cases[] = {
      {"u32 255",
       [] {
         message m;
         m.insert_u32(1, 255);
         return m;
       }(),
       2 + 5},
      {"u32 256",
       [] {
         message m;
         m.insert_u32(1, 256);
         return m;
       }(),
       2 + 8},
      {"u32 0",
       [] {
         message m;
         m.insert_u32(1, 0);
         return m;
       }(),
       2 + 5},
      {"string 255",
       [] {
         message m;
         m.insert_string(1, std::string(255, 'x'));
         return m;
       }(),
       2 + 4 + 1 + 255},
      {"string 256",
       [] {
         message m;
         m.insert_string(1, std::string(256, 'x'));
         return m;
       }(),
       2 + 4 + 2 + 256},
      {"raw 0",
       [] {
         message m;
         m.insert_raw(1, {});
         return m;
       }(),
       2 + 4 + 1},
      {"string array",
       [] {
         message m;
         m.insert_string_array(1, {"a"});
         return m;
       }(),
       2 + 4 + 2 + 2 + 1},
      {"u64",
       [] {
         message m;
         m.insert_u64(1, 1);
         return m;
       }(),
       2 + 12},
      {"addr6",
       [] {
         message m;
         m.insert_addr6(1, IPAddr6());
         return m;
       }(),
       2 + 20},
      {"bool false",
       [] {
         message m;
         m.insert_bool(1, false);
         return m;
       }(),
       2 + 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Bytes bytes = flat(c.m);
    EXPECT_EQ(bytes.size(), c.size);
    EXPECT_LE(bytes.size(), c.m.max_length());
    message back;
    ASSERT_TRUE(decode(bytes, &back));
    EXPECT_TRUE(back == c.m);
  }
}

TEST(Wire, LongFormBytesAreLittleEndian) {
  message m;
  m.insert_u32(0x08fd0002, 0x01020304);
  m.insert_u64(0x10000001, 0x1122334455667788ull);
  EXPECT_EQ(toHex(flat(m)), "4D 32 02 00 FD 08 04 03 02 01 01 00 00 10 88 77 66 55 44 33 22 11");
}

TEST(Wire, PathsComeFirstWhateverTheInsertionOrder) {
  message m;
  m.insert(SYS_FROM, {2});
  m.insert_u32_array(0x88000009, {9});
  m.insert(SYS_TO, {1});
  m.insert_string_array(3, {"z"});
  const Bytes bytes = flat(m);
  EXPECT_EQ(loadLe32(&bytes[2]), 0x88ff0001u);
  EXPECT_EQ(loadLe32(&bytes[2 + 10]), 0x88ff0002u);  // after SYS_TO's 10 bytes
}

// The u32 table's slot order is the record order: ids whose remainders are known give a
// fixed order before and after the growth from 11 to 22 slots.
TEST(Wire, U32RecordsFollowTheTableSlotsAcrossGrowth) {
  auto order = [](const message& m) {
    const Bytes bytes = flat(m);
    std::vector<unsigned int> numbers;
    for (size_t off = 2; off + 5 <= bytes.size(); off += 5) {
      numbers.push_back(loadLe32(&bytes[off]) & 0xffff);
    }
    return numbers;
  };
  message m;  // 0x08000000 + n lands in slot (7 + n) % 11, after growth (18 + n) % 22
  for (unsigned int n = 0; n < 5; ++n) m.insert_u32(n, 1);
  EXPECT_EQ(order(m), (std::vector<unsigned int>{4, 0, 1, 2, 3}));
  m.insert_u32(5, 1);
  EXPECT_EQ(order(m), (std::vector<unsigned int>{4, 5, 0, 1, 2, 3}));
}

// A frame with 100,000 fields decodes, compares and merges in time linear in the fields:
// each decoded, compared or merged field is found by id, not by walking a list.
TEST(Wire, HundredThousandFieldsDecodeCompareAndMerge) {
  message m;
  for (unsigned int i = 0; i < 50000; ++i) m.insert_string(i, "");
  for (unsigned int i = 0; i < 20000; ++i) m.insert_u64(i, i);
  for (unsigned int i = 0; i < 20000; ++i) m.insert_u32(i, i);
  for (unsigned int i = 0; i < 10000; ++i) m.insert_u32_array(i, {i});
  const Bytes bytes = flat(m);
  message decoded;
  ASSERT_TRUE(decode(bytes, &decoded));
  EXPECT_TRUE(decoded == m);
  EXPECT_TRUE(m == decoded);
  EXPECT_TRUE(decoded.includes(m));
  EXPECT_EQ(flat(decoded).size(), bytes.size());

  message merged;
  merged.insert_string(7, "x");
  merged.insert_u64(1, 99);
  merged.merge(m);
  EXPECT_TRUE(merged == m);

  decoded.remove_field(withType(49999, kTypeString));
  decoded.remove_array(withType(0, kArrayBit | kTypeU32));
  EXPECT_FALSE(decoded == m);
  EXPECT_TRUE(m.includes(decoded));
  EXPECT_FALSE(decoded.includes(m));
  decoded.insert_string(49999, "");
  decoded.insert_u32_array(0, {0});
  EXPECT_TRUE(decoded == m);
}

// Decoding into a message that holds fields keeps them, however long the input (a long
// one would start a fresh message in a large block).
TEST(Wire, DecodedScalarsOverwriteAndArraysReplace) {
  message m;
  m.insert_u32_array(0x88000001, {1, 2, 3});
  m.insert_string(2, "old");
  m.insert_u32(3, 3);
  message src;
  src.insert_u32_array(0x88000001, {9});
  const std::string text = "a new value, long enough for more than 32 bytes of input";
  src.insert_string(2, text);
  const Bytes bytes = flat(src);
  ASSERT_TRUE(m.unflatten(bytes.data(), bytes.size(), message::flatten_full));
  EXPECT_EQ(m.get_u32_array(0x88000001), (std::vector<unsigned int>{9}));
  EXPECT_EQ(m.get_string(2, ""), text);
  EXPECT_EQ(m.get_u32(3, 0), 3u);
  // Overwritten in place: one record each, and the message equals one built directly.
  message expected = src;
  expected.insert_u32(3, 3);
  EXPECT_TRUE(m == expected);
  EXPECT_EQ(flat(m).size(), flat(expected).size());
}

TEST(Wire, MalformedBuffersFail) {
  const struct {
    const char* name;
    const char* hex;
  } cases[] = {
      {"one byte", "4D"},
      {"one trailing byte", "4D 32 00"},
      {"three trailing bytes", "4D 32 00 00 00"},
      {"not magic, above 255", "00 01 00 00"},
      {"type 7", "4D 32 01 00 00 38"},
      {"array type 7", "4D 32 01 00 00 B8 00 00"},
      {"array type 15", "4D 32 01 00 00 F8 00 00"},
      {"short u32 without value", "4D 32 01 00 00 09"},
      {"long u32 cut", "4D 32 01 00 00 08 01 02 03"},
      {"u64 cut", "4D 32 01 00 00 10 01 02 03 04 05 06 07"},
      {"addr6 cut", "4D 32 01 00 00 18 00 00 00 00"},
      {"string without length", "4D 32 01 00 00 21"},
      {"string longer than buffer", "4D 32 01 00 00 21 03 61 62"},
      {"long string cut", "4D 32 01 00 00 20 05 00 61"},
      {"raw longer than buffer", "4D 32 01 00 00 31 02 01"},
      {"message cut", "4D 32 01 00 00 29 04 4D 32"},
      {"array without count", "4D 32 01 00 00 88 01"},
      {"u32 array payload cut", "4D 32 01 00 00 88 02 00 01 00 00 00 02 00 00"},
      {"bool array payload cut", "4D 32 01 00 00 80 03 00 01 00"},
      {"u64 array payload cut", "4D 32 01 00 00 90 01 00 01 02"},
      {"addr6 array payload cut", "4D 32 01 00 00 98 01 00 00"},
      {"string array element length cut", "4D 32 01 00 00 A0 01 00 01"},
      {"string array element cut", "4D 32 01 00 00 A0 01 00 03 00 61"},
      {"raw array missing element", "4D 32 01 00 00 B0 02 00 01 00 61"},
      {"huge count", "4D 32 01 00 00 A8 FF FF"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_FALSE(decodes(c.hex));
  }
}

TEST(Wire, FieldsBeforeAFaultRemain) {
  message m;
  EXPECT_FALSE(decode(fromHex("4D 32 01 00 00 09 07 02 00 00 21"), &m));
  EXPECT_EQ(m.get_u32(1, 0), 7u);
}

TEST(Wire, NoHeaderModeStartsWithTheFirstRecord) {
  message m;
  EXPECT_TRUE(decode(fromHex("01 00 00 09 07"), &m, message::flatten_no_header));
  EXPECT_EQ(m.get_u32(1, 0), 7u);
  EXPECT_FALSE(decode(fromHex("01 00 00 09"), &m, message::flatten_no_header));
}

// Older format: u16 item count, then {type, key, count, 2 unused bytes, data}.
TEST(Wire, OlderFormatItemsOfEveryType) {
  const Bytes bytes = fromHex(
      "09 00"
      "01 05 00 00 03 01 00 EE EE 01"              // bool sys 5 = true
      "02 06 00 00 03 01 00 EE EE 2A 00 00 00"     // u32 sys 6 = 42
      "03 09 00 00 01 01 00 EE EE 03 00 68 69 00"  // string std 9 = "hi" (NUL dropped)
      "04 07 00 00 02 01 00 EE EE 02 00 AA BB"     // raw local 7
      "05 08 00 F0 00 01 00 EE EE 02 00 4D 32"     // message global 8 (key bits 16-23 ignored)
      "02 01 00 00 03 02 00 EE EE 05 00 00 00 07 00 00 00"  // u32 array sys 1 = [5, 7]
      "03 0A 00 00 00 02 00 EE EE 02 00 61 00 01 00 62"     // string array: NULs kept
      "04 0B 00 00 00 00 00 EE EE"                          // raw array, count 0: empty
      "01 0C 00 00 00 02 00 EE EE 00 05"                    // bool array [false, true]
      "FF FF");                                             // ignored after the items
  message m;
  ASSERT_TRUE(decode(bytes, &m));
  EXPECT_TRUE(m.get_bool(0x00ff0005, false));
  EXPECT_EQ(m.get(SYS_REQID, 0), 42u);
  EXPECT_EQ(m.get_string(0x20fe0009, ""), "hi");
  EXPECT_EQ(m.get_raw(0x30fd0007, {}), (Bytes{0xAA, 0xBB}));
  EXPECT_EQ(m.get_message(0x28000008, {}).size(), 2u);
  EXPECT_EQ(m.get_u32_array(SYS_TO), (std::vector<unsigned int>{5, 7}));
  EXPECT_EQ(m.get_string_array(0xa000000a), (std::vector<std::string>{std::string("a\0", 2), "b"}));
  EXPECT_TRUE(m.has_array(0xb000000b));
  EXPECT_EQ(m.size_raw_array(0xb000000b), 0u);
  EXPECT_EQ(m.get_bool_array(0x8000000c), (std::vector<bool>{false, true}));
}

TEST(Wire, OlderFormatFaultsFail) {
  const struct {
    const char* name;
    const char* hex;
  } cases[] = {
      {"header cut", "01 00 01 05 00 00 03 01 00 EE"},
      {"missing item", "02 00 01 05 00 00 03 01 00 EE EE 01"},
      {"type 0", "01 00 00 05 00 00 03 01 00 EE EE 01"},
      {"type 6", "01 00 06 05 00 00 03 01 00 EE EE 01"},
      {"bool data cut", "01 00 01 05 00 00 03 01 00 EE EE"},
      {"u32 data cut", "01 00 02 05 00 00 03 01 00 EE EE 01 02"},
      {"string longer than buffer", "01 00 03 05 00 00 03 01 00 EE EE 09 00 61"},
      {"array elements cut", "01 00 02 05 00 00 03 03 00 EE EE 01 00 00 00"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_FALSE(decodes(c.hex));
  }
  message m;
  EXPECT_FALSE(m.old_unflatten(fromHex("01").data(), 1));
}

TEST(Wire, PassThroughRecordsAreKeptUndecoded) {
  // A u32 marked pass-through (bit 25), a plain u32, a pass-through string.
  const Bytes bytes = fromHex("4D 32 01 00 00 0B 07 02 00 00 09 08 03 00 00 23 01 7A");
  message m;
  ASSERT_TRUE(decode(bytes, &m, message::flatten_keep_passthrough));
  EXPECT_EQ(m.get_u32(2, 0), 8u);
  EXPECT_EQ(m.size_u32(1), 0u);
  ASSERT_NE(m.passthrough(), nullptr);
  EXPECT_EQ(toHex(*m.passthrough()), "01 00 00 0B 07 03 00 00 23 01 7A");

  // In the full mode the same marks are ordinary ids and the side buffer goes away.
  ASSERT_TRUE(m.unflatten(bytes.data(), bytes.size(), message::flatten_full));
  EXPECT_EQ(m.passthrough(), nullptr);
  EXPECT_EQ(m.get_u32(0x0a000001, 0), 7u);
}

// Marked arrays of fixed-width elements are copied by their element width (1 for bool, 4
// for u32, 8 for u64): the side buffer holds exactly their records, and the field behind
// them decodes.
TEST(Wire, PassThroughArraysAreCopiedByTheirElementWidth) {
  const uint32_t mark = kPassThroughBit | kArrayBit;
  message m;
  m.insert_bool_array(mark | kTypeBool | 0x11, {true, false, true});
  m.insert_u32_array(mark | kTypeU32 | 0x12, {1, 2, 3});
  m.insert_u64_array(mark | kTypeU64 | 0x13, {1, 1ull << 40});
  m.insert_u32(kTypeU32 | 0x14, 99);
  Bytes flat;
  m.flatten(flat);
  message plain;
  plain.insert_u32(kTypeU32 | 0x14, 99);
  Bytes plainFlat;
  plain.flatten(plainFlat);
  const size_t header = 2, plainRecord = plainFlat.size() - header;
  ASSERT_GT(flat.size(), header + plainRecord);
  ASSERT_EQ(Bytes(flat.end() - plainRecord, flat.end()),
            Bytes(plainFlat.begin() + header, plainFlat.end()))
      << "the unmarked field is encoded last";
  message kept;
  ASSERT_TRUE(decode(flat, &kept, message::flatten_keep_passthrough));
  EXPECT_EQ(kept.get_u32(kTypeU32 | 0x14, 0), 99u);
  ASSERT_NE(kept.passthrough(), nullptr);
  EXPECT_EQ(toHex(*kept.passthrough()),
            toHex(Bytes(flat.begin() + header, flat.end() - plainRecord)));
}

TEST(Wire, PassThroughCopyIsBounded) {
  const char* cases[] = {
      "4D 32 01 00 00 0A 07",                       // long u32 cut
      "4D 32 01 00 00 23 05 61",                    // string cut
      "4D 32 01 00 00 8A 02 00 01 00 00 00",        // u32 array cut
      "4D 32 01 00 00 A2 02 00 01 00 61 05 00 62",  // string array element cut
      "4D 32 01 00 00 BA 00 00",                    // type 7
  };
  for (const char* hex : cases) {
    SCOPED_TRACE(hex);
    message m;
    EXPECT_FALSE(decode(fromHex(hex), &m, message::flatten_keep_passthrough));
  }
}

TEST(Wire, EveryTypeRoundTrips) {
  message nested;
  nested.insert_string(1, "inner");
  message m;
  IPAddr6 a;
  a.bytes[3] = 7;
  m.insert_bool(1, true);
  m.insert_bool(2, false);
  m.insert_u32(3, 70000);
  m.insert_u64(4, ~0ull);
  m.insert_addr6(5, a);
  m.insert_string(6, std::string(300, 's'));
  m.insert_raw(7, Bytes(3, 0));
  m.insert_message(8, nested);
  m.insert_bool_array(9, {true, false});
  m.insert_u32_array(10, {0, 0xffffffff});
  m.insert_u64_array(11, {1, 2});
  m.insert_addr6_array(12, {a});
  m.insert_string_array(13, {"", std::string(300, 't')});
  m.insert_raw_array(14, {Bytes{1, 2}});
  m.insert_message_array(15, {nested, message()});
  const Bytes bytes = flat(m);
  EXPECT_LE(bytes.size(), m.max_length());
  message back;
  ASSERT_TRUE(decode(bytes, &back));
  EXPECT_TRUE(back == m);
  EXPECT_EQ(message(back.get_message(8, {})).get_string(1, ""), "inner");
  message again;
  ASSERT_TRUE(decode(flat(back), &again));
  EXPECT_TRUE(again == m);
}

// Values of every length up to well past the short copies the encoder makes for short
// values, as scalars and as array elements, on both sides of the 512-byte bound under
// which a message is encoded on the stack: exact bytes, and the same value back.
TEST(Wire, ValuesOfEveryShortLengthEncodeExactly) {
  for (size_t n : {0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 23, 24, 31, 32, 33, 255, 256, 500, 600}) {
    SCOPED_TRACE("length " + std::to_string(n));
    std::string value;
    for (size_t i = 0; i < n; ++i) value += static_cast<char>('a' + i % 26);
    message m;
    m.insert_string(3, value);
    Bytes expected = fromHex(n <= 255 ? "4D3203000021" : "4D3203000020");
    if (n <= 255) {
      expected.push_back(static_cast<unsigned char>(n));
    } else {
      expected.push_back(static_cast<unsigned char>(n & 0xff));
      expected.push_back(static_cast<unsigned char>(n >> 8));
    }
    expected.insert(expected.end(), value.begin(), value.end());
    EXPECT_EQ(toHex(flat(m)), toHex(expected));

    m.insert_raw_array(4, {Bytes(value.begin(), value.end()), Bytes(n / 2, 0xEE)});
    message back;
    ASSERT_TRUE(decode(flat(m), &back));
    EXPECT_EQ(back.get_string(3, "?"), value);
    EXPECT_TRUE(back == m);
  }
}

TEST(Wire, TooSmallBufferWarns) {
  const message m = workedExample();
  Bytes buf(m.max_length());
  unsigned int len = 10;
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(m.flatten(buf.data(), &len));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "WARNING: too small buffer for flatten\n");
  EXPECT_EQ(len, 28u);
}

TEST(Wire, BytesConstructorsDecode) {
  const Bytes bytes = fromHex(kWorkedExample);
  const message a(bytes);
  const message b(bytes.data(), bytes.size());
  const message c{message::flat_message(bytes)};
  message d;
  d = message::flat_message(bytes);
  for (const message* m : std::vector<const message*>{&a, &b, &c, &d})
    EXPECT_TRUE(*m == workedExample());
}

}  // namespace
}  // namespace kl
