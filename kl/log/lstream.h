// File: kl/log/lstream.h
//
// kl::lstream, the output stream a service writes its log lines to, and its buffer
// kl::lstreambuf. A stream is constructed with its topics, 16-bit numbers that the caller
// assigns, given as a list ending with 0:
//
//   kl::lstream log(TOPIC_ROUTING, TOPIC_DEBUG, 0);
//   if (!log.isMuted()) log << "route " << prefix << " added" << std::endl;
//
// A line goes to the process's Logger (kl/log/logger.h) when the stream is flushed (endl,
// flush, destruction), with one trailing newline removed. The buffer holds 256 bytes: a longer
// text goes out in 256-byte pieces, each a line of its own. Streams with the same topics in
// the same order share one log source. Loop thread only.
#ifndef KL_LOG_LSTREAM_H_
#define KL_LOG_LSTREAM_H_

#include <cstdarg>
#include <ostream>
#include <streambuf>
#include <vector>

#include "kl/log/logger.h"

namespace kl {

// The buffer behind lstream: collects one line and hands it to the Logger when flushed.
class lstreambuf : public std::streambuf {
 public:
  static constexpr unsigned int kSize = 256;  // bytes of a line sent in one piece

  // Topics from a 0-terminated array (the 0 is not a topic; each value is cut to 16 bits).
  explicit lstreambuf(unsigned int* topics);
  // `first`, then the unsigned int arguments in `more` up to a terminating 0 (none are read
  // when `first` is 0).
  lstreambuf(unsigned int first, va_list more);
  lstreambuf(const lstreambuf&) = delete;
  lstreambuf& operator=(const lstreambuf&) = delete;
  // Sends what the buffer still holds.
  ~lstreambuf() override;

  // Sends the buffered text as one line and empties the buffer. The first non-empty flush
  // fetches the Logger and the source of the topics. With an echo buffer the text is also
  // copied there, followed by a newline and a flush, whether or not the line was logged.
  // Always true.
  bool flushBuffer();

  // Every line flushed from now on is also written to `echo` (null: none). REQUIRES: echo
  // outlives this buffer or is reset first.
  void setEcho(std::streambuf* echo) { echo_ = echo; }
  std::streambuf* echo() const { return echo_; }
  // The source of the topics; null until the first non-empty flush.
  const Source* source() const { return source_; }
  const std::vector<unsigned short>& topics() const { return topics_; }

 protected:
  // The buffer is full: `c` takes the byte kept for it and the 256 bytes are sent.
  int_type overflow(int_type c) override;
  // 0 (flushBuffer always succeeds).
  int sync() override;

 private:
  void addTopic(unsigned int topic) { topics_.push_back(static_cast<unsigned short>(topic)); }

  char buffer_[kSize];  // the put area is the first 255 bytes; overflow fills the last
  std::vector<unsigned short> topics_;
  Logger* logger_ = nullptr;
  Source* source_ = nullptr;
  std::streambuf* echo_ = nullptr;
};

// The stream a service writes its log lines to, with its topics (see the file comment).
class lstream : public std::ostream {
 public:
  // Topics as arguments ending with 0: lstream(3, 7, 0). REQUIRES: the terminating 0.
  explicit lstream(unsigned int topic, ...);
  // Topics from a 0-terminated array.
  explicit lstream(unsigned int* topics);
  // As lstream(topic, ...), and every flushed line is also written to `echo` followed by a
  // newline and a flush. REQUIRES: echo outlives this stream.
  lstream(std::ostream& echo, unsigned int topic, ...);
  lstream(const lstream&) = delete;
  lstream& operator=(const lstream&) = delete;
  // Sends what the buffer still holds.
  ~lstream() override;

  // True when the log service has muted this stream's source and no echo is set: a caller
  // may then skip building the line. False before the stream's first line.
  bool isMuted();

 private:
  lstreambuf* buf_;
};

}  // namespace kl

#endif  // KL_LOG_LSTREAM_H_
