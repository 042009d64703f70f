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
// less); a grown table's slots are on the heap, and the pointer to them takes the place of
// the inline slots, so that the table is no larger than its inline slots and two counts.
// Not thread-safe.
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
  ~htable() { release(); }

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
  // Whether anything was ever inserted (the table has slots).
  bool inUse() const { return capacity_ != 0; }
  uint32_t capacity() const { return capacity_ != 0 ? capacity_ : kInitialCapacity; }

  // Calls f(id, value) for every live slot in slot order.
  template <typename F>
  void forEach(F&& f) const {
    if (capacity_ == 0) return;
    const slot* s = slots();
    for (uint32_t i = 0; i < capacity_; ++i) {
      if (isLive(s[i].id)) f(s[i].id, s[i].value);
    }
  }

  // Calls f(id) for every live slot in slot order; the slot is deleted when f returns true.
  template <typename F>
  void removeIf(F&& f) {
    if (capacity_ == 0) return;
    slot* s = slots();
    for (uint32_t i = 0; i < capacity_; ++i) {
      if (isLive(s[i].id) && f(s[i].id)) {
        s[i].id = kDeleted;
        --count_;
      }
    }
  }

  static bool isLive(uint32_t id) { return id < kDeleted; }

 private:
  // The slots in use: the inline ones or the heap's. REQUIRES: capacity_ != 0.
  slot* slots() { return capacity_ == kInitialCapacity ? inline_ : heap_; }
  const slot* slots() const { return capacity_ == kInitialCapacity ? inline_ : heap_; }
  // Gives `capacity` never-used slots, inline for the initial capacity.
  void allocate(uint32_t capacity);
  // Frees heap slots, if any.
  void release() {
    if (capacity_ > kInitialCapacity) delete[] heap_;
  }
  void grow();
  // `id`'s slot, or the slot an insertion of `id` would take; null when the table is full
  // of other ids. `forInsert` selects the second meaning.
  const slot* probe(uint32_t id, bool forInsert) const;
  slot* probe(uint32_t id, bool forInsert) {
    return const_cast<slot*>(static_cast<const htable*>(this)->probe(id, forInsert));
  }

  // 0 until the first insertion (no slot written yet; the capacity is then
  // kInitialCapacity), else the number of slots.
  uint32_t capacity_ = 0;
  uint32_t count_ = 0;
  union {
    slot inline_[kInitialCapacity];  // while capacity_ is kInitialCapacity
    slot* heap_;                     // while capacity_ is larger
  };
};

template <typename T>
htable<T>::htable(const htable& other) {
  *this = other;
}

template <typename T>
htable<T>& htable<T>::operator=(const htable& other) {
  if (this == &other) return *this;
  if (other.capacity_ == 0) {
    release();
    capacity_ = 0;
    count_ = 0;
    return *this;
  }
  allocate(other.capacity_);
  slot* mine = slots();
  const slot* theirs = other.slots();
  for (uint32_t i = 0; i < capacity_; ++i) mine[i] = theirs[i];
  count_ = other.count_;
  return *this;
}

template <typename T>
void htable<T>::allocate(uint32_t capacity) {
  release();
  if (capacity != kInitialCapacity) heap_ = new slot[capacity];
  capacity_ = capacity;
  count_ = 0;
  slot* s = slots();
  for (uint32_t i = 0; i < capacity; ++i) s[i] = slot{kNeverUsed, T()};
}

template <typename T>
const typename htable<T>::slot* htable<T>::probe(uint32_t id, bool forInsert) const {
  if (capacity_ == 0) return nullptr;
  const slot* s = slots();
  // Most tables never grow: a constant divisor lets the compiler avoid a division.
  const uint32_t start = capacity_ == kInitialCapacity ? id % kInitialCapacity : id % capacity_;
  int64_t firstDeleted = -1;
  uint32_t i = start;
  do {
    const uint32_t here = s[i].id;
    if (here == id) return &s[i];
    if (here == kNeverUsed) {
      if (!forInsert) return nullptr;
      return firstDeleted >= 0 ? &s[firstDeleted] : &s[i];
    }
    if (here == kDeleted && firstDeleted < 0) firstDeleted = i;
    i = (i + 1 == capacity_) ? 0 : i + 1;
  } while (i != start);
  return forInsert && firstDeleted >= 0 ? &s[firstDeleted] : nullptr;
}

template <typename T>
const T* htable<T>::find(uint32_t id) const {
  const slot* s = probe(id, false);
  return s != nullptr ? &s->value : nullptr;
}

template <typename T>
void htable<T>::grow() {
  // Take the old slots (inline or heap) out of the table while they are re-inserted in
  // slot order.
  const uint32_t oldCapacity = capacity_;
  slot oldInline[kInitialCapacity];
  std::unique_ptr<slot[]> oldHeap;
  const slot* old = oldInline;
  if (oldCapacity == kInitialCapacity) {
    for (uint32_t i = 0; i < kInitialCapacity; ++i) oldInline[i] = inline_[i];
  } else {
    oldHeap.reset(heap_);
    old = heap_;
    capacity_ = 0;  // the heap slots now belong to oldHeap
  }
  allocate(2 * oldCapacity);
  for (uint32_t i = 0; i < oldCapacity; ++i) {
    if (isLive(old[i].id)) get_ref(old[i].id) = old[i].value;
  }
}

template <typename T>
T& htable<T>::get_ref(uint32_t id) {
  if (capacity_ == 0) allocate(kInitialCapacity);
  if (count_ + 1 > capacity_ / 16 + capacity_ / 2) grow();
  slot& s = *probe(id, true);  // the growth rule keeps free slots, so the probe finds one
  if (s.id != id) {
    s.id = id;
    ++count_;
  }
  return s.value;
}

template <typename T>
bool htable<T>::remove(uint32_t id) {
  slot* s = probe(id, false);
  if (s == nullptr) return false;
  s->id = kDeleted;
  --count_;
  return true;
}

}  // namespace kl

#endif  // KL_MESSAGE_HTABLE_H_
