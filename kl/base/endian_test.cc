#include "kl/base/endian.h"

#include <gtest/gtest.h>

namespace kl {
namespace {

TEST(Endian, KnownPatternsLittleEndian) {
  unsigned char b[8];
  storeLe16(b, 0x0102);
  EXPECT_EQ(b[0], 0x02);
  EXPECT_EQ(b[1], 0x01);
  storeLe32(b, 0x01020304u);
  const unsigned char le32[] = {0x04, 0x03, 0x02, 0x01};
  EXPECT_EQ(0, memcmp(b, le32, 4));
  storeLe64(b, 0x0102030405060708ull);
  const unsigned char le64[] = {0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01};
  EXPECT_EQ(0, memcmp(b, le64, 8));
  EXPECT_EQ(loadLe64(le64), 0x0102030405060708ull);
  EXPECT_EQ(loadLe32(le32), 0x01020304u);
}

TEST(Endian, KnownPatternsBigEndian) {
  unsigned char b[4];
  storeBe32(b, 0x0a000001u);
  const unsigned char be[] = {0x0a, 0x00, 0x00, 0x01};
  EXPECT_EQ(0, memcmp(b, be, 4));
  EXPECT_EQ(loadBe32(be), 0x0a000001u);
  EXPECT_EQ(byteSwap32(0x11223344u), 0x44332211u);
}

// Host order is the order of the machine's own integers: compared here with the object
// representation of a uint16_t, which is the one place a test may look at it.
TEST(Endian, HostOrderIsTheMachinesOrder) {
  unsigned char b[2];
  storeHost16(b, 0x0102);
  const uint16_t native = 0x0102;
  EXPECT_EQ(0, memcmp(b, &native, 2));
  EXPECT_EQ(loadHost16(b), 0x0102);
  storeBe16(b, 0x0a0b);
  EXPECT_EQ(b[0], 0x0a);
  EXPECT_EQ(b[1], 0x0b);
  EXPECT_EQ(loadBe16(b), 0x0a0b);
}

// Round trips at 2^k - 1, 2^k and 2^k + 1 for every width, at an odd address.
TEST(Endian, RoundTripsAtPowersOfTwo) {
  unsigned char buf[9];
  for (int k = 0; k < 64; ++k) {
    for (int delta = -1; delta <= 1; ++delta) {
      const uint64_t v = (uint64_t{1} << k) + static_cast<uint64_t>(delta);
      SCOPED_TRACE(v);
      storeLe64(buf + 1, v);
      EXPECT_EQ(loadLe64(buf + 1), v);
      storeLe32(buf + 1, static_cast<uint32_t>(v));
      EXPECT_EQ(loadLe32(buf + 1), static_cast<uint32_t>(v));
      storeLe16(buf + 1, static_cast<uint16_t>(v));
      EXPECT_EQ(loadLe16(buf + 1), static_cast<uint16_t>(v));
      storeBe16(buf + 1, static_cast<uint16_t>(v));
      EXPECT_EQ(loadBe16(buf + 1), static_cast<uint16_t>(v));
      storeHost16(buf + 1, static_cast<uint16_t>(v));
      EXPECT_EQ(loadHost16(buf + 1), static_cast<uint16_t>(v));
      storeBe32(buf + 1, static_cast<uint32_t>(v));
      EXPECT_EQ(loadBe32(buf + 1), static_cast<uint32_t>(v));
    }
  }
}

}  // namespace
}  // namespace kl
