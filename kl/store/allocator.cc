#include "kl/store/allocator.h"

#include <cstdio>
#include <cstdlib>

#include "kl/base/diagnostics.h"

namespace kl {

namespace {

[[noreturn]] void fail(const char* text) {
  fprintf(diagnosticStream(), "%s\n", text);
  abort();
}

unsigned sizeOf(const Allocator::FreeRange* r) { return r->last + 1 - r->first; }

}  // namespace

Allocator::Allocator(unsigned first, unsigned last) : first_(first), last_(last) {
  if (first > last) fail("allocator: start beyond end");
  count_ = last - first + 1;
  if (count_ == 0) fail("Loud Error: Allocator created with 0 free items, max range specified");
  head_ = new FreeRange{nullptr, first, last};
  cursor_ = &head_;
}

// Pairs are (value 2i, value 2i + 1), taken from the last down; each range must end below
// the start of the one above it, and one that touches it extends that range downwards.
Allocator::Allocator(const std::vector<unsigned>& ranges) : count_(0), head_(nullptr) {
  if (ranges.empty()) fail("allocator: empty initialisator");
  if (ranges.size() % 2 != 0) fail("allocator: odd length initialisator");
  unsigned bound = 0xFFFFFFFFu;
  for (size_t i = ranges.size(); i >= 2; i -= 2) {
    const unsigned first = ranges[i - 2];
    const unsigned last = ranges[i - 1];
    if (last >= bound) fail("allocator: overlapping ranges");
    if (last == bound - 1 && head_ != nullptr) {
      head_->first = first;  // touches the range above (nothing counted, as built)
      continue;
    }
    if (first > last) fail("allocator: start beyond end");
    count_ += last - first + 1;
    if (count_ == 0) fail("Loud Error: Allocator collected with 0 free items, max range specified");
    head_ = new FreeRange{head_, first, last};
    bound = first;
  }
  first_ = head_->first;
  last_ = ranges.back();
  cursor_ = &head_;
}

Allocator::~Allocator() {
  while (head_ != nullptr) {
    FreeRange* next = head_->next;
    delete head_;
    head_ = next;
  }
}

void Allocator::unlinkRange(FreeRange** link) {
  FreeRange* r = *link;
  if (cursor_ == &r->next) cursor_ = link;
  *link = r->next;
  delete r;
  wrapCursor();
}

// The count alone does not say that a range is left: allocateRange's fall-back withdraws a
// range without counting it, so an empty list is checked as well.
unsigned Allocator::allocate() {
  if (count_ == 0 || head_ == nullptr) fail("allocator: no free ids");
  FreeRange* r = *cursor_;
  const unsigned id = r->first;
  if (r->first == r->last) {
    unlinkRange(cursor_);
  } else {
    ++r->first;
  }
  --count_;
  return id;
}

unsigned Allocator::allocate(unsigned id) {
  if (count_ == 0) fail("allocator: no free ids (spec)");
  FreeRange** link = &head_;
  while (*link != nullptr && id > (*link)->last) link = &(*link)->next;
  if (*link == nullptr) fail("allocator: spec alloc for already allocated 2");
  FreeRange* r = *link;
  if (id < r->first) fail("allocator: spec alloc for already allocated");
  const bool wasCurrent = cursor_ == link;
  if (r->first == r->last) {
    unlinkRange(link);
  } else if (id == r->first) {
    ++r->first;
  } else if (id == r->last) {
    --r->last;
  } else {
    FreeRange* upper = new FreeRange{r->next, id + 1, r->last};
    r->next = upper;
    r->last = id - 1;
    if (cursor_ == &r->next) cursor_ = &upper->next;
  }
  --count_;
  if (wasCurrent) spin();
  return id;
}

void Allocator::spin() {
  FreeRange** best = nullptr;
  for (FreeRange** link = &head_; *link != nullptr; link = &(*link)->next) {
    if (best == nullptr || sizeOf(*link) > sizeOf(*best)) best = link;
  }
  if (best != nullptr) cursor_ = best;
}

bool Allocator::allocateRange(unsigned n, unsigned* first, unsigned* got) {
  if (count_ == 0 || head_ == nullptr) fail("allocator: no free ids");
  FreeRange** lastLink = nullptr;
  for (FreeRange** link = &head_; *link != nullptr; link = &(*link)->next) {
    lastLink = link;
    FreeRange* r = *link;
    if (sizeOf(r) < n) continue;
    *first = r->first;
    if (got != nullptr) *got = n;
    if (sizeOf(r) == n) {
      unlinkRange(link);
    } else {
      r->first += n;
    }
    count_ -= n;
    return true;
  }
  if (got == nullptr) return false;
  // As built: the last range is withdrawn and reported with *got = 0; count_ stays.
  *first = (*lastLink)->first;
  *got = 0;
  unlinkRange(lastLink);
  return true;
}

void Allocator::free(unsigned id) {
  FreeRange** prevLink = nullptr;  // link to P, the last range below id
  FreeRange** link = &head_;       // link to N, the first range above id
  while (*link != nullptr && (*link)->last < id) {
    prevLink = link;
    link = &(*link)->next;
  }
  FreeRange* prev = prevLink != nullptr ? *prevLink : nullptr;
  FreeRange* next = *link;
  if (next != nullptr && next->first <= id) fail("allocator: free already free id");

  if (prev != nullptr && id == prev->last + 1) {
    prev->last = id;
    if (next != nullptr) join(prev, next);
  } else if (next != nullptr && id == next->first - 1) {
    if (cursor_ == link) {
      // Not added to the current range: the id comes back only after a wrap.
      FreeRange* single = new FreeRange{next, id, id};
      *link = single;
      cursor_ = &single->next;
      if (prev != nullptr) join(prev, single);
    } else {
      next->first = id;
      if (prev != nullptr) join(prev, next);
    }
  } else {
    FreeRange* single = new FreeRange{next, id, id};
    const bool cursorHere = cursor_ == link;
    *link = single;
    if (cursorHere) {
      cursor_ = &single->next;
      // The list was empty, so the new range is the only one and current. (The count may
      // say otherwise after allocateRange's fall-back.)
      if (prev == nullptr && next == nullptr) cursor_ = &head_;
    }
  }
  ++count_;
}

void Allocator::join(FreeRange* a, FreeRange* b) {
  if (b->first - a->last != 1 || cursor_ == &a->next) return;
  if (cursor_ == &b->next) cursor_ = &a->next;
  a->last = b->last;
  a->next = b->next;
  delete b;
}

void Allocator::freeRange(unsigned first, unsigned n) {
  for (unsigned id = first + n - 1; id >= first && id - first < n; --id) free(id);
}

bool Allocator::isAllocated(unsigned id) const {
  for (const FreeRange* r = head_; r != nullptr; r = r->next) {
    if (id < r->first) return true;
    if (id <= r->last) return false;
  }
  return true;
}

void Allocator::dump(const std::string& name) const {
  fprintf(diagnosticStream(), "%s:\n", name.c_str());
  for (const FreeRange* r = head_; r != nullptr; r = r->next) {
    fprintf(diagnosticStream(), "  %u - %u%s\n", r->first, r->last, *cursor_ == r ? " *" : "");
  }
  fprintf(diagnosticStream(), "------\n");
}

}  // namespace kl
