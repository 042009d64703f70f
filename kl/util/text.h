// File: kl/util/text.h
//
// Small text tools: splitting, trimming, regular-expression match, HTML and SQL escaping,
// and IPv4 address and prefix parsing. Free functions without state, at global scope.
#ifndef KL_UTIL_TEXT_H_
#define KL_UTIL_TEXT_H_

#include <string>
#include <vector>

// Appends to `out` (without clearing it) every maximal run of characters not in `delims`;
// no empty strings are ever appended: split("  a  b ", " ") appends "a" and "b".
void split(const std::string& s, const char* delims, std::vector<std::string>& out);
// `s` without its leading and trailing characters that occur in `chars`.
std::string trim(const std::string& s, const char* chars);
// Whether the POSIX extended regular expression `pattern` matches anywhere in `s`. An empty
// pattern matches everything; one that does not compile matches nothing.
bool regExpMatch(const std::string& s, const std::string& pattern);
// Every "'" doubled, for a quoted SQL literal.
std::string sqlsafe(const std::string& s);
// &, ", ', < and > replaced by their HTML entities (' by "&#039;").
std::string htmlsafe(const std::string& s);

// An IPv4 address in any form inet_aton accepts ("10.0.0.1", "10.1", "0x0a000001"), as a
// number whose first octet is the most significant byte. `addr` may be null.
bool parseAddress(const std::string& s, unsigned* addr);
// "a.b.c.d/n" or an address alone, whose mask follows its class (A 0xFF000000, B 0xFFFF0000,
// C 0xFFFFFF00; other addresses fail). n is 0-32 for the usual masks (33 to 64 give 0).
// Host bits are not checked. Both outputs must be given.
bool parsePrefix(const std::string& s, unsigned* addr, unsigned* mask);

#endif  // KL_UTIL_TEXT_H_
