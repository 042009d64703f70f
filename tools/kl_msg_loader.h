// File: tools/kl_msg_loader.h
//
// The kl-msg commands that talk to a running loader: call, list, listen and serve, and the
// pieces the other such commands share (a path, the connection, one exchange).
#ifndef TOOLS_KL_MSG_LOADER_H_
#define TOOLS_KL_MSG_LOADER_H_

#include <string>
#include <vector>

#include "kl/message/message.h"

namespace kl {
class Looper;
}

namespace klmsg {

// kl-msg's exit statuses, the same as the other tools': 0 success, 1 failure (no loader, a
// time-out, an error reply, unreadable or malformed input), 2 a usage error.
constexpr int kFailed = 1;
constexpr int kUsageError = 2;

// Prints "kl-msg: TEXT" on the error stream; returns kFailed (fail) or kUsageError (usage).
int fail(const std::string& text);
int usage(const std::string& text);

// Adds one TYPE:ID=VALUE field to `m`; returns an error text, empty on success.
using AddFieldFn = std::string (*)(kl::message& m, const std::string& field);

// How long a command waits for a reply unless told otherwise: 5 s, in loop ticks.
constexpr unsigned int kDefaultTimeoutTicks = 500;

// "5" or "5/3" -> {5} or {5, 3}: handler ids, decimal or 0x hex. False for anything else.
bool parsePath(const std::string& text, std::vector<unsigned int>* path);
// Whether a loader accepts connections on $KL_ROOT/ram/kelosock.
bool loaderListening();
// A Looper registered with the loader as a transient process. It lives as long as the
// process: one per process. REQUIRES: loaderListening().
kl::Looper* connectToLoader();
// Sends `request` (SYS_TO set) and stores its reply; false after printing the line for a
// time-out or an error reply, which names `pathText`.
bool exchange(kl::Looper& looper, kl::message& request, const std::string& pathText,
              unsigned int ticks, kl::message* reply);
// Prints `m` on standard output as one line of JSON (tools/json_message.h). False, after
// printing the line on the error stream, when `m` has no JSON form.
bool printJson(const kl::message& m);

// kl-msg call [--timeout SECS] [--all] [--json] PATH FIELD...|JSON
int callCommand(int argc, char** argv, AddFieldFn addField);
// kl-msg list [--json]
int listCommand(int argc, char** argv);
// kl-msg listen [--cmd CMD] [--json] PATH
int listenCommand(int argc, char** argv);
// kl-msg serve ID/HANDLER FIELD...|JSON
int serveCommand(int argc, char** argv, AddFieldFn addField);

}  // namespace klmsg

#endif  // TOOLS_KL_MSG_LOADER_H_
