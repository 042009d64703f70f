#include "kl/util/rate_limit.h"

#include <gtest/gtest.h>

#include <random>

namespace {

struct Limit {
  unsigned rateA = 0, rateB = 0, burstA = 0, burstB = 0, thresholdA = 0, thresholdB = 0;
  unsigned timeA = 0, timeB = 0, limitAtA = 0, limitAtB = 0, priority = 0;

  bool parse(const std::string& s) {
    return parseBwRates(s, &rateA, &rateB, &burstA, &burstB, &thresholdA, &thresholdB, &timeA,
                        &timeB, &limitAtA, &limitAtB, &priority);
  }
  std::string print(bool pretty = false) const {
    return rateLim2str(pretty, rateA, rateB, burstA, burstB, thresholdA, thresholdB, timeA, timeB,
                       limitAtA, limitAtB, priority);
  }
  std::vector<unsigned> values() const {
    return {rateA, rateB, burstA,   burstB,   thresholdA, thresholdB,
            timeA, timeB, limitAtA, limitAtB, priority};
  }
};

TEST(ParseBwRates, AcceptedStrings) {
  const struct {
    const char* text;
    std::vector<unsigned> expected;  // rate, burst, threshold, time, limit-at pairs, priority
  } cases[] = {
      {"", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"10M", {10000000, 10000000, 0, 0, 0, 0, 0, 0, 10000000, 10000000, 0}},
      {"1k/2k 4k/4k", {1000, 2000, 4000, 4000, 1000, 2000, 1, 1, 1000, 2000, 0}},
      {"1k/2k 4k/0", {1000, 2000, 4000, 0, 1000, 0, 1, 0, 1000, 2000, 0}},
      {"1M 0 0 0 8", {1000000, 1000000, 0, 0, 0, 0, 0, 0, 1000000, 1000000, 8}},
      {"  5m\t\t6K  ", {5000000, 5000000, 6000, 6000, 5000000, 5000000, 1, 1, 5000000, 5000000, 0}},
      {"2M/1M 0/0 0/0 0/0 3 1M/500k", {2000000, 1000000, 0, 0, 0, 0, 0, 0, 1000000, 500000, 3}},
      {"1k 2k 3k 4/5 1 1k ignored extra",
       {1000, 1000, 2000, 2000, 3000, 3000, 4, 5, 1000, 1000, 1}},
      {"/", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    Limit l;
    ASSERT_TRUE(l.parse(c.text));
    EXPECT_EQ(l.values(), c.expected);
  }
}

TEST(ParseBwRates, RejectedStrings) {
  const char* cases[] = {
      "1M 0 0 0 9",     // priority above 8
      "1M 0 0 0 0 2M",  // limit-at above the rate
      "0 0 0 0 0 1",    // limit-at with no rate
      "10G",            // no G unit
      "10kb",           // two characters after the digits
      "12x",
      "1k/2k/3k",     // only the first slash splits
      "1k 2k 3k 4k",  // times take no unit
      "1k 2k 3k 4 p",
  };
  for (const char* text : cases) {
    SCOPED_TRACE(text);
    Limit l;
    EXPECT_FALSE(l.parse(text));
  }
}

TEST(ParseBwRates, NullOutputsAreParsedAndDropped) {
  unsigned priority = 99;
  EXPECT_TRUE(parseBwRates("1M 2M", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                           nullptr, nullptr, nullptr, &priority));
  EXPECT_EQ(priority, 0u);
  EXPECT_FALSE(parseBwRates("1M 0 0 0 9", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, nullptr, nullptr));
}

TEST(RateLim2str, PlainAndPrettyForms) {
  const struct {
    Limit limit;
    const char* plain;
    const char* pretty;
  } cases[] = {
      {Limit(), "", ""},
      {[] {
         Limit l;
         l.rateA = 10000000;
         l.rateB = 5000000;
         return l;
       }(),
       "10000000/5000000", "9M549K640B/4M786K832B"},
      {[] {
         Limit l;
         l.rateA = l.rateB = 1000;
         l.priority = 3;
         return l;
       }(),
       "1000/1000 0/0 0/0 0/0 3", "1000B/1000B 0/0 0/0 0/0 3"},
      {[] {
         Limit l;
         l.limitAtA = 500;
         return l;
       }(),
       "0/0 0/0 0/0 0/0 0 500", "0/0 0/0 0/0 0/0 0 500B"},
      {[] {
         Limit l;
         l.rateA = 2048;
         l.timeA = 5400;
         l.timeB = 60;
         return l;
       }(),
       "2048/0 0/0 0/0 5400/60", "2K/0 0/0 0/0 1h30m/1m"},
      {[] {
         Limit l;
         l.rateA = 7;
         l.rateB = 0;
         return l;
       }(),
       "7", "7B"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.plain);
    EXPECT_EQ(c.limit.print(false), c.plain);
    EXPECT_EQ(c.limit.print(true), c.pretty);
  }
}

// The plain form reads back: with every pair either unset or set in both directions (a pair
// "X/0" printed last shows as "X", which reads as both directions), what the parser takes from
// the printer's text survives another print and parse. The first parse fills in defaults, such
// as the limit-at, that the printer then writes out.
TEST(RateLim2str, PlainFormParsesBackOverRandomLimits) {
  std::mt19937 rng(20261122);
  auto pair = [&rng](unsigned* a, unsigned* b, unsigned bound) {
    const bool set = rng() % 4 != 0;
    *a = set ? rng() % bound + 1 : 0;
    *b = set ? rng() % bound + 1 : 0;
  };
  for (int i = 0; i < 5000; ++i) {
    Limit l;
    pair(&l.rateA, &l.rateB, 100000000);
    pair(&l.burstA, &l.burstB, 100000000);
    pair(&l.thresholdA, &l.thresholdB, 100000000);
    pair(&l.timeA, &l.timeB, 600);
    if (l.rateA != 0 && rng() % 2 == 0) {
      l.limitAtA = rng() % l.rateA + 1;
      l.limitAtB = rng() % l.rateB + 1;
    }
    l.priority = rng() % 9;
    const std::string text = l.print();
    SCOPED_TRACE(text);
    Limit back;
    ASSERT_TRUE(back.parse(text));
    EXPECT_EQ(back.rateA, l.rateA);
    EXPECT_EQ(back.burstB, l.burstB);
    EXPECT_EQ(back.priority, l.priority);
    Limit again;
    ASSERT_TRUE(again.parse(back.print()));
    EXPECT_EQ(again.values(), back.values());
  }

  // With every setting set nothing is elided and the numbers come back exactly.
  for (int i = 0; i < 1000; ++i) {
    Limit l;
    unsigned* all[] = {&l.rateA,      &l.rateB,      &l.burstA, &l.burstB,
                       &l.thresholdA, &l.thresholdB, &l.timeA,  &l.timeB};
    for (unsigned* v : all) *v = rng() % 4000000000u + 1;
    l.limitAtA = rng() % l.rateA + 1;
    l.limitAtB = rng() % l.rateB + 1;
    l.priority = rng() % 8 + 1;
    Limit back;
    ASSERT_TRUE(back.parse(l.print()));
    EXPECT_EQ(back.values(), l.values());
  }
}

TEST(MergeRateLim, StricterSettingWins) {
  const struct {
    const char* a;
    const char* b;
    const char* expected;
  } cases[] = {
      {"10M", "5M/20M", "5000000/10000000 0/0 0/0 0/0 0 5000000/10000000"},
      {"bad!", "1M", ""},
      {"1M", "bad!", "1M"},
      {"1M 0 0 0 5", "2M 0 0 0 3", "1000000/1000000 0/0 0/0 0/0 3 1000000/1000000"},
      {"1M 0 0 0 5", "2M", "1000000/1000000 0/0 0/0 0/0 0 1000000/1000000"},
      {"", "", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.a) + " + " + c.b);
    std::string a = c.a;
    mergeRateLim(a, c.b, false);
    EXPECT_EQ(a, c.expected);
  }
}

TEST(RateStrings, ShortForms) {
  EXPECT_EQ(getStrRate(0), "0");
  EXPECT_EQ(getStrRate(1500), "1500");
  EXPECT_EQ(getStrRate(2000), "2k");
  EXPECT_EQ(getStrRate(3000000), "3M");
  EXPECT_EQ(makeRateLimit(0, 0), "");
  EXPECT_EQ(makeRateLimit(10000000, 512000), "10M/512k");
  EXPECT_EQ(makeRateLimit(2000000, 0), "2M/0");
}

TEST(RateStrings, Breakdowns) {
  EXPECT_EQ(bytes2detailstr(0, ""), "0B");
  EXPECT_EQ(bytes2detailstr(1536, ""), "1K512B");
  EXPECT_EQ(bytes2detailstr(1048576, ""), "1M");
  EXPECT_EQ(bytes2detailstr(1049600, " "), "1M 1K");
  EXPECT_EQ(bytes2detailstr((3ull << 40) + (1ull << 30) + 5, "-"), "3T-1G-5B");
  EXPECT_EQ(duration2str(0, ""), "0s");
  EXPECT_EQ(duration2str(5400, ""), "1h30m");
  EXPECT_EQ(duration2str(694861, " "), "1w 1d 1h 1m 1s");
}

TEST(RateParsers, ValuesAndPairs) {
  unsigned a = 1, b = 1;
  EXPECT_TRUE(parseRate("", &a));
  EXPECT_EQ(a, 0u);
  EXPECT_TRUE(parseRate("5K", &a));
  EXPECT_EQ(a, 5000u);
  EXPECT_TRUE(parseRate("5000m", &a));
  EXPECT_EQ(a, 5000000000u % 4294967296u);  // the product wraps at 32 bits
  EXPECT_TRUE(parseRates("1k/2m", &a, &b));
  EXPECT_EQ(a, 1000u);
  EXPECT_EQ(b, 2000000u);
  EXPECT_TRUE(parseNumbers("7", &a, &b));
  EXPECT_EQ(a, 7u);
  EXPECT_EQ(b, 7u);
  EXPECT_FALSE(parseNumber("7k", &a));
  EXPECT_FALSE(parseNumbers("7/x", nullptr, nullptr));
}

}  // namespace
