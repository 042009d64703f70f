// kl::Reget and kl::FullReget: the blocking, chunk-by-chunk object fetch.
#include "kl/reget/reget.h"

#include <cstdio>

#include "kl/looper/looper.h"
#include "kl/message/system.h"

namespace kl {

Reget::~Reget() = default;

void Reget::setBase(const message& m) {
  base_ = m;
  if (base_.size_u32(kRegetFilterField) == 0) base_.insert_u32(kRegetFilterField, filter_);
}

void Reget::setFilter(unsigned int f) {
  filter_ = f;
  if (!base_.empty() && base_.size_u32(kRegetFilterField) == 0) {
    base_.insert_u32(kRegetFilterField, f);
  }
}

bool Reget::isEmpty() {
  if (!empty_ && !haveObject_) {
    if (load()) {
      haveObject_ = true;
    } else {
      empty_ = true;
    }
  }
  return empty_;
}

message Reget::pop() {
  haveObject_ = false;
  if (current_.size_u32(kRegetFilterField) == 0) current_.insert_u32(kRegetFilterField, filter_);
  return current_;
}

FullReget::~FullReget() = default;

bool FullReget::load() {
  // A reply may come without objects but with a continuation id: ask again.
  while (first_ || next_ == count_) {
    getChunk();
    if (finished_) return false;
  }
  const message& reply = reply_;  // const access: a mutable reference would unshare it
  current_ = message((*reply.get_message_array_ref(STD_OBJS))[next_]);
  ++next_;
  return true;
}

void FullReget::getChunk() {
  if (!base_.has(SYS_CMD)) base_.insert(SYS_CMD, CMD_GETALL);
  message request = base_;
  if (!first_) {
    const unsigned int* from = static_cast<const message&>(reply_).get_u32_ref(STD_GETALLID);
    if (from == nullptr) {
      finished_ = true;
      return;
    }
    request.insert(STD_GETALLID, *from);
  }
  const int timeout = static_cast<int>(timeout_ != 0 ? timeout_ : kRegetDefaultTimeout);
  reply_ = getLooper()->exchangeMessage(request, timeout);
  if (isError(reply_, nullptr, nullptr)) {
    fprintf(stderr, "FULLREGET: %s\n", getError(reply_).c_str());
  }
  count_ = reply_.size_message_array(STD_OBJS);
  first_ = false;
  next_ = 0;
  if (count_ == 0 && !reply_.has(STD_GETALLID)) finished_ = true;
}

}  // namespace kl
