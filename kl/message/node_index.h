// File: kl/message/node_index.h
//
// NodeIndex: an index from field id to list node, kept by a message representation whose
// lists have grown long, so that lookups, decoding, comparison and merging stay linear in
// the number of fields. It only finds nodes: the lists keep their own order, which is the
// order of records on the wire. Open addressing over a power-of-two table of {id, node}
// slots, multiplicative hash, linear probe, deleted slots reused. Not thread-safe; library
// internal, not installed.
#ifndef KL_MESSAGE_NODE_INDEX_H_
#define KL_MESSAGE_NODE_INDEX_H_

#include <cstdint>
#include <memory>

namespace kl {

template <class Node>
class __attribute__((visibility("hidden"))) NodeIndex {
 public:
  constexpr NodeIndex() = default;
  NodeIndex(const NodeIndex&) = delete;
  NodeIndex& operator=(const NodeIndex&) = delete;

  // Whether the index is in use; an unused one finds nothing.
  bool active() const { return slots_ != nullptr; }

  // The node with `id`, or null.
  Node* find(uint32_t id) const {
    for (uint32_t i = start(id);; i = (i + 1) & mask_) {
      const Slot& s = slots_[i];
      if (s.node == nullptr) return nullptr;
      if (s.id == id && s.node != gone()) return s.node;
    }
  }

  // Adds `node` under its id. REQUIRES: active(), and no node with that id is indexed.
  void insert(Node* node) {
    const uint32_t capacity = mask_ + 1;
    if (2 * (used_ + 1) > capacity) rehash(4 * (live_ + 1) > capacity ? 2 * capacity : capacity);
    put(node);
  }

  // Removes the node with `id`, if indexed.
  void erase(uint32_t id) {
    for (uint32_t i = start(id);; i = (i + 1) & mask_) {
      Slot& s = slots_[i];
      if (s.node == nullptr) return;
      if (s.id == id && s.node != gone()) {
        s.node = gone();
        --live_;
        return;
      }
    }
  }

  // Starts indexing with room for `count` nodes (none indexed yet).
  void activate(uint32_t count) {
    uint32_t capacity = 32;
    while (capacity < 2 * count + 2) capacity *= 2;
    allocate(capacity);
  }

 private:
  struct Slot {
    uint32_t id;
    Node* node;  // null: never used; gone(): deleted
  };

  static Node* gone() { return reinterpret_cast<Node*>(&goneMarker); }
  // The top bits of a multiplicative hash: ids of one message differ mostly in low bits.
  uint32_t start(uint32_t id) const { return (id * 0x9E3779B1u) >> shift_; }

  void allocate(uint32_t capacity) {
    slots_.reset(new Slot[capacity]());
    mask_ = capacity - 1;
    shift_ = 32;
    for (uint32_t c = capacity; c > 1; c >>= 1) --shift_;
    used_ = live_ = 0;
  }

  void put(Node* node) {
    uint32_t i = start(node->id);
    while (slots_[i].node != nullptr && slots_[i].node != gone()) i = (i + 1) & mask_;
    if (slots_[i].node == nullptr) ++used_;
    slots_[i] = Slot{node->id, node};
    ++live_;
  }

  void rehash(uint32_t capacity) {
    std::unique_ptr<Slot[]> old = std::move(slots_);
    const uint32_t oldCapacity = mask_ + 1;
    allocate(capacity);
    for (uint32_t i = 0; i < oldCapacity; ++i) {
      if (old[i].node != nullptr && old[i].node != gone()) put(old[i].node);
    }
  }

  static inline char goneMarker = 0;

  std::unique_ptr<Slot[]> slots_;
  uint32_t mask_ = 0;
  uint32_t shift_ = 32;
  uint32_t used_ = 0;  // slots not never-used: live and deleted
  uint32_t live_ = 0;
};

}  // namespace kl

#endif  // KL_MESSAGE_NODE_INDEX_H_
