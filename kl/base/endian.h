// File: kl/base/endian.h
//
// Alignment-safe loads and stores of fixed-width integers in an explicit byte order.
// Every integer that kl writes to a socket or a file goes through these helpers, so the
// encoding is the same on little- and big-endian hosts. Nothing here casts a byte pointer
// to a wider integer type.
#ifndef KL_BASE_ENDIAN_H_
#define KL_BASE_ENDIAN_H_

#include <cstdint>

namespace kl {

// Little-endian: the least significant byte at the lowest address.
inline uint16_t loadLe16(const unsigned char* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
inline uint32_t loadLe32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline uint64_t loadLe64(const unsigned char* p) {
  return static_cast<uint64_t>(loadLe32(p)) | (static_cast<uint64_t>(loadLe32(p + 4)) << 32);
}
inline void storeLe16(unsigned char* p, uint16_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}
inline void storeLe32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}
inline void storeLe64(unsigned char* p, uint64_t v) {
  storeLe32(p, static_cast<uint32_t>(v));
  storeLe32(p + 4, static_cast<uint32_t>(v >> 32));
}

// Big-endian (network order): the most significant byte at the lowest address.
inline uint16_t loadBe16(const unsigned char* p) {
  return static_cast<uint16_t>((p[0] << 8) | p[1]);
}
inline void storeBe16(unsigned char* p, uint16_t v) {
  p[0] = static_cast<unsigned char>(v >> 8);
  p[1] = static_cast<unsigned char>(v);
}
inline uint32_t loadBe32(const unsigned char* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}
inline void storeBe32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}

// The host's own byte order, for the few protocols between processes of one machine that
// are defined in it (the log service's records): big-endian on the device, little-endian on
// a workstation. Still built with shifts, so the choice of order stays visible here.
constexpr bool kHostIsBigEndian = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
inline uint16_t loadHost16(const unsigned char* p) {
  return kHostIsBigEndian ? loadBe16(p) : loadLe16(p);
}
inline void storeHost16(unsigned char* p, uint16_t v) {
  if (kHostIsBigEndian) {
    storeBe16(p, v);
  } else {
    storeLe16(p, v);
  }
}

// Reverses the byte order of a 32-bit value.
constexpr uint32_t byteSwap32(uint32_t v) {
  return (v >> 24) | ((v >> 8) & 0xff00u) | ((v << 8) & 0xff0000u) | (v << 24);
}

}  // namespace kl

#endif  // KL_BASE_ENDIAN_H_
