// The fetchers against a LoaderPeer: a real Looper on a socketpair, the test playing the
// serving handler, so that every request can be read and every reply chosen.
#include "kl/reget/reget.h"

#include <gtest/gtest.h>

#include <memory>

#include "kl/message/system.h"
#include "kl/reget/async_getall.h"
#include "kl/reget/async_reget.h"
#include "kl/reget/reget_test_util.h"
#include "kl/testing/loader_peer.h"

namespace kl {
namespace {

using testing::LoaderPeer;
using testing::Recorder;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

constexpr unsigned int kJobHandler = 3;  // the Handler AsyncGetall jobs post through
const std::vector<unsigned int> kTarget = {40, 2};

using Ids = std::vector<unsigned int>;

// A chunk: objects `ids` and, unless `next` is BADID, STD_GETALLID = next.
message chunk(const Ids& ids, unsigned int next = BADID) {
  std::vector<message::flat_message> objs;
  for (unsigned int id : ids) {
    message obj;
    obj.insert(STD_ID, id);
    objs.emplace_back(obj);
  }
  message m;
  m.insert_message_array(STD_OBJS, objs);
  if (next != BADID) m.insert(STD_GETALLID, next);
  return m;
}

class RegetPeerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    looper_.reset(new Looper(Looper::kInherit, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    message registration;
    ASSERT_TRUE(peer_.read(&registration));
    looper_->addHandler(kJobHandler, &jobs_);
  }
  void TearDown() override {
    while (!AsyncGetall::instances.empty()) AsyncGetall::instances.front()->done();
    looper_.reset();
  }

  // Sends `body` as the reply to request `id`, addressed to `to` in this process.
  void answer(unsigned int id, message body, const Ids& to = {}) {
    setType(body, TYPE_REPLY);
    setRequestID(body, id);
    body.insert(SYS_TO, to);
    peer_.send(body);
  }
  // The next request the Looper sent (its write queue is flushed first); fails the test
  // when none comes.
  message request() {
    looper_->writeFlush(true);
    message m;
    EXPECT_TRUE(peer_.read(&m));
    return m;
  }
  static unsigned int requestId(const message& m) { return m.get(SYS_REQID, BADID); }

  LoaderPeer peer_;
  std::unique_ptr<Looper> looper_;
  Handler jobs_;
};

// --- FullReget -------------------------------------------------------------------------
// Its requests are blocking exchanges: the replies are written before the fetch starts
// (the Looper's request ids count from 0) and the requests are read afterwards.

TEST_F(RegetPeerTest, FullRegetFollowsTheContinuationAndAddsTheFilter) {
  answer(0, chunk({1, 2, 3}, 7));
  answer(1, chunk({4, 5}));
  FullReget all;
  all.setFilter(0x55);
  message base;
  base.insert(SYS_TO, kTarget);
  all.setBase(base);
  Ids ids;
  while (!all.isEmpty()) {
    const message obj = all.pop();
    ids.push_back(obj.get(STD_ID, 0));
    EXPECT_EQ(obj.get_u32(kRegetFilterField, 0), 0x55u);
  }
  EXPECT_EQ(ids, Ids({1, 2, 3, 4, 5}));
  EXPECT_TRUE(all.isEmpty());

  const message first = request();
  EXPECT_EQ(first.get(SYS_CMD, 0), CMD_GETALL);
  EXPECT_EQ(first.get_u32_array(SYS_TO), kTarget);
  EXPECT_FALSE(first.has(STD_GETALLID));
  EXPECT_EQ(first.get_u32(kRegetFilterField, 0), 0x55u);
  const message second = request();
  EXPECT_EQ(second.get(STD_GETALLID, 0), 7u);
  EXPECT_EQ(second.get_u32(kRegetFilterField, 0), 0x55u);
  EXPECT_TRUE(peer_.quiet());  // no third request: the last chunk had no continuation
}

TEST_F(RegetPeerTest, FullRegetAsksAgainAfterAnEmptyChunkWithContinuation) {
  answer(0, chunk({}, 9));
  answer(1, chunk({6}));
  FullReget all;
  message base;
  base.insert(SYS_TO, kTarget);
  base.insert(SYS_CMD, CMD_GET);  // a base that names a command keeps it
  all.setBase(base);
  ASSERT_FALSE(all.isEmpty());
  EXPECT_EQ(all.pop().get(STD_ID, 0), 6u);
  EXPECT_TRUE(all.isEmpty());
  EXPECT_EQ(request().get(SYS_CMD, 0), CMD_GET);
  const message second = request();
  EXPECT_EQ(second.get(SYS_CMD, 0), CMD_GET);
  EXPECT_EQ(second.get(STD_GETALLID, 0), 9u);
}

// Asking whether objects remain does not move on: the object found stays the next pop.
TEST_F(RegetPeerTest, FullRegetIsEmptyTwiceKeepsTheObject) {
  answer(0, chunk({1, 2}));
  FullReget all;
  message base;
  base.insert(SYS_TO, kTarget);
  all.setBase(base);
  ASSERT_FALSE(all.isEmpty());
  ASSERT_FALSE(all.isEmpty());
  EXPECT_EQ(all.pop().get(STD_ID, 0), 1u);
  ASSERT_FALSE(all.isEmpty());
  EXPECT_EQ(all.pop().get(STD_ID, 0), 2u);
  EXPECT_TRUE(all.isEmpty());
}

TEST_F(RegetPeerTest, FullRegetReportsAnErrorReplyAndEnds) {
  answer(0, errorMsg(ERROR_NOTALLOWED, "list refused"));
  FullReget all;
  message base;
  base.insert(SYS_TO, kTarget);
  all.setBase(base);
  CaptureStderr();
  EXPECT_TRUE(all.isEmpty());
  EXPECT_EQ(GetCapturedStderr(), "FULLREGET: list refused (9)\n");
  EXPECT_TRUE(all.finished());
  request();
  EXPECT_TRUE(peer_.quiet());
}

TEST(RegetFilterTest, FilterFieldOfBaseAndObjects) {
  struct Case {
    const char* name;
    bool filterFirst;       // setFilter(0x11) before setBase, else after
    bool baseHasOwn;        // the base carries the filter field 0x22 itself
    unsigned int expected;  // the base's filter field afterwards
  } cases[] = {
      {"filter, then base", true, false, 0x11},
      {"base, then filter: the base keeps the value it got", false, false, 0},
      {"a base with its own filter field keeps it", true, true, 0x22},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FullReget all;
    message base;
    base.insert(SYS_TO, kTarget);
    if (c.baseHasOwn) base.insert_u32(kRegetFilterField, 0x22);
    if (c.filterFirst) all.setFilter(0x11);
    all.setBase(base);
    if (!c.filterFirst) all.setFilter(0x11);
    EXPECT_EQ(all.base().get_u32(kRegetFilterField, 0xFFFF), c.expected);
  }
  FullReget empty;
  empty.setFilter(0x11);
  EXPECT_TRUE(empty.base().empty());  // an empty base gets no field
}

TEST_F(RegetPeerTest, PoppedObjectsKeepTheirOwnFilterField) {
  message reply;
  message own;
  own.insert(STD_ID, 1);
  own.insert_u32(kRegetFilterField, 0x99);
  reply.insert_message_array(STD_OBJS, {message::flat_message(own)});
  answer(0, reply);
  FullReget all;
  all.setFilter(0x11);
  message base;
  base.insert(SYS_TO, kTarget);
  all.setBase(base);
  ASSERT_FALSE(all.isEmpty());
  EXPECT_EQ(all.pop().get_u32(kRegetFilterField, 0), 0x99u);
}

// --- AsyncReget ------------------------------------------------------------------------

class AsyncRegetTest : public RegetPeerTest {
 protected:
  void start(unsigned int timeout = AsyncReget::kDefaultTimeout, bool withDone = true) {
    message request;
    request.insert(SYS_TO, kTarget);
    request.insert(SYS_CMD, CMD_GETALL);
    recorder_.fetch = &fetch_;
    fetch_.start(request, &recorder_, Recorder::onObject, withDone ? Recorder::onDone : nullptr,
                 timeout);
  }
  // Answers the outstanding request with `body` and lets the Looper take it.
  message serve(const message& body) {
    const message m = request();
    answer(requestId(m), body);
    peer_.pump(*looper_);
    return m;
  }

  AsyncReget fetch_;
  Recorder recorder_;
};

TEST_F(AsyncRegetTest, DeliversEveryChunkInOrderThenDone) {
  start();
  EXPECT_EQ(fetch_.timeout(), 6000);  // 0xdeadbeef stands for 60 s
  EXPECT_TRUE(fetch_.running());
  EXPECT_FALSE(serve(chunk({1, 2, 3}, 7)).has(STD_GETALLID));
  EXPECT_EQ(recorder_.doneCalls, 0);
  EXPECT_EQ(serve(chunk({4, 5})).get(STD_GETALLID, 0), 7u);
  EXPECT_EQ(recorder_.ids, Ids({1, 2, 3, 4, 5}));
  EXPECT_EQ(recorder_.doneCalls, 1);
  EXPECT_EQ(testing::objectIds(recorder_.lastReply), Ids({4, 5}));
  EXPECT_FALSE(fetch_.running());
  EXPECT_EQ(looper_->pendingPosts(), 0u);
}

TEST_F(AsyncRegetTest, StopInsideTheObjectCallback) {
  recorder_.stopAt = 2;
  start();
  serve(chunk({1, 2, 3}, 7));
  EXPECT_EQ(recorder_.ids, Ids({1, 2}));
  EXPECT_EQ(recorder_.doneCalls, 1);
  EXPECT_EQ(testing::objectIds(recorder_.lastReply), Ids({1, 2, 3}));
  EXPECT_FALSE(fetch_.running());
  looper_->writeFlush(true);
  EXPECT_TRUE(peer_.quiet());  // no continuation
  EXPECT_EQ(looper_->pendingPosts(), 0u);
}

TEST_F(AsyncRegetTest, EndsWithoutDoneCallbackPrintTheirLine) {
  struct Case {
    const char* name;
    message reply;
    const char* line;
  } cases[] = {
      {"complete", chunk({1}), "AsyncReget done\n"},
      {"error", errorMsg(ERROR_NOTALLOWED, "list refused"),
       "ERROR: AsyncReget failed: list refused (9)\n"},
      {"no objects", message(), "ERROR: AsyncReget got reply without STD_OBJS\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    start(AsyncReget::kDefaultTimeout, false);
    CaptureStderr();
    serve(c.reply);
    EXPECT_EQ(GetCapturedStderr(), c.line);
    EXPECT_FALSE(fetch_.running());
  }
}

TEST_F(AsyncRegetTest, AnErrorGoesToTheDoneCallbackSilently) {
  start();
  CaptureStderr();
  serve(errorMsg(ERROR_NOTALLOWED, "list refused"));
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_EQ(recorder_.doneCalls, 1);
  EXPECT_TRUE(isError(recorder_.lastReply, nullptr, nullptr));
}

TEST_F(AsyncRegetTest, RetryAndRestartAreRefusedWhileRunning) {
  start();
  CaptureStderr();
  fetch_.retry();
  fetch_.restart();
  EXPECT_EQ(GetCapturedStderr(),
            "ERROR: AsyncReget retry() impossible while running\n"
            "ERROR: AsyncReget restart() impossible while running\n");
  serve(chunk({1}, 7));  // the only request sent so far
  EXPECT_TRUE(fetch_.running());
  // An error ends the fetch with the continuation id kept for retry().
  serve(errorMsg(ERROR_BUSY, ""));
  EXPECT_FALSE(fetch_.running());
  fetch_.retry();
  EXPECT_EQ(serve(chunk({2})).get(STD_GETALLID, 0), 7u);
  fetch_.restart();
  EXPECT_FALSE(serve(chunk({1})).has(STD_GETALLID));
  EXPECT_EQ(recorder_.ids, Ids({1, 2, 1}));
  EXPECT_EQ(recorder_.doneCalls, 3);
}

TEST_F(AsyncRegetTest, StopCancelsTheOutstandingRequest) {
  start();
  EXPECT_EQ(looper_->pendingPosts(), 1u);
  fetch_.stop();
  EXPECT_FALSE(fetch_.running());
  EXPECT_EQ(looper_->pendingPosts(), 0u);
}

TEST_F(AsyncRegetTest, DestroyingARunningFetchCancelsItsRequest) {
  {
    AsyncReget other;
    message request;
    request.insert(SYS_TO, kTarget);
    other.start(request, &recorder_, Recorder::onObject, Recorder::onDone, 5);
    EXPECT_EQ(looper_->pendingPosts(), 1u);
  }
  EXPECT_EQ(looper_->pendingPosts(), 0u);
}

// --- AsyncGetall -------------------------------------------------------------------------

class AsyncGetallTest : public RegetPeerTest {
 protected:
  unsigned int startJob(unsigned int dst2 = 2) {
    return sendAsyncGetall(&jobs_, &recorder_, Recorder::onObject, 40, dst2, CMD_GETALL);
  }
  // Answers the job's outstanding request (addressed back to the job's Handler).
  message serve(const message& body) {
    const message m = request();
    answer(requestId(m), body, {kJobHandler});
    peer_.pump(*looper_);
    return m;
  }
  static std::vector<unsigned int> liveNumbers() {
    std::vector<unsigned int> numbers;
    for (const AsyncGetall* job : AsyncGetall::instances) numbers.push_back(job->number());
    return numbers;
  }

  Recorder recorder_;
};

TEST_F(AsyncGetallTest, EachReplyIsDeliveredInReverse) {
  const unsigned int job = startJob();
  EXPECT_EQ(liveNumbers(), Ids({job}));
  const message first = serve(chunk({1, 2, 3}, 7));
  EXPECT_EQ(first.get_u32_array(SYS_TO), kTarget);
  EXPECT_EQ(first.get_u32_array(SYS_FROM), Ids({kJobHandler}));
  EXPECT_EQ(first.get(SYS_CMD, 0), CMD_GETALL);
  EXPECT_FALSE(first.has(STD_GETALLID));
  EXPECT_EQ(serve(chunk({4, 5})).get(STD_GETALLID, 0), 7u);
  EXPECT_EQ(recorder_.ids, Ids({3, 2, 1, 5, 4}));
  EXPECT_TRUE(AsyncGetall::instances.empty());
  EXPECT_EQ(jobs_.pendingPosts(), 0u);
}

TEST_F(AsyncGetallTest, AddressesOneOrTwoPathElements) {
  startJob(BADID);
  EXPECT_EQ(request().get_u32_array(SYS_TO), Ids({40}));
  startJob(4);
  EXPECT_EQ(request().get_u32_array(SYS_TO), Ids({40, 4}));
}

TEST_F(AsyncGetallTest, AnErrorEndsTheJobSilently) {
  startJob();
  CaptureStderr();
  serve(errorMsg(ERROR_NOTALLOWED, "list refused"));
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_TRUE(recorder_.ids.empty());
  EXPECT_TRUE(AsyncGetall::instances.empty());
}

TEST_F(AsyncGetallTest, NumbersSkipZeroAndAllOnes) {
  AsyncGetall::nextidx = 0xFFFFFFFE;
  EXPECT_EQ(startJob(), 0xFFFFFFFEu);
  EXPECT_EQ(startJob(), 1u);
  EXPECT_EQ(startJob(), 2u);
  // Without a Handler a job ends at once; it still uses up its number.
  EXPECT_EQ(sendAsyncGetall(nullptr, nullptr, nullptr, 40, 2, CMD_GETALL), 3u);
  EXPECT_EQ(liveNumbers(), Ids({0xFFFFFFFEu, 1, 2}));
}

TEST_F(AsyncGetallTest, StopEndsOneJobAndCancelsItsRequest) {
  AsyncGetall::nextidx = 10;
  startJob();
  startJob();
  startJob();
  EXPECT_EQ(jobs_.pendingPosts(), 3u);
  stopAsyncGetall(11);
  stopAsyncGetall(99);  // unknown: nothing
  stopAsyncGetall(5);
  EXPECT_EQ(liveNumbers(), Ids({10, 12}));
  EXPECT_EQ(jobs_.pendingPosts(), 2u);
}

TEST_F(AsyncGetallTest, TheSearchStopsAtTheFirstNumberNotBelow) {
  // After the numbers wrapped the list is out of order; the search gives up early.
  AsyncGetall::nextidx = 0xFFFFFFFE;
  startJob();
  startJob();
  stopAsyncGetall(1);
  EXPECT_EQ(liveNumbers(), Ids({0xFFFFFFFEu, 1}));
  stopAsyncGetall(0xFFFFFFFE);
  stopAsyncGetall(1);
  EXPECT_TRUE(AsyncGetall::instances.empty());
}

TEST_F(AsyncGetallTest, StopFromInsideTheCallback) {
  recorder_.job = startJob();
  recorder_.stopAt = 2;
  serve(chunk({1, 2, 3}, 7));
  EXPECT_EQ(recorder_.ids, Ids({3, 2}));
  EXPECT_TRUE(AsyncGetall::instances.empty());
  looper_->writeFlush(true);
  EXPECT_TRUE(peer_.quiet());  // no continuation
}

}  // namespace
}  // namespace kl
