// File: tools/kl_msg_introspect.h
//
// What kl-msg learns from a running system about itself: the loader's processes (kl-msg
// list, and introspect of the loader) and a handler's policy table and object count
// (kl-msg introspect).
#ifndef TOOLS_KL_MSG_INTROSPECT_H_
#define TOOLS_KL_MSG_INTROSPECT_H_

#include "kl/message/message.h"

namespace kl {
class Looper;
}

namespace klmsg {

// Asks the loader (id 1) for its processes: *reply holds them in STD_OBJS, one message
// each (STD_ID, STD_DESCR the program, u32 field 1 the pid, string field 2 the state).
// False after printing the line for a time-out or an error.
bool askLoaderForProcesses(kl::Looper& looper, kl::message* reply);
// Prints the processes of such a reply: a table with a heading, or with `json` one object
// a line: {"id":5,"state":"running","pid":1234,"program":"objects_service"} ("pid" only
// when the loader gives one).
void printProcesses(const kl::message& reply, bool json);

// kl-msg introspect [--json] PATH
int introspectCommand(int argc, char** argv);

}  // namespace klmsg

#endif  // TOOLS_KL_MSG_INTROSPECT_H_
