// File: kl/testing/log_peer.h
//
// Support for the log tests: the service's end of the log socket (a real listening Unix
// socket under a temporary root), record builders in host order, and bounded waits.
#ifndef KL_TESTING_LOG_PEER_H_
#define KL_TESTING_LOG_PEER_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "kl/base/endian.h"
#include "kl/log/log_format.h"

namespace kl {
namespace testing {

using Bytes = std::vector<unsigned char>;

// A record made of 16-bit host-order words followed by `text`.
inline Bytes words(std::initializer_list<unsigned int> values, const std::string& text = "") {
  Bytes out(2 * values.size());
  size_t at = 0;
  for (unsigned int v : values) {
    storeHost16(&out[at], static_cast<uint16_t>(v));
    at += 2;
  }
  out.insert(out.end(), text.begin(), text.end());
  return out;
}

// The line record of source `id`.
inline Bytes lineRecord(unsigned int id, const std::string& text) {
  return words({static_cast<unsigned int>(4 + text.size()), id}, text);
}

// The registration record of source `id`.
inline Bytes regRecord(unsigned int id, std::vector<unsigned short> topics) {
  return logformat::encodeRegistration(static_cast<uint16_t>(id), topics);
}

inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// True when fd becomes readable within `ms` milliseconds.
inline bool waitReadable(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) == 1;
}

// Everything readable on fd now, without waiting (after a bounded wait for the first byte
// when `waitMs` > 0).
inline Bytes drain(int fd, int waitMs = 0) {
  Bytes out;
  if (waitMs > 0 && !waitReadable(fd, waitMs)) return out;
  unsigned char buf[4096];
  for (;;) {
    const ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n <= 0) break;
    out.insert(out.end(), buf, buf + n);
  }
  return out;
}

inline sockaddr_un unixAddress(const std::string& path) {
  sockaddr_un addr;
  memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size());
  return addr;
}

// A listening stream socket at `path`; -1 on failure.
inline int listenAt(const std::string& path) {
  unlink(path.c_str());
  const sockaddr_un addr = unixAddress(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 8) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// A stream connection to `path`; -1 on failure.
inline int connectTo(const std::string& path) {
  const sockaddr_un addr = unixAddress(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// The next pending connection on listenFd, waiting at most 5 s; -1 when none came.
inline int acceptWithin(int listenFd) {
  if (!waitReadable(listenFd, 5000)) return -1;
  return accept(listenFd, nullptr, nullptr);
}

inline bool writeAll(int fd, const Bytes& bytes) {
  return write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

}  // namespace testing
}  // namespace kl

#endif  // KL_TESTING_LOG_PEER_H_
