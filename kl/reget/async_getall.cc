// kl::AsyncGetall: numbered fire-and-forget fetch jobs.
#include "kl/reget/async_getall.h"

#include "kl/looper/handler.h"
#include "kl/message/system.h"

namespace kl {

std::list<AsyncGetall*> AsyncGetall::instances;
unsigned int AsyncGetall::nextidx = 1;

unsigned int sendAsyncGetall(Handler* h, void* ctx, AsyncGetall::Callback cb, unsigned int dst,
                             unsigned int dst2, unsigned int cmd) {
  AsyncGetall* job = new AsyncGetall;
  job->handler_ = h;
  job->number_ = AsyncGetall::nextidx;
  // Numbers are never 0 or 0xFFFFFFFF, which callers use for "no job".
  if (++AsyncGetall::nextidx == 0xFFFFFFFFu) AsyncGetall::nextidx = 1;
  AsyncGetall::instances.push_back(job);
  if (dst2 == 0xFFFFFFFFu) {
    job->request_.insert(SYS_TO, {dst});
  } else {
    job->request_.insert(SYS_TO, {dst, dst2});
  }
  job->request_.insert(SYS_CMD, cmd);
  job->context_ = ctx;
  job->callback_ = cb;
  const unsigned int number = job->number_;
  job->send(0xFFFFFFFFu);  // may end and free the job
  return number;
}

void stopAsyncGetall(unsigned int number) {
  // The list is in ascending order of numbers: the search may stop at the first one that
  // is not below.
  for (AsyncGetall* job : AsyncGetall::instances) {
    if (job->number() < number) continue;
    if (job->number() == number) job->done();
    return;
  }
}

void AsyncGetall::send(unsigned int getallid) {
  if (handler_ == nullptr) {
    done();
    return;
  }
  message m = request_;
  if (getallid != 0xFFFFFFFFu) m.insert(STD_GETALLID, getallid);
  requestId_ = handler_->postMessage(m, this, onReply, message(), 0xFFFFFFFFu);
}

void AsyncGetall::onReply(void* self, const message& reply, const message& extra) {
  static_cast<AsyncGetall*>(self)->cb(reply, extra);
}

bool AsyncGetall::isLive(const AsyncGetall* job, unsigned int number) {
  for (const AsyncGetall* live : instances) {
    if (live == job && live->number_ == number) return true;
  }
  return false;
}

void AsyncGetall::cb(const message& reply, const message&) {
  requestId_ = 0xFFFFFFFFu;
  if (!isError(reply, nullptr, nullptr)) {
    const std::vector<message::flat_message>* objs = reply.get_message_array_ref(STD_OBJS);
    if (callback_ != nullptr && objs != nullptr) {
      // Each reply's objects are handed out from the last to the first.
      const unsigned int number = number_;
      for (size_t i = objs->size(); i > 0; --i) {
        callback_(context_, message((*objs)[i - 1]));
        if (!isLive(this, number)) return;  // the callback ended this job
      }
    }
    const unsigned int* next = reply.get_u32_ref(STD_GETALLID);
    if (next != nullptr && *next != 0xFFFFFFFFu) {
      send(*next);
      return;
    }
  }
  done();
}

void AsyncGetall::done() {
  if (requestId_ != 0xFFFFFFFFu && handler_ != nullptr) handler_->cancelPost(requestId_);
  instances.remove(this);
  delete this;
}

}  // namespace kl
