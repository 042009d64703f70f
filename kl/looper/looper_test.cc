// The Looper against a LoaderPeer on a real socketpair: what goes over the socket, and when.
#include "kl/looper/looper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>

#include "kl/base/endian.h"
#include "kl/message/system.h"
#include "kl/testing/loader_peer.h"

namespace kl {
namespace {

using testing::LoaderPeer;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

constexpr unsigned int kFrom = LoaderPeer::kPeerProcess;

// A handler that records what it was given and answers CMD_GET with one field.
class Recorder : public Handler {
 public:
  message cmdGet(const message&) override {
    message r;
    r.insert_string(STD_DESCR, "answer");
    return r;
  }
  message cmdGetAll(const message&, unsigned int startId, unsigned int count) override {
    startId_ = startId;
    count_ = count;
    return message();
  }
  unsigned int getObjectCount() override { return objectCount_; }
  // The object commands answer with their name and the object's id.
  message cmdGetObj(const message&, unsigned int id) override { return named("get", id); }
  message cmdSetObj(const message&, unsigned int id) override { return named("set", id); }
  message cmdRemoveObj(const message&, unsigned int id) override { return named("remove", id); }
  message cmdMoveObj(const message&, unsigned int id) override { return named("move", id); }
  static message named(const char* what, unsigned int id) {
    message r;
    r.insert_string(STD_DESCR, what + std::string(" ") + std::to_string(id));
    return r;
  }
  void handleBrkpath(const message& m) override { brkpaths_.push_back(m); }
  void handleCmd(const message& m, unsigned int cmd) override {
    seen_.push_back(m);
    Handler::handleCmd(m, cmd);
  }

  std::vector<message> seen_;
  std::vector<message> brkpaths_;
  unsigned int startId_ = 0, count_ = 7, objectCount_ = 0xFFFFFFFFu;
};

class LooperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    looper_.reset(new Looper(Looper::kInherit, 9, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12));
    ASSERT_TRUE(peer_.read(&registration_));
    looper_->addHandler(5, &handler_);
  }
  void TearDown() override { looper_.reset(); }

  // Sends a request to `path` and returns what the Looper wrote back.
  message ask(const std::vector<unsigned int>& path, unsigned int cmd,
              const message& body = message()) {
    peer_.request(path, cmd, body);
    peer_.pump(*looper_);
    message reply;
    EXPECT_TRUE(peer_.read(&reply));
    return reply;
  }

  static unsigned int errorCode(const message& m) {
    unsigned int code = 0;
    isError(m, &code, nullptr);
    return code;
  }

  LoaderPeer peer_;
  std::unique_ptr<Looper> looper_;
  Recorder handler_;
  message registration_;
};

TEST_F(LooperTest, RegistersWithTwelveWords) {
  EXPECT_EQ(registration_.get_u32_array(SYS_TO), std::vector<unsigned int>({1}));
  EXPECT_EQ(registration_.get(SYS_CTRL, 0), 5u);
  EXPECT_EQ(registration_.get_u32_array(0x88000001),
            std::vector<unsigned int>({9, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
  EXPECT_EQ(getLooper(), looper_.get());
  EXPECT_EQ(getRunner(), static_cast<ThinRunner*>(looper_.get()));
}

TEST_F(LooperTest, ReplyGoesBackAlongTheSenderPath) {
  const message reply = ask({5}, CMD_GET);
  EXPECT_EQ(reply.get_string(STD_DESCR, ""), "answer");
  EXPECT_EQ(reply.get(SYS_TYPE, 0), TYPE_REPLY);
  EXPECT_EQ(reply.get(SYS_REQID, 0), 1u);
  // The handler's own id goes in front of SYS_FROM of everything it sends.
  EXPECT_EQ(reply.get_u32_array(SYS_TO), std::vector<unsigned int>({kFrom}));
  EXPECT_EQ(reply.get_u32_array(SYS_FROM), std::vector<unsigned int>({5}));
}

TEST_F(LooperTest, StandardCommandDefaults) {
  struct Case {
    unsigned int cmd;
    bool withId;
    unsigned int error;
  } cases[] = {
      {CMD_NOOP, false, 0},
      {CMD_SET, false, ERROR_NOTIMP},
      {CMD_GETOBJ, false, ERROR_UNKNOWNID},
      {CMD_SETOBJ, false, ERROR_UNKNOWNID},
      {CMD_REMOVEOBJ, false, ERROR_UNKNOWNID},
      {CMD_MOVEOBJ, false, ERROR_UNKNOWNID},
      {CMD_ADDOBJ, false, ERROR_NOTIMP},
      {CMD_RESET, false, ERROR_NOTIMP},
      {CMD_GETCOUNT, false, ERROR_NOTIMP},
      {CMD_SHUTDOWN, false, 0},
      {0x1234, false, ERROR_NOTIMP},
      {CMD_NOTIFY, false, ERROR_NOTIMP},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.cmd);
    message body;
    if (c.withId) body.insert(STD_ID, 3);
    const message reply = ask({5}, c.cmd, body);
    EXPECT_EQ(errorCode(reply), c.error);
    EXPECT_FALSE(reply.has_array(STD_OBJS));
  }
}

// Each object command reaches its own operation with the object's id (STD_ID).
TEST_F(LooperTest, ObjectCommandsReachTheirOperations) {
  const struct {
    unsigned int cmd;
    const char* answer;
  } cases[] = {{CMD_GETOBJ, "get 3"},
               {CMD_SETOBJ, "set 3"},
               {CMD_REMOVEOBJ, "remove 3"},
               {CMD_MOVEOBJ, "move 3"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer);
    message body;
    body.insert(STD_ID, 3);
    EXPECT_EQ(ask({5}, c.cmd, body).get_string(STD_DESCR, ""), c.answer);
  }
}

TEST_F(LooperTest, GetAllDefaultsAndObjectCount) {
  message reply = ask({5}, CMD_GETALL);
  EXPECT_EQ(handler_.startId_, 0xFFFFFFFFu);
  EXPECT_EQ(handler_.count_, 0u);
  EXPECT_FALSE(reply.has(STD_OBJ_COUNT));
  handler_.objectCount_ = 3;
  message body;
  body.insert(STD_GETALLID, 40);
  body.insert(STD_GETALLNO, 2);
  reply = ask({5}, CMD_GETALL, body);
  EXPECT_EQ(handler_.startId_, 40u);
  EXPECT_EQ(handler_.count_, 2u);
  EXPECT_EQ(reply.get(STD_OBJ_COUNT, 0), 3u);
}

TEST_F(LooperTest, PolicyRefusalButPoliciesAlwaysAnswered) {
  message body;
  body.insert(SYS_POLICY, 0x40);
  EXPECT_EQ(errorCode(ask({5}, CMD_SET, body)), ERROR_NOTALLOWED);
  EXPECT_TRUE(handler_.seen_.empty());
  body.insert(SYS_POLICY, 0);
  const message listing = ask({5}, CMD_GETPOLICIES, body);
  EXPECT_EQ(errorCode(listing), 0u);
  EXPECT_EQ(listing.size_message_array(STD_OBJS), 19u);
}

TEST_F(LooperTest, BrokenPaths) {
  // Unknown first element, with a reply expected: an error reply from the Looper.
  message reply = ask({77}, CMD_GET);
  EXPECT_EQ(errorCode(reply), ERROR_BRKPATH);
  EXPECT_EQ(reply.get(SYS_REQID, 0), 1u);
  EXPECT_EQ(reply.get_u32_array(SYS_TO), std::vector<unsigned int>({kFrom}));
  // A path longer than a leaf handler: answered by that handler.
  reply = ask({5, 8}, CMD_GET);
  EXPECT_EQ(errorCode(reply), ERROR_BRKPATH);
  EXPECT_EQ(reply.get_u32_array(SYS_FROM), std::vector<unsigned int>({5}));
  // No reply expected: a broken-path notice, carrying the rest of the path as its SYS_FROM.
  message note;
  note.insert(SYS_TO, {77, 3});
  note.insert(SYS_FROM, {kFrom, 4});
  note.insert(SYS_CMD, CMD_GET);
  peer_.send(note);
  peer_.pump(*looper_);
  ASSERT_TRUE(peer_.read(&reply));
  EXPECT_EQ(errorCode(reply), ERROR_BRKPATH);
  EXPECT_FALSE(reply.has(SYS_REQID));
  EXPECT_EQ(reply.get_u32_array(SYS_TO), std::vector<unsigned int>({kFrom, 4}));
  EXPECT_EQ(reply.get_u32_array(SYS_FROM), std::vector<unsigned int>({77, 3}));
  // An ERROR_BRKPATH error is never answered.
  message error = errorMsg(ERROR_BRKPATH, "");
  error.insert(SYS_TO, {77});
  error.insert(SYS_FROM, {kFrom});
  peer_.send(error);
  peer_.pump(*looper_);
  EXPECT_TRUE(peer_.quiet());
}

TEST_F(LooperTest, NonLeafHandlerTakesTheLongerPath) {
  handler_.setLeaf(false);
  ask({5, 8}, CMD_NOOP);
  ASSERT_EQ(handler_.seen_.size(), 1u);
  EXPECT_EQ(handler_.seen_[0].get_u32_array(SYS_TO), std::vector<unsigned int>({8}));
}

TEST_F(LooperTest, BrokenPathNoticeReachesHandleBrkpath) {
  message notice = errorMsg(ERROR_BRKPATH, "");
  notice.insert(SYS_TO, {5});
  peer_.send(notice);
  peer_.pump(*looper_);
  EXPECT_EQ(handler_.brkpaths_.size(), 1u);
  EXPECT_TRUE(handler_.seen_.empty());
}

TEST_F(LooperTest, BothPathIsWrittenAndDeliveredLocally) {
  message m;
  m.insert(SYS_TO, {PATH_BOTH, 5});
  m.insert(SYS_CMD, CMD_NOOP);
  looper_->sendMessage(m);
  looper_->writeFlush(true);
  message written;
  ASSERT_TRUE(peer_.read(&written));
  EXPECT_EQ(written.get_u32_array(SYS_TO), std::vector<unsigned int>({PATH_BOTH, 5}));
  EXPECT_EQ(looper_->localQueueLength(), 1u);
  looper_->dispatchQueue();
  ASSERT_EQ(handler_.seen_.size(), 1u);
  EXPECT_EQ(handler_.seen_[0].get_u32_array(SYS_FROM), std::vector<unsigned int>({PATH_LOCAL}));
}

TEST_F(LooperTest, MultiPathLocalGroupsStayLocal) {
  message m;
  m.insert(SYS_CMD, CMD_NOOP);
  m.insert(SYS_TO, {PATH_MULTI, 2, PATH_LOCAL, 5, 2, PATH_LOCAL, 5});
  looper_->sendMessage(m);
  looper_->writeFlush(true);
  EXPECT_TRUE(peer_.quiet());
  EXPECT_EQ(looper_->localQueueLength(), 2u);

  // A remote group is written; a group of count 0 ends the scan: nothing after it leaves.
  m.insert(SYS_TO, {PATH_MULTI, 1, 40, 2, PATH_LOCAL, 5, 1, 41});
  looper_->sendMessage(m);
  looper_->writeFlush(true);
  message written;
  ASSERT_TRUE(peer_.read(&written));
  EXPECT_EQ(written.get_u32_array(SYS_TO), std::vector<unsigned int>({PATH_MULTI, 1, 40, 1, 41}));
  EXPECT_EQ(looper_->localQueueLength(), 3u);
  m.insert(SYS_TO, {PATH_MULTI, 1, 40, 0, 2, PATH_LOCAL, 5});
  looper_->sendMessage(m);
  looper_->writeFlush(true);
  EXPECT_TRUE(peer_.quiet());
  EXPECT_EQ(looper_->localQueueLength(), 3u);
}

TEST_F(LooperTest, LocalQueueHoldsOneHundred) {
  message m;
  m.insert(SYS_TO, {PATH_LOCAL, 5});
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(looper_->queueMessage(m));
  CaptureStderr();
  ::testing::internal::CaptureStdout();
  EXPECT_FALSE(looper_->queueMessage(m));
  EXPECT_EQ(GetCapturedStderr(), "full queue, spilled message:\n");
  EXPECT_NE(::testing::internal::GetCapturedStdout().find("--- kl::message"), std::string::npos);
  EXPECT_EQ(looper_->localQueueLength(), 100u);
}

TEST_F(LooperTest, ExchangeQueuesOthersAndRefusesLeave) {
  // The answer and two unrelated messages wait on the socket before the exchange starts.
  peer_.request({5}, CMD_GET);
  peer_.sendCtrl(1);
  message reply;
  reply.insert(SYS_TO, std::vector<unsigned int>());
  setType(reply, TYPE_REPLY);
  setRequestID(reply, 0);
  reply.insert_string(STD_DESCR, "late enough");
  peer_.send(reply);
  message request;
  request.insert(SYS_TO, {40});
  const message answer = looper_->exchangeMessage(request, 100);
  EXPECT_EQ(answer.get_string(STD_DESCR, ""), "late enough");
  message sent;
  ASSERT_TRUE(peer_.read(&sent));
  EXPECT_EQ(sent.get(SYS_REQID, 9), 0u);
  EXPECT_TRUE(sent.get_bool(SYS_REPLYEXP, false));
  ASSERT_TRUE(peer_.read(&sent));
  EXPECT_EQ(sent.get(SYS_CTRL, 0), 3u);  // leave refused during the exchange
  EXPECT_TRUE(handler_.seen_.empty());   // nothing dispatched during it
  looper_->dispatchQueue();
  EXPECT_EQ(handler_.seen_.size(), 1u);
}

TEST_F(LooperTest, ExchangeTimesOutAndRejectsMissingPath) {
  message request;
  request.insert(SYS_TO, {40});
  // A reply with the right id on another path is not the awaited one.
  message other;
  other.insert(SYS_TO, {5});
  setType(other, TYPE_REPLY);
  setRequestID(other, 0);
  peer_.send(other);
  EXPECT_EQ(errorCode(looper_->exchangeMessage(request, 5)), ERROR_TIMEOUT);
  EXPECT_EQ(looper_->localQueueLength(), 1u);
  message empty;
  const message bad = looper_->exchangeMessage(empty, 5);
  EXPECT_EQ(errorCode(bad), ERROR_FAILED);
  EXPECT_EQ(bad.get_string(SYS_ERRSTR, ""), "bad_message");
}

TEST_F(LooperTest, LeaveProtocol) {
  message ctrl;
  looper_->setupLeave(4);  // still blocked: nothing sent
  EXPECT_TRUE(peer_.quiet());
  looper_->unblockLeave();
  ASSERT_TRUE(peer_.read(&ctrl));
  EXPECT_EQ(ctrl.get(SYS_CTRL, 0), 7u);
  EXPECT_EQ(ctrl.get(SYS_CTRL_ARG, 0), 4u);
  looper_->setupLeave(4);
  EXPECT_TRUE(peer_.quiet());
  looper_->blockLeave();
  ASSERT_TRUE(peer_.read(&ctrl));
  EXPECT_EQ(ctrl.get(SYS_CTRL_ARG, 9), 0u);
  peer_.sendCtrl(1);
  peer_.pump(*looper_);
  ASSERT_TRUE(peer_.read(&ctrl));
  EXPECT_EQ(ctrl.get(SYS_CTRL, 0), 3u);
  EXPECT_FALSE(looper_->leaving());
  looper_->unblockLeave();
  ASSERT_TRUE(peer_.read(&ctrl));
  // A subscriber of handler 5 travels with the agreement.
  message subscribe;
  subscribe.insert(SYS_NOTIFYCMD, CMD_NOTIFY);
  ask({5}, CMD_SUBSCRIBE, subscribe);
  peer_.sendCtrl(1);
  peer_.pump(*looper_);
  ASSERT_TRUE(peer_.read(&ctrl));
  EXPECT_EQ(ctrl.get(SYS_CTRL, 0), 2u);
  EXPECT_EQ(ctrl.get(SYS_CTRL_ARG, 0), 1u);
  const message data(ctrl.get_message(0x28000004, message::flat_message()));
  EXPECT_EQ(data.get_u32_array(0x88000002), std::vector<unsigned int>({5}));
  EXPECT_TRUE(looper_->leaving());
  looper_->tellLeave();
  ASSERT_TRUE(peer_.read(&ctrl));
  EXPECT_EQ(ctrl.get(SYS_CTRL, 0), 4u);
}

TEST_F(LooperTest, GetMessageTurnsControlAndTimeoutIntoErrors) {
  EXPECT_EQ(looper_->getMessage(1).get_string(SYS_ERRSTR, ""), "timeout");
  peer_.sendCtrl(9);
  EXPECT_EQ(looper_->getMessage(100).get_string(SYS_ERRSTR, ""), "control message (9)");
  // The local queue comes before the socket.
  peer_.request({5}, CMD_GET);
  message local;
  local.insert_string(STD_DESCR, "local");
  looper_->queueMessage(local);
  EXPECT_EQ(looper_->getMessage(100).get_string(STD_DESCR, ""), "local");
  EXPECT_EQ(looper_->getMessage(100).get(SYS_CMD, 0), CMD_GET);
}

TEST_F(LooperTest, SmallFramesWaitForTheFlushLargeOnesLeaveAtOnce) {
  message m;
  m.insert(SYS_TO, {40});
  looper_->sendMessage(m);
  EXPECT_EQ(looper_->writeQueueItems(), 1u);
  EXPECT_TRUE(peer_.quiet(20));
  m.insert_string(STD_DESCR, std::string(1100, 'x'));
  looper_->sendMessage(m);
  EXPECT_EQ(looper_->writeQueueItems(), 0u);
  message got;
  EXPECT_TRUE(peer_.read(&got));
  EXPECT_TRUE(peer_.read(&got));
  EXPECT_EQ(got.get_string(STD_DESCR, "").size(), 1100u);
}

// --- framing: frames split, partial and large, in both directions --------------------------

std::vector<unsigned char> frameOf(const message& m) {
  uint32_t length;
  std::unique_ptr<unsigned char[]> frame = makeFrame(m, &length);
  return std::vector<unsigned char>(frame.get(), frame.get() + length);
}

message tagged(unsigned int reqId, size_t padding = 0) {
  message m;
  m.insert(SYS_TO, {5});
  setRequestID(m, reqId);
  if (padding != 0) m.insert_string(STD_DESCR, std::string(padding, 'p'));
  return m;
}

TEST_F(LooperTest, PrefixSplitOverTwoReadsIsCompleted) {
  const std::vector<unsigned char> bytes = frameOf(tagged(3));
  peer_.sendBytes({bytes.begin(), bytes.begin() + 2});
  // The rest comes from another process while the Looper already waits for it.
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    usleep(20 * 1000);
    peer_.sendBytes({bytes.begin() + 2, bytes.end()});
    _exit(0);
  }
  message m;
  EXPECT_TRUE(looper_->readMessage(m, 0, true));
  waitpid(pid, nullptr, 0);
  EXPECT_EQ(m.get(SYS_REQID, 0), 3u);
}

TEST_F(LooperTest, PartialFrameStaysBufferedUntilReadingIsAllowed) {
  std::vector<unsigned char> bytes = frameOf(tagged(1));
  const std::vector<unsigned char> second = frameOf(tagged(2));
  bytes.insert(bytes.end(), second.begin(), second.begin() + 6);
  peer_.sendBytes(bytes);
  message m;
  ASSERT_TRUE(looper_->readMessage(m, 0, true));  // takes the second frame's head along
  EXPECT_EQ(m.get(SYS_REQID, 0), 1u);
  EXPECT_FALSE(looper_->readMessage(m, 0, false));
  peer_.sendBytes({second.begin() + 6, second.end()});
  ASSERT_TRUE(looper_->readMessage(m, 0, true));
  EXPECT_EQ(m.get(SYS_REQID, 0), 2u);
}

TEST_F(LooperTest, LargeFrameIsReadExactlyToItsEnd) {
  std::vector<unsigned char> bytes = frameOf(tagged(4, 5000));
  const std::vector<unsigned char> small = frameOf(tagged(5));
  bytes.insert(bytes.end(), small.begin(), small.end());
  peer_.sendBytes(bytes);
  message m;
  ASSERT_TRUE(looper_->readMessage(m, 0, true));
  EXPECT_EQ(m.get_string(STD_DESCR, "").size(), 5000u);
  // Nothing of the next frame was taken: it is still on the socket, whole.
  EXPECT_FALSE(looper_->readMessage(m, 0, false));
  int pending = 0;
  ioctl(looper_->socket(), FIONREAD, &pending);
  ASSERT_EQ(static_cast<size_t>(pending), small.size());
  ASSERT_TRUE(looper_->readMessage(m, 0, true));
  EXPECT_EQ(m.get(SYS_REQID, 0), 5u);
}

TEST_F(LooperTest, OneRequestPerReadinessEventButRepliesAreDrained) {
  // Two requests wait; one readiness event dispatches the first only.
  peer_.request({5}, CMD_NOOP);
  peer_.request({5}, CMD_NOOP);
  looper_->onMsgSock(looper_->socket(), POLLIN);
  EXPECT_EQ(handler_.seen_.size(), 1u);
  looper_->dispatchQueue();  // the buffered second one goes before the loop sleeps
  EXPECT_EQ(handler_.seen_.size(), 2u);
  // Replies are drained in one event: each reaches the handler (and its reply handler).
  message reply;
  reply.insert(SYS_TO, {5});
  setType(reply, TYPE_REPLY);
  for (unsigned int id = 0; id < 3; ++id) {
    setRequestID(reply, id);
    peer_.send(reply);
  }
  unsigned int delivered = 0;
  struct Count {
    static void one(void* ctx, const message&, const message&) {
      ++*static_cast<unsigned int*>(ctx);
    }
  };
  for (unsigned int id = 0; id < 3; ++id) {
    message request;
    request.insert(SYS_TO, {40});
    handler_.postMessage(request, &delivered, Count::one, message(), 0xFFFFFFFFu);
  }
  looper_->onMsgSock(looper_->socket(), POLLIN);
  EXPECT_EQ(delivered, 3u);
}

TEST(FrameWriterTest, PartialWritesKeepTheCountsAndTheFrames) {
  int fds[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  fcntl(fds[0], F_SETFL, O_NONBLOCK);
  const int small = 4096;
  setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
  FrameWriter writer(fds[0], nullptr, [](void*, FrameFailure, long, int) { ADD_FAILURE(); });
  uint32_t total = 0;
  for (unsigned int i = 0; i < 3; ++i) total = writer.queue(tagged(i, 60000));
  std::vector<unsigned char> received;
  int partialPasses = 0;
  while (!writer.flush(FrameWriter::kTry)) {
    ++partialPasses;
    // What left and what waits add up to what was queued, byte for byte.
    int unread = 0;
    ioctl(fds[1], FIONREAD, &unread);
    ASSERT_EQ(writer.bytes() + received.size() + static_cast<uint32_t>(unread), total);
    unsigned char chunk[65536];
    const ssize_t n = read(fds[1], chunk, sizeof chunk);
    ASSERT_GT(n, 0);
    received.insert(received.end(), chunk, chunk + n);
    // Until told the socket has room, a try writes nothing: no write for every frame
    // queued behind a full socket.
    const uint32_t waiting = writer.bytes();
    EXPECT_FALSE(writer.flush(FrameWriter::kTry));
    EXPECT_EQ(writer.bytes(), waiting);
    writer.writable();
  }
  EXPECT_GT(partialPasses, 2);
  EXPECT_EQ(writer.items(), 0u);
  EXPECT_EQ(writer.bytes(), 0u);
  for (;;) {
    unsigned char chunk[65536];
    const ssize_t n = recv(fds[1], chunk, sizeof chunk, MSG_DONTWAIT);
    if (n <= 0) break;
    received.insert(received.end(), chunk, chunk + n);
  }
  ASSERT_EQ(received.size(), total);
  size_t pos = 0;
  for (unsigned int i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    const uint32_t length = loadLe32(received.data() + pos);
    message m;
    ASSERT_TRUE(m.unflatten(received.data() + pos + 4, length, message::flatten_full));
    EXPECT_EQ(m.get(SYS_REQID, 9), i);
    EXPECT_EQ(m.get_string(STD_DESCR, "").size(), 60000u);
    pos += 4 + length;
  }
  close(fds[0]);
  close(fds[1]);
}

// --- start-up, run and the time zone -------------------------------------------------------

TEST(LooperStartTest, ReadyValuesAndPreparedServiceState) {
  message ready;
  ready.insert(1, 11);
  ready.insert(2, 22);
  ready.insert(3, 33);
  ready.insert(6, 66);
  ready.insert_u64(0x10000007, 0x123456789ull);
  message service;
  service.insert_u32_array(0x88000001, {0x12345603, 7});
  ready.insert_message(0x28000005, service);
  LoaderPeer peer(true, ready);
  {
    Looper looper(Looper::kInherit, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 12);
    EXPECT_EQ(looper.loaderValue(1), 11u);
    EXPECT_EQ(looper.loaderValue(2), 22u);
    EXPECT_EQ(looper.loaderValue(3), 33u);
    EXPECT_EQ(looper.loaderValue(6), 66u);
    EXPECT_EQ(looper.loaderValue64(), 0x123456789ull);
    EXPECT_EQ(looper.serviceData().get_u32_array(0x88000001),
              std::vector<unsigned int>({0x12345603, 7}));
    // The key is w1, the first key word and w12 in the host's byte order; 0x03 + 1024 rounds.
    const std::vector<unsigned char> state = looper.serviceData().get_raw(0x30000002, {});
    ASSERT_EQ(state.size(), 256u);
    const unsigned int one = 1;
    unsigned char firstByte;
    memcpy(&firstByte, &one, 1);
    const std::vector<unsigned char> expected =
        firstByte == 1 ? std::vector<unsigned char>({80, 197, 40, 70, 220, 87, 230, 200})
                       : std::vector<unsigned char>({70, 221, 170, 15, 82, 146, 207, 71});
    EXPECT_EQ(std::vector<unsigned char>(state.begin(), state.begin() + 8), expected);
    const std::vector<unsigned char> tail = firstByte == 1
                                                ? std::vector<unsigned char>({242, 239, 170, 164})
                                                : std::vector<unsigned char>({96, 175, 238, 150});
    EXPECT_EQ(std::vector<unsigned char>(state.end() - 4, state.end()), tail);
  }
  EXPECT_EQ(getLooper(), nullptr);  // the destructor lets go of it
}

// A Looper that counts onInit and, one tick into its loop, blocks leaving and stops.
class OneTickLooper : public Looper {
 public:
  OneTickLooper() : Looper(kInherit, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0) {}
  void onInit() override { ++inits_; }
  void run() override {
    kl::addTimer(this, &OneTickLooper::stop, 1);
    Looper::run();
  }
  void stop() {
    blockLeave();
    shutdown();
  }
  int inits_ = 0;
};

// The marker file's directory does not exist here, so onInit runs on every start.
TEST(LooperRunTest, RunAnnouncesItselfThenReleasesTheLeaveBlock) {
  LoaderPeer peer;
  OneTickLooper looper;
  message registration, running, offer, blocked;
  ASSERT_TRUE(peer.read(&registration));
  looper.setupLeave(3);  // blocked until run(): not sent yet
  EXPECT_TRUE(peer.quiet(0));
  looper.run();
  EXPECT_EQ(looper.inits_, 1);
  ASSERT_TRUE(peer.read(&running));
  ASSERT_TRUE(peer.read(&offer));
  ASSERT_TRUE(peer.read(&blocked));
  EXPECT_EQ(running.get(SYS_CTRL, 0), 6u);
  EXPECT_EQ(offer.get(SYS_CTRL, 0), 7u);
  EXPECT_EQ(offer.get(SYS_CTRL_ARG, 0), 3u);
  EXPECT_EQ(blocked.get(SYS_CTRL, 0), 7u);
  EXPECT_EQ(blocked.get(SYS_CTRL_ARG, 9), 0u);
  EXPECT_TRUE(looper.isShutDown());
  EXPECT_EQ(looper.socket(), -1);
}

TEST_F(LooperTest, TimezoneIsAskedOnceAndFollowsNotifications) {
  // The answer waits on the socket before the question is asked (request ids 0 and 1: the
  // subscription may take one).
  for (unsigned int id = 0; id < 2; ++id) {
    message reply;
    reply.insert(SYS_TO, std::vector<unsigned int>());
    setType(reply, TYPE_REPLY);
    setRequestID(reply, id);
    reply.insert(0x1b, 3600);
    peer_.send(reply);
  }
  EXPECT_EQ(looper_->getTimezone(), 3600);
  message subscription, question;
  ASSERT_TRUE(peer_.read(&subscription));
  ASSERT_TRUE(peer_.read(&question));
  EXPECT_EQ(subscription.get(SYS_CMD, 0), CMD_SUBSCRIBE);
  EXPECT_EQ(subscription.get_u32_array(SYS_TO), std::vector<unsigned int>({24, 0}));
  EXPECT_EQ(subscription.get(SYS_NOTIFYCMD, 0), 0x60001u);
  EXPECT_EQ(question.get(SYS_CMD, 0), CMD_GET);
  EXPECT_EQ(question.get_u32_array(SYS_TO), std::vector<unsigned int>({24, 0}));
  EXPECT_EQ(looper_->getTimezone(), 3600);
  EXPECT_TRUE(peer_.quiet());  // asked once
  message notice;
  notice.insert(SYS_TO, std::vector<unsigned int>());
  notice.insert(SYS_FROM, {24, 0});
  notice.insert(SYS_CMD, 0x60001);
  notice.insert(0x1b, 7200);
  peer_.send(notice);
  peer_.pump(*looper_);
  EXPECT_EQ(looper_->getTimezone(), 7200);
}

TEST_F(LooperTest, ExchangeReportsTheFirstSpillOnly) {
  message local;
  local.insert(SYS_TO, {PATH_LOCAL, 5});
  for (int i = 0; i < 100; ++i) looper_->queueMessage(local);
  peer_.request({5}, CMD_GET);
  peer_.request({5}, CMD_GET);
  message reply;
  reply.insert(SYS_TO, std::vector<unsigned int>());
  setType(reply, TYPE_REPLY);
  setRequestID(reply, 0);
  peer_.send(reply);
  message request;
  request.insert(SYS_TO, {40});
  CaptureStderr();
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(errorCode(looper_->exchangeMessage(request, 100)), 0u);
  EXPECT_EQ(GetCapturedStderr(),
            "full queue, spilled message:\n"
            "exchangeMessage: queue spill  during exchange of:\n"
            "full queue, spilled message:\n");
  const std::string dumps = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(dumps.find("SYS_TO]=40"), std::string::npos);  // the exchanged request
}

// --- start-up and transport failures: they end the process -------------------------------

// Runs fn in a forked child with its error stream captured; the child's end of the loader
// connection is its own descriptor 3.
struct ChildOutcome {
  int exitCode = -1;  // -1 when killed by a signal
  int signal = 0;
  // A Runner's crash handler turns a fatal signal into a report and exit status 1.
  bool aborted() const { return exitCode == 1 || signal == SIGABRT; }
  std::string stderrText;
};

ChildOutcome runInChild(const std::function<void()>& fn) {
  int pipeFds[2];
  EXPECT_EQ(pipe(pipeFds), 0);
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(pipeFds[1], 2);
    // The crash report of an abort goes to standard output; it is not what is tested here.
    const int devNull = open("/dev/null", O_WRONLY);
    dup2(devNull, 1);
    close(pipeFds[0]);
    close(pipeFds[1]);
    fn();
    _exit(0);
  }
  close(pipeFds[1]);
  ChildOutcome outcome;
  char buf[4096];
  ssize_t n;
  while ((n = read(pipeFds[0], buf, sizeof buf)) > 0) outcome.stderrText.append(buf, size_t(n));
  close(pipeFds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) outcome.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) outcome.signal = WTERMSIG(status);
  return outcome;
}

Looper* newLooper(unsigned int mode) {
  return new Looper(mode, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
}

TEST(LooperFailureTest, MissingReadyAborts) {
  const ChildOutcome out = runInChild([] {
    LoaderPeer peer(false);
    message notReady;
    notReady.insert(SYS_CTRL, 3);
    peer.send(notReady);
    newLooper(Looper::kInherit);
  });
  EXPECT_TRUE(out.aborted());
  EXPECT_EQ(out.stderrText, "could not receive confirmation to CTRL_READY from loader\n");
}

TEST(LooperFailureTest, InheritRequiredButAbsent) {
  const ChildOutcome out = runInChild([] {
    close(3);
    newLooper(Looper::kInherit);
  });
  EXPECT_EQ(out.exitCode, 1);
  EXPECT_EQ(out.stderrText, "LOOPER: didn't get connection to loader\n");
}

TEST(LooperFailureTest, ConnectModeIgnoresTheInheritedSocket) {
  const ChildOutcome out = runInChild([] {
    LoaderPeer peer;
    setenv("KL_ROOT", "/nonexistent-kl-root", 1);
    newLooper(Looper::kConnect);
  });
  EXPECT_EQ(out.exitCode, 1);
  EXPECT_EQ(out.stderrText, "connect failed (errno=2)\n");
}

TEST(LooperFailureTest, LoaderGoingAwayStopsTheProcess) {
  const ChildOutcome out = runInChild([] {
    LoaderPeer peer;
    Looper* looper = newLooper(Looper::kInherit);
    message registration;
    peer.read(&registration);
    peer.close();
    looper->getMessage(-1);
  });
  EXPECT_TRUE(out.aborted());
  EXPECT_EQ(out.stderrText.substr(0, 34), "LOOPER: read_raw read failed: EOF\n");
  // The assertion names the unit, not the build path of its source.
  EXPECT_NE(out.stderrText.find("\nlooper:"), std::string::npos) << out.stderrText;
  EXPECT_EQ(out.stderrText.find("looper.cc"), std::string::npos) << out.stderrText;
  EXPECT_NE(out.stderrText.find("Assertion `false' failed."), std::string::npos);
}

TEST(LooperFailureTest, WritingToAVanishedLoaderStopsTheProcess) {
  const ChildOutcome out = runInChild([] {
    LoaderPeer peer;
    Looper* looper = newLooper(Looper::kInherit);
    peer.close();
    looper->sendCtrl(6);
  });
  EXPECT_TRUE(out.aborted());
  EXPECT_EQ(out.stderrText.substr(0, 47), "LOOPER: writeFlush write failed: -1, errno: 32\n");
}

}  // namespace
}  // namespace kl
