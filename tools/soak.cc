// kl_soak: the example services under kl-loader with continuous mixed traffic, for minutes
// or hours, watching every process's resident memory (`make soak MINUTES=N`).
//
//   kl_soak MINUTES LOADER OBJECTS_SERVICE WATCHER_SERVICE
//
// In a fresh development root it starts kl-loader (its output discarded) with the object
// service (5/2, 200 objects, get-all chunks of 50) and the watcher (6, subscribed to 5/2), connects
// as a process of its own and keeps eight requests in flight, in turn: get an object, set one (the
// watcher, and this process while it is subscribed, are notified), a whole get-all (chunk after
// chunk). Every 5 s it subscribes to 5/2 or unsubscribes again; every 90 s it asks the loader to
// make the object service leave, and the next request starts it again. Once a second it samples the
// resident memory of the loader, of each process the loader lists and of itself.
//
// At the end it prints the requests, replies, error replies and requests never answered,
// the notifications received, and for every process its memory after its first minute, at
// its end, and the slope between. Exit status 1 when a request went unanswered or a process
// that ran on for 20 s after its first minute grew by more than 1% over that time.
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "kl/kl.h"

namespace {

constexpr unsigned int kObjectsProcess = 5;
constexpr unsigned int kObjectsHandler = 2;
constexpr unsigned int kObjectCount = 200;
constexpr unsigned int kInFlight = 8;
constexpr unsigned int kTimeoutTicks = 1000;  // 10 s: a reply later than that is lost
constexpr unsigned int kSubscribeToggleTicks = 500;
constexpr unsigned int kLeaveEveryTicks = 9000;
constexpr unsigned int kLoaderCmdLeave = 0xfd0001;  // kl-loader's own command on id 1
constexpr uint32_t kProcessPidField = 0x08000001;   // in kl-loader's process list
constexpr unsigned int kSelf = 0xFFFFFFFF;          // this process in the memory table

// One process's resident memory over its life, kept as running sums so that watching
// costs the watcher no memory that grows: its first sample, its sample a minute in, its
// latest, and the least-squares sums of the samples from that minute on.
struct Series {
  unsigned int processId = 0;  // the loader's id, 0 for the loader itself
  double firstSeconds = -1;    // seconds since the start of the run
  double settledSeconds = -1;  // of the first sample a minute into the process's life
  long atMinute = 0;           // KiB then
  double lastSeconds = 0;
  long last = 0;
  double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;  // of the samples from the minute on

  void add(double seconds, long kib) {
    if (firstSeconds < 0) firstSeconds = seconds;
    lastSeconds = seconds;
    last = kib;
    if (seconds - firstSeconds < 60) return;
    if (settledSeconds < 0) {
      settledSeconds = seconds;
      atMinute = kib;
    }
    n += 1;
    sx += seconds;
    sy += static_cast<double>(kib);
    sxx += seconds * seconds;
    sxy += seconds * static_cast<double>(kib);
  }
  double slopePerMinute() const {
    const double d = n * sxx - sx * sx;
    return d > 0 ? 60 * (n * sxy - sx * sy) / d : 0;
  }
};

long residentKib(pid_t pid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/statm", static_cast<int>(pid));
  FILE* f = fopen(path, "r");
  if (f == nullptr) return -1;
  long size = 0, resident = 0;
  const int got = fscanf(f, "%ld %ld", &size, &resident);
  fclose(f);
  return got == 2 ? resident * (sysconf(_SC_PAGESIZE) / 1024) : -1;
}

class Soak : public kl::Looper {
 public:
  Soak(pid_t loaderPid, unsigned int seconds)
      : kl::Looper(kConnect, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0),
        loaderPid_(loaderPid),
        endTicks_(seconds * 100) {
    addHandler(1, &client_);
    addHandler(2, &watcher_);
    client_.soak = watcher_.soak = this;
    startTicks_ = kl::getJiffies();
  }

  void start() {
    for (unsigned int i = 0; i < kInFlight; ++i) next();
    addTimer(this, onSample, 1);
    addTimer(this, onToggleSubscription, kSubscribeToggleTicks);
    addTimer(this, onLeave, kLeaveEveryTicks);
  }

  // Prints the figures; true when the goals are met.
  bool report() const {
    printf(
        "soak: %.0f s, %lu requests, %lu replies, %lu error replies, %lu unanswered, "
        "%lu notifications, %u leaves\n",
        elapsedSeconds(), requests_, replies_, errors_, unanswered_, notifications_, leaves_);
    bool ok = unanswered_ == 0;
    printf("%-9s %-7s %8s %10s %10s %10s %12s\n", "process", "pid", "life s", "KiB at 1m",
           "KiB at end", "growth", "KiB/min");
    for (const auto& entry : memory_) {
      const Series& s = entry.second;
      const std::string name = s.processId == 0       ? "loader"
                               : s.processId == kSelf ? "soak"
                                                      : std::to_string(s.processId);
      const double life = s.lastSeconds - s.firstSeconds;
      if (s.n < 2) {
        printf("%-9s %-7d %8.0f %10s %10ld %10s %12s\n", name.c_str(), entry.first, life, "-",
               s.last, "-", "-");
        continue;
      }
      const double growth = s.atMinute > 0 ? 100.0 * (s.last - s.atMinute) / s.atMinute : 0;
      printf("%-9s %-7d %8.0f %10ld %10ld %9.2f%% %12.2f\n", name.c_str(), entry.first, life,
             s.atMinute, s.last, growth, s.slopePerMinute());
      const bool judged = s.lastSeconds - s.settledSeconds >= 20;
      if (judged && growth > 1.0) ok = false;
    }
    return ok;
  }

  bool finished() const { return finished_; }

 private:
  // Handler 1 posts the traffic; handler 2 subscribes and counts the notifications (a
  // subscriber is not told of the changes it made itself).
  class Client : public kl::Handler {
   public:
    void handleCmd(const kl::message& m, unsigned int cmd) override {
      if (cmd == kl::CMD_NOTIFY) {
        ++soak->notifications_;
        return;
      }
      kl::Handler::handleCmd(m, cmd);
    }
    Soak* soak = nullptr;
  };

  double elapsedSeconds() const { return (kl::getJiffies() - startTicks_) / 100.0; }
  bool ending() const { return kl::getJiffies() - startTicks_ >= endTicks_; }

  // Posts the next request of the mix, or ends the run once the time is up and nothing is
  // in flight.
  void next() {
    if (ending()) {
      if (inFlight_ == 0 && !finished_) {
        finished_ = true;
        shutdown();
      }
      return;
    }
    kl::message m;
    m.insert(kl::SYS_TO, {kObjectsProcess, kObjectsHandler});
    const unsigned int id = 1 + static_cast<unsigned int>(requests_ * 7919 % kObjectCount);
    switch (requests_ % 3) {
      case 0:
        m.insert(kl::SYS_CMD, kl::CMD_GETOBJ);
        m.insert(kl::STD_ID, id);
        break;
      case 1:
        m.insert(kl::SYS_CMD, kl::CMD_SETOBJ);
        m.insert(kl::STD_ID, id);
        m.insert_string(kl::STD_DESCR,
                        "port" + std::to_string(id) + "." + std::to_string(requests_ % 1000));
        break;
      default:
        m.insert(kl::SYS_CMD, kl::CMD_GETALL);
        break;
    }
    post(m);
  }

  void post(kl::message& m, const kl::message& extra = kl::message()) {
    ++requests_;
    ++inFlight_;
    client_.postMessage(m, this, onReply, extra, kTimeoutTicks);
  }

  static void onReply(void* self, const kl::message& reply, const kl::message& extra) {
    Soak* soak = static_cast<Soak*>(self);
    --soak->inFlight_;
    unsigned int err = 0;
    if (kl::isError(reply, &err, nullptr)) {
      if (err == kl::ERROR_TIMEOUT) {
        ++soak->unanswered_;
      } else {
        if (++soak->errors_ <= 3)
          fprintf(stderr, "soak: error reply %s\n", kl::getError(reply).c_str());
      }
    } else {
      ++soak->replies_;
      // A get-all goes on from where its chunk ended.
      if (reply.has(kl::STD_GETALLID) && !soak->ending()) {
        kl::message more;
        more.insert(kl::SYS_TO, {kObjectsProcess, kObjectsHandler});
        more.insert(kl::SYS_CMD, kl::CMD_GETALL);
        more.insert(kl::STD_GETALLID, reply.get(kl::STD_GETALLID, 0));
        soak->post(more);
        return;
      }
    }
    // A leave's reply starts no new request (next() then only sees whether the run is over).
    if (!extra.has(kl::STD_ID) || soak->ending()) soak->next();
  }

  static void onToggleSubscription(void* self) {
    Soak* soak = static_cast<Soak*>(self);
    const std::vector<unsigned int> path = {kObjectsProcess, kObjectsHandler};
    if (soak->subscribed_) {
      soak->watcher_.unsubscribe(path, kl::CMD_NOTIFY, kl::message());
    } else {
      soak->watcher_.subscribe(path, kl::CMD_NOTIFY, kl::message());
    }
    soak->subscribed_ = !soak->subscribed_;
    if (!soak->ending()) soak->addTimer(soak, onToggleSubscription, kSubscribeToggleTicks);
  }

  static void onLeave(void* self) {
    Soak* soak = static_cast<Soak*>(self);
    if (soak->ending()) return;
    kl::message m;
    m.insert(kl::SYS_TO, {1});
    m.insert(kl::SYS_CMD, kLoaderCmdLeave);
    m.insert(kl::STD_ID, kObjectsProcess);
    ++soak->leaves_;
    kl::message leave;
    leave.insert(kl::STD_ID, kObjectsProcess);  // marks the reply as the leave's
    soak->post(m, leave);
    soak->addTimer(soak, onLeave, kLeaveEveryTicks);
  }

  // Once a second: the loader's list of processes gives their pids.
  static void onSample(void* self) {
    Soak* soak = static_cast<Soak*>(self);
    if (soak->finished_) return;
    soak->sample(soak->loaderPid_, 0);
    soak->sample(getpid(), kSelf);
    kl::message m;
    m.insert(kl::SYS_TO, {1});
    m.insert(kl::SYS_CMD, kl::CMD_GETALL);
    soak->client_.postMessage(m, soak, onProcessList, kl::message(), kTimeoutTicks);
    if (++soak->samples_ % 30 == 0) {
      printf("soak: %.0f s, %lu requests, %lu replies, %lu in flight\n", soak->elapsedSeconds(),
             soak->requests_, soak->replies_ + soak->errors_,
             static_cast<unsigned long>(soak->inFlight_));
    }
    soak->addTimer(soak, onSample, 100);
  }

  static void onProcessList(void* self, const kl::message& reply, const kl::message&) {
    Soak* soak = static_cast<Soak*>(self);
    for (const kl::message::flat_message& flat : reply.get_message_array(kl::STD_OBJS)) {
      const kl::message process(flat);
      const pid_t pid = static_cast<pid_t>(process.get_u32(kProcessPidField, 0));
      if (pid > 0 && pid != getpid()) soak->sample(pid, process.get(kl::STD_ID, 0));
    }
  }

  void sample(pid_t pid, unsigned int processId) {
    const long kib = residentKib(pid);
    if (kib < 0) return;
    Series& s = memory_[pid];
    s.processId = processId;
    s.add(elapsedSeconds(), kib);
  }

  Client client_;
  Client watcher_;
  pid_t loaderPid_;
  unsigned int startTicks_ = 0;
  unsigned int endTicks_;
  unsigned long requests_ = 0, replies_ = 0, errors_ = 0, unanswered_ = 0, notifications_ = 0;
  unsigned int leaves_ = 0;
  unsigned int samples_ = 0;
  unsigned int inFlight_ = 0;
  bool subscribed_ = false;
  bool finished_ = false;
  std::map<pid_t, Series> memory_;
};

pid_t startLoader(const std::string& root, const char* loader, const char* objects,
                  const char* watcher) {
  // The object service says every change: millions of lines, not kept.
  const std::string log = "/dev/null";
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, 1);
    dup2(fd, 2);
    const std::string service = std::string(objects) + " 50 200";  // chunks of 50, 200 objects
    execl(loader, loader, service.c_str(), watcher, static_cast<char*>(nullptr));
    _exit(127);
  }
  const std::string socket = root + "/ram/kelosock";
  for (int waited = 0; waited < 500 && access(socket.c_str(), F_OK) != 0; ++waited) {
    usleep(10 * 1000);
  }
  usleep(300 * 1000);  // the services register
  return pid;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5 || atof(argv[1]) <= 0) {
    fprintf(stderr, "usage: kl_soak MINUTES LOADER OBJECTS_SERVICE WATCHER_SERVICE\n");
    return 2;
  }
  setvbuf(stdout, nullptr, _IOLBF, 0);
  char pattern[] = "/tmp/kl-soak-XXXXXX";
  if (mkdtemp(pattern) == nullptr) {
    perror("kl_soak: mkdtemp");
    return 1;
  }
  const std::string root = pattern;
  setenv("KL_ROOT", root.c_str(), 1);
  const pid_t loader = startLoader(root, argv[2], argv[3], argv[4]);
  bool ok = false;
  {
    Soak soak(loader, static_cast<unsigned int>(atof(argv[1]) * 60));
    soak.start();
    soak.run();
    ok = soak.report();
  }
  kill(loader, SIGTERM);
  waitpid(loader, nullptr, 0);
  const std::string remove = "rm -rf '" + root + "'";
  if (system(remove.c_str()) != 0) fprintf(stderr, "kl_soak: could not remove %s\n", pattern);
  printf("soak: %s\n", ok ? "no reply lost, no process growing" : "FAILED");
  return ok ? 0 : 1;
}
