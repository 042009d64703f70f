// File: kl/base/diagnostics.h
//
// Where the library's diagnostic lines go: the store's "STORE: ..." lines, the id
// allocator's and the log client's. The standard error stream, unless a test sends them
// elsewhere to check or silence them. Process-wide; loop thread only.
#ifndef KL_BASE_DIAGNOSTICS_H_
#define KL_BASE_DIAGNOSTICS_H_

#include <cstdio>

namespace kl {

// The stream diagnostic lines are written to: stderr unless set otherwise.
FILE* diagnosticStream();

// Sends the diagnostic lines to `stream` from now on; null sends them back to stderr. The
// stream must stay open while it is set.
void setDiagnosticStream(FILE* stream);

}  // namespace kl

#endif  // KL_BASE_DIAGNOSTICS_H_
