// File: tools/loader/loader.h
//
// The development loader: plays the device's loader on a workstation and in tests. It
// listens on <root>/ram/kelosock, starts the services named on its command line with their
// connection on descriptor 3, registers every process (its id is registration word 1; 0
// asks for a transient id from 0x10000 up), routes frames between processes by the first
// element of SYS_TO, answers broken paths, announces departures with CMD_DISCONNECTED,
// keeps the persistent data of a process that leaves and returns it when that id registers
// again, and starts a service it started again when a frame arrives for it after it left.
// Frames for a process asked to leave wait for its answer: a refusal lets them through, an
// agreement keeps them for the next instance.
//
// Handler id 1 is the loader itself: CMD_GETALL lists the processes, CMD_NOOP answers
// empty, kLoaderCmdLeave asks process STD_ID to leave, kLoaderCmdMonitor makes the sender a
// monitor of the traffic (below).
//
// Every connection uses the library's framing (kl/looper/framing.h) without blocking; bad
// input from one process (a malformed or oversized frame, a wrong first frame, an id in
// use, a peer that stops reading) closes that one connection with one line on the error
// stream and never affects the others.
//
// Fairness and bounds. Each turn takes at most kFramesPerTurn frames from a connection, so
// a process that writes without pause cannot keep the others waiting. A process whose
// requests or notifications pile up at a receiver (more than kWaitQueuedBytes queued for
// it) is not read until the receiver has caught up (below a quarter of that), so a flood
// goes at the receiver's pace; replies never make their sender wait. A receiver that
// writes nothing for kStallTicks while others wait for it has stopped reading: its senders
// go on, and its queue grows until the cap. A queue past Options::maxQueuedBytes, or the
// largest queue when all together pass Options::maxTotalQueuedBytes, cuts that connection
// off at once; each request that was queued for it is answered with ERROR_BRKPATH.
#ifndef TOOLS_LOADER_LOADER_H_
#define TOOLS_LOADER_LOADER_H_

#include <sys/types.h>

#include <cstdio>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kl/looper/control.h"
#include "kl/looper/framing.h"
#include "kl/message/message.h"
#include "kl/runner/runner.h"

namespace kl {
namespace loader {

constexpr unsigned int kLoaderId = ctrl::kLoaderId;
constexpr unsigned int kFirstTransientId = 0x10000;
// A loader command: asks the process named by STD_ID to leave (control code 1).
constexpr unsigned int kLoaderCmdLeave = 0xfd0001;
// A loader command: makes the sender a monitor. From then on every frame the loader delivers
// between two other processes (requests, replies, notifications, the loader's own answers
// and notices, sender 1) is copied to the path the command came from (its SYS_FROM), as a
// message with SYS_CMD kLoaderCmdMonitor and the kMon* fields. Copies go only to monitors
// and never make a sender wait: a monitor that lets more than kMaxMonitorQueuedBytes pile
// up is cut off. Frames to and from monitors are not copied. A monitor stops by leaving.
constexpr unsigned int kLoaderCmdMonitor = 0xfd0002;
constexpr uint32_t kMonSeconds = 0x08000001;  // when it was routed: Unix time, seconds
constexpr uint32_t kMonMicros = 0x08000002;   // and microseconds
constexpr uint32_t kMonFrom = 0x08000003;     // the sending process (1: the loader)
constexpr uint32_t kMonTo = 0x08000004;       // the receiving process
constexpr uint32_t kMonFrame = 0x30000005;    // the frame's body as delivered (raw)
constexpr uint32_t kMonLength = 0x08000006;   // the body's length when kMonFrame holds less
constexpr uint32_t kMaxMonitorCopy = 65000;   // the most of a body a copy holds
constexpr uint32_t kMaxMonitorQueuedBytes = 4u << 20;
// Fields of the process list (CMD_GETALL on id 1), beside STD_ID and STD_DESCR.
constexpr uint32_t kProcPid = 0x08000001;
// "running", "registered", "left", or how it ended: "exited N", "killed by signal N"
constexpr uint32_t kProcState = 0x20000002;
constexpr uint32_t kProcLeaveValue = 0x08000003;
// Limits that keep one process from exhausting the loader.
constexpr uint32_t kMaxFrameBytes = 64u << 20;
constexpr uint32_t kMaxQueuedBytes = 64u << 20;
constexpr uint32_t kMaxTotalQueuedBytes = 128u << 20;
constexpr unsigned int kFramesPerTurn = 64;
constexpr uint32_t kWaitQueuedBytes = 256u << 10;
constexpr uint32_t kStallTicks = 100;
// How long SIGTERM and SIGINT give started services to end before SIGKILL.
constexpr unsigned int kStopGraceMs = 1500;
// Unanswered requests remembered per process, to be answered if it goes away.
constexpr size_t kMaxPendingRequests = 4096;
// Ended processes the process list keeps showing.
constexpr size_t kEndedKept = 16;

// Splits a service's command line into words as a shell would, without expanding anything:
// blanks separate words; '...' keeps everything inside as it is; "..." too, except that a
// backslash there escapes " and \; outside quotes a backslash takes the next character as
// it is. False (with *words unspecified) for an unterminated quote or a trailing backslash.
bool splitCommandLine(const std::string& line, std::vector<std::string>* words);

struct Options {
  bool trace = false;
  uint32_t maxQueuedBytes = kMaxQueuedBytes;            // one connection's queue
  uint32_t maxTotalQueuedBytes = kMaxTotalQueuedBytes;  // all queues together
  unsigned int idleLeaveSeconds = 0;                    // 0: never ask idle services to leave
  unsigned int registerWarnSeconds = 20;  // a started service not registered by then is named
  std::map<unsigned int, unsigned int> policies;   // process id -> SYS_POLICY bits
  std::vector<std::vector<std::string>> services;  // command lines to start
  std::vector<std::string> wrapper;                // words put before every service's command line
};

class Loader {
 public:
  explicit Loader(const Options& options);
  ~Loader();

  // Creates the listening socket and starts the services. False (with a line on the error
  // stream) when the socket cannot be set up, or when another loader accepts on it; a
  // socket file that refuses connections (left by a loader that died) is replaced.
  bool start();
  // Runs until SIGINT or SIGTERM; then ends the started services.
  void run();

  // One connection. Public for the fuzz target, which feeds it bytes (serveInput).
  using PendingRequests = std::set<std::pair<std::vector<unsigned int>, unsigned int>>;

  struct Conn {
    Conn(Loader* owner, int fd);
    Loader* loader;
    int fd;
    FrameReader reader;
    FrameWriter writer;
    bool registered = false;
    bool running = false;
    bool dead = false;
    bool askedToLeave = false;
    // Asked to leave and not refused: frames for it wait in `held`. They go to it when it
    // refuses, or to its next instance when it agreed and is gone.
    bool holding = false;
    std::vector<message> held;
    unsigned int id = 0;
    pid_t pid = 0;
    unsigned int leaveValue = 0;
    uint32_t lastActivity = 0;
    std::string failure;               // why the connection failed, for the closing line
    std::vector<std::string> command;  // set for services this loader started
    // Flow control: the id whose queue this connection waits for (0: it is read), when
    // this connection's queue last got bytes out, and whether it stopped reading.
    unsigned int waitingFor = 0;
    uint32_t lastDrain = 0;
    bool stalled = false;
    // What was queued for it when it was cut off, answered when it is closed.
    std::list<FrameWriter::WriteItem> orphans;
    // The requests delivered to it that expect a reply and have none yet, by the path the
    // reply goes to (the sender's SYS_FROM) and request id: answered with ERROR_BRKPATH
    // when it goes away first. At most kMaxPendingRequests are kept.
    PendingRequests pending;
    // Set for a monitor: where its copies go (the monitor command's SYS_FROM, less the id).
    std::vector<unsigned int> monitorPath;
    bool monitor = false;
  };

  // The output of a started service: its standard output and error come through pipes and
  // go out on the loader's own, each line behind the service's id ("[5] ...", "[pid N]"
  // before it registers).
  struct Output {
    pid_t pid;
    FILE* to;             // stdout or stderr
    std::string partial;  // a line not yet ended
  };

  // Feeds one decoded frame from `conn` (registration, control or routed message).
  void handleFrame(Conn& conn, message& m);
  // Adds a connection for an already connected descriptor (accept, a started service, a
  // test). The loader owns and closes it.
  Conn* addConnection(int fd, pid_t pid);
  // Closes the connections that failed, with their lines.
  void reapDead();
  // Serves `conn` as the loop does when its descriptor turns readable: handles every
  // complete frame waiting on it, writes out what that queued for every connection and
  // closes the connections that failed (`conn` among them, possibly: it must not be used
  // afterwards). For the fuzz target, which drives the loader without its loop.
  void serveInput(Conn& conn);
  size_t connectionCount() const { return conns_.size(); }

 private:
  static void onAcceptCb(void* self, int fd, unsigned int events);
  static void onConnCb(void* self, int fd, unsigned int events);
  static void onFailure(void* ctx, FrameFailure what, long result, int err);
  static void beforeSleepCb(void* self);
  static void onSignalCb(void* self, int sig);
  static void onIdleTimerCb(void* self);
  static void onRegisterWatchCb(void* self);

  void onAccept();
  void onConn(Conn& conn, unsigned int events);
  void serveFrames(Conn& conn, bool hangup);
  void serveBacklog();
  void flushAll();
  bool flushConn(Conn& conn);
  void watchEvents(Conn& conn);
  void waitForReceiver(Conn& from, Conn& to);
  void updateWaits();
  void cutOff(Conn& conn, const std::string& why);
  // `pending` (see Conn::pending) loses the requests answered here.
  void answerOrphans(std::list<FrameWriter::WriteItem>& orphans, PendingRequests* pending);
  // Notes a request delivered to `to` that expects a reply to `replyPath`; forgets one
  // when its reply from `from` passes.
  void notePending(Conn& to, const std::vector<unsigned int>& replyPath, unsigned int requestId);
  void noteAnswered(Conn& from, const std::vector<unsigned int>& replyPath, unsigned int requestId);
  // Answers the requests still pending at a connection that went away.
  void answerPending(const PendingRequests& pending);
  void stopChildren();
  static void onOutputCb(void* self, int fd, unsigned int events);
  // Relays what service output pipe `fd` holds; at its end, what is left.
  void relayOutput(int fd);
  void writeOutputLine(const Output& out, const char* text, size_t length);
  int sleepLimit(int timeoutMs) const;
  void registerProcess(Conn& conn, const message& m);
  void handleControl(Conn& conn, unsigned int code, const message& m);
  bool routeFlat(Conn& from, const unsigned char* body, uint32_t length, uint32_t now);
  void route(Conn& from, message& m);
  void routeOne(Conn& from, message m, std::vector<unsigned int> to);
  void loaderCommand(Conn& from, const message& m);
  void answerBrokenPath(Conn& from, const message& m, const std::vector<unsigned int>& rest);
  // Sends `m` to `to`; `from` is its sender for the monitors (the loader by default).
  void deliver(Conn& to, const message& m, unsigned int from = kLoaderId);
  // Copies a frame on its way from `from` to `to` to every monitor (see kLoaderCmdMonitor).
  void copyToMonitors(unsigned int from, const Conn& to, const unsigned char* frame,
                      uint32_t length);
  void deliverFrame(Conn& to, std::unique_ptr<unsigned char[]> frame, uint32_t length);
  void reply(Conn& to, const message& request, message& body);
  void closeConn(Conn* conn, const std::string& why);
  void announceDeparture(unsigned int id);
  bool startService(const std::vector<std::string>& command);
  void reapChildren();
  void checkIdle();
  void askToLeave(Conn& conn);
  Conn* byId(unsigned int id);
  std::string describe(const Conn& conn) const;
  void trace(const char* what, const Conn& from, unsigned int to, const message& m);

  // The loop, with the stop flag the loader sets on SIGINT and SIGTERM.
  class LoopRunner : public Runner {
   public:
    explicit LoopRunner(const Loader* loader) : loader_(loader) {}
    void stop() { stop_ = true; }
    int sleepTime(unsigned int now) override { return loader_->sleepLimit(Runner::sleepTime(now)); }

   private:
    const Loader* loader_;
  };

  Options options_;
  LoopRunner runner_;
  int listenFd_ = -1;
  std::string socketPath_;
  unsigned int nextTransient_ = kFirstTransientId;
  std::map<int, std::unique_ptr<Conn>> conns_;  // by descriptor
  std::map<unsigned int, Conn*> byId_;
  size_t monitors_ = 0;  // connections that are monitors
  // A started service that left: its command line, its handed-over data, and the frames
  // waiting for its next instance.
  struct Departed {
    std::vector<std::string> command;
    message data;
    bool hasData = false;
    bool restarting = false;
    std::vector<message> waiting;
  };
  std::map<unsigned int, Departed> departed_;
  // Commands of started processes by pid, until they are reaped.
  std::map<pid_t, std::vector<std::string>> startedPids_;
  // The ids of started processes that registered, by pid, until they are reaped.
  std::map<pid_t, unsigned int> childIds_;
  // When each started process that has not registered yet was started (ticks).
  std::map<pid_t, uint32_t> unregisteredSince_;
  // How the last started processes ended, newest last, for the process list.
  struct Ended {
    unsigned int id;  // 0: it never registered
    pid_t pid;
    std::string program;
    std::string how;  // "exited 0", "killed by signal 9"
  };
  std::list<Ended> ended_;
  std::map<int, Output> outputs_;  // services' output pipes, by descriptor
  bool stopping_ = false;
  int64_t queuedTotal_ = 0;  // bytes queued for all connections
};

}  // namespace loader
}  // namespace kl

#endif  // TOOLS_LOADER_LOADER_H_
