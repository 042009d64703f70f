#include "tools/loader/flat_frame.h"

#include <cstring>

#include "kl/base/endian.h"
#include "kl/message/field_id.h"
#include "kl/message/system.h"
#include "kl/message/wire_format.h"

namespace kl {
namespace loader {

namespace {

// A bounded read position, as the decoder walks a body.
struct Walk {
  const unsigned char* p;
  const unsigned char* end;
  size_t left() const { return static_cast<size_t>(end - p); }
  bool skip(size_t n) {
    if (left() < n) return false;
    p += n;
    return true;
  }
  bool u8(unsigned int* v) {
    if (left() < 1) return false;
    *v = *p++;
    return true;
  }
  bool u16(unsigned int* v) {
    if (left() < 2) return false;
    *v = loadLe16(p);
    p += 2;
    return true;
  }
  bool u32(uint32_t* v) {
    if (left() < 4) return false;
    *v = loadLe32(p);
    p += 4;
    return true;
  }
};

size_t fixedElementSize(uint32_t type) {
  switch (type) {
    case kTypeBool:
      return 1;
    case kTypeU32:
      return 4;
    case kTypeU64:
      return 8;
    case kTypeAddr6:
      return 16;
    default:
      return 0;  // a block type: each element carries its own length
  }
}

bool isBlock(uint32_t type) {
  return type == kTypeString || type == kTypeMessage || type == kTypeRaw;
}

// Skips the value of an array record; `elements` receives a u32 array's values.
bool skipArray(Walk& w, uint32_t elementType, std::vector<unsigned int>* elements) {
  unsigned int count;
  if (!w.u16(&count)) return false;
  if (isBlock(elementType)) {
    for (unsigned int i = 0; i < count; ++i) {
      unsigned int n;
      if (!w.u16(&n) || !w.skip(n)) return false;
    }
    return true;
  }
  const size_t size = fixedElementSize(elementType);
  if (size == 0 || w.left() / size < count) return false;
  if (elements != nullptr) {
    elements->resize(count);
    for (unsigned int i = 0; i < count; ++i) (*elements)[i] = loadLe32(w.p + 4 * i);
  }
  return w.skip(size * count);
}

// Skips one record's value; *value receives a u32's value.
bool skipScalar(Walk& w, uint32_t type, bool shortForm, unsigned int* value) {
  switch (type) {
    case kTypeBool:
      return true;
    case kTypeU32:
      if (shortForm) return w.u8(value);
      return w.u32(value);
    case kTypeU64:
      return w.skip(8);
    case kTypeAddr6:
      return w.skip(16);
    case kTypeString:
    case kTypeMessage:
    case kTypeRaw: {
      unsigned int n;
      return (shortForm ? w.u8(&n) : w.u16(&n)) && w.skip(n);
    }
    default:
      return false;
  }
}

void putPath(unsigned char*& out, uint32_t id, const std::vector<unsigned int>& path) {
  storeLe32(out, id);
  storeLe16(out + 4, static_cast<uint16_t>(path.size()));
  out += 6;
  for (unsigned int v : path) {
    storeLe32(out, v);
    out += 4;
  }
}

}  // namespace

bool parseFlatFrame(const unsigned char* body, uint32_t length, FlatFrame* frame) {
  *frame = FlatFrame();
  frame->body = body;
  frame->length = length;
  Walk w{body, body + length};
  unsigned int magic;
  if (!w.u16(&magic) || magic != wire::kMagic) return false;
  while (w.left() >= wire::kIdSize) {
    const uint32_t begin = static_cast<uint32_t>(w.p - body);
    uint32_t word;
    w.u32(&word);
    const uint32_t id = word & wire::kStoredIdMask;
    const uint32_t type = word & kTypeMask;
    if (type & kArrayBit) {
      std::vector<unsigned int>* path = nullptr;
      if (id == SYS_TO) {
        if (frame->toEnd != 0) return false;
        path = &frame->to;
      } else if (id == SYS_FROM) {
        if (frame->fromEnd != 0) return false;
        path = &frame->from;
      }
      if (!skipArray(w, type & ~kArrayBit, path)) return false;
      const uint32_t end = static_cast<uint32_t>(w.p - body);
      if (id == SYS_TO) {
        frame->toBegin = begin;
        frame->toEnd = end;
      } else if (id == SYS_FROM) {
        frame->fromBegin = begin;
        frame->fromEnd = end;
      }
      continue;
    }
    unsigned int value = 0;
    if (!skipScalar(w, type, (word & kWireFlagBit) != 0, &value)) return false;
    if (id == SYS_CTRL) return false;  // control messages are the loader's own business
    if (id == SYS_TYPE) frame->type = value;
    if (id == SYS_POLICY) frame->hasPolicy = true;
    if (id == SYS_REPLYEXP) frame->replyExpected = (word & kWireFlagBit) != 0;
    if (id == SYS_REQID) {
      frame->hasRequestId = true;
      frame->requestId = value;
    }
  }
  return w.left() == 0;
}

std::unique_ptr<unsigned char[]> spliceFrame(const FlatFrame& frame,
                                             const std::vector<unsigned int>& to,
                                             const std::vector<unsigned int>& from,
                                             uint32_t* frameLength) {
  const uint32_t oldPaths = (frame.toEnd - frame.toBegin) + (frame.fromEnd - frame.fromBegin);
  const uint32_t body =
      frame.length - oldPaths + 2 * 6 + 4 * static_cast<uint32_t>(to.size() + from.size());
  std::unique_ptr<unsigned char[]> out(new unsigned char[body + 4]);
  unsigned char* p = out.get();
  storeLe32(p, body);
  p += 4;
  storeLe16(p, wire::kMagic);
  p += 2;
  putPath(p, SYS_TO, to);
  putPath(p, SYS_FROM, from);
  // Every other record in its place: the spans between and around the two path records.
  uint32_t cuts[4] = {frame.toBegin, frame.toEnd, frame.fromBegin, frame.fromEnd};
  if (frame.fromBegin < frame.toBegin) {
    std::swap(cuts[0], cuts[2]);
    std::swap(cuts[1], cuts[3]);
  }
  uint32_t pos = 2;
  for (int i = 0; i < 4; i += 2) {
    if (cuts[i] == cuts[i + 1]) continue;  // absent
    memcpy(p, frame.body + pos, cuts[i] - pos);
    p += cuts[i] - pos;
    pos = cuts[i + 1];
  }
  memcpy(p, frame.body + pos, frame.length - pos);
  *frameLength = body + 4;
  return out;
}

}  // namespace loader
}  // namespace kl
