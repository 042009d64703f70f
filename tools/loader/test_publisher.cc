// The test publisher: see tools/loader/test_publisher.h. Its connection is descriptor 3
// when kl-loader starts it.
#include "tools/loader/test_publisher.h"

#include <cstring>
#include <map>
#include <string>

#include "kl/looper/handler.h"
#include "kl/looper/looper.h"
#include "kl/message/system.h"

namespace kl {
namespace testpub {
namespace {

class Objects : public Handler {
 public:
  Objects() {
    for (unsigned int id = 1; id <= kInitialObjects; ++id) {
      object(id).insert_string(STD_DESCR, "port" + std::to_string(id));
    }
  }

  void handleCmd(const message& m, unsigned int cmd) override {
    const size_t before = subscriptions().size();
    Handler::handleCmd(m, cmd);
    if (cmd == CMD_UNSUBSCRIBE && subscriptions().size() < before) ++unsubscribes_;
  }

  message cmdSetObj(const message& m, unsigned int id) override {
    message& obj = object(id);
    message reverse;
    reverse.insert(STD_ID, id);
    reverse.insert_string(STD_DESCR, obj.get_string(STD_DESCR, ""));
    obj.insert_string(STD_DESCR, m.get_string(STD_DESCR, ""));
    notifyChange(id, m);
    sendUndo(m, reverse, kUndoDescription, CMD_SETOBJ);
    return message();
  }

  message cmdUnknown(const message& m, unsigned int cmd) override {
    if (cmd == kCmdChange) return change(m);
    if (cmd == kCmdSubscribers) {
      message reply;
      std::vector<message::flat_message> records(subscriptions().begin(), subscriptions().end());
      reply.insert_message_array(STD_OBJS, records);
      reply.insert_u32(kUnsubscribesField, unsubscribes_);
      return reply;
    }
    return Handler::cmdUnknown(m, cmd);
  }

  message getObject(unsigned int id) override { return object(id); }

 private:
  message change(const message& m) {
    const std::vector<unsigned int> ids = m.get_u32_array(kIdsField);
    const std::vector<unsigned int> nextIds = m.get_u32_array(kNextIdsField);
    for (size_t i = 0; i < ids.size(); ++i) {
      message& obj = object(ids[i]);
      if (i < nextIds.size()) obj.insert(STD_NEXTID, nextIds[i]);
      if (m.size_field(STD_DESCR) != 0) obj.insert_string(STD_DESCR, m.get_string(STD_DESCR, ""));
      notifyChange(ids[i]);
    }
    return message();
  }

  message& object(unsigned int id) {
    message& obj = objects_[id];
    if (!obj.has(STD_ID)) obj.insert(STD_ID, id);
    return obj;
  }

  std::map<unsigned int, message> objects_;
  unsigned int unsubscribes_ = 0;
};

}  // namespace
}  // namespace testpub
}  // namespace kl

int main(int argc, char** argv) {
  kl::Looper looper(kl::Looper::kInheritOrConnect, kl::testpub::kPublisherId, 0, 0, 0, 0, 0, 0, 0,
                    0, 0, 0, 0);
  kl::testpub::Objects objects;
  looper.addHandler(kl::testpub::kObjectsHandler, &objects);
  if (argc > 1 && strcmp(argv[1], "--leave") == 0) looper.setupLeave(1);
  looper.run();
  return 0;
}
