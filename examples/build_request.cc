// Builds the get-all request that a configuration front end sends to a service, with two
// objects attached the way a set request would carry them, and writes its encoding to
// standard output as hex text (or raw bytes with --raw). A reader decodes it with
//   build_request | kl-msg decode
#include <cstdio>
#include <cstring>
#include <vector>

#include "kl/kl.h"

namespace {

// One object of a service's list, as a nested message.
kl::message object(unsigned int id, const char* descr, bool disabled) {
  kl::message obj;
  obj.insert(kl::STD_ID, id);
  obj.insert_string(kl::STD_DESCR, descr);
  obj.insert_bool(kl::STD_DISABLED, disabled);
  return obj;
}

}  // namespace

int main(int argc, char** argv) {
  const bool raw = argc > 1 && strcmp(argv[1], "--raw") == 0;

  kl::message request;
  request.insert(kl::SYS_TO, {5});        // the loader routes on this path
  request.insert(kl::SYS_FROM, {1, 17});  // the way back
  request.insert(kl::SYS_CMD, kl::CMD_GETALL);
  kl::setRequestID(request, 42);
  request.insert_bool(kl::SYS_REPLYEXP, true);
  request.insert_string(kl::SYS_USER, "admin");
  request.insert_message_array(kl::STD_OBJS,
                               {object(1, "uplink", false), object(2, "spare", true)});

  std::vector<unsigned char> bytes;
  request.flatten(bytes);
  if (raw) {
    fwrite(bytes.data(), 1, bytes.size(), stdout);
  } else {
    for (size_t i = 0; i < bytes.size(); ++i)
      printf("%02X%c", bytes[i], (i % 16 == 15) ? '\n' : ' ');
    printf("\n");
  }
  return 0;
}
