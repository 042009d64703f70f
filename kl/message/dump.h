// File: kl/message/dump.h
//
// The message dump: a fixed, line-oriented text form of a message for diagnostics, printed
// by message::dump2 on a standard stream or into a kl::Dumper.
//
//   --- kl::message --------
//    bool [SYS_REPLYEXP]=true
//    u32 [SYS_CMD]=CMD_GETALL
//    string [STD_DESCR]=uplink
//    u32[] [SYS_TO]=5(ID_5), 7,
//   ------------------------
//
// Every line starts with the caller's prefix and four spaces per nesting level. Bools, then
// u32 fields, then the other scalars, then arrays; nested messages follow their field's
// line one level deeper. Nested messages are shown down to kMaxDumpNesting levels below the
// dumped one; a message nested deeper is replaced by the single line
// "--- kl::message nested too deep ---", so that a hostile input bounds the stack and the
// memory a dump takes. A dump into a Dumper stops as soon as its buffer is full.
#ifndef KL_MESSAGE_DUMP_H_
#define KL_MESSAGE_DUMP_H_

#include <cstdio>
#include <ostream>

#include "kl/message/message.h"

namespace kl {

// An output stream that appends to a caller-supplied fixed buffer and never allocates or
// fails: what does not fit is dropped silently, and no terminating NUL is written. Its own
// operators bypass stream formatting (numbers print as fixed-width hexadecimal), so it can
// serve in a fatal-signal handler. Use only the members below; the std::ostream base exists
// so that a Dumper can be passed where a stream is expected, and writes nothing itself.
class Dumper : public virtual std::ostream {
 public:
  // REQUIRES: `buf` holds `capacity` bytes and outlives the Dumper.
  Dumper(char* buf, unsigned int capacity);

  // Appends min(n, room left) bytes of `data`.
  Dumper& write(const char* data, unsigned int n);
  Dumper& operator<<(const char* s);
  Dumper& operator<<(unsigned char b);       // two lowercase hex digits
  Dumper& operator<<(unsigned int v);        // "0x" and 8 lowercase hex digits
  Dumper& operator<<(unsigned long long v);  // "0x" and 16 lowercase hex digits

  const char* data() const { return buf_; }            // what was written
  unsigned int size() const { return used_; }          // bytes written
  unsigned int capacity() const { return capacity_; }  // bytes the buffer holds
  // Whether the buffer is full: nothing more written is kept.
  bool full() const { return used_ == capacity_; }
  // Forgets what was written.
  void clear() { used_ = 0; }

 private:
  char* buf_;
  unsigned int capacity_;
  unsigned int used_ = 0;
};

// Prints the dump of `m` (no prefix, depth 0) on the C library's stream `out` and flushes
// it, for diagnostics that print through stdio.
void printDump(const message& m, FILE* out);

// How many levels of nested messages a dump shows below the dumped message.
constexpr unsigned int kMaxDumpNesting = 32;

// Ends a dump line: a line feed on a Dumper, std::endl on a standard stream.
inline void doEndl(Dumper& out) { out.write("\n", 1); }
inline void doEndl(std::ostream& out) { out << std::endl; }

// The handler-id name table: names of the well-known service handler ids 0-109, printed
// after the first element of SYS_TO and SYS_FROM. The built-in table names 1 "ID_LOADER",
// 17 "ID_UNDO", 24 "ID_TIME" and every other id "ID_<number>".
constexpr unsigned int kHandlerIdNameCount = 110;
// The name of `id`, or null when id >= kHandlerIdNameCount.
const char* handlerIdName(unsigned int id);
// Installs the system's own table. `names` holds kHandlerIdNameCount entries; a null entry
// keeps the built-in name. The strings must outlive every later dump. Not thread-safe.
void setHandlerIdNames(const char* const* names);

}  // namespace kl

#endif  // KL_MESSAGE_DUMP_H_
