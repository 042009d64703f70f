// File: kl/base/ipaddr6.h
//
// IPAddr6: a plain 16-byte IPv6 address value, the type of addr6 message fields. The bytes
// are kept in network order exactly as given; the default value is all zeros.
#ifndef KL_BASE_IPADDR6_H_
#define KL_BASE_IPADDR6_H_

#include <cstring>

struct IPAddr6 {
  unsigned char bytes[16] = {};

  bool operator==(const IPAddr6& o) const { return memcmp(bytes, o.bytes, 16) == 0; }
  bool operator!=(const IPAddr6& o) const { return !(*this == o); }
};

#endif  // KL_BASE_IPADDR6_H_
