// Logging through kl::lstream: a few lines under three topics, one stream echoed to the
// terminal, and a topic that the log service mutes. Run it with a log service listening
// (the demo starts kl-logd with --mute 3 under a temporary KL_ROOT).
#include <cstdio>
#include <iostream>

#include "kl/kl.h"

namespace {

// The topic numbers are the service's own choice.
enum Topic : unsigned int { TOPIC_LINK = 1, TOPIC_ROUTE = 2, TOPIC_DEBUG = 3 };

class DemoRunner : public kl::Runner {
 public:
  // Runs the loop for `ticks` hundredths of a second: long enough for the log service's
  // mute notices to arrive.
  void runFor(unsigned int ticks) {
    stop_ = false;
    addTimer(
        this, [](void* self) { static_cast<DemoRunner*>(self)->stop_ = true; }, ticks);
    run();
  }
};

}  // namespace

int main() {
  DemoRunner runner;
  kl::lstream link(TOPIC_LINK, 0);
  kl::lstream route(std::cout, TOPIC_ROUTE, 0);  // also echoed to standard output
  kl::lstream debug(TOPIC_LINK, TOPIC_DEBUG, 0);

  link << "eth0: link up, " << 1000 << " Mbit/s full duplex" << std::endl;
  route << "route 10.0.0.0/8 via 192.168.1.1 added" << std::endl;
  debug << "eth0: rx ring 0 refilled" << std::endl;  // the service drops it and mutes us

  runner.runFor(20);
  printf("debug stream muted by the service: %s\n", debug.isMuted() ? "yes" : "no");
  for (int i = 1; i <= 3; ++i) {
    // Skips building lines nobody wants.
    if (!debug.isMuted()) debug << "eth0: rx ring " << i << " refilled" << std::endl;
  }
  link << "eth0: link down" << std::endl;
  route << "route 10.0.0.0/8 withdrawn" << std::endl;
  runner.shutdown();
  return 0;
}
