// An example service: handler 2 of process 5 keeps a list of named objects and answers the
// standard object commands. Started by kl-loader (its connection is descriptor 3):
//
//   kl-loader build/examples/objects_service &
//   kl-msg call 5/2 u32:SYS_CMD=CMD_GETALL
//   kl-msg call 5/2 u32:SYS_CMD=CMD_SETOBJ u32:STD_ID=2 string:STD_DESCR=uplink
//
// Long lists are returned in chunks: a reply holds at most `chunk` objects (first argument,
// default 50) and, when more follow, the STD_GETALLID to ask from next. Changes are sent
// to subscribers. The service offers to leave when idle (a loader started with
// --idle-leave asks it) and gets its subscribers back when it is started again.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "kl/kl.h"

namespace {

constexpr unsigned int kProcessId = 5;
constexpr unsigned int kHandlerId = 2;
constexpr uint32_t kMtuField = 0x08000001;  // u32 field 1 of each object

class ObjectList : public kl::Handler {
 public:
  ObjectList(unsigned int count, unsigned int chunk) : chunk_(chunk) {
    for (unsigned int id = 1; id <= count; ++id) {
      kl::message obj;
      obj.insert(kl::STD_ID, id);
      obj.insert_string(kl::STD_DESCR, "port" + std::to_string(id));
      obj.insert_u32(kMtuField, 1500);
      objects_[id] = obj;
    }
  }

  kl::message cmdGetAll(const kl::message&, unsigned int startId, unsigned int) override {
    std::vector<kl::message::flat_message> chunk;
    auto it = startId == kl::BADID ? objects_.begin() : objects_.lower_bound(startId);
    for (; it != objects_.end() && chunk.size() < chunk_; ++it) chunk.emplace_back(it->second);
    kl::message reply;
    reply.insert_message_array(kl::STD_OBJS, chunk);
    if (it != objects_.end()) reply.insert(kl::STD_GETALLID, it->first);
    return reply;
  }

  kl::message cmdGetObj(const kl::message&, unsigned int id) override {
    auto it = objects_.find(id);
    return it == objects_.end() ? kl::errorMsg(kl::ERROR_UNKNOWNID, "") : it->second;
  }

  kl::message cmdSetObj(const kl::message& m, unsigned int id) override {
    auto it = objects_.find(id);
    if (it == objects_.end()) return kl::errorMsg(kl::ERROR_UNKNOWNID, "");
    kl::message changed = m;
    kl::cleanSys(changed);
    it->second.merge(changed);
    fprintf(stderr, "objects_service: object %u changed\n", id);
    notifyChange(id, m);
    return kl::message();
  }

  kl::message getObject(unsigned int id) override {
    auto it = objects_.find(id);
    return it == objects_.end() ? kl::message() : it->second;
  }

  unsigned int getObjectCount() override { return static_cast<unsigned int>(objects_.size()); }

  void subscribed(const kl::message& record) override {
    const std::vector<unsigned int> from = record.get_u32_array(kl::SYS_FROM);
    fprintf(stderr, "objects_service: subscriber %u\n", from.empty() ? 0 : from.front());
  }

 private:
  unsigned int chunk_;
  std::map<unsigned int, kl::message> objects_;
};

}  // namespace

int main(int argc, char** argv) {
  const unsigned int chunk = argc > 1 ? static_cast<unsigned int>(atoi(argv[1])) : 50;
  const unsigned int count = argc > 2 ? static_cast<unsigned int>(atoi(argv[2])) : 300;
  kl::Looper looper(kl::Looper::kInheritOrConnect, kProcessId, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  ObjectList objects(count, chunk == 0 ? 50 : chunk);
  looper.addHandler(kHandlerId, &objects);
  looper.setupLeave(1);  // may leave when idle: the loader starts it again on demand
  fprintf(stderr, "objects_service: %u objects, up to %u a reply\n", count, chunk);
  looper.run();
  return 0;
}
