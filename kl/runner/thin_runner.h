// File: kl/runner/thin_runner.h
//
// kl::ThinRunner, the single-threaded event loop of a process: poll() over registered
// descriptors, one-shot timers counted in ticks of 1/100 s (kl/base/clock.h), timers whose
// countdown starts only when the loop next regains control (delayed timers), and
// before-sleep hooks that run once per pass before the loop sleeps.
//
// One pass of run(): the before-sleep hooks, then poll() with a time-out from the nearest
// timer (at most 10 s), then the expired timers, then the ready descriptors from the last
// registered slot down. Everything runs on the loop's thread; nothing is locked.
//
// Callbacks are a function pointer and a void* context. A callback may add or remove any
// socket, timer or hook, including its own; the runner never touches a record after calling
// out of it. Timers are one-shot: a periodic timer re-arms itself from its callback.
//
// There is one runner per process (kl::Runner, kl/runner/runner.h, publishes it); the free
// functions at the end of this file act on it.
#ifndef KL_RUNNER_THIN_RUNNER_H_
#define KL_RUNNER_THIN_RUNNER_H_

#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <vector>

#include "kl/runner/timer_heap.h"

namespace kl {

// The handle of an armed timer, null for none. Valid until the timer fires or is removed;
// after that it must not be passed to removeTimer again (clear it in the callback, or use
// kl::removeTimer(TimerPtr*), which clears it).
class TimerPtr {
 public:
  TimerPtr() = default;
  explicit TimerPtr(TimerInfo* info) : info_(info) {}                    // the handle of `info`
  TimerInfo* get() const { return info_; }                               // the timer, or null
  explicit operator bool() const { return info_ != nullptr; }            // whether non-null
  bool operator==(const TimerPtr& o) const { return info_ == o.info_; }  // the same timer
  bool operator!=(const TimerPtr& o) const { return info_ != o.info_; }  // other timers

 private:
  TimerInfo* info_ = nullptr;
};

// The largest relative time-out that can be armed: 2^32 - 360000 ticks.
constexpr unsigned int kMaxTimeout = 4294607296u;
// `timeout`, or kMaxTimeout with the line "WARNING: limiting timer timeout to 4294607296cs"
// on the error stream when it is larger.
unsigned int limitMaxTimeout(unsigned int timeout);

// The event loop's core: timers, descriptors and before-sleep hooks (see the file comment).
class ThinRunner {
 public:
  using TimerInfo = kl::TimerInfo;  // an armed timer
  // Called with the context, the descriptor and the poll events that became ready.
  using SocketCallback = void (*)(void* ctx, int fd, unsigned int revents);
  using Callback = void (*)(void* ctx);  // a timer's or hook's callback

  // One registered descriptor.
  struct SockInfo {
    int fd;             // the descriptor
    void* ctx;          // the callback's context
    SocketCallback cb;  // called when it is ready
    uint32_t index;     // slot in the poll and socket vectors
  };

  ThinRunner();
  ThinRunner(const ThinRunner&) = delete;
  ThinRunner& operator=(const ThinRunner&) = delete;
  // Calls ThinRunner::shutdown().
  virtual ~ThinRunner();

  // --- sockets -------------------------------------------------------------------------
  // Watches fd for the poll events in `events` (POLLIN, POLLOUT ...); cb runs with the
  // returned events when any are ready. A descriptor already registered is left as it is and
  // "WARNING: could not add socket fd=<fd> becouse of dup" goes to the error stream.
  void addSocket(int fd, void* ctx, SocketCallback cb, unsigned int events);
  // Replaces the event mask of fd. False when fd is not registered.
  bool changeSocket(int fd, unsigned int events);
  // Stops watching fd (the descriptor is not closed). False when fd is not registered.
  bool removeSocket(int fd);
  size_t socketCount() const { return socks_.size(); }

  // --- timers --------------------------------------------------------------------------
  // Arms fn(ctx) to run `timeout` ticks from now (clamped by limitMaxTimeout). Armed inside
  // a timer callback, it joins the heap after that pass, so a time-out of 0 runs in the next
  // pass, never in the same one.
  TimerPtr addTimer(void* ctx, Callback fn, unsigned int timeout);
  // Arms fn(ctx) to run `timeout` ticks after the loop next regains control: at the start of
  // run() or the end of the current timer or socket pass. For time-outs armed inside a
  // callback or before the loop starts, which the remaining work must not shorten.
  TimerPtr addDelayedTimer(void* ctx, Callback fn, unsigned int timeout);
  // Starts the countdown of every delayed timer.
  void addDelayedTimers();
  // Cancels the timer. False for a null handle.
  bool removeTimer(TimerPtr timer);
  // Cancels the first armed timer with this context and callback; false when there is none.
  bool removeTimer(void* ctx, Callback fn);
  size_t timerCount() const { return heap_.size() + added_.size() + delayed_.size(); }

  // --- hooks ---------------------------------------------------------------------------
  // Runs fn(ctx) once in every pass before the loop sleeps. Hooks run in alternating order
  // on successive passes (the list is reversed by each pass); the same pair may be added
  // more than once. A hook added during a pass runs from the next pass on.
  void addBeforeSleep(void* ctx, Callback fn);
  // Removes hooks with this context and callback; one not yet called in the current pass is
  // not called. After a removal the entry directly behind it is passed over, so of two
  // adjacent matching entries one call removes only the first.
  void removeBeforeSleep(void* ctx, Callback fn);

  // --- the loop ------------------------------------------------------------------------
  // Runs passes until the stop flag is set (by a derived class or owner).
  virtual void run();
  // One wait-and-dispatch pass: poll(), the timers, then the ready descriptors.
  void runSocks(unsigned int now);
  // Runs every timer reached now, then arms those added meanwhile and the delayed ones.
  void runTimers();
  // poll() time-out in ms: -1 with no timer, 0 when the earliest is reached, else the ticks
  // to it x 10, at most 10000.
  virtual int sleepTime(unsigned int now);
  // Releases every registration: frees the timers in the heap (timers waiting outside it are
  // dropped but not freed, so a handle to one stays safe to remove), forgets the sockets
  // and frees the hooks. Closes nothing and leaves the stop flag alone.
  virtual void shutdown();

 protected:
  bool stop_ = false;  // run() returns when it is set

 private:
  struct Hook {
    void* ctx;
    Callback fn;
    Hook* next;
  };

  TimerInfo* newTimer(void* ctx, Callback fn, uint32_t expiry);
  void runHooks();
  // Moves the timers waiting in `list` into the heap (adding `now` to relative expiries),
  // frees the cancelled ones and empties the list.
  void joinHeap(std::vector<TimerInfo*>& list, uint32_t now, bool relative);
  bool cancel(TimerInfo* t);

  std::map<int, SockInfo> sockMap_;
  std::vector<pollfd> polls_;
  std::vector<SockInfo*> socks_;
  bool inTimers_ = false;
  TimerPool timerPool_;  // declared before every list of records: destroyed after them
  TimerHeap heap_;
  std::vector<TimerInfo*> added_;    // armed while timers run
  std::vector<TimerInfo*> delayed_;  // relative expiries, countdown not started
  Hook* beforeSleep_ = nullptr;
  Hook* running_ = nullptr;
};

// The process's runner, or null when none exists.
ThinRunner* getRunner();

// getRunner()->removeTimer(timer).
bool removeTimer(TimerPtr timer);
// The same, then clears *timer.
bool removeTimer(TimerPtr* timer);

namespace internal {

// The plain function and object address behind a member-function pointer bound to obj, as
// the platform C++ ABI lays it out (a virtual method is looked up in obj's table now).
template <class T>
void bindMethod(T* obj, void (T::*method)(), void (**fn)(void*), void** self) {
  static_assert(sizeof(method) == 2 * sizeof(ptrdiff_t), "unexpected member pointer layout");
  ptrdiff_t words[2];
  memcpy(words, &method, sizeof words);
  char* adjusted = reinterpret_cast<char*>(obj) + words[1];
  void* code;
  if (words[0] & 1) {  // virtual: an offset into the object's table, plus one
    char* table;
    memcpy(&table, adjusted, sizeof table);
    memcpy(&code, table + words[0] - 1, sizeof code);
  } else {
    code = reinterpret_cast<void*>(words[0]);
  }
  *fn = reinterpret_cast<void (*)(void*)>(code);
  *self = adjusted;
}

}  // namespace internal

// Arms obj->method() to run `timeout` ticks from now on the process's runner. A virtual
// method is looked up when the timer is armed. removeTimer(obj, fn) matching needs the same
// pair, so cancel through the returned handle.
template <class T>
TimerPtr addTimer(T* obj, void (T::*method)(), unsigned int timeout) {
  void (*fn)(void*);
  void* self;
  internal::bindMethod(obj, method, &fn, &self);
  return getRunner()->addTimer(self, fn, timeout);
}

}  // namespace kl

#endif  // KL_RUNNER_THIN_RUNNER_H_
