// File: kl/looper/path.h
//
// Small helpers for the handler-id paths in SYS_TO and SYS_FROM. They read and replace the
// whole array rather than writing through a reference: a reference from the non-const
// accessors would mark the message unshareable, and every later copy would then clone it.
#ifndef KL_LOOPER_PATH_H_
#define KL_LOOPER_PATH_H_

#include <vector>

#include "kl/message/message.h"

namespace kl {

// Puts `value` at the front of the array `field` (creating it).
inline void pushPathFront(message& m, u32_array_id field, unsigned int value) {
  std::vector<unsigned int> path = m.get_u32_array(field);
  path.insert(path.begin(), value);
  m.insert(field, path);
}

// Removes the first element of the array `field` (which must not be empty).
inline void popPathFront(message& m, u32_array_id field) {
  std::vector<unsigned int> path = m.get_u32_array(field);
  path.erase(path.begin());
  m.insert(field, path);
}

// Creates the array `field` empty when the message has none.
inline void ensurePath(message& m, u32_array_id field) {
  if (!m.has(field)) m.insert(field, std::vector<unsigned int>());
}

}  // namespace kl

#endif  // KL_LOOPER_PATH_H_
