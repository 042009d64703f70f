// File: kl/util/convert.h
//
// Text conversions shared by the configuration front ends: sizes, speeds, durations, times
// of day, dates, money, hexadecimal, decimal and version numbers. Free functions without
// state, at global scope. Each output format is fixed (displays and stored configuration
// depend on it) and each input rule is stated; parsers never read past their text.
#ifndef KL_UTIL_CONVERT_H_
#define KL_UTIL_CONVERT_H_

#include <ctime>
#include <string>

// Sizes: "2047 B", "2.0 Kib", "3.5 Mib", "2.0 Gib". A value prints in a unit from two of
// them up. The digit after the point is the remainder's last decimal digit, not a tenth:
// 2049 prints "2.1 Kib" and 2057 "2.9 Kib".
std::string bytes2str(unsigned long long n);
// Speeds, the same scheme: "100 b/s", "2.0 Kib/s", "2.0 Mib/s", "2.0 Gib/s".
std::string speed2str(unsigned long long n);

// Adds up terms of digits and binary units: "1G 512M" is 1.5 GiB, "1k 512" 1536, "2K" 2048.
// Blanks are skipped; any other character drops the number before it ("1.5M" is 5 MiB, "1x5"
// is 5). "" is 0.
unsigned long long str2bytes(const std::string& s);

// A signed duration in nanoseconds: terms of a number (strtoq base 0: "0x1f" is hex, "010"
// octal) and a unit w, d, h, m, s, ms, us, ns, or the clock form "1:30" (h:m) and "1:30:15"
// (h:m:s); a bare last number is seconds. "1h30m" and "1h 30m" are 5400 s, "-1m" is -60 s.
// False, with *ns untouched, on anything else ("1q", "5s ", "1:2:3:4", "").
bool str2duration(const std::string& s, long long* ns);
// Whole seconds of str2duration (truncated); 0 for "" or a text it rejects.
long long str2seconds(const std::string& s);

// "1:02:05" for 3725, "25:00:00" for 90000, "-0:01:01" for -61.
std::string time2str(long seconds);
// A time of day in seconds: "7" (hours) 25200, "7:30" 27000, "7:30:15" 27015, modulo one
// day ("24:00" is 0). Any character other than digits, ':' and blanks gives 0.
unsigned str2time(const std::string& s);

// strftime of `fmt`, followed by " %H:%M" when withTime and ":%S" when also withSeconds,
// into 64 bytes ("" when the result does not fit).
std::string date2str(tm t, const std::string& fmt, bool withTime, bool withSeconds);
// The same for the UTC time t + offset (offset: the caller's time-zone offset in seconds).
std::string date2str(long t, const std::string& fmt, int offset, bool withTime, bool withSeconds);

// A money amount in hundredths: "12.5" 1250, "12,34" 1234, "12.345" 1234, "12" 1200, "abc" 0.
unsigned money2u(const std::string& s);
// 12345 -> "123.45", 5 -> "0.05".
std::string u2money(unsigned v);

// Hexadecimal digits without prefix: "1F" 31, "" 0; any other character gives 0xFFFFFFFF.
unsigned hex2u(const std::string& s);
// Lower-case hex without leading zeros ("0" for 0). With width >= 1 a shorter text is padded
// with "0" to width and a longer one keeps its first width characters.
std::string ull2hex(unsigned long long n, int width);
std::string u2hex(unsigned v, int width);
// Two hex characters per byte, high nibble first, no separators.
std::string bin2hex(const unsigned char* data, int len, bool upper);

// The decimal form of `v`.
std::string u2str(unsigned v);
std::string i2str(int v);
std::string ull2str(unsigned long long v);
// strtoul/strtol/strtoull in base 10, without error detection: the leading number or 0.
unsigned str2u(const std::string& s);
int str2i(const std::string& s);
unsigned long long str2ull(const std::string& s);
// True exactly for "true".
bool str2bool(const std::string& s);
std::string bool2str(bool b);
std::string str2lower(const std::string& s);

// A packed version: major (bits 24-31), minor (16-23), kind (8-15, a character), build
// (0-7). Kind 'f' is a final release, "6.41.3" ("6.41" for build 0); 'a', 'b' and 'c' print
// "alpha", "beta" and "rc" before the build ("6.41beta3"); other kinds print no word.
std::string version2string(unsigned v);
// version2string of the first number in <KL_ROOT>/var/pdb/system/version ("%u %u"), or ""
// when the file is missing or does not hold two numbers.
std::string getOSVersion();

#endif  // KL_UTIL_CONVERT_H_
