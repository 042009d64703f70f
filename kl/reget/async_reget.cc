// kl::AsyncReget: the object fetch driven by posted requests.
#include "kl/reget/async_reget.h"

#include <cstdio>

#include "kl/looper/looper.h"
#include "kl/message/system.h"
#include "kl/reget/reget.h"

namespace kl {

AsyncReget::~AsyncReget() {
  if (requestId_ != 0xFFFFFFFFu && getLooper() != nullptr) getLooper()->cancelPost(requestId_);
}

void AsyncReget::start(const message& request, void* ctx, ObjectCallback objectCallback,
                       DoneCallback doneCallback, unsigned int timeout) {
  request_ = request;
  context_ = ctx;
  objectCallback_ = objectCallback;
  doneCallback_ = doneCallback;
  timeout_ = static_cast<int>(timeout == kDefaultTimeout ? kRegetDefaultTimeout : timeout);
  fetch();
}

void AsyncReget::fetch() {
  running_ = true;
  message copy = request_;
  requestId_ = getLooper()->postMessage(copy, this, onReplyCb, message(),
                                        static_cast<unsigned int>(timeout_));
}

void AsyncReget::onReplyCb(void* self, const message& reply, const message& extra) {
  static_cast<AsyncReget*>(self)->onReply(reply, extra);
}

void AsyncReget::onReply(const message& reply, const message&) {
  requestId_ = 0xFFFFFFFFu;
  if (isError(reply, nullptr, nullptr)) {
    if (doneCallback_ == nullptr) {
      fprintf(stderr, "ERROR: AsyncReget failed: %s\n", getError(reply).c_str());
    }
  } else if (const std::vector<message::flat_message>* objs =
                 reply.get_message_array_ref(STD_OBJS)) {
    for (const message::flat_message& flat : *objs) {
      objectCallback_(context_, message(flat));
      if (!running_) {  // the callback stopped the fetch
        if (doneCallback_ != nullptr) doneCallback_(context_, reply);
        return;
      }
    }
    if (const unsigned int* next = reply.get_u32_ref(STD_GETALLID)) {
      request_.insert(STD_GETALLID, *next);
      fetch();
      return;
    }
    if (doneCallback_ == nullptr) fprintf(stderr, "AsyncReget done\n");
  } else {
    fprintf(stderr, "ERROR: AsyncReget got reply without STD_OBJS\n");
  }
  running_ = false;
  if (doneCallback_ != nullptr) doneCallback_(context_, reply);
}

void AsyncReget::retry() {
  if (running_) {
    fprintf(stderr, "ERROR: AsyncReget retry() impossible while running\n");
    return;
  }
  fetch();
}

void AsyncReget::restart() {
  if (running_) {
    fprintf(stderr, "ERROR: AsyncReget restart() impossible while running\n");
    return;
  }
  request_.remove(STD_GETALLID);
  fetch();
}

void AsyncReget::stop() {
  if (requestId_ != 0xFFFFFFFFu) {
    getLooper()->cancelPost(requestId_);
    requestId_ = 0xFFFFFFFFu;
  }
  running_ = false;
}

}  // namespace kl
