// kl-msg call, list and listen: a transient process of the loader (registration word 1 is
// 0) that sends one request, or subscribes, and prints what comes back, as the dump or as
// JSON (one object a line).
#include "tools/kl_msg_loader.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <vector>

#include "kl/base/root.h"
#include "kl/looper/looper.h"
#include "kl/message/dump.h"
#include "kl/message/system.h"
#include "tools/json_message.h"
#include "tools/kl_msg_introspect.h"

namespace klmsg {

int fail(const std::string& text) {
  std::cerr << "kl-msg: " << text << std::endl;
  return kFailed;
}

int usage(const std::string& text) {
  std::cerr << "kl-msg: " << text << std::endl;
  return kUsageError;
}

bool parsePath(const std::string& text, std::vector<unsigned int>* path) {
  path->clear();
  size_t start = 0;
  while (start <= text.size()) {
    size_t slash = text.find('/', start);
    if (slash == std::string::npos) slash = text.size();
    const std::string part = text.substr(start, slash - start);
    char* end = nullptr;
    errno = 0;
    const unsigned long v = strtoul(part.c_str(), &end, 0);
    if (part.empty() || *end != '\0' || errno != 0 || v > 0xFFFFFFFFul || part[0] == '-') {
      return false;
    }
    path->push_back(static_cast<unsigned int>(v));
    start = slash + 1;
  }
  return !path->empty();
}

// The Looper needs a loader: say so plainly instead of its connect line when none listens
// (no socket, or one left by a loader that died, which refuses connections).
bool loaderListening() {
  const std::string path = kl::rootedPath("/ram/kelosock");
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) return true;  // the Looper says what is wrong
  memcpy(addr.sun_path, path.c_str(), path.size());
  const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool accepted =
      probe >= 0 && connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  if (probe >= 0) close(probe);
  return accepted;
}

kl::Looper* connectToLoader() {
  return new kl::Looper(kl::Looper::kConnect, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

bool exchange(kl::Looper& looper, kl::message& request, const std::string& pathText,
              unsigned int ticks, kl::message* reply) {
  *reply = looper.exchangeMessage(request, static_cast<int>(ticks));
  unsigned int code;
  std::string text;
  if (!kl::isError(*reply, &code, &text)) return true;
  if (code == kl::ERROR_TIMEOUT && text.empty()) {
    char seconds[32];
    snprintf(seconds, sizeof seconds, "%g", ticks / 100.0);
    fail("no reply from " + pathText + " within " + seconds + " s");
  } else {
    fail(pathText + ": " + kl::getErrorDescr(code, text));
  }
  return false;
}

bool printJson(const kl::message& m) {
  std::string text, error;
  if (!messageToJsonText(m, &text, &error)) {
    fail(error);
    return false;
  }
  printf("%s\n", text.c_str());
  return true;
}

namespace {

// Prints `m` as its dump or as one line of JSON.
bool printMessage(const kl::message& m, bool json) {
  if (json) return printJson(m);
  m.dump2(std::cout, "", 0);
  return true;
}

// Adds each argument to `m`: a JSON object's fields, or one TYPE:ID=VALUE field. Returns 0,
// or the exit status after printing the line: 2 for a bad field, 1 for JSON that does not
// convert (input like any other).
int addArguments(kl::message& m, char** first, char** end, AddFieldFn addField) {
  for (char** arg = first; arg != end; ++arg) {
    if ((*arg)[0] == '{') {
      kl::message fields;
      std::string error;
      if (!jsonTextToMessage(*arg, &fields, &error)) return fail(error);
      m.merge(fields);
      continue;
    }
    const std::string error = addField(m, *arg);
    if (!error.empty()) return usage(error);
  }
  return 0;
}

// call --all: asks again from each reply's STD_GETALLID and prints every object.
int callAll(kl::Looper& looper, const kl::message& base, const std::string& pathText,
            unsigned int ticks, bool json) {
  kl::message request = base;
  if (!request.has(kl::SYS_CMD)) request.insert(kl::SYS_CMD, kl::CMD_GETALL);
  for (;;) {
    kl::message sent = request;
    kl::message reply;
    if (!exchange(looper, sent, pathText, ticks, &reply)) return 1;
    for (const kl::message::flat_message& flat : reply.get_message_array(kl::STD_OBJS)) {
      if (!printMessage(kl::message(flat), json)) return kFailed;
    }
    if (!reply.has(kl::STD_GETALLID)) return 0;
    const unsigned int next = reply.get(kl::STD_GETALLID, 0);
    // A handler that sends the id it was asked with would be asked for ever.
    if (request.has(kl::STD_GETALLID) && request.get(kl::STD_GETALLID, 0) == next) {
      return fail(pathText + ": the continuation id " + std::to_string(next) + " repeats");
    }
    request.insert(kl::STD_GETALLID, next);
  }
}

}  // namespace

int callCommand(int argc, char** argv, AddFieldFn addField) {
  unsigned int ticks = kDefaultTimeoutTicks;
  bool all = false;
  bool json = false;
  int i = 0;
  for (; i < argc && strncmp(argv[i], "--", 2) == 0; ++i) {
    if (strcmp(argv[i], "--all") == 0) {
      all = true;
      continue;
    }
    if (strcmp(argv[i], "--json") == 0) {
      json = true;
      continue;
    }
    if (strcmp(argv[i], "--timeout") != 0) break;
    if (i + 1 >= argc) return usage("--timeout needs a number of seconds");
    char* end = nullptr;
    const double v = strtod(argv[i + 1], &end);
    // In hundredths of a second, the loop's ticks: 0.01 s at least, 400,000 s at most.
    if (*argv[i + 1] == '\0' || *end != '\0' || !(v >= 0.01) || v > 400000) {
      return usage(std::string("bad --timeout value '") + argv[i + 1] + "'");
    }
    ticks = static_cast<unsigned int>(v * 100 + 0.5);
    ++i;
  }
  if (i >= argc) return usage("call needs a PATH (see kl-msg call --help)");
  const std::string pathText = argv[i++];
  std::vector<unsigned int> path;
  if (!parsePath(pathText, &path))
    return usage("bad path '" + pathText + "', expected like 5 or 5/3");
  kl::message request;
  if (const int status = addArguments(request, argv + i, argv + argc, addField)) return status;
  // A request without a command would be a silent no-op; --all asks for CMD_GETALL.
  if (!all && !request.has(kl::SYS_CMD)) {
    return usage("call needs a command: add a field such as u32:SYS_CMD=CMD_GETOBJ");
  }
  request.insert(kl::SYS_TO, path);
  if (!loaderListening()) return fail("no loader listening on " + kl::rootedPath("/ram/kelosock"));
  kl::Looper* looper = connectToLoader();
  kl::message reply;
  if (!all) {
    if (!exchange(*looper, request, pathText, ticks, &reply)) return 1;
    return printMessage(reply, json) ? 0 : kFailed;
  }
  return callAll(*looper, request, pathText, ticks, json);
}

int listCommand(int argc, char** argv) {
  const bool json = argc == 1 && strcmp(argv[0], "--json") == 0;
  if (argc != 0 && !json) return usage("list takes no arguments but --json");
  if (!loaderListening()) return fail("no loader listening on " + kl::rootedPath("/ram/kelosock"));
  kl::Looper* looper = connectToLoader();
  kl::message processes;
  if (!askLoaderForProcesses(*looper, &processes)) return kFailed;
  printProcesses(processes, json);
  return 0;
}

namespace {

// The listening process: prints every notification's objects as they arrive (with json_,
// each notification whole as one line of JSON), and says when the process behind the path
// goes away and when the loader lists it again (then it subscribes again, which a process
// that kept its subscribers ignores). It asks the loader, not the process, so that it never
// starts a process that left. With json_ what it says goes to the error stream, so that
// standard output holds JSON only.
class Listener : public kl::Looper {
 public:
  Listener() : kl::Looper(kConnect, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0) {}

  void handleCmd(const kl::message& m, unsigned int cmd) override {
    if (cmd == kl::CMD_DISCONNECTED) {
      const std::vector<unsigned int> gone = m.get_u32_array(kl::SYS_FROM);
      if (!gone.empty() && gone.front() == path_.front() && !away_) {
        away_ = true;
        say(pathText_ + " went away");
        probeLater();
      }
    }
    if (cmd != notifyCmd_) {
      kl::Looper::handleCmd(m, cmd);
      return;
    }
    if (json_) {
      printJson(m);
      fflush(stdout);
      return;
    }
    const std::vector<kl::message::flat_message> objs = m.get_message_array(kl::STD_OBJS);
    printf("notification: %zu object%s\n", objs.size(), objs.size() == 1 ? "" : "s");
    for (const kl::message::flat_message& flat : objs) kl::message(flat).dump2(std::cout, "  ", 0);
    std::cout.flush();
  }

  // One line about the listening itself.
  void say(const std::string& line) {
    FILE* out = json_ ? stderr : stdout;
    fprintf(out, "%s\n", line.c_str());
    fflush(out);
  }

  static void onStop(void* self, int) {
    Listener* listener = static_cast<Listener*>(self);
    listener->unsubscribe(listener->path_, listener->notifyCmd_, kl::message());
    listener->writeFlush(true);
    listener->shutdown();
  }

  std::vector<unsigned int> path_;
  std::string pathText_;
  unsigned int notifyCmd_ = kl::CMD_NOTIFY;
  bool json_ = false;

 private:
  // Asks the loader for its processes once a second until the path's process is among
  // them.
  void probeLater() { addTimer(this, onProbeTimer, 100); }
  static void onProbeTimer(void* self) {
    Listener* listener = static_cast<Listener*>(self);
    kl::message probe;
    probe.insert(kl::SYS_TO, {1});
    probe.insert(kl::SYS_CMD, kl::CMD_GETALL);
    listener->postMessage(probe, listener, onProbeReply, kl::message(), 100);
  }
  static void onProbeReply(void* self, const kl::message& reply, const kl::message&) {
    Listener* listener = static_cast<Listener*>(self);
    bool listed = false;
    for (const kl::message::flat_message& flat : reply.get_message_array(kl::STD_OBJS)) {
      listed = listed || kl::message(flat).get(kl::STD_ID, 0) == listener->path_.front();
    }
    if (!listed) {
      listener->probeLater();
      return;
    }
    listener->away_ = false;
    listener->say(listener->pathText_ + " is back");
    listener->subscribe(listener->path_, listener->notifyCmd_, kl::message());
  }

  bool away_ = false;
};

}  // namespace

int listenCommand(int argc, char** argv) {
  unsigned int cmd = kl::CMD_NOTIFY;
  bool json = false;
  int i = 0;
  for (; i < argc && strncmp(argv[i], "--", 2) == 0; ++i) {
    if (strcmp(argv[i], "--json") == 0) {
      json = true;
      continue;
    }
    if (strcmp(argv[i], "--cmd") != 0) break;
    if (i + 1 >= argc) return usage("--cmd needs a command number");
    char* end = nullptr;
    cmd = static_cast<unsigned int>(strtoul(argv[i + 1], &end, 0));
    if (*argv[i + 1] == '\0' || *end != '\0') {
      return usage(std::string("bad --cmd value '") + argv[i + 1] + "'");
    }
    ++i;
  }
  if (i + 1 != argc) return usage("listen needs one PATH (see kl-msg listen --help)");
  std::vector<unsigned int> path;
  if (!parsePath(argv[i], &path)) return usage(std::string("bad path '") + argv[i] + "'");
  if (!loaderListening()) return fail("no loader listening on " + kl::rootedPath("/ram/kelosock"));
  Listener* listener = new Listener;
  listener->path_ = path;
  listener->pathText_ = argv[i];
  listener->notifyCmd_ = cmd;
  listener->json_ = json;
  // Every handler answers CMD_GETPOLICIES: an error means there is none to listen to.
  kl::message probe;
  probe.insert(kl::SYS_TO, path);
  probe.insert(kl::SYS_CMD, kl::CMD_GETPOLICIES);
  kl::message reply;
  if (!exchange(*listener, probe, argv[i], kDefaultTimeoutTicks, &reply)) return 1;
  listener->addSighandler(SIGINT, listener, Listener::onStop, true);
  listener->addSighandler(SIGTERM, listener, Listener::onStop, true);
  listener->subscribe(path, cmd, kl::message());
  listener->say(std::string("listening to ") + argv[i]);
  listener->run();
  return 0;
}

namespace {

// A stand-in for a service's handler: answers every request with the same reply, so that
// a handler that depends on it can be tried before the real one exists.
class StandIn : public kl::Handler {
 public:
  void handleCmd(const kl::message& m, unsigned int) override {
    kl::message reply = reply_;
    replyMessage(m, reply);
  }
  kl::message reply_;
};

void onServeStop(void* self, int) { static_cast<kl::Looper*>(self)->shutdown(); }

}  // namespace

int serveCommand(int argc, char** argv, AddFieldFn addField) {
  if (argc < 1) return usage("serve needs ID/HANDLER (see kl-msg serve --help)");
  std::vector<unsigned int> path;
  if (!parsePath(argv[0], &path) || path.size() != 2 || path[0] == 0 || path[0] == 1) {
    return usage(std::string("bad path '") + argv[0] +
                 "', expected a process id and a handler id like 12/3");
  }
  StandIn standIn;
  if (const int status = addArguments(standIn.reply_, argv + 1, argv + argc, addField)) {
    return status;
  }
  if (!loaderListening()) return fail("no loader listening on " + kl::rootedPath("/ram/kelosock"));
  kl::Looper* looper =
      new kl::Looper(kl::Looper::kConnect, path[0], 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  looper->addHandler(path[1], &standIn);
  looper->addSighandler(SIGINT, looper, onServeStop, true);
  looper->addSighandler(SIGTERM, looper, onServeStop, true);
  printf("serving %s\n", argv[0]);
  fflush(stdout);
  looper->run();
  return 0;
}

}  // namespace klmsg
