#include "kl/base/root.h"

#include <cstdlib>
#include <cstring>

namespace kl {

namespace {

std::string readRoot() {
  const char* env = getenv("KL_ROOT");
  std::string root = env != nullptr ? env : "";
  while (!root.empty() && root.back() == '/') root.pop_back();
  return root;
}

bool isProcPath(const char* path) {
  return strncmp(path, "/proc", 5) == 0 && (path[5] == '\0' || path[5] == '/');
}

}  // namespace

const char* devRoot() {
  static const std::string root = readRoot();
  return root.c_str();
}

std::string rootedPath(const char* devicePath) {
  if (isProcPath(devicePath)) return devicePath;
  return std::string(devRoot()) + devicePath;
}

bool rootedPath(const char* devicePath, char* buf, size_t cap) {
  const char* root = isProcPath(devicePath) ? "" : devRoot();
  size_t rootLen = strlen(root);
  size_t pathLen = strlen(devicePath);
  if (rootLen + pathLen + 1 > cap) {
    if (cap > 0) buf[0] = '\0';
    return false;
  }
  memcpy(buf, root, rootLen);
  memcpy(buf + rootLen, devicePath, pathLen + 1);
  return true;
}

}  // namespace kl
