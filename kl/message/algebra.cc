// Set operations on messages: merge, inclusion, equality and removal, type by type on the
// representation.
#include "kl/message/rep.h"

namespace kl {

namespace {

// Whether `node`'s value equals the value of the node with the same id in `mine`.
bool hasEqualNode(const message::Rep* mine, const message::litem* node) {
  return visitItem(node, [mine, node](const auto* it) {
    using V = std::remove_const_t<decltype(it->value)>;
    const V* here = findIn<V>(mine, node->id);
    return here != nullptr && *here == it->value;
  });
}

// Copies `node` into `r`, replacing the value of the node with the same id.
void assignNode(message::Rep* r, const message::litem* node) {
  visitItem(node, [r, node](const auto* it) {
    using V = std::remove_const_t<decltype(it->value)>;
    findOrCreateIn<V>(r, node->id) = it->value;
  });
}

bool includesList(const message::Rep* mine, const message::litem* theirs, unsigned int& count) {
  count = 0;
  for (; theirs != nullptr; theirs = theirs->next, ++count) {
    if (!hasEqualNode(mine, theirs)) return false;
  }
  return true;
}

bool includes_bools(const message::Rep* mine, const message::Rep* theirs) {
  bool all = true;
  forEachBoolOf(theirs, [mine, &all](uint32_t id, bool value) {
    const htable<bool>* table = mine->boolTable();
    const bool* here = table != nullptr
                           ? table->find(id)
                           : (mine->singleBoolId == id ? &mine->singleBoolValue : nullptr);
    all = all && here != nullptr && *here == value;
  });
  return all;
}

bool includes_u32s(const message::Rep* mine, const message::Rep* theirs) {
  bool all = true;
  theirs->u32s.forEach([mine, &all](uint32_t id, unsigned int value) {
    const unsigned int* here = mine->u32s.find(id);
    all = all && here != nullptr && *here == value;
  });
  return all;
}

bool includes_fields(const message::Rep* mine, const message::Rep* theirs, unsigned int& count) {
  return includesList(mine, theirs->fields, count);
}

bool includes_arrays(const message::Rep* mine, const message::Rep* theirs, unsigned int& count) {
  return includesList(mine, theirs->arrays, count);
}

// Unlinks and frees every node of the list at `head` for which pred(id) holds.
template <class Pred>
void removeNodes(message::Rep* r, message::litem*& head, Pred&& pred) {
  message::litem** link = &head;
  while (*link != nullptr) {
    if (pred((*link)->id)) {
      r->unlink(link);
    } else {
      link = &(*link)->next;
    }
  }
}

void removeFirstNode(message::Rep* r, message::litem*& head, uint32_t id) {
  if (r->findNode(id) == nullptr) return;  // most removals in a long list are of absent ids
  message::litem** link = &head;
  while (*link != nullptr && (*link)->id != id) link = &(*link)->next;
  if (*link != nullptr) r->unlink(link);
}

}  // namespace

void message::merge(const message& other) {
  if (same_rep(other) || other.is_nil()) return;
  if (is_nil()) {
    *this = other;
    return;
  }
  unique();
  Rep* r = rep_;
  const Rep* o = other.rep_;
  if (const htable<bool>* theirs = o->boolTable()) {
    htable<bool>* mine = r->boolTable();
    if (mine == nullptr) {
      const uint32_t single = r->singleBoolId;
      mine = &r->makeBoolTable();
      if (single != kNoBool) mine->get_ref(single) = r->singleBoolValue;
      r->singleBoolId = kNoBool;
    }
    theirs->forEach([mine](uint32_t id, bool value) { mine->get_ref(id) = value; });
  } else if (o->singleBoolId != kNoBool) {
    r->setBool(o->singleBoolId, o->singleBoolValue);
  }
  o->u32s.forEach([r](uint32_t id, unsigned int value) { r->u32s.get_ref(id) = value; });
  for (const litem* f = o->fields; f != nullptr; f = f->next) assignNode(r, f);
  for (const litem* a = o->arrays; a != nullptr; a = a->next) assignNode(r, a);
}

bool message::includes(const message& other) const {
  if (same_rep(other)) return true;
  unsigned int count;
  return includes_bools(rep_, other.rep_) && includes_u32s(rep_, other.rep_) &&
         includes_fields(rep_, other.rep_, count) && includes_arrays(rep_, other.rep_, count);
}

bool message::operator==(const message& other) const {
  if (same_rep(other)) return true;
  const Rep* r = rep_;
  const Rep* o = other.rep_;
  unsigned int fields;
  unsigned int arrays;
  return r->boolCount() == o->boolCount() && includes_bools(r, o) &&
         r->u32s.count() == o->u32s.count() && includes_u32s(r, o) &&
         includes_fields(r, o, fields) && includes_arrays(r, o, arrays) &&
         r->nodeCount == fields + arrays;
}

void message::removeIdMask(uint32_t value, uint32_t mask) {
  if (is_nil()) return;
  unique();
  Rep* r = rep_;
  const uint32_t target = value & mask;
  auto matches = [target, mask](uint32_t id) { return (id & mask) == target; };
  if (target < kTypeU32) {  // bool type bits, or a mask that leaves the type out
    if (htable<bool>* table = r->boolTable()) table->removeIf(matches);
    if (r->singleBoolId != kNoBool && matches(r->singleBoolId)) r->singleBoolId = kNoBool;
  }
  if ((mask & kTypeU32) == (target & kTypeMask)) r->u32s.removeIf(matches);
  removeNodes(r, r->fields, matches);
  removeNodes(r, r->arrays, matches);
}

void message::remove_bool(uint32_t id) {
  unique();
  id = withType(id, kTypeBool);
  if (rep_->singleBoolId == id) {
    rep_->singleBoolId = kNoBool;
  } else if (htable<bool>* table = rep_->boolTable()) {
    table->remove(id);  // the table stays, even when empty
  }
}

void message::remove_u32(uint32_t id) {
  unique();
  rep_->u32s.remove(withType(id, kTypeU32));
}

void message::remove_field(uint32_t id) {
  unique();
  if ((id & kArrayBit) == 0) removeFirstNode(rep_, rep_->fields, id);
}

void message::remove_array(uint32_t id) {
  unique();
  if ((id & kArrayBit) != 0) removeFirstNode(rep_, rep_->arrays, id);
}

}  // namespace kl
