// File: kl/looper/framing.h
//
// The byte framing of a loader connection, in both directions: each frame is a 4-byte
// little-endian body length (the prefix itself not counted) followed by a flattened message.
//
//   offset 0  u32 LE  N, the body length
//   offset 4  N bytes the message (kl/message/wire_format.h)
//
// FrameReader assembles incoming frames in a fixed 1024-byte buffer and decodes them in
// place; only a frame larger than the buffer's free room gets a heap block of its body
// length. FrameWriter queues outgoing frames, one heap block each, and writes the queue with
// one gathering writev() of up to 1024 frames a pass.
//
// Neither decides what a failed connection means. End of file and system-call errors go to
// the owner's failure callback: the Looper prints its line and stops the process there; the
// development loader closes that one connection and carries on. After a failure that
// returns, the object reports nothing more (reads yield nothing, writes are dropped).
//
// Time-outs are in ticks (kl/base/clock.h, 100 per second): 0 = do not wait, -1 = wait
// without limit, a positive value = a limit. Loop thread only.
#ifndef KL_LOOPER_FRAMING_H_
#define KL_LOOPER_FRAMING_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "kl/message/message.h"

namespace kl {

// What went wrong on a connection. `result` is the system call's return value, `err` errno.
enum class FrameFailure {
  kReadEof,     // read() returned 0
  kReadError,   // read() failed with an error other than EINTR and EAGAIN
  kPollError,   // poll() for input failed with an error other than EINTR
  kFlushEof,    // writev() of the queue returned 0
  kFlushError,  // writev() of the queue failed with an error other than EINTR and EAGAIN
  kRawEof,      // write() of raw bytes returned 0
  kRawError,    // write() of raw bytes failed with an error other than EINTR and EAGAIN
  kTooLarge,    // a length prefix above the reader's limit (setMaxFrame)
};
// The owner's failure callback: its context, what failed, the call's result and errno.
using FrameFailureFn = void (*)(void* ctx, FrameFailure what, long result, int err);

constexpr unsigned int kFramePrefixBytes = 4;    // the length prefix of every frame
constexpr unsigned int kReadBufferBytes = 1024;  // the reader's fixed buffer

// Assembles and decodes the frames that arrive on a connection (see the file comment).
class FrameReader {
 public:
  // `fd` is a non-blocking stream socket (or -1 until setFd); the reader does not own it.
  FrameReader(int fd, void* ctx, FrameFailureFn onFailure);
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  // The socket to read from from now on (-1: none).
  void setFd(int fd) { fd_ = fd; }
  // Frames whose length prefix exceeds `bytes` fail with kTooLarge; 0 (the default) means
  // no limit but memory.
  void setMaxFrame(uint32_t bytes) { maxFrame_ = bytes; }

  // Reads at least `need` and at most max(need, room) bytes into `buffer`. Returns the
  // count, or 0 when `timeout` expires (or is 0) before anything arrived. Once a first byte
  // has arrived the rest of `need` is awaited without limit.
  unsigned int readRaw(unsigned char* buffer, unsigned int need, int timeout, unsigned int room);

  // The next complete frame, decoded into `m`. With `mayRead` false only bytes already
  // buffered are used. Once a frame's first bytes are in, its rest is awaited without
  // limit. False when no whole frame is available in time; a partial frame then stays
  // buffered. Whether the body decoded cleanly is lastDecodeOk(); a malformed body still
  // yields true with the fields decoded before the fault.
  bool readMessage(message& m, int timeout, bool mayRead);

  // Non-blocking form for a process that serves many connections: takes what the socket
  // holds now and returns true with the next complete frame. A partial frame stays
  // buffered, a large one in its own block, until more bytes arrive.
  bool tryReadMessage(message& m);
  // The same, without decoding: *body and *length := the next complete frame's body, valid
  // until the next call on this reader. For a router that passes most frames on as bytes.
  bool tryReadFrame(const unsigned char** body, uint32_t* length);

  // Whether a complete frame is buffered (readMessage(m, 0, false) would succeed).
  bool hasBufferedFrame() const;
  bool lastDecodeOk() const { return decodeOk_; }
  bool failed() const { return failed_; }
  // Unread bytes in the fixed buffer.
  unsigned int buffered() const { return static_cast<unsigned int>(end_ - start_); }

 private:
  void fail(FrameFailure what, long result, int err);
  // Moves the unread bytes to the buffer's start; the free room behind them is then maximal.
  void compact();
  unsigned int freeRoom() const {
    return static_cast<unsigned int>(buf_ + kReadBufferBytes - end_);
  }
  bool decode(message& m, const unsigned char* body, uint32_t length);
  // A non-blocking read into [dst, dst + room): the count, 0 when nothing is ready or the
  // connection failed.
  unsigned int readAvailable(unsigned char* dst, unsigned int room);

  int fd_;
  void* ctx_;
  FrameFailureFn onFailure_;
  uint32_t maxFrame_ = 0;
  bool failed_ = false;
  bool decodeOk_ = true;
  unsigned char* start_;
  unsigned char* end_;
  unsigned char buf_[kReadBufferBytes];
  // tryReadMessage's block for a frame larger than the buffer's room.
  std::vector<unsigned char> large_;
  size_t largeHave_ = 0;
  bool largeDone_ = false;  // large_ holds a whole frame already handed out
};

// Queues the frames that leave on a connection and writes them out (see the file comment).
class FrameWriter {
 public:
  // One frame waiting to go out: the heap block holding prefix and body, the first byte not
  // yet written and the count from there to the frame's end.
  // One queued frame: its block, where its unwritten part starts and how long that is.
  struct WriteItem {
    std::unique_ptr<unsigned char[]> buffer;  // the frame, length prefix included
    unsigned char* position;                  // the first byte not yet written
    uint32_t remaining;                       // bytes not yet written
  };

  // How flush() waits when the socket is full.
  enum FlushMode {
    kBlock,  // poll for writability without limit, then write again
    kSpin,   // start the pass over at once (busy)
    kTry,    // return; the rest stays queued, and later kTry flushes return at once
             // (no system call) until writable() says the socket has room again
  };

  // `fd` is a non-blocking stream socket (or -1 until setFd); the writer does not own it.
  // Failures go to onFailure(ctx, ...).
  FrameWriter(int fd, void* ctx, FrameFailureFn onFailure);
  FrameWriter(const FrameWriter&) = delete;
  FrameWriter& operator=(const FrameWriter&) = delete;

  // The socket to write to from now on (-1: none).
  void setFd(int fd) { fd_ = fd; }

  // Frames `m` and appends it to the queue. Returns the queued byte count after it.
  uint32_t queue(const message& m);
  // Appends an already framed block of `length` bytes (prefix included).
  uint32_t queueFrame(std::unique_ptr<unsigned char[]> frame, uint32_t length);
  // Writes the queue out. True when it is empty afterwards.
  bool flush(FlushMode mode);
  // The socket has room again (its owner's poll reported POLLOUT): kTry writes again.
  void writable() { full_ = false; }
  // Writes `length` bytes directly, bypassing the queue, waiting for room as needed.
  void writeRaw(const unsigned char* data, size_t length);

  // Removes every frame still queued and returns them in order; the first may have been
  // written in part (its `position` is then past the block's start). For an owner that
  // gives up on the connection and answers for what it held.
  std::list<WriteItem> takeQueue();

  uint32_t items() const { return items_; }  // frames queued
  uint32_t bytes() const { return bytes_; }  // bytes queued and not yet written
  bool failed() const { return failed_; }    // whether a failure was reported

 private:
  void fail(FrameFailure what, long result, int err);
  // Drops the frames that `written` bytes completed and advances a partly written head.
  void consume(size_t written);
  void waitWritable();

  int fd_;
  void* ctx_;
  FrameFailureFn onFailure_;
  bool failed_ = false;
  // A kTry flush found the socket full: the next ones would only build the same write and
  // have it refused, a cost that grows with the queue, for every frame queued behind it.
  bool full_ = false;
  std::list<WriteItem> queue_;
  uint32_t items_ = 0;
  uint32_t bytes_ = 0;
};

// A frame for `m` in one heap block: prefix and body. *length := the frame's size.
std::unique_ptr<unsigned char[]> makeFrame(const message& m, uint32_t* length);

}  // namespace kl

#endif  // KL_LOOPER_FRAMING_H_
