// File: kl/runner/timer_heap.h
//
// The runner's one-shot timers and the binary min-heap that orders them by expiry.
//
// Expiries are unsigned 32-bit tick counts (1/100 s) that wrap modulo 2^32, so they are
// compared only within a span of 359999 ticks: relative to the heap's reference time (the
// `now` of the latest insertion), an expiry x sorts by x - (reference - 359999). A timer is
// reached at time N when N equals its expiry or lies at most 359999 ticks after it.
//
// The order of timers with equal expiries is observable (they fire in heap order) and
// follows two tie rules, written out in placeTimerInHeap. Not thread-safe.
#ifndef KL_RUNNER_TIMER_HEAP_H_
#define KL_RUNNER_TIMER_HEAP_H_

#include <cstdint>
#include <vector>

namespace kl {

// One armed timer, taken from and given back to the TimerPool of the runner that holds it.
struct TimerInfo {
  static constexpr uint32_t kNotInHeap = 0xFFFFFFFFu;  // the index of a timer in no heap

  void* ctx;              // passed to fn
  void (*fn)(void* ctx);  // null: cancelled while waiting outside the heap
  uint32_t expiry;        // absolute in the heap; relative while a delayed timer waits
  uint32_t index;         // slot in the heap, or kNotInHeap
};

// The largest span within which two tick values compare.
constexpr uint32_t kTickSpan = 359999;

// Whether `expiry` is reached at `now`.
inline bool tickReached(uint32_t expiry, uint32_t now) {
  return now == expiry || expiry + kTickSpan - now <= kTickSpan - 1;
}

// Storage for timer records. Records come in blocks of kBlock, and a released record goes
// on a free list from which the next one is taken, so arming and cancelling cost no
// malloc() or free() once the pool has grown to the most timers ever armed at once. Blocks
// are freed only with the pool. Not thread-safe.
class TimerPool {
 public:
  static constexpr uint32_t kBlock = 64;  // records allocated together

  TimerPool() = default;
  TimerPool(const TimerPool&) = delete;
  TimerPool& operator=(const TimerPool&) = delete;
  // Frees every block, records still in use included.
  ~TimerPool();

  // An unused record (its fields unset).
  TimerInfo* get() {
    if (free_ != nullptr) {
      TimerInfo* t = free_;
      free_ = static_cast<TimerInfo*>(t->ctx);
      return t;
    }
    if (fresh_ == kBlock) addBlock();
    return &blocks_->records[fresh_++];
  }
  // Gives a record back; the next get() returns it.
  void put(TimerInfo* t) {
    t->ctx = free_;
    free_ = t;
  }

 private:
  struct Block {
    Block* next;
    TimerInfo records[kBlock];
  };
  void addBlock();

  TimerInfo* free_ = nullptr;  // linked through ctx
  Block* blocks_ = nullptr;    // newest first
  uint32_t fresh_ = kBlock;    // records of blocks_ handed out so far
};

// The armed timers of a runner, a binary heap ordered by expiry relative to a reference
// time (see the file comment).
class TimerHeap {
 public:
  // Sets the reference time to `now` and inserts t. REQUIRES: t is not in the heap.
  void addTimerToHeap(TimerInfo* t, uint32_t now);
  // Takes t out of the heap (t is neither freed nor has its index reset).
  // REQUIRES: t is in this heap.
  void removeTimer(TimerInfo* t);

  bool empty() const { return heap_.empty(); }                           // no timer armed
  uint32_t size() const { return static_cast<uint32_t>(heap_.size()); }  // timers armed
  // The earliest timer. REQUIRES: !empty().
  TimerInfo* top() const { return heap_.front().timer; }
  TimerInfo* at(uint32_t slot) const { return heap_[slot].timer; }
  uint32_t referenceTime() const { return ref_; }
  // Forgets every timer (frees nothing).
  void clear() { heap_.clear(); }

 private:
  void placeTimerInHeap(TimerInfo* t, uint32_t slot, uint32_t ref);
  // A heap entry carries its timer's expiry, so that a sift compares within the array and
  // touches a timer's record only to move it: with many timers the records lie all over
  // memory, and reading each one's expiry cost a cache miss per level.
  struct Entry {
    uint32_t expiry;
    TimerInfo* timer;
  };
  void put(TimerInfo* t, uint32_t slot) {
    heap_[slot] = Entry{t->expiry, t};
    t->index = slot;
  }
  void move(uint32_t from, uint32_t to) {
    heap_[to] = heap_[from];
    heap_[to].timer->index = to;
  }

  std::vector<Entry> heap_;
  uint32_t ref_ = 0;
};

}  // namespace kl

#endif  // KL_RUNNER_TIMER_HEAP_H_
