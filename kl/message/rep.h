// File: kl/message/rep.h
//
// The representation behind kl::message, shared by the message, wire, algebra and dump
// units of the library. Not installed; services use kl/message/message.h.
//
// Rep holds the u32 table, the list of non-array u64/addr6/string/message/raw fields, the
// list of all arrays, the single inline bool, the reference count and the unshareable flag;
// the bool table (null until a second distinct bool is stored) and the flat side buffer of
// the pass-through decode mode are among its extras, allocated when first needed. Lists run
// newest first. A list node's value type follows from its id's type bits, which the
// accessors always force, so a node can be cast to its item<V> by its id alone. Field ids
// never carry the array bit and array ids always do, so an id alone also tells which list
// holds it.
//
// Memory: a Rep and its node pool share one block. A message built field by field starts
// in a small block (kBlockSize: the Rep and room for one string node), so that a message
// of a few fields costs one allocation and little memory; when its pool is used up, one
// more small block becomes its node chunk. A message decoded from more than
// kLargeDecodeFrom bytes, which usually carries strings, arrays or nested messages, starts
// in a large block (kLargeBlockSize) whose pool takes the nodes of a typical request, so
// that a decode costs one allocation. Nodes beyond pool and chunk are allocated one by
// one. Freed blocks of both sizes are kept per thread for reuse, so a message built or
// decoded in a loop usually allocates nothing.
//
// An addition serves speed and changes no order: once the lists hold more than kIndexFrom
// nodes, an index by id finds a node without walking its list (decode, comparison and
// merge stay linear in the number of fields).
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

// Bytes of the node pool that follows a Rep in a small block: one string node, the
// largest kind.
constexpr uint32_t kNodePoolSize = (sizeof(item<std::string>) + 7) & ~7u;

// Hidden: the representation is not part of the exported interface. Aligned to 8 because
// the node pool follows it.
struct __attribute__((visibility("hidden"), aligned(8))) message::Rep {
  // The representation that every default-constructed message shares, constant-initialised.
  // It is never written to, so it needs no node pool.
  enum Shared { kShared };
  constexpr explicit Rep(Shared) : u32s(), unshareable(false), large(false) {}
  // A representation in a block (see create()): the u32 table's inline slots are left to
  // its first insertion.
  Rep() : u32s(htable<unsigned int>::kUninitialized), unshareable(false), large(false) {}
  Rep(const Rep&) = delete;
  Rep& operator=(const Rep&) = delete;
  ~Rep();

  // The parts few messages need, allocated on first use: the bool table (a second distinct
  // bool), the flat side buffer (a pass-through decode) and the index by id (more than
  // kIndexFrom nodes).
  struct Extras {
    htable<bool> bools{htable<bool>::kUninitialized};  // there is a table once in use
    std::unique_ptr<Bytes> flatSide;
    std::unique_ptr<NodeIndex<litem> > index;
  };

  // A new, empty representation in a small or `large` block with its node pool, taken
  // from this thread's kept blocks when it has one. Free it with destroy().
  static Rep* create(bool large = false);
  static void destroy(Rep* rep);

  htable<unsigned int> u32s;
  litem* fields = nullptr;
  litem* arrays = nullptr;
  std::unique_ptr<Extras> extras;
  unsigned char* chunk = nullptr;  // the block of further nodes, once the pool is used up
  uint32_t singleBoolId = kNoBool;
  std::atomic<uint32_t> refs{1};
  uint32_t nodeCount = 0;  // nodes in both lists
  // Bytes handed out from the pool and the chunk. Their space is not reused when a node
  // is freed; both go with the Rep.
  uint8_t poolUsed = 0;
  uint8_t chunkUsed = 0;
  bool singleBoolValue = false;
  bool unshareable : 1;
  bool large : 1;  // in a large block

  static constexpr uint32_t kIndexFrom = 12;

  // The bool table, or null while there is none.
  htable<bool>* boolTable() { return extras && extras->bools.inUse() ? &extras->bools : nullptr; }
  const htable<bool>* boolTable() const {
    return extras && extras->bools.inUse() ? &extras->bools : nullptr;
  }
  // The bool table, to be used at once: it exists from its first insertion. The single
  // bool stays where it is.
  htable<bool>& makeBoolTable() { return extrasRef().bools; }
  Extras& extrasRef() {
    if (!extras) extras.reset(new Extras);
    return *extras;
  }
  // The flat side buffer, or null.
  Bytes* flatSide() const { return extras ? extras->flatSide.get() : nullptr; }

  // The bool slot of `id`, created false when absent. The first bool lives inline; a second
  // distinct id moves both into the table, where every bool stays from then on.
  bool& boolRef(uint32_t id);
  // Stores a bool as insert, decode and merge do: once the table is in use, its growth rule
  // applies before the lookup, as it does for u32 values, so overwriting an existing id at
  // the threshold grows the table too.
  void setBool(uint32_t id, bool value);

  unsigned int boolCount() const {
    if (const htable<bool>* table = boolTable()) return table->count();
    return singleBoolId != kNoBool ? 1 : 0;
  }

  // The list that holds `id`: arrays for ids with the array bit, fields for the others.
  litem*& listOf(uint32_t id) { return (id & kArrayBit) != 0 ? arrays : fields; }
  const litem* listOf(uint32_t id) const { return (id & kArrayBit) != 0 ? arrays : fields; }

  // The index by id, or null while the lists are short.
  NodeIndex<litem>* activeIndex() const { return extras ? extras->index.get() : nullptr; }

  // The node with exactly `id`, or null.
  const litem* findNode(uint32_t id) const {
    if (const NodeIndex<litem>* index = activeIndex()) return index->find(id);
    for (const litem* node = listOf(id); node != nullptr; node = node->next) {
      if (node->id == id) return node;
    }
    return nullptr;
  }

  // A new node for `id` whose value is built from `args` (zero or empty without any), not
  // yet linked.
  template <class V, class... Args>
  item<V>* newItem(uint32_t id, Args&&... args) {
    static_assert(alignof(item<V>) <= 8, "pool nodes are 8-byte aligned");
    item<V>* node =
        new (nodeSpace((sizeof(item<V>) + 7) & ~7u)) item<V>(std::forward<Args>(args)...);
    node->id = id;
    return node;
  }

  // Links `node` at the head of its list and indexes it.
  void link(litem* node) {
    litem*& head = listOf(node->id);
    node->next = head;
    head = node;
    // An index, once built, stays: the count may have fallen below the threshold since.
    if (++nodeCount > kIndexFrom || extras != nullptr) indexNode(node);
  }

  // Unlinks the node that *link points at and frees it.
  void unlink(litem** link) {
    litem* node = *link;
    *link = node->next;
    --nodeCount;
    if (NodeIndex<litem>* index = activeIndex()) index->erase(node->id);
    freeNode(node);
  }

  // Destroys a node, returning its memory unless it lies in the pool or the chunk.
  void freeNode(litem* node);

 private:
  unsigned char* pool() { return reinterpret_cast<unsigned char*>(this + 1); }
  // Room for a node of `size` bytes (a multiple of 8): in the pool, else in the chunk
  // (taken now if need be), else on its own.
  void* nodeSpace(uint32_t size) {
    if (poolUsed + size > poolSize()) return chunkSpace(size);
    void* space = pool() + poolUsed;
    poolUsed += size;
    return space;
  }
  void* chunkSpace(uint32_t size);
  uint32_t poolSize() const;
  // Whether `node` lies in the pool or the chunk rather than on its own.
  bool inBlocks(const void* node) const;
  // Indexes the newly linked `node` when there is an index, or builds the index when the
  // lists have just grown past kIndexFrom.
  void indexNode(litem* node);
};

// The size of a small block: a Rep with its node pool, or a node chunk.
constexpr uint32_t kBlockSize = sizeof(message::Rep) + kNodePoolSize;
// The size of a large block: the memory of two small ones, in one allocation.
constexpr uint32_t kLargeBlockSize = 2 * kBlockSize + 8;
// Decodes of more bytes than this start in a large block.
constexpr uint32_t kLargeDecodeFrom = 32;
static_assert(kLargeBlockSize - sizeof(message::Rep) <= 255,
              "pool and chunk offsets are kept in a byte");

inline uint32_t message::Rep::poolSize() const {
  return large ? kLargeBlockSize - sizeof(Rep) : kNodePoolSize;
}

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
  if (const htable<bool>* table = r->boolTable()) {
    table->forEach(f);
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
