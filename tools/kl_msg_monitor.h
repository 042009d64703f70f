// File: tools/kl_msg_monitor.h
//
// kl-msg monitor: every frame kl-loader routes between processes, live, while the services
// run. The tool registers with the loader, sends it the monitor command (kl-loader's
// kLoaderCmdMonitor on id 1) and prints each copy it gets: time, sender and receiver, the
// message. Any number of monitors may attach and leave; the loader cuts off one that stops
// reading, never the services.
#ifndef TOOLS_KL_MSG_MONITOR_H_
#define TOOLS_KL_MSG_MONITOR_H_

#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "kl/message/message.h"

namespace klmsg {

// One routed frame as the loader reported it.
struct RoutedFrame {
  unsigned int seconds = 0, micros = 0;  // when it was routed (Unix time)
  unsigned int from = 0, to = 0;         // sending and receiving process (1: the loader)
  kl::message message;                   // the frame as delivered; empty when cut short
  bool complete = true;                  // false when the loader sent only its beginning
  std::vector<unsigned char> body;       // the frame's body, as far as the loader sent it
  unsigned int length = 0;               // the body's whole length
};

// Which frames to show. A frame is shown when no filter is given or any one matches; the
// reply to a request a path or command filter showed is shown too.
class MonitorFilter {
 public:
  // Adds a filter: a process id (decimal or 0x hex: its frames either way), a path prefix
  // with a slash (5/2: frames delivered along it), or a command name or number
  // (CMD_SETOBJ, 0xfe000a: requests and notifications with that SYS_CMD). False for text
  // that is none of these.
  bool add(const std::string& text);
  // Whether `f` is shown; remembers the requests shown, to show their replies.
  bool matches(const RoutedFrame& f);

 private:
  bool selects(const RoutedFrame& f) const;
  // Replies awaited: (their sender, their receiver, the request id).
  std::set<std::tuple<unsigned int, unsigned int, unsigned int>> awaited_;
  std::vector<unsigned int> processes_;
  std::vector<std::vector<unsigned int>> paths_;
  std::vector<unsigned int> commands_;
};

// The routed frame a monitor copy describes; false when `copy` is not one.
bool parseRoutedFrame(const kl::message& copy, RoutedFrame* out);

// kl-msg monitor [--json] [--pcap FILE] [FILTER...]
int monitorCommand(int argc, char** argv);

}  // namespace klmsg

#endif  // TOOLS_KL_MSG_MONITOR_H_
