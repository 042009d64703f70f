// File: kl/util/system.h
//
// Small wrappers around the operating system: kernel modules, package markers, files,
// memory figures and uptime. Device paths ("/lib/modules", "/var/pdb", "/var/ramcc") are
// taken under the development root (kl/base/root.h); /proc is read as it is.
#ifndef KL_UTIL_SYSTEM_H_
#define KL_UTIL_SYSTEM_H_

#include <string>

// Loads <root>/lib/modules/<kernel release>/<module> with `params` (null means none) through
// the init_module system call and returns its result; -1 when the file cannot be opened,
// examined or mapped.
int insmod(const char* module, const char* params);
// Unloads kernelModuleName(module) through the delete_module system call (O_NONBLOCK |
// O_EXCL) and returns its result.
int rmmod(const char* module);
// The name rmmod unloads: the part after the last "/", "-" replaced by "_", cut at the first
// ".": "/lib/modules/x/foo-bar.ko" -> "foo_bar".
std::string kernelModuleName(const char* module);

// Whether `name` is at least 7 characters long and ends with ".backup".
bool isSensitiveFile(const std::string& name);
// Copies the regular file src to dst in 4096-byte blocks, creating dst with src's permission
// bits (set-id and sticky included). dst is not truncated: pass one that does not exist.
// False on any failure; both descriptors are always closed.
bool copyFile(const std::string& src, const std::string& dst);
// out := the absolute form of `in` with "." and empty segments dropped and ".." applied:
// "a/./b/../c" -> "/a/c", "//x//" -> "/x", "" -> "" (true). False, out empty, when ".."
// climbs above the root.
bool normalizePath(std::string in, std::string& out);
// Whether `path` is not empty and can be opened for reading.
bool fileExists(const std::string& path);

namespace kl {

// Whether <root>/var/pdb/<name> is a directory without a "disabled" entry. False for null.
bool isPackageActive(const char* name);
// Free memory in kB: MemFree + Buffers + Cached from /proc/meminfo, less the space used in
// the tmpfs at <root>/var/ramcc (its pages count as Cached). The four lines must stand in
// that order (MemTotal, MemFree, Buffers, Cached); otherwise the result is 0xFFFFFFFF.
// *total (when given) := MemTotal.
unsigned getFreeMemory(unsigned* total);
// The same from the given meminfo and ramcc paths (taken as they are).
unsigned getFreeMemory(const char* meminfoPath, const char* ramccPath, unsigned* total);
// Seconds from the tick clock (getJiffies() / 100), starting near 300.
unsigned getUptime();

}  // namespace kl

#endif  // KL_UTIL_SYSTEM_H_
