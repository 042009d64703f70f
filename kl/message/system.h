// File: kl/message/system.h
//
// The messaging vocabulary: the header fields every routed message carries (SYS_*, system
// namespace 0xff), the standard object fields (STD_*, namespace 0xfe), command and error
// codes, and the small helpers that read and write a message's header.
//
// u32 header fields are u32_id constants (SYS_REQID is field 0x08ff0006), the path arrays
// u32_array_id constants (SYS_TO is 0x88ff0001), so `m.get(SYS_TYPE, 1)`,
// `m.insert(SYS_TO, path)` and `m.has(SYS_FROM)` pick the right field. Fields of other types
// are plain full ids (SYS_ERRSTR is the string field 0x20ff0009).
#ifndef KL_MESSAGE_SYSTEM_H_
#define KL_MESSAGE_SYSTEM_H_

#include <string>

#include "kl/message/message.h"

namespace kl {

constexpr unsigned int BADID = 0xFFFFFFFFu;  // no id, for object ids and handler ids

// --- system header fields ------------------------------------------------------------------
constexpr u32_array_id SYS_TO = 0xff0001;      // destination path, consumed front to back
constexpr u32_array_id SYS_FROM = 0xff0002;    // sender path: the reply's SYS_TO
constexpr u32_id SYS_TYPE = 0xff0003;          // TYPE_REQUEST or TYPE_REPLY; absent = request
constexpr u32_id SYS_STATUS = 0xff0004;        // STATUS_OK or STATUS_ERROR; absent = OK
constexpr uint32_t SYS_REPLYEXP = 0x00ff0005;  // bool: the sender expects a reply
constexpr u32_id SYS_REQID = 0xff0006;         // request id, copied into the reply
constexpr u32_id SYS_CMD = 0xff0007;           // command code (CMD_*)
constexpr u32_id SYS_ERRNO = 0xff0008;         // error code (ERROR_* or a service's own)
constexpr uint32_t SYS_ERRSTR = 0x20ff0009;    // string: error text
constexpr uint32_t SYS_USER = 0x20ff000a;      // string: user the message is sent for
constexpr u32_id SYS_POLICY = 0xff000b;        // policy bits of the request
constexpr u32_id SYS_CTRL = 0xff000d;          // control code of a loader control message
constexpr uint32_t SYS_RADDR = 0xff000e;       // named by the dump only
constexpr u32_id SYS_CTRL_ARG = 0xff000f;      // argument of a control message
constexpr u32_id SYS_NOTIFYCMD = 0xff0011;     // notification command a subscriber wants
constexpr u32_array_id SYS_ORIGIN = 0xff0012;  // path of the peer that caused a change

// --- standard object fields ----------------------------------------------------------------
constexpr u32_id STD_ID = 0xfe0001;            // object id
constexpr uint32_t STD_OBJS = 0xa8fe0002;      // message array: list of objects
constexpr u32_id STD_GETALLID = 0xfe0003;      // id of a get-all exchange
constexpr u32_id STD_GETALLNO = 0xfe0004;      // sequence number within a get-all exchange
constexpr u32_id STD_NEXTID = 0xfe0005;        // id of the object after which to place one
constexpr u32_id STD_UNDOID = 0xfe0006;        // undo id
constexpr uint32_t STD_DYNAMIC = 0x00fe0007;   // bool: object is dynamic (not configured)
constexpr uint32_t STD_INACTIVE = 0x00fe0008;  // bool: object is inactive
constexpr uint32_t STD_DESCR = 0x20fe0009;     // string: description
constexpr uint32_t STD_DISABLED = 0x00fe000a;  // bool: object is disabled
constexpr u32_id STD_DEAD = 0xfe0013;          // object is gone
constexpr u32_id STD_OBJ_COUNT = 0xfe0019;     // number of objects
// Named here, typed by the services that use them.
constexpr uint32_t STD_FINISHED = 0xfe000b;
constexpr uint32_t STD_COUNT = 0xfe0014;
constexpr uint32_t STD_GETALL_COOKIE = 0xfe0015;
constexpr uint32_t STD_QUERY = 0xfe0016;
constexpr uint32_t STD_QUERY_OP = 0xfe0017;
constexpr uint32_t STD_MAXOBJS = 0xfe0018;

// --- values of SYS_TYPE and SYS_STATUS -------------------------------------------------------
constexpr unsigned int TYPE_REQUEST = 1;
constexpr unsigned int TYPE_REPLY = 2;
constexpr unsigned int STATUS_OK = 1;
constexpr unsigned int STATUS_ERROR = 2;

// --- command codes (values of SYS_CMD) -------------------------------------------------------
constexpr unsigned int CMD_NOOP = 0xfe0000;
constexpr unsigned int CMD_GETPOLICIES = 0xfe0001;
constexpr unsigned int CMD_GETOBJ = 0xfe0002;
constexpr unsigned int CMD_SETOBJ = 0xfe0003;
constexpr unsigned int CMD_GETALL = 0xfe0004;
constexpr unsigned int CMD_ADDOBJ = 0xfe0005;
constexpr unsigned int CMD_REMOVEOBJ = 0xfe0006;
constexpr unsigned int CMD_MOVEOBJ = 0xfe0007;
constexpr unsigned int CMD_NOTIFY = 0xfe000b;
constexpr unsigned int CMD_SHUTDOWN = 0xfe000c;
constexpr unsigned int CMD_GET = 0xfe000d;
constexpr unsigned int CMD_SET = 0xfe000e;
constexpr unsigned int CMD_START = 0xfe000f;
constexpr unsigned int CMD_POLL = 0xfe0010;
constexpr unsigned int CMD_CANCEL = 0xfe0011;
constexpr unsigned int CMD_SUBSCRIBE = 0xfe0012;
constexpr unsigned int CMD_UNSUBSCRIBE = 0xfe0013;
constexpr unsigned int CMD_DISCONNECTED = 0xfe0014;
constexpr unsigned int CMD_GETCOUNT = 0xfe0015;
constexpr unsigned int CMD_RESET = 0xfe0016;

// --- first elements of SYS_TO with a fixed meaning ---------------------------------------------
constexpr unsigned int PATH_BOTH = 0xff0001;   // the loader's side and this process
constexpr unsigned int PATH_MULTI = 0xff0002;  // a list of several destinations
constexpr unsigned int PATH_LOCAL = 0xff0003;  // this process

// --- error codes (values of SYS_ERRNO) ---------------------------------------------------------
constexpr unsigned int ERROR_OK = 0;
constexpr unsigned int ERROR_UNKNOWN = 0xfe0001;
constexpr unsigned int ERROR_BRKPATH = 0xfe0002;
constexpr unsigned int ERROR_NOTIMP = 0xfe0003;
constexpr unsigned int ERROR_UNKNOWNID = 0xfe0004;
constexpr unsigned int ERROR_MISSING = 0xfe0005;
constexpr unsigned int ERROR_FAILED = 0xfe0006;
constexpr unsigned int ERROR_EXISTS = 0xfe0007;
constexpr unsigned int ERROR_NOTALLOWED = 0xfe0009;
constexpr unsigned int ERROR_TOOBIG = 0xfe000a;
constexpr unsigned int ERROR_UNKNOWNNEXTID = 0xfe000b;
constexpr unsigned int ERROR_BUSY = 0xfe000c;
constexpr unsigned int ERROR_TIMEOUT = 0xfe000d;
constexpr unsigned int ERROR_TOOMUCH = 0xfe000e;

// --- header helpers ------------------------------------------------------------------------
// SYS_TYPE, 1 (request) when absent.
unsigned int getType(const message& m);
bool isRequest(const message& m);  // a message without SYS_TYPE is a request
bool isReply(const message& m);
// Replaces SYS_TYPE.
void setType(message& m, unsigned int type);
bool isReplyExpected(const message& m);
// False when SYS_REQID is absent; otherwise stores it through `id` (when not null).
bool getRequestID(const message& m, unsigned int* id);
// Replaces SYS_REQID.
void setRequestID(message& m, unsigned int id);
// False when SYS_CTRL is absent; otherwise stores it through `ctrl` (when not null).
bool isCtrl(const message& m, unsigned int* ctrl);

// A new error reply body: SYS_STATUS = STATUS_ERROR, SYS_ERRNO = code, and SYS_ERRSTR = text
// when text is not empty.
message errorMsg(unsigned int code, const std::string& text);
// errorMsg(ERROR_FAILED, "control message (<ctrl>)"), ctrl as signed decimal.
message ctrlErrorMsg(unsigned int ctrl);
// False unless SYS_STATUS is STATUS_ERROR; then stores SYS_ERRNO (ERROR_UNKNOWN when absent)
// and SYS_ERRSTR ("" when absent) through the pointers that are not null.
bool isError(const message& m, unsigned int* code, std::string* text);
// The error sentence: "std failure: broken path (2)", "global failure: 7", or, when `text`
// is not empty, the text itself followed by " (<number>)".
std::string getErrorDescr(unsigned int code, const std::string& text);
// getErrorDescr of an error message, "ok" for any other.
std::string getError(const message& m);

// Removes the standard object fields STD_ID, STD_OBJS, STD_GETALLID, STD_GETALLNO,
// STD_NEXTID, STD_UNDOID, STD_DYNAMIC, STD_INACTIVE, STD_DESCR and STD_DISABLED.
void cleanStd(message& m);
// Removes the routing header: SYS_TO, SYS_FROM, SYS_TYPE, SYS_STATUS, SYS_REPLYEXP,
// SYS_REQID, SYS_CMD, SYS_ERRNO, SYS_USER, SYS_POLICY and SYS_CTRL. SYS_ERRSTR and
// SYS_CTRL_ARG stay.
void cleanSys(message& m);

// The dump's name of a field id: the SYS_ or STD_ name of a known number (type bits
// ignored), else "<namespace>(<number>)" with namespace "global", "local", "std", "sys" or
// "ns". The result may live in a static buffer that the next call overwrites.
const char* fieldIdName(unsigned int id);
// The dump's text of a u32 value: a TYPE_, STATUS_, CMD_ or ERROR_ name for the header
// fields that hold those, else "<signed decimal> 0x<hex> <a.b.c.d>". Same buffer rule.
const char* fieldValueName(unsigned int id, unsigned int value);

}  // namespace kl

#endif  // KL_MESSAGE_SYSTEM_H_
