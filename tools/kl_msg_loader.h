// File: tools/kl_msg_loader.h
//
// The kl-msg commands that talk to a running loader: call, list and listen.
#ifndef TOOLS_KL_MSG_LOADER_H_
#define TOOLS_KL_MSG_LOADER_H_

#include <string>

#include "kl/message/message.h"

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

// kl-msg call [--timeout SECS] [--all] PATH FIELD...
int callCommand(int argc, char** argv, AddFieldFn addField);
// kl-msg list
int listCommand(int argc, char** argv);
// kl-msg listen [--cmd CMD] PATH
int listenCommand(int argc, char** argv);
// kl-msg serve ID/HANDLER FIELD...
int serveCommand(int argc, char** argv, AddFieldFn addField);

}  // namespace klmsg

#endif  // TOOLS_KL_MSG_LOADER_H_
