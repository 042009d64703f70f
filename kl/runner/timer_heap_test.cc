#include "kl/runner/timer_heap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace kl {
namespace {

// Timers named by a letter, all armed at `now`; pops return the firing order.
class TimerHeapTest : public ::testing::Test {
 protected:
  void arm(char name, uint32_t expiry, uint32_t now) {
    TimerInfo& t = timers_[name];
    t = TimerInfo{nullptr, nullptr, expiry, TimerInfo::kNotInHeap};
    names_[&t] = name;
    heap_.addTimerToHeap(&t, now);
  }
  std::string popAll() {
    std::string order;
    while (!heap_.empty()) {
      TimerInfo* t = heap_.top();
      heap_.removeTimer(t);
      order += names_[t];
    }
    return order;
  }

  TimerHeap heap_;
  std::map<char, TimerInfo> timers_;
  std::map<const TimerInfo*, char> names_;
};

TEST_F(TimerHeapTest, EqualExpiriesFollowTheTieRules) {
  // Three equal: after the root goes, the lone last child does not move above an equal one.
  for (char c : std::string("ABC")) arm(c, 100, 50);
  EXPECT_EQ(popAll(), "ACB");
  // Four equal: an equal child with a sibling moves up (the right one), a lone one does not.
  for (char c : std::string("ABCD")) arm(c, 100, 50);
  EXPECT_EQ(popAll(), "ACDB");
  for (char c : std::string("AB")) arm(c, 100, 50);
  EXPECT_EQ(popAll(), "AB");
}

TEST_F(TimerHeapTest, AnEqualParentStopsTheClimb) {
  arm('A', 100, 0);
  arm('B', 200, 0);
  arm('C', 100, 0);  // parent A has the same expiry: C stays below it
  EXPECT_EQ(heap_.top(), &timers_['A']);
  EXPECT_EQ(timers_['C'].index, 2u);
  arm('D', 50, 0);
  EXPECT_EQ(popAll(), "DCAB");  // of the equal children A and C, the right one rises
}

TEST_F(TimerHeapTest, OrdersAcrossTheWrapOfTheTickCounter) {
  const uint32_t now = 0xFFFFFF00u;
  arm('A', 0x00000010u, now);  // 272 ticks ahead, past the wrap
  arm('B', 0xFFFFFFF0u, now);  // 240 ticks ahead
  arm('C', now - 1000, now);   // already due
  EXPECT_EQ(popAll(), "CBA");
}

TEST_F(TimerHeapTest, RandomExpiriesComeOutSortedAndIndicesStayTrue) {
  std::mt19937 rng(3);
  std::vector<TimerInfo> timers(500);
  const uint32_t now = 0xFFFF0000u;  // span the wrap
  for (TimerInfo& t : timers) {
    t = TimerInfo{nullptr, nullptr, now + static_cast<uint32_t>(rng() % 300000),
                  TimerInfo::kNotInHeap};
    heap_.addTimerToHeap(&t, now);
  }
  for (uint32_t i = 0; i < heap_.size(); ++i) ASSERT_EQ(heap_.at(i)->index, i);
  // Remove a third from the middle of the heap, then drain.
  for (size_t i = 0; i < timers.size(); i += 3) heap_.removeTimer(&timers[i]);
  for (uint32_t i = 0; i < heap_.size(); ++i) ASSERT_EQ(heap_.at(i)->index, i);
  uint32_t previous = 0;
  while (!heap_.empty()) {
    TimerInfo* t = heap_.top();
    heap_.removeTimer(t);
    const uint32_t offset = t->expiry - now;
    EXPECT_GE(offset, previous);
    previous = offset;
  }
}

TEST(TickReached, WithinTheSpan) {
  const struct {
    uint32_t expiry, now;
    bool reached;
  } cases[] = {
      {100, 100, true},          {100, 101, true},           {100, 99, false},
      {100, 100 + 359999, true}, {100, 100 + 360000, false}, {0xFFFFFFFFu, 5, true},
      {5, 0xFFFFFFFFu, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.expiry) + " at " + std::to_string(c.now));
    EXPECT_EQ(tickReached(c.expiry, c.now), c.reached);
  }
}

// The pool hands back released records first, newest first, and otherwise distinct records
// across block boundaries; the sanitizer build checks that it frees every block.
TEST(TimerPoolTest, ReusesReleasedRecordsBeforeTakingNewOnes) {
  TimerPool pool;
  std::vector<TimerInfo*> taken;
  for (uint32_t i = 0; i < 3 * TimerPool::kBlock + 1; ++i) {
    TimerInfo* t = pool.get();
    *t = TimerInfo{nullptr, nullptr, i, TimerInfo::kNotInHeap};
    taken.push_back(t);
  }
  std::vector<TimerInfo*> sorted = taken;
  std::sort(sorted.begin(), sorted.end());
  EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end());
  for (uint32_t i = 0; i < taken.size(); ++i) EXPECT_EQ(taken[i]->expiry, i);

  pool.put(taken[5]);
  pool.put(taken[70]);
  EXPECT_EQ(pool.get(), taken[70]);
  EXPECT_EQ(pool.get(), taken[5]);
  TimerInfo* fresh = pool.get();
  EXPECT_EQ(std::find(taken.begin(), taken.end(), fresh), taken.end());
}

}  // namespace
}  // namespace kl
