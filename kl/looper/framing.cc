#include "kl/looper/framing.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "kl/base/clock.h"
#include "kl/base/endian.h"

namespace kl {

namespace {

constexpr unsigned int kMaxFramesPerWrite = 1024;

}  // namespace

// --- reading ----------------------------------------------------------------------------

FrameReader::FrameReader(int fd, void* ctx, FrameFailureFn onFailure)
    : fd_(fd), ctx_(ctx), onFailure_(onFailure), start_(buf_), end_(buf_) {}

void FrameReader::fail(FrameFailure what, long result, int err) {
  failed_ = true;
  start_ = end_ = buf_;
  large_.clear();
  largeHave_ = 0;
  largeDone_ = false;
  onFailure_(ctx_, what, result, err);
}

void FrameReader::compact() {
  const size_t unread = buffered();
  if (unread != 0 && start_ != buf_) memmove(buf_, start_, unread);
  start_ = buf_;
  end_ = buf_ + unread;
}

unsigned int FrameReader::readRaw(unsigned char* buffer, unsigned int need, int timeout,
                                  unsigned int room) {
  const unsigned int limit = std::max(room, need);
  unsigned int got = 0;
  bool waited = false;
  uint32_t waitStart = 0;
  while (got < need) {
    const ssize_t n = read(fd_, buffer + got, limit - got);
    if (n > 0) {
      got += static_cast<unsigned int>(n);
      timeout = -1;  // the rest of a begun frame is always awaited
      continue;
    }
    if (n == 0) {
      fail(FrameFailure::kReadEof, 0, 0);
      return 0;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) {
      fail(FrameFailure::kReadError, static_cast<long>(n), errno);
      return 0;
    }
    if (timeout == 0) return 0;
    if (!waited) {
      waitStart = getJiffies();
      waited = true;
    }
    int pollMs = -1;
    if (timeout > 0) {
      const uint32_t elapsed = getJiffies() - waitStart;
      const uint32_t limitTicks = static_cast<uint32_t>(timeout);
      pollMs = elapsed >= limitTicks ? 0 : static_cast<int>((limitTicks - elapsed) * 10);
    }
    pollfd p{fd_, POLLIN, 0};
    int r;
    do {
      r = poll(&p, 1, pollMs);
    } while (r < 0 && errno == EINTR);
    if (r < 0) {
      fail(FrameFailure::kPollError, r, errno);
      return 0;
    }
    if (r == 0) return 0;
  }
  return got;
}

bool FrameReader::decode(message& m, const unsigned char* body, uint32_t length) {
  m = message();
  decodeOk_ = m.unflatten(body, length, message::flatten_full);
  return true;
}

bool FrameReader::hasBufferedFrame() const {
  if (buffered() < kFramePrefixBytes) return false;
  return static_cast<uint64_t>(loadLe32(start_)) + kFramePrefixBytes <= buffered();
}

bool FrameReader::readMessage(message& m, int timeout, bool mayRead) {
  if (failed_) return false;
  if (buffered() < kFramePrefixBytes) {
    if (!mayRead) return false;
    compact();
    end_ += readRaw(end_, kFramePrefixBytes - buffered(), timeout, freeRoom());
    if (buffered() < kFramePrefixBytes) return false;
  }
  const uint32_t length = loadLe32(start_);
  if (maxFrame_ != 0 && length > maxFrame_) {
    fail(FrameFailure::kTooLarge, static_cast<long>(length), 0);
    return false;
  }
  const uint64_t total = static_cast<uint64_t>(length) + kFramePrefixBytes;
  if (buffered() < total) {
    if (!mayRead) return false;
    const unsigned int missing = static_cast<unsigned int>(total - buffered());
    if (missing > freeRoom()) {
      // Too big for the room behind the buffered bytes: a block of exactly the body's
      // length, read up to the frame's end so that the next frame stays on the socket.
      std::unique_ptr<unsigned char[]> block(new (std::nothrow) unsigned char[length]);
      if (!block) {
        fail(FrameFailure::kTooLarge, static_cast<long>(length), ENOMEM);
        return false;
      }
      const unsigned int have = buffered() - kFramePrefixBytes;
      memcpy(block.get(), start_ + kFramePrefixBytes, have);
      readRaw(block.get() + have, length - have, -1, 0);
      if (failed_) return false;
      start_ = end_ = buf_;
      return decode(m, block.get(), length);
    }
    end_ += readRaw(end_, missing, -1, freeRoom());
    if (failed_) return false;
  }
  const unsigned char* body = start_ + kFramePrefixBytes;
  start_ += total;
  return decode(m, body, length);
}

unsigned int FrameReader::readAvailable(unsigned char* dst, unsigned int room) {
  for (;;) {
    const ssize_t n = read(fd_, dst, room);
    if (n > 0) return static_cast<unsigned int>(n);
    if (n == 0) {
      fail(FrameFailure::kReadEof, 0, 0);
      return 0;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) fail(FrameFailure::kReadError, static_cast<long>(n), errno);
    return 0;
  }
}

bool FrameReader::tryReadMessage(message& m) {
  const unsigned char* body;
  uint32_t length;
  if (!tryReadFrame(&body, &length)) return false;
  return decode(m, body, length);
}

bool FrameReader::tryReadFrame(const unsigned char** body, uint32_t* length) {
  if (failed_) return false;
  if (largeDone_) {  // the block handed out by the previous call
    std::vector<unsigned char>().swap(large_);
    largeHave_ = 0;
    largeDone_ = false;
  }
  if (!large_.empty()) {
    largeHave_ += readAvailable(large_.data() + largeHave_,
                                static_cast<unsigned int>(large_.size() - largeHave_));
    if (failed_ || largeHave_ < large_.size()) return false;
    largeDone_ = true;
    *body = large_.data();
    *length = static_cast<uint32_t>(large_.size());
    return true;
  }
  if (!hasBufferedFrame()) {
    compact();
    if (buffered() < kFramePrefixBytes) end_ += readAvailable(end_, freeRoom());
    if (failed_ || buffered() < kFramePrefixBytes) return false;
    const uint32_t frameLength = loadLe32(start_);
    if (maxFrame_ != 0 && frameLength > maxFrame_) {
      fail(FrameFailure::kTooLarge, static_cast<long>(frameLength), 0);
      return false;
    }
    if (static_cast<uint64_t>(frameLength) + kFramePrefixBytes > kReadBufferBytes) {
      large_.resize(frameLength);
      largeHave_ = buffered() - kFramePrefixBytes;
      memcpy(large_.data(), start_ + kFramePrefixBytes, largeHave_);
      start_ = end_ = buf_;
      return tryReadFrame(body, length);
    }
    if (!hasBufferedFrame()) end_ += readAvailable(end_, freeRoom());
    if (failed_ || !hasBufferedFrame()) return false;
  }
  *length = loadLe32(start_);
  *body = start_ + kFramePrefixBytes;
  start_ += *length + kFramePrefixBytes;
  return true;
}

// --- writing ----------------------------------------------------------------------------

std::unique_ptr<unsigned char[]> makeFrame(const message& m, uint32_t* length) {
  unsigned int body = m.max_length();
  std::unique_ptr<unsigned char[]> frame(new unsigned char[body + kFramePrefixBytes]);
  m.flatten(frame.get() + kFramePrefixBytes, &body);
  storeLe32(frame.get(), body);
  *length = body + kFramePrefixBytes;
  return frame;
}

FrameWriter::FrameWriter(int fd, void* ctx, FrameFailureFn onFailure)
    : fd_(fd), ctx_(ctx), onFailure_(onFailure) {}

void FrameWriter::fail(FrameFailure what, long result, int err) {
  failed_ = true;
  queue_.clear();
  items_ = bytes_ = 0;
  onFailure_(ctx_, what, result, err);
}

uint32_t FrameWriter::queue(const message& m) {
  uint32_t length;
  std::unique_ptr<unsigned char[]> frame = makeFrame(m, &length);
  return queueFrame(std::move(frame), length);
}

uint32_t FrameWriter::queueFrame(std::unique_ptr<unsigned char[]> frame, uint32_t length) {
  if (failed_) return bytes_;
  unsigned char* start = frame.get();
  queue_.push_back(WriteItem{std::move(frame), start, length});
  ++items_;
  bytes_ += length;
  return bytes_;
}

std::list<FrameWriter::WriteItem> FrameWriter::takeQueue() {
  std::list<WriteItem> taken;
  taken.swap(queue_);
  items_ = bytes_ = 0;
  return taken;
}

void FrameWriter::consume(size_t written) {
  while (written > 0 && !queue_.empty()) {
    WriteItem& head = queue_.front();
    if (written < head.remaining) {
      head.position += written;
      head.remaining -= static_cast<uint32_t>(written);
      bytes_ -= static_cast<uint32_t>(written);
      return;
    }
    written -= head.remaining;
    bytes_ -= head.remaining;
    --items_;
    queue_.pop_front();
  }
}

void FrameWriter::waitWritable() {
  pollfd p{fd_, POLLOUT, 0};
  while (poll(&p, 1, -1) < 0 && errno == EINTR) {
  }
}

bool FrameWriter::flush(FlushMode mode) {
  if (mode == kTry && full_) return queue_.empty();
  iovec iov[kMaxFramesPerWrite];
  while (!queue_.empty() && !failed_) {
    int count = 0;
    for (auto it = queue_.begin(); it != queue_.end() && count < int(kMaxFramesPerWrite);
         ++it, ++count) {
      iov[count].iov_base = it->position;
      iov[count].iov_len = it->remaining;
    }
    // sendmsg rather than writev only for MSG_NOSIGNAL: a vanished peer is reported as
    // EPIPE to the owner instead of killing the process with SIGPIPE.
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(count);
    const ssize_t n = sendmsg(fd_, &msg, MSG_NOSIGNAL);
    if (n > 0) {
      consume(static_cast<size_t>(n));
      continue;
    }
    if (n == 0) {
      fail(FrameFailure::kFlushEof, 0, 0);
      break;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) {
      fail(FrameFailure::kFlushError, static_cast<long>(n), errno);
      break;
    }
    if (mode == kTry) {
      full_ = true;
      return false;
    }
    if (mode == kBlock) waitWritable();
  }
  return queue_.empty();
}

void FrameWriter::writeRaw(const unsigned char* data, size_t length) {
  size_t done = 0;
  while (done < length && !failed_) {
    const ssize_t n = send(fd_, data + done, length - done, MSG_NOSIGNAL);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n == 0) {
      fail(FrameFailure::kRawEof, 0, 0);
    } else if (errno == EAGAIN) {
      waitWritable();
    } else if (errno != EINTR) {
      fail(FrameFailure::kRawError, static_cast<long>(n), errno);
    }
  }
}

}  // namespace kl
