// File: kl/message/wire_format.h
//
// The constants that the message encoder and decoders share.
//
// Current format: the magic "M2" (bytes 0x4D 0x32, 0x324D as a little-endian u16), then
// field records until the end of the buffer. A record is the field id as a 4-byte
// little-endian word whose bit 24 (kWireFlagBit) is a flag, then the value:
//   bool     nothing; the flag is the value
//   u32      1 byte when the flag is set (value <= 255), else 4 bytes
//   u64      8 bytes;  addr6  16 bytes as stored
//   string, message, raw
//            length (1 byte when the flag is set, else 2), then the bytes; no NUL
//   array    2-byte element count, then the elements: bool 1 byte, u32 4, u64 8, addr6 16,
//            string/raw/message a 2-byte length and the bytes
// All integers little-endian. A message value is a whole nested encoding, magic included.
//
// Older format (still decoded): a u16 item count, then items of a 9-byte header
// {type (1 bool, 2 u32, 3 string, 4 raw, 5 message), 4-byte key, u16 element count,
// 2 unused bytes} and their data. Key bits 0-15 are the number, bits 24-27 the namespace
// class (1 = 0xfe, 2 = 0xfd, 3 = 0xff, else global).
#ifndef KL_MESSAGE_WIRE_FORMAT_H_
#define KL_MESSAGE_WIRE_FORMAT_H_

#include <cstdint>

namespace kl {
namespace wire {

constexpr uint16_t kMagic = 0x324D;        // "M2" read as a little-endian u16
constexpr unsigned int kMagicSize = 2;     // bytes of the magic
constexpr unsigned int kIdSize = 4;        // bytes of a record's id word
constexpr unsigned int kCountSize = 2;     // bytes of an array's element count
constexpr unsigned int kShortLimit = 255;  // largest u32 value / length in short form
// Mask that takes the stored id out of a record's id word (clears the flag bit).
constexpr uint32_t kStoredIdMask = 0xFEFFFFFFu;

// The older format: the bytes before an item's value (type, key, length), and its types.
constexpr unsigned int kOldItemHeaderSize = 9;
// The type byte of an older-format item.
enum OldType : unsigned char {
  kOldBool = 1,
  kOldU32 = 2,
  kOldString = 3,
  kOldRaw = 4,
  kOldMessage = 5
};

}  // namespace wire
}  // namespace kl

#endif  // KL_MESSAGE_WIRE_FORMAT_H_
