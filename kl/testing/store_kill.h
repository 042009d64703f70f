// File: kl/testing/store_kill.h
//
// Kill tests of kl::Store: a forked child writes to a store and is killed with SIGKILL at a
// random moment; the parent then opens the store and classifies what the kill left. Used by
// the store's unit tests (a few dozen kills) and by bench/store_kill (hundreds, with the
// figures printed).
//
// killWrites: the child runs a random stream of set and remove over a WriterShape's ids, with
// values of random sizes, so that overwrites grow and shrink (without a runner, so every
// write is followed by its fsync pair, and removals now and then compact the store). It announces
// each operation on a pipe before it starts and confirms it after, so the parent knows the last
// completed value of every id and the one operation that may have been in flight.
//
// killRewrite: the child opens a prepared store whose opening rewrites both files, either a
// bloated little-endian store (compaction) or a big-endian one (conversion); the child runs
// traced and is killed at a random system-call stop, so the kill falls on any step of that
// rewrite.
#ifndef KL_TESTING_STORE_KILL_H_
#define KL_TESTING_STORE_KILL_H_

#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kl/base/endian.h"
#include "kl/message/system.h"
#include "kl/store/store.h"
#include "kl/store/store_format.h"

namespace kl {
namespace testing {

// A message of about `size` flattened bytes whose STD_ID is `tag`.
inline message taggedMessage(unsigned tag, size_t size) {
  message m;
  m.insert(STD_ID, tag);
  m.insert_string(STD_DESCR, std::string(size > 16 ? size - 16 : 1, 'a' + tag % 26));
  return m;
}

// Sends the error stream to /dev/null while it lives.
class SilentStderr {
 public:
  SilentStderr() : saved_(dup(2)) {
    fflush(stderr);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    close(null);
  }
  ~SilentStderr() {
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
  }
  SilentStderr(const SilentStderr&) = delete;
  SilentStderr& operator=(const SilentStderr&) = delete;

 private:
  int saved_;
};

// Removes the store's files and what an interrupted rewrite may have left beside them.
inline void removeStoreFiles(const std::string& base) {
  for (const char* suffix : {".idx", ".dat", ".lock", ".idx.new", ".dat.new"}) {
    unlink((base + suffix).c_str());
  }
}

struct WriteKillFigures {
  int kills = 0;
  int wipes = 0;  // the store came up empty with `restarted`
  // What the id of the interrupted operation held afterwards:
  int oldValue = 0;       // its last completed value (or still nothing)
  int newValue = 0;       // the value being written (or nothing, for a removal)
  int nothing = 0;        // nothing, where it had a value and a set was in flight
  int otherIds = 0;       // a value that was written under another id
  int earlierValue = 0;   // an older value of its own, removed or overwritten before
  int unreadable = 0;     // an entry whose record does not decode
  int othersDamaged = 0;  // ids that were not in flight and lost their last value
};

// The ids a kill writer works on and the range of its values' flattened sizes.
struct WriterShape {
  unsigned ids;
  unsigned minSize;
  unsigned maxSize;
};
constexpr WriterShape kSmallWriter{16, 20, 420};    // few ids, records below one read-ahead
constexpr WriterShape kVariedWriter{64, 20, 3000};  // more ids, records of many sizes

namespace internal {

[[noreturn]] inline void runWriter(const std::string& base, const WriterShape& shape, unsigned seed,
                                   unsigned firstTag, int journal) {
  std::mt19937 r(seed);
  Store s(base, 10);
  for (unsigned tag = firstTag;; ++tag) {
    const unsigned id = r() % shape.ids;
    const bool erase = r() % 4 == 0;
    const unsigned size = shape.minSize + r() % (shape.maxSize - shape.minSize);
    char line[64];
    int n = snprintf(line, sizeof line, "B %u %u %u %u\n", id, erase, tag, size);
    if (write(journal, line, n) != n) _exit(2);
    if (erase) {
      s.remove(id);
    } else {
      s.set(id, taggedMessage(tag, size));
    }
    if (write(journal, "E\n", 2) != 2) _exit(2);
  }
}

}  // namespace internal

// `kills` rounds over one store at base (removed first).
inline WriteKillFigures killWrites(const std::string& base, int kills, unsigned seed,
                                   const WriterShape& shape = kSmallWriter) {
  removeStoreFiles(base);
  std::mt19937 rng(seed);
  WriteKillFigures f;
  std::map<unsigned, message> model;   // the last completed value of each id
  std::map<unsigned, unsigned> owner;  // tag -> the id it was written under
  for (int round = 0; round < kills; ++round) {
    int journal[2];
    if (pipe(journal) != 0) abort();
    const unsigned childSeed = rng();
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      close(journal[0]);
      const int null = open("/dev/null", O_WRONLY);
      dup2(null, 2);
      internal::runWriter(base, shape, childSeed, (round + 1) * 1000000u, journal[1]);
    }
    close(journal[1]);
    usleep(1000 + rng() % 20000);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    std::string log;
    char buf[4096];
    for (ssize_t n; (n = read(journal[0], buf, sizeof buf)) > 0;) log.append(buf, n);
    close(journal[0]);
    ++f.kills;

    std::istringstream lines(log);
    std::string tag;
    unsigned id = 0, erase = 0, seq = 0, size = 0;
    bool inFlight = false;
    while (lines >> tag) {
      if (tag == "B") {
        lines >> id >> erase >> seq >> size;
        owner[seq] = id;
        inFlight = true;
      } else {
        if (erase) {
          model.erase(id);
        } else {
          model[id] = taggedMessage(seq, size);
        }
        inFlight = false;
      }
    }
    SilentStderr quiet;
    std::unique_ptr<Store> s(new Store(base, 10));
    if (s->restarted) {
      ++f.wipes;
      model.clear();
      continue;
    }
    for (unsigned i = 0; i < shape.ids; ++i) {
      const auto old = model.find(i);
      const bool has = s->has(i);
      const message got = has ? s->get(i) : message();
      const bool isOld = old == model.end() ? !has : has && got == old->second;
      if (!(inFlight && i == id)) {
        if (!isOld) ++f.othersDamaged;
      } else if (isOld) {
        ++f.oldValue;
      } else if (erase ? !has : has && got == taggedMessage(seq, size)) {
        ++f.newValue;
      } else if (!has) {
        ++f.nothing;
      } else if (got.empty()) {
        ++f.unreadable;
      } else {
        const auto o = owner.find(got.get(STD_ID, 0));
        if (o == owner.end() || o->second != i) {
          ++f.otherIds;
        } else {
          ++f.earlierValue;
        }
      }
      if (has) {
        model[i] = got;
      } else {
        model.erase(i);
      }
    }
  }
  return f;
}

struct RewriteKillFigures {
  int rounds = 0;
  int finished = 0;  // the child had finished before the kill came
  int intact = 0;    // every message still there with its value
  int wiped = 0;     // opened empty with `restarted`
  int damaged = 0;   // opened without `restarted`, but messages missing or wrong
};

// Writes a store of `count` messages (every fourth slot free when `withHoles`) at base, in
// the big-endian form when `bigEndian`. Returns the live messages by id.
inline std::map<unsigned, message> writeStoreFiles(const std::string& base, unsigned count,
                                                   bool withHoles, bool bigEndian) {
  std::map<unsigned, message> live;
  std::string idx, dat;
  auto put32 = [bigEndian](std::string& out, uint32_t v) {
    unsigned char b[4];
    if (bigEndian) {
      storeBe32(b, v);
    } else {
      storeLe32(b, v);
    }
    out.append(reinterpret_cast<const char*>(b), 4);
  };
  for (unsigned k = 0; k < count; ++k) {
    const message m = taggedMessage(k, 100 + k % 200);
    std::vector<unsigned char> flat;
    m.flatten(flat);
    const uint32_t length = flat.size() + storefmt::kRecordHeaderSize;
    const bool hole = withHoles && k % 4 == 3;
    put32(idx, hole ? storefmt::kFreeId : k);
    put32(idx, length);
    put32(idx, 5);
    unsigned char header[4];
    if (bigEndian) {
      storeBe32(header, length);
      dat.append(reinterpret_cast<const char*>(header) + 2, 2);
    } else {
      storeLe32(header, length);
      dat.append(reinterpret_cast<const char*>(header), 2);
    }
    dat.append(flat.begin(), flat.end());
    if (!hole) live[k] = m;
  }
  std::ofstream(base + ".idx", std::ios::binary | std::ios::trunc) << idx;
  std::ofstream(base + ".dat", std::ios::binary | std::ios::trunc) << dat;
  return live;
}

// Starts a child that stops itself under the parent's trace and, once continued, opens the
// store at base and exits.
inline pid_t startTracedOpener(const std::string& base) {
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(3);
    raise(SIGSTOP);
    Store s(base, 10);
    _exit(0);
  }
  waitpid(child, nullptr, 0);  // stopped
  return child;
}

// Lets the traced child run up to its `stops`-th system-call stop (entry or exit); false
// when it exited before.
inline bool stepSyscalls(pid_t child, unsigned stops) {
  for (unsigned i = 0; i < stops; ++i) {
    int status = 0;
    if (ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) != 0) return false;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) || WIFSIGNALED(status)) return false;
  }
  return true;
}

// `rounds` kills of a child that opens a freshly written store of `count` messages, which
// it compacts (`bigEndian` false: a little-endian store with holes) or converts (`bigEndian`
// true: a big-endian store without holes). The child is traced and killed at a system-call
// stop drawn at random from all those of an uninterrupted opening, so every step of the
// rewrite, down to the moment between two renames, is hit.
inline RewriteKillFigures killRewrite(const std::string& base, int rounds, unsigned count,
                                      bool bigEndian, unsigned seed) {
  std::mt19937 rng(seed);
  RewriteKillFigures f;
  removeStoreFiles(base);
  writeStoreFiles(base, count, !bigEndian, bigEndian);
  pid_t child = startTracedOpener(base);
  unsigned total = 0;
  while (stepSyscalls(child, 1)) ++total;
  waitpid(child, nullptr, 0);
  for (int round = 0; round < rounds; ++round) {
    removeStoreFiles(base);
    const std::map<unsigned, message> live = writeStoreFiles(base, count, !bigEndian, bigEndian);
    child = startTracedOpener(base);
    if (!stepSyscalls(child, rng() % (total + 1))) ++f.finished;
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    ++f.rounds;
    SilentStderr quiet;
    std::unique_ptr<Store> s(new Store(base, 10));
    if (s->restarted) {
      ++f.wiped;
      continue;
    }
    bool same = s->ids().size() == live.size();
    for (const auto& m : live) same = same && s->get(m.first) == m.second;
    if (same) {
      ++f.intact;
    } else {
      ++f.damaged;
    }
  }
  return f;
}

}  // namespace testing
}  // namespace kl

#endif  // KL_TESTING_STORE_KILL_H_
