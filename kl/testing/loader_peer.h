// File: kl/testing/loader_peer.h
//
// LoaderPeer plays the loader's end of a Looper's connection, so that a test drives a real
// Looper over a real socket without threads and without a loader process:
//
//   kl::testing::LoaderPeer peer;        // socketpair, Looper's end on descriptor 3,
//                                        // CTRL_READY already written for the Looper
//   MyLooper looper;                     // mode 0 or 1: takes descriptor 3, reads READY
//   kl::message reg;
//   peer.read(&reg);                     // the registration (control code 5)
//   unsigned id = peer.request({5}, kl::CMD_GETALL);   // a request for handler 5
//   peer.pump(looper);                   // the Looper reads and dispatches what is there
//   kl::message reply;
//   ASSERT_TRUE(peer.read(&reply));      // the frame the Looper wrote, or false after the
//                                        // time-out: a missing frame fails, never hangs
//
// The peer speaks the same framing as the loader (kl/looper/framing.h). Installed with the
// optional library kl_testing for service authors' own tests.
//
// Limits that come from running both ends on one thread:
// - The Looper's flush waits for room on the socket, and nothing reads while it waits: a test
//   must read what the Looper wrote before more than the socket's buffer (some 200 KB on
//   Linux) piles up, so one reply or one pump's replies must stay below that.
// - A Looper awaits the rest of a frame it has begun without limit: send whole frames, or
//   the rest of a split one from another process.
// - Destroy the Looper before the peer: its destructor flushes what is queued, and a write
//   to a closed peer ends the process, as a vanished loader does.
#ifndef KL_TESTING_LOADER_PEER_H_
#define KL_TESTING_LOADER_PEER_H_

#include <vector>

#include "kl/looper/framing.h"
#include "kl/looper/looper.h"
#include "kl/message/message.h"

namespace kl {
namespace testing {

class LoaderPeer {
 public:
  // The id the peer puts in SYS_FROM of the requests it sends, as the loader would for the
  // process they come from.
  static constexpr unsigned int kPeerProcess = 0x10000;

  // Creates the connection and puts the Looper's end on descriptor 3 (replacing whatever
  // was there). With `writeReady`, CTRL_READY (plus the fields of `readyExtra`) is written
  // at once, so a Looper constructed next completes its start-up.
  explicit LoaderPeer(bool writeReady = true, const message& readyExtra = message());
  ~LoaderPeer();
  LoaderPeer(const LoaderPeer&) = delete;
  LoaderPeer& operator=(const LoaderPeer&) = delete;

  // Writes `m` as one frame.
  void send(const message& m);
  // Writes raw bytes (a frame in pieces, or garbage).
  void sendBytes(const std::vector<unsigned char>& bytes);
  // Sends a request with a fresh request id (returned) to `path`: SYS_CMD = cmd, the
  // fields of `body`, SYS_FROM = `from`, SYS_REPLYEXP set.
  unsigned int request(const std::vector<unsigned int>& path, unsigned int cmd,
                       const message& body = message(),
                       const std::vector<unsigned int>& from = {kPeerProcess});
  // Sends control message `code` (1 asks the process to leave).
  void sendCtrl(unsigned int code);

  // The next frame the Looper wrote, within `timeoutMs`. False on time-out or when the
  // Looper's end was closed.
  bool read(message* m, int timeoutMs = 2000);
  // Whether nothing arrives within `timeoutMs`; a frame that does arrive is consumed.
  bool quiet(int timeoutMs = 50);

  // Lets `looper` take everything waiting on its socket and dispatch it, as its loop would
  // (the socket callback while input is ready, then the before-sleep hook).
  void pump(Looper& looper);

  // Closes the peer's end: the Looper then sees the loader go away.
  void close();
  int fd() const { return fd_; }

 private:
  static void onFailure(void* self, FrameFailure what, long result, int err);

  int fd_ = -1;
  unsigned int nextRequestId_ = 1;
  FrameReader reader_;
  FrameWriter writer_;
};

}  // namespace testing
}  // namespace kl

#endif  // KL_TESTING_LOADER_PEER_H_
