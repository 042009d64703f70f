// File: kl/looper/looper.h
//
// kl::Looper, a service process's connection to the loader and its message switch. A
// service constructs exactly one; it is at once the process's root Handler (first base)
// and its event loop (a kl::Runner, second base).
//
// Construction connects (the connection inherited on descriptor 3, or <root>/ram/kelosock),
// registers the process with twelve words and waits up to 20 seconds for the loader's
// CTRL_READY. The service then registers its Handlers with addHandler(id, h) and calls
// run(). Messages sent by Handlers go through sendMessage: to the loader as framed bytes
// (kl/looper/framing.h), or, for paths that start with PATH_LOCAL, into the local queue
// of at most 100 messages. Incoming frames and queued messages are routed by
// dispatchMessage down their SYS_TO path to the registered Handlers.
//
// Transport failures are fatal: a failed connection set-up exits with status 1, a missing
// CTRL_READY aborts, and end of file or an error on the socket prints a "LOOPER: " line and
// stops the process by a failed assertion. The loader going away ends the service.
//
// Loop thread only.
#ifndef KL_LOOPER_LOOPER_H_
#define KL_LOOPER_LOOPER_H_

#include <list>
#include <map>

#include "kl/looper/framing.h"
#include "kl/looper/handler.h"
#include "kl/message/message.h"
#include "kl/runner/runner.h"

namespace kl {

// A service process's connection to the loader, its root Handler and its event loop (see
// the file comment).
class Looper : public Handler, public Runner {
 public:
  using WriteItem = FrameWriter::WriteItem;  // a frame queued for the loader

  // How the constructor obtains the connection.
  enum ConnectMode {
    kInheritOrConnect = 0,  // descriptor 3 when it is a Unix socket, else connect
    kInherit = 1,           // descriptor 3 is required
    kConnect = 2,           // always connect
  };

  // Connects, registers with the words w1..w12 (w1 is the process's id for the loader) and
  // waits for CTRL_READY; see the file comment for the failures, which end the process.
  Looper(unsigned int mode, unsigned int w1, unsigned int w2, unsigned int w3, unsigned int w4,
         unsigned int w5, unsigned int w6, unsigned int w7, unsigned int w8, unsigned int w9,
         unsigned int w10, unsigned int w11, unsigned int w12);
  // Flushes the write queue and closes the connection.
  ~Looper() override;

  // --- Handler operations the Looper overrides ---------------------------------------------
  // Its own subscribers as a Handler's; then for each registered Handler with data, in id
  // order, its id in u32 array field 2 and its data in message array field 3.
  void loadPermData(const message& data) override;
  void savePermData(message& data) override;
  // Command 0x60001 (the time service's time-zone notification) refreshes the time-zone
  // cache; everything else as for a Handler.
  void handleCmd(const message& m, unsigned int cmd) override;
  // Drops the departed peer's subscriptions here and in every registered Handler.
  void cmdDisconnected(const message& m) override;
  // Routes `m` by the first element of SYS_TO: none -> local queue; PATH_LOCAL -> local
  // queue (PATH_LOCAL moves from SYS_TO to the front of SYS_FROM); PATH_BOTH -> the loader
  // and the local queue; PATH_MULTI -> local groups locally, the remaining groups to the
  // loader in one frame; anything else -> the loader. Adds no id of its own.
  void sendMessage(message& m) override;
  // Sends `m` as a request (it gains SYS_TYPE, SYS_REQID, SYS_REPLYEXP and SYS_FROM) and
  // blocks the loop until its reply (same request id, SYS_TO
  // equal to m's SYS_FROM) or the time-out in ticks: ERROR_TIMEOUT then, or ERROR_FAILED
  // "bad_message" when m has no SYS_TO. 0 polls without limit, a negative time-out blocks
  // without limit. Everything else that arrives meanwhile is queued and dispatched
  // afterwards, so no Handler is re-entered; a leave request is refused.
  message exchangeMessage(message& m, int timeout) override;

  // --- operations the Looper adds, in this order ----------------------------------------------
  // Stops the loop: releases every registration of the runner and sets its stop flag. The
  // connection stays open (the process is about to end).
  void shutdown() override;
  // Once-per-boot set-up, called by run() when this program's marker file
  // <root>/kelo/run/<program> is missing. Default: nothing.
  virtual void onInit();
  // true swallows an incoming or locally sent message before dispatch. Default: false.
  virtual bool filterMessage(const message& m);
  // Routes `m` to the Handler named by its first path element (the element is consumed),
  // or to the Looper's own handle() when the path is empty. A path that leads nowhere is
  // answered with ERROR_BRKPATH (a reply or a broken-path notice, never both, and never to
  // an ERROR_BRKPATH error).
  virtual void dispatchMessage(message& m);
  // Whether the process agrees to leave now: a leave value is set and nothing blocks.
  virtual bool canLeave();
  // Runs onInit() once per boot, tells the loader the process runs, re-announces restored
  // subscribers, releases the leave block and runs the loop until shutdown().
  void run() override;

  // --- transport ---------------------------------------------------------------------------
  // Time-outs are in ticks (100 per second): 0 = do not wait, -1 = wait without limit.
  //
  // Reads at least `need` and at most max(need, room) bytes from the connection straight into
  // `buffer`, bypassing the frame buffer. Returns the count, or 0 when `timeout` expires (or
  // is 0) before the first byte; once a byte has arrived the rest is awaited without limit.
  unsigned int readRaw(unsigned char* buffer, unsigned int need, int timeout, unsigned int room);
  // The next frame from the connection, decoded into `m`; with `mayRead` false only bytes
  // already buffered are used. False when no whole frame came within `timeout` (a partial
  // frame stays buffered); once a frame has begun, its rest is awaited without limit. A body
  // that does not decode still gives true, with the fields decoded before the fault.
  bool readMessage(message& m, int timeout, bool mayRead);
  // The next message: the local queue's head, else a frame from the socket; after
  // `timeout` ticks ERROR_TIMEOUT "timeout"; a control message becomes an error message
  // "control message (<code>)".
  message getMessage(int timeout);
  // Writes `length` bytes to the connection at once, bypassing (and overtaking) the write
  // queue; waits for room as needed.
  void writeRaw(const unsigned char* buffer, size_t length);
  // Frames `m` onto the write queue; flushes at once when more than 1023 bytes wait.
  void writeMessage(const message& m);
  // Writes the queue out; `block` waits for room, otherwise it retries at once.
  void writeFlush(bool block);
  // The connection's input callback: takes one control message (a leave request is
  // answered, others are ignored), or dispatches one request (filterMessage first), or
  // dispatches replies while whole ones are there. What stays buffered is dispatched by
  // dispatchQueue before the loop sleeps.
  void onMsgSock(int fd, unsigned int events);
  // The before-sleep hook: dispatches the local queue and the frames already buffered, then
  // flushes the write queue.
  void dispatchQueue();
  // Sends control message `code` (with SYS_CTRL_ARG = arg) to the loader and flushes.
  void sendCtrl(unsigned int code);
  void sendCtrl(unsigned int code, unsigned int arg);

  // --- local queue and handler registry ------------------------------------------------------
  // Appends a copy of `m` to the local queue; false (with "full queue, spilled message:" and
  // a dump) when 100 messages wait already. A message filterMessage swallows counts as queued.
  bool queueMessage(const message& m);
  // Registers `h` under `id` (false when the id is taken), hands it restored persistent
  // data and re-announces its restored subscribers. REQUIRES: h outlives its registration.
  bool addHandler(unsigned int id, Handler* h);
  bool removeHandler(unsigned int id);
  bool hasHandler(unsigned int id) const { return handlers_.count(id) != 0; }
  // Blocks until service `id` answers a CMD_NOOP.
  void ensure(unsigned int id);

  // --- leave protocol ---------------------------------------------------------------------------
  // The value the process offers the loader for leaving (0: it does not want to leave).
  void setupLeave(unsigned int value);
  // Nestable: while blocked, leave requests are refused. run() releases the initial block.
  void blockLeave();
  void unblockLeave();
  // Tells the loader that the process leaves.
  void tellLeave();
  // Set once the process agreed to a leave request; the application decides what follows.
  bool leaving() const { return leaving_; }
  // Whether shutdown() ran: the runner's timers, sockets and hooks are released.
  bool isShutDown() const { return shutDown_; }

  // --- time ---------------------------------------------------------------------------------
  // Seconds east of UTC, asked once from the time service (handler 24) and kept current by
  // its notifications; 0 when it does not answer within 60 s.
  int getTimezone();
  // time() + getTimezone().
  unsigned int getLocaltime();

  // --- what the loader handed over --------------------------------------------------------------
  // u32 field 1, 2, 3 or 6 of CTRL_READY (0 when absent or for another field).
  unsigned int loaderValue(unsigned int field) const;
  // u64 field 7 of CTRL_READY.
  unsigned long long loaderValue64() const { return loaderU64_7_; }
  // The nested service data of CTRL_READY (message field 5), with its prepared state.
  const message& serviceData() const { return serviceData_; }
  int socket() const { return socket_; }
  unsigned int localQueueLength() const { return localQueueLength_; }
  uint32_t writeQueueItems() const { return writer_.items(); }
  uint32_t writeQueueBytes() const { return writer_.bytes(); }

 private:
  static void onMsgSockCb(void* self, int fd, unsigned int events);
  static void dispatchQueueCb(void* self);
  static void onTransportFailure(void* self, FrameFailure what, long result, int err);
  void connectToLoader(unsigned int mode);
  void awaitReady(unsigned int w1, unsigned int w12);
  void prepareServiceData(unsigned int w1, unsigned int w12);
  // A message read from the socket: a control message goes to handleControl, any other to
  // dispatchMessage unless filterMessage swallows it.
  void takeIncoming(message& m);
  // A control message from the loader: answers a leave request, ignores the rest.
  void handleControl(unsigned int code);
  // A control message of `code` for the loader.
  static message controlMessage(unsigned int code);
  // sendMessage, then writeFlush(true).
  void sendNow(message& m);
  // Takes the local queue's head into *m; false when the queue is empty.
  bool popLocal(message* m);
  void deliverLocally(message& m);
  void sendMulti(message& m, std::vector<unsigned int> to);
  void answerBrokenPath(Handler* h, message& m);

  bool leaving_ = false;
  unsigned int loaderU32_1_ = 0;
  unsigned int loaderU32_3_ = 0;
  unsigned int loaderU32_2_ = 0;
  unsigned long long loaderU64_7_ = 0;
  unsigned int loaderU32_6_ = 0;
  int socket_ = -1;
  int timezone_ = -1;
  unsigned int leaveValue_ = 0;
  unsigned int leaveBlocks_ = 1;
  std::map<unsigned int, Handler*> handlers_;
  std::map<unsigned int, message> handlerData_;
  std::list<message> localQueue_;
  unsigned int localQueueLength_ = 0;
  FrameReader reader_;
  FrameWriter writer_;
  message serviceData_;
  bool shutDown_ = false;
};

// The process's Looper, or null when none exists.
Looper* getLooper();

}  // namespace kl

#endif  // KL_LOOPER_LOOPER_H_
