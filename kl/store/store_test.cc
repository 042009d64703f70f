#include "kl/store/store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <type_traits>

#include "kl/base/clock.h"
#include "kl/base/diagnostics.h"
#include "kl/base/endian.h"
#include "kl/base/root.h"
#include "kl/message/system.h"
#include "kl/runner/runner.h"
#include "kl/store/wlock.h"
#include "kl/testing/hex.h"
#include "kl/testing/store_kill.h"
#include "kl/testing/temp_root.h"

namespace kl {
namespace {

using testing::fromHex;
using testing::toHex;
using Bytes = std::vector<unsigned char>;

// A message of about `size` flattened bytes, told apart by `tag`.
message sized(unsigned tag, size_t size) {
  message m;
  m.insert(STD_ID, tag);
  m.insert_string(STD_DESCR, std::string(size > 16 ? size - 16 : 1, 'a' + tag % 26));
  return m;
}

class TestRunner : public Runner {};

class StoreTest : public kl::testing::TempRootTest {
 protected:
  std::string base() const { return root_ + "/store"; }
  std::unique_ptr<Store> open(unsigned defaultAge = 10) {
    return std::unique_ptr<Store>(new Store(base(), defaultAge));
  }
  // Opens with the error stream captured into *err.
  std::unique_ptr<Store> openQuietly(std::string* err, unsigned defaultAge = 10) {
    ::testing::internal::CaptureStderr();
    std::unique_ptr<Store> s = open(defaultAge);
    *err = ::testing::internal::GetCapturedStderr();
    return s;
  }
  Bytes file(const char* suffix) const {
    std::ifstream in(base() + suffix, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  void writeBytes(const char* suffix, const Bytes& bytes) {
    std::ofstream(base() + suffix, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
  // The index as {id, length, age} triples.
  std::vector<std::vector<uint32_t> > slots() const {
    const Bytes idx = file(".idx");
    std::vector<std::vector<uint32_t> > out;
    for (size_t off = 0; off + 12 <= idx.size(); off += 12) {
      out.push_back({loadLe32(&idx[off]), loadLe32(&idx[off + 4]), loadLe32(&idx[off + 8])});
    }
    return out;
  }
};

TEST_F(StoreTest, FirstRunCreatesDirectoriesAndEmptyFiles) {
  std::string err;
  ::testing::internal::CaptureStderr();
  Store s(root_ + "/a/b/store", 5);
  err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "STORE: openIdx failed\n");
  EXPECT_TRUE(s.restarted);
  struct stat st;
  ASSERT_EQ(stat((root_ + "/a/b").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  ASSERT_EQ(stat((root_ + "/a/b/store.idx").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_EQ(stat((root_ + "/a/b/store.dat").c_str(), &st), 0);
  EXPECT_EQ(st.st_size, 0);
  EXPECT_TRUE(s.get(1).empty());
}

// A device path given to the store lands under the development root, and its lock too:
// nothing is written outside it. The root is read once per process, and this one has read
// it already, so the store runs in a fresh run of this program
// (StoreInAFreshProcess.WritesADevicePath).
TEST_F(StoreTest, DevicePathsLandUnderTheDevelopmentRoot) {
  const std::string top = "/var/pdb/kl-store-test-" + std::to_string(getpid());
  const std::string device = top + "/objects";
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    setenv("KL_ROOT", root_.c_str(), 1);
    setenv("KL_STORE_DEVICE_PATH", device.c_str(), 1);
    const int null = ::open("/dev/null", O_WRONLY);
    dup2(null, 1);
    execl("/proc/self/exe", "kl_store_test",
          "--gtest_filter=StoreInAFreshProcess.WritesADevicePath", static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
    GTEST_SKIP() << "this program cannot run itself again here (an emulator without binfmt)";
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  struct stat st;
  for (const char* suffix : {".idx", ".dat", ".lock"}) {
    EXPECT_EQ(stat((root_ + device + suffix).c_str(), &st), 0) << suffix;
  }
  EXPECT_NE(stat(top.c_str(), &st), 0) << top << " was written outside the root";
}

// Run only by DevicePathsLandUnderTheDevelopmentRoot, with KL_ROOT set from the start.
TEST(StoreInAFreshProcess, WritesADevicePath) {
  const char* device = getenv("KL_STORE_DEVICE_PATH");
  if (device == nullptr) GTEST_SKIP() << "run by StoreTest.DevicePathsLandUnderTheDevelopmentRoot";
  {
    Store s(device, 10);
    s.set(7, sized(7, 30));
    s.doFlush();
    // The lock file goes; a Wlock on the device path makes it again, under the root.
    unlink((rootedPath(device) + ".lock").c_str());
    Wlock lock(device);
    EXPECT_EQ(access((rootedPath(device) + ".lock").c_str(), F_OK), 0);
  }
  EXPECT_TRUE(Store(device, 10).get(7) == sized(7, 30));
}

TEST_F(StoreTest, GoldenBytesOfOneRecord) {
  std::string err;
  {
    std::unique_ptr<Store> s = openQuietly(&err, 3);
    message m;
    m.insert(SYS_TO, {5});
    m.insert(SYS_TYPE, 1);
    m.insert_bool(4, true);
    m.insert_string(3, "ab");
    s->set(7, m);
  }
  EXPECT_EQ(toHex(file(".idx")), "07 00 00 00 1E 00 00 00 03 00 00 00");
  EXPECT_EQ(
      toHex(file(".dat")),
      "1E 00 4D 32 01 00 FF 88 01 00 05 00 00 00 04 00 00 01 03 00 FF 09 01 03 00 00 21 02 61 "
      "62");
}

// The bytes of both files after a fixed mix of every kind of write: appends, a rewrite in
// place, a message outgrowing its extent, removals, reuse of freed extents (whole, with the
// slack of their earlier record), touch and age. Any change to the order or the content of
// the writes must leave these bytes as they are.
TEST_F(StoreTest, GoldenBytesAfterAMixOfOperations) {
  std::string err;
  {
    std::unique_ptr<Store> s = openQuietly(&err, 4);
    s->set(1, sized(1, 30));
    s->set(2, sized(2, 40));
    s->set(3, sized(3, 20));
    s->set(2, sized(4, 25));  // fits: rewritten in place, slack left behind
    s->set(1, sized(5, 50));  // outgrows: slot 0 freed, appended
    s->remove(3);
    s->set(6, sized(6, 18));  // reuses 3's extent
    s->set(7, sized(7, 22));  // reuses 1's old extent (the only free one left)
    s->touch(2, 9);
    s->age();
  }
  EXPECT_EQ(toHex(file(".idx")),
            "07 00 00 00 1C 00 00 00 03 00 00 00 "
            "02 00 00 00 26 00 00 00 08 00 00 00 "
            "06 00 00 00 12 00 00 00 03 00 00 00 "
            "01 00 00 00 30 00 00 00 03 00 00 00");
  EXPECT_EQ(toHex(file(".dat")),
            "14 00 4D 32 01 00 FE 09 07 09 00 FE 21 06 68 68 68 68 68 68 62 62 62 62 62 62 62 62 "
            "17 00 4D 32 01 00 FE 09 04 09 00 FE 21 09 65 65 65 65 65 65 65 65 65 63 63 63 63 63 "
            "63 63 63 63 63 63 63 63 63 63 10 00 4D 32 01 00 FE 09 06 09 00 FE 21 02 67 67 64 64 "
            "30 00 4D 32 01 00 FE 09 05 09 00 FE 21 22 66 66 66 66 66 66 66 66 66 66 66 66 66 66 "
            "66 66 66 66 66 66 66 66 66 66 66 66 66 66 66 66 66 66 66 66");
}

TEST_F(StoreTest, ReopenReturnsTheSameMessages) {
  std::string err;
  {
    std::unique_ptr<Store> s = openQuietly(&err);
    for (unsigned id = 1; id <= 5; ++id) s->set(id * 100, sized(id, 40 * id));
    s->set(300, sized(33, 20));  // shorter: rewritten in place
  }
  std::unique_ptr<Store> s = openQuietly(&err);
  EXPECT_EQ(err, "");
  EXPECT_FALSE(s->restarted);
  EXPECT_EQ(s->ids(), (std::vector<unsigned>{100, 200, 300, 400, 500}));
  EXPECT_TRUE(s->get(300) == sized(33, 20));
  EXPECT_TRUE(s->get(500) == sized(5, 200));
  EXPECT_TRUE(s->get(42).empty());
  EXPECT_EQ(slots().size(), 5u);
}

// The steps the operations are made of are public, with these signatures, for services that
// build their own operations from them.
static_assert(std::is_same<decltype(&Store::writeMsg),
                           bool (Store::*)(unsigned, const std::vector<unsigned char>&)>::value,
              "writeMsg(offset, bytes)");
static_assert(std::is_same<decltype(&Store::readMsg), message (Store::*)(unsigned)>::value,
              "readMsg(offset)");
static_assert(
    std::is_same<decltype(&Store::writeIndexent), bool (Store::*)(unsigned, Store::Entry&)>::value,
    "writeIndexent(id, entry)");

TEST_F(StoreTest, TheStepsWorkOnTheirOwn) {
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  const message m = sized(3, 30);
  Bytes bytes;
  m.flatten(bytes);
  ASSERT_TRUE(s->writeMsg(0, bytes));
  const Bytes dat = file(".dat");
  ASSERT_EQ(dat.size(), bytes.size() + 2);
  EXPECT_EQ(loadLe16(&dat[0]), bytes.size() + 2);
  EXPECT_TRUE(s->readMsg(0) == m);
  Store::Entry e{0, static_cast<unsigned>(dat.size()), 0, 6};
  ASSERT_TRUE(s->writeIndexent(9, e));
  EXPECT_EQ(slots(), (std::vector<std::vector<uint32_t> >{{9, e.length, 6}}));
  s->closeIdx();
  s->closeData();
  EXPECT_TRUE(s->openIdx());
  EXPECT_TRUE(s->openData());
  s->cleanup();
  EXPECT_TRUE(s->ids().empty());
  EXPECT_TRUE(s->readIndex(false));
  EXPECT_TRUE(s->get(9) == m);
  // A record longer than one read ahead takes a second read.
  const message big = sized(4, 3000);
  big.flatten(bytes);
  ASSERT_TRUE(s->writeMsg(e.length, bytes));
  EXPECT_TRUE(s->readMsg(e.length) == big);
}

TEST_F(StoreTest, ShorterReplacementKeepsTheExtentLongerOneMoves) {
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  s->set(1, sized(1, 100));
  s->set(2, sized(2, 100));
  const uint32_t length = slots()[0][1];
  s->set(1, sized(3, 50));  // fits: the slot is untouched, slack stays in the extent
  EXPECT_EQ(slots()[0][1], length);
  EXPECT_TRUE(s->get(1) == sized(3, 50));
  s->set(1, sized(4, 300));  // outgrows it: the old slot is freed, the record appended
  EXPECT_EQ(slots()[0][0], 0xFFFFFFFFu);
  EXPECT_EQ(slots().size(), 3u);
  EXPECT_EQ(slots()[2][0], 1u);
  EXPECT_TRUE(s->get(1) == sized(4, 300));
}

// A record that would span two pages of the data file is not overwritten in place (a kill
// between the pages would leave it half old, half new): it is placed as a longer one is.
TEST_F(StoreTest, AReplacementSpanningPagesIsPlacedAnew) {
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  s->set(1, sized(1, 3000));  // bytes 0 .. ~3000: within the first page
  s->set(2, sized(2, 3000));  // across the first page boundary
  s->set(3, sized(3, 3000));  // within the second page
  s->set(3, sized(4, 2900));
  EXPECT_EQ(slots()[2][0], 3u);  // in place
  s->remove(1);
  s->set(2, sized(5, 2900));  // freed and placed first fit: in the extent of id 1
  EXPECT_EQ(slots()[0][0], 2u);
  EXPECT_EQ(slots()[1][0], 0xFFFFFFFFu);
  EXPECT_TRUE(s->get(2) == sized(5, 2900));
  EXPECT_TRUE(s->get(3) == sized(4, 2900));
}

TEST_F(StoreTest, TheMostRecentlyRemovedExtentIsTriedFirst) {
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  for (unsigned id = 1; id <= 4; ++id) s->set(id, sized(id, 100));
  s->remove(2);
  s->remove(3);
  s->set(9, sized(9, 80));  // both extents fit; 3's was freed last
  EXPECT_EQ(slots()[2][0], 9u);
  EXPECT_EQ(slots()[1][0], 0xFFFFFFFFu);
  s->set(10, sized(10, 500));  // fits nowhere: appended
  EXPECT_EQ(slots()[4][0], 10u);
  EXPECT_FALSE(s->remove(77));
}

TEST_F(StoreTest, NineRemovalsCompactEightDoNot) {
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  for (unsigned id = 1; id <= 20; ++id) s->set(id, sized(id, 100));
  for (unsigned id = 1; id <= 8; ++id) s->remove(id);
  EXPECT_EQ(slots().size(), 20u);
  s->remove(9);  // more than an eighth free in more than eight extents: at once, no runner
  EXPECT_EQ(slots().size(), 11u);
  EXPECT_EQ(slots()[0][0], 10u);  // live messages keep their order
  for (unsigned id = 10; id <= 20; ++id) EXPECT_TRUE(s->get(id) == sized(id, 100)) << id;
  s.reset();
  s = openQuietly(&err);
  EXPECT_EQ(err, "");
  EXPECT_EQ(s->ids().size(), 11u);
}

// A compaction whose new files cannot take the store's names (a directory stands there)
// keeps every message and says why; one that fails only at the index has already switched
// to the new data file, and goes on with the new pair.
TEST_F(StoreTest, AFailedCompactionKeepsTheData) {
  struct Case {
    const char* blocked;
    const char* line;
    size_t slotsAfter;  // in the index that the next opening reads
  };
  const Case cases[] = {
      {".dat", "STORE: compact: could not rename the new data file, the old files stay\n", 20},
      {".idx",
       "STORE: compact: could not rename the new index file, the next opening finishes it\n", 12},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.blocked);
    std::string err;
    std::unique_ptr<Store> s = openQuietly(&err);
    for (unsigned id = 1; id <= 20; ++id) s->set(id, sized(id, 100));
    for (unsigned id = 1; id <= 8; ++id) s->remove(id);
    ASSERT_TRUE(s->get(20) == sized(20, 100));  // both files are open
    const std::string blocked = base() + c.blocked;
    ASSERT_EQ(rename(blocked.c_str(), (blocked + ".moved").c_str()), 0);
    ASSERT_EQ(mkdir(blocked.c_str(), 0700), 0);
    ::testing::internal::CaptureStderr();
    s->remove(9);  // compacts at once
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.line);
    s->set(21, sized(21, 100));
    EXPECT_EQ(s->ids().size(), 12u);
    for (unsigned id : s->ids()) EXPECT_TRUE(s->get(id) == sized(id, 100)) << id;
    EXPECT_FALSE(std::ifstream(base() + ".dat.new").good());
    s.reset();
    ASSERT_EQ(rmdir(blocked.c_str()), 0);
    ASSERT_EQ(rename((blocked + ".moved").c_str(), blocked.c_str()), 0);
    if (std::string(c.blocked) == ".idx") {
      // The old index was put back under the new data file; the new one waits beside them.
      ASSERT_EQ(rename((base() + ".idx.new").c_str(), (base() + ".idx").c_str()), 0);
    }
    EXPECT_EQ(slots().size(), c.slotsAfter);
    s = openQuietly(&err);
    EXPECT_FALSE(s->restarted);
    EXPECT_EQ(s->ids().size(), 12u);
    s->deleteFiles();
  }
}

TEST_F(StoreTest, WithARunnerCompactionAndFlushWait) {
  TestRunner runner;
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  for (unsigned id = 1; id <= 20; ++id) s->set(id, sized(id, 100));
  EXPECT_EQ(runner.timerCount(), 1u);  // one flush for all those writes
  for (unsigned id = 1; id <= 9; ++id) s->remove(id);
  EXPECT_EQ(slots().size(), 20u);
  EXPECT_EQ(runner.timerCount(), 2u);  // and the compaction, 60 s ahead
  s->remove(10);
  EXPECT_EQ(runner.timerCount(), 2u);  // one compaction pending is enough
  s->compact(false);                   // takes both timers back
  EXPECT_EQ(runner.timerCount(), 0u);
  EXPECT_EQ(slots().size(), 10u);
  s->set(1, sized(1, 100));
  s.reset();  // removes its pending flush
  EXPECT_EQ(runner.timerCount(), 0u);
}

TEST_F(StoreTest, BigEndianFilesAreAcceptedAndRewritten) {
  message a = sized(1, 30), b = sized(2, 60);
  Bytes fa, fb;
  a.flatten(fa);
  b.flatten(fb);
  auto be32 = [](Bytes& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8)
      out.push_back(static_cast<unsigned char>(v >> shift));
  };
  Bytes idx, dat;
  const uint32_t la = fa.size() + 2, lb = fb.size() + 2;
  be32(idx, 11), be32(idx, la), be32(idx, 4);
  be32(idx, 0xFFFFFFFF), be32(idx, 6), be32(idx, 0);  // a free extent
  be32(idx, 12), be32(idx, lb), be32(idx, 5);
  dat.push_back(static_cast<unsigned char>(la >> 8)), dat.push_back(static_cast<unsigned char>(la));
  dat.insert(dat.end(), fa.begin(), fa.end());
  dat.insert(dat.end(), 6, 0xEE);
  dat.push_back(static_cast<unsigned char>(lb >> 8)), dat.push_back(static_cast<unsigned char>(lb));
  dat.insert(dat.end(), fb.begin(), fb.end());
  writeBytes(".idx", idx);
  writeBytes(".dat", dat);

  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  EXPECT_EQ(err, "");
  EXPECT_FALSE(s->restarted);
  EXPECT_TRUE(s->get(11) == a);
  EXPECT_TRUE(s->get(12) == b);
  EXPECT_EQ(slots(), (std::vector<std::vector<uint32_t> >{{11, la, 4}, {12, lb, 5}}));
  const Bytes now = file(".dat");
  EXPECT_EQ(loadLe16(&now[0]), la);
  EXPECT_EQ(loadLe16(&now[la]), lb);
  s.reset();
  s = openQuietly(&err);
  EXPECT_EQ(err, "");
  EXPECT_TRUE(s->get(12) == b);
}

// What a conversion killed on its way leaves: new files beside the old big-endian pair
// (before the data file's rename), or the new data file in place with the new index beside
// it (between the renames). Either opens as a whole store.
TEST_F(StoreTest, AnInterruptedConversionOpensAsTheOldOrTheNewStore) {
  for (const bool renamedData : {false, true}) {
    SCOPED_TRACE(renamedData ? "between the renames" : "before the renames");
    const std::map<unsigned, message> live =
        testing::writeStoreFiles(base(), 12, false, true);        // big-endian, the old pair
    testing::writeStoreFiles(base() + "-new", 12, false, false);  // what conversion writes
    ASSERT_EQ(rename((base() + "-new.idx").c_str(), (base() + ".idx.new").c_str()), 0);
    if (renamedData) {
      ASSERT_EQ(rename((base() + "-new.dat").c_str(), (base() + ".dat").c_str()), 0);
    } else {
      Bytes part = file("-new.dat");
      part.resize(part.size() / 2);
      writeBytes(".dat.new", part);
    }
    std::string err;
    std::unique_ptr<Store> s = openQuietly(&err);
    EXPECT_EQ(err, "");
    EXPECT_FALSE(s->restarted);
    EXPECT_EQ(s->ids().size(), live.size());
    for (const auto& m : live) EXPECT_TRUE(s->get(m.first) == m.second) << m.first;
    EXPECT_FALSE(std::ifstream(base() + ".idx.new").good());
    EXPECT_FALSE(std::ifstream(base() + ".dat.new").good());
    s->deleteFiles();
    unlink((base() + "-new.dat").c_str());
  }
}

// A big-endian store whose conversion fails (no room for the new files, a full flash) keeps
// its files as they are and opens read-only: every message readable, every write refused
// with a line. A compaction (or the next opening) converts it once the obstacle is gone.
TEST_F(StoreTest, ABigEndianStoreThatCannotBeConvertedIsKeptReadOnly) {
  // 40 slots of which 10 are free: bloated, but a read-only store is not compacted.
  std::map<unsigned, message> live = testing::writeStoreFiles(base(), 40, true, true);
  // And last, a record that ends in zero bytes (a u32 of 256 in its long form), which a read
  // cannot take from the mapping at the end of the file.
  message last;
  last.insert(STD_ID, 256u);
  Bytes flat;
  last.flatten(flat);
  ASSERT_EQ(flat.back(), 0);
  Bytes idx = file(".idx"), dat = file(".dat");
  const uint32_t slot[3] = {5000, static_cast<uint32_t>(flat.size() + 2), 5};
  for (const uint32_t word : slot) {
    idx.resize(idx.size() + 4);
    storeBe32(&idx[idx.size() - 4], word);
  }
  dat.resize(dat.size() + 2);
  storeBe16(&dat[dat.size() - 2], static_cast<uint16_t>(slot[1]));
  dat.insert(dat.end(), flat.begin(), flat.end());
  writeBytes(".idx", idx);
  writeBytes(".dat", dat);
  live[5000] = last;
  const std::string blocked = base() + ".dat.new";
  ASSERT_EQ(mkdir(blocked.c_str(), 0700), 0);
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  EXPECT_EQ(err,
            "STORE: compact: could not open new data file\n"
            "STORE: big-endian files could not be converted, kept read-only\n");
  EXPECT_FALSE(s->restarted);
  auto holdsEveryMessage = [&]() {
    EXPECT_EQ(s->ids().size(), live.size());
    for (const auto& m : live) EXPECT_TRUE(s->get(m.first) == m.second) << m.first;
    EXPECT_TRUE(s->readMsg(0) == live.begin()->second);
  };
  holdsEveryMessage();

  const unsigned some = live.begin()->first;
  Bytes bytes;
  sized(1, 20).flatten(bytes);
  Store::Entry entry{0, 22, 0, 1};
  ::testing::internal::CaptureStderr();
  s->set(some, sized(1, 20));  // fits its extent
  s->set(some, sized(1, 900));
  s->set(1000, sized(1, 20));
  EXPECT_FALSE(s->remove(some));
  s->touch(some, 1);
  s->age();
  EXPECT_FALSE(s->writeMsg(0, bytes));
  EXPECT_FALSE(s->writeIndexent(some, entry));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "STORE: set refused: big-endian files kept read-only\n"
            "STORE: set refused: big-endian files kept read-only\n"
            "STORE: set refused: big-endian files kept read-only\n"
            "STORE: remove refused: big-endian files kept read-only\n"
            "STORE: touch refused: big-endian files kept read-only\n"
            "STORE: age refused: big-endian files kept read-only\n"
            "STORE: writeMsg refused: big-endian files kept read-only\n"
            "STORE: writeIndexent refused: big-endian files kept read-only\n");
  holdsEveryMessage();
  EXPECT_EQ(file(".idx"), idx);
  EXPECT_EQ(file(".dat"), dat);

  ASSERT_EQ(rmdir(blocked.c_str()), 0);
  ::testing::internal::CaptureStderr();
  s->compact(false);  // tries the conversion again
  s->set(1000, sized(1, 20));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(loadLe32(&file(".idx")[0]), some);
  s.reset();
  s = openQuietly(&err);
  EXPECT_EQ(err, "");
  EXPECT_FALSE(s->restarted);
  EXPECT_EQ(s->ids().size(), live.size() + 1);
  for (const auto& m : live) EXPECT_TRUE(s->get(m.first) == m.second) << m.first;
  EXPECT_TRUE(s->get(1000) == sized(1, 20));
}

// A full flash: the copy into the new files fails. The store stays as it was, read-only.
TEST_F(StoreTest, ABigEndianStoreOnAFullFlashIsKeptReadOnly) {
  const std::map<unsigned, message> live = testing::writeStoreFiles(base(), 12, false, true);
  const Bytes idx = file(".idx"), dat = file(".dat");
  const std::string errFile = root_ + "/err";
  EXPECT_EQ(inChild([&]() {
              signal(SIGXFSZ, SIG_IGN);
              const struct rlimit limit = {100, 100};  // room for the new index only
              if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
              fflush(stderr);
              dup2(::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
              Store s(base(), 10);
              bool same = !s.restarted && s.ids().size() == live.size();
              for (const auto& m : live) same = same && s.get(m.first) == m.second;
              fflush(stderr);
              return same;
            }),
            0);
  std::ifstream in(errFile);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()),
            "STORE: compact write failed\n"
            "STORE: big-endian files could not be converted, kept read-only\n");
  EXPECT_EQ(file(".idx"), idx);
  EXPECT_EQ(file(".dat"), dat);
}

// A test can take the store's lines for itself: they go to the stream it set, not to the
// standard error stream, until it sets it back.
TEST_F(StoreTest, DiagnosticLinesGoWhereATestSendsThem) {
  std::string err;
  openQuietly(&err)->set(1, sized(1, 50));
  Bytes dat = file(".dat");
  dat.push_back(0);
  writeBytes(".dat", dat);
  FILE* lines = tmpfile();
  ASSERT_NE(lines, nullptr);
  setDiagnosticStream(lines);
  ::testing::internal::CaptureStderr();
  std::unique_ptr<Store> s = open();
  const std::string onStderr = ::testing::internal::GetCapturedStderr();
  setDiagnosticStream(nullptr);
  EXPECT_TRUE(s->restarted);
  EXPECT_EQ(onStderr, "");
  char text[128] = {};
  rewind(lines);
  EXPECT_EQ(std::string(fgets(text, sizeof text, lines) != nullptr ? text : ""),
            "STORE: readIndex size mismatch\n");
  fclose(lines);
}

TEST_F(StoreTest, DataOneByteTooLongWipesTheStore) {
  std::string err;
  openQuietly(&err)->set(1, sized(1, 50));
  Bytes dat = file(".dat");
  dat.push_back(0);
  writeBytes(".dat", dat);
  std::unique_ptr<Store> s = openQuietly(&err);
  EXPECT_EQ(err, "STORE: readIndex size mismatch\n");
  EXPECT_TRUE(s->restarted);
  EXPECT_TRUE(s->ids().empty());
  EXPECT_TRUE(file(".dat").empty());
}

// What an interrupted or failed append leaves, built by hand: slots appended to the index
// after a store of ids 1 and 2, each {id, length}, and `record` bytes appended to the data
// file (a record that was cut short, or the whole record of a reused extent).
class StoreRecoveryTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    storeOneAndTwo();
  }
  // A new store of ids 1 and 2, in place of what was there.
  void storeOneAndTwo() {
    testing::removeStoreFiles(base());
    std::string err;
    std::unique_ptr<Store> s = openQuietly(&err);
    s->set(1, sized(1, 50));
    s->set(2, sized(2, 70));
  }
  void appendSlots(const std::vector<std::pair<uint32_t, uint32_t> >& added) {
    Bytes idx = file(".idx");
    for (const auto& slot : added) {
      unsigned char raw[storefmt::kSlotSize];
      storefmt::storeSlot(raw, storefmt::Slot{slot.first, slot.second, 10});
      idx.insert(idx.end(), raw, raw + sizeof raw);
    }
    writeBytes(".idx", idx);
  }
  void appendData(const Bytes& bytes) {
    Bytes dat = file(".dat");
    dat.insert(dat.end(), bytes.begin(), bytes.end());
    writeBytes(".dat", dat);
  }
  // A record as the store writes it.
  static Bytes record(const message& m) {
    Bytes flat;
    m.flatten(flat);
    Bytes out(2);
    storeLe16(out.data(), static_cast<uint16_t>(flat.size() + 2));
    out.insert(out.end(), flat.begin(), flat.end());
    return out;
  }
  void expectOneAndTwo(const Store& s) {
    EXPECT_FALSE(s.restarted);
    EXPECT_TRUE(const_cast<Store&>(s).get(1) == sized(1, 50));
    EXPECT_TRUE(const_cast<Store&>(s).get(2) == sized(2, 70));
  }
};

TEST_F(StoreRecoveryTest, ASetKilledBeforeItsRecordLosesOnlyItsId) {
  const Bytes idx = file(".idx"), dat = file(".dat");
  appendSlots({{3, 90}});
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  EXPECT_EQ(err, "STORE: readIndex recovered an interrupted write of id 3\n");
  expectOneAndTwo(*s);
  EXPECT_EQ(s->ids(), (std::vector<unsigned>{1, 2}));
  EXPECT_EQ(file(".idx"), idx);
  EXPECT_EQ(file(".dat"), dat);
  s->set(3, sized(3, 30));  // the repaired files take writes where they left off
  s.reset();
  s = openQuietly(&err);
  EXPECT_EQ(err, "");
  EXPECT_TRUE(s->get(3) == sized(3, 30));
}

TEST_F(StoreRecoveryTest, ARecordCutShortIsCutOff) {
  const Bytes dat = file(".dat");
  const Bytes whole = record(sized(3, 80));
  appendSlots({{3, static_cast<uint32_t>(whole.size())}});
  appendData(Bytes(whole.begin(), whole.end() - 1));
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  EXPECT_EQ(err, "STORE: readIndex recovered an interrupted write of id 3\n");
  expectOneAndTwo(*s);
  EXPECT_FALSE(s->has(3));
  EXPECT_EQ(file(".dat"), dat);
}

// A full flash: two appends failed (their slots were marked free), a later set reused the
// first free extent and completed, and the last set was interrupted.
TEST_F(StoreRecoveryTest, SlotsOfFailedAppendsAreKeptAndTheDataFileFilledOut) {
  const Bytes reused = record(sized(4, 60));
  appendSlots({{4, 200}, {storefmt::kFreeId, 150}, {5, 40}});
  appendData(reused);
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  EXPECT_EQ(err, "STORE: readIndex recovered an interrupted write of id 5\n");
  expectOneAndTwo(*s);
  EXPECT_TRUE(s->get(4) == sized(4, 60));
  EXPECT_FALSE(s->has(5));
  EXPECT_EQ(slots().size(), 4u);
  EXPECT_EQ(file(".dat").size(), record(sized(1, 50)).size() + record(sized(2, 70)).size() + 350);
}

TEST_F(StoreRecoveryTest, FreeSlotsPastTheEndAloneAreRepaired) {
  appendSlots({{storefmt::kFreeId, 100}, {storefmt::kFreeId, 30}});
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  EXPECT_EQ(err, "STORE: readIndex recovered a data file cut short by a failed write\n");
  expectOneAndTwo(*s);
}

// Only the last slot can belong to an interrupted set: other shapes are not repaired.
TEST_F(StoreRecoveryTest, OtherShortDataFilesStillWipe) {
  const std::vector<std::vector<std::pair<uint32_t, uint32_t> > > shapes = {
      {{3, 90}, {4, 40}},                  // two live slots without records
      {{3, 90}, {storefmt::kFreeId, 40}},  // a live one before a free one
  };
  for (const auto& shape : shapes) {
    SCOPED_TRACE(shape.size());
    storeOneAndTwo();
    appendSlots(shape);
    std::string err;
    std::unique_ptr<Store> s = openQuietly(&err);
    EXPECT_EQ(err, "STORE: readIndex size mismatch\n");
    EXPECT_TRUE(s->restarted);
  }
  storeOneAndTwo();
  Bytes dat = file(".dat");
  dat.resize(10);  // the record of the first slot is cut too: not what a failed append leaves
  writeBytes(".dat", dat);
  std::string err;
  EXPECT_TRUE(openQuietly(&err)->restarted);
  EXPECT_EQ(err, "STORE: readIndex size mismatch\n");
}

// A flash that fills up: sets go on until writes fail. Every set that completed is there
// after reopening, the store is not wiped, and it takes writes again once there is room.
TEST_F(StoreTest, AFullFlashLosesNoCompletedSet) {
  const std::string done = root_ + "/done";
  EXPECT_EQ(inChild([&]() {
              signal(SIGXFSZ, SIG_IGN);
              const struct rlimit limit = {40000, 40000};
              if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
              const int null = ::open("/dev/null", O_WRONLY);
              dup2(null, 2);
              std::ofstream out(done);
              Store s(base(), 10);
              for (unsigned id = 0; id < 200; ++id) {
                s.set(id % 70, sized(id, 100 + id * 37 % 900));
                if (s.has(id % 70)) out << id << "\n";
                if (id % 9 == 8) s.remove((id * 7) % 70);
              }
              return true;
            }),
            0);
  std::map<unsigned, message> expected;
  std::ifstream in(done);
  for (unsigned id; in >> id;) expected[id % 70] = sized(id, 100 + id * 37 % 900);
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  EXPECT_FALSE(s->restarted) << err;
  unsigned lost = 0;
  for (const auto& m : expected) {
    if (s->has(m.first) && !(s->get(m.first) == m.second)) ++lost;
  }
  EXPECT_EQ(lost, 0u);
  s->set(1000, sized(1000, 40));
  s.reset();
  s = openQuietly(&err);
  EXPECT_EQ(err, "");
  EXPECT_TRUE(s->get(1000) == sized(1000, 40));
}

TEST_F(StoreTest, TrailingPartialSlotIsIgnored) {
  std::string err;
  openQuietly(&err)->set(1, sized(1, 50));
  Bytes idx = file(".idx");
  idx.insert(idx.end(), {1, 2, 3, 4, 5});
  writeBytes(".idx", idx);
  std::unique_ptr<Store> s = openQuietly(&err);
  EXPECT_FALSE(s->restarted);
  EXPECT_TRUE(s->get(1) == sized(1, 50));
}

TEST_F(StoreTest, AgeingRemovesAtOneAndBelow) {
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  s->set(1, sized(1, 20));
  s->set(2, sized(2, 20));
  s->set(3, sized(3, 20));
  s->touch(1, 3);
  s->touch(2, 1);
  s->touch(3, 0);
  s->touch(99, 7);  // unknown: nothing
  s->age();
  EXPECT_EQ(s->ids(), (std::vector<unsigned>{1}));
  EXPECT_EQ(slots()[0][2], 2u);
  s->age();
  s->age();
  EXPECT_TRUE(s->ids().empty());
}

// Ageing removes enough to compact the store at once (no runner), and the compaction fails:
// its new data file cannot take the old one's name, which is a directory now. Ageing must
// walk on safely over whatever the failed compaction left.
TEST_F(StoreTest, AgeingSurvivesAFailedCompaction) {
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  for (unsigned id = 1; id <= 20; ++id) {
    s->set(id, sized(id, 100));
    s->touch(id, id <= 10 ? 1 : 5);
  }
  ASSERT_TRUE(s->get(20) == sized(20, 100));  // the data file is open
  ASSERT_EQ(unlink((base() + ".dat").c_str()), 0);
  ASSERT_EQ(mkdir((base() + ".dat").c_str(), 0700), 0);
  ::testing::internal::CaptureStderr();
  s->age();
  err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(s->ids().size(), 10u);  // the failed compaction kept the data
  for (unsigned id : s->ids()) {
    EXPECT_GT(id, 10u);
    EXPECT_TRUE(s->get(id) == sized(id, 100)) << id;
  }
}

TEST_F(StoreTest, UnreadableRecordGivesAnEmptyMessage) {
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  s->set(1, sized(1, 20));
  Bytes dat = file(".dat");
  dat[0] = 1;  // a record length below its own header
  dat[1] = 0;
  writeBytes(".dat", dat);
  ::testing::internal::CaptureStderr();
  EXPECT_TRUE(s->get(1).empty());
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "STORE: readMsg invalid header: msg len 1\n");
}

// A write that fails (here at the file-size limit, as on a full flash) is reported by the
// step that failed: nothing written, the header written but not the whole message.
TEST_F(StoreTest, AFailedRecordWriteNamesTheStepThatFailed) {
  struct Case {
    const char* name;
    rlim_t limit;  // the largest file the process may write
    const char* lines;
  };
  const Case cases[] = {
      {"nothing written", 0, "STORE: writeMsg write header failed\n"},
      {"one byte written", 1, "STORE: writeMsg write header failed\n"},
      {"header written", 2, "STORE: writeMsg write failed\n"},
      {"part of the message written", 10, "STORE: writeMsg write failed\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    int errPipe[2];  // the limit applies to files, so the error stream goes to a pipe
    ASSERT_EQ(pipe(errPipe), 0);
    const int result = inChild([&]() {
      std::string err;
      std::unique_ptr<Store> s = openQuietly(&err);
      Bytes bytes;
      sized(1, 40).flatten(bytes);
      signal(SIGXFSZ, SIG_IGN);
      const struct rlimit limit = {c.limit, c.limit};
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
      fflush(stderr);
      dup2(errPipe[1], 2);
      const bool written = s->writeMsg(0, bytes);
      fflush(stderr);
      return !written;
    });
    EXPECT_EQ(result, 0);
    close(errPipe[1]);
    char text[256];
    const ssize_t n = read(errPipe[0], text, sizeof text);
    close(errPipe[0]);
    EXPECT_EQ(std::string(text, n > 0 ? n : 0), c.lines);
  }
}

// Another process (or a full flash) shrinks the data file while the store is open: a get of
// a record that now lies past the end yields an empty message and a line, and never faults,
// whether SIGBUS belongs to nobody or to the Runner's crash handler. The records (5000 bytes)
// cross pages, so the cut falls on a lost page or inside the page that holds the new end.
TEST_F(StoreTest, DataFileShrunkUnderneathGivesEmptyMessages) {
  struct Case {
    const char* name;
    off_t keep;  // bytes of id 3's record left (-1: all but the last)
    const char* line;
  };
  const Case cases[] = {
      {"record gone", 0, "STORE: readMsg read header failed\n"},
      {"one byte of the header left", 1, "STORE: readMsg read header failed\n"},
      {"the header left", 2, "STORE: readMsg read failed\n"},
      {"part of the message left", 20, "STORE: readMsg read failed\n"},
      {"all but the last byte left", -1, "STORE: readMsg read failed\n"},
  };
  for (const bool withRunner : {false, true}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name);
      SCOPED_TRACE(withRunner ? "with a runner" : "without a runner");
      const std::string errFile = root_ + "/err";
      const int result = inChild([&]() {
        std::unique_ptr<Runner> runner(withRunner ? new TestRunner : nullptr);
        std::string err;
        std::unique_ptr<Store> s = openQuietly(&err);
        for (unsigned id = 1; id <= 3; ++id) s->set(id, sized(id, 5000));
        if (!(s->get(3) == sized(3, 5000))) return false;  // read once before it shrinks
        const off_t size = static_cast<off_t>(file(".dat").size());
        const off_t start = 2 * (size / 3);
        if (truncate((base() + ".dat").c_str(), c.keep < 0 ? size - 1 : start + c.keep) != 0) {
          return false;
        }
        fflush(stderr);
        const int fd = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 2);
        const bool empty = s->get(3).empty();
        const bool others = s->get(1) == sized(1, 5000);
        fflush(stderr);
        s.reset();
        if (runner) runner->shutdown();
        return empty && others;
      });
      EXPECT_EQ(result, 0) << "2 + the signal it died of, when it did";
      std::ifstream in(errFile);
      EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()),
                c.line);
    }
  }
}

// Reads follow a data file that grows past the part of it they first saw (here past the
// smallest view a read maps), and see what was rewritten in place since.
TEST_F(StoreTest, ReadsFollowAGrowingFile) {
  TestRunner runner;  // batches the fsyncs
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  s->set(1, sized(1, 100));
  ASSERT_TRUE(s->get(1) == sized(1, 100));
  for (unsigned id = 2; id <= 400; ++id) {
    s->set(id, sized(id, 5000));
    if (id % 50 == 0) {
      ASSERT_TRUE(s->get(id) == sized(id, 5000)) << id;
    }
  }
  EXPECT_GT(file(".dat").size(), 1u << 20);
  s->set(1, sized(2, 90));
  for (unsigned id = 2; id <= 400; ++id) ASSERT_TRUE(s->get(id) == sized(id, 5000)) << id;
  EXPECT_TRUE(s->get(1) == sized(2, 90));
  EXPECT_TRUE(s->readMsg(0) == sized(2, 90));
}

// One process holds the lock while another waits for it.
TEST_F(StoreTest, WlockExcludesOtherProcesses) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const std::string marks = root_ + "/marks";
  const pid_t child = fork();
  if (child == 0) {
    Wlock lock(base());
    ssize_t ignored = write(ready[1], "x", 1);
    (void)ignored;
    usleep(200000);
    std::ofstream(marks, std::ios::app) << "child ";
    _exit(0);
  }
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  {
    Wlock lock(base());
    std::ofstream(marks, std::ios::app) << "parent";
  }
  int status;
  waitpid(child, &status, 0);
  std::ifstream in(marks);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text, "child parent");
  close(ready[0]);
  close(ready[1]);
}

// The store's files are deleted (here by another process, which then locks the store anew)
// after this store had them open: its writes through the old descriptors reach only the
// deleted files, but a compaction creates and renames files by name, so it must wait for
// the other writer, and the files it leaves are the store's again.
TEST_F(StoreTest, ACompactionAfterTheFilesWereDeletedWaitsForTheNewLock) {
  std::string err;
  std::unique_ptr<Store> s = openQuietly(&err);
  for (unsigned id = 1; id <= 3; ++id) s->set(id, sized(id, 20));  // steady state: no checks
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const std::string marks = root_ + "/marks";
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    {
      std::string ignored;
      openQuietly(&ignored)->deleteFiles();
    }
    Wlock lock(base());
    ssize_t ignored = write(ready[1], "x", 1);
    (void)ignored;
    usleep(200000);
    std::ofstream(marks, std::ios::app) << "child ";
    _exit(0);
  }
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  s->set(4, sized(4, 20));  // into the deleted files, without waiting
  EXPECT_NE(access((base() + ".idx").c_str(), F_OK), 0);
  s->compact(false);
  std::ofstream(marks, std::ios::app) << "parent";
  int status;
  waitpid(child, &status, 0);
  std::ifstream in(marks);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()),
            "child parent");
  close(ready[0]);
  close(ready[1]);
  s.reset();
  std::unique_ptr<Store> reopened = openQuietly(&err);
  EXPECT_FALSE(reopened->restarted);
  EXPECT_EQ(reopened->ids(), (std::vector<unsigned>{1, 2, 3, 4}));
}

// A writer killed at random moments (bench/store_kill runs hundreds of these and prints the
// figures). The store reopens with every id at its last completed value, except the id
// being written, which holds its old value, its new value or nothing: never a value written
// under another id, nor an older one of its own, and the store is never wiped.
class StoreKillTest : public StoreTest,
                      public ::testing::WithParamInterface<testing::WriterShape> {};

TEST_P(StoreKillTest, SurvivesKillsDuringAStreamOfWrites) {
  const testing::WriteKillFigures f = testing::killWrites(base(), 80, 99, GetParam());
  EXPECT_EQ(f.wipes, 0);
  EXPECT_EQ(f.otherIds, 0);
  EXPECT_EQ(f.earlierValue, 0);
  EXPECT_EQ(f.unreadable, 0);
  EXPECT_EQ(f.othersDamaged, 0);
  std::cout << "store kill test (" << GetParam().ids << " ids): " << f.kills << " kills, "
            << f.wipes << " wipes; interrupted id: " << f.oldValue << " old, " << f.newValue
            << " new, " << f.nothing << " nothing\n";
}

INSTANTIATE_TEST_SUITE_P(Writers, StoreKillTest,
                         ::testing::Values(testing::kSmallWriter, testing::kVariedWriter),
                         [](const ::testing::TestParamInfo<testing::WriterShape>& info) {
                           return std::to_string(info.param.ids) + "Ids";
                         });

}  // namespace
}  // namespace kl
