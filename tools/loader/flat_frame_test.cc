// The loader's fast path must agree with the decoder: whatever it passes on as bytes the
// next hop decodes to the same message with only the path fields changed.
#include "tools/loader/flat_frame.h"

#include <gtest/gtest.h>

#include <random>

#include "kl/base/endian.h"
#include "kl/message/message.h"
#include "kl/message/system.h"

namespace kl {
namespace loader {
namespace {

std::vector<unsigned char> encode(const message& m) {
  std::vector<unsigned char> bytes;
  m.flatten(bytes);
  return bytes;
}

// Messages of every field type, with and without paths.
std::vector<message> samples() {
  std::vector<message> out;
  message request;
  request.insert(SYS_TO, {5, 2});
  request.insert(SYS_FROM, {9});
  request.insert(SYS_CMD, CMD_GETALL);
  setRequestID(request, 300);
  request.insert_bool(SYS_REPLYEXP, true);
  request.insert_string(STD_DESCR, std::string(300, 'd'));
  out.push_back(request);
  message everything;
  everything.insert(SYS_TO, {7});
  everything.insert_u64(0x10000001, 1ull << 40);
  IPAddr6 addr{};
  addr.bytes[15] = 1;
  everything.insert_addr6(0x18000002, addr);
  everything.insert_raw(0x30000003, {1, 2, 3});
  everything.insert_message(0x28000004, request);
  everything.insert_bool_array(0x80000005, {true, false});
  everything.insert_u32_array(0x88000006, {1, 2, 3});
  everything.insert_u64_array(0x90000007, {4});
  everything.insert_addr6_array(0x98000008, {addr});
  everything.insert_string_array(0xa0000009, {"a", "", "bc"});
  everything.insert_message_array(STD_OBJS, {request, message()});
  everything.insert_raw_array(0xb000000a, {{9}});
  everything.insert_u32(0x0800000b, 70000);
  everything.insert_bool(0x0000000c, true);
  out.push_back(everything);
  message noPaths;
  noPaths.insert(SYS_CMD, CMD_NOOP);
  out.push_back(noPaths);
  message onlyFrom;
  onlyFrom.insert(SYS_FROM, {3, 4});
  onlyFrom.insert_string(STD_DESCR, "x");
  out.push_back(onlyFrom);
  return out;
}

message decodeFrame(const std::unique_ptr<unsigned char[]>& frame, uint32_t frameLength) {
  EXPECT_EQ(loadLe32(frame.get()) + 4, frameLength);
  message m;
  EXPECT_TRUE(m.unflatten(frame.get() + 4, frameLength - 4, message::flatten_full));
  return m;
}

TEST(FlatFrameTest, SplicedFrameDecodesToTheMessageWithNewPaths) {
  int index = 0;
  for (const message& original : samples()) {
    SCOPED_TRACE(index++);
    const std::vector<unsigned char> bytes = encode(original);
    FlatFrame frame;
    ASSERT_TRUE(parseFlatFrame(bytes.data(), static_cast<uint32_t>(bytes.size()), &frame));
    EXPECT_EQ(frame.to, original.get_u32_array(SYS_TO));
    EXPECT_EQ(frame.from, original.get_u32_array(SYS_FROM));
    EXPECT_EQ(frame.type, getType(original));
    EXPECT_EQ(frame.replyExpected, isReplyExpected(original));
    const std::vector<unsigned int> to = {2}, from = {0x10000, 9, 8};
    uint32_t frameLength;
    const std::unique_ptr<unsigned char[]> out = spliceFrame(frame, to, from, &frameLength);
    message expected = original;
    expected.insert(SYS_TO, to);
    expected.insert(SYS_FROM, from);
    EXPECT_TRUE(decodeFrame(out, frameLength) == expected);
    // The path records come first, where a router looks for them.
    EXPECT_EQ(loadLe32(out.get() + 6), 0x88ff0001u);
  }
}

TEST(FlatFrameTest, PathRecordsAnywhereInTheBody) {
  // SYS_FROM first and SYS_TO last, with other records around them.
  message head, tail;
  head.insert_string(STD_DESCR, "head");
  head.insert(SYS_FROM, {3});
  tail.insert(SYS_TO, {6, 1});
  std::vector<unsigned char> bytes = encode(head);
  const std::vector<unsigned char> more = encode(tail);
  bytes.insert(bytes.end(), more.begin() + 2, more.end());
  FlatFrame frame;
  ASSERT_TRUE(parseFlatFrame(bytes.data(), static_cast<uint32_t>(bytes.size()), &frame));
  EXPECT_LT(frame.fromBegin, frame.toBegin);
  uint32_t frameLength;
  const std::unique_ptr<unsigned char[]> out = spliceFrame(frame, {1}, {9, 3}, &frameLength);
  const message decoded = decodeFrame(out, frameLength);
  EXPECT_EQ(decoded.get_u32_array(SYS_TO), std::vector<unsigned int>({1}));
  EXPECT_EQ(decoded.get_u32_array(SYS_FROM), std::vector<unsigned int>({9, 3}));
  EXPECT_EQ(decoded.get_string(STD_DESCR, ""), "head");
}

TEST(FlatFrameTest, LeavesUnusualFramesToTheDecoder) {
  message control;
  control.insert(SYS_CTRL, 2);
  control.insert(SYS_TO, {1});
  std::vector<unsigned char> bytes = encode(control);
  FlatFrame frame;
  EXPECT_FALSE(parseFlatFrame(bytes.data(), static_cast<uint32_t>(bytes.size()), &frame));
  // A path field twice: the decoder keeps the last, the fast path does not guess.
  message m;
  m.insert(SYS_TO, {5});
  bytes = encode(m);
  const std::vector<unsigned char> record(bytes.begin() + 2, bytes.end());
  bytes.insert(bytes.end(), record.begin(), record.end());
  EXPECT_FALSE(parseFlatFrame(bytes.data(), static_cast<uint32_t>(bytes.size()), &frame));
  // The older format and an empty body.
  const unsigned char old[] = {0, 0};
  EXPECT_FALSE(parseFlatFrame(old, sizeof old, &frame));
  EXPECT_FALSE(parseFlatFrame(old, 0, &frame));
}

// Never laxer than the decoder: what the fast path accepts, the decoder accepts too.
void expectDecoderAgrees(const std::vector<unsigned char>& bytes) {
  FlatFrame frame;
  if (!parseFlatFrame(bytes.data(), static_cast<uint32_t>(bytes.size()), &frame)) return;
  message m;
  EXPECT_TRUE(
      m.unflatten(bytes.data(), static_cast<unsigned int>(bytes.size()), message::flatten_full));
}

TEST(FlatFrameTest, EveryTruncatedPrefixIsJudgedAsTheDecoderJudgesIt) {
  for (const message& original : samples()) {
    const std::vector<unsigned char> bytes = encode(original);
    for (size_t n = 0; n < bytes.size(); ++n) {
      SCOPED_TRACE(n);
      expectDecoderAgrees(std::vector<unsigned char>(bytes.begin(), bytes.begin() + n));
    }
  }
}

TEST(FlatFrameTest, RandomBytesAfterTheMagic) {
  std::mt19937 random(7);
  for (int round = 0; round < 20000; ++round) {
    std::vector<unsigned char> bytes = {0x4D, 0x32};
    const size_t n = random() % 24;
    for (size_t i = 0; i < n; ++i) {
      // Mostly plausible type bytes, so that many records are complete.
      bytes.push_back(static_cast<unsigned char>(i % 4 == 3 ? (random() % 0x20) << 3 : random()));
    }
    expectDecoderAgrees(bytes);
  }
}

}  // namespace
}  // namespace loader
}  // namespace kl
