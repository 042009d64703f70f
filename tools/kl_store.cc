// kl-store: prints a kl::Store's slots and messages and checks its consistency, reading the
// files only (the store itself would wipe or rewrite files it finds wrong).
//
//   kl-store [--check] [--id N] PATH      PATH is the store's base path (PATH.idx, PATH.dat)
//
// Exit status 0 when the store is consistent, 1 when it is not or cannot be read (or an
// --id that no slot holds), 2 on a usage error: the tools' common convention.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "kl/message/dump.h"
#include "kl/message/message.h"
#include "kl/store/store_format.h"

namespace {

using Bytes = std::vector<unsigned char>;
using kl::storefmt::Slot;

const char kUsage[] =
    "usage: kl-store [--check] [--id N] PATH\n"
    "\n"
    "Prints the slots of the store PATH (files PATH.idx and PATH.dat) with the message of\n"
    "each live slot in the dump form, then checks the store's consistency: the data file's\n"
    "size against the sum of the slot lengths, each record against its extent, and whether\n"
    "each message decodes. The files are only read.\n"
    "  --check  print only the problems and the summary\n"
    "  --id N   print only the slot of id N\n"
    "Exit status: 0 consistent, 1 inconsistent, unreadable files or an --id that no slot\n"
    "holds, 2 a usage error.\n";

// Reads the regular file `path` whole; false after a "kl-store: PATH: reason" line.
bool readFile(const std::string& path, Bytes* out) {
  const int fd = open(path.c_str(), O_RDONLY);
  struct stat st;
  const char* reason = nullptr;
  if (fd < 0 || fstat(fd, &st) != 0) {
    reason = strerror(errno);
  } else if (!S_ISREG(st.st_mode)) {
    reason = S_ISDIR(st.st_mode) ? "is a directory, not a store file" : "not a regular file";
  } else {
    out->resize(st.st_size);
    size_t got = 0;
    while (got < out->size()) {
      const ssize_t n = read(fd, out->data() + got, out->size() - got);
      if (n <= 0) {
        reason = n < 0 ? strerror(errno) : "shorter than its size";
        break;
      }
      got += n;
    }
  }
  if (fd >= 0) close(fd);
  if (reason == nullptr) return true;
  std::cerr << "kl-store: " << path << ": " << reason << std::endl;
  return false;
}

// A 32-bit id in decimal, hex (0x) or octal (0) notation, nothing else.
bool parseId(const char* text, unsigned* id) {
  if (!isdigit(static_cast<unsigned char>(text[0]))) return false;
  errno = 0;
  char* end;
  const unsigned long long v = strtoull(text, &end, 0);
  if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFull) return false;
  *id = static_cast<unsigned>(v);
  return true;
}

std::vector<Slot> slotsOf(const Bytes& idx, bool swapped) {
  std::vector<Slot> slots;
  for (size_t off = 0; off + kl::storefmt::kSlotSize <= idx.size();
       off += kl::storefmt::kSlotSize) {
    slots.push_back(kl::storefmt::loadSlot(&idx[off], swapped));
  }
  return slots;
}

// The sum of the slot lengths as the store adds them: in 32 bits, wrapping.
uint32_t sumOf(const std::vector<Slot>& slots) {
  uint32_t sum = 0;
  for (const Slot& s : slots) sum += s.length;
  return sum;
}

}  // namespace

int main(int argc, char** argv) {
  bool checkOnly = false;
  bool oneId = false;
  unsigned wanted = 0;
  const char* path = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      fputs(kUsage, stdout);
      return 0;
    } else if (strcmp(argv[i], "--check") == 0) {
      checkOnly = true;
    } else if (strcmp(argv[i], "--id") == 0 && i + 1 < argc) {
      oneId = true;
      if (!parseId(argv[++i], &wanted)) {
        std::cerr << "kl-store: --id " << argv[i] << ": not an id (0 to 4294967295)" << std::endl;
        return 2;
      }
    } else if (path == nullptr && argv[i][0] != '-') {
      path = argv[i];
    } else {
      fputs(kUsage, stderr);
      return 2;
    }
  }
  if (path == nullptr) {
    fputs(kUsage, stderr);
    return 2;
  }
  Bytes idx, dat;
  if (!readFile(std::string(path) + ".idx", &idx) || !readFile(std::string(path) + ".dat", &dat)) {
    return 1;
  }

  // The byte order whose slot lengths add up to the data file's size, little-endian first.
  bool swapped = false;
  std::vector<Slot> slots = slotsOf(idx, false);
  if (sumOf(slots) != dat.size() && sumOf(slotsOf(idx, true)) == dat.size()) {
    swapped = true;
    slots = slotsOf(idx, true);
  }
  int problems = 0;
  auto problem = [&problems](const std::string& text) {
    std::cout << "problem: " << text << std::endl;
    ++problems;
  };
  if (idx.size() % kl::storefmt::kSlotSize != 0) {
    problem("the index ends in a partial slot of " + std::to_string(idx.size() % 12) + " bytes");
  }
  if (sumOf(slots) != dat.size()) {
    problem("the data file holds " + std::to_string(dat.size()) + " bytes, the slots describe " +
            std::to_string(sumOf(slots)) + " (the store would be wiped on opening)");
  }

  std::set<unsigned> seen;
  uint32_t offset = 0;  // as the store places extents: in 32 bits
  unsigned long long freeBytes = 0;
  unsigned live = 0, freeSlots = 0;
  for (size_t n = 0; n < slots.size(); offset += slots[n].length, ++n) {
    const Slot& s = slots[n];
    const bool isFree = s.id == kl::storefmt::kFreeId;
    if (isFree) {
      ++freeSlots;
      freeBytes += s.length;
    } else {
      ++live;
    }
    if (oneId && (isFree || s.id != wanted)) continue;
    const std::string where = "slot " + std::to_string(n);
    if (!checkOnly) {
      std::cout << where << ": " << (isFree ? std::string("free") : "id " + std::to_string(s.id))
                << " length " << s.length << " age " << s.age << " offset " << offset << std::endl;
    }
    if (isFree) continue;
    if (!seen.insert(s.id).second)
      problem(where + ": id " + std::to_string(s.id) + " again (ignored on opening)");
    if (0ull + offset + kl::storefmt::kRecordHeaderSize > dat.size() ||
        s.length < kl::storefmt::kRecordHeaderSize) {
      problem(where + ": extent outside the data file");
      continue;
    }
    unsigned record = swapped ? (dat[offset] << 8 | dat[offset + 1]) : kl::loadLe16(&dat[offset]);
    if (record < kl::storefmt::kRecordHeaderSize || record > s.length ||
        0ull + offset + record > dat.size()) {
      problem(where + ": record length " + std::to_string(record) + " does not fit its extent");
      continue;
    }
    kl::message m;
    if (!m.unflatten(&dat[offset + 2], record - 2, kl::message::flatten_full)) {
      problem(where + ": the message does not decode");
      continue;
    }
    if (!checkOnly) m.dump2(std::cout, "    ", 0);
  }
  std::cout << (swapped ? "big-endian" : "little-endian") << " store: " << slots.size()
            << " slots, " << live << " live, " << freeSlots << " free (" << freeBytes
            << " bytes); data " << dat.size() << " bytes; "
            << (problems == 0 ? "consistent" : std::to_string(problems) + " problem(s)")
            << std::endl;
  if (oneId && seen.count(wanted) == 0) {
    std::cerr << "kl-store: " << path << ".idx: no message with id " << wanted << std::endl;
    return 1;
  }
  return problems == 0 ? 0 : 1;
}
