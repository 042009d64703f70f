#include "kl/util/rate_limit.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "kl/util/convert.h"
#include "kl/util/text.h"

namespace {

const char kFieldSeparators[] = " \t";

// The eleven numbers of a limit, in the order every function takes them.
struct RateLimit {
  unsigned rateA = 0, rateB = 0, burstA = 0, burstB = 0, thresholdA = 0, thresholdB = 0;
  unsigned timeA = 0, timeB = 0, limitAtA = 0, limitAtB = 0, priority = 0;

  bool parse(const std::string& s) {
    return parseBwRates(s, &rateA, &rateB, &burstA, &burstB, &thresholdA, &thresholdB, &timeA,
                        &timeB, &limitAtA, &limitAtB, &priority);
  }
  std::string print(bool pretty) const {
    return rateLim2str(pretty, rateA, rateB, burstA, burstB, thresholdA, thresholdB, timeA, timeB,
                       limitAtA, limitAtB, priority);
  }
};

// Splits s on '/' at its first slash: both halves, or s twice.
template <class Parse>
bool parsePair(const std::string& s, unsigned* a, unsigned* b, Parse parse) {
  const size_t slash = s.find('/');
  if (slash == std::string::npos) {
    unsigned v;
    if (!parse(s, &v)) return false;
    if (a != nullptr) *a = v;
    if (b != nullptr) *b = v;
    return true;
  }
  unsigned va, vb;
  if (!parse(s.substr(0, slash), &va)) return false;
  if (a != nullptr) *a = va;
  if (!parse(s.substr(slash + 1), &vb)) return false;
  if (b != nullptr) *b = vb;
  return true;
}

}  // namespace

bool parseRate(const std::string& s, unsigned* value) {
  unsigned v = 0;
  if (!s.empty()) {
    char* end = nullptr;
    v = static_cast<unsigned>(strtoul(s.c_str(), &end, 10));
    if (end[0] != '\0') {
      if (end[1] != '\0') return false;
      switch (end[0]) {
        case 'k':
        case 'K':
          v *= 1000u;
          break;
        case 'm':
        case 'M':
          v *= 1000000u;
          break;
        default:
          return false;
      }
    }
  }
  if (value != nullptr) *value = v;
  return true;
}

bool parseNumber(const std::string& s, unsigned* value) {
  unsigned v = 0;
  if (!s.empty()) {
    char* end = nullptr;
    v = static_cast<unsigned>(strtoul(s.c_str(), &end, 10));
    if (*end != '\0') return false;
  }
  if (value != nullptr) *value = v;
  return true;
}

bool parseRates(const std::string& s, unsigned* a, unsigned* b) {
  return parsePair(s, a, b, parseRate);
}

bool parseNumbers(const std::string& s, unsigned* a, unsigned* b) {
  return parsePair(s, a, b, parseNumber);
}

bool parseBwRates(const std::string& s, unsigned* rateA, unsigned* rateB, unsigned* burstA,
                  unsigned* burstB, unsigned* thresholdA, unsigned* thresholdB, unsigned* timeA,
                  unsigned* timeB, unsigned* limitAtA, unsigned* limitAtB, unsigned* priority) {
  // The defaults of the burst settings are written only for a caller that asked for the
  // rate. Outputs not given point at scratch storage.
  const bool defaults = rateA != nullptr;
  unsigned scratch[11];
  unsigned** outputs[] = {&rateA, &rateB, &burstA,   &burstB,   &thresholdA, &thresholdB,
                          &timeA, &timeB, &limitAtA, &limitAtB, &priority};
  for (int i = 0; i < 11; ++i) {
    if (*outputs[i] == nullptr) *outputs[i] = &scratch[i];
  }

  std::vector<std::string> fields;
  split(s, kFieldSeparators, fields);
  const size_t n = fields.size();

  *rateA = *rateB = 0;
  if (n >= 1 && !parseRates(fields[0], rateA, rateB)) return false;
  if (n >= 2) {
    if (!parseRates(fields[1], burstA, burstB)) return false;
  } else if (defaults) {
    *burstA = *burstB = 0;
  }
  if (n >= 3) {
    if (!parseRates(fields[2], thresholdA, thresholdB)) return false;
  } else if (defaults) {
    *thresholdA = *burstA != 0 ? *rateA : 0;
    *thresholdB = *burstB != 0 ? *rateB : 0;
  }
  if (n >= 4) {
    if (!parseNumbers(fields[3], timeA, timeB)) return false;
  } else if (defaults) {
    *timeA = *burstA > 0 ? 1 : 0;
    *timeB = *burstB != 0 ? 1 : 0;
  }
  *priority = 0;
  if (n >= 5 && (!parseNumber(fields[4], priority) || *priority > 8)) return false;
  if (n < 6) {
    *limitAtA = *rateA;
    *limitAtB = *rateB;
    return true;
  }
  if (!parseRates(fields[5], limitAtA, limitAtB)) return false;
  return *limitAtA <= *rateA && *limitAtB <= *rateB;
}

std::string getRatePartString(const std::string& value, const std::string& sep,
                              unsigned& remaining) {
  if (!value.empty()) {
    --remaining;
    return sep + value;
  }
  return remaining > 0 ? sep + "0" : std::string();
}

std::string getRatePartInt(int value, const std::string& sep, unsigned& remaining) {
  return getRatePartString(value != 0 ? i2str(value) : std::string(), sep, remaining);
}

std::string getRateTokenString(const std::string& a, const std::string& b, unsigned& remaining) {
  std::string text = getRatePartString(a, " ", remaining);
  return text + getRatePartString(b, "/", remaining);
}

std::string getRateTokenBytes(unsigned a, unsigned b, unsigned& remaining, bool pretty) {
  auto text = [pretty](unsigned v) {
    if (v == 0) return std::string();
    return pretty ? bytes2detailstr(v, "") : u2str(v);
  };
  return getRateTokenString(text(a), text(b), remaining);
}

std::string getRateTokenDuration(unsigned a, unsigned b, unsigned& remaining, bool pretty) {
  auto text = [pretty](unsigned v) {
    if (v == 0) return std::string();
    return pretty ? duration2str(v, "") : u2str(v);
  };
  return getRateTokenString(text(a), text(b), remaining);
}

std::string rateLim2str(bool pretty, unsigned rateA, unsigned rateB, unsigned burstA,
                        unsigned burstB, unsigned thresholdA, unsigned thresholdB, unsigned timeA,
                        unsigned timeB, unsigned limitAtA, unsigned limitAtB, unsigned priority) {
  unsigned remaining = 0;
  for (unsigned v : {rateA, rateB, burstA, burstB, thresholdA, thresholdB, timeA, timeB, limitAtA,
                     limitAtB, priority}) {
    remaining += v != 0;
  }
  if (remaining == 0) return "";
  std::string text = getRateTokenBytes(rateA, rateB, remaining, pretty);
  text += getRateTokenBytes(burstA, burstB, remaining, pretty);
  text += getRateTokenBytes(thresholdA, thresholdB, remaining, pretty);
  text += getRateTokenDuration(timeA, timeB, remaining, pretty);
  text += getRatePartInt(static_cast<int>(priority), " ", remaining);
  text += getRateTokenBytes(limitAtA, limitAtB, remaining, pretty);
  if (!text.empty() && text[0] == ' ') text.erase(0, 1);
  return text;
}

void mergeRateLim(unsigned* a1, unsigned* a2, unsigned* b1, unsigned* b2, unsigned& priority,
                  unsigned priorityB) {
  for (int i = 0; i < 5; ++i) {
    if (b1[i] != 0 && (a1[i] == 0 || b1[i] < a1[i])) a1[i] = b1[i];
    if (b2[i] != 0 && (a2[i] == 0 || b2[i] < a2[i])) a2[i] = b2[i];
  }
  // Unlike the rates, an unset priority on either side wins: 0 counts as a value here.
  if (priorityB < priority) priority = priorityB;
}

void mergeRateLim(std::string& a, const std::string& b, bool pretty) {
  RateLimit x, y;
  if (!x.parse(a)) {
    a = "";
    return;
  }
  if (!y.parse(b)) return;
  unsigned a1[5] = {x.rateA, x.burstA, x.thresholdA, x.timeA, x.limitAtA};
  unsigned a2[5] = {x.rateB, x.burstB, x.thresholdB, x.timeB, x.limitAtB};
  unsigned b1[5] = {y.rateA, y.burstA, y.thresholdA, y.timeA, y.limitAtA};
  unsigned b2[5] = {y.rateB, y.burstB, y.thresholdB, y.timeB, y.limitAtB};
  mergeRateLim(a1, a2, b1, b2, x.priority, y.priority);
  RateLimit merged;
  merged.rateA = a1[0], merged.burstA = a1[1], merged.thresholdA = a1[2];
  merged.timeA = a1[3], merged.limitAtA = a1[4];
  merged.rateB = a2[0], merged.burstB = a2[1], merged.thresholdB = a2[2];
  merged.timeB = a2[3], merged.limitAtB = a2[4];
  merged.priority = x.priority;
  a = merged.print(pretty);
}

std::string getStrRate(unsigned rate) {
  char buf[24];
  if (rate == 0) return "0";
  if (rate % 1000000 == 0) {
    snprintf(buf, sizeof buf, "%u%s", rate / 1000000, "M");
  } else if (rate % 1000 == 0) {
    snprintf(buf, sizeof buf, "%u%s", rate / 1000, "k");
  } else {
    snprintf(buf, sizeof buf, "%u%s", rate, "");
  }
  return buf;
}

std::string makeRateLimit(unsigned a, unsigned b) {
  if (a == 0 && b == 0) return "";
  return getStrRate(a) + "/" + getStrRate(b);
}

std::string bytes2detailstr(unsigned long long n, const std::string& sep) {
  if (n == 0) return "0B";
  const struct {
    unsigned long long value;
    const char* letter;
    bool withSep;
  } groups[] = {
      {n >> 40, "T", true},          {(n >> 30) & 1023, "G", true}, {(n >> 20) & 1023, "M", true},
      {(n >> 10) & 1023, "K", true}, {n & 1023, "B", false},
  };
  std::string text;
  for (const auto& g : groups) {
    if (g.value == 0) continue;
    text += ull2str(g.value) + g.letter;
    if (g.withSep) text += sep;
  }
  if (!sep.empty() && text.size() > sep.size() &&
      text.compare(text.size() - sep.size(), sep.size(), sep) == 0) {
    text.resize(text.size() - sep.size());
  }
  return text;
}

std::string duration2str(unsigned seconds, const std::string& sep) {
  if (seconds == 0) return "0s";
  const struct {
    unsigned value;
    const char* unit;
  } pieces[] = {
      {seconds / 604800, "w"},  {seconds / 86400 % 7, "d"}, {seconds / 3600 % 24, "h"},
      {seconds / 60 % 60, "m"}, {seconds % 60, "s"},
  };
  std::string text;
  for (const auto& p : pieces) {
    if (p.value == 0) continue;
    if (!text.empty()) text += sep;
    text += u2str(p.value) + p.unit;
  }
  return text;
}
