// File: kl/reget/async_reget.h
//
// kl::AsyncReget fetches another handler's object list without blocking the loop: it posts
// the request through the process's Looper (Handler::postMessage), calls an object
// callback for each object of each reply, asks again with the reply's STD_GETALLID while
// one comes, and calls a done callback at the end:
//
//   kl::AsyncReget fetch;
//   kl::message request;
//   request.insert(kl::SYS_TO, {5, 2});
//   request.insert(kl::SYS_CMD, kl::CMD_GETALL);
//   fetch.start(request, this, onObject, onDone, 0xdeadbeef);   // 60 s a chunk
//
// The done callback gets the last reply: the final chunk, an error (ERROR_TIMEOUT when a
// chunk did not come in time) or a reply without objects. Without a done callback the end
// is reported on the error stream: "AsyncReget done", "ERROR: AsyncReget failed: <error>"
// or "ERROR: AsyncReget got reply without STD_OBJS".
//
// The process's Looper must exist. Loop thread only.
#ifndef KL_REGET_ASYNC_REGET_H_
#define KL_REGET_ASYNC_REGET_H_

#include "kl/message/message.h"

namespace kl {

// A fetch of another handler's object list that does not block the loop (see the file
// comment).
class AsyncReget {
 public:
  // Called with each object, in the order of the reply. May call stop() (no further
  // objects, the done callback follows at once), but must not destroy the AsyncReget.
  using ObjectCallback = void (*)(void* context, const message& object);
  // Called once when the fetch ends, with the last reply. May restart the fetch or destroy
  // the AsyncReget.
  using DoneCallback = void (*)(void* context, const message& reply);

  // The time-out value that stands for 6000 ticks (60 s).
  static constexpr unsigned int kDefaultTimeout = 0xdeadbeef;

  AsyncReget() = default;
  AsyncReget(const AsyncReget&) = delete;
  AsyncReget& operator=(const AsyncReget&) = delete;
  // Cancels an outstanding request (no callback is called).
  ~AsyncReget();

  // Stores the request (SYS_TO and SYS_CMD as the target expects them), the context, the
  // callbacks (done may be null) and the time-out of each chunk in ticks (kDefaultTimeout:
  // 6000), then fetch(). Meant for an idle fetcher: a running one is not stopped first.
  void start(const message& request, void* ctx, ObjectCallback objectCallback,
             DoneCallback doneCallback, unsigned int timeout);
  // Posts the request as it stands (with the last continuation id, if any) and marks the
  // fetch running.
  void fetch();
  // Handles one reply or time-out of the posted request; the second argument is unused.
  void onReply(const message& reply, const message& extra);
  // Sends the request again from the last continuation id. Refused while running, with
  // "ERROR: AsyncReget retry() impossible while running".
  void retry();
  // Fetches again from the beginning. Refused while running, with
  // "ERROR: AsyncReget restart() impossible while running".
  void restart();
  // Cancels the outstanding request, if any, and marks the fetch stopped; no callback is
  // called (except from inside the object callback, see ObjectCallback).
  void stop();

  bool running() const { return running_; }  // whether a fetch is under way
  // The id of the outstanding request, 0xFFFFFFFF when none.
  unsigned int requestId() const { return requestId_; }
  // The request as it will be sent next.
  const message& request() const { return request_; }
  // The time-out of each chunk in ticks, as posted.
  int timeout() const { return timeout_; }

 private:
  static void onReplyCb(void* self, const message& reply, const message& extra);

  unsigned int requestId_ = 0xFFFFFFFFu;
  message request_;
  int timeout_ = 0;
  void* context_ = nullptr;
  ObjectCallback objectCallback_ = nullptr;
  DoneCallback doneCallback_ = nullptr;
  bool running_ = false;
};

}  // namespace kl

#endif  // KL_REGET_ASYNC_REGET_H_
