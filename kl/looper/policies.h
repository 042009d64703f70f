// File: kl/looper/policies.h
//
// kl::policies, the permission table of one Handler: for each command code (a SYS_CMD value)
// the policy bits a request must carry to be allowed. A request carries its sender's bits in
// SYS_POLICY; a request without it is trusted, and so is one whose bits have bit 31 set.
//
// The table keeps its pairs in order of first insertion; lookups are linear (it is short),
// and listings report that order. Owned by one handler; loop thread only.
#ifndef KL_LOOPER_POLICIES_H_
#define KL_LOOPER_POLICIES_H_

#include <utility>
#include <vector>

#include "kl/message/message.h"

namespace kl {

// The permission table of one Handler (see the file comment).
class policies {
 public:
  using entry = std::pair<unsigned int, unsigned int>;  // command, required bits

  // The default table: reading commands need 0x40, changing commands 0x80, CMD_START,
  // CMD_POLL and CMD_CANCEL 0x200, CMD_NOTIFY the unrestricted bit 0x80000000.
  policies();

  // The pair of `cmd`, or null when the table has none.
  entry* find_policy(unsigned int cmd);
  const entry* find_policy(unsigned int cmd) const;
  // The pair of `cmd`, appended as {cmd, 0} after all others when absent.
  entry& policy(unsigned int cmd);
  // Required bits of cmd := bits (the pair is created when absent).
  void set_policy(unsigned int cmd, unsigned int bits);
  // Required bits of cmd |= bits (the pair is created when absent).
  void add_policy(unsigned int cmd, unsigned int bits);
  // The required bits of `cmd`, 0 for a command not in the table.
  unsigned int required_policies(unsigned int cmd) const;

  // Whether `request` may run: trusted senders always; otherwise its SYS_POLICY must hold
  // every bit its command requires, and a command not in the table requires 0x80000000.
  bool is_allowed(const message& request) const;
  // The table as a reply body: STD_OBJS holds, in table order, one message per command with
  // STD_ID = command, u32 field 1 = required bits and bool field 2 = whether the request's
  // SYS_POLICY (0xFFFFFFFF when absent) holds those bits.
  message get_policies(const message& request) const;

  // The pairs, in order of first insertion.
  const std::vector<entry>& entries() const { return table_; }

 private:
  std::vector<entry> table_;
};

}  // namespace kl

#endif  // KL_LOOPER_POLICIES_H_
