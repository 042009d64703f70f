#include "kl/util/convert.h"

#include <gtest/gtest.h>

#include <climits>

#include "kl/testing/temp_root.h"

namespace {

TEST(Convert, SizesAndSpeeds) {
  const struct {
    unsigned long long n;
    const char* bytes;
    const char* speed;
  } cases[] = {
      {0, "0 B", "0 b/s"},
      {2047, "2047 B", "2047 b/s"},
      {2048, "2.0 Kib", "2.0 Kib/s"},
      {2049, "2.1 Kib", "2.1 Kib/s"},
      {2057, "2.9 Kib", "2.9 Kib/s"},  // the remainder's last digit, not a tenth
      {3072, "3.0 Kib", "3.0 Kib/s"},
      {2097151, "2047.3 Kib", "2047.3 Kib/s"},
      {2097152, "2.0 Mib", "2.0 Mib/s"},
      {2147483647, "2047.5 Mib", "2047.5 Mib/s"},
      {2147483648ull, "2.0 Gib", "2.0 Gib/s"},
      {~0ull, "17179869183.3 Gib", "17179869183.3 Gib/s"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.n);
    EXPECT_EQ(bytes2str(c.n), c.bytes);
    EXPECT_EQ(speed2str(c.n), c.speed);
  }
}

TEST(Convert, Str2bytes) {
  const struct {
    const char* text;
    unsigned long long expected;
  } cases[] = {
      {"", 0},
      {"2K", 2048},
      {"1x5", 5},
      {"1G 512M", 1610612736ull},
      {"1k 512", 1536},
      {"1.5M", 5242880},
      {"7b", 7},
      {"1t", 1ull << 40},
      {"4294967297T", 1ull << 40},  // low 32 bits
      {" 1 0 ", 10},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(str2bytes(c.text), c.expected);
  }
}

TEST(Convert, Str2duration) {
  const long long s = 1000000000ll;
  const struct {
    const char* text;
    long long ns;
  } ok[] = {
      {"1h30m", 5400 * s}, {"1h 30m", 5400 * s}, {"1h30", 3630 * s},  {"90", 90 * s},
      {"90 ", 90 * s},     {"-1m", -60 * s},     {"1:30", 5400 * s},  {"1:30:15", 5415 * s},
      {"010s", 8 * s},     {"0x10s", 16 * s},    {"2w", 1209600 * s}, {"1d", 86400 * s},
      {"5ms", 5000000},    {"7us", 7000},        {"9ns", 9},          {"  4 s", 4 * s},
  };
  for (const auto& c : ok) {
    SCOPED_TRACE(c.text);
    long long ns = 0;
    ASSERT_TRUE(str2duration(c.text, &ns));
    EXPECT_EQ(ns, c.ns);
  }
  const char* bad[] = {"", "   ", "1q", "5s ", "1:2:3:4", "1u", "1n", "h", "1h -5m", "-"};
  for (const char* text : bad) {
    SCOPED_TRACE(text);
    long long ns = 42;
    EXPECT_FALSE(str2duration(text, &ns));
    EXPECT_EQ(ns, 42);
  }
  EXPECT_EQ(str2seconds("1h30m"), 5400);
  EXPECT_EQ(str2seconds("1500ms"), 1);
  EXPECT_EQ(str2seconds("-1500ms"), -1);
  EXPECT_EQ(str2seconds("nonsense"), 0);
  EXPECT_EQ(str2seconds(""), 0);
}

TEST(Convert, TimesOfDay) {
  EXPECT_EQ(time2str(3725), "1:02:05");
  EXPECT_EQ(time2str(90000), "25:00:00");
  EXPECT_EQ(time2str(-61), "-0:01:01");
  EXPECT_EQ(time2str(0), "0:00:00");
  EXPECT_EQ(time2str(LONG_MIN).substr(0, 1), "-");
  const struct {
    const char* text;
    unsigned seconds;
  } cases[] = {{"7", 25200},        {"7:30", 27000}, {"7:30:15", 27015}, {"24:00", 0}, {"7a", 0},
               {" 7 : 30 ", 27000}, {"", 0},         {"0:0:86401", 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(str2time(c.text), c.seconds);
  }
}

TEST(Convert, Dates) {
  EXPECT_EQ(date2str(86400L * 365 + 3723, "%Y-%m-%d", 0, true, true), "1971-01-01 01:02:03");
  EXPECT_EQ(date2str(86400L * 365 + 3723, "%Y-%m-%d", 3600, true, false), "1971-01-01 02:02");
  EXPECT_EQ(date2str(0, "%d.%m.%Y", -1, false, true), "31.12.1969");
  EXPECT_EQ(date2str(0, std::string(70, 'x'), 0, false, false), "");  // does not fit 64 bytes
}

TEST(Convert, Money) {
  const struct {
    const char* text;
    unsigned hundredths;
  } cases[] = {{"12.5", 1250},   {"12,34", 1234}, {"12.345", 1234}, {"12", 1200}, {"abc", 0},
               {"12.3.4", 1230}, {"1a.5", 100},   {".07", 7},       {"", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(money2u(c.text), c.hundredths);
  }
  EXPECT_EQ(u2money(12345), "123.45");
  EXPECT_EQ(u2money(5), "0.05");
  EXPECT_EQ(u2money(0), "0.00");
}

TEST(Convert, Hexadecimal) {
  EXPECT_EQ(hex2u("1F"), 31u);
  EXPECT_EQ(hex2u("ff"), 255u);
  EXPECT_EQ(hex2u(""), 0u);
  EXPECT_EQ(hex2u("0x1F"), 0xFFFFFFFFu);
  EXPECT_EQ(hex2u("1 2"), 0xFFFFFFFFu);
  EXPECT_EQ(ull2hex(0, 0), "0");
  EXPECT_EQ(ull2hex(255, 4), "00ff");
  EXPECT_EQ(ull2hex(0x12345, 2), "12");  // keeps the most significant digits
  EXPECT_EQ(ull2hex(~0ull, -1), "ffffffffffffffff");
  EXPECT_EQ(u2hex(0xabc, 3), "abc");
  const unsigned char bytes[] = {0x00, 0x7f, 0xa5, 0xff};
  EXPECT_EQ(bin2hex(bytes, 4, false), "007fa5ff");
  EXPECT_EQ(bin2hex(bytes, 4, true), "007FA5FF");
  EXPECT_EQ(bin2hex(bytes, 0, true), "");
}

TEST(Convert, DecimalAndBool) {
  EXPECT_EQ(u2str(4294967295u), "4294967295");
  EXPECT_EQ(i2str(-5), "-5");
  EXPECT_EQ(ull2str(18446744073709551615ull), "18446744073709551615");
  EXPECT_EQ(str2u("42abc"), 42u);
  EXPECT_EQ(str2i("-7"), -7);
  EXPECT_EQ(str2ull("garbage"), 0u);
  EXPECT_TRUE(str2bool("true"));
  EXPECT_FALSE(str2bool("True"));
  EXPECT_EQ(bool2str(false), "false");
  EXPECT_EQ(str2lower("MiXeD 1"), "mixed 1");
}

TEST(Convert, Versions) {
  EXPECT_EQ(version2string(0x06296203), "6.41beta3");
  EXPECT_EQ(version2string(0x06296600), "6.41");
  EXPECT_EQ(version2string(0x06296605), "6.41.5");
  EXPECT_EQ(version2string(0x06296101), "6.41alpha1");
  EXPECT_EQ(version2string(0x06296300), "6.41rc");
  EXPECT_EQ(version2string(0x06297a02), "6.412");
}

class OsVersionTest : public kl::testing::TempRootTest {};

TEST_F(OsVersionTest, ReadsThePackageDatabase) {
  EXPECT_EQ(inChild([] { return getOSVersion() == ""; }), 0);
  writeFile("/var/pdb/system/version", "103179779 7\n");  // 0x06266603
  EXPECT_EQ(inChild([] { return getOSVersion() == "6.38.3"; }), 0);
  writeFile("/var/pdb/system/version", "103179779\n");
  EXPECT_EQ(inChild([] { return getOSVersion() == ""; }), 0);
}

}  // namespace
