#include "kl/message/system.h"

#include <gtest/gtest.h>

namespace kl {
namespace {

TEST(System, HeaderDefaultsOfAnEmptyMessage) {
  message m;
  EXPECT_TRUE(isRequest(m));
  EXPECT_FALSE(isReply(m));
  EXPECT_EQ(getType(m), 1u);
  EXPECT_FALSE(isReplyExpected(m));
  EXPECT_FALSE(getRequestID(m, nullptr));
  EXPECT_FALSE(isCtrl(m, nullptr));
  EXPECT_FALSE(isError(m, nullptr, nullptr));
  EXPECT_EQ(getError(m), "ok");
}

TEST(System, HeaderSettersReplace) {
  message m;
  setType(m, TYPE_REPLY);
  setType(m, TYPE_REPLY);
  EXPECT_TRUE(isReply(m));
  setRequestID(m, 41);
  setRequestID(m, 42);
  unsigned int id = 0;
  EXPECT_TRUE(getRequestID(m, &id));
  EXPECT_EQ(id, 42u);
  EXPECT_TRUE(getRequestID(m, nullptr));
  m.insert(SYS_CTRL, 5);
  unsigned int ctrl = 0;
  EXPECT_TRUE(isCtrl(m, &ctrl));
  EXPECT_EQ(ctrl, 5u);
  m.insert_bool(SYS_REPLYEXP, true);
  EXPECT_TRUE(isReplyExpected(m));
}

TEST(System, ErrorMessages) {
  message busy = errorMsg(ERROR_BUSY, "");
  EXPECT_EQ(busy.get(SYS_STATUS, 0), STATUS_ERROR);
  EXPECT_EQ(busy.get(SYS_ERRNO, 0), ERROR_BUSY);
  EXPECT_EQ(busy.size_field(SYS_ERRSTR), 0u);
  EXPECT_EQ(getError(busy), "std failure: busy (12)");

  message ctrl = ctrlErrorMsg(7);
  unsigned int code = 0;
  std::string text;
  EXPECT_TRUE(isError(ctrl, &code, &text));
  EXPECT_EQ(code, 0xfe0006u);
  EXPECT_EQ(text, "control message (7)");
  EXPECT_EQ(ctrlErrorMsg(0xFFFFFFFF).get_string(SYS_ERRSTR, ""), "control message (-1)");

  message bare;
  bare.insert(SYS_STATUS, STATUS_ERROR);
  text = "stale";
  EXPECT_TRUE(isError(bare, &code, &text));
  EXPECT_EQ(code, ERROR_UNKNOWN);
  EXPECT_EQ(text, "");
}

TEST(System, ErrorDescriptions) {
  const struct {
    unsigned int code;
    const char* text;
    const char* expected;
  } cases[] = {
      {0xfe0002, "", "std failure: broken path (2)"},
      {0x000007, "", "global failure: 7"},
      {0x120005, "", "undefined failure: 5"},
      {0xfe0006, "disk full", "disk full (6)"},
      {0xfe000f, "", "std failure: 15"},
      {0xfe000e, "", "std failure: too much (14)"},
      {0xfe0008, "", "std failure: ??? (8)"},
      {0xfe0000, "", "std failure: no error (0)"},
      {ERROR_OK, "", "global failure: 0"},
      {0xfd0003, "", "local failure: 3"},
      {0xff0002, "", "sys failure: 2"},
      {0x12ffff, "x", "x (65535)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_EQ(getErrorDescr(c.code, c.text), c.expected);
  }
}

TEST(System, FieldIdNames) {
  const struct {
    unsigned int id;
    const char* expected;
  } cases[] = {
      {SYS_TO, "SYS_TO"},
      {0xff0001, "SYS_TO"},
      {SYS_REQID, "SYS_REQID"},
      {SYS_ERRSTR, "SYS_ERRSTR"},
      {0xff000c, "sys(12)"},
      {0x00ff000e, "SYS_RADDR"},
      {SYS_CTRL_ARG, "SYS_CTRL_ARG"},
      {SYS_NOTIFYCMD, "sys(17)"},
      {STD_OBJS, "STD_OBJS"},
      {0xfe000b, "STD_FINISHED"},
      {0xfe000c, "std(12)"},
      {STD_OBJ_COUNT, "STD_OBJ_COUNT"},
      {0x20000003, "global(3)"},
      {0x08fd0010, "local(16)"},
      {0x08120005, "ns(5)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_STREQ(fieldIdName(c.id), c.expected);
  }
}

TEST(System, FieldValueNamesFallThrough) {
  const struct {
    unsigned int id;
    unsigned int value;
    const char* expected;
  } cases[] = {
      {SYS_TYPE, 1, "TYPE_REQUEST"},
      {SYS_TYPE, 2, "TYPE_REPLY"},
      {SYS_TYPE, CMD_GETALL, "CMD_GETALL"},
      {SYS_TYPE, ERROR_BUSY, "ERROR_BUSY"},
      {SYS_STATUS, 1, "STATUS_OK"},
      {SYS_STATUS, 2, "STATUS_ERROR"},
      {SYS_CMD, 1, "1 0x1 0.0.0.1"},
      {SYS_CMD, CMD_RESET, "CMD_RESET"},
      {SYS_CMD, 0xfe0009, "ERROR_NOTALLOWED"},
      {SYS_CMD, CMD_SUBSCRIBE, "16646162 0xfe0012 0.254.0.18"},
      {SYS_ERRNO, 0, "ERROR_OK"},
      {SYS_ERRNO, 2, "2 0x2 0.0.0.2"},
      {SYS_ERRNO, CMD_GETOBJ, "ERROR_BRKPATH"},
      {SYS_ERRNO, 0xfe0008, "16646152 0xfe0008 0.254.0.8"},
      {SYS_REQID, 0x0a000001, "167772161 0xa000001 10.0.0.1"},
      {SYS_REQID, 1, "1 0x1 0.0.0.1"},
      {STD_ID, 0xFFFFFFFF, "-1 0xffffffff 255.255.255.255"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_STREQ(fieldValueName(c.id, c.value), c.expected);
  }
}

TEST(System, CleanSysKeepsErrorTextAndControlArgument) {
  message m = errorMsg(ERROR_FAILED, "why");
  m.insert(SYS_TO, {1, 2});
  m.insert(SYS_FROM, {3});
  setType(m, TYPE_REPLY);
  m.insert_bool(SYS_REPLYEXP, true);
  setRequestID(m, 9);
  m.insert(SYS_CMD, CMD_GET);
  m.insert_string(SYS_USER, "admin");
  m.insert(SYS_POLICY, 3);
  m.insert(SYS_CTRL, 4);
  m.insert(SYS_CTRL_ARG, 5);
  m.insert(STD_ID, 6);
  cleanSys(m);
  message expected;
  expected.insert_string(SYS_ERRSTR, "why");
  expected.insert(SYS_CTRL_ARG, 5);
  expected.insert(STD_ID, 6);
  EXPECT_TRUE(m == expected);
}

TEST(System, CleanStdRemovesTheStandardObjectFields) {
  message m;
  m.insert(STD_ID, 1);
  m.insert_message_array(STD_OBJS, {});
  m.insert(STD_GETALLID, 2);
  m.insert(STD_GETALLNO, 3);
  m.insert(STD_NEXTID, 4);
  m.insert(STD_UNDOID, 5);
  m.insert_bool(STD_DYNAMIC, true);
  m.insert_bool(STD_INACTIVE, true);
  m.insert_string(STD_DESCR, "d");
  m.insert_bool(STD_DISABLED, true);
  m.insert(STD_OBJ_COUNT, 7);
  m.insert(SYS_CMD, 8);
  cleanStd(m);
  message expected;
  expected.insert(STD_OBJ_COUNT, 7);
  expected.insert(SYS_CMD, 8);
  EXPECT_TRUE(m == expected);
}

}  // namespace
}  // namespace kl
