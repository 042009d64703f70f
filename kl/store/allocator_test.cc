#include "kl/store/allocator.h"

#include <gtest/gtest.h>

#include <vector>

namespace kl {
namespace {

std::vector<unsigned> take(Allocator& a, int n) {
  std::vector<unsigned> ids;
  for (int i = 0; i < n; ++i) ids.push_back(a.allocate());
  return ids;
}

// `text` as a regular expression that matches it literally.
std::string escapeRegex(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

std::string dumpOf(const Allocator& a) {
  ::testing::internal::CaptureStderr();
  a.dump("ids");
  return ::testing::internal::GetCapturedStderr();
}

TEST(Allocator, HandsOutIdsInOrder) {
  Allocator a(1, 3);
  EXPECT_EQ(take(a, 3), (std::vector<unsigned>{1, 2, 3}));
  EXPECT_EQ(a.count(), 0u);
}

TEST(Allocator, FreedIdsComeBackOnlyAfterTheWrap) {
  Allocator a(1, 10);
  take(a, 3);
  a.free(1);
  EXPECT_EQ(a.allocate(), 4u);
  EXPECT_EQ(take(a, 6), (std::vector<unsigned>{5, 6, 7, 8, 9, 10}));
  EXPECT_EQ(a.allocate(), 1u);
}

TEST(Allocator, IdJustBelowTheCurrentRangeStaysSeparate) {
  Allocator a(1, 10);
  take(a, 3);  // 4-10 is current
  a.free(3);
  EXPECT_EQ(dumpOf(a), "ids:\n  3 - 3\n  4 - 10 *\n------\n");
  EXPECT_EQ(take(a, 8), (std::vector<unsigned>{4, 5, 6, 7, 8, 9, 10, 3}));
  a.free(2);
  a.free(1);  // 2 is current, so 1 stays apart from it
  EXPECT_EQ(dumpOf(a), "ids:\n  1 - 1\n  2 - 2 *\n------\n");
}

TEST(Allocator, SpecificIdSplitsAndSpins) {
  Allocator a(1, 10);
  EXPECT_EQ(a.allocate(5), 5u);
  EXPECT_EQ(dumpOf(a), "ids:\n  1 - 4\n  6 - 10 *\n------\n");
  EXPECT_TRUE(a.isAllocated(5));
  EXPECT_EQ(a.allocate(), 6u);
  EXPECT_EQ(a.allocate(1), 1u);  // not the current range: no spin
  EXPECT_EQ(a.allocate(), 7u);
  EXPECT_EQ(a.allocate(10), 10u);  // from the current range: 2-4 is now the largest
  EXPECT_EQ(a.allocate(4), 4u);    // 2-3 and 8-9 are equal: the lower wins
  EXPECT_EQ(dumpOf(a), "ids:\n  2 - 3 *\n  8 - 9\n------\n");
}

TEST(Allocator, SpinPrefersTheLowestOfEqualRanges) {
  Allocator a(1, 9);
  a.allocate(5);  // 1-4 and 6-9, equal: the lowest wins
  EXPECT_EQ(a.allocate(), 1u);
}

TEST(Allocator, IsAllocated) {
  Allocator a(1, 10);
  EXPECT_TRUE(a.isAllocated(0));
  EXPECT_TRUE(a.isAllocated(11));
  EXPECT_FALSE(a.isAllocated(5));
  a.allocate(5);
  EXPECT_TRUE(a.isAllocated(5));
}

TEST(Allocator, AllocateRangeFirstFitAndItsFallBack) {
  Allocator a(std::vector<unsigned>{1, 3, 10, 19, 30, 34});
  unsigned first = 0, got = 0;
  EXPECT_TRUE(a.allocateRange(5, &first, &got));
  EXPECT_EQ(first, 10u);
  EXPECT_EQ(got, 5u);
  EXPECT_TRUE(a.allocateRange(3, &first, nullptr));
  EXPECT_EQ(first, 1u);  // taken whole
  EXPECT_FALSE(a.allocateRange(6, &first, nullptr));
  const unsigned before = a.count();
  EXPECT_TRUE(a.allocateRange(6, &first, &got));
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(first, 30u);  // the last range is withdrawn
  EXPECT_EQ(a.count(), before);
  EXPECT_EQ(dumpOf(a), "ids:\n  15 - 19 *\n------\n");
}

TEST(Allocator, RangeListConstructor) {
  Allocator a(std::vector<unsigned>{1, 2, 3, 5, 8, 8});  // 1-2 touches 3-5 and joins it
  EXPECT_EQ(dumpOf(a), "ids:\n  1 - 5 *\n  8 - 8\n------\n");
  EXPECT_EQ(a.count(), 4u);  // the joined ids are not counted, as built
  EXPECT_EQ(take(a, 4), (std::vector<unsigned>{1, 2, 3, 4}));
  EXPECT_EQ(a.count(), 0u);
  EXPECT_FALSE(a.isAllocated(5));
}

TEST(Allocator, FreeRangeDescends) {
  Allocator a(1, 20);
  take(a, 10);
  a.freeRange(3, 4);
  EXPECT_EQ(dumpOf(a), "ids:\n  3 - 6\n  11 - 20 *\n------\n");
  a.freeRange(8, 0);
  EXPECT_EQ(a.count(), 14u);
}

TEST(Allocator, FreeIntoAnEmptyAllocatorMakesItCurrent) {
  Allocator a(1, 2);
  take(a, 2);
  a.free(2);
  EXPECT_EQ(a.allocate(), 2u);
  a.free(1);
  a.free(2);
  EXPECT_EQ(dumpOf(a), "ids:\n  1 - 2 *\n------\n");
}

TEST(AllocatorDeathTest, MisuseAborts) {
  const struct {
    const char* text;
    void (*misuse)();
  } cases[] = {
      {"allocator: start beyond end", [] { Allocator a(5, 4); }},
      {"Loud Error: Allocator created with 0 free items, max range specified",
       [] { Allocator a(0, 0xFFFFFFFFu); }},
      {"allocator: empty initialisator", [] { Allocator a(std::vector<unsigned>{}); }},
      {"allocator: odd length initialisator",
       [] {
         Allocator a(std::vector<unsigned>{1, 2, 3});
       }},
      {"allocator: overlapping ranges",
       [] {
         Allocator a(std::vector<unsigned>{1, 5, 5, 9});
       }},
      {"allocator: start beyond end",
       [] {
         Allocator a(std::vector<unsigned>{9, 5});
       }},
      {"allocator: no free ids",
       [] {
         Allocator a(1, 1);
         a.allocate();
         a.allocate();
       }},
      {"allocator: no free ids",
       [] {
         Allocator a(1, 1);
         unsigned first;
         a.allocate();
         a.allocateRange(1, &first, nullptr);
       }},
      {"allocator: no free ids (spec)",
       [] {
         Allocator a(1, 1);
         a.allocate();
         a.allocate(1);
       }},
      {"allocator: spec alloc for already allocated",
       [] {
         Allocator a(1, 10);
         a.allocate(5);
         a.allocate(5);
       }},
      {"allocator: spec alloc for already allocated 2",
       [] {
         Allocator a(1, 10);
         a.allocate(11);
       }},
      {"allocator: free already free id",
       [] {
         Allocator a(1, 10);
         a.free(3);
       }},
      // The range fall-back withdraws ids without counting them: the count says ids are
      // free where no range is left.
      {"allocator: no free ids",
       [] {
         Allocator a(1, 3);
         unsigned first, got;
         a.allocateRange(5, &first, &got);
         a.free(10);
         a.allocate();
         a.allocate();
       }},
      {"allocator: no free ids",
       [] {
         Allocator a(1, 3);
         unsigned first, got;
         a.allocateRange(5, &first, &got);
         a.allocateRange(1, &first, &got);
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    // The line stands alone (under emulation qemu adds its own line about the signal).
    EXPECT_DEATH(c.misuse(), "(^|\n)" + escapeRegex(c.text) + "\n");
  }
}

}  // namespace
}  // namespace kl
