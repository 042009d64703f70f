#include "kl/message/system.h"

#include <cstdio>

namespace kl {

namespace {

struct Named {
  unsigned int value;
  const char* name;
};

// Field numbers known to the dump (type bits stripped).
constexpr Named kFieldNames[] = {
    {0xff0001, "SYS_TO"},       {0xff0002, "SYS_FROM"},
    {0xff0003, "SYS_TYPE"},     {0xff0004, "SYS_STATUS"},
    {0xff0005, "SYS_REPLYEXP"}, {0xff0006, "SYS_REQID"},
    {0xff0007, "SYS_CMD"},      {0xff0008, "SYS_ERRNO"},
    {0xff0009, "SYS_ERRSTR"},   {0xff000a, "SYS_USER"},
    {0xff000b, "SYS_POLICY"},   {0xff000d, "SYS_CTRL"},
    {0xff000e, "SYS_RADDR"},    {0xff000f, "SYS_CTRL_ARG"},
    {0xfe0001, "STD_ID"},       {0xfe0002, "STD_OBJS"},
    {0xfe0003, "STD_GETALLID"}, {0xfe0004, "STD_GETALLNO"},
    {0xfe0005, "STD_NEXTID"},   {0xfe0006, "STD_UNDOID"},
    {0xfe0007, "STD_DYNAMIC"},  {0xfe0008, "STD_INACTIVE"},
    {0xfe0009, "STD_DESCR"},    {0xfe000a, "STD_DISABLED"},
    {0xfe000b, "STD_FINISHED"}, {0xfe0013, "STD_DEAD"},
    {0xfe0014, "STD_COUNT"},    {0xfe0015, "STD_GETALL_COOKIE"},
    {0xfe0016, "STD_QUERY"},    {0xfe0017, "STD_QUERY_OP"},
    {0xfe0018, "STD_MAXOBJS"},  {0xfe0019, "STD_OBJ_COUNT"},
};

// Command codes known to the dump; the handler layer's own codes are printed as numbers.
constexpr Named kCommandNames[] = {
    {CMD_NOOP, "CMD_NOOP"},
    {CMD_GETPOLICIES, "CMD_GETPOLICIES"},
    {CMD_GETOBJ, "CMD_GETOBJ"},
    {CMD_SETOBJ, "CMD_SETOBJ"},
    {CMD_GETALL, "CMD_GETALL"},
    {CMD_ADDOBJ, "CMD_ADDOBJ"},
    {CMD_REMOVEOBJ, "CMD_REMOVEOBJ"},
    {CMD_MOVEOBJ, "CMD_MOVEOBJ"},
    {CMD_NOTIFY, "CMD_NOTIFY"},
    {CMD_GET, "CMD_GET"},
    {CMD_SET, "CMD_SET"},
    {CMD_START, "CMD_START"},
    {CMD_POLL, "CMD_POLL"},
    {CMD_CANCEL, "CMD_CANCEL"},
    {CMD_GETCOUNT, "CMD_GETCOUNT"},
    {CMD_RESET, "CMD_RESET"},
};

constexpr Named kErrorNames[] = {
    {ERROR_OK, "ERROR_OK"},
    {ERROR_UNKNOWN, "ERROR_UNKNOWN"},
    {ERROR_BRKPATH, "ERROR_BRKPATH"},
    {ERROR_NOTIMP, "ERROR_NOTIMP"},
    {ERROR_UNKNOWNID, "ERROR_UNKNOWNID"},
    {ERROR_MISSING, "ERROR_MISSING"},
    {ERROR_FAILED, "ERROR_FAILED"},
    {ERROR_EXISTS, "ERROR_EXISTS"},
    {ERROR_NOTALLOWED, "ERROR_NOTALLOWED"},
    {ERROR_TOOBIG, "ERROR_TOOBIG"},
    {ERROR_UNKNOWNNEXTID, "ERROR_UNKNOWNNEXTID"},
    {ERROR_BUSY, "ERROR_BUSY"},
    {ERROR_TIMEOUT, "ERROR_TIMEOUT"},
    {ERROR_TOOMUCH, "ERROR_TOOMUCH"},
};

// Texts of the standard error codes, indexed by code & 0xffff for 0xfe0000-0xfe000e.
constexpr const char* kErrorTexts[] = {
    "no error",   "unknown error",  "broken path",     "not implemented",
    "unknown id", "missing fields", "failed",          "already exists",
    "???",        "not allowed",    "message too big", "unknown next id",
    "busy",       "timeout",        "too much",
};
constexpr unsigned int kErrorTextCount = sizeof kErrorTexts / sizeof kErrorTexts[0];

template <size_t N>
const char* lookup(const Named (&table)[N], unsigned int value) {
  for (const Named& row : table) {
    if (row.value == value) return row.name;
  }
  return nullptr;
}

// Namespace word of `id`'s namespace byte; `other` for namespaces without a name (the dump
// and the error sentence deliberately use different words there).
const char* namespaceWord(unsigned int id, const char* other) {
  switch (id & 0xff0000) {
    case 0x000000:
      return "global";
    case 0xfd0000:
      return "local";
    case 0xfe0000:
      return "std";
    case 0xff0000:
      return "sys";
    default:
      return other;
  }
}

}  // namespace

unsigned int getType(const message& m) { return m.get(SYS_TYPE, TYPE_REQUEST); }
bool isRequest(const message& m) { return getType(m) == TYPE_REQUEST; }
bool isReply(const message& m) { return getType(m) == TYPE_REPLY; }

void setType(message& m, unsigned int type) {
  m.remove(SYS_TYPE);
  m.insert(SYS_TYPE, type);
}

bool isReplyExpected(const message& m) { return m.get_bool(SYS_REPLYEXP, false); }

bool getRequestID(const message& m, unsigned int* id) {
  const unsigned int* value = m.get_u32_ref(SYS_REQID);
  if (value == nullptr) return false;
  if (id != nullptr) *id = *value;
  return true;
}

void setRequestID(message& m, unsigned int id) {
  m.remove(SYS_REQID);
  m.insert(SYS_REQID, id);
}

bool isCtrl(const message& m, unsigned int* ctrl) {
  const unsigned int* value = m.get_u32_ref(SYS_CTRL);
  if (value == nullptr) return false;
  if (ctrl != nullptr) *ctrl = *value;
  return true;
}

message errorMsg(unsigned int code, const std::string& text) {
  message m;
  m.insert(SYS_STATUS, STATUS_ERROR);
  m.insert(SYS_ERRNO, code);
  if (!text.empty()) m.insert_string(SYS_ERRSTR, text);
  return m;
}

message ctrlErrorMsg(unsigned int ctrl) {
  char text[40];
  snprintf(text, sizeof text, "control message (%d)", static_cast<int>(ctrl));
  return errorMsg(ERROR_FAILED, text);
}

bool isError(const message& m, unsigned int* code, std::string* text) {
  if (m.get(SYS_STATUS, STATUS_OK) != STATUS_ERROR) return false;
  if (code != nullptr) *code = m.get(SYS_ERRNO, ERROR_UNKNOWN);
  if (text != nullptr) *text = m.get_string(SYS_ERRSTR, "");
  return true;
}

std::string getErrorDescr(unsigned int code, const std::string& text) {
  const unsigned int number = code & 0xffff;
  char tail[32];
  if (!text.empty()) {
    // A service's own text replaces the namespace sentence.
    snprintf(tail, sizeof tail, " (%u)", number);
    return text + tail;
  }
  std::string descr = namespaceWord(code, "undefined");
  descr += " failure:";
  if ((code & 0xff0000) == 0xfe0000 && number < kErrorTextCount) {
    snprintf(tail, sizeof tail, " (%u)", number);
    descr += ' ';
    descr += kErrorTexts[number];
  } else {
    snprintf(tail, sizeof tail, " %u", number);
  }
  return descr + tail;
}

std::string getError(const message& m) {
  unsigned int code;
  std::string text;
  if (!isError(m, &code, &text)) return "ok";
  return getErrorDescr(code, text);
}

void cleanStd(message& m) {
  m.remove(STD_ID);
  m.remove_array(STD_OBJS);
  m.remove(STD_GETALLID);
  m.remove(STD_GETALLNO);
  m.remove(STD_NEXTID);
  m.remove(STD_UNDOID);
  m.remove_bool(STD_DYNAMIC);
  m.remove_bool(STD_INACTIVE);
  m.remove_field(STD_DESCR);
  m.remove_bool(STD_DISABLED);
}

void cleanSys(message& m) {
  m.remove_array(SYS_TO);
  m.remove_array(SYS_FROM);
  m.remove(SYS_TYPE);
  m.remove(SYS_STATUS);
  m.remove_bool(SYS_REPLYEXP);
  m.remove(SYS_REQID);
  m.remove(SYS_CMD);
  m.remove(SYS_ERRNO);
  m.remove_field(SYS_USER);
  m.remove(SYS_POLICY);
  m.remove(SYS_CTRL);
}

const char* fieldIdName(unsigned int id) {
  if (const char* name = lookup(kFieldNames, id & 0xffffff)) return name;
  static char buf[80];
  snprintf(buf, sizeof buf, "%s(%d)", namespaceWord(id, "ns"), static_cast<int>(id & 0xffff));
  return buf;
}

// The checks fall through on purpose: a value is named by the first table that knows it,
// so SYS_CMD = 0xfe0009 prints as ERROR_NOTALLOWED.
const char* fieldValueName(unsigned int id, unsigned int value) {
  const unsigned int key = id & 0xffffff;
  const bool type = key == (SYS_TYPE & 0xffffff);
  const bool status = type || key == (SYS_STATUS & 0xffffff);
  const bool cmd = status || key == (SYS_CMD & 0xffffff);
  const bool err = cmd || key == (SYS_ERRNO & 0xffffff);
  if (type && value == TYPE_REQUEST) return "TYPE_REQUEST";
  if (type && value == TYPE_REPLY) return "TYPE_REPLY";
  if (status && value == STATUS_OK) return "STATUS_OK";
  if (status && value == STATUS_ERROR) return "STATUS_ERROR";
  if (cmd) {
    if (const char* name = lookup(kCommandNames, value)) return name;
  }
  if (err) {
    if (const char* name = lookup(kErrorNames, value)) return name;
  }
  static char buf[80];
  snprintf(buf, sizeof buf, "%d 0x%x %u.%u.%u.%u", static_cast<int>(value), value, value >> 24,
           (value >> 16) & 0xff, (value >> 8) & 0xff, value & 0xff);
  return buf;
}

}  // namespace kl
