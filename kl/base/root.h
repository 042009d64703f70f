// File: kl/base/root.h
//
// The development root. The library refers to fixed absolute device paths
// ("/ram/kelosock", "/dev/log244", "/var/pdb/..."). Each of them is joined onto a root
// directory read once per process from the environment variable KL_ROOT; unset or empty
// means "/", the device itself. Paths under /proc are never re-rooted. This lets a
// developer run services, the development loader and the tests unprivileged on a
// workstation: KL_ROOT=/tmp/dev ./my-service.
#ifndef KL_BASE_ROOT_H_
#define KL_BASE_ROOT_H_

#include <cstddef>
#include <string>

namespace kl {

// The root without a trailing slash: "" for the device itself, else e.g. "/tmp/dev".
// Read from KL_ROOT on the first call and never again; the result stays valid for the
// life of the process.
const char* devRoot();

// `devicePath` (absolute, e.g. "/dev/log244") under the development root.
// Paths equal to "/proc" or below it come back unchanged.
std::string rootedPath(const char* devicePath);

// The same into a caller's buffer, without allocating (for code that must run in a signal
// handler, which prepares its paths with this in advance). Returns false, with `buf` holding
// an empty string when `cap` > 0, if the result and its NUL do not fit in `cap` bytes.
bool rootedPath(const char* devicePath, char* buf, size_t cap);

}  // namespace kl

#endif  // KL_BASE_ROOT_H_
