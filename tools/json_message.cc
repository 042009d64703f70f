#include "tools/json_message.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kl/base/endian.h"
#include "kl/message/field_id.h"
#include "kl/message/system.h"
#include "kl/message/wire_format.h"
#include "tools/field_text.h"
#include "tools/message_records.h"

namespace klmsg {

namespace {

using FlatMessage = kl::message::flat_message;

// JSON readers keep numbers as doubles: integers past 2^53 lose digits there.
constexpr unsigned long long kLargestExactInJson = 1ull << 53;

std::string hexText(const unsigned char* data, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * n);
  for (size_t i = 0; i < n; ++i) {
    text += kDigits[data[i] >> 4];
    text += kDigits[data[i] & 0xf];
  }
  return text;
}
std::string hexText(const Bytes& bytes) { return hexText(bytes.data(), bytes.size()); }
std::string hexText(const std::string& s) {
  return hexText(reinterpret_cast<const unsigned char*>(s.data()), s.size());
}

// A key as JSON text, for error texts.
std::string jsonQuoted(const std::string& key) { return jsonText(Json(key)); }

std::string keyText(uint32_t id) {
  std::string key = typeName(id);
  if ((id & kl::kArrayBit) != 0) key += "[]";
  key += ':';
  if (const char* name = fieldName(id)) return key + name;
  char number[16];
  snprintf(number, sizeof number, "0x%x", id & ~kl::kTypeMask);
  return key + number;
}

// --- message to JSON --------------------------------------------------------------------------

bool recordsToObject(const Bytes& flat, unsigned int depth, bool byField, Json* out);

Json u64Json(unsigned long long v) {
  return v <= kLargestExactInJson ? Json(v) : Json(std::to_string(v));
}

Json addr6Json(const IPAddr6& a) {
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, a.bytes, text, sizeof text) != nullptr ? Json(text) : Json();
}

Json stringJson(const std::string& s) {
  if (isUtf8(s)) return Json(s);
  Json bytes = Json::object();
  bytes["hex"] = hexText(s);
  return bytes;
}

Json rawJson(const Bytes& b) { return Json(hexText(b)); }

// A nested message `depth` levels below the converted one.
Json messageJson(const Bytes& flat, unsigned int depth) {
  Json object;
  if (depth <= kMaxJsonNesting && recordsToObject(flat, depth, false, &object)) return object;
  return Json(hexText(flat));
}

template <class V, class ToJson>
Json arrayJson(const std::vector<V>& values, ToJson toJson) {
  Json array = Json::array();
  for (const auto& v : values) array.push_back(toJson(v));
  return array;
}

// The value of field `id` of `one`, a message `depth` levels below the converted one.
Json fieldJson(const kl::message& one, uint32_t id, unsigned int depth) {
  const unsigned int below = depth + 1;
  switch (id & kl::kTypeMask) {
    case kl::kTypeBool:
      return Json(one.get_bool(id, false));
    case kl::kTypeU32:
      return Json(one.get_u32(id, 0));
    case kl::kTypeU64:
      return u64Json(one.get_u64(id, 0));
    case kl::kTypeAddr6:
      return addr6Json(one.get_addr6(id));
    case kl::kTypeString:
      return stringJson(one.get_string(id, ""));
    case kl::kTypeMessage:
      return messageJson(one.get_message(id, FlatMessage()), below);
    case kl::kTypeRaw:
      return rawJson(one.get_raw(id, Bytes()));
    case kl::kArrayBit | kl::kTypeBool:
      return arrayJson(one.get_bool_array(id), [](bool v) { return Json(v); });
    case kl::kArrayBit | kl::kTypeU32:
      return arrayJson(one.get_u32_array(id), [](unsigned int v) { return Json(v); });
    case kl::kArrayBit | kl::kTypeU64:
      return arrayJson(one.get_u64_array(id), u64Json);
    case kl::kArrayBit | kl::kTypeAddr6:
      return arrayJson(one.get_addr6_array(id), addr6Json);
    case kl::kArrayBit | kl::kTypeString:
      return arrayJson(one.get_string_array(id), stringJson);
    case kl::kArrayBit | kl::kTypeMessage:
      return arrayJson(one.get_message_array(id),
                       [below](const FlatMessage& v) { return messageJson(v, below); });
    default:
      return arrayJson(one.get_raw_array(id), rawJson);
  }
}

// The top level's order: system fields, then standard ones, local ones and the rest, each by
// number and then by type. A message's own order follows from how it was built and carries
// no meaning at the top, so the text of equal messages is the same.
bool printedBefore(uint32_t a, uint32_t b) {
  auto rank = [](uint32_t id) {
    switch (id & 0xff0000) {
      case 0xff0000:
        return 0;
      case 0xfe0000:
        return 1;
      case 0xfd0000:
        return 2;
      default:
        return 3;
    }
  };
  if (rank(a) != rank(b)) return rank(a) < rank(b);
  if ((a & ~kl::kTypeMask) != (b & ~kl::kTypeMask))
    return (a & ~kl::kTypeMask) < (b & ~kl::kTypeMask);
  return (a & kl::kTypeMask) < (b & kl::kTypeMask);
}

// The fields of the encoding `flat` as an object, when that object stands for exactly
// these bytes: each record is what the library writes for its field alone, and no field
// comes twice. False otherwise (the caller shows the bytes instead). Members follow the
// records, or printedBefore when `byField`.
bool recordsToObject(const Bytes& flat, unsigned int depth, bool byField, Json* out) {
  std::vector<Record> records;
  if (!splitRecords(flat.data(), flat.size(), &records)) return false;
  std::vector<std::pair<uint32_t, Json>> fields;
  std::set<uint32_t> ids;
  for (const Record& r : records) {
    const uint32_t id = r.word & kl::wire::kStoredIdMask;
    if (!ids.insert(id).second) return false;
    Bytes alone(flat.begin(), flat.begin() + kl::wire::kMagicSize);
    alone.insert(alone.end(), flat.begin() + r.begin, flat.begin() + r.end);
    kl::message one;
    if (!one.unflatten(alone.data(), alone.size(), kl::message::flatten_full)) return false;
    Bytes again;
    one.flatten(again);
    if (again != alone) return false;
    fields.emplace_back(id, fieldJson(one, id, depth));
  }
  if (byField) {
    std::sort(fields.begin(), fields.end(),
              [](const auto& a, const auto& b) { return printedBefore(a.first, b.first); });
  }
  *out = Json::object();
  Json::object_t& members = out->get_ref<Json::object_t&>();
  for (auto& field : fields) {
    // Ids are unique, and so are their keys: append without the map's search.
    members.Json::object_t::Container::emplace_back(keyText(field.first), std::move(field.second));
  }
  return true;
}

// --- JSON to message --------------------------------------------------------------------------

bool failAt(const std::string& where, const std::string& what, std::string* error) {
  *error = where.empty() ? what : where + ": " + what;
  return false;
}

std::string tooLong(size_t n, const char* unit) {
  return "is " + std::to_string(n) + " " + unit + ", more than the " +
         std::to_string(kMaxWireLength) + " a message can carry";
}

bool objectToRecords(const Json& in, unsigned int depth, const std::string& where, Bytes* flat,
                     std::string* error);

// A whole number without sign, from either of nlohmann's integer kinds.
bool wholeNumber(const Json& v, unsigned long long* out) {
  if (v.is_number_unsigned()) {
    *out = v.get<unsigned long long>();
    return true;
  }
  if (v.is_number_integer() && v.get<long long>() >= 0) {
    *out = static_cast<unsigned long long>(v.get<long long>());
    return true;
  }
  return false;
}

// One value of each C++ type a field holds; `depth` is the level of the message whose
// field it is. Each gives false with *error set ("where: what") when `v` does not fit.
bool readValue(const Json& v, unsigned int, const std::string& where, bool* out,
               std::string* error) {
  if (!v.is_boolean()) return failAt(where, "expected true or false", error);
  *out = v.get<bool>();
  return true;
}

bool readValue(const Json& v, unsigned int, const std::string& where, unsigned int* out,
               std::string* error) {
  unsigned long long n;
  if (wholeNumber(v, &n) && n <= 0xffffffffull) {
    *out = static_cast<unsigned int>(n);
    return true;
  }
  const std::string expected = "expected a number from 0 to 4294967295";
  if (!v.is_string()) return failAt(where, expected, error);
  if (parseU32(v.get<std::string>(), out)) return true;
  return failAt(where, expected + " or a name such as CMD_GETOBJ, not " + jsonText(v), error);
}

bool readValue(const Json& v, unsigned int, const std::string& where, unsigned long long* out,
               std::string* error) {
  if (wholeNumber(v, out)) return true;
  if (v.is_string() && parseNumber(v.get<std::string>(), out)) return true;
  return failAt(where, "expected a number from 0 to 18446744073709551615, or one in a string",
                error);
}

bool readValue(const Json& v, unsigned int, const std::string& where, IPAddr6* out,
               std::string* error) {
  if (v.is_string() && inet_pton(AF_INET6, v.get<std::string>().c_str(), out->bytes) == 1) {
    return true;
  }
  return failAt(where, "expected an IPv6 address such as \"fe80::1\"", error);
}

bool readValue(const Json& v, unsigned int, const std::string& where, std::string* out,
               std::string* error) {
  Bytes bytes;
  if (v.is_string()) {
    *out = v.get<std::string>();
  } else if (v.is_object() && v.size() == 1 && v.contains("hex") && v["hex"].is_string() &&
             parseHex(v["hex"].get<std::string>(), &bytes)) {
    out->assign(bytes.begin(), bytes.end());
  } else {
    return failAt(where, "expected a string, or {\"hex\": HEX} for bytes that are not UTF-8",
                  error);
  }
  return out->size() <= kMaxWireLength || failAt(where, tooLong(out->size(), "bytes"), error);
}

bool readValue(const Json& v, unsigned int, const std::string& where, Bytes* out,
               std::string* error) {
  if (!v.is_string() || !parseHex(v.get<std::string>(), out)) {
    return failAt(where, "expected hex text of the bytes, such as \"0a1b\"", error);
  }
  return out->size() <= kMaxWireLength || failAt(where, tooLong(out->size(), "bytes"), error);
}

bool readValue(const Json& v, unsigned int depth, const std::string& where, FlatMessage* out,
               std::string* error) {
  if (v.is_object()) {
    if (depth + 1 > kMaxJsonNesting) {
      return failAt(where,
                    "messages nested more than " + std::to_string(kMaxJsonNesting) + " levels deep",
                    error);
    }
    if (!objectToRecords(v, depth + 1, where, out, error)) return false;
  } else if (!v.is_string() || !parseHex(v.get<std::string>(), out)) {
    return failAt(where, "expected an object of fields, or hex text of a flattened message", error);
  }
  return out->size() <= kMaxWireLength || failAt(where, tooLong(out->size(), "bytes"), error);
}

// Stores a value of each C++ type as field `id`.
void insertValue(kl::message& m, uint32_t id, bool v) { m.insert_bool(id, v); }
void insertValue(kl::message& m, uint32_t id, unsigned int v) { m.insert_u32(id, v); }
void insertValue(kl::message& m, uint32_t id, unsigned long long v) { m.insert_u64(id, v); }
void insertValue(kl::message& m, uint32_t id, const IPAddr6& v) { m.insert_addr6(id, v); }
void insertValue(kl::message& m, uint32_t id, const std::string& v) { m.insert_string(id, v); }
void insertValue(kl::message& m, uint32_t id, const Bytes& v) { m.insert_raw(id, v); }
void insertValue(kl::message& m, uint32_t id, const FlatMessage& v) { m.insert_message(id, v); }

void insertArray(kl::message& m, uint32_t id, const std::vector<bool>& v) {
  m.insert_bool_array(id, v);
}
void insertArray(kl::message& m, uint32_t id, const std::vector<unsigned int>& v) {
  m.insert_u32_array(id, v);
}
void insertArray(kl::message& m, uint32_t id, const std::vector<unsigned long long>& v) {
  m.insert_u64_array(id, v);
}
void insertArray(kl::message& m, uint32_t id, const std::vector<IPAddr6>& v) {
  m.insert_addr6_array(id, v);
}
void insertArray(kl::message& m, uint32_t id, const std::vector<std::string>& v) {
  m.insert_string_array(id, v);
}
void insertArray(kl::message& m, uint32_t id, const std::vector<Bytes>& v) {
  m.insert_raw_array(id, v);
}
void insertArray(kl::message& m, uint32_t id, const std::vector<FlatMessage>& v) {
  m.insert_message_array(id, v);
}

// Field `id` of type T (an array of T when `id` says so) from `v`, into `m`.
template <class T>
bool readField(const Json& v, uint32_t id, unsigned int depth, const std::string& where,
               kl::message* m, std::string* error) {
  if ((id & kl::kArrayBit) == 0) {
    T value{};
    if (!readValue(v, depth, where, &value, error)) return false;
    insertValue(*m, id, value);
    return true;
  }
  if (!v.is_array()) return failAt(where, "expected an array", error);
  if (v.size() > kMaxWireLength) return failAt(where, tooLong(v.size(), "elements"), error);
  std::vector<T> values;
  values.reserve(v.size());
  for (size_t i = 0; i < v.size(); ++i) {
    T value{};
    if (!readValue(v[i], depth, where + "[" + std::to_string(i) + "]", &value, error)) {
      return false;
    }
    values.push_back(std::move(value));
  }
  insertArray(*m, id, values);
  return true;
}

bool readAnyField(const Json& v, uint32_t id, unsigned int depth, const std::string& where,
                  kl::message* m, std::string* error) {
  switch (id & ~kl::kArrayBit & kl::kTypeMask) {
    case kl::kTypeBool:
      return readField<bool>(v, id, depth, where, m, error);
    case kl::kTypeU32:
      return readField<unsigned int>(v, id, depth, where, m, error);
    case kl::kTypeU64:
      return readField<unsigned long long>(v, id, depth, where, m, error);
    case kl::kTypeAddr6:
      return readField<IPAddr6>(v, id, depth, where, m, error);
    case kl::kTypeString:
      return readField<std::string>(v, id, depth, where, m, error);
    case kl::kTypeMessage:
      return readField<FlatMessage>(v, id, depth, where, m, error);
    default:
      return readField<Bytes>(v, id, depth, where, m, error);
  }
}

// The full field id of a TYPE:NAME key; false with the reason in *problem.
bool parseKey(const std::string& key, uint32_t* id, std::string* problem) {
  const size_t colon = key.find(':');
  if (colon == std::string::npos) {
    *problem = "a key is TYPE:NAME, such as \"u32:STD_ID\"";
    return false;
  }
  std::string type = key.substr(0, colon);
  const bool array = type.size() > 2 && type.compare(type.size() - 2, 2, "[]") == 0;
  if (array) type.resize(type.size() - 2);
  uint32_t typeBits;
  if (!parseTypeName(type, &typeBits)) {
    *problem = "unknown type '" + type + "'";
    return false;
  }
  const std::string name = key.substr(colon + 1);
  uint32_t number;
  if (!parseFieldId(name, &number)) {
    *problem = "unknown field name '" + name + "'";
    return false;
  }
  // A number is the field's own bits: its type comes from TYPE, and bit 24 is the wire's.
  if ((number & (kl::kTypeMask | kl::kWireFlagBit)) != 0) {
    *problem = "field number '" + name + "' uses bit 24 or bits above 26";
    return false;
  }
  *id = kl::withType(number, typeBits | (array ? kl::kArrayBit : 0));
  return true;
}

// The encoding of object `in`, a message `depth` levels below the converted one: the magic
// and one record per member, in member order.
bool objectToRecords(const Json& in, unsigned int depth, const std::string& where, Bytes* flat,
                     std::string* error) {
  flat->assign(kl::wire::kMagicSize, 0);
  kl::storeLe16(flat->data(), kl::wire::kMagic);
  std::map<uint32_t, std::string> keyOfId;
  for (auto member = in.begin(); member != in.end(); ++member) {
    const std::string& key = member.key();
    const std::string at = where.empty() ? jsonQuoted(key) : where + "." + jsonQuoted(key);
    uint32_t id;
    std::string problem;
    if (!parseKey(key, &id, &problem)) return failAt(at, problem, error);
    const auto known = keyOfId.emplace(id, key);
    if (!known.second)
      return failAt(at, "the same field as " + jsonQuoted(known.first->second), error);
    kl::message one;
    if (!readAnyField(member.value(), id, depth, at, &one, error)) return false;
    Bytes record;
    one.flatten(record);
    flat->insert(flat->end(), record.begin() + kl::wire::kMagicSize, record.end());
  }
  return true;
}

}  // namespace

bool messageToJson(const kl::message& m, Json* out, std::string* error) {
  Bytes flat;
  m.flatten(flat);
  kl::message again;
  if (!again.unflatten(flat.data(), flat.size(), kl::message::flatten_full) || again != m ||
      !recordsToObject(flat, 0, true, out)) {
    *error = "the message holds a value that its wire form cannot carry";
    return false;
  }
  return true;
}

bool jsonToMessage(const Json& in, kl::message* out, std::string* error) {
  if (!in.is_object()) {
    *error = "expected a JSON object of fields, such as {\"u32:SYS_CMD\":\"CMD_GETOBJ\"}";
    return false;
  }
  Bytes flat;
  if (!objectToRecords(in, 0, "", &flat, error)) return false;
  *out = kl::message();
  if (!out->unflatten(flat.data(), flat.size(), kl::message::flatten_full)) {
    *error = "the fields do not make a message";
    return false;
  }
  return true;
}

bool parseJson(const std::string& text, Json* out, std::string* error) {
  // nlohmann keeps the last of repeated keys silently; a repeated key is a mistake here.
  std::vector<std::set<std::string>> keysOfOpenObjects;
  std::string repeated;
  auto noteKeys = [&](int, Json::parse_event_t event, Json& parsed) {
    if (event == Json::parse_event_t::object_start) {
      keysOfOpenObjects.emplace_back();
    } else if (event == Json::parse_event_t::object_end) {
      keysOfOpenObjects.pop_back();
    } else if (event == Json::parse_event_t::key && repeated.empty() &&
               !keysOfOpenObjects.back().insert(parsed.get<std::string>()).second) {
      repeated = parsed.get<std::string>();
    }
    return true;
  };
  try {
    *out = Json::parse(text, noteKeys);
  } catch (const Json::exception& e) {
    // "[json.exception.parse_error.101] parse error at line 1, column 2: ..."
    std::string what = e.what();
    const size_t tag = what.find("] ");
    if (tag != std::string::npos) what.erase(0, tag + 2);
    const std::string kWord = "parse error";
    if (what.compare(0, kWord.size(), kWord) == 0) what.erase(0, kWord.size());
    *error = "malformed JSON" + (what.empty() || what[0] == ' ' ? what : ": " + what);
    return false;
  }
  if (!repeated.empty()) {
    *error = "duplicate key " + jsonQuoted(repeated);
    return false;
  }
  return true;
}

bool jsonTextToMessage(const std::string& text, kl::message* out, std::string* error) {
  Json json;
  return parseJson(text, &json, error) && jsonToMessage(json, out, error);
}

bool messageToJsonText(const kl::message& m, std::string* text, std::string* error) {
  Json json;
  if (!messageToJson(m, &json, error)) return false;
  *text = jsonText(json);
  return true;
}

std::string jsonText(const Json& value) {
  // Every string this unit puts in JSON is UTF-8; replacement is only a guard.
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool isUtf8(const std::string& bytes) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(bytes.data());
  const unsigned char* end = p + bytes.size();
  while (p < end) {
    const unsigned int lead = *p++;
    if (lead < 0x80) continue;
    unsigned int more;
    unsigned int low = 0x80, high = 0xbf;  // the range of the byte after the lead
    if (lead >= 0xc2 && lead <= 0xdf) {
      more = 1;
    } else if (lead >= 0xe0 && lead <= 0xef) {
      more = 2;
      if (lead == 0xe0) low = 0xa0;   // no overlong forms
      if (lead == 0xed) high = 0x9f;  // no surrogates
    } else if (lead >= 0xf0 && lead <= 0xf4) {
      more = 3;
      if (lead == 0xf0) low = 0x90;   // no overlong forms
      if (lead == 0xf4) high = 0x8f;  // nothing past U+10FFFF
    } else {
      return false;
    }
    if (static_cast<size_t>(end - p) < more) return false;
    if (p[0] < low || p[0] > high) return false;
    for (unsigned int i = 1; i < more; ++i) {
      if (p[i] < 0x80 || p[i] > 0xbf) return false;
    }
    p += more;
  }
  return true;
}

}  // namespace klmsg
