#include "tools/message_records.h"

#include <gtest/gtest.h>

#include <vector>

#include "kl/message/message.h"
#include "kl/message/system.h"
#include "kl/testing/hex.h"

namespace klmsg {
namespace {

using Bytes = std::vector<unsigned char>;
using kl::testing::fromHex;

// One record of every kind of value: a bool (the flag is its value), u32 in its short and
// long forms, u64, addr6, string in the short and long length forms, and arrays of fixed
// and of length-prefixed elements.
Bytes everyKindOfRecord() {
  kl::message m;
  m.insert(kl::SYS_TO, {5, 2});
  m.insert_string_array(0xa0000002, {"a", ""});
  m.insert_bool(0x00000003, true);
  m.insert_u32(0x08000004, 7);
  m.insert_u32(0x08000005, 70000);
  m.insert_u64(0x10000006, 1);
  m.insert_addr6(0x18000007, IPAddr6());
  m.insert_string(0x20000008, "ab");
  m.insert_raw(0x30000009, std::vector<unsigned char>(300, 1));
  Bytes flat;
  m.flatten(flat);
  return flat;
}

TEST(MessageRecords, SplitsEveryKindOfRecordAtItsEnd) {
  const Bytes flat = everyKindOfRecord();
  std::vector<Record> records;
  ASSERT_TRUE(splitRecords(flat.data(), flat.size(), &records));
  ASSERT_EQ(records.size(), 9u);
  size_t expectedBegin = 2;
  for (const Record& r : records) {
    EXPECT_EQ(r.begin, expectedBegin);
    expectedBegin = r.end;
  }
  EXPECT_EQ(records.back().end, flat.size());
  auto lengthOf = [&records](uint32_t word) -> size_t {
    for (const Record& r : records) {
      if (r.word == word) return r.end - r.begin;
    }
    return 0;
  };
  EXPECT_EQ(records[0].word, kl::SYS_TO);
  EXPECT_EQ(lengthOf(kl::SYS_TO), 4u + 2 + 2 * 4);
  EXPECT_EQ(lengthOf(0xa0000002), 4u + 2 + 3 + 2);
  EXPECT_EQ(lengthOf(0x01000003), 4u);  // true: the flag set, no value bytes
  EXPECT_EQ(lengthOf(0x09000004), 4u + 1);
  EXPECT_EQ(lengthOf(0x08000005), 4u + 4);
  EXPECT_EQ(lengthOf(0x10000006), 4u + 8);
  EXPECT_EQ(lengthOf(0x18000007), 4u + 16);
  EXPECT_EQ(lengthOf(0x21000008), 4u + 1 + 2);
  EXPECT_EQ(lengthOf(0x30000009), 4u + 2 + 300);
}

// Every prefix of an encoding splits when it ends at a record's end, into the records it
// holds whole, and fails anywhere else.
TEST(MessageRecords, EveryTruncatedPrefixFailsExceptAtRecordEnds) {
  const Bytes flat = everyKindOfRecord();
  std::vector<Record> all;
  ASSERT_TRUE(splitRecords(flat.data(), flat.size(), &all));
  for (size_t length = 0; length <= flat.size(); ++length) {
    SCOPED_TRACE(length);
    size_t whole = 0;
    bool atEnd = length == 2;
    for (const Record& r : all) {
      if (r.end <= length) ++whole;
      atEnd = atEnd || r.end == length;
    }
    std::vector<Record> records;
    EXPECT_EQ(splitRecords(flat.data(), length, &records), atEnd);
    EXPECT_EQ(records.size(), whole);
  }
}

TEST(MessageRecords, OtherEncodingsFail) {
  const char* bad[] = {
      "01 00 02 05 00 00 00 01 00 00 00 07 00 00 00",  // the older format
      "4D 33",                                         // another magic
      "4D 32 01 00 00 38",                             // type code 7
      "4D 32 01 00 00 F8 00 00",                       // an array of type code 15
      "4D 32 01 00 00 21 05 61",                       // a string shorter than its length
      "4D 32 01 00 00 A0 02 00 01 00 61",              // an array with one element of two
  };
  for (const char* hex : bad) {
    SCOPED_TRACE(hex);
    const Bytes bytes = fromHex(hex);
    std::vector<Record> records;
    EXPECT_FALSE(splitRecords(bytes.data(), bytes.size(), &records));
  }
}

}  // namespace
}  // namespace klmsg
