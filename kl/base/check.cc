#include "kl/base/check.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace kl {

namespace {

// Appends `s` to the fixed buffer, dropping what does not fit.
void append(char* buf, size_t cap, size_t* used, const char* s) {
  size_t n = strlen(s);
  if (n > cap - *used) n = cap - *used;
  memcpy(buf + *used, s, n);
  *used += n;
}

}  // namespace

void checkFailed(const char* expr, const char* file, unsigned int line, const char* function) {
  char digits[12];
  char* d = digits + sizeof digits;
  *--d = '\0';
  do {
    *--d = static_cast<char>('0' + line % 10);
    line /= 10;
  } while (line != 0);

  char buf[1024];
  size_t used = 0;
  const size_t cap = sizeof buf - 1;  // room for the line feed
  const char* parts[] = {file, ":", d, ": ", function, ": Assertion `", expr, "' failed."};
  for (const char* part : parts) append(buf, cap, &used, part);
  buf[used++] = '\n';
  for (size_t off = 0; off < used;) {
    ssize_t n = ::write(2, buf + off, used - off);
    if (n <= 0) break;
    off += static_cast<size_t>(n);
  }
  abort();
}

}  // namespace kl
