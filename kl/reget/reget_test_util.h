// File: kl/reget/reget_test_util.h
//
// What the fetchers' tests share: a recorder for the object and done callbacks, and a loop
// driver that turns the process's Looper until a condition holds or a deadline passes.
#ifndef KL_REGET_REGET_TEST_UTIL_H_
#define KL_REGET_REGET_TEST_UTIL_H_

#include <functional>
#include <vector>

#include "kl/base/clock.h"
#include "kl/looper/looper.h"
#include "kl/message/system.h"
#include "kl/reget/async_getall.h"
#include "kl/reget/async_reget.h"

namespace kl {
namespace testing {

// Records what a fetch hands out. With stopAt set, the object callback calls stop() on
// `fetch` (or stopAsyncGetall(job)) after that many objects.
struct Recorder {
  std::vector<unsigned int> ids;  // STD_ID of each object, in order of delivery
  std::vector<message> objects;
  int doneCalls = 0;
  message lastReply;
  size_t stopAt = 0;
  AsyncReget* fetch = nullptr;
  unsigned int job = 0;

  static void onObject(void* self, const message& object) {
    Recorder* r = static_cast<Recorder*>(self);
    r->ids.push_back(object.get(STD_ID, 0));
    r->objects.push_back(object);
    if (r->stopAt != 0 && r->ids.size() == r->stopAt) {
      if (r->fetch != nullptr) r->fetch->stop();
      if (r->job != 0) stopAsyncGetall(r->job);
    }
  }
  static void onDone(void* self, const message& reply) {
    Recorder* r = static_cast<Recorder*>(self);
    ++r->doneCalls;
    r->lastReply = reply;
  }
};

// Turns `looper` (dispatch, then one wait-and-dispatch pass) until done() holds or
// `ticks` have passed; returns done().
inline bool turnUntil(Looper& looper, const std::function<bool()>& done, unsigned int ticks) {
  bool expired = false;
  TimerPtr deadline = looper.addTimer(
      &expired, [](void* flag) { *static_cast<bool*>(flag) = true; }, ticks);
  while (!done() && !expired) {
    looper.dispatchQueue();
    looper.runSocks(getJiffies());
  }
  if (!expired) looper.removeTimer(deadline);
  return done();
}

// The ids of `reply`'s objects, in order.
inline std::vector<unsigned int> objectIds(const message& reply) {
  std::vector<unsigned int> ids;
  for (const message::flat_message& flat : reply.get_message_array(STD_OBJS)) {
    ids.push_back(message(flat).get(STD_ID, 0));
  }
  return ids;
}

}  // namespace testing
}  // namespace kl

#endif  // KL_REGET_REGET_TEST_UTIL_H_
