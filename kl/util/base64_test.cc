#include "kl/util/base64.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <random>

#include "kl/testing/command.h"

namespace kl {
namespace {

TEST(Base64, KnownValues) {
  const struct {
    const char* plain;
    const char* encoded;
  } cases[] = {{"", ""}, {"M", "TQ=="}, {"Ma", "TWE="}, {"Man", "TWFu"}, {"Many", "TWFueQ=="}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.plain);
    EXPECT_EQ(base64Encode(std::string(c.plain)), c.encoded);
    std::string out;
    ASSERT_TRUE(base64Decode(c.encoded, out));
    EXPECT_EQ(out, c.plain);
  }
}

// Our encoder and decoder against coreutils base64 over random buffers of every length
// up to 100 bytes.
TEST(Base64, AgreesWithCoreutils) {
  std::mt19937 rng(42);
  char path[] = "/tmp/kl-base64-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  for (unsigned len = 0; len <= 100; ++len) {
    std::string data(len, '\0');
    for (char& c : data) c = static_cast<char>(rng());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << data;
    std::string reference = kl::testing::commandOutput(std::string("base64 -w0 ") + path);
    SCOPED_TRACE(len);
    EXPECT_EQ(base64Encode(data), reference);
    std::string decoded;
    ASSERT_TRUE(base64Decode(reference, decoded));
    EXPECT_EQ(decoded, data);
  }
  unlink(path);
}

TEST(Base64, BufferFormsRespectTheirCapacity) {
  const unsigned char in[] = {'M', 'a', 'n', 'y'};
  char out[9] = "unused!!";
  EXPECT_EQ(base64Encode(in, 4, out, 7), -1);
  EXPECT_EQ(std::string(out), "unused!!");
  EXPECT_EQ(base64Encode(in, 4, out, 8), 8);
  EXPECT_EQ(std::string(out, 8), "TWFueQ==");

  unsigned char bytes[6];
  EXPECT_EQ(base64Decode("TWFueQ==", 8, bytes, 5), -1);
  EXPECT_EQ(base64Decode("TWFueQ==", 8, bytes, 6), 4);
  EXPECT_EQ(base64Decode("TW", 2, bytes, 0), 0);     // no whole group
  EXPECT_EQ(base64Decode("TWFuX", 5, bytes, 3), 3);  // a remainder is ignored
}

TEST(Base64, DecoderLeniencyAndErrors) {
  std::string out;
  EXPECT_FALSE(base64Decode("TW!=", out));
  EXPECT_EQ(out.size(), 3u);  // keeps the size it was given
  EXPECT_FALSE(base64Decode("TW E", out));
  EXPECT_TRUE(base64Decode("T=Fu", out));                   // "=" is accepted anywhere
  EXPECT_TRUE(base64Decode(std::string("TW\0u", 4), out));  // so is a NUL byte
  EXPECT_TRUE(base64Decode("TWE=", out));
  EXPECT_EQ(out, "Ma");
}

}  // namespace
}  // namespace kl
