// The store when its flash fails or fills. Every system call a store operation makes on its
// files (a new set, an overwrite in place, a growing overwrite, a remove, an ageing step, a
// flush, a compaction and an opening) is made to fail in turn, with ENOSPC, with EIO and,
// for writes, by writing half; then the fault is lifted. The store must say what failed,
// keep every value flushed before the fault (the id being written may hold its old value,
// its new one or none), take writes again, and open again without being wiped. The calls
// fail through the interposer of kl/testing/io_faults.h, linked into this program only.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kl/message/system.h"
#include "kl/runner/runner.h"
#include "kl/store/store.h"
#include "kl/testing/io_faults.h"
#include "kl/testing/temp_root.h"

namespace kl {
namespace {

using testing::IoFault;

message sized(unsigned tag, size_t size) {
  message m;
  m.insert(STD_ID, tag);
  m.insert_string(STD_DESCR, std::string(size > 16 ? size - 16 : 1, 'a' + tag % 26));
  return m;
}

class TestRunner : public Runner {};

// The values every case starts from, set and flushed before any fault.
std::map<unsigned, message> baseline() {
  std::map<unsigned, message> values;
  for (unsigned id = 1; id <= 12; ++id) values[id] = sized(id, 20 + id * 53 % 600);
  return values;
}

// An operation under test and the ids it may change.
struct Operation {
  const char* name;
  std::function<void(std::unique_ptr<Store>&, const std::string&)> run;
  std::map<unsigned, message> newValues;  // ids it writes, with what
  std::set<unsigned> removes;             // ids it removes
};

std::vector<Operation> operations() {
  const std::map<unsigned, message> base = baseline();
  const message newId = sized(100, 300);
  const message inPlace = sized(1003, base.at(3).max_length() - 8);
  const message grown = sized(1004, 900);
  return {
      {"set of a new id",
       [newId](std::unique_ptr<Store>& s, const std::string&) { s->set(100, newId); },
       {{100, newId}},
       {}},
      {"overwrite in place",
       [inPlace](std::unique_ptr<Store>& s, const std::string&) { s->set(3, inPlace); },
       {{3, inPlace}},
       {}},
      {"overwrite that grows",
       [grown](std::unique_ptr<Store>& s, const std::string&) { s->set(4, grown); },
       {{4, grown}},
       {}},
      {"remove", [](std::unique_ptr<Store>& s, const std::string&) { s->remove(5); }, {}, {5}},
      {"ageing step", [](std::unique_ptr<Store>& s, const std::string&) { s->age(); }, {}, {}},
      {"flush", [](std::unique_ptr<Store>& s, const std::string&) { s->doFlush(); }, {}, {}},
      {"compaction",
       [](std::unique_ptr<Store>& s, const std::string&) { s->compact(false); },
       {},
       {}},
      {"opening",
       [](std::unique_ptr<Store>& s, const std::string& path) {
         s.reset();
         s.reset(new Store(path, 10));
       },
       {},
       {}},
  };
}

struct Figures {
  unsigned faults = 0;    // faults injected
  unsigned checked = 0;   // values read back and compared after a fault
  unsigned lost = 0;      // flushed values missing or changed
  unsigned silent = 0;    // faults that printed no line
  unsigned wipes = 0;     // reopenings that wiped the store
  unsigned refusals = 0;  // stores that took no write once the fault was lifted
};

class StoreFaultTest : public testing::TempRootTest {
 protected:
  TestRunner runner_;  // flushes are batched, as in a service
  unsigned traces_ = 0;
  void TearDown() override {
    testing::watchIoUnder("");
    runner_.shutdown();
    testing::TempRootTest::TearDown();
  }

  // A store in its own directory holding the flushed baseline, with ids 7 and 8 removed
  // (holes for the compaction to close).
  std::unique_ptr<Store> prepare(const std::string& path) {
    ::testing::internal::CaptureStderr();  // "openIdx failed": the first opening
    std::unique_ptr<Store> s(new Store(path, 10));
    ::testing::internal::GetCapturedStderr();
    for (const auto& v : baseline()) s->set(v.first, v.second);
    s->remove(7);
    s->remove(8);
    s->doFlush();
    return s;
  }

  // The calls `op` makes on the store's files when nothing fails.
  std::vector<std::string> callsOf(const Operation& op) {
    const std::string dir = root_ + "/trace" + std::to_string(++traces_);
    mkdir(dir.c_str(), 0700);
    testing::watchIoUnder(dir + "/");
    std::unique_ptr<Store> s = prepare(dir + "/s");
    testing::resetIoTrace();
    op.run(s, dir + "/s");
    const std::vector<std::string> calls = testing::ioTrace();
    s.reset();
    testing::watchIoUnder("");
    return calls;
  }

  // Runs op with call number `call` failing, then checks the store as the file comment
  // says; adds to *f.
  void runCase(const Operation& op, unsigned call, const std::string& name, IoFault fault,
               unsigned number, Figures* f) {
    const std::string dir = root_ + "/case" + std::to_string(number);
    mkdir(dir.c_str(), 0700);
    const std::string path = dir + "/s";
    testing::watchIoUnder(dir + "/");
    std::unique_ptr<Store> s = prepare(path);
    testing::resetIoTrace();
    testing::armIoFault(call, fault);
    ::testing::internal::CaptureStderr();
    op.run(s, path);
    const std::string err = ::testing::internal::GetCapturedStderr();
    const bool injected = testing::disarmIoFault();
    const std::string what = std::string(op.name) + ", call " + std::to_string(call) + " (" + name +
                             ", fault " + std::to_string(static_cast<int>(fault)) + ")";
    ASSERT_TRUE(injected) << what;
    ++f->faults;
    // A short write() is finished by the loop that made it: nothing failed to say.
    const bool mustSay = !(fault == IoFault::kShortWrite && name == "write");
    if (mustSay && err.find("STORE: ") == std::string::npos) {
      ++f->silent;
      ADD_FAILURE() << what << " printed nothing";
    }
    ::testing::internal::CaptureStderr();
    s->set(500, sized(500, 70));
    const bool tookWrite = s->get(500) == sized(500, 70);
    s->doFlush();
    s.reset();
    s.reset(new Store(path, 10));
    const std::string reopenErr = ::testing::internal::GetCapturedStderr();
    if (!tookWrite || !(s->get(500) == sized(500, 70))) {
      ++f->refusals;
      ADD_FAILURE() << what << ": the store took no write once the fault was lifted: " << reopenErr;
    }
    if (s->restarted) {
      ++f->wipes;
      ADD_FAILURE() << what << ": wiped on reopening: " << err << reopenErr;
    }
    for (const auto& v : baseline()) {
      if (v.first == 7 || v.first == 8) continue;
      ++f->checked;
      const message now = s->get(v.first);
      const auto written = op.newValues.find(v.first);
      const bool asBefore = now == v.second;
      const bool asWritten = written != op.newValues.end() && now == written->second;
      const bool gone =
          !s->has(v.first) && (written != op.newValues.end() || op.removes.count(v.first) != 0);
      if (!asBefore && !asWritten && !gone) {
        ++f->lost;
        ADD_FAILURE() << what << ": id " << v.first << " lost its value";
      }
    }
    for (const auto& v : op.newValues) {
      if (v.first <= 12) continue;
      ++f->checked;
      if (s->has(v.first) && !(s->get(v.first) == v.second)) {
        ++f->lost;
        ADD_FAILURE() << what << ": new id " << v.first << " holds another value";
      }
    }
    s.reset();
    testing::watchIoUnder("");
  }
};

TEST_F(StoreFaultTest, EveryFailedCallIsSaidAndLosesNoFlushedValue) {
  Figures total;
  unsigned number = 0;
  for (const Operation& op : operations()) {
    const std::vector<std::string> calls = callsOf(op);
    ASSERT_FALSE(calls.empty()) << op.name;
    Figures figures;
    for (unsigned k = 1; k <= calls.size(); ++k) {
      for (IoFault fault : {IoFault::kNoSpace, IoFault::kIoError, IoFault::kShortWrite}) {
        if (fault == IoFault::kShortWrite && !testing::writesData(calls[k - 1])) continue;
        runCase(op, k, calls[k - 1], fault, ++number, &figures);
      }
    }
    std::cout << "store I/O faults, " << op.name << ": " << calls.size() << " calls, "
              << figures.faults << " faults, " << figures.checked << " values checked, "
              << figures.lost << " lost\n";
    total.faults += figures.faults;
    total.checked += figures.checked;
    total.lost += figures.lost;
    total.silent += figures.silent;
    total.wipes += figures.wipes;
    total.refusals += figures.refusals;
  }
  std::cout << "store I/O faults: " << total.faults << " injected, " << total.checked
            << " values checked, " << total.lost << " lost, " << total.silent << " unsaid, "
            << total.wipes << " wipes\n";
  EXPECT_EQ(total.lost, 0u);
  EXPECT_EQ(total.silent, 0u);
  EXPECT_EQ(total.wipes, 0u);
  EXPECT_EQ(total.refusals, 0u);
  EXPECT_GT(total.faults, 100u);
}

// A real file system that fills: a 64 KiB tmpfs (when this machine lets the test mount one).
// Every set that completed is there after reopening, and once room is made the store takes
// writes again.
TEST_F(StoreFaultTest, AFullFileSystemKeepsEveryCompletedSet) {
  const std::string mnt = root_ + "/small";
  mkdir(mnt.c_str(), 0700);
  if (mount("kl-test", mnt.c_str(), "tmpfs", 0, "size=64k") != 0) {
    GTEST_SKIP() << "cannot mount a tmpfs here (" << strerror(errno)
                 << "); the store tests' RLIMIT_FSIZE case stands in for a full flash";
  }
  std::map<unsigned, message> completed;
  {
    ::testing::internal::CaptureStderr();
    Store s(mnt + "/s", 10);
    for (unsigned n = 0; n < 400; ++n) {
      const unsigned id = n % 150;
      const message m = sized(n, 200 + n * 37 % 700);
      s.set(id, m);
      if (s.has(id) && s.get(id) == m) {
        completed[id] = m;
      } else {
        completed.erase(id);
      }
    }
    s.doFlush();
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("STORE: "), std::string::npos) << "the file system never filled";
  }
  ::testing::internal::CaptureStderr();
  {
    Store s(mnt + "/s", 10);
    EXPECT_FALSE(s.restarted);
    unsigned lost = 0;
    for (const auto& v : completed) lost += s.get(v.first) == v.second ? 0 : 1;
    EXPECT_EQ(lost, 0u) << "of " << completed.size() << " completed sets";
    std::cout << "full tmpfs: " << completed.size() << " completed sets, " << lost << " lost\n";
    for (unsigned id = 0; id < 150; id += 2) s.remove(id);
    s.compact(false);
    s.set(1000, sized(1000, 100));
    EXPECT_EQ(s.get(1000), sized(1000, 100));
  }
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(umount(mnt.c_str()), 0);
}

}  // namespace
}  // namespace kl
