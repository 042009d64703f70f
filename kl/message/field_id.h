// File: kl/message/field_id.h
//
// The field id scheme. A 32-bit field id carries its value type in its top five bits:
//   bit 31      array flag
//   bits 30-27  value type code (kTypeBool ... kTypeRaw)
//   bit 25      pass-through mark for the flat-preserving decode mode
//   bit 24      always clear in a stored id (the wire format uses it as a flag)
//   bits 23-16  namespace: 0xff system, 0xfe standard, 0xfd local, 0x00 global
//   bits 15-0   number within the namespace
// Two ids with the same low bits and different type bits are different fields.
#ifndef KL_MESSAGE_FIELD_ID_H_
#define KL_MESSAGE_FIELD_ID_H_

#include <cstdint>

namespace kl {

constexpr uint32_t kArrayBit = 0x80000000u;        // set in the id of every array field
constexpr uint32_t kTypeMask = 0xF8000000u;        // type code and array flag together
constexpr uint32_t kWireFlagBit = 0x01000000u;     // the encoder's short flag, never stored
constexpr uint32_t kPassThroughBit = 0x02000000u;  // kept undecoded by a pass-through decode

// Type bits of the scalar value types; an array id adds kArrayBit.
constexpr uint32_t kTypeBool = 0x00000000u;
constexpr uint32_t kTypeU32 = 0x08000000u;
constexpr uint32_t kTypeU64 = 0x10000000u;
constexpr uint32_t kTypeAddr6 = 0x18000000u;
constexpr uint32_t kTypeString = 0x20000000u;
constexpr uint32_t kTypeMessage = 0x28000000u;
constexpr uint32_t kTypeRaw = 0x30000000u;

// `id` with its type bits replaced by `typeBits` (a kType* value, optionally | kArrayBit).
constexpr uint32_t withType(uint32_t id, uint32_t typeBits) { return (id & ~kTypeMask) | typeBits; }

// A field id forced to the u32 type: (id & 0x07ffffff) | 0x08000000. The system's u32
// header constants are of this type, so `m.get(SYS_REQID, 0)` reads field 0x08ff0006.
// Converts back to the full id.
struct u32_id {
  uint32_t id;  // the full id, type bits included
  // `anyId` with its type bits made u32 (implicit, so that constants convert).
  constexpr u32_id(uint32_t anyId) : id(withType(anyId, kTypeU32)) {}
  constexpr operator uint32_t() const { return id; }  // the full id
};

// A field id forced to the u32-array type: (id & 0x07ffffff) | 0x88000000. `SYS_TO` and
// `SYS_FROM` are of this type.
struct u32_array_id {
  uint32_t id;  // the full id, type bits included
  // `anyId` with its type bits made u32 array (implicit, so that constants convert).
  constexpr u32_array_id(uint32_t anyId) : id(withType(anyId, kArrayBit | kTypeU32)) {}
  constexpr operator uint32_t() const { return id; }  // the full id
};

}  // namespace kl

#endif  // KL_MESSAGE_FIELD_ID_H_
