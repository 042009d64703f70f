#include "tools/json_message.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <random>
#include <string>
#include <vector>

#include "kl/message/message.h"
#include "kl/message/system.h"
#include "kl/testing/hex.h"

namespace klmsg {
namespace {

using FlatMessage = kl::message::flat_message;
using kl::message;
using kl::testing::fromHex;
using kl::testing::toHex;

IPAddr6 addr(const char* text) {
  IPAddr6 a;
  EXPECT_EQ(inet_pton(AF_INET6, text, a.bytes), 1) << text;
  return a;
}

FlatMessage flatOf(const std::string& hex) { return FlatMessage(fromHex(hex)); }

std::string toText(const message& m) {
  std::string text, error;
  EXPECT_TRUE(messageToJsonText(m, &text, &error)) << error;
  return text;
}

// The message of JSON text that must convert.
message fromText(const std::string& text) {
  message m;
  std::string error;
  EXPECT_TRUE(jsonTextToMessage(text, &m, &error)) << error << "\n" << text;
  return m;
}

// The error of JSON text that must not convert.
std::string errorOf(const std::string& text) {
  message m;
  std::string error = "(converted)";
  EXPECT_FALSE(jsonTextToMessage(text, &m, &error)) << text;
  return error;
}

// `m` to JSON text and back, which must give `m` again; and that text converted once more
// must be the same text.
void expectRoundTrip(const message& m) {
  const std::string text = toText(m);
  const message back = fromText(text);
  EXPECT_TRUE(back == m) << text;
  EXPECT_EQ(toText(back), text);
}

// --- messages of every shape ------------------------------------------------------------------

message nested(unsigned int levels) {
  message m;
  m.insert_u32(0x08000001, levels);
  if (levels > 0) m.insert_message(0x28000002, nested(levels - 1));
  return m;
}

struct RoundTripCase {
  const char* name;
  message m;
};

std::vector<RoundTripCase> roundTripCases() {
  std::vector<RoundTripCase> cases;
  auto add = [&cases](const char* name) -> message& {
    cases.push_back({name, message()});
    return cases.back().m;
  };
  add("empty");
  {
    message& m = add("every scalar type");
    m.insert_bool(kl::SYS_REPLYEXP, true);
    m.insert_bool(0x00000004, false);
    m.insert(kl::SYS_CMD, kl::CMD_GETOBJ);
    m.insert_u64(0x10000005, 77);
    m.insert_addr6(0x18000006, addr("fe80::1"));
    m.insert_string(kl::STD_DESCR, "uplink");
    m.insert_raw(0x30000007, {0x0a, 0x1b});
    m.insert_message(0x28000008, nested(1));
  }
  {
    message& m = add("u32 boundaries");
    const unsigned int values[] = {0, 1, 255, 256, 65535, 65536, 0x7fffffff, 0xffffffff};
    for (unsigned int i = 0; i < 8; ++i) m.insert_u32(0x08000010 + i, values[i]);
  }
  {
    message& m = add("u64 boundaries");
    const unsigned long long values[] = {
        0, 1, 1ull << 32, (1ull << 53) - 1, 1ull << 53, (1ull << 53) + 1, ~0ull - 1, ~0ull};
    for (unsigned int i = 0; i < 8; ++i) m.insert_u64(0x10000010 + i, values[i]);
  }
  {
    message& m = add("addresses");
    const char* texts[] = {"::", "::1", "fe80::1", "::ffff:192.0.2.1",
                           "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"};
    for (unsigned int i = 0; i < 5; ++i) m.insert_addr6(0x18000010 + i, addr(texts[i]));
  }
  {
    message& m = add("strings");
    const std::string texts[] = {"",
                                 std::string("nul\0inside", 10),
                                 "quote \" backslash \\ newline \n tab \t bell \a",
                                 "gr\xc3\xbc\xc3\x9f"
                                 "e \xe2\x9c\x93 \xf0\x9d\x84\x9e",
                                 "\xff\xfe",
                                 "lone \x80 continuation",
                                 "overlong \xc0\xaf",
                                 "surrogate \xed\xa0\x80",
                                 "past U+10FFFF \xf4\x90\x80\x80",
                                 "cut \xe2\x9c",
                                 std::string(255, 'a'),
                                 std::string(256, 'b'),
                                 std::string(65535, 'c')};
    unsigned int id = 0x20000010;
    for (const std::string& text : texts) m.insert_string(id++, text);
  }
  {
    message& m = add("raw values");
    m.insert_raw(0x30000010, {});
    m.insert_raw(0x30000011, {0x00});
    m.insert_raw(0x30000012, std::vector<unsigned char>(256, 0xab));
  }
  {
    message& m = add("arrays of every type");
    m.insert(kl::SYS_TO, {5, 2});
    m.insert_bool_array(0x80000010, {true, false, true});
    m.insert_u32_array(0x88000011, {0, 255, 256, 0xffffffff});
    m.insert_u64_array(0x90000012, {0, (1ull << 53) + 1, ~0ull});
    m.insert_addr6_array(0x98000013, {addr("::1"), addr("fe80::2")});
    m.insert_string_array(0xa0000014, {"", "a", "\xff"});
    m.insert_raw_array(0xb0000015, {{}, {0x01, 0x02}});
    m.insert_message_array(kl::STD_OBJS, {FlatMessage(nested(0)), FlatMessage(message())});
  }
  {
    message& m = add("empty arrays of every type");
    m.insert_bool_array(0x80000010, {});
    m.insert_u32_array(0x88000011, std::vector<unsigned int>());
    m.insert_u64_array(0x90000012, {});
    m.insert_addr6_array(0x98000013, {});
    m.insert_string_array(0xa0000014, std::vector<std::string>());
    m.insert_raw_array(0xb0000015, std::vector<std::vector<unsigned char>>());
    m.insert_message_array(kl::STD_OBJS, std::vector<FlatMessage>());
  }
  {
    message& m = add("field numbers without names");
    m.insert_u32(0x08000003, 1);  // global(3)
    m.insert_u32(0x08fd0010, 2);  // local(16)
    m.insert_u32(0x08fe0030, 3);  // std(48)
    m.insert_u32(0x08ff0020, 4);  // sys(32)
    m.insert_u32(0x08120005, 5);  // a namespace without a name
    m.insert_u32(0x0aff0007, 6);  // SYS_CMD's number with the pass-through bit
    m.insert_u32(0x0cfe0001, 7);  // STD_ID's number with bit 26
    m.insert_u32(0x0effffff, 8);  // every bit a number may have
  }
  {
    message& m = add("names the dump does not print");
    m.insert(kl::SYS_NOTIFYCMD, kl::CMD_NOTIFY);
    m.insert(kl::SYS_ORIGIN, {5});
  }
  {
    message& m = add("one number in several types");
    m.insert_u32(0x08000001, 1);
    m.insert_string(0x20000001, "1");
    m.insert_u32_array(0x88000001, {1});
    m.insert_bool(0x00000001, true);
  }
  {
    message& m = add("nested bytes that no object reproduces");
    m.insert_message(0x28000010, FlatMessage());
    m.insert_message(0x28000011, flatOf("01 00 02 05 00 00 00 01 00 00 00 07 00 00 00"));  // older
    m.insert_message(0x28000012, flatOf("4D 32 01"));                             // cut short
    m.insert_message(0x28000013, flatOf("4D 32 01 00 00 08 07 00 00 00"));        // 7 in 4 bytes
    m.insert_message(0x28000014, flatOf("4D 32 01 00 00 09 07 01 00 00 09 08"));  // twice
    m.insert_message(0x28000015, flatOf("4D 32 03 00 00 20 01 00 61"));  // long length form
    m.insert_message_array(0xa8000016, {flatOf("4D 32"), flatOf("FF")});
  }
  add("nested past the limit") = nested(kMaxJsonNesting + 8);
  {
    message& m = add("a request as sent");
    m.insert(kl::SYS_TO, {5, 2});
    m.insert(kl::SYS_FROM, {0x10000});
    m.insert(kl::SYS_REQID, 3);
    m.insert_bool(kl::SYS_REPLYEXP, true);
    m.insert(kl::SYS_CMD, kl::CMD_SETOBJ);
    m.insert(kl::STD_ID, 2);
    m.insert_string(kl::STD_DESCR, "uplink");
  }
  return cases;
}

TEST(JsonMessage, EveryShapeOfMessageComesBackEqual) {
  for (const RoundTripCase& c : roundTripCases()) {
    SCOPED_TRACE(c.name);
    expectRoundTrip(c.m);
  }
}

TEST(JsonMessage, GoldenTextSystemFieldsFirstThenByNumber) {
  message m;
  m.insert_string(0x20000003, "ab");
  m.insert(kl::STD_ID, 2);
  m.insert(kl::SYS_CMD, kl::CMD_GETOBJ);
  m.insert(kl::SYS_TO, {5, 2});
  m.insert_u64(0x10fd0004, (1ull << 53) + 1);
  m.insert_addr6(0x18000005, addr("::1"));
  m.insert_raw(0x30000006, {0x0a, 0x1b});
  m.insert_string(0x20000007, "\xff");
  m.insert_u64(0x10000008, 1ull << 53);
  message obj;
  obj.insert(kl::STD_ID, 1);
  m.insert_message_array(kl::STD_OBJS, {FlatMessage(obj)});
  EXPECT_EQ(toText(m),
            "{\"u32[]:SYS_TO\":[5,2],\"u32:SYS_CMD\":16646146,\"u32:STD_ID\":2,"
            "\"message[]:STD_OBJS\":[{\"u32:STD_ID\":1}],\"u64:0xfd0004\":\"9007199254740993\","
            "\"string:0x3\":\"ab\",\"addr6:0x5\":\"::1\",\"raw:0x6\":\"0a1b\","
            "\"string:0x7\":{\"hex\":\"ff\"},\"u64:0x8\":9007199254740992}");
}

// Both byte orders: a nested object's members are encoded in the order given.
TEST(JsonMessage, GoldenBytesOfNestedMembersInTheirOrder) {
  const message m = fromText(
      "{\"message:0x1\":{\"u32:0x3\":1,\"string:0x2\":\"a\"},"
      "\"message:0x4\":{\"string:0x2\":\"a\",\"u32:0x3\":1}}");
  EXPECT_EQ(toHex(m.get_message(0x28000001, FlatMessage())),
            "4D 32 03 00 00 09 01 02 00 00 21 01 61");
  EXPECT_EQ(toHex(m.get_message(0x28000004, FlatMessage())),
            "4D 32 02 00 00 21 01 61 03 00 00 09 01");
}

TEST(JsonMessage, NestedMessagesBecomeObjectsDownToTheLimitThenHex) {
  const std::string text = toText(nested(kMaxJsonNesting + 1));
  std::string deepest = "\"message:0x2\":{\"u32:0x1\":1,\"message:0x2\":\"4d32";
  EXPECT_NE(text.find(deepest), std::string::npos) << text;
  EXPECT_EQ(text.find("{\"u32:0x1\":0"), std::string::npos) << text;
}

// --- what the reader takes ----------------------------------------------------------------------

struct InputCase {
  const char* json;
  message expected;
};

message withU32(uint32_t id, unsigned int v) {
  message m;
  m.insert_u32(id, v);
  return m;
}

TEST(JsonMessage, ReaderTakesEveryFormEncodeTakes) {
  message u64s;
  u64s.insert_u64(0x10000001, ~0ull);
  u64s.insert_u64(0x10000002, ~0ull);
  u64s.insert_u64(0x10000003, 5);
  message bytes;
  bytes.insert_string(0x20000001, "\xff");
  bytes.insert_raw(0x30000002, {0x0a, 0x1b});
  bytes.insert_message(0x28000003, message());
  bytes.insert_message(0x28000004, message());
  bytes.insert_bool_array(0x80000005, {true, false});
  const InputCase cases[] = {
      {"{\"u32:SYS_CMD\":\"CMD_GETOBJ\"}", withU32(kl::SYS_CMD, kl::CMD_GETOBJ)},
      {"{\"u32:0xff0007\":16646146}", withU32(kl::SYS_CMD, kl::CMD_GETOBJ)},
      {"{\"u32:sys(7)\":16646146}", withU32(kl::SYS_CMD, kl::CMD_GETOBJ)},
      {"{\"u32:16711687\":16646146}", withU32(kl::SYS_CMD, kl::CMD_GETOBJ)},
      {"{\"u32:SYS_NOTIFYCMD\":\"CMD_SUBSCRIBE\"}", withU32(kl::SYS_NOTIFYCMD, kl::CMD_SUBSCRIBE)},
      {"{\"u32:SYS_ERRNO\":\"ERROR_BRKPATH\"}", withU32(kl::SYS_ERRNO, kl::ERROR_BRKPATH)},
      {"{\"u32:SYS_TYPE\":\"TYPE_REPLY\"}", withU32(kl::SYS_TYPE, kl::TYPE_REPLY)},
      {"{\"u32:STD_ID\":\"BADID\"}", withU32(kl::STD_ID, kl::BADID)},
      {"{\"u32:STD_ID\":\"0x10\"}", withU32(kl::STD_ID, 16)},
      {"{\"u32:STD_ID\":-0}", withU32(kl::STD_ID, 0)},
      {"{\"u64:0x1\":18446744073709551615,\"u64:0x2\":\"18446744073709551615\",\"u64:0x3\":\"5\"}",
       u64s},
      {"{\"string:0x1\":{\"hex\":\"FF\"},\"raw:0x2\":\"0A 1b\",\"message:0x3\":\"4d32\","
       "\"message:0x4\":{},\"bool[]:0x5\":[true,false]}",
       bytes},
  };
  for (const InputCase& c : cases) {
    SCOPED_TRACE(c.json);
    const message m = fromText(c.json);
    EXPECT_TRUE(m == c.expected) << toText(m);
    // Read in any spelling, printed in one: that text reads as the same message.
    EXPECT_TRUE(fromText(toText(m)) == m);
  }
}

TEST(JsonMessage, ReaderTakesJsonBuiltInCode) {
  const Json json = {{"u32:STD_ID", 5}, {"u32[]:SYS_TO", {5, 2}}, {"string:STD_DESCR", "x"}};
  message m;
  std::string error;
  ASSERT_TRUE(jsonToMessage(json, &m, &error)) << error;
  EXPECT_EQ(m.get(kl::STD_ID, 0), 5u);
  EXPECT_EQ(m.get_u32_array(kl::SYS_TO), std::vector<unsigned int>({5, 2}));
  EXPECT_EQ(m.get_string(kl::STD_DESCR, ""), "x");
}

// --- bad input
// ------------------------------------------------------------------------------------

struct ErrorCase {
  std::string json;
  std::string error;
};

TEST(JsonMessage, BadInputGivesOneLineSayingWhereAndWhat) {
  const std::string u32Range = "expected a number from 0 to 4294967295";
  const std::string u64Range =
      "expected a number from 0 to 18446744073709551615, or one in a string";
  const ErrorCase cases[] = {
      {"",
       "malformed JSON at line 1, column 1: syntax error while parsing value - unexpected end "
       "of input; expected '[', '{', or a literal"},
      {"{\"u32:SYS_CMD\":",
       "malformed JSON at line 1, column 16: syntax error while parsing value - unexpected end "
       "of input; expected '[', '{', or a literal"},
      {"{\"u32:SYS_CMD\":1} x",
       "malformed JSON at line 1, column 19: syntax error while parsing value - invalid "
       "literal; last read: '1} x'; expected end of input"},
      {"[1,2]", "expected a JSON object of fields, such as {\"u32:SYS_CMD\":\"CMD_GETOBJ\"}"},
      {"{\"SYS_CMD\":1}", "\"SYS_CMD\": a key is TYPE:NAME, such as \"u32:STD_ID\""},
      {"{\"u31:STD_ID\":1}", "\"u31:STD_ID\": unknown type 'u31'"},
      {"{\"u32:STD_FOO\":1}", "\"u32:STD_FOO\": unknown field name 'STD_FOO'"},
      {"{\"u32:\":1}", "\"u32:\": unknown field name ''"},
      {"{\"u32:0x1000001\":1}",
       "\"u32:0x1000001\": field number '0x1000001' uses bit 24 or "
       "bits above 26"},
      {"{\"u32:0x8000001\":1}",
       "\"u32:0x8000001\": field number '0x8000001' uses bit 24 or "
       "bits above 26"},
      {"{\"u32:SYS_CMD\":1,\"u32:0xff0007\":2}",
       "\"u32:0xff0007\": the same field as \"u32:SYS_CMD\""},
      {"{\"u32:STD_ID\":1,\"u32:STD_ID\":2}", "duplicate key \"u32:STD_ID\""},
      {"{\"message:0x1\":{\"u32:2\":1,\"u32:2\":1}}", "duplicate key \"u32:2\""},
      {"{\"u32:STD_ID\":-1}", "\"u32:STD_ID\": " + u32Range},
      {"{\"u32:STD_ID\":4294967296}", "\"u32:STD_ID\": " + u32Range},
      {"{\"u32:STD_ID\":1.5}", "\"u32:STD_ID\": " + u32Range},
      {"{\"u32:STD_ID\":1e3}", "\"u32:STD_ID\": " + u32Range},
      {"{\"u32:STD_ID\":null}", "\"u32:STD_ID\": " + u32Range},
      {"{\"u32:STD_ID\":true}", "\"u32:STD_ID\": " + u32Range},
      {"{\"u32:SYS_CMD\":\"CMD_FOO\"}",
       "\"u32:SYS_CMD\": " + u32Range + " or a name such as CMD_GETOBJ, not \"CMD_FOO\""},
      {"{\"u64:0x1\":-1}", "\"u64:0x1\": " + u64Range},
      {"{\"u64:0x1\":18446744073709551616}", "\"u64:0x1\": " + u64Range},
      {"{\"u64:0x1\":\"18446744073709551616\"}", "\"u64:0x1\": " + u64Range},
      {"{\"u64:0x1\":\"x\"}", "\"u64:0x1\": " + u64Range},
      {"{\"bool:0x1\":1}", "\"bool:0x1\": expected true or false"},
      {"{\"bool:0x1\":\"true\"}", "\"bool:0x1\": expected true or false"},
      {"{\"addr6:0x1\":\"192.0.2.1\"}",
       "\"addr6:0x1\": expected an IPv6 address such as \"fe80::1\""},
      {"{\"addr6:0x1\":1}", "\"addr6:0x1\": expected an IPv6 address such as \"fe80::1\""},
      {"{\"string:0x1\":1}",
       "\"string:0x1\": expected a string, or {\"hex\": HEX} for bytes that are not UTF-8"},
      {"{\"string:0x1\":{\"hex\":\"zz\"}}",
       "\"string:0x1\": expected a string, or {\"hex\": HEX} for bytes that are not UTF-8"},
      {"{\"string:0x1\":{\"hex\":\"ab\",\"x\":1}}",
       "\"string:0x1\": expected a string, or {\"hex\": HEX} for bytes that are not UTF-8"},
      {"{\"raw:0x1\":\"abc\"}", "\"raw:0x1\": expected hex text of the bytes, such as \"0a1b\""},
      {"{\"raw:0x1\":[1]}", "\"raw:0x1\": expected hex text of the bytes, such as \"0a1b\""},
      {"{\"message:0x1\":5}",
       "\"message:0x1\": expected an object of fields, or hex text of a flattened message"},
      {"{\"message:0x1\":\"4d3\"}",
       "\"message:0x1\": expected an object of fields, or hex text of a flattened message"},
      {"{\"u32[]:SYS_TO\":5}", "\"u32[]:SYS_TO\": expected an array"},
      {"{\"u32[]:SYS_TO\":[1,\"x\"]}",
       "\"u32[]:SYS_TO\"[1]: " + u32Range + " or a name such as CMD_GETOBJ, not \"x\""},
      {"{\"message[]:STD_OBJS\":[{},{\"u32:STD_FOO\":1}]}",
       "\"message[]:STD_OBJS\"[1].\"u32:STD_FOO\": unknown field name 'STD_FOO'"},
      {"{\"message:0x1\":{\"message:0x2\":{\"bool:0x3\":0}}}",
       "\"message:0x1\".\"message:0x2\".\"bool:0x3\": expected true or false"},
      {"{\"string:STD_DESCR\":\"" + std::string(65536, 'a') + "\"}",
       "\"string:STD_DESCR\": is 65536 bytes, more than the 65535 a message can carry"},
      {"{\"raw:0x1\":\"" + std::string(2 * 65536, '0') + "\"}",
       "\"raw:0x1\": is 65536 bytes, more than the 65535 a message can carry"},
      {"{\"message:0x1\":{\"raw:0x2\":\"" + std::string(2 * 65535, '0') + "\"}}",
       "\"message:0x1\": is 65543 bytes, more than the 65535 a message can carry"},
  };
  for (const ErrorCase& c : cases) {
    SCOPED_TRACE(c.json.substr(0, 80));
    const std::string error = errorOf(c.json);
    EXPECT_EQ(error, c.error);
    EXPECT_EQ(error.find('\n'), std::string::npos);
  }
}

TEST(JsonMessage, BadInputAtTheLimitsGivesOneLine) {
  std::string elements = "0";
  for (int i = 1; i < 65536; ++i) elements += ",0";
  EXPECT_EQ(errorOf("{\"u32[]:0x1\":[" + elements + "]}"),
            "\"u32[]:0x1\": is 65536 elements, more than the 65535 a message can carry");

  std::string deep;
  for (unsigned int i = 0; i <= kMaxJsonNesting; ++i) deep += "{\"message:0x1\":";
  deep += "{}" + std::string(kMaxJsonNesting + 1, '}');
  const std::string error = errorOf(deep);
  EXPECT_NE(error.find(": messages nested more than 32 levels deep"), std::string::npos) << error;

  // Deep JSON that is no message at all costs neither the stack nor a crash.
  const std::string arrays(100000, '[');
  EXPECT_EQ(errorOf("{\"u32[]:0x1\":" + arrays + std::string(100000, ']') + "}"),
            "\"u32[]:0x1\"[0]: " + std::string("expected a number from 0 to 4294967295"));
  EXPECT_EQ(errorOf(arrays).compare(0, 14, "malformed JSON"), 0);
}

// A message built in code can hold what no encoding carries; it is refused, not mangled.
TEST(JsonMessage, ValueTooLongForTheWireIsRefused) {
  message m;
  m.insert_string(kl::STD_DESCR, std::string(70000, 'x'));
  Json json;
  std::string error;
  EXPECT_FALSE(messageToJson(m, &json, &error));
  EXPECT_EQ(error, "the message holds a value that its wire form cannot carry");
}

// --- random messages and random text ---------------------------------------------------------

class RandomMessages {
 public:
  explicit RandomMessages(unsigned int seed) : rng_(seed) {}

  message next(unsigned int depth = 0) {
    message m;
    const unsigned int fields = below(8);
    for (unsigned int i = 0; i < fields; ++i) addField(m, depth);
    return m;
  }

  unsigned int below(unsigned int n) { return static_cast<unsigned int>(rng_() % n); }

 private:
  uint32_t number() {
    const uint32_t named[] = {0xff0001, 0xff0007, 0xfe0001, 0xfe0002, 0xfe0009, 0xff0011};
    if (below(3) == 0) return named[below(6)];
    return static_cast<uint32_t>(rng_()) & 0x06ffffff & ~kl::kWireFlagBit;
  }
  unsigned long long u64() {
    const unsigned long long v = (static_cast<unsigned long long>(rng_()) << 32) | rng_();
    return below(2) == 0 ? v : v >> below(64);
  }
  std::string text() {
    std::string s(below(4) == 0 ? below(300) : below(12), '\0');
    for (char& c : s) c = static_cast<char>(below(2) == 0 ? 'a' + below(26) : below(256));
    return s;
  }
  std::vector<unsigned char> bytes() {
    const std::string s = text();
    return std::vector<unsigned char>(s.begin(), s.end());
  }
  IPAddr6 address() {
    IPAddr6 a;
    for (unsigned char& b : a.bytes) b = static_cast<unsigned char>(below(3) == 0 ? below(256) : 0);
    return a;
  }
  // A nested message: usually a real one, sometimes bytes a little off one.
  FlatMessage nestedMessage(unsigned int depth) {
    FlatMessage flat(depth < 3 ? next(depth + 1) : message());
    if (below(5) == 0 && !flat.empty()) {
      flat[below(static_cast<unsigned int>(flat.size()))] = static_cast<unsigned char>(rng_());
    }
    return flat;
  }
  template <class T, class Make>
  std::vector<T> array(Make make) {
    std::vector<T> values;
    for (unsigned int n = below(5); n > 0; --n) values.push_back(make());
    return values;
  }

  void addField(message& m, unsigned int depth) {
    const uint32_t n = number();
    switch (below(14)) {
      case 0:
        return m.insert_bool(n, below(2) == 0);
      case 1:
        return m.insert_u32(n, below(2) == 0 ? below(300) : static_cast<unsigned int>(rng_()));
      case 2:
        return m.insert_u64(n, u64());
      case 3:
        return m.insert_addr6(n, address());
      case 4:
        return m.insert_string(n, text());
      case 5:
        return m.insert_raw(n, bytes());
      case 6:
        return m.insert_message(n, nestedMessage(depth));
      case 7:
        return m.insert_bool_array(n, array<bool>([this] { return below(2) == 0; }));
      case 8:
        return m.insert_u32_array(
            n, array<unsigned int>([this] { return static_cast<unsigned int>(rng_()); }));
      case 9:
        return m.insert_u64_array(n, array<unsigned long long>([this] { return u64(); }));
      case 10:
        return m.insert_addr6_array(n, array<IPAddr6>([this] { return address(); }));
      case 11:
        return m.insert_string_array(n, array<std::string>([this] { return text(); }));
      case 12:
        return m.insert_raw_array(n, array<std::vector<unsigned char>>([this] { return bytes(); }));
      default:
        return m.insert_message_array(
            n, array<FlatMessage>([this, depth] { return nestedMessage(depth); }));
    }
  }

  std::mt19937 rng_;
};

TEST(JsonMessage, RandomMessagesComeBackEqual) {
  RandomMessages random(20240611);
  for (int i = 0; i < 3000; ++i) {
    const message m = random.next();
    SCOPED_TRACE(i);
    expectRoundTrip(m);
    if (HasFailure()) break;
  }
}

// Text a little off a valid one: it converts or it does not, and what converts is printed
// and read back as the same message.
TEST(JsonMessage, MangledTextConvertsConsistentlyOrNotAtAll) {
  RandomMessages random(7);
  const std::string alphabet = "{}[]\":,0123456789-.eE truefalsnu\\x";
  int converted = 0;
  for (int i = 0; i < 3000; ++i) {
    std::string text = toText(random.next());
    for (unsigned int edits = 1 + random.below(3); edits > 0 && !text.empty(); --edits) {
      const size_t at = random.below(static_cast<unsigned int>(text.size()));
      switch (random.below(3)) {
        case 0:
          text[at] = alphabet[random.below(static_cast<unsigned int>(alphabet.size()))];
          break;
        case 1:
          text.erase(at, 1 + random.below(4));
          break;
        default:
          text.resize(at);
          break;
      }
    }
    message m;
    std::string error;
    if (!jsonTextToMessage(text, &m, &error)) {
      EXPECT_FALSE(error.empty());
      EXPECT_EQ(error.find('\n'), std::string::npos) << error;
      continue;
    }
    ++converted;
    SCOPED_TRACE(text);
    expectRoundTrip(m);
    if (HasFailure()) break;
  }
  EXPECT_GT(converted, 100);
}

// --- UTF-8 -------------------------------------------------------------------------------------

// A JSON string takes exactly the bytes isUtf8 accepts: every sequence of up to two bytes,
// and the three- and four-byte ones around each boundary of the encoding.
TEST(JsonMessage, Utf8AgreesWithTheJsonParser) {
  auto parserTakes = [](const std::string& s) { return Json::accept("\"" + s + "\""); };
  auto plain = [](unsigned int b) { return b >= 0x20 && b != '"' && b != '\\'; };
  for (unsigned int a = 0; a < 256; ++a) {
    if (!plain(a)) continue;
    const std::string one(1, static_cast<char>(a));
    EXPECT_EQ(isUtf8(one), parserTakes(one)) << a;
    for (unsigned int b = 0; b < 256; ++b) {
      if (!plain(b)) continue;
      const std::string two = one + static_cast<char>(b);
      ASSERT_EQ(isUtf8(two), parserTakes(two)) << a << " " << b;
    }
  }
  const unsigned int edges[] = {0x00, 0x7f, 0x80, 0x8f, 0x90, 0x9f, 0xa0, 0xbf, 0xc0, 0xff};
  for (unsigned int lead = 0xe0; lead <= 0xf7; ++lead) {
    for (unsigned int b : edges) {
      for (unsigned int c : edges) {
        for (unsigned int d : {0x80u, 0xbfu, 0xc0u}) {
          std::string s{static_cast<char>(lead), static_cast<char>(b), static_cast<char>(c)};
          if (!plain(b) || !plain(c)) continue;
          ASSERT_EQ(isUtf8(s), parserTakes(s)) << lead << " " << b << " " << c;
          s += static_cast<char>(d);
          ASSERT_EQ(isUtf8(s), parserTakes(s)) << lead << " " << b << " " << c << " " << d;
        }
      }
    }
  }
}

}  // namespace
}  // namespace klmsg
