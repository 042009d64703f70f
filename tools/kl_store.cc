// kl-store: prints a kl::Store's slots and messages and checks its consistency, reading the
// files only (the store itself would wipe or rewrite files it finds wrong).
//
//   kl-store [--check] [--id N] PATH      PATH is the store's base path (PATH.idx, PATH.dat)
//
// Exit status 0 when the store is consistent, 1 when it is not, 2 on a usage error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
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
    "Exit status: 0 consistent, 1 inconsistent, 2 usage or unreadable files.\n";

bool readFile(const std::string& path, Bytes* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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

unsigned long long sumOf(const std::vector<Slot>& slots) {
  unsigned long long sum = 0;
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
      wanted = static_cast<unsigned>(strtoul(argv[++i], nullptr, 0));
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
    std::cerr << "kl-store: cannot read " << path << ".idx and " << path << ".dat" << std::endl;
    return 2;
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
  unsigned long long offset = 0, freeBytes = 0;
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
    if (offset + kl::storefmt::kRecordHeaderSize > dat.size() ||
        s.length < kl::storefmt::kRecordHeaderSize) {
      problem(where + ": extent outside the data file");
      continue;
    }
    unsigned record = swapped ? (dat[offset] << 8 | dat[offset + 1]) : kl::loadLe16(&dat[offset]);
    if (record < kl::storefmt::kRecordHeaderSize || record > s.length ||
        offset + record > dat.size()) {
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
  return problems == 0 ? 0 : 1;
}
