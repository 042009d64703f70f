// File: kl/util/rate_limit.h
//
// Rate-limit strings: a bandwidth limit written as one short text line and held as eleven
// unsigned numbers. Every rate-like setting is a pair, first direction / second direction:
//
//   field 1  rate         (rateA/rateB)          field 4  burst time, seconds (timeA/timeB)
//   field 2  burst rate   (burstA/burstB)        field 5  priority, 0 (none) to 8
//   field 3  burst threshold                     field 6  limit-at, the guaranteed rate
//
// Fields are separated by runs of blanks and tabs; fields after the sixth are ignored. A rate
// is a decimal number with an optional unit letter "k" (x1000) or "m" (x1000000), either
// case; a value without "/" applies to both directions. 0 means "not set" everywhere.
// Example: "10M/2M 20M/4M" is a rate of 10000000/2000000 with a burst of 20000000/4000000.
//
// All functions are free functions without state, at global scope.
#ifndef KL_UTIL_RATE_LIMIT_H_
#define KL_UTIL_RATE_LIMIT_H_

#include <string>

// Parses a rate-limit string. Every output may be null (the value is then parsed and
// dropped). Absent fields get defaults: burst 0; threshold the rate where a burst is set,
// else 0; time 1 where a burst is set, else 0; priority 0; limit-at the rate. The burst,
// threshold and time defaults are written only when rateA is given. Returns false on the
// first bad field, a priority above 8, or a limit-at above the rate, with the outputs
// parsed so far written.
bool parseBwRates(const std::string& s, unsigned* rateA, unsigned* rateB, unsigned* burstA,
                  unsigned* burstB, unsigned* thresholdA, unsigned* thresholdB, unsigned* timeA,
                  unsigned* timeB, unsigned* limitAtA, unsigned* limitAtB, unsigned* priority);

// Prints a rate-limit string: the fields in text order, "0" placeholders for unset settings
// that precede a set one, nothing after the last set one; "" when nothing is set. With
// `pretty`, rates print as binary-unit breakdowns (bytes2detailstr) and times as durations
// (duration2str); the pretty form is for people and does not parse back.
std::string rateLim2str(bool pretty, unsigned rateA, unsigned rateB, unsigned burstA,
                        unsigned burstB, unsigned thresholdA, unsigned thresholdB, unsigned timeA,
                        unsigned timeB, unsigned limitAtA, unsigned limitAtB, unsigned priority);

// a := the stricter combination of the limits a and b (each setting the smaller of the set
// values; the priority the smaller, an unset one counting as 0). An unparseable a becomes "";
// an unparseable b leaves a unchanged.
void mergeRateLim(std::string& a, const std::string& b, bool pretty);

// The numeric merge: a1/b1 hold the first direction's rate, burst, threshold, time and
// limit-at, a2/b2 the second direction's. Each a value becomes b's where b's is set and
// a's is unset or larger. priority := min(priority, priorityB).
void mergeRateLim(unsigned* a1, unsigned* a2, unsigned* b1, unsigned* b2, unsigned& priority,
                  unsigned priorityB);

// "10M/512k": getStrRate(a) + "/" + getStrRate(b); "" when both are 0.
std::string makeRateLimit(unsigned a, unsigned b);
// A rate with a decimal unit: 3000000 -> "3M", 2000 -> "2k" (lower case), 1500 -> "1500".
std::string getStrRate(unsigned rate);

// One rate (digits and an optional k/m letter) into *value; "" reads as 0.
bool parseRate(const std::string& s, unsigned* value);
// A rate pair "a/b", or one rate for both directions.
bool parseRates(const std::string& s, unsigned* a, unsigned* b);
// A plain decimal number that takes the whole text; "" reads as 0.
bool parseNumber(const std::string& s, unsigned* value);
// A number pair "a/b", or one number for both directions.
bool parseNumbers(const std::string& s, unsigned* a, unsigned* b);

// The printer's pieces. Each prints `sep` and the value when the value is set (and counts it
// off `remaining`), `sep` and "0" while a set value is still to come, and nothing after the
// last set value.
std::string getRatePartString(const std::string& value, const std::string& sep,
                              unsigned& remaining);
std::string getRatePartInt(int value, const std::string& sep, unsigned& remaining);
std::string getRateTokenString(const std::string& a, const std::string& b, unsigned& remaining);
std::string getRateTokenBytes(unsigned a, unsigned b, unsigned& remaining, bool pretty);
std::string getRateTokenDuration(unsigned a, unsigned b, unsigned& remaining, bool pretty);

// Binary-unit breakdown: 1536 -> "1K512B", 1048576 -> "1M", 0 -> "0B"; `sep` follows each
// of T, G, M and K (a trailing one is dropped): with " ", 1049600 -> "1M 1K".
std::string bytes2detailstr(unsigned long long n, const std::string& sep);
// Week/day/hour/minute/second breakdown: 5400 -> "1h30m", 0 -> "0s"; `sep` between pieces.
std::string duration2str(unsigned seconds, const std::string& sep);

#endif  // KL_UTIL_RATE_LIMIT_H_
