#include "tools/message_records.h"

#include "kl/base/endian.h"
#include "kl/message/field_id.h"
#include "kl/message/wire_format.h"

namespace klmsg {

namespace {

// A bounded read position in an encoding.
struct Walk {
  const unsigned char* data;
  size_t size;
  size_t at;

  size_t left() const { return size - at; }
  bool skip(size_t n) {
    if (left() < n) return false;
    at += n;
    return true;
  }
  bool u8(unsigned int* v) {
    if (left() < 1) return false;
    *v = data[at++];
    return true;
  }
  bool u16(unsigned int* v) {
    if (left() < 2) return false;
    *v = kl::loadLe16(data + at);
    at += 2;
    return true;
  }
};

// Bytes of one element of a fixed-size type; 0 for the types whose values carry a length.
size_t fixedSize(uint32_t scalarType) {
  switch (scalarType) {
    case kl::kTypeBool:
      return 1;
    case kl::kTypeU32:
      return 4;
    case kl::kTypeU64:
      return 8;
    case kl::kTypeAddr6:
      return 16;
    default:
      return 0;
  }
}

bool isBlock(uint32_t scalarType) {
  return scalarType == kl::kTypeString || scalarType == kl::kTypeMessage ||
         scalarType == kl::kTypeRaw;
}

// Skips a length (one byte when `shortForm`, else two) and that many bytes.
bool skipBlock(Walk& w, bool shortForm) {
  unsigned int n;
  return (shortForm ? w.u8(&n) : w.u16(&n)) && w.skip(n);
}

bool skipArray(Walk& w, uint32_t elementType) {
  unsigned int count;
  if (!w.u16(&count)) return false;
  if (isBlock(elementType)) {
    for (unsigned int i = 0; i < count; ++i) {
      if (!skipBlock(w, false)) return false;
    }
    return true;
  }
  const size_t size = fixedSize(elementType);
  return size != 0 && w.left() / size >= count && w.skip(size * count);
}

// Skips the value of a record whose id word is `word`.
bool skipValue(Walk& w, uint32_t word) {
  const bool flag = (word & kl::kWireFlagBit) != 0;
  const uint32_t type = word & kl::kTypeMask;
  if ((type & kl::kArrayBit) != 0) return skipArray(w, type & ~kl::kArrayBit);
  switch (type) {
    case kl::kTypeBool:
      return true;  // the flag is the value
    case kl::kTypeU32:
      return w.skip(flag ? 1 : 4);
    case kl::kTypeU64:
    case kl::kTypeAddr6:
      return w.skip(fixedSize(type));
    default:
      return isBlock(type) && skipBlock(w, flag);
  }
}

}  // namespace

bool splitRecords(const unsigned char* data, size_t size, std::vector<Record>* records) {
  records->clear();
  Walk w{data, size, 0};
  unsigned int magic;
  if (!w.u16(&magic) || magic != kl::wire::kMagic) return false;
  while (w.left() > 0) {
    Record r;
    r.begin = w.at;
    if (w.left() < kl::wire::kIdSize) return false;
    r.word = kl::loadLe32(data + w.at);
    w.at += kl::wire::kIdSize;
    if (!skipValue(w, r.word)) return false;
    r.end = w.at;
    records->push_back(r);
  }
  return true;
}

}  // namespace klmsg
