// kl-msg: encodes, decodes and dumps kl messages from the command line.
//
//   kl-msg decode [--hex | --raw] [FILE]     print a flattened message as the dump
//   kl-msg encode [--raw] FIELD...           build a message and write its encoding
//
// A malformed input gets one line on the error stream and exit status 1.
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
#include "tools/field_text.h"
#include "tools/kl_msg_loader.h"

namespace {

using klmsg::Bytes;

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

using klmsg::addField;
using klmsg::fail;
using klmsg::parseHex;
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
