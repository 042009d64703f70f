#include "kl/log/lstream.h"

namespace kl {

lstreambuf::lstreambuf(unsigned int* topics) {
  for (; *topics != 0; ++topics) addTopic(*topics);
  setp(buffer_, buffer_ + kSize - 1);
}

lstreambuf::lstreambuf(unsigned int first, va_list more) {
  // A first argument of 0 is the terminator of an empty list: nothing follows it to read.
  for (unsigned int topic = first; topic != 0; topic = va_arg(more, unsigned int)) {
    addTopic(topic);
  }
  setp(buffer_, buffer_ + kSize - 1);
}

lstreambuf::~lstreambuf() { sync(); }

bool lstreambuf::flushBuffer() {
  unsigned int len = static_cast<unsigned int>(pptr() - pbase());
  if (len == 0) return true;
  if (logger_ == nullptr) {
    logger_ = Logger::getLogger();
    source_ = logger_->registerSource(topics_);
  }
  if (buffer_[len - 1] == '\n') --len;
  logger_->log(source_, buffer_, len);
  if (echo_ != nullptr) {
    echo_->sputn(buffer_, len);
    echo_->sputc('\n');
    echo_->pubsync();
  }
  setp(buffer_, buffer_ + kSize - 1);
  return true;
}

lstreambuf::int_type lstreambuf::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::eof();
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  flushBuffer();
  return c;
}

int lstreambuf::sync() { return flushBuffer() ? 0 : -1; }

lstream::lstream(unsigned int topic, ...) : std::ostream(nullptr) {
  va_list more;
  va_start(more, topic);
  buf_ = new lstreambuf(topic, more);
  va_end(more);
  rdbuf(buf_);
}

lstream::lstream(unsigned int* topics) : std::ostream(nullptr), buf_(new lstreambuf(topics)) {
  rdbuf(buf_);
}

lstream::lstream(std::ostream& echo, unsigned int topic, ...) : std::ostream(nullptr) {
  va_list more;
  va_start(more, topic);
  buf_ = new lstreambuf(topic, more);
  va_end(more);
  buf_->setEcho(echo.rdbuf());
  rdbuf(buf_);
}

lstream::~lstream() { delete buf_; }

bool lstream::isMuted() {
  const Source* source = buf_->source();
  return source != nullptr && source->muted && buf_->echo() == nullptr;
}

}  // namespace kl
