#include "kl/util/convert.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "kl/base/root.h"

namespace {

// Lower case, upper case, lower case again: the printers index into the last sixteen or the
// first thirty-two characters.
const char kHexDigits[] = "0123456789abcdef0123456789ABCDEF0123456789abcdef";

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// The shared scheme of bytes2str and speed2str: formats[0] for plain values, then one per
// unit (Kib, Mib, Gib).
std::string unitText(unsigned long long n, const char* const formats[4]) {
  char buf[64];
  if (n < 2048) {
    snprintf(buf, sizeof buf, formats[0], n);
    return buf;
  }
  const int shift = n < (1ull << 21) ? 10 : n < (1ull << 31) ? 20 : 30;
  const unsigned digit = static_cast<unsigned>((n & ((1ull << shift) - 1)) % 10);
  snprintf(buf, sizeof buf, formats[shift / 10], n >> shift, digit);
  return buf;
}

// Multiplier of a str2duration unit at *p, advancing past it; 0 for an unknown unit.
uint64_t durationUnit(const char*& p) {
  switch (*p) {
    case 'w':
      ++p;
      return 604800ull * 1000000000ull;
    case 'd':
      ++p;
      return 86400ull * 1000000000ull;
    case 'h':
      ++p;
      return 3600ull * 1000000000ull;
    case 's':
      ++p;
      return 1000000000ull;
    case 'm':
      if (p[1] == 's') {
        p += 2;
        return 1000000ull;
      }
      ++p;
      return 60ull * 1000000000ull;
    case 'u':
      if (p[1] != 's') return 0;
      p += 2;
      return 1000ull;
    case 'n':
      if (p[1] != 's') return 0;
      p += 2;
      return 1ull;
    default:
      return 0;
  }
}

}  // namespace

std::string bytes2str(unsigned long long n) {
  static const char* const kFormats[] = {"%llu B", "%llu.%1u Kib", "%llu.%1u Mib", "%llu.%1u Gib"};
  return unitText(n, kFormats);
}

std::string speed2str(unsigned long long n) {
  static const char* const kFormats[] = {"%llu b/s", "%llu.%1u Kib/s", "%llu.%1u Mib/s",
                                         "%llu.%1u Gib/s"};
  return unitText(n, kFormats);
}

unsigned long long str2bytes(const std::string& s) {
  unsigned long long total = 0;
  unsigned long long pending = 0;
  for (char c : s) {
    if (isdigit(static_cast<unsigned char>(c))) {
      pending = pending * 10 + static_cast<unsigned>(c - '0');
      continue;
    }
    if (isBlank(c)) continue;
    switch (c) {
      case 'b':
      case 'B':
        total += pending;
        break;
      case 'k':
      case 'K':
        total += pending << 10;
        break;
      case 'm':
      case 'M':
        total += pending << 20;
        break;
      case 'g':
      case 'G':
        total += pending << 30;
        break;
      case 't':
      case 'T':
        total += static_cast<unsigned long long>(static_cast<uint32_t>(pending)) << 40;
        break;
      default:
        break;
    }
    pending = 0;  // any other character silently drops the number before it
  }
  return total + pending;
}

bool str2duration(const std::string& s, long long* ns) {
  const char* p = s.c_str();
  while (isBlank(*p)) ++p;
  if (*p == '\0') return false;
  const bool negative = *p == '-';
  if (negative) ++p;
  uint64_t total = 0;
  int colons = 0;
  for (;;) {
    while (isBlank(*p)) ++p;
    char* end = nullptr;
    const long long number = strtoq(p, &end, 0);
    if (end == p || number < 0) return false;
    p = end;
    while (isBlank(*p)) ++p;
    uint64_t unit;
    if (*p == ':') {
      if (++colons > 2) return false;
      unit = colons == 1 ? 3600ull * 1000000000ull : 60ull * 1000000000ull;
      ++p;
    } else if (*p == '\0') {
      unit = colons == 1 ? 60ull * 1000000000ull : 1000000000ull;  // "1:30" is h:m
    } else if ((unit = durationUnit(p)) == 0) {
      return false;
    }
    total += static_cast<uint64_t>(number) * unit;
    if (*p == '\0') break;
  }
  *ns = static_cast<long long>(negative ? 0 - total : total);
  return true;
}

long long str2seconds(const std::string& s) {
  long long ns;
  if (s.empty() || !str2duration(s, &ns)) return 0;
  return ns / 1000000000ll;
}

std::string time2str(long seconds) {
  const bool negative = seconds < 0;
  const unsigned long magnitude =
      negative ? 0ul - static_cast<unsigned long>(seconds) : static_cast<unsigned long>(seconds);
  char buf[48];
  snprintf(buf, sizeof buf, "%s%lu:%02lu:%02lu", negative ? "-" : "", magnitude / 3600,
           magnitude / 60 % 60, magnitude % 60);
  return buf;
}

unsigned str2time(const std::string& s) {
  unsigned accumulator = 0;
  unsigned number = 0;
  int colons = 0;
  for (char c : s) {
    if (isdigit(static_cast<unsigned char>(c))) {
      number = number * 10 + static_cast<unsigned>(c - '0');
    } else if (c == ':') {
      accumulator = accumulator * 60 + number;
      number = 0;
      ++colons;
    } else if (!isBlank(c)) {
      return 0;
    }
  }
  unsigned value = accumulator * 60 + number;
  if (colons == 0) {
    value *= 3600;  // a bare number is hours
  } else if (colons == 1) {
    value *= 60;  // hours and minutes
  }
  return value % 86400;
}

std::string date2str(tm t, const std::string& fmt, bool withTime, bool withSeconds) {
  std::string format = fmt;
  if (withTime) {
    format += " %H:%M";
    if (withSeconds) format += ":%S";
  }
  char buf[64];
  const size_t n = strftime(buf, sizeof buf, format.c_str(), &t);
  return std::string(buf, n);
}

std::string date2str(long t, const std::string& fmt, int offset, bool withTime, bool withSeconds) {
  const time_t when = static_cast<time_t>(t + offset);
  tm parts{};
  gmtime_r(&when, &parts);
  return date2str(parts, fmt, withTime, withSeconds);
}

unsigned money2u(const std::string& s) {
  unsigned whole = 0;
  unsigned fraction = 0;
  int fractionDigits = 0;
  bool afterSeparator = false;
  for (char c : s) {
    if (isdigit(static_cast<unsigned char>(c))) {
      if (!afterSeparator) {
        whole = whole * 10 + static_cast<unsigned>(c - '0');
      } else {
        fraction = fraction * 10 + static_cast<unsigned>(c - '0');
        if (++fractionDigits == 2) break;
      }
    } else if ((c == '.' || c == ',') && !afterSeparator) {
      afterSeparator = true;
    } else {
      break;
    }
  }
  if (fractionDigits == 1) fraction *= 10;  // one digit counts as tenths
  return whole * 100 + fraction;
}

std::string u2money(unsigned v) {
  char buf[24];
  snprintf(buf, sizeof buf, "%u.%02u", v / 100, v % 100);
  return buf;
}

unsigned hex2u(const std::string& s) {
  unsigned v = 0;
  for (char c : s) {
    unsigned digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      return 0xFFFFFFFFu;
    }
    v = v * 16 + digit;
  }
  return v;
}

std::string ull2hex(unsigned long long n, int width) {
  const char* digits = kHexDigits + 32;
  char buf[17];
  char* p = buf + sizeof buf;
  do {
    *--p = digits[n & 0xf];
    n >>= 4;
  } while (n != 0);
  std::string text(p, buf + sizeof buf);
  if (width >= 1) {
    const size_t w = static_cast<size_t>(width);
    // Callers pass a width that fits; a longer text keeps its most significant digits.
    if (text.size() > w) {
      text.resize(w);
    } else {
      text.insert(0, w - text.size(), '0');
    }
  }
  return text;
}

std::string u2hex(unsigned v, int width) { return ull2hex(v, width); }

std::string bin2hex(const unsigned char* data, int len, bool upper) {
  const char* digits = kHexDigits + (upper ? 16 : 0);
  std::string text;
  for (int i = 0; i < len; ++i) {
    text += digits[data[i] >> 4];
    text += digits[data[i] & 0xf];
  }
  return text;
}

std::string u2str(unsigned v) { return std::to_string(v); }
std::string i2str(int v) { return std::to_string(v); }
std::string ull2str(unsigned long long v) { return std::to_string(v); }
unsigned str2u(const std::string& s) {
  return static_cast<unsigned>(strtoul(s.c_str(), nullptr, 10));
}
int str2i(const std::string& s) { return static_cast<int>(strtol(s.c_str(), nullptr, 10)); }
unsigned long long str2ull(const std::string& s) { return strtoull(s.c_str(), nullptr, 10); }
bool str2bool(const std::string& s) { return s == "true"; }
std::string bool2str(bool b) { return b ? "true" : "false"; }

std::string str2lower(const std::string& s) {
  std::string lower = s;
  for (char& c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return lower;
}

std::string version2string(unsigned v) {
  const unsigned major = v >> 24, minor = (v >> 16) & 0xff, build = v & 0xff;
  const char kind = static_cast<char>((v >> 8) & 0xff);
  char buf[48];
  if (kind == 'f') {
    if (build == 0) {
      snprintf(buf, sizeof buf, "%u.%u", major, minor);
    } else {
      snprintf(buf, sizeof buf, "%u.%u.%u", major, minor, build);
    }
    return buf;
  }
  const char* word = kind == 'a' ? "alpha" : kind == 'b' ? "beta" : kind == 'c' ? "rc" : "";
  if (build == 0) {
    snprintf(buf, sizeof buf, "%u.%u%s", major, minor, word);
  } else {
    snprintf(buf, sizeof buf, "%u.%u%s%u", major, minor, word, build);
  }
  return buf;
}

std::string getOSVersion() {
  FILE* f = fopen(kl::rootedPath("/var/pdb/system/version").c_str(), "r");
  if (f == nullptr) return "";
  unsigned version, ignored;
  const bool both = fscanf(f, "%u %u", &version, &ignored) == 2;
  fclose(f);
  return both ? version2string(version) : "";
}
