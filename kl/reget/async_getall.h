// File: kl/reget/async_getall.h
//
// Fire-and-forget object fetches: sendAsyncGetall starts a job that posts a get-all through
// a Handler, calls a callback for every object of every reply and follows the STD_GETALLID
// continuation until the list ends. Jobs are numbered (1, 2, 3 ..., never 0 or 0xFFFFFFFF)
// and kept in a process-wide list until they end; stopAsyncGetall ends one early.
//
//   unsigned int job = kl::sendAsyncGetall(&handler, this, onObject, 5, 2, kl::CMD_GETALL);
//   ...
//   kl::stopAsyncGetall(job);   // nothing happens when the job has ended already
//
// The objects of each reply reach the callback from the last to the first. The callback
// gets no end-of-list call; an error reply ends a job silently. Jobs post without a
// time-out: a target that never answers keeps its job until stopAsyncGetall.
//
// The Handler must be registered with the process's Looper (the replies come back to it)
// and must outlive its jobs. Loop thread only.
#ifndef KL_REGET_ASYNC_GETALL_H_
#define KL_REGET_ASYNC_GETALL_H_

#include <list>

#include "kl/message/message.h"

namespace kl {

class Handler;

// One job; created by sendAsyncGetall and freed when it ends.
class AsyncGetall {
 public:
  // Called with each object. May stop this or any other job and start new ones.
  using Callback = void (*)(void* context, const message& object);

  AsyncGetall(const AsyncGetall&) = delete;
  AsyncGetall& operator=(const AsyncGetall&) = delete;

  // Posts the request with STD_GETALLID = getallid (none when getallid is 0xFFFFFFFF);
  // without a Handler the job ends instead.
  void send(unsigned int getallid);
  // Handles a reply: delivers its objects, then asks again from its STD_GETALLID or ends.
  // The second argument is unused.
  void cb(const message& reply, const message& extra);
  // Ends the job: cancels its outstanding request, takes it off the list and frees it.
  void done();

  const message& request() const { return request_; }    // the request template
  unsigned int number() const { return number_; }        // the job's number
  unsigned int requestId() const { return requestId_; }  // the outstanding request, or -1

  // The live jobs in order of creation (ascending numbers until the numbers wrap).
  static std::list<AsyncGetall*> instances;
  // The number of the next job; starts at 1.
  static unsigned int nextidx;

 private:
  friend unsigned int sendAsyncGetall(Handler* h, void* ctx, Callback cb, unsigned int dst,
                                      unsigned int dst2, unsigned int cmd);
  AsyncGetall() = default;
  ~AsyncGetall() = default;
  static void onReply(void* self, const message& reply, const message& extra);
  // Whether `job` is still a live job with this number.
  static bool isLive(const AsyncGetall* job, unsigned int number);

  message request_;
  Handler* handler_ = nullptr;
  void* context_ = nullptr;
  Callback callback_ = nullptr;
  unsigned int requestId_ = 0xFFFFFFFFu;
  unsigned int number_ = 0;
};

// Starts a job that fetches [dst] (dst2 = 0xFFFFFFFF) or [dst, dst2] with command `cmd`,
// posting through h (null: the job ends at once); returns its number. `cb` may be null.
unsigned int sendAsyncGetall(Handler* h, void* ctx, AsyncGetall::Callback cb, unsigned int dst,
                             unsigned int dst2, unsigned int cmd);
// Ends job `number` if it is live; unknown numbers are ignored.
void stopAsyncGetall(unsigned int number);

}  // namespace kl

#endif  // KL_REGET_ASYNC_GETALL_H_
