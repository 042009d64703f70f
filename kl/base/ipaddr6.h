// File: kl/base/ipaddr6.h
//
// IPAddr6: a plain 16-byte IPv6 address value, the type of addr6 message fields. The bytes
// are kept in network order exactly as given; the default value is all zeros.
#ifndef KL_BASE_IPADDR6_H_
#define KL_BASE_IPADDR6_H_

#include <cstring>

// An IPv6 address, the value of an addr6 field: 16 bytes in network order.
struct IPAddr6 {
  unsigned char bytes[16] = {};  // all zeros: the unspecified address

  // Byte-wise equality.
  bool operator==(const IPAddr6& o) const { return memcmp(bytes, o.bytes, 16) == 0; }
  bool operator!=(const IPAddr6& o) const { return !(*this == o); }  // byte-wise inequality
};

#endif  // KL_BASE_IPADDR6_H_
