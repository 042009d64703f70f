#include "kl/util/text.h"

#include <arpa/inet.h>
#include <regex.h>

#include <cstring>

#include "kl/util/rate_limit.h"

void split(const std::string& s, const char* delims, std::vector<std::string>& out) {
  size_t start = s.find_first_not_of(delims);
  while (start != std::string::npos) {
    const size_t end = s.find_first_of(delims, start);
    out.push_back(s.substr(start, end == std::string::npos ? std::string::npos : end - start));
    start = end == std::string::npos ? end : s.find_first_not_of(delims, end);
  }
}

std::string trim(const std::string& s, const char* chars) {
  const size_t first = s.find_first_not_of(chars);
  if (first == std::string::npos) return "";
  return s.substr(first, s.find_last_not_of(chars) - first + 1);
}

bool regExpMatch(const std::string& s, const std::string& pattern) {
  if (pattern.empty()) return true;
  regex_t re;
  if (regcomp(&re, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
  const bool match = regexec(&re, s.c_str(), 0, nullptr, 0) == 0;
  regfree(&re);
  return match;
}

std::string sqlsafe(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s) {
    out += c;
    if (c == '\'') out += '\'';
  }
  return out;
}

std::string htmlsafe(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  for (char c : s) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#039;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
        break;
    }
  }
  return out;
}

bool parseAddress(const std::string& s, unsigned* addr) {
  in_addr a;
  if (inet_aton(s.c_str(), &a) == 0) return false;
  if (addr != nullptr) *addr = ntohl(a.s_addr);
  return true;
}

bool parsePrefix(const std::string& s, unsigned* addr, unsigned* mask) {
  std::vector<std::string> parts;
  split(s, "/", parts);
  if (parts.empty() || parts.size() > 2 || !parseAddress(parts[0], addr)) return false;
  if (parts.size() == 1) {
    if ((*addr & 0x80000000u) == 0) {
      *mask = 0xFF000000u;
    } else if ((*addr & 0xC0000000u) == 0x80000000u) {
      *mask = 0xFFFF0000u;
    } else if ((*addr & 0xE0000000u) == 0xC0000000u) {
      *mask = 0xFFFFFF00u;
    } else {
      return false;
    }
    return true;
  }
  unsigned n;
  if (!parseNumber(parts[1], &n)) return false;
  const unsigned shift = (32 - n) % 64;
  *mask = (n == 0 || shift >= 32) ? 0 : 0xFFFFFFFFu << shift;
  return true;
}
