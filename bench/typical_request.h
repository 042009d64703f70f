// File: bench/typical_request.h
//
// The typical request the message figures are taken on: the system header (paths, type,
// request id, command, policy, reply flag, user) plus ten nested objects of six fields each
// (id, description, MTU, byte counter, disabled flag, name). Shared by message_bench and
// message_heap so that both measure the same message.
#ifndef BENCH_TYPICAL_REQUEST_H_
#define BENCH_TYPICAL_REQUEST_H_

#include <string>
#include <utility>
#include <vector>

#include "kl/kl.h"

namespace klbench {

constexpr int kObjects = 10;
constexpr uint32_t kMtu = 0x0fd0001;       // local u32
constexpr uint32_t kRxBytes = 0x10fd0002;  // local u64
constexpr uint32_t kName = 0x20fd0003;     // local string

// Object `i` of the request's list.
inline kl::message buildKlObject(int i) {
  kl::message obj;
  obj.insert(kl::STD_ID, 100 + i);
  obj.insert_string(kl::STD_DESCR, "uplink port " + std::to_string(i));
  obj.insert_u32(kMtu, 1500);
  obj.insert_u64(kRxBytes, 123456789012ull + i);
  obj.insert_bool(kl::STD_DISABLED, i % 3 == 0);
  obj.insert_string(kName, "ether" + std::to_string(i));
  return obj;
}

// The request, built field by field as a service would.
inline kl::message buildKlRequest() {
  kl::message m;
  m.insert(kl::SYS_TO, {5, 3});
  m.insert(kl::SYS_FROM, {1, 17});
  m.insert(kl::SYS_TYPE, kl::TYPE_REQUEST);
  m.insert(kl::SYS_REQID, 4711);
  m.insert(kl::SYS_CMD, kl::CMD_SETOBJ);
  m.insert(kl::SYS_POLICY, 0x1f);
  m.insert_bool(kl::SYS_REPLYEXP, true);
  m.insert_string(kl::SYS_USER, "admin");
  std::vector<kl::message::flat_message> objs;
  objs.reserve(kObjects);
  for (int i = 0; i < kObjects; ++i) objs.emplace_back(buildKlObject(i));
  m.insert_message_array(kl::STD_OBJS, std::move(objs));
  return m;
}

}  // namespace klbench

#endif  // BENCH_TYPICAL_REQUEST_H_
