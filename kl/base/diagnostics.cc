#include "kl/base/diagnostics.h"

namespace kl {

namespace {

FILE* diagnostics = nullptr;  // null: stderr, which is not a constant to initialise with

}  // namespace

FILE* diagnosticStream() { return diagnostics != nullptr ? diagnostics : stderr; }

void setDiagnosticStream(FILE* stream) { diagnostics = stream; }

}  // namespace kl
