// File: kl/log/log_format.h
//
// The records between a process and the log service, shared by the client (kl::Logger) and
// the development service (kl-logd). One local stream socket carries records back to back
// with no other framing. Every integer is 16 bits in the HOST's byte order (big-endian on the
// device): both ends always run on the same machine, so this is the one protocol of the
// system that is not little-endian. All stores and loads go through storeHost16/loadHost16.
//
//   registration, client -> service, once per source and connection:
//     [0] length = 8 + 2n   [2] 0   [4] 0   [6] source id   [8] n topic numbers
//   line, client -> service:
//     [0] length = 4 + text length   [2] source id (>= 1)   [4] text, no NUL, no newline
//   mute notice, service -> client:
//     [0] length = 6   [2] source id   [4] non-zero: mute, 0: unmute
//
// A line record never has 0 at offset 2, since source ids start at 1; that is how the
// service tells a registration from a line.
#ifndef KL_LOG_LOG_FORMAT_H_
#define KL_LOG_LOG_FORMAT_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "kl/base/endian.h"

namespace kl {
namespace logformat {

// The log service's socket, under the development root (kl/base/root.h).
constexpr const char kSocketPath[] = "/kelo/logs/logsocket";

// Bytes before the topics of a registration, before the text of a line, and of a mute
// notice.
constexpr unsigned int kRegistrationHeader = 8;
constexpr unsigned int kLineHeader = 4;
constexpr unsigned int kNoticeLength = 6;
// The longest line text a client sends in one record.
constexpr unsigned int kMaxText = 256;

// The registration record of source `id` with `topics`.
inline std::vector<unsigned char> encodeRegistration(uint16_t id,
                                                     const std::vector<unsigned short>& topics) {
  std::vector<unsigned char> out(kRegistrationHeader + 2 * topics.size());
  storeHost16(&out[0], static_cast<uint16_t>(out.size()));
  storeHost16(&out[2], 0);
  storeHost16(&out[4], 0);
  storeHost16(&out[6], id);
  for (size_t i = 0; i < topics.size(); ++i) storeHost16(&out[8 + 2 * i], topics[i]);
  return out;
}

// Writes the line record of source `id` into out, which must hold kLineHeader + len bytes.
// REQUIRES: len <= kMaxText.
inline void encodeLine(unsigned char* out, uint16_t id, const char* text, unsigned int len) {
  storeHost16(out, static_cast<uint16_t>(kLineHeader + len));
  storeHost16(out + 2, id);
  memcpy(out + kLineHeader, text, len);
}

// Writes the mute notice for source `id` into out[0..5].
inline void encodeNotice(unsigned char* out, uint16_t id, bool mute) {
  storeHost16(out, kNoticeLength);
  storeHost16(out + 2, id);
  storeHost16(out + 4, mute ? 1 : 0);
}

}  // namespace logformat
}  // namespace kl

#endif  // KL_LOG_LOG_FORMAT_H_
