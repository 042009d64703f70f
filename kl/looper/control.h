// File: kl/looper/control.h
//
// The control messages between a Looper and the loader: a message that carries SYS_CTRL,
// addressed to the loader's handler id 1, with an argument in SYS_CTRL_ARG where one is
// needed. Shared by the Looper, the development loader and the test peer.
//
//   code  direction         meaning
//   1     loader -> Looper  asks the process to leave
//   2     Looper -> loader  agrees to leave; SYS_CTRL_ARG 1, kPermData = its saved data
//   3     Looper -> loader  refuses to leave now
//   4     Looper -> loader  announces that the process leaves
//   5     Looper -> loader  registration: kRegistrationWords holds the twelve words
//   6     Looper -> loader  the process has entered its run loop
//   7     Looper -> loader  leave setting: SYS_CTRL_ARG = leave value, 0 while blocked
//   8     loader -> Looper  CTRL_READY: u32 fields 1, 2, 3, 6, u64 field 7, kPermData (the
//                           data handed over at the last leave), kServiceData
#ifndef KL_LOOPER_CONTROL_H_
#define KL_LOOPER_CONTROL_H_

#include <cstdint>

namespace kl {
namespace ctrl {

constexpr unsigned int kLoaderId = 1;  // the loader's handler id, first in SYS_TO

// The control codes, values of SYS_CTRL, in the table above.
constexpr unsigned int kLeaveRequest = 1;
constexpr unsigned int kLeaveAgree = 2;
constexpr unsigned int kLeaveRefuse = 3;
constexpr unsigned int kTellLeave = 4;
constexpr unsigned int kRegister = 5;
constexpr unsigned int kRunning = 6;
constexpr unsigned int kLeaveSetting = 7;
constexpr unsigned int kReady = 8;

constexpr uint32_t kRegistrationWords = 0x88000001;  // u32 array field 1 of kRegister
constexpr uint32_t kReadyProcessId = 0x08000001;     // u32 field 1 of kReady: the process id
constexpr uint32_t kPermData = 0x28000004;           // message field 4
constexpr uint32_t kServiceData = 0x28000005;        // message field 5 of kReady

}  // namespace ctrl
}  // namespace kl

#endif  // KL_LOOPER_CONTROL_H_
