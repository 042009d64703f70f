// File: kl/testing/hex.h
//
// Hex text <-> bytes for tests: golden encodings are written as "4D 32 01 00 ...".
#ifndef KL_TESTING_HEX_H_
#define KL_TESTING_HEX_H_

#include <cctype>
#include <string>
#include <vector>

namespace kl {
namespace testing {

// Bytes of a hex text; spaces are ignored. REQUIRES: an even number of hex digits.
inline std::vector<unsigned char> fromHex(const std::string& text) {
  std::vector<unsigned char> out;
  int high = -1;
  for (char ch : text) {
    if (!isxdigit(static_cast<unsigned char>(ch))) continue;
    const int v = isdigit(static_cast<unsigned char>(ch)) ? ch - '0' : (tolower(ch) - 'a' + 10);
    if (high < 0) {
      high = v;
    } else {
      out.push_back(static_cast<unsigned char>(high << 4 | v));
      high = -1;
    }
  }
  return out;
}

// "4D 32 01" form: upper-case digits, one space between bytes.
inline std::string toHex(const std::vector<unsigned char>& bytes) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char b : bytes) {
    if (!out.empty()) out += ' ';
    out += kDigits[b >> 4];
    out += kDigits[b & 0xf];
  }
  return out;
}

}  // namespace testing
}  // namespace kl

#endif  // KL_TESTING_HEX_H_
