// File: tools/field_text.h
//
// The text forms of message fields that kl-msg reads and writes, shared by its field lists
// (TYPE:ID=VALUE, as encode, call and serve take them) and its JSON form:
//   type names   bool, u32, u64, addr6, string, message, raw; "[]" added for an array
//   field ids    a number (decimal or 0x hex), a SYS_/STD_ name such as SYS_CMD or
//                SYS_NOTIFYCMD, or the dump's form for an unnamed field: global(3),
//                local(16), std(5), sys(17)
//   u32 values   a number, or a TYPE_/STATUS_/CMD_/ERROR_ name, or BADID
//   bytes        hex digits, white space between them allowed
// Every function here is pure apart from the static name tables it reads.
#ifndef TOOLS_FIELD_TEXT_H_
#define TOOLS_FIELD_TEXT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kl/message/message.h"

namespace klmsg {

using Bytes = std::vector<unsigned char>;

// The longest string, message or raw value, and the most array elements, that the wire
// format's 16-bit lengths and counts can carry.
constexpr size_t kMaxWireLength = 65535;

// The type bits (kl::kTypeBool ... kl::kTypeRaw) of a scalar type name such as "u32";
// false, *typeBits unchanged, for any other text.
bool parseTypeName(const std::string& text, uint32_t* typeBits);
// The scalar type name of a field id's type bits ("u32" for a u32 or u32-array id); null
// for a type code that has none.
const char* typeName(uint32_t id);

// A number without sign in decimal, 0x hex or leading-0 octal (strtoull's base 0); false
// for anything else, including an empty text or one past 2^64 - 1.
bool parseNumber(const std::string& text, unsigned long long* out);

// A field number from a number up to 0xffffffff, a SYS_/STD_ name, or the dump's form for
// unnamed fields. The result's type bits are whatever the text gave: the caller sets its
// own (kl::withType). False, *id unchanged, when the text is none of these.
bool parseFieldId(const std::string& text, uint32_t* id);
// The SYS_/STD_ name of field `id` (its type bits ignored) when parseFieldId reads that
// name back as exactly the same number; null otherwise. The string is static.
const char* fieldName(uint32_t id);

// A u32 from a number or a TYPE_/STATUS_/CMD_/ERROR_ name of the library, or BADID; false,
// *out unchanged, for any other text.
bool parseU32(const std::string& text, unsigned int* out);
// The CMD_ name of a command code, such as "CMD_GETOBJ" or "CMD_SUBSCRIBE"; null for a code
// without one. The string is static.
const char* commandName(unsigned int code);

// The bytes of hex text (digit pairs, white space anywhere between digits allowed); false
// for an odd number of digits or any other character, *out then unspecified.
bool parseHex(const std::string& text, Bytes* out);

// Adds one TYPE:ID=VALUE field to `m` (a repeated id replaces the earlier field); returns an
// error text naming the field and what is wrong, empty on success, `m` then unchanged.
std::string addField(kl::message& m, const std::string& field);

}  // namespace klmsg

#endif  // TOOLS_FIELD_TEXT_H_
