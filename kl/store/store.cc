#include "kl/store/store.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include "kl/base/diagnostics.h"
#include "kl/base/root.h"
#include "kl/runner/fault_guard.h"
#include "kl/store/store_format.h"
#include "kl/store/wlock.h"

namespace kl {

namespace {

using storefmt::kFreeId;
using storefmt::kRecordHeaderSize;
using storefmt::kSlotSize;

void report(const char* text) { fprintf(diagnosticStream(), "STORE: %s\n", text); }

// Reads exactly n bytes unless the file ends or fails first; the count read, -1 on error.
ssize_t readFully(int fd, void* buf, size_t n) {
  size_t got = 0;
  while (got < n) {
    const ssize_t r = read(fd, static_cast<char*>(buf) + got, n - got);
    if (r < 0) return -1;
    if (r == 0) break;
    got += static_cast<size_t>(r);
  }
  return static_cast<ssize_t>(got);
}

bool writeFully(int fd, const void* buf, size_t n) {
  size_t done = 0;
  while (done < n) {
    const ssize_t w = write(fd, static_cast<const char*>(buf) + done, n - done);
    if (w <= 0) return false;
    done += static_cast<size_t>(w);
  }
  return true;
}

// Unlinks `file` and creates it empty (0600); the new descriptor, or -1. Should the unlink
// fail, the file is emptied all the same.
int recreate(const std::string& file) {
  unlink(file.c_str());
  return open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
}

// Whether a failed pread or pwrite failed at its position (what a seek would have reported).
bool positionRejected(int err) {
  return err == EBADF || err == EINVAL || err == EOVERFLOW || err == ESPIPE;
}

// Whether a record of `length` bytes at `offset` lies in one page of the file. A write that
// spans pages can be cut between two of them by a kill, which would leave an overwritten
// record half old and half new; one within a page is written whole or not at all.
bool withinOnePage(unsigned offset, unsigned length) {
  static const unsigned long page = static_cast<unsigned long>(sysconf(_SC_PAGESIZE));
  return offset / page == (0ul + offset + length - 1) / page;
}

void closeIfOpen(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

}  // namespace

// An absolute path is a device path: under the development root, like every other one.
Store::Store(const std::string& path, unsigned defaultAge)
    : path_(!path.empty() && path[0] == '/' ? rootedPath(path.c_str()) : path),
      defaultAge_(defaultAge) {
  for (size_t k = path_.find('/', 1); k != std::string::npos; k = path_.find('/', k + 1)) {
    mkdir(path_.substr(0, k).c_str(), 0700);
  }
  finishRewrite();
  readFailed_ = false;
  if (!readIndex(false)) {
    if (readFailed_) {
      loaded_ = false;  // read again by the next operation: an I/O error wipes nothing
      return;
    }
    restarted = true;
    restart();
  }
  checkForBloat();
}

// The constructor's reading of the index, again, when an I/O error kept it from reading
// (see loaded_). Files found to disagree are wiped then, as the constructor would have.
bool Store::ensureLoaded() {
  if (loaded_) return true;
  readFailed_ = false;
  if (!readIndex(false)) {
    if (readFailed_) return false;
    restart();
  }
  loaded_ = true;
  checkForBloat();
  return true;
}

Store::~Store() {
  closeIdx();
  closeData();
  if (lockFd_ >= 0) close(lockFd_);
  if (getRunner() != nullptr) {
    if (compactTimer_) kl::removeTimer(&compactTimer_);
    if (flushTimer_) kl::removeTimer(&flushTimer_);
  }
}

std::vector<unsigned> Store::ids() const {
  std::vector<unsigned> out;
  for (const auto& e : entries_) out.push_back(e.first);
  return out;
}

// --- the write lock -----------------------------------------------------------------------

// The store keeps its lock file open and takes the record lock once for nested users, so a
// write through the open files costs the lock and the unlock, without an open and a close;
// the name check (an fstat) is paid only where a deleted lock file could let two writers
// reach the same named files (see the class comment).
Store::Lock::Lock(Store& store, Reach reach) : store_(store) {
  const bool outermost = store_.lockDepth_++ == 0;
  const bool checkName = reach == Reach::kNames || store_.nameCheckDue_ || store_.lockFd_ < 0 ||
                         store_.idxFd_ < 0 || store_.datFd_ < 0;
  if (!outermost && (store_.lockChecked_ || !checkName)) return;
  if (checkName) {
    store_.lockChecked_ = lockStoreFile(store_.path_ + ".lock", &store_.lockFd_);
    if (store_.lockChecked_) store_.nameCheckDue_ = false;
  } else {
    lockOpenStoreFile(store_.lockFd_);
    store_.lockChecked_ = false;
  }
}

Store::Lock::~Lock() {
  if (--store_.lockDepth_ > 0 || store_.lockFd_ < 0) return;
  unlockStoreFile(store_.lockFd_);
}

// --- files ----------------------------------------------------------------------------------

// Only restart() and compact() create the files.
bool Store::openIdx() {
  if (idxFd_ >= 0) return true;
  idxFd_ = open((path_ + ".idx").c_str(), O_RDWR);
  if (idxFd_ < 0) {
    readFailed_ = errno != ENOENT;
    report("openIdx failed");
  }
  nameCheckDue_ = true;
  return idxFd_ >= 0;
}

bool Store::openData() {
  if (datFd_ >= 0) return true;
  datFd_ = open((path_ + ".dat").c_str(), O_RDWR);
  if (datFd_ < 0) report("openData failed");
  nameCheckDue_ = true;
  return datFd_ >= 0;
}

void Store::closeIdx() { closeIfOpen(idxFd_); }
void Store::closeData() {
  unmapData();
  closeIfOpen(datFd_);
}

void Store::cleanup() {
  entries_.clear();
  freeList_.clear();
  dataSize_ = indexCount_ = freeBytes_ = freeCount_ = 0;
}

void Store::restart() {
  Lock lock(*this);
  closeIdx();
  closeData();
  cleanup();
  bigEndian_ = false;
  int fd = recreate(path_ + ".dat");
  if (fd < 0) {
    report("restart open .dat failed");
    return;
  }
  close(fd);
  fd = recreate(path_ + ".idx");
  if (fd < 0) {
    report("restart open .idx failed");
    return;
  }
  close(fd);
}

void Store::deleteFiles() {
  Lock lock(*this);
  for (const char* suffix : {".idx", ".dat", ".lock", ".idx.new", ".dat.new"}) {
    unlink((path_ + suffix).c_str());  // with what an interrupted compaction left behind
  }
}

// A rewrite (compaction or conversion) killed before its data file took the store's name
// left the old pair intact and new files beside it: they go. One killed between the two
// renames left the new data file in place and the new index beside it: it takes its name.
// The new data file is created before the new index, so a new index alone means the second
// case.
void Store::finishRewrite() {
  Lock lock(*this);
  const std::string newDat = path_ + ".dat.new";
  const std::string newIdx = path_ + ".idx.new";
  if (access(newDat.c_str(), F_OK) == 0) {
    unlink(newDat.c_str());
    unlink(newIdx.c_str());
  } else if (access(newIdx.c_str(), F_OK) == 0 &&
             rename(newIdx.c_str(), (path_ + ".idx").c_str()) != 0) {
    report("could not finish an interrupted compaction");
  }
}

// --- index ----------------------------------------------------------------------------------

bool Store::readIndex(bool swapped) {
  cleanup();
  if (!openIdx()) return false;
  if (!loadSlots(swapped)) return false;
  struct stat st;
  if (stat((path_ + ".dat").c_str(), &st) != 0) {
    readFailed_ = errno != ENOENT;
    report("readIndex stat failed");
    return false;
  }
  if (static_cast<unsigned long long>(st.st_size) == dataSize_) {
    // Rewrites both files little-endian. Should that fail, the old files are whole: they stay
    // and are served as they are, but never written, as little-endian slots and records in
    // big-endian files would ruin them.
    if (swapped && !rewrite(true)) {
      bigEndian_ = true;
      report("big-endian files could not be converted, kept read-only");
    }
    return true;
  }
  if (!swapped) return readIndex(true);  // perhaps the big-endian form
  if (recoverInterruptedWrite()) {
    cleanup();
    if (loadSlots(false) && stat((path_ + ".dat").c_str(), &st) == 0 &&
        static_cast<unsigned long long>(st.st_size) == dataSize_) {
      return true;
    }
  }
  report("readIndex size mismatch");
  return false;
}

// Reads the index from its start into the in-memory state; false after a line on a failure.
bool Store::loadSlots(bool swapped) {
  if (lseek(idxFd_, 0, SEEK_SET) < 0) {
    readFailed_ = true;
    report("readIndex lseek failed");
    return false;
  }
  for (;;) {
    unsigned char raw[kSlotSize];
    const ssize_t n = readFully(idxFd_, raw, kSlotSize);
    if (n < 0) {
      readFailed_ = true;
      report("readIndex read failed");
      return false;
    }
    if (n < static_cast<ssize_t>(kSlotSize)) return true;  // a trailing partial slot is ignored
    const storefmt::Slot slot = storefmt::loadSlot(raw, swapped);
    const Entry extent{dataSize_, slot.length, indexCount_, slot.age};
    ++indexCount_;
    dataSize_ += slot.length;
    if (slot.id != kFreeId) {
      entries_.insert({slot.id, extent});  // a later duplicate is ignored
    } else {
      freeList_.push_back(extent);
      freeBytes_ += slot.length;
      ++freeCount_;
    }
  }
}

// An append writes its slot, then its record. A process killed between the two, or a flash
// that filled up, leaves a data file shorter than the index says: the last slot may be live
// without a whole record (the interrupted set), and slots of appends that failed on a full
// flash (marked free when the failure was seen, some reused since) may reach past the end
// of the file. That shape, and only that one, is repaired: the incomplete last slot is cut
// off (its id is lost, as a failed set loses it) and the data file is brought to the length
// the index describes. Every other disagreement is left to the wipe. Runs under the lock, so
// a write another process has in flight finishes first.
bool Store::recoverInterruptedWrite() {
  Lock lock(*this);
  std::vector<storefmt::Slot> slots;
  if (lseek(idxFd_, 0, SEEK_SET) < 0) return !(readFailed_ = true);
  unsigned char raw[kSlotSize];
  ssize_t n;
  while ((n = readFully(idxFd_, raw, kSlotSize)) == static_cast<ssize_t>(kSlotSize)) {
    slots.push_back(storefmt::loadSlot(raw, false));
  }
  if (n < 0) return !(readFailed_ = true);
  const int dat = open((path_ + ".dat").c_str(), O_RDWR);
  if (dat < 0) return !(readFailed_ = true);
  const bool repaired = repairShortDataFile(dat, slots);
  close(dat);
  return repaired;
}

// The step of recoverInterruptedWrite that reads the data file and changes both files.
bool Store::repairShortDataFile(int dat, std::vector<storefmt::Slot>& slots) {
  struct stat st;
  if (fstat(dat, &st) != 0) return !(readFailed_ = true);
  const unsigned long long fileSize = static_cast<unsigned long long>(st.st_size);
  unsigned long long offset = 0;
  bool lastCut = false;
  for (size_t k = 0; k < slots.size(); offset += slots[k++].length) {
    const unsigned long long end = offset + slots[k].length;
    if (end <= fileSize || slots[k].id == kFreeId) continue;
    unsigned char header[kRecordHeaderSize];
    const ssize_t got = pread(dat, header, kRecordHeaderSize, static_cast<off_t>(offset));
    if (got < 0) return !(readFailed_ = true);
    const bool whole = got == static_cast<ssize_t>(kRecordHeaderSize) &&
                       loadLe16(header) >= kRecordHeaderSize &&
                       loadLe16(header) <= slots[k].length && offset + loadLe16(header) <= fileSize;
    if (whole) continue;
    if (k + 1 != slots.size()) return false;  // only the last set can be incomplete
    lastCut = true;
  }
  if (offset <= fileSize) return offset == fileSize;  // consistent now, or data too long
  const uint32_t lost = lastCut ? slots.back().id : kFreeId;
  if (lastCut) {
    offset -= slots.back().length;
    slots.pop_back();
  }
  if (ftruncate(idxFd_, static_cast<off_t>(slots.size()) * kSlotSize) != 0 ||
      ftruncate(dat, static_cast<off_t>(offset)) != 0) {
    return !(readFailed_ = true);
  }
  if (lastCut) {
    fprintf(diagnosticStream(), "STORE: readIndex recovered an interrupted write of id %u\n", lost);
  } else {
    fprintf(diagnosticStream(),
            "STORE: readIndex recovered a data file cut short by a failed write\n");
  }
  return true;
}

// Whether the store is read-only, after a line naming the operation it refuses.
bool Store::refused(const char* operation) const {
  if (!bigEndian_) return false;
  fprintf(diagnosticStream(), "STORE: %s refused: big-endian files kept read-only\n", operation);
  return true;
}

bool Store::writeIndexent(unsigned id, Entry& e) {
  if (refused("writeIndexent")) return false;
  Lock lock(*this, Reach::kOpenFiles);
  openIdx();
  unsigned char raw[kSlotSize];
  storefmt::storeSlot(raw, storefmt::Slot{id, e.length, e.age});
  if (pwrite(idxFd_, raw, kSlotSize, static_cast<off_t>(e.slot) * kSlotSize) !=
      static_cast<ssize_t>(kSlotSize)) {
    report(idxFd_ < 0 || positionRejected(errno) ? "writeIndexent lseek failed"
                                                 : "writeIndexent write failed");
    return false;
  }
  flush();
  return true;
}

// --- records --------------------------------------------------------------------------------

// The slow path of a read: pread into the buffer kept for the next read. A data file that
// shrank underneath the store (another process, a full or failing flash) gives a short read
// and the line of the step that failed. `hint` is the most the record can need (its extent's
// length), so that the usual record takes a single system call.
message Store::readRecord(unsigned offset, unsigned hint) {
  openData();  // a closed file makes the read fail below, with its own line
  if (datFd_ < 0) {
    report("readMsg lseek failed");
    return message();
  }
  readBuffer_.resize(hint < kRecordHeaderSize ? kRecordHeaderSize : hint);
  ssize_t n = pread(datFd_, readBuffer_.data(), readBuffer_.size(), offset);
  if (n < 0 && positionRejected(errno)) {
    report("readMsg lseek failed");
    return message();
  }
  if (n < static_cast<ssize_t>(kRecordHeaderSize)) {
    report("readMsg read header failed");
    return message();
  }
  const unsigned length = bigEndian_ ? loadBe16(readBuffer_.data()) : loadLe16(readBuffer_.data());
  if (length < kRecordHeaderSize) {
    fprintf(diagnosticStream(), "STORE: readMsg invalid header: msg len %u\n", length);
    return message();
  }
  if (n < static_cast<ssize_t>(length)) {
    readBuffer_.resize(length);
    const ssize_t more = pread(datFd_, readBuffer_.data() + n, length - n, 0ull + offset + n);
    if (more != static_cast<ssize_t>(length) - n) {
      report("readMsg read failed");
      return message();
    }
  }
  return message(readBuffer_.data() + kRecordHeaderSize, length - kRecordHeaderSize);
}

namespace {

// How far past a record's last byte the fast read looks for a non-zero byte (the slack or the
// next record's header) when that last byte is zero.
constexpr unsigned kProbeBytes = 8;

// A record to copy out of the mapping of the data file.
struct MappedRecord {
  const unsigned char* src;  // the record's first byte in the mapping
  unsigned char* dst;        // room for `limit` bytes
  unsigned limit;            // the most the record may take
  size_t probeEnd;           // bytes from src that lie inside the file and the mapping
  bool bigEndian;            // the record's header is big-endian
  unsigned length;           // out: the record's length, 0 when it was not taken
};

// Runs under the fault guard: plain memory reads and a copy, nothing else.
void copyMappedRecord(void* ctx) {
  MappedRecord& r = *static_cast<MappedRecord*>(ctx);
  const unsigned length = r.bigEndian ? loadBe16(r.src) : loadLe16(r.src);
  if (length < kRecordHeaderSize || length > r.limit) return;
  memcpy(r.dst, r.src, length);
  // The look past the record must happen after the copy, on the processor too.
  std::atomic_thread_fence(std::memory_order_acquire);
  const volatile unsigned char* bytes = r.src;
  const size_t end = r.probeEnd < length - 1 + kProbeBytes ? r.probeEnd : length - 1 + kProbeBytes;
  for (size_t i = length - 1; i < end; ++i) {
    if (bytes[i] != 0) {
      r.length = length;
      return;
    }
  }
}

}  // namespace

// The fast path of a read (see readMsg in the header): the length of the record now in
// readBuffer_, or 0 when the record must be read with pread.
unsigned Store::copyMapped(unsigned offset, unsigned limit) {
  if (datFd_ < 0 || offset >= dataSize_) return 0;
  if (limit > dataSize_ - offset) limit = dataSize_ - offset;
  if (limit > 0xFFFF) limit = 0xFFFF;  // the longest record its header can describe
  const unsigned long long end = 0ull + offset + limit;
  if (end > mapLength_ && !mapData(end)) return 0;
  if (readBuffer_.size() < limit) readBuffer_.resize(limit);
  const size_t inside = dataSize_ < mapLength_ ? dataSize_ : mapLength_;
  MappedRecord record{map_ + offset, readBuffer_.data(), limit, inside - offset, bigEndian_, 0};
  return guardedRead(copyMappedRecord, &record) ? record.length : 0;
}

bool Store::mapData(unsigned long long end) {
  unmapData();
  const unsigned long long length = 2 * end < kMinMapLength ? kMinMapLength : 2 * end;
  if (length > std::numeric_limits<size_t>::max()) return false;
  void* map = mmap(nullptr, static_cast<size_t>(length), PROT_READ, MAP_SHARED, datFd_, 0);
  if (map == MAP_FAILED) return false;
  map_ = static_cast<const unsigned char*>(map);
  mapLength_ = static_cast<size_t>(length);
  return true;
}

void Store::unmapData() {
  if (map_ != nullptr) munmap(const_cast<unsigned char*>(map_), mapLength_);
  map_ = nullptr;
  mapLength_ = 0;
}

message Store::readMsg(unsigned offset) {
  const unsigned length = copyMapped(offset, kRecordHeaderSize + 0xFFFF);
  return length != 0 ? message(readBuffer_.data() + kRecordHeaderSize, length - kRecordHeaderSize)
                     : readRecord(offset, kReadAhead);
}

// The header and the message go out in one system call.
bool Store::writeMsg(unsigned offset, const std::vector<unsigned char>& bytes) {
  if (refused("writeMsg")) return false;
  Lock lock(*this, Reach::kOpenFiles);
  if (!openData()) return false;
  unsigned char header[kRecordHeaderSize];
  storeLe16(header, static_cast<uint16_t>(bytes.size() + kRecordHeaderSize));
  struct iovec parts[2] = {{header, kRecordHeaderSize},
                           {const_cast<unsigned char*>(bytes.data()), bytes.size()}};
  const ssize_t n = pwritev(datFd_, parts, 2, offset);
  if (n != static_cast<ssize_t>(kRecordHeaderSize + bytes.size())) {
    // The line names the step that failed: positioning, the header, or the message.
    report(n < 0 && positionRejected(errno)              ? "writeMsg lseek failed"
           : n < static_cast<ssize_t>(kRecordHeaderSize) ? "writeMsg write header failed"
                                                         : "writeMsg write failed");
    return false;
  }
  flush();
  return true;
}

// --- operations -----------------------------------------------------------------------------

message Store::get(unsigned id) {
  if (!ensureLoaded()) return message();
  auto it = entries_.find(id);
  if (it == entries_.end()) return message();
  const Entry& e = it->second;
  const unsigned length = copyMapped(e.offset, e.length);
  return length != 0 ? message(readBuffer_.data() + kRecordHeaderSize, length - kRecordHeaderSize)
                     : readRecord(e.offset, e.length);
}

// Marks e's slot free and lists its extent: at the front for a removal (the most recently
// freed extent is tried first), at the back when a message outgrew it.
void Store::freeExtent(const Entry& e, bool atFront) {
  Entry copy = e;
  writeIndexent(kFreeId, copy);
  if (atFront) {
    freeList_.push_front(e);
  } else {
    freeList_.push_back(e);
  }
  ++freeCount_;
  freeBytes_ += e.length;
}

// First fit from the front of the free list; a reused extent is taken whole. Else append.
// True when a free extent was reused.
bool Store::place(Entry& e, unsigned needed) {
  for (auto it = freeList_.begin(); it != freeList_.end(); ++it) {
    if (it->length >= needed) {
      e.offset = it->offset;
      e.length = it->length;
      e.slot = it->slot;
      freeBytes_ -= it->length;
      --freeCount_;
      freeList_.erase(it);
      return true;
    }
  }
  e.offset = dataSize_;
  e.length = needed;
  e.slot = indexCount_;
  dataSize_ += needed;
  ++indexCount_;
  return false;
}

void Store::set(unsigned id, const message& m) {
  if (refused("set") || !ensureLoaded()) return;
  std::vector<unsigned char>& bytes = writeBuffer_;
  if (bytes.capacity() > 4096) std::vector<unsigned char>().swap(bytes);  // one large message
  m.flatten(bytes);
  const unsigned needed = static_cast<unsigned>(bytes.size()) + kRecordHeaderSize;
  Lock lock(*this, Reach::kOpenFiles);  // one lock over the slot and the record
  auto it = entries_.find(id);
  if (it != entries_.end()) {
    if (it->second.length >= needed && withinOnePage(it->second.offset, needed)) {
      // The slot already describes the extent. A record the write may have left half
      // written must not be read as the id's value: the id goes, as a failed set loses it.
      if (!writeMsg(it->second.offset, bytes)) {
        freeExtent(it->second, false);
        entries_.erase(it);
      }
      return;
    }
    freeExtent(it->second, false);
  } else {
    it = entries_.insert({id, Entry{0, 0, 0, defaultAge_}}).first;
  }
  Entry& entry = it->second;
  // A reused extent still holds the record of whatever lived there before, so its record
  // is written before the slot that points at it: a kill between the two leaves the id
  // without a value, never with another id's. An appended extent gets its slot first (a
  // kill between those two writes leaves files whose sizes disagree either way).
  const bool written = place(entry, needed)
                           ? writeMsg(entry.offset, bytes) && writeIndexent(id, entry)
                           : writeIndexent(id, entry) && writeMsg(entry.offset, bytes);
  if (written) {
    checkForBloat();
    return;
  }
  // The message is lost; its extent goes back to the free list (the counters stay as they
  // are on this path).
  writeIndexent(kFreeId, entry);
  freeList_.push_back(entry);
  entries_.erase(it);
}

bool Store::remove(unsigned id) {
  if (refused("remove") || !ensureLoaded()) return false;
  auto it = entries_.find(id);
  if (it == entries_.end()) return false;
  freeExtent(it->second, true);
  entries_.erase(it);
  checkForBloat();
  return true;
}

void Store::touch(unsigned id, unsigned age) {
  if (refused("touch") || !ensureLoaded()) return;
  auto it = entries_.find(id);
  if (it == entries_.end()) return;
  it->second.age = age;
  writeIndexent(id, it->second);
}

// The walk goes on from the id after the current one rather than from an iterator: a
// removal may compact the store, and a compaction that fails may clear the whole map.
void Store::age() {
  if (refused("age") || !ensureLoaded()) return;
  for (auto it = entries_.begin(); it != entries_.end();) {
    const unsigned id = it->first;
    if (it->second.age > 1) {
      --it->second.age;
      writeIndexent(id, it->second);
    } else {
      remove(id);
    }
    it = entries_.upper_bound(id);
  }
}

// --- durability and compaction --------------------------------------------------------------

void Store::flush() {
  if (flushTimer_) return;
  if (getRunner() != nullptr) {
    flushTimer_ = addTimer(this, &Store::doFlush, 50);
  } else {
    doFlush();
  }
}

// A failed fsync may have lost what was written since the last one: it is said.
void Store::doFlush() {
  flushTimer_ = TimerPtr();
  const bool idxSynced = idxFd_ < 0 || fsync(idxFd_) == 0;
  const bool datSynced = datFd_ < 0 || fsync(datFd_) == 0;
  if (!idxSynced || !datSynced) report("doFlush fsync failed");
}

bool Store::bloated() const { return freeBytes_ > (dataSize_ >> 3) && freeCount_ > 8; }

void Store::checkForBloat() {
  if (bigEndian_ || compactTimer_ || !bloated()) return;
  if (getRunner() != nullptr) {
    compactTimer_ = addTimer(this, &Store::doCompaction, 6000);
  } else {
    compact(false);
  }
}

void Store::doCompaction() {
  compactTimer_ = TimerPtr();
  if (bloated()) compact(false);
}

// The new files are written beside the old ones (P.dat.new, P.idx.new, in that order) and
// renamed over them at the end, data file first. Until the data file is renamed nothing of
// the store has changed, so any failure before it keeps the old files and the old state.
// The rename of the data file commits the compaction: from there on the store works on the
// new files, and an index that could not take its name is left beside them for the next
// opening to finish.
bool Store::rewrite(bool swapped) {
  if (getRunner() != nullptr) {
    if (compactTimer_) kl::removeTimer(&compactTimer_);
    if (flushTimer_) kl::removeTimer(&flushTimer_);
  }
  compactTimer_ = flushTimer_ = TimerPtr();
  Lock lock(*this);
  if (!openIdx() || !openData()) {
    closeIdx();
    closeData();
    return false;
  }
  const std::string newDat = path_ + ".dat.new";
  const std::string newIdx = path_ + ".idx.new";
  const int dat = recreate(newDat);
  if (dat < 0) {
    report("compact: could not open new data file");
    return false;
  }
  const int idx = recreate(newIdx);
  if (idx < 0) {
    report("compact: could not open new index file");
    close(dat);
    unlink(newDat.c_str());
    return false;
  }
  Compacted next{entries_, 0, 0};
  bool ready = copyLiveSlots(idx, dat, swapped, &next);
  if (ready && (fsync(idx) != 0 || fsync(dat) != 0)) {
    report("compact: could not sync the new files, the old ones stay");
    ready = false;
  }
  if (ready && rename(newDat.c_str(), (path_ + ".dat").c_str()) != 0) {
    report("compact: could not rename the new data file, the old files stay");
    ready = false;
  }
  if (!ready) {
    close(idx);
    close(dat);
    unlink(newDat.c_str());
    unlink(newIdx.c_str());
    return false;
  }
  if (rename(newIdx.c_str(), (path_ + ".idx").c_str()) != 0) {
    report("compact: could not rename the new index file, the next opening finishes it");
  }
  closeIdx();
  closeData();
  idxFd_ = idx;
  datFd_ = dat;
  entries_.swap(next.entries);
  freeList_.clear();
  dataSize_ = next.dataSize;
  indexCount_ = next.indexCount;
  freeBytes_ = freeCount_ = 0;
  return true;
}

void Store::compact(bool swapped) {
  if (!ensureLoaded()) return;
  if (rewrite(swapped || bigEndian_)) bigEndian_ = false;
}

// Streams every live slot and its extent from the open (old) files to idx and dat, in slot
// order, placing the entries of `next`; false (after printing why) on any failure.
bool Store::copyLiveSlots(int idx, int dat, bool swapped, Compacted* next) {
  if (lseek(idxFd_, 0, SEEK_SET) < 0) {
    report("compact: could not seek to start in index");
    return false;
  }
  for (;;) {
    unsigned char raw[kSlotSize];
    const ssize_t n = readFully(idxFd_, raw, kSlotSize);
    if (n < 0) {
      report("compact read failed");
      return false;
    }
    if (n < static_cast<ssize_t>(kSlotSize)) return true;
    const storefmt::Slot slot = storefmt::loadSlot(raw, swapped);
    if (slot.id == kFreeId) continue;
    auto it = next->entries.find(slot.id);
    if (it == next->entries.end()) {
      report("entry in file but not in map!!");
      continue;
    }
    storefmt::storeSlot(raw, slot);
    if (!writeFully(idx, raw, kSlotSize)) {
      report("compact write failed");
      return false;
    }
    // An extent must lie inside the old data file (a damaged index must not make us
    // allocate what its lengths claim).
    if (it->second.offset > dataSize_ || slot.length > dataSize_ - it->second.offset) {
      report("compact read failed");
      return false;
    }
    std::vector<unsigned char> extent(slot.length);
    if (lseek(datFd_, it->second.offset, SEEK_SET) < 0) {
      report("compact lseek failed");
      return false;
    }
    if (readFully(datFd_, extent.data(), extent.size()) != static_cast<ssize_t>(extent.size())) {
      report("compact read failed");
      return false;
    }
    if (swapped && extent.size() >= kRecordHeaderSize) std::swap(extent[0], extent[1]);
    if (!writeFully(dat, extent.data(), extent.size())) {
      report("compact write failed");
      return false;
    }
    it->second.offset = next->dataSize;
    it->second.slot = next->indexCount;
    next->dataSize += slot.length;
    ++next->indexCount;
  }
}

}  // namespace kl
