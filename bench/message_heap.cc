// message_heap: the heap bytes a message holds, by shape, for `make size`.
//
// This program's operator new records the size each allocation asked for, so the figures
// are the bytes the library requests (the allocator's own overhead comes on top and differs
// between C libraries). Each shape is built (or decoded) kCopies times, all kept alive, and
// the growth of live bytes is divided by kCopies: the few freed blocks the library keeps for
// reuse then change the figure by less than a byte.
//
// Output: one line per shape, "NAME BYTES ALLOCATIONS", both per message.
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "kl/kl.h"
#include "typical_request.h"

namespace {

long liveBytes = 0;
long liveAllocations = 0;

// Each block carries its requested size in front of it; 16 bytes keep the alignment.
constexpr size_t kHeader = 16;

}  // namespace

void* operator new(size_t n) {
  unsigned char* block = static_cast<unsigned char*>(malloc(n + kHeader));
  if (block == nullptr) abort();
  *reinterpret_cast<size_t*>(block) = n;
  liveBytes += static_cast<long>(n);
  ++liveAllocations;
  return block + kHeader;
}

void operator delete(void* p) noexcept {
  if (p == nullptr) return;
  unsigned char* block = static_cast<unsigned char*>(p) - kHeader;
  liveBytes -= static_cast<long>(*reinterpret_cast<size_t*>(block));
  --liveAllocations;
  free(block);
}

void operator delete(void* p, size_t) noexcept { operator delete(p); }

namespace {

constexpr int kCopies = 10000;

// Fields of every value type, in a fixed mix, with ids offset by `base`.
kl::message mixedFields(unsigned count, uint32_t base = 0) {
  kl::message m;
  for (unsigned i = 0; i < count; ++i) {
    const uint32_t n = base + i + 1;
    switch (i % 10) {
      case 0:
      case 3:
      case 6:
        m.insert_u32(0x08fd0000 | n, 1000 + i);
        break;
      case 1:
        m.insert_string(0x20fd0000 | n, "eth" + std::to_string(i));
        break;
      case 2:
      case 8:
        m.insert_bool(0x00fd0000 | n, i % 2 == 0);
        break;
      case 4:
        m.insert_string(0x20fd0000 | n, "uplink port " + std::to_string(i));
        break;
      case 5:
        m.insert_u64(0x10fd0000 | n, 123456789012ull + i);
        break;
      case 7:
        m.insert_u32_array(0x88fd0000 | n, {1, 2, 3});
        break;
      default:
        m.insert_u32(0x08fd0000 | n, i);
        break;
    }
  }
  return m;
}

kl::message threeFields() {
  kl::message m;
  m.insert(kl::STD_ID, 7);
  m.insert_string(kl::STD_DESCR, "ether");
  m.insert_bool(kl::STD_DISABLED, true);
  return m;
}

template <class Make>
void measure(const char* name, Make make) {
  std::vector<kl::message> held;
  held.reserve(kCopies);
  const long bytes0 = liveBytes, allocations0 = liveAllocations;
  for (int i = 0; i < kCopies; ++i) held.push_back(make());
  const long bytes = liveBytes - bytes0;
  const long allocations = liveAllocations - allocations0;
  printf("%s %ld %.1f\n", name, bytes / kCopies, static_cast<double>(allocations) / kCopies);
}

// A shape built field by field, and the same decoded from its encoding.
template <class Build>
void measureBoth(const char* name, Build build) {
  measure(name, build);
  const kl::message::flat_message flat(build());
  measure((std::string(name) + "/decoded").c_str(), [&flat] { return kl::message(flat); });
}

}  // namespace

int main() {
  measureBoth("fields_1", [] { return mixedFields(1); });
  measureBoth("fields_3", threeFields);
  measureBoth("fields_10", [] { return mixedFields(10); });
  measureBoth("fields_30", [] { return mixedFields(30); });
  measureBoth("typical_request", klbench::buildKlRequest);
  return 0;
}
