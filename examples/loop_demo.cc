// The event loop at work: a periodic timer, a signal handled on the loop thread, and a
// SIGUSR2 snapshot of the crash report printed on the terminal while the process runs on.
#include <signal.h>
#include <unistd.h>

#include <cstdio>

#include "kl/kl.h"

namespace {

class DemoRunner : public kl::Runner {
 public:
  void stop() { stop_ = true; }
};

struct Demo {
  DemoRunner runner;
  int ticks = 0;

  // Re-arms itself: timers are one-shot.
  void tick() {
    printf("tick %d (jiffies %u)\n", ++ticks, kl::getJiffies());
    if (ticks == 3) {
      printf("raising SIGHUP\n");
      raise(SIGHUP);
    }
    if (ticks < 5) kl::addTimer(this, &Demo::tick, 20);
  }

  static void onHangup(void* self, int sig) {
    Demo* demo = static_cast<Demo*>(self);
    printf("signal %d handled on the loop thread\n", sig);
    kl::message request;
    request.insert(kl::SYS_CMD, kl::CMD_GETALL);
    request.insert_string(kl::STD_DESCR, "demo request");
    kl::MessageBacktraceInfo info("handling demo request", &request);
    printf("raising SIGUSR2: the snapshot report follows\n");
    fflush(stdout);
    raise(SIGUSR2);
    printf("...and the process runs on\n");
    demo->runner.addTimer(
        demo, [](void* d) { static_cast<Demo*>(d)->runner.stop(); }, 50);
  }
};

}  // namespace

int main() {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  Demo demo;
  demo.runner.addSighandler(SIGHUP, &demo, Demo::onHangup, true);
  kl::addTimer(&demo, &Demo::tick, 20);
  demo.runner.run();
  demo.runner.shutdown();
  printf("loop stopped after %d ticks\n", demo.ticks);
  return 0;
}
