// File: kl/store/allocator.h
//
// kl::Allocator hands out unsigned 32-bit ids from inclusive ranges and takes them back.
// Free ids are kept as a sorted list of ranges. Ids come from a moving position, the current
// range: an id that was just freed is handed out again only after the allocator has worked
// through the ids above it and wrapped around.
//
// Misuse is a programming error: allocating from an empty allocator, freeing a free id or
// taking a specific id that is taken prints one "allocator: " line on the error stream and
// aborts the process. Not thread-safe.
#ifndef KL_STORE_ALLOCATOR_H_
#define KL_STORE_ALLOCATOR_H_

#include <string>
#include <vector>

namespace kl {

// Hands out unused ids from a range and takes them back (see the file comment).
class Allocator {
 public:
  // A run of free ids, in a list in ascending order.
  struct FreeRange {
    FreeRange* next;  // the next run above, or null
    unsigned first;   // lowest free id
    unsigned last;    // highest free id (inclusive)
  };

  // The ids [first, last]. Aborts when first > last or the range covers all 2^32 ids.
  Allocator(unsigned first, unsigned last);
  // The ids of (first, last) pairs, ascending and not overlapping; a pair that touches the
  // next one joins it. Aborts on an empty or odd list, overlapping or inverted ranges, or
  // ranges that add up to 2^32 ids.
  explicit Allocator(const std::vector<unsigned>& ranges);
  ~Allocator();
  Allocator(const Allocator&) = delete;
  Allocator& operator=(const Allocator&) = delete;

  // The next id in rotating order. Aborts when none is free (also when count() still says
  // otherwise after allocateRange's fall-back).
  unsigned allocate();
  // Takes `id` and returns it. Aborts when it is not free. When it came from the current
  // range, the largest range becomes current.
  unsigned allocate(unsigned id);
  // Takes n consecutive ids from the first range that holds them: *first := the first id,
  // *got := n (when got is given), true. When no range is large enough: false without `got`;
  // with it, *got := 0, *first := the first id of the last range, which is withdrawn from
  // the allocator, and true (treat *got == 0 as failure). Aborts when no id is free.
  bool allocateRange(unsigned n, unsigned* first, unsigned* got);
  // Returns id. Aborts when it is free already. An id just below the current range stays a
  // range of its own, so it comes back only after a wrap.
  void free(unsigned id);
  // free() of first + n - 1 down to first. REQUIRES: first > 0.
  void freeRange(unsigned first, unsigned n);
  // Whether id is not free; ids outside every range (and outside the bounds) count as taken.
  bool isAllocated(unsigned id) const;
  // Makes the largest free range current (the lowest among equals).
  void spin();
  // Prints the free ranges to the error stream, " *" marking the current one.
  void dump(const std::string& name) const;

  // The number of free ids.
  unsigned count() const { return count_; }

 private:
  // Merges b into a when b starts right after a and is not the current range.
  void join(FreeRange* a, FreeRange* b);
  // Unlinks and frees the range *link points to, keeping the cursor valid.
  void unlinkRange(FreeRange** link);
  void wrapCursor() {
    if (*cursor_ == nullptr) cursor_ = &head_;
  }

  unsigned first_;
  unsigned last_;
  unsigned count_;
  FreeRange* head_;
  FreeRange** cursor_;  // the link that leads to the current range
};

}  // namespace kl

#endif  // KL_STORE_ALLOCATOR_H_
