// File: tools/kl_msg_replay.h
//
// kl-msg replay FILE PATH: a service author records traffic once (kl-msg monitor --pcap)
// and keeps it as a regression test. The requests the capture recorded for PATH (frames
// delivered along PATH that expect a reply, and whose reply the capture holds) are sent
// again, in order, to the service running now; each new reply is compared with the
// recorded one field by field, leaving out the request id and the routing (SYS_REQID,
// SYS_TO, SYS_FROM, SYS_POLICY). Differences are printed per request (field, recorded value,
// new value, in the JSON form of tools/json_message.h).
#ifndef TOOLS_KL_MSG_REPLAY_H_
#define TOOLS_KL_MSG_REPLAY_H_

namespace klmsg {

// 0 when every reply matches, 1 when one differs or the capture cannot be read (one line),
// 2 for a usage error.
int replayCommand(int argc, char** argv);

}  // namespace klmsg

#endif  // TOOLS_KL_MSG_REPLAY_H_
