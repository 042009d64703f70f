#include "kl/runner/timer_heap.h"

#include <cstdlib>

#include "kl/base/check.h"

namespace kl {

TimerPool::~TimerPool() {
  while (blocks_ != nullptr) {
    Block* next = blocks_->next;
    free(blocks_);
    blocks_ = next;
  }
}

void TimerPool::addBlock() {
  Block* b = static_cast<Block*>(malloc(sizeof(Block)));
  KL_CHECK(b != nullptr);
  b->next = blocks_;
  blocks_ = b;
  fresh_ = 0;
}

namespace {

// Position of an expiry on the comparison line that starts one span before the reference.
inline uint32_t key(uint32_t expiry, uint32_t base) { return expiry - base; }

}  // namespace

// Puts t into the hole at `slot`. The tie rules: climbing, a parent with an equal expiry
// stops t (t stays below it); descending, an equal child moves up when it has a sibling,
// but a lone last child moves up only when strictly earlier. Both are part of the firing
// order that services observe.
void TimerHeap::placeTimerInHeap(TimerInfo* t, uint32_t slot, uint32_t ref) {
  const uint32_t base = ref - kTickSpan;
  const uint32_t mine = key(t->expiry, base);
  if (slot > 0) {
    const uint32_t parent = heap_[(slot - 1) / 2].expiry;
    if (parent != t->expiry && key(parent, base) > mine) {
      while (slot > 0) {
        const uint32_t up = (slot - 1) / 2;
        if (key(heap_[up].expiry, base) <= mine) break;
        move(up, slot);
        slot = up;
      }
      put(t, slot);
      return;
    }
  }
  const uint32_t last = static_cast<uint32_t>(heap_.size()) - 1;
  if (slot != last) {
    while (2 * slot + 2 <= last) {
      const uint32_t left = 2 * slot + 1;
      const uint32_t right = left + 1;
      const uint32_t child =
          key(heap_[right].expiry, base) <= key(heap_[left].expiry, base) ? right : left;
      if (heap_[child].expiry != t->expiry && mine < key(heap_[child].expiry, base)) break;
      move(child, slot);
      slot = child;
    }
    const uint32_t left = 2 * slot + 1;
    if (left == last && key(heap_[left].expiry, base) < mine) {
      move(left, slot);
      slot = left;
    }
  }
  put(t, slot);
}

void TimerHeap::addTimerToHeap(TimerInfo* t, uint32_t now) {
  ref_ = now;
  heap_.push_back(Entry{0, nullptr});
  placeTimerInHeap(t, static_cast<uint32_t>(heap_.size()) - 1, now);
}

void TimerHeap::removeTimer(TimerInfo* t) {
  TimerInfo* last = heap_.back().timer;
  heap_.pop_back();
  if (!heap_.empty() && last != t) placeTimerInHeap(last, t->index, ref_);
}

}  // namespace kl
