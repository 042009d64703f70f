// An example service: process 6 subscribes to the object list of handler 2 in process 5
// (examples/objects_service.cc) and prints each change it is told of.
//
//   kl-loader build/examples/objects_service build/examples/watcher_service
//
// Its subscription lives in the objects service; when that service leaves and is started
// again, the subscription comes back with the service's persistent data and the watcher
// keeps getting changes without subscribing again.
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "kl/kl.h"

namespace {

constexpr unsigned int kProcessId = 6;
const std::vector<unsigned int> kObjects = {5, 2};

class Watcher : public kl::Looper {
 public:
  Watcher() : kl::Looper(kInheritOrConnect, kProcessId, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0) {}

  void handleCmd(const kl::message& m, unsigned int cmd) override {
    if (cmd != kl::CMD_NOTIFY) {
      kl::Looper::handleCmd(m, cmd);
      return;
    }
    for (const kl::message::flat_message& flat : m.get_message_array(kl::STD_OBJS)) {
      const kl::message obj(flat);
      printf("watcher: object %u is now \"%s\" (%u objects)\n", obj.get(kl::STD_ID, 0),
             obj.get_string(kl::STD_DESCR, "").c_str(), m.get(kl::STD_OBJ_COUNT, 0));
    }
    fflush(stdout);
  }
};

// Waits until process 5 answers: services started together register in any order, and a
// subscription sent before the object service exists would meet a broken path.
void awaitObjectService(Watcher& watcher) {
  for (;;) {
    kl::message noop;
    noop.insert(kl::SYS_TO, {kObjects.front()});
    noop.insert(kl::SYS_CMD, kl::CMD_NOOP);
    if (!kl::isError(watcher.exchangeMessage(noop, 100), nullptr, nullptr)) return;
    usleep(50 * 1000);
  }
}

}  // namespace

int main() {
  Watcher watcher;
  awaitObjectService(watcher);
  watcher.subscribe(kObjects, kl::CMD_NOTIFY, kl::message());
  printf("watcher: subscribed to 5/2\n");
  fflush(stdout);
  watcher.run();
  return 0;
}
