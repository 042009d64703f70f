#include "kl/message/dump.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <sstream>

#include "kl/base/endian.h"
#include "kl/message/system.h"

// Counts the allocations made while `countingAllocations` is set, for the tests that show
// where a dump into a Dumper allocates.
namespace {
std::atomic<bool> countingAllocations{false};
std::atomic<unsigned long> allocations{0};
}  // namespace

// GCC takes free() in a replaced operator delete for a mismatch with new; here both sides
// are the replacements below, which use malloc and free.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

void* operator new(size_t n) {
  if (countingAllocations) ++allocations;
  void* p = malloc(n == 0 ? 1 : n);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void operator delete(void* p) noexcept { free(p); }
void operator delete(void* p, size_t) noexcept { free(p); }

namespace kl {
namespace {

using Bytes = std::vector<unsigned char>;

std::string dumpOf(const message& m, const char* prefix = "", unsigned int depth = 0) {
  std::ostringstream out;
  m.dump2(out, prefix, depth);
  return out.str();
}

std::string dumperOf(const message& m, const char* prefix = "") {
  char buf[4096];
  Dumper d(buf, sizeof buf);
  m.dump2(d, prefix, 0);
  return std::string(d.data(), d.size());
}

const char kHeader[] = "--- kl::message --------\n";
const char kFooter[] = "------------------------\n";

TEST(Dump, EmptyMessageIsHeaderAndFooter) {
  EXPECT_EQ(dumpOf(message()), std::string(kHeader) + kFooter);
  EXPECT_EQ(dumperOf(message()), std::string(kHeader) + kFooter);
}

TEST(Dump, LinesInTheirOrder) {
  message m;
  IPAddr6 a;
  a.bytes[0] = 0xfe;
  a.bytes[1] = 0x80;
  a.bytes[15] = 0x01;
  m.insert(SYS_TO, {5, 7});
  m.insert(SYS_FROM, {200});
  m.insert_string_array(0xa0000004, {"x", "y"});
  m.insert_u32_array(0x88000005, {});
  m.insert_raw(0x30000006, {1, 2, 3});
  m.insert_addr6(0x18000007, a);
  m.insert_u64(0x10fd0008, 12345678901ull);
  m.insert_string(STD_DESCR, "uplink");
  m.insert(SYS_CMD, CMD_GETALL);
  m.insert(SYS_REQID, 0x0a000001);
  m.insert_bool(SYS_REPLYEXP, true);
  EXPECT_EQ(dumpOf(m, ">"),
            ">--- kl::message --------\n"
            "> bool [SYS_REPLYEXP]=true\n"
            "> u32 [SYS_REQID]=167772161 0xa000001 10.0.0.1\n"
            "> u32 [SYS_CMD]=CMD_GETALL\n"
            "> string [STD_DESCR]=uplink\n"
            "> u64 [local(8)]=12345678901\n"
            "> addr6 [global(7)]=fe:80:00:00:00:00:00:00:00:00:00:00:00:00:00:01\n"
            "> raw [global(6)]=#3\n"
            "> u32[] [global(5)]=\n"
            "> string[] [global(4)]=x, y, \n"
            "> u32[] [SYS_FROM]=200, \n"
            "> u32[] [SYS_TO]=5(ID_5), 7, \n"
            ">------------------------\n");
}

TEST(Dump, PathsNameTheirFirstHop) {
  message m;
  m.insert(SYS_TO, {1, 17});
  m.insert(SYS_FROM, {24});
  m.insert_u32_array(0x88000003, {1});
  EXPECT_EQ(dumpOf(m), std::string(kHeader) +
                           " u32[] [global(3)]=1, \n"
                           " u32[] [SYS_FROM]=24(ID_TIME), \n"
                           " u32[] [SYS_TO]=1(ID_LOADER), 17, \n" +
                           kFooter);
}

TEST(Dump, InstalledHandlerNamesReplaceTheBuiltIns) {
  const char* names[kHandlerIdNameCount] = {};
  names[5] = "ID_FIREWALL";
  setHandlerIdNames(names);
  EXPECT_STREQ(handlerIdName(5), "ID_FIREWALL");
  EXPECT_STREQ(handlerIdName(1), "ID_LOADER");  // null entry keeps the built-in
  setHandlerIdNames(nullptr);
  EXPECT_STREQ(handlerIdName(5), "ID_5");
  EXPECT_STREQ(handlerIdName(109), "ID_109");
  EXPECT_EQ(handlerIdName(110), nullptr);
}

TEST(Dump, NestedMessagesIndentFourSpacesPerLevel) {
  message inner;
  inner.insert_u32(1, 2);
  message middle;
  middle.insert_message(0x28000003, inner);
  message outer;
  outer.insert_message_array(0x28000004, {middle, message()});
  EXPECT_EQ(dumpOf(outer, "#"),
            "#--- kl::message --------\n"
            "# message[] [global(4)]..\n"
            "#    --- kl::message --------\n"
            "#     message [global(3)]...\n"
            "#        --- kl::message --------\n"
            "#         u32 [global(1)]=2 0x2 0.0.0.2\n"
            "#        ------------------------\n"
            "#    ------------------------\n"
            "#    --- kl::message --------\n"
            "#    ------------------------\n"
            "#------------------------\n");
}

TEST(Dump, DumperPrintsNumbersAsFixedWidthHex) {
  message m;
  m.insert_u64(0x10000001, 0x1234);
  m.insert_u32_array(0x88000002, {255, 0xdeadbeef});
  m.insert_u64_array(0x90000003, {1});
  m.insert_bool_array(0x80000004, {true, false});
  m.insert_raw_array(0xb0000005, {{1, 2}});
  EXPECT_EQ(dumperOf(m), std::string(kHeader) +
                             " u64 [global(1)]=0x0000000000001234\n"
                             " raw[] [global(5)]=#0x00000002, \n"
                             " bool[] [global(4)]=true, false, \n"
                             " u64[] [global(3)]=0x0000000000000001, \n"
                             " u32[] [global(2)]=0x000000ff, 0xdeadbeef, \n" +
                             kFooter);
  EXPECT_EQ(dumpOf(m), std::string(kHeader) +
                           " u64 [global(1)]=4660\n"
                           " raw[] [global(5)]=#2, \n"
                           " bool[] [global(4)]=true, false, \n"
                           " u64[] [global(3)]=1, \n"
                           " u32[] [global(2)]=255, 3735928559, \n" +
                           kFooter);
}

// A chain of `levels` messages, each holding the next as message field 1, built front to
// back in one buffer: 8 bytes per level and the innermost "M2".
Bytes nestedChain(unsigned int levels) {
  const size_t total = 2 + 8 * size_t(levels);
  Bytes bytes(total);
  for (unsigned int i = 0; i < levels; ++i) {
    unsigned char* p = &bytes[8 * size_t(i)];
    storeLe16(p, 0x324D);
    storeLe32(p + 2, 0x28000001);
    storeLe16(p + 6, static_cast<uint16_t>(total - 8 * (size_t(i) + 1)));
  }
  storeLe16(&bytes[total - 2], 0x324D);
  return bytes;
}

size_t countOf(const std::string& text, const std::string& word) {
  size_t n = 0;
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
  return n;
}

// A hostile input nested thousands of levels deep is dumped to a bounded depth (bounded
// stack and memory), and the cut is shown.
TEST(Dump, NestingDeeperThanTheLimitIsCut) {
  const Bytes chain = nestedChain(8000);
  ASSERT_EQ(chain.size(), 64002u);
  message m;
  ASSERT_TRUE(m.unflatten(chain.data(), chain.size(), message::flatten_full));
  const std::string text = dumpOf(m);
  EXPECT_EQ(countOf(text, "--- kl::message --------\n"), kMaxDumpNesting + 1);
  EXPECT_EQ(countOf(text, "--- kl::message nested too deep ---\n"), 1u);
  EXPECT_EQ(text.substr(text.size() - 25), kFooter);

  // A chain within the limit is shown whole.
  const Bytes shallow = nestedChain(kMaxDumpNesting);
  message n;
  ASSERT_TRUE(n.unflatten(shallow.data(), shallow.size(), message::flatten_full));
  const std::string all = dumpOf(n);
  EXPECT_EQ(countOf(all, "--- kl::message --------\n"), kMaxDumpNesting + 1);
  EXPECT_EQ(countOf(all, "nested too deep"), 0u);
}

// Once the fixed buffer is full nothing more can be shown, so the dump stops there and
// decodes no further nested message: it allocates nothing more inside a signal handler.
TEST(Dump, DumperStopsDecodingWhenItsBufferIsFull) {
  message inner;
  for (unsigned int i = 0; i < 20; ++i) inner.insert_u32(i, i);
  message array;  // 100 nested messages of 20 lines each
  array.insert_message_array(0x28000004, std::vector<message::flat_message>(100, inner));
  message scalarsFirst = array;
  scalarsFirst.insert_message(0x28000005, inner);
  for (unsigned int i = 0; i < 10; ++i) scalarsFirst.insert_u32(i, i);

  struct Case {
    const char* name;
    const message* m;
    unsigned int capacity;
    unsigned long maxAllocations;
  };
  const Case cases[] = {
      {"full before any nested message", &scalarsFirst, 64, 0},
      {"full inside the first element of an array", &array, 200, 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<char> small(c.capacity);
    Dumper d(small.data(), small.size());
    allocations = 0;
    countingAllocations = true;
    c.m->dump2(d, "", 0);
    countingAllocations = false;
    EXPECT_TRUE(d.full());
    EXPECT_LE(allocations, c.maxAllocations);
  }

  std::vector<char> big(1 << 17);
  Dumper whole(big.data(), big.size());
  scalarsFirst.dump2(whole, "", 0);
  EXPECT_FALSE(whole.full());
  EXPECT_EQ(countOf(std::string(whole.data(), whole.size()), "--- kl::message --------\n"), 102u);
}

TEST(Dumper, TruncatesSilentlyAtCapacity) {
  char buf[8];
  Dumper d(buf, sizeof buf);
  d << "abcd";
  d.write("0123456789", 10);
  EXPECT_EQ(std::string(d.data(), d.size()), "abcd0123");
  d << "more";
  d << 5u;
  EXPECT_EQ(d.size(), 8u);
  EXPECT_TRUE(d.full());
}

TEST(Dumper, NumberFormats) {
  char buf[64];
  Dumper d(buf, sizeof buf);
  d << static_cast<unsigned char>(0xa5) << " " << 0x1fu << " " << 0xfedcba9876543210ull;
  EXPECT_EQ(std::string(d.data(), d.size()), "a5 0x0000001f 0xfedcba9876543210");
  d.clear();
  EXPECT_EQ(d.size(), 0u);
}

}  // namespace
}  // namespace kl
