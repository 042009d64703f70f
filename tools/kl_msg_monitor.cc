#include "tools/kl_msg_monitor.h"

#include <signal.h>
#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "kl/base/root.h"
#include "kl/looper/looper.h"
#include "kl/message/system.h"
#include "tools/capture.h"
#include "tools/field_text.h"
#include "tools/json_message.h"
#include "tools/kl_msg_loader.h"
#include "tools/loader/loader.h"

namespace klmsg {

namespace {

namespace ld = kl::loader;

// "5/2" -> the receiving process, then the path the frame still carries.
std::vector<unsigned int> deliveredPath(const RoutedFrame& f) {
  std::vector<unsigned int> path = {f.to};
  const std::vector<unsigned int> rest = f.message.get_u32_array(kl::SYS_TO);
  path.insert(path.end(), rest.begin(), rest.end());
  return path;
}

std::string pathText(const std::vector<unsigned int>& path) {
  std::string text;
  for (unsigned int id : path) text += (text.empty() ? "" : "/") + std::to_string(id);
  return text;
}

// "13:25:01.123456", local time.
std::string timeText(const RoutedFrame& f) {
  const time_t t = static_cast<time_t>(f.seconds);
  struct tm local;
  localtime_r(&t, &local);
  char text[32];
  snprintf(text, sizeof text, "%02d:%02d:%02d.%06u", local.tm_hour, local.tm_min, local.tm_sec,
           f.micros);
  return text;
}

// What the frame is, in a few words: its type and command.
std::string summary(const RoutedFrame& f) {
  if (!f.complete) return "(a large frame, its beginning only)";
  const kl::message& m = f.message;
  unsigned int code = 0;
  if (kl::getType(m) == kl::TYPE_REPLY) {
    std::string text = "reply " + std::to_string(m.get(kl::SYS_REQID, 0));
    if (kl::isError(m, &code, nullptr)) text += " error " + kl::getError(m);
    return text;
  }
  std::string text =
      m.has(kl::SYS_REQID) ? "request " + std::to_string(m.get(kl::SYS_REQID, 0)) : "message";
  if (m.has(kl::SYS_CMD)) {
    const unsigned int cmd = m.get(kl::SYS_CMD, 0);
    const char* name = commandName(cmd);
    char hex[16];
    snprintf(hex, sizeof hex, "0x%x", cmd);
    text += std::string(" ") + (name != nullptr ? name : hex);
  }
  return text;
}

void printText(const RoutedFrame& f) {
  printf("%s  %u -> %s  %s\n", timeText(f).c_str(), f.from, pathText(deliveredPath(f)).c_str(),
         summary(f).c_str());
  if (f.complete) f.message.dump2(std::cout, "    ", 0);
  std::cout.flush();
}

void printJsonLine(const RoutedFrame& f) {
  Json line = Json::object();
  char time[32];
  snprintf(time, sizeof time, "%u.%06u", f.seconds, f.micros);
  line["time"] = time;
  line["from"] = f.from;
  line["to"] = pathText(deliveredPath(f));
  std::string error;
  Json message;
  if (f.complete && messageToJson(f.message, &message, &error)) {
    line["message"] = message;
  } else {
    line["complete"] = false;
  }
  printf("%s\n", jsonText(line).c_str());
  fflush(stdout);
}

// The monitoring process: its one handler (id 1) takes the loader's copies.
class Monitor : public kl::Looper {
 public:
  Monitor(const MonitorFilter& filter, bool json, CaptureWriter* capture)
      : kl::Looper(kConnect, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0),
        filter_(filter),
        json_(json),
        capture_(capture) {
    addHandler(1, &copies_);
    copies_.monitor = this;
  }

  static void onStop(void* self, int) { static_cast<Monitor*>(self)->shutdown(); }

  // Asks the loader for the copies, to handler 1; false after the line of a failure.
  bool attach() {
    kl::message request;
    request.insert(kl::SYS_TO, {ld::kLoaderId});
    request.insert(kl::SYS_CMD, ld::kLoaderCmdMonitor);
    const kl::message reply = copies_.exchangeMessage(request, kDefaultTimeoutTicks);
    unsigned int code = 0;
    if (kl::isError(reply, &code, nullptr)) {
      fail("the loader refused to be monitored: " + kl::getError(reply));
      return false;
    }
    return true;
  }

 private:
  class Copies : public kl::Handler {
   public:
    void handleCmd(const kl::message& m, unsigned int cmd) override {
      if (cmd != ld::kLoaderCmdMonitor) {
        kl::Handler::handleCmd(m, cmd);
        return;
      }
      RoutedFrame f;
      if (!parseRoutedFrame(m, &f) || !monitor->filter_.matches(f)) return;
      if (monitor->capture_ != nullptr) monitor->record(f);
      if (monitor->json_) {
        printJsonLine(f);
      } else {
        printText(f);
      }
    }
    Monitor* monitor = nullptr;
  };

  // Appends the frame to the capture; a failed write ends the monitor with its line.
  void record(const RoutedFrame& f) {
    CapturedFrame c;
    c.seconds = f.seconds;
    c.micros = f.micros;
    c.from = f.from;
    c.to = f.to;
    c.length = f.length;
    c.body = f.body;
    if (capture_->write(c)) return;
    fail(std::string("the capture could not be written: ") + strerror(errno));
    shutdown();
  }

  Copies copies_;
  MonitorFilter filter_;
  bool json_;
  CaptureWriter* capture_;
};

}  // namespace

bool MonitorFilter::add(const std::string& text) {
  if (text.find('/') != std::string::npos) {
    std::vector<unsigned int> path;
    if (!parsePath(text, &path)) return false;
    paths_.push_back(path);
    return true;
  }
  unsigned long long number;
  if (parseNumber(text, &number)) {
    if (number > 0xFFFFFFFFull) return false;
    processes_.push_back(static_cast<unsigned int>(number));
    return true;
  }
  unsigned int command;
  if (!parseU32(text, &command)) return false;
  commands_.push_back(command);
  return true;
}

bool MonitorFilter::matches(const RoutedFrame& f) {
  if (processes_.empty() && paths_.empty() && commands_.empty()) return true;
  const kl::message& m = f.message;
  if (f.complete && kl::getType(m) == kl::TYPE_REPLY && m.has(kl::SYS_REQID) &&
      awaited_.erase(std::make_tuple(f.from, f.to, m.get(kl::SYS_REQID, 0))) != 0) {
    return true;
  }
  if (!selects(f)) return false;
  if (f.complete && kl::getType(m) != kl::TYPE_REPLY && m.has(kl::SYS_REQID) &&
      m.get_bool(kl::SYS_REPLYEXP, false) && awaited_.size() < 100000) {
    awaited_.insert(std::make_tuple(f.to, f.from, m.get(kl::SYS_REQID, 0)));
  }
  return true;
}

bool MonitorFilter::selects(const RoutedFrame& f) const {
  for (unsigned int id : processes_) {
    if (f.from == id || f.to == id) return true;
  }
  const std::vector<unsigned int> path = deliveredPath(f);
  for (const std::vector<unsigned int>& prefix : paths_) {
    if (prefix.size() <= path.size() && std::equal(prefix.begin(), prefix.end(), path.begin())) {
      return true;
    }
  }
  if (!f.complete || !f.message.has(kl::SYS_CMD) || kl::getType(f.message) == kl::TYPE_REPLY) {
    return false;
  }
  const unsigned int cmd = f.message.get(kl::SYS_CMD, 0);
  for (unsigned int c : commands_) {
    if (c == cmd) return true;
  }
  return false;
}

bool parseRoutedFrame(const kl::message& copy, RoutedFrame* out) {
  const std::vector<unsigned char>* frame = copy.get_raw_ref(ld::kMonFrame);
  if (frame == nullptr || copy.size_u32(ld::kMonFrom) == 0 || copy.size_u32(ld::kMonTo) == 0)
    return false;
  out->seconds = copy.get_u32(ld::kMonSeconds, 0);
  out->micros = copy.get_u32(ld::kMonMicros, 0);
  out->from = copy.get_u32(ld::kMonFrom, 0);
  out->to = copy.get_u32(ld::kMonTo, 0);
  out->body = *frame;
  out->length = copy.get_u32(ld::kMonLength, static_cast<unsigned int>(frame->size()));
  out->complete = copy.size_u32(ld::kMonLength) == 0 &&
                  out->message.unflatten(frame->data(), static_cast<unsigned int>(frame->size()),
                                         kl::message::flatten_full);
  if (!out->complete) out->message = kl::message();
  return true;
}

int monitorCommand(int argc, char** argv) {
  bool json = false;
  std::string pcap;
  MonitorFilter filter;
  for (int i = 0; i < argc; ++i) {
    if (strcmp(argv[i], "--json") == 0) {
      json = true;
    } else if (strcmp(argv[i], "--pcap") == 0) {
      if (i + 1 >= argc) return usage("--pcap needs a FILE");
      pcap = argv[++i];
    } else if (!filter.add(argv[i])) {
      return usage(std::string("bad filter '") + argv[i] +
                   "': a process id, a path like 5/2 or a command like CMD_SETOBJ");
    }
  }
  if (!loaderListening()) return fail("no loader listening on " + kl::rootedPath("/ram/kelosock"));
  setvbuf(stdout, nullptr, _IOLBF, 0);
  CaptureWriter* capture = nullptr;
  if (!pcap.empty()) {
    capture = new CaptureWriter;
    std::string error;
    if (!capture->open(pcap, &error)) return fail(error);
  }
  Monitor* monitor = new Monitor(filter, json, capture);
  if (!monitor->attach()) return kFailed;
  monitor->addSighandler(SIGINT, monitor, Monitor::onStop, true);
  monitor->addSighandler(SIGTERM, monitor, Monitor::onStop, true);
  monitor->run();
  delete capture;
  return 0;
}

}  // namespace klmsg
