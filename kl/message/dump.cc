#include "kl/message/dump.h"

#include <cstring>
#include <sstream>

#include "kl/message/rep.h"
#include "kl/message/system.h"

namespace kl {

struct MessageDump {
  template <class Out>
  static void nested(const message& m, Out& out, const char* prefix, unsigned int depth,
                     unsigned int nesting) {
    m.dumpTo(out, prefix, depth, nesting);
  }
};

namespace {

constexpr char kHex[] = "0123456789abcdef";

// --- handler-id names -----------------------------------------------------------------------

// "ID_<number>" for every id, built at compile time so that the table is ready before any
// static initialiser or signal handler can dump.
struct DefaultHandlerNames {
  char text[kHandlerIdNameCount][8];
  constexpr DefaultHandlerNames() : text() {
    for (unsigned int id = 0; id < kHandlerIdNameCount; ++id) {
      char* p = text[id];
      *p++ = 'I';
      *p++ = 'D';
      *p++ = '_';
      if (id >= 100) *p++ = static_cast<char>('0' + id / 100);
      if (id >= 10) *p++ = static_cast<char>('0' + id / 10 % 10);
      *p++ = static_cast<char>('0' + id % 10);
    }
  }
};
constexpr DefaultHandlerNames kDefaultNames;

const char* builtInName(unsigned int id) {
  switch (id) {
    case 1:
      return "ID_LOADER";
    case 17:
      return "ID_UNDO";
    case 24:
      return "ID_TIME";
    default:
      return kDefaultNames.text[id];
  }
}

const char* const* installedNames = nullptr;

// --- dump pieces, one overload per sink where they differ ----------------------------------

void setDecimal(std::ostream& out) { out << std::dec; }
void setDecimal(Dumper&) {}

// Whether nothing more written to `out` would be kept: a stream takes everything.
bool isFull(const std::ostream&) { return false; }
bool isFull(const Dumper& out) { return out.full(); }

template <class Out>
void putText(Out& out, const std::string& s) {
  out.write(s.data(), s.size());
}

template <class Out>
void putAddr6(Out& out, const IPAddr6& a) {
  char text[47];
  for (unsigned int i = 0; i < 16; ++i) {
    text[3 * i] = kHex[a.bytes[i] >> 4];
    text[3 * i + 1] = kHex[a.bytes[i] & 0xf];
    if (i < 15) text[3 * i + 2] = ':';
  }
  out.write(text, sizeof text);
}

template <class Out>
void indent(Out& out, const char* prefix, unsigned int depth) {
  out << prefix;
  for (unsigned int i = 0; i < depth; ++i) out << "    ";
}

template <class Out>
void putElement(Out& out, bool v) {
  out << (v ? "true" : "false");
}
template <class Out>
void putElement(Out& out, unsigned int v) {
  out << v;
}
template <class Out>
void putElement(Out& out, unsigned long long v) {
  out << v;
}
template <class Out>
void putElement(Out& out, const IPAddr6& v) {
  putAddr6(out, v);
}
template <class Out>
void putElement(Out& out, const std::string& v) {
  putText(out, v);
}
template <class Out>
void putElement(Out& out, const Bytes& v) {
  out << "#";
  out << static_cast<unsigned int>(v.size());
}

const char* arrayWord(uint32_t id) {
  switch (id & ~kArrayBit & kTypeMask) {
    case kTypeBool:
      return " bool[] [";
    case kTypeU32:
      return " u32[] [";
    case kTypeU64:
      return " u64[] [";
    case kTypeAddr6:
      return " addr6[] [";
    case kTypeString:
      return " string[] [";
    case kTypeMessage:
      return " message[] [";
    default:
      return " raw[] [";
  }
}

const char* scalarWord(uint32_t id) {
  switch (id & kTypeMask) {
    case kTypeU64:
      return " u64 [";
    case kTypeAddr6:
      return " addr6 [";
    case kTypeString:
      return " string [";
    case kTypeMessage:
      return " message [";
    default:
      return " raw [";
  }
}

// Decodes and dumps a nested message one level deeper, unless that passes the nesting
// limit or nothing more can be shown.
template <class Out>
void dumpNested(Out& out, const flat_message& flat, const char* prefix, unsigned int depth,
                unsigned int nesting) {
  if (isFull(out)) return;
  if (nesting >= kMaxDumpNesting) {
    indent(out, prefix, depth);
    out << "--- kl::message nested too deep ---";
    doEndl(out);
    return;
  }
  MessageDump::nested(message(flat), out, prefix, depth, nesting + 1);
}

template <class Out>
void dumpField(Out& out, const message::litem* node, const char* prefix, unsigned int depth,
               unsigned int nesting) {
  indent(out, prefix, depth);
  out << scalarWord(node->id);
  out << fieldIdName(node->id);
  visitItem(node, [&](const auto* it) {
    using V = std::remove_const_t<decltype(it->value)>;
    if constexpr (std::is_same<V, flat_message>::value) {
      out << "]...";
      doEndl(out);
      dumpNested(out, it->value, prefix, depth + 1, nesting);
    } else if constexpr (!IsArray<V>::value) {
      out << "]=";
      putElement(out, it->value);
      doEndl(out);
    }
  });
}

template <class Out, class E>
void putElements(Out& out, const std::vector<E>& elements, uint32_t) {
  for (const auto& e : elements) {
    putElement(out, static_cast<const E&>(e));
    out << ", ";
  }
}

// Paths name their first hop, for a reader of routed messages.
template <class Out>
void putElements(Out& out, const std::vector<unsigned int>& elements, uint32_t id) {
  const bool path = id == uint32_t(SYS_TO) || id == uint32_t(SYS_FROM);
  for (size_t i = 0; i < elements.size(); ++i) {
    putElement(out, elements[i]);
    if (i == 0 && path && elements[0] < kHandlerIdNameCount) {
      out << "(";
      out << handlerIdName(elements[0]);
      out << ")";
    }
    out << ", ";
  }
}

template <class Out>
void dumpArray(Out& out, const message::litem* node, const char* prefix, unsigned int depth,
               unsigned int nesting) {
  indent(out, prefix, depth);
  out << arrayWord(node->id);
  out << fieldIdName(node->id);
  visitItem(node, [&](const auto* it) {
    using V = std::remove_const_t<decltype(it->value)>;
    if constexpr (std::is_same<V, std::vector<flat_message> >::value) {
      out << "]..";
      doEndl(out);
      for (const flat_message& e : it->value) dumpNested(out, e, prefix, depth + 1, nesting);
    } else if constexpr (IsArray<V>::value) {
      out << "]=";
      putElements(out, it->value, node->id);
      doEndl(out);
    }
  });
}

}  // namespace

// --- Dumper ---------------------------------------------------------------------------------

Dumper::Dumper(char* buf, unsigned int capacity)
    : std::ostream(nullptr), buf_(buf), capacity_(capacity) {}

Dumper& Dumper::write(const char* data, unsigned int n) {
  const unsigned int room = capacity_ - used_;
  if (n > room) n = room;
  memcpy(buf_ + used_, data, n);
  used_ += n;
  return *this;
}

Dumper& Dumper::operator<<(const char* s) { return write(s, strlen(s)); }

Dumper& Dumper::operator<<(unsigned char b) {
  const char text[2] = {kHex[b >> 4], kHex[b & 0xf]};
  return write(text, 2);
}

Dumper& Dumper::operator<<(unsigned int v) {
  char text[10] = {'0', 'x'};
  for (int i = 0; i < 8; ++i) text[2 + i] = kHex[(v >> (28 - 4 * i)) & 0xf];
  return write(text, sizeof text);
}

Dumper& Dumper::operator<<(unsigned long long v) {
  char text[18] = {'0', 'x'};
  for (int i = 0; i < 16; ++i) text[2 + i] = kHex[(v >> (60 - 4 * i)) & 0xf];
  return write(text, sizeof text);
}

// --- handler-id names -----------------------------------------------------------------------

const char* handlerIdName(unsigned int id) {
  if (id >= kHandlerIdNameCount) return nullptr;
  if (installedNames != nullptr && installedNames[id] != nullptr) return installedNames[id];
  return builtInName(id);
}

void setHandlerIdNames(const char* const* names) { installedNames = names; }

// --- dump2 ---------------------------------------------------------------------------------

template <class Out>
void dumpRep(const message::Rep* r, Out& out, const char* prefix, unsigned int depth,
             unsigned int nesting) {
  setDecimal(out);
  indent(out, prefix, depth);
  out << "--- kl::message --------";
  doEndl(out);
  forEachBoolOf(r, [&](uint32_t id, bool value) {
    indent(out, prefix, depth);
    out << " bool [";
    out << fieldIdName(id);
    out << (value ? "]=true" : "]=false");
    doEndl(out);
  });
  r->u32s.forEach([&](uint32_t id, unsigned int value) {
    indent(out, prefix, depth);
    out << " u32 [";
    out << fieldIdName(id);
    out << "]=";
    out << fieldValueName(id, value);
    doEndl(out);
  });
  for (const message::litem* f = r->fields; f != nullptr && !isFull(out); f = f->next) {
    dumpField(out, f, prefix, depth, nesting);
  }
  for (const message::litem* a = r->arrays; a != nullptr && !isFull(out); a = a->next) {
    dumpArray(out, a, prefix, depth, nesting);
  }
  indent(out, prefix, depth);
  out << "------------------------";
  doEndl(out);
}

void message::dumpTo(std::ostream& out, const char* prefix, unsigned int depth,
                     unsigned int nesting) const {
  dumpRep(rep_, out, prefix, depth, nesting);
}

void message::dumpTo(Dumper& out, const char* prefix, unsigned int depth,
                     unsigned int nesting) const {
  dumpRep(rep_, out, prefix, depth, nesting);
}

void printDump(const message& m, FILE* out) {
  std::ostringstream text;
  m.dump2(text, "", 0);
  const std::string lines = text.str();
  fwrite(lines.data(), 1, lines.size(), out);
  fflush(out);
}

}  // namespace kl
