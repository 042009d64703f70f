// kl-loader: the development loader. See tools/loader/loader.h and --help.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kl/base/root.h"
#include "tools/loader/loader.h"

namespace {

const char kUsage[] =
    "usage: kl-loader [OPTION]... [SERVICE]...\n"
    "\n"
    "The development loader: listens on $KL_ROOT/ram/kelosock, starts each SERVICE (a\n"
    "command line, split into words as a shell would: blanks separate, quotes and\n"
    "backslashes as in sh, nothing expanded) with its loader connection on descriptor 3,\n"
    "and routes messages between the processes that register. With no SERVICE it only\n"
    "listens.\n"
    "\n"
    "  --trace              print every frame routed, with its dump, on standard output\n"
    "  --policy ID=BITS     set SYS_POLICY to BITS on every request from process ID\n"
    "                       (decimal or 0x hex; repeatable). Without it requests are trusted.\n"
    "  --idle-leave SECS    ask a started service that offers to leave (a leave value) to\n"
    "                       leave after SECS seconds without traffic; it is started again\n"
    "                       when a message arrives for it, with its persistent data\n"
    "  --wrapper COMMAND    start every SERVICE through COMMAND (split as SERVICE is), for\n"
    "                       example an emulator: --wrapper 'qemu-ppc -L /usr/powerpc-linux-gnu'\n"
    "  --help               this text\n"
    "\n"
    "Handler id 1 is the loader: `kl-msg list` shows its processes; a request to 1 with\n"
    "SYS_CMD 0xfd0001 and STD_ID = a process id asks that process to leave.\n"
    "Stops on SIGINT or SIGTERM and ends the services it started.\n"
    "\n"
    "Exit status: 0 after a stop, 1 when it cannot listen (another kl-loader runs), 2 a\n"
    "usage error.\n";

bool parseNumber(const char* text, unsigned int* value) {
  char* end = nullptr;
  errno = 0;
  const unsigned long v = strtoul(text, &end, 0);
  if (end == text || *end != '\0' || errno != 0 || v > 0xFFFFFFFFul || text[0] == '-') {
    return false;
  }
  *value = static_cast<unsigned int>(v);
  return true;
}

int usageError(const std::string& text) {
  fprintf(stderr, "kl-loader: %s (see --help)\n", text.c_str());
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  // Line by line, so that a log file or a pipe shows each event as it happens.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  kl::loader::Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--trace") {
      options.trace = true;
    } else if (arg == "--wrapper") {
      if (i + 1 >= argc) return usageError(arg + " needs a value");
      if (!kl::loader::splitCommandLine(argv[++i], &options.wrapper) || options.wrapper.empty()) {
        return usageError(std::string("bad --wrapper value '") + argv[i] + "'");
      }
    } else if (arg == "--policy" || arg == "--idle-leave") {
      if (i + 1 >= argc) return usageError(arg + " needs a value");
      const std::string value = argv[++i];
      if (arg == "--idle-leave") {
        if (!parseNumber(value.c_str(), &options.idleLeaveSeconds) ||
            options.idleLeaveSeconds == 0 || options.idleLeaveSeconds > 4000000) {
          return usageError("bad --idle-leave value '" + value + "'");
        }
        continue;
      }
      const size_t eq = value.find('=');
      unsigned int id, bits;
      if (eq == std::string::npos || !parseNumber(value.substr(0, eq).c_str(), &id) ||
          !parseNumber(value.substr(eq + 1).c_str(), &bits)) {
        return usageError("bad --policy value '" + value + "', expected ID=BITS");
      }
      options.policies[id] = bits;
    } else if (!arg.empty() && arg[0] == '-' && arg != "--") {
      return usageError("unknown option '" + arg + "'");
    } else {
      if (arg == "--" && ++i == argc) break;
      // After "--" every argument is a service, whatever it starts with.
      for (bool rest = arg == "--"; i < argc; ++i) {
        std::vector<std::string> command;
        if (!kl::loader::splitCommandLine(argv[i], &command)) {
          return usageError(std::string("unterminated quote in '") + argv[i] + "'");
        }
        if (command.empty()) return usageError("empty service command");
        options.services.push_back(command);
        if (!rest) break;
      }
    }
  }
  kl::loader::Loader loader(options);
  if (!loader.start()) return 1;
  printf("kl-loader: listening on %s\n", kl::rootedPath("/ram/kelosock").c_str());
  fflush(stdout);
  loader.run();
  return 0;
}
