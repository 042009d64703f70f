#include "kl/runner/thin_runner.h"

#include <cstdio>
#include <cstdlib>

#include "kl/base/check.h"
#include "kl/base/clock.h"

namespace kl {

unsigned int limitMaxTimeout(unsigned int timeout) {
  if (timeout <= kMaxTimeout) return timeout;
  fprintf(stderr, "WARNING: limiting timer timeout to %u%s\n", kMaxTimeout, "cs");
  return kMaxTimeout;
}

ThinRunner::ThinRunner() = default;

ThinRunner::~ThinRunner() { ThinRunner::shutdown(); }

// --- sockets --------------------------------------------------------------------------------

void ThinRunner::addSocket(int fd, void* ctx, SocketCallback cb, unsigned int events) {
  if (sockMap_.count(fd) != 0) {
    fprintf(stderr, "WARNING: could not add socket fd=%d becouse of dup\n", fd);
    return;
  }
  SockInfo& info = sockMap_[fd];
  info = SockInfo{fd, ctx, cb, static_cast<uint32_t>(polls_.size())};
  polls_.push_back(pollfd{fd, static_cast<short>(events), 0});
  socks_.push_back(&info);
}

bool ThinRunner::changeSocket(int fd, unsigned int events) {
  auto it = sockMap_.find(fd);
  if (it == sockMap_.end()) return false;
  polls_[it->second.index].events = static_cast<short>(events);
  return true;
}

// The last slot moves into the freed one, so removal is O(1) and the slots stay dense.
bool ThinRunner::removeSocket(int fd) {
  auto it = sockMap_.find(fd);
  if (it == sockMap_.end()) return false;
  const uint32_t slot = it->second.index;
  const uint32_t last = static_cast<uint32_t>(polls_.size()) - 1;
  if (slot != last) {
    polls_[slot] = polls_[last];
    socks_[slot] = socks_[last];
    socks_[slot]->index = slot;
  }
  polls_.pop_back();
  socks_.pop_back();
  sockMap_.erase(it);
  return true;
}

// --- timers ---------------------------------------------------------------------------------

ThinRunner::TimerInfo* ThinRunner::newTimer(void* ctx, Callback fn, uint32_t expiry) {
  TimerInfo* t = timerPool_.get();
  *t = TimerInfo{ctx, fn, expiry, TimerInfo::kNotInHeap};
  return t;
}

TimerPtr ThinRunner::addTimer(void* ctx, Callback fn, unsigned int timeout) {
  const uint32_t now = getJiffies();
  TimerInfo* t = newTimer(ctx, fn, now + limitMaxTimeout(timeout));
  if (inTimers_) {
    added_.push_back(t);
  } else {
    heap_.addTimerToHeap(t, now);
  }
  return TimerPtr(t);
}

TimerPtr ThinRunner::addDelayedTimer(void* ctx, Callback fn, unsigned int timeout) {
  TimerInfo* t = newTimer(ctx, fn, limitMaxTimeout(timeout));
  delayed_.push_back(t);
  return TimerPtr(t);
}

void ThinRunner::joinHeap(std::vector<TimerInfo*>& list, uint32_t now, bool relative) {
  std::vector<TimerInfo*> waiting;
  waiting.swap(list);
  for (TimerInfo* t : waiting) {
    if (t->fn == nullptr) {
      timerPool_.put(t);  // cancelled while it waited
      continue;
    }
    if (relative) t->expiry += now;
    heap_.addTimerToHeap(t, now);
  }
}

void ThinRunner::addDelayedTimers() {
  if (!delayed_.empty()) joinHeap(delayed_, getJiffies(), true);
}

// A timer in the heap goes at once; one waiting in a list is only marked, and freed when
// its list is next processed.
bool ThinRunner::cancel(TimerInfo* t) {
  if (t->index != TimerInfo::kNotInHeap) {
    heap_.removeTimer(t);
    timerPool_.put(t);
  } else {
    t->fn = nullptr;
  }
  return true;
}

bool ThinRunner::removeTimer(TimerPtr timer) { return timer ? cancel(timer.get()) : false; }

bool ThinRunner::removeTimer(void* ctx, Callback fn) {
  for (uint32_t i = 0; i < heap_.size(); ++i) {
    TimerInfo* t = heap_.at(i);
    if (t->ctx == ctx && t->fn == fn) return cancel(t);
  }
  for (const std::vector<TimerInfo*>* list : {&added_, &delayed_}) {
    for (TimerInfo* t : *list) {
      if (t->ctx == ctx && t->fn == fn) return cancel(t);
    }
  }
  return false;
}

void ThinRunner::runTimers() {
  const uint32_t now = getJiffies();
  inTimers_ = true;
  while (!heap_.empty() && tickReached(heap_.top()->expiry, now)) {
    TimerInfo* t = heap_.top();
    heap_.removeTimer(t);
    // Out of the heap now: a removal through its handle inside the callback only marks it.
    t->index = TimerInfo::kNotInHeap;
    if (t->fn != nullptr) t->fn(t->ctx);
    timerPool_.put(t);
  }
  inTimers_ = false;
  joinHeap(added_, now, false);
  addDelayedTimers();
}

int ThinRunner::sleepTime(unsigned int now) {
  if (heap_.empty()) return -1;
  const uint32_t expiry = heap_.top()->expiry;
  if (tickReached(expiry, now)) return 0;
  const uint32_t ticks = expiry - now;
  return static_cast<int>((ticks < 1000 ? ticks : 1000) * 10);
}

// --- hooks ----------------------------------------------------------------------------------

void ThinRunner::addBeforeSleep(void* ctx, Callback fn) {
  Hook* h = static_cast<Hook*>(malloc(sizeof(Hook)));
  KL_CHECK(h != nullptr);
  *h = Hook{ctx, fn, beforeSleep_};
  beforeSleep_ = h;
}

void ThinRunner::removeBeforeSleep(void* ctx, Callback fn) {
  for (Hook** list : {&beforeSleep_, &running_}) {
    Hook** link = list;
    while (*link != nullptr) {
      Hook* h = *link;
      if (h->ctx == ctx && h->fn == fn) {
        *link = h->next;
        free(h);
        // The entry directly behind a removed one is passed over without comparing.
        if (*link != nullptr) link = &(*link)->next;
      } else {
        link = &h->next;
      }
    }
  }
}

// Moves every hook back onto the before-sleep list just before calling it, so each pass
// calls every hook once and leaves the list reversed: hooks alternate their order.
void ThinRunner::runHooks() {
  if (beforeSleep_ == nullptr) return;
  running_ = beforeSleep_;
  beforeSleep_ = nullptr;
  while (running_ != nullptr) {
    Hook* h = running_;
    running_ = h->next;
    h->next = beforeSleep_;
    beforeSleep_ = h;
    h->fn(h->ctx);
  }
}

// --- the loop -------------------------------------------------------------------------------

void ThinRunner::runSocks(unsigned int now) {
  const int timeout = sleepTime(now);
  int ready = poll(polls_.data(), polls_.size(), timeout);
  runTimers();
  // From the last slot down: a callback may add or remove sockets, and a removal moves the
  // last slot into a lower one. Events are cleared before each call so that no slot is
  // served twice, and a socket added during the pass has none.
  size_t slot = polls_.size();
  while (ready > 0) {
    if (slot > polls_.size()) slot = polls_.size();
    if (slot == 0) break;
    --slot;
    const unsigned int revents = static_cast<unsigned short>(polls_[slot].revents);
    if (revents == 0) continue;
    const int fd = polls_[slot].fd;
    polls_[slot].revents = 0;
    SockInfo* info = socks_[slot];
    info->cb(info->ctx, fd, revents);
    --ready;
  }
  addDelayedTimers();
}

void ThinRunner::run() {
  addDelayedTimers();
  while (!stop_) {
    runHooks();
    runSocks(getJiffies());
  }
}

void ThinRunner::shutdown() {
  for (uint32_t i = 0; i < heap_.size(); ++i) timerPool_.put(heap_.at(i));
  heap_.clear();
  added_.clear();
  delayed_.clear();
  sockMap_.clear();
  polls_.clear();
  socks_.clear();
  for (Hook** list : {&beforeSleep_, &running_}) {
    while (*list != nullptr) {
      Hook* h = *list;
      *list = h->next;
      free(h);
    }
  }
}

bool removeTimer(TimerPtr timer) { return getRunner()->removeTimer(timer); }

bool removeTimer(TimerPtr* timer) {
  const bool removed = getRunner()->removeTimer(*timer);
  *timer = TimerPtr();
  return removed;
}

}  // namespace kl
