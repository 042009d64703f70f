// File: kl/reget/reget.h
//
// Fetching another handler's whole object list. A handler answers CMD_GETALL in chunks:
// each reply holds some objects in STD_OBJS and, while more remain, the STD_GETALLID that
// the next request must carry. The fetchers here hide the chunks:
//
//   kl::FullReget all;                       // blocking, chunk by chunk
//   kl::message base;
//   base.insert(kl::SYS_TO, {5, 2});
//   all.setBase(base);
//   while (!all.isEmpty()) use(all.pop());   // every object carries the filter field
//
// kl::AsyncReget (kl/reget/async_reget.h) and kl::AsyncGetall (kl/reget/async_getall.h)
// fetch without blocking the loop.
//
// Every request and every popped object carries the u32 field 0x08fe000c, the filter
// field, with the fetcher's filter value, so that a consumer can tell the fetches apart.
//
// FullReget blocks the loop inside Looper::exchangeMessage for each chunk; messages that
// arrive meanwhile are dispatched afterwards. The process's Looper must exist. Loop thread
// only.
#ifndef KL_REGET_REGET_H_
#define KL_REGET_REGET_H_

#include "kl/message/message.h"

namespace kl {

// The u32 field that carries a fetch's filter value in its requests and its objects.
constexpr uint32_t kRegetFilterField = 0x08fe000c;
// The time-out in ticks that a time-out of 0 stands for: 60 s.
constexpr unsigned int kRegetDefaultTimeout = 6000;

// An iterator over fetched objects: pop() as long as isEmpty() is false.
class Reget {
 public:
  Reget() = default;
  Reget(const Reget&) = delete;
  Reget& operator=(const Reget&) = delete;

  // Fetches the next object into current_; false when there is none (the iteration ends).
  virtual bool load() = 0;
  virtual ~Reget();

  // The request template (SYS_TO at least). The filter field is added when it lacks one;
  // a filter field already in `m` is kept.
  void setBase(const message& m);
  // The filter value: added to a non-empty base that lacks the filter field (a base set
  // earlier already has one, which stays), and to every popped object that lacks it.
  void setFilter(unsigned int f);
  // The time-out of each chunk's request in ticks; 0 (the initial value) means 6000.
  void setTimeout(unsigned int ticks) { timeout_ = ticks; }

  // Whether the iteration is exhausted; loads the next object when none is waiting.
  bool isEmpty();
  // The waiting object, with the filter field added when it lacks one.
  // REQUIRES: isEmpty() returned false since the last pop().
  message pop();

  unsigned int filter() const { return filter_; }    // the filter value
  const message& base() const { return base_; }      // the request template
  unsigned int timeout() const { return timeout_; }  // as set; 0 stands for 6000

 protected:
  unsigned int filter_ = 0;   // the filter value
  message base_;              // the request template
  unsigned int timeout_ = 0;  // per chunk, in ticks; 0 stands for 6000
  message current_;           // the object load() fetched
  bool empty_ = false;        // the iteration is exhausted
  bool haveObject_ = false;   // current_ waits to be popped
};

// A Reget that fetches chunk by chunk with blocking exchanges on the process's Looper.
// A reply that is an error prints "FULLREGET: <error>" on the error stream; the objects
// it holds (normally none) are handed out, and without a continuation id the fetch ends.
class FullReget : public Reget {
 public:
  FullReget() = default;
  ~FullReget() override;

  // The next object of the current reply, fetching the next chunk when it is used up.
  bool load() override;
  // Fetches one chunk: the base (with SYS_CMD = CMD_GETALL unless it names a command) plus
  // the previous reply's STD_GETALLID, unless this is the first. Without a continuation id
  // nothing is sent and the fetch is finished.
  void getChunk();

  // The last reply received.
  const message& reply() const { return reply_; }
  bool finished() const { return finished_; }

 private:
  message reply_;
  bool first_ = true;
  bool finished_ = false;
  unsigned int count_ = 0;
  unsigned int next_ = 0;
};

}  // namespace kl

#endif  // KL_REGET_REGET_H_
