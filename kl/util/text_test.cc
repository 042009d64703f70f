#include "kl/util/text.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "kl/testing/command.h"

namespace {

using Strings = std::vector<std::string>;

TEST(Split, AppendsNonEmptyRuns) {
  const struct {
    const char* text;
    const char* delims;
    Strings expected;
  } cases[] = {
      {"  a  b ", " ", {"a", "b"}},      {"", " ", {}},        {"   ", " ", {}},
      {"a,b;;c", ",;", {"a", "b", "c"}}, {"abc", "", {"abc"}}, {"/x//y/", "/", {"x", "y"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    Strings out = {"kept"};
    split(c.text, c.delims, out);
    Strings expected = {"kept"};
    expected.insert(expected.end(), c.expected.begin(), c.expected.end());
    EXPECT_EQ(out, expected);
  }
}

TEST(Trim, Edges) {
  EXPECT_EQ(trim("xxaxx", "x"), "a");
  EXPECT_EQ(trim("xx", "x"), "");
  EXPECT_EQ(trim("", "x"), "");
  EXPECT_EQ(trim(" \ta b\t ", " \t"), "a b");
  EXPECT_EQ(trim("abc", ""), "abc");
}

TEST(Escaping, SqlAndHtml) {
  EXPECT_EQ(sqlsafe("it's"), "it''s");
  EXPECT_EQ(sqlsafe("''"), "''''");
  EXPECT_EQ(htmlsafe("<a href='x'>"), "&lt;a href=&#039;x&#039;&gt;");
  EXPECT_EQ(htmlsafe("a & \"b\""), "a &amp; &quot;b&quot;");
  EXPECT_EQ(htmlsafe("plain"), "plain");
}

// regExpMatch against grep -E over the same lines: one grep run per pattern.
TEST(RegExpMatch, AgreesWithGrep) {
  const Strings lines = {"eth0",      "eth10", "wlan0", "bridge-lan", "192.168.1.1",
                         "ether1 up", "ETHER", "",      "a+b",        "x.y"};
  const Strings patterns = {"^eth[0-9]$", "eth",   "^$",      "[0-9]+\\.[0-9]+", "up$",
                            "(lan|wlan)", "a\\+b", "^.\\..$", "ETH|wlan",        "[[:upper:]]{5}"};
  char path[] = "/tmp/kl-regex-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  {
    std::ofstream out(path);
    for (const std::string& line : lines) out << line << "\n";
  }
  for (const std::string& pattern : patterns) {
    SCOPED_TRACE(pattern);
    const std::string numbers =
        kl::testing::commandOutput("grep -E -n -- '" + pattern + "' " + path + " | cut -d: -f1");
    Strings matched;
    split(numbers, "\n", matched);
    Strings ours;
    for (size_t i = 0; i < lines.size(); ++i) {
      if (regExpMatch(lines[i], pattern)) ours.push_back(std::to_string(i + 1));
    }
    EXPECT_EQ(ours, matched);
  }
  unlink(path);
  EXPECT_TRUE(regExpMatch("anything", ""));
  EXPECT_FALSE(regExpMatch("a(b", "a(b"));  // does not compile
}

// Dotted quads against the arithmetic value, plus inet_aton's short and hex forms.
TEST(ParseAddress, DottedQuadsAndShortForms) {
  std::mt19937 rng(7);
  for (int i = 0; i < 1000; ++i) {
    const unsigned a = rng() % 256, b = rng() % 256, c = rng() % 256, d = rng() % 256;
    const std::string text = std::to_string(a) + "." + std::to_string(b) + "." + std::to_string(c) +
                             "." + std::to_string(d);
    unsigned addr = 0;
    ASSERT_TRUE(parseAddress(text, &addr)) << text;
    EXPECT_EQ(addr, a << 24 | b << 16 | c << 8 | d) << text;
  }
  const struct {
    const char* text;
    bool ok;
    unsigned addr;
  } cases[] = {
      {"10.1", true, 0x0a000001}, {"0x0a000001", true, 0x0a000001}, {"127.1.2", true, 0x7f010002},
      {"256.0.0.1", false, 0},    {"1.2.3.4.5", false, 0},          {"", false, 0},
      {"a.b.c.d", false, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    unsigned addr = 0;
    EXPECT_EQ(parseAddress(c.text, &addr), c.ok);
    if (c.ok) {
      EXPECT_EQ(addr, c.addr);
    }
  }
  EXPECT_TRUE(parseAddress("1.2.3.4", nullptr));
}

TEST(ParsePrefix, MasksByClassAndLength) {
  const struct {
    const char* text;
    bool ok;
    unsigned addr, mask;
  } cases[] = {
      {"10.0.0.1", true, 0x0a000001, 0xFF000000},
      {"172.16.0.1", true, 0xac100001, 0xFFFF0000},
      {"192.168.1.0", true, 0xc0a80100, 0xFFFFFF00},
      {"224.0.0.1", false, 0, 0},
      {"192.168.1.0/24", true, 0xc0a80100, 0xFFFFFF00},
      {"1.2.3.4/0", true, 0x01020304, 0},
      {"1.2.3.4/32", true, 0x01020304, 0xFFFFFFFF},
      {"1.2.3.4/1", true, 0x01020304, 0x80000000},
      {"1.2.3.4/33", true, 0x01020304, 0},
      {"1.2.3.4/64", true, 0x01020304, 0},
      {"1.2.3.4/65", true, 0x01020304, 0x80000000},  // (32 - 65) mod 64 is 31
      {"1.2.3.4/x", false, 0, 0},
      {"1.2.3.4/8/8", false, 0, 0},
      {"10.0.0.1/", true, 0x0a000001, 0xFF000000},
      {"", false, 0, 0},
      {"nonsense/8", false, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    unsigned addr = 0, mask = 0;
    EXPECT_EQ(parsePrefix(c.text, &addr, &mask), c.ok);
    if (c.ok) {
      EXPECT_EQ(addr, c.addr);
      EXPECT_EQ(mask, c.mask);
    }
  }
}

}  // namespace
