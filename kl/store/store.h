// File: kl/store/store.h
//
// kl::Store keeps messages on flash keyed by a 32-bit id, so that a service finds them again
// after a restart: an index file of fixed 12-byte slots, a data file of records and a lock
// file that serialises writers of different processes (layout in kl/store/store_format.h).
// Every message carries an age counter, so that a service can expire entries it no longer
// touches.
//
// Freed extents go on a free list and are reused first-fit; when more than an eighth of the
// data file is free in more than eight extents, both files are rewritten without the holes
// (compaction), 60 s later when the process has a runner (kl/runner/runner.h), at once when
// it has none. Writes are made durable by fsync, batched over half a second with a runner.
//
// A store whose files are missing or disagree (data size differs from the sum of the slot
// lengths in both byte orders) is wiped and starts empty with `restarted` set; this is also
// what a first run looks like. One disagreement is repaired instead, as the files' own
// history explains it: a data file shorter than the index says, where only the last slot
// lacks a whole record (a set killed between its slot and its record) and any other slot
// reaching past the end is free or holds a whole record (appends that failed on a full
// flash). The store then opens as it was before that set, without its id, after one
// "STORE: readIndex recovered ..." line, and `restarted` stays false. This is deliberate:
// wiping every message for one interrupted write would lose data that was flushed long ago.
// For the same reason a replacement that fits its old extent is written there only when the
// record lies within one page of the file; one that would span pages is placed as a longer
// one is (the old extent freed first), so a kill never leaves a value half old, half new. A
// compaction or conversion interrupted by a kill is undone or finished on opening, so the store
// opens as the old pair or the new one. Failures print one "STORE: " line on the error stream.
//
// An I/O error is not a disagreement: a store whose files could not be read when it opened
// (a failing flash, no descriptors left) keeps them, starts empty in memory and reads them
// again at the next operation, which goes ahead once they can be read. A failed write
// loses the message it wrote, a replacement written in place included (the id is then
// unknown), never another id's; a failed fsync prints "STORE: doFlush fsync failed".
//
// Files in the big-endian form are converted to the little-endian form when the store opens.
// Should the conversion fail (no room for the new files, a full flash), the big-endian files
// stay as they are and the store is read-only (`readOnly()`): every message can be read,
// every write (set, remove, touch, age, writeMsg, writeIndexent) is refused with a line and
// changes nothing. compact(), or the next opening, tries the conversion again.
//
// Loop thread only. The timers the store arms must not outlive it: destroy the store before
// the runner, or with the runner still present.
#ifndef KL_STORE_STORE_H_
#define KL_STORE_STORE_H_

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "kl/message/message.h"
#include "kl/runner/thin_runner.h"
#include "kl/store/store_format.h"

namespace kl {

// Messages kept on flash by id, with crash-safe writes (see the file comment).
class Store {
 public:
  // The in-memory description of one extent of the data file.
  struct Entry {
    unsigned offset;  // byte offset in the data file
    unsigned length;  // extent length, record header included
    unsigned slot;    // index slot that describes it
    unsigned age;     // the message's age counter
  };

  // Opens the store at `path` (files path.idx, path.dat, path.lock), creating missing parent
  // directories (0700). An absolute path is a device path, joined onto the development
  // root (kl/base/root.h) like the library's own; a relative one is used as it is. New ids
  // get the age `defaultAge`.
  Store(const std::string& path, unsigned defaultAge);
  // Closes both files and removes pending timers (no final fsync beyond a pending flush).
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Set when the constructor found the files missing or unreadable and replaced them with
  // empty ones: stored data was lost (or this is the first run).
  bool restarted = false;

  // The message stored under id; an empty message when id is unknown or unreadable.
  message get(unsigned id);
  // Stores or replaces the message under id. A write failure loses the message (the id is
  // then unknown) after printing its line. REQUIRES: m flattens below 65534 bytes.
  void set(unsigned id, const message& m);
  // Frees the id's extent. False when id is unknown or the store is read-only.
  bool remove(unsigned id);
  // Sets the id's age counter; nothing when id is unknown.
  void touch(unsigned id, unsigned age);
  // One ageing step: every age above 1 goes down by one; messages at 0 or 1 are removed.
  void age();
  // Makes written data durable: within half a second with a runner, else at once.
  void flush();
  // fsync of both files now.
  void doFlush();

  // Whether the store holds big-endian files it could not convert, and refuses writes.
  bool readOnly() const { return bigEndian_; }
  // Whether id is stored; the stored ids in ascending order.
  bool has(unsigned id) const { return entries_.count(id) != 0; }
  std::vector<unsigned> ids() const;

  // Rewrites both files without free extents; `swapped` reads the old files big-endian (so
  // does a read-only store, which is then converted). A failure before the new files are in
  // place keeps the old files and state, after a "STORE: compact..." line.
  void compact(bool swapped);
  // Timer body: compacts if the store is still bloated.
  void doCompaction();
  // Arms (with a runner) or runs (without) a compaction when the store is bloated.
  void checkForBloat();
  // Rebuilds the in-memory state from the index; false when the files disagree.
  bool readIndex(bool swapped);
  // Replaces both files by empty ones and clears the in-memory state (a read-only store
  // becomes writable).
  void restart();
  // Unlinks the store's files; the open descriptors and in-memory state stay.
  void deleteFiles();

  // --- the steps the operations above are made of ----------------------------------------
  // Clears the in-memory state (entries, free list, counters); the files stay as they are.
  void cleanup();
  // Open the index or the data file unless it is open; false (after its "STORE: " line)
  // when the file cannot be opened. Neither creates a file.
  bool openIdx();
  bool openData();
  // Close the file if it is open.
  void closeIdx();
  void closeData();
  // The message of the record at `offset` in the data file; an empty message, after a
  // "STORE: readMsg ..." line, when the record cannot be read. Never faults and never reads
  // past the end of the file, even one that another process shrank since it was opened.
  //
  // How: a record is copied out of a read-only shared mapping of the data file inside a
  // guarded read (kl/runner/fault_guard.h), so that a page the file no longer has ends the
  // copy instead of the process. Past its end a file's mapping reads as zeros up to the next
  // page, so the copy is taken only when a byte at or just after the record's last byte still
  // reads non-zero once the copy is done: the file then reached that far while it was copied
  // (a file only shrinks under the store, it does not shrink and grow back between two
  // reads). Otherwise (a fault, a record ending in zeros at the end of the file, a record
  // header that disagrees with its extent) the record is read with pread, which names the
  // step that failed. Reads take no system call on the first path.
  message readMsg(unsigned offset);
  // Writes a record at `offset`: the 2-byte record length (bytes.size() + 2, modulo 65536),
  // then `bytes`, the message in its wire form. False after a "STORE: writeMsg ..." line.
  bool writeMsg(unsigned offset, const std::vector<unsigned char>& bytes);
  // Writes the slot e.slot with id, e.length and e.age. False after a "STORE: writeIndexent
  // ..." line.
  bool writeIndexent(unsigned id, Entry& e);

 private:
  // What readMsg reads at once: most records need a single read.
  static constexpr unsigned kReadAhead = 512;
  // The smallest view of the data file that is mapped; a view is made twice as long as the
  // file it first had to cover, so that a growing file is seldom mapped again.
  static constexpr unsigned long long kMinMapLength = 1 << 20;

  bool ensureLoaded();
  bool bloated() const;
  bool loadSlots(bool swapped);
  bool recoverInterruptedWrite();
  bool repairShortDataFile(int dat, std::vector<storefmt::Slot>& slots);
  bool refused(const char* operation) const;
  void finishRewrite();
  message readRecord(unsigned offset, unsigned hint);
  unsigned copyMapped(unsigned offset, unsigned limit);
  bool mapData(unsigned long long end);
  void unmapData();

  // What a locked operation writes: only through the descriptors the store has open, or
  // files it opens, creates, renames or unlinks by name.
  enum class Reach { kOpenFiles, kNames };
  // The inter-process write lock over <path>.lock, taken once however deeply nested. The
  // lock is checked against the lock file's name (one fstat) when the operation reaches
  // files by name, and on the first lock after the store opened a file by name; writes
  // through descriptors opened since the last check skip it: should the files have been
  // deleted meanwhile, those writes go to the store's old files and touch nobody else's.
  class Lock {
   public:
    explicit Lock(Store& store, Reach reach = Reach::kNames);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    Store& store_;
  };
  void freeExtent(const Entry& e, bool atFront);
  bool place(Entry& e, unsigned needed);
  // The state a compaction builds beside the current one.
  struct Compacted {
    std::map<unsigned, Entry> entries;
    unsigned dataSize;
    unsigned indexCount;
  };
  // compact(), true when the new files took the place of the old ones.
  bool rewrite(bool swapped);
  bool copyLiveSlots(int idx, int dat, bool swapped, Compacted* next);

  std::map<unsigned, Entry> entries_;
  int idxFd_ = -1;
  int datFd_ = -1;
  std::list<Entry> freeList_;
  unsigned dataSize_ = 0;
  unsigned indexCount_ = 0;
  unsigned freeBytes_ = 0;
  unsigned freeCount_ = 0;
  std::string path_;
  unsigned defaultAge_;
  TimerPtr compactTimer_;
  TimerPtr flushTimer_;
  bool bigEndian_ = false;   // the files are still big-endian: read-only
  bool loaded_ = true;       // the in-memory state mirrors the files
  bool readFailed_ = false;  // the last reading of the files failed on an I/O error
  int lockFd_ = -1;
  int lockDepth_ = 0;
  bool lockChecked_ = false;  // the lock held was checked against the lock file's name
  bool nameCheckDue_ = true;  // a file was opened by name since the last checked lock
  std::vector<unsigned char> writeBuffer_;  // kept between sets while small
  std::vector<unsigned char> readBuffer_;   // kept between reads
  const unsigned char* map_ = nullptr;      // read-only view of the data file, or null
  size_t mapLength_ = 0;                    // may reach past the end of the file
};

}  // namespace kl

#endif  // KL_STORE_STORE_H_
