// kl-msg replay FILE PATH: the requests a capture recorded for PATH, sent again to the
// service running now, each reply compared with the recorded one field by field.
#include "tools/kl_msg_replay.h"

#include <cstdio>
#include <set>

#include "kl/base/root.h"
#include "kl/looper/looper.h"
#include "kl/message/system.h"
#include "tools/capture.h"
#include "tools/field_text.h"
#include "tools/json_message.h"
#include "tools/kl_msg_loader.h"

namespace klmsg {

namespace {

// The path a frame was delivered along: its receiver, then the rest it still carries.
std::vector<unsigned int> deliveredPath(const CapturedFrame& f, const kl::message& m) {
  std::vector<unsigned int> path = {f.to};
  const std::vector<unsigned int> rest = m.get_u32_array(kl::SYS_TO);
  path.insert(path.end(), rest.begin(), rest.end());
  return path;
}

bool decode(const CapturedFrame& f, kl::message* m) {
  return f.body.size() == f.length &&
         m->unflatten(f.body.data(), static_cast<unsigned int>(f.body.size()),
                      kl::message::flatten_full);
}

// The recorded reply to `request` (as delivered from `sender`): the next frame from the
// request's receiver to its sender that is a reply with its request id and goes back along
// the path the request came from.
bool findReply(const std::vector<CapturedFrame>& frames, size_t after, const CapturedFrame& req,
               const kl::message& request, kl::message* reply) {
  const std::vector<unsigned int> from = request.get_u32_array(kl::SYS_FROM);
  if (from.empty()) return false;
  const std::vector<unsigned int> back(from.begin() + 1, from.end());
  for (size_t i = after + 1; i < frames.size(); ++i) {
    const CapturedFrame& f = frames[i];
    kl::message m;
    if (f.from != req.to || f.to != from.front() || !decode(f, &m)) continue;
    if (kl::getType(m) == kl::TYPE_REPLY &&
        m.get(kl::SYS_REQID, ~0u) == request.get(kl::SYS_REQID, 0) &&
        m.get_u32_array(kl::SYS_TO) == back) {
      *reply = m;
      return true;
    }
  }
  return false;
}

// A reply as compared: its fields as JSON, without the routing and the request id.
Json comparable(kl::message m) {
  m.remove(kl::SYS_REQID);
  m.remove_array(kl::SYS_TO.id);
  m.remove_array(kl::SYS_FROM.id);
  m.remove(kl::SYS_POLICY);
  Json j;
  std::string error;
  if (!messageToJson(m, &j, &error)) j = Json::object();
  return j;
}

// Prints the fields in which the two differ; their count.
unsigned int printDifferences(const Json& recorded, const Json& now) {
  std::set<std::string> keys;
  for (auto it = recorded.begin(); it != recorded.end(); ++it) keys.insert(it.key());
  for (auto it = now.begin(); it != now.end(); ++it) keys.insert(it.key());
  unsigned int differences = 0;
  for (const std::string& key : keys) {
    const bool inRecorded = recorded.contains(key), inNow = now.contains(key);
    if (inRecorded && inNow && recorded[key] == now[key]) continue;
    ++differences;
    printf("  %s: recorded %s, now %s\n", key.c_str(),
           inRecorded ? jsonText(recorded[key]).c_str() : "(none)",
           inNow ? jsonText(now[key]).c_str() : "(none)");
  }
  return differences;
}

}  // namespace

int replayCommand(int argc, char** argv) {
  if (argc != 2) return usage("replay needs a capture FILE and a PATH (see kl-msg replay --help)");
  std::vector<unsigned int> path;
  if (!parsePath(argv[1], &path)) return usage(std::string("bad path '") + argv[1] + "'");
  std::vector<CapturedFrame> frames;
  std::string error;
  if (!readCapture(argv[0], &frames, &error)) return fail(error);
  if (!loaderListening()) return fail("no loader listening on " + kl::rootedPath("/ram/kelosock"));
  kl::Looper* looper = connectToLoader();
  unsigned int replayed = 0, differing = 0, unanswered = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    kl::message request;
    if (!decode(frames[i], &request) || kl::getType(request) == kl::TYPE_REPLY ||
        !request.has(kl::SYS_REQID) || !request.get_bool(kl::SYS_REPLYEXP, false) ||
        deliveredPath(frames[i], request) != path) {
      continue;
    }
    kl::message recorded;
    if (!findReply(frames, i, frames[i], request, &recorded)) {
      ++unanswered;
      continue;
    }
    kl::message again = request;
    again.remove_array(kl::SYS_FROM.id);
    again.remove(kl::SYS_REQID);
    again.remove(kl::SYS_POLICY);
    again.insert(kl::SYS_TO, path);
    const kl::message reply = looper->exchangeMessage(again, kDefaultTimeoutTicks);
    ++replayed;
    const unsigned int cmd = request.get(kl::SYS_CMD, 0);
    const char* name = commandName(cmd);
    char hex[16];
    snprintf(hex, sizeof hex, "0x%x", cmd);
    printf("request %u, %s: ", replayed, name != nullptr ? name : hex);
    const Json before = comparable(recorded), after = comparable(reply);
    if (before == after) {
      printf("the same reply\n");
      continue;
    }
    printf("a different reply\n");
    printDifferences(before, after);
    ++differing;
  }
  printf("%u request%s replayed to %s, %u with differences", replayed, replayed == 1 ? "" : "s",
         argv[1], differing);
  if (unanswered != 0) printf(" (%u recorded without a reply, not replayed)", unanswered);
  printf("\n");
  return differing == 0 ? 0 : kFailed;
}

}  // namespace klmsg
