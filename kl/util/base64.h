// File: kl/util/base64.h
//
// Base64 with the standard alphabet "A-Za-z0-9+/" and "=" padding.
//
// The decoder is as lenient as the system's own: "=" is accepted anywhere (its bits take
// part in the bytes written), a NUL byte is accepted as a character, and only whole groups
// of four characters are decoded (a remainder is ignored). Any other character outside the
// alphabet is an error.
#ifndef KL_UTIL_BASE64_H_
#define KL_UTIL_BASE64_H_

#include <string>

namespace kl {

// Encodes len bytes into out: ((len + 2) / 3) * 4 characters, no terminating NUL. Returns
// the number of characters, or -1 (nothing written) when cap is smaller than that.
int base64Encode(const unsigned char* in, unsigned len, char* out, unsigned cap);
// Decodes the whole groups of four of in[0, len). Needs cap >= (len / 4) * 3 (all those
// bytes may be written), else -1. Returns the decoded length (less one per trailing "=" of
// the last group), or -1 on a character outside the alphabet.
int base64Decode(const char* in, unsigned len, unsigned char* out, unsigned cap);
std::string base64Encode(const std::string& in);
// False on a bad character (out then holds (size / 4) * 3 bytes of no meaning).
bool base64Decode(const std::string& in, std::string& out);

}  // namespace kl

#endif  // KL_UTIL_BASE64_H_
