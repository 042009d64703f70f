// kl::Handler: subscriptions, batched change notifications, persistent data and undo
// records.
#include <algorithm>
#include <map>

#include "kl/base/check.h"
#include "kl/looper/handler.h"
#include "kl/looper/looper.h"

namespace kl {

namespace {

constexpr unsigned int kChangeDelayTicks = 20;
constexpr size_t kChangeBurst = 100;
constexpr size_t kNotifyObjectBytes = 16383;
// The most elements an array holds on the wire (its count is 16-bit).
constexpr size_t kMaxPathElements = 0xFFFF;

constexpr uint32_t kPermSubscriptions = 0xa8000001;  // message array field 1

constexpr unsigned int kUndoService = 17;
constexpr uint32_t kUndoRequest = 0x28000001;
constexpr uint32_t kUndoReverse = 0x28000002;
constexpr uint32_t kUndoDescription = 0x20000003;
constexpr uint32_t kUndoPolicies = 0x08000005;
constexpr uint32_t kUndoUser = 0x20000006;

const std::vector<unsigned int>& pathOf(const message& record) {
  static const std::vector<unsigned int>* const kNone = new std::vector<unsigned int>();
  const std::vector<unsigned int>* path = record.get_u32_array_ref(SYS_FROM);
  return path != nullptr ? *path : *kNone;
}

bool startsWith(const std::vector<unsigned int>& path, const std::vector<unsigned int>& prefix) {
  return prefix.size() <= path.size() && std::equal(prefix.begin(), prefix.end(), path.begin());
}

// Tail first: an object linked by STD_NEXTID goes after the object that follows it, so that
// a receiver can insert each in front of its successor. Chains start at objects whose
// successor did not change; objects that no chain reaches (a cycle) are dropped.
std::vector<message> orderByNextId(std::vector<message>& objs,
                                   const std::set<unsigned int>& changed) {
  std::vector<const message*> starts;
  std::map<unsigned int, const message*> filedUnder;  // successor id -> its predecessor
  for (const message& obj : objs) {
    const unsigned int* next = obj.get_u32_ref(STD_NEXTID);
    if (next == nullptr || changed.count(*next) == 0) {
      starts.push_back(&obj);
    } else {
      filedUnder.emplace(*next, &obj);
    }
  }
  std::vector<message> ordered;
  ordered.reserve(objs.size());
  for (const message* link : starts) {
    size_t guard = objs.size();
    while (link != nullptr && guard-- > 0) {
      ordered.push_back(*link);
      auto it = filedUnder.find(link->get(STD_ID, BADID));
      link = it == filedUnder.end() ? nullptr : it->second;
    }
  }
  return ordered;
}

// Whether the list needs the tail-first order: decided by the first object that is not a
// plain removal (dead without a successor).
bool linkedByNextId(const std::vector<message>& objs) {
  for (const message& obj : objs) {
    if (obj.has(STD_DEAD) && !obj.has(STD_NEXTID)) continue;
    return obj.has(STD_NEXTID);
  }
  return false;
}

}  // namespace

// --- subscriptions ----------------------------------------------------------------------

message Handler::subscriptionRecord(const message& m) const {
  message record = m;
  const std::vector<unsigned int>* from = m.get_u32_array_ref(SYS_FROM);
  cleanSys(record);
  if (from != nullptr) record.insert(SYS_FROM, *from);
  return record;
}

void Handler::sendSubscription(const std::vector<unsigned int>& path, unsigned int notifyCmd,
                               const message& base, unsigned int subscribeCmd) {
  message m = base;
  m.insert(SYS_TO, path);
  m.insert(SYS_CMD, subscribeCmd);
  m.insert(SYS_NOTIFYCMD, notifyCmd);
  sendMessage(m);
}

void Handler::subscribe(const std::vector<unsigned int>& path, unsigned int cmd,
                        const message& base) {
  sendSubscription(path, cmd, base, CMD_SUBSCRIBE);
}

void Handler::unsubscribe(const std::vector<unsigned int>& path, unsigned int cmd,
                          const message& base) {
  sendSubscription(path, cmd, base, CMD_UNSUBSCRIBE);
}

std::vector<message>::iterator Handler::findSubscription(const message& record) {
  const std::vector<unsigned int>& path = pathOf(record);
  auto known = subscriptionPaths_.find(path);
  if (known == subscriptionPaths_.end()) return subscriptions_.end();
  return std::find_if(subscriptions_.begin(), subscriptions_.end(), [&](const message& existing) {
    return pathOf(existing) == path && existing == record;
  });
}

void Handler::addSubscription(const message& record) {
  subscriptions_.push_back(record);
  ++subscriptionPaths_[pathOf(record)];
}

void Handler::eraseSubscription(std::vector<message>::iterator it) {
  auto known = subscriptionPaths_.find(pathOf(*it));
  if (known != subscriptionPaths_.end() && --known->second == 0) subscriptionPaths_.erase(known);
  subscriptions_.erase(it);
}

void Handler::cmdSubscribe(const message& m) {
  const message record = subscriptionRecord(m);
  if (findSubscription(record) != subscriptions_.end()) return;
  addSubscription(record);
  subscribed(record);
}

void Handler::cmdUnsubscribe(const message& m) {
  const message record = subscriptionRecord(m);
  if (findSubscription(record) == subscriptions_.end()) return;
  unsubscribed(record);
  // Looked up again: the hook may have changed the list.
  auto it = findSubscription(record);
  if (it != subscriptions_.end()) eraseSubscription(it);
}

void Handler::cmdDisconnected(const message& m) {
  const std::vector<unsigned int> gone = m.get_u32_array(SYS_FROM);
  if (subscriptions_.empty() || gone.empty()) return;
  for (size_t i = 0; i < subscriptions_.size();) {
    const message record = subscriptions_[i];
    if (!startsWith(pathOf(record), gone)) {
      ++i;
      continue;
    }
    const size_t before = subscriptions_.size();
    unsubscribed(record);
    if (subscriptions_.size() == before && subscriptions_[i] == record) {
      eraseSubscription(subscriptions_.begin() + static_cast<ptrdiff_t>(i));
      continue;
    }
    // The hook changed the list: the record is looked up again, and the scan starts over
    // (every record it has removed so far is gone, so no hook runs twice).
    auto it = findSubscription(record);
    if (it != subscriptions_.end()) eraseSubscription(it);
    i = 0;
  }
}

void Handler::notifySubscriptions() {
  for (size_t i = 0; i < subscriptions_.size(); ++i) subscribed(subscriptions_[i]);
}

void Handler::subscribed(const message&) {}
void Handler::unsubscribed(const message&) {}
void Handler::notifiesSent() {}

bool Handler::shouldNotify(const message& record, const message& n) {
  const std::vector<unsigned int>* subscriber = record.get_u32_array_ref(SYS_FROM);
  const std::vector<unsigned int>* origin = n.get_u32_array_ref(SYS_ORIGIN);
  if (subscriber != nullptr && origin != nullptr && *subscriber == *origin) return false;
  return record.get(SYS_NOTIFYCMD, CMD_NOTIFY) == n.get(SYS_CMD, CMD_NOTIFY);
}

// --- collecting and sending changes -----------------------------------------------------------

void Handler::notifyChange(unsigned int id) { notifyChange(id, std::vector<unsigned int>()); }

void Handler::notifyChange(unsigned int id, const message& cause) {
  notifyChange(id, cause.get_u32_array(SYS_FROM));
}

void Handler::notifyChange(unsigned int id, const std::vector<unsigned int>& origin) {
  if (subscriptions_.empty()) return;
  if (changedIds_.empty()) {
    changeOrigin_ = origin;
    changeTimer_ = getRunner()->addTimer(this, &Handler::onChangeTimer, kChangeDelayTicks);
  } else if (origin != changeOrigin_) {
    changeOrigin_.clear();  // mixed causes have no single origin
  }
  changedIds_.insert(id);
  if (changedIds_.size() == kChangeBurst) sendChanges();
}

void Handler::onChangeTimer(void* self) {
  Handler* handler = static_cast<Handler*>(self);
  handler->changeTimer_ = TimerPtr();  // the runner frees a timer that fired
  handler->sendChanges();
}

void Handler::sendChanges() {
  if (changeTimer_) removeTimer(&changeTimer_);
  std::vector<message> objs;
  objs.reserve(changedIds_.size());
  for (const unsigned int id : changedIds_) {
    message obj = getObject(id);
    KL_CHECK_NAMED("looper", id == kl::BADID || obj.get(STD_ID, kl::BADID) == id);
    objs.push_back(obj);
  }
  if (linkedByNextId(objs)) objs = orderByNextId(objs, changedIds_);
  message* next = objs.data();
  message* const end = next + objs.size();
  while (next != end) next = sendNotifies(next, end);
  changedIds_.clear();
  changeOrigin_.clear();
  notifiesSent();
}

message* Handler::sendNotifies(message* begin, message* end) {
  message n;
  n.insert(SYS_CMD, CMD_NOTIFY);
  if (!changeOrigin_.empty()) n.insert(SYS_ORIGIN, changeOrigin_);
  std::vector<message::flat_message> batch;
  size_t total = 0;
  message* p = begin;
  for (; p != end; ++p) {
    message::flat_message flat(*p);
    if (p != begin && total + flat.size() > kNotifyObjectBytes) break;
    total += flat.size();
    batch.push_back(std::move(flat));
  }
  n.insert_message_array(STD_OBJS, batch);
  sendNotify(n);
  return p;
}

void Handler::sendNotify(message& m) {
  KL_CHECK_NAMED("looper", m.has(kl::SYS_CMD));
  const unsigned int count = getObjectCount();
  if (count != 0xFFFFFFFFu) m.insert(STD_OBJ_COUNT, count);
  // A notification may come addressed already; subscribers are added to its path. The path
  // grows in `m` itself, so that shouldNotify sees the destinations chosen so far.
  for (size_t i = 0; i < subscriptions_.size(); ++i) {
    const message& record = subscriptions_[i];
    if (!shouldNotify(record, m)) continue;
    // An empty path leads nowhere, and as a group of 0 it would end a multi-destination
    // path before the subscribers behind it.
    const std::vector<unsigned int>& path = pathOf(record);
    if (path.empty()) continue;
    if (!m.has(SYS_TO)) {
      m.insert(SYS_TO, path);
      continue;
    }
    // Every further subscriber turns the path into the multi-destination form, group by
    // group: the loader fans one message out instead of the process sending one each.
    // (Looked up again each time: shouldNotify may have taken a copy of m.)
    std::vector<unsigned int>& to = m[SYS_TO];
    const bool multi = !to.empty() && to.front() == PATH_MULTI;
    if (to.size() + (multi ? 0 : 2) + 1 + path.size() > kMaxPathElements) {
      // The path is full: this frame goes as it is, and the next one starts with `path`.
      message full = m;
      sendMessage(full);
      m.insert(SYS_TO, path);
      continue;
    }
    if (!multi) {
      to.insert(to.begin(), static_cast<unsigned int>(to.size()));
      to.insert(to.begin(), PATH_MULTI);
    }
    to.push_back(static_cast<unsigned int>(path.size()));
    to.insert(to.end(), path.begin(), path.end());
  }
  if (!m.has(SYS_TO)) return;
  sendMessage(m);
}

// --- persistent data ------------------------------------------------------------------------

void Handler::savePermData(message& data) {
  if (subscriptions_.empty()) return;
  sendChanges();
  std::vector<message::flat_message> records = data.get_message_array(kPermSubscriptions);
  for (const message& record : subscriptions_) records.emplace_back(record);
  data.insert_message_array(kPermSubscriptions, records);
}

void Handler::loadPermData(const message& data) {
  const std::vector<message::flat_message>* records =
      data.get_message_array_ref(kPermSubscriptions);
  if (records == nullptr) return;
  for (const message::flat_message& flat : *records) addSubscription(message(flat));
}

// --- undo records -----------------------------------------------------------------------------

namespace {

message withoutPath(const message& m) {
  message copy = m;
  copy.remove_array(SYS_FROM);
  copy.remove_array(SYS_TO);
  return copy;
}

}  // namespace

void Handler::sendUndoFrom(const message& request, const message& undo,
                           const std::string& description, unsigned int from) {
  message record;
  record.insert_vector(SYS_TO, kUndoService);
  if (from != 0xFFFFFFFFu) record.insert_vector(SYS_FROM, from);
  if (const unsigned int* undoId = request.get_u32_ref(STD_UNDOID)) {
    record.insert(SYS_CMD, CMD_SETOBJ);
    record.insert(STD_ID, *undoId);
  } else {
    record.insert(SYS_CMD, CMD_ADDOBJ);
    record.insert_message(kUndoRequest, withoutPath(request));
    record.insert_string(kUndoDescription, description);
    record.insert_string(kUndoUser, request.get_string(SYS_USER, ""));
  }
  record.insert_u32(kUndoPolicies, policies_.required_policies(request.get(SYS_CMD, CMD_NOOP)));
  record.insert_message(kUndoReverse, withoutPath(undo));
  sendMessage(record);
}

void Handler::sendUndo(const message& request, const message& undo,
                       const std::string& description) {
  sendUndoFrom(request, undo, description, 0xFFFFFFFFu);
}

void Handler::sendUndo(const message& request, message& undo, const std::string& description,
                       unsigned int cmd) {
  undo.insert(SYS_CMD, cmd);
  sendUndo(request, undo, description);
}

}  // namespace kl
