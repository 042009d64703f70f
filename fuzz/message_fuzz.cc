// Decodes arbitrary bytes in each decode mode. Whatever decodes must re-encode to bytes that
// decode to an equal message, and must dump without fault on a stream and into a Dumper.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <vector>

#include "kl/base/check.h"
#include "kl/message/dump.h"
#include "kl/message/message.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 0xffffffffu) return 0;
  const kl::message::flatten_type modes[] = {kl::message::flatten_full,
                                             kl::message::flatten_keep_passthrough,
                                             kl::message::flatten_no_header};
  for (kl::message::flatten_type mode : modes) {
    kl::message m;
    if (!m.unflatten(data, static_cast<unsigned int>(size), mode)) continue;
    std::vector<unsigned char> again;
    m.flatten(again);
    KL_CHECK(again.size() <= m.max_length());
    kl::message back;
    KL_CHECK(back.unflatten(again.data(), again.size(), kl::message::flatten_full));
    KL_CHECK(back == m);
    KL_CHECK(m.includes(back) && back.includes(m));

    std::ostringstream text;
    m.dump2(text, "", 0);
    char buf[512];
    kl::Dumper dumper(buf, sizeof buf);
    m.dump2(dumper, "", 0);
  }
  return 0;
}
