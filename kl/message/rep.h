// File: kl/message/rep.h
//
// The representation behind kl::message, shared by the message, wire, algebra and dump
// units of the library. Not installed; services use kl/message/message.h.
//
// Rep holds, in this order: the bool table (null until a second distinct bool is stored),
// the u32 table, the list of non-array u64/addr6/string/message/raw fields, the list of all
// arrays, the single inline bool, the flat side buffer of the pass-through decode mode, the
// reference count and the unshareable flag. Lists run newest first. A list node's value
// type follows from its id's type bits, which the accessors always force, so a node can be
// cast to its item<V> by its id alone. Field ids never carry the array bit and array ids
// always do, so an id alone also tells which list holds it.
//
// Two additions serve speed and change no order: once the lists hold more than kIndexFrom
// nodes, an index by id finds a node without walking its list (decode, comparison and
// merge stay linear in the number of fields); and the first nodes are placed in a pool
// allocated with the Rep itself, so that a typical message costs one allocation, not one
// per field.
#ifndef KL_MESSAGE_REP_H_
#define KL_MESSAGE_REP_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kl/message/htable.h"
#include "kl/message/message.h"
#include "kl/message/node_index.h"

namespace kl {

using Bytes = std::vector<unsigned char>;
using flat_message = message::flat_message;

struct message::litem {
  uint32_t id;
  litem* next;
};

template <class V>
struct item : message::litem {
  // The value is built from `args` (zero or empty without any).
  template <class... Args>
  explicit item(Args&&... args) : message::litem{0, nullptr}, value(std::forward<Args>(args)...) {}
  V value;
};

constexpr uint32_t kNoBool = 0xFFFFFFFFu;

// Hidden: the representation is not part of the exported interface. Aligned to 8 because
// the node pool follows it.
struct __attribute__((visibility("hidden"), aligned(8))) message::Rep {
  // The representation that every default-constructed message shares: no node pool.
  constexpr Rep() = default;
  // A representation with `pool` bytes of node pool after it (see create()).
  explicit Rep(uint32_t pool) : u32s(htable<unsigned int>::kUninitialized), poolSize(pool) {}
  Rep(const Rep&) = delete;
  Rep& operator=(const Rep&) = delete;
  ~Rep();

  // A new, empty representation, allocated together with its node pool: the first list
  // nodes live in the same allocation as the Rep, so that a typical message costs one
  // allocation, and none when this thread has a freed one to reuse. Free it with
  // destroy().
  static Rep* create();
  static void destroy(Rep* rep);

  std::unique_ptr<htable<bool> > bools;
  htable<unsigned int> u32s;
  litem* fields = nullptr;
  litem* arrays = nullptr;
  uint32_t singleBoolId = kNoBool;
  bool singleBoolValue = false;
  std::unique_ptr<Bytes> flatSide;
  std::atomic<uint32_t> refs{1};
  bool unshareable = false;
  // Nodes in both lists; once there are more than kIndexFrom, `index` finds them by id.
  uint32_t nodeCount = 0;
  NodeIndex<litem> index;
  // The node pool: poolSize bytes right after the Rep, of which poolUsed are handed out.
  // Pool space is not reused when its node is freed; the whole pool goes with the Rep.
  uint32_t poolSize = 0;
  uint32_t poolUsed = 0;

  static constexpr uint32_t kIndexFrom = 12;
  static constexpr uint32_t kPoolSize = 192;

  // The bool slot of `id`, created false when absent. The first bool lives inline; a second
  // distinct id moves both into the table, where every bool stays from then on.
  bool& boolRef(uint32_t id);
  // Stores a bool as insert, decode and merge do: once the table is in use, its growth rule
  // applies before the lookup, as it does for u32 values, so overwriting an existing id at
  // the threshold grows the table too.
  void setBool(uint32_t id, bool value);

  unsigned int boolCount() const {
    if (bools) return bools->count();
    return singleBoolId != kNoBool ? 1 : 0;
  }

  // The list that holds `id`: arrays for ids with the array bit, fields for the others.
  litem*& listOf(uint32_t id) { return (id & kArrayBit) != 0 ? arrays : fields; }
  const litem* listOf(uint32_t id) const { return (id & kArrayBit) != 0 ? arrays : fields; }

  // The node with exactly `id`, or null.
  const litem* findNode(uint32_t id) const {
    if (index.active()) return index.find(id);
    for (const litem* node = listOf(id); node != nullptr; node = node->next) {
      if (node->id == id) return node;
    }
    return nullptr;
  }

  // A new node for `id` whose value is built from `args` (zero or empty without any), not
  // yet linked.
  template <class V, class... Args>
  item<V>* newItem(uint32_t id, Args&&... args) {
    constexpr uint32_t size = (sizeof(item<V>) + 7) & ~7u;
    static_assert(alignof(item<V>) <= 8, "pool nodes are 8-byte aligned");
    item<V>* node;
    if (poolUsed + size <= poolSize) {
      node = new (pool() + poolUsed) item<V>(std::forward<Args>(args)...);
      poolUsed += size;
    } else {
      node = new item<V>(std::forward<Args>(args)...);
    }
    node->id = id;
    return node;
  }

  // Links `node` at the head of its list and indexes it.
  void link(litem* node) {
    litem*& head = listOf(node->id);
    node->next = head;
    head = node;
    ++nodeCount;
    if (index.active()) {
      index.insert(node);
    } else if (nodeCount > kIndexFrom) {
      buildIndex();
    }
  }

  // Unlinks the node that *link points at and frees it.
  void unlink(litem** link) {
    litem* node = *link;
    *link = node->next;
    --nodeCount;
    if (index.active()) index.erase(node->id);
    freeNode(node);
  }

  // Destroys a node, returning its memory unless it lies in the pool.
  void freeNode(litem* node);

 private:
  unsigned char* pool() { return reinterpret_cast<unsigned char*>(this + 1); }
  bool inPool(const void* p) const {
    const unsigned char* base = reinterpret_cast<const unsigned char*>(this + 1);
    const unsigned char* q = static_cast<const unsigned char*>(p);
    return q >= base && q < base + poolSize;
  }
  void buildIndex();
};

// The value type of each type code, for scalars (Scalar) and arrays (Array).
template <uint32_t TypeBits>
struct ValueTypes;
template <>
struct ValueTypes<kTypeBool> {
  using Scalar = bool;
  using Array = std::vector<bool>;
};
template <>
struct ValueTypes<kTypeU32> {
  using Scalar = unsigned int;
  using Array = std::vector<unsigned int>;
};
template <>
struct ValueTypes<kTypeU64> {
  using Scalar = unsigned long long;
  using Array = std::vector<unsigned long long>;
};
template <>
struct ValueTypes<kTypeAddr6> {
  using Scalar = IPAddr6;
  using Array = std::vector<IPAddr6>;
};
template <>
struct ValueTypes<kTypeString> {
  using Scalar = std::string;
  using Array = std::vector<std::string>;
};
template <>
struct ValueTypes<kTypeMessage> {
  using Scalar = flat_message;
  using Array = std::vector<flat_message>;
};
template <>
struct ValueTypes<kTypeRaw> {
  using Scalar = Bytes;
  using Array = std::vector<Bytes>;
};

// Whether V is the value type of an array node (a vector of elements; raw bytes and
// flattened messages are scalars).
template <class V>
struct IsArray : std::false_type {};
template <class E>
struct IsArray<std::vector<E> >
    : std::integral_constant<bool, !std::is_same<E, unsigned char>::value> {};

template <class T>
struct Tag {
  using type = T;
};

// Calls f(static_cast<item<V>*>(node)) with V the value type of the node's id. Every node
// in a list has a list-held type, so the default branch cannot be reached.
template <class Node, class F>
decltype(auto) visitItem(Node* node, F&& f) {
  using Base = std::conditional_t<std::is_const<Node>::value, const message::litem, message::litem>;
  auto as = [node](auto tag) {
    using V = typename decltype(tag)::type;
    using It = std::conditional_t<std::is_const<Node>::value, const item<V>, item<V> >;
    return static_cast<It*>(static_cast<Base*>(node));
  };
  const bool array = (node->id & kArrayBit) != 0;
  switch (node->id & ~kArrayBit & kTypeMask) {
    case kTypeBool:
      return f(as(Tag<std::vector<bool> >()));
    case kTypeU32:
      return f(as(Tag<std::vector<unsigned int> >()));
    case kTypeU64:
      return array ? f(as(Tag<std::vector<unsigned long long> >()))
                   : f(as(Tag<unsigned long long>()));
    case kTypeAddr6:
      return array ? f(as(Tag<std::vector<IPAddr6> >())) : f(as(Tag<IPAddr6>()));
    case kTypeString:
      return array ? f(as(Tag<std::vector<std::string> >())) : f(as(Tag<std::string>()));
    case kTypeMessage:
      return array ? f(as(Tag<std::vector<flat_message> >())) : f(as(Tag<flat_message>()));
    default:
      return array ? f(as(Tag<std::vector<Bytes> >())) : f(as(Tag<Bytes>()));
  }
}

// Calls f(id, value) for the single bool or every live entry of the bool table, in the
// order the encoder and the dump use.
template <class F>
void forEachBoolOf(const message::Rep* r, F&& f) {
  if (r->bools) {
    r->bools->forEach(f);
  } else if (r->singleBoolId != kNoBool) {
    f(r->singleBoolId, r->singleBoolValue);
  }
}

// The value of the node with exactly `id`, or null. REQUIRES: V is the value type of
// `id`'s type bits.
template <class V>
const V* findIn(const message::Rep* r, uint32_t id) {
  const message::litem* node = r->findNode(id);
  return node != nullptr ? &static_cast<const item<V>*>(node)->value : nullptr;
}

// The value of the node with `id`, created (zero or empty) at the head of its list when
// absent. REQUIRES: V is the value type of `id`'s type bits.
template <class V>
V& findOrCreateIn(message::Rep* r, uint32_t id) {
  if (const V* found = findIn<V>(r, id)) return *const_cast<V*>(found);
  item<V>* node = r->newItem<V>(id);
  r->link(node);
  return node->value;
}

// Stores `value` under `id`: assigned to the node that holds `id`, or copied or moved into
// a new node at the head of its list (no empty value made first and then overwritten).
// REQUIRES: V is the value type of `id`'s type bits.
template <class V, class U>
void storeIn(message::Rep* r, uint32_t id, U&& value) {
  if (const V* found = findIn<V>(r, id)) {
    *const_cast<V*>(found) = std::forward<U>(value);
  } else {
    r->link(r->newItem<V>(id, std::forward<U>(value)));
  }
}

}  // namespace kl

#endif  // KL_MESSAGE_REP_H_
