// kl-msg introspect: a handler's policy table (CMD_GETPOLICIES) and object count, or for
// the loader its processes; and the process list that kl-msg list prints.
#include "tools/kl_msg_introspect.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kl/base/root.h"
#include "kl/looper/looper.h"
#include "kl/message/system.h"
#include "tools/field_text.h"
#include "tools/json_message.h"
#include "tools/kl_msg_loader.h"

namespace klmsg {

namespace {

// The fields of a process in the loader's list.
constexpr uint32_t kProcPid = 0x08000001;
constexpr uint32_t kProcState = 0x20000002;
// The fields of a command in a CMD_GETPOLICIES reply (STD_ID is the command).
constexpr uint32_t kPolicyBits = 0x08000001;
constexpr uint32_t kPolicyAllowed = 0x00000002;

// One row of a handler's policy table.
struct Policy {
  unsigned int command;
  unsigned int bits;  // the rights bits a restricted sender needs
  bool allowed;       // whether this caller holds them
};

// How many objects a handler has, and which command told.
struct ObjectCount {
  bool known = false;
  unsigned int count = 0;
  const char* from = "";       // "CMD_GETCOUNT" or "CMD_GETALL"
  std::string getCountAnswer;  // why CMD_GETCOUNT told none
  std::string getAllAnswer;    // why CMD_GETALL told none
};

kl::message request(const std::vector<unsigned int>& path, unsigned int cmd) {
  kl::message m;
  m.insert(kl::SYS_TO, path);
  m.insert(kl::SYS_CMD, cmd);
  return m;
}

std::string commandText(unsigned int code) {
  if (const char* name = commandName(code)) return name;
  char text[16];
  snprintf(text, sizeof text, "0x%x", code);
  return text;
}

// The meaning of rights bits: the library's own (read, change, start/poll/cancel, the
// unrestricted bit) by name, the services' by number.
std::string rightsText(unsigned int bits) {
  if (bits == 0) return "anyone";
  const struct {
    unsigned int bit;
    const char* word;
  } kKnown[] = {{0x40, "read"},
                {0x80, "change"},
                {0x200, "start/poll/cancel"},
                {0x80000000, "unrestricted senders only"}};
  std::string words;
  for (const auto& known : kKnown) {
    if ((bits & known.bit) == 0) continue;
    words += (words.empty() ? "" : " + ") + std::string(known.word);
    bits &= ~known.bit;
  }
  for (unsigned int bit = 0; bit < 32; ++bit) {
    if ((bits >> bit & 1) == 0) continue;
    words += (words.empty() ? "bit " : " + bit ") + std::to_string(bit);
  }
  return words;
}

std::vector<Policy> policiesOf(const kl::message& reply) {
  std::vector<Policy> table;
  for (const kl::message::flat_message& flat : reply.get_message_array(kl::STD_OBJS)) {
    const kl::message row(flat);
    table.push_back(
        {row.get(kl::STD_ID, 0), row.get_u32(kPolicyBits, 0), row.get_bool(kPolicyAllowed, true)});
  }
  return table;
}

// The reply to `cmd`, or the sentence of its error (a time-out included) in *answer.
bool ask(kl::Looper& looper, const std::vector<unsigned int>& path, unsigned int cmd,
         kl::message* reply, std::string* answer) {
  kl::message m = request(path, cmd);
  *reply = looper.exchangeMessage(m, kDefaultTimeoutTicks);
  unsigned int code;
  std::string text;
  if (!kl::isError(*reply, &code, &text)) return true;
  *answer = kl::getErrorDescr(code, text);
  return false;
}

// CMD_GETCOUNT's answer is the service's own: STD_OBJ_COUNT, or a u32 STD_COUNT, is taken.
// A handler that does not answer it may still know its count: the library adds it to
// every CMD_GETALL reply as STD_OBJ_COUNT.
ObjectCount countObjects(kl::Looper& looper, const std::vector<unsigned int>& path) {
  ObjectCount count;
  kl::message reply;
  if (ask(looper, path, kl::CMD_GETCOUNT, &reply, &count.getCountAnswer)) {
    for (uint32_t id :
         {static_cast<uint32_t>(kl::STD_OBJ_COUNT), kl::withType(kl::STD_COUNT, kl::kTypeU32)}) {
      if (reply.size_u32(id) != 0) {
        count.known = true;
        count.count = reply.get_u32(id, 0);
        count.from = "CMD_GETCOUNT";
        return count;
      }
    }
    count.getCountAnswer = "no count in its reply";
  }
  if (ask(looper, path, kl::CMD_GETALL, &reply, &count.getAllAnswer)) {
    if (reply.has(kl::STD_OBJ_COUNT)) {
      count.known = true;
      count.count = reply.get(kl::STD_OBJ_COUNT, 0);
      count.from = "CMD_GETALL";
      return count;
    }
    count.getAllAnswer = "no STD_OBJ_COUNT in its reply";
  }
  return count;
}

void printHandler(const std::string& pathText, const std::vector<Policy>& table,
                  const ObjectCount& count) {
  printf("%s: policy table of %zu command%s, with the rights bits a restricted sender needs\n",
         pathText.c_str(), table.size(), table.size() == 1 ? "" : "s");
  for (const Policy& p : table) {
    char code[16], bits[16];
    snprintf(code, sizeof code, "0x%x", p.command);
    snprintf(bits, sizeof bits, "0x%x", p.bits);
    printf("  %-17s %-9s %-11s %s%s\n", commandText(p.command).c_str(), code, bits,
           rightsText(p.bits).c_str(), p.allowed ? "" : " (this caller lacks them)");
  }
  if (!count.known) {
    printf("objects: not told (CMD_GETCOUNT: %s; CMD_GETALL: %s)\n", count.getCountAnswer.c_str(),
           count.getAllAnswer.c_str());
  } else if (strcmp(count.from, "CMD_GETCOUNT") == 0) {
    printf("objects: %u (CMD_GETCOUNT)\n", count.count);
  } else {
    printf("objects: %u (STD_OBJ_COUNT of CMD_GETALL; CMD_GETCOUNT: %s)\n", count.count,
           count.getCountAnswer.c_str());
  }
}

void printHandlerJson(const std::string& pathText, const std::vector<Policy>& table,
                      const ObjectCount& count) {
  Json out = Json::object();
  out["path"] = pathText;
  Json& policies = out["policies"] = Json::array();
  for (const Policy& p : table) {
    policies.push_back({{"command", commandText(p.command)},
                        {"code", p.command},
                        {"bits", p.bits},
                        {"allowed", p.allowed}});
  }
  out["objects"] = count.known ? Json(count.count) : Json();
  if (count.known) out["objectsFrom"] = count.from;
  printf("%s\n", jsonText(out).c_str());
}

Json processJson(const kl::message& proc) {
  Json out = Json::object();
  out["id"] = proc.get(kl::STD_ID, 0);
  out["state"] = proc.get_string(kProcState, "");
  if (proc.size_u32(kProcPid) != 0) out["pid"] = proc.get_u32(kProcPid, 0);
  out["program"] = proc.get_string(kl::STD_DESCR, "");
  return out;
}

}  // namespace

bool askLoaderForProcesses(kl::Looper& looper, kl::message* reply) {
  kl::message m = request({1}, kl::CMD_GETALL);
  return exchange(looper, m, "1", kDefaultTimeoutTicks, reply);
}

void printProcesses(const kl::message& reply, bool json) {
  if (!json) printf("%-10s %-11s %-8s %s\n", "ID", "STATE", "PID", "PROGRAM");
  for (const kl::message::flat_message& flat : reply.get_message_array(kl::STD_OBJS)) {
    const kl::message proc(flat);
    if (json) {
      printf("%s\n", jsonText(processJson(proc)).c_str());
    } else {
      printf("%-10u %-11s %-8u %s\n", proc.get(kl::STD_ID, 0),
             proc.get_string(kProcState, "").c_str(), proc.get_u32(kProcPid, 0),
             proc.get_string(kl::STD_DESCR, "").c_str());
    }
  }
}

int introspectCommand(int argc, char** argv) {
  bool json = false;
  int i = 0;
  for (; i < argc && strcmp(argv[i], "--json") == 0; ++i) json = true;
  if (i + 1 != argc) return usage("introspect needs one PATH (see kl-msg introspect --help)");
  const std::string pathText = argv[i];
  std::vector<unsigned int> path;
  if (!parsePath(pathText, &path)) {
    return usage("bad path '" + pathText + "', expected like 5 or 5/3");
  }
  if (!loaderListening()) return fail("no loader listening on " + kl::rootedPath("/ram/kelosock"));
  kl::Looper* looper = connectToLoader();
  kl::message reply;
  // The loader has no policy table: what it can tell is its processes.
  if (path == std::vector<unsigned int>{1}) {
    if (!askLoaderForProcesses(*looper, &reply)) return kFailed;
    if (!json) {
      printProcesses(reply, false);
      return 0;
    }
    Json out = {{"path", pathText}, {"processes", Json::array()}};
    for (const kl::message::flat_message& flat : reply.get_message_array(kl::STD_OBJS)) {
      out["processes"].push_back(processJson(kl::message(flat)));
    }
    printf("%s\n", jsonText(out).c_str());
    return 0;
  }
  // Every handler answers CMD_GETPOLICIES, before any policy check.
  kl::message ask = request(path, kl::CMD_GETPOLICIES);
  if (!exchange(*looper, ask, pathText, kDefaultTimeoutTicks, &reply)) return kFailed;
  const std::vector<Policy> table = policiesOf(reply);
  const ObjectCount count = countObjects(*looper, path);
  (json ? printHandlerJson : printHandler)(pathText, table, count);
  return 0;
}

}  // namespace klmsg
