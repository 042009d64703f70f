#include "kl/util/base64.h"

namespace kl {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";

// Each byte's index in the alphabet, 255 when absent. Built over the alphabet's 66 bytes,
// its terminating NUL included, so "=" maps to 64 and NUL to 65: both decode without error.
struct ReverseTable {
  unsigned char value[256];
  constexpr ReverseTable() : value() {
    for (unsigned char& v : value) v = 255;
    for (unsigned i = 0; i < sizeof kAlphabet; ++i)
      value[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
  }
};
constexpr ReverseTable kReverse;

}  // namespace

int base64Encode(const unsigned char* in, unsigned len, char* out, unsigned cap) {
  const unsigned need = (len + 2) / 3 * 4;
  if (cap < need) return -1;
  char* p = out;
  unsigned i = 0;
  for (; i + 3 <= len; i += 3) {
    const unsigned v = in[i] << 16 | in[i + 1] << 8 | in[i + 2];
    *p++ = kAlphabet[v >> 18];
    *p++ = kAlphabet[(v >> 12) & 63];
    *p++ = kAlphabet[(v >> 6) & 63];
    *p++ = kAlphabet[v & 63];
  }
  if (len - i == 1) {
    *p++ = kAlphabet[in[i] >> 2];
    *p++ = kAlphabet[(in[i] & 3) << 4];
    *p++ = '=';
    *p++ = '=';
  } else if (len - i == 2) {
    *p++ = kAlphabet[in[i] >> 2];
    *p++ = kAlphabet[(in[i] & 3) << 4 | in[i + 1] >> 4];
    *p++ = kAlphabet[(in[i + 1] & 15) << 2];
    *p++ = '=';
  }
  return static_cast<int>(p - out);
}

int base64Decode(const char* in, unsigned len, unsigned char* out, unsigned cap) {
  const unsigned groups = len / 4;
  const unsigned n = groups * 3;
  if (cap < n) return -1;
  if (n == 0) return 0;
  for (unsigned g = 0; g < groups; ++g) {
    unsigned v[4];
    for (int k = 0; k < 4; ++k) {
      v[k] = kReverse.value[static_cast<unsigned char>(in[4 * g + k])];
      if (v[k] == 255) return -1;
    }
    out[3 * g] = static_cast<unsigned char>(v[0] << 2 | v[1] >> 4);
    out[3 * g + 1] = static_cast<unsigned char>(v[1] << 4 | v[2] >> 2);
    out[3 * g + 2] = static_cast<unsigned char>(v[2] << 6 | v[3]);
  }
  const char* last = in + 4 * (groups - 1);
  if (last[2] == '=') return static_cast<int>(n - 2);
  if (last[3] == '=') return static_cast<int>(n - 1);
  return static_cast<int>(n);
}

std::string base64Encode(const std::string& in) {
  std::string out((in.size() + 2) / 3 * 4, '\0');
  base64Encode(reinterpret_cast<const unsigned char*>(in.data()), in.size(), &out[0], out.size());
  return out;
}

bool base64Decode(const std::string& in, std::string& out) {
  out.assign(in.size() / 4 * 3, '\0');
  const int n =
      base64Decode(in.data(), in.size(), reinterpret_cast<unsigned char*>(&out[0]), out.size());
  if (n < 0) return false;
  out.resize(n);
  return true;
}

}  // namespace kl
