// kl-msg: encodes, decodes and dumps kl messages from the command line.
//
//   kl-msg decode [--hex | --raw] [--json] [FILE]   print a flattened message
//   kl-msg encode [--raw] FIELD...|--json [JSON|-]  build a message, write its encoding
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
#include "tools/json_message.h"
#include "tools/kl_msg_crash.h"
#include "tools/kl_msg_introspect.h"
#include "tools/kl_msg_loader.h"
#include "tools/kl_msg_monitor.h"
#include "tools/kl_msg_replay.h"

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
    {"decode", "kl-msg decode [--hex | --raw] [--json] [FILE]",
     "decode  reads a flattened message from FILE (or standard input when FILE is\n"
     "        absent or -) and prints it in the dump form, or with --json as one line\n"
     "        of JSON. The input is taken as hex text when it holds only hex digits\n"
     "        and white space, else as raw bytes; --hex and --raw force one reading.\n"
     "        Empty input is an error.\n",
     false},
    {"encode", "kl-msg encode [--raw] FIELD... | --json [JSON | -]",
     "encode  builds a message from FIELDs, or from a JSON object (the argument, or\n"
     "        standard input when it is - or absent), and writes its encoding to\n"
     "        standard output as hex text, or as raw bytes with --raw.\n",
     true},
    {"call", "kl-msg call [--timeout SECS] [--all] [--json] PATH FIELD...|JSON",
     "call    sends a request built from FIELDs or JSON objects, which must name the\n"
     "        command (SYS_CMD), to PATH (handler ids, like 5 or 5/3) through the\n"
     "        loader on $KL_ROOT/ram/kelosock and prints the reply's dump, or with\n"
     "        --json the reply as one line of JSON. A time-out (default 5 s; SECS may\n"
     "        have a fraction, like 0.5), a broken path or an error reply prints one\n"
     "        line. With --all (SYS_CMD defaults to CMD_GETALL) the request is sent\n"
     "        again with each reply's STD_GETALLID until a reply has none, and the\n"
     "        objects (STD_OBJS) of all replies are printed: with --json one object a\n"
     "        line, whichever reply carried it.\n",
     true},
    {"list", "kl-msg list [--json]",
     "list    prints the loader's processes; with --json one object a line:\n"
     "        {\"id\":5,\"state\":\"running\",\"pid\":1234,\"program\":\"...\"}.\n",
     false},
    {"serve", "kl-msg serve ID/HANDLER FIELD...|JSON",
     "serve   registers as process ID and answers every request to its HANDLER with a\n"
     "        reply made of FIELDs (request id and path added), until interrupted: a\n"
     "        stand-in for a service a handler under test depends on.\n",
     true},
    {"listen", "kl-msg listen [--cmd CMD] [--json] PATH",
     "listen  subscribes to PATH and prints the objects of each notification as they\n"
     "        arrive, until interrupted; then unsubscribes. A PATH where no handler\n"
     "        answers is an error; the process behind PATH going away and coming back\n"
     "        is reported. With --json each notification is one line of JSON (the\n"
     "        whole message, its objects in message[]:STD_OBJS), and the lines about\n"
     "        the listening itself go to the error stream.\n",
     false},
    {"introspect", "kl-msg introspect [--json] PATH",
     "introspect  asks the handler at PATH for its policy table (CMD_GETPOLICIES) and\n"
     "        prints each command, by name where known, with the rights bits a\n"
     "        restricted sender needs for it; then its number of objects, from\n"
     "        CMD_GETCOUNT or else the STD_OBJ_COUNT of a CMD_GETALL reply, or that it\n"
     "        tells none. For PATH 1, the loader, it prints the processes as list\n"
     "        does. With --json all of it is one JSON object.\n",
     false},
    {"monitor", "kl-msg monitor [--json] [--pcap FILE] [FILTER...]",
     "monitor prints every frame kl-loader routes between processes, live, until\n"
     "        interrupted: the time, the sending process, the receiving path, what it is\n"
     "        (request, reply, message and its command), then its dump; with --json one\n"
     "        line each: "
     "{\"time\":\"SECONDS.MICROS\",\"from\":ID,\"to\":\"PATH\",\"message\":{...}}.\n"
     "        A FILTER shows only some frames: a process id (its frames either way), a\n"
     "        path with a slash (5/2: frames delivered along it) or a command name\n"
     "        (CMD_SETOBJ: requests and notifications of it); a frame is shown when any\n"
     "        filter matches. Any number of monitors may run; one that stops reading is\n"
     "        cut off by the loader without slowing the services. --pcap FILE also\n"
     "        writes the frames shown to FILE, a pcap capture (link type 147; its\n"
     "        records are laid out in tools/capture.h) that kl-msg replay reads.\n",
     false},
    {"replay", "kl-msg replay FILE PATH",
     "replay  sends the requests a capture (kl-msg monitor --pcap) recorded for PATH\n"
     "        again, in order, to the service running now, and compares each reply with\n"
     "        the recorded one field by field (request ids and paths aside): prints the\n"
     "        fields that differ and exits 1 when any reply differs. A file that is not\n"
     "        a capture is an error.\n",
     false},
    {"names", "kl-msg names --lua",
     "names   prints the field and command names kl-msg knows as the Lua tables that\n"
     "        tools/wireshark/kl.lua carries (its test checks that the two agree).\n",
     false},
    {"crash", "kl-msg crash [FILE | -]",
     "crash   reads a crash report (FILE, or standard input when it is - or absent)\n"
     "        and prints it with its backtrace made readable: each address in a\n"
     "        mapping the report lists, of a file found here (the executable, libkl,\n"
     "        other libraries), with its function, inlined frames and file:line from\n"
     "        addr2line (powerpc-linux-gnu-addr2line for a PowerPC file), or the\n"
     "        nearest symbol when the file has no debug information; other addresses\n"
     "        stay as they are. Input that is not a crash report is an error.\n",
     false},
};

// The commands that read or print JSON: their help explains the form.
const char* const kJsonCommands[] = {"decode", "encode", "call", "serve", "listen"};

const char kJsonHelp[] =
    "JSON is one object of fields, on one line (jq . prints it indented):\n"
    "  {\"u32[]:SYS_TO\":[5,2],\"u32:SYS_CMD\":16646146,\"string:STD_DESCR\":\"uplink\"}\n"
    "  key    TYPE:ID as in FIELD; printed with the field's name where it has one,\n"
    "         else with its number in hex (\"u32:0x1\")\n"
    "  value  bool: true or false; u32: a number, printed always as a number, read\n"
    "         also as a string that encode takes (\"CMD_GETOBJ\", \"0x10\");\n"
    "         u64: a number, above 2^53 printed as a decimal string (either read);\n"
    "         addr6: \"fe80::1\"; string: a string, or {\"hex\":\"ff00\"} for bytes\n"
    "         that are not UTF-8; raw: hex text \"0a1b\"; message: an object of\n"
    "         fields, or hex text of its bytes when those are not exactly its fields\n"
    "         in order; TYPE[]: an array of such values\n"
    "  JSON that does not convert is a failure (status 1) with one line saying\n"
    "  where, like: \"u32:STD_ID\": expected a number from 0 to 4294967295\n";

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
  bool json = false;
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
    for (const char* name : kJsonCommands) json = json || strcmp(name, c.name) == 0;
  }
  if (fields) fprintf(out, "\n%s", kFieldHelp);
  if (json) fprintf(out, "\n%s", kJsonHelp);
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
  bool json = false;
  const char* path = nullptr;
  for (int i = 0; i < argc; ++i) {
    if (strcmp(argv[i], "--json") == 0) {
      json = true;
    } else if (strcmp(argv[i], "--hex") == 0) {
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
  if (json) return klmsg::printJson(m) ? 0 : klmsg::kFailed;
  m.dump2(std::cout, "", 0);
  return 0;
}

// --- encode ---------------------------------------------------------------------------------

// The message of a JSON object from `source` (the text itself, or - for standard input);
// 0, or the exit status after printing the line.
int readJsonMessage(const char* source, kl::message* m) {
  std::string text = source;
  if (text == "-") {
    Bytes input;
    if (!readAll(nullptr, &input)) {
      return fail(std::string("cannot read standard input: ") + strerror(errno));
    }
    text.assign(input.begin(), input.end());
  }
  std::string error;
  return klmsg::jsonTextToMessage(text, m, &error) ? 0 : fail(error);
}

int encodeCommand(int argc, char** argv) {
  bool raw = false;
  const char* json = nullptr;
  kl::message m;
  int fields = 0;
  for (int i = 0; i < argc; ++i) {
    if (strcmp(argv[i], "--raw") == 0) {
      raw = true;
    } else if (strcmp(argv[i], "--json") == 0 && json == nullptr) {
      // The JSON text follows; without it (or with -) standard input holds it.
      json = i + 1 < argc && strcmp(argv[i + 1], "--raw") != 0 ? argv[++i] : "-";
    } else if (json != nullptr) {
      return usage(std::string("unexpected argument '") + argv[i] + "' (see kl-msg encode --help)");
    } else {
      const std::string error = addField(m, argv[i]);
      if (!error.empty()) return usage(error);
      ++fields;
    }
  }
  if (json != nullptr && fields > 0) return usage("encode takes FIELDs or --json, not both");
  if (json != nullptr) {
    if (const int status = readJsonMessage(json, &m)) return status;
  } else if (fields == 0) {
    return usage("encode needs at least one FIELD (see kl-msg encode --help)");
  }
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

// kl-msg names --lua: the names of the system and standard fields (by number, type bits
// aside) and of the commands, as two Lua tables.
int namesCommand(int argc, char** argv) {
  if (argc != 1 || strcmp(argv[0], "--lua") != 0) return usage("names takes --lua");
  printf("local FIELD_NAMES = {\n");
  for (uint32_t space : {0xff0000u, 0xfe0000u, 0xfd0000u}) {
    for (uint32_t n = 0; n < 0x100; ++n) {
      if (const char* name = klmsg::fieldName(space | n))
        printf("  [0x%06x] = \"%s\",\n", space | n, name);
    }
  }
  printf("}\nlocal COMMAND_NAMES = {\n");
  for (uint32_t space : {0xff0000u, 0xfe0000u, 0xfd0000u}) {
    for (uint32_t n = 0; n < 0x100; ++n) {
      if (const char* name = klmsg::commandName(space | n))
        printf("  [0x%06x] = \"%s\",\n", space | n, name);
    }
  }
  printf("}\n");
  return 0;
}

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
  if (command == "introspect") return klmsg::introspectCommand(argc - 2, argv + 2);
  if (command == "crash") return klmsg::crashCommand(argc - 2, argv + 2);
  if (command == "monitor") return klmsg::monitorCommand(argc - 2, argv + 2);
  if (command == "replay") return klmsg::replayCommand(argc - 2, argv + 2);
  if (command == "names") return namesCommand(argc - 2, argv + 2);
  return usage("unknown command '" + command + "' (see kl-msg --help)");
}
