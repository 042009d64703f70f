// File: tools/loader/flat_frame.h
//
// The loader's fast path: most frames only need their path fields changed on the way
// through (the hop's id off SYS_TO, the sender's id onto SYS_FROM). FlatFrame reads what
// routing needs straight from an "M2" body, checking the whole body's structure as the
// decoder would, and spliceFrame writes the frame for the next hop by copying every other
// record as it stands. Anything unusual (the older format, a control message, a path
// field given twice) is left to the decoding path.
#ifndef TOOLS_LOADER_FLAT_FRAME_H_
#define TOOLS_LOADER_FLAT_FRAME_H_

#include <cstdint>
#include <memory>
#include <vector>

namespace kl {
namespace loader {

struct FlatFrame {
  const unsigned char* body = nullptr;
  uint32_t length = 0;
  // The byte spans [begin, end) of the SYS_TO and SYS_FROM records; empty when absent.
  uint32_t toBegin = 0, toEnd = 0, fromBegin = 0, fromEnd = 0;
  std::vector<unsigned int> to, from;
  unsigned int type = 1;  // SYS_TYPE, 1 (request) when absent
  bool hasPolicy = false;
  bool replyExpected = false;
  bool hasRequestId = false;
  unsigned int requestId = 0;  // SYS_REQID, when hasRequestId
};

// Reads `body` for routing. True when it is a well-formed current-format message that the
// fast path may pass on: magic "M2", every record complete, no SYS_CTRL, SYS_TO and
// SYS_FROM each at most once. False otherwise, with *frame unspecified: decode it instead.
bool parseFlatFrame(const unsigned char* body, uint32_t length, FlatFrame* frame);

// A whole frame (length prefix and body) for the next hop: SYS_TO := to, SYS_FROM := from
// as the first two records, then every other record of `frame` unchanged. *frameLength :=
// its size.
std::unique_ptr<unsigned char[]> spliceFrame(const FlatFrame& frame,
                                             const std::vector<unsigned int>& to,
                                             const std::vector<unsigned int>& from,
                                             uint32_t* frameLength);

}  // namespace loader
}  // namespace kl

#endif  // TOOLS_LOADER_FLAT_FRAME_H_
