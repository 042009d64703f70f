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
// cast to its item<V> by its id alone.
#ifndef KL_MESSAGE_REP_H_
#define KL_MESSAGE_REP_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "kl/message/htable.h"
#include "kl/message/message.h"

namespace kl {

using Bytes = std::vector<unsigned char>;
using flat_message = message::flat_message;

struct message::litem {
  uint32_t id;
  litem* next;
};

template <class V>
struct item : message::litem {
  V value;
};

constexpr uint32_t kNoBool = 0xFFFFFFFFu;

struct message::Rep {
  constexpr Rep() = default;
  Rep(const Rep&) = delete;
  Rep& operator=(const Rep&) = delete;
  ~Rep();

  std::unique_ptr<htable<bool> > bools;
  htable<unsigned int> u32s;
  litem* fields = nullptr;
  litem* arrays = nullptr;
  uint32_t singleBoolId = kNoBool;
  bool singleBoolValue = false;
  std::unique_ptr<Bytes> flatSide;
  std::atomic<uint32_t> refs{1};
  bool unshareable = false;

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

// The value of the first node of the list with exactly `id`, or null.
template <class V>
const V* findIn(const message::litem* node, uint32_t id) {
  for (; node != nullptr; node = node->next) {
    if (node->id == id) return &static_cast<const item<V>*>(node)->value;
  }
  return nullptr;
}

// The value of the node with `id`, created (zero or empty) at the head of the list when
// absent. REQUIRES: V is the value type of `id`'s type bits.
template <class V>
V& findOrCreateIn(message::litem*& head, uint32_t id) {
  if (const V* found = findIn<V>(head, id)) return *const_cast<V*>(found);
  item<V>* node = new item<V>();
  node->id = id;
  node->next = head;
  head = node;
  return node->value;
}

}  // namespace kl

#endif  // KL_MESSAGE_REP_H_
