// File: tools/loader/test_publisher.h
//
// The test publisher (tools/loader/test_publisher.cc), a service that the services test
// (tools/services_test.cc) has kl-loader start: process kPublisherId, whose Handler
// kObjectsHandler keeps objects, has subscribers and sends them the changes the test asks
// for. Started with --leave it offers to leave when idle (kl-loader --idle-leave).
//
// Commands of handler kObjectsHandler, beside the standard ones:
// - CMD_SETOBJ (STD_ID, STD_DESCR): renames the object, records the change as caused by the
//   requester (notifyChange with the request) and sends an undo record whose reversing
//   message restores the old name.
// - kCmdChange: changes the objects listed in u32 array kIdsField, each linked to the
//   STD_NEXTID at the same index of kNextIdsField when that is given, and named STD_DESCR
//   when that is given; the changes have no single origin. Replies empty.
// - kCmdSubscribers: replies with the subscription records (message array STD_OBJS) and
//   the number of CMD_UNSUBSCRIBE requests that removed one (u32 kUnsubscribesField).
#ifndef TOOLS_LOADER_TEST_PUBLISHER_H_
#define TOOLS_LOADER_TEST_PUBLISHER_H_

#include <cstdint>

namespace kl {
namespace testpub {

constexpr unsigned int kPublisherId = 40;
constexpr unsigned int kObjectsHandler = 2;
// Objects 1..kInitialObjects exist from the start, named "port<id>".
constexpr unsigned int kInitialObjects = 4;

constexpr unsigned int kCmdChange = 0x7e0001;
constexpr unsigned int kCmdSubscribers = 0x7e0002;
constexpr uint32_t kIdsField = 0x88000001;           // u32 array field 1
constexpr uint32_t kNextIdsField = 0x88000002;       // u32 array field 2
constexpr uint32_t kUnsubscribesField = 0x08000003;  // u32 field 3

// The description sendUndo gives the undo records of CMD_SETOBJ.
constexpr const char* kUndoDescription = "rename object";

}  // namespace testpub
}  // namespace kl

#endif  // TOOLS_LOADER_TEST_PUBLISHER_H_
