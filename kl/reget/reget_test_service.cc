// The service behind the fetchers' end-to-end tests, started by kl-loader as process 0x40:
//   handler 2 serves a list of five objects in two chunks: a request without STD_GETALLID
//             gets objects 1, 2, 3 and STD_GETALLID 7, one with STD_GETALLID 7 gets objects
//             4 and 5 and no continuation, any other start id ERROR_UNKNOWNNEXTID. It
//             answers every command so, and records each request; kCmdHistory returns the
//             recorded requests in STD_OBJS and forgets them.
//   handler 3 answers every request with ERROR_NOTALLOWED "list refused".
//   handler 4 never answers.
#include <vector>

#include "kl/looper/looper.h"
#include "kl/message/system.h"

namespace {

constexpr unsigned int kProcessId = 0x40;
constexpr unsigned int kCmdHistory = 0xfd0101;
constexpr unsigned int kContinuation = 7;

class ChunkedList : public kl::Handler {
 public:
  void handleCmd(const kl::message& m, unsigned int cmd) override {
    if (cmd == kCmdHistory) {
      kl::message reply;
      reply.insert_message_array(kl::STD_OBJS, history_);
      history_.clear();
      replyMessage(m, reply);
      return;
    }
    history_.emplace_back(m);
    replyMessage(m, chunk(m.get(kl::STD_GETALLID, kl::BADID)));
  }

 private:
  static kl::message chunk(unsigned int startId) {
    unsigned int first, last;
    if (startId == kl::BADID) {
      first = 1;
      last = 3;
    } else if (startId == kContinuation) {
      first = 4;
      last = 5;
    } else {
      return kl::errorMsg(kl::ERROR_UNKNOWNNEXTID, "");
    }
    std::vector<kl::message::flat_message> objs;
    for (unsigned int id = first; id <= last; ++id) {
      kl::message obj;
      obj.insert(kl::STD_ID, id);
      obj.insert_string(kl::STD_DESCR, "object " + std::to_string(id));
      objs.emplace_back(obj);
    }
    kl::message reply;
    reply.insert_message_array(kl::STD_OBJS, objs);
    if (startId == kl::BADID) reply.insert(kl::STD_GETALLID, kContinuation);
    return reply;
  }

  std::vector<kl::message::flat_message> history_;
};

class Refuser : public kl::Handler {
 public:
  void handleCmd(const kl::message& m, unsigned int) override {
    replyError(m, kl::ERROR_NOTALLOWED, "list refused");
  }
};

class Silent : public kl::Handler {
 public:
  void handle(const kl::message&) override {}
};

}  // namespace

int main() {
  kl::Looper looper(kl::Looper::kInherit, kProcessId, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  ChunkedList list;
  Refuser refuser;
  Silent silent;
  looper.addHandler(2, &list);
  looper.addHandler(3, &refuser);
  looper.addHandler(4, &silent);
  looper.run();
  return 0;
}
