// File: kl/store/store_format.h
//
// The on-disk layout of a kl::Store, shared by the store and the kl-store tool.
//
// P.idx: an array of 12-byte slots, slot n at byte n * 12:
//   0  4  message id; 0xFFFFFFFF marks a free slot
//   4  4  length of the slot's extent in P.dat, record header included
//   8  4  age counter (meaningless in a free slot)
// The index holds no offsets: slot n's extent starts at the sum of the lengths of slots
// 0 .. n-1, free slots included, so P.dat is exactly as long as the sum of all lengths.
//
// P.dat: extents laid end to end in slot order. Each begins with a record:
//   0  2  record length: 2 + the message's length, modulo 65536
//   2  .. the message in the wire format; the rest of the extent is slack, never read
//
// Every integer is little-endian. A byte-swapped (big-endian) form of both files is read
// and rewritten little-endian at once.
#ifndef KL_STORE_STORE_FORMAT_H_
#define KL_STORE_STORE_FORMAT_H_

#include <cstdint>

#include "kl/base/endian.h"

namespace kl {
namespace storefmt {

constexpr uint32_t kFreeId = 0xFFFFFFFFu;  // the id of a free slot
constexpr unsigned kSlotSize = 12;         // bytes of an index slot
constexpr unsigned kRecordHeaderSize = 2;  // bytes of a record's length field

// An index slot, decoded.
struct Slot {
  uint32_t id;      // the message id, or kFreeId
  uint32_t length;  // the extent's length, record header included
  uint32_t age;     // the age counter
};

// Decodes a slot; `swapped` reads the big-endian form.
inline Slot loadSlot(const unsigned char* p, bool swapped) {
  if (swapped) return Slot{loadBe32(p), loadBe32(p + 4), loadBe32(p + 8)};
  return Slot{loadLe32(p), loadLe32(p + 4), loadLe32(p + 8)};
}

// Encodes a slot (always little-endian).
inline void storeSlot(unsigned char* p, const Slot& s) {
  storeLe32(p, s.id);
  storeLe32(p + 4, s.length);
  storeLe32(p + 8, s.age);
}

}  // namespace storefmt
}  // namespace kl

#endif  // KL_STORE_STORE_FORMAT_H_
