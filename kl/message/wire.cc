// The message wire format: encoder, size bound and the two decoders. The byte layout is
// described in kl/message/wire_format.h.
#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>

#include "kl/base/endian.h"
#include "kl/message/rep.h"
#include "kl/message/system.h"
#include "kl/message/wire_format.h"

namespace kl {

namespace {

// --- encoding -------------------------------------------------------------------------------

// Appends to a buffer that the caller sized with max_length().
struct Writer {
  unsigned char* p;

  void u8(unsigned int v) { *p++ = static_cast<unsigned char>(v); }
  void u16(unsigned int v) {
    storeLe16(p, static_cast<uint16_t>(v));
    p += 2;
  }
  void u32(uint32_t v) {
    storeLe32(p, v);
    p += 4;
  }
  void u64(uint64_t v) {
    storeLe64(p, v);
    p += 8;
  }
  // Short values (most strings, every nested flag or name) are copied with fixed-size moves
  // that the compiler inlines, two overlapping ones covering the length; longer ones call
  // memcpy.
  void bytes(const void* src, size_t n) {
    const unsigned char* s = static_cast<const unsigned char*>(src);
    if (n >= 8 && n <= 16) {
      memcpy(p, s, 8);
      memcpy(p + n - 8, s + n - 8, 8);
    } else if (n >= 4 && n < 8) {
      memcpy(p, s, 4);
      memcpy(p + n - 4, s + n - 4, 4);
    } else if (n < 4) {
      for (size_t i = 0; i < n; ++i) p[i] = s[i];
    } else {
      memcpy(p, s, n);
    }
    p += n;
  }
};

// Array elements.
void putElement(Writer& w, bool v) { w.u8(v ? 1 : 0); }
void putElement(Writer& w, unsigned int v) { w.u32(v); }
void putElement(Writer& w, unsigned long long v) { w.u64(v); }
void putElement(Writer& w, const IPAddr6& v) { w.bytes(v.bytes, 16); }
template <class Blob>
void putElement(Writer& w, const Blob& v) {  // string, raw, message: long length always
  w.u16(v.size());
  w.bytes(v.data(), v.size());
}

// Scalar records of the field list.
void putScalar(Writer& w, uint32_t id, unsigned long long v) {
  w.u32(id);
  w.u64(v);
}
void putScalar(Writer& w, uint32_t id, const IPAddr6& v) {
  w.u32(id);
  w.bytes(v.bytes, 16);
}
template <class Blob>
void putScalar(Writer& w, uint32_t id, const Blob& v) {
  if (v.size() <= wire::kShortLimit) {
    w.u32(id | kWireFlagBit);
    w.u8(v.size());
  } else {
    w.u32(id);
    w.u16(v.size());  // longer values lose their high bits; nothing bigger is expected
  }
  w.bytes(v.data(), v.size());
}

template <class V>
void putRecord(Writer& w, uint32_t id, const V& value) {
  id &= ~kWireFlagBit;
  if constexpr (IsArray<V>::value) {
    w.u32(id);
    w.u16(value.size());
    for (const auto& e : value) putElement(w, static_cast<const typename V::value_type&>(e));
  } else {
    putScalar(w, id, value);
  }
}

unsigned int elementBound(bool) { return 1; }
unsigned int elementBound(unsigned int) { return 4; }
unsigned int elementBound(unsigned long long) { return 8; }
unsigned int elementBound(const IPAddr6&) { return 16; }
template <class Blob>
unsigned int elementBound(const Blob& v) {
  return v.size() + 2;
}

template <class V>
unsigned int recordBound(const V& value) {
  if constexpr (IsArray<V>::value) {
    unsigned int n = 6;
    for (const auto& e : value) n += elementBound(static_cast<const typename V::value_type&>(e));
    return n;
  } else {
    return 4 + elementBound(value);
  }
}

// --- decoding -------------------------------------------------------------------------------

void assignBytes(std::string* out, const unsigned char* data, size_t n) {
  out->assign(reinterpret_cast<const char*>(data), n);
}
void assignBytes(Bytes* out, const unsigned char* data, size_t n) { out->assign(data, data + n); }

// A bounded view of the input; every read checks that its bytes lie inside.
struct Cursor {
  const unsigned char* p;
  const unsigned char* end;

  size_t left() const { return static_cast<size_t>(end - p); }
  bool has(size_t n) const { return n <= left(); }
  bool u8(unsigned int* v) {
    if (!has(1)) return false;
    *v = *p++;
    return true;
  }
  bool u16(unsigned int* v) {
    if (!has(2)) return false;
    *v = loadLe16(p);
    p += 2;
    return true;
  }
  bool u32(uint32_t* v) {
    if (!has(4)) return false;
    *v = loadLe32(p);
    p += 4;
    return true;
  }
  bool u64(unsigned long long* v) {
    if (!has(8)) return false;
    *v = loadLe64(p);
    p += 8;
    return true;
  }
  bool bytes(void* dst, size_t n) {
    if (!has(n)) return false;
    if (n != 0) memcpy(dst, p, n);
    p += n;
    return true;
  }
  // A length (1 byte when `shortForm`, else 2) and that many bytes, which *data then
  // points at.
  bool span(bool shortForm, const unsigned char** data, unsigned int* n) {
    if (!(shortForm ? u8(n) : u16(n)) || !has(*n)) return false;
    *data = p;
    p += *n;
    return true;
  }
  // The same, assigned to `out`.
  template <class Blob>
  bool block(Blob* out, bool shortForm) {
    const unsigned char* data;
    unsigned int n;
    if (!span(shortForm, &data, &n)) return false;
    assignBytes(out, data, n);
    return true;
  }
};

bool getElement(Cursor& c, bool* v) {
  unsigned int b;
  if (!c.u8(&b)) return false;
  *v = b != 0;
  return true;
}
bool getElement(Cursor& c, unsigned int* v) { return c.u32(v); }
bool getElement(Cursor& c, unsigned long long* v) { return c.u64(v); }
bool getElement(Cursor& c, IPAddr6* v) { return c.bytes(v->bytes, 16); }
template <class Blob>
bool getElement(Cursor& c, Blob* v) {
  return c.block(v, false);
}

size_t fixedElementSize(bool*) { return 1; }
size_t fixedElementSize(unsigned int*) { return 4; }
size_t fixedElementSize(unsigned long long*) { return 8; }
size_t fixedElementSize(IPAddr6*) { return 16; }
template <class Blob>
size_t fixedElementSize(Blob*) {
  return 2;
}  // the least a length-prefixed element takes

// Reads `count` elements into `out`, replacing its content.
template <class E>
bool getElements(Cursor& c, unsigned int count, std::vector<E>* out) {
  if (!c.has(count * fixedElementSize(static_cast<E*>(nullptr)))) return false;
  std::vector<E> values(count);
  for (unsigned int i = 0; i < count; ++i) {
    E e;
    if (!getElement(c, &e)) return false;
    values[i] = std::move(e);
  }
  out->swap(values);
  return true;
}

// The pass-through copy helpers of the flat-preserving mode. Each copies from the cursor to
// the side buffer; they fail, copying nothing more, when the input runs out.
struct SideWriter {
  Bytes* out;
  size_t used;
  void put(const unsigned char* src, size_t n) {
    memcpy(out->data() + used, src, n);  // never more than was read from the input
    used += n;
  }
};

bool add_var(SideWriter& dst, Cursor& src, size_t n) {
  if (!src.has(n)) return false;
  dst.put(src.p, n);
  src.p += n;
  return true;
}

bool add_block(SideWriter& dst, Cursor& src, bool shortForm) {
  const size_t lengthSize = shortForm ? 1 : 2;
  if (!src.has(lengthSize)) return false;
  const size_t n = shortForm ? src.p[0] : loadLe16(src.p);
  return add_var(dst, src, lengthSize + n);
}

bool add_array(SideWriter& dst, Cursor& src) {
  if (!src.has(2)) return false;
  const unsigned int count = loadLe16(src.p);
  if (!add_var(dst, src, 2)) return false;
  for (unsigned int i = 0; i < count; ++i) {
    if (!add_block(dst, src, false)) return false;
  }
  return true;
}

// Copies the body of a pass-through record. u64 and addr6 scalars and addr6 arrays have no
// copy rule: only their id is kept and decoding goes on at their value bytes, so ids of
// those types are never marked pass-through.
bool copyPassThrough(SideWriter& side, Cursor& c, uint32_t word) {
  const bool flag = (word & kWireFlagBit) != 0;
  unsigned char idBytes[4];
  storeLe32(idBytes, word);
  side.put(idBytes, 4);
  switch (word & kTypeMask) {
    case kTypeBool:
    case kTypeU64:
    case kTypeAddr6:
    case kArrayBit | kTypeAddr6:
      return true;
    case kTypeU32:
      return add_var(side, c, flag ? 1 : 4);
    case kTypeString:
    case kTypeMessage:
    case kTypeRaw:
      return add_block(side, c, flag);
    case kArrayBit | kTypeBool:
    case kArrayBit | kTypeU32:
    case kArrayBit | kTypeU64: {
      if (!c.has(2)) return false;
      const size_t width = (word & kTypeMask) == (kArrayBit | kTypeBool)  ? 1
                           : (word & kTypeMask) == (kArrayBit | kTypeU32) ? 4
                                                                          : 8;
      return add_var(side, c, 2 + width * loadLe16(c.p));
    }
    case kArrayBit | kTypeString:
    case kArrayBit | kTypeRaw:
    case kArrayBit | kTypeMessage:
      return add_array(side, c);
    default:
      return false;
  }
}

constexpr uint32_t kOldNamespaces[16] = {0, 0xfe0000, 0xfd0000, 0xff0000};

// A router finds the destination path at byte 2 of the encoding: SYS_TO and then SYS_FROM
// go to the head of the array list. Order carries no meaning, so this is done on the list
// itself, even when the representation is shared and the encoding call is const.
void moveArrayToFront(message::Rep* r, uint32_t id) {
  message::litem** link = &r->arrays;
  while (*link != nullptr && (*link)->id != id) link = &(*link)->next;
  message::litem* node = *link;
  if (node == nullptr || node == r->arrays) return;
  *link = node->next;
  node->next = r->arrays;
  r->arrays = node;
}

// The value goes straight into its node, once its bytes are known to be there.
template <class Blob>
bool decodeBlob(message::Rep* r, Cursor& c, uint32_t id, bool shortForm) {
  const unsigned char* data;
  unsigned int n;
  if (!c.span(shortForm, &data, &n)) return false;
  if (const Blob* found = findIn<Blob>(r, id)) {
    assignBytes(const_cast<Blob*>(found), data, n);
  } else {
    if constexpr (std::is_same<Blob, std::string>::value) {
      r->link(r->newItem<Blob>(id, reinterpret_cast<const char*>(data), n));
    } else {
      r->link(r->newItem<Blob>(id, Bytes(data, data + n)));
    }
  }
  return true;
}

template <class E>
bool decodeElements(message::Rep* r, Cursor& c, uint32_t id, unsigned int count) {
  std::vector<E> values;
  if (!getElements(c, count, &values)) return false;
  findOrCreateIn<std::vector<E> >(r, id).swap(values);
  return true;
}

template <class E>
bool decodeArray(message::Rep* r, Cursor& c, uint32_t id) {
  unsigned int count;
  return c.u16(&count) && decodeElements<E>(r, c, id, count);
}

// Decodes one current-format record whose id word has been read.
bool decodeRecord(message::Rep* r, Cursor& c, uint32_t word) {
  const uint32_t id = word & wire::kStoredIdMask;
  const bool flag = (word & kWireFlagBit) != 0;
  switch (word & kTypeMask) {
    case kTypeBool:
      r->setBool(id, flag);
      return true;
    case kTypeU32: {
      unsigned int v;
      if (!(flag ? c.u8(&v) : c.u32(&v))) return false;
      r->u32s.get_ref(id) = v;
      return true;
    }
    case kTypeU64: {
      unsigned long long v;
      if (!c.u64(&v)) return false;
      storeIn<unsigned long long>(r, id, v);
      return true;
    }
    case kTypeAddr6: {
      IPAddr6 v;
      if (!c.bytes(v.bytes, 16)) return false;
      storeIn<IPAddr6>(r, id, v);
      return true;
    }
    case kTypeString:
      return decodeBlob<std::string>(r, c, id, flag);
    case kTypeMessage:
      return decodeBlob<flat_message>(r, c, id, flag);
    case kTypeRaw:
      return decodeBlob<Bytes>(r, c, id, flag);
    case kArrayBit | kTypeBool:
      return decodeArray<bool>(r, c, id);
    case kArrayBit | kTypeU32:
      return decodeArray<unsigned int>(r, c, id);
    case kArrayBit | kTypeU64:
      return decodeArray<unsigned long long>(r, c, id);
    case kArrayBit | kTypeAddr6:
      return decodeArray<IPAddr6>(r, c, id);
    case kArrayBit | kTypeString:
      return decodeArray<std::string>(r, c, id);
    case kArrayBit | kTypeMessage:
      return decodeArray<flat_message>(r, c, id);
    case kArrayBit | kTypeRaw:
      return decodeArray<Bytes>(r, c, id);
    default:
      return false;  // a type code with no meaning
  }
}

bool decodeRecords(message::Rep* r, Cursor c, SideWriter* side) {
  while (c.left() >= wire::kIdSize) {
    uint32_t word;
    c.u32(&word);
    const bool ok = (side != nullptr && (word & kPassThroughBit) != 0)
                        ? copyPassThrough(*side, c, word)
                        : decodeRecord(r, c, word);
    if (!ok) return false;
  }
  return c.left() == 0;
}

// Decodes one older-format item whose 9-byte header has been read.
bool decodeOldItem(message::Rep* r, Cursor& c, unsigned int type, uint32_t number,
                   unsigned int count) {
  if (count != 1) {
    switch (type) {
      case wire::kOldBool:
        return decodeElements<bool>(r, c, number | kArrayBit | kTypeBool, count);
      case wire::kOldU32:
        return decodeElements<unsigned int>(r, c, number | kArrayBit | kTypeU32, count);
      case wire::kOldString:
        return decodeElements<std::string>(r, c, number | kArrayBit | kTypeString, count);
      case wire::kOldRaw:
        return decodeElements<Bytes>(r, c, number | kArrayBit | kTypeRaw, count);
      case wire::kOldMessage:
        return decodeElements<flat_message>(r, c, number | kArrayBit | kTypeMessage, count);
      default:
        return false;
    }
  }
  switch (type) {
    case wire::kOldBool: {
      unsigned int b;
      if (!c.u8(&b)) return false;
      r->setBool(number | kTypeBool, b != 0);
      return true;
    }
    case wire::kOldU32: {
      unsigned int v;
      if (!c.u32(&v)) return false;
      r->u32s.get_ref(number | kTypeU32) = v;
      return true;
    }
    case wire::kOldString: {
      // The old writer counted the string's terminating NUL in its length.
      std::string s;
      if (!c.block(&s, false)) return false;
      if (!s.empty()) s.pop_back();
      findOrCreateIn<std::string>(r, number | kTypeString) = std::move(s);
      return true;
    }
    case wire::kOldRaw:
      return decodeBlob<Bytes>(r, c, number | kTypeRaw, false);
    case wire::kOldMessage:
      return decodeBlob<flat_message>(r, c, number | kTypeMessage, false);
    default:
      return false;
  }
}

}  // namespace

// --- message members ------------------------------------------------------------------------

unsigned int message::max_length() const {
  const Rep* r = rep_;
  unsigned int n = wire::kMagicSize + 4 * r->boolCount() + 8 * r->u32s.count();
  for (const litem* f = r->fields; f != nullptr; f = f->next) {
    n += visitItem(f, [](const auto* it) { return recordBound(it->value); });
  }
  for (const litem* a = r->arrays; a != nullptr; a = a->next) {
    n += visitItem(a, [](const auto* it) { return recordBound(it->value); });
  }
  return n;
}

bool message::flatten(unsigned char* buf, unsigned int* len) const {
  moveArrayToFront(rep_, SYS_FROM);
  moveArrayToFront(rep_, SYS_TO);
  const Rep* r = rep_;
  Writer w{buf};
  w.u16(wire::kMagic);
  for (const litem* a = r->arrays; a != nullptr; a = a->next) {
    visitItem(a, [&w](const auto* it) { putRecord(w, it->id, it->value); });
  }
  auto putBool = [&w](uint32_t id, bool value) {
    w.u32((id & ~kWireFlagBit) | (value ? kWireFlagBit : 0));
  };
  forEachBoolOf(r, putBool);
  r->u32s.forEach([&w](uint32_t id, unsigned int value) {
    id &= ~kWireFlagBit;
    if (value <= wire::kShortLimit) {
      w.u32(id | kWireFlagBit);
      w.u8(value);
    } else {
      w.u32(id);
      w.u32(value);
    }
  });
  for (const litem* f = r->fields; f != nullptr; f = f->next) {
    visitItem(f, [&w](const auto* it) { putRecord(w, it->id, it->value); });
  }
  const unsigned int size = static_cast<unsigned int>(w.p - buf);
  const bool fits = size <= *len;
  if (!fits) fputs("WARNING: too small buffer for flatten\n", stderr);
  *len = size;
  return fits;
}

// A small message is encoded on the stack and copied once into a vector of its exact size:
// cheaper than clearing a vector of the size bound first, and no bound-sized capacity is
// left held by every nested message.
void message::flatten(std::vector<unsigned char>& out) const {
  constexpr unsigned int kOnStack = 512;
  const unsigned int bound = max_length();
  if (bound <= kOnStack) {
    unsigned char buf[kOnStack];
    unsigned int len = kOnStack;
    flatten(buf, &len);
    out.assign(buf, buf + len);
    return;
  }
  out.resize(bound);
  unsigned int len = bound;
  flatten(out.data(), &len);
  out.resize(len);
}

bool message::unflatten(const unsigned char* data, unsigned int len, flatten_type mode) {
  if (is_nil() && len > kLargeDecodeFrom) {
    rep_ = Rep::create(true);
  } else {
    unique();
  }
  if (len == 0) return true;
  Bytes* side = nullptr;
  if (mode == flatten_keep_passthrough) {
    std::unique_ptr<Bytes>& kept = rep_->extrasRef().flatSide;
    if (!kept) kept.reset(new Bytes());
    side = kept.get();
    side->resize(len);
  }
  Cursor c{data, data + len};
  if (mode != flatten_no_header) {
    unsigned int first;
    if (!c.u16(&first)) return false;
    // Anything else that starts with a small number is an item count of the older format.
    if (first != wire::kMagic) return first <= 255 && old_unflatten(data, len);
  }
  SideWriter sideWriter{side, 0};
  const bool ok = decodeRecords(rep_, c, side != nullptr ? &sideWriter : nullptr);
  if (side != nullptr) {
    side->resize(sideWriter.used);
  } else if (rep_->extras) {
    rep_->extras->flatSide.reset();
  }
  return ok;
}

bool message::old_unflatten(const unsigned char* data, unsigned int len) {
  unique();
  Cursor c{data, data + len};
  unsigned int items;
  if (!c.u16(&items)) return false;
  for (unsigned int i = 0; i < items; ++i) {
    if (!c.has(wire::kOldItemHeaderSize)) return false;
    const unsigned int type = c.p[0];
    const uint32_t key = loadLe32(c.p + 1);
    const unsigned int count = loadLe16(c.p + 5);
    c.p += wire::kOldItemHeaderSize;
    const uint32_t number = kOldNamespaces[(key >> 24) & 0xf] | (key & 0xffff);
    if (!decodeOldItem(rep_, c, type, number, count)) return false;
  }
  return true;  // bytes after the counted items are ignored
}

}  // namespace kl
