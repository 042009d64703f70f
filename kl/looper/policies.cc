#include "kl/looper/policies.h"

#include "kl/message/system.h"

namespace kl {

namespace {

constexpr unsigned int kRead = 0x40;
constexpr unsigned int kChange = 0x80;
constexpr unsigned int kJobs = 0x200;
constexpr unsigned int kUnrestricted = 0x80000000u;
// A command without a name that some services use; it changes objects.
constexpr unsigned int kUnnamedChangeCmd = 0xfe0008;

const policies::entry kDefaults[] = {
    {CMD_GETALL, kRead},
    {CMD_GETCOUNT, kRead},
    {CMD_ADDOBJ, kChange},
    {CMD_SETOBJ, kChange},
    {CMD_REMOVEOBJ, kChange},
    {CMD_MOVEOBJ, kChange},
    {CMD_GETOBJ, kRead},
    {CMD_SUBSCRIBE, kRead},
    {CMD_UNSUBSCRIBE, kRead},
    {CMD_NOTIFY, kUnrestricted},
    {CMD_GET, kRead},
    {CMD_SET, kChange},
    {kUnnamedChangeCmd, kChange},
    {CMD_RESET, kChange},
    {CMD_POLL, kJobs},
    {CMD_START, kJobs},
    {CMD_CANCEL, kJobs},
    {CMD_GETPOLICIES, kRead},
    {CMD_NOOP, kRead},
};

constexpr uint32_t kPolicyBitsField = 0x08000001;
constexpr uint32_t kPolicyAllowedField = 0x00000002;

}  // namespace

policies::policies() {
  table_.reserve(20);
  table_.assign(std::begin(kDefaults), std::end(kDefaults));
}

policies::entry* policies::find_policy(unsigned int cmd) {
  for (entry& e : table_) {
    if (e.first == cmd) return &e;
  }
  return nullptr;
}

const policies::entry* policies::find_policy(unsigned int cmd) const {
  return const_cast<policies*>(this)->find_policy(cmd);
}

policies::entry& policies::policy(unsigned int cmd) {
  if (entry* e = find_policy(cmd)) return *e;
  table_.emplace_back(cmd, 0);
  return table_.back();
}

void policies::set_policy(unsigned int cmd, unsigned int bits) { policy(cmd).second = bits; }

void policies::add_policy(unsigned int cmd, unsigned int bits) { policy(cmd).second |= bits; }

unsigned int policies::required_policies(unsigned int cmd) const {
  const entry* e = find_policy(cmd);
  return e != nullptr ? e->second : 0;
}

bool policies::is_allowed(const message& request) const {
  const unsigned int bits = request.get(SYS_POLICY, 0xFFFFFFFFu);
  if (static_cast<int>(bits) < 0) return true;  // absent, or an unrestricted sender
  const entry* e = find_policy(request.get(SYS_CMD, CMD_NOOP));
  // An unknown command is refused to every restricted sender.
  const unsigned int required = e != nullptr ? e->second : kUnrestricted;
  return (bits & required) == required;
}

message policies::get_policies(const message& request) const {
  const unsigned int bits = request.get(SYS_POLICY, 0xFFFFFFFFu);
  std::vector<message::flat_message> objs;
  objs.reserve(table_.size());
  for (const entry& e : table_) {
    message obj;
    obj.insert(STD_ID, e.first);
    obj.insert_u32(kPolicyBitsField, e.second);
    // Unlike is_allowed, bit 31 earns no exemption here: the listing shows the bits only.
    obj.insert_bool(kPolicyAllowedField, (bits & e.second) == e.second);
    objs.emplace_back(obj);
  }
  message result;
  result.insert_message_array(STD_OBJS, objs);
  return result;
}

}  // namespace kl
