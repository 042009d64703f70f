// File: kl/message/htable.h
//
// htable<T>: the open-addressing hash table in which a message keeps its bool (T = bool)
// and u32 (T = unsigned int) fields, one slot {id, value} per field and no allocation per
// field. The slot order is observable: the encoder and the dump walk live slots in slot
// order, so the hash (id % capacity), the linear probe, the growth rule and the handling of
// deleted slots below are part of the wire contract.
//
// Slot ids 0xFFFFFFFF (never used) and 0xFFFFFFFE (deleted) are markers, so those two ids
// cannot be stored. A table starts with capacity 11, whose slots live inside the table
// object itself (most messages never grow past them, and a decode then costs one allocation
// less); a grown table's slots are on the heap. Not thread-safe.
#ifndef KL_MESSAGE_HTABLE_H_
#define KL_MESSAGE_HTABLE_H_

#include <cstdint>
#include <memory>

namespace kl {

template <typename T>
class __attribute__((visibility("hidden"))) htable {
 public:
  static constexpr uint32_t kNeverUsed = 0xFFFFFFFFu;
  static constexpr uint32_t kDeleted = 0xFFFFFFFEu;
  static constexpr uint32_t kInitialCapacity = 11;

  struct slot {
    uint32_t id;
    T value;
  };

  constexpr htable() : inline_{} {}
  // A table whose inline slots are left unwritten until its first insertion, which writes
  // them all: saves clearing them twice in every new message.
  enum Uninitialized { kUninitialized };
  explicit htable(Uninitialized) {}
  htable(const htable& other);
  htable& operator=(const htable& other);

  // The value stored under `id`, or null when absent. Valid until the next insertion.
  const T* find(uint32_t id) const;
  T* find(uint32_t id) { return const_cast<T*>(static_cast<const htable*>(this)->find(id)); }

  // The value slot of `id`, created when absent (its value is then unspecified: the caller
  // stores one at once). Grows the table first when one more entry would pass
  // capacity/16 + capacity/2, even when `id` is already present.
  // REQUIRES: id is neither marker.
  T& get_ref(uint32_t id);

  // Marks the slot of `id` deleted. Returns false when absent.
  bool remove(uint32_t id);

  uint32_t count() const { return count_; }
  uint32_t capacity() const { return capacity_; }

  // Calls f(id, value) for every live slot in slot order.
  template <typename F>
  void forEach(F&& f) const {
    for (uint32_t i = 0; slots_ && i < capacity_; ++i) {
      if (isLive(slots_[i].id)) f(slots_[i].id, slots_[i].value);
    }
  }

  // Calls f(id) for every live slot in slot order; the slot is deleted when f returns true.
  template <typename F>
  void removeIf(F&& f) {
    for (uint32_t i = 0; slots_ && i < capacity_; ++i) {
      if (isLive(slots_[i].id) && f(slots_[i].id)) {
        slots_[i].id = kDeleted;
        --count_;
      }
    }
  }

  static bool isLive(uint32_t id) { return id < kDeleted; }

 private:
  void allocate(uint32_t capacity);
  void grow();
  // Index of `id`'s slot, or of the slot an insertion of `id` would take; -1 when the table
  // is full of other ids. `forInsert` selects the second meaning.
  int64_t probe(uint32_t id, bool forInsert) const;

  slot* slots_ = nullptr;  // null until the first insertion, then inline_ or heap_
  std::unique_ptr<slot[]> heap_;
  uint32_t capacity_ = kInitialCapacity;
  uint32_t count_ = 0;
  slot inline_[kInitialCapacity];
};

template <typename T>
htable<T>::htable(const htable& other) {
  *this = other;
}

template <typename T>
htable<T>& htable<T>::operator=(const htable& other) {
  if (this == &other) return *this;
  if (other.slots_ == nullptr) {
    slots_ = nullptr;
    heap_.reset();
    capacity_ = other.capacity_;
    count_ = 0;
    return *this;
  }
  allocate(other.capacity_);
  for (uint32_t i = 0; i < capacity_; ++i) slots_[i] = other.slots_[i];
  count_ = other.count_;
  return *this;
}

template <typename T>
void htable<T>::allocate(uint32_t capacity) {
  if (capacity == kInitialCapacity) {
    heap_.reset();
    slots_ = inline_;
  } else {
    heap_.reset(new slot[capacity]);
    slots_ = heap_.get();
  }
  capacity_ = capacity;
  count_ = 0;
  for (uint32_t i = 0; i < capacity; ++i) slots_[i] = slot{kNeverUsed, T()};
}

template <typename T>
int64_t htable<T>::probe(uint32_t id, bool forInsert) const {
  if (!slots_) return -1;
  // Most tables never grow: a constant divisor lets the compiler avoid a division.
  const uint32_t start = capacity_ == kInitialCapacity ? id % kInitialCapacity : id % capacity_;
  int64_t firstDeleted = -1;
  uint32_t i = start;
  do {
    const uint32_t here = slots_[i].id;
    if (here == id) return i;
    if (here == kNeverUsed) {
      if (!forInsert) return -1;
      return firstDeleted >= 0 ? firstDeleted : static_cast<int64_t>(i);
    }
    if (here == kDeleted && firstDeleted < 0) firstDeleted = i;
    i = (i + 1 == capacity_) ? 0 : i + 1;
  } while (i != start);
  return forInsert ? firstDeleted : -1;
}

template <typename T>
const T* htable<T>::find(uint32_t id) const {
  int64_t i = probe(id, false);
  return i < 0 ? nullptr : &slots_[i].value;
}

template <typename T>
void htable<T>::grow() {
  // Keep the old slots alive (inline or heap) while they are re-inserted in slot order.
  std::unique_ptr<slot[]> oldHeap = std::move(heap_);
  slot oldInline[kInitialCapacity];
  const uint32_t oldCapacity = capacity_;
  const slot* old = oldHeap.get();
  if (old == nullptr) {
    for (uint32_t i = 0; i < kInitialCapacity; ++i) oldInline[i] = inline_[i];
    old = oldInline;
  }
  allocate(2 * oldCapacity);
  for (uint32_t i = 0; i < oldCapacity; ++i) {
    if (isLive(old[i].id)) get_ref(old[i].id) = old[i].value;
  }
}

template <typename T>
T& htable<T>::get_ref(uint32_t id) {
  if (!slots_) allocate(capacity_);
  if (count_ + 1 > capacity_ / 16 + capacity_ / 2) grow();
  int64_t i = probe(id, true);
  slot& s = slots_[i];  // the growth rule keeps free slots, so the probe always finds one
  if (s.id != id) {
    s.id = id;
    ++count_;
  }
  return s.value;
}

template <typename T>
bool htable<T>::remove(uint32_t id) {
  int64_t i = probe(id, false);
  if (i < 0) return false;
  slots_[i].id = kDeleted;
  --count_;
  return true;
}

}  // namespace kl

#endif  // KL_MESSAGE_HTABLE_H_
