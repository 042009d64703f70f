// kl-msg: encodes, decodes and dumps kl messages from the command line.
//
//   kl-msg decode [--hex | --raw] [FILE]     print a flattened message as the dump
//   kl-msg encode [--raw] FIELD...           build a message and write its encoding
//
// A malformed input gets one line on the error stream and exit status 1.
#include <arpa/inet.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "kl/message/dump.h"
#include "kl/message/message.h"
#include "kl/message/system.h"
#include "tools/kl_msg_loader.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The commands, each with its usage line and what it does; `kl-msg CMD --help` prints one,
// `kl-msg --help` all of them.
struct CommandHelp {
  const char* name;
  const char* usage;
  const char* text;
  bool takesFields;
};
const CommandHelp kCommands[] = {
    {"decode", "kl-msg decode [--hex | --raw] [FILE]",
     "decode  reads a flattened message from FILE (or standard input when FILE is\n"
     "        absent or -) and prints it in the dump form. The input is taken as hex\n"
     "        text when it holds only hex digits and white space, else as raw bytes;\n"
     "        --hex and --raw force one reading. Empty input is an error.\n",
     false},
    {"encode", "kl-msg encode [--raw] FIELD...",
     "encode  builds a message from FIELDs and writes its encoding to standard\n"
     "        output as hex text, or as raw bytes with --raw.\n",
     true},
    {"call", "kl-msg call [--timeout SECS] [--all] PATH FIELD...",
     "call    sends a request built from FIELDs, which must name the command (SYS_CMD),\n"
     "        to PATH (handler ids, like 5 or 5/3) through the loader on\n"
     "        $KL_ROOT/ram/kelosock and prints the reply's dump. A time-out (default\n"
     "        5 s; SECS may have a fraction, like 0.5), a broken path or an error reply\n"
     "        prints one line. With --all (SYS_CMD defaults to CMD_GETALL) the request\n"
     "        is sent again with each reply's STD_GETALLID until a reply has none, and\n"
     "        the objects (STD_OBJS) of all replies are printed.\n",
     true},
    {"list", "kl-msg list", "list    prints the loader's processes.\n", false},
    {"serve", "kl-msg serve ID/HANDLER FIELD...",
     "serve   registers as process ID and answers every request to its HANDLER with a\n"
     "        reply made of FIELDs (request id and path added), until interrupted: a\n"
     "        stand-in for a service a handler under test depends on.\n",
     true},
    {"listen", "kl-msg listen [--cmd CMD] PATH",
     "listen  subscribes to PATH and prints the objects of each notification as they\n"
     "        arrive, until interrupted; then unsubscribes. A PATH where no handler\n"
     "        answers is an error; the process behind PATH going away and coming back\n"
     "        is reported.\n",
     false},
};

const char kFieldHelp[] =
    "FIELD is TYPE:ID=VALUE, with\n"
    "  TYPE   bool, u32, u64, addr6, string, raw or message; TYPE[] for an array,\n"
    "         whose VALUE lists the elements separated by commas\n"
    "  ID     a field number (decimal or 0x hex; the type bits are added), a field\n"
    "         name such as SYS_CMD, STD_DESCR or SYS_NOTIFYCMD, or the form the dump\n"
    "         prints for an unnamed field: global(3), local(16), std(5), sys(17)\n"
    "  VALUE  bool: true or false; u32, u64: a number; addr6: an IPv6 address;\n"
    "         string: the text; raw, message: hex bytes (a message as flattened)\n"
    "         u32 values may also be command, error or type names (CMD_GETALL,\n"
    "         CMD_SUBSCRIBE, ERROR_BRKPATH, TYPE_REPLY) or BADID\n";

const char kExitHelp[] = "Exit status: 0 success, 1 failure, 2 usage error.\n";

// The help of every command (null) or of one.
void printHelp(FILE* out, const CommandHelp* only) {
  bool fields = false;
  const char* lead = "usage: ";
  for (const CommandHelp& c : kCommands) {
    if (only != nullptr && only != &c) continue;
    fprintf(out, "%s%s\n", lead, c.usage);
    lead = "       ";
  }
  fputs("\n", out);
  for (const CommandHelp& c : kCommands) {
    if (only != nullptr && only != &c) continue;
    fputs(c.text, out);
    fields = fields || c.takesFields;
  }
  if (fields) fprintf(out, "\n%s", kFieldHelp);
  fprintf(out, "\n%s", kExitHelp);
  if (only == nullptr) {
    fputs("\nexample: kl-msg encode 'u32[]:SYS_TO=5' u32:SYS_CMD=CMD_GETALL string:3=ab\n", out);
  }
}

using klmsg::fail;
using klmsg::usage;

bool isHexText(const Bytes& input) {
  size_t digits = 0;
  for (unsigned char c : input) {
    if (isxdigit(c)) {
      ++digits;
    } else if (!isspace(c)) {
      return false;
    }
  }
  return digits % 2 == 0;
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

bool readAll(const char* path, Bytes* out) {
  FILE* f = (path == nullptr || strcmp(path, "-") == 0) ? stdin : fopen(path, "rb");
  if (f == nullptr) return false;
  unsigned char buf[65536];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, f)) > 0) out->insert(out->end(), buf, buf + n);
  const bool ok = !ferror(f);
  if (f != stdin) fclose(f);
  return ok;
}

int decodeCommand(int argc, char** argv) {
  enum { kAuto, kHex, kRaw } form = kAuto;
  const char* path = nullptr;
  for (int i = 0; i < argc; ++i) {
    if (strcmp(argv[i], "--hex") == 0) {
      form = kHex;
    } else if (strcmp(argv[i], "--raw") == 0) {
      form = kRaw;
    } else if (path == nullptr && (argv[i][0] != '-' || strcmp(argv[i], "-") == 0)) {
      path = argv[i];
    } else {
      return usage(std::string("unexpected argument '") + argv[i] + "' (see kl-msg decode --help)");
    }
  }
  Bytes input;
  if (!readAll(path, &input)) {
    return fail(std::string("cannot read ") + (path ? path : "standard input") + ": " +
                strerror(errno));
  }
  if (input.empty()) {
    return fail(std::string("no message: ") + (path ? path : "standard input") + " is empty");
  }
  Bytes bytes = input;
  if (form == kHex || (form == kAuto && isHexText(input))) {
    if (!parseHex(std::string(input.begin(), input.end()), &bytes)) {
      return fail("input is not hex text");
    }
  }
  kl::message m;
  if (!m.unflatten(bytes.data(), bytes.size(), kl::message::flatten_full)) {
    return fail("malformed message (" + std::to_string(bytes.size()) + " bytes)");
  }
  m.dump2(std::cout, "", 0);
  return 0;
}

// --- encode ---------------------------------------------------------------------------------

struct TypeName {
  const char* name;
  uint32_t bits;
};
const TypeName kTypes[] = {
    {"bool", kl::kTypeBool},   {"u32", kl::kTypeU32},       {"u64", kl::kTypeU64},
    {"addr6", kl::kTypeAddr6}, {"string", kl::kTypeString}, {"message", kl::kTypeMessage},
    {"raw", kl::kTypeRaw},
};

bool parseNumber(const std::string& text, unsigned long long* out) {
  if (text.empty() || text[0] == '-') return false;
  char* end = nullptr;
  errno = 0;
  *out = strtoull(text.c_str(), &end, 0);
  return errno == 0 && *end == '\0';
}

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

// A field number from a number, a SYS_/STD_ name of the library, or the dump's form for
// unnamed fields.
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

// A u32 from a number or a TYPE_/STATUS_/CMD_/ERROR_ name of the library.
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
  for (unsigned int value = 0xfe0000; value < 0xfe0020; ++value) {
    if (text == kl::fieldValueName(kl::SYS_TYPE, value)) {
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

// The longest string, message or raw value, and the most array elements, that the wire
// format's 16-bit lengths and counts can carry.
constexpr size_t kMaxWireLength = 65535;

size_t blockLength(uint32_t type, const Value& v) {
  if (type == kl::kTypeString) return v.text.size();
  if (type == kl::kTypeMessage || type == kl::kTypeRaw) return v.bytes.size();
  return 0;
}

// Adds one TYPE:ID=VALUE field to `m`; returns an error text, empty on success.
std::string addField(kl::message& m, const std::string& field) {
  const size_t colon = field.find(':');
  const size_t equals = field.find('=', colon == std::string::npos ? 0 : colon);
  if (colon == std::string::npos || equals == std::string::npos) {
    return "field '" + field + "' is not TYPE:ID=VALUE";
  }
  std::string typeName = field.substr(0, colon);
  const bool array = typeName.size() > 2 && typeName.compare(typeName.size() - 2, 2, "[]") == 0;
  if (array) typeName.resize(typeName.size() - 2);
  const TypeName* type = nullptr;
  for (const TypeName& t : kTypes) {
    if (typeName == t.name) type = &t;
  }
  if (type == nullptr) return "unknown type '" + typeName + "' in '" + field + "'";
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
  const uint32_t id = kl::withType(number, type->bits | (array ? kl::kArrayBit : 0));
  if (!array) {
    Value v;
    if (!parseValue(type->bits, valueText, &v)) return "bad value in '" + field + "'";
    if (blockLength(type->bits, v) > kMaxWireLength) return tooLong(blockLength(type->bits, v));
    insertScalar(m, type->bits, id, v);
    return "";
  }
  std::vector<Value> elements;
  for (const std::string& element : splitCommas(valueText)) {
    elements.emplace_back();
    if (!parseValue(type->bits, element, &elements.back())) {
      return "bad element '" + element + "' in '" + field + "'";
    }
    if (blockLength(type->bits, elements.back()) > kMaxWireLength) {
      return tooLong(blockLength(type->bits, elements.back()));
    }
  }
  if (elements.size() > kMaxWireLength) {
    return "array '" + name + "' has " + std::to_string(elements.size()) +
           " elements, more than the " + std::to_string(kMaxWireLength) + " a message can carry";
  }
  insertArray(m, type->bits, id, elements);  // a repeated field replaces the earlier one
  return "";
}

int encodeCommand(int argc, char** argv) {
  bool raw = false;
  kl::message m;
  int fields = 0;
  for (int i = 0; i < argc; ++i) {
    if (strcmp(argv[i], "--raw") == 0) {
      raw = true;
      continue;
    }
    const std::string error = addField(m, argv[i]);
    if (!error.empty()) return usage(error);
    ++fields;
  }
  if (fields == 0) return usage("encode needs at least one FIELD (see kl-msg encode --help)");
  Bytes bytes;
  m.flatten(bytes);
  if (raw) {
    fwrite(bytes.data(), 1, bytes.size(), stdout);
  } else {
    for (size_t i = 0; i < bytes.size(); ++i) printf("%s%02X", i ? " " : "", bytes[i]);
    printf("\n");
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  auto isHelp = [](const char* arg) {
    return strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0;
  };
  if (argc < 2 || isHelp(argv[1])) {
    printHelp(argc < 2 ? stderr : stdout, nullptr);
    return argc < 2 ? klmsg::kUsageError : 0;
  }
  const std::string command = argv[1];
  for (const CommandHelp& c : kCommands) {
    if (command != c.name) continue;
    for (int i = 2; i < argc; ++i) {
      if (isHelp(argv[i])) {
        printHelp(stdout, &c);
        return 0;
      }
    }
  }
  if (command == "decode") return decodeCommand(argc - 2, argv + 2);
  if (command == "encode") return encodeCommand(argc - 2, argv + 2);
  if (command == "call") return klmsg::callCommand(argc - 2, argv + 2, addField);
  if (command == "list") return klmsg::listCommand(argc - 2, argv + 2);
  if (command == "listen") return klmsg::listenCommand(argc - 2, argv + 2);
  if (command == "serve") return klmsg::serveCommand(argc - 2, argv + 2, addField);
  return usage("unknown command '" + command + "' (see kl-msg --help)");
}
