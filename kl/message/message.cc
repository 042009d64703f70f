#include "kl/message/message.h"

#include <new>

#include "kl/base/endian.h"
#include "kl/base/sanitizer.h"
#include "kl/message/rep.h"

// Under AddressSanitizer a kept block is poisoned, so that a handle used after its message
// was released is still reported although the block was not freed.
#ifdef KL_ADDRESS_SANITIZER
#define KL_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define KL_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define KL_POISON(p, n) ((void)(p), (void)(n))
#define KL_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace kl {

namespace {

// The one empty representation that every default-constructed message shares. It is
// constant-initialised (no start-up order problem for messages built by other static
// initialisers) and never destroyed (no shutdown order problem either); its count starts
// at 1 for the holder itself, so no handle ever brings it to zero or writes into it.
union NilHolder {
  constexpr NilHolder() : rep(message::Rep::kShared) {}
  ~NilHolder() {}
  message::Rep rep;
};
NilHolder nilHolder;

message::Rep* nilRep() { return &nilHolder.rep; }

// Copies node by node into `to`, linking each copy at the head: the copy runs in reverse
// order.
void copyList(message::Rep* to, const message::litem* node) {
  for (; node != nullptr; node = node->next) {
    visitItem(node, [to](const auto* it) {
      using V = std::remove_const_t<decltype(it->value)>;
      to->link(to->newItem<V>(it->id, it->value));
    });
  }
}

// The shared empty representation is never counted: it is never freed, and every write
// to a handle holding it makes a fresh one first (message::unique).
// A count of 1 means this handle is the only one: no other can take a share meanwhile, so
// the Rep goes without the atomic decrement, which costs more than the rest of releasing a
// small message.
void release(message::Rep* rep) {
  if (rep == nilRep()) return;
  if (rep->refs.load(std::memory_order_acquire) == 1 ||
      rep->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    message::Rep::destroy(rep);
  }
}

void retain(message::Rep* rep) {
  if (rep != nilRep()) rep->refs.fetch_add(1, std::memory_order_relaxed);
}

template <class V>
V valueOr(const V* p, const V& dflt) {
  return p != nullptr ? *p : dflt;
}

std::vector<unsigned int> swapped(std::vector<unsigned int> v) {
  for (unsigned int& x : v) x = byteSwap32(x);
  return v;
}

template <class V>
unsigned int countOf(const V* array) {
  return array != nullptr ? array->size() : 0;
}

constexpr uint32_t arrayOf(uint32_t id, uint32_t type) { return withType(id, kArrayBit | type); }

}  // namespace

message::Rep::~Rep() {
  for (litem* list : {fields, arrays}) {
    while (list != nullptr) {
      litem* next = list->next;
      freeNode(list);
      list = next;
    }
  }
}

namespace {

// Freed blocks kept for reuse by this thread: a service builds and drops a message for
// every request, and a block taken from here costs no trip to the allocator. Small blocks
// (a Rep with its pool, or a node chunk) and large ones are kept apart.
//
// The cache is plain data in the initial-exec TLS model, so that reaching it is one
// load and not a call into the dynamic loader. The first block kept on a thread arms a
// closer that returns the blocks to the allocator when the thread ends; a message released
// after that (a static one at exit) frees its blocks directly.
struct BlockCache {
  static constexpr unsigned kCapacity = 8;
  struct Shelf {
    void* blocks[kCapacity];
    unsigned count;
  };
  Shelf small;
  Shelf large;
  bool armed;
  bool closed;
};

thread_local BlockCache blockCache __attribute__((tls_model("initial-exec")));

void emptyShelf(BlockCache::Shelf& shelf, size_t size) {
  while (shelf.count > 0) {
    void* block = shelf.blocks[--shelf.count];
    KL_UNPOISON(block, size);
    ::operator delete(block);
  }
}

struct BlockCacheCloser {
  ~BlockCacheCloser() {
    blockCache.closed = true;
    emptyShelf(blockCache.small, kBlockSize);
    emptyShelf(blockCache.large, kLargeBlockSize);
  }
};

// A block of `size` bytes from `shelf`, else from the allocator.
void* takeBlock(BlockCache::Shelf& shelf, size_t size) {
  if (shelf.count == 0) return ::operator new(size);
  void* block = shelf.blocks[--shelf.count];
  KL_UNPOISON(block, size);
  return block;
}

// Keeps `block` of `size` bytes on `shelf` for reuse, or frees it when the shelf is full
// or the cache closed.
void giveBlock(BlockCache::Shelf& shelf, void* block, size_t size) {
  if (blockCache.closed || shelf.count == BlockCache::kCapacity) {
    ::operator delete(block);
    return;
  }
  if (!blockCache.armed) {
    static thread_local BlockCacheCloser closer;
    (void)closer;
    blockCache.armed = true;
  }
  KL_POISON(block, size);
  shelf.blocks[shelf.count++] = block;
}

}  // namespace

message::Rep* message::Rep::create(bool large) {
  Rep* rep = large ? new (takeBlock(blockCache.large, kLargeBlockSize)) Rep
                   : new (takeBlock(blockCache.small, kBlockSize)) Rep;
  rep->large = large;
  return rep;
}

void message::Rep::destroy(Rep* rep) {
  unsigned char* chunk = rep->chunk;
  const bool large = rep->large;
  rep->~Rep();
  if (chunk != nullptr) giveBlock(blockCache.small, chunk, kBlockSize);
  if (large) {
    giveBlock(blockCache.large, rep, kLargeBlockSize);
  } else {
    giveBlock(blockCache.small, rep, kBlockSize);
  }
}

void* message::Rep::chunkSpace(uint32_t size) {
  if (chunk == nullptr)
    chunk = static_cast<unsigned char*>(takeBlock(blockCache.small, kBlockSize));
  if (chunkUsed + size <= kBlockSize) {
    void* space = chunk + chunkUsed;
    chunkUsed += size;
    return space;
  }
  return ::operator new(size);
}

bool message::Rep::inBlocks(const void* node) const {
  const unsigned char* p = static_cast<const unsigned char*>(node);
  const unsigned char* base = reinterpret_cast<const unsigned char*>(this + 1);
  return (p >= base && p < base + poolSize()) ||
         (chunk != nullptr && p >= chunk && p < chunk + kBlockSize);
}

void message::Rep::freeNode(litem* node) {
  visitItem(node, [this](auto* it) {
    using It = std::remove_pointer_t<decltype(it)>;
    it->~It();
    if (!inBlocks(it)) ::operator delete(it);
  });
}

void message::Rep::indexNode(litem* node) {
  if (NodeIndex<litem>* index = activeIndex()) {
    index->insert(node);
    return;
  }
  if (nodeCount <= kIndexFrom) return;
  NodeIndex<litem>* index = new NodeIndex<litem>;
  extrasRef().index.reset(index);
  index->activate(nodeCount);
  for (litem* list : {fields, arrays}) {
    for (litem* linked = list; linked != nullptr; linked = linked->next) index->insert(linked);
  }
}

// --- construction and sharing ---------------------------------------------------------------

message::message() : rep_(nilRep()) {}

message::message(const message& other) : rep_(other.rep_) {
  retain(rep_);
  if (rep_->unshareable) clone();
}

message& message::operator=(const message& other) {
  if (rep_ != other.rep_) {
    Rep* old = rep_;
    rep_ = other.rep_;
    retain(rep_);
    release(old);
  }
  if (rep_->unshareable) clone();
  return *this;
}

message::message(const flat_message& flat) : message(flat.data(), flat.size()) {}

message::message(const std::vector<unsigned char>& data) : message(data.data(), data.size()) {}

message::message(const unsigned char* data, unsigned int len)
    : rep_(Rep::create(len > kLargeDecodeFrom)) {
  unflatten(data, len, flatten_full);
}

message& message::operator=(const flat_message& flat) {
  message decoded(flat);
  return *this = decoded;
}

message::~message() { release(rep_); }

void message::unique() {
  if (rep_ == nilRep() || rep_->refs.load(std::memory_order_acquire) > 1) clone();
}

void message::clone() {
  if (rep_ == nilRep()) {  // nothing to copy
    rep_ = Rep::create();
    return;
  }
  const Rep* src = rep_;
  // A large block takes what the source's pool and chunk hold in one allocation.
  Rep* copy = Rep::create(src->large || src->chunk != nullptr);
  copy->singleBoolId = src->singleBoolId;
  copy->singleBoolValue = src->singleBoolValue;
  if (const htable<bool>* table = src->boolTable()) copy->makeBoolTable() = *table;
  copy->u32s = src->u32s;
  copyList(copy, src->fields);
  copyList(copy, src->arrays);
  if (const Bytes* side = src->flatSide()) copy->extrasRef().flatSide.reset(new Bytes(*side));
  release(rep_);
  rep_ = copy;
}

void message::makeUnshareable() {
  unique();
  rep_->unshareable = true;
}

bool message::is_nil() const { return rep_ == nilRep(); }

bool message::empty() const {
  return rep_->boolCount() == 0 && rep_->u32s.count() == 0 && rep_->fields == nullptr &&
         rep_->arrays == nullptr;
}

const std::vector<unsigned char>* message::passthrough() const { return rep_->flatSide(); }

// --- bool -----------------------------------------------------------------------------------

bool& message::Rep::boolRef(uint32_t id) {
  htable<bool>* table = boolTable();
  if (table == nullptr) {
    if (singleBoolId == id) return singleBoolValue;
    if (singleBoolId == kNoBool) {
      singleBoolId = id;
      singleBoolValue = false;
      return singleBoolValue;
    }
    table = &makeBoolTable();
    table->get_ref(singleBoolId) = singleBoolValue;
    singleBoolId = kNoBool;
  }
  if (bool* found = table->find(id)) return *found;
  bool& value = table->get_ref(id);
  value = false;
  return value;
}

void message::Rep::setBool(uint32_t id, bool value) {
  if (htable<bool>* table = boolTable()) {
    table->get_ref(id) = value;
  } else {
    boolRef(id) = value;
  }
}

const bool* message::get_bool_ref(uint32_t id) const {
  id = withType(id, kTypeBool);
  if (const htable<bool>* table = rep_->boolTable()) return table->find(id);
  return rep_->singleBoolId == id ? &rep_->singleBoolValue : nullptr;
}

bool message::get_bool(uint32_t id, bool dflt) const { return valueOr(get_bool_ref(id), dflt); }

bool& message::get_bool_ref(uint32_t id) {
  makeUnshareable();
  return rep_->boolRef(withType(id, kTypeBool));
}

void message::insert_bool(uint32_t id, bool value) {
  unique();
  rep_->setBool(withType(id, kTypeBool), value);
}

unsigned int message::size_bool(uint32_t id) const { return get_bool_ref(id) != nullptr; }

// --- u32 ------------------------------------------------------------------------------------

const unsigned int* message::get_u32_ref(uint32_t id) const {
  return rep_->u32s.find(withType(id, kTypeU32));
}

unsigned int message::get_u32(uint32_t id, unsigned int dflt) const {
  return valueOr(get_u32_ref(id), dflt);
}

unsigned int message::get_be32(uint32_t id, unsigned int dflt) const {
  const unsigned int* p = get_u32_ref(id);
  return p != nullptr ? byteSwap32(*p) : dflt;
}

unsigned int& message::get_u32_ref(uint32_t id) {
  makeUnshareable();
  id = withType(id, kTypeU32);
  if (unsigned int* found = rep_->u32s.find(id)) return *found;
  unsigned int& value = rep_->u32s.get_ref(id);
  value = 0;
  return value;
}

void message::insert_u32(uint32_t id, unsigned int value) {
  unique();
  rep_->u32s.get_ref(withType(id, kTypeU32)) = value;
}

void message::insert_be32(uint32_t id, unsigned int value) { insert_u32(id, byteSwap32(value)); }

unsigned int message::size_u32(uint32_t id) const { return get_u32_ref(id) != nullptr; }

// --- other scalars --------------------------------------------------------------------------

const unsigned long long* message::get_u64_ref(uint32_t id) const {
  return findIn<unsigned long long>(rep_, withType(id, kTypeU64));
}
const IPAddr6* message::get_addr6_ref(uint32_t id) const {
  return findIn<IPAddr6>(rep_, withType(id, kTypeAddr6));
}
const std::string* message::get_string_ref(uint32_t id) const {
  return findIn<std::string>(rep_, withType(id, kTypeString));
}
const Bytes* message::get_raw_ref(uint32_t id) const {
  return findIn<Bytes>(rep_, withType(id, kTypeRaw));
}
const flat_message* message::get_message_ref(uint32_t id) const {
  return findIn<flat_message>(rep_, withType(id, kTypeMessage));
}

unsigned long long message::get_u64(uint32_t id, unsigned long long dflt) const {
  return valueOr(get_u64_ref(id), dflt);
}
IPAddr6 message::get_addr6(uint32_t id, const IPAddr6& dflt) const {
  return valueOr(get_addr6_ref(id), dflt);
}
IPAddr6 message::get_addr6(uint32_t id) const { return get_addr6(id, IPAddr6()); }
std::string message::get_string(uint32_t id, const std::string& dflt) const {
  return valueOr(get_string_ref(id), dflt);
}
Bytes message::get_raw(uint32_t id, const Bytes& dflt) const {
  return valueOr(get_raw_ref(id), dflt);
}
flat_message message::get_message(uint32_t id, const flat_message& dflt) const {
  return valueOr(get_message_ref(id), dflt);
}

unsigned long long& message::get_u64_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<unsigned long long>(rep_, withType(id, kTypeU64));
}
IPAddr6& message::get_addr6_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<IPAddr6>(rep_, withType(id, kTypeAddr6));
}
std::string& message::get_string_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<std::string>(rep_, withType(id, kTypeString));
}
Bytes& message::get_raw_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<Bytes>(rep_, withType(id, kTypeRaw));
}
flat_message& message::get_message_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<flat_message>(rep_, withType(id, kTypeMessage));
}

void message::insert_u64(uint32_t id, unsigned long long value) {
  unique();
  storeIn<unsigned long long>(rep_, withType(id, kTypeU64), value);
}
void message::insert_addr6(uint32_t id, const IPAddr6& value) {
  unique();
  storeIn<IPAddr6>(rep_, withType(id, kTypeAddr6), value);
}
void message::insert_string(uint32_t id, const std::string& value) {
  unique();
  storeIn<std::string>(rep_, withType(id, kTypeString), value);
}
void message::insert_raw(uint32_t id, const Bytes& value) {
  unique();
  storeIn<Bytes>(rep_, withType(id, kTypeRaw), value);
}
void message::insert_string(uint32_t id, std::string&& value) {
  unique();
  storeIn<std::string>(rep_, withType(id, kTypeString), std::move(value));
}
void message::insert_raw(uint32_t id, Bytes&& value) {
  unique();
  storeIn<Bytes>(rep_, withType(id, kTypeRaw), std::move(value));
}
void message::insert_message(uint32_t id, flat_message&& value) {
  unique();
  storeIn<flat_message>(rep_, withType(id, kTypeMessage), std::move(value));
}
void message::insert_message(uint32_t id, const flat_message& value) {
  unique();
  storeIn<flat_message>(rep_, withType(id, kTypeMessage), value);
}

unsigned int message::size_field(uint32_t id) const {
  return (id & kArrayBit) == 0 && rep_->findNode(id) != nullptr;
}

// --- arrays ---------------------------------------------------------------------------------

const std::vector<bool>* message::get_bool_array_ref(uint32_t id) const {
  return findIn<std::vector<bool> >(rep_, arrayOf(id, kTypeBool));
}
const std::vector<unsigned int>* message::get_u32_array_ref(uint32_t id) const {
  return findIn<std::vector<unsigned int> >(rep_, arrayOf(id, kTypeU32));
}
const std::vector<unsigned long long>* message::get_u64_array_ref(uint32_t id) const {
  return findIn<std::vector<unsigned long long> >(rep_, arrayOf(id, kTypeU64));
}
const std::vector<IPAddr6>* message::get_addr6_array_ref(uint32_t id) const {
  return findIn<std::vector<IPAddr6> >(rep_, arrayOf(id, kTypeAddr6));
}
const std::vector<std::string>* message::get_string_array_ref(uint32_t id) const {
  return findIn<std::vector<std::string> >(rep_, arrayOf(id, kTypeString));
}
const std::vector<Bytes>* message::get_raw_array_ref(uint32_t id) const {
  return findIn<std::vector<Bytes> >(rep_, arrayOf(id, kTypeRaw));
}
const std::vector<flat_message>* message::get_message_array_ref(uint32_t id) const {
  return findIn<std::vector<flat_message> >(rep_, arrayOf(id, kTypeMessage));
}

std::vector<bool> message::get_bool_array(uint32_t id) const {
  return valueOr(get_bool_array_ref(id), {});
}
std::vector<unsigned int> message::get_u32_array(uint32_t id) const {
  return valueOr(get_u32_array_ref(id), {});
}
std::vector<unsigned int> message::get_be32_array(uint32_t id) const {
  return swapped(get_u32_array(id));
}
std::vector<unsigned long long> message::get_u64_array(uint32_t id) const {
  return valueOr(get_u64_array_ref(id), {});
}
std::vector<IPAddr6> message::get_addr6_array(uint32_t id) const {
  return valueOr(get_addr6_array_ref(id), {});
}
std::vector<std::string> message::get_string_array(uint32_t id) const {
  return valueOr(get_string_array_ref(id), {});
}
std::vector<Bytes> message::get_raw_array(uint32_t id) const {
  return valueOr(get_raw_array_ref(id), {});
}
std::vector<flat_message> message::get_message_array(uint32_t id) const {
  return valueOr(get_message_array_ref(id), {});
}

std::vector<bool>& message::get_bool_array_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<std::vector<bool> >(rep_, arrayOf(id, kTypeBool));
}
std::vector<unsigned int>& message::get_u32_array_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<std::vector<unsigned int> >(rep_, arrayOf(id, kTypeU32));
}
std::vector<unsigned long long>& message::get_u64_array_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<std::vector<unsigned long long> >(rep_, arrayOf(id, kTypeU64));
}
std::vector<IPAddr6>& message::get_addr6_array_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<std::vector<IPAddr6> >(rep_, arrayOf(id, kTypeAddr6));
}
std::vector<std::string>& message::get_string_array_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<std::vector<std::string> >(rep_, arrayOf(id, kTypeString));
}
std::vector<Bytes>& message::get_raw_array_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<std::vector<Bytes> >(rep_, arrayOf(id, kTypeRaw));
}
std::vector<flat_message>& message::get_message_array_ref(uint32_t id) {
  makeUnshareable();
  return findOrCreateIn<std::vector<flat_message> >(rep_, arrayOf(id, kTypeMessage));
}

std::vector<unsigned int>& message::operator[](u32_array_id id) {
  unique();
  return findOrCreateIn<std::vector<unsigned int> >(rep_, id);
}

void message::insert_bool_array(uint32_t id, const std::vector<bool>& value) {
  unique();
  storeIn<std::vector<bool> >(rep_, arrayOf(id, kTypeBool), value);
}
void message::insert_u32_array(uint32_t id, const std::vector<unsigned int>& value) {
  unique();
  storeIn<std::vector<unsigned int> >(rep_, arrayOf(id, kTypeU32), value);
}
void message::insert_u32_array(uint32_t id, std::vector<unsigned int>&& value) {
  unique();
  storeIn<std::vector<unsigned int> >(rep_, arrayOf(id, kTypeU32), std::move(value));
}
void message::insert_string_array(uint32_t id, std::vector<std::string>&& value) {
  unique();
  storeIn<std::vector<std::string> >(rep_, arrayOf(id, kTypeString), std::move(value));
}
void message::insert_raw_array(uint32_t id, std::vector<Bytes>&& value) {
  unique();
  storeIn<std::vector<Bytes> >(rep_, arrayOf(id, kTypeRaw), std::move(value));
}
void message::insert_message_array(uint32_t id, std::vector<flat_message>&& value) {
  unique();
  storeIn<std::vector<flat_message> >(rep_, arrayOf(id, kTypeMessage), std::move(value));
}
void message::insert_be32_array(uint32_t id, const std::vector<unsigned int>& value) {
  insert_u32_array(id, swapped(value));
}
void message::insert_u64_array(uint32_t id, const std::vector<unsigned long long>& value) {
  unique();
  storeIn<std::vector<unsigned long long> >(rep_, arrayOf(id, kTypeU64), value);
}
void message::insert_addr6_array(uint32_t id, const std::vector<IPAddr6>& value) {
  unique();
  storeIn<std::vector<IPAddr6> >(rep_, arrayOf(id, kTypeAddr6), value);
}
void message::insert_string_array(uint32_t id, const std::vector<std::string>& value) {
  unique();
  storeIn<std::vector<std::string> >(rep_, arrayOf(id, kTypeString), value);
}
void message::insert_raw_array(uint32_t id, const std::vector<Bytes>& value) {
  unique();
  storeIn<std::vector<Bytes> >(rep_, arrayOf(id, kTypeRaw), value);
}
void message::insert_message_array(uint32_t id, const std::vector<flat_message>& value) {
  unique();
  storeIn<std::vector<flat_message> >(rep_, arrayOf(id, kTypeMessage), value);
}

unsigned int message::size_bool_array(uint32_t id) const { return countOf(get_bool_array_ref(id)); }
unsigned int message::size_unsigned_array(uint32_t id) const {
  return countOf(get_u32_array_ref(id));
}
unsigned int message::size_u64_array(uint32_t id) const { return countOf(get_u64_array_ref(id)); }
unsigned int message::size_addr6_array(uint32_t id) const {
  return countOf(get_addr6_array_ref(id));
}
unsigned int message::size_string_array(uint32_t id) const {
  return countOf(get_string_array_ref(id));
}
unsigned int message::size_raw_array(uint32_t id) const { return countOf(get_raw_array_ref(id)); }
unsigned int message::size_message_array(uint32_t id) const {
  return countOf(get_message_array_ref(id));
}

bool message::has_array(uint32_t id) const {
  return (id & kArrayBit) != 0 && rep_->findNode(id) != nullptr;
}

}  // namespace kl
