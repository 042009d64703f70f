// File: tools/json_message.h
//
// The JSON form of a kl::message, as kl-msg prints and reads it. It loses nothing: a
// message converted to JSON and back is == to the original, and JSON that converts comes
// out the same when converted again (in its printed spelling: names and numbers as below).
//
//   {"u32[]:SYS_TO":[5,2],"u32:SYS_CMD":16646146,"u32:STD_ID":2,"string:0x3":"ab",
//    "message[]:STD_OBJS":[{"u32:STD_ID":1}]}
//
// Each field is one member. Its key is TYPE:NAME as encode takes fields: TYPE is bool, u32,
// u64, addr6, string, message or raw, with "[]" for an array; NAME is the field's SYS_/STD_
// name when one stands for exactly its number, else the number in hex without the type bits
// ("0xfd0010"). Read back, NAME may be any id form encode takes (tools/field_text.h), but
// not a number with bits above bit 26 or bit 24 set (the type and the wire's flag).
//
// Values:
//   bool     true or false
//   u32      a number; read back, also a string as encode takes it: a number or a name
//            such as "CMD_GETOBJ" or "ERROR_BRKPATH" (printed as the number again)
//   u64      a number up to 2^53, a decimal string above (JSON readers lose digits past
//            2^53); read back, either form for any value
//   addr6    the address text, "fe80::1"
//   string   a JSON string; {"hex":"c328"} when its bytes are not UTF-8
//   raw      hex text, "0a1b" (read back, white space between digits allowed)
//   message  an object of the nested message's fields; hex text of its bytes instead when
//            those bytes are not exactly the encoding of its fields in their order (an older
//            or malformed encoding, a field given twice) or when it lies more than
//            kMaxJsonNesting levels deep
//   TYPE[]   an array of such values
// The members of a nested message are in the order of its bytes, and read back they are
// encoded in the order given: that reproduces the bytes. At the top, where order carries no
// meaning (messages compare field by field), members are printed system fields first, then
// standard, local and other ones, each by number: equal messages print the same text.
//
// Bad input gives false and one line of error text that says where and what, such as
// `"u32:STD_ID": expected a number from 0 to 4294967295` or
// `"message[]:STD_OBJS"[2]."u32:STD_FOO": unknown field name 'STD_FOO'`.
#ifndef TOOLS_JSON_MESSAGE_H_
#define TOOLS_JSON_MESSAGE_H_

#include <nlohmann/json.hpp>
#include <string>

#include "kl/message/message.h"

namespace klmsg {

// A JSON value whose objects keep their members in the order given.
using Json = nlohmann::ordered_json;

// How many levels of nested messages are shown as objects below the converted message;
// deeper ones are hex text. An object nested deeper is refused when read.
constexpr unsigned int kMaxJsonNesting = 32;

// Converts `m` to a JSON object. False, with *error set and *out unspecified, only when `m`
// holds what its wire form cannot carry (a value of more than 65535 bytes or elements, an
// id with bit 24 set), which no message received from elsewhere does.
bool messageToJson(const kl::message& m, Json* out, std::string* error);
// Replaces *out with the message that JSON object `in` describes. False with *error set on
// a bad key or value; *out is then unspecified.
bool jsonToMessage(const Json& in, kl::message* out, std::string* error);

// Parses JSON text. False with *error set ("malformed JSON: ..." or "duplicate key ...")
// when the text is not one JSON value or an object in it repeats a key.
bool parseJson(const std::string& text, Json* out, std::string* error);
// parseJson, then jsonToMessage.
bool jsonTextToMessage(const std::string& text, kl::message* out, std::string* error);
// messageToJson, as one line of text without a line feed.
bool messageToJsonText(const kl::message& m, std::string* text, std::string* error);
// A JSON value as one line of text without a line feed.
std::string jsonText(const Json& value);

// Whether `bytes` is well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates, nothing
// past U+10FFFF): what a JSON string can carry unchanged.
bool isUtf8(const std::string& bytes);

}  // namespace klmsg

#endif  // TOOLS_JSON_MESSAGE_H_
