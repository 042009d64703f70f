#include "tools/field_text.h"

#include <arpa/inet.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kl/message/system.h"

namespace klmsg {

namespace {

struct TypeName {
  const char* name;
  uint32_t bits;
};
const TypeName kTypes[] = {
    {"bool", kl::kTypeBool},   {"u32", kl::kTypeU32},       {"u64", kl::kTypeU64},
    {"addr6", kl::kTypeAddr6}, {"string", kl::kTypeString}, {"message", kl::kTypeMessage},
    {"raw", kl::kTypeRaw},
};

// Names the library defines that its dump does not print (the notification layer's own).
struct ExtraName {
  const char* name;
  uint32_t value;
};
const ExtraName kExtraFieldNames[] = {
    {"SYS_NOTIFYCMD", kl::SYS_NOTIFYCMD & 0xffffff},
    {"SYS_ORIGIN", kl::SYS_ORIGIN & 0xffffff},
};
const ExtraName kExtraValueNames[] = {
    {"CMD_SHUTDOWN", kl::CMD_SHUTDOWN},
    {"CMD_SUBSCRIBE", kl::CMD_SUBSCRIBE},
    {"CMD_UNSUBSCRIBE", kl::CMD_UNSUBSCRIBE},
    {"CMD_DISCONNECTED", kl::CMD_DISCONNECTED},
    {"BADID", kl::BADID},
};

bool startsWith(const char* text, const char* prefix) {
  return strncmp(text, prefix, strlen(prefix)) == 0;
}

// The number of a field written the way the dump writes one it has no name for:
// "global(3)", "local(16)", "std(5)", "sys(17)".
bool parseNamespaceForm(const std::string& text, uint32_t* id) {
  const ExtraName words[] = {
      {"global(", 0x000000}, {"local(", 0xfd0000}, {"std(", 0xfe0000}, {"sys(", 0xff0000}};
  for (const ExtraName& word : words) {
    const size_t length = strlen(word.name);
    if (text.compare(0, length, word.name) != 0 || text.back() != ')') continue;
    unsigned long long n;
    if (!parseNumber(text.substr(length, text.size() - length - 1), &n) || n > 0xffff) {
      return false;
    }
    *id = word.value | static_cast<uint32_t>(n);
    return true;
  }
  return false;
}

std::vector<std::string> splitCommas(const std::string& text) {
  std::vector<std::string> parts;
  if (text.empty()) return parts;
  size_t start = 0;
  for (size_t comma; (comma = text.find(',', start)) != std::string::npos; start = comma + 1) {
    parts.push_back(text.substr(start, comma - start));
  }
  parts.push_back(text.substr(start));
  return parts;
}

// One value of the given type; false when the text does not fit it.
struct Value {
  bool b = false;
  unsigned int u32 = 0;
  unsigned long long u64 = 0;
  IPAddr6 addr6;
  std::string text;
  Bytes bytes;
};

bool parseValue(uint32_t type, const std::string& text, Value* v) {
  switch (type) {
    case kl::kTypeBool:
      v->b = text == "true" || text == "1";
      return v->b || text == "false" || text == "0";
    case kl::kTypeU32:
      return parseU32(text, &v->u32);
    case kl::kTypeU64:
      return parseNumber(text, &v->u64);
    case kl::kTypeAddr6:
      return inet_pton(AF_INET6, text.c_str(), v->addr6.bytes) == 1;
    case kl::kTypeString:
      v->text = text;
      return true;
    case kl::kTypeMessage: {
      kl::message check;
      return parseHex(text, &v->bytes) &&
             check.unflatten(v->bytes.data(), v->bytes.size(), kl::message::flatten_full);
    }
    default:
      return parseHex(text, &v->bytes);
  }
}

void insertScalar(kl::message& m, uint32_t type, uint32_t id, const Value& v) {
  switch (type) {
    case kl::kTypeBool:
      m.insert_bool(id, v.b);
      break;
    case kl::kTypeU32:
      m.insert_u32(id, v.u32);
      break;
    case kl::kTypeU64:
      m.insert_u64(id, v.u64);
      break;
    case kl::kTypeAddr6:
      m.insert_addr6(id, v.addr6);
      break;
    case kl::kTypeString:
      m.insert_string(id, v.text);
      break;
    case kl::kTypeMessage:
      m.insert_message(id, kl::message::flat_message(v.bytes));
      break;
    default:
      m.insert_raw(id, v.bytes);
      break;
  }
}

// One member of every value, as an array of that type.
template <class T, class Pick>
std::vector<T> column(const std::vector<Value>& values, Pick pick) {
  std::vector<T> out;
  for (const Value& v : values) out.push_back(pick(v));
  return out;
}

// Creates (or replaces) the array; no values give an empty one ("u32[]:5=").
void insertArray(kl::message& m, uint32_t type, uint32_t id, const std::vector<Value>& values) {
  switch (type) {
    case kl::kTypeBool:
      m.insert_bool_array(id, column<bool>(values, [](const Value& v) { return v.b; }));
      break;
    case kl::kTypeU32:
      m.insert_u32_array(id, column<unsigned int>(values, [](const Value& v) { return v.u32; }));
      break;
    case kl::kTypeU64:
      m.insert_u64_array(id,
                         column<unsigned long long>(values, [](const Value& v) { return v.u64; }));
      break;
    case kl::kTypeAddr6:
      m.insert_addr6_array(id, column<IPAddr6>(values, [](const Value& v) { return v.addr6; }));
      break;
    case kl::kTypeString:
      m.insert_string_array(id, column<std::string>(values, [](const Value& v) { return v.text; }));
      break;
    case kl::kTypeMessage:
      m.insert_message_array(id, column<kl::message::flat_message>(values, [](const Value& v) {
                               return kl::message::flat_message(v.bytes);
                             }));
      break;
    default:
      m.insert_raw_array(id, column<Bytes>(values, [](const Value& v) { return v.bytes; }));
      break;
  }
}

size_t blockLength(uint32_t type, const Value& v) {
  if (type == kl::kTypeString) return v.text.size();
  if (type == kl::kTypeMessage || type == kl::kTypeRaw) return v.bytes.size();
  return 0;
}

}  // namespace

bool parseTypeName(const std::string& text, uint32_t* typeBits) {
  for (const TypeName& t : kTypes) {
    if (text == t.name) {
      *typeBits = t.bits;
      return true;
    }
  }
  return false;
}

const char* typeName(uint32_t id) {
  for (const TypeName& t : kTypes) {
    if ((id & ~kl::kArrayBit & kl::kTypeMask) == t.bits) return t.name;
  }
  return nullptr;
}

bool parseNumber(const std::string& text, unsigned long long* out) {
  if (text.empty() || text[0] == '-') return false;
  char* end = nullptr;
  errno = 0;
  *out = strtoull(text.c_str(), &end, 0);
  return errno == 0 && *end == '\0';
}

bool parseFieldId(const std::string& text, uint32_t* id) {
  unsigned long long n;
  if (parseNumber(text, &n) && n <= 0xffffffffull) {
    *id = static_cast<uint32_t>(n);
    return true;
  }
  for (const ExtraName& extra : kExtraFieldNames) {
    if (text == extra.name) {
      *id = extra.value;
      return true;
    }
  }
  if (parseNamespaceForm(text, id)) return true;
  for (uint32_t ns : {0xff0000u, 0xfe0000u}) {
    for (uint32_t number = ns; number < ns + 0x40; ++number) {
      if (text == kl::fieldIdName(number)) {
        *id = number;
        return true;
      }
    }
  }
  return false;
}

const char* fieldName(uint32_t id) {
  const uint32_t number = id & ~kl::kTypeMask;
  for (const ExtraName& extra : kExtraFieldNames) {
    if (extra.value == number) return extra.name;
  }
  // The dump's names ignore the bits above the namespace: a name is only given when it
  // stands for exactly this number.
  const char* name = kl::fieldIdName(number);
  uint32_t back;
  if ((startsWith(name, "SYS_") || startsWith(name, "STD_")) && parseFieldId(name, &back) &&
      back == number) {
    return name;
  }
  return nullptr;
}

bool parseU32(const std::string& text, unsigned int* out) {
  unsigned long long n;
  if (parseNumber(text, &n) && n <= 0xffffffffull) {
    *out = static_cast<unsigned int>(n);
    return true;
  }
  for (const ExtraName& extra : kExtraValueNames) {
    if (text == extra.name) {
      *out = extra.value;
      return true;
    }
  }
  // A command and an error share most numbers (CMD_GETOBJ and ERROR_BRKPATH are 0xfe0002):
  // the dump names a value of SYS_TYPE by its command, of SYS_ERRNO by its error.
  for (unsigned int value = 0xfe0000; value < 0xfe0020; ++value) {
    if (text == kl::fieldValueName(kl::SYS_TYPE, value) ||
        text == kl::fieldValueName(kl::SYS_ERRNO, value)) {
      *out = value;
      return true;
    }
  }
  for (unsigned int value : {0u, 1u, 2u}) {
    if (text == kl::fieldValueName(kl::SYS_TYPE, value) ||
        text == kl::fieldValueName(kl::SYS_STATUS, value) ||
        text == kl::fieldValueName(kl::SYS_ERRNO, value)) {
      *out = value;
      return true;
    }
  }
  return false;
}

const char* commandName(unsigned int code) {
  for (const ExtraName& extra : kExtraValueNames) {
    if (extra.value == code && startsWith(extra.name, "CMD_")) return extra.name;
  }
  // The dump names a SYS_CMD value by the error table too when no command has it.
  const char* name = kl::fieldValueName(kl::SYS_CMD, code);
  return startsWith(name, "CMD_") ? name : nullptr;
}

bool parseHex(const std::string& text, Bytes* out) {
  out->clear();
  std::string digits;
  for (char c : text) {
    if (isxdigit(static_cast<unsigned char>(c))) {
      digits += c;
    } else if (!isspace(static_cast<unsigned char>(c))) {
      return false;
    }
  }
  if (digits.size() % 2 != 0) return false;
  for (size_t i = 0; i < digits.size(); i += 2) {
    out->push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return true;
}

std::string addField(kl::message& m, const std::string& field) {
  const size_t colon = field.find(':');
  const size_t equals = field.find('=', colon == std::string::npos ? 0 : colon);
  if (colon == std::string::npos || equals == std::string::npos) {
    return "field '" + field + "' is not TYPE:ID=VALUE";
  }
  std::string typeText = field.substr(0, colon);
  const bool array = typeText.size() > 2 && typeText.compare(typeText.size() - 2, 2, "[]") == 0;
  if (array) typeText.resize(typeText.size() - 2);
  uint32_t type;
  if (!parseTypeName(typeText, &type)) {
    return "unknown type '" + typeText + "' in '" + field + "'";
  }
  uint32_t number;
  if (!parseFieldId(field.substr(colon + 1, equals - colon - 1), &number)) {
    return "bad field id in '" + field + "'";
  }
  const std::string valueText = field.substr(equals + 1);
  const std::string name = field.substr(0, equals);
  auto tooLong = [&name](size_t n) {
    return "value of '" + name + "' is " + std::to_string(n) + " bytes, more than the " +
           std::to_string(kMaxWireLength) + " a message can carry";
  };
  const uint32_t id = kl::withType(number, type | (array ? kl::kArrayBit : 0));
  if (!array) {
    Value v;
    if (!parseValue(type, valueText, &v)) return "bad value in '" + field + "'";
    if (blockLength(type, v) > kMaxWireLength) return tooLong(blockLength(type, v));
    insertScalar(m, type, id, v);
    return "";
  }
  std::vector<Value> elements;
  for (const std::string& element : splitCommas(valueText)) {
    elements.emplace_back();
    if (!parseValue(type, element, &elements.back())) {
      return "bad element '" + element + "' in '" + field + "'";
    }
    if (blockLength(type, elements.back()) > kMaxWireLength) {
      return tooLong(blockLength(type, elements.back()));
    }
  }
  if (elements.size() > kMaxWireLength) {
    return "array '" + name + "' has " + std::to_string(elements.size()) +
           " elements, more than the " + std::to_string(kMaxWireLength) + " a message can carry";
  }
  insertArray(m, type, id, elements);  // a repeated field replaces the earlier one
  return "";
}

}  // namespace klmsg
