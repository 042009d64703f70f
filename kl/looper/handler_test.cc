// Requests, subscriptions, notifications, persistent data and undo records of a Handler,
// driven through a real Looper and a LoaderPeer.
#include "kl/looper/handler.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "kl/base/clock.h"
#include "kl/looper/looper.h"
#include "kl/message/system.h"
#include "kl/testing/loader_peer.h"

namespace kl {
namespace {

using testing::LoaderPeer;

const std::vector<unsigned int> kPathA = {0x10000, 7};
const std::vector<unsigned int> kPathB = {0x10001, 3};

// A handler with objects 1..N whose getObject answers from a map the test edits.
class Objects : public Handler {
 public:
  message getObject(unsigned int id) override {
    auto it = objects_.find(id);
    if (it != objects_.end()) return it->second;
    message obj;
    obj.insert(STD_ID, id);
    return obj;
  }
  void subscribed(const message& record) override { subscribedSeen_.push_back(record); }
  void unsubscribed(const message& record) override { unsubscribedSeen_.push_back(record); }
  void notifiesSent() override { ++batches_; }

  std::map<unsigned int, message> objects_;
  std::vector<message> subscribedSeen_, unsubscribedSeen_;
  int batches_ = 0;
};

struct Delivery {
  std::vector<message> got;
  static void record(void* self, const message& reply, const message& extra) {
    message both = reply;
    both.insert_string(STD_DESCR, extra.get_string(STD_DESCR, ""));
    static_cast<Delivery*>(self)->got.push_back(both);
  }
};

class HandlerTest : public ::testing::Test {
 protected:
  void SetUp() override { start(message()); }

  void start(const message& readyExtra, Handler* handler = nullptr) {
    looper_.reset();
    peer_.reset(new LoaderPeer(true, readyExtra));
    looper_.reset(new Looper(Looper::kInherit, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    message registration;
    ASSERT_TRUE(peer_->read(&registration));
    looper_->addHandler(5, handler != nullptr ? handler : &objects_);
  }

  void subscribe(const std::vector<unsigned int>& from) {
    message body;
    body.insert(SYS_NOTIFYCMD, CMD_NOTIFY);
    peer_->request({5}, CMD_SUBSCRIBE, body, from);
    peer_->pump(*looper_);
    message reply;
    ASSERT_TRUE(peer_->read(&reply));
  }

  // The loader's notice that the peer at `path` went away.
  void disconnect(const std::vector<unsigned int>& path) {
    message gone;
    gone.insert(SYS_CMD, CMD_DISCONNECTED);
    gone.insert(SYS_FROM, path);
    gone.insert(SYS_TO, std::vector<unsigned int>());
    peer_->send(gone);
    peer_->pump(*looper_);
  }

  // The next frame, which must be a notification; its objects' ids in order.
  std::vector<unsigned int> notifiedIds(message* n) {
    std::vector<unsigned int> ids;
    if (!peer_->read(n)) return ids;
    EXPECT_EQ(n->get(SYS_CMD, 0), CMD_NOTIFY);
    for (const auto& flat : n->get_message_array(STD_OBJS)) {
      ids.push_back(message(flat).get(STD_ID, 0));
    }
    return ids;
  }

  void flushNow() {
    objects_.sendChanges();
    looper_->writeFlush(true);
  }

  void expireTimers(unsigned int ticks) {
    usleep((ticks + 1) * 10000);
    looper_->runTimers();
  }

  std::unique_ptr<LoaderPeer> peer_;
  std::unique_ptr<Looper> looper_;
  Objects objects_;
};

// --- posted requests ------------------------------------------------------------------------

TEST_F(HandlerTest, PostedRequestsGetConsecutiveIdsAndTheirReplies) {
  Delivery d;
  message a, b, extra;
  extra.insert_string(STD_DESCR, "ctx");
  a.insert(SYS_TO, {40});
  b.insert(SYS_TO, {40});
  EXPECT_EQ(objects_.postMessage(a, &d, Delivery::record, extra, 500), 0u);
  EXPECT_EQ(objects_.postMessage(b, &d, Delivery::record, extra, 500), 1u);
  looper_->writeFlush(true);
  message sent;
  ASSERT_TRUE(peer_->read(&sent));
  EXPECT_TRUE(sent.get_bool(SYS_REPLYEXP, false));
  EXPECT_EQ(sent.get(SYS_TYPE, 0), TYPE_REQUEST);
  EXPECT_EQ(sent.get_u32_array(SYS_FROM), std::vector<unsigned int>({5}));
  message reply;
  reply.insert(SYS_TO, {5});
  setType(reply, TYPE_REPLY);
  setRequestID(reply, 1);
  peer_->send(reply);
  peer_->send(reply);  // a second reply for the same id is dropped
  peer_->pump(*looper_);
  ASSERT_EQ(d.got.size(), 1u);
  EXPECT_EQ(d.got[0].get(SYS_REQID, 9), 1u);
  EXPECT_EQ(d.got[0].get_string(STD_DESCR, ""), "ctx");
  EXPECT_EQ(objects_.pendingPosts(), 1u);
}

// Request ids near the end of their range: 0xFFFFFFFF is skipped, and the count starts again
// at 0.
TEST(RequestIds, WrapFrom0xFFFFFFFETo0) {
  struct Case {
    unsigned int counter;
    unsigned int taken;
    unsigned int next;
  };
  const Case cases[] = {
      {0, 0, 1},
      {41, 41, 42},
      {0xFFFFFFFDu, 0xFFFFFFFDu, 0xFFFFFFFEu},
      {0xFFFFFFFEu, 0xFFFFFFFEu, 0xFFFFFFFFu},
      {0xFFFFFFFFu, 0, 1},
  };
  for (const Case& c : cases) {
    unsigned int counter = c.counter;
    EXPECT_EQ(takeRequestId(&counter), c.taken) << std::hex << c.counter;
    EXPECT_EQ(counter, c.next) << std::hex << c.counter;
  }
}

TEST_F(HandlerTest, TimeoutFiresOnceAndTheLateReplyIsDropped) {
  Delivery d;
  message m;
  m.insert(SYS_TO, {40});
  const size_t timersBefore = looper_->timerCount();
  const unsigned int id = objects_.postMessage(m, &d, Delivery::record, message(), 1);
  EXPECT_EQ(looper_->timerCount(), timersBefore + 1);
  expireTimers(1);
  ASSERT_EQ(d.got.size(), 1u);
  unsigned int code = 0;
  EXPECT_TRUE(isError(d.got[0], &code, nullptr));
  EXPECT_EQ(code, ERROR_TIMEOUT);
  EXPECT_EQ(d.got[0].get(SYS_REQID, 9), id);
  message late;
  late.insert(SYS_TO, {5});
  setType(late, TYPE_REPLY);
  setRequestID(late, id);
  peer_->send(late);
  peer_->pump(*looper_);
  EXPECT_EQ(d.got.size(), 1u);
}

TEST_F(HandlerTest, NoTimeoutMeansNoTimerAndCancelMeansNoCallback) {
  Delivery d;
  message m;
  m.insert(SYS_TO, {40});
  const size_t timersBefore = looper_->timerCount();
  const unsigned int forever =
      objects_.postMessage(m, &d, Delivery::record, message(), 0xFFFFFFFFu);
  EXPECT_EQ(looper_->timerCount(), timersBefore);
  const unsigned int cancelled = objects_.postMessage(m, &d, Delivery::record, message(), 1);
  objects_.cancelPost(cancelled);
  objects_.cancelPost(12345);  // unknown: nothing happens
  EXPECT_EQ(looper_->timerCount(), timersBefore);
  expireTimers(1);
  EXPECT_TRUE(d.got.empty());
  EXPECT_EQ(objects_.pendingPosts(), 1u);
  objects_.cancelPost(forever);
  EXPECT_EQ(objects_.pendingPosts(), 0u);
}

// A time-out delivered early by the service itself: its timer goes with the entry, so
// nothing fires later into the erased entry.
TEST_F(HandlerTest, EarlyReplyTimeoutTakesTheTimerAlong) {
  Delivery d;
  message m;
  m.insert(SYS_TO, {40});
  const size_t timersBefore = looper_->timerCount();
  const unsigned int id = objects_.postMessage(m, &d, Delivery::record, message(), 1);
  objects_.replyTimeout(id);
  ASSERT_EQ(d.got.size(), 1u);
  EXPECT_EQ(d.got[0].get(SYS_REQID, 9), id);
  EXPECT_EQ(looper_->timerCount(), timersBefore);
  expireTimers(1);
  EXPECT_EQ(d.got.size(), 1u);
}

// A callback that posts again, from inside its own delivery.
struct Reposter {
  Handler* handler;
  int calls = 0;
  static void onReply(void* self, const message&, const message&) {
    Reposter* r = static_cast<Reposter*>(self);
    if (++r->calls > 1) return;
    message again;
    again.insert(SYS_TO, {40});
    r->handler->postMessage(again, r, onReply, message(), 1);
  }
};

TEST_F(HandlerTest, CallbackMayPostAgain) {
  Reposter r{&objects_};
  message m;
  m.insert(SYS_TO, {40});
  objects_.postMessage(m, &r, Reposter::onReply, message(), 1);
  expireTimers(1);
  EXPECT_EQ(r.calls, 1);
  EXPECT_EQ(objects_.pendingPosts(), 1u);
  expireTimers(1);
  EXPECT_EQ(r.calls, 2);
}

TEST_F(HandlerTest, DestroyedHandlerTakesItsTimersAlong) {
  const size_t timersBefore = looper_->timerCount();
  {
    Objects doomed;
    looper_->addHandler(8, &doomed);
    Delivery d;
    message m;
    m.insert(SYS_TO, {40});
    doomed.postMessage(m, &d, Delivery::record, message(), 100);
    EXPECT_EQ(looper_->timerCount(), timersBefore + 1);
    looper_->removeHandler(8);
  }
  EXPECT_EQ(looper_->timerCount(), timersBefore);
}

// --- subscriptions and notifications ----------------------------------------------------------

TEST_F(HandlerTest, ChangeCausedByASubscriberIsNotEchoedToIt) {
  subscribe(kPathA);
  subscribe(kPathB);
  subscribe(kPathB);  // a duplicate is ignored
  EXPECT_EQ(objects_.subscriptions().size(), 2u);
  message cause;
  cause.insert(SYS_FROM, kPathA);
  objects_.notifyChange(3, cause);
  flushNow();
  message n;
  EXPECT_EQ(notifiedIds(&n), std::vector<unsigned int>({3}));
  EXPECT_EQ(n.get_u32_array(SYS_TO), kPathB);
  EXPECT_EQ(n.get_u32_array(SYS_ORIGIN), kPathA);
  EXPECT_TRUE(peer_->quiet());
  // Without a single cause, one frame goes to both with a multi-destination path.
  objects_.notifyChange(4, cause);
  objects_.notifyChange(5);
  flushNow();
  notifiedIds(&n);
  EXPECT_EQ(n.get_u32_array(SYS_TO),
            std::vector<unsigned int>({PATH_MULTI, 2, 0x10000, 7, 2, 0x10001, 3}));
  EXPECT_FALSE(n.has(SYS_ORIGIN));
  EXPECT_TRUE(peer_->quiet());
}

// The batched notification goes out by itself once its delay has passed: a test moves the
// clock on instead of waiting or calling sendChanges().
TEST_F(HandlerTest, ChangesGoOutWhenTheClockHasMovedOn) {
  subscribe(kPathA);
  objects_.notifyChange(7);
  looper_->runTimers();
  looper_->writeFlush(true);
  EXPECT_TRUE(peer_->quiet()) << "sent before its delay";
  advanceClock(10);  // half the delay
  looper_->runTimers();
  looper_->writeFlush(true);
  EXPECT_TRUE(peer_->quiet()) << "sent early";
  advanceClock(10);
  looper_->runTimers();
  looper_->writeFlush(true);
  message n;
  EXPECT_EQ(notifiedIds(&n), std::vector<unsigned int>({7}));
}

// A subscriber without a way back (an empty SYS_FROM) cannot be a group of a
// multi-destination path: its count of 0 would end the path before the others.
// More subscribers than one multi-destination path can name (its array count is 16-bit):
// the notification goes out in several frames, each within the wire's limit, and every
// subscriber is in exactly one of them.
TEST_F(HandlerTest, ANotificationToManySubscribersIsSplitIntoFrames) {
  const unsigned int subscribers = 25000;
  for (unsigned int i = 0; i < subscribers; ++i) {
    message m;
    m.insert(SYS_FROM, std::vector<unsigned int>{0x10000 + i, 7});
    objects_.cmdSubscribe(m);
  }
  ASSERT_EQ(objects_.subscriptions().size(), subscribers);
  objects_.notifyChange(3);
  // The frames are larger than a socket buffer: a child reads them while the Looper writes.
  fflush(nullptr);
  const pid_t reader = fork();
  if (reader == 0) {
    std::map<unsigned int, int> seen;
    int frames = 0;
    for (message n; seen.size() < subscribers && peer_->read(&n); ++frames) {
      const std::vector<unsigned int> to = n.get_u32_array(SYS_TO);
      if (to.size() > 0xFFFFu || to.empty() || to.front() != PATH_MULTI) _exit(1);
      for (size_t pos = 1; pos + 2 < to.size(); pos += 3) {
        if (to[pos] != 2 || to[pos + 2] != 7) _exit(2);
        ++seen[to[pos + 1]];
      }
    }
    bool once = seen.size() == subscribers;
    for (const auto& entry : seen) once = once && entry.second == 1;
    _exit(!once ? 3 : frames != 2 ? 4 : peer_->quiet() ? 0 : 5);
  }
  flushNow();
  int status = 0;
  ASSERT_EQ(waitpid(reader, &status, 0), reader);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);  // 1: a path too long, 3: a subscriber not once, 4: frames
}

// Subscriptions are told apart by the whole record, found through their path.
TEST_F(HandlerTest, SubscriptionsAreFoundByPathAndRecord) {
  auto request = [](unsigned int cmd, const std::vector<unsigned int>& from, unsigned int tag) {
    message m;
    m.insert(SYS_FROM, from);
    m.insert(SYS_NOTIFYCMD, CMD_NOTIFY);
    m.insert(STD_ID, tag);
    m.insert(SYS_CMD, cmd);
    return m;
  };
  objects_.cmdSubscribe(request(CMD_SUBSCRIBE, kPathA, 1));
  objects_.cmdSubscribe(request(CMD_SUBSCRIBE, kPathA, 2));  // same path, another record
  objects_.cmdSubscribe(request(CMD_SUBSCRIBE, kPathA, 1));  // a duplicate
  objects_.cmdSubscribe(request(CMD_SUBSCRIBE, kPathB, 1));
  EXPECT_EQ(objects_.subscriptions().size(), 3u);
  objects_.cmdUnsubscribe(request(CMD_UNSUBSCRIBE, kPathA, 3));  // unknown: ignored
  objects_.cmdUnsubscribe(request(CMD_UNSUBSCRIBE, kPathA, 1));
  ASSERT_EQ(objects_.subscriptions().size(), 2u);
  EXPECT_EQ(objects_.subscriptions()[0].get(STD_ID, 0), 2u);
  objects_.cmdSubscribe(request(CMD_SUBSCRIBE, kPathA, 1));  // back, at the end
  disconnect({0x10000});
  ASSERT_EQ(objects_.subscriptions().size(), 1u);
  EXPECT_EQ(objects_.subscriptions()[0].get_u32_array(SYS_FROM), kPathB);
  objects_.cmdSubscribe(request(CMD_SUBSCRIBE, kPathA, 2));  // gone with the peer: new again
  EXPECT_EQ(objects_.subscriptions().size(), 2u);
}

TEST_F(HandlerTest, SubscriberWithAnEmptyPathDoesNotHideTheOthers) {
  message body;
  body.insert(SYS_NOTIFYCMD, CMD_NOTIFY);
  peer_->request({5}, CMD_SUBSCRIBE, body, {});  // its reply goes nowhere
  peer_->pump(*looper_);
  ASSERT_EQ(objects_.subscriptions().size(), 1u);
  subscribe(kPathA);
  subscribe(kPathB);
  objects_.notifyChange(3);
  flushNow();
  message n;
  EXPECT_EQ(notifiedIds(&n), std::vector<unsigned int>({3}));
  EXPECT_EQ(n.get_u32_array(SYS_TO),
            std::vector<unsigned int>({PATH_MULTI, 2, 0x10000, 7, 2, 0x10001, 3}));
}

TEST_F(HandlerTest, LinkedObjectsAreSentTailFirstAndCyclesDropped) {
  subscribe(kPathA);
  // The list 1 -> 2 -> 3 -> (end): each object names the one after it.
  for (unsigned int id = 1; id <= 3; ++id) {
    message obj;
    obj.insert(STD_ID, id);
    obj.insert(STD_NEXTID, id == 3 ? BADID : id + 1);
    objects_.objects_[id] = obj;
    objects_.notifyChange(id);
  }
  // 7 and 8 point at each other: no chain reaches them.
  for (unsigned int id : {7u, 8u}) {
    message obj;
    obj.insert(STD_ID, id);
    obj.insert(STD_NEXTID, id == 7 ? 8 : 7);
    objects_.objects_[id] = obj;
    objects_.notifyChange(id);
  }
  flushNow();
  message n;
  EXPECT_EQ(notifiedIds(&n), std::vector<unsigned int>({3, 2, 1}));
}

TEST_F(HandlerTest, BatchingByTimeAndByCount) {
  const size_t timersBefore = looper_->timerCount();
  objects_.notifyChange(1);  // nobody subscribed: nothing collected, no timer
  EXPECT_EQ(looper_->timerCount(), timersBefore);
  subscribe(kPathA);
  for (unsigned int id = 1; id <= 99; ++id) {
    objects_.notifyChange(id);
    objects_.notifyChange(id);  // repeats count once
  }
  EXPECT_EQ(looper_->timerCount(), timersBefore + 1);
  looper_->writeFlush(true);
  EXPECT_TRUE(peer_->quiet(20));
  objects_.notifyChange(100);  // the 100th distinct id sends at once
  EXPECT_EQ(looper_->timerCount(), timersBefore);
  looper_->writeFlush(true);
  message n;
  EXPECT_EQ(notifiedIds(&n).size(), 100u);
  EXPECT_EQ(objects_.batches_, 1);
  objects_.notifyChange(7);
  expireTimers(20);  // after 20 ticks the batch goes by itself
  looper_->writeFlush(true);
  EXPECT_EQ(notifiedIds(&n), std::vector<unsigned int>({7}));
}

TEST_F(HandlerTest, NotificationsSplitAt16383BytesOfObjects) {
  subscribe(kPathA);
  for (unsigned int id = 1; id <= 5; ++id) {
    message obj;
    obj.insert(STD_ID, id);
    obj.insert_string(STD_DESCR, std::string(id == 5 ? 20000 : 5000, 'x'));
    objects_.objects_[id] = obj;
    objects_.notifyChange(id);
  }
  flushNow();
  message n;
  EXPECT_EQ(notifiedIds(&n), std::vector<unsigned int>({1, 2, 3}));
  EXPECT_EQ(notifiedIds(&n), std::vector<unsigned int>({4}));
  EXPECT_EQ(notifiedIds(&n), std::vector<unsigned int>({5}));  // too big, but sent alone
}

// An object of `bytes` flattened bytes: STD_ID and a description padded to fit.
message objectOfSize(unsigned int id, size_t bytes) {
  for (size_t pad = 0; pad < bytes; ++pad) {
    message obj;
    obj.insert(STD_ID, id);
    obj.insert_string(STD_DESCR, std::string(pad, 'x'));
    if (message::flat_message(obj).size() == bytes) return obj;
  }
  ADD_FAILURE() << "no object of " << bytes << " bytes";
  return message();
}

TEST_F(HandlerTest, NotificationBatchHoldsExactly16383BytesOfObjects) {
  subscribe(kPathA);
  struct Case {
    size_t second;
    std::vector<std::vector<unsigned int>> batches;
  } cases[] = {
      {8191, {{1, 2}}},    // 8192 + 8191 = 16383: one notification
      {8192, {{1}, {2}}},  // one byte more: two
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.second);
    objects_.objects_[1] = objectOfSize(1, 8192);
    objects_.objects_[2] = objectOfSize(2, c.second);
    objects_.notifyChange(1);
    objects_.notifyChange(2);
    flushNow();
    message n;
    for (const auto& batch : c.batches) EXPECT_EQ(notifiedIds(&n), batch);
    EXPECT_TRUE(peer_->quiet(20));
  }
}

// Whether the tail-first order applies is decided by the first object that is not a plain
// removal (dead, without a successor).
TEST_F(HandlerTest, FirstLivingObjectDecidesTheOrder) {
  subscribe(kPathA);
  struct Object {
    unsigned int id;
    bool dead;
    unsigned int next;  // 0: none
  };
  struct Case {
    const char* what;
    std::vector<Object> objects;
    std::vector<unsigned int> sent;
  } cases[] = {
      {"removal first, then a list", {{1, true, 0}, {2, false, 3}, {3, false, BADID}}, {1, 3, 2}},
      {"plain object first", {{1, false, 0}, {2, false, 3}, {3, false, BADID}}, {1, 2, 3}},
      {"dead with a successor", {{1, true, 2}, {2, false, BADID}}, {2, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    objects_.objects_.clear();
    for (const Object& o : c.objects) {
      message obj;
      obj.insert(STD_ID, o.id);
      if (o.dead) obj.insert(STD_DEAD, 1);
      if (o.next != 0) obj.insert(STD_NEXTID, o.next);
      objects_.objects_[o.id] = obj;
      objects_.notifyChange(o.id);
    }
    flushNow();
    message n;
    EXPECT_EQ(notifiedIds(&n), c.sent);
  }
}

TEST_F(HandlerTest, DisconnectDropsSubscriptionsUnderThePath) {
  subscribe({5});
  subscribe({5, 7});
  subscribe({6});
  disconnect({5});
  ASSERT_EQ(objects_.subscriptions().size(), 1u);
  EXPECT_EQ(objects_.subscriptions()[0].get_u32_array(SYS_FROM), std::vector<unsigned int>({6}));
  EXPECT_EQ(objects_.unsubscribedSeen_.size(), 2u);
  EXPECT_TRUE(peer_->quiet());  // no request id: no reply
}

// A service's unsubscribed hook may change the subscriptions itself: the record the
// disconnect is removing is looked up again, and the others stay.
class DropsPeerFiveWithSix : public Objects {
 public:
  void unsubscribed(const message& record) override {
    Objects::unsubscribed(record);
    if (record.get_u32_array(SYS_FROM) != std::vector<unsigned int>{6}) return;
    message five;
    five.insert(SYS_NOTIFYCMD, CMD_NOTIFY);
    five.insert(SYS_FROM, std::vector<unsigned int>{5});
    cmdUnsubscribe(five);
  }
};

TEST_F(HandlerTest, DisconnectCopesWithAHookThatChangesTheSubscriptions) {
  DropsPeerFiveWithSix handler;
  start(message(), &handler);
  for (unsigned int from : {5u, 6u, 7u}) subscribe({from});
  disconnect({6});
  ASSERT_EQ(handler.subscriptions().size(), 1u);
  EXPECT_EQ(handler.subscriptions()[0].get_u32_array(SYS_FROM), std::vector<unsigned int>{7});
  EXPECT_EQ(handler.unsubscribedSeen_.size(), 2u);
}

TEST_F(HandlerTest, UnsubscribeRemovesTheMatchingRecord) {
  subscribe(kPathA);
  message body;
  body.insert(SYS_NOTIFYCMD, CMD_NOTIFY);
  peer_->request({5}, CMD_UNSUBSCRIBE, body, kPathB);  // not subscribed: ignored
  peer_->request({5}, CMD_UNSUBSCRIBE, body, kPathA);
  peer_->pump(*looper_);
  EXPECT_TRUE(objects_.subscriptions().empty());
  EXPECT_EQ(objects_.unsubscribedSeen_.size(), 1u);
}

TEST_F(HandlerTest, WrongObjectIdStopsTheProcess) {
  subscribe(kPathA);
  message wrong;
  wrong.insert(STD_ID, 4);
  objects_.objects_[3] = wrong;
  objects_.notifyChange(3);
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    freopen("/dev/null", "w", stdout);
    objects_.sendChanges();
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_FALSE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  objects_.objects_.erase(3);
}

TEST_F(HandlerTest, AnAddressedNotificationKeepsItsPathAndGainsTheSubscribers) {
  message n;
  n.insert(SYS_CMD, CMD_NOTIFY);
  n.insert(SYS_TO, {7, 8});
  objects_.sendNotify(n);  // nobody subscribed: it still goes where it was addressed
  looper_->writeFlush(true);
  message got;
  ASSERT_TRUE(peer_->read(&got));
  EXPECT_EQ(got.get_u32_array(SYS_TO), std::vector<unsigned int>({7, 8}));
  subscribe(kPathA);
  message again;
  again.insert(SYS_CMD, CMD_NOTIFY);
  again.insert(SYS_TO, {7, 8});
  objects_.sendNotify(again);
  looper_->writeFlush(true);
  ASSERT_TRUE(peer_->read(&got));
  EXPECT_EQ(got.get_u32_array(SYS_TO),
            std::vector<unsigned int>({PATH_MULTI, 2, 7, 8, 2, 0x10000, 7}));
}

// A handler's shouldNotify sees the notification as addressed so far: no path before the
// first subscriber that gets it, then the path growing subscriber by subscriber.
TEST_F(HandlerTest, ShouldNotifySeesThePathBuiltSoFar) {
  class Watching : public Objects {
   public:
    bool shouldNotify(const message& record, const message& n) override {
      seen_.push_back(n.has(SYS_TO) ? n.get_u32_array(SYS_TO) : std::vector<unsigned int>{0});
      return Objects::shouldNotify(record, n);
    }
    std::vector<std::vector<unsigned int>> seen_;
  };
  Watching watching;
  looper_->removeHandler(5);
  looper_->addHandler(5, &watching);
  const std::vector<unsigned int> kPathC = {0x10002, 4};
  for (const auto& path : {kPathA, kPathB, kPathC}) subscribe(path);
  message n;
  n.insert(SYS_CMD, CMD_NOTIFY);
  watching.sendNotify(n);
  const std::vector<std::vector<unsigned int>> expected = {
      {0},  // not addressed yet
      {0x10000, 7},
      {PATH_MULTI, 2, 0x10000, 7, 2, 0x10001, 3},
  };
  EXPECT_EQ(watching.seen_, expected);
  looper_->removeHandler(5);
  looper_->addHandler(5, &objects_);
}

// A service that stops with requests and changes still pending ends cleanly.
TEST_F(HandlerTest, HandlersOutliveShutdownWithPendingTimers) {
  {
    Objects late;
    looper_->addHandler(8, &late);
    Delivery d;
    message m;
    m.insert(SYS_TO, {40});
    late.postMessage(m, &d, Delivery::record, message(), 100);
    subscribe(kPathA);
    objects_.notifyChange(3);
    looper_->shutdown();
    EXPECT_TRUE(looper_->isShutDown());
  }
  SUCCEED();
}

// --- persistent data and undo -------------------------------------------------------------------

TEST_F(HandlerTest, LeaveAndReturnKeepsSubscribers) {
  subscribe(kPathA);
  objects_.notifyChange(2);  // pending: sent before the subscribers are saved
  message data;
  looper_->savePermData(data);
  looper_->writeFlush(true);
  message n;
  EXPECT_EQ(notifiedIds(&n), std::vector<unsigned int>({2}));
  EXPECT_EQ(data.get_u32_array(0x88000002), std::vector<unsigned int>({5}));
  EXPECT_FALSE(data.has_array(0xa8000001));  // the Looper itself has no subscribers

  // The next instance gets the data in CTRL_READY; handler 5 gets its part when registered.
  message ready;
  ready.insert_message(0x28000004, data);
  Objects restored;
  start(ready, &restored);
  ASSERT_EQ(restored.subscriptions().size(), 1u);
  EXPECT_EQ(restored.subscribedSeen_.size(), 1u);  // re-announced after the restore
  restored.notifyChange(9);
  restored.sendChanges();
  looper_->writeFlush(true);
  EXPECT_EQ(notifiedIds(&n), std::vector<unsigned int>({9}));
  EXPECT_EQ(n.get_u32_array(SYS_TO), kPathA);
}

TEST_F(HandlerTest, NothingToSaveWithoutSubscribers) {
  message data;
  looper_->savePermData(data);
  EXPECT_TRUE(data.empty());
}

TEST_F(HandlerTest, UndoRecords) {
  message request;
  request.insert(SYS_CMD, CMD_SETOBJ);
  request.insert(SYS_TO, {5});
  request.insert(SYS_FROM, kPathA);
  request.insert_string(SYS_USER, "admin");
  request.insert(STD_ID, 3);
  message undo;
  undo.insert(STD_ID, 3);
  undo.insert(SYS_TO, {9});
  objects_.sendUndo(request, undo, "rename port", CMD_SETOBJ);
  looper_->writeFlush(true);
  message record;
  ASSERT_TRUE(peer_->read(&record));
  EXPECT_EQ(record.get_u32_array(SYS_TO), std::vector<unsigned int>({17}));
  EXPECT_EQ(record.get_u32_array(SYS_FROM), std::vector<unsigned int>({5}));
  EXPECT_EQ(record.get(SYS_CMD, 0), CMD_ADDOBJ);
  EXPECT_EQ(record.get_string(0x20000003, ""), "rename port");
  EXPECT_EQ(record.get_string(0x20000006, ""), "admin");
  EXPECT_EQ(record.get_u32(0x08000005, 0), 0x80u);
  const message copy(record.get_message(0x28000001, message::flat_message()));
  EXPECT_FALSE(copy.has(SYS_FROM));
  EXPECT_FALSE(copy.has(SYS_TO));
  EXPECT_EQ(copy.get(STD_ID, 0), 3u);
  const message reverse(record.get_message(0x28000002, message::flat_message()));
  EXPECT_EQ(reverse.get(SYS_CMD, 0), CMD_SETOBJ);
  EXPECT_FALSE(reverse.has(SYS_TO));

  request.insert(STD_UNDOID, 7);
  objects_.sendUndoFrom(request, undo, "more", 11);
  looper_->writeFlush(true);
  ASSERT_TRUE(peer_->read(&record));
  EXPECT_EQ(record.get(SYS_CMD, 0), CMD_SETOBJ);
  EXPECT_EQ(record.get(STD_ID, 0), 7u);
  EXPECT_EQ(record.get_u32_array(SYS_FROM), std::vector<unsigned int>({5, 11}));
  EXPECT_EQ(record.size_field(0x28000001), 0u);
  EXPECT_EQ(record.size_field(0x20000003), 0u);
}

}  // namespace
}  // namespace kl
