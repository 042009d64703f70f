// File: kl/message/message.h
//
// kl::message, the typed key/value message that every part of the system exchanges:
// requests, replies, notifications, stored objects and persistent handler data.
//
// A message is a handle to a shared, reference-counted representation. Copying a handle is
// O(1); the representation is copied only when a shared one is about to change (copy on
// write). Every mutating call (insert_*, remove_*, merge, removeIdMask, unflatten, the
// non-const get_*_ref accessors and operator[]) first makes the representation private.
// The non-const get_*_ref accessors also mark it unshareable, because the caller may keep
// the reference and write through it later: a handle copied from it clones at once.
//
// Field ids carry their value type (kl/message/field_id.h). The typed accessors force their
// own type bits onto the id they are given, so get_string(3) reads field 0x20000003 and
// insert_u64(0x08000001, v) stores field 0x10000001; has_array, size_field, remove_field and
// remove_array take the id exactly as given.
//
// Storage: bools and u32 values live in hash tables (one slot per field, no allocation; a
// message with a single bool keeps it inline), other scalars and arrays in two lists of
// nodes, newest first, found by id through an index once there are many. The order of
// tables and lists is the order of records on the wire.
//
// Reference counts are atomic; everything else is unsynchronised. A handle is not safe for
// concurrent mutation.
#ifndef KL_MESSAGE_MESSAGE_H_
#define KL_MESSAGE_MESSAGE_H_

#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include "kl/base/ipaddr6.h"
#include "kl/message/field_id.h"

namespace kl {

class Dumper;

// A set of typed fields keyed by 32-bit ids, shared copy-on-write (see the file comment).
class message {
 public:
  class flat_message;

  // How unflatten reads its buffer.
  enum flatten_type {
    flatten_full = 0,              // "M2" magic first (or the older format)
    flatten_keep_passthrough = 1,  // as flatten_full; fields marked pass-through are copied
                                   // undecoded into a side buffer
    flatten_no_header = 2,         // the buffer starts directly with the first record
  };

  // An empty message; all empty messages share one static representation.
  message();
  message(const message& other);
  message& operator=(const message& other);
  // Decode `data` (flatten_full). A decoding failure is not reported: the message holds the
  // fields decoded before the fault. Use unflatten() to learn the outcome.
  explicit message(const flat_message& flat);
  explicit message(const std::vector<unsigned char>& data);
  message(const unsigned char* data, unsigned int len);
  message& operator=(const flat_message& flat);
  ~message();

  // --- bool fields ---------------------------------------------------------------------
  bool get_bool(uint32_t id, bool dflt) const;
  const bool* get_bool_ref(uint32_t id) const;  // null when absent
  bool& get_bool_ref(uint32_t id);              // created false when absent
  void insert_bool(uint32_t id, bool value);
  unsigned int size_bool(uint32_t id) const;  // 0 or 1

  // --- u32 fields ----------------------------------------------------------------------
  unsigned int get_u32(uint32_t id, unsigned int dflt) const;
  // The stored value byte-swapped: for values stored in network order by insert_be32.
  unsigned int get_be32(uint32_t id, unsigned int dflt) const;
  const unsigned int* get_u32_ref(uint32_t id) const;  // null when absent
  unsigned int& get_u32_ref(uint32_t id);              // created 0 when absent
  void insert_u32(uint32_t id, unsigned int value);
  void insert_be32(uint32_t id, unsigned int value);  // stores the byte-swapped value
  unsigned int size_u32(uint32_t id) const;           // 0 or 1

  // --- other scalars: u64, addr6, string, message, raw -----------------------------------
  // The const get_*_ref forms return null when the field is absent; the pointer stays valid
  // until the field is removed or overwritten or the message changes representation. The
  // non-const forms create the field with a zero or empty value when absent.
  unsigned long long get_u64(uint32_t id, unsigned long long dflt) const;
  IPAddr6 get_addr6(uint32_t id, const IPAddr6& dflt) const;
  IPAddr6 get_addr6(uint32_t id) const;  // all zeros when absent
  std::string get_string(uint32_t id, const std::string& dflt) const;
  std::vector<unsigned char> get_raw(uint32_t id, const std::vector<unsigned char>& dflt) const;
  flat_message get_message(uint32_t id, const flat_message& dflt) const;

  const unsigned long long* get_u64_ref(uint32_t id) const;
  const IPAddr6* get_addr6_ref(uint32_t id) const;
  const std::string* get_string_ref(uint32_t id) const;
  const std::vector<unsigned char>* get_raw_ref(uint32_t id) const;
  const flat_message* get_message_ref(uint32_t id) const;
  unsigned long long& get_u64_ref(uint32_t id);
  IPAddr6& get_addr6_ref(uint32_t id);
  std::string& get_string_ref(uint32_t id);
  std::vector<unsigned char>& get_raw_ref(uint32_t id);
  flat_message& get_message_ref(uint32_t id);

  void insert_u64(uint32_t id, unsigned long long value);
  void insert_addr6(uint32_t id, const IPAddr6& value);
  void insert_string(uint32_t id, const std::string& value);
  void insert_raw(uint32_t id, const std::vector<unsigned char>& value);
  void insert_message(uint32_t id, const flat_message& value);
  // The same, taking over the value's storage instead of copying it.
  void insert_string(uint32_t id, std::string&& value);
  void insert_raw(uint32_t id, std::vector<unsigned char>&& value);
  void insert_message(uint32_t id, flat_message&& value);

  // 1 when a u64, addr6, string, message or raw field with exactly this id exists, else 0.
  unsigned int size_field(uint32_t id) const;

  // --- arrays --------------------------------------------------------------------------
  // get_*_array return a copy, empty when the array is absent. The const get_*_array_ref
  // forms return null when absent; the non-const forms create an empty array.
  std::vector<bool> get_bool_array(uint32_t id) const;
  std::vector<unsigned int> get_u32_array(uint32_t id) const;
  std::vector<unsigned int> get_be32_array(uint32_t id) const;  // each element byte-swapped
  std::vector<unsigned long long> get_u64_array(uint32_t id) const;
  std::vector<IPAddr6> get_addr6_array(uint32_t id) const;
  std::vector<std::string> get_string_array(uint32_t id) const;
  std::vector<std::vector<unsigned char> > get_raw_array(uint32_t id) const;
  std::vector<flat_message> get_message_array(uint32_t id) const;

  const std::vector<bool>* get_bool_array_ref(uint32_t id) const;
  const std::vector<unsigned int>* get_u32_array_ref(uint32_t id) const;
  const std::vector<unsigned long long>* get_u64_array_ref(uint32_t id) const;
  const std::vector<IPAddr6>* get_addr6_array_ref(uint32_t id) const;
  const std::vector<std::string>* get_string_array_ref(uint32_t id) const;
  const std::vector<std::vector<unsigned char> >* get_raw_array_ref(uint32_t id) const;
  const std::vector<flat_message>* get_message_array_ref(uint32_t id) const;
  std::vector<bool>& get_bool_array_ref(uint32_t id);
  std::vector<unsigned int>& get_u32_array_ref(uint32_t id);
  std::vector<unsigned long long>& get_u64_array_ref(uint32_t id);
  std::vector<IPAddr6>& get_addr6_array_ref(uint32_t id);
  std::vector<std::string>& get_string_array_ref(uint32_t id);
  std::vector<std::vector<unsigned char> >& get_raw_array_ref(uint32_t id);
  std::vector<flat_message>& get_message_array_ref(uint32_t id);

  // Create the array or replace its whole content.
  void insert_bool_array(uint32_t id, const std::vector<bool>& value);
  void insert_u32_array(uint32_t id, const std::vector<unsigned int>& value);
  void insert_be32_array(uint32_t id, const std::vector<unsigned int>& value);  // swapped
  void insert_u64_array(uint32_t id, const std::vector<unsigned long long>& value);
  void insert_addr6_array(uint32_t id, const std::vector<IPAddr6>& value);
  void insert_string_array(uint32_t id, const std::vector<std::string>& value);
  void insert_raw_array(uint32_t id, const std::vector<std::vector<unsigned char> >& value);
  void insert_message_array(uint32_t id, const std::vector<flat_message>& value);
  // The same, taking over the vector's storage instead of copying it.
  void insert_u32_array(uint32_t id, std::vector<unsigned int>&& value);
  void insert_string_array(uint32_t id, std::vector<std::string>&& value);
  void insert_raw_array(uint32_t id, std::vector<std::vector<unsigned char> >&& value);
  void insert_message_array(uint32_t id, std::vector<flat_message>&& value);

  // Element counts, 0 when the array is absent.
  unsigned int size_bool_array(uint32_t id) const;
  unsigned int size_unsigned_array(uint32_t id) const;
  unsigned int size_u64_array(uint32_t id) const;
  unsigned int size_addr6_array(uint32_t id) const;
  unsigned int size_string_array(uint32_t id) const;
  unsigned int size_raw_array(uint32_t id) const;
  unsigned int size_message_array(uint32_t id) const;
  // Whether an array with exactly this id exists.
  bool has_array(uint32_t id) const;

  // --- u32 shorthands, used with the system constants (SYS_REQID, SYS_TO ...) -------------
  void insert(u32_id id, unsigned int value) { insert_u32(id, value); }
  unsigned int get(u32_id id, unsigned int dflt) const { return get_u32(id, dflt); }
  bool has(u32_id id) const { return size_u32(id) != 0; }
  void remove(u32_id id) { remove_u32(id); }
  void insert(u32_array_id id, const std::vector<unsigned int>& value) {
    insert_u32_array(id, value);
  }
  void insert(u32_array_id id, std::vector<unsigned int>&& value) {
    insert_u32_array(id, std::move(value));
  }
  void insert_vector(u32_array_id id, unsigned int value) {  // a one-element array
    insert_u32_array(id, std::vector<unsigned int>(1, value));
  }
  bool has(u32_array_id id) const { return has_array(id); }
  // The array, created empty when absent. Unshares first but, unlike the non-const
  // get_*_ref accessors, does not mark the message unshareable: the reference is for an
  // immediate write, not to be kept across copies.
  std::vector<unsigned int>& operator[](u32_array_id id);

  // --- removal, comparison and merging ---------------------------------------------------
  // Each removal makes the representation private first, even when the field is absent.
  // Removing an absent field is not an error.
  void remove_bool(uint32_t id);
  void remove_u32(uint32_t id);
  void remove_field(uint32_t id);  // any u64, addr6, string, message or raw field
  void remove_array(uint32_t id);
  // Removes every field of any type whose id & mask equals value & mask.
  void removeIdMask(uint32_t value, uint32_t mask);

  // Copies every field of `other` here; other's value wins for ids present in both, and an
  // array replaces the whole array of the same id. An empty message merged into simply
  // shares other's representation.
  void merge(const message& other);
  // Whether every field of `other` is present here with an equal value (this ⊇ other).
  // Nested messages compare in flattened form.
  bool includes(const message& other) const;
  // Whether both hold exactly the same fields with equal values.
  bool operator==(const message& other) const;
  bool operator!=(const message& other) const { return !(*this == other); }

  // --- wire format (kl/message/wire.cc) ----------------------------------------------------
  // An upper bound of the flattened size.
  unsigned int max_length() const;
  // Writes the encoding into `buf`; on entry *len is the buffer size, on return the encoded
  // size. REQUIRES: the buffer holds at least max_length() bytes. When the encoding exceeds
  // *len it prints "WARNING: too small buffer for flatten" and still stores the size. Moves
  // SYS_TO and then SYS_FROM to the front of the array list (a router finds the path at
  // byte 2), so the message's own array order changes although the call is const.
  bool flatten(unsigned char* buf, unsigned int* len) const;
  // Replaces `out` with the encoding.
  void flatten(std::vector<unsigned char>& out) const;
  // Decodes `data` into this message: decoded scalars overwrite, decoded arrays replace,
  // other fields stay. Returns false on malformed input, keeping the fields decoded before
  // the fault. Never reads outside [data, data + len).
  bool unflatten(const unsigned char* data, unsigned int len, flatten_type mode);
  // Decodes the older, header-less format (called by unflatten). Same failure contract.
  bool old_unflatten(const unsigned char* data, unsigned int len);
  // The undecoded pass-through records kept by the last flatten_keep_passthrough decode,
  // or null.
  const std::vector<unsigned char>* passthrough() const;

  // --- dump (kl/message/dump.cc) ---------------------------------------------------------
  // Prints the message in the line-oriented dump form; every line starts with `prefix` and
  // four spaces per `depth`. `out` is a std::ostream (or a stream derived from it) or a
  // kl::Dumper (kl/message/dump.h); the Dumper's own operators never allocate, for use in a
  // fatal-signal handler.
  template <class Out>
  void dump2(Out& out, const char* prefix, unsigned int depth) const {
    dumpTo(out, prefix, depth);
  }

  // --- representation --------------------------------------------------------------------
  // Gives this handle a private representation when it shares one.
  void unique();
  // Replaces the representation with a private copy.
  void clone();
  // Whether both handles share one representation.
  bool same_rep(const message& other) const { return rep_ == other.rep_; }
  // Whether this handle shares the static empty representation.
  bool is_nil() const;
  // Whether the message holds no field at all.
  bool empty() const;

  // The shared representation; defined in kl/message/rep.h, for the library only.
  struct Rep;
  struct litem;

 private:
  friend struct MessageDump;  // the dump of nested messages (kl/message/dump.cc)

  void makeUnshareable();
  // `nesting` counts the levels of nested messages above this one in the dump.
  void dumpTo(std::ostream& out, const char* prefix, unsigned int depth,
              unsigned int nesting = 0) const;
  void dumpTo(Dumper& out, const char* prefix, unsigned int depth, unsigned int nesting = 0) const;

  Rep* rep_;
};

// A message in flattened (wire) form: the byte encoding with its "M2" header. Nested
// messages are stored and carried as flat_message values and decoded only when a caller
// builds a kl::message from one.
class message::flat_message : public std::vector<unsigned char> {
 public:
  flat_message() = default;
  // Flattens `m`.
  flat_message(const message& m) { m.flatten(*this); }  // NOLINT: implicit by design
  explicit flat_message(const std::vector<unsigned char>& bytes)
      : std::vector<unsigned char>(bytes) {}
  explicit flat_message(std::vector<unsigned char>&& bytes)
      : std::vector<unsigned char>(std::move(bytes)) {}
};

}  // namespace kl

// Every message carries the header vocabulary (SYS_TO, SYS_CMD, CMD_GETALL ...) and its
// helpers, so a program that includes this header has them too. Included last: system.h
// builds on the class above.
#include "kl/message/system.h"  // IWYU pragma: export

#endif  // KL_MESSAGE_MESSAGE_H_
