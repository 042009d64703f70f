#include "kl/log/logger.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "kl/base/diagnostics.h"
#include "kl/base/root.h"
#include "kl/log/log_format.h"
#include "kl/runner/thin_runner.h"

namespace kl {

namespace {

constexpr int kWriteAttempts = 3;
constexpr useconds_t kRetrySleepUs = 100000;
constexpr unsigned int kReadSize = 256;

}  // namespace

Logger* Logger::getLogger() {
  static Logger* const logger = new Logger;
  return logger;
}

Logger::Logger() {
  signal(SIGPIPE, SIG_IGN);
  connectToLog();
}

Logger::~Logger() {
  if (fd_ >= 0) close(fd_);
}

// The descriptor is forgotten, not closed, and mutes stay: a direct call starts a new
// connection beside the old one, which the service then sees end.
void Logger::connectToLog() {
  fd_ = -1;
  ThinRunner* runner = getRunner();
  if (runner == nullptr) {
    fprintf(diagnosticStream(), "no runner while connecting to log\n");
    return;
  }
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  const std::string path = rootedPath(logformat::kSocketPath);
  int fd = -1;
  if (path.size() >= sizeof addr.sun_path) {
    errno = ENAMETOOLONG;
  } else {
    memcpy(addr.sun_path, path.c_str(), path.size());
    fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    // The full address length, as the device's log service expects it.
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      const int saved = errno;
      close(fd);
      fd = -1;
      errno = saved;
    }
  }
  if (fd < 0) {
    fprintf(diagnosticStream(), "could not connect to log: %s\n", strerror(errno));
    return;
  }
  fd_ = fd;
  if (fcntl(fd_, F_SETFL, O_NONBLOCK) != 0) {
    fprintf(diagnosticStream(), "could not set to non blocking: %s\n", strerror(errno));
  }
  runner->addSocket(fd_, this, onSocket, POLLIN);
  // Registrations do not survive the connection: each source sends its own again, lazily,
  // before its next line.
  for (Source* source : sources_) source->registered = false;
}

void Logger::closeConnection() {
  if (fd_ >= 0) {
    close(fd_);
    if (ThinRunner* runner = getRunner()) runner->removeSocket(fd_);
  }
  fd_ = -1;
  for (Source* source : sources_) {
    source->muted = false;
    source->registered = false;
  }
}

void Logger::onSocket(void* ctx, int fd, unsigned int) {
  static_cast<Logger*>(ctx)->readNotices(fd);
}

void Logger::readNotices(int fd) {
  if (fd != fd_) {
    fprintf(diagnosticStream(), "wrong alarm\n");
    return;
  }
  unsigned char buf[kReadSize];
  const ssize_t n = read(fd_, buf, sizeof buf);
  if (n == 0) {
    fprintf(diagnosticStream(), "EOF\n");
    closeConnection();
    return;
  }
  if (n < 0) {
    // A failed read, EAGAIN included, holds no notice: treated as a bad one.
    fprintf(diagnosticStream(), "msg has bad len, dropping\n");
    closeConnection();
    return;
  }
  applyNotices(buf, static_cast<unsigned int>(n));
}

// Notices are read 256 bytes at a time and a piece of one left at the end of a read is
// not kept for the next: the service sends few and the connection is cheap to make again.
void Logger::applyNotices(const unsigned char* data, unsigned int len) {
  while (len >= logformat::kNoticeLength) {
    if (loadHost16(data) != logformat::kNoticeLength) {
      fprintf(diagnosticStream(), "msg has bad len, dropping\n");
      closeConnection();
      return;
    }
    const unsigned int id = loadHost16(data + 2);
    if (id >= 1 && id <= sources_.size()) sources_[id - 1]->muted = loadHost16(data + 4) != 0;
    data += logformat::kNoticeLength;
    len -= logformat::kNoticeLength;
  }
  if (len != 0) {
    fprintf(diagnosticStream(), "msg too short, dropping\n");
    closeConnection();
  }
}

Source* Logger::registerSource(const std::vector<unsigned short>& topics) {
  auto found = sourceMap_.find(topics);
  if (found != sourceMap_.end()) return &found->second;
  auto inserted = sourceMap_.emplace(topics, Source{}).first;
  Source* source = &inserted->second;
  *source = Source{&inserted->first, static_cast<unsigned int>(sources_.size() + 1), false, false};
  sources_.push_back(source);
  sendRegistration(source);
  return source;
}

void Logger::sendRegistration(Source* source) {
  const std::vector<unsigned char> record =
      logformat::encodeRegistration(static_cast<uint16_t>(source->id), *source->topics);
  source->registered = writeMsg(record.data(), static_cast<unsigned int>(record.size()), true);
}

void Logger::log(Source* source, const char* text, unsigned int len) {
  // lstreambuf never hands over more than one record's text; a direct caller's longer text
  // is cut into records of the same size, each sent as a line of its own: the connection
  // may be made anew between two of them, and the source registers again first.
  do {
    if (source->muted) return;
    if (!source->registered) {
      sendRegistration(source);
      if (!source->registered) {
        fprintf(diagnosticStream(), "registeration failed, dropping a line\n");
        return;
      }
    }
    const unsigned int piece = len < logformat::kMaxText ? len : logformat::kMaxText;
    sendLine(source, text, piece);
    text += piece;
    len -= piece;
  } while (len > 0);
}

void Logger::sendLine(Source* source, const char* text, unsigned int len) {
  unsigned char record[logformat::kLineHeader + logformat::kMaxText];
  logformat::encodeLine(record, static_cast<uint16_t>(source->id), text, len);
  writeMsg(record, len + logformat::kLineHeader, false);
}

bool Logger::writeMsg(const unsigned char* data, unsigned int len, bool) {
  if (fd_ < 0) connectToLog();
  if (fd_ < 0) {
    fprintf(diagnosticStream(), "dropping\n");
    return false;
  }
  if (writeRaw(data, len) >= len) return true;
  fprintf(diagnosticStream(), "dopping line\n");
  return false;
}

// A full socket blocks the process for at most three sleeps per record. The result is the
// length of the write that completed, so a record that needed a second write is reported as
// short (and printed as dropped) although all of it went out: callers rely on this count.
unsigned int Logger::writeRaw(const unsigned char* data, unsigned int len) {
  int attempts = 0;
  unsigned int written = 0;
  for (;;) {
    const ssize_t n = write(fd_, data, len);
    if (n >= 0 && static_cast<unsigned int>(n) == len) return len;
    if (n < 0 && errno != EAGAIN) {
      fprintf(diagnosticStream(), "writeRaw failed: %s\n", strerror(errno));
      fprintf(diagnosticStream(), "ret=-1, len=%u\n", len);
      closeConnection();
      return 0;
    }
    if (attempts == kWriteAttempts) {
      if (written == 0) return 0;
      fprintf(diagnosticStream(), "partial write written=%u\n", written);
      return written;
    }
    if (n > 0) {
      data += n;
      len -= static_cast<unsigned int>(n);
      written += static_cast<unsigned int>(n);
    }
    fprintf(diagnosticStream(), "sleeping\n");
    ++attempts;
    usleep(kRetrySleepUs);
  }
}

}  // namespace kl
