// An example client: fetches the whole object list of objects_service (handler 2 of
// process 5, which answers CMD_GETALL in chunks) three times, once with each fetcher, and
// prints how many objects each got:
//
//   kl-loader "build/examples/objects_service 50 300" &
//   build/examples/reget_client
//
// FullReget blocks for each chunk; AsyncReget and an AsyncGetall job are driven by the
// loop. An AsyncGetall job gives no end-of-list call, so the client watches for its job
// to leave AsyncGetall::instances. Exits with status 1 when a fetch fails.
#include <cstdio>

#include "kl/kl.h"

namespace {

constexpr unsigned int kProcess = 5;
constexpr unsigned int kHandler = 2;
constexpr unsigned int kJobHandler = 1;  // this client's Handler for AsyncGetall replies

class Client : public kl::Looper {
 public:
  Client() : kl::Looper(kConnect, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0) {
    addHandler(kJobHandler, &jobs_);
  }

  void fetchAll() {
    kl::FullReget full;
    kl::message base;
    base.insert(kl::SYS_TO, {kProcess, kHandler});
    full.setBase(base);
    unsigned int count = 0;
    while (!full.isEmpty()) {
      full.pop();
      ++count;
    }
    report("FullReget", count, full.reply());

    base.insert(kl::SYS_CMD, kl::CMD_GETALL);
    async_.start(base, this, onAsyncObject, onAsyncDone, kl::AsyncReget::kDefaultTimeout);
  }

  int status() const { return status_; }

 private:
  void report(const char* fetcher, unsigned int count, const kl::message& last) {
    if (kl::isError(last, nullptr, nullptr)) {
      printf("%s failed after %u objects: %s\n", fetcher, count, kl::getError(last).c_str());
      status_ = 1;
    } else {
      printf("%s: %u objects (the service counts %u)\n", fetcher, count,
             last.get(kl::STD_OBJ_COUNT, 0));
    }
  }

  static void onAsyncObject(void* self, const kl::message&) {
    ++static_cast<Client*>(self)->asyncCount_;
  }
  static void onAsyncDone(void* self, const kl::message& reply) {
    Client* client = static_cast<Client*>(self);
    client->report("AsyncReget", client->asyncCount_, reply);
    client->job_ = kl::sendAsyncGetall(&client->jobs_, client, onJobObject, kProcess, kHandler,
                                       kl::CMD_GETALL);
    client->addTimer(client, onWatch, 1);
  }
  static void onJobObject(void* self, const kl::message&) {
    ++static_cast<Client*>(self)->jobCount_;
  }
  // The job has ended when it is no longer listed.
  static void onWatch(void* self) {
    Client* client = static_cast<Client*>(self);
    for (const kl::AsyncGetall* job : kl::AsyncGetall::instances) {
      if (job->number() == client->job_) {
        client->addTimer(client, onWatch, 1);
        return;
      }
    }
    printf("AsyncGetall: %u objects\n", client->jobCount_);
    client->shutdown();
  }

  kl::Handler jobs_;
  kl::AsyncReget async_;
  unsigned int asyncCount_ = 0;
  unsigned int job_ = 0;
  unsigned int jobCount_ = 0;
  int status_ = 0;
};

}  // namespace

int main() {
  Client client;
  client.fetchAll();
  client.run();
  return client.status();
}
