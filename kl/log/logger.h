// File: kl/log/logger.h
//
// kl::Logger, the process's client of the system log service. It keeps one non-blocking
// stream connection to <root>/kelo/logs/logsocket (kl/log/log_format.h has the records),
// registers each distinct topic list once per connection as a numbered source, sends each
// line as a record tagged with its source id, and obeys the mute notices the service sends
// back, so that lines nobody wants are dropped in the process before they cost a write.
//
// Failures of the log path never stop the process: they print one line on the error stream
// and the line is dropped; a lost line is never retried, and the connection is made again on
// the next write. A write to a service that went away must fail rather than end the
// process, so constructing a Logger ignores SIGPIPE for the whole process.
//
// Services reach the Logger through kl::lstream (kl/log/lstream.h); the process-wide
// instance is getLogger(). A connection needs the process's runner (kl::getRunner()), which
// delivers the mute notices. Loop thread only.
#ifndef KL_LOG_LOGGER_H_
#define KL_LOG_LOGGER_H_

#include <map>
#include <vector>

namespace kl {

// One distinct topic list, registered with the log service as a numbered source. Owned by
// the Logger's source map; pointers to it stay valid for the life of the Logger.
struct Source {
  const std::vector<unsigned short>* topics;  // the map key
  unsigned int id;                            // 1, 2, 3... in order of first use; sent as u16
  bool muted;                                 // set by the service's mute notices
  bool registered;                            // registration written on this connection
};

// The process's connection to the log service: registers sources with their topics, sends
// their lines and honours mute notices (see the file comment).
class Logger {
 public:
  // The process-wide Logger, created on the first call and never destroyed.
  static Logger* getLogger();

  // Ignores SIGPIPE for the whole process, then connectToLog(). Without a service or a runner
  // the Logger starts unconnected (with a diagnostic line) and tries again on each write.
  Logger();
  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;
  // Closes the socket if it is open (it stays registered with the runner).
  ~Logger();

  // Connects to the log service anew; a connection it had is forgotten, not closed, and the
  // sources keep their mutes. Without a runner: "no runner while connecting to log".
  // On failure the Logger is unconnected (socket() == -1) after "could not connect to log: "
  // + the error. On success the socket is non-blocking, watched by the runner for mute
  // notices, and every source re-registers before its next line.
  void connectToLog();
  // Closes the connection (and stops the runner watching it); every source becomes
  // unregistered and not muted. Harmless when not connected.
  void closeConnection();

  // The runner's socket callback for the connection (ctx = the Logger): applies the mute
  // notices read. EOF, a notice whose length is not 6, or a trailing piece of one close the
  // connection with one line ("EOF", "msg has bad len, dropping", "msg too short, dropping").
  static void onSocket(void* ctx, int fd, unsigned int events);

  // The source of `topics`: the existing one for an equal list, else a new one with the next
  // id, whose registration is sent at once. The result lives as long as the Logger.
  Source* registerSource(const std::vector<unsigned short>& topics);
  // Writes the registration record of `source`; its registered flag becomes the result.
  void sendRegistration(Source* source);
  // Sends `len` bytes of `text` as a line of `source`, registering it first on this
  // connection if needed. A muted source's line is dropped silently; a text longer than 256
  // bytes goes out in 256-byte records, each registering the source again first when the
  // connection was made anew since.
  void log(Source* source, const char* text, unsigned int len);
  // Sends one record, connecting first if needed. True when writeRaw reports the whole
  // `len` written. `registration` tells a registration from a line; it changes nothing.
  bool writeMsg(const unsigned char* data, unsigned int len, bool registration);
  // Writes `len` bytes, retrying a full socket up to three times 100 ms apart (so at most
  // 300 ms per record). Returns the length passed to the write that completed (after a
  // partial write less than `len`), the bytes written when the retries ran out, or 0 when
  // nothing was written or the write failed (the connection is then closed).
  unsigned int writeRaw(const unsigned char* data, unsigned int len);

  // The connection's descriptor, -1 while not connected.
  int socket() const { return fd_; }
  // The sources, index = id - 1.
  const std::vector<Source*>& sources() const { return sources_; }

 private:
  void readNotices(int fd);
  void applyNotices(const unsigned char* data, unsigned int len);
  void sendLine(Source* source, const char* text, unsigned int len);

  std::map<std::vector<unsigned short>, Source> sourceMap_;  // lexicographic order
  std::vector<Source*> sources_;
  int fd_ = -1;
};

}  // namespace kl

#endif  // KL_LOG_LOGGER_H_
